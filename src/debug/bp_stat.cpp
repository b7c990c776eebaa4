// The statistics' debug commands, "isp stat ...", and the service that a
// message monitor ("ibp-dt --monitor") talks to: a request of
// IBP_MONITOR_MSG_ID to "ISP_CMD", answered with an ack to the request's own
// address and port. A service registers them with
// IBP_RegStatCmd after IBP_Init; they stand beside "bp", whose tree is the
// library's own and stays as it is.
#include <array>
#include <cstring>

#include "ibp/isp_cmd.h"
#include "ibp/isp_module.h"
#include "ibp/isp_rawmsg.h"
#include "ibp/isp_sendmsg.h"
#include "ibp/isp_stat.h"
#include "ibp/isp_system.h"
#include "log/log_internal.h"
#include "runtime/mod_tap.h"
#include "runtime/module_internal.h"

IBP_LOG_SOURCE("bp_debug");

namespace {

struct BP_STAT_CMD_S {
    CMD_PROC_PFN pfnCmdProc;
    const char *pcTitle;
    const char *pcHelp;
};

constexpr std::array<BP_STAT_CMD_S, 3> kStatCmds = {{
    {MOD_PrintModuleStat, "module", "display statistics of the modules"},
    {MOD_PrintProcStat, "proc", "display statistics of the process"},
    {MOD_ClearStatCmd, "clear", "set the statistics back to 0"},
}};

// Room for the answer of one request: what a message body holds.
constexpr u32 kMonitorAnswerLen = 8000;

// The filter of a request: a module name, or none for every message.
bool BP_MonitorFilter(const char *pcName, u32 *pulModuleID, u32 *pulProcID)
{
    *pulModuleID = 0;
    *pulProcID = 0;
    if (pcName[0] == '\0')
        return true;
    const MOD_MODULE_CFG_S *pstRow = MOD_GetModuleCfgByName(pcName);
    if (pstRow == nullptr)
        return false;
    *pulModuleID = pstRow->ulModuleID;
    *pulProcID = pstRow->ulProcID;
    return true;
}

// The answer goes back to where the request came from, not to the port of
// the debug tool's row: a monitor is a client of its own, beside the debug
// tool and ibp-ping, which hold that port.
void BP_Answer(MSG_HANDLE hReq, const char *pcText, u32 ulLen)
{
    MSG_HANDLE hAck = MSG_Create(pcText, ulLen);
    if (hAck == nullptr) {
        IBP_ERR("MSG_Create fail");
        return;
    }
    const auto *pstReq = static_cast<const MSG_HDR_S *>(hReq->pMem);
    auto *pstAck = static_cast<MSG_HDR_S *>(hAck->pMem);
    *pstAck = *pstReq;
    pstAck->enMsgType = MSG_TYPE_SYNC_ACK;
    pstAck->ulMsgLen = hAck->ulLen;
    pstAck->ulMsgBodyLen = ulLen;
    pstAck->ulSrcModuleID = pstReq->ulDstModuleID;
    pstAck->ulSrcProcID = pstReq->ulDstProcID;
    pstAck->ulDstModuleID = pstReq->ulSrcModuleID;
    pstAck->ulDstProcID = pstReq->ulSrcProcID;
    MOD_SendToSender(hAck);
}

// A monitor's request: renews its lease and takes what the tap recorded.
u32 BP_MonitorProc(u32, MSG_HANDLE hReq, void *)
{
    void *pBody = nullptr;
    u32 ulLen = 0;
    if (MSG_Decode(hReq, &pBody, &ulLen) != 0)
        return 1;
    char acName[MOD_NAME_LEN] = {};
    memcpy(acName, pBody, ulLen < sizeof(acName) - 1 ? ulLen : sizeof(acName) - 1);
    static char acAnswer[kMonitorAnswerLen];  // the thread of "ISP_CMD" alone answers
    u32 ulModuleID = 0;
    u32 ulProcID = 0;
    if (!BP_MonitorFilter(acName, &ulModuleID, &ulProcID)) {
        int lLen = snprintf(acAnswer, sizeof(acAnswer), "monitor-error no module %s\n", acName);
        BP_Answer(hReq, acAnswer, static_cast<u32>(lLen));
        return 1;
    }
    if (!MOD_TapLease(ulModuleID, ulProcID, IBP_MONITOR_LEASE_MS)) {
        IBP_ERR("monitor ring alloc fail");
        BP_Answer(hReq, "monitor-error out of memory\n", 28);
        return 1;
    }
    u32 ulLost = 0;
    int lHead = snprintf(acAnswer, sizeof(acAnswer), "monitor ");
    char acLines[kMonitorAnswerLen - 32];
    (void)MOD_TapTake(acLines, sizeof(acLines), &ulLost);
    lHead += snprintf(acAnswer + lHead, sizeof(acAnswer) - static_cast<size_t>(lHead), "%u\n%s", ulLost, acLines);
    BP_Answer(hReq, acAnswer, static_cast<u32>(lHead));
    return 0;
}

}  // namespace

extern "C" {

IBP_API u32 IBP_RegStatCmd(void)
{
    std::array<CMD_ELEMENT_S, 3> astElem{};
    CMD_SetCmdElement(&astElem[0], CMD_PARAM_TITLE, "stat", "statistics of the runtime");
    for (const BP_STAT_CMD_S &stCmd : kStatCmds) {
        CMD_SetCmdElement(&astElem[1], CMD_PARAM_TITLE, stCmd.pcTitle, stCmd.pcHelp);
        if (CMD_RegDisplayCmd(stCmd.pfnCmdProc, astElem.data(), 2) != 0) {
            IBP_ERR("%s fail! retval=%d.", "CMD_RegDisplayCmd fail", 1);
            return 1;
        }
    }
    if (MOD_RegMsgProc(MOD_ID_ISP_CMD, IBP_MONITOR_MSG_ID, BP_MonitorProc, nullptr) != 0) {
        IBP_ERR("register monitor service fail");
        return 1;
    }
    return 0;
}

}  // extern "C"
