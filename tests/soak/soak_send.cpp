// soak_send: datagrams for the soak run (scripts/soak.sh), thrown at the
// service's port from a plain UDP socket until SIGTERM or SIGINT; then one
// line of counts on standard output.
//
//   soak_send flood   [options]   well-formed async ISP_MSG_S records to ISP_IMG,
//                                 as the debug tool's process module sends them
//   soak_send hostile [options]   random bytes, runs of the message prefix,
//                                 mutated, truncated and concatenated messages,
//                                 and synchronous acks that nobody waits for
// options: --per-burst N (datagrams per burst), --period-ms N (one burst per
// period), --seed N, --port N (default 7001), --no-stray-acks (hostile only).
//
// The socket is bound to an ephemeral port, not to the debug tool's 7002:
// the service takes datagrams from any local sender, and 7002 stays free for
// ibp-ping and ibp-dt, which run beside this program.
//
// Bursts with quiet between them, not an even stream: the service sends its
// answers only on an idle tick, after 20 ms without a datagram, so an even
// stream would hold back every answer to ibp-ping and ibp-dt for as long as it
// lasted.
#include <signal.h>
#include <time.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "harness/sockets.h"

namespace {

using ibptest::Bytes;

volatile sig_atomic_t gbStop = 0;
void OnStop(int) { gbStop = 1; }

struct Options {
    bool bHostile = false;
    u32 ulPerBurst = 0;
    u32 ulPeriodMs = 100;
    u32 ulSeed = 1;
    u16 usPort = 7001;
    bool bStrayAcks = true;
};

// Association identifiers of the hostile stream keep the top bit set: acks
// that the service sends back for them reach whichever debug tool holds 7002
// at the time, and must not match a request of ibp-ping or ibp-dt, whose
// counters start at 0.
constexpr u32 kHostileAssBit = 0x80000000u;
constexpr u32 kMsgEcho = 0x20001;  // what ibp-ping sends to ISP_IMG
constexpr u32 kCmdTree = 0x10001;  // the debug tool's two requests to ISP_CMD
constexpr u32 kCmdLine = 0x10002;
constexpr u32 kMaxBlock = MOD_BUF_MAX_LEN - 1;

Bytes Block(u32 ulType, u32 ulMsgID, u32 ulAss, u32 ulSrcModule, u32 ulDstModule, u32 ulSrcProc, u32 ulDstProc,
            const Bytes &body)
{
    return ibptest::MakeBlock(ulType, ulMsgID, ulSrcModule, ulDstModule, ulSrcProc, ulDstProc,
                              std::string(body.begin(), body.end()), ulAss);
}

// An ISP_MSG_S record: its 24-byte head and ulBody bytes.
Bytes Record(u32 ulDstModule, u32 ulSeq, u32 ulBody, std::mt19937 &rng)
{
    Bytes b(ISP_MSG_HDR_LEN + ulBody);
    auto *pstRec = reinterpret_cast<ISP_MSG_S *>(b.data());
    pstRec->ulDstModuleID = ulDstModule;
    pstRec->ulAppWord1 = ulSeq;
    pstRec->ulAppWord2 = 0;
    pstRec->ulResult = 0;
    pstRec->ulMsgID = kMsgEcho;
    pstRec->ulBodyLen = ulBody;
    for (u32 i = 0; i < ulBody; i++)
        pstRec->aucBody[i] = static_cast<u8>(rng());
    return b;
}

// From an ephemeral port of 127.0.0.1 to the service's.
struct Sender {
    explicit Sender(u16 usDst) : usPort(usDst) {}
    void Send(const Bytes &b) { ++(peer.SendTo(usPort, b) ? ullSent : ullFailed); }
    ibptest::RawPeer peer{0};
    u16 usPort;
    unsigned long long ullSent = 0, ullFailed = 0;
};

// The flood: one record after another, each a valid message that the
// library's own checks accept, as ISP_SendAsyncMsg of the debug tool makes it.
class Flood {
public:
    explicit Flood(u32 ulSeed) : rng_(ulSeed) {}
    Bytes Next()
    {
        ulSeq_++;
        Bytes body = Record(MOD_ID_ISP_IMG, ulSeq_, rng_() % 257, rng_);
        return Block(MSG_TYPE_ASYNC_REQ, kMsgEcho, ulSeq_, MOD_PROC_MODULE_ID, MOD_ID_ISP_IMG, MOD_PROC_ID_DT,
                     MOD_PROC_ID_ISP, body);
    }
    void Summary(const Sender &s) const
    {
        std::printf("flood: %llu datagrams sent, %llu sends failed\n", s.ullSent, s.ullFailed);
    }

private:
    std::mt19937 rng_;
    u32 ulSeq_ = 0;
};

class Hostile {
public:
    Hostile(u32 ulSeed, bool bStrayAcks) : rng_(ulSeed), bStrayAcks_(bStrayAcks) {}

