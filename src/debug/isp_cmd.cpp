// The command tree of the service process and the table of full commands:
// their set-up, elements, and the registration that fills both. The service
// that answers from them (isp_cmd_proc.cpp) stands above this file.
//
// Locking: ghCmdTreeLock is held over every change of the tree and the table
// and over the walk that turns the tree into text. The table is read without
// it (CMD_ExecuteCmd): rows are only ever appended at the tail, complete
// before they are linked in, and the link is published with a release store.
#include "ibp/isp_cmd.h"

#include <array>
#include <cstring>

#include "debug/cmd_internal.h"
#include "ibp/isp_module.h"
#include "ibp/isp_system.h"
#include "log/log_internal.h"
#include "platform/isp_system_internal.h"

IBP_LOG_SOURCE("isp_cmd");

MOD_LIST_S gstCmdRootList;
void *ghCmdTreeLock;

namespace {

CMD_FULL_CMD_S *gpstCmdList;
char *gpcCmdResult;

constexpr const char *kRootTitle = "isp";
constexpr const char *kEndTitle = "cr";

using CMD_ELEM_ARRAY = std::array<CMD_ELEMENT_S, CMD_MAX_ELEM_NUM>;

// The help of a node by its type: the type word tells the command line what
// the node accepts.
const char *CMD_HelpFormat(u32 enParamType)
{
    switch (enParamType) {
        case CMD_PARAM_TITLE:
            return "title:%s";
        case CMD_PARAM_INTEGER:
            return "integer:%s";
        case CMD_PARAM_STRING:
            return "string:%s";
        case CMD_PARAM_END:
            return "end:%s";
        default:
            return nullptr;
    }
}

u32 CMD_MakeNewNode(const CMD_ELEMENT_S *pstCmdElem, CMD_NODE_S **ppstNode)
{
    if (pstCmdElem == nullptr) {
        IBP_ERR("pcLineBuf is NULL");
        return 1;
    }
    auto *pstNode = static_cast<CMD_NODE_S *>(ISP_calloc(0, 1, sizeof(CMD_NODE_S)));
    if (pstNode == nullptr) {
        IBP_ERR("calloc fail! size=%zd", sizeof(CMD_NODE_S));
        return 1;
    }
    pstNode->enParamType = pstCmdElem->enParamType;
    ISP_strncpy(pstNode->szTitle, pstCmdElem->szTitle, CMD_TITLE_LEN - 1);
    const char *pcFormat = CMD_HelpFormat(pstCmdElem->enParamType);
    if (pcFormat == nullptr) {
        ISP_free(&pstNode);
        IBP_ERR("Param illegal, pstCmdElem->enParamType:%d", static_cast<int>(pstCmdElem->enParamType));
        return 1;
    }
    ISP_snprintf(pstNode->szHelp, CMD_HELP_LEN, pcFormat, pstCmdElem->szHelp);
    MOD_ListInit(&pstNode->stSibling);
    MOD_ListInit(&pstNode->stChild);
    *ppstNode = pstNode;
    return 0;
}

void CMD_SetFirstChild(CMD_NODE_S *pstParent, CMD_NODE_S *pstChild)
{
    pstParent->stChild.pstNext = &pstChild->stChild;
    pstChild->stChild.pstPrev = &pstParent->stChild;
    pstChild->bFirstChild = 1;
}

// Puts a node in front of pstFirst as the parent's new first child.
void CMD_InsertFirst(CMD_NODE_S *pstParent, CMD_NODE_S *pstFirst, CMD_NODE_S *pstNew)
{
    MOD_ListAddTail(&pstFirst->stSibling, &pstNew->stSibling);  // before pstFirst on the ring
    pstFirst->bFirstChild = 0;
    CMD_SetFirstChild(pstParent, pstNew);
}

// Links a new node that is no end node under pstParent, keeping the ring in
// ascending order of titles behind a leading end node; equal titles stand in
// the order of their arrival.
void CMD_InsertSorted(CMD_NODE_S *pstParent, CMD_NODE_S *pstNew)
{
    CMD_NODE_S *pstFirst = CMD_FirstChild(pstParent);
    if (pstFirst == nullptr) {
        CMD_SetFirstChild(pstParent, pstNew);
    } else if (!CMD_IsEndNode(pstFirst) && ISP_strcmp(pstNew->szTitle, pstFirst->szTitle) < 0) {
        CMD_InsertFirst(pstParent, pstFirst, pstNew);
    } else {
        CMD_NODE_S *pstBefore = pstFirst;  // the end of the ring, unless a later title is found
        for (CMD_NODE_S *p = CMD_NextSibling(pstFirst); p != pstFirst; p = CMD_NextSibling(p)) {
            if (!CMD_IsEndNode(p) && ISP_strcmp(p->szTitle, pstNew->szTitle) > 0) {
                pstBefore = p;
                break;
            }
        }
        MOD_ListAddTail(&pstBefore->stSibling, &pstNew->stSibling);
    }
    pstParent->ulChildNum++;
}

// The child of pstParent that an element leads to. End nodes are no element's:
// an element of type "end" never walks into one (and is refused further on).
CMD_NODE_S *CMD_FindChild(const CMD_NODE_S *pstParent, const CMD_ELEMENT_S &stElem)
{
    CMD_NODE_S *pstFound = nullptr;
    CMD_ForEachChild(pstParent, [&](CMD_NODE_S *pstChild) {
        if (!CMD_IsEndNode(pstChild) && pstChild->enParamType == stElem.enParamType &&
            ISP_strcmp(pstChild->szTitle, stElem.szTitle) == 0)
            pstFound = pstChild;
        return pstFound == nullptr;
    });
    return pstFound;
}

// Under ghCmdTreeLock: the path of the elements below the root, then a new
// end node as the first child of its last node.
u32 CMD_BuildCmdTree(CMD_NODE_S *pstRoot, const CMD_ELEM_ARRAY &astElem, CMD_PROC_PFN pfnCmdProc)
{
    CMD_NODE_S *pstCur = pstRoot;
    for (u32 i = 0; i < CMD_MAX_ELEM_NUM && astElem[i].szTitle[0] != '\0'; i++) {
        if (CMD_NODE_S *pstNext = CMD_FindChild(pstCur, astElem[i])) {
            pstCur = pstNext;
            continue;
        }
        CMD_NODE_S *pstNew = nullptr;
        if (CMD_MakeNewNode(&astElem[i], &pstNew) != 0) {
            IBP_ERR("BP_MakeNewNode fail");
            return 1;
        }
        pstNew->ulLevel = i + 1;
        CMD_InsertSorted(pstCur, pstNew);
        pstCur = pstNew;
    }
    CMD_ELEMENT_S stEnd;
    CMD_SetCmdElement(&stEnd, CMD_PARAM_END, kEndTitle, nullptr);
    CMD_NODE_S *pstEnd = nullptr;
    if (CMD_MakeNewNode(&stEnd, &pstEnd) != 0) {
        IBP_ERR("BP_MakeNewNode fail");
        return 1;
    }
    pstEnd->pfnCmdProc = pfnCmdProc;
    pstEnd->ulLevel = pstCur->ulLevel + 1;
    if (CMD_NODE_S *pstFirst = CMD_FirstChild(pstCur))
        CMD_InsertFirst(pstCur, pstFirst, pstEnd);
    else
        CMD_SetFirstChild(pstCur, pstEnd);
    pstCur->ulChildNum++;
    return 0;
}

// The canonical text: "<isp ", each title and a blank, ">". At most 7 titles
// of 31 characters: 230 characters, within the row's 256.
u32 CMD_BuildFullCmd(const CMD_ELEM_ARRAY &astElem, char (&szFullCmd)[CMD_FULL_CMD_LEN])
{
    ISP_snprintf(szFullCmd, sizeof(szFullCmd), "<%s ", kRootTitle);
    u32 enPrevType = CMD_PARAM_TITLE;
    for (u32 i = 0; i < CMD_MAX_ELEM_NUM && astElem[i].szTitle[0] != '\0'; i++) {
        if (enPrevType != CMD_PARAM_TITLE && astElem[i].enParamType == CMD_PARAM_TITLE) {
            IBP_ERR("param type not allowed! prev=%d cur=%d", static_cast<int>(enPrevType),
                    static_cast<int>(astElem[i].enParamType));
            return 1;
        }
        ISP_strncat(szFullCmd, astElem[i].szTitle, sizeof(szFullCmd) - 1 - ISP_strlen(szFullCmd));
        ISP_strncat(szFullCmd, " ", sizeof(szFullCmd) - 1 - ISP_strlen(szFullCmd));
        enPrevType = astElem[i].enParamType;
    }
    ISP_strncat(szFullCmd, ">", sizeof(szFullCmd) - 1 - ISP_strlen(szFullCmd));
    return 0;
}

// Appends a complete row at the tail; readers walk the table without the lock.
void CMD_AppendRow(CMD_FULL_CMD_S *pstHead, CMD_FULL_CMD_S *pstRow)
{
    MOD_LIST_S *pstTail = pstHead->stNode.pstPrev;
    pstRow->stNode.pstNext = &pstHead->stNode;
    pstRow->stNode.pstPrev = pstTail;
    pstHead->stNode.pstPrev = &pstRow->stNode;
    __atomic_store_n(&pstTail->pstNext, &pstRow->stNode, __ATOMIC_RELEASE);
}

// Frees the nodes of a ring from its first node on, with their subtrees.
void CMD_FreeSubtree(CMD_NODE_S *pstFirst)
{
    if (pstFirst == nullptr)
        return;
    CMD_NODE_S *pstNode = pstFirst;
    do {
        CMD_NODE_S *pstNext = CMD_NextSibling(pstNode);
        CMD_FreeSubtree(CMD_FirstChild(pstNode));
        ISP_free(&pstNode);
        pstNode = pstNext;
    } while (pstNode != pstFirst);  // an address compared, never read
}

// What an earlier set-up left: the tree, the buffer and the mutex live until
// the next CMD_Init replaces them, so that nothing leaks when a process
// starts the library more than once. By then the service of that set-up no
// longer runs (CMD_ServiceRunning), so no request walks what is freed here.
void CMD_ReclaimOld()
{
    if (gstCmdRootList.pstNext != nullptr) {
        while (!MOD_ListEmpty(&gstCmdRootList)) {
            CMD_NODE_S *pstRoot = CMD_NodeOfSibling(gstCmdRootList.pstNext);
            MOD_ListDel(&pstRoot->stSibling);
            CMD_FreeSubtree(CMD_FirstChild(pstRoot));
            ISP_free(&pstRoot);
        }
    }
    char *pcOld = __atomic_exchange_n(&gpcCmdResult, nullptr, __ATOMIC_ACQ_REL);
    ISP_free(&pcOld);
    if (ghCmdTreeLock != nullptr)
        ISP_mutex_destroy(ghCmdTreeLock);
}

// Frees the table's rows and its head and clears the pointer.
void CMD_FreeTable()
{
    CMD_FULL_CMD_S *pstHead = __atomic_exchange_n(&gpstCmdList, nullptr, __ATOMIC_ACQ_REL);
    if (pstHead == nullptr)
        return;
    while (!MOD_ListEmpty(&pstHead->stNode)) {
        CMD_FULL_CMD_S *pstRow = MOD_ListEntry(pstHead->stNode.pstNext, &CMD_FULL_CMD_S::stNode);
        MOD_ListDel(&pstRow->stNode);
        ISP_free(&pstRow);
    }
    ISP_free(&pstHead);
}

}  // namespace

