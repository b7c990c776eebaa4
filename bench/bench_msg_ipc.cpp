// Messages between the two processes over loopback UDP.
//
//  - Floor: raw datagrams of the same size (48-byte header, 24-byte record
//    head, 8-byte body) sent in bursts from one process to another, which
//    reads them in a plain blocking loop. Ports 7002 -> 7001.
//  - Sync round trips: the debug tool process (this one) calls
//    ISP_SendSyncMsg to "ISP_IMG" of the service process (a child), whose
//    handler answers with ISP_SendAckMsg, after a random pause of 0-20 ms, as
//    an application that calls now and then does. Floor: a bare UDP request
//    and reply of the same size between two processes (ports 7102 -> 7101),
//    a blocking recvfrom and sendto on each side; its trips alternate with
//    the runtime's, each after its own pause, so both meet the same machine.
//  - Async bursts: the debug tool process sends bursts of 10^4 and 10^5
//    ISP_SendAsyncMsg records to "ISP_IMG"; the handler counts them per burst.
//    A burst is over when everything arrived or nothing has come for 300 ms;
//    what is missing is then split into datagrams the receiving socket
//    dropped (its receive buffer was full), datagrams still waiting in the
//    socket, and sends that failed.
//
// Needs ports of its own: run by scripts/bench.sh inside a private network
// namespace.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <random>
#include <sstream>

#include "bench_util.h"

namespace {

constexpr u16 kIspPort = 7001;
constexpr u16 kDtPort = 7002;
constexpr u16 kEchoPort = 7101;      // the bare echo of the round-trip floor
constexpr u16 kEchoPeerPort = 7102;
constexpr u32 kMsgCount = 0x3001;
constexpr u32 kMsgEcho = 0x3002;
constexpr u32 kMsgProbe = 0x3003;  // the service notes its count of kernel drops
constexpr u32 kBodyLen = 8;  // burst number and sequence number
constexpr u32 kDatagram = MSG_HDR_LEN + ISP_MSG_HDR_LEN + kBodyLen;
constexpr int kSyncTrips = 120;
constexpr double kQuietSec = 0.3;

struct Burst {
    u32 ulSize;
    int lReps;
};
constexpr Burst kBursts[] = {{10000, 3}, {100000, 5}};
constexpr int kMaxBursts = 16;

// Shared between the two processes (anonymous shared mapping made before fork).
struct Shared {
    sem_t stReady;
    sem_t stStop;
    sem_t stEchoStop;
    sem_t stProbed;
    std::atomic<u32> ulServiceDrops;  // the service's count of datagrams the kernel dropped
    std::atomic<u32> aulCount[kMaxBursts];
    std::atomic<u64> aulLastNs[kMaxBursts];
    std::atomic<u32> ulChildErr;
    std::atomic<u32> bChildFailed;
    std::atomic<u32> ulRuntimeRcvbuf;  // SO_RCVBUF of the service's UDP socket
    char szChildErr[512];
};
Shared *gpstShared = nullptr;

u64 NowNs()
{
    return static_cast<u64>(bench::NowSec() * 1e9);
}

void Arrived(u32 ulBurst)
{
    if (ulBurst >= kMaxBursts)
        return;
    gpstShared->aulLastNs[ulBurst].store(NowNs(), std::memory_order_relaxed);
    gpstShared->aulCount[ulBurst].fetch_add(1, std::memory_order_release);
}

void ResetCounts()
{
    for (int i = 0; i < kMaxBursts; i++) {
        gpstShared->aulCount[i] = 0;
        gpstShared->aulLastNs[i] = 0;
    }
}

// Waits until a burst of n is complete or quiet; returns what arrived and, in
// *pdLast, the time of the last arrival.
u32 AwaitBurst(u32 ulBurst, u32 n, double *pdLast)
{
    u32 ulSeen = 0;
    double dChange = bench::NowSec();
    while (true) {
        u32 ulNow = gpstShared->aulCount[ulBurst].load(std::memory_order_acquire);
        double dNow = bench::NowSec();
        if (ulNow != ulSeen) {
            ulSeen = ulNow;
            dChange = dNow;
        }
        if (ulSeen >= n || dNow - dChange > kQuietSec)
            break;
        usleep(2000);
    }
    *pdLast = static_cast<double>(gpstShared->aulLastNs[ulBurst].load()) * 1e-9;
    return ulSeen;
}

// Receive queue (bytes of memory charged) and drops of the UDP socket bound
// to 127.0.0.1:port, from /proc/net/udp of this namespace.
struct SockStat {
    unsigned long ulRxQueue = 0;
    unsigned long ulDrops = 0;
};
SockStat ReadSockStat(u16 usPort)
{
    SockStat st;
    std::ifstream in("/proc/net/udp");
    std::string line;
    char szLocal[32];
    snprintf(szLocal, sizeof(szLocal), "0100007F:%04X", usPort);
    while (std::getline(in, line)) {
        std::istringstream ss(line);
        std::string sl, local, rem, state, queues, field, last;
        ss >> sl >> local >> rem >> state >> queues;
        if (local != szLocal)
            continue;
        st.ulRxQueue = strtoul(queues.substr(queues.find(':') + 1).c_str(), nullptr, 16);
        while (ss >> field)
            last = field;
        st.ulDrops = strtoul(last.c_str(), nullptr, 10);
    }
    return st;
}

struct BurstResult {
    u32 ulSize;
    u32 ulArrived;
    double dRate;  // arrived per second, first send to last arrival
    double dSendRate;  // sent per second by the sending loop (raw floor only)
    u32 ulSendFail;
    unsigned long ulDropped;
    unsigned long ulStuckBytes;
    unsigned long ulServiceDrops;  // what the service counted (runtime bursts only)
};

// ------------------------------------------------------------ raw UDP floor
int UdpSocket(u16 usPort, bool bNonBlock)
{
    int fd = socket(AF_INET, SOCK_DGRAM | (bNonBlock ? SOCK_NONBLOCK : 0), 0);
    struct sockaddr_in stAddr = {};
    stAddr.sin_family = AF_INET;
    stAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    stAddr.sin_port = htons(usPort);
    int lOn = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &lOn, sizeof(lOn));
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&stAddr), sizeof(stAddr)) != 0) {
        perror("bench_msg_ipc: bind");
        _exit(1);
    }
    return fd;
}

