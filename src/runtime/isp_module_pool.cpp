// The pool of module slots: registration and unregistration, the module
// threads with their start and end, and the look-ups of registered modules.
#include <array>

#include "ibp/isp_module.h"
#include "ibp/isp_system.h"
#include "log/log_internal.h"
#include "runtime/mod_stat.h"
#include "runtime/module_internal.h"
#include "runtime/proc_internal.h"

IBP_LOG_SOURCE("isp_module");

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
// Set once the pool has been set up; the list heads are not valid before.
bool gbPoolReady;
// Slots on the free list, moved with it under the pool's lock and read
// without it; a slot between its unlisting and its return is on neither list.
u32 gulFreeSlots;
// Look-ups without the pool's lock: per row of the module table, the newest
// registered slot of that row's module, or null. Rewritten under the pool's
// lock whenever the in-use list changes; read with one atomic load, so that
// a sender does not take the pool's lock for every message.
std::array<MOD_MODULE_S *, MOD_MODULE_CFG_NUM> gapstNewest;
// The slot whose thread this is, for a module thread; null elsewhere.
__thread MOD_MODULE_S *gpstOwnSlot __attribute__((tls_model("initial-exec")));

MOD_SLOT_THR_S &MOD_SlotThr(const MOD_MODULE_S *pstModule) { return gastSlotThr[MOD_SlotIndex(pstModule)]; }

MOD_MODULE_S *MOD_ModuleOf(MOD_LIST_S *pstLink) { return MOD_ListEntry(pstLink, &MOD_MODULE_S::stNode); }

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

// The row of the module table that ulModuleID names in this process, or -1;
// the rule of MOD_GetModuleCfgByID, without its record.
int MOD_RowOf(u32 ulModuleID)
{
    const u32 ulCurProcID = gstCurProc.ulProcID;
    for (u32 i = 0; i < MOD_MODULE_CFG_NUM; i++) {
        const MOD_MODULE_CFG_S &stRow = gastModuleCfgInfo[i];
        if (stRow.ulModuleID == ulModuleID && (ulModuleID != MOD_PROC_MODULE_ID || stRow.ulProcID == ulCurProcID))
            return static_cast<int>(i);
    }
    return -1;
}

// Under the pool's lock, after the in-use list changed for ulModuleID.
void MOD_RefreshNewest(u32 ulModuleID)
{
    const int lRow = MOD_RowOf(ulModuleID);
    if (lRow < 0)
        return;
    MOD_MODULE_CTRL_S &stCtrl = gstCurProc.stModuleCtrl;
    MOD_MODULE_S *pstNewest = nullptr;
    for (MOD_LIST_S *p = stCtrl.stUsedList.pstNext; p != &stCtrl.stUsedList && pstNewest == nullptr; p = p->pstNext) {
        if (MOD_ModuleOf(p)->ulModuleID == ulModuleID)
            pstNewest = MOD_ModuleOf(p);
    }
    __atomic_store_n(&gapstNewest[static_cast<size_t>(lRow)], pstNewest, __ATOMIC_RELEASE);
}

bool MOD_PoolFull()
{
    MOD_SemGuard lock(&gstCurProc.stModuleCtrl.stLock);
    return MOD_ListEmpty(&gstCurProc.stModuleCtrl.stFreeList);
}

MOD_MODULE_S *MOD_TakeFreeSlot()
{
    MOD_MODULE_CTRL_S &stCtrl = gstCurProc.stModuleCtrl;
    MOD_SemGuard lock(&stCtrl.stLock);
    if (MOD_ListEmpty(&stCtrl.stFreeList))
        return nullptr;
    MOD_MODULE_S *pstModule = MOD_ModuleOf(stCtrl.stFreeList.pstNext);
    MOD_ListDel(&pstModule->stNode);
    __atomic_fetch_sub(&gulFreeSlots, 1u, __ATOMIC_RELEASE);
    return pstModule;
}

// Gives back a slot whose thread has ended or never started. It is unlisted
// first, so that no look-up finds it any more; then its queues close, which
// refuses whoever found it before and frees what they queued; then every
// thread that waits for an answer that can no longer come is woken.
void MOD_ReleaseSlot(MOD_MODULE_S *pstModule, bool bListed)
{
    MOD_MODULE_CTRL_S &stCtrl = gstCurProc.stModuleCtrl;
    if (bListed) {
        MOD_SemGuard lock(&stCtrl.stLock);
        MOD_ListDel(&pstModule->stNode);
        MOD_RefreshNewest(pstModule->ulModuleID);
    }
    const u32 ulGen = MOD_MsgQueueGen(pstModule);
    MOD_StatAdd(&MOD_SlotStat(MOD_SlotIndex(pstModule)).ulDrained, MOD_MsgQueueClose(pstModule));
    MOD_AckQueueClose(pstModule);
    MOD_FailAckWaitersAt(pstModule, ulGen);
    pstModule->bUsed = 0;
    MOD_SemGuard lock(&stCtrl.stLock);
    MOD_ListPushFront(&stCtrl.stFreeList, &pstModule->stNode);
    __atomic_fetch_add(&gulFreeSlots, 1u, __ATOMIC_RELEASE);
}

