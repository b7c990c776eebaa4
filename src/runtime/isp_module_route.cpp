// Routing: a message whose header is filled in goes to the queue of a module
// of this process, or to the outbound queue for the other process.
#include <sched.h>

#include "ibp/isp_module.h"
#include "log/log_internal.h"
#include "runtime/mod_stat.h"
#include "runtime/mod_tap.h"
#include "runtime/module_internal.h"
#include "runtime/proc_internal.h"

IBP_LOG_SOURCE("isp_module");

namespace {

// The outbound queue, once the transport has opened it. Its lock guards
// gbRemoteOpen and gbRemoteInFlight: whether the process thread has taken
// messages off the queue that it has not sent yet.
MOD_MSG_CTRL_S *gpstRemoteQueue;
bool gbRemoteOpen;
bool gbRemoteInFlight;
// Threads let through to send at once that have not finished their sendto:
// counted up under the lock while open, so that closing can wait for them
// before the socket goes.
u32 gulDirectSenders;

enum class MOD_REMOTE_E { kClosed, kQueued, kSendNow };

// A synchronous request or ack goes out at once from the sending thread when
// nothing waits on the outbound queue or is on its way from it: what one
// thread sends then still arrives in the order it was sent, and a round trip
// saves two hand-offs to the process threads. Anything else queues: one-way
// messages come in bursts, which the process thread sends in batches while
// the sender goes on.
MOD_REMOTE_E MOD_PutRemote(MOD_BUF_S *pstBuf, bool bMayGoNow)
{
    MOD_MSG_CTRL_S *pstQueue = __atomic_load_n(&gpstRemoteQueue, __ATOMIC_ACQUIRE);
    if (pstQueue == nullptr)
        return MOD_REMOTE_E::kClosed;
    MOD_SemGuard lock(&pstQueue->stLock);
    if (!gbRemoteOpen)
        return MOD_REMOTE_E::kClosed;
    if (bMayGoNow && !gbRemoteInFlight && MOD_ListEmpty(&pstQueue->stUsedList)) {
        __atomic_fetch_add(&gulDirectSenders, 1u, __ATOMIC_RELAXED);
        return MOD_REMOTE_E::kSendNow;
    }
    MOD_ListAddTail(&pstQueue->stUsedList, &pstBuf->stNode);
    return MOD_REMOTE_E::kQueued;
}

// A message counted as sent and then refused; its identifier stays the last sent.
void MOD_UncountMsg(MOD_MODULE_S *pstSrcModule)
{
    __atomic_fetch_sub(&pstSrcModule->ulSendMsgCount, 1u, __ATOMIC_RELAXED);
}

// A message for a module of this process: its queue, or the thread that
// waits for it if it is a synchronous ack.
u32 MOD_RouteLocal(MOD_MODULE_S *pstSrcModule, MOD_BUF_S *pstModBuf, const MSG_HDR_S &stHdr,
                   MOD_ACK_WAITER_S *pstWaiter)
{
    MOD_MODULE_S *pstDstModule = MOD_GetModuleByID(stHdr.ulDstModuleID);
    if (pstDstModule == nullptr) {
        IBP_ERR("get module by id %#x fail", stHdr.ulDstModuleID);
        return 1;
    }
    // A synchronous request goes only to the registration its waiter is aimed
    // at; a one-way message may land in a later one of the same module.
    const u32 ulGen = pstWaiter != nullptr ? MOD_MsgQueueGen(pstDstModule) : 0;
    if (pstWaiter != nullptr)
        MOD_AimAckWaiter(pstSrcModule, pstWaiter, pstDstModule, ulGen);
    // Counted before it is handed over, so that whoever gets the message or
    // its answer sees it counted.
    MOD_CountMsg(&pstSrcModule->ulSendMsgCount, &pstSrcModule->ulLastSendMsg, stHdr.ulMsgID);
    MOD_Tap(stHdr);
    if (stHdr.enMsgType == MSG_TYPE_SYNC_ACK) {
        MOD_DeliverSyncAck(pstDstModule, pstModBuf);  // to the thread that waits, not the module's
        return 0;
    }
    const MOD_PUT_E enPut = MOD_MsgQueuePut(pstDstModule, stHdr.ulDstModuleID, pstModBuf, ulGen);
    if (enPut == MOD_PUT_E::kRefused) {
        MOD_UncountMsg(pstSrcModule);
        MOD_StatAdd(&MOD_SlotStat(MOD_SlotIndex(pstDstModule)).ulRefused);
        IBP_ERR("module %#x is going away", stHdr.ulDstModuleID);
        IBP_ERR("add msg %#x to module %#x fail", stHdr.ulMsgID, stHdr.ulDstModuleID);
        return 1;
    }
    if (enPut == MOD_PUT_E::kFirst)
        MOD_WakeModuleThread(pstDstModule, stHdr.ulDstModuleID);  // behind others, a wake-up is on its way
    return 0;
}

u32 MOD_RouteRemote(MOD_MODULE_S *pstSrcModule, MOD_BUF_S *pstModBuf, const MSG_HDR_S &stHdr)
{
    MOD_CountMsg(&pstSrcModule->ulSendMsgCount, &pstSrcModule->ulLastSendMsg, stHdr.ulMsgID);
    const bool bSync = stHdr.enMsgType == MSG_TYPE_SYNC_REQ || stHdr.enMsgType == MSG_TYPE_SYNC_ACK;
    switch (MOD_PutRemote(pstModBuf, bSync)) {
        case MOD_REMOTE_E::kClosed:
            MOD_UncountMsg(pstSrcModule);
            IBP_ERR("no transport to proc %#x, msg %#x not sent", stHdr.ulDstProcID, stHdr.ulMsgID);
            return 1;
        case MOD_REMOTE_E::kSendNow:
            MOD_Tap(stHdr);
            (void)MOD_SendNow(pstModBuf);  // the runtime's now, sent or not
            __atomic_fetch_sub(&gulDirectSenders, 1u, __ATOMIC_RELEASE);
            return 0;
        case MOD_REMOTE_E::kQueued:
            MOD_Tap(stHdr);
            MOD_WakeProcThread();  // it sends what is on the outbound queue
            return 0;
    }
    return 0;
}

}  // namespace

