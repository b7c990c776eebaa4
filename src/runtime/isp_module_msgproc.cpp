// Handler tables of the modules, and the drain that hands a module's queued
// messages to their handlers on its thread.
#include <cstring>

#include "ibp/isp_module.h"
#include "ibp/isp_system.h"
#include "log/log_internal.h"
#include "runtime/mod_stat.h"
#include "runtime/module_internal.h"
#include "runtime/proc_internal.h"

IBP_LOG_SOURCE("isp_module");

namespace {

MOD_MSG_PROC_S *MOD_ProcOf(MOD_LIST_S *pstLink) { return MOD_ListEntry(pstLink, &MOD_MSG_PROC_S::stNode); }

// Under the table's lock: the first in-use entry, from the front, that serves
// ulMsgID exactly (bExact) or also as a catch-all.
MOD_MSG_PROC_S *MOD_FindEntryLocked(MOD_MSG_PROC_CTRL_S *pstCtrl, u32 ulMsgID, bool bExact)
{
    for (MOD_LIST_S *p = pstCtrl->stUsedList.pstNext; p != &pstCtrl->stUsedList; p = p->pstNext) {
        MOD_MSG_PROC_S *pstProc = MOD_ProcOf(p);
        if (pstProc->ulMsgID == ulMsgID || (!bExact && pstProc->ulMsgID == 0))
            return pstProc;
    }
    return nullptr;
}

enum class MOD_DELIVER_E { kHandled, kNoHandler, kBadBuf };

// Hands one message of the module's queue to its handler, and frees it.
MOD_DELIVER_E MOD_DeliverOne(MOD_MODULE_S *pstModule, MOD_BUF_S *pstBuf)
{
    // A block too short for a header is as unusable as none.
    if (pstBuf->pMem == nullptr || pstBuf->ulLen < MSG_HDR_LEN) {
        IBP_ERR("buf memory addr invalid");
        MOD_FreeBuf(pstBuf);
        return MOD_DELIVER_E::kBadBuf;
    }
    // The records use a copy: the handler may change the message.
    MSG_HDR_S stHdr;
    memcpy(&stHdr, pstBuf->pMem, sizeof(stHdr));
    MOD_CountMsg(&pstModule->ulRecvMsgCount, &pstModule->ulLastRecvMsg, stHdr.ulMsgID);

    MOD_MSG_PROC_COPY_S stProc{};
    MOD_DELIVER_E enResult = MOD_DELIVER_E::kHandled;
    if (!MOD_FindMsgProc(&pstModule->stMsgProcCtrl, stHdr.ulMsgID, &stProc) || stProc.pfnMsgProc == nullptr) {
        IBP_WRN("msg proc func not found: " MOD_MSG_HDR_FMT, MOD_MSG_HDR_ARGS(&stHdr));
        enResult = MOD_DELIVER_E::kNoHandler;
    } else {
        IBP_DBG("proc msg: " MOD_MSG_HDR_FMT, MOD_MSG_HDR_ARGS(&stHdr));
        stProc.pfnMsgProc(stHdr.ulMsgID, pstBuf, stProc.pParam);
        IBP_DBG("proc msg: id=%#x assId=%#x DONE!!!", stHdr.ulMsgID, stHdr.ulAssMsgID);
    }
    MOD_FreeBuf(pstBuf);
    return enResult;
}

}  // namespace

namespace {

// All 32 entries cleared and free, no entry in use.
void MOD_ClearMsgProcTable(MOD_MODULE_S *pstModule)
{
    MOD_MSG_PROC_CTRL_S &stCtrl = pstModule->stMsgProcCtrl;
    MOD_ResetListCtrl(&stCtrl, MOD_NOMINAL_MAX_NUM);
    for (MOD_MSG_PROC_S &stProc : pstModule->astMsgProc) {
        stProc.ulMsgID = 0;
        stProc.pfnMsgProc = nullptr;
        stProc.pParam = nullptr;
        MOD_ListAddTail(&stCtrl.stFreeList, &stProc.stNode);
    }
}

}  // namespace

void MOD_MsgProcTableSetUp(MOD_MODULE_S *pstModule)
{
    MOD_InitListCtrl(&pstModule->stMsgProcCtrl, MOD_NOMINAL_MAX_NUM);
    MOD_ClearMsgProcTable(pstModule);
}

// Under the table's lock: a thread that still holds the slot of the module
// that went before may add or remove a handler at the same moment.
void MOD_InitMsgProcTable(MOD_MODULE_S *pstModule)
{
    MOD_SemGuard lock(&pstModule->stMsgProcCtrl.stLock);
    MOD_ClearMsgProcTable(pstModule);
}

bool MOD_FindMsgProc(MOD_MSG_PROC_CTRL_S *pstCtrl, u32 ulMsgID, MOD_MSG_PROC_COPY_S *pstCopy)
{
    MOD_SemGuard lock(&pstCtrl->stLock);
    const MOD_MSG_PROC_S *pstProc = MOD_FindEntryLocked(pstCtrl, ulMsgID, false);
    if (pstProc == nullptr)
        return false;
    pstCopy->pfnMsgProc = pstProc->pfnMsgProc;
    pstCopy->pParam = pstProc->pParam;
    return true;
}