// Every module thread runs here: it waits until MOD_RegModule has finished
// the slot (hThread stored, slot listed), runs the entry of its kind and
// signals its end. Without the signal an unregistration could only guess.
void *MOD_ThreadMain(void *pvModule)
{
    auto *pstModule = static_cast<MOD_MODULE_S *>(pvModule);
    MOD_SLOT_THR_S &stThr = MOD_SlotThr(pstModule);
    MOD_SemWait(&stThr.stStartSem);
    gpstOwnSlot = pstModule;
    stThr.pfnEntry(pstModule);
    gpstOwnSlot = nullptr;

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
    MOD_WakeModuleThread(pstModule, pstModule->ulModuleID);
    return true;
}

// True when the thread has ended; false when it is still busy after the
// wait and will give its slot back itself.
bool MOD_AwaitThreadEnd(MOD_MODULE_S *pstModule)
{
    MOD_SLOT_THR_S &stThr = MOD_SlotThr(pstModule);
    if (MOD_SemWaitFor(&stThr.stEndSem, kThreadEndWaitMs))
        return true;
    u32 ulState = kThrRunning;
    if (__atomic_compare_exchange_n(&stThr.ulEndState, &ulState, kThrOrphaned, false, __ATOMIC_ACQ_REL,
                                    __ATOMIC_ACQUIRE)) {
        IBP_WRN("module %#x thread still busy after %u ms, its slot is given back when it ends",
                pstModule->ulModuleID, static_cast<u32>(kThreadEndWaitMs));
        return false;
    }
    MOD_SemWait(&stThr.stEndSem);  // it ended just now; its post is on the way
    return true;
}

// The row that pcModuleName may be registered from in this process, or null
// after its record. A row that no process owns yet is claimed.
MOD_MODULE_CFG_S *MOD_RowToRegister(const char *pcModuleName)
{
    MOD_MODULE_CFG_S *pstCfg = MOD_GetModuleCfgByName(pcModuleName);
    if (pstCfg == nullptr) {
        IBP_ERR("module cfg not found by name %s", pcModuleName);
        return nullptr;
    }
    if (pstCfg->ulProcID == 0)
        pstCfg->ulProcID = gstCurProc.ulProcID;
    if (pstCfg->ulProcID != gstCurProc.ulProcID) {
        IBP_ERR("proc id not match! current=%#x request=%#x", gstCurProc.ulProcID, pstCfg->ulProcID);
        return nullptr;
    }
    return pstCfg;
}

// Makes a taken slot the module of the row: identity, an empty handler
// table, open queues, and what its thread will run.
void MOD_FillSlot(MOD_MODULE_S *pstModule, const MOD_MODULE_CFG_S *pstCfg)
{
    pstModule->bUsed = 1;
    pstModule->ulModuleID = pstCfg->ulModuleID;
    pstModule->ulProcID = pstCfg->ulProcID;
    ISP_memset(pstModule->szModuleName, 0, sizeof(pstModule->szModuleName));
    ISP_strncpy(pstModule->szModuleName, pstCfg->szModuleName, sizeof(pstModule->szModuleName) - 1);
    MOD_InitMsgProcTable(pstModule);
    MOD_StatResetSlot(MOD_SlotIndex(pstModule), __atomic_load_n(&pstModule->ulSendMsgCount, __ATOMIC_RELAXED));
    MOD_MsgQueueOpen(pstModule);
    MOD_AckQueueOpen(pstModule);
    __atomic_store_n(&pstModule->bRun, 1u, __ATOMIC_RELEASE);
    MOD_SLOT_THR_S &stThr = MOD_SlotThr(pstModule);
    __atomic_store_n(&stThr.ulEndState, kThrRunning, __ATOMIC_RELAXED);
    stThr.pfnEntry = (pstModule->ulModuleID == MOD_PROC_MODULE_ID) ? gpfnProcThreadEntry : MOD_ModuleThreadProc;
}

