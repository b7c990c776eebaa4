// Threads, mutex handles, conditions, the lock file and the command runner of
// the ISP_ layer.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "harness/log_capture.h"
#include "harness/test_env.h"
#include "ibp/isp_system.h"
#include "platform/isp_system_internal.h"

namespace {

struct AttrView {
    int detach = -1, policy = -1, priority = -1;
};

AttrView ApplyFlags(u32 ulFlags, s32 lPriority)
{
    pthread_attr_t attr;
    AttrView view;
    sched_param param{};
    EXPECT_EQ(pthread_attr_init(&attr), 0);
    EXPECT_EQ(ibp::platform::ThrAttrApply(&attr, ulFlags, lPriority), 0);
    pthread_attr_getdetachstate(&attr, &view.detach);
    pthread_attr_getschedpolicy(&attr, &view.policy);
    pthread_attr_getschedparam(&attr, &param);
    view.priority = param.sched_priority;
    pthread_attr_destroy(&attr);
    return view;
}

// A one-shot event on a mutex handle and a condition of the layer.
class Event {
public:
    Event() : hLock_(ISP_mutex_init()) { ISP_cond_init(&cond_); }
    ~Event()
    {
        ISP_cond_destroy(&cond_);
        ISP_mutex_destroy(hLock_);
    }
    void Set()
    {
        ISP_mutex_lock(hLock_);
        set_ = true;
        ISP_cond_signal(&cond_);
        ISP_mutex_unlock(hLock_);
    }
    int Wait(s32 lMilliSec)  // 0 once set, else the time-out's result
    {
        ISP_mutex_lock(hLock_);
        int ret = 0;
        while (!set_ && ret == 0)
            ret = ISP_cond_timedwait(&cond_, hLock_, lMilliSec);
        ISP_mutex_unlock(hLock_);
        return ret;
    }

private:
    void *hLock_;
    pthread_cond_t cond_;
    bool set_ = false;
};

struct DetachProbe {
    Event done;
    int detach = -1;
};

void *ReportDetachState(void *pv)
{
    auto *probe = static_cast<DetachProbe *>(pv);
    pthread_attr_t attr;
    if (pthread_getattr_np(pthread_self(), &attr) == 0) {
        pthread_attr_getdetachstate(&attr, &probe->detach);
        pthread_attr_destroy(&attr);
    }
    probe->done.Set();
    return nullptr;
}

void *ExitWithArg(void *pv) { ISP_thr_exit(pv); }

}  // namespace

TEST(ThrCreate, PriorityIsClampedToThePolicyRange)
{
    AttrView v = ApplyFlags(0, 127);  // no policy bit: SCHED_OTHER, range 0..0
    EXPECT_EQ(v.policy, SCHED_OTHER);
    EXPECT_EQ(v.priority, 0);
    v = ApplyFlags(ISP_THR_SCHED_FIFO, 0);
    EXPECT_EQ(v.policy, SCHED_FIFO);
    EXPECT_EQ(v.priority, 1);
    EXPECT_EQ(ApplyFlags(ISP_THR_SCHED_FIFO, 500).priority, 99);
    EXPECT_EQ(ApplyFlags(ISP_THR_SCHED_RR, -7).priority, 1);  // signed comparison
    EXPECT_EQ(ApplyFlags(ISP_THR_SCHED_RR, 42).priority, 42);
}

TEST(ThrCreate, FlagPrecedence)
{
    EXPECT_EQ(ApplyFlags(0, 0).detach, PTHREAD_CREATE_JOINABLE);
    EXPECT_EQ(ApplyFlags(ISP_THR_DETACHED, 0).detach, PTHREAD_CREATE_DETACHED);
    EXPECT_EQ(ApplyFlags(ISP_THR_DETACHED | ISP_THR_JOINABLE, 0).detach, PTHREAD_CREATE_JOINABLE);
    EXPECT_EQ(ApplyFlags(ISP_THR_SCHED_FIFO | ISP_THR_SCHED_RR, 0).policy, SCHED_FIFO);
    EXPECT_EQ(ApplyFlags(ISP_THR_SCHED_RR | ISP_THR_SCHED_OTHER, 0).policy, SCHED_RR);
    AttrView v = ApplyFlags(0xFFF0FFBFu, 5);  // only unnamed bits
    EXPECT_EQ(v.detach, PTHREAD_CREATE_JOINABLE);
    EXPECT_EQ(v.policy, SCHED_OTHER);
}

