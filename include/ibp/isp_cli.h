/** @file
 * The command line of the debug tool process: a copy of the service's
 * command tree, a raw-terminal line editor with history and completion, and
 * the interpreter that turns a typed line into a request to the service.
 *
 * Threads: everything here runs on the one thread that called ISP_CLI_Init;
 * the exported variables have no lock and nothing else uses them. */
#ifndef IBP_ISP_CLI_H
#define IBP_ISP_CLI_H

#include "ibp/isp_cmd.h"
#include "ibp/isp_types.h"

IBP_EXTERN_C_BEGIN

/** A node of the command line's tree: the service's node record. */
typedef CMD_NODE_S CLI_NODE_S;

#define CLI_PROMPT_LEN 40u    /**< gszSysPrompt, NUL included */
#define CLI_LINE_LEN 100u     /**< gszLineBuf: 99 characters and a NUL */
#define CLI_HIST_NUM 11u      /**< slots of the history ring */
#define CLI_EXT_PARAM_LEN 40u /**< gszExtendParam, NUL included */

/** Root of the tree copy, "isp" once the tree text has been read. */
IBP_API extern CLI_NODE_S *gpCmdTreeNode;
/** Head of the flat node list while a tree text is read; the spare record after. */
IBP_API extern CLI_NODE_S *gpCmdNodeRoot;
/** Module that receives the requests: MOD_ID_ISP_CMD. */
IBP_API extern u32 gulDestModuleID;
/** The prompt, "[CMD] ". */
IBP_API extern char gszSysPrompt[CLI_PROMPT_LEN];
/** The line being edited. */
IBP_API extern char gszLineBuf[CLI_LINE_LEN];
/** Scratch space of the cursor display. */
IBP_API extern char gszCursLineBuf[CLI_LINE_LEN];
/** The history ring: null or a heap copy of a line per slot. */
IBP_API extern char *gpszHistCmd[CLI_HIST_NUM];
/** Slot that the next saved line goes to. */
IBP_API extern u32 gulHistSavePos;
/** Slot that the history keys start from. */
IBP_API extern u32 gulHistShowPos;
/** Parameter words of the line in hand, each followed by ";". */
IBP_API extern char gszExtendParam[CLI_EXT_PARAM_LEN];

/** Fetches the tree, puts standard input into raw mode and edits and runs
 * lines until the user leaves with a line that begins with "q". Call it once
 * after IBP_Init of the debug tool process. Returns 0, or 1 if a tree root
 * could not be made. */
IBP_API u32 ISP_CLI_Init(void);
/** Writes the titles of a subtree to the log, depth first. Returns 0, or 1
 * for a null node. */
IBP_API u32 ISP_CLI_PrintTree(CLI_NODE_S *pstCurModule);

/** Longest line that ISP_CLI_BatchLine takes, in characters. */
#define ISP_CLI_BATCH_LINE_MAX (CLI_LINE_LEN - 1u)
/** Time that one request of a line waits for its answer, in milliseconds. */
#define ISP_CLI_BATCH_TIMEOUT_MS 2000u

/** What became of a line run without a terminal. */
typedef enum {
    ISP_CLI_BATCH_DONE = 0,         /**< answered, listed or completed */
    ISP_CLI_BATCH_WRONG = 1,        /**< "Wrong command input!" */
    ISP_CLI_BATCH_AMBIGUOUS = 2,    /**< "Ambiguous command input!" */
    ISP_CLI_BATCH_INCOMPLETE = 3,   /**< "Incomplete command input!" */
    ISP_CLI_BATCH_OPERATE_FAIL = 4, /**< answered "operate fail" */
    ISP_CLI_BATCH_BAD_ANSWER = 5,   /**< an answer that could not be read */
    ISP_CLI_BATCH_NO_ANSWER = 6     /**< no answer within ISP_CLI_BATCH_TIMEOUT_MS */
} ISP_CLI_BATCH_E;

/** Makes ready for lines run without a terminal, after IBP_Init of the debug
 * tool process; the first line fetches the service's tree. Returns
 * ISP_CLI_BATCH_DONE. */
IBP_API u32 ISP_CLI_BatchInit(void);
/** Runs one line through the interpreter as if typed, printing what the
 * terminal would show; a line that ends in TAB or "?" is printed as it stands
 * afterwards. A Wrong, Ambiguous or Incomplete report (the line, its caret and
 * the text) goes to standard error, the rest to standard output. Returns an
 * ISP_CLI_BATCH_E; ISP_CLI_BATCH_WRONG for a null line or one longer than
 * ISP_CLI_BATCH_LINE_MAX. */
IBP_API u32 ISP_CLI_BatchLine(const char *pcLine);
/** Turns on the ways of the debug tool program for its user, before
 * ISP_CLI_Init or the first ISP_CLI_BatchLine: text from the service with its
 * control characters made visible, "?" that lists, a service that does not
 * answer said and its tree fetched again, the bell at a full line; with
 * bTermKeys other than 0 also the terminal's erase key, the Delete key and
 * Ctrl-D on an empty line. Without this call the command line keeps the keys
 * and output of its table. */
IBP_API void ISP_CLI_ToolOn(u32 bTermKeys);

IBP_EXTERN_C_END

#endif /* IBP_ISP_CLI_H */