// Starts the slot's thread and lists the slot; false, with the slot given
// back, when the thread cannot be made.
bool MOD_StartThread(MOD_MODULE_S *pstModule)
{
    MOD_SLOT_THR_S &stThr = MOD_SlotThr(pstModule);
    pthread_t hThread{};
    if (stThr.pfnEntry == nullptr ||
        ISP_thr_create(MOD_ThreadMain, pstModule, ISP_THR_DETACHED, &hThread, kThreadPriority) != 0) {
        IBP_ERR("create module proc thread fail!");
        __atomic_store_n(&pstModule->bRun, 0u, __ATOMIC_RELEASE);
        MOD_ReleaseSlot(pstModule, false);  // no thread uses it: back to the pool rather than lost
        return false;
    }
    {
        // Listed only with its thread identifier, so that a walk never sees a
        // half-made slot; the thread waits for this.
        MOD_SemGuard lock(&gstCurProc.stModuleCtrl.stLock);
        pstModule->hThread = hThread;
        MOD_ListPushFront(&gstCurProc.stModuleCtrl.stUsedList, &pstModule->stNode);
        MOD_RefreshNewest(pstModule->ulModuleID);
    }
    sem_post(&stThr.stStartSem);
    return true;
}

// Sets up the semaphores and lists of one slot, free and closed.
void MOD_SetUpSlot(MOD_MODULE_S *pstModule)
{
    MOD_SLOT_THR_S &stThr = MOD_SlotThr(pstModule);
    pstModule->bUsed = 0;
    pstModule->bRun = 0;
    sem_init(&pstModule->stWakeSem, 0, 0);
    sem_init(&stThr.stStartSem, 0, 0);
    sem_init(&stThr.stEndSem, 0, 0);
    MOD_MsgQueueSetUp(pstModule);
    MOD_AckQueueSetUp(pstModule);
    MOD_MsgProcTableSetUp(pstModule);
}

}  // namespace

bool MOD_InitModulePool(ISP_THR_ENTRY_PFN pfnProcThread)
{
    MOD_MODULE_CTRL_S &stCtrl = gstCurProc.stModuleCtrl;
    // Setting up semaphores that a running module thread uses would break it.
    if (const MOD_MODULE_S *pstLeft = MOD_FindInUse([](const MOD_MODULE_S *) { return true; })) {
        IBP_ERR("module %s of an earlier start is still registered, unregister it first", pstLeft->szModuleName);
        return false;
    }
    // Unlisted but not free yet: a thread that outlived its unregistration
    // is giving its slot back right now.
    if (MOD_PoolReady() && __atomic_load_n(&gulFreeSlots, __ATOMIC_ACQUIRE) != MOD_MAX_MODULE_NUM) {
        IBP_ERR("a module of an earlier start is still giving its slot back, try again later");
        return false;
    }
    gpfnProcThreadEntry = pfnProcThread;
    for (MOD_MODULE_S *&pstNewest : gapstNewest)
        __atomic_store_n(&pstNewest, nullptr, __ATOMIC_RELEASE);
    MOD_InitListCtrl(&stCtrl, MOD_MAX_MODULE_NUM);
    for (MOD_MODULE_S &stModule : gstCurProc.astModule) {
        MOD_SetUpSlot(&stModule);
        MOD_ListPushFront(&stCtrl.stFreeList, &stModule.stNode);
    }
    __atomic_store_n(&gulFreeSlots, MOD_MAX_MODULE_NUM, __ATOMIC_RELEASE);
    __atomic_store_n(&gbPoolReady, true, __ATOMIC_RELEASE);
    return true;
}

void MOD_ClearSlotStats()
{
    const bool bLocks = MOD_PoolReady();
    for (MOD_MODULE_S &stSlot : gstCurProc.astModule) {
        const size_t ulSlot = MOD_SlotIndex(&stSlot);
        const u32 ulSent = __atomic_load_n(&stSlot.ulSendMsgCount, __ATOMIC_RELAXED);
        if (!bLocks) {  // no queue runs before the pool's set-up, and its locks do not exist yet
            MOD_StatClearSlot(ulSlot, ulSent);
            continue;
        }
        // Puts and takes move the queue depth under this lock.
        MOD_SemGuard lock(&stSlot.stMsgCtrl.stLock);
        MOD_StatClearSlot(ulSlot, ulSent);
    }
}

void MOD_ForEachInUse(void (*pfnVisit)(const MOD_MODULE_S *pstModule, void *pUser), void *pUser)
{
    (void)MOD_FindInUse([&](const MOD_MODULE_S *pstModule) {
        pfnVisit(pstModule, pUser);
        return false;
    });
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
    // What got in before the queue was shut, after the last drain.
    MOD_RecvMsgProc(pstModule);
    IBP_INF("exit module thread: szModuleName=%s ulProcID=%#x ulModuleID=%#x", pstModule->szModuleName,
            pstModule->ulProcID, pstModule->ulModuleID);
    return nullptr;
}