TEST(ThrCreate, RealThreadsFollowTheFlags)
{
    // As module threads are made: detached, priority 127, no out pointer.
    DetachProbe probe;
    ASSERT_EQ(ISP_thr_create(ReportDetachState, &probe, ISP_THR_DETACHED, nullptr, 127), 0);
    ASSERT_EQ(probe.done.Wait(60000), 0);
    EXPECT_EQ(probe.detach, PTHREAD_CREATE_DETACHED);

    // Joinable wins; FIFO is only recorded (the scheduler is inherited), so
    // an unprivileged creator still succeeds.
    pthread_t thread{};
    int marker = 0;
    const u32 ulFlags = ISP_THR_DETACHED | ISP_THR_JOINABLE | ISP_THR_SCHED_FIFO;
    ASSERT_EQ(ISP_thr_create(ExitWithArg, &marker, ulFlags, &thread, 500), 0);
    void *pvRet = nullptr;
    EXPECT_EQ(ISP_thr_join(thread, 0, &pvRet), 0);
    EXPECT_EQ(pvRet, &marker);
}

TEST(MutexHandle, NullHandleLogsAndFails)
{
    ibptest::LogCapture cap;
    EXPECT_EQ(ISP_mutex_lock(nullptr), -1);
    EXPECT_EQ(ISP_mutex_unlock(nullptr), -1);
    EXPECT_EQ(cap.Count("ERR", "BP", "hHandle is NULL!"), 2u) << cap.Dump();
    ISP_mutex_destroy(nullptr);
    EXPECT_LOG(cap, "ERR", "BP", "handle is NULL");
    EXPECT_EQ(cap.Records().size(), 3u);
}

namespace {

struct Counter {
    void *hLock = nullptr;
    long value = 0;
};
constexpr int kIncrements = 20000;

void *CountUp(void *pv)
{
    auto *counter = static_cast<Counter *>(pv);
    for (int i = 0; i < kIncrements; ++i) {
        ISP_mutex_lock(counter->hLock);
        ++counter->value;
        ISP_mutex_unlock(counter->hLock);
    }
    return nullptr;
}

}  // namespace

TEST(MutexHandle, SerialisesThreads)
{
    Counter counter;
    counter.hLock = ISP_mutex_init();
    ASSERT_NE(counter.hLock, nullptr);
    pthread_t threads[2];
    for (pthread_t &t : threads)
        ASSERT_EQ(ISP_thr_create(CountUp, &counter, ISP_THR_JOINABLE, &t, 0), 0);
    for (pthread_t &t : threads)
        EXPECT_EQ(ISP_thr_join(t, 0, nullptr), 0);
    EXPECT_EQ(counter.value, 2L * kIncrements);
    ISP_mutex_destroy(counter.hLock);
}

TEST(CondTimedWait, DeadlineIsAValidAbsoluteTime)
{
    using ibp::platform::CondDeadline;
    timespec t = CondDeadline({5, 999500000L}, 999);  // just before a second's end
    EXPECT_EQ(t.tv_sec, 6);
    EXPECT_EQ(t.tv_nsec, 998500000L);
    t = CondDeadline({5, 1000000L}, 999);  // exactly at it
    EXPECT_EQ(t.tv_sec, 6);
    EXPECT_EQ(t.tv_nsec, 0);
    t = CondDeadline({5, 0}, 1500);
    EXPECT_EQ(t.tv_sec, 6);
    EXPECT_EQ(t.tv_nsec, 500000000L);
    t = CondDeadline({5, 100}, -1);  // negative: in the past, still valid
    EXPECT_EQ(t.tv_sec, 4);
    EXPECT_EQ(t.tv_nsec, 999000100L);
}

