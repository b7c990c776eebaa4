// TCP endpoints: creation, the step-wise connect/accept, polling, sending
// with a retry budget, and receiving.
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/ioctl.h>

#include "ibp/isp_socket.h"
#include "ibp/isp_system.h"
#include "common/handle_set.h"
#include "log/log_internal.h"
#include "net/isp_socket_priv.h"

IBP_LOG_SOURCE("isp_socket");

namespace {

constexpr u32 kDefaultSleepMs = 20;

// Frees the poll array on every way out of SKT_TcpPollSock.
class SktPollArray {
public:
    explicit SktPollArray(u32 ulNum)
        : pstFds_(static_cast<struct pollfd *>(ISP_calloc(0, ulNum, sizeof(struct pollfd))))
    {
    }
    ~SktPollArray() { ISP_free(&pstFds_); }
    SktPollArray(const SktPollArray &) = delete;
    SktPollArray &operator=(const SktPollArray &) = delete;
    struct pollfd *Get() const { return pstFds_; }

private:
    struct pollfd *pstFds_;
};

// Waits for the given events on this one socket.
u32 SktPollOne(SKT_SOCKET_CB_S *pstSocketCB, u16 usEvents)
{
    pstSocketCB->usEvents = usEvents;
    return SKT_TcpPollSock(1, &pstSocketCB, pstSocketCB->lTimeOut);
}

// Status 1: a connect at once; EINPROGRESS hands over to the next step.
u32 SktConnectStart(SKT_SOCKET_CB_S *pstSocketCB)
{
    struct sockaddr_in stPeer = SktSockAddr(pstSocketCB->ulRemoteIp, pstSocketCB->usRemotePort);
    if (ISP_connect(pstSocketCB->lSocket, reinterpret_cast<const struct sockaddr *>(&stPeer), sizeof(stPeer)) == 0) {
        pstSocketCB->enSockStatus = SKT_STATUS_CONNECTED;
        return 0;
    }
    // Any other failure leaves the block in status 1 for the caller to retry.
    if (errno == EINPROGRESS)
        pstSocketCB->enSockStatus = SKT_STATUS_CONNECTING;
    return 1;
}

// Status 2: wait for the handshake, then ask the socket how it ended.
u32 SktConnectFinish(SKT_SOCKET_CB_S *pstSocketCB)
{
    if (SktPollOne(pstSocketCB, POLLIN | POLLOUT) != 0) {
        IBP_DBG("There are no connection ack received! ulModuleID:0x%x lTimeOut:%d", pstSocketCB->ulModuleID,
                pstSocketCB->lTimeOut);
        return 1;
    }
    int lSockErr = 0;
    socklen_t ulLen = sizeof(lSockErr);
    if (ISP_getsockopt(pstSocketCB->lSocket, SOL_SOCKET, SO_ERROR, &lSockErr, &ulLen) == 0) {
        if (lSockErr == 0) {
            pstSocketCB->enSockStatus = SKT_STATUS_CONNECTED;
            return 0;
        }
        // The reason of the failed handshake, not a stale errno.
        errno = lSockErr;
    }
    // The block stays in status 2. The system reports the error only once, so
    // a later call would find SO_ERROR clear: callers destroy and start again.
    int lErr = errno;
    IBP_DBG("Failed to connect the host(ip:%s port:%hu) errno:%s.", SktIpText(pstSocketCB->ulRemoteIp).c_str(),
            ISP_ntohs(pstSocketCB->usRemotePort), strerror(lErr));
    return 1;
}

// Status 3: wait for a caller and take it; the block becomes the connection.
u32 SktAccept(SKT_SOCKET_CB_S *pstSocketCB)
{
    if (SktPollOne(pstSocketCB, POLLIN) != 0) {
        IBP_DBG("no connect info received! lSocket:%d ulModuleID:0x%x lTimeOut:%d", pstSocketCB->lSocket,
                pstSocketCB->ulModuleID, pstSocketCB->lTimeOut);
        return 1;
    }
    struct sockaddr_in stPeer = {};
    socklen_t ulLen = sizeof(stPeer);
    // The accepted descriptor keeps the system's defaults (blocking on Linux);
    // the fixed options are not applied to it.
    int lConn = ISP_accept(pstSocketCB->lSocket, reinterpret_cast<struct sockaddr *>(&stPeer), &ulLen);
    if (lConn < 0) {
        IBP_DBG("accept() error! lSocket:%d ulModuleID:0x%x lTimeOut:%d", pstSocketCB->lSocket,
                pstSocketCB->ulModuleID, pstSocketCB->lTimeOut);
        return 1;
    }
    IBP_DBG("accept a connection(ip:%s, port:%hu).", SktIpText(stPeer.sin_addr.s_addr).c_str(),
            ISP_ntohs(stPeer.sin_port));
    pstSocketCB->lListenSocket = pstSocketCB->lSocket;
    pstSocketCB->lSocket = lConn;
    pstSocketCB->enSockStatus = SKT_STATUS_CONNECTED;
    return 0;
}

}  // namespace

