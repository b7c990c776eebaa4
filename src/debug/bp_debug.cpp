// The debug commands that the library registers in the service process, all
// under the word "bp", and the one among them that acts instead of showing.
#include "ibp/bp_debug.h"

#include <array>

#include "ibp/isp_circbuf.h"
#include "ibp/isp_cmd.h"
#include "ibp/isp_log.h"
#include "ibp/isp_module.h"
#include "ibp/isp_socket.h"
#include "ibp/isp_system.h"
#include "log/log_internal.h"

IBP_LOG_SOURCE("bp_debug");

namespace {

struct BP_ELEM_S {
    u32 enParamType;
    const char *pcTitle;
    const char *pcHelp;
};

// One command: its elements behind "bp" and the function that serves it.
struct BP_DEBUG_CMD_S {
    CMD_PROC_PFN pfnCmdProc;
    u32 ulElemNum;  // "bp" included
    std::array<BP_ELEM_S, 3> astElem;
};

constexpr u32 T = CMD_PARAM_TITLE;
constexpr u32 S = CMD_PARAM_STRING;
constexpr u32 I = CMD_PARAM_INTEGER;

// In the order of registration; the tree sorts them. The help of "module"
// is a fixed list of words, not the log's table: "ITF" in it has no module
// and is answered "operate fail".
constexpr std::array<BP_DEBUG_CMD_S, 6> kBaseCmds = {{
    {MOD_PrintProcCfg, 3, {{{T, "proc", "proc"}, {T, "cfg", "display proc cfg"}}}},
    {MOD_PrintModule, 3, {{{T, "module", "module"}, {T, "info", "display module info"}}}},
    {MOD_PrintModuleCfg, 3, {{{T, "module", "module"}, {T, "cfg", "display module cfg"}}}},
    {SKT_PrintSock, 2, {{{T, "socket", "display socket info"}}}},
    {CBUF_PrintCircBuf, 3, {{{T, "cbuf", "cbuf"}, {T, "info", "display cbuf info"}}}},
    {IBP_SetLoglevel,
     4,
     {{{T, "log", "log level"},
       {S, "module", "BP/ITF/AE/AWB/ADN/LED/AF/AF_CALI/AF_TEST/IMG/CLI/WP"},
       {I, "level", "0-debug, 1-info, 2-warn, 3-error"}}}},
}};

}  // namespace

extern "C" {

IBP_API u32 IBP_RegDebugCmd(void)
{
    // Element 0 once; from one row to the next only the elements of the row
    // are filled again: CMD_RegDisplayCmd reads none beyond the count.
    std::array<CMD_ELEMENT_S, CMD_MAX_ELEM_NUM> astElem{};
    CMD_SetCmdElement(&astElem[0], CMD_PARAM_TITLE, "bp", "bp");
    for (const BP_DEBUG_CMD_S &stCmd : kBaseCmds) {
        for (u32 i = 1; i < stCmd.ulElemNum; i++) {
            const BP_ELEM_S &stElem = stCmd.astElem[i - 1];
            CMD_SetCmdElement(&astElem[i], stElem.enParamType, stElem.pcTitle, stElem.pcHelp);
        }
        u32 ulRet = CMD_RegDisplayCmd(stCmd.pfnCmdProc, astElem.data(), stCmd.ulElemNum);
        if (ulRet != 0) {
            IBP_ERR("%s fail! retval=%d.", "CMD_RegDisplayCmd fail", static_cast<int>(ulRet));
            return ulRet;
        }
    }
    return 0;
}

IBP_API u32 IBP_SetLoglevel(u32 *pulOutBufLen, char *pcOutBuf)
{
    (void)pcOutBuf;  // the answer is "operate success" or "operate fail"
    if (pulOutBufLen == nullptr) {
        IBP_ERR("pulOutBufLen is NULL");
        return 1;
    }
    *pulOutBufLen = 0;
    char *pcModule = nullptr;
    char *pcLevel = nullptr;
    (void)CMD_GetParamInfoFromMsg(1, nullptr, &pcModule);
    (void)CMD_GetParamInfoFromMsg(2, nullptr, &pcLevel);
    // "-1" passes the command line as an integer and is refused here as the
    // largest level of all.
    return IBP_LOG_SetLevelByName(pcModule, static_cast<u32>(ISP_atol(pcLevel)));
}

}  // extern "C"