CMD_FULL_CMD_S *CMD_FullCmdList() { return __atomic_load_n(&gpstCmdList, __ATOMIC_ACQUIRE); }

char *CMD_ResultBuf() { return __atomic_load_n(&gpcCmdResult, __ATOMIC_ACQUIRE); }

CMD_NODE_S *CMD_FindRoot()
{
    if (gstCmdRootList.pstNext == nullptr)
        return nullptr;
    for (MOD_LIST_S *p = gstCmdRootList.pstNext; p != &gstCmdRootList; p = p->pstNext) {
        CMD_NODE_S *pstRoot = CMD_NodeOfSibling(p);
        if (ISP_strcmp(pstRoot->szTitle, kRootTitle) == 0)
            return pstRoot;
    }
    return nullptr;
}

u32 CMD_TreeSetUp()
{
    CMD_FreeTable();
    CMD_ReclaimOld();
    ghCmdTreeLock = nullptr;
    MOD_ListInit(&gstCmdRootList);
    ghCmdTreeLock = ISP_mutex_init();
    if (ghCmdTreeLock == nullptr) {
        IBP_ERR("init mutex for cmd tree fail");
        return 1;
    }
    auto *pstHead = static_cast<CMD_FULL_CMD_S *>(ISP_calloc(0, 1, sizeof(CMD_FULL_CMD_S)));
    if (pstHead == nullptr) {
        IBP_ERR("malloc gpstCmdList fail.");
        return 1;
    }
    MOD_ListInit(&pstHead->stNode);
    CMD_ELEMENT_S stRootElem;
    CMD_SetCmdElement(&stRootElem, CMD_PARAM_TITLE, kRootTitle, nullptr);
    CMD_NODE_S *pstRoot = nullptr;
    if (CMD_MakeNewNode(&stRootElem, &pstRoot) != 0) {
        IBP_ERR("BP_MakeNewNode fail.");
        ISP_free(&pstHead);
        return 1;
    }
    pstRoot->bFirstChild = 1;
    MOD_ListAddTail(gstCmdRootList.pstNext, &pstRoot->stSibling);  // at the front
    __atomic_store_n(&gpstCmdList, pstHead, __ATOMIC_RELEASE);
    return 0;
}

