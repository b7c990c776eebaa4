// What hostile input from the socket costs a service process, which logs to
// its files under /var/log at INF as ibp-isp does (a tmpfs in the bench's
// namespace) and echoes synchronous records on "ISP_IMG".
//
//  - Cost: 3,000 datagrams of 8,000 random bytes, then 3,000 datagrams each
//    made of 2,000 copies of the 4-byte message prefix. Each header that the
//    parser steps over is bad input; its records come under the rate limit.
//    Figure: the service's processor time per datagram of prefixes; floor:
//    the same for random bytes, which hold no prefix to step over.
//  - Stray acks: 100,000 synchronous acks that nobody waits for, half to
//    "ISP_IMG" and half to the process module, paced by an echo after every
//    1,000; the service's resident memory before and after.
//  - Flood: 200,000 mutated messages (random types, destinations, lengths,
//    truncated, concatenated, junk between them, stray acks) as fast as the
//    socket takes them; then a synchronous echo is asked every 10 ms until
//    one comes back. Figure: how long after the end of the flood the service
//    answered; also its resident memory before and after.
//
// The sender paces the cost runs with an echo after every 100 datagrams, so
// that none is dropped by a full socket and all of them are paid for.
//
// Needs ports of its own: run by scripts/bench.sh inside a private network
// namespace.
#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <fstream>
#include <random>

#include "bench_util.h"

namespace {

constexpr u16 kIspPort = 7001;
constexpr u16 kDtPort = 7002;
constexpr u32 kEcho = 0x4001;
constexpr int kCostDatagrams = 3000;
constexpr int kPace = 100;
constexpr int kFlood = 200000;
constexpr int kStrayAcks = 100000;
constexpr u8 kPrefix[4] = {0x35, 0x23, 0x12, 0xdf};

struct Shared {
    sem_t stReady;
    sem_t stStop;
    u32 bFailed;
};
Shared *gpstShared = nullptr;

// ------------------------------------------------------------- the service
u32 EchoProc(u32, MSG_HANDLE hMsg, void *)
{
    void *pBody = nullptr;
    u32 ulLen = 0;
    if (MSG_Decode(hMsg, &pBody, &ulLen) != 0)
        return 1;
    const auto *pstHdr = static_cast<const MSG_HDR_S *>(hMsg->pMem);
    if (pstHdr->enMsgType != MSG_TYPE_SYNC_REQ || ISP_IsMsgValid(static_cast<ISP_MSG_S *>(pBody), ulLen) == 0)
        return 0;
    return ISP_SendAckMsg(hMsg, pBody, ulLen);
}

[[noreturn]] void Service()
{
    IBP_INIT_S stInit = {};
    stInit.stLogInit.ulOutputMode = LOG_OUTPUT_FILE;
    for (u32 &ulLevel : stInit.stLogInit.aulLevel)
        ulLevel = LOG_LEVEL_INF;
    u32 ulImg = 0;
    if (IBP_Init(&stInit) != 0 || MOD_RegModule("ISP_IMG", &ulImg) != 0 ||
        MOD_RegMsgProc(ulImg, 0, EchoProc, nullptr) != 0)
        gpstShared->bFailed = 1;
    sem_post(&gpstShared->stReady);
    sem_wait(&gpstShared->stStop);
    _exit(0);
}

// Processor time of every thread of a process, in seconds (ns precision).
double CpuSec(pid_t pid)
{
    double d = 0;
    std::string dir = "/proc/" + std::to_string(pid) + "/task";
    if (DIR *pDir = opendir(dir.c_str())) {
        while (struct dirent *pEnt = readdir(pDir)) {
            if (pEnt->d_name[0] == '.')
                continue;
            std::ifstream in(dir + "/" + pEnt->d_name + "/schedstat");
            unsigned long long ullNs = 0;
            if (in >> ullNs)
                d += static_cast<double>(ullNs) * 1e-9;
        }
        closedir(pDir);
    }
    return d;
}

unsigned long RssKiB(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);)
        if (line.compare(0, 6, "VmRSS:") == 0)
            return strtoul(line.c_str() + 6, nullptr, 10);
    return 0;
}

