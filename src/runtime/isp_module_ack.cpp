// Synchronous acks and the threads that wait for them.
//
// A thread in MSG_SendSyncMsg lists itself on the module that it speaks as
// before its request goes out, and sleeps on a semaphore of its own. The
// thread that delivers an ack (a module's thread for an ack from this process,
// the process thread for one from the socket) puts it on the module's ack
// queue and posts that semaphore, so the waiter runs at once. The waiters,
// the queue and its gate are all guarded by the ack queue's lock, so they
// always agree. A waiter whose request, or whose own module, goes away is
// woken with a failure instead of being left to its time-out.
#include <array>

#include "log/log_internal.h"
#include "runtime/mod_ratelimit.h"
#include "runtime/mod_stat.h"
#include "runtime/module_internal.h"

IBP_LOG_SOURCE("isp_module");

namespace {

// Per slot, beside the exported record, guarded by its ack queue's lock.
struct MOD_ACK_SIDE_S {
    MOD_LIST_S stWaiters;
    u32 ulGate;  // the module identifier the ack queue takes acks for, 0 while closed
};
std::array<MOD_ACK_SIDE_S, MOD_MAX_MODULE_NUM> gastAckSide;

MOD_ACK_SIDE_S &MOD_AckSide(const MOD_MODULE_S *pstSlot) { return gastAckSide[MOD_SlotIndex(pstSlot)]; }

MOD_ACK_WAITER_S *MOD_WaiterOf(MOD_LIST_S *pstLink) { return MOD_ListEntry(pstLink, &MOD_ACK_WAITER_S::stNode); }

// Under the lock: ends the wait of one waiter with a failure.
void MOD_FailWaiter(MOD_ACK_WAITER_S *pstWaiter)
{
    pstWaiter->bFailed = true;
    sem_post(&pstWaiter->stSem);
}

}  // namespace

void MOD_AckQueueSetUp(MOD_MODULE_S *pstSlot)
{
    MOD_InitListCtrl(&pstSlot->stAckMsgCtrl, MOD_NOMINAL_MAX_NUM);
    MOD_ListInit(&MOD_AckSide(pstSlot).stWaiters);
    MOD_AckSide(pstSlot).ulGate = 0;
}

void MOD_AckQueueOpen(MOD_MODULE_S *pstSlot)
{
    MOD_SemGuard lock(&pstSlot->stAckMsgCtrl.stLock);
    MOD_ResetListCtrl(&pstSlot->stAckMsgCtrl, MOD_NOMINAL_MAX_NUM);
    MOD_ListInit(&MOD_AckSide(pstSlot).stWaiters);
    MOD_AckSide(pstSlot).ulGate = pstSlot->ulModuleID;
}

// Waiters that already got their ack keep it: it came in time. The others
// fail. Either way they are taken off the list here, so that the slot can be
// used again before they have looked.
void MOD_AckQueueClose(MOD_MODULE_S *pstSlot)
{
    MOD_ACK_SIDE_S &stSide = MOD_AckSide(pstSlot);
    MOD_LIST_S stLeft;
    {
        MOD_SemGuard lock(&pstSlot->stAckMsgCtrl.stLock);
        stSide.ulGate = 0;
        while (!MOD_ListEmpty(&stSide.stWaiters)) {
            MOD_ACK_WAITER_S *pstWaiter = MOD_WaiterOf(stSide.stWaiters.pstNext);
            MOD_ListDel(&pstWaiter->stNode);
            pstWaiter->bListed = false;
            if (pstWaiter->pstAck != nullptr)
                MOD_ListDel(&pstWaiter->pstAck->stNode);  // posted when it came
            else if (!pstWaiter->bFailed)
                MOD_FailWaiter(pstWaiter);
        }
        MOD_ListSplice(&pstSlot->stAckMsgCtrl.stUsedList, &stLeft);
    }
    while (!MOD_ListEmpty(&stLeft)) {
        MOD_BUF_S *pstBuf = MOD_ListEntry(stLeft.pstNext, &MOD_BUF_S::stNode);
        MOD_ListDel(&pstBuf->stNode);
        MOD_FreeBuf(pstBuf);
    }
}

