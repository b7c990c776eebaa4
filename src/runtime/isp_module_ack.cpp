// Synchronous acks and the threads that wait for them.
//
// A thread in MSG_SendSyncMsg lists itself on the module that it speaks as
// before its request goes out, and sleeps on a semaphore of its own. The
// thread that delivers an ack (a module's thread for an ack from this process,
// the process thread for one from the socket) puts it on the module's ack
// queue and posts that semaphore, so the waiter runs at once instead of at its
// next look. The list is guarded by the ack queue's own lock, so the queue and
// the waiters always agree.
#include <array>

#include "log/log_internal.h"
#include "runtime/mod_ratelimit.h"
#include "runtime/module_internal.h"

IBP_LOG_SOURCE("isp_module");

namespace {

// Heads of the waiter lists, one per module slot, beside the exported record.
std::array<MOD_LIST_S, MOD_MAX_MODULE_NUM> gastAckWaiters;

MOD_LIST_S &MOD_WaitersOf(const MOD_MODULE_S *pstModule)
{
    return gastAckWaiters[static_cast<size_t>(pstModule - gstCurProc.astModule)];
}

}  // namespace

void MOD_InitAckWaiters(MOD_MODULE_S *pstModule) { MOD_ListInit(&MOD_WaitersOf(pstModule)); }

void MOD_AddAckWaiter(MOD_MODULE_S *pstModule, MOD_ACK_WAITER_S *pstWaiter, u32 ulAssMsgID)
{
    pstWaiter->ulAssMsgID = ulAssMsgID;
    pstWaiter->pstAck = nullptr;
    sem_init(&pstWaiter->stSem, 0, 0);
    MOD_SemGuard lock(&pstModule->stAckMsgCtrl.stLock);
    MOD_ListAddTail(&MOD_WaitersOf(pstModule), &pstWaiter->stNode);
}

MOD_BUF_S *MOD_DelAckWaiter(MOD_MODULE_S *pstModule, MOD_ACK_WAITER_S *pstWaiter)
{
    {
        // Also keeps a deliverer that is still inside sem_post from meeting a
        // destroyed semaphore: it posts under this lock.
        MOD_SemGuard lock(&pstModule->stAckMsgCtrl.stLock);
        MOD_ListDel(&pstWaiter->stNode);
        if (pstWaiter->pstAck != nullptr)
            MOD_ListDel(&pstWaiter->pstAck->stNode);  // off the ack queue, to the caller
    }
    sem_destroy(&pstWaiter->stSem);
    return pstWaiter->pstAck;
}

void MOD_DeliverSyncAck(MOD_MODULE_S *pstModule, MOD_BUF_S *pstBuf)
{
    const auto *pstHdr = static_cast<const MSG_HDR_S *>(pstBuf->pMem);
    MOD_MSG_CTRL_S &stQueue = pstModule->stAckMsgCtrl;
    {
        MOD_SemGuard lock(&stQueue.stLock);
        MOD_LIST_S &stWaiters = MOD_WaitersOf(pstModule);
        for (MOD_LIST_S *p = stWaiters.pstNext; p != &stWaiters; p = p->pstNext) {
            auto *pstWaiter = MOD_ListEntry(p, &MOD_ACK_WAITER_S::stNode);
            if (pstWaiter->ulAssMsgID == pstHdr->ulAssMsgID && pstWaiter->pstAck == nullptr) {
                pstWaiter->pstAck = pstBuf;
                MOD_ListAddTail(&stQueue.stUsedList, &pstBuf->stNode);
                sem_post(&pstWaiter->stSem);
                return;
            }
        }
    }
    if (MOD_RateAdmit(MOD_RATE_KIND_E::STRAY_ACK))
        IBP_WRN("drop sync ack that no thread waits for: " MOD_MSG_HDR_FMT, MOD_MSG_HDR_ARGS(pstHdr));
    MOD_FreeBuf(pstBuf);
}
