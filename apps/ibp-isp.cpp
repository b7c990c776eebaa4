// ibp-isp: the sample service process. Registers "ISP_IMG" with one catch-all
// handler that echoes every synchronous ISP_MSG_S record with ulResult 0 and
// counts the asynchronous ones, and a debug command of its own, "isp img
// stats", beside the library's "isp bp ..." commands. Runs until SIGINT or
// SIGTERM.
//
//   ibp-isp [--log-stdout | --log-stderr | --log-dir DIR]
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "app_start.h"
#include "ibp/ibp.h"

namespace {

u32 gulAsyncCount = 0;
u32 gulSyncCount = 0;
u64 gullSyncBytes = 0;

u32 EchoHandler(u32, MSG_HANDLE hMsg, void *)
{
    void *pBody = nullptr;
    u32 ulLen = 0;
    if (MSG_Decode(hMsg, &pBody, &ulLen) != 0)
        return 1;
    const auto *pstHdr = static_cast<const MSG_HDR_S *>(hMsg->pMem);
    if (pstHdr->enMsgType != MSG_TYPE_SYNC_REQ) {
        __atomic_fetch_add(&gulAsyncCount, 1u, __ATOMIC_RELAXED);
        return 0;
    }
    const auto *pstReq = static_cast<const ISP_MSG_S *>(pBody);
    if (ISP_IsMsgValid(pstReq, ulLen) == 0)
        return 1;  // not an application record: nothing sensible to echo
    std::vector<u8> echo(static_cast<const u8 *>(pBody), static_cast<const u8 *>(pBody) + ulLen);
    reinterpret_cast<ISP_MSG_S *>(echo.data())->ulResult = 0;
    __atomic_fetch_add(&gulSyncCount, 1u, __ATOMIC_RELAXED);
    __atomic_fetch_add(&gullSyncBytes, static_cast<u64>(ulLen), __ATOMIC_RELAXED);
    return ISP_SendAckMsg(hMsg, echo.data(), ulLen);
}

// A display function: the text goes behind what pcOutBuf holds, within the
// capacity that *pulOutBufLen gives, and *pulOutBufLen becomes the length.
u32 ImgStats(u32 *pulOutBufLen, char *pcOutBuf)
{
    if (pulOutBufLen == nullptr || pcOutBuf == nullptr || *pulOutBufLen == 0)
        return 1;
    const size_t ulUsed = strnlen(pcOutBuf, *pulOutBufLen - 1);
    const size_t ulRoom = *pulOutBufLen - ulUsed;
    int lLen = std::snprintf(pcOutBuf + ulUsed, ulRoom, "sync requests answered: %u, %llu bytes\nasync records: %u\n",
                             __atomic_load_n(&gulSyncCount, __ATOMIC_RELAXED),
                             static_cast<unsigned long long>(__atomic_load_n(&gullSyncBytes, __ATOMIC_RELAXED)),
                             __atomic_load_n(&gulAsyncCount, __ATOMIC_RELAXED));
    if (lLen < 0)
        return 1;
    *pulOutBufLen = static_cast<u32>(ulUsed + std::min(static_cast<size_t>(lLen), ulRoom - 1));
    return 0;
}

// "isp img stats": two titles under the root word; register before the debug
// tool starts, for it fetches the tree once.
u32 RegImgCommands()
{
    CMD_ELEMENT_S astElem[2];
    CMD_SetCmdElement(&astElem[0], CMD_PARAM_TITLE, "img", "image module");
    CMD_SetCmdElement(&astElem[1], CMD_PARAM_TITLE, "stats", "display requests answered and their bytes");
    return CMD_RegDisplayCmd(ImgStats, astElem, 2);
}

const AppInfo kInfo = {
    "ibp-isp", "[--log-stdout | --log-stderr | --log-dir DIR]",
    "Runs the sample image service: answers every synchronous record sent to its\n"
    "module ISP_IMG and serves the debug commands, until SIGINT or SIGTERM.",
    nullptr, 0,
    "Exit status: 0 stopped by a signal, 1 could not start, 2 bad command line.\n"};

}  // namespace

int main(int argc, char **argv)
{
    AppLogChoice stLog;
    int lStatus = AppParseOptions(argc, argv, kInfo, &stLog, [](int, const char *) { return false; });
    if (lStatus >= 0)
        return lStatus;
    if (!AppClaimPort(kInfo, kAppRowIsp))
        return 1;

    // Block the stop signals before any thread exists, so that every thread
    // inherits the mask and main alone takes them with sigwait.
    sigset_t stStop;
    sigemptyset(&stStop);
    sigaddset(&stStop, SIGINT);
    sigaddset(&stStop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stStop, nullptr);

    if (!AppStartLibrary(kInfo, 0, &stLog, LOG_LEVEL_INF))
        return 1;
    u32 ulModuleID = 0;
    if (MOD_RegModule("ISP_IMG", &ulModuleID) != 0 || MOD_RegMsgProc(ulModuleID, 0, EchoHandler, nullptr) != 0) {
        AppError(kInfo, "cannot register the module ISP_IMG; see the records in %s", AppLogPlace(stLog).c_str());
        MOD_SysDestroy();
        IBP_Destroy();
        return 1;
    }
    if (RegImgCommands() != 0)
        std::fprintf(stderr, "ibp-isp: cannot register the debug command \"isp img stats\"; going on without it\n");
    if (IBP_RegStatCmd() != 0)
        std::fprintf(stderr, "ibp-isp: cannot register \"isp stat\" and the monitor; going on without them\n");
    std::printf("ibp-isp: serving ISP_IMG (%#x) on %s:%u\n", ulModuleID, gastProcCfgInfo[kAppRowIsp].szSocketAddr,
                static_cast<unsigned>(gastProcCfgInfo[kAppRowIsp].usSocketPort));
    std::fflush(stdout);

    int lSig = 0;
    sigwait(&stStop, &lSig);

    MOD_UnregModule(ulModuleID);
    MOD_SysDestroy();
    IBP_Destroy();
    std::printf("ibp-isp: stopped by signal %d after %u sync and %u async records\n", lSig,
                __atomic_load_n(&gulSyncCount, __ATOMIC_RELAXED), __atomic_load_n(&gulAsyncCount, __ATOMIC_RELAXED));
    return AppFlushed(kInfo, 0);
}
