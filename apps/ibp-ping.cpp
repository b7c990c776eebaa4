// ibp-ping: a client in the debug tool process. Sends synchronous ISP_MSG_S
// records to "ISP_IMG" of the service process and prints the round trips.
//
//   ibp-ping [-n COUNT] [-s RECORD_BYTES] [-t TIMEOUT_MS] [--log-stdout]
//   defaults: 100 records of 64 bytes (24-byte head and 40 bytes of body), 2000 ms
// Exit status 0 when every request was answered, 1 otherwise, 2 for a bad
// command line. When the first request goes unanswered it stops at once: no
// service is there to answer the others.
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "app_options.h"
#include "ibp/ibp.h"

namespace {

struct Options {
    u32 ulCount = 100;
    u32 ulRecordLen = 64;
    u32 ulTimeout = 2000;
    bool bStdout = false;
};

const std::string kSizeHelp = "bytes of each record, head included (" + std::to_string(ISP_MSG_HDR_LEN) + " to " +
                              std::to_string(ISP_MSG_HDR_LEN + ISP_MSG_MAX_BODY_LEN) + ", default 64)";

const AppOption kOptions[] = {
    {"count", 'n', "COUNT", "records to send (default 100)"},
    {"size", 's', "BYTES", kSizeHelp.c_str()},
    {"timeout", 't', "MS", "time to wait for each answer (default 2000 ms)"},
    {"log-stdout", 0, nullptr, "log to standard output instead of the files under /var/log"},
};

const AppInfo kInfo = {
    "ibp-ping", "[-n COUNT] [-s BYTES] [-t MS] [--log-stdout]",
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
        case 't':
            return AppParseU32(pcArg, 1, 0xFFFFFFFFul, &pstOpt->ulTimeout);
        default:
            pstOpt->bStdout = true;
            return true;
    }
}

double NowMs()
{
    struct timespec stNow;
    clock_gettime(CLOCK_MONOTONIC, &stNow);
    return static_cast<double>(stNow.tv_sec) * 1e3 + static_cast<double>(stNow.tv_nsec) / 1e6;
}

// One request and its answer; true when the echo came back whole.
bool PingOnce(std::vector<u8> &req, u32 ulSeq, u32 ulTimeout)
{
    auto *pstReq = reinterpret_cast<ISP_MSG_S *>(req.data());
    pstReq->ulAppWord1 = ulSeq;
    ISP_MSG_S *pstAck = nullptr;
    if (ISP_SendSyncMsg(pstReq, ulTimeout, &pstAck) != 0)
        return false;
    bool bSame = std::memcmp(pstAck->aucBody, pstReq->aucBody, pstReq->ulBodyLen) == 0 &&
                 pstAck->ulAppWord1 == ulSeq;
    ISP_free(&pstAck);
    return bSame;
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

}  // namespace

int main(int argc, char **argv)
{
    Options stOpt;
    int lStatus = AppParseOptions(argc, argv, kInfo,
                                  [&](int lKey, const char *pcArg) { return TakeOption(&stOpt, lKey, pcArg); });
    if (lStatus >= 0)
        return lStatus;

    if (!AppDebugToolPortFree(kInfo) || !AppStartLibrary(kInfo, 1, stOpt.bStdout, LOG_LEVEL_WRN))
        return 1;
    u32 ulModuleID = 0;
    if (MOD_RegModule("DT_CLI", &ulModuleID) != 0)
        std::fprintf(stderr, "ibp-ping: DT_CLI not registered, sending as the process module\n");

    std::vector<u8> req(stOpt.ulRecordLen, 0);
    auto *pstReq = reinterpret_cast<ISP_MSG_S *>(req.data());
    pstReq->ulDstModuleID = MOD_ID_ISP_IMG;
    pstReq->ulMsgID = 0x20001;
    pstReq->ulBodyLen = stOpt.ulRecordLen - ISP_MSG_HDR_LEN;
    for (u32 i = 0; i < pstReq->ulBodyLen; i++)
        pstReq->aucBody[i] = static_cast<u8>(i * 7 + 1);

    std::vector<double> times;
    u32 ulFailures = 0;
    for (u32 i = 0; i < stOpt.ulCount; i++) {
        double dStart = NowMs();
        if (PingOnce(req, i, stOpt.ulTimeout)) {
            times.push_back(NowMs() - dStart);
            continue;
        }
        ulFailures++;
        if (times.empty()) {
            AppError(kInfo, "no answer from ibp-isp on 127.0.0.1:%u within %u ms; start ibp-isp first",
                     static_cast<unsigned>(gastProcCfgInfo[0].usSocketPort), stOpt.ulTimeout);
            break;
        }
    }
    if (!times.empty()) {
        std::printf("ibp-ping: %u records of %u bytes to ISP_IMG\n", stOpt.ulCount, stOpt.ulRecordLen);
        PrintTimes(times, ulFailures);
    }

    if (ulModuleID != 0)
        MOD_UnregModule(ulModuleID);
    MOD_SysDestroy();
    IBP_Destroy();
    return ulFailures == 0 ? 0 : 1;
}