extern "C" {

IBP_API u32 MOD_AddMsgProc(MOD_MSG_PROC_CTRL_S *pstMsgProcCtrl, u32 ulMsgID, MOD_MSG_PROC_PFN pfnMsgProc,
                           void *pParam)
{
    if (pstMsgProcCtrl == nullptr) {
        IBP_ERR("pstMsgProcCtrl is NULL");
        return 1;
    }
    if (pfnMsgProc == nullptr) {
        IBP_ERR("pfnMsgProc is NULL");
        return 1;
    }
    enum { kAdded, kChanged, kFull } enResult = kAdded;
    {
        MOD_SemGuard lock(&pstMsgProcCtrl->stLock);
        // A full table refuses even a change of an entry it holds.
        if (MOD_ListEmpty(&pstMsgProcCtrl->stFreeList)) {
            enResult = kFull;
        } else if (MOD_MSG_PROC_S *pstProc = MOD_FindEntryLocked(pstMsgProcCtrl, ulMsgID, true)) {
            pstProc->pfnMsgProc = pfnMsgProc;
            pstProc->pParam = pParam;
            enResult = kChanged;
        } else {
            MOD_MSG_PROC_S *pstFree = MOD_ProcOf(pstMsgProcCtrl->stFreeList.pstNext);
            MOD_ListDel(&pstFree->stNode);
            pstFree->ulMsgID = ulMsgID;
            pstFree->pfnMsgProc = pfnMsgProc;
            pstFree->pParam = pParam;
            MOD_ListPushFront(&pstMsgProcCtrl->stUsedList, &pstFree->stNode);
        }
    }
    if (enResult == kFull) {
        IBP_ERR("get free msg proc struct fail!");
        return 1;
    }
    if (enResult == kChanged)
        IBP_WRN("proc info of msg %#x has been changed!", ulMsgID);
    return 0;
}

IBP_API u32 MOD_DelMsgProc(MOD_MSG_PROC_CTRL_S *pstMsgProcCtrl, u32 ulMsgID)
{
    if (pstMsgProcCtrl == nullptr) {
        IBP_ERR("pstMsgProcCtrl is NULL");
        return 1;
    }
    MOD_SemGuard lock(&pstMsgProcCtrl->stLock);
    MOD_MSG_PROC_S *pstProc = MOD_FindEntryLocked(pstMsgProcCtrl, ulMsgID, true);
    if (pstProc == nullptr)
        return 1;
    pstProc->ulMsgID = 0;
    pstProc->pfnMsgProc = nullptr;
    pstProc->pParam = nullptr;
    MOD_ListDel(&pstProc->stNode);
    MOD_ListPushFront(&pstMsgProcCtrl->stFreeList, &pstProc->stNode);
    return 0;
}

IBP_API MOD_MSG_PROC_S *MOD_GetMsgProc(MOD_MSG_PROC_CTRL_S *pstCtrl, u32 ulMsgID)
{
    if (pstCtrl == nullptr) {
        IBP_ERR("pstCtrl is NULL");
        return nullptr;
    }
    MOD_SemGuard lock(&pstCtrl->stLock);
    return MOD_FindEntryLocked(pstCtrl, ulMsgID, false);
}

// The whole queue is taken at once: one lock for a burst instead of one per
// message. A handler's time is measured from the end of the one before it
// in the same batch, which adds the free of a message and costs one reading
// of the tick count per message.
IBP_API u32 MOD_RecvMsgProc(MOD_MODULE_S *pstModule)
{
    if (pstModule == nullptr) {
        IBP_ERR("pstModule is NULL");
        return 1;
    }
    MOD_SLOT_STAT_S *pstStat = MOD_IsPoolSlot(pstModule) ? &MOD_SlotStat(MOD_SlotIndex(pstModule)) : nullptr;
    MOD_LIST_S stBatch;
    while (MOD_MsgQueueTakeAll(pstModule, &stBatch) != 0) {
        u64 ullPrev = MOD_StatTicks();
        while (!MOD_ListEmpty(&stBatch)) {
            MOD_BUF_S *pstBuf = MOD_ListEntry(stBatch.pstNext, &MOD_BUF_S::stNode);
            MOD_ListDel(&pstBuf->stNode);
            const MOD_DELIVER_E enResult = MOD_DeliverOne(pstModule, pstBuf);
            if (enResult == MOD_DELIVER_E::kBadBuf) {
                // The rest waits for the next pass; the queue is not empty
                // now, so no sender will post for it: post here.
                const bool bRest = !MOD_ListEmpty(&stBatch);
                MOD_MsgQueuePutBack(pstModule, &stBatch);
                if (bRest)
                    MOD_WakeModuleThread(pstModule, pstModule->ulModuleID);  // its own slot
                return 1;
            }
            if (pstStat == nullptr)
                continue;
            const u64 ullNow = MOD_StatTicks();
            if (enResult == MOD_DELIVER_E::kHandled)
                MOD_StatHandlerRun(*pstStat, ullNow - ullPrev);
            else
                MOD_StatInc(&pstStat->ulNoHandler);
            ullPrev = ullNow;
        }
    }
    return 0;
}

}  // extern "C"
