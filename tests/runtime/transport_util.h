// Shared by the transport tests: raw datagrams, message blocks, a recording handler.
#pragma once

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <mutex>
#include <semaphore>
#include <string>
#include <vector>

#include "ibp/ibp.h"

namespace ibptest {

using Bytes = std::vector<u8>;

// A message block as it travels, header and body.
inline Bytes MakeBlock(u32 ulType, u32 ulMsgID, u32 ulSrcModule, u32 ulDstModule, u32 ulSrcProc, u32 ulDstProc,
                       const std::string &body, u32 ulAssMsgID = 0)
{
    const u32 ulLen = static_cast<u32>(body.size());
    const MSG_HDR_S hdr = {MSG_PREFIX,  ulType,    ulMsgID,   ulAssMsgID, MSG_HDR_LEN + ulLen, ulLen, ulSrcModule,
                           ulDstModule, ulSrcProc, ulDstProc, 0,          0,                   0};
    Bytes b(reinterpret_cast<const u8 *>(&hdr), reinterpret_cast<const u8 *>(&hdr + 1));
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
    explicit RawPeer(u16 usPort) : fd_(socket(AF_INET, SOCK_DGRAM, 0))
    {
        sockaddr_in a = Addr(usPort);
        bound_ = fd_ >= 0 && bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof(a)) == 0;
        timeval tv{5, 0};  // a safety bound only
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    }
    ~RawPeer() { close(fd_); }
    bool Bound() const { return bound_; }
    bool SendTo(u16 usPort, const Bytes &b) const
    {
        sockaddr_in a = Addr(usPort);
        return sendto(fd_, b.data(), b.size(), 0, reinterpret_cast<sockaddr *>(&a), sizeof(a)) == ssize_t(b.size());
    }
    Bytes Recv() const
    {
        Bytes b(8192);
        b.resize(std::max<ssize_t>(recv(fd_, b.data(), b.size(), 0), 0));
        return b;
    }

private:
    static sockaddr_in Addr(u16 usPort) { return {AF_INET, htons(usPort), {htonl(INADDR_LOOPBACK)}, {}}; }
    int fd_;
    bool bound_ = false;
};

// Catch-all handler that records what a module receives, answers synchronous
// requests with an echo of the body and forwards a clone of one message id.
struct Recorder {
    u32 ulForwardID = 0, ulForwardTo = 0;  // set before the first message comes

    static u32 Handle(u32, MSG_HANDLE hMsg, void *pParam)
    {
        auto *self = static_cast<Recorder *>(pParam);
        void *pBody = nullptr;
        u32 ulLen = 0;
        MSG_Decode(hMsg, &pBody, &ulLen);
        const MSG_HDR_S hdr = *static_cast<MSG_HDR_S *>(hMsg->pMem);
        {  // recorded before answering, so that whoever got the answer finds the record
            std::lock_guard<std::mutex> lock(self->mu_);
            self->hdrs_.push_back(hdr);
            self->bodies_.emplace_back(static_cast<char *>(pBody), ulLen);
        }
        self->sem_.release();
        if (hdr.enMsgType == MSG_TYPE_SYNC_REQ)
            ISP_SendAckMsg(hMsg, pBody, ulLen);
        if (self->ulForwardTo != 0 && hdr.ulMsgID == self->ulForwardID)
            MSG_ForwardMsg(self->ulForwardTo, MSG_Clone(hMsg));
        return 0;
    }
    // Waits until n messages have arrived in all; 5 s is a safety bound only.
    bool WaitFor(size_t n)
    {
        while (Bodies().size() < n)
            if (!sem_.try_acquire_for(std::chrono::seconds(5)))
                return false;
        return true;
    }
    std::vector<MSG_HDR_S> Hdrs()
    {
        std::lock_guard<std::mutex> lock(mu_);
        return hdrs_;
    }
    std::vector<std::string> Bodies()
    {
        std::lock_guard<std::mutex> lock(mu_);
        return bodies_;
    }

private:
    std::counting_semaphore<> sem_{0};
    std::mutex mu_;
    std::vector<MSG_HDR_S> hdrs_;
    std::vector<std::string> bodies_;
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