// How many datagrams of our size a receive buffer of the system's default
// size holds: fill a socket that nobody reads, then count what can be read
// back. *pulBytes gets its SO_RCVBUF.
u32 RcvbufCapacity(u32 *pulBytes)
{
    int fdIn = UdpSocket(kIspPort, true), fdOut = UdpSocket(kDtPort, true);
    int lBytes = 0;
    socklen_t ulOptLen = sizeof(lBytes);
    getsockopt(fdIn, SOL_SOCKET, SO_RCVBUF, &lBytes, &ulOptLen);
    *pulBytes = static_cast<u32>(lBytes);
    struct sockaddr_in stTo = {};
    stTo.sin_family = AF_INET;
    stTo.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    stTo.sin_port = htons(kIspPort);
    u8 aucDgram[kDatagram] = {};
    for (int i = 0; i < 20000; i++)
        sendto(fdOut, aucDgram, kDatagram, 0, reinterpret_cast<sockaddr *>(&stTo), sizeof(stTo));
    u32 ulHeld = 0;
    while (recv(fdIn, aucDgram, sizeof(aucDgram), 0) > 0)
        ulHeld++;
    close(fdIn);
    close(fdOut);
    return ulHeld;
}

[[noreturn]] void RawReceiver()
{
    int fd = UdpSocket(kIspPort, false);
    sem_post(&gpstShared->stReady);
    u8 aucBuf[8192];
    struct pollfd stPfd = {fd, POLLIN, 0};
    while (sem_trywait(&gpstShared->stStop) != 0) {
        if (poll(&stPfd, 1, 50) <= 0)
            continue;
        ssize_t n = recv(fd, aucBuf, sizeof(aucBuf), 0);
        if (n == static_cast<ssize_t>(kDatagram)) {
            u32 ulBurst;
            memcpy(&ulBurst, aucBuf + MSG_HDR_LEN + ISP_MSG_HDR_LEN, sizeof(ulBurst));
            Arrived(ulBurst);
        }
    }
    _exit(0);
}