TEST(CondTimedWait, ZeroTimesOutAndSignalWakes)
{
    void *hLock = ISP_mutex_init();
    pthread_cond_t cond;
    ASSERT_EQ(ISP_cond_init(&cond), 0);
    ASSERT_EQ(ISP_mutex_lock(hLock), 0);
    EXPECT_EQ(ISP_cond_timedwait(&cond, hLock, 0), ETIMEDOUT);
    EXPECT_EQ(ISP_cond_timedwait(&cond, hLock, -5), ETIMEDOUT);  // not EINVAL
    ASSERT_EQ(ISP_mutex_unlock(hLock), 0);
    EXPECT_EQ(ISP_cond_destroy(&cond), 0);
    ISP_mutex_destroy(hLock);

    Event ev;
    auto setter = [](void *pv) -> void * {
        static_cast<Event *>(pv)->Set();
        return nullptr;
    };
    pthread_t thread{};
    ASSERT_EQ(ISP_thr_create(setter, &ev, ISP_THR_JOINABLE, &thread, 0), 0);
    EXPECT_EQ(ev.Wait(60000), 0);
    EXPECT_EQ(ISP_thr_join(thread, 0, nullptr), 0);
}

TEST(Prctl, LongNameWarnsAndIsCut)
{
    auto name = [] {
        char sz[32] = {};
        prctl(PR_GET_NAME, reinterpret_cast<unsigned long>(sz), 0, 0, 0);
        return std::string(sz);
    };
    const std::string old = name();
    ibptest::LogCapture cap;
    EXPECT_EQ(ISP_prctl(PR_SET_NAME, reinterpret_cast<unsigned long>("fifteen_chars_x"), 0, 0, 0), 0);
    EXPECT_EQ(name(), "fifteen_chars_x");
    EXPECT_TRUE(cap.Records().empty()) << cap.Dump();

    EXPECT_EQ(ISP_prctl(PR_SET_NAME, reinterpret_cast<unsigned long>("sixteen_chars_xy"), 0, 0, 0), 0);
    EXPECT_LOG(cap, "WRN", "BP", "proc name sixteen_chars_xy length exceeds limit 15");
    EXPECT_EQ(name(), "sixteen_chars_x");

    // Other options never read the second argument as text: 1 is no address.
    cap.Clear();
    EXPECT_GE(ISP_prctl(PR_GET_DUMPABLE, 1, 0, 0, 0), 0);
    EXPECT_TRUE(cap.Records().empty()) << cap.Dump();
    ISP_prctl(PR_SET_NAME, reinterpret_cast<unsigned long>(old.c_str()), 0, 0, 0);
}