// ---------------------------------------------------------------- the peer
class Peer {
public:
    Peer() : fd_(socket(AF_INET, SOCK_DGRAM, 0))
    {
        sockaddr_in a = Addr(kDtPort);
        if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof(a)) != 0) {
            perror("bench_hostile: bind");
            _exit(1);
        }
        int lBytes = 8 << 20;
        setsockopt(fd_, SOL_SOCKET, SO_SNDBUFFORCE, &lBytes, sizeof(lBytes));
    }
    bool Send(const std::vector<u8> &b) const
    {
        sockaddr_in a = Addr(kIspPort);
        return sendto(fd_, b.data(), b.size(), 0, reinterpret_cast<sockaddr *>(&a), sizeof(a)) ==
               static_cast<ssize_t>(b.size());
    }
    // Asks for an echo and waits up to ulWaitMs for it; older answers are passed over.
    bool Echo(u32 ulWaitMs)
    {
        const u32 ulAss = ++ulAss_;
        if (!Send(Block(MSG_TYPE_SYNC_REQ, kEcho, MOD_ID_ISP_IMG, ulAss)))
            return false;
        const double dEnd = bench::NowSec() + ulWaitMs * 1e-3;
        for (double dNow; (dNow = bench::NowSec()) < dEnd;) {
            timeval stTv = {0, static_cast<suseconds_t>((dEnd - dNow) * 1e6) + 1};
            setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &stTv, sizeof(stTv));
            u8 aucBuf[8192];
            ssize_t n = recv(fd_, aucBuf, sizeof(aucBuf), 0);
            MSG_HDR_S stHdr;
            if (n < static_cast<ssize_t>(MSG_HDR_LEN))
                continue;
            memcpy(&stHdr, aucBuf, sizeof(stHdr));
            if (stHdr.ulMsgID == kEcho && stHdr.ulAssMsgID == ulAss)
                return true;
        }
        return false;
    }
    // A well-formed message from the debug tool's process module: an
    // application record with an 8-byte body.
    static std::vector<u8> Block(u32 ulType, u32 ulMsgID, u32 ulDst, u32 ulAss)
    {
        const u32 ulBody = ISP_MSG_HDR_LEN + 8;
        const MSG_HDR_S stHdr = {MSG_PREFIX, ulType,          ulMsgID,         ulAss, MSG_HDR_LEN + ulBody,
                                 ulBody,     MOD_PROC_MODULE_ID, ulDst, MOD_PROC_ID_DT, MOD_PROC_ID_ISP,
                                 0,          0,               0};
        std::vector<u8> b(reinterpret_cast<const u8 *>(&stHdr), reinterpret_cast<const u8 *>(&stHdr + 1));
        b.resize(MSG_HDR_LEN + ulBody, 0);
        ISP_MSG_S stRec = {ulDst, 0, 0, 0, ulMsgID, 8};
        memcpy(b.data() + MSG_HDR_LEN, &stRec, ISP_MSG_HDR_LEN);
        return b;
    }

private:
    static sockaddr_in Addr(u16 usPort) { return {AF_INET, htons(usPort), {htonl(INADDR_LOOPBACK)}, {}}; }
    int fd_;
    u32 ulAss_ = 0;
};

// Service processor time per datagram for kCostDatagrams of one kind.
double CostPerDatagram(Peer &peer, pid_t pid, const std::vector<u8> &dgram, u32 *pulLost)
{
    const double dStart = CpuSec(pid);
    for (int i = 0; i < kCostDatagrams; i++) {
        peer.Send(dgram);
        if ((i + 1) % kPace == 0 && !peer.Echo(10000))
            ++*pulLost;
    }
    return (CpuSec(pid) - dStart) / kCostDatagrams;
}

// One hostile datagram: one to four messages, each mutated in one to three
// ways, with junk before some of them.
std::vector<u8> Mutant(std::mt19937 &rng)
{
    const u32 kDst[] = {MOD_ID_ISP_IMG, MOD_ID_ISP_CMD, MOD_PROC_MODULE_ID, MOD_ID_DT_CLI, 0x12345678};
    std::vector<u8> out;
    for (u32 n = 1 + rng() % 4; n > 0; n--) {
        if (rng() % 4 == 0)
            for (u32 j = rng() % 16; j > 0; j--)
                out.push_back(static_cast<u8>(rng()));
        std::vector<u8> b = Peer::Block(rng() % 3, kEcho + 1, kDst[rng() % 5], rng());
        auto *pstHdr = reinterpret_cast<MSG_HDR_S *>(b.data());
        for (u32 m = 1 + rng() % 3; m > 0; m--) {
            switch (rng() % 6) {
                case 0: pstHdr->enMsgType = rng() % 8; break;
                case 1: pstHdr->ulDstModuleID = rng(); break;
                case 2: pstHdr->ulMsgLen = rng() % 3 == 0 ? rng() : pstHdr->ulMsgLen + rng() % 64 - 32; break;
                case 3: pstHdr->ulMsgBodyLen = rng() % 3 == 0 ? rng() : pstHdr->ulMsgBodyLen + rng() % 64 - 32; break;
                case 4: pstHdr->enMsgType = MSG_TYPE_SYNC_ACK; break;  // nobody waits for it
                default: b.resize(rng() % b.size()); break;            // truncated
            }
            if (b.size() < MSG_HDR_LEN)
                break;
        }
        out.insert(out.end(), b.begin(), b.end());
    }
    return out;
}

}  // namespace

