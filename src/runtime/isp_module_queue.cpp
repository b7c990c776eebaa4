// Message queues: the raw queue calls, the gate in front of a module's
// ordinary queue, and the timed waits that the runtime's threads use.
#include <array>
#include <cerrno>
#include <ctime>

#include "ibp/isp_module.h"
#include "ibp/isp_system.h"
#include "log/log_internal.h"
#include "runtime/module_internal.h"

IBP_LOG_SOURCE("isp_module");

namespace {

// Per slot, guarded by its stMsgCtrl.stLock: the module identifier the
// ordinary queue takes messages for, 0 while the slot is free or going.
std::array<u32, MOD_MAX_MODULE_NUM> gaulMsgGate;

// Frees the messages of a list that no queue holds any more.
void MOD_FreeList(MOD_LIST_S *pstList)
{
    while (!MOD_ListEmpty(pstList)) {
        MOD_BUF_S *pstBuf = MOD_ListEntry(pstList->pstNext, &MOD_BUF_S::stNode);
        MOD_ListDel(&pstBuf->stNode);
        MOD_FreeBuf(pstBuf);
    }
}

}  // namespace

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
    MOD_FreeList(&stLeft);
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
}

void MOD_MsgQueueShut(MOD_MODULE_S *pstSlot)
{
    MOD_SemGuard lock(&pstSlot->stMsgCtrl.stLock);
    gaulMsgGate[MOD_SlotIndex(pstSlot)] = 0;
}

void MOD_MsgQueueClose(MOD_MODULE_S *pstSlot)
{
    MOD_LIST_S stLeft;
    {
        MOD_SemGuard lock(&pstSlot->stMsgCtrl.stLock);
        gaulMsgGate[MOD_SlotIndex(pstSlot)] = 0;
        MOD_ListSplice(&pstSlot->stMsgCtrl.stUsedList, &stLeft);
    }
    MOD_FreeList(&stLeft);
}

bool MOD_MsgQueuePut(MOD_MODULE_S *pstSlot, u32 ulModuleID, MOD_BUF_S *pstBuf)
{
    MOD_SemGuard lock(&pstSlot->stMsgCtrl.stLock);
    if (gaulMsgGate[MOD_SlotIndex(pstSlot)] != ulModuleID)
        return false;
    MOD_ListAddTail(&pstSlot->stMsgCtrl.stUsedList, &pstBuf->stNode);
    return true;
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
