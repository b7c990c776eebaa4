// What the runtime's own files share about processes, module slots and their
// threads: the process control block, the pool set-up, the hook for messages
// bound for the other process, and the counters that several threads bump.
#pragma once

#include <pthread.h>
#include <semaphore.h>

#include <cerrno>

#include "ibp/isp_module.h"
#include "ibp/isp_system.h"
#include "common/mod_list.h"

// The one process control block; zero until MOD_SysInit stores the identity.
extern MOD_PROC_S gstCurProc;

// Sets up the pool of module slots of gstCurProc: all eight free, no module
// registered. pfnProcThread is the entry of the process module's thread,
// started when the process module registers; null makes that registration
// fail. Call it once the process identity is stored and before any
// MOD_RegModule; not while modules of an earlier set-up are still running.
void MOD_InitModulePool(ISP_THR_ENTRY_PFN pfnProcThread);

// Calls pfnVisit for each registered module, newest registration first,
// under the pool's lock; nothing before the pool is set up.
void MOD_ForEachInUse(void (*pfnVisit)(const MOD_MODULE_S *pstModule, void *pUser), void *pUser);

// Entry of an ordinary module's thread.
void *MOD_ModuleThreadProc(void *pvModule);

// Where MOD_SendMsgProc puts a message for the other process. Null (the state
// at load) means there is no transport: such a message is refused with a
// record and stays the caller's. The transport sets its outbound queue once
// that queue is set up, and null again before it tears it down.
void MOD_SetRemoteSendQueue(MOD_MSG_CTRL_S *pstQueue);

// ulMaxNum of a queue or handler table: recorded, never enforced.
constexpr u32 MOD_NOMINAL_MAX_NUM = 50;

// Frees what is left on a queue that nobody will serve any more.
void MOD_DrainQueue(MOD_MSG_CTRL_S *pstQueue);

// Sets up a pool or queue record: counts, empty lists, lock of value 1.
void MOD_InitListCtrl(MOD_LIST_CTRL_S *pstCtrl, u32 ulMaxNum);

// The run flag is written by whoever unregisters and read by the thread.
inline bool MOD_IsRunning(const MOD_MODULE_S *pstModule)
{
    return __atomic_load_n(&pstModule->bRun, __ATOMIC_ACQUIRE) != 0;
}

// Counters that any sending thread moves without a lock: atomic, so that no
// two senders draw one association identifier and no count is lost.
inline u32 MOD_DrawAssMsgID(MOD_MODULE_S *pstModule)
{
    return __atomic_fetch_add(&pstModule->ulAssMsgID, 1u, __ATOMIC_RELAXED);
}

inline void MOD_CountMsg(u32 *pulCount, u32 *pulLastMsg, u32 ulMsgID)
{
    __atomic_fetch_add(pulCount, 1u, __ATOMIC_RELAXED);
    __atomic_store_n(pulLastMsg, ulMsgID, __ATOMIC_RELAXED);
}

// Waits for a post of pstSem at most ulMaxMs, on the monotonic clock; true
// when the post came.
bool MOD_SemWaitFor(sem_t *pstSem, u64 ulMaxMs);

// A plain mutex held for the scope.
class MOD_MutexGuard {
public:
    explicit MOD_MutexGuard(pthread_mutex_t *pstMutex) : pstMutex_(pstMutex) { pthread_mutex_lock(pstMutex_); }
    ~MOD_MutexGuard() { pthread_mutex_unlock(pstMutex_); }
    MOD_MutexGuard(const MOD_MutexGuard &) = delete;
    MOD_MutexGuard &operator=(const MOD_MutexGuard &) = delete;

private:
    pthread_mutex_t *pstMutex_;
};

// A semaphore of value 1 held as a mutex for the scope.
class MOD_SemGuard {
public:
    explicit MOD_SemGuard(sem_t *pstSem) : pstSem_(pstSem)
    {
        while (sem_wait(pstSem_) != 0 && errno == EINTR) {
        }
    }
    ~MOD_SemGuard() { sem_post(pstSem_); }
    MOD_SemGuard(const MOD_SemGuard &) = delete;
    MOD_SemGuard &operator=(const MOD_SemGuard &) = delete;

private:
    sem_t *pstSem_;
};

inline void MOD_ListPushFront(MOD_LIST_S *pstHead, MOD_LIST_S *pstNode)
{
    MOD_ListAddTail(pstHead->pstNext, pstNode);  // before the first is after the head
}

// The text form of a header that several records share, and its arguments.
#define MOD_MSG_HDR_FMT "prefix=[%#x %#x %#x %#x] id=[%#x %#x] type=%d len=[%u %u] src=[%#x %#x] dst=[%#x %#x]"
#define MOD_MSG_HDR_ARGS(pstHdr)                                                                       \
    static_cast<unsigned>(reinterpret_cast<const u8 *>(pstHdr)[0]),                                    \
        static_cast<unsigned>(reinterpret_cast<const u8 *>(pstHdr)[1]),                                \
        static_cast<unsigned>(reinterpret_cast<const u8 *>(pstHdr)[2]),                                \
        static_cast<unsigned>(reinterpret_cast<const u8 *>(pstHdr)[3]), (pstHdr)->ulMsgID,            \
        (pstHdr)->ulAssMsgID, static_cast<int>((pstHdr)->enMsgType), (pstHdr)->ulMsgLen,              \
        (pstHdr)->ulMsgBodyLen, (pstHdr)->ulSrcProcID, (pstHdr)->ulSrcModuleID, (pstHdr)->ulDstProcID, \
        (pstHdr)->ulDstModuleID

// Handler entry copied under the table's lock, so that a handler changed or
// removed meanwhile is never read half-written.
struct MOD_MSG_PROC_COPY_S {
    MOD_MSG_PROC_PFN pfnMsgProc;
    void *pParam;
};
bool MOD_FindMsgProc(MOD_MSG_PROC_CTRL_S *pstCtrl, u32 ulMsgID, MOD_MSG_PROC_COPY_S *pstCopy);

// Sets up a module's handler table: 32 cleared entries, all free.
void MOD_InitMsgProcTable(MOD_MODULE_S *pstModule);

// A thread in MSG_SendSyncMsg waiting for the ack of one request. It lives on
// that thread's stack and is listed on the module it speaks as, under the lock
// of that module's ack queue, from before the request goes out until the wait
// ends.
struct MOD_ACK_WAITER_S {
    MOD_LIST_S stNode;
    u32 ulAssMsgID;
    MOD_BUF_S *pstAck;  // on the ack queue once it came; any later one is a stray
    sem_t stSem;        // posted once, when the ack arrives
};

// No thread waits on a module that has just been registered.
void MOD_InitAckWaiters(MOD_MODULE_S *pstModule);

// Lists the waiter for ulAssMsgID on pstModule.
void MOD_AddAckWaiter(MOD_MODULE_S *pstModule, MOD_ACK_WAITER_S *pstWaiter, u32 ulAssMsgID);

// Ends the wait: unlists the waiter and gives its ack if one came, else null.
MOD_BUF_S *MOD_DelAckWaiter(MOD_MODULE_S *pstModule, MOD_ACK_WAITER_S *pstWaiter);

// Hands a synchronous ack to the thread of pstModule that waits for its
// ulAssMsgID, through the module's ack queue. An ack that no thread waits for
// (its waiter timed out, or nobody ever asked) is freed at once, with a
// rate-limited record, rather than kept until the process ends. The buffer is
// not the caller's any more in either case.
void MOD_DeliverSyncAck(MOD_MODULE_S *pstModule, MOD_BUF_S *pstBuf);
