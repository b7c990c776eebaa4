// The ways of the ibp-dt program on top of the command line: what a person at
// a terminal expects of it every day. ibp-dt turns them on with CLI_ToolOn;
// ISP_CLI_Init alone keeps the library's key table and output.
//
// - Text from the service is written with its control characters made
//   visible, so that an answer or a title cannot move the cursor, clear the
//   screen or retitle the window.
// - A service that does not answer is said, with what to do, and the tree is
//   fetched again before the next line: the service may have been away at
//   the start, or come back with other commands.
// - A line that cannot grow rings the bell.
// The keys (erase, delete, Ctrl-D) are taken in isp_cli_edit.cpp, "?" lists
// in isp_cli_interp.cpp, and the switches and the text made visible stand in
// isp_cli_state.cpp. Here too: the lines of ibp-dt -c, which have no terminal.
#include <cstdio>
#include <cstring>

#include "debug/isp_cli_priv.h"
#include "ibp/isp_module.h"
#include "ibp/isp_system.h"

IBP_LOG_SOURCE("isp_cli");

namespace {

// A request went unanswered, or its answer could not be read, since the
// tree came.
bool gbTreeStale = false;

bool CLI_TreeEmpty() { return gpCmdTreeNode == nullptr || gpCmdTreeNode->szTitle[0] == '\0'; }

// Interactive only: ibp-dt -c says it on standard error, naming the line.
void CLI_SayNoAnswer()
{
    if (CLI_IsBatchOutput())
        return;
    const MOD_PROC_CFG_S &stIsp = gastProcCfgInfo[0];
    CLI_Printf("\r\nno answer from ibp-isp on %s:%u within %u ms; check that it runs, then enter the line again\n",
               stIsp.szSocketAddr, static_cast<u32>(stIsp.usSocketPort), CLI_REQ_TIMEOUT_MS);
}

}  // namespace

CLI_RESULT_E CLI_ToolFetchTree()
{
    const CLI_RESULT_E enResult = CLI_Request(CMD_MSG_GET_TREE, "");
    gbTreeStale = enResult != CLI_RESULT_DONE;
    if (enResult == CLI_RESULT_NO_ANSWER)
        CLI_SayNoAnswer();
    return enResult;
}

CLI_RESULT_E CLI_ToolLine()
{
    if (CLI_TreeEmpty() || gbTreeStale) {
        const bool bKeepLine = CLI_IsKeptLine();
        const CLI_RESULT_E enTree = CLI_ToolFetchTree();
        if (enTree != CLI_RESULT_DONE) {
            CLI_FinishLine(bKeepLine);
            return enTree;
        }
    }
    const CLI_RESULT_E enResult = CLI_ProcessLine();
    if (enResult == CLI_RESULT_NO_ANSWER || enResult == CLI_RESULT_BAD_ANSWER)
        gbTreeStale = true;
    if (enResult == CLI_RESULT_NO_ANSWER)
        CLI_SayNoAnswer();
    return enResult;
}

// ---------------------------------------------------------------- lines without a terminal

void CLI_BatchInit()
{
    CLI_SetBatchOutput(true);
    gulDestModuleID = MOD_ID_ISP_CMD;
    // Nothing is prompted: the carets stand under the line as printed.
    gszSysPrompt[0] = '\0';
    memset(gszLineBuf, 0, sizeof(gszLineBuf));
    CLI_ResetTree();
}

CLI_RESULT_E CLI_BatchLine(const char *pcLine)
{
    CLI_StartBatchLine();
    if (strlen(pcLine) > CLI_LINE_MAX) {
        CLI_ERR("out of max cmd buff");
        return CLI_RESULT_WRONG;
    }
    ISP_snprintf(gszLineBuf, sizeof(gszLineBuf), "%s", pcLine);
    const CLI_RESULT_E enResult = gstCliTool.bOn ? CLI_ToolLine() : CLI_ProcessLine();
    if (gszLineBuf[0] != '\0') {  // kept for editing: show what completion made of it
        CLI_Puts(gszLineBuf);
        gszLineBuf[0] = '\0';
    }
    fflush(stdout);
    return enResult;
}
