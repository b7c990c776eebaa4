// ibp-ping: a client in the debug tool process. Sends synchronous ISP_MSG_S
// records to "ISP_IMG" of the service process and prints the round trips.
//
//   ibp-ping [-n COUNT] [-s RECORD_BYTES] [-t TIMEOUT_MS] [LOG OPTION]
//   defaults: 100 records of 64 bytes (24-byte head and 40 bytes of body), 2000 ms
// Exit status 0 when every request was answered, 1 otherwise, 2 for a bad
// command line. When the first request goes unanswered it stops at once: no
// service is there to answer the others.
//
// A thread of its own sends the records, so that the main thread can say
// every second what is failing and print the figures when a signal stops the
// run, though a request may still wait for its time-out.
#include <pthread.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "app_start.h"
#include "ibp/ibp.h"

namespace {

struct Options {
    u32 ulCount = 100;
    u32 ulRecordLen = 64;
    u32 ulTimeout = 2000;
    AppLogChoice stLog;
};

const std::string kSizeRange =
    std::to_string(ISP_MSG_HDR_LEN) + " to " + std::to_string(ISP_MSG_HDR_LEN + ISP_MSG_MAX_BODY_LEN);
const std::string kSizeHelp = "bytes of each record, head included (" + kSizeRange + ", default 64)";

const AppOption kOptions[] = {
    {"count", 'n', "COUNT", "records to send (default 100)", "1 to 4294967295"},
    {"size", 's', "BYTES", kSizeHelp.c_str(), kSizeRange.c_str()},
    {"timeout", 't', "MS", "time to wait for each answer (default 2000 ms)", "1 to 4294967295"},
};

const AppInfo kInfo = {
    "ibp-ping", "[-n COUNT] [-s BYTES] [-t MS] [--log-stdout | --log-stderr | --log-dir DIR]",
    "Sends synchronous records to the module ISP_IMG of a running ibp-isp, from a\n"
    "debug tool process, and prints the round-trip times.",
    kOptions, sizeof(kOptions) / sizeof(kOptions[0]),
    "Exit status: 0 every record answered, 1 a record unanswered or the tool could\n"
    "not start, 2 bad command line.\n"};

bool TakeOption(Options *pstOpt, int lKey, const char *pcArg)
{
    switch (lKey) {
        case 'n':
            return AppParseU32(pcArg, 1, 0xFFFFFFFFul, &pstOpt->ulCount);
        case 's':
            return AppParseU32(pcArg, ISP_MSG_HDR_LEN, ISP_MSG_HDR_LEN + ISP_MSG_MAX_BODY_LEN, &pstOpt->ulRecordLen);
        default:
            return AppParseU32(pcArg, 1, 0xFFFFFFFFul, &pstOpt->ulTimeout);
    }
}

double NowMs()
{
    struct timespec stNow;
    clock_gettime(CLOCK_MONOTONIC, &stNow);
    return static_cast<double>(stNow.tv_sec) * 1e3 + static_cast<double>(stNow.tv_nsec) / 1e6;
}

enum class Outcome { kAnswered, kNoAnswer, kWrongAnswer };

// One request and its answer, which must be the echo of the record whole.
Outcome PingOnce(std::vector<u8> &req, u32 ulSeq, u32 ulTimeout)
{
    auto *pstReq = reinterpret_cast<ISP_MSG_S *>(req.data());
    pstReq->ulAppWord1 = ulSeq;
    ISP_MSG_S *pstAck = nullptr;
    if (ISP_SendSyncMsg(pstReq, ulTimeout, &pstAck) != 0)
        return Outcome::kNoAnswer;
    bool bSame = std::memcmp(pstAck->aucBody, pstReq->aucBody, pstReq->ulBodyLen) == 0 &&
                 pstAck->ulAppWord1 == ulSeq;
    ISP_free(&pstAck);
    return bSame ? Outcome::kAnswered : Outcome::kWrongAnswer;
}

void PrintTimes(std::vector<double> &times, u32 ulFailures)
{
    std::printf("%zu answered, %u failed\n", times.size(), ulFailures);
    if (times.empty())
        return;
    std::sort(times.begin(), times.end());
    auto at = [&](double q) {
        return times[std::min(times.size() - 1, static_cast<size_t>(q * static_cast<double>(times.size())))];
    };
    std::printf("round trip ms: min %.2f  median %.2f  p99 %.2f  max %.2f\n", times.front(), at(0.5), at(0.99),
                times.back());
}

// What the sending thread and the main thread share, under its mutex.
struct PingState {
    std::mutex mutex;
    std::vector<double> times;  // round trips of the records answered, ms
    u32 ulFailures = 0;
    u32 ulSent = 0;             // records sent, the one in flight among them
    bool bBusy = false;         // a record waits for its answer, since dSentAt
    double dSentAt = 0;
    u32 ulLastFailed = 0;
    Outcome enLastFailure = Outcome::kNoAnswer;
    bool bStop = false;         // the main thread wants no more records
    bool bNoService = false;    // the first record went unanswered: nobody is there
};

std::vector<u8> MakeRecord(const Options &stOpt)
{
    std::vector<u8> req(stOpt.ulRecordLen, 0);
    auto *pstReq = reinterpret_cast<ISP_MSG_S *>(req.data());
    pstReq->ulDstModuleID = MOD_ID_ISP_IMG;
    pstReq->ulMsgID = 0x20001;
    pstReq->ulBodyLen = stOpt.ulRecordLen - ISP_MSG_HDR_LEN;
    for (u32 i = 0; i < pstReq->ulBodyLen; i++)
        pstReq->aucBody[i] = static_cast<u8>(i * 7 + 1);
    return req;
}

// The sending thread: one record after the other until all are sent, the
// main thread says stop, or the first finds no service. Wakes the main
// thread with SIGUSR1 when it is done.
void SendAll(const Options &stOpt, PingState *pst, pthread_t hMain)
{
    std::vector<u8> req = MakeRecord(stOpt);
    for (u32 i = 0; i < stOpt.ulCount; i++) {
        const double dStart = NowMs();
        {
            std::lock_guard<std::mutex> lock(pst->mutex);
            if (pst->bStop)
                break;
            pst->bBusy = true, pst->dSentAt = dStart, pst->ulSent = i + 1;
        }
        const Outcome enOutcome = PingOnce(req, i, stOpt.ulTimeout);
        std::lock_guard<std::mutex> lock(pst->mutex);
        pst->bBusy = false;
        if (enOutcome == Outcome::kAnswered) {
            pst->times.push_back(NowMs() - dStart);
            continue;
        }
        pst->ulFailures++, pst->ulLastFailed = i, pst->enLastFailure = enOutcome;
        if (i == 0 && enOutcome == Outcome::kNoAnswer) {
            pst->bNoService = true;
            break;
        }
    }
    pthread_kill(hMain, SIGUSR1);
}

// At most one line a second on standard error while records fail: the new
// failures, or else the record that has waited a second or more.
void ReportProgress(const Options &stOpt, PingState *pst, u32 *pulSaid)
{
    std::lock_guard<std::mutex> lock(pst->mutex);
    if (pst->ulFailures > *pulSaid) {
        const std::string sWhy = pst->enLastFailure == Outcome::kNoAnswer
                                     ? "got no answer within " + std::to_string(stOpt.ulTimeout) + " ms"
                                     : "got an answer that is not its echo";
        std::fprintf(stderr, "ibp-ping: %u of %u records failed so far; the last, record %u, %s\n", pst->ulFailures,
                     pst->ulSent, pst->ulLastFailed, sWhy.c_str());
        *pulSaid = pst->ulFailures;
    } else if (pst->bBusy && NowMs() - pst->dSentAt >= 1000.0) {
        std::fprintf(stderr, "ibp-ping: record %u: no answer yet after %.1f s\n", pst->ulSent - 1,
                     (NowMs() - pst->dSentAt) / 1e3);
    }
}

// Waits for the sending thread or a stop signal, reporting once a second.
// Returns the signal that stopped the run, or 0.
int Supervise(const Options &stOpt, PingState *pst, const sigset_t &stSignals)
{
    u32 ulSaid = 0;
    for (;;) {
        const struct timespec stSecond = {1, 0};
        const int lSig = sigtimedwait(&stSignals, nullptr, &stSecond);
        if (lSig == SIGUSR1)
            return 0;
        if (lSig == SIGINT || lSig == SIGTERM)
            return lSig;
        ReportProgress(stOpt, pst, &ulSaid);
    }
}

// The figures so far on standard output; whether any record failed, or none
// was answered (a run stopped while the first waits: no service is known).
bool Summarise(const Options &stOpt, PingState *pst, int lSig)
{
    std::lock_guard<std::mutex> lock(pst->mutex);
    pst->bStop = true;
    if (pst->bNoService) {
        AppError(kInfo, "no answer from ibp-isp on %s:%u within %u ms; start ibp-isp first",
                 gastProcCfgInfo[kAppRowIsp].szSocketAddr,
                 static_cast<unsigned>(gastProcCfgInfo[kAppRowIsp].usSocketPort), stOpt.ulTimeout);
        return true;
    }
    if (lSig != 0)
        std::fprintf(stderr, "ibp-ping: stopped by %s after %u of %u records%s\n",
                     lSig == SIGINT ? "SIGINT" : "SIGTERM", pst->ulSent,
                     stOpt.ulCount, pst->bBusy ? "; the one in flight is not counted" : "");
    PrintTimes(pst->times, pst->ulFailures);
    std::fflush(stdout);
    return pst->ulFailures != 0 || pst->times.empty();
}

}  // namespace

