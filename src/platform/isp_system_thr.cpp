// ISP_ layer, threads, locks and processes: thread creation from a flag word,
// mutex handles, condition variables with a millisecond time-out, the
// single-instance lock file and the shell command runner.
#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "ibp/isp_system.h"
#include "log/log_internal.h"
#include "platform/isp_system_internal.h"

IBP_LOG_SOURCE("isp_system");

#if defined(__SANITIZE_THREAD__)
// ThreadSanitizer's clone interceptor does fork bookkeeping in the child,
// which with a shared address space wrecks the parent's state; its builds
// take the libc's own entry, which the interceptor does not cover.
extern "C" int __clone(int (*pfnEntry)(void *), void *pvStack, int lFlags, void *pvArg, ...);
#define ISP_SYSTEM_CLONE __clone
#else
#define ISP_SYSTEM_CLONE clone
#endif

namespace ibp::platform {

namespace {

// Destroys a pthread attribute record on every way out of ISP_thr_create.
class AttrGuard {
public:
    explicit AttrGuard(pthread_attr_t *attr) : attr_(attr) {}
    ~AttrGuard() { pthread_attr_destroy(attr_); }
    AttrGuard(const AttrGuard &) = delete;
    AttrGuard &operator=(const AttrGuard &) = delete;

private:
    pthread_attr_t *attr_;
};

struct PolicyBit {
    u32 ulFlag;
    int policy;
};

// In order of precedence: the first bit that is set chooses the policy.
constexpr PolicyBit kPolicyBits[] = {
    {ISP_THR_SCHED_FIFO, SCHED_FIFO},
    {ISP_THR_SCHED_RR, SCHED_RR},
    {ISP_THR_SCHED_OTHER, SCHED_OTHER},
};

constexpr s32 kMsPerSec = 1000;
constexpr long kNsPerMs = 1000000L;
constexpr long kNsPerSec = 1000000000L;

constexpr size_t kSystemStackSize = 8192;
constexpr int kSystemCloneFlags = CLONE_VM | CLONE_FS | SIGCHLD;

constexpr size_t kThreadNameMax = 15;
constexpr size_t kLockNameMax = 64;
constexpr size_t kLockPathSize = 128;
constexpr const char kLockPathPrefix[] = "/var/run/isp.";

}  // namespace

s32 ThrClampPriority(int policy, s32 lPriority)
{
    const s32 lMax = sched_get_priority_max(policy);
    const s32 lMin = sched_get_priority_min(policy);
    if (lPriority > lMax)
        lPriority = lMax;
    if (lPriority < lMin)
        lPriority = lMin;
    return lPriority;
}

s32 ThrAttrApply(pthread_attr_t *attr, u32 ulFlags, s32 lPriority)
{
    if ((ulFlags & ISP_THR_DETACHED) != 0 &&
        pthread_attr_setdetachstate(attr, PTHREAD_CREATE_DETACHED) != 0)
        return -1;
    if ((ulFlags & ISP_THR_JOINABLE) != 0 &&
        pthread_attr_setdetachstate(attr, PTHREAD_CREATE_JOINABLE) != 0)
        return -1;

    for (const PolicyBit &bit : kPolicyBits) {
        if ((ulFlags & bit.ulFlag) != 0) {
            if (pthread_attr_setschedpolicy(attr, bit.policy) != 0)
                return -1;
            break;
        }
    }

    int policy = SCHED_OTHER;
    if (pthread_attr_getschedpolicy(attr, &policy) != 0)
        return -1;

    // The inherit-scheduler attribute stays PTHREAD_INHERIT_SCHED: the new
    // thread runs with its creator's policy, these values are recorded only.
    sched_param param{};
    param.sched_priority = ThrClampPriority(policy, lPriority);
    if (pthread_attr_setschedparam(attr, &param) != 0)
        return -1;
    return 0;
}

timespec CondDeadline(timespec now, s32 lMilliSec)
{
    timespec deadline = now;
    deadline.tv_sec += lMilliSec / kMsPerSec;
    deadline.tv_nsec += static_cast<long>(lMilliSec % kMsPerSec) * kNsPerMs;
    if (deadline.tv_nsec >= kNsPerSec) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= kNsPerSec;
    }
    // A negative time-out would leave negative nanoseconds, which the libc
    // refuses with EINVAL; borrow a second so the wait simply times out.
    if (deadline.tv_nsec < 0) {
        deadline.tv_sec -= 1;
        deadline.tv_nsec += kNsPerSec;
    }
    return deadline;
}

}  // namespace ibp::platform

