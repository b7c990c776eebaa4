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
// The keys (erase, delete, Ctrl-D) are taken in isp_cli_edit.cpp, and "?"
// lists in isp_cli_interp.cpp.
#include <cstdio>
#include <cstring>

#include "debug/isp_cli_priv.h"
#include "ibp/isp_module.h"

IBP_LOG_SOURCE("isp_cli");

CLI_TOOL_S gstCliTool = {};

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

// How many continuation bytes a UTF-8 lead byte announces; 0 for any other.
u32 CLI_Utf8Tail(u8 ucByte)
{
    if (ucByte < 0xC2 || ucByte > 0xF4)
        return 0;
    return ucByte >= 0xF0 ? 3 : ucByte >= 0xE0 ? 2 : 1;
}

}  // namespace

void CLI_ToolOn(bool bTermKeys)
{
    gstCliTool.bOn = true;
    gstCliTool.bTermKeys = bTermKeys;
}

std::string CLI_ServiceText(const char *pcText)
{
    if (!gstCliTool.bOn)
        return pcText;
    std::string sOut;
    u32 ulTail = 0;  // continuation bytes still due to a UTF-8 sequence
    for (const char *pc = pcText; *pc != '\0'; pc++) {
        const u8 ucByte = static_cast<u8>(*pc);
        const bool bContinues = ulTail != 0 && (ucByte & 0xC0) == 0x80;
        ulTail = bContinues ? ulTail - 1 : CLI_Utf8Tail(ucByte);
        if ((ucByte < 0x20 && ucByte != '\n' && ucByte != '\t') || ucByte == 0x7F) {
            sOut += '^';
            sOut += static_cast<char>(ucByte ^ 0x40);  // ^[ for ESC, ^? for DEL
        } else if (ucByte >= 0x80 && ucByte < 0xA0 && !bContinues) {
            char acHex[5];
            std::snprintf(acHex, sizeof(acHex), "\\x%02x", ucByte);  // a C1 control such as CSI
            sOut += acHex;
        } else {
            sOut += *pc;
        }
    }
    return sOut;
}

void CLI_WriteService(const char *pcText) { CLI_Write(CLI_ServiceText(pcText).c_str()); }

void CLI_LineFull()
{
    CLI_ERR("out of max cmd buff");
    if (gstCliTool.bOn && !CLI_IsBatchOutput())
        CLI_Write("\a");
}

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
