// The command line's copy of the service's command tree, rebuilt from the
// tree text, and the one call that sends a request and handles its ack.
//
// Tree text: three lines per node (title, help, child count), depth first.
// It is read in two stages: a flat list of nodes hanging on gpCmdNodeRoot,
// then the tree, which takes nodes off the list by the child counts alone.
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>

#include "debug/isp_cli_priv.h"
#include "ibp/isp_module.h"
#include "ibp/isp_rawmsg.h"
#include "ibp/isp_sendmsg.h"
#include "ibp/isp_system.h"
#include "common/mod_list.h"
#include "runtime/sendmsg_internal.h"

IBP_LOG_SOURCE("isp_cli");

extern "C" {
IBP_API CLI_NODE_S *gpCmdTreeNode = nullptr;
IBP_API CLI_NODE_S *gpCmdNodeRoot = nullptr;
IBP_API u32 gulDestModuleID = 0;
}

namespace {

// The record that heads the flat list while a tree is built: the end mark of
// the list, and never a node of the tree.
CLI_NODE_S *gpstListHead = nullptr;

bool gbBatchOutput = false;
bool gbSkipFirstLf = false;
bool gbToStderr = false;

struct CLI_FIXED_ANSWER_S {
    const char *pcAnswer;
    const char *pcShown;
    CLI_RESULT_E enResult;
};

// Compared with the whole ack text, in this order.
constexpr CLI_FIXED_ANSWER_S kFixedAnswers[] = {
    {"operate fail", "\r\noperate fail", CLI_RESULT_OPERATE_FAIL},
    {"operate success", "\r\noperate success", CLI_RESULT_DONE},
    {"unknown cmd type", "\r\nunknown cmd type", CLI_RESULT_DONE},
};

struct CLI_TYPE_WORD_S {
    const char *pcWord;
    u32 enType;
};

constexpr CLI_TYPE_WORD_S kTypeWords[] = {
    {"title", CMD_PARAM_TITLE},
    {"integer", CMD_PARAM_INTEGER},
    {"string", CMD_PARAM_STRING},
};

struct CLI_HeapFree {
    void operator()(char *pc) const { ISP_free(&pc); }
};
using CLI_HEAP_TEXT = std::unique_ptr<char, CLI_HeapFree>;

CLI_NODE_S *CLI_NodeOfSibling(MOD_LIST_S *pstLink) { return MOD_ListEntry(pstLink, &CLI_NODE_S::stSibling); }
CLI_NODE_S *CLI_NodeOfChild(MOD_LIST_S *pstLink) { return MOD_ListEntry(pstLink, &CLI_NODE_S::stChild); }

// Inserts pstNew right behind pstAt.
void CLI_ListAddAfter(MOD_LIST_S *pstAt, MOD_LIST_S *pstNew)
{
    pstNew->pstNext = pstAt->pstNext;
    pstNew->pstPrev = pstAt;
    pstAt->pstNext->pstPrev = pstNew;
    pstAt->pstNext = pstNew;
}

// The parent of a node that is not a root: the first child of its ring
// holds the parent's child link in its own child link's pstPrev.
CLI_NODE_S *CLI_Parent(CLI_NODE_S *pstNode)
{
    CLI_NODE_S *pstFirst = pstNode;
    while (pstFirst->bFirstChild == 0) {
        pstFirst = CLI_NextSibling(pstFirst);
        if (pstFirst == pstNode)
            break;  // a ring without a first child: only a root is alone like that
    }
    return CLI_NodeOfChild(pstFirst->stChild.pstPrev);
}

void CLI_CopyText(char *pcDst, size_t ulSize, const char *pcSrc)
{
    ISP_snprintf(pcDst, ulSize, "%s", pcSrc != nullptr ? pcSrc : "");
}

// Title, help (with the type it gives) and count; any of them may be null.
void CLI_FillNode(CLI_NODE_S *pstNode, const char *pcTitle, const char *pcHelp, const char *pcCount)
{
    CLI_CopyText(pstNode->szTitle, sizeof(pstNode->szTitle), pcTitle);
    CLI_CopyText(pstNode->szHelp, sizeof(pstNode->szHelp), pcHelp);
    pstNode->enParamType = pcHelp != nullptr ? ISP_CLI_GetCmdType(pcHelp) : 0;
    pstNode->ulChildNum = pcCount != nullptr ? static_cast<u32>(ISP_atol(pcCount)) : 0;
}

// Makes every count what was linked. Counts that promised more nodes than
// the text held would otherwise send walks that follow ulChildNum out of the
// tree. Returns whether any count changed.
bool CLI_SettleCounts(CLI_NODE_S *pstFirst)
{
    bool bChanged = false;
    CLI_NODE_S *pstNode = pstFirst;
    do {
        bChanged |= pstNode->ulChildNum != pstNode->ulAddedNum;
        pstNode->ulChildNum = pstNode->ulAddedNum;
        if (CLI_NODE_S *pstChild = CLI_FirstChild(pstNode))
            bChanged |= CLI_SettleCounts(pstChild);
        pstNode = CLI_NextSibling(pstNode);
    } while (pstNode != pstFirst && pstNode->bFirstChild == 0);
    return bChanged;
}

// Nodes that the counts left over have no place in the tree.
u32 CLI_DropLeftovers(CLI_NODE_S *pstHead)
{
    u32 ulNum = 0;
    for (CLI_NODE_S *pstNode = CLI_NextSibling(pstHead); pstNode != pstHead; pstNode = CLI_NextSibling(pstHead)) {
        MOD_ListDel(&pstNode->stSibling);
        ISP_free(&pstNode);
        ulNum++;
    }
    return ulNum;
}

}  // namespace

