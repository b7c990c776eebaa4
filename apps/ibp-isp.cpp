// ibp-isp: the sample service process. Registers "ISP_IMG" with one catch-all
// handler that echoes every synchronous ISP_MSG_S record with ulResult 0 and
// counts the asynchronous ones. Runs until SIGINT or SIGTERM.
//
//   ibp-isp [--log-stdout]
#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "ibp/ibp.h"

namespace {

u32 gulAsyncCount = 0;
u32 gulSyncCount = 0;

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
    return ISP_SendAckMsg(hMsg, echo.data(), ulLen);
}

}  // namespace

int main(int argc, char **argv)
{
    bool bStdout = false;
    for (int i = 1; i < argc; i++) {
        if (std::strcmp(argv[i], "--log-stdout") == 0) {
            bStdout = true;
        } else {
            std::fprintf(stderr, "usage: %s [--log-stdout]\n", argv[0]);
            return 2;
        }
    }

    // Block the stop signals before any thread exists, so that every thread
    // inherits the mask and main alone takes them with sigwait.
    sigset_t stStop;
    sigemptyset(&stStop);
    sigaddset(&stStop, SIGINT);
    sigaddset(&stStop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stStop, nullptr);

    IBP_INIT_S stInit{};
    stInit.bIsDt = 0;
    stInit.stLogInit.ulOutputMode = bStdout ? LOG_OUTPUT_STDOUT : LOG_OUTPUT_FILE;
    for (u32 &ulLevel : stInit.stLogInit.aulLevel)
        ulLevel = LOG_LEVEL_INF;
    if (IBP_Init(&stInit) != 0) {
        std::fprintf(stderr, "ibp-isp: IBP_Init failed\n");
        return 1;
    }
    u32 ulModuleID = 0;
    if (MOD_RegModule("ISP_IMG", &ulModuleID) != 0 || MOD_RegMsgProc(ulModuleID, 0, EchoHandler, nullptr) != 0) {
        std::fprintf(stderr, "ibp-isp: cannot register ISP_IMG\n");
        MOD_SysDestroy();
        IBP_Destroy();
        return 1;
    }
    std::printf("ibp-isp: serving ISP_IMG (%#x) on 127.0.0.1:%u\n", ulModuleID,
                static_cast<unsigned>(gastProcCfgInfo[0].usSocketPort));
    std::fflush(stdout);

    int lSig = 0;
    sigwait(&stStop, &lSig);

    MOD_UnregModule(ulModuleID);
    MOD_SysDestroy();
    IBP_Destroy();
    std::printf("ibp-isp: stopped by signal %d after %u sync and %u async records\n", lSig,
                __atomic_load_n(&gulSyncCount, __ATOMIC_RELAXED), __atomic_load_n(&gulAsyncCount, __ATOMIC_RELAXED));
    return 0;
}
