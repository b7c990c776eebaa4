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
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ibp/isp_module.h"
#include "ibp/isp_socket.h"
#include "ibp/isp_system.h"
#include "log/log_internal.h"
#include "runtime/mod_ratelimit.h"
#include "runtime/mod_tap.h"
#include "runtime/module_internal.h"
#include "runtime/proc_internal.h"

IBP_LOG_SOURCE("isp_module");

namespace {

constexpr int kEpollEvents = 20;
// After a failed epoll_wait other than an interruption: a pause, so that a
// lasting failure cannot turn the thread into a busy loop of records.
constexpr u32 kEpollErrorPauseMs = 20;
constexpr int kPrSetName = 15;

// Sends what the outbound queue holds, in batches; what a message that
// cannot be sent at all left behind waits for the next pass, which comes at once.
void MOD_SendSocketMsgProc()
{
    MOD_LIST_S stOut;
    if (!MOD_TakeRemoteQueue(&stOut))
        return;
    const bool bAll = MOD_SendList(&stOut);
    MOD_RemoteSent(&stOut);
    if (!bAll)
        MOD_WakeProcThread();
}

// The kernel drops what the socket's buffer cannot hold, and nothing tells
// the sender: the thread that drains the socket gets a larger share of a busy
// processor than the threads that fill it, where the system lets it. Best
// effort: without the right, it runs as any other thread.
void MOD_FavourThisThread()
{
    constexpr int kNice = -5;
    (void)setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), kNice);
}

// The sooner of the two timers, in milliseconds for epoll_wait; -1: none.
int MOD_NextTimeout()
{
    const int lRate = MOD_RateFlush();
    const int lTap = MOD_TapExpire();
    if (lRate < 0)
        return lTap;
    return (lTap < 0 || lRate < lTap) ? lRate : lTap;
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
    MOD_FavourThisThread();
    const s32 lWakeFd = MOD_WakeFd();
    while (MOD_IsRunning(pstModule)) {
        struct epoll_event astEvents[kEpollEvents];
        // No tick: asleep until the socket, a wake-up, a due rate-limit count
        // or the end of a monitor's lease.
        int lNum = epoll_wait(gstCurProc.lEpollFd, astEvents, kEpollEvents, MOD_NextTimeout());
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
