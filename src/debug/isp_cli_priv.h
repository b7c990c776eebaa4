// Inside the command line of the debug tool: the tree copy and the requests
// (isp_cli_tree.cpp), the editor and main loop (isp_cli_edit.cpp), the
// interpreter (isp_cli_interp.cpp), and the ways of the ibp-dt program on top
// of them (isp_cli_tool.cpp). All of it runs on the one thread that called
// ISP_CLI_Init, or that runs lines without a terminal; nothing is locked.
#pragma once

#include <string>

#include "ibp/isp_cli.h"
#include "log/log_internal.h"

// Every record of the command line goes to log module 9, "CLI".
#define CLI_ERR(fmt, ...) IBP_LOGM(LOG_MODULE_CLI, LOG_LEVEL_ERR, fmt __VA_OPT__(, ) __VA_ARGS__)
#define CLI_WRN(fmt, ...) IBP_LOGM(LOG_MODULE_CLI, LOG_LEVEL_WRN, fmt __VA_OPT__(, ) __VA_ARGS__)
#define CLI_INF(fmt, ...) IBP_LOGM(LOG_MODULE_CLI, LOG_LEVEL_INF, fmt __VA_OPT__(, ) __VA_ARGS__)

inline constexpr u32 CLI_LINE_MAX = CLI_LINE_LEN - 1;  // characters of a line
inline constexpr u32 CLI_REQ_TIMEOUT_MS = 2000;

// What became of one line or one request. ISP_CLI_ExecuteCmd and
// ISP_CLI_MainProcess keep their plain results; ibp-dt -c needs the detail
// for its exit status.
typedef enum {
    CLI_RESULT_DONE = 0,      // answered, listed, completed, or handled here
    CLI_RESULT_WRONG,         // the three reports
    CLI_RESULT_AMBIGUOUS,
    CLI_RESULT_INCOMPLETE,
    CLI_RESULT_OPERATE_FAIL,  // answered "operate fail"
    CLI_RESULT_BAD_ANSWER,    // an ack that could not be read
    CLI_RESULT_NO_ANSWER      // no ack within the time-out
} CLI_RESULT_E;

typedef enum { CLI_HIST_UP = 0, CLI_HIST_DOWN = 1 } CLI_HIST_DIR_E;

// ---------------------------------------------------------------- output
// All terminal output goes through these. Lines run without a terminal get
// no carriage returns, and no line feed in front of their first text, since
// no typed line stands on the screen to move off.
void CLI_SetBatchOutput(bool bBatch);
bool CLI_IsBatchOutput();
void CLI_StartBatchLine();
// Without a terminal, what went wrong goes to standard error while bOn.
void CLI_BatchToStderr(bool bOn);
void CLI_Write(const char *pcText);
void CLI_Printf(const char *pcFormat, ...) IBP_PRINTF(1, 2);
void CLI_Puts(const char *pcText);  // as puts: the text and a line feed
void CLI_Blanks(size_t ulNum);

// ---------------------------------------------------------------- tree and requests
u32 ISP_CLI_ExecuteCmd(u32 ulMsgID, const char *pcCmd);
CLI_RESULT_E CLI_Request(u32 ulMsgID, const char *pcCmd);
u32 ISP_CLI_InitTreeRoot(CLI_NODE_S **ppstRoot);
u32 ISP_CLI_BuildCmdTreeByStr(char *pcCmdData);
u32 ISP_CLI_InsertNewNode(u32 bFirstChild, CLI_NODE_S *pCmdNode);
u32 ISP_CLI_GetCmdType(const char *pcCmd);
u32 ISP_CLI_IsCompleteCmdLine(const CLI_NODE_S *pstCmdNode);
void ISP_CLI_DestroyCmdTree(CLI_NODE_S *pstCmdTreeRoot);
// Destroys whatever tree and spare record there are; both pointers null.
void CLI_DropTree();
// Fresh zeroed roots in place of whatever tree there is; null where memory
// is short. Null and a zeroed root both mean "no tree".
void CLI_ResetTree();
// The next node on the sibling ring, and the first child (null if none).
CLI_NODE_S *CLI_NextSibling(const CLI_NODE_S *pstNode);
CLI_NODE_S *CLI_FirstChild(const CLI_NODE_S *pstNode);

// ---------------------------------------------------------------- editor and main loop
void ISP_CLI_Run();
// Reads one line into gszLineBuf. False when standard input has ended (the
// terminal went away or the input was closed), or on Ctrl-D at an empty line
// with the tool's keys: the caller leaves.
bool ISP_CLI_Getline();
void ISP_CLI_SaveHistroyCmd();
void ISP_CLI_ShowHistroyCmd(CLI_HIST_DIR_E enDir);
u8 ISP_CLI_NoWaitGetChar();
void ISP_CLI_PrintCursorPos(const char *pcCursorPtr);
void ISP_CLI_RedrawLine();
void ISP_CLI_ClearLine();
// Lines until one begins with "q" or the input ends; no terminal set-up.
void CLI_Loop();

// ---------------------------------------------------------------- interpreter
void ISP_CLI_MainProcess();
CLI_RESULT_E CLI_ProcessLine();
// The end of a handled line: cleared, or, when its last byte was TAB or
// "?", kept for editing without that byte.
void CLI_FinishLine(bool bKeepLine);
bool CLI_IsKeptLine();
void ISP_CLI_PrintWrongCmd(u32 ulWordIdx);

// ---------------------------------------------------------------- the ways of the ibp-dt program
// ibp-dt turns these on for its user. The library's own calls keep the key
// table and the output of the command line as they are without them.
struct CLI_TOOL_S {
    bool bOn;        // service text made visible, "?" lists, a silent service is said, the tree fetched again, bell
    bool bTermKeys;  // the terminal's erase key erases, ESC [ 3 ~ deletes, Ctrl-D on an empty line leaves
    u8 ucEraseKey;   // the terminal's erase character (tcgetattr), 0 for none
};
extern CLI_TOOL_S gstCliTool;

void CLI_ToolOn(bool bTermKeys);
// Text from the service as it is to be written: with the tool's ways, control
// characters other than LF and TAB made visible (^[ for ESC, \x9b for C1).
std::string CLI_ServiceText(const char *pcText);
void CLI_WriteService(const char *pcText);
// A line that cannot take another byte: the record, and with the tool's ways
// the terminal's bell.
void CLI_LineFull();
// Fetches the tree; a service that does not answer is said on the terminal.
CLI_RESULT_E CLI_ToolFetchTree();
// One finished line: first the tree, when there is none or a request has
// failed since it came, then the interpreter.
CLI_RESULT_E CLI_ToolLine();

// ---------------------------------------------------------------- lines without a terminal
// Output without a terminal, no prompt, fresh empty roots; the first line
// fetches the tree (with the tool's ways; see CLI_ToolLine).
void CLI_BatchInit();
// One line, at most CLI_LINE_MAX characters (longer ones are refused with
// CLI_RESULT_WRONG), through the interpreter, or CLI_ToolLine with the tool's
// ways. A line kept for editing (TAB or "?" at its end) is printed as it
// stands afterwards.
CLI_RESULT_E CLI_BatchLine(const char *pcLine);