    Bytes Next()
    {
        u32 ulPick = rng_() % 100;
        if (!bStrayAcks_ && ulPick >= 80)
            ulPick = rng_() % 80;
        if (ulPick < 20) {
            aullKind_[kRandom]++;
            return RandomBytes(1 + rng_() % (rng_() % 8 == 0 ? 9000 : 1500));
        }
        if (ulPick < 35) {
            aullKind_[kPrefixRun]++;
            return PrefixRun();
        }
        if (ulPick < 80) {
            aullKind_[kMutated]++;
            return Mutated();
        }
        aullKind_[kStrayAck]++;
        return StrayAck();
    }

    void Summary(const Sender &s) const
    {
        std::printf("hostile: %llu datagrams sent, %llu sends failed (random %llu, prefix runs %llu, mutated %llu, "
                    "stray sync acks %llu)\n",
                    s.ullSent, s.ullFailed, aullKind_[kRandom], aullKind_[kPrefixRun], aullKind_[kMutated],
                    aullKind_[kStrayAck]);
    }

private:
    enum { kRandom, kPrefixRun, kMutated, kStrayAck, kKinds };

    template <size_t N>
    u32 OneOf(const u32 (&aulValues)[N])
    {
        // One draw in eight is any 32-bit value instead of a listed one.
        return rng_() % 8 == 0 ? static_cast<u32>(rng_()) : aulValues[rng_() % N];
    }

    Bytes RandomBytes(size_t ulLen)
    {
        Bytes b(ulLen);
        for (u8 &c : b)
            c = static_cast<u8>(rng_());
        return b;
    }

    // Runs of 35 23 12 df, at times with a broken start or end, so that the
    // parser finds a prefix again and again with no header behind it.
    Bytes PrefixRun()
    {
        static const u8 kPrefix[4] = {0x35, 0x23, 0x12, 0xdf};
        Bytes b;
        if (rng_() % 4 == 0)
            b = RandomBytes(rng_() % 8);
        // Mostly short: each prefix costs the service a few log records, and
        // long runs all the time would only measure how fast it logs.
        const u32 ulRuns = 1 + rng_() % (rng_() % 16 == 0 ? 200 : 16);
        for (u32 i = 0; i < ulRuns; i++)
            b.insert(b.end(), kPrefix, kPrefix + 4);
        if (rng_() % 3 == 0)
            b.insert(b.end(), kPrefix, kPrefix + 1 + rng_() % 3);  // a prefix cut short
        if (rng_() % 3 == 0) {
            Bytes tail = RandomBytes(rng_() % 64);
            b.insert(b.end(), tail.begin(), tail.end());
        }
        return b;
    }

    Bytes Body(u32 ulDst, u32 ulMsgID)
    {
        static const char *const kLines[] = {"<isp bp proc cfg >", "<isp bp module info >", "<isp img stats >",
                                             "<isp bp >", "<isp zz top >", "<", ""};
        switch (rng_() % 4) {
            case 0:
                return Bytes();
            case 1:
                if (ulDst == MOD_ID_ISP_CMD || ulMsgID == kCmdLine) {
                    std::string line = kLines[rng_() % (sizeof(kLines) / sizeof(kLines[0]))];
                    Bytes b(line.begin(), line.end());
                    if (rng_() % 2 == 0)
                        b.push_back(0);
                    return b;
                }
                [[fallthrough]];
            case 2: {
                Bytes b = Record(ulDst, rng_(), rng_() % 300, rng_);
                if (rng_() % 3 == 0)  // a record whose own length lies
                    reinterpret_cast<ISP_MSG_S *>(b.data())->ulBodyLen = rng_() % 4 == 0 ? rng_() : rng_() % 400;
                return b;
            }
            default:
                return RandomBytes(rng_() % 4 == 0 ? rng_() % kMaxBlock : rng_() % 600);
        }
    }

