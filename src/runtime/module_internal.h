// The runtime from the inside: its files, its locks, and how long a module
// pointer may be used. Read this before changing any file of the runtime.
//
// FILES, one idea each. A file calls only files listed below it, never one
// above, so no two files call each other:
//   isp_module_proc.cpp     set-up and teardown of the process (MOD_SysInit, MOD_SysDestroy)
//   isp_module_loop.cpp     the process thread: its epoll loop, its timers, the outbound queue's drain
//   isp_module_recv.cpp     the receive path: datagrams in batches, messages parsed where they lie
//                           or through the receive buffer (process thread only)
//   isp_module_route.cpp    routing: MOD_SendMsgProc, the outbound queue and who may send past it
//   isp_module_print.cpp    the modules, the tables and the statistics as text and records
//   isp_module_send.cpp     datagrams to the other process
//   isp_module_pool.cpp     the slot pool, registration, module threads and their end, look-ups
//   isp_module_msgproc.cpp  handler tables, and the drain of a module's queue into its handlers
//   isp_module_ack.cpp      synchronous acks and the threads that wait for them
//   mod_ratelimit.cpp       rate limits of the records that bad input causes
//   isp_module_tap.cpp      the tap of a message monitor
//   isp_module_wake.cpp     the process thread's wake-up descriptor
//   isp_module_queue.cpp    message queues, the gate of a module's queue, timed waits
//   isp_module_stat.cpp     the counters (mod_stat.h)
//   isp_module_cfg.cpp      the process and module tables, gstCurProc
// Sending (isp_sendmsg.cpp) stands above them all.
//
// LOCKS. Each is a leaf: no lock of the runtime is taken while another is
// held, so there is no order to keep. Under a lock the holder does list work,
// reads or writes what that lock guards, posts semaphores, and at most writes
// a log record (the log's own locks are leaves that never call back here).
//   stModuleCtrl.stLock   the pool: its free and in-use lists, and the stNode
//                         and hThread of each listed slot.
//   stMsgCtrl.stLock      a slot's ordinary queue and its gate: the module
//                         identifier the queue takes messages for, 0 while closed.
//   stAckMsgCtrl.stLock   a slot's ack queue and its gate, the threads that
//                         wait for acks speaking as that module, and their
//                         fields (the ack each got, whether it failed).
//   stMsgProcCtrl.stLock  a slot's handler entries.
//   stSendMsgCtrl.stLock  the outbound queue, whether it is open, whether the
//                         process thread holds messages of it that are not sent
//                         yet, and the count of threads let through to send at
//                         once (closing waits for it to fall to 0).
//   wake lock             the process thread's wake descriptor, against its close.
//   rate lock             the counters of the rate limits.
// Without a lock, as atomics: bRun, a slot's counters (ulAssMsgID,
// ulSendMsgCount, ulLastSendMsg, ulRecvMsgCount, ulLastRecvMsg), a slot's
// thread end state, whether the runtime runs, the newest slot of each module
// (rewritten under the pool's lock, read without it), the statistics
// (mod_stat.h), the tap's switch, lease and ring (mod_tap.h). Semaphores that are no locks:
// stWakeSem (posted when a message lands on an empty queue, and when a failed
// drain leaves messages behind), a slot's start and end signals,
// and each waiting thread's own.
//
// LIFETIME OF A SLOT. The eight slots are static. MOD_SysInit sets up every
// semaphore of every slot once, when no module of an earlier start is
// registered; nothing destroys or sets up again a semaphore that another
// thread can reach before the next MOD_SysInit. A slot goes
//   free --MOD_RegModule--> filled, queues open for its identifier, listed,
//        thread started
//   --MOD_UnregModule--> ordinary queue shut, so that the thread's last
//        drain handles every message that got in; thread stopped (or
//        orphaned, see below), unlisted, queue closed (what a thread that
//        never ran left is freed), ack queue closed:
//        waiting threads woken with their ack or a failure, leftover acks
//        freed; threads waiting for an answer of this module woken with a
//        failure --> free.
// A module thread still inside a handler when its unregistration gives up
// waiting gives the slot back itself when the handler returns.
//
// A MOD_MODULE_S * (from MOD_GetModuleByID or MOD_GetCurWorkModule) is valid
// memory for the life of the process. It names the module it was found for
// until that module is unregistered; after that it may name nothing, or a
// later registration. So a thread that holds one may
//   - route to it (MOD_SendMsgProc, the receive path): the put tests under the
//     queue's lock that the queue is open for the identifier the sender meant,
//     and refuses with a record otherwise; a message that got in is handled,
//     or freed when the queue closes;
//   - post its stWakeSem (a spurious wake-up costs one look at an empty queue);
//   - read its name and counters for display (perhaps of a later module);
//   - add or remove handlers (a going module's table is cleared when the slot
//     is next registered).
// Only the module's own thread takes from its ordinary queue and runs its
// handlers; only threads listed as waiters take from its ack queue.
// MOD_AddModuleMsg and MOD_GetModuleMsg are the raw queue calls: they do not
// look at the gate, so whoever uses them on a slot's queue keeps that module
// registered meanwhile.
#pragma once

