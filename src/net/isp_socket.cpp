// Socket control blocks, their fixed options and global list, UDP endpoints,
// the MAC address helper and the socket display.
#include "ibp/isp_socket.h"

#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <net/if.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>

#include "common/cmd_display.h"
#include "common/handle_set.h"
#include "ibp/isp_system.h"
#include "log/log_internal.h"
#include "net/isp_socket_priv.h"
#include "common/mod_list.h"

IBP_LOG_SOURCE("isp_socket");

namespace {

// All control blocks, newest first. No lock: sockets come and go at start-up
// and shut-down, on one thread.
MOD_LIST_S gstSocketList = {&gstSocketList, &gstSocketList};

// The same blocks, for the handle check of every call; descriptors below
// 1024 bound their number anyway.
HandleSet<11> gstLiveSockets;
// Blocks destroyed since: told from a block a caller made itself, which the
// poll takes as it is (it reads its descriptor).
HandleSet<11> gstDeadSockets;

// select() and friends elsewhere in the system cannot take larger descriptors.
constexpr s32 kMaxSocketFd = 1024;
constexpr u32 kMacLen = 6;

constexpr int kOn = 1;
constexpr struct linger kNoLinger = {0, 1};  // off: close returns at once

// The fixed options after non-blocking mode, in the order they are set.
struct SktOption {
    int lLevel;
    int lName;
    const char *pcName;
    const void *pValue;
    socklen_t ulLen;
    bool bTcpOnly;
    bool bFatal;
};

constexpr SktOption kFixedOptions[] = {
    {SOL_SOCKET, SO_REUSEADDR, "SO_REUSEADDR", &kOn, sizeof(kOn), false, true},
    {IPPROTO_TCP, TCP_NODELAY, "TCP_NODELAY", &kOn, sizeof(kOn), true, false},
    {SOL_SOCKET, SO_LINGER, "SO_LINGER", &kNoLinger, sizeof(kNoLinger), true, true},
    {SOL_SOCKET, SO_KEEPALIVE, "SO_KEEPALIVE", &kOn, sizeof(kOn), true, true},
};

// Buffer sizes, set only when the block asks for one.
struct SktBufOption {
    int lName;
    const char *pcName;
    u32 SKT_SOCKET_CB_S::*pulSize;
};

constexpr SktBufOption kBufOptions[] = {
    {SO_SNDBUF, "SO_SNDBUF", &SKT_SOCKET_CB_S::ulSndBufSize},
    {SO_RCVBUF, "SO_RCVBUF", &SKT_SOCKET_CB_S::ulRcvBufSize},
};

}  // namespace

SKT_SOCKET_CB_S *SKT_CreateSocket(const SKT_SOCK_INFO_S *pstSockInfo, u32 ulProto)
{
    if (pstSockInfo == nullptr) {
        IBP_ERR("pstSockInfo is NULL");
        return nullptr;
    }
    auto *pstSocketCB = static_cast<SKT_SOCKET_CB_S *>(ISP_calloc(0, 1, sizeof(SKT_SOCKET_CB_S)));
    if (pstSocketCB == nullptr) {
        IBP_ERR("calloc %zd fail", sizeof(SKT_SOCKET_CB_S));
        return nullptr;
    }
    (void)gstDeadSockets.Remove(pstSocketCB);  // the heap gave the address again
    if (!gstLiveSockets.Add(pstSocketCB)) {
        IBP_ERR("too many sockets! max=%u", gstLiveSockets.kMaxLive);
        ISP_free(&pstSocketCB);
        return nullptr;
    }
    // Inserting before the first element puts the new block at the front.
    MOD_ListAddTail(gstSocketList.pstNext, &pstSocketCB->stNode);
    pstSocketCB->ulModuleID = pstSockInfo->ulModuleID;
    pstSocketCB->enRole = pstSockInfo->enRole;
    pstSocketCB->ulRemoteIp = pstSockInfo->ulRemoteIp;
    pstSocketCB->usRemotePort = pstSockInfo->usRemotePort;
    pstSocketCB->lTimeOut = pstSockInfo->lTimeOut;
    pstSocketCB->ulSndBufSize = pstSockInfo->ulSndBufSize;
    pstSocketCB->ulRcvBufSize = pstSockInfo->ulRcvBufSize;
    pstSocketCB->ulProto = ulProto;
    pstSocketCB->lListenSocket = -1;
    pstSocketCB->lSocket =
        ISP_socket(AF_INET, (ulProto == SKT_PROTO_TCP) ? SOCK_STREAM : SOCK_DGRAM, 0);
    if (pstSocketCB->lSocket == -1 || pstSocketCB->lSocket >= kMaxSocketFd) {
        IBP_ERR("create socket failed! error:%s socket:%d", strerror(errno), pstSocketCB->lSocket);
        SKT_DestroySocket(&pstSocketCB);
        return nullptr;
    }
    return pstSocketCB;
}

