// Rate limits for records caused by input from outside; see mod_ratelimit.h.
#include "runtime/mod_ratelimit.h"

#include <pthread.h>

#include <array>

#include "ibp/isp_system.h"
#include "log/log_internal.h"
#include "runtime/mod_stat.h"
#include "runtime/module_internal.h"
#include "runtime/proc_internal.h"

IBP_LOG_SOURCE("isp_module");

namespace {

constexpr u64 kWindowMs = 1000;

struct MOD_RATE_CFG_S {
    u32 ulBurst;     // records of a window written one by one, its count included
    u32 ulLevel;     // of the count record, the level of the kind's own records
    const char *pcWhat;
};

// Bad input keeps the first few records of each second, enough to see what
// came and from whom; a stray ack only ever needs its one record a second.
constexpr std::array<MOD_RATE_CFG_S, static_cast<size_t>(MOD_RATE_KIND_E::NUM)> kRateCfg = {{
    {5, LOG_LEVEL_ERR, "msg header check failed"},
    {5, LOG_LEVEL_ERR, "msg len never fits the receive buffer"},
    {5, LOG_LEVEL_ERR, "module not found by dest module id"},
    {5, LOG_LEVEL_ERR, "circ buffer write fail"},
    {5, LOG_LEVEL_WRN, "drop bytes of an unfinished msg"},
    {1, LOG_LEVEL_WRN, "sync ack that no thread waits for dropped"},
    {1, LOG_LEVEL_WRN, "sync ack from another address than its proc dropped"},
    {1, LOG_LEVEL_WRN, "socket buffer full, datagrams dropped by the kernel"},
}};

// Where each kind is counted for the statistics; null: counted elsewhere.
u32 *MOD_RateCounter(size_t i)
{
    MOD_PROC_STAT_COUNT_S &st = MOD_ProcStat();
    switch (static_cast<MOD_RATE_KIND_E>(i)) {
        case MOD_RATE_KIND_E::BAD_HDR:
            return &st.aulBadInput[IBP_BAD_HEADER];
        case MOD_RATE_KIND_E::LONG_MSG:
            return &st.aulBadInput[IBP_BAD_LENGTH];
        case MOD_RATE_KIND_E::NO_DEST:
            return &st.aulBadInput[IBP_BAD_NO_DEST];
        case MOD_RATE_KIND_E::BUF_FULL:
            return &st.aulBadInput[IBP_BAD_BUF_FULL];
        case MOD_RATE_KIND_E::UNFINISHED:
            return &st.aulBadInput[IBP_BAD_UNFINISHED];
        case MOD_RATE_KIND_E::STRAY_ACK:
            return &st.ulStrayAcks;
        case MOD_RATE_KIND_E::FOREIGN_ACK:
            return &st.aulBadInput[IBP_BAD_FOREIGN_ACK];
        default:
            return nullptr;  // kernel drops have a counter of their own
    }
}

void MOD_RateCount(size_t i, u32 ulNum)
{
    if (u32 *pulCounter = MOD_RateCounter(i))
        MOD_StatAdd(pulCounter, ulNum);
}

struct MOD_RATE_S {
    u64 ullStart;     // start of the window in ms, 0 when the kind is quiet
    u32 ulWritten;    // records written in this window
    u32 ulLeftOut;    // events of this window whose records were left out
};

std::array<MOD_RATE_S, static_cast<size_t>(MOD_RATE_KIND_E::NUM)> gastRate;
pthread_mutex_t gstRateLock = PTHREAD_MUTEX_INITIALIZER;

u64 NowMs()
{
    u64 ullNow = 0;
    ISP_GetMonotonicTime(&ullNow);
    return ullNow + 1;  // never 0, which marks a quiet kind
}

// Ends a window that is over. Returns the count to write, which then opens
// the next window and takes one place of its burst.
u32 MOD_RateRoll(MOD_RATE_S &stRate, u64 ullNow)
{
    if (stRate.ullStart == 0 || ullNow - stRate.ullStart < kWindowMs)
        return 0;
    u32 ulLeftOut = stRate.ulLeftOut;
    stRate.ulLeftOut = 0;
    stRate.ullStart = ulLeftOut != 0 ? ullNow : 0;
    stRate.ulWritten = ulLeftOut != 0 ? 1 : 0;
    return ulLeftOut;
}

void MOD_RateWriteCount(size_t i, u32 ulLeftOut)
{
    IBP_LOGM(LOG_MODULE_BP, kRateCfg[i].ulLevel, "%s: %u more in the last second, left out of the log",
             kRateCfg[i].pcWhat, ulLeftOut);
}

}  // namespace

bool MOD_RateAdmit(MOD_RATE_KIND_E enKind)
{
    const auto i = static_cast<size_t>(enKind);
    MOD_RateCount(i, 1);
    const u64 ullNow = NowMs();
    u32 ulDue = 0;
    bool bAdmit = false;
    bool bFirstLeftOut = false;
    {
        MOD_MutexGuard lock(&gstRateLock);
        MOD_RATE_S &stRate = gastRate[i];
        ulDue = MOD_RateRoll(stRate, ullNow);
        if (stRate.ullStart == 0)
            stRate.ullStart = ullNow;
        if (stRate.ulWritten < kRateCfg[i].ulBurst) {
            stRate.ulWritten++;
            bAdmit = true;
        } else {
            bFirstLeftOut = (stRate.ulLeftOut++ == 0);
        }
    }
    if (ulDue != 0)
        MOD_RateWriteCount(i, ulDue);
    // The process thread sleeps without a tick: tell it that a count now
    // waits for the end of its window.
    if (bFirstLeftOut)
        MOD_WakeProcThread();
    return bAdmit;
}

void MOD_RateLeaveOut(MOD_RATE_KIND_E enKind, u32 ulNum)
{
    if (ulNum == 0)
        return;
    MOD_RateCount(static_cast<size_t>(enKind), ulNum);
    MOD_MutexGuard lock(&gstRateLock);
    // Right after a refusal: the window is still open and a count already
    // waits, so the timer is set.
    gastRate[static_cast<size_t>(enKind)].ulLeftOut += ulNum;
}

int MOD_RateFlush()
{
    const u64 ullNow = NowMs();
    std::array<u32, gastRate.size()> aulDue{};
    u64 ullNext = 0;
    {
        MOD_MutexGuard lock(&gstRateLock);
        for (size_t i = 0; i < gastRate.size(); i++) {
            MOD_RATE_S &stRate = gastRate[i];
            aulDue[i] = MOD_RateRoll(stRate, ullNow);
            if (stRate.ulLeftOut != 0) {
                u64 ullEnd = stRate.ullStart + kWindowMs;
                if (ullNext == 0 || ullEnd < ullNext)
                    ullNext = ullEnd;
            }
        }
    }
    for (size_t i = 0; i < aulDue.size(); i++) {
        if (aulDue[i] != 0)
            MOD_RateWriteCount(i, aulDue[i]);
    }
    if (ullNext == 0)
        return -1;
    return ullNext > ullNow ? static_cast<int>(ullNext - ullNow) : 0;
}

void MOD_RateReset()
{
    std::array<u32, gastRate.size()> aulDue{};
    {
        MOD_MutexGuard lock(&gstRateLock);
        for (size_t i = 0; i < gastRate.size(); i++)
            aulDue[i] = gastRate[i].ulLeftOut;
        gastRate = {};
    }
    for (size_t i = 0; i < aulDue.size(); i++) {
        if (aulDue[i] != 0)
            MOD_RateWriteCount(i, aulDue[i]);
    }
}
