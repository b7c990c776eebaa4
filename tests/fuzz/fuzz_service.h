// Shared by the fuzz targets that run inside a service process: the library
// started once as "ISP" with "ISP_IMG" registered, and the end of an input,
// after which nothing that the input set off is still queued or being
// handled, so that a fault shows up under the input that caused it.
#pragma once

#include <semaphore.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fuzz_log.h"
#include "ibp/ibp.h"

namespace fuzzsvc {

inline std::atomic<MSG_HANDLE> gSentinel{nullptr};
inline sem_t gSentinelSeen;

// True once for the message that Settle queued, in whichever thread handles it.
inline bool TakeSentinel(MSG_HANDLE hMsg)
{
    MSG_HANDLE hExpected = hMsg;
    if (!gSentinel.compare_exchange_strong(hExpected, nullptr))
        return false;
    sem_post(&gSentinelSeen);
    return true;
}

// "ISP_IMG" as the sample service has it: synchronous requests are answered
// with their own body, everything else is only read.
inline u32 ImgHandler(u32, MSG_HANDLE hMsg, void *)
{
    if (TakeSentinel(hMsg))
        return 0;
    void *pBody = nullptr;
    u32 ulLen = 0;
    if (MSG_Decode(hMsg, &pBody, &ulLen) != 0)
        return 1;
    // Every byte that the header promises must lie in the block.
    volatile u8 ucSum = 0;
    for (u32 i = 0; i < ulLen; i++)
        ucSum = ucSum + static_cast<const u8 *>(pBody)[i];
    const auto *pstHdr = static_cast<const MSG_HDR_S *>(hMsg->pMem);
    if (pstHdr->enMsgType != MSG_TYPE_SYNC_REQ || ulLen == 0)
        return 0;
    return ISP_SendAckMsg(hMsg, pBody, ulLen);
}

// The command service's own handler, behind the sentinel check.
inline u32 CmdHandler(u32 ulMsgID, MSG_HANDLE hMsg, void *pParam)
{
    if (TakeSentinel(hMsg))
        return 0;
    return CMD_ProcMsg(ulMsgID, hMsg, pParam);
}

// Once per process. Binds 127.0.0.1:7001, so it refuses to run outside the
// private namespaces of tests/harness/isolate.sh.
inline void Start()
{
    const char *pcIsolated = std::getenv("IBP_TEST_ISOLATED");
    if (pcIsolated == nullptr || std::strcmp(pcIsolated, "1") != 0) {
        const char *pcWhy = std::getenv("IBP_TEST_NO_ISOLATION");
        std::fprintf(stderr, "needs private namespaces: %s\n",
                     pcWhy != nullptr ? pcWhy : "run it through tests/harness/isolate.sh");
        std::exit(1);
    }
    IBP_INIT_S stInit;
    std::memset(&stInit, 0, sizeof(stInit));
    stInit.bIsDt = 0;
    stInit.stLogInit = fuzzlog::QuietLog();
    u32 ulImg = 0;
    if (sem_init(&gSentinelSeen, 0, 0) != 0 || IBP_Init(&stInit) != 0 || MOD_RegModule("ISP_IMG", &ulImg) != 0 ||
        MOD_RegMsgProc(ulImg, 0, ImgHandler, nullptr) != 0 ||
        MOD_RegMsgProc(MOD_ID_ISP_CMD, 0, CmdHandler, nullptr) != 0) {
        std::fprintf(stderr, "the library did not start as the service\n");
        std::exit(1);
    }
}

// Waits until the module has handled everything queued to it before now.
inline void Flush(u32 ulModuleID)
{
    static const char kBody[] = "sentinel";
    MSG_HANDLE hMsg = MSG_Create(kBody, sizeof(kBody));
    if (hMsg == nullptr)
        std::abort();
    gSentinel.store(hMsg);
    if (MSG_SendAsyncMsg(ulModuleID, 0x5e571e1u, hMsg) != 0) {  // it freed the message
        std::fprintf(stderr, "cannot queue the sentinel to %#x\n", ulModuleID);
        std::abort();
    }
    while (sem_wait(&gSentinelSeen) != 0 && errno == EINTR) {
    }
}

inline void Drain(MOD_MSG_CTRL_S *pstQueue)
{
    while (MOD_BUF_S *pstBuf = MOD_GetModuleMsg(pstQueue, MOD_GET_BY_ORDER, 0))
        MOD_FreeBuf(pstBuf);
}

// The end of an input. The command service first, since its answers may be
// queued to "ISP_IMG". Then what nobody here would ever take: acks for which
// no sender waits, and messages for the absent debug tool (taken from the
// outbound queue under its lock, before the process thread's idle tick
// sends them to a port where nobody listens). The process module's own
// queue is emptied as its idle tick would, without the 20 ms wait.
inline void Settle()
{
    Flush(MOD_ID_ISP_CMD);
    Flush(MOD_ID_ISP_IMG);
    for (u32 ulModuleID : {MOD_ID_ISP_IMG, MOD_ID_ISP_CMD, MOD_PROC_MODULE_ID}) {
        if (MOD_MODULE_S *pstModule = MOD_GetModuleByID(ulModuleID))
            Drain(&pstModule->stAckMsgCtrl);
    }
    if (MOD_MODULE_S *pstProc = MOD_GetModuleByID(MOD_PROC_MODULE_ID))
        Drain(&pstProc->stMsgCtrl);
    Drain(&MOD_GetCurWorkProc()->stSendMsgCtrl);
    // "isp bp log ..." may have lowered a threshold; each input starts alike.
    for (u32 i = 0; i < LOG_MODULE_NUM; i++) {
        if (gstLogObj.aulLevel[i] != LOG_LEVEL_ERR)
            (void)IBP_LOG_SetLevelByModule(i, LOG_LEVEL_ERR);
    }
}

}  // namespace fuzzsvc