int main(int argc, char **argv)
{
    Options stOpt;
    int lStatus = AppParseOptions(argc, argv, kInfo, &stOpt.stLog,
                                  [&](int lKey, const char *pcArg) { return TakeOption(&stOpt, lKey, pcArg); });
    if (lStatus >= 0)
        return lStatus;

    // Blocked before any thread exists, so that the main thread alone takes
    // them, with sigtimedwait.
    sigset_t stSignals;
    sigemptyset(&stSignals);
    for (int lSig : {SIGINT, SIGTERM, SIGUSR1})
        sigaddset(&stSignals, lSig);
    pthread_sigmask(SIG_BLOCK, &stSignals, nullptr);

    if (!AppClaimPort(kInfo, kAppRowDt) || !AppStartLibrary(kInfo, 1, &stOpt.stLog, LOG_LEVEL_WRN))
        return 1;
    u32 ulModuleID = 0;
    if (MOD_RegModule("DT_CLI", &ulModuleID) != 0)
        std::fprintf(stderr, "ibp-ping: DT_CLI not registered, sending as the process module\n");
    std::printf("ibp-ping: %u records of %u bytes to ISP_IMG\n", stOpt.ulCount, stOpt.ulRecordLen);
    std::fflush(stdout);

    PingState stState;
    std::thread sender(SendAll, std::cref(stOpt), &stState, pthread_self());
    const int lSig = Supervise(stOpt, &stState, stSignals);
    const bool bFailed = Summarise(stOpt, &stState, lSig);
    // After the figures a record in flight may wait for its time-out; a
    // second SIGINT or SIGTERM ends that wait at once, with the same status.
    int lNext = SIGUSR1;
    if (lSig != 0 && sigwait(&stSignals, &lNext) == 0 && lNext != SIGUSR1)
        _exit(AppFlushed(kInfo, bFailed ? 1 : 0));
    sender.join();

    if (ulModuleID != 0)
        MOD_UnregModule(ulModuleID);
    MOD_SysDestroy();
    IBP_Destroy();
    return AppFlushed(kInfo, bFailed ? 1 : 0);
}
