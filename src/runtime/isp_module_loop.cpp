// The process thread: it alone touches the socket, the epoll instance and
// the receive buffer once MOD_SysInit has returned. Other threads only put
// messages on stSendMsgCtrl (through MOD_SendMsgProc) and wake the thread.
//
// The thread has no tick. It sleeps in epoll_wait on two descriptors: the
// socket, and the wake descriptor that other threads write when they queue
// something for it or stop it. After its events, every pass serves the
// process module's queue and sends all that is queued, so steady inbound
// traffic never holds the outbound queue back. The only timer is that of the
// rate-limit counts, and it runs only while a count waits to be written.
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "ibp/isp_module.h"
#include "ibp/isp_socket.h"
#include "ibp/isp_system.h"
#include "log/log_internal.h"
#include "runtime/mod_ratelimit.h"
#include "runtime/module_internal.h"
#include "runtime/proc_internal.h"

IBP_LOG_SOURCE("isp_module");

namespace {

constexpr int kEpollEvents = 20;
// After a failed epoll_wait other than an interruption: a pause, so that a
// lasting failure cannot turn the thread into a busy loop of records.
constexpr u32 kEpollErrorPauseMs = 20;
constexpr int kPrSetName = 15;

// Where a message for the other process goes: the port of its row, or, for a
// row without a port, the peer that the header names.
void MOD_DestOf(const MSG_HDR_S *pstHdr, const MOD_PROC_CFG_S *pstCfg, struct sockaddr_in *pstAddr)
{
    memset(pstAddr, 0, sizeof(*pstAddr));
    pstAddr->sin_family = AF_INET;
    if (pstCfg->usSocketPort != 0) {
        pstAddr->sin_addr.s_addr = ISP_inet_addr(pstCfg->szSocketAddr);
        pstAddr->sin_port = ISP_htons(pstCfg->usSocketPort);
    } else {
        pstAddr->sin_addr.s_addr = pstHdr->ulPeerAddr;
        pstAddr->sin_port = pstHdr->usPeerPort;
    }
}

// Sends one message of the outbound queue and frees it; false when the
// drain is to stop for this pass.
bool MOD_SendOne(MOD_BUF_S *pstBuf)
{
    if (pstBuf->pMem == nullptr) {
        IBP_ERR("buf memory addr invalid");
        MOD_FreeBuf(pstBuf);
        return false;
    }
    const auto *pstHdr = static_cast<const MSG_HDR_S *>(pstBuf->pMem);
    const MOD_PROC_CFG_S *pstCfg = MOD_GetProcCfgByID(pstHdr->ulDstProcID);
    if (pstCfg == nullptr) {
        IBP_ERR("get proc cfg info by id %#x fail", pstHdr->ulDstProcID);
        MOD_FreeBuf(pstBuf);
        return false;
    }
    s32 lSocket = SKT_GetSocketFD(gstCurProc.hSendSocket);
    if (lSocket == -1) {
        IBP_ERR("get socket fd fail!");
        MOD_FreeBuf(pstBuf);
        return false;
    }
    struct sockaddr_in stAddr;
    MOD_DestOf(pstHdr, pstCfg, &stAddr);
    ssize_t lSent = ISP_sendto(lSocket, pstBuf->pMem, pstBuf->ulLen, 0,
                               reinterpret_cast<const struct sockaddr *>(&stAddr), sizeof(stAddr));
    if (lSent < 0 || static_cast<u32>(lSent) != pstBuf->ulLen)
        IBP_ERR("send msg to ip addr %s failed!", pstCfg->szSocketAddr);
    MOD_FreeBuf(pstBuf);
    return true;
}

void MOD_SendSocketMsgProc()
{
    while (MOD_BUF_S *pstBuf = MOD_GetModuleMsg(&gstCurProc.stSendMsgCtrl, MOD_GET_BY_ORDER, 0)) {
        if (!MOD_SendOne(pstBuf))
            return;
    }
}

}  // namespace

void *MOD_ProcThreadProc(void *pvModule)
{
    auto *pstModule = static_cast<MOD_MODULE_S *>(pvModule);
    if (pstModule == nullptr) {
        IBP_ERR("pstModule is NULL");
        return nullptr;
    }
    ISP_prctl(kPrSetName, reinterpret_cast<unsigned long>("MOD_ProcThr"), 0, 0, 0);
    s32 lSocket = SKT_GetSocketFD(gstCurProc.hRecvSocket);
    if (lSocket == -1) {
        IBP_ERR("get socket fd fail!");
        return nullptr;
    }
    IBP_INF("enter proc thread: szModuleName=%s ulProcID=%#x ulModuleID=%#x", pstModule->szModuleName,
            pstModule->ulProcID, pstModule->ulModuleID);
    const s32 lWakeFd = MOD_WakeFd();
    while (MOD_IsRunning(pstModule)) {
        struct epoll_event astEvents[kEpollEvents];
        // No tick: asleep until the socket, a wake-up, or a due rate-limit count.
        int lNum = epoll_wait(gstCurProc.lEpollFd, astEvents, kEpollEvents, MOD_RateFlush());
        if (lNum < 0) {
            int err = errno;
            IBP_ERR("epoll_wait error! errno=%d, %s", err, strerror(err));
            if (err != EINTR)
                ISP_msleep(kEpollErrorPauseMs);
            continue;
        }
        for (int i = 0; i < lNum; i++) {
            if ((astEvents[i].events & EPOLLIN) == 0)
                continue;
            if (astEvents[i].data.fd == lSocket)
                MOD_RecvSocketMsgProc();
            else if (astEvents[i].data.fd == lWakeFd)
                MOD_TakeWakeUp();
        }
        MOD_RecvMsgProc(pstModule);
        MOD_SendSocketMsgProc();
    }
    // What got in before the queue was shut, after the last pass.
    MOD_RecvMsgProc(pstModule);
    MOD_SendSocketMsgProc();
    IBP_INF("exit proc thread: szModuleName=%s ulProcID=%#x ulModuleID=%#x", pstModule->szModuleName,
            pstModule->ulProcID, pstModule->ulModuleID);
    return nullptr;
}
