// Storage of the runtime's counters and their snapshots; see mod_stat.h.
#include <algorithm>
#include <array>
#include <cstring>

#include "runtime/mod_stat.h"
#include "runtime/module_internal.h"

namespace {

std::array<MOD_SLOT_STAT_S, MOD_MAX_MODULE_NUM> gastSlotStat;
MOD_PROC_STAT_COUNT_S gstProcStat;

u32 Load(const u32 &ref) { return __atomic_load_n(&ref, __ATOMIC_RELAXED); }
u64 Load(const u64 &ref) { return __atomic_load_n(&ref, __ATOMIC_RELAXED); }
void Zero(u32 &ref) { __atomic_store_n(&ref, 0u, __ATOMIC_RELAXED); }
void Zero(u64 &ref) { __atomic_store_n(&ref, 0ull, __ATOMIC_RELAXED); }

// Microseconds of ullTicks, rounded up, at most what a u32 holds.
u32 MOD_TicksToUs(u64 ullTicks)
{
    const double dUs = static_cast<double>(ullTicks) * MOD_StatNsPerTick() / 1000.0;
    return dUs >= 4294967295.0 ? 0xffffffffu : static_cast<u32>(dUs + 0.999);
}

// The upper bound, in microseconds, of the bucket where the share ulPermille
// of the runs is reached; 0 without runs.
u32 MOD_HistPercentile(const MOD_SLOT_STAT_S &stStat, u32 ulPermille)
{
    std::array<u32, MOD_HIST_BUCKETS> aulHist{};
    u64 ullRuns = 0;
    for (u32 b = 0; b < MOD_HIST_BUCKETS; b++)
        ullRuns += (aulHist[b] = Load(stStat.aulHist[b]));
    if (ullRuns == 0)
        return 0;
    const u64 ullWant = (ullRuns * ulPermille + 999) / 1000;
    u64 ullSeen = 0;
    u32 b = 0;
    for (; b + 1 < MOD_HIST_BUCKETS; b++) {
        ullSeen += aulHist[b];
        if (ullSeen >= ullWant)
            break;
    }
    return MOD_TicksToUs(1ull << b);
}

// Bits of the measured nanoseconds per tick; 0 until measured.
u64 gullNsPerTickBits;

// Zeroes the counters of a slot but its queue depth, which is a state.
void MOD_StatZeroSlot(MOD_SLOT_STAT_S &stStat, u32 ulSentNow)
{
    // What waits now stays counted as received, so that the depth holds.
    const u32 ulDepth = Load(stStat.ulRecv) - Load(stStat.ulTaken);
    for (u32 *pul : {&stStat.ulNoHandler, &stStat.ulRefused, &stStat.ulDrained, &stStat.ulStrayAcks})
        Zero(*pul);
    __atomic_store_n(&stStat.ulRecv, ulDepth, __ATOMIC_RELAXED);
    Zero(stStat.ulTaken);
    Zero(stStat.ullMaxTicks);
    for (u32 &ul : stStat.aulHist)
        Zero(ul);
    __atomic_store_n(&stStat.ulHigh, ulDepth, __ATOMIC_RELAXED);
    __atomic_store_n(&stStat.ulSentBase, ulSentNow, __ATOMIC_RELAXED);
}

}  // namespace

MOD_SLOT_STAT_S &MOD_SlotStat(size_t ulSlot) { return gastSlotStat[ulSlot]; }

// Ticks against the monotonic clock over a fifth of a millisecond, once: a
// report is rare, and the ratio of the counter does not change.
double MOD_StatNsPerTick()
{
    u64 ullBits = __atomic_load_n(&gullNsPerTickBits, __ATOMIC_RELAXED);
    double dRatio = 0;
    if (ullBits != 0) {
        memcpy(&dRatio, &ullBits, sizeof(dRatio));
        return dRatio;
    }
    const auto NowNs = [] {
        timespec stNow{};
        clock_gettime(CLOCK_MONOTONIC, &stNow);
        return static_cast<u64>(stNow.tv_sec) * 1000000000ull + static_cast<u64>(stNow.tv_nsec);
    };
    const u64 ullNs0 = NowNs(), ullTicks0 = MOD_StatTicks();
    u64 ullNs = ullNs0;
    while (ullNs - ullNs0 < 200000)
        ullNs = NowNs();
    const u64 ullTicks = MOD_StatTicks() - ullTicks0;
    dRatio = ullTicks == 0 ? 1.0 : static_cast<double>(ullNs - ullNs0) / static_cast<double>(ullTicks);
    memcpy(&ullBits, &dRatio, sizeof(ullBits));
    __atomic_store_n(&gullNsPerTickBits, ullBits, __ATOMIC_RELAXED);
    return dRatio;
}

