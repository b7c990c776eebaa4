// Threads, mutex handles, conditions, the lock file and the command runner of the ISP_ layer.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstring>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "harness/log_capture.h"
#include "harness/test_env.h"
#include "ibp/isp_system.h"
#include "platform/isp_system_internal.h"

namespace {

void *ExitWithArg(void *pv) { ISP_thr_exit(pv); }

TEST(ThrCreate, FlagPrecedenceAndPriorityClamp)
{
    constexpr int J = PTHREAD_CREATE_JOINABLE, D = PTHREAD_CREATE_DETACHED;
    struct Case { u32 ulFlags; s32 lPriority; int detach, policy, priority; };
    constexpr Case kCases[] = {
        {0, 127, J, SCHED_OTHER, 0},  // SCHED_OTHER's range is 0..0
        {ISP_THR_SCHED_FIFO, 0, J, SCHED_FIFO, 1},
        {ISP_THR_SCHED_FIFO, 500, J, SCHED_FIFO, 99},
        {ISP_THR_SCHED_RR, -7, J, SCHED_RR, 1},  // signed comparison
        {ISP_THR_DETACHED, 0, D, SCHED_OTHER, 0},
        {ISP_THR_DETACHED | ISP_THR_JOINABLE, 0, J, SCHED_OTHER, 0},
        {ISP_THR_SCHED_FIFO | ISP_THR_SCHED_RR, 5, J, SCHED_FIFO, 5},
        {ISP_THR_SCHED_RR | ISP_THR_SCHED_OTHER, 5, J, SCHED_RR, 5},
        {0xFFF0FFBFu, 5, J, SCHED_OTHER, 0},  // only unnamed bits
    };
    for (const Case &c : kCases) {
        pthread_attr_t attr;
        ASSERT_EQ(pthread_attr_init(&attr), 0);
        EXPECT_EQ(ibp::platform::ThrAttrApply(&attr, c.ulFlags, c.lPriority), 0);
        int detach = -1, policy = -1;
        sched_param param{};
        pthread_attr_getdetachstate(&attr, &detach);
        pthread_attr_getschedpolicy(&attr, &policy);
        pthread_attr_getschedparam(&attr, &param);
        pthread_attr_destroy(&attr);
        EXPECT_EQ(std::tie(detach, policy, param.sched_priority), std::tie(c.detach, c.policy, c.priority))
            << std::hex << c.ulFlags << std::dec << " " << c.lPriority;
    }
    // The scheduler is inherited, so an unprivileged creator of a FIFO thread
    // still succeeds; joinable wins over detached.
    pthread_t thread{};
    void *pvRet = nullptr;
    ASSERT_EQ(ISP_thr_create(ExitWithArg, &thread, ISP_THR_DETACHED | ISP_THR_JOINABLE | ISP_THR_SCHED_FIFO,
                             &thread, 500), 0);
    EXPECT_EQ(ISP_thr_join(thread, 0, &pvRet), 0);
    EXPECT_EQ(pvRet, &thread);
}

TEST(ThrSync, DeadlinesTimeOutsAndRecords)
{
    const std::tuple<timespec, s32, long long, long> kCases[] = {
        {{5, 999500000L}, 999, 6, 998500000L},  // just before a second's end
        {{5, 1000000L}, 999, 6, 0},             // exactly at it
        {{5, 0}, 1500, 6, 500000000L},
        {{5, 100}, -1, 4, 999000100L}};  // in the past, still valid
    for (auto [now, ms, sec, nsec] : kCases) {
        const timespec t = ibp::platform::CondDeadline(now, ms);
        EXPECT_EQ(std::tie(t.tv_sec, t.tv_nsec), std::tie(sec, nsec)) << ms;
    }
    void *hLock = ISP_mutex_init();
    pthread_cond_t cond;
    ASSERT_EQ(ISP_cond_init(&cond), 0);
    ASSERT_EQ(ISP_mutex_lock(hLock), 0);
    EXPECT_EQ(ISP_cond_timedwait(&cond, hLock, 0), ETIMEDOUT);
    EXPECT_EQ(ISP_cond_timedwait(&cond, hLock, -5), ETIMEDOUT);  // not EINVAL
    EXPECT_EQ(ISP_mutex_unlock(hLock), 0);
    ISP_cond_destroy(&cond);
    ISP_mutex_destroy(hLock);

    ibptest::LogCapture cap;
    EXPECT_EQ(ISP_prctl(PR_SET_NAME, reinterpret_cast<unsigned long>("fifteen_chars_x"), 0, 0, 0), 0);
    EXPECT_GE(ISP_prctl(PR_GET_DUMPABLE, 1, 0, 0, 0), 0);  // 1 is no address: never read as text
    EXPECT_EQ(ISP_prctl(PR_SET_NAME, reinterpret_cast<unsigned long>("sixteen_chars_xy"), 0, 0, 0), 0);
    EXPECT_EQ(cap.Count("WRN", "BP", "proc name sixteen_chars_xy length exceeds limit 15"), 1u);
    EXPECT_EQ(cap.Records().size(), 1u) << cap.Dump();  // a 15-character name is not warned about
}

int CheckInChild(const std::string &name)
{
    const pid_t pid = ISP_fork();
    if (pid == 0)
        _exit(ISP_check_running(name.c_str()));
    int status = -1;
    EXPECT_EQ(ISP_waitpid(pid, &status, 0), pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(CheckRunning, LockFileRefusesASecondHolder)
{
    IBP_REQUIRE_ISOLATION();
    struct stat st {};
    const std::string n64(64, 'a'), n65(65, 'b');
    for (const char *bad : {static_cast<const char *>(nullptr), "", n65.c_str()})
        EXPECT_EQ(ISP_check_running(bad), 1);
    EXPECT_NE(stat(("/var/run/isp." + n65).c_str(), &st), 0);  // nothing touched
    EXPECT_EQ(ISP_check_running(n64.c_str()), 0);
    EXPECT_EQ(stat(("/var/run/isp." + n64).c_str(), &st), 0);
    EXPECT_EQ(ISP_check_running(n64.c_str()), 0);  // the lock belongs to the process
    EXPECT_EQ(CheckInChild(n64), 1);
    // A holder that has ended, however, leaves no stale lock behind.
    EXPECT_EQ(CheckInChild("gone"), 0);
    EXPECT_EQ(ISP_check_running("gone"), 0);
}

int g_wakeFd = -1;
void WakeChild(int) { (void)!write(g_wakeFd, "x\n", 2); }

TEST(System, RawWaitStatusConcurrentAndInterrupted)
{
    if (ibptest::Emulated()) {  // the refusal is logged; the rest needs a real kernel
        ibptest::LogCapture cap;
        EXPECT_EQ(ISP_system("true"), -1);
        EXPECT_LOG(cap, "ERR", "BP", std::string("clone() failed, errno = 22[") + strerror(EINVAL) + "]");
    }
    IBP_SKIP_IF_CLONE_VM_UNSUPPORTED();
    std::vector<s32> status(3, -1);
    {
        std::jthread a([&] { status[0] = ISP_system("true"); }), b([&] { status[1] = ISP_system("exit 3"); });
        status[2] = ISP_system("exit 11");
    }
    EXPECT_EQ(status, (std::vector<s32>{0, 0x300, 0xB00}));  // raw wait status, run side by side

    // The child signals us, then blocks until our handler has run: the signal
    // lands during the wait, which (no SA_RESTART) fails with EINTR and is repeated.
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    g_wakeFd = fds[1];
    struct sigaction sa {}, old {};
    sa.sa_handler = WakeChild;
    sigemptyset(&sa.sa_mask);
    ASSERT_EQ(sigaction(SIGUSR1, &sa, &old), 0);
    const std::string cmd =
        "kill -USR1 " + std::to_string(getpid()) + "; read x <&" + std::to_string(fds[0]) + "; exit 5";
    EXPECT_EQ(ISP_system(cmd.c_str()), 0x500);
    sigaction(SIGUSR1, &old, nullptr);
    close(fds[0]);
    close(fds[1]);
}

}  // namespace
