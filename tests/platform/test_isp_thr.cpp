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
#include <thread>
#include <tuple>
#include <utility>
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
        EXPECT_EQ(std::make_tuple(detach, policy, param.sched_priority), std::make_tuple(c.detach, c.policy, c.priority))
            << std::hex << c.ulFlags << std::dec << " " << c.lPriority;
    }
    // The scheduler is inherited, so an unprivileged creator of a FIFO thread
    // still succeeds; joinable wins over detached.
    pthread_t thread{};
    int marker = 0;
    void *pvRet = nullptr;
    ASSERT_EQ(ISP_thr_create(ExitWithArg, &marker, ISP_THR_DETACHED | ISP_THR_JOINABLE | ISP_THR_SCHED_FIFO,
                             &thread, 500), 0);
    EXPECT_EQ(ISP_thr_join(thread, 0, &pvRet), 0);
    EXPECT_EQ(pvRet, &marker);
}

TEST(CondTimedWait, MillisecondsGiveAValidAbsoluteDeadline)
{
    auto at = [](timespec now, s32 lMilliSec) {
        const timespec t = ibp::platform::CondDeadline(now, lMilliSec);
        return std::pair<long long, long>(t.tv_sec, t.tv_nsec);
    };
    EXPECT_EQ(at({5, 999500000L}, 999), std::make_pair(6LL, 998500000L));  // just before a second's end
    EXPECT_EQ(at({5, 1000000L}, 999), std::make_pair(6LL, 0L));             // exactly at it
    EXPECT_EQ(at({5, 0}, 1500), std::make_pair(6LL, 500000000L));
    EXPECT_EQ(at({5, 100}, -1), std::make_pair(4LL, 999000100L));  // in the past, still valid

    void *hLock = ISP_mutex_init();
    pthread_cond_t cond;
    ASSERT_EQ(ISP_cond_init(&cond), 0);
    ASSERT_EQ(ISP_mutex_lock(hLock), 0);
    EXPECT_EQ(ISP_cond_timedwait(&cond, hLock, 0), ETIMEDOUT);
    EXPECT_EQ(ISP_cond_timedwait(&cond, hLock, -5), ETIMEDOUT);  // not EINVAL
    EXPECT_EQ(ISP_mutex_unlock(hLock), 0);
    ISP_cond_destroy(&cond);
    ISP_mutex_destroy(hLock);
}

TEST(ThrRecords, NullMutexHandleAndLongThreadName)
{
    ibptest::LogCapture cap;
    EXPECT_EQ(ISP_mutex_lock(nullptr), -1);
    EXPECT_EQ(ISP_mutex_unlock(nullptr), -1);
    ISP_mutex_destroy(nullptr);
    EXPECT_EQ(ISP_prctl(PR_SET_NAME, reinterpret_cast<unsigned long>("fifteen_chars_x"), 0, 0, 0), 0);
    EXPECT_GE(ISP_prctl(PR_GET_DUMPABLE, 1, 0, 0, 0), 0);  // 1 is no address: never read as text
    EXPECT_EQ(ISP_prctl(PR_SET_NAME, reinterpret_cast<unsigned long>("sixteen_chars_xy"), 0, 0, 0), 0);
    std::vector<std::string> texts;
    for (const auto &r : cap.Records())
        texts.push_back(r.level + " " + r.text);
    EXPECT_EQ(texts, (std::vector<std::string>{"ERR hHandle is NULL!", "ERR hHandle is NULL!", "ERR handle is NULL",
                                               "WRN proc name sixteen_chars_xy length exceeds limit 15"}));
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
    EXPECT_EQ(ISP_check_running(nullptr), 1);
    EXPECT_EQ(ISP_check_running(""), 1);
    EXPECT_EQ(ISP_check_running(n65.c_str()), 1);
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
    IBP_REQUIRE_ISOLATION();
    IBP_SKIP_IF_CLONE_VM_UNSUPPORTED();
    const char *apcCmd[] = {"true", "exit 3", "exit 11"};
    std::vector<s32> status(3, -1);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < 3; ++i)
        threads.emplace_back([&, i] { status[i] = ISP_system(apcCmd[i]); });
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(status, (std::vector<s32>{0, 0x300, 0xB00}));

    // The child signals us, then blocks until our handler has run: the signal
    // lands during the wait, which (no SA_RESTART) fails with EINTR and is repeated.
    ASSERT_EQ(mkfifo("/tmp/isp_wake", 0600), 0);
    g_wakeFd = open("/tmp/isp_wake", O_RDWR);
    ASSERT_GE(g_wakeFd, 0);
    struct sigaction sa {}, old {};
    sa.sa_handler = WakeChild;
    sigemptyset(&sa.sa_mask);
    ASSERT_EQ(sigaction(SIGUSR1, &sa, &old), 0);
    const std::string cmd = "kill -USR1 " + std::to_string(getpid()) + "; read x < /tmp/isp_wake; exit 5";
    EXPECT_EQ(ISP_system(cmd.c_str()), 0x500);
    sigaction(SIGUSR1, &old, nullptr);
    close(g_wakeFd);
}

TEST(System, CloneRefusalIsLogged)
{
    if (!ibptest::Emulated())
        GTEST_SKIP() << "clone(CLONE_VM) only fails under the emulator";
    ibptest::LogCapture cap;
    EXPECT_EQ(ISP_system("true"), -1);
    EXPECT_LOG(cap, "ERR", "BP", std::string("clone() failed, errno = 22[") + strerror(EINVAL) + "]");
}

}  // namespace
