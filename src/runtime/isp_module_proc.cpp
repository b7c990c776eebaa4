// Set-up and teardown of the runtime of this process: the UDP endpoint with
// its epoll instance and wake descriptor, the pool, the outbound queue, the
// receive buffer, and the _CMD and process modules with their threads.
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "ibp/isp_circbuf.h"
#include "ibp/isp_module.h"
#include "ibp/isp_socket.h"
#include "ibp/isp_system.h"
#include "log/log_internal.h"
#include "runtime/mod_ratelimit.h"
#include "runtime/mod_stat.h"
#include "runtime/module_internal.h"
#include "runtime/proc_internal.h"

IBP_LOG_SOURCE("isp_module");

namespace {

constexpr u32 kRecvBufLen = 8192;  // elements of the receive buffer; it holds 8191 bytes
constexpr int kEpollSize = 256;
// Readable only: the thread never waits to write, and with EPOLLOUT every
// datagram this process sent woke its process thread for nothing when the
// kernel gave the send buffer back (two wasted wake-ups a synchronous trip).
constexpr u32 kSocketEvents = EPOLLIN | EPOLLET;
// A burst that another process sends arrives while this thread may be busy;
// the system's default receive buffer holds only a few hundred small
// datagrams. Ask for more, beyond rmem_max where we may.
constexpr int kSocketBufBytes = 4 * 1024 * 1024;
constexpr u32 kCmdSuffixMax = 63;

bool gbSysRunning = false;

// Best effort: the socket works with the system's sizes as well, and
// without the count of the datagrams the kernel dropped.
void MOD_TuneSocket(s32 lSocket)
{
    int lOn = 1;
    (void)ISP_setsockopt(lSocket, SOL_SOCKET, SO_RXQ_OVFL, &lOn, sizeof(lOn));
    int lBytes = kSocketBufBytes;
    if (ISP_setsockopt(lSocket, SOL_SOCKET, SO_RCVBUFFORCE, &lBytes, sizeof(lBytes)) != 0)
        (void)ISP_setsockopt(lSocket, SOL_SOCKET, SO_RCVBUF, &lBytes, sizeof(lBytes));
    if (ISP_setsockopt(lSocket, SOL_SOCKET, SO_SNDBUFFORCE, &lBytes, sizeof(lBytes)) != 0)
        (void)ISP_setsockopt(lSocket, SOL_SOCKET, SO_SNDBUF, &lBytes, sizeof(lBytes));
}

SKT_SOCK_INFO_S MOD_SocketInfoOf(const MOD_PROC_CFG_S *pstCfg)
{
    SKT_SOCK_INFO_S stInfo;
    memset(&stInfo, 0, sizeof(stInfo));
    stInfo.ulModuleID = 0;
    stInfo.enRole = 0;
    stInfo.ulLocalIp = ISP_inet_addr(pstCfg->szSocketAddr);
    stInfo.ulRemoteIp = stInfo.ulLocalIp;
    stInfo.usLocalPort = ISP_htons(pstCfg->usSocketPort);
    stInfo.usRemotePort = stInfo.usLocalPort;
    stInfo.ulBacklog = 5;
    stInfo.lTimeOut = 2000;
    return stInfo;
}

// The epoll instance with the socket (edge-triggered) and the wake
// descriptor in it; 0 or 1.
u32 MOD_AddToEpoll(MOD_PROC_S *pstProc, s32 lSocket)
{
    pstProc->lEpollFd = epoll_create(kEpollSize);
    if (pstProc->lEpollFd < 0) {
        int err = errno;
        IBP_ERR("create epoll failed! error=%d,%s", err, strerror(err));
        return 1;
    }
    MOD_TuneSocket(lSocket);
    struct epoll_event stEvent;
    memset(&stEvent, 0, sizeof(stEvent));
    stEvent.events = kSocketEvents;
    stEvent.data.fd = lSocket;
    if (epoll_ctl(pstProc->lEpollFd, EPOLL_CTL_ADD, lSocket, &stEvent) != 0) {
        IBP_WRN("add socket fd to epoll failed!");
        return 1;
    }
    if (MOD_InitWakeFd(pstProc->lEpollFd) != 0) {
        IBP_ERR("init proc wake fd fail!");
        return 1;
    }
    return 0;
}

u32 MOD_InitProcEpoll(MOD_PROC_S *pstProc, const MOD_PROC_CFG_S *pstCfg)
{
    SKT_SOCK_INFO_S stInfo = MOD_SocketInfoOf(pstCfg);
    pstProc->lEpollFd = -1;
    pstProc->hRecvSocket = SKT_UdpInit(&stInfo);
    if (pstProc->hRecvSocket == nullptr) {
        IBP_ERR("UDP init fail");
        return 1;
    }
    pstProc->hSendSocket = pstProc->hRecvSocket;
    s32 lSocket = SKT_GetSocketFD(pstProc->hRecvSocket);
    u32 ulRet = 1;
    if (lSocket == -1) {
        IBP_ERR("get socket fd fail");
    } else if (MOD_AddToEpoll(pstProc, lSocket) == 0) {
        IBP_INF("proc %s init epoll done! epollFd=%d socketFd=%d", pstProc->szProcName, pstProc->lEpollFd, lSocket);
        ulRet = 0;
    }
    if (ulRet != 0) {
        if (pstProc->lEpollFd >= 0)
            ISP_close(pstProc->lEpollFd);
        pstProc->lEpollFd = -1;
        SKT_UdpDestroy(&pstProc->hRecvSocket);
        pstProc->hSendSocket = nullptr;
    }
    return ulRet;
}

// "ISP" gives "ISP_CMD": at most 63 characters in all.
void MOD_CmdModuleName(const char *pcProcName, char (&acName)[MOD_NAME_LEN])
{
    memset(acName, 0, sizeof(acName));
    ISP_strncpy(acName, pcProcName, kCmdSuffixMax);
    ISP_strncat(acName, "_CMD", kCmdSuffixMax - strlen(acName));
}

CBUF_HANDLE MOD_MakeRecvBuf(MOD_PROC_S *pstProc)
{
    CBUF_INIT_S stBufInit;
    memset(&stBufInit, 0, sizeof(stBufInit));
    stBufInit.pcName = pstProc->szProcName;
    stBufInit.ulElemSize = 1;
    stBufInit.ulElemNum = kRecvBufLen;
    stBufInit.bOverride = 0;
    CBUF_HANDLE hBuf = CBUF_Init(&stBufInit);
    if (hBuf == nullptr)
        IBP_ERR("circ buf init failed! ulElemNum=%u ulElemSize=%u", stBufInit.ulElemNum, stBufInit.ulElemSize);
    return hBuf;
}

// The _CMD module first, then the process module whose thread serves the socket.
u32 MOD_RegProcModules(MOD_PROC_S *pstProc)
{
    char acCmdName[MOD_NAME_LEN];
    MOD_CmdModuleName(pstProc->szProcName, acCmdName);
    if (MOD_RegModule(acCmdName, &pstProc->ulCmdModuleID) != 0) {
        IBP_ERR("register module %s failed!", acCmdName);
        return 1;
    }
    if (MOD_RegModule(pstProc->szProcName, &pstProc->ulProcModuleID) != 0) {
        IBP_ERR("register module %s failed!", pstProc->szProcName);
        MOD_UnregModule(pstProc->ulCmdModuleID);
        return 1;
    }
    return 0;
}

u32 MOD_InitProc(const char *pcProcName, u32 ulProcID)
{
    MOD_PROC_S *pstProc = &gstCurProc;
    MOD_RecvReset();
    MOD_StatResetProc();
    memset(pstProc->szProcName, 0, sizeof(pstProc->szProcName));
    ISP_strncpy(pstProc->szProcName, pcProcName, MOD_NAME_LEN - 1);
    pstProc->ulProcID = ulProcID;

    const MOD_PROC_CFG_S *pstCfg = MOD_GetProcCfgByID(ulProcID);
    if (pstCfg == nullptr) {
        IBP_ERR("get proc cfg info by ID %#x failed!", ulProcID);
        return 1;
    }
    if (MOD_InitProcEpoll(pstProc, pstCfg) != 0) {
        IBP_ERR("init proc epoll fail!");
        return 1;
    }
    u32 ulRet = 1;
    if (MOD_InitModulePool(MOD_ProcThreadProc)) {
        MOD_InitListCtrl(&pstProc->stSendMsgCtrl, MOD_NOMINAL_MAX_NUM);
        MOD_SetRemoteSendQueue(&pstProc->stSendMsgCtrl);
        pstProc->hCircBuf = MOD_MakeRecvBuf(pstProc);
        if (pstProc->hCircBuf != nullptr)
            ulRet = MOD_RegProcModules(pstProc);
    }
    if (ulRet != 0) {
        MOD_SetRemoteSendQueue(nullptr);
        if (pstProc->hCircBuf != nullptr) {
            CBUF_Destroy(pstProc->hCircBuf);
            pstProc->hCircBuf = nullptr;
        }
        MOD_DestroyProcEpoll(pstProc);
    }
    return ulRet;
}

}  // namespace