namespace {

int CheckInChild(const std::string &name)
{
    const pid_t pid = ISP_fork();
    if (pid == 0)
        _exit(ISP_check_running(name.c_str()));
    int status = -1;
    EXPECT_EQ(ISP_waitpid(pid, &status, 0), pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

TEST(CheckRunning, NameLimits)
{
    IBP_REQUIRE_ISOLATION();
    struct stat st {};
    const std::string n64(64, 'a'), n65(65, 'b');
    EXPECT_EQ(ISP_check_running(nullptr), 1);
    EXPECT_EQ(ISP_check_running(""), 1);
    EXPECT_EQ(ISP_check_running(n65.c_str()), 1);
    EXPECT_NE(stat(("/var/run/isp." + n65).c_str(), &st), 0);  // nothing touched
    EXPECT_EQ(ISP_check_running(n64.c_str()), 0);
    EXPECT_EQ(stat(("/var/run/isp." + n64).c_str(), &st), 0);
    EXPECT_EQ(ISP_check_running(n64.c_str()), 0);  // the lock belongs to the process
}

TEST(CheckRunning, SecondHolderIsRefusedUntilTheFirstDies)
{
    IBP_REQUIRE_ISOLATION();
    const std::string name = "holder";
    int ready[2];
    ASSERT_EQ(ISP_pipe(ready), 0);
    const pid_t holder = ISP_fork();
    if (holder == 0) {  // takes the lock, reports, waits to be killed
        const char r = static_cast<char>('0' + ISP_check_running(name.c_str()));
        (void)!write(ready[1], &r, 1);
        for (;;)
            pause();
    }
    ASSERT_GT(holder, 0);
    char r = 0;
    ASSERT_EQ(read(ready[0], &r, 1), 1);
    close(ready[0]);
    close(ready[1]);
    EXPECT_EQ(r, '0');

    EXPECT_EQ(CheckInChild(name), 1);
    EXPECT_EQ(ISP_check_running(name.c_str()), 1);
    ASSERT_EQ(kill(holder, SIGKILL), 0);  // a crash leaves no stale lock
    ASSERT_EQ(ISP_waitpid(holder, nullptr, 0), holder);
    EXPECT_EQ(CheckInChild(name), 0);
}

TEST(System, ReturnsTheRawWaitStatus)
{
    IBP_SKIP_IF_CLONE_VM_UNSUPPORTED();
    EXPECT_EQ(ISP_system("exit 3"), 0x300);
    EXPECT_EQ(ISP_system("true"), 0);
}

namespace {

int g_wakeFd = -1;
void WakeChild(int) { (void)!write(g_wakeFd, "x\n", 2); }

struct SystemJob {
    const char *pcCmd;
    s32 lStatus;
};

void *RunSystem(void *pv)
{
    auto *job = static_cast<SystemJob *>(pv);
    job->lStatus = ISP_system(job->pcCmd);
    return nullptr;
}

}  // namespace

TEST(System, InterruptedWaitIsRepeated)
{
    IBP_REQUIRE_ISOLATION();
    IBP_SKIP_IF_CLONE_VM_UNSUPPORTED();
    // The child signals us, then blocks until our handler has run: the signal
    // lands during the wait, which (no SA_RESTART) fails with EINTR.
    char szDir[] = "/tmp/isp_sysXXXXXX";
    ASSERT_NE(mkdtemp(szDir), nullptr);
    const std::string fifo = std::string(szDir) + "/wake";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    g_wakeFd = open(fifo.c_str(), O_RDWR);
    ASSERT_GE(g_wakeFd, 0);
    struct sigaction sa {}, old {};
    sa.sa_handler = WakeChild;
    sigemptyset(&sa.sa_mask);
    ASSERT_EQ(sigaction(SIGUSR1, &sa, &old), 0);

    const std::string cmd = "kill -USR1 " + std::to_string(getpid()) + "; read x < " + fifo + "; exit 5";
    EXPECT_EQ(ISP_system(cmd.c_str()), 0x500);
    sigaction(SIGUSR1, &old, nullptr);
    close(g_wakeFd);
    unlink(fifo.c_str());
    rmdir(szDir);
}

TEST(System, ConcurrentCallersGetTheirOwnStatus)
{
    IBP_SKIP_IF_CLONE_VM_UNSUPPORTED();
    SystemJob jobs[] = {{"exit 7", -1}, {"exit 9", -1}, {"exit 11", -1}};
    pthread_t threads[3];
    for (size_t i = 0; i < 3; ++i)
        ASSERT_EQ(ISP_thr_create(RunSystem, &jobs[i], ISP_THR_JOINABLE, &threads[i], 0), 0);
    for (pthread_t &t : threads)
        EXPECT_EQ(ISP_thr_join(t, 0, nullptr), 0);
    EXPECT_EQ(jobs[0].lStatus, 0x700);
    EXPECT_EQ(jobs[1].lStatus, 0x900);
    EXPECT_EQ(jobs[2].lStatus, 0xB00);
}

TEST(System, CloneRefusalIsLogged)
{
    if (!ibptest::Emulated())
        GTEST_SKIP() << "clone(CLONE_VM) only fails under the emulator";
    ibptest::LogCapture cap;
    EXPECT_EQ(ISP_system("true"), -1);
    EXPECT_LOG(cap, "ERR", "BP", std::string("clone() failed, errno = 22[") + strerror(EINVAL) + "]");
}
