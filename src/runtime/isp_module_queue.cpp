// Message queues: the raw queue calls, the gate in front of a module's
// ordinary queue, and the timed waits that the runtime's threads use.
#include <array>
#include <cerrno>
#include <ctime>

#include "ibp/isp_module.h"
#include "ibp/isp_system.h"
#include "log/log_internal.h"
#include "runtime/mod_stat.h"
#include "runtime/module_internal.h"

IBP_LOG_SOURCE("isp_module");

namespace {

// Per slot, guarded by its stMsgCtrl.stLock: the module identifier the
// ordinary queue takes messages for, 0 while the slot is free or going.
std::array<u32, MOD_MAX_MODULE_NUM> gaulMsgGate;
// Per slot: how many times its queue was opened, so that a sender can tell
// the module it aimed at from a later registration in the same slot.
std::array<u32, MOD_MAX_MODULE_NUM> gaulMsgGen;

}  // namespace

void MOD_DrainList(MOD_LIST_S *pstList)
{
    while (!MOD_ListEmpty(pstList)) {
        MOD_BUF_S *pstBuf = MOD_ListEntry(pstList->pstNext, &MOD_BUF_S::stNode);
        MOD_ListDel(&pstBuf->stNode);
        MOD_FreeBuf(pstBuf);
    }
}

// The semaphore knows only wall-clock deadlines (sem_clockwait would do, but
// the thread sanitizer does not see it as a wait); the budget is kept on the
// monotonic clock so that a step of the wall clock cannot cut the wait short.
bool MOD_SemWaitFor(sem_t *pstSem, u64 ulMaxMs)
{
    u64 ullStart = 0;
    u64 ullNow = 0;
    ISP_GetMonotonicTime(&ullStart);
    for (;;) {
        ISP_GetMonotonicTime(&ullNow);
        if (ullNow - ullStart >= ulMaxMs)
            return sem_trywait(pstSem) == 0;
        const u64 ullLeft = ulMaxMs - (ullNow - ullStart);
        timespec stDeadline{};
        clock_gettime(CLOCK_REALTIME, &stDeadline);
        stDeadline.tv_sec += static_cast<time_t>(ullLeft / 1000);
        stDeadline.tv_nsec += static_cast<long>(ullLeft % 1000) * 1000000L;
        if (stDeadline.tv_nsec >= 1000000000L) {
            stDeadline.tv_sec += 1;
            stDeadline.tv_nsec -= 1000000000L;
        }
        if (sem_timedwait(pstSem, &stDeadline) == 0)
            return true;
    }
}

void MOD_SemWait(sem_t *pstSem)
{
    while (sem_wait(pstSem) != 0 && errno == EINTR) {
    }
}

void MOD_InitListCtrl(MOD_LIST_CTRL_S *pstCtrl, u32 ulMaxNum)
{
    MOD_ResetListCtrl(pstCtrl, ulMaxNum);
    sem_init(&pstCtrl->stLock, 0, 1);
}

void MOD_ResetListCtrl(MOD_LIST_CTRL_S *pstCtrl, u32 ulMaxNum)
{
    pstCtrl->ulMaxNum = ulMaxNum;
    pstCtrl->ulCurNum = 0;
    MOD_ListInit(&pstCtrl->stFreeList);
    MOD_ListInit(&pstCtrl->stUsedList);
}

void MOD_DrainQueue(MOD_MSG_CTRL_S *pstQueue)
{
    MOD_LIST_S stLeft;
    {
        MOD_SemGuard lock(&pstQueue->stLock);
        MOD_ListSplice(&pstQueue->stUsedList, &stLeft);
    }
    MOD_DrainList(&stLeft);
}

void MOD_MsgQueueSetUp(MOD_MODULE_S *pstSlot)
{
    MOD_InitListCtrl(&pstSlot->stMsgCtrl, MOD_NOMINAL_MAX_NUM);
    gaulMsgGate[MOD_SlotIndex(pstSlot)] = 0;
}

void MOD_MsgQueueOpen(MOD_MODULE_S *pstSlot)
{
    MOD_SemGuard lock(&pstSlot->stMsgCtrl.stLock);
    MOD_ResetListCtrl(&pstSlot->stMsgCtrl, MOD_NOMINAL_MAX_NUM);
    gaulMsgGate[MOD_SlotIndex(pstSlot)] = pstSlot->ulModuleID;
    __atomic_store_n(&gaulMsgGen[MOD_SlotIndex(pstSlot)], gaulMsgGen[MOD_SlotIndex(pstSlot)] + 1, __ATOMIC_RELAXED);
}

u32 MOD_MsgQueueGen(const MOD_MODULE_S *pstSlot)
{
    return __atomic_load_n(&gaulMsgGen[MOD_SlotIndex(pstSlot)], __ATOMIC_RELAXED);
}

bool MOD_MsgQueueShut(MOD_MODULE_S *pstSlot, u32 ulModuleID)
{
    MOD_SemGuard lock(&pstSlot->stMsgCtrl.stLock);
    u32 &ulGate = gaulMsgGate[MOD_SlotIndex(pstSlot)];
    if (ulGate != ulModuleID)
        return false;
    ulGate = 0;
    return true;
}

