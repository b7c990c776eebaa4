// Storage of the runtime's counters and their snapshots; see mod_stat.h.
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
    for (u32 b = 0; b < MOD_HIST_BUCKETS; b++) {
        ullSeen += aulHist[b];
        if (ullSeen >= ullWant)
            return 1u << b;
    }
    return 1u << (MOD_HIST_BUCKETS - 1);
}

// Zeroes the counters of a slot but its queue depth, which is a state.
void MOD_StatZeroSlot(MOD_SLOT_STAT_S &stStat, u32 ulSentNow)
{
    for (u32 *pul : {&stStat.ulRecv, &stStat.ulHandled, &stStat.ulNoHandler, &stStat.ulRuns, &stStat.ulMaxUs,
                     &stStat.ulRefused, &stStat.ulDrained, &stStat.ulStrayAcks})
        Zero(*pul);
    for (u32 &ul : stStat.aulHist)
        Zero(ul);
    __atomic_store_n(&stStat.ulHigh, Load(stStat.ulDepth), __ATOMIC_RELAXED);
    __atomic_store_n(&stStat.ulSentBase, ulSentNow, __ATOMIC_RELAXED);
}

}  // namespace

MOD_SLOT_STAT_S &MOD_SlotStat(size_t ulSlot) { return gastSlotStat[ulSlot]; }

MOD_PROC_STAT_COUNT_S &MOD_ProcStat() { return gstProcStat; }

void MOD_StatResetSlot(size_t ulSlot, u32 ulSentNow)
{
    Zero(gastSlotStat[ulSlot].ulDepth);
    MOD_StatZeroSlot(gastSlotStat[ulSlot], ulSentNow);
}

void MOD_StatFillModule(const MOD_MODULE_S *pstSlot, size_t ulSlot, IBP_MODULE_STAT_S *pstOut)
{
    const MOD_SLOT_STAT_S &stStat = gastSlotStat[ulSlot];
    memset(pstOut, 0, sizeof(*pstOut));
    memcpy(pstOut->szModuleName, pstSlot->szModuleName, sizeof(pstOut->szModuleName));
    pstOut->szModuleName[sizeof(pstOut->szModuleName) - 1] = '\0';
    pstOut->ulModuleID = pstSlot->ulModuleID;
    pstOut->ulRecvMsgs = Load(stStat.ulRecv);
    pstOut->ulHandledMsgs = Load(stStat.ulHandled);
    pstOut->ulSentMsgs = __atomic_load_n(&pstSlot->ulSendMsgCount, __ATOMIC_RELAXED) - Load(stStat.ulSentBase);
    pstOut->ulNoHandler = Load(stStat.ulNoHandler);
    pstOut->ulRefused = Load(stStat.ulRefused);
    pstOut->ulDrained = Load(stStat.ulDrained);
    pstOut->ulStrayAcks = Load(stStat.ulStrayAcks);
    pstOut->ulQueueDepth = Load(stStat.ulDepth);
    pstOut->ulQueueHigh = Load(stStat.ulHigh);
    pstOut->ulHandlerRuns = Load(stStat.ulRuns);
    pstOut->ulHandlerP50Us = MOD_HistPercentile(stStat, 500);
    pstOut->ulHandlerP99Us = MOD_HistPercentile(stStat, 990);
    pstOut->ulHandlerMaxUs = Load(stStat.ulMaxUs);
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

void MOD_StatClearAll(const u32 (&aulSentNow)[MOD_MAX_MODULE_NUM])
{
    for (size_t i = 0; i < gastSlotStat.size(); i++)
        MOD_StatZeroSlot(gastSlotStat[i], aulSentNow[i]);
    MOD_StatResetProc();
}

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
