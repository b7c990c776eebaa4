// The process thread's wake-up: an eventfd in its epoll set. Senders write it
// once per burst: a flag keeps further writes away until the thread has taken
// the wake-up, which costs one descriptor per process and one write per burst.
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ibp/isp_system.h"
#include "log/log_internal.h"
#include "runtime/module_internal.h"
#include "runtime/proc_internal.h"

IBP_LOG_SOURCE("isp_module");

namespace {

// -1 when there is no runtime. gulWakePending is 1 from the first write until
// the thread has taken the wake-up.
s32 glWakeFd = -1;
u32 gulWakePending = 0;
// Held for the write and for the close, so that a late wake-up never writes
// to a descriptor number that has been closed and given to someone else.
pthread_mutex_t gstWakeFdLock = PTHREAD_MUTEX_INITIALIZER;

}  // namespace

u32 MOD_InitWakeFd(s32 lEpollFd)
{
    s32 lFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (lFd < 0) {
        int err = errno;
        IBP_ERR("create wake fd failed! error=%d,%s", err, strerror(err));
        return 1;
    }
    struct epoll_event stEvent;
    memset(&stEvent, 0, sizeof(stEvent));
    stEvent.events = EPOLLIN;
    stEvent.data.fd = lFd;
    if (epoll_ctl(lEpollFd, EPOLL_CTL_ADD, lFd, &stEvent) != 0) {
        int err = errno;
        IBP_ERR("add wake fd to epoll failed! error=%d,%s", err, strerror(err));
        ISP_close(lFd);
        return 1;
    }
    MOD_MutexGuard lock(&gstWakeFdLock);
    __atomic_store_n(&gulWakePending, 0u, __ATOMIC_RELAXED);
    __atomic_store_n(&glWakeFd, lFd, __ATOMIC_RELEASE);
    return 0;
}

void MOD_CloseWakeFd()
{
    MOD_MutexGuard lock(&gstWakeFdLock);
    s32 lFd = __atomic_exchange_n(&glWakeFd, -1, __ATOMIC_ACQ_REL);
    if (lFd >= 0)
        ISP_close(lFd);
}

s32 MOD_WakeFd() { return __atomic_load_n(&glWakeFd, __ATOMIC_ACQUIRE); }

// The flag is cleared before the queues are looked at, so that a message
// queued after that look always comes with a write of its own.
void MOD_TakeWakeUp()
{
    u64 ullCount = 0;
    (void)!read(MOD_WakeFd(), &ullCount, sizeof(ullCount));
    __atomic_store_n(&gulWakePending, 0u, __ATOMIC_SEQ_CST);
}

void MOD_WakeProcThread()
{
    if (__atomic_exchange_n(&gulWakePending, 1u, __ATOMIC_SEQ_CST) != 0)
        return;  // a write is on its way and the thread has not run since
    const u64 ullOne = 1;
    MOD_MutexGuard lock(&gstWakeFdLock);
    s32 lFd = __atomic_load_n(&glWakeFd, __ATOMIC_ACQUIRE);
    if (lFd >= 0)
        (void)!write(lFd, &ullOne, sizeof(ullOne));
}

void MOD_WakeModuleThread(MOD_MODULE_S *pstModule, u32 ulModuleID)
{
    if (ulModuleID == MOD_PROC_MODULE_ID)
        MOD_WakeProcThread();
    else
        sem_post(&pstModule->stWakeSem);
}
