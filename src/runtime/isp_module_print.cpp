// The state of the runtime as text: the registered modules with their
// counters, the module table and the process table. They are display
// functions of the command service and run on its thread.
#include "common/cmd_display.h"
#include "ibp/isp_module.h"
#include "log/log_internal.h"
#include "runtime/module_internal.h"

IBP_LOG_SOURCE("isp_module");

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

}  // extern "C"