// ---------------------------------------------------------------- output

void CLI_SetBatchOutput(bool bBatch) { gbBatchOutput = bBatch; }
bool CLI_IsBatchOutput() { return gbBatchOutput; }
void CLI_StartBatchLine() { gbSkipFirstLf = true; }

void CLI_BatchToStderr(bool bOn)
{
    fflush(stdout);  // what came before stays before where both streams meet
    gbToStderr = bOn;
}

void CLI_Write(const char *pcText)
{
    if (!gbBatchOutput) {
        fputs(pcText, stdout);
        return;
    }
    for (const char *pc = pcText; *pc != '\0'; pc++) {
        if (*pc == '\r')
            continue;
        if (*pc == '\n' && gbSkipFirstLf) {
            gbSkipFirstLf = false;
            continue;
        }
        gbSkipFirstLf = false;
        putc(*pc, gbToStderr ? stderr : stdout);
    }
}

void CLI_Printf(const char *pcFormat, ...)
{
    // Prompts, lines and help rows only: all well below this.
    char acText[256];
    va_list args;
    va_start(args, pcFormat);
    vsnprintf(acText, sizeof(acText), pcFormat, args);
    va_end(args);
    CLI_Write(acText);
}

void CLI_Puts(const char *pcText)
{
    CLI_Write(pcText);
    CLI_Write("\n");
}

void CLI_Blanks(size_t ulNum)
{
    for (size_t i = 0; i < ulNum; i++)
        CLI_Write(" ");
}

// ---------------------------------------------------------------- nodes

CLI_NODE_S *CLI_NextSibling(const CLI_NODE_S *pstNode) { return CLI_NodeOfSibling(pstNode->stSibling.pstNext); }

CLI_NODE_S *CLI_FirstChild(const CLI_NODE_S *pstNode)
{
    return pstNode->ulChildNum != 0 ? CLI_NodeOfChild(pstNode->stChild.pstNext) : nullptr;
}

u32 ISP_CLI_InitTreeRoot(CLI_NODE_S **ppstRoot)
{
    auto *pstNode = static_cast<CLI_NODE_S *>(ISP_calloc(0, 1, sizeof(CLI_NODE_S)));
    if (pstNode == nullptr) {
        CLI_ERR("calloc %u failed!", static_cast<u32>(sizeof(CLI_NODE_S)));
        return 1;
    }
    MOD_ListInit(&pstNode->stSibling);
    MOD_ListInit(&pstNode->stChild);
    *ppstRoot = pstNode;
    return 0;
}

void ISP_CLI_DestroyCmdTree(CLI_NODE_S *pstCmdTreeRoot)
{
    if (pstCmdTreeRoot == nullptr) {
        CLI_ERR("pstCmdTreeRoot is NULL");
        return;
    }
    CLI_NODE_S *pstSibling = CLI_NextSibling(pstCmdTreeRoot);
    CLI_NODE_S *pstChild = CLI_NodeOfChild(pstCmdTreeRoot->stChild.pstNext);
    MOD_ListDel(&pstCmdTreeRoot->stSibling);
    MOD_ListDel(&pstCmdTreeRoot->stChild);
    if (pstSibling != pstCmdTreeRoot)
        ISP_CLI_DestroyCmdTree(pstSibling);
    if (pstChild != pstCmdTreeRoot)
        ISP_CLI_DestroyCmdTree(pstChild);
    ISP_free(&pstCmdTreeRoot);
}

void CLI_DropTree()
{
    for (CLI_NODE_S **ppstRoot : {&gpCmdTreeNode, &gpCmdNodeRoot}) {
        if (*ppstRoot != nullptr)
            ISP_CLI_DestroyCmdTree(*ppstRoot);
        *ppstRoot = nullptr;
    }
}

