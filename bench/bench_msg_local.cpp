// Messages inside one service process.
//
//  - Async throughput: the main thread (which speaks as the process module)
//    sends N messages with MSG_SendAsyncMsg to "ISP_IMG", whose handler counts
//    them. Floor: a bare queue of the same design in this file (mutex-guarded
//    list, two heap blocks per message, one sem_post per message, one consumer
//    thread that drains the list on each wake-up). Runs alternate, figure and
//    floor, and the medians are compared.
//  - Sync round trips: ISP_SendSyncMsg from the main thread to "ISP_IMG",
//    whose handler answers with ISP_SendAckMsg. Floor: the bare hand-off that
//    such a trip cannot do without, a semaphore posted to a waiting thread
//    and one posted back, between two threads of this file.
//  - MOD_SysDestroy: how long the stop of the runtime takes, once the
//    application's module is gone.
//
// Needs ports of its own (IBP_Init binds 127.0.0.1:7001): run by
// scripts/bench.sh inside a private network namespace.
#include <pthread.h>
#include <semaphore.h>

#include <atomic>
#include <cstdint>

#include "bench_util.h"

namespace {

constexpr u32 kMsgCount = 0x2001;  // counted by the handler
constexpr u32 kMsgEcho = 0x2002;   // answered by the handler
constexpr u32 kBodyLen = 8;
constexpr u32 kAsyncN = 100000;
constexpr int kAsyncReps = 7;
constexpr int kSyncTrips = 200;

std::atomic<u32> gulErrRecords{0};
char gszFirstErr[1024];

// The log in function mode at ERR: only failures reach here.
s32 CountErr(const char *pcText)
{
    if (gulErrRecords.fetch_add(1) == 0)
        snprintf(gszFirstErr, sizeof(gszFirstErr), "%s", pcText);
    return 0;
}

std::atomic<u32> gulCounted{0};
u32 gulTarget = 0;
sem_t gstDone;

void CountOne()
{
    if (gulCounted.fetch_add(1, std::memory_order_relaxed) + 1 == gulTarget)
        sem_post(&gstDone);
}

u32 CountProc(u32, MSG_HANDLE, void *)
{
    CountOne();
    return 0;
}

u32 EchoProc(u32, MSG_HANDLE hMsg, void *)
{
    void *pBody = nullptr;
    u32 ulLen = 0;
    if (MSG_Decode(hMsg, &pBody, &ulLen) != 0 || ISP_IsMsgValid(static_cast<ISP_MSG_S *>(pBody), ulLen) == 0)
        return 1;
    alignas(8) u8 aucAck[ISP_MSG_HDR_LEN + 64];
    if (ulLen > sizeof(aucAck))
        return 1;
    memcpy(aucAck, pBody, ulLen);
    reinterpret_cast<ISP_MSG_S *>(aucAck)->ulResult = 0;
    return ISP_SendAckMsg(hMsg, aucAck, ulLen);
}

// ------------------------------------------------------------ the floor queue
struct FloorNode {
    void *pMem;
    u32 ulLen;
    FloorNode *pstNext;
};

struct FloorQueue {
    pthread_mutex_t stLock = PTHREAD_MUTEX_INITIALIZER;
    FloorNode *pstHead = nullptr;
    FloorNode *pstTail = nullptr;
    sem_t stWake;
    bool bRun = true;
};
FloorQueue gstFloor;

FloorNode *FloorPop()
{
    pthread_mutex_lock(&gstFloor.stLock);
    FloorNode *pstNode = gstFloor.pstHead;
    if (pstNode != nullptr) {
        gstFloor.pstHead = pstNode->pstNext;
        if (gstFloor.pstHead == nullptr)
            gstFloor.pstTail = nullptr;
    }
    pthread_mutex_unlock(&gstFloor.stLock);
    return pstNode;
}

void *FloorConsumer(void *)
{
    while (true) {
        sem_wait(&gstFloor.stWake);
        if (!__atomic_load_n(&gstFloor.bRun, __ATOMIC_ACQUIRE))
            return nullptr;
        // Like a module thread: one wake-up drains what is there, one message
        // per lock.
        while (FloorNode *pstNode = FloorPop()) {
            CountOne();
            free(pstNode->pMem);
            free(pstNode);
        }
    }
}

bool FloorSend(const void *pBody, u32 ulBodyLen)
{
    auto *pstNode = static_cast<FloorNode *>(calloc(1, sizeof(MOD_BUF_S)));
    if (pstNode == nullptr)
        return false;
    pstNode->ulLen = MSG_HDR_LEN + ulBodyLen;
    pstNode->pMem = malloc(pstNode->ulLen);
    if (pstNode->pMem == nullptr) {
        free(pstNode);
        return false;
    }
    auto *pstHdr = static_cast<MSG_HDR_S *>(pstNode->pMem);
    memset(pstHdr, 0, MSG_HDR_LEN);
    pstHdr->ulPrefix = MSG_PREFIX;
    pstHdr->ulMsgLen = pstNode->ulLen;
    memcpy(static_cast<u8 *>(pstNode->pMem) + MSG_HDR_LEN, pBody, ulBodyLen);
    pthread_mutex_lock(&gstFloor.stLock);
    if (gstFloor.pstTail != nullptr)
        gstFloor.pstTail->pstNext = pstNode;
    else
        gstFloor.pstHead = pstNode;
    gstFloor.pstTail = pstNode;
    pthread_mutex_unlock(&gstFloor.stLock);
    sem_post(&gstFloor.stWake);
    return true;
}

// ------------------------------------------------------------------- runs
bool IbpSend(const void *pBody, u32 ulBodyLen)
{
    MSG_HANDLE hMsg = MSG_Create(pBody, ulBodyLen);
    return hMsg != nullptr && MSG_SendAsyncMsg(MOD_ID_ISP_IMG, kMsgCount, hMsg) == 0;
}

// Messages per second of one burst of n through pfnSend (the runtime or the
// floor), 0 on a failure.
double AsyncRun(u32 n, bool (*pfnSend)(const void *, u32))
{
    gulCounted = 0;
    gulTarget = n;
    u8 aucBody[kBodyLen] = {};
    double t0 = bench::NowSec();
    for (u32 i = 0; i < n; i++) {
        memcpy(aucBody, &i, sizeof(i));
        if (!pfnSend(aucBody, kBodyLen))
            return 0;
    }
    sem_wait(&gstDone);
    return n / (bench::NowSec() - t0);
}

// The median of the runtime's async runs alone, for the cost of the
// statistics: scripts/bench.sh runs this on the library with and without
// them. With a count, one run of that many messages only, for counting the
// instructions that they take under callgrind.
void AsyncOnly(u32 ulCount)
{
    if (ulCount != 0) {
        printf("ASYNC\t%.0f\n", AsyncRun(ulCount, IbpSend));
        return;
    }
    AsyncRun(kAsyncN / 10, IbpSend);
    std::vector<double> ibp;
    for (int r = 0; r < kAsyncReps; r++)
        ibp.push_back(AsyncRun(kAsyncN, IbpSend));
    printf("ASYNC\t%.0f\n", bench::Median(ibp));
}

void AsyncFigure()
{
    pthread_t hConsumer;
    sem_init(&gstFloor.stWake, 0, 0);
    pthread_create(&hConsumer, nullptr, FloorConsumer, nullptr);

    AsyncRun(kAsyncN / 10, IbpSend);  // warm the heap and the threads
    AsyncRun(kAsyncN / 10, FloorSend);
    std::vector<double> ibp, floor;
    for (int r = 0; r < kAsyncReps; r++) {
        ibp.push_back(AsyncRun(kAsyncN, IbpSend));
        floor.push_back(AsyncRun(kAsyncN, FloorSend));
    }
    __atomic_store_n(&gstFloor.bRun, false, __ATOMIC_RELEASE);
    sem_post(&gstFloor.stWake);
    pthread_join(hConsumer, nullptr);

    for (int r = 0; r < kAsyncReps; r++)
        fprintf(stderr, "bench_msg_local: run %d: %.2f M msg/s, floor %.2f M msg/s\n", r, ibp[r] / 1e6, floor[r] / 1e6);
    double dIbp = bench::Median(ibp), dFloor = bench::Median(floor);
    bool bFailed = std::find(ibp.begin(), ibp.end(), 0.0) != ibp.end();
    double dRatio = dIbp / dFloor;
    bool bMet = !bFailed && dIbp >= 1e6 && dRatio >= 0.8;
    // Runs are bimodal: while the consumer keeps up, every sem_post wakes it
    // (a futex call on each side per message); when it falls behind, it
    // drains batches and the posts are cheap. The spread shows which.
    bench::Row("1 async in-process MSG_SendAsyncMsg", bench::Fmt("%.2f M msg/s", dIbp / 1e6),
               bench::Fmt("bare queue %.2f M msg/s", dFloor / 1e6), bench::Fmt("%.2f", dRatio),
               bench::Fmt("goal >=1 M/s and >=0.80: %s; median of %d x %u msgs, runs %.2f-%.2f (floor %.2f-%.2f)%s",
                          bench::Verdict(bMet), kAsyncReps, kAsyncN, bench::Percentile(ibp, 0) / 1e6,
                          bench::Percentile(ibp, 100) / 1e6, bench::Percentile(floor, 0) / 1e6,
                          bench::Percentile(floor, 100) / 1e6, bFailed ? "; a send FAILED" : ""));
}

// The floor of a synchronous trip in one process: two hand-offs between
// threads on semaphores, and nothing else.
sem_t gstPing, gstPong;
void *PongThread(void *)
{
    for (;;) {
        sem_wait(&gstPing);
        sem_post(&gstPong);
    }
    return nullptr;
}

std::vector<double> SemHandOffs(int n)
{
    sem_init(&gstPing, 0, 0);
    sem_init(&gstPong, 0, 0);
    pthread_t hThread;
    pthread_create(&hThread, nullptr, PongThread, nullptr);
    pthread_detach(hThread);
    std::vector<double> rtt;
    for (int i = 0; i < n; i++) {
        double t0 = bench::NowSec();
        sem_post(&gstPing);
        sem_wait(&gstPong);
        rtt.push_back((bench::NowSec() - t0) * 1e3);
    }
    return rtt;
}

void SyncFigure()
{
    alignas(8) u8 aucReq[ISP_MSG_HDR_LEN + kBodyLen] = {};
    auto *pstReq = reinterpret_cast<ISP_MSG_S *>(aucReq);
    pstReq->ulDstModuleID = MOD_ID_ISP_IMG;
    pstReq->ulMsgID = kMsgEcho;
    pstReq->ulBodyLen = kBodyLen;
    std::vector<double> rtt;
    u32 ulFailed = 0;
    for (int i = 0; i < kSyncTrips; i++) {
        ISP_MSG_S *pstAck = nullptr;
        double t0 = bench::NowSec();
        u32 ulRet = ISP_SendSyncMsg(pstReq, 1000, &pstAck);
        double t1 = bench::NowSec();
        if (ulRet != 0) {
            ulFailed++;
            continue;
        }
        ISP_free(&pstAck);
        rtt.push_back((t1 - t0) * 1e3);
    }
    const std::vector<double> floor = SemHandOffs(kSyncTrips);
    const double dMed = bench::Median(rtt), dFloor = bench::Median(floor);
    bench::Row("3 sync RTT in-process min/med/p99/max",
               bench::Fmt("%.3f/%.3f/%.3f/%.3f ms", bench::Percentile(rtt, 0), dMed, bench::Percentile(rtt, 99),
                          bench::Percentile(rtt, 100)),
               bench::Fmt("bare semaphore hand-off med %.3f ms", dFloor), bench::Fmt("%.1f", dMed / dFloor),
               bench::Fmt("goal med <=0.1 ms: %s; %d trips, %u failed", bench::Verdict(dMed <= 0.1), kSyncTrips,
                          ulFailed));
}

void DestroyFigure(u32 ulImg)
{
    MOD_UnregModule(ulImg);
    double t0 = bench::NowSec();
    MOD_SysDestroy();
    double dMs = (bench::NowSec() - t0) * 1e3;
    bench::Row("6 MOD_SysDestroy", bench::Fmt("%.2f ms", dMs), "-", "-",
               "stops the process thread and the _CMD module, gives back socket, buffer and epoll");
}

}  // namespace

