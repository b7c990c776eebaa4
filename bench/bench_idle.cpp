// What a service process costs at rest: after IBP_Init it is left idle for
// 10 s, and the processor time it used (getrusage), its wake-ups (voluntary
// and involuntary context switches of every thread under /proc/self/task) and
// its resident memory are read before and after.
//
// Floor, measured at the same time in a forked twin of this program: a bare
// process with the same threads doing nothing, one asleep in epoll_wait
// without a time-out (a process thread with no traffic) and one on a
// semaphore (a module thread with nothing to do).
//
// Needs ports of its own (IBP_Init binds 127.0.0.1:7001): run by
// scripts/bench.sh inside a private network namespace.
#include <dirent.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <fstream>

#include "bench_util.h"

namespace {

constexpr unsigned kIdleSec = 10;
constexpr unsigned kSettleSec = 1;

struct Usage {
    double dCpuSec = 0;
    unsigned long ulSwitches = 0;
    unsigned long ulRssKiB = 0;
};

unsigned long StatusField(const std::string &path, const char *pcKey)
{
    std::ifstream in(path);
    std::string line;
    size_t len = strlen(pcKey);
    while (std::getline(in, line))
        if (line.compare(0, len, pcKey) == 0)
            return strtoul(line.c_str() + len, nullptr, 10);
    return 0;
}

Usage Snapshot()
{
    Usage u;
    struct rusage stRu;
    getrusage(RUSAGE_SELF, &stRu);
    u.dCpuSec = static_cast<double>(stRu.ru_utime.tv_sec + stRu.ru_stime.tv_sec) +
                static_cast<double>(stRu.ru_utime.tv_usec + stRu.ru_stime.tv_usec) * 1e-6;
    if (DIR *pDir = opendir("/proc/self/task")) {
        while (struct dirent *pEnt = readdir(pDir)) {
            if (pEnt->d_name[0] == '.')
                continue;
            std::string path = std::string("/proc/self/task/") + pEnt->d_name + "/status";
            u.ulSwitches += StatusField(path, "voluntary_ctxt_switches:") +
                            StatusField(path, "nonvoluntary_ctxt_switches:");
        }
        closedir(pDir);
    }
    u.ulRssKiB = StatusField("/proc/self/status", "VmRSS:");
    return u;
}

// Settles, then measures kIdleSec of rest.
Usage MeasureIdle()
{
    sleep(kSettleSec);
    Usage a = Snapshot();
    sleep(kIdleSec);
    Usage b = Snapshot();
    Usage d;
    d.dCpuSec = b.dCpuSec - a.dCpuSec;
    d.ulSwitches = b.ulSwitches - a.ulSwitches;
    d.ulRssKiB = b.ulRssKiB;
    return d;
}

void *EpollThread(void *)
{
    int lEp = epoll_create(1);
    struct epoll_event astEv[20];
    while (true)
        epoll_wait(lEp, astEv, 20, -1);
    return nullptr;
}

sem_t gstNever;
void *SleepThread(void *)
{
    sem_wait(&gstNever);
    return nullptr;
}

[[noreturn]] void Floor(int fdOut)
{
    pthread_t h1, h2;
    sem_init(&gstNever, 0, 0);
    pthread_create(&h1, nullptr, SleepThread, nullptr);
    pthread_create(&h2, nullptr, EpollThread, nullptr);
    Usage u = MeasureIdle();
    ssize_t n = write(fdOut, &u, sizeof(u));
    _exit(n == static_cast<ssize_t>(sizeof(u)) ? 0 : 1);
}

u32 gulErr = 0;
s32 CountErr(const char *)
{
    __atomic_add_fetch(&gulErr, 1, __ATOMIC_RELAXED);
    return 0;
}

}  // namespace

int main()
{
    if (!bench::Isolated()) {
        fprintf(stderr, "bench_idle: run it through scripts/bench.sh (binds 127.0.0.1:7001)\n");
        return 2;
    }
    int afd[2];
    if (pipe(afd) != 0)
        return 1;
    pid_t pid = fork();
    if (pid == 0) {
        close(afd[0]);
        Floor(afd[1]);
    }
    close(afd[1]);
    IBP_INIT_S stInit = bench::InitRecord(0, CountErr);
    if (IBP_Init(&stInit) != 0) {
        fprintf(stderr, "bench_idle: IBP_Init failed\n");
        kill(pid, SIGKILL);
        return 1;
    }
    Usage ibp = MeasureIdle();
    Usage floor;
    if (read(afd[0], &floor, sizeof(floor)) != static_cast<ssize_t>(sizeof(floor)))
        fprintf(stderr, "bench_idle: the floor process gave no result\n");
    waitpid(pid, nullptr, 0);

    double dCpuPct = 100.0 * ibp.dCpuSec / kIdleSec, dFloorPct = 100.0 * floor.dCpuSec / kIdleSec;
    double dWake = static_cast<double>(ibp.ulSwitches) / kIdleSec;
    double dFloorWake = static_cast<double>(floor.ulSwitches) / kIdleSec;
    // getrusage counts in scheduler ticks' worth of precision; a ratio of two
    // near-zero times says little, so the goal is on the absolute figure.
    bench::Row("6 idle processor time", bench::Fmt("%.3f%% of a core", dCpuPct),
               bench::Fmt("bare threads %.3f%%", dFloorPct),
               dFloorPct > 0 ? bench::Fmt("%.2f", dCpuPct / dFloorPct) : "-",
               bench::Fmt("goal <0.1%%: %s; %u s idle after IBP_Init", bench::Verdict(dCpuPct < 0.1), kIdleSec));
    bench::Row("6 idle wake-ups", bench::Fmt("%.1f /s", dWake), bench::Fmt("bare threads %.1f /s", dFloorWake),
               dFloorWake > 0 ? bench::Fmt("%.2f", dWake / dFloorWake) : "-",
               bench::Fmt("goal <=1/s: %s; context switches of all threads", bench::Verdict(dWake <= 1.0)));
    bench::Row("6 idle resident memory", bench::Fmt("%lu KiB", ibp.ulRssKiB),
               bench::Fmt("bare threads %lu KiB", floor.ulRssKiB),
               floor.ulRssKiB > 0 ? bench::Fmt("%.2f", static_cast<double>(ibp.ulRssKiB) / floor.ulRssKiB) : "-",
               bench::Fmt("VmRSS; same program, the floor without IBP_Init%s",
                          gulErr != 0 ? "; ERR records were logged" : ""));
    fflush(stdout);
    _exit(0);
}