void MOD_SetRemoteSendQueue(MOD_MSG_CTRL_S *pstQueue)
{
    if (pstQueue != nullptr) {
        {
            MOD_SemGuard lock(&pstQueue->stLock);
            gbRemoteOpen = true;
            gbRemoteInFlight = false;
        }
        __atomic_store_n(&gpstRemoteQueue, pstQueue, __ATOMIC_RELEASE);
        return;
    }
    MOD_MSG_CTRL_S *pstOld = __atomic_exchange_n(&gpstRemoteQueue, nullptr, __ATOMIC_ACQ_REL);
    if (pstOld == nullptr)
        return;
    {
        MOD_SemGuard lock(&pstOld->stLock);
        gbRemoteOpen = false;
    }
    // Whoever was let through is inside one sendto: a short wait, and the
    // socket is not destroyed under it.
    while (__atomic_load_n(&gulDirectSenders, __ATOMIC_ACQUIRE) != 0)
        sched_yield();
    MOD_DrainQueue(pstOld);
}

bool MOD_TakeRemoteQueue(MOD_LIST_S *pstOut)
{
    MOD_MSG_CTRL_S *pstQueue = __atomic_load_n(&gpstRemoteQueue, __ATOMIC_ACQUIRE);
    if (pstQueue == nullptr) {
        MOD_ListInit(pstOut);
        return false;
    }
    MOD_SemGuard lock(&pstQueue->stLock);
    MOD_ListSplice(&pstQueue->stUsedList, pstOut);
    gbRemoteInFlight = !MOD_ListEmpty(pstOut);
    return gbRemoteInFlight;
}

void MOD_RemoteSent(MOD_LIST_S *pstRest)
{
    MOD_MSG_CTRL_S *pstQueue = __atomic_load_n(&gpstRemoteQueue, __ATOMIC_ACQUIRE);
    if (pstQueue == nullptr) {
        MOD_DrainList(pstRest);
        return;
    }
    MOD_SemGuard lock(&pstQueue->stLock);
    if (!MOD_ListEmpty(pstRest)) {  // in front of what came meanwhile: it is older
        MOD_LIST_S stNewer;
        MOD_ListSplice(&pstQueue->stUsedList, &stNewer);
        MOD_ListSplice(pstRest, &pstQueue->stUsedList);
        MOD_ListAppend(&stNewer, &pstQueue->stUsedList);
    }
    gbRemoteInFlight = false;
}

u32 MOD_RouteMsg(MOD_MODULE_S *pstSrcModule, MOD_BUF_S *pstModBuf, MOD_ACK_WAITER_S *pstWaiter)
{
    if (pstSrcModule == nullptr) {
        IBP_ERR("pstSrcModule is NULL");
        return 1;
    }
    if (pstModBuf == nullptr) {
        IBP_ERR("pstModBuf is NULL");
        return 1;
    }
    if (pstModBuf->pMem == nullptr || pstModBuf->ulLen < MSG_HDR_LEN) {
        IBP_ERR("buf memory addr invalid");
        return 1;
    }
    // A copy: once queued, another thread may free the message at any moment.
    const MSG_HDR_S stHdr = *static_cast<const MSG_HDR_S *>(pstModBuf->pMem);
    const MOD_MODULE_CFG_S *pstDstCfg = MOD_GetModuleCfgByID(stHdr.ulDstModuleID);
    if (pstDstCfg == nullptr) {
        IBP_ERR("get dest module cfg failed! ulModuleID=%u", stHdr.ulDstModuleID);
        return 1;
    }
    if (pstSrcModule->ulModuleID == MOD_PROC_MODULE_ID && pstDstCfg->ulModuleID == MOD_PROC_MODULE_ID) {
        IBP_ERR("src module and dest module id are invalid");
        return 1;
    }
    if (pstSrcModule->ulProcID == stHdr.ulDstProcID)
        return MOD_RouteLocal(pstSrcModule, pstModBuf, stHdr, pstWaiter);
    return MOD_RouteRemote(pstSrcModule, pstModBuf, stHdr);
}

extern "C" {

IBP_API u32 MOD_SendMsgProc(MOD_MODULE_S *pstSrcModule, MOD_BUF_S *pstModBuf)
{
    return MOD_RouteMsg(pstSrcModule, pstModBuf, nullptr);
}

}  // extern "C"