extern "C" {

// ---------------------------------------------------------------- threads

IBP_API s32 ISP_thr_create(ISP_THR_ENTRY_PFN pfnStart, void *pArg, u32 ulFlags,
                           pthread_t *pThread, s32 lPriority)
{
    if (pfnStart == nullptr)  // the new thread would jump to address 0
        return -1;
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0)
        return -1;
    ibp::platform::AttrGuard guard(&attr);

    if (ibp::platform::ThrAttrApply(&attr, ulFlags, lPriority) != 0)
        return -1;

    pthread_t thread;
    if (pthread_create(&thread, &attr, pfnStart, pArg) != 0)
        return -1;
    if (pThread != nullptr)
        *pThread = thread;
    return 0;
}

IBP_API int ISP_thr_cancel(pthread_t thread) { return pthread_cancel(thread); }
IBP_API int ISP_thr_detach(pthread_t thread) { return pthread_detach(thread); }
IBP_API int ISP_thr_join(pthread_t thread, u32, void **ppvRetval) { return pthread_join(thread, ppvRetval); }
IBP_API void ISP_thr_exit(void *pvRetval) { pthread_exit(pvRetval); }

// Gives up the processor for real: a caller that spins on it expects that,
// and the result stays 0 either way.
IBP_API s32 ISP_thr_yield(void)
{
    (void)sched_yield();
    return 0;
}

IBP_API int ISP_thr_kill(pthread_t thread, int sig) { return pthread_kill(thread, sig); }
IBP_API pthread_t ISP_thr_self(void) { return pthread_self(); }
IBP_API int ISP_thr_equal(pthread_t t1, pthread_t t2) { return pthread_equal(t1, t2); }
IBP_API int ISP_nice(int inc) { return nice(inc); }

// ---------------------------------------------------------------- conditions

IBP_API int ISP_cond_init(pthread_cond_t *pCond) { return pthread_cond_init(pCond, nullptr); }
IBP_API int ISP_cond_signal(pthread_cond_t *pCond) { return pthread_cond_signal(pCond); }
IBP_API int ISP_cond_destroy(pthread_cond_t *pCond) { return pthread_cond_destroy(pCond); }

IBP_API int ISP_cond_wait(pthread_cond_t *pCond, void *hHandle)
{
    return pthread_cond_wait(pCond, static_cast<pthread_mutex_t *>(hHandle));
}

IBP_API int ISP_cond_timedwait(pthread_cond_t *pCond, void *hHandle, s32 lMilliSec)
{
    timespec now{};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    const timespec deadline = ibp::platform::CondDeadline(now, lMilliSec);
    return pthread_cond_timedwait(pCond, static_cast<pthread_mutex_t *>(hHandle), &deadline);
}

// ---------------------------------------------------------------- mutex handles

IBP_API void *ISP_mutex_init(void)
{
    auto *pMutex = static_cast<pthread_mutex_t *>(ISP_malloc(0, sizeof(pthread_mutex_t)));
    if (pMutex == nullptr) {
        IBP_ERR("malloc failed!");
        return nullptr;
    }
    if (pthread_mutex_init(pMutex, nullptr) != 0) {
        IBP_ERR("init pthread mutex failed!");
        ISP_free(&pMutex);
        return nullptr;
    }
    return pMutex;
}

IBP_API void ISP_mutex_destroy(void *hHandle)
{
    if (hHandle == nullptr) {
        IBP_ERR("handle is NULL");
        return;
    }
    (void)pthread_mutex_destroy(static_cast<pthread_mutex_t *>(hHandle));
    ISP_free(&hHandle);
}

IBP_API s32 ISP_mutex_lock(void *hHandle)
{
    if (hHandle == nullptr) {
        IBP_ERR("hHandle is NULL!");
        return -1;
    }
    return pthread_mutex_lock(static_cast<pthread_mutex_t *>(hHandle));
}

IBP_API s32 ISP_mutex_unlock(void *hHandle)
{
    if (hHandle == nullptr) {
        IBP_ERR("hHandle is NULL!");
        return -1;
    }
    return pthread_mutex_unlock(static_cast<pthread_mutex_t *>(hHandle));
}