extern "C" {

IBP_API SKT_HANDLE SKT_TcpInit(const SKT_SOCK_INFO_S *pstSockInfo)
{
    if (pstSockInfo == nullptr) {
        IBP_ERR("pstSockInfo is NULL");
        return nullptr;
    }
    SKT_SOCKET_CB_S *pstSocketCB = SKT_CreateSocket(pstSockInfo, SKT_PROTO_TCP);
    if (pstSocketCB == nullptr) {
        IBP_ERR("SKT_CreateSocket() failed!");
        return nullptr;
    }
    SktIpText stLocalIp(pstSockInfo->ulLocalIp);
    u16 usLocalPort = ISP_ntohs(pstSockInfo->usLocalPort);
    if (SKT_SetSockProperty(pstSocketCB) != 0) {
        IBP_ERR("SKT_SetSockProperty() failed! lSocket:%d localip:%s port:%hu", pstSocketCB->lSocket,
                stLocalIp.c_str(), usLocalPort);
        SKT_DestroySocket(&pstSocketCB);
        return nullptr;
    }
    // A client does not bind: the local address has no effect.
    if (pstSockInfo->enRole != SKT_ROLE_SERVER) {
        pstSocketCB->enSockStatus = SKT_STATUS_CREATED;
        return pstSocketCB;
    }
    if (SktBindLocal(pstSocketCB, pstSockInfo) != 0) {
        IBP_ERR("bind socket failed! error:%s lSocket:%d localip:%s port:%hu", strerror(errno),
                pstSocketCB->lSocket, stLocalIp.c_str(), usLocalPort);
        SKT_DestroySocket(&pstSocketCB);
        return nullptr;
    }
    if (ISP_listen(pstSocketCB->lSocket, static_cast<int>(pstSockInfo->ulBacklog)) != 0) {
        IBP_ERR("listen failed! error:%s lSocket:%d localip:%s port:%hu", strerror(errno), pstSocketCB->lSocket,
                stLocalIp.c_str(), usLocalPort);
        SKT_DestroySocket(&pstSocketCB);
        return nullptr;
    }
    pstSocketCB->enSockStatus = SKT_STATUS_LISTENING;
    return pstSocketCB;
}

IBP_API void SKT_TcpDestroy(SKT_HANDLE *phSocket)
{
    if (phSocket == nullptr) {
        IBP_ERR("phSocket is NULL");
        return;
    }
    // A copy: the caller's variable keeps its (now stale) value.
    SKT_SOCKET_CB_S *pstSocketCB = *phSocket;
    SKT_DestroySocket(&pstSocketCB);
}

IBP_API u32 SKT_TcpPollSock(u32 ulSockNum, SKT_SOCKET_CB_S **apstSocketCB, s32 lTimeOut)
{
    if (ulSockNum == 0) {
        IBP_ERR("invalid socket number");
        return 1;
    }
    if (apstSocketCB == nullptr) {
        IBP_ERR("pstSocketCB is NULL");
        return 1;
    }
    // A block the caller made itself is polled as it is, its descriptor
    // tested; only one that the layer destroyed is refused unread.
    for (u32 i = 0; i < ulSockNum; ++i) {
        if (apstSocketCB[i] == nullptr) {
            IBP_ERR("pstSocketCB is NULL");
            return 1;
        }
        if (SKT_WasDestroyed(apstSocketCB[i])) {
            IBP_ERR("pstSocketCB is invalid");
            return 1;
        }
        if (apstSocketCB[i]->lSocket < 0) {
            IBP_ERR("i:%u lSocket:%d illegal", i, apstSocketCB[i]->lSocket);
            return 1;
        }
    }
    u64 ullStart = 0;
    if (ISP_GetMonotonicTime(&ullStart) != 0) {
        IBP_ERR("Get Monotonic Time failed! error:%d(%s)", errno, strerror(errno));
        return 1;
    }
    SktPollArray stFds(ulSockNum);
    struct pollfd *pstFds = stFds.Get();
    if (pstFds == nullptr) {
        IBP_ERR("calloc() failed! len:%zd", static_cast<size_t>(ulSockNum) * sizeof(struct pollfd));
        return 1;
    }
    for (u32 i = 0; i < ulSockNum; ++i) {
        apstSocketCB[i]->usREvents = 0;
        pstFds[i].fd = apstSocketCB[i]->lSocket;
        pstFds[i].events = static_cast<short>(apstSocketCB[i]->usEvents);
    }
    // Each poll gets the whole time-out; the clock is read again only after an
    // interruption or a wake-up with nothing asked for, and decides whether
    // the wait goes on.
    for (;;) {
        for (u32 i = 0; i < ulSockNum; ++i)
            pstFds[i].revents = 0;
        int lRet = ISP_poll(pstFds, ulSockNum, lTimeOut);
        if (lRet == 0)
            return 1;
        if (lRet > 0) {
            u32 ulReady = 0;
            for (u32 i = 0; i < ulSockNum; ++i) {
                apstSocketCB[i]->usREvents = static_cast<u16>(pstFds[i].revents);
                if ((apstSocketCB[i]->usREvents & apstSocketCB[i]->usEvents) != 0)
                    ++ulReady;
            }
            if (ulReady != 0)
                return 0;
        } else if (errno != EINTR) {
            IBP_ERR("Poll handle error! errno:%s.", strerror(errno));
            return 1;
        }
        u64 ullNow = 0;
        if (ISP_GetMonotonicTime(&ullNow) != 0) {
            IBP_ERR("Get Monotonic Time() failed! error:%s", strerror(errno));
            return 1;
        }
        // A negative time-out (wait without limit) ends here at once.
        if (static_cast<s32>(static_cast<u32>(ullNow - ullStart)) >= lTimeOut) {
            IBP_DBG("Poll handle timeout!");
            return 1;
        }
    }
}

IBP_API u32 SKT_TcpConnect(SKT_SOCKET_CB_S *pstSocketCB)
{
    HANDLE_REFUSE_IF(SKT_Refusal(pstSocketCB), 1);
    switch (pstSocketCB->enSockStatus) {
    case SKT_STATUS_CREATED:
        return SktConnectStart(pstSocketCB);
    case SKT_STATUS_CONNECTING:
        return SktConnectFinish(pstSocketCB);
    case SKT_STATUS_LISTENING:
        return SktAccept(pstSocketCB);
    case SKT_STATUS_CONNECTED:
        return 0;
    default:
        IBP_WRN("socket status %d error!", static_cast<int>(pstSocketCB->enSockStatus));
        return 1;
    }
}

IBP_API s32 SKT_TcpSend(SKT_SOCKET_CB_S *pstSocketCB, u32 ulDataLen, const u8 *pucBuf, const u32 *pulRetryNum,
                        const u32 *pulSleepTime)
{
    HANDLE_REFUSE_IF(SKT_Refusal(pstSocketCB, "pstSocketCB is NULL!"), -1);
    if (pucBuf == nullptr) {
        IBP_ERR("pucBuf is NULL");
        return 1;
    }
    if (pulRetryNum == nullptr) {
        IBP_ERR("pulRetryNum is NULL");
        return 1;
    }
    if (pulSleepTime == nullptr) {
        IBP_ERR("pulSleepTime is NULL");
        return 1;
    }
    s32 lSocket = pstSocketCB->lSocket;
    if (pstSocketCB->enSockStatus != SKT_STATUS_CONNECTED || lSocket < 0) {
        IBP_ERR("Param illegal! enSockStatus:%d lSocket:%d", static_cast<int>(pstSocketCB->enSockStatus), lSocket);
        return -1;
    }
    // No send lock: a block is driven by one thread, so two threads never
    // send on the same socket.
    u32 ulSleepTime = (*pulSleepTime == 0) ? kDefaultSleepMs : *pulSleepTime;
    u32 ulRetryNum = *pulRetryNum;
    u32 ulLeft = ulDataLen;
    int lErr = 0;
    while (ulLeft > 0) {
        // MSG_NOSIGNAL: a peer that has closed gives EPIPE, not a SIGPIPE that
        // would end the process.
        ssize_t lRet = ISP_send(lSocket, pucBuf + (ulDataLen - ulLeft), ulLeft, MSG_NOSIGNAL);
        if (lRet > 0) {
            ulLeft -= static_cast<u32>(lRet);
            ulRetryNum = *pulRetryNum;  // the budget is per stall, not per call
            continue;
        }
        lErr = errno;
        IBP_DBG("send() failed! lSocket:%d lRet:%d ulRetryNum:%u ulSleepTime:%u ulLeft:%u error(%d):%s", lSocket,
                static_cast<int>(lRet), ulRetryNum, ulSleepTime, ulLeft, lErr, strerror(lErr));
        if (lRet < 0 && lErr == EINTR)
            continue;
        if (ulRetryNum == 0 || lErr != EAGAIN)
            break;
        --ulRetryNum;
        ISP_msleep(static_cast<s32>(ulSleepTime));
    }
    if (ulLeft > 0)
        IBP_ERR("send() failed! lSocket:%d ulDataLen:%u ulLeft:%u error(%d):%s", lSocket, ulDataLen, ulLeft, lErr,
                strerror(lErr));
    return static_cast<s32>(ulDataLen - ulLeft);
}

IBP_API u32 SKT_TcpRecv(SKT_SOCKET_CB_S *pstSocketCB, u32 bWait, u32 *pulDataLen, u8 *pucBuf)
{
    HANDLE_REFUSE_IF(SKT_Refusal(pstSocketCB), 1);
    if (pulDataLen == nullptr) {
        IBP_ERR("pulDataLen is NULL");
        return 1;
    }
    if (pucBuf == nullptr) {
        IBP_ERR("pucBuf is NULL");
        return 1;
    }
    if (*pulDataLen == 0) {
        IBP_ERR("Param illegal, datalen is 0");
        return 1;
    }
    s32 lSocket = pstSocketCB->lSocket;
    if (pstSocketCB->enSockStatus != SKT_STATUS_CONNECTED || lSocket < 0) {
        IBP_ERR("Param illegal, enSockStatus:%d, lSocket:%d", static_cast<int>(pstSocketCB->enSockStatus), lSocket);
        return 1;
    }
    // Waiting first is what tells a quiet peer from a dead one.
    if (bWait == 1 && SktPollOne(pstSocketCB, POLLIN) != 0) {
        IBP_ERR("SKT_TcpPollSock() failed, ulModuleID:0x%x, lTimeOut:%d", pstSocketCB->ulModuleID,
                pstSocketCB->lTimeOut);
        return 1;
    }
    SktIpText stRemoteIp(pstSocketCB->ulRemoteIp);
    u16 usRemotePort = ISP_ntohs(pstSocketCB->usRemotePort);
    // Readable with nothing to read is a peer that has closed.
    int lWaiting = 0;
    if (ISP_ioctl(lSocket, FIONREAD, &lWaiting) != 0 || lWaiting == 0) {
        IBP_DBG("Socket received no data, error:%s, lSocket:%d, remoteip:%s, port:%hu", strerror(errno), lSocket,
                stRemoteIp.c_str(), usRemotePort);
        pstSocketCB->enSockStatus = SKT_STATUS_CLOSED;
        return 1;
    }
    // Only a real failure is retried on EINTR: a 0 leaves errno untouched.
    ssize_t lRet;
    do {
        lRet = ISP_recv(lSocket, pucBuf, *pulDataLen, 0);
    } while (lRet < 0 && errno == EINTR);
    if (lRet <= 0) {
        IBP_ERR("recv() failed, error:%s, lSocket:%d, remoteip:%s, port:%hu", strerror(errno), lSocket,
                stRemoteIp.c_str(), usRemotePort);
        return 1;
    }
    *pulDataLen = static_cast<u32>(lRet);
    return 0;
}

}  // extern "C"