MOD_PROC_STAT_COUNT_S &MOD_ProcStat() { return gstProcStat; }

void MOD_StatResetSlot(size_t ulSlot, u32 ulSentNow)
{
    Zero(gastSlotStat[ulSlot].ulRecv);
    Zero(gastSlotStat[ulSlot].ulTaken);
    MOD_StatZeroSlot(gastSlotStat[ulSlot], ulSentNow);
}

void MOD_StatFillModule(const MOD_MODULE_S *pstSlot, size_t ulSlot, IBP_MODULE_STAT_S *pstOut)
{
    const MOD_SLOT_STAT_S &stStat = gastSlotStat[ulSlot];
    memset(pstOut, 0, sizeof(*pstOut));
    memcpy(pstOut->szModuleName, pstSlot->szModuleName, sizeof(pstOut->szModuleName));
    pstOut->szModuleName[sizeof(pstOut->szModuleName) - 1] = '\0';
    pstOut->ulModuleID = pstSlot->ulModuleID;
    u32 ulHandled = 0;
    for (const u32 &ulBucket : stStat.aulHist)
        ulHandled += Load(ulBucket);
    pstOut->ulRecvMsgs = Load(stStat.ulRecv);
    pstOut->ulHandledMsgs = ulHandled;
    pstOut->ulSentMsgs = __atomic_load_n(&pstSlot->ulSendMsgCount, __ATOMIC_RELAXED) - Load(stStat.ulSentBase);
    pstOut->ulNoHandler = Load(stStat.ulNoHandler);
    pstOut->ulRefused = Load(stStat.ulRefused);
    pstOut->ulDrained = Load(stStat.ulDrained);
    pstOut->ulStrayAcks = Load(stStat.ulStrayAcks);
    pstOut->ulQueueDepth = pstOut->ulRecvMsgs - Load(stStat.ulTaken);
    // A queue that keeps growing while its thread is busy has not been taken yet.
    pstOut->ulQueueHigh = std::max(Load(stStat.ulHigh), pstOut->ulQueueDepth);
    pstOut->ulHandlerRuns = ulHandled;
    pstOut->ulHandlerP50Us = MOD_HistPercentile(stStat, 500);
    pstOut->ulHandlerP99Us = MOD_HistPercentile(stStat, 990);
    pstOut->ulHandlerMaxUs = MOD_TicksToUs(Load(stStat.ullMaxTicks));
}

void MOD_StatFillProc(IBP_PROC_STAT_S *pstOut)
{
    const MOD_PROC_STAT_COUNT_S &st = gstProcStat;
    memset(pstOut, 0, sizeof(*pstOut));
    pstOut->ulDatagramsIn = Load(st.ulDatagramsIn);
    pstOut->ulDatagramsOut = Load(st.ulDatagramsOut);
    pstOut->ullBytesIn = Load(st.ullBytesIn);
    pstOut->ullBytesOut = Load(st.ullBytesOut);
    pstOut->ulSendFailures = Load(st.ulSendFailures);
    pstOut->ulKernelDrops = Load(st.ulKernelDrops);
    for (u32 i = 0; i < IBP_BAD_KIND_NUM; i++)
        pstOut->aulBadInput[i] = Load(st.aulBadInput[i]);
    pstOut->ulStrayAcks = Load(st.ulStrayAcks);
    pstOut->ulSyncWaiting = Load(st.ulSyncWaiting);
    pstOut->ulSyncTimedOut = Load(st.ulSyncTimedOut);
    pstOut->ulSyncFailed = Load(st.ulSyncFailed);
    pstOut->ulMonitorShown = Load(st.ulMonitorShown);
    pstOut->ulMonitorLost = Load(st.ulMonitorLost);
}

void MOD_StatClearSlot(size_t ulSlot, u32 ulSentNow) { MOD_StatZeroSlot(gastSlotStat[ulSlot], ulSentNow); }

void MOD_StatResetProc()
{
    MOD_PROC_STAT_COUNT_S &st = gstProcStat;
    for (u32 *pul : {&st.ulDatagramsIn, &st.ulKernelDrops, &st.ulDatagramsOut, &st.ulSendFailures, &st.ulStrayAcks,
                     &st.ulSyncTimedOut, &st.ulSyncFailed, &st.ulMonitorShown, &st.ulMonitorLost})
        Zero(*pul);
    for (u32 &ul : st.aulBadInput)
        Zero(ul);
    Zero(st.ullBytesIn);
    Zero(st.ullBytesOut);
}