std::vector<BurstResult> RawFloor()
{
    ResetCounts();
    pid_t pid = fork();
    if (pid == 0)
        RawReceiver();
    sem_wait(&gpstShared->stReady);
    int fd = UdpSocket(kDtPort, true);  // non-blocking, as the runtime's socket
    struct sockaddr_in stTo = {};
    stTo.sin_family = AF_INET;
    stTo.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    stTo.sin_port = htons(kIspPort);
    std::vector<BurstResult> results;
    u32 ulBurst = 0;
    for (const Burst &b : kBursts) {
        for (int r = 0; r < b.lReps; r++, ulBurst++) {
            SockStat stBefore = ReadSockStat(kIspPort);
            u8 aucDgram[kDatagram] = {};
            BurstResult res = {b.ulSize, 0, 0, 0, 0, 0, 0, 0};
            double t0 = bench::NowSec();
            for (u32 i = 0; i < b.ulSize; i++) {
                memcpy(aucDgram + MSG_HDR_LEN + ISP_MSG_HDR_LEN, &ulBurst, 4);
                memcpy(aucDgram + MSG_HDR_LEN + ISP_MSG_HDR_LEN + 4, &i, 4);
                if (sendto(fd, aucDgram, kDatagram, 0, reinterpret_cast<sockaddr *>(&stTo), sizeof(stTo)) !=
                    static_cast<ssize_t>(kDatagram))
                    res.ulSendFail++;
            }
            res.dSendRate = b.ulSize / (bench::NowSec() - t0);
            double dLast = 0;
            res.ulArrived = AwaitBurst(ulBurst, b.ulSize, &dLast);
            res.dRate = res.ulArrived / (dLast - t0);
            SockStat stAfter = ReadSockStat(kIspPort);
            res.ulDropped = stAfter.ulDrops - stBefore.ulDrops;
            res.ulStuckBytes = stAfter.ulRxQueue;
            results.push_back(res);
        }
    }
    close(fd);
    sem_post(&gpstShared->stStop);
    waitpid(pid, nullptr, 0);
    return results;
}

// A bare UDP echo: the floor of a round trip.
[[noreturn]] void RawEchoer()
{
    int fd = UdpSocket(kEchoPort, false);
    timeval stTv = {0, 50000};  // looks at the stop request now and then
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &stTv, sizeof(stTv));
    sem_post(&gpstShared->stReady);
    u8 aucBuf[8192];
    while (sem_trywait(&gpstShared->stEchoStop) != 0) {
        struct sockaddr_in stFrom = {};
        socklen_t ulLen = sizeof(stFrom);
        ssize_t n = recvfrom(fd, aucBuf, sizeof(aucBuf), 0, reinterpret_cast<sockaddr *>(&stFrom), &ulLen);
        if (n > 0)
            sendto(fd, aucBuf, static_cast<size_t>(n), 0, reinterpret_cast<sockaddr *>(&stFrom), ulLen);
    }
    _exit(0);
}

// The client side of the bare echo; one trip at a time.
class RawTrips {
public:
    RawTrips() : fd_(UdpSocket(kEchoPeerPort, false))
    {
        timeval stTv = {1, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &stTv, sizeof(stTv));
        stTo_.sin_family = AF_INET;
        stTo_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        stTo_.sin_port = htons(kEchoPort);
    }
    ~RawTrips() { close(fd_); }
    void Trip(std::vector<double> *pRtt)
    {
        u8 aucDgram[kDatagram] = {};
        double t0 = bench::NowSec();
        if (sendto(fd_, aucDgram, kDatagram, 0, reinterpret_cast<sockaddr *>(&stTo_), sizeof(stTo_)) ==
                static_cast<ssize_t>(kDatagram) &&
            recv(fd_, aucDgram, sizeof(aucDgram), 0) == static_cast<ssize_t>(kDatagram))
            pRtt->push_back((bench::NowSec() - t0) * 1e3);
    }

private:
    int fd_;
    struct sockaddr_in stTo_ = {};
};