u32 SKT_SetSockProperty(SKT_SOCKET_CB_S *pstSocketCB)
{
    if (pstSocketCB == nullptr) {
        IBP_ERR("pstSocketCB is NULL");
        return 1;
    }
    s32 lSocket = pstSocketCB->lSocket;
    if (lSocket < 0) {
        IBP_ERR("socket %d illegal", lSocket);
        return 1;
    }
    int lNonBlock = 1;
    if (ISP_ioctl(lSocket, FIONBIO, &lNonBlock) != 0) {
        IBP_ERR("ioctl() socket failed, error:%s, lSocket:%d", strerror(errno), lSocket);
        return 1;
    }
    for (const SktOption &stOpt : kFixedOptions) {
        if (stOpt.bTcpOnly && pstSocketCB->ulProto != SKT_PROTO_TCP)
            continue;
        if (ISP_setsockopt(lSocket, stOpt.lLevel, stOpt.lName, stOpt.pValue, stOpt.ulLen) == 0)
            continue;
        IBP_ERR("setsockopt %s failed, error:%s, lSocket:%d", stOpt.pcName, strerror(errno), lSocket);
        if (stOpt.bFatal)
            return 1;
    }
    for (const SktBufOption &stOpt : kBufOptions) {
        u32 ulSize = pstSocketCB->*stOpt.pulSize;
        if (ulSize == 0)
            continue;
        int lSize = static_cast<int>(ulSize);
        if (ISP_setsockopt(lSocket, SOL_SOCKET, stOpt.lName, &lSize, sizeof(lSize)) != 0) {
            IBP_ERR("setsockopt %s failed, error:%s, lSocket:%d, ulSysBufferSize:%u", stOpt.pcName,
                    strerror(errno), lSocket, ulSize);
            return 1;
        }
    }
    return 0;
}

void SKT_DestroySocket(SKT_SOCKET_CB_S **ppstSocketCB)
{
    HANDLE_REFUSE_IF(gstLiveSockets.Refusal(ppstSocketCB == nullptr ? nullptr : *ppstSocketCB,
                                            "*ppstSocketCB is NULL", "*ppstSocketCB is invalid"), );
    SKT_SOCKET_CB_S *pstSocketCB = *ppstSocketCB;
    // Of two threads destroying one block, the one that did not take it out is refused.
    HANDLE_REFUSE_IF(gstLiveSockets.Remove(pstSocketCB) ? nullptr : "*ppstSocketCB is invalid", );
    (void)gstDeadSockets.Add(pstSocketCB);  // a full set forgets it: best effort
    MOD_ListDel(&pstSocketCB->stNode);
    for (s32 *plFd : {&pstSocketCB->lSocket, &pstSocketCB->lListenSocket}) {
        if (*plFd >= 0)
            ISP_closesocket(*plFd);
        *plFd = -1;
    }
    ISP_free(ppstSocketCB);
}

const char *SKT_Refusal(const SKT_SOCKET_CB_S *pstSocketCB, const char *pcNullText)
{
    return gstLiveSockets.Refusal(pstSocketCB, pcNullText, "pstSocketCB is invalid");
}

bool SKT_WasDestroyed(const SKT_SOCKET_CB_S *pstSocketCB) { return gstDeadSockets.Contains(pstSocketCB); }

int SktBindLocal(const SKT_SOCKET_CB_S *pstSocketCB, const SKT_SOCK_INFO_S *pstSockInfo)
{
    struct sockaddr_in stAddr = SktSockAddr(pstSockInfo->ulLocalIp, pstSockInfo->usLocalPort);
    return ISP_bind(pstSocketCB->lSocket, reinterpret_cast<const struct sockaddr *>(&stAddr), sizeof(stAddr));
}