int main(int argc, char **argv)
{
    if (!bench::Isolated()) {
        fprintf(stderr, "bench_msg_local: run it through scripts/bench.sh (binds 127.0.0.1:7001)\n");
        return 2;
    }
    sem_init(&gstDone, 0, 0);
    IBP_INIT_S stInit = bench::InitRecord(0, CountErr);
    u32 ulImg = 0;
    if (IBP_Init(&stInit) != 0 || MOD_RegModule("ISP_IMG", &ulImg) != 0 ||
        MOD_RegMsgProc(ulImg, kMsgCount, CountProc, nullptr) != 0 ||
        MOD_RegMsgProc(ulImg, kMsgEcho, EchoProc, nullptr) != 0) {
        fprintf(stderr, "bench_msg_local: start-up failed: %s\n", gszFirstErr);
        return 1;
    }
    if (argc > 1 && strcmp(argv[1], "--async-only") == 0) {
        AsyncOnly(argc > 2 ? static_cast<u32>(strtoul(argv[2], nullptr, 10)) : 0);
        fflush(stdout);
        _exit(0);
    }
    AsyncFigure();
    SyncFigure();
    DestroyFigure(ulImg);
    if (gulErrRecords != 0)
        fprintf(stderr, "bench_msg_local: %u ERR records, the first: %s", gulErrRecords.load(), gszFirstErr);
    fflush(stdout);
    // Nothing is stored: leave without the orderly stop.
    _exit(0);
}