void CMD_TreeDropTable() { CMD_FreeTable(); }

u32 CMD_MakeResultBuf()
{
    auto *pcResult = static_cast<char *>(ISP_malloc(0, CMD_RESULT_BUF_LEN));
    if (pcResult == nullptr) {
        IBP_ERR("malloc %d fail", static_cast<int>(CMD_RESULT_BUF_LEN));
        return 1;
    }
    __atomic_store_n(&gpcCmdResult, pcResult, __ATOMIC_RELEASE);
    return 0;
}

extern "C" {

IBP_API void CMD_Destroy(void)
{
    // Under the lock, so that a registration in progress finishes first and
    // a later one finds no table.
    if (ghCmdTreeLock == nullptr) {
        CMD_FreeTable();
        return;
    }
    IspMutexGuard stLock(ghCmdTreeLock);
    CMD_FreeTable();
}

IBP_API void CMD_SetCmdElement(CMD_ELEMENT_S *pstCmdE, u32 enParamType, const char *pcCmdTitle,
                               const char *pcCmdHelp)
{
    if (pstCmdE == nullptr || pcCmdTitle == nullptr || pcCmdTitle[0] == '\0') {
        IBP_ERR("Param illegal, pstCmdE:%p, pcCmdTitle:%p", static_cast<void *>(pstCmdE),
                static_cast<const void *>(pcCmdTitle));
        return;
    }
    memset(pstCmdE, 0, sizeof(*pstCmdE));
    pstCmdE->enParamType = enParamType;
    ISP_strncpy(pstCmdE->szTitle, pcCmdTitle, CMD_TITLE_LEN - 1);
    if (pcCmdHelp != nullptr && pcCmdHelp[0] != '\0')
        ISP_strncpy(pstCmdE->szHelp, pcCmdHelp, CMD_HELP_LEN - 1);
}

IBP_API u32 CMD_RegDisplayCmd(CMD_PROC_PFN pfnCmdProc, const CMD_ELEMENT_S *astCmdElem, u32 ulElemNum)
{
    if (pfnCmdProc == nullptr) {
        IBP_ERR("pfnCmdProc is NULL");
        return 1;
    }
    if (astCmdElem == nullptr || astCmdElem[0].szTitle[0] == '\0' || astCmdElem[0].enParamType != CMD_PARAM_TITLE) {
        IBP_ERR("invaild input param.");
        return 1;
    }
    CMD_ELEM_ARRAY astElem{};
    for (u32 i = 0; i < ulElemNum && i < CMD_MAX_ELEM_NUM; i++) {
        astElem[i] = astCmdElem[i];
        // The caller's array may not be terminated where we read it.
        astElem[i].szTitle[CMD_TITLE_LEN - 1] = '\0';
        astElem[i].szHelp[CMD_HELP_LEN - 1] = '\0';
    }
    // Without a finished CMD_Init there is no tree, lock or table to touch.
    CMD_NODE_S *pstRoot = CMD_FindRoot();
    if (pstRoot == nullptr || ghCmdTreeLock == nullptr) {
        IBP_ERR("cmd tree not initialized, call CMD_Init first");
        return 1;
    }
    IspMutexGuard stLock(ghCmdTreeLock);
    CMD_FULL_CMD_S *pstHead = CMD_FullCmdList();
    if (pstHead == nullptr) {
        IBP_ERR("cmd table not initialized, call CMD_Init first");
        return 1;
    }
    if (CMD_BuildCmdTree(pstRoot, astElem, pfnCmdProc) != 0) {
        IBP_ERR("build full cmd tree fail.");
        return 1;
    }
    char szFullCmd[CMD_FULL_CMD_LEN] = {};
    if (CMD_BuildFullCmd(astElem, szFullCmd) != 0) {
        IBP_ERR("build full cmd fail.");
        return 1;
    }
    auto *pstRow = static_cast<CMD_FULL_CMD_S *>(ISP_calloc(0, 1, sizeof(CMD_FULL_CMD_S)));
    if (pstRow == nullptr) {
        IBP_ERR("make new node fail.");
        return 1;
    }
    pstRow->pfnCmdProc = pfnCmdProc;
    memcpy(pstRow->szFullCmd, szFullCmd, sizeof(szFullCmd));
    CMD_AppendRow(pstHead, pstRow);
    return 0;
}

}  // extern "C"
