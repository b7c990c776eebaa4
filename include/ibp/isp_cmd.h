/** @file
 * The debug command tree of the service process and the service that answers
 * the debug tool over messages.
 *
 * A command is a line of words below the root word "isp": one or more titles,
 * then any mix of integer and string parameters. It is registered with an
 * array of elements and a display function; the service keeps every command
 * in a sorted tree of words (what the debug tool downloads) and in a table of
 * canonical texts such as "<isp bp proc cfg >" (what it looks up).
 *
 * Threads: CMD_RegDisplayCmd may be called from any thread after CMD_Init;
 * CMD_ProcMsg and the display functions run on the thread of "ISP_CMD", one
 * request at a time, and the CMD_GetParam calls belong to that thread. */
#ifndef IBP_ISP_CMD_H
#define IBP_ISP_CMD_H

#include "ibp/isp_rawmsg.h"
#include "ibp/isp_types.h"

IBP_EXTERN_C_BEGIN

/** Type of an element or node, held in a u32. */
typedef enum {
    CMD_PARAM_TITLE = 1,   /**< accepts exactly its title */
    CMD_PARAM_INTEGER = 2, /**< accepts a decimal number, passed on as a parameter */
    CMD_PARAM_STRING = 3,  /**< accepts any word, passed on as a parameter */
    CMD_PARAM_END = 99     /**< marks a whole command; made by the library alone */
} CMD_PARAM_TYPE_E;

#define CMD_TITLE_LEN 32u        /**< title of an element or node, NUL included */
#define CMD_HELP_LEN 128u        /**< help of an element or node, NUL included */
#define CMD_FULL_CMD_LEN 256u    /**< canonical text of a command, NUL included */
#define CMD_MAX_ELEM_NUM 7u      /**< elements of one command behind the root word */
#define CMD_MAX_PARAM_NUM 7u     /**< parameters of one request */
#define CMD_RESULT_BUF_LEN 8192u /**< capacity that a display function gets */

/** Request identifiers of the command service, sent to MOD_ID_ISP_CMD. */
#define CMD_MSG_GET_TREE 0x10001u /**< answered with the tree text */
#define CMD_MSG_EXEC_CMD 0x10002u /**< a command text, answered with its output */

/** A display function. On entry *pulOutBufLen is the capacity of pcOutBuf and
 * pcOutBuf holds a terminated text (empty for a command); the text goes behind
 * it and *pulOutBufLen becomes the length of the whole text. Returns 0, or not
 * 0 for a failure. */
typedef u32 (*CMD_PROC_PFN)(u32 *pulOutBufLen, char *pcOutBuf);

/** One element of a command line, filled by CMD_SetCmdElement; the caller's. */
typedef struct {
    u32 enParamType;             /**< CMD_PARAM_TYPE_E: title, integer or string */
    char szTitle[CMD_TITLE_LEN]; /**< the word; a parameter's name */
    char szHelp[CMD_HELP_LEN];   /**< help text, may be empty */
} CMD_ELEMENT_S;

/** One node of a command tree; the debug tool uses the same record. Children
 * form a ring through stSibling with no separate head, the first child first. */
typedef struct {
    u32 bFirstChild;           /**< 1 on the first node of a ring and on a root */
    u32 ulLevel;               /**< depth below the root (service side only) */
    u32 ulChildNum;            /**< number of children */
    u32 ulAddedNum;            /**< children linked so far (debug tool side only) */
    CMD_PROC_PFN pfnCmdProc;   /**< on end nodes of the service only */
    u32 enParamType;           /**< CMD_PARAM_TYPE_E */
    char szTitle[CMD_TITLE_LEN]; /**< the word of the node */
    char szHelp[CMD_HELP_LEN]; /**< type word, colon, help: "title:display proc cfg" */
    MOD_LIST_S stSibling;      /**< ring of the siblings */
    MOD_LIST_S stChild;        /**< pstNext leads to the first child's stChild */
} CMD_NODE_S;

/** One row of the table of full commands. */
typedef struct {
    CMD_PROC_PFN pfnCmdProc;          /**< display function of the command */
    char szFullCmd[CMD_FULL_CMD_LEN]; /**< canonical text, "<isp bp proc cfg >" */
    MOD_LIST_S stNode;                /**< link of the table */
} CMD_FULL_CMD_S;

/** Sets up the tree, the table, the result buffer and the handler on
 * "ISP_CMD". Called by IBP_Init in the service process. Returns 0 or 1. */
IBP_API u32 CMD_Init(void);
/** Frees the head of the table; commands cannot be registered afterwards. */
IBP_API void CMD_Destroy(void);
/** Fills one element: the title is cut to 31 characters, the help to 127;
 * pcCmdHelp may be null or empty. */
IBP_API void CMD_SetCmdElement(CMD_ELEMENT_S *pstCmdE, u32 enParamType, const char *pcCmdTitle,
                               const char *pcCmdHelp);
/** Registers a command: element 0 a title, at most CMD_MAX_ELEM_NUM elements
 * counted, up to the first with an empty title, no title behind a parameter.
 * The elements are copied. Returns 0 or 1. */
IBP_API u32 CMD_RegDisplayCmd(CMD_PROC_PFN pfnCmdProc, const CMD_ELEMENT_S *astCmdElem, u32 ulElemNum);
/** The handler of "ISP_CMD": answers a request with exactly one ack. Returns
 * 0; the runtime does not read it. */
IBP_API u32 CMD_ProcMsg(u32 ulMsgID, MSG_HANDLE hReqMsg, void *pParam);
/** For a display function: the number of parameters of the command in hand. */
IBP_API u32 CMD_GetParamNumFromMsg(const void *pParamMsg, u32 *pulParamNum);
/** For a display function: parameter ulParaSeq (1 to 7) of the command in
 * hand, good until the function returns; empty beyond the last one. */
IBP_API u32 CMD_GetParamInfoFromMsg(u32 ulParaSeq, const void *pParamMsg, char **ppcParaInfo);

IBP_EXTERN_C_END

#endif /* IBP_ISP_CMD_H */