// --------------------------------------------------------- service process
s32 ChildLog(const char *pcText)
{
    if (gpstShared->ulChildErr.fetch_add(1) == 0)
        snprintf(gpstShared->szChildErr, sizeof(gpstShared->szChildErr), "%s", pcText);
    return 0;
}

// The record a benchmark message carries, or null when it is not one.
ISP_MSG_S *BenchRecord(MSG_HANDLE hMsg)
{
    void *pBody = nullptr;
    u32 ulLen = 0;
    if (MSG_Decode(hMsg, &pBody, &ulLen) != 0 || ulLen != ISP_MSG_HDR_LEN + kBodyLen)
        return nullptr;
    return static_cast<ISP_MSG_S *>(pBody);
}

u32 CountProc(u32, MSG_HANDLE hMsg, void *)
{
    const ISP_MSG_S *pstRec = BenchRecord(hMsg);
    if (pstRec == nullptr)
        return 1;
    u32 ulBurst;
    memcpy(&ulBurst, pstRec->aucBody, sizeof(ulBurst));
    Arrived(ulBurst);
    return 0;
}

u32 EchoProc(u32, MSG_HANDLE hMsg, void *)
{
    const ISP_MSG_S *pstRec = BenchRecord(hMsg);
    if (pstRec == nullptr)
        return 1;
    alignas(8) u8 aucAck[ISP_MSG_HDR_LEN + kBodyLen];
    memcpy(aucAck, pstRec, sizeof(aucAck));
    reinterpret_cast<ISP_MSG_S *>(aucAck)->ulResult = 0;
    return ISP_SendAckMsg(hMsg, aucAck, sizeof(aucAck));
}

// A datagram after a burst carries the kernel's count of drops to the
// service, which then reports what its statistics counted. A library of
// before the statistics has no such call: weak, so that it runs there too.
#pragma weak IBP_GetProcStat
u32 ProbeProc(u32, MSG_HANDLE, void *)
{
    IBP_PROC_STAT_S stStat{};
    if (&IBP_GetProcStat != nullptr)
        (void)IBP_GetProcStat(&stStat);
    gpstShared->ulServiceDrops = stStat.ulKernelDrops;
    sem_post(&gpstShared->stProbed);
    return 0;
}

// SO_RCVBUF of this process's UDP socket bound to port, 0 if none is found.
u32 OwnSocketRcvbuf(u16 usPort)
{
    for (int fd = 3; fd < 256; fd++) {
        struct sockaddr_in stAddr = {};
        socklen_t ulLen = sizeof(stAddr);
        int lType = 0, lBytes = 0;
        socklen_t ulOptLen = sizeof(lType);
        if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &lType, &ulOptLen) != 0 || lType != SOCK_DGRAM ||
            getsockname(fd, reinterpret_cast<sockaddr *>(&stAddr), &ulLen) != 0 || ntohs(stAddr.sin_port) != usPort)
            continue;
        ulOptLen = sizeof(lBytes);
        if (getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &lBytes, &ulOptLen) == 0)
            return static_cast<u32>(lBytes);
    }
    return 0;
}

[[noreturn]] void ServiceProcess()
{
    IBP_INIT_S stInit = bench::InitRecord(0, ChildLog);
    u32 ulImg = 0;
    if (IBP_Init(&stInit) != 0 || MOD_RegModule("ISP_IMG", &ulImg) != 0 ||
        MOD_RegMsgProc(ulImg, kMsgCount, CountProc, nullptr) != 0 ||
        MOD_RegMsgProc(ulImg, kMsgEcho, EchoProc, nullptr) != 0 ||
        MOD_RegMsgProc(ulImg, kMsgProbe, ProbeProc, nullptr) != 0)
        gpstShared->bChildFailed = 1;
    gpstShared->ulRuntimeRcvbuf = OwnSocketRcvbuf(kIspPort);
    sem_post(&gpstShared->stReady);
    sem_wait(&gpstShared->stStop);
    // Nothing is stored: leave without the orderly stop.
    _exit(0);
}

// ------------------------------------------------------- debug tool process
std::atomic<u32> gulSendFail{0};
std::atomic<u32> gulDtErr{0};
char gszDtErr[512];

