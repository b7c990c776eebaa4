// Process and module tables, the pool of module slots, module threads,
// message queues and routing within the process.
#include "ibp/isp_module.h"

#include <array>
#include <cerrno>
#include <ctime>

#include "ibp/isp_system.h"
#include "log/log_internal.h"
#include "common/mod_list.h"
#include "runtime/module_internal.h"
#include "runtime/proc_internal.h"

IBP_LOG_SOURCE("isp_module");

extern "C" {

IBP_API MOD_PROC_CFG_S gastProcCfgInfo[MOD_PROC_CFG_NUM] = {
    {"ISP", MOD_PROC_ID_ISP, "127.0.0.1", 7001},
    {"DT", MOD_PROC_ID_DT, "127.0.0.1", 7002},
};

IBP_API MOD_MODULE_CFG_S gastModuleCfgInfo[MOD_MODULE_CFG_NUM] = {
    {"ISP", MOD_PROC_MODULE_ID, MOD_PROC_ID_ISP},
    {"ISP_IMG", MOD_ID_ISP_IMG, MOD_PROC_ID_ISP},
    {"ISP_CMD", MOD_ID_ISP_CMD, MOD_PROC_ID_ISP},
    {"DT", MOD_PROC_MODULE_ID, MOD_PROC_ID_DT},
    {"DT_CLI", MOD_ID_DT_CLI, MOD_PROC_ID_DT},
    {"DT_CMD", MOD_ID_DT_CMD, MOD_PROC_ID_DT},
};

}  // extern "C"

MOD_PROC_S gstCurProc;

namespace {

constexpr s32 kThreadPriority = 127;
constexpr int kPrSetName = 15;
// Upper bound of the wait for a module thread's end in MOD_UnregModule.
constexpr u64 kThreadEndWaitMs = 5000;

// How a module thread's end is handed over between the thread and whoever
// unregisters it.
enum : u32 {
    kThrRunning = 0,
    kThrEnded = 1,     // the thread has posted stEndSem and touches its slot no more
    kThrOrphaned = 2,  // nobody waits: the thread gives its slot back as it leaves
};

// Per slot, beside the exported record: what the thread's start and end need.
struct MOD_SLOT_THR_S {
    sem_t stStartSem;  // the thread waits until its slot is complete
    sem_t stEndSem;    // the thread's last act
    u32 ulEndState;
    ISP_THR_ENTRY_PFN pfnEntry;
};

std::array<MOD_SLOT_THR_S, MOD_MAX_MODULE_NUM> gastSlotThr;
ISP_THR_ENTRY_PFN gpfnProcThreadEntry;
MOD_MSG_CTRL_S *gpstRemoteQueue;

MOD_SLOT_THR_S &MOD_SlotThr(const MOD_MODULE_S *pstModule)
{
    return gastSlotThr[static_cast<size_t>(pstModule - gstCurProc.astModule)];
}

MOD_MODULE_S *MOD_ModuleOf(MOD_LIST_S *pstLink) { return MOD_ListEntry(pstLink, &MOD_MODULE_S::stNode); }

// Set once the pool has been set up; the list heads are not valid before.
bool gbPoolReady;

bool MOD_PoolReady() { return __atomic_load_n(&gbPoolReady, __ATOMIC_ACQUIRE); }

// First in-use slot, from the front, for which pred holds; the pool's lock is
// held for the walk only.
template <typename Pred>
MOD_MODULE_S *MOD_FindInUse(Pred pred)
{
    if (!MOD_PoolReady())
        return nullptr;
    MOD_MODULE_CTRL_S &stCtrl = gstCurProc.stModuleCtrl;
    MOD_SemGuard lock(&stCtrl.stLock);
    for (MOD_LIST_S *p = stCtrl.stUsedList.pstNext; p != &stCtrl.stUsedList; p = p->pstNext) {
        MOD_MODULE_S *pstModule = MOD_ModuleOf(p);
        if (pred(pstModule))
            return pstModule;
    }
    return nullptr;
}

// First row of a table for which pred holds, row 0 first.
template <typename Row, size_t N, typename Pred>
Row *MOD_FindRow(Row (&astRows)[N], Pred pred)
{
    for (Row &stRow : astRows) {
        if (pred(stRow))
            return &stRow;
    }
    return nullptr;
}

void MOD_SemWaitRetry(sem_t *pstSem)
{
    while (sem_wait(pstSem) != 0 && errno == EINTR) {
    }
}

// Gives a slot whose thread has ended (or never started) back to the pool.
// Messages still queued are freed rather than left to be overwritten by the
// next registration.
void MOD_ReleaseSlot(MOD_MODULE_S *pstModule, bool bInUse)
{
    MOD_SLOT_THR_S &stThr = MOD_SlotThr(pstModule);
    MOD_DrainQueue(&pstModule->stMsgCtrl);
    MOD_DrainQueue(&pstModule->stAckMsgCtrl);
    sem_destroy(&pstModule->stWakeSem);
    sem_destroy(&stThr.stStartSem);
    sem_destroy(&stThr.stEndSem);
    MOD_SemGuard lock(&gstCurProc.stModuleCtrl.stLock);
    if (bInUse)
        MOD_ListDel(&pstModule->stNode);
    MOD_ListPushFront(&gstCurProc.stModuleCtrl.stFreeList, &pstModule->stNode);
}

// Every module thread runs here: it waits until MOD_RegModule has finished
// the slot (hThread stored, slot listed), runs the entry of its kind and
// signals its end. Without the signal an unregistration could only guess.
void *MOD_ThreadMain(void *pvModule)
{
    auto *pstModule = static_cast<MOD_MODULE_S *>(pvModule);
    MOD_SLOT_THR_S &stThr = MOD_SlotThr(pstModule);
    MOD_SemWaitRetry(&stThr.stStartSem);
    stThr.pfnEntry(pstModule);

    u32 ulState = kThrRunning;
    if (__atomic_compare_exchange_n(&stThr.ulEndState, &ulState, kThrEnded, false, __ATOMIC_ACQ_REL,
                                    __ATOMIC_ACQUIRE)) {
        sem_post(&stThr.stEndSem);
        return nullptr;
    }
    MOD_ReleaseSlot(pstModule, true);
    return nullptr;
}

// Clears the run flag and wakes the thread; false if someone else already
// stopped this module.
bool MOD_StopThread(MOD_MODULE_S *pstModule)
{
    if (__atomic_exchange_n(&pstModule->bRun, 0u, __ATOMIC_ACQ_REL) == 0)
        return false;
    // The process thread waits in epoll, never on its semaphore.
    if (pstModule->ulModuleID == MOD_PROC_MODULE_ID)
        MOD_WakeProcThread();
    else
        sem_post(&pstModule->stWakeSem);
    return true;
}

}  // namespace