bool MOD_IsSysRunning() { return __atomic_load_n(&gbSysRunning, __ATOMIC_ACQUIRE); }

extern "C" {

IBP_API u32 MOD_SysInit(const char *pcProcName, u32 ulProcID)
{
    if (pcProcName == nullptr) {
        IBP_ERR("pcProcName is NULL");
        return 1;
    }
    if (pcProcName[0] == '\0') {
        IBP_ERR("param invalid, proc name is empty!");
        return 1;
    }
    // Setting up lists and queues under running threads would corrupt them.
    if (MOD_IsSysRunning()) {
        IBP_ERR("module sys is running already! procName=%s", gstCurProc.szProcName);
        return 1;
    }
    if (MOD_InitProc(pcProcName, ulProcID) != 0) {
        IBP_ERR("init proc failed! pcProcName=%s ulProcID=%#x", pcProcName, ulProcID);
        return 1;
    }
    __atomic_store_n(&gbSysRunning, true, __ATOMIC_RELEASE);
    IBP_INF("module sys init succeed! procName=%s procID=%#x", pcProcName, ulProcID);
    return 0;
}

IBP_API u32 MOD_SysDestroy(void)
{
    MOD_PROC_S *pstProc = &gstCurProc;
    if (MOD_UnregModule(pstProc->ulProcModuleID) != 0)
        IBP_ERR("unregister module %#x fail", pstProc->ulProcModuleID);
    if (MOD_UnregModule(pstProc->ulCmdModuleID) != 0)
        IBP_ERR("unregister module %#x fail", pstProc->ulCmdModuleID);
    // The process thread has stopped: nobody sends what is left, so free it.
    MOD_SetRemoteSendQueue(nullptr);
    CBUF_Destroy(pstProc->hCircBuf);
    pstProc->hCircBuf = nullptr;
    MOD_DestroyProcEpoll(pstProc);
    MOD_RateReset();  // no timer is left to write what was counted
    __atomic_store_n(&gbSysRunning, false, __ATOMIC_RELEASE);
    IBP_INF("module sys destroy succeed!");
    return 0;
}

IBP_API void MOD_DestroyProcEpoll(MOD_PROC_S *pstProc)
{
    if (pstProc == nullptr) {
        IBP_ERR("pstProc is NULL");
        return;
    }
    SKT_UdpDestroy(&pstProc->hRecvSocket);
    pstProc->hSendSocket = nullptr;
    if (pstProc == &gstCurProc)
        MOD_CloseWakeFd();
    if (pstProc->lEpollFd >= 0)
        ISP_close(pstProc->lEpollFd);
    pstProc->lEpollFd = -1;
}

}  // extern "C"