#include <pthread.h>
#include <semaphore.h>

#include <cerrno>

#include "common/mod_list.h"
#include "common/mutex_guard.h"
#include "ibp/isp_module.h"
#include "ibp/isp_system.h"

// ---------------------------------------------------------------- tables (isp_module_cfg.cpp)

// The one process control block; zero until MOD_SysInit stores the identity.
extern MOD_PROC_S gstCurProc;

// The row of the process table with that identifier, or null; writes no record.
const MOD_PROC_CFG_S *MOD_FindProcRow(u32 ulProcID);

// ---------------------------------------------------------------- locks and waits (isp_module_queue.cpp)

// ulMaxNum of a queue or handler table: recorded, never enforced.
constexpr u32 MOD_NOMINAL_MAX_NUM = 50;

// A plain mutex held for the scope.
using MOD_MutexGuard = MutexGuard;

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

// Waits for a post of pstSem at most ulMaxMs on the monotonic clock; true
// when the post came.
bool MOD_SemWaitFor(sem_t *pstSem, u64 ulMaxMs);

// Waits for a post, however long it takes.
void MOD_SemWait(sem_t *pstSem);

// Sets up a pool, queue or table record: counts, empty lists, a new lock of
// value 1. Only where no other thread can reach the record.
void MOD_InitListCtrl(MOD_LIST_CTRL_S *pstCtrl, u32 ulMaxNum);

// The counts and lists of such a record set back, its lock kept; the caller
// holds the lock.
void MOD_ResetListCtrl(MOD_LIST_CTRL_S *pstCtrl, u32 ulMaxNum);

// Takes every message of a queue under its lock and frees them after it.
void MOD_DrainQueue(MOD_MSG_CTRL_S *pstQueue);

// Frees the messages of a list that no queue holds any more.
void MOD_DrainList(MOD_LIST_S *pstList);

// The ordinary queue of a slot, behind its gate. Set-up makes the lock, the
// gate closed; open lets in messages for the slot's ulModuleID; shut lets
// nothing more in, and what is queued stays for the module's thread to
// handle (false, and nothing done, when the gate is not open for
// ulModuleID: another call shut it, or the slot holds another module); close shuts the gate and frees what is still queued (returns how
// many).
void MOD_MsgQueueSetUp(MOD_MODULE_S *pstSlot);
void MOD_MsgQueueOpen(MOD_MODULE_S *pstSlot);
bool MOD_MsgQueueShut(MOD_MODULE_S *pstSlot, u32 ulModuleID);
u32 MOD_MsgQueueClose(MOD_MODULE_S *pstSlot);

// Queues pstBuf at the slot if its queue is open for ulModuleID and, unless
// ulGen is 0, still in the opening ulGen (MOD_MsgQueueGen) that the sender
// aimed at. Refused, the buffer is still the caller's: the module has gone
// (or the slot holds a later one now). kFirst: the queue was empty, so its
// thread may be asleep and needs a wake-up; behind others it has one coming.
enum class MOD_PUT_E { kRefused, kFirst, kBehind };
MOD_PUT_E MOD_MsgQueuePut(MOD_MODULE_S *pstSlot, u32 ulModuleID, MOD_BUF_S *pstBuf, u32 ulGen = 0);
u32 MOD_MsgQueueGen(const MOD_MODULE_S *pstSlot);