u32 MOD_MsgQueueClose(MOD_MODULE_S *pstSlot)
{
    {
        MOD_SemGuard lock(&pstSlot->stMsgCtrl.stLock);
        gaulMsgGate[MOD_SlotIndex(pstSlot)] = 0;
    }
    MOD_LIST_S stLeft;
    const u32 ulFreed = MOD_MsgQueueTakeAll(pstSlot, &stLeft);
    MOD_DrainList(&stLeft);
    return ulFreed;
}

MOD_PUT_E MOD_MsgQueuePut(MOD_MODULE_S *pstSlot, u32 ulModuleID, MOD_BUF_S *pstBuf, u32 ulGen)
{
    const size_t ulSlot = MOD_SlotIndex(pstSlot);
    MOD_SemGuard lock(&pstSlot->stMsgCtrl.stLock);
    if (gaulMsgGate[ulSlot] != ulModuleID || (ulGen != 0 && gaulMsgGen[ulSlot] != ulGen))
        return MOD_PUT_E::kRefused;
    MOD_LIST_S &stQueue = pstSlot->stMsgCtrl.stUsedList;
    const bool bWasEmpty = MOD_ListEmpty(&stQueue);
    MOD_ListAddTail(&stQueue, &pstBuf->stNode);
    MOD_StatQueued(MOD_SlotStat(ulSlot));
    return bWasEmpty ? MOD_PUT_E::kFirst : MOD_PUT_E::kBehind;
}

u32 MOD_MsgQueueTakeAll(MOD_MODULE_S *pstModule, MOD_LIST_S *pstOut)
{
    MOD_SemGuard lock(&pstModule->stMsgCtrl.stLock);
    MOD_ListSplice(&pstModule->stMsgCtrl.stUsedList, pstOut);
    u32 ulNum = 0;
    for (MOD_LIST_S *p = pstOut->pstNext; p != pstOut; p = p->pstNext)
        ulNum++;
    if (MOD_IsPoolSlot(pstModule))
        MOD_StatTaken(MOD_SlotStat(MOD_SlotIndex(pstModule)), ulNum);
    return ulNum;
}

void MOD_MsgQueuePutBack(MOD_MODULE_S *pstModule, MOD_LIST_S *pstRest)
{
    if (MOD_ListEmpty(pstRest))
        return;
    u32 ulNum = 0;
    for (MOD_LIST_S *p = pstRest->pstNext; p != pstRest; p = p->pstNext)
        ulNum++;
    MOD_SemGuard lock(&pstModule->stMsgCtrl.stLock);
    // In front of what came meanwhile: the rest is older.
    MOD_ListAppend(&pstModule->stMsgCtrl.stUsedList, pstRest);
    MOD_ListSplice(pstRest, &pstModule->stMsgCtrl.stUsedList);
    if (MOD_IsPoolSlot(pstModule))
        MOD_StatPutBack(MOD_SlotStat(MOD_SlotIndex(pstModule)), ulNum);
}

extern "C" {

IBP_API u32 MOD_AddModuleMsg(MOD_MSG_CTRL_S *pstMsgCtrl, MOD_BUF_S *pstModBuf)
{
    if (pstMsgCtrl == nullptr) {
        IBP_ERR("pstMsgCtrl is NULL");
        return 1;
    }
    if (pstModBuf == nullptr) {
        IBP_ERR("pstModBuf is NULL");
        return 1;
    }
    MOD_SemGuard lock(&pstMsgCtrl->stLock);
    MOD_ListAddTail(&pstMsgCtrl->stUsedList, &pstModBuf->stNode);
    return 0;
}

IBP_API MOD_BUF_S *MOD_GetModuleMsg(MOD_MSG_CTRL_S *pstMsgCtrl, MOD_GET_TYPE_E enGetType, u32 ulAssMsgID)
{
    if (pstMsgCtrl == nullptr) {
        IBP_ERR("pstMsgCtrl is NULL");
        return nullptr;
    }
    MOD_SemGuard lock(&pstMsgCtrl->stLock);
    MOD_LIST_S *pstHead = &pstMsgCtrl->stUsedList;
    if (MOD_ListEmpty(pstHead))
        return nullptr;
    MOD_BUF_S *pstFound = nullptr;
    switch (enGetType) {
        case MOD_GET_BY_ORDER:
            pstFound = MOD_ListEntry(pstHead->pstNext, &MOD_BUF_S::stNode);
            break;
        case MOD_GET_BY_ASSID:
            for (MOD_LIST_S *p = pstHead->pstNext; p != pstHead; p = p->pstNext) {
                MOD_BUF_S *pstBuf = MOD_ListEntry(p, &MOD_BUF_S::stNode);
                // A block too short for a header cannot be the one asked for.
                if (pstBuf->pMem != nullptr && pstBuf->ulLen >= MSG_HDR_LEN &&
                    static_cast<const MSG_HDR_S *>(pstBuf->pMem)->ulAssMsgID == ulAssMsgID) {
                    pstFound = pstBuf;
                    break;
                }
            }
            break;
        default:
            IBP_ERR("getby type %d invalid", static_cast<int>(enGetType));
            return nullptr;
    }
    if (pstFound != nullptr)
        MOD_ListDel(&pstFound->stNode);
    return pstFound;
}

}  // extern "C"