// Waits for a post at most ulMaxMs. The semaphore only knows wall-clock
// deadlines; the budget is kept on the monotonic clock so that a clock step
// cannot cut the wait short.
bool MOD_SemWaitFor(sem_t *pstSem, u64 ulMaxMs)
{
    u64 ullStart = 0;
    u64 ullNow = 0;
    ISP_GetMonotonicTime(&ullStart);
    for (;;) {
        ISP_GetMonotonicTime(&ullNow);
        if (ullNow - ullStart >= ulMaxMs)
            return sem_trywait(pstSem) == 0;
        u64 ullLeft = ulMaxMs - (ullNow - ullStart);
        ISP_TIMESPEC_S stNow{};
        ISP_clock_gettime(CLOCK_REALTIME, &stNow);
        timespec stDeadline{};
        stDeadline.tv_sec = stNow.lSec + static_cast<time_t>(ullLeft / 1000);
        stDeadline.tv_nsec = stNow.lNanoSec + static_cast<long>(ullLeft % 1000) * 1000000L;
        if (stDeadline.tv_nsec >= 1000000000L) {
            stDeadline.tv_sec += 1;
            stDeadline.tv_nsec -= 1000000000L;
        }
        if (sem_timedwait(pstSem, &stDeadline) == 0)
            return true;
    }
}

// Frees what is left on a queue that nobody will serve any more.
void MOD_DrainQueue(MOD_MSG_CTRL_S *pstQueue)
{
    while (MOD_BUF_S *pstBuf = MOD_GetModuleMsg(pstQueue, MOD_GET_BY_ORDER, 0))
        MOD_FreeBuf(pstBuf);
}