    // A message with any type, identifier, modules and processes, its
    // lengths true or false.
    Bytes OneMutated()
    {
        static const u32 kTypes[] = {0, 1, 2, 3, 4, 5, 6};
        static const u32 kIds[] = {kMsgEcho, kCmdTree, kCmdLine};
        static const u32 kModules[] = {MOD_ID_ISP_IMG, MOD_ID_ISP_CMD, MOD_PROC_MODULE_ID, MOD_ID_DT_CLI,
                                       MOD_ID_DT_CMD};
        static const u32 kProcs[] = {MOD_PROC_ID_ISP, MOD_PROC_ID_DT};
        const u32 ulDst = OneOf(kModules);
        const u32 ulMsgID = OneOf(kIds);
        u32 ulType = OneOf(kTypes);
        u32 ulSrcProc = OneOf(kProcs);
        if (!bStrayAcks_) {
            // No ack that stays in the service: none sent to it, and no
            // request that the service would answer to one of its own modules.
            if (ulType == MSG_TYPE_SYNC_ACK)
                ulType = MSG_TYPE_ASYNC_REQ;
            if (ulSrcProc == MOD_PROC_ID_ISP)
                ulSrcProc = MOD_PROC_ID_DT;
        }
        Bytes b = Block(ulType, ulMsgID, kHostileAssBit | static_cast<u32>(rng_()), OneOf(kModules), ulDst, ulSrcProc,
                        OneOf(kProcs), Body(ulDst, ulMsgID));
        auto *pstHdr = reinterpret_cast<MSG_HDR_S *>(b.data());
        switch (rng_() % 10) {
            case 0:
                pstHdr->ulMsgLen = rng_() % MSG_HDR_LEN;  // shorter than a header
                break;
            case 1:
                pstHdr->ulMsgLen = kMaxBlock + 1 + rng_() % 0x10000;  // never fits the receive buffer
                pstHdr->ulMsgBodyLen = pstHdr->ulMsgLen - MSG_HDR_LEN;
                break;
            case 2:
                pstHdr->ulMsgBodyLen = static_cast<u32>(rng_());  // lengths that disagree
                break;
            case 3:  // claims more than is sent: waits for bytes of the datagrams behind
                pstHdr->ulMsgLen += 1 + rng_() % 2000;
                pstHdr->ulMsgBodyLen = pstHdr->ulMsgLen - MSG_HDR_LEN;
                break;
            default:
                break;  // true lengths
        }
        return b;
    }

    Bytes Mutated()
    {
        Bytes b;
        if (rng_() % 10 == 0)
            b = RandomBytes(1 + rng_() % 40);  // junk before the first prefix
        const u32 ulParts = 1 + (rng_() % 3 == 0 ? rng_() % 4 : 0);
        for (u32 i = 0; i < ulParts; i++) {
            Bytes m = OneMutated();
            b.insert(b.end(), m.begin(), m.end());
        }
        if (rng_() % 4 == 0)
            b.resize(rng_() % (b.size() + 1));  // cut anywhere, inside the header too
        return b;
    }

    // A synchronous ack for a request that nobody made: the service files it
    // on the ack queue of its destination module, where no waiter asks for it.
    Bytes StrayAck()
    {
        static const u32 kDst[] = {MOD_ID_ISP_IMG, MOD_ID_ISP_CMD, MOD_PROC_MODULE_ID};
        const u32 ulDst = kDst[rng_() % 3];
        return Block(MSG_TYPE_SYNC_ACK, kMsgEcho, kHostileAssBit | static_cast<u32>(rng_()), MOD_PROC_MODULE_ID,
                     ulDst, MOD_PROC_ID_DT, MOD_PROC_ID_ISP, Record(ulDst, rng_(), 40, rng_));
    }