// The module's thread takes its whole queue at once, oldest first, into the
// empty head pstOut, and returns how many; what it does not handle now goes
// back in front with MOD_MsgQueuePutBack. Any module record, not only slots.
u32 MOD_MsgQueueTakeAll(MOD_MODULE_S *pstModule, MOD_LIST_S *pstOut);
void MOD_MsgQueuePutBack(MOD_MODULE_S *pstModule, MOD_LIST_S *pstRest);

inline size_t MOD_SlotIndex(const MOD_MODULE_S *pstSlot)
{
    return static_cast<size_t>(pstSlot - gstCurProc.astModule);
}

// True for a slot of the pool, false for a module record of a caller's own.
inline bool MOD_IsPoolSlot(const MOD_MODULE_S *pstModule)
{
    return pstModule >= gstCurProc.astModule && pstModule < gstCurProc.astModule + MOD_MAX_MODULE_NUM;
}

inline void MOD_ListPushFront(MOD_LIST_S *pstHead, MOD_LIST_S *pstNode)
{
    MOD_ListAddTail(pstHead->pstNext, pstNode);  // before the first is after the head
}

// ---------------------------------------------------------------- counters

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

// ---------------------------------------------------------------- acks (isp_module_ack.cpp)

// A thread in MSG_SendSyncMsg waiting for the ack of one request. It lives on
// that thread's stack and is listed on the module it speaks as, under the lock
// of that module's ack queue, from before the request goes out until the wait
// ends. All fields but stSem are guarded by that lock.
struct MOD_ACK_WAITER_S {
    MOD_LIST_S stNode;
    u32 ulAssMsgID;
    MOD_BUF_S *pstAck;                // on the ack queue once it came; any later one is a stray
    const MOD_MODULE_S *pstDstSlot;   // the module of this process the request went to, or null
    u32 ulDstGen;                     // and its opening (MOD_MsgQueueGen)
    bool bListed;                     // false once its module went away and took it off the list
    bool bFailed;                     // no ack can come: the request's module or its own went away
    sem_t stSem;                      // posted once, when the wait is to end
};

// The ack queue of a slot with its waiters, as the ordinary queue above:
// set-up once, open at registration, close at unregistration (waiters woken,
// those without their ack with a failure; leftover acks freed).
void MOD_AckQueueSetUp(MOD_MODULE_S *pstSlot);
void MOD_AckQueueOpen(MOD_MODULE_S *pstSlot);
void MOD_AckQueueClose(MOD_MODULE_S *pstSlot);

// Lists the waiter for ulAssMsgID on pstModule.
void MOD_AddAckWaiter(MOD_MODULE_S *pstModule, MOD_ACK_WAITER_S *pstWaiter, u32 ulAssMsgID);

// Notes the module of this process that the waiter's request is queued at,
// in its opening ulGen, before it is queued there: if that module goes away,
// the waiter fails, and the request is refused by a later registration.
void MOD_AimAckWaiter(MOD_MODULE_S *pstModule, MOD_ACK_WAITER_S *pstWaiter, const MOD_MODULE_S *pstDstSlot,
                      u32 ulGen);

// Wakes with a failure every thread whose request waits at opening ulGen of
// pstSlot, which is going away: its queue has been closed, the request freed.
void MOD_FailAckWaitersAt(const MOD_MODULE_S *pstSlot, u32 ulGen);

// Ends the wait: unlists the waiter and gives its ack if one came, else null
// (pstWaiter->bFailed then tells a failure from a time-out).
MOD_BUF_S *MOD_DelAckWaiter(MOD_MODULE_S *pstModule, MOD_ACK_WAITER_S *pstWaiter);

