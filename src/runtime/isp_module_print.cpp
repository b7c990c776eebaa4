// The state of the runtime as text: the registered modules with their
// counters, the module table and the process table, and the statistics. They
// are display functions of the command service and run on its thread; the
// statistics are also handed out as records.
#include "common/cmd_display.h"
#include "ibp/isp_module.h"
#include "log/log_internal.h"
#include "runtime/mod_stat.h"
#include "runtime/mod_tap.h"
#include "runtime/module_internal.h"

IBP_LOG_SOURCE("isp_module");

namespace {

// Fixed columns, one row per module, for people and for scripts alike.
constexpr const char kStatHead[] = "%-12s %-10s %10s %10s %10s %10s %10s %10s %10s %10s %10s %10s %10s %10s %10s\n";
constexpr const char kStatRow[] = "%-12s %#-10x %10u %10u %10u %10u %10u %10u %10u %10u %10u %10u %10u %10u %10u\n";

void MOD_AppendModuleStat(const MOD_MODULE_S *pstSlot, void *pUser)
{
    IBP_MODULE_STAT_S st;
    MOD_StatFillModule(pstSlot, MOD_SlotIndex(pstSlot), &st);
    static_cast<CmdDisplay *>(pUser)->Append(kStatRow, st.szModuleName, st.ulModuleID, st.ulRecvMsgs,
                                             st.ulHandledMsgs, st.ulSentMsgs, st.ulNoHandler, st.ulRefused,
                                             st.ulDrained, st.ulStrayAcks, st.ulQueueDepth, st.ulQueueHigh,
                                             st.ulHandlerRuns, st.ulHandlerP50Us, st.ulHandlerP99Us,
                                             st.ulHandlerMaxUs);
}

}  // namespace

u32 MOD_PrintModuleStat(u32 *pulOutBufLen, char *pcOutBuf)
{
    CMD_DISPLAY_CHECK_ARGS(pulOutBufLen, pcOutBuf);
    CmdDisplay stOut(pcOutBuf, *pulOutBufLen);
    stOut.Append(kStatHead, "ModuleName", "ModuleID", "Recv", "Handled", "Sent", "NoHandler", "Refused", "Drained",
                 "StrayAck", "Depth", "HighWater", "Runs", "P50us", "P99us", "MaxUs");
    MOD_ForEachInUse(MOD_AppendModuleStat, &stOut);
    *pulOutBufLen = stOut.Length();
    return 0;
}

u32 MOD_PrintProcStat(u32 *pulOutBufLen, char *pcOutBuf)
{
    CMD_DISPLAY_CHECK_ARGS(pulOutBufLen, pcOutBuf);
    IBP_PROC_STAT_S st;
    (void)IBP_GetProcStat(&st);
    CmdDisplay stOut(pcOutBuf, *pulOutBufLen);
    const struct {
        const char *pcName;
        unsigned long long ullValue;
    } astRows[] = {
        {"DatagramsIn", st.ulDatagramsIn},
        {"BytesIn", st.ullBytesIn},
        {"DatagramsOut", st.ulDatagramsOut},
        {"BytesOut", st.ullBytesOut},
        {"SendFailures", st.ulSendFailures},
        {"KernelDrops", st.ulKernelDrops},
        {"BadHeader", st.aulBadInput[IBP_BAD_HEADER]},
        {"BadLength", st.aulBadInput[IBP_BAD_LENGTH]},
        {"NoDestModule", st.aulBadInput[IBP_BAD_NO_DEST]},
        {"RecvBufFull", st.aulBadInput[IBP_BAD_BUF_FULL]},
        {"Unfinished", st.aulBadInput[IBP_BAD_UNFINISHED]},
        {"ForeignAcks", st.aulBadInput[IBP_BAD_FOREIGN_ACK]},
        {"StrayAcks", st.ulStrayAcks},
        {"SyncWaiting", st.ulSyncWaiting},
        {"SyncTimedOut", st.ulSyncTimedOut},
        {"SyncFailed", st.ulSyncFailed},
        {"MonitorTap", st.ulMonitorOn},
        {"MonitorShown", st.ulMonitorShown},
        {"MonitorLost", st.ulMonitorLost},
    };
    for (const auto &stRow : astRows)
        stOut.Append("%-16s %llu\n", stRow.pcName, stRow.ullValue);
    *pulOutBufLen = stOut.Length();
    return 0;
}