void MOD_AddAckWaiter(MOD_MODULE_S *pstModule, MOD_ACK_WAITER_S *pstWaiter, u32 ulAssMsgID)
{
    pstWaiter->ulAssMsgID = ulAssMsgID;
    pstWaiter->pstAck = nullptr;
    pstWaiter->pstDstSlot = nullptr;
    pstWaiter->ulDstGen = 0;
    pstWaiter->bFailed = false;
    sem_init(&pstWaiter->stSem, 0, 0);
    MOD_StatAdd(&MOD_ProcStat().ulSyncWaiting);
    MOD_SemGuard lock(&pstModule->stAckMsgCtrl.stLock);
    MOD_ListAddTail(&MOD_AckSide(pstModule).stWaiters, &pstWaiter->stNode);
    pstWaiter->bListed = true;
}

void MOD_AimAckWaiter(MOD_MODULE_S *pstModule, MOD_ACK_WAITER_S *pstWaiter, const MOD_MODULE_S *pstDstSlot,
                      u32 ulGen)
{
    MOD_SemGuard lock(&pstModule->stAckMsgCtrl.stLock);
    pstWaiter->pstDstSlot = pstDstSlot;
    pstWaiter->ulDstGen = ulGen;
}

// Every slot's waiters are looked at, each list under its own lock, one
// after the other: a thread of any module may wait for an answer of this one.
void MOD_FailAckWaitersAt(const MOD_MODULE_S *pstSlot, u32 ulGen)
{
    for (MOD_MODULE_S &stModule : gstCurProc.astModule) {
        MOD_SemGuard lock(&stModule.stAckMsgCtrl.stLock);
        MOD_LIST_S &stWaiters = MOD_AckSide(&stModule).stWaiters;
        for (MOD_LIST_S *p = stWaiters.pstNext; p != &stWaiters; p = p->pstNext) {
            MOD_ACK_WAITER_S *pstWaiter = MOD_WaiterOf(p);
            if (pstWaiter->pstDstSlot == pstSlot && pstWaiter->ulDstGen == ulGen && pstWaiter->pstAck == nullptr &&
                !pstWaiter->bFailed)
                MOD_FailWaiter(pstWaiter);
        }
    }
}

MOD_BUF_S *MOD_DelAckWaiter(MOD_MODULE_S *pstModule, MOD_ACK_WAITER_S *pstWaiter)
{
    {
        // Also keeps a deliverer that is still inside sem_post from meeting a
        // destroyed semaphore: it posts under this lock.
        MOD_SemGuard lock(&pstModule->stAckMsgCtrl.stLock);
        if (pstWaiter->bListed) {
            MOD_ListDel(&pstWaiter->stNode);
            pstWaiter->bListed = false;
            if (pstWaiter->pstAck != nullptr)
                MOD_ListDel(&pstWaiter->pstAck->stNode);  // off the ack queue, to the caller
        }
    }
    sem_destroy(&pstWaiter->stSem);
    MOD_StatSub(&MOD_ProcStat().ulSyncWaiting);
    return pstWaiter->pstAck;
}

void MOD_DeliverSyncAck(MOD_MODULE_S *pstModule, MOD_BUF_S *pstBuf)
{
    const auto *pstHdr = static_cast<const MSG_HDR_S *>(pstBuf->pMem);
    MOD_MSG_CTRL_S &stQueue = pstModule->stAckMsgCtrl;
    {
        MOD_SemGuard lock(&stQueue.stLock);
        MOD_ACK_SIDE_S &stSide = MOD_AckSide(pstModule);
        for (MOD_LIST_S *p = stSide.stWaiters.pstNext;
             stSide.ulGate == pstHdr->ulDstModuleID && p != &stSide.stWaiters; p = p->pstNext) {
            MOD_ACK_WAITER_S *pstWaiter = MOD_WaiterOf(p);
            if (pstWaiter->ulAssMsgID == pstHdr->ulAssMsgID && pstWaiter->pstAck == nullptr && !pstWaiter->bFailed) {
                pstWaiter->pstAck = pstBuf;
                MOD_ListAddTail(&stQueue.stUsedList, &pstBuf->stNode);
                sem_post(&pstWaiter->stSem);
                return;
            }
        }
    }
    if (MOD_RateAdmit(MOD_RATE_KIND_E::STRAY_ACK))
        IBP_WRN("drop sync ack that no thread waits for: " MOD_MSG_HDR_FMT, MOD_MSG_HDR_ARGS(pstHdr));
    if (MOD_IsPoolSlot(pstModule))
        MOD_StatAdd(&MOD_SlotStat(MOD_SlotIndex(pstModule)).ulStrayAcks);
    MOD_FreeBuf(pstBuf);
}