s32 DtLog(const char *pcText)
{
    if (strstr(pcText, "send msg to ip addr") != nullptr)
        gulSendFail++;
    if (gulDtErr.fetch_add(1) == 0)
        snprintf(gszDtErr, sizeof(gszDtErr), "%s", pcText);
    return 0;
}

void SyncTrips(std::vector<double> *pRtt, std::vector<double> *pRawRtt, u32 *pulFailed)
{
    RawTrips raw;
    alignas(8) u8 aucReq[ISP_MSG_HDR_LEN + kBodyLen] = {};
    auto *pstReq = reinterpret_cast<ISP_MSG_S *>(aucReq);
    pstReq->ulDstModuleID = MOD_ID_ISP_IMG;
    pstReq->ulMsgID = kMsgEcho;
    pstReq->ulBodyLen = kBodyLen;
    std::mt19937 rng(12345);
    std::uniform_int_distribution<int> pause(0, 20000);
    for (int i = 0; i < kSyncTrips; i++) {
        usleep(static_cast<useconds_t>(pause(rng)));
        raw.Trip(pRawRtt);
        usleep(static_cast<useconds_t>(pause(rng)));
        ISP_MSG_S *pstAck = nullptr;
        double t0 = bench::NowSec();
        u32 ulRet = ISP_SendSyncMsg(pstReq, 1000, &pstAck);
        double t1 = bench::NowSec();
        if (ulRet != 0) {
            (*pulFailed)++;
            continue;
        }
        ISP_free(&pstAck);
        pRtt->push_back((t1 - t0) * 1e3);
    }
}

// The service's count of kernel drops after a probe, or ~0 when it did not come.
u32 ProbeServiceDrops(ISP_MSG_S *pstReq)
{
    const u32 ulMsgID = pstReq->ulMsgID;
    pstReq->ulMsgID = kMsgProbe;
    const bool bSent = ISP_SendAsyncMsg(pstReq) == 0;
    pstReq->ulMsgID = ulMsgID;
    timespec stUntil{};
    clock_gettime(CLOCK_REALTIME, &stUntil);
    stUntil.tv_sec += 2;
    if (!bSent || sem_timedwait(&gpstShared->stProbed, &stUntil) != 0)
        return ~0u;
    return gpstShared->ulServiceDrops.load();
}

std::vector<BurstResult> IbpBursts()
{
    std::vector<BurstResult> results;
    u32 ulBurst = 0;
    alignas(8) u8 aucReq[ISP_MSG_HDR_LEN + kBodyLen] = {};
    auto *pstReq = reinterpret_cast<ISP_MSG_S *>(aucReq);
    pstReq->ulDstModuleID = MOD_ID_ISP_IMG;
    pstReq->ulMsgID = kMsgCount;
    pstReq->ulBodyLen = kBodyLen;
    for (const Burst &b : kBursts) {
        for (int r = 0; r < b.lReps; r++, ulBurst++) {
            const u32 ulServiceBefore = ProbeServiceDrops(pstReq);
            SockStat stBefore = ReadSockStat(kIspPort);
            u32 ulFailBefore = gulSendFail;
            BurstResult res = {b.ulSize, 0, 0, 0, 0, 0, 0, 0};
            double t0 = bench::NowSec();
            for (u32 i = 0; i < b.ulSize; i++) {
                memcpy(pstReq->aucBody, &ulBurst, 4);
                memcpy(pstReq->aucBody + 4, &i, 4);
                if (ISP_SendAsyncMsg(pstReq) != 0)
                    res.ulSendFail++;
            }
            double dLast = 0;
            res.ulArrived = AwaitBurst(ulBurst, b.ulSize, &dLast);
            res.dRate = res.ulArrived / (dLast - t0);
            SockStat stAfter = ReadSockStat(kIspPort);
            res.ulSendFail += gulSendFail - ulFailBefore;
            res.ulDropped = stAfter.ulDrops - stBefore.ulDrops;
            res.ulStuckBytes = stAfter.ulRxQueue;
            const u32 ulServiceAfter = ProbeServiceDrops(pstReq);
            res.ulServiceDrops = (ulServiceBefore == ~0u || ulServiceAfter == ~0u) ? ~0ul : ulServiceAfter - ulServiceBefore;
            results.push_back(res);
        }
    }
    return results;
}