u32 MOD_ClearStatCmd(u32 *pulOutBufLen, char *pcOutBuf)
{
    CMD_DISPLAY_CHECK_ARGS(pulOutBufLen, pcOutBuf);
    IBP_ClearStat();
    *pulOutBufLen = 0;  // answered "operate success"
    return 0;
}

extern "C" {

IBP_API u32 MOD_PrintModule(u32 *pulOutBufLen, char *pcOutBuf)
{
    CMD_DISPLAY_CHECK_ARGS(pulOutBufLen, pcOutBuf);
    CmdDisplay stOut(pcOutBuf, *pulOutBufLen);
    stOut.Append("%-12s %-10s %-10s %-12s %-12s %-12s %-12s %-12s \n", "ModuleName", "ModuleID", "ProcID",
                 "AssMsgID", "LastSendMsg", "LastRecvMsg", "SendMsgCount", "RecvMsgCount");
    // Counters are read while senders move them: a row may mix moments.
    MOD_ForEachInUse(
        [](const MOD_MODULE_S *pstModule, void *pUser) {
            static_cast<CmdDisplay *>(pUser)->Append(
                "%-12s %#-10x %#-10x %#-12x %#-12x %#-12x %#-12x %#-12x \n", pstModule->szModuleName,
                pstModule->ulModuleID, pstModule->ulProcID, __atomic_load_n(&pstModule->ulAssMsgID, __ATOMIC_RELAXED),
                __atomic_load_n(&pstModule->ulLastSendMsg, __ATOMIC_RELAXED),
                __atomic_load_n(&pstModule->ulLastRecvMsg, __ATOMIC_RELAXED),
                __atomic_load_n(&pstModule->ulSendMsgCount, __ATOMIC_RELAXED),
                __atomic_load_n(&pstModule->ulRecvMsgCount, __ATOMIC_RELAXED));
        },
        &stOut);
    *pulOutBufLen = stOut.Length();
    return 0;
}

IBP_API u32 MOD_PrintModuleCfg(u32 *pulOutBufLen, char *pcOutBuf)
{
    CMD_DISPLAY_CHECK_ARGS(pulOutBufLen, pcOutBuf);
    CmdDisplay stOut(pcOutBuf, *pulOutBufLen);
    stOut.Append("%-12s %-10s %-10s \n", "ModuleName", "ModuleID", "ProcID");
    for (const MOD_MODULE_CFG_S &stRow : gastModuleCfgInfo)
        stOut.Append("%-12s %#-10x %#-10x \n", stRow.szModuleName, stRow.ulModuleID, stRow.ulProcID);
    *pulOutBufLen = stOut.Length();
    return 0;
}

IBP_API u32 MOD_PrintProcCfg(u32 *pulOutBufLen, char *pcOutBuf)
{
    CMD_DISPLAY_CHECK_ARGS(pulOutBufLen, pcOutBuf);
    CmdDisplay stOut(pcOutBuf, *pulOutBufLen);
    // The first column of this table of processes is headed "ModuleName" too.
    stOut.Append("%-12s %-10s %-10s %-10s \n", "ModuleName", "ProcID", "SocketAddr", "SocketPort");
    for (const MOD_PROC_CFG_S &stRow : gastProcCfgInfo)
        stOut.Append("%-12s %#-10x %-10s %-10hu \n", stRow.szProcName, stRow.ulProcID, stRow.szSocketAddr,
                     stRow.usSocketPort);
    *pulOutBufLen = stOut.Length();
    return 0;
}

IBP_API u32 IBP_GetModuleStat(u32 ulModuleID, IBP_MODULE_STAT_S *pstStat)
{
    if (pstStat == nullptr) {
        IBP_ERR("pstStat is NULL");
        return 1;
    }
    const MOD_MODULE_S *pstSlot = MOD_GetModuleByID(ulModuleID);
    if (pstSlot == nullptr) {
        IBP_ERR("get module by id %#x fail", ulModuleID);
        return 1;
    }
    MOD_StatFillModule(pstSlot, MOD_SlotIndex(pstSlot), pstStat);
    return 0;
}

IBP_API u32 IBP_GetProcStat(IBP_PROC_STAT_S *pstStat)
{
    if (pstStat == nullptr) {
        IBP_ERR("pstStat is NULL");
        return 1;
    }
    MOD_StatFillProc(pstStat);
    pstStat->ulMonitorOn = MOD_TapIsOn() ? 1 : 0;
    return 0;
}

IBP_API void IBP_ClearStat(void)
{
    MOD_ClearSlotStats();
    MOD_StatResetProc();
}

}  // extern "C"