extern "C" {

IBP_API MOD_MODULE_S *MOD_GetModuleByID(u32 ulModuleID)
{
    if (!MOD_PoolReady())
        return nullptr;
    const int lRow = MOD_RowOf(ulModuleID);
    return lRow < 0 ? nullptr : __atomic_load_n(&gapstNewest[static_cast<size_t>(lRow)], __ATOMIC_ACQUIRE);
}

// A module's thread speaks as its module for as long as it runs, and its
// slot stays listed that long; any other thread speaks as the process module.
IBP_API MOD_MODULE_S *MOD_GetCurWorkModule(void)
{
    if (gpstOwnSlot != nullptr)
        return gpstOwnSlot;
    return MOD_GetModuleByID(MOD_PROC_MODULE_ID);
}

IBP_API const char *MOD_GetCurWrokModuleName(void)
{
    if (const MOD_MODULE_S *pstModule = MOD_GetCurWorkModule())
        return pstModule->szModuleName;
    // A name getter writes no records, so the table is searched quietly.
    if (const MOD_PROC_CFG_S *pstCfg = MOD_FindProcRow(gstCurProc.ulProcID))
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
    if (!MOD_PoolReady()) {  // before the pool is set up there is no free list to take from
        IBP_ERR("module pool not set up, register module fail");
        return 1;
    }
    if (MOD_PoolFull()) {
        IBP_ERR("list is full, register module fail");
        return 1;
    }
    const MOD_MODULE_CFG_S *pstCfg = MOD_RowToRegister(pcModuleName);
    if (pstCfg == nullptr)
        return 1;
    MOD_MODULE_S *pstModule = MOD_TakeFreeSlot();
    if (pstModule == nullptr) {  // another thread took the last slot meanwhile
        IBP_ERR("list is full, register module fail");
        return 1;
    }
    MOD_FillSlot(pstModule, pstCfg);
    if (!MOD_StartThread(pstModule))
        return 1;
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
    // Nothing more gets in; the thread handles what did before it leaves.
    // The gate names the registration: a slot that another unregistration
    // took, or that a later module reuses, is not this call's to stop.
    if (!MOD_MsgQueueShut(pstModule, ulModuleID) || !MOD_StopThread(pstModule)) {
        IBP_ERR("module %#x is already being unregistered", ulModuleID);
        return 1;
    }
    // A handler stopping its own module cannot wait for its own thread: the
    // thread gives the slot back after the handler returns.
    if (ISP_thr_equal(pstModule->hThread, ISP_thr_self()) != 0) {
        __atomic_store_n(&MOD_SlotThr(pstModule).ulEndState, kThrOrphaned, __ATOMIC_RELEASE);
        IBP_INF("module %#x unregistered by its own thread, it leaves after this handler", ulModuleID);
        return 0;
    }
    if (MOD_AwaitThreadEnd(pstModule))
        MOD_ReleaseSlot(pstModule, true);
    return 0;
}

IBP_API u32 MOD_RegMsgProc(u32 ulModuleID, u32 ulMsgID, MOD_MSG_PROC_PFN pfnMsgProc, void *pParam)
{
    if (pfnMsgProc == nullptr) {
        IBP_ERR("pfnMsgProc is NULL");
        return 1;
    }
    MOD_MODULE_S *pstModule = MOD_GetModuleByID(ulModuleID);
    if (pstModule == nullptr) {
        IBP_ERR("get module by id %#x fail", ulModuleID);
        return 1;
    }
    if (MOD_AddMsgProc(&pstModule->stMsgProcCtrl, ulMsgID, pfnMsgProc, pParam) != 0) {
        IBP_ERR("add message proc fail! ulMsgID=%#x pfnMsgProc=%p pParam=%p", ulMsgID,
                reinterpret_cast<void *>(pfnMsgProc), pParam);
        return 1;
    }
    return 0;
}

IBP_API u32 MOD_UnregMsgProc(u32 ulModuleID, u32 ulMsgID)
{
    MOD_MODULE_S *pstModule = MOD_GetModuleByID(ulModuleID);
    if (pstModule == nullptr) {
        IBP_ERR("get module by id %#x fail", ulModuleID);
        return 1;
    }
    return MOD_DelMsgProc(&pstModule->stMsgProcCtrl, ulMsgID);
}

}  // extern "C"
