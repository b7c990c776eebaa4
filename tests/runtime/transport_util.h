// Shared by the transport tests: raw datagrams, message blocks, a recording handler.
#pragma once

#include <arpa/inet.h>
#include <semaphore.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

#include "ibp/ibp.h"

namespace ibptest {

using Bytes = std::vector<u8>;

// A message block as it travels, header and body.
inline Bytes MakeBlock(u32 ulType, u32 ulMsgID, u32 ulSrcModule, u32 ulDstModule, u32 ulSrcProc,
                       u32 ulDstProc, const std::string &body, u32 ulAssMsgID = 0)
{
    MSG_HDR_S hdr{};
    hdr.ulPrefix = MSG_PREFIX;
    hdr.enMsgType = ulType;
    hdr.ulMsgID = ulMsgID;
    hdr.ulAssMsgID = ulAssMsgID;
    hdr.ulMsgLen = static_cast<u32>(MSG_HDR_LEN + body.size());
    hdr.ulMsgBodyLen = static_cast<u32>(body.size());
    hdr.ulSrcModuleID = ulSrcModule;
    hdr.ulDstModuleID = ulDstModule;
    hdr.ulSrcProcID = ulSrcProc;
    hdr.ulDstProcID = ulDstProc;
    Bytes b(reinterpret_cast<u8 *>(&hdr), reinterpret_cast<u8 *>(&hdr) + sizeof(hdr));
    b.insert(b.end(), body.begin(), body.end());
    return b;
}

// From the debug tool's process module to a module of the service process.
inline Bytes FromDt(u32 ulType, u32 ulMsgID, u32 ulDstModule, const std::string &body, u32 ulAss = 0)
{
    return MakeBlock(ulType, ulMsgID, MOD_PROC_MODULE_ID, ulDstModule, MOD_PROC_ID_DT, MOD_PROC_ID_ISP, body, ulAss);
}

inline Bytes operator+(Bytes a, const Bytes &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// A plain UDP socket on 127.0.0.1 that stands in for the other process.
class RawPeer {
public:
    explicit RawPeer(u16 usPort)
    {
        fd_ = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in a = Addr(usPort);
        bound_ = fd_ >= 0 && bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof(a)) == 0;
        timeval tv{5, 0};  // a safety bound only: nothing waits this long when all is well
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    }
    ~RawPeer()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    bool Bound() const { return bound_; }
    bool SendTo(u16 usPort, const Bytes &b) const
    {
        sockaddr_in a = Addr(usPort);
        return sendto(fd_, b.data(), b.size(), 0, reinterpret_cast<sockaddr *>(&a), sizeof(a)) ==
               static_cast<ssize_t>(b.size());
    }
    Bytes Recv() const
    {
        Bytes b(8192);
        ssize_t n = recv(fd_, b.data(), b.size(), 0);
        b.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return b;
    }

private:
    static sockaddr_in Addr(u16 usPort)
    {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(usPort);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return a;
    }
    int fd_ = -1;
    bool bound_ = false;
};

// Catch-all handler that records what a module receives and, for synchronous
// requests, answers with an echo of the body.
class Recorder {
public:
    struct Msg {
        MSG_HDR_S hdr;
        std::string body;
    };
    Recorder() { sem_init(&sem_, 0, 0); }
    ~Recorder() { sem_destroy(&sem_); }

    static u32 Handle(u32, MSG_HANDLE hMsg, void *pParam)
    {
        auto *self = static_cast<Recorder *>(pParam);
        void *pBody = nullptr;
        u32 ulLen = 0;
        MSG_Decode(hMsg, &pBody, &ulLen);
        Msg m{*static_cast<MSG_HDR_S *>(hMsg->pMem), std::string(static_cast<char *>(pBody), ulLen)};
        if (m.hdr.enMsgType == MSG_TYPE_SYNC_REQ && self->echo_)
            ISP_SendAckMsg(hMsg, pBody, ulLen);
        if (self->forwardTo_ != 0 && m.hdr.ulMsgID == self->forwardID_)
            MSG_ForwardMsg(self->forwardTo_, MSG_Clone(hMsg));
        {
            std::lock_guard<std::mutex> lock(self->mu_);
            self->msgs_.push_back(m);
        }
        sem_post(&self->sem_);
        return 0;
    }
    // Waits (at most 5 s, a safety bound) until n messages have arrived in all.
    bool WaitFor(size_t n)
    {
        while (Count() < n) {
            timespec ts;
            clock_gettime(CLOCK_REALTIME, &ts);
            ts.tv_sec += 5;
            if (sem_timedwait(&sem_, &ts) != 0 && errno == ETIMEDOUT)
                return Count() >= n;
        }
        return true;
    }
    size_t Count()
    {
        std::lock_guard<std::mutex> lock(mu_);
        return msgs_.size();
    }
    std::vector<Msg> Msgs()
    {
        std::lock_guard<std::mutex> lock(mu_);
        return msgs_;
    }
    void Echo(bool b) { echo_ = b; }
    void Forward(u32 ulMsgID, u32 ulTo)
    {
        forwardID_ = ulMsgID;
        forwardTo_ = ulTo;
    }

private:
    sem_t sem_;
    std::mutex mu_;
    std::vector<Msg> msgs_;
    bool echo_ = true;
    u32 forwardID_ = 0;
    u32 forwardTo_ = 0;
};

inline IBP_INIT_S StartRecord(u32 bIsDt, LOG_OUTPUT_PFN pfnOutput, u32 ulLevel = 0)
{
    IBP_INIT_S st{};
    st.bIsDt = bIsDt;
    st.stLogInit.ulOutputMode = LOG_OUTPUT_FUNC;
    st.stLogInit.pfnOutput = pfnOutput;
    for (u32 &l : st.stLogInit.aulLevel)
        l = ulLevel;
    return st;
}

}  // namespace ibptest