    std::mt19937 rng_;
    bool bStrayAcks_;
    unsigned long long aullKind_[kKinds] = {};
};

bool ParseNumber(const char *pcText, u32 *pulValue)
{
    if (pcText == nullptr || *pcText == '\0')
        return false;
    char *pcEnd = nullptr;
    errno = 0;
    unsigned long ulValue = std::strtoul(pcText, &pcEnd, 0);
    if (errno != 0 || *pcEnd != '\0' || ulValue > 0xFFFFFFFFul)
        return false;
    *pulValue = static_cast<u32>(ulValue);
    return true;
}

bool ParseArgs(int argc, char **argv, Options *pstOpt)
{
    if (argc < 2)
        return false;
    const std::string mode = argv[1];
    if (mode != "flood" && mode != "hostile")
        return false;
    pstOpt->bHostile = mode == "hostile";
    pstOpt->ulPerBurst = pstOpt->bHostile ? 30 : 200;
    for (int i = 2; i < argc; i++) {
        const std::string opt = argv[i];
        u32 ulValue = 0;
        if (opt == "--no-stray-acks") {
            pstOpt->bStrayAcks = false;
            continue;
        }
        if (i + 1 >= argc || !ParseNumber(argv[i + 1], &ulValue))
            return false;
        i++;
        if (opt == "--per-burst")
            pstOpt->ulPerBurst = ulValue;
        else if (opt == "--period-ms" && ulValue > 0)
            pstOpt->ulPeriodMs = ulValue;
        else if (opt == "--seed")
            pstOpt->ulSeed = ulValue;
        else if (opt == "--port" && ulValue > 0 && ulValue < 65536)
            pstOpt->usPort = static_cast<u16>(ulValue);
        else
            return false;
    }
    return true;
}

void AddMs(struct timespec *pstTime, u32 ulMs)
{
    pstTime->tv_nsec += static_cast<long>(ulMs % 1000) * 1000000L;
    pstTime->tv_sec += ulMs / 1000 + pstTime->tv_nsec / 1000000000L;
    pstTime->tv_nsec %= 1000000000L;
}

template <typename Source>
void Run(Source &source, Sender &sender, const Options &stOpt)
{
    struct timespec stNext;
    clock_gettime(CLOCK_MONOTONIC, &stNext);
    while (gbStop == 0) {
        for (u32 i = 0; i < stOpt.ulPerBurst && gbStop == 0; i++)
            sender.Send(source.Next());
        AddMs(&stNext, stOpt.ulPeriodMs);
        // A signal ends the sleep early; the loop condition then stops.
        while (gbStop == 0 && clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &stNext, nullptr) == EINTR) {
        }
    }
    source.Summary(sender);
}

}  // namespace

int main(int argc, char **argv)
{
    Options stOpt;
    if (!ParseArgs(argc, argv, &stOpt)) {
        std::fprintf(stderr, "usage: soak_send flood|hostile [--per-burst N] [--period-ms N] [--seed N] [--port N] "
                             "[--no-stray-acks]\n");
        return 2;
    }
    struct sigaction stAct {};
    stAct.sa_handler = OnStop;  // no SA_RESTART: the sleep must end
    sigaction(SIGTERM, &stAct, nullptr);
    sigaction(SIGINT, &stAct, nullptr);

    Sender sender(stOpt.usPort);
    if (!sender.peer.Bound()) {
        std::perror("soak_send: socket");
        return 1;
    }
    if (stOpt.bHostile) {
        Hostile source(stOpt.ulSeed, stOpt.bStrayAcks);
        Run(source, sender, stOpt);
    } else {
        Flood source(stOpt.ulSeed);
        // The flood is meant to be well-formed: check its first block against
        // the library's own checks before throwing thousands of them.
        Bytes b = source.Next();
        const auto *pstRec = reinterpret_cast<const ISP_MSG_S *>(b.data() + MSG_HDR_LEN);
        if (MSG_CheckHdr(reinterpret_cast<const char *>(b.data()), MSG_HDR_LEN) != 0 ||
            ISP_IsMsgValid(pstRec, static_cast<u32>(b.size() - MSG_HDR_LEN)) == 0) {
            std::fprintf(stderr, "soak_send: the flood's records fail the library's checks\n");
            return 1;
        }
        sender.Send(b);
        Run(source, sender, stOpt);
    }
    std::fflush(stdout);
    return 0;
}