// ---------------------------------------------------------------- processes

IBP_API pid_t ISP_fork(void) { return fork(); }
IBP_API void ISP_exit(int status) { exit(status); }
IBP_API pid_t ISP_getpid(void) { return getpid(); }
IBP_API pid_t ISP_waitpid(pid_t pid, int *wstatus, int options) { return waitpid(pid, wstatus, options); }
IBP_API int ISP_pipe(int pipefd[2]) { return pipe(pipefd); }
IBP_API FILE *ISP_popen(const char *command, const char *type) { return popen(command, type); }
IBP_API int ISP_pclose(FILE *stream) { return pclose(stream); }

IBP_API int ISP_prctl(int lOption, unsigned long lArg2, unsigned long lArg3,
                      unsigned long lArg4, unsigned long lArg5)
{
    // The kernel refuses a null name with EFAULT; answering it here keeps the
    // sanitizers' prctl interceptor, which copies the name first, away from it.
    if (lOption == PR_SET_NAME && lArg2 == 0) {
        errno = EFAULT;
        return -1;
    }
    if (lOption == PR_SET_NAME) {
        const char *pcName = reinterpret_cast<const char *>(lArg2);
        if (strlen(pcName) > ibp::platform::kThreadNameMax)
            IBP_WRN("proc name %s length exceeds limit 15", pcName);
    }
    return prctl(lOption, lArg2, lArg3, lArg4, lArg5);
}

IBP_API s32 ISP_check_running(const char *pcName)
{
    using namespace ibp::platform;
    if (pcName == nullptr)
        return 1;
    const size_t ulLen = strnlen(pcName, kLockNameMax + 1);
    if (ulLen == 0 || ulLen > kLockNameMax)
        return 1;

    char szPath[kLockPathSize] = {};
    ISP_snprintf(szPath, sizeof(szPath), "%s%s", kLockPathPrefix, pcName);

    const int fd = open(szPath, O_RDWR | O_CREAT, 0644);
    if (fd <= 0) {
        // Descriptor 0 counts as a failure too; do not leave it open.
        if (fd == 0)
            ISP_close(fd);
        return 1;
    }

    struct flock lock{};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 0;
    if (fcntl(fd, F_SETLK, &lock) == 0)
        return 0;  // the descriptor stays open: the lock lasts as long as the process
    const int err = errno;
    if (err != EACCES && err != EAGAIN)
        ISP_close(fd);
    return 1;
}

// Runs in the child of ISP_system on a stack inside the caller's frame, with
// the caller's memory and thread pointer; it must not touch sanitizer state.
__attribute__((no_sanitize("address", "thread", "undefined")))
IBP_API int __isp_system_proc(void *pcCmd)
{
    execl("/bin/sh", "sh", "-c", static_cast<const char *>(pcCmd), static_cast<char *>(nullptr));
    return 0;
}

IBP_API s32 ISP_system(const char *pcCmd)
{
    using namespace ibp::platform;
    if (pcCmd == nullptr)  // "sh -c" without a command: nothing to run
        return -1;
    alignas(16) unsigned char aucStack[kSystemStackSize] = {};
    int lStatus = 0;

    // The command goes into the topmost word of the area, and the child's
    // stack starts there; rounded down so the ABI's stack alignment holds.
    uintptr_t top = reinterpret_cast<uintptr_t>(aucStack + kSystemStackSize - sizeof(const char *));
    top &= ~static_cast<uintptr_t>(15);
    void *pvStackTop = reinterpret_cast<void *>(top);
    memcpy(pvStackTop, &pcCmd, sizeof(pcCmd));

    const pid_t pid = ISP_SYSTEM_CLONE(__isp_system_proc, pvStackTop, kSystemCloneFlags,
                                       const_cast<char *>(pcCmd));
    if (pid < 0) {
        const int err = errno;
        IBP_ERR("clone() failed, errno = %d[%s]", err, strerror(err));
        return -1;
    }

    // The child runs on aucStack until its exec: this frame must not be left
    // before the child is gone, so an interrupted wait is repeated.
    while (waitpid(pid, &lStatus, __WALL) < 0 && errno == EINTR) {
    }
    return lStatus;
}

}  // extern "C"