extern "C" {

IBP_API SKT_HANDLE SKT_UdpInit(const SKT_SOCK_INFO_S *pstSockInfo)
{
    if (pstSockInfo == nullptr) {
        IBP_ERR("pstSockInfo is NULL");
        return nullptr;
    }
    SKT_SOCKET_CB_S *pstSocketCB = SKT_CreateSocket(pstSockInfo, SKT_PROTO_UDP);
    if (pstSocketCB == nullptr) {
        IBP_ERR("SKT_CreateSocket() failed!");
        return nullptr;
    }
    // Buffer sizes are a TCP matter; a UDP endpoint keeps the system's.
    pstSocketCB->ulSndBufSize = 0;
    pstSocketCB->ulRcvBufSize = 0;
    pstSocketCB->enSockStatus = SKT_STATUS_IDLE;
    if (SKT_SetSockProperty(pstSocketCB) != 0) {
        IBP_ERR("SKT_SetSockProperty() failed! lSocket:%d localip:%s port:%hu", pstSocketCB->lSocket,
                SktIpText(pstSockInfo->ulLocalIp).c_str(), ISP_ntohs(pstSockInfo->usLocalPort));
        SKT_DestroySocket(&pstSocketCB);
        return nullptr;
    }
    if (pstSockInfo->enRole == SKT_ROLE_SERVER && SktBindLocal(pstSocketCB, pstSockInfo) != 0) {
        IBP_ERR("bind socket failed! error:%s lSocket:%d localip:%s port:%hu", strerror(errno),
                pstSocketCB->lSocket, SktIpText(pstSockInfo->ulLocalIp).c_str(),
                ISP_ntohs(pstSockInfo->usLocalPort));
        SKT_DestroySocket(&pstSocketCB);
        return nullptr;
    }
    return pstSocketCB;
}

IBP_API void SKT_UdpDestroy(SKT_HANDLE *phSocket)
{
    if (phSocket == nullptr) {
        IBP_ERR("phSocket is NULL");
        return;
    }
    // A copy: the caller's variable keeps its (now stale) value.
    SKT_SOCKET_CB_S *pstSocketCB = *phSocket;
    SKT_DestroySocket(&pstSocketCB);
}

IBP_API s32 SKT_GetSocketFD(SKT_HANDLE hSocket)
{
    HANDLE_REFUSE_IF(SKT_Refusal(hSocket), -1);
    return hSocket->lSocket;
}

IBP_API u32 SKT_GetMacAddr(const char *pcNetName, u8 *pucMacAddr)
{
    if (pcNetName == nullptr) {
        IBP_ERR("pcNetName is NULL!");
        return 1;
    }
    if (pucMacAddr == nullptr) {
        IBP_ERR("pucMacAddr is NULL!");
        return 1;
    }
    int lSocket = ISP_socket(AF_INET, SOCK_DGRAM, 0);
    if (lSocket < 0) {
        IBP_ERR("create socket failed! error:%d %s", errno, strerror(errno));
        return 1;
    }
    struct ifreq stReq;
    memset(&stReq, 0, sizeof(stReq));
    ISP_strncpy(stReq.ifr_name, pcNetName, IFNAMSIZ - 1);
    int lRet = ISP_ioctl(lSocket, SIOCGIFHWADDR, &stReq);
    ISP_closesocket(lSocket);
    if (lRet != 0)
        return 1;
    memcpy(pucMacAddr, stReq.ifr_hwaddr.sa_data, kMacLen);
    return 0;
}

IBP_API u32 SKT_PrintSock(u32 *pulOutBufLen, char *pcOutBuf)
{
    CMD_DISPLAY_CHECK_ARGS(pulOutBufLen, pcOutBuf);
    CmdDisplay stOut(pcOutBuf, *pulOutBufLen);
    stOut.Append("%-10s %-10s %-16s %-8s %-10s %-16s %-10s %-10s \n", "SocketFd", "ModuleID", "IPAddr", "Port",
                 "TCP/UDP", "Server/Client", "Status", "Timeout(ms)");
    for (MOD_LIST_S *pstLink = gstSocketList.pstNext; pstLink != &gstSocketList; pstLink = pstLink->pstNext) {
        const SKT_SOCKET_CB_S *pstSocketCB = MOD_ListEntry(pstLink, &SKT_SOCKET_CB_S::stNode);
        // Always the remote address: what the description said of the peer.
        stOut.Append("%-10lu %#-10x %-16s %-8hu %-10s %-16s %-10d %-10ld \n",
                     static_cast<unsigned long>(static_cast<u32>(pstSocketCB->lSocket)), pstSocketCB->ulModuleID,
                     SktIpText(pstSocketCB->ulRemoteIp).c_str(), ISP_ntohs(pstSocketCB->usRemotePort),
                     pstSocketCB->ulProto == SKT_PROTO_TCP ? "TCP" : "UDP",
                     pstSocketCB->enRole == SKT_ROLE_CLIENT ? "Client" : "Server",
                     static_cast<int>(pstSocketCB->enSockStatus), static_cast<long>(pstSocketCB->lTimeOut));
    }
    *pulOutBufLen = stOut.Length();
    return 0;
}

}  // extern "C"