// Hands a synchronous ack to the thread of pstModule that waits for its
// ulAssMsgID, through the module's ack queue. An ack that no thread waits for
// (its waiter timed out, nobody ever asked, the module is going) is freed at
// once, with a rate-limited record. The buffer is not the caller's any more.
void MOD_DeliverSyncAck(MOD_MODULE_S *pstModule, MOD_BUF_S *pstBuf);

// ---------------------------------------------------------------- handlers (isp_module_msgproc.cpp)

// Handler entry copied under the table's lock, so that a handler changed or
// removed meanwhile is never read half-written.
struct MOD_MSG_PROC_COPY_S {
    MOD_MSG_PROC_PFN pfnMsgProc;
    void *pParam;
};
bool MOD_FindMsgProc(MOD_MSG_PROC_CTRL_S *pstCtrl, u32 ulMsgID, MOD_MSG_PROC_COPY_S *pstCopy);

// A module's handler table: set-up makes the lock; clear empties the 32
// entries under it, at each registration.
void MOD_MsgProcTableSetUp(MOD_MODULE_S *pstModule);
void MOD_InitMsgProcTable(MOD_MODULE_S *pstModule);

// ---------------------------------------------------------------- the socket (isp_module_send.cpp)

// Sends the messages of a list as datagrams to their processes and frees
// them; false when a message that cannot be sent at all (freed, with its
// record) stopped it, the rest staying on the list.
bool MOD_SendList(MOD_LIST_S *pstList);
// Sends one message and frees it, sent or not.
bool MOD_SendNow(MOD_BUF_S *pstBuf);
// Sends a whole message (header filled in) to the address and port in its
// header, whoever listens there, and frees it: the answer of a service to a
// client that is no process of the table.
void MOD_SendToSender(MOD_BUF_S *pstBuf);

// ---------------------------------------------------------------- the pool (isp_module_pool.cpp)

// Sets up the pool of module slots of gstCurProc: every semaphore of every
// slot, all eight free, no module registered. pfnProcThread is the entry of
// the process module's thread, started when the process module registers;
// null makes that registration fail. Call it once the process identity is
// stored; false (with a record) while a module of an earlier start is still
// registered.
bool MOD_InitModulePool(ISP_THR_ENTRY_PFN pfnProcThread);

// The statistics of every slot back to 0 but the gauges (IBP_ClearStat).
void MOD_ClearSlotStats();

// Calls pfnVisit for each registered module, newest registration first,
// under the pool's lock (pfnVisit takes no lock); nothing before set-up.
void MOD_ForEachInUse(void (*pfnVisit)(const MOD_MODULE_S *pstModule, void *pUser), void *pUser);

// Entry of an ordinary module's thread.
void *MOD_ModuleThreadProc(void *pvModule);

// ---------------------------------------------------------------- reports (isp_module_print.cpp)

// Display functions of "isp stat module", "isp stat proc" and "isp stat clear".
u32 MOD_PrintModuleStat(u32 *pulOutBufLen, char *pcOutBuf);
u32 MOD_PrintProcStat(u32 *pulOutBufLen, char *pcOutBuf);
u32 MOD_ClearStatCmd(u32 *pulOutBufLen, char *pcOutBuf);

// ---------------------------------------------------------------- routing (isp_module_route.cpp)

// MOD_SendMsgProc; with pstWaiter, the synchronous request of that waiter,
// aimed at its destination before it is queued there.
u32 MOD_RouteMsg(MOD_MODULE_S *pstSrcModule, MOD_BUF_S *pstModBuf, MOD_ACK_WAITER_S *pstWaiter);

// The process thread takes the whole outbound queue to send it; until
// MOD_RemoteSent no other thread sends past it. pstRest: what it did not send,
// which goes back in front of the queue.
bool MOD_TakeRemoteQueue(MOD_LIST_S *pstOut);
void MOD_RemoteSent(MOD_LIST_S *pstRest);

// Where MOD_SendMsgProc puts a message for the other process. A queue opens
// it (the transport, once the queue is set up); null closes the open one and
// frees what it holds. Closed (the state at load), such a message is refused
// with a record and stays the caller's.
void MOD_SetRemoteSendQueue(MOD_MSG_CTRL_S *pstQueue);
