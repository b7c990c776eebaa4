// Counters of the runtime: per module slot and per process. They are bumped
// on the message paths without a lock of their own: a counter with one
// writer (the module's thread, the process thread) or whose writers already
// hold a queue's lock is a relaxed load and store; one with several writers
// is a relaxed atomic add. Readers load them relaxed, so a row may mix
// moments, which a report of counters can afford. IBP_ClearStat racing a
// writer may lose the clear of that one counter.
//
// Built with IBP_STATS=0 (for measuring what they cost) every bump is empty.
#pragma once

#include <ctime>

#include "ibp/isp_module.h"
#include "ibp/isp_stat.h"

#ifndef IBP_STATS
#define IBP_STATS 1
#endif

constexpr bool MOD_STATS_ON = IBP_STATS != 0;
// Handler times in buckets of powers of two ticks of MOD_StatTicks: bucket b
// holds runs under 2^b ticks; the last takes the rest. Reports turn ticks
// into microseconds.
constexpr u32 MOD_HIST_BUCKETS = 40;

// Per message a module costs one add when it is queued and, when handled,
// one reading of the tick count and two stores; what can be derived is:
// the depth is what was queued less what was taken, the high-water mark the
// largest batch its thread took (between two takes a queue only grows), the
// handled messages the sum of the histogram.
struct MOD_SLOT_STAT_S {
    u32 ulRecv;       // queued; under the queue's lock
    u32 ulTaken;      // taken off the queue (delivered or freed); under the queue's lock
    u32 ulHigh;       // the largest batch taken; under the queue's lock
    u32 ulNoHandler;  // the module's thread
    u64 ullMaxTicks;  // the module's thread
    u32 aulHist[MOD_HIST_BUCKETS];  // handled, by time; the module's thread
    u32 ulRefused;    // any sender
    u32 ulDrained;    // whoever unregisters
    u32 ulStrayAcks;  // any deliverer
    u32 ulSentBase;   // the slot's ulSendMsgCount when counting began
};

struct MOD_PROC_STAT_COUNT_S {
    u32 ulDatagramsIn;  // the process thread
    u64 ullBytesIn;     // the process thread
    u32 ulKernelDrops;  // the process thread
    u32 ulDatagramsOut;
    u64 ullBytesOut;
    u32 ulSendFailures;
    u32 aulBadInput[IBP_BAD_KIND_NUM];
    u32 ulStrayAcks;
    u32 ulSyncWaiting;
    u32 ulSyncTimedOut;
    u32 ulSyncFailed;
    u32 ulMonitorShown;
    u32 ulMonitorLost;
};

// The counters of slot i of the pool, and of the process.
MOD_SLOT_STAT_S &MOD_SlotStat(size_t ulSlot);
MOD_PROC_STAT_COUNT_S &MOD_ProcStat();

// A slot's counters start again from 0 at its registration.
void MOD_StatResetSlot(size_t ulSlot, u32 ulSentNow);

// Snapshots for reports; the slot must be registered for its name and sends.
void MOD_StatFillModule(const MOD_MODULE_S *pstSlot, size_t ulSlot, IBP_MODULE_STAT_S *pstOut);
void MOD_StatFillProc(IBP_PROC_STAT_S *pstOut);
// The process's counters back to 0 but the gauges, for a new start.
void MOD_StatResetProc();
// A slot's counters back to 0 but the gauges; ulSentNow is the slot's
// ulSendMsgCount of now. Under the slot's queue lock once the pool is set up.
void MOD_StatClearSlot(size_t ulSlot, u32 ulSentNow);

// Bumps. Single writer (or writers under one lock): load and store.
inline void MOD_StatInc(u32 *pul, u32 ulBy = 1)
{
    if constexpr (MOD_STATS_ON)
        __atomic_store_n(pul, __atomic_load_n(pul, __ATOMIC_RELAXED) + ulBy, __ATOMIC_RELAXED);
}
inline void MOD_StatInc64(u64 *pull, u64 ullBy)
{
    if constexpr (MOD_STATS_ON)
        __atomic_store_n(pull, __atomic_load_n(pull, __ATOMIC_RELAXED) + ullBy, __ATOMIC_RELAXED);
}
// Several writers at once.
inline void MOD_StatAdd(u32 *pul, u32 ulBy = 1)
{
    if constexpr (MOD_STATS_ON)
        __atomic_fetch_add(pul, ulBy, __ATOMIC_RELAXED);
}
inline void MOD_StatAdd64(u64 *pull, u64 ullBy)
{
    if constexpr (MOD_STATS_ON)
        __atomic_fetch_add(pull, ullBy, __ATOMIC_RELAXED);
}
inline void MOD_StatSub(u32 *pul)
{
    if constexpr (MOD_STATS_ON)
        __atomic_fetch_sub(pul, 1u, __ATOMIC_RELAXED);
}

// Under the queue's lock: one more message waits, or the thread took ulNum
// (all there were), or ulNum went back.
inline void MOD_StatQueued(MOD_SLOT_STAT_S &stStat) { MOD_StatInc(&stStat.ulRecv); }
inline void MOD_StatTaken(MOD_SLOT_STAT_S &stStat, u32 ulNum)
{
    if constexpr (MOD_STATS_ON) {
        MOD_StatInc(&stStat.ulTaken, ulNum);
        if (ulNum > __atomic_load_n(&stStat.ulHigh, __ATOMIC_RELAXED))
            __atomic_store_n(&stStat.ulHigh, ulNum, __ATOMIC_RELAXED);
    }
}
inline void MOD_StatPutBack(MOD_SLOT_STAT_S &stStat, u32 ulNum) { MOD_StatInc(&stStat.ulTaken, 0u - ulNum); }

// A monotonic count for the handler times, read once per message: the
// processor's time-stamp counter where there is one (a few nanoseconds),
// else the monotonic clock in nanoseconds (a call of tens of them).
inline u64 MOD_StatTicks()
{
    if constexpr (!MOD_STATS_ON)
        return 0;
#if defined(__x86_64__) || defined(__i386__)
    return __builtin_ia32_rdtsc();
#else
    timespec stNow{};
    clock_gettime(CLOCK_MONOTONIC, &stNow);
    return static_cast<u64>(stNow.tv_sec) * 1000000000ull + static_cast<u64>(stNow.tv_nsec);
#endif
}

// Nanoseconds per tick of MOD_StatTicks, measured once, for the reports.
double MOD_StatNsPerTick();

// The module's thread: one handler run of ullTicks.
inline void MOD_StatHandlerRun(MOD_SLOT_STAT_S &stStat, u64 ullTicks)
{
    if constexpr (MOD_STATS_ON) {
        // Bucket b holds runs under 2^b ticks: the bit length of the count.
        u32 ulBucket = ullTicks == 0 ? 0 : 64 - static_cast<u32>(__builtin_clzll(ullTicks));
        if (ulBucket >= MOD_HIST_BUCKETS)
            ulBucket = MOD_HIST_BUCKETS - 1;
        MOD_StatInc(&stStat.aulHist[ulBucket]);
        if (ullTicks > __atomic_load_n(&stStat.ullMaxTicks, __ATOMIC_RELAXED))
            __atomic_store_n(&stStat.ullMaxTicks, ullTicks, __ATOMIC_RELAXED);
    }
}