void MOD_InitListCtrl(MOD_LIST_CTRL_S *pstCtrl, u32 ulMaxNum)
{
    pstCtrl->ulMaxNum = ulMaxNum;
    pstCtrl->ulCurNum = 0;
    MOD_ListInit(&pstCtrl->stFreeList);
    MOD_ListInit(&pstCtrl->stUsedList);
    sem_init(&pstCtrl->stLock, 0, 1);
}

void MOD_InitModulePool(ISP_THR_ENTRY_PFN pfnProcThread)
{
    gpfnProcThreadEntry = pfnProcThread;
    MOD_MODULE_CTRL_S &stCtrl = gstCurProc.stModuleCtrl;
    MOD_InitListCtrl(&stCtrl, MOD_MAX_MODULE_NUM);
    for (MOD_MODULE_S &stModule : gstCurProc.astModule) {
        stModule.bUsed = 0;
        MOD_ListPushFront(&stCtrl.stFreeList, &stModule.stNode);
    }
    __atomic_store_n(&gbPoolReady, true, __ATOMIC_RELEASE);
}

void MOD_ForEachInUse(void (*pfnVisit)(const MOD_MODULE_S *pstModule, void *pUser), void *pUser)
{
    (void)MOD_FindInUse([&](const MOD_MODULE_S *pstModule) {
        pfnVisit(pstModule, pUser);
        return false;
    });
}

void MOD_SetRemoteSendQueue(MOD_MSG_CTRL_S *pstQueue)
{
    __atomic_store_n(&gpstRemoteQueue, pstQueue, __ATOMIC_RELEASE);
}

void *MOD_ModuleThreadProc(void *pvModule)
{
    auto *pstModule = static_cast<MOD_MODULE_S *>(pvModule);
    if (pstModule == nullptr) {
        IBP_ERR("pstModule is NULL");
        return nullptr;
    }
    ISP_prctl(kPrSetName, reinterpret_cast<unsigned long>("MOD_ModuleThr"), 0, 0, 0);
    IBP_INF("enter module thread: szModuleName=%s ulProcID=%#x ulModuleID=%#x", pstModule->szModuleName,
            pstModule->ulProcID, pstModule->ulModuleID);
    while (MOD_IsRunning(pstModule)) {
        // An interrupted wait only costs an extra look at an empty queue.
        sem_wait(&pstModule->stWakeSem);
        MOD_RecvMsgProc(pstModule);
    }
    IBP_INF("exit module thread: szModuleName=%s ulProcID=%#x ulModuleID=%#x", pstModule->szModuleName,
            pstModule->ulProcID, pstModule->ulModuleID);
    return nullptr;
}

