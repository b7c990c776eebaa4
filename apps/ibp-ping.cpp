// ibp-ping: a client in the debug tool process. Sends synchronous ISP_MSG_S
// records to "ISP_IMG" of the service process and prints the round trips.
//
//   ibp-ping [-n COUNT] [-s RECORD_BYTES] [-t TIMEOUT_MS] [--log-stdout]
//   defaults: 100 records of 64 bytes (24-byte head and 40 bytes of body), 2000 ms
// Exit status 0 when every request was answered, 1 otherwise.
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "ibp/ibp.h"

namespace {

struct Options {
    u32 ulCount = 100;
    u32 ulRecordLen = 64;
    u32 ulTimeout = 2000;
    bool bStdout = false;
};

bool ParseArgs(int argc, char **argv, Options *pstOpt)
{
    for (int i = 1; i < argc; i++) {
        const char *pcArg = argv[i];
        if (std::strcmp(pcArg, "--log-stdout") == 0) {
            pstOpt->bStdout = true;
            continue;
        }
        if (i + 1 >= argc)
            return false;
        unsigned long ulValue = std::strtoul(argv[++i], nullptr, 0);
        if (std::strcmp(pcArg, "-n") == 0)
            pstOpt->ulCount = static_cast<u32>(ulValue);
        else if (std::strcmp(pcArg, "-s") == 0)
            pstOpt->ulRecordLen = static_cast<u32>(ulValue);
        else if (std::strcmp(pcArg, "-t") == 0)
            pstOpt->ulTimeout = static_cast<u32>(ulValue);
        else
            return false;
    }
    return pstOpt->ulRecordLen >= ISP_MSG_HDR_LEN && pstOpt->ulRecordLen <= ISP_MSG_HDR_LEN + ISP_MSG_MAX_BODY_LEN;
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
    auto at = [&](double q) { return times[std::min(times.size() - 1, static_cast<size_t>(q * static_cast<double>(times.size())))]; };
    std::printf("round trip ms: min %.2f  median %.2f  p99 %.2f  max %.2f\n", times.front(), at(0.5), at(0.99),
                times.back());
}

}  // namespace

int main(int argc, char **argv)
{
    Options stOpt;
    if (!ParseArgs(argc, argv, &stOpt)) {
        std::fprintf(stderr, "usage: %s [-n COUNT] [-s RECORD_BYTES 24..%u] [-t TIMEOUT_MS] [--log-stdout]\n", argv[0],
                     ISP_MSG_HDR_LEN + ISP_MSG_MAX_BODY_LEN);
        return 2;
    }
    IBP_INIT_S stInit{};
    stInit.bIsDt = 1;
    stInit.stLogInit.ulOutputMode = stOpt.bStdout ? LOG_OUTPUT_STDOUT : LOG_OUTPUT_FILE;
    for (u32 &ulLevel : stInit.stLogInit.aulLevel)
        ulLevel = LOG_LEVEL_WRN;
    if (IBP_Init(&stInit) != 0) {
        std::fprintf(stderr, "ibp-ping: IBP_Init failed\n");
        return 1;
    }
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
        if (PingOnce(req, i, stOpt.ulTimeout))
            times.push_back(NowMs() - dStart);
        else
            ulFailures++;
    }
    std::printf("ibp-ping: %u records of %u bytes to ISP_IMG\n", stOpt.ulCount, stOpt.ulRecordLen);
    PrintTimes(times, ulFailures);

    if (ulModuleID != 0)
        MOD_UnregModule(ulModuleID);
    MOD_SysDestroy();
    IBP_Destroy();
    return ulFailures == 0 ? 0 : 1;
}