void CLI_ResetTree()
{
    CLI_DropTree();
    for (CLI_NODE_S **ppstRoot : {&gpCmdTreeNode, &gpCmdNodeRoot})
        (void)ISP_CLI_InitTreeRoot(ppstRoot);  // null stays when memory is short
}

u32 ISP_CLI_GetCmdType(const char *pcCmd)
{
    if (pcCmd == nullptr) {
        CLI_ERR("pcCmd is NULL");
        return CMD_PARAM_END;
    }
    for (const CLI_TYPE_WORD_S &stWord : kTypeWords)
        if (ISP_strncmp(pcCmd, stWord.pcWord, strlen(stWord.pcWord)) == 0)
            return stWord.enType;
    return CMD_PARAM_END;
}

u32 ISP_CLI_IsCompleteCmdLine(const CLI_NODE_S *pstCmdNode)
{
    if (pstCmdNode == nullptr) {
        CLI_ERR("pstCmdNode is NULL");
        return 0;
    }
    return pstCmdNode->enParamType == CMD_PARAM_END ? 1 : 0;
}

u32 ISP_CLI_InsertNewNode(u32 bFirstChild, CLI_NODE_S *pCmdNode)
{
    if (pCmdNode == nullptr) {
        CLI_ERR("pCmdNode is NULL");
        return 1;
    }
    // Counts that promise more nodes than the text holds end here, at the
    // record that heads the list, which never goes into the tree.
    if (gpCmdNodeRoot == nullptr || gpCmdNodeRoot == gpstListHead)
        return 1;
    CLI_NODE_S *pstNew = gpCmdNodeRoot;
    gpCmdNodeRoot = CLI_NextSibling(pstNew);
    MOD_ListDel(&pstNew->stSibling);
    MOD_ListInit(&pstNew->stSibling);
    MOD_ListInit(&pstNew->stChild);

    CLI_NODE_S *pstParent = nullptr;
    if (bFirstChild != 0) {
        pstNew->bFirstChild = 1;
        pstParent = pCmdNode;
        CLI_ListAddAfter(&pstParent->stChild, &pstNew->stChild);
    } else {
        pstNew->bFirstChild = 0;
        pstParent = CLI_Parent(pCmdNode);
        CLI_ListAddAfter(&pCmdNode->stSibling, &pstNew->stSibling);
    }
    pstParent->ulAddedNum++;

    if (pstNew->ulChildNum != 0 && pstNew->ulChildNum != pstNew->ulAddedNum)
        (void)ISP_CLI_InsertNewNode(1, pstNew);
    if (pstParent->ulAddedNum != pstParent->ulChildNum && pstNew->ulAddedNum == pstNew->ulChildNum)
        (void)ISP_CLI_InsertNewNode(0, pstNew);
    return 0;
}

u32 ISP_CLI_BuildCmdTreeByStr(char *pcCmdData)
{
    if (pcCmdData == nullptr) {
        CLI_ERR("pcCmdData is NULL");
        return 1;
    }
    char *pcSave = nullptr;
    auto NextLine = [&pcSave, pcText = pcCmdData]() mutable {
        char *pcLine = ISP_strtok_r(pcText, "\n", &pcSave);
        pcText = nullptr;
        return pcLine;
    };
    // A text shorter than the root's three lines gives a root of what it holds.
    const char *pcTitle = NextLine();
    const char *pcHelp = pcTitle != nullptr ? NextLine() : nullptr;
    const char *pcCount = pcHelp != nullptr ? NextLine() : nullptr;
    CLI_FillNode(gpCmdTreeNode, pcTitle, pcHelp, pcCount);
    CLI_FillNode(gpCmdNodeRoot, pcTitle, pcHelp, pcCount);
    gpCmdTreeNode->bFirstChild = 1;

    while ((pcTitle = NextLine()) != nullptr && (pcHelp = NextLine()) != nullptr &&
           (pcCount = NextLine()) != nullptr) {
        CLI_NODE_S *pstNode = nullptr;
        if (ISP_CLI_InitTreeRoot(&pstNode) != 0)
            return 1;
        CLI_FillNode(pstNode, pcTitle, pcHelp, pcCount);
        MOD_ListAddTail(&gpCmdNodeRoot->stSibling, &pstNode->stSibling);
    }

    gpstListHead = gpCmdNodeRoot;
    gpCmdNodeRoot = CLI_NextSibling(gpstListHead);
    // The root's count alone decides whether the list is read at all.
    if (gpCmdTreeNode->ulChildNum != 0)
        (void)ISP_CLI_InsertNewNode(1, gpCmdTreeNode);
    if (CLI_SettleCounts(gpCmdTreeNode))
        CLI_WRN("tree text ends before its counts are met: built what it holds");
    if (u32 ulLeft = CLI_DropLeftovers(gpstListHead))
        CLI_WRN("tree text holds %u nodes beyond its counts: dropped", ulLeft);
    gpCmdNodeRoot = gpstListHead;
    gpstListHead = nullptr;
    return 0;
}