int main()
{
    if (!bench::Isolated()) {
        fprintf(stderr, "bench_hostile: run it through scripts/bench.sh (binds 127.0.0.1:7001/7002)\n");
        return 2;
    }
    void *pMap = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (pMap == MAP_FAILED)
        return 1;
    gpstShared = new (pMap) Shared();
    sem_init(&gpstShared->stReady, 1, 0);
    sem_init(&gpstShared->stStop, 1, 0);
    pid_t pid = fork();
    if (pid == 0)
        Service();
    sem_wait(&gpstShared->stReady);
    Peer peer;
    if (gpstShared->bFailed != 0 || !peer.Echo(2000)) {
        fprintf(stderr, "bench_hostile: the service did not start\n");
        sem_post(&gpstShared->stStop);
        return 1;
    }

    std::mt19937 rng(4242);
    std::vector<u8> random(8000), prefixes;
    for (u8 &uc : random)
        uc = static_cast<u8>(rng());
    for (int i = 0; i < 2000; i++)
        prefixes.insert(prefixes.end(), kPrefix, kPrefix + 4);
    u32 ulLost = 0;
    const double dRandom = CostPerDatagram(peer, pid, random, &ulLost);
    const double dPrefix = CostPerDatagram(peer, pid, prefixes, &ulLost);
    const double dRatio = dPrefix / dRandom;
    bench::Row("7 hostile datagrams of 2000 prefixes", bench::Fmt("%.1f us of service CPU each", dPrefix * 1e6),
               bench::Fmt("8000 random bytes %.1f us", dRandom * 1e6), bench::Fmt("%.2f", dRatio),
               bench::Fmt("goal <=2.00: %s; %d of each, log to files at INF%s", bench::Verdict(dRatio <= 2.0),
                          kCostDatagrams, ulLost != 0 ? "; an echo went UNANSWERED" : ""));

    const unsigned long ulRssAcks = RssKiB(pid);
    u32 ulAckLost = 0;
    for (int i = 0; i < kStrayAcks; i++) {
        peer.Send(Peer::Block(MSG_TYPE_SYNC_ACK, kEcho + 2, i % 2 ? MOD_ID_ISP_IMG : MOD_PROC_MODULE_ID, rng()));
        if ((i + 1) % 1000 == 0 && !peer.Echo(10000))
            ulAckLost++;
    }
    const unsigned long ulRssAcksAfter = RssKiB(pid);
    bench::Row("7 stray sync acks 100000, service memory", bench::Fmt("%lu KiB after", ulRssAcksAfter),
               bench::Fmt("%lu KiB before", ulRssAcks),
               bench::Fmt("%.2f", static_cast<double>(ulRssAcksAfter) / static_cast<double>(ulRssAcks)),
               bench::Fmt("goal: where it was (+256 KiB at most): %s; VmRSS; half to ISP_IMG, half to the process "
                          "module%s", bench::Verdict(ulRssAcksAfter <= ulRssAcks + 256),
                          ulAckLost != 0 ? "; an echo went UNANSWERED" : ""));

    const unsigned long ulRssBefore = RssKiB(pid);
    u32 ulSendFail = 0;
    for (int i = 0; i < kFlood; i++)
        if (!peer.Send(Mutant(rng)))
            ulSendFail++;
    const double dFloodEnd = bench::NowSec();
    bool bAnswered = false;
    while (!bAnswered && bench::NowSec() - dFloodEnd < 30)
        bAnswered = peer.Echo(10);
    const double dAfterMs = (bench::NowSec() - dFloodEnd) * 1e3;
    bench::Row("7 hostile flood of 200000 mutated messages",
               bAnswered ? bench::Fmt("answered %.0f ms after it", dAfterMs) : std::string("NO ANSWER within 30 s"),
               "goal 1000 ms", bench::Fmt("%.2f", dAfterMs / 1000),
               bench::Fmt("goal: %s; service resident memory %lu KiB before, %lu KiB after; %u sends refused",
                          bench::Verdict(bAnswered && dAfterMs <= 1000), ulRssBefore, RssKiB(pid), ulSendFail));
    sem_post(&gpstShared->stStop);
    waitpid(pid, nullptr, 0);
    fflush(stdout);
    return 0;
}