// ----------------------------------------------------------------- report
std::vector<BurstResult> OfSize(const std::vector<BurstResult> &all, u32 ulSize)
{
    std::vector<BurstResult> out;
    for (const BurstResult &r : all)
        if (r.ulSize == ulSize)
            out.push_back(r);
    return out;
}

double MedianRate(const std::vector<BurstResult> &v)
{
    std::vector<double> rates;
    for (const BurstResult &r : v)
        rates.push_back(r.dRate);
    return bench::Median(rates);
}

std::string Arrivals(const std::vector<BurstResult> &v)
{
    std::string s;
    for (const BurstResult &r : v) {
        if (!s.empty())
            s.push_back(',');
        s.append(std::to_string(r.ulArrived));
    }
    return s;
}

void Report(const std::vector<BurstResult> &raw, const std::vector<BurstResult> &ibp)
{
    for (const Burst &b : kBursts) {
        auto vRaw = OfSize(raw, b.ulSize), vIbp = OfSize(ibp, b.ulSize);
        double dIbp = MedianRate(vIbp), dRaw = MedianRate(vRaw);
        bool bComplete = true;
        unsigned long ulDrop = 0, ulStuck = 0, ulFail = 0, ulMissing = 0, ulCounted = 0;
        int lWhole = 0;
        for (const BurstResult &r : vIbp) {
            bComplete = bComplete && r.ulArrived == r.ulSize;
            lWhole += r.ulArrived == r.ulSize ? 1 : 0;
            ulCounted += r.ulServiceDrops;
            ulMissing += r.ulSize - r.ulArrived;
            ulDrop += r.ulDropped;
            ulStuck = std::max(ulStuck, r.ulStuckBytes);
            ulFail += r.ulSendFail;
        }
        unsigned long ulRawMissing = 0;
        for (const BurstResult &r : vRaw)
            ulRawMissing += r.ulSize - r.ulArrived;
        double dLossPct = 100.0 * static_cast<double>(ulMissing) / (b.ulSize * vIbp.size());
        std::string note = bench::Fmt("arrived %s of %u; missing %lu = socket drops %lu + send failures %lu + "
                                      "left in the socket (rx_queue up to %lu B); kernel drops counted by the "
                                      "service %lu, by /proc/net/udp %lu: %s",
                                      Arrivals(vIbp).c_str(), b.ulSize, ulMissing, ulDrop, ulFail, ulStuck, ulCounted,
                                      ulDrop, ulCounted == ulDrop ? "equal" : "DIFFERENT");
        note = bench::Fmt("goal: 0 lost, %zu runs of %zu: %d of %zu, %s; ", vIbp.size(), vIbp.size(), lWhole,
                          vIbp.size(), bench::Verdict(bComplete)) + note;
        bench::Row(bench::Fmt("2 async cross-process burst %u", b.ulSize),
                   bench::Fmt("%.0f k msg/s, loss %.1f%%", dIbp / 1e3, dLossPct),
                   bench::Fmt("raw UDP %.0f k dgram/s, loss %.1f%%", dRaw / 1e3,
                              100.0 * static_cast<double>(ulRawMissing) / (b.ulSize * vRaw.size())),
                   bench::Fmt("%.2f", dIbp / dRaw), note);
    }
}

void ReportBursts(const std::vector<BurstResult> &raw, const std::vector<BurstResult> &ibp, u32 ulCapacity,
                  u32 ulDefaultBytes)
{
    Report(raw, ibp);
    std::vector<double> sendRates;
    for (const BurstResult &r : raw)
        sendRates.push_back(r.dSendRate);
    // The kernel charges each datagram its whole buffer, not its payload, so
    // the runtime's socket holds in proportion to its size.
    u32 ulRuntime = gpstShared->ulRuntimeRcvbuf;
    double dHeld = ulDefaultBytes != 0 ? static_cast<double>(ulCapacity) * ulRuntime / ulDefaultBytes : 0;
    bench::Row("2 service socket receive buffer",
               bench::Fmt("%u KiB, ~%.0f datagrams of %u B", ulRuntime / 1024, dHeld, kDatagram),
               bench::Fmt("system default %u KiB holds %u", ulDefaultBytes / 1024, ulCapacity),
               bench::Fmt("%.2f", ulDefaultBytes != 0 ? static_cast<double>(ulRuntime) / ulDefaultBytes : 0),
               bench::Fmt("%.0f ms of sends at the raw send pace (%.0f k/s)",
                          dHeld * 1e3 / bench::Median(sendRates), bench::Median(sendRates) / 1e3));
}

}  // namespace