extern "C" IBP_API u32 ISP_CLI_PrintTree(CLI_NODE_S *pstCurModule)
{
    if (pstCurModule == nullptr) {
        CLI_ERR("pstCurModule is NULL");
        return 1;
    }
    CLI_INF("%s \n", pstCurModule->szTitle);
    if (pstCurModule->ulChildNum != 0 && pstCurModule->enParamType != CMD_PARAM_END)
        (void)ISP_CLI_PrintTree(CLI_FirstChild(pstCurModule));
    CLI_NODE_S *pstNext = CLI_NextSibling(pstCurModule);
    if (pstNext->bFirstChild == 0)
        (void)ISP_CLI_PrintTree(pstNext);
    return 0;
}

// ---------------------------------------------------------------- requests

namespace {

// The tree text replaces the copy. A tree that cannot be built leaves
// empty roots, never a freed pointer.
CLI_RESULT_E CLI_TakeTreeText(char *pcText)
{
    CLI_DropTree();
    if (ISP_CLI_InitTreeRoot(&gpCmdTreeNode) != 0) {
        CLI_ERR("ISP_CLI_InitTreeRoot fail");
        return CLI_RESULT_BAD_ANSWER;
    }
    if (ISP_CLI_InitTreeRoot(&gpCmdNodeRoot) != 0) {
        ISP_CLI_DestroyCmdTree(gpCmdTreeNode);
        gpCmdTreeNode = nullptr;
        CLI_ERR("ISP_CLI_InitTreeRoot fail");
        return CLI_RESULT_BAD_ANSWER;
    }
    if (ISP_CLI_BuildCmdTreeByStr(pcText) != 0) {
        CLI_ResetTree();
        CLI_ERR("ISP_CLI_BuildCmdTreeByStr fail");
        return CLI_RESULT_BAD_ANSWER;
    }
    return CLI_RESULT_DONE;
}

}  // namespace

CLI_RESULT_E CLI_Request(u32 ulMsgID, const char *pcCmd)
{
    if (pcCmd == nullptr) {
        CLI_ERR("pcCmd is NULL");
        return CLI_RESULT_BAD_ANSWER;
    }
    // An empty message cannot exist.
    const char *pcBody = pcCmd[0] != '\0' ? pcCmd : "dbgcmd";
    MSG_HANDLE hReq = MSG_Create(pcBody, static_cast<u32>(strlen(pcBody) + 1));
    MSG_HANDLE hAck = nullptr;
    bool bQueued = false;
    if (MSG_SendSyncMsgEx(gulDestModuleID, ulMsgID, hReq, CLI_REQ_TIMEOUT_MS, &hAck, &bQueued) != 0) {
        CLI_ERR("send syncMsg fail");
        if (!bQueued && hReq != nullptr)
            MSG_Destroy(hReq);  // never handed over; a queued one is the runtime's
        return CLI_RESULT_NO_ANSWER;
    }
    void *pBody = nullptr;
    u32 ulLen = 0;
    if (MSG_Decode(hAck, &pBody, &ulLen) != 0) {
        CLI_ERR("msg decode fail");
        MSG_Destroy(hAck);
        return CLI_RESULT_BAD_ANSWER;
    }
    CLI_HEAP_TEXT pcText(static_cast<char *>(ISP_calloc(0, 1, ulLen + 1)));
    if (pcText == nullptr) {
        CLI_ERR("calloc fail");
        MSG_Destroy(hAck);
        return CLI_RESULT_BAD_ANSWER;
    }
    memcpy(pcText.get(), pBody, ulLen);
    MSG_Destroy(hAck);

    for (const CLI_FIXED_ANSWER_S &stFixed : kFixedAnswers) {
        if (strcmp(pcText.get(), stFixed.pcAnswer) == 0) {
            CLI_Puts(stFixed.pcShown);
            return stFixed.enResult;
        }
    }
    if (ulMsgID == CMD_MSG_EXEC_CMD) {
        CLI_Write("\r\n");
        CLI_WriteService(pcText.get());
        CLI_Write("\n");
        return CLI_RESULT_DONE;
    }
    return CLI_TakeTreeText(pcText.get());
}

u32 ISP_CLI_ExecuteCmd(u32 ulMsgID, const char *pcCmd)
{
    return CLI_Request(ulMsgID, pcCmd) == CLI_RESULT_DONE ? 0 : 1;
}
