// Sockets of the tests, the soak run's sender and the benchmarks: message blocks as they travel, a
// plain UDP socket that sends and takes them, a socket's options, and the start record of a process
// whose log goes to an output function.
#pragma once

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
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

// An integer option of a socket; -1 when it cannot be read.
inline int SockOpt(int fd, int level, int name)
{
    int value = -1;
    socklen_t len = sizeof(value);
    return getsockopt(fd, level, name, &value, &len) == 0 ? value : -1;
}

// The start record of a process whose log goes to pfnOutput, every threshold at ulLevel.
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