int main()
{
    if (!bench::Isolated()) {
        fprintf(stderr, "bench_msg_ipc: run it through scripts/bench.sh (binds 127.0.0.1:7001/7002)\n");
        return 2;
    }
    void *pMap = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (pMap == MAP_FAILED) {
        perror("bench_msg_ipc: mmap");
        return 1;
    }
    gpstShared = new (pMap) Shared();
    sem_init(&gpstShared->stReady, 1, 0);
    sem_init(&gpstShared->stStop, 1, 0);
    sem_init(&gpstShared->stEchoStop, 1, 0);
    sem_init(&gpstShared->stProbed, 1, 0);

    u32 ulDefaultBytes = 0;
    u32 ulCapacity = RcvbufCapacity(&ulDefaultBytes);
    // IBP_BENCH_TRIPS_ONLY: row 3 alone, for comparing libraries quickly.
    const bool bTripsOnly = getenv("IBP_BENCH_TRIPS_ONLY") != nullptr;
    std::vector<BurstResult> raw;
    if (!bTripsOnly)
        raw = RawFloor();

    pid_t echo = fork();
    if (echo == 0)
        RawEchoer();
    sem_wait(&gpstShared->stReady);
    ResetCounts();
    pid_t pid = fork();
    if (pid == 0)
        ServiceProcess();
    sem_wait(&gpstShared->stReady);
    IBP_INIT_S stInit = bench::InitRecord(1, DtLog);
    if (gpstShared->bChildFailed != 0 || IBP_Init(&stInit) != 0) {
        fprintf(stderr, "bench_msg_ipc: start-up failed: %s %s\n", gpstShared->szChildErr, gszDtErr);
        sem_post(&gpstShared->stStop);
        return 1;
    }
    std::vector<double> rtt, rawRtt;
    u32 ulSyncFailed = 0;
    SyncTrips(&rtt, &rawRtt, &ulSyncFailed);
    sem_post(&gpstShared->stEchoStop);
    waitpid(echo, nullptr, 0);
    std::vector<BurstResult> ibp;
    if (!bTripsOnly)
        ibp = IbpBursts();
    sem_post(&gpstShared->stStop);
    waitpid(pid, nullptr, 0);

    const double dMed = bench::Median(rtt), dP99 = bench::Percentile(rtt, 99), dRaw = bench::Median(rawRtt);
    const bool bMet = dMed <= 0.5 && dP99 <= 1.0 && dMed <= 3 * dRaw && ulSyncFailed == 0;
    bench::Row("3 sync RTT cross-process min/med/p99/max",
               bench::Fmt("%.3f/%.3f/%.3f/%.3f ms", bench::Percentile(rtt, 0), dMed, dP99,
                          bench::Percentile(rtt, 100)),
               bench::Fmt("bare UDP request/reply med %.3f ms, p99 %.3f", dRaw, bench::Percentile(rawRtt, 99)),
               bench::Fmt("%.1f", dMed / dRaw),
               bench::Fmt("goal med <=0.5 ms, p99 <=1 ms, <=3x bare: %s; %d trips each, alternating, after a random "
                          "0-20 ms pause, %u failed", bench::Verdict(bMet), kSyncTrips, ulSyncFailed));
    if (!bTripsOnly)
        ReportBursts(raw, ibp, ulCapacity, ulDefaultBytes);
    if (gulDtErr + gpstShared->ulChildErr != 0)
        fprintf(stderr, "bench_msg_ipc: ERR records: debug tool %u (first: %.200s) service %u (first: %.200s)\n",
                gulDtErr.load(), gszDtErr, gpstShared->ulChildErr.load(), gpstShared->szChildErr);
    fflush(stdout);
    _exit(0);
}
