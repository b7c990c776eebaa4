// The tap of a message monitor; see mod_tap.h.
//
// The ring is the bounded queue of many producers with a sequence number per
// cell: a producer claims a position with one compare-and-swap and publishes
// the cell by its sequence number, so producers never wait for each other or
// for the reader. The one reader is the thread that answers the monitor.
#include <sys/time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "ibp/isp_module.h"
#include "ibp/isp_stat.h"
#include "ibp/isp_system.h"
#include "runtime/mod_stat.h"
#include "runtime/mod_tap.h"
#include "runtime/module_internal.h"
#include "runtime/proc_internal.h"

bool gbTapOn;

namespace {

constexpr u32 kRingCells = 1024;  // a power of two

struct MOD_TAP_EVENT_S {
    u64 ullUs;  // wall clock, microseconds
    MSG_HDR_S stHdr;
};

struct MOD_TAP_CELL_S {
    u32 ulSeq;
    MOD_TAP_EVENT_S stEvent;
};

struct MOD_TAP_RING_S {
    u32 ulEnqueue;
    u32 ulDequeue;  // the reader's alone
    MOD_TAP_CELL_S astCell[kRingCells];
};

// Made at the first lease and kept: a monitor comes back.
MOD_TAP_RING_S *gpstRing;
u64 gullLeaseEnd;  // monotonic ms; 0 without a lease
u32 gulFilterModule;
u32 gulFilterProc;
u32 gulLost;

u64 MOD_NowMs()
{
    u64 ullNow = 0;
    ISP_GetMonotonicTime(&ullNow);
    return ullNow;
}

bool MOD_TapWants(const MSG_HDR_S &stHdr)
{
    // The monitor's own requests and answers would only show themselves.
    if (stHdr.ulMsgID == IBP_MONITOR_MSG_ID &&
        (stHdr.ulDstModuleID == MOD_ID_ISP_CMD || stHdr.ulSrcModuleID == MOD_ID_ISP_CMD))
        return false;
    const u32 ulModule = __atomic_load_n(&gulFilterModule, __ATOMIC_RELAXED);
    const u32 ulProc = __atomic_load_n(&gulFilterProc, __ATOMIC_RELAXED);
    if (ulModule == 0 && ulProc == 0)
        return true;
    return (stHdr.ulSrcModuleID == ulModule && stHdr.ulSrcProcID == ulProc) ||
           (stHdr.ulDstModuleID == ulModule && stHdr.ulDstProcID == ulProc);
}

bool MOD_RingPut(MOD_TAP_RING_S *pstRing, const MOD_TAP_EVENT_S &stEvent)
{
    u32 ulPos = __atomic_load_n(&pstRing->ulEnqueue, __ATOMIC_RELAXED);
    for (;;) {
        MOD_TAP_CELL_S &stCell = pstRing->astCell[ulPos & (kRingCells - 1)];
        const s32 lDiff = static_cast<s32>(__atomic_load_n(&stCell.ulSeq, __ATOMIC_ACQUIRE) - ulPos);
        if (lDiff < 0)
            return false;  // full
        if (lDiff == 0 && __atomic_compare_exchange_n(&pstRing->ulEnqueue, &ulPos, ulPos + 1, true,
                                                      __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
            stCell.stEvent = stEvent;
            __atomic_store_n(&stCell.ulSeq, ulPos + 1, __ATOMIC_RELEASE);
            return true;
        }
        if (lDiff > 0)
            ulPos = __atomic_load_n(&pstRing->ulEnqueue, __ATOMIC_RELAXED);
    }
}

bool MOD_RingTake(MOD_TAP_RING_S *pstRing, MOD_TAP_EVENT_S *pstEvent)
{
    const u32 ulPos = pstRing->ulDequeue;
    MOD_TAP_CELL_S &stCell = pstRing->astCell[ulPos & (kRingCells - 1)];
    if (__atomic_load_n(&stCell.ulSeq, __ATOMIC_ACQUIRE) != ulPos + 1)
        return false;
    *pstEvent = stCell.stEvent;
    pstRing->ulDequeue = ulPos + 1;
    __atomic_store_n(&stCell.ulSeq, ulPos + kRingCells, __ATOMIC_RELEASE);
    return true;
}

// The reader's: what the ring holds is thrown away, and its loss with it.
void MOD_RingDrain(MOD_TAP_RING_S *pstRing)
{
    MOD_TAP_EVENT_S stEvent;
    while (MOD_RingTake(pstRing, &stEvent)) {
    }
    __atomic_store_n(&gulLost, 0u, __ATOMIC_RELAXED);
}

MOD_TAP_RING_S *MOD_MakeRing()
{
    auto *pstRing = static_cast<MOD_TAP_RING_S *>(calloc(1, sizeof(MOD_TAP_RING_S)));
    if (pstRing == nullptr)
        return nullptr;
    for (u32 i = 0; i < kRingCells; i++)
        pstRing->astCell[i].ulSeq = i;
    return pstRing;
}

// The name of module ulModuleID of process ulProcID, from the table.
const char *MOD_NameOf(u32 ulModuleID, u32 ulProcID, char (&acHex)[16])
{
    for (const MOD_MODULE_CFG_S &stRow : gastModuleCfgInfo) {
        if (stRow.ulModuleID == ulModuleID && stRow.ulProcID == ulProcID)
            return stRow.szModuleName;
    }
    snprintf(acHex, sizeof(acHex), "%#x", ulModuleID);
    return acHex;
}

const char *MOD_TypeName(u32 enType)
{
    static constexpr const char *kNames[] = {"sync", "ack", "async", "async-ack", "type-4", "invalid"};
    return enType < sizeof(kNames) / sizeof(kNames[0]) ? kNames[enType] : "invalid";
}

// One line: "12:03:07.123456 DT -> ISP_IMG sync id=0x3002 len=32".
int MOD_FormatEvent(const MOD_TAP_EVENT_S &stEvent, char *pcOut, size_t ulCap)
{
    const time_t tSec = static_cast<time_t>(stEvent.ullUs / 1000000);
    struct tm stTm {};
    localtime_r(&tSec, &stTm);
    char acSrc[16];
    char acDst[16];
    const MSG_HDR_S &stHdr = stEvent.stHdr;
    return snprintf(pcOut, ulCap, "%02d:%02d:%02d.%06u %s -> %s %s id=%#x len=%u\n", stTm.tm_hour, stTm.tm_min,
                    stTm.tm_sec, static_cast<unsigned>(stEvent.ullUs % 1000000),
                    MOD_NameOf(stHdr.ulSrcModuleID, stHdr.ulSrcProcID, acSrc),
                    MOD_NameOf(stHdr.ulDstModuleID, stHdr.ulDstProcID, acDst), MOD_TypeName(stHdr.enMsgType),
                    stHdr.ulMsgID, stHdr.ulMsgBodyLen);
}

}  // namespace

void MOD_TapRecord(const MSG_HDR_S &stHdr)
{
    MOD_TAP_RING_S *pstRing = __atomic_load_n(&gpstRing, __ATOMIC_ACQUIRE);
    if (pstRing == nullptr || !MOD_TapWants(stHdr))
        return;
    timespec stNow{};
    clock_gettime(CLOCK_REALTIME, &stNow);
    const MOD_TAP_EVENT_S stEvent{static_cast<u64>(stNow.tv_sec) * 1000000ull + static_cast<u64>(stNow.tv_nsec) / 1000,
                                  stHdr};
    if (MOD_RingPut(pstRing, stEvent)) {
        MOD_StatAdd(&MOD_ProcStat().ulMonitorShown);
        return;
    }
    __atomic_fetch_add(&gulLost, 1u, __ATOMIC_RELAXED);
    MOD_StatAdd(&MOD_ProcStat().ulMonitorLost);
}

bool MOD_TapLease(u32 ulModuleID, u32 ulProcID, u32 ulLeaseMs)
{
    if (__atomic_load_n(&gpstRing, __ATOMIC_ACQUIRE) == nullptr) {
        MOD_TAP_RING_S *pstRing = MOD_MakeRing();
        if (pstRing == nullptr)
            return false;
        __atomic_store_n(&gpstRing, pstRing, __ATOMIC_RELEASE);
    }
    const bool bWasOn = __atomic_load_n(&gbTapOn, __ATOMIC_RELAXED);
    // A monitor that comes after the tap went off, or that looks at another
    // module, must not be shown what was recorded for the one before it.
    if (!bWasOn || __atomic_load_n(&gulFilterModule, __ATOMIC_RELAXED) != ulModuleID ||
        __atomic_load_n(&gulFilterProc, __ATOMIC_RELAXED) != ulProcID)
        MOD_RingDrain(__atomic_load_n(&gpstRing, __ATOMIC_ACQUIRE));
    __atomic_store_n(&gulFilterModule, ulModuleID, __ATOMIC_RELAXED);
    __atomic_store_n(&gulFilterProc, ulProcID, __ATOMIC_RELAXED);
    __atomic_store_n(&gullLeaseEnd, MOD_NowMs() + ulLeaseMs, __ATOMIC_RELAXED);
    __atomic_store_n(&gbTapOn, true, __ATOMIC_RELEASE);
    if (!bWasOn)
        MOD_WakeProcThread();  // its timer now has a lease to end
    return true;
}

u32 MOD_TapTake(char *pcOut, u32 ulCap, u32 *pulLost)
{
    *pulLost = __atomic_exchange_n(&gulLost, 0u, __ATOMIC_RELAXED);
    MOD_TAP_RING_S *pstRing = __atomic_load_n(&gpstRing, __ATOMIC_ACQUIRE);
    u32 ulLen = 0;
    u32 ulTaken = 0;
    pcOut[0] = '\0';
    MOD_TAP_EVENT_S stEvent;
    char acLine[256];
    // A line is taken out of the ring only when it fits.
    while (pstRing != nullptr && ulCap - ulLen > sizeof(acLine) && MOD_RingTake(pstRing, &stEvent)) {
        int lLen = MOD_FormatEvent(stEvent, acLine, sizeof(acLine));
        if (lLen <= 0)
            continue;
        memcpy(pcOut + ulLen, acLine, static_cast<size_t>(lLen) + 1);
        ulLen += static_cast<u32>(lLen);
        ulTaken++;
    }
    return ulTaken;
}

int MOD_TapExpire()
{
    if (!__atomic_load_n(&gbTapOn, __ATOMIC_RELAXED))
        return -1;
    const u64 ullEnd = __atomic_load_n(&gullLeaseEnd, __ATOMIC_RELAXED);
    const u64 ullNow = MOD_NowMs();
    if (ullNow < ullEnd)
        return static_cast<int>(ullEnd - ullNow);
    __atomic_store_n(&gbTapOn, false, __ATOMIC_RELAXED);
    // A renewal that came meanwhile keeps the tap on.
    const u64 ullNewEnd = __atomic_load_n(&gullLeaseEnd, __ATOMIC_RELAXED);
    if (ullNewEnd > ullNow) {
        __atomic_store_n(&gbTapOn, true, __ATOMIC_RELEASE);
        return static_cast<int>(ullNewEnd - ullNow);
    }
    return -1;
}