extern "C" {

// ---------------------------------------------------------------- the process and the tables

IBP_API MOD_PROC_S *MOD_GetCurWorkProc(void) { return &gstCurProc; }

IBP_API const char *MOD_GetCurWrokProcName(void) { return gstCurProc.szProcName; }

IBP_API u32 MOD_GetCurWorkProcID(void) { return gstCurProc.ulProcID; }

IBP_API MOD_PROC_CFG_S *MOD_GetProcCfgByName(const char *pcProcName)
{
    if (pcProcName == nullptr) {
        IBP_ERR("pcProcName is NULL");
        return nullptr;
    }
    MOD_PROC_CFG_S *pstCfg = MOD_FindRow(
        gastProcCfgInfo, [&](const MOD_PROC_CFG_S &stRow) { return ISP_strcmp(stRow.szProcName, pcProcName) == 0; });
    if (pstCfg == nullptr)
        IBP_ERR("proc %s not found in config", pcProcName);
    return pstCfg;
}

IBP_API MOD_PROC_CFG_S *MOD_GetProcCfgByID(u32 ulProcID)
{
    MOD_PROC_CFG_S *pstCfg =
        MOD_FindRow(gastProcCfgInfo, [&](const MOD_PROC_CFG_S &stRow) { return stRow.ulProcID == ulProcID; });
    if (pstCfg == nullptr)
        IBP_ERR("proc id %#x not found in config", ulProcID);
    return pstCfg;
}

IBP_API MOD_MODULE_CFG_S *MOD_GetModuleCfgByName(const char *pcModuleName)
{
    if (pcModuleName == nullptr) {
        IBP_ERR("pcModuleName is NULL");
        return nullptr;
    }
    MOD_MODULE_CFG_S *pstCfg = MOD_FindRow(gastModuleCfgInfo, [&](const MOD_MODULE_CFG_S &stRow) {
        return ISP_strcmp(stRow.szModuleName, pcModuleName) == 0;
    });
    if (pstCfg == nullptr)
        IBP_ERR("module name %s not found in config", pcModuleName);
    return pstCfg;
}

IBP_API MOD_MODULE_CFG_S *MOD_GetModuleCfgByID(u32 ulModuleID)
{
    // Two rows share the process module's identifier: the current process picks.
    const bool bProcModule = (ulModuleID == MOD_PROC_MODULE_ID);
    const u32 ulCurProcID = gstCurProc.ulProcID;
    MOD_MODULE_CFG_S *pstCfg = MOD_FindRow(gastModuleCfgInfo, [&](const MOD_MODULE_CFG_S &stRow) {
        return stRow.ulModuleID == ulModuleID && (!bProcModule || stRow.ulProcID == ulCurProcID);
    });
    if (pstCfg == nullptr)
        IBP_ERR("module id %#x not found in config", ulModuleID);
    return pstCfg;
}

// ---------------------------------------------------------------- modules

IBP_API MOD_MODULE_S *MOD_GetModuleByID(u32 ulModuleID)
{
    return MOD_FindInUse([&](const MOD_MODULE_S *pstModule) { return pstModule->ulModuleID == ulModuleID; });
}

IBP_API MOD_MODULE_S *MOD_GetCurWorkModule(void)
{
    const pthread_t hSelf = ISP_thr_self();
    MOD_MODULE_S *pstProcModule = nullptr;
    MOD_MODULE_S *pstModule = MOD_FindInUse([&](MOD_MODULE_S *pstSlot) {
        if (pstProcModule == nullptr && pstSlot->ulModuleID == MOD_PROC_MODULE_ID)
            pstProcModule = pstSlot;
        return ISP_thr_equal(pstSlot->hThread, hSelf) != 0;
    });
    return pstModule != nullptr ? pstModule : pstProcModule;
}

IBP_API const char *MOD_GetCurWrokModuleName(void)
{
    if (const MOD_MODULE_S *pstModule = MOD_GetCurWorkModule())
        return pstModule->szModuleName;
    const u32 ulCurProcID = gstCurProc.ulProcID;
    // A name getter writes no records, so the table is searched quietly.
    if (const MOD_PROC_CFG_S *pstCfg = MOD_FindRow(
            gastProcCfgInfo, [&](const MOD_PROC_CFG_S &stRow) { return stRow.ulProcID == ulCurProcID; }))
        return pstCfg->szProcName;
    return "invalid";
}

IBP_API u32 MOD_WakeupModule(u32 ulModuleID)
{
    // The process thread sleeps in epoll without a tick: its wake-up is a
    // poke of its event descriptor, never its semaphore.
    if (ulModuleID == MOD_PROC_MODULE_ID) {
        MOD_WakeProcThread();
        return 0;
    }
    MOD_MODULE_S *pstModule = MOD_GetModuleByID(ulModuleID);
    if (pstModule == nullptr) {
        IBP_ERR("get module info by id %#x fail", ulModuleID);
        return 1;
    }
    sem_post(&pstModule->stWakeSem);
    return 0;
}

IBP_API u32 MOD_RegModule(const char *pcModuleName, u32 *pulModuleID)
{
    if (pcModuleName == nullptr) {
        IBP_ERR("pcModuleName is NULL");
        return 1;
    }
    if (pulModuleID == nullptr) {
        IBP_ERR("pulModuleID is NULL");
        return 1;
    }
    const size_t ulNameLen = ISP_strlen(pcModuleName);
    if (ulNameLen > MOD_NAME_LEN) {
        IBP_ERR("module name len %u beyonds limit", static_cast<u32>(ulNameLen));
        return 1;
    }
    IBP_INF("register module [%s] start", pcModuleName);

    MOD_MODULE_CTRL_S &stCtrl = gstCurProc.stModuleCtrl;
    // Before the pool is set up there is no free list to take from.
    if (!MOD_PoolReady()) {
        IBP_ERR("module pool not set up, register module fail");
        return 1;
    }
    bool bFull = false;
    {
        MOD_SemGuard lock(&stCtrl.stLock);
        bFull = MOD_ListEmpty(&stCtrl.stFreeList);
    }
    if (bFull) {
        IBP_ERR("list is full, register module fail");
        return 1;
    }
    MOD_MODULE_CFG_S *pstCfg = MOD_GetModuleCfgByName(pcModuleName);
    if (pstCfg == nullptr) {
        IBP_ERR("module cfg not found by name %s", pcModuleName);
        return 1;
    }
    if (pstCfg->ulProcID == 0)
        pstCfg->ulProcID = gstCurProc.ulProcID;
    if (pstCfg->ulProcID != gstCurProc.ulProcID) {
        IBP_ERR("proc id not match! current=%#x request=%#x", gstCurProc.ulProcID, pstCfg->ulProcID);
        return 1;
    }

    MOD_MODULE_S *pstModule = nullptr;
    {
        MOD_SemGuard lock(&stCtrl.stLock);
        if (!MOD_ListEmpty(&stCtrl.stFreeList)) {
            pstModule = MOD_ModuleOf(stCtrl.stFreeList.pstNext);
            MOD_ListDel(&pstModule->stNode);
        }
    }
    if (pstModule == nullptr) {  // another thread took the last slot meanwhile
        IBP_ERR("list is full, register module fail");
        return 1;
    }
    pstModule->bUsed = 1;
    pstModule->ulModuleID = pstCfg->ulModuleID;
    pstModule->ulProcID = pstCfg->ulProcID;
    ISP_memset(pstModule->szModuleName, 0, sizeof(pstModule->szModuleName));
    ISP_strncpy(pstModule->szModuleName, pstCfg->szModuleName, sizeof(pstModule->szModuleName) - 1);
    MOD_InitMsgProcTable(pstModule);
    MOD_InitListCtrl(&pstModule->stMsgCtrl, MOD_NOMINAL_MAX_NUM);
    MOD_InitListCtrl(&pstModule->stAckMsgCtrl, MOD_NOMINAL_MAX_NUM);
    MOD_InitAckWaiters(pstModule);
    sem_init(&pstModule->stWakeSem, 0, 0);
    __atomic_store_n(&pstModule->bRun, 1u, __ATOMIC_RELEASE);

    MOD_SLOT_THR_S &stThr = MOD_SlotThr(pstModule);
    sem_init(&stThr.stStartSem, 0, 0);
    sem_init(&stThr.stEndSem, 0, 0);
    __atomic_store_n(&stThr.ulEndState, kThrRunning, __ATOMIC_RELAXED);
    stThr.pfnEntry = (pstModule->ulModuleID == MOD_PROC_MODULE_ID) ? gpfnProcThreadEntry : MOD_ModuleThreadProc;

    pthread_t hThread{};
    if (stThr.pfnEntry == nullptr ||
        ISP_thr_create(MOD_ThreadMain, pstModule, ISP_THR_DETACHED, &hThread, kThreadPriority) != 0) {
        IBP_ERR("create module proc thread fail!");
        pstModule->bUsed = 0;
        __atomic_store_n(&pstModule->bRun, 0u, __ATOMIC_RELEASE);
        // No thread uses the slot: it goes back rather than being lost.
        MOD_ReleaseSlot(pstModule, false);
        return 1;
    }
    {
        // Listed only with its thread identifier, so that a walk never sees a
        // half-made slot; the thread waits for this.
        MOD_SemGuard lock(&stCtrl.stLock);
        pstModule->hThread = hThread;
        MOD_ListPushFront(&stCtrl.stUsedList, &pstModule->stNode);
    }
    sem_post(&stThr.stStartSem);

    *pulModuleID = pstModule->ulModuleID;
    IBP_INF("register module [%s] success, module id %#x", pcModuleName, pstModule->ulModuleID);
    return 0;
}

IBP_API u32 MOD_UnregModule(u32 ulModuleID)
{
    MOD_MODULE_S *pstModule = MOD_GetModuleByID(ulModuleID);
    if (pstModule == nullptr) {
        IBP_ERR("get module by id %#x fail", ulModuleID);
        return 1;
    }
    if (!MOD_StopThread(pstModule)) {
        IBP_ERR("module %#x is already being unregistered", ulModuleID);
        return 1;
    }
    MOD_SLOT_THR_S &stThr = MOD_SlotThr(pstModule);

    // A handler stopping its own module cannot wait for its own thread: the
    // thread gives the slot back after the handler returns.
    if (ISP_thr_equal(pstModule->hThread, ISP_thr_self()) != 0) {
        __atomic_store_n(&stThr.ulEndState, kThrOrphaned, __ATOMIC_RELEASE);
        IBP_INF("module %#x unregistered by its own thread, it leaves after this handler", ulModuleID);
        return 0;
    }

    if (!MOD_SemWaitFor(&stThr.stEndSem, kThreadEndWaitMs)) {
        u32 ulState = kThrRunning;
        if (__atomic_compare_exchange_n(&stThr.ulEndState, &ulState, kThrOrphaned, false, __ATOMIC_ACQ_REL,
                                        __ATOMIC_ACQUIRE)) {
            IBP_WRN("module %#x thread still busy after %u ms, its slot is given back when it ends", ulModuleID,
                    static_cast<u32>(kThreadEndWaitMs));
            return 0;
        }
        // It ended just now; its post is on the way.
        MOD_SemWaitRetry(&stThr.stEndSem);
    }
    MOD_ReleaseSlot(pstModule, true);
    return 0;
}

// ---------------------------------------------------------------- queues

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

IBP_API u32 MOD_SendMsgProc(MOD_MODULE_S *pstSrcModule, MOD_BUF_S *pstModBuf)
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
    // Read before queueing: from then on another thread may free the message.
    const auto *pstHdr = static_cast<const MSG_HDR_S *>(pstModBuf->pMem);
    const u32 ulMsgID = pstHdr->ulMsgID;
    const u32 ulDstModuleID = pstHdr->ulDstModuleID;
    const bool bAck = (pstHdr->enMsgType == MSG_TYPE_SYNC_ACK);

    const MOD_MODULE_CFG_S *pstDstCfg = MOD_GetModuleCfgByID(ulDstModuleID);
    if (pstDstCfg == nullptr) {
        IBP_ERR("get dest module cfg failed! ulModuleID=%u", ulDstModuleID);
        return 1;
    }
    if (pstSrcModule->ulModuleID == MOD_PROC_MODULE_ID && pstDstCfg->ulModuleID == MOD_PROC_MODULE_ID) {
        IBP_ERR("src module and dest module id are invalid");
        return 1;
    }

    const bool bLocal = (pstSrcModule->ulProcID == pstHdr->ulDstProcID);
    MOD_MSG_CTRL_S *pstQueue = nullptr;
    MOD_MODULE_S *pstDstModule = nullptr;
    if (bLocal) {
        pstDstModule = MOD_GetModuleByID(ulDstModuleID);
        if (pstDstModule == nullptr) {
            IBP_ERR("get module by id %#x fail", ulDstModuleID);
            return 1;
        }
        pstQueue = &pstDstModule->stMsgCtrl;
    } else {
        pstQueue = __atomic_load_n(&gpstRemoteQueue, __ATOMIC_ACQUIRE);
        if (pstQueue == nullptr) {
            IBP_ERR("no transport to proc %#x, msg %#x not sent", pstHdr->ulDstProcID, ulMsgID);
            return 1;
        }
    }
    // Counted before it is handed over (the queues refuse only null
    // arguments), so that whoever gets the message or its answer sees it counted.
    MOD_CountMsg(&pstSrcModule->ulSendMsgCount, &pstSrcModule->ulLastSendMsg, ulMsgID);
    if (bLocal && bAck) {
        // Goes to the thread that waits for it, not to the module's thread.
        MOD_DeliverSyncAck(pstDstModule, pstModBuf);
        return 0;
    }
    if (MOD_AddModuleMsg(pstQueue, pstModBuf) != 0) {
        IBP_ERR("add msg %#x to module %#x fail", ulMsgID, ulDstModuleID);
        return 1;
    }
    // One wake-up for the module's thread, or for the process thread that
    // sends what is on the outbound queue.
    if (bLocal)
        MOD_WakeupModule(ulDstModuleID);
    else
        MOD_WakeProcThread();
    return 0;
}

}  // extern "C"
