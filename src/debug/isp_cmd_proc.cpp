// The command service: its set-up (CMD_Init), the catch-all handler of
// "ISP_CMD" that answers the debug tool with the tree text or the output of a
// command, and the calls through which a display function reads its parameters.
//
// Threads: everything here runs on the thread of "ISP_CMD", one request at a
// time, so the request in hand, the result buffer and the parameters need no
// lock; only the walk of the tree takes ghCmdTreeLock, since registrations
// may come from any thread.
#include <array>
#include <cstring>

#include "common/cmd_display.h"
#include "debug/cmd_internal.h"
#include "ibp/isp_cmd.h"
#include "ibp/isp_module.h"
#include "ibp/isp_rawmsg.h"
#include "ibp/isp_sendmsg.h"
#include "ibp/isp_system.h"
#include "log/log_internal.h"
#include "platform/isp_system_internal.h"
#include "runtime/module_internal.h"

IBP_LOG_SOURCE("isp_cmd");

namespace {

constexpr char kOperateFail[] = "operate fail";
constexpr char kOperateSuccess[] = "operate success";
constexpr char kUnknownCmdType[] = "unknown cmd type";

// A clone of the request in hand, which the ack answers.
MSG_HANDLE ghCmdReqMsg;
// The parameters of the command in hand, in the order of the words.
std::array<std::array<char, CMD_TITLE_LEN>, CMD_MAX_PARAM_NUM> gaszCmdParam;

u32 CMD_SendAckMsg(const char *pcText, u32 ulLen)
{
    if (pcText == nullptr || ulLen == 0) {
        IBP_ERR("invalid input");
        return 1;
    }
    MSG_HANDLE hAck = MSG_Create(pcText, ulLen);
    if (hAck == nullptr) {
        IBP_ERR("MSG_Create fail");
        return 1;
    }
    if (MSG_SendAckMsg(ghCmdReqMsg, hAck) != 0) {
        IBP_ERR("send ack msg fail");
        MSG_Destroy(hAck);
        return 1;
    }
    MSG_Destroy(ghCmdReqMsg);
    ghCmdReqMsg = nullptr;
    return 0;
}

u32 CMD_SendText(const char *pcText) { return CMD_SendAckMsg(pcText, static_cast<u32>(ISP_strlen(pcText))); }

// The three lines of a node behind what the text holds; what does not fit is
// cut off.
u32 CMD_CmdNodeToString(const CMD_NODE_S *pstNode, CmdDisplay *pcCmdStr)
{
    if (pcCmdStr == nullptr) {
        IBP_ERR("pcCmdStr is NULL");
        return 1;
    }
    pcCmdStr->Append("%s\n", pstNode->szTitle);
    pcCmdStr->Append("%s\n", pstNode->szHelp);
    pcCmdStr->Append("%u\n", pstNode->ulChildNum);
    return 0;
}

// A node with all below it, then its later siblings, depth first. The
// siblings are walked in a loop rather than by recursion, so the depth of the
// stack follows the depth of the tree (at most 8), not its width.
u32 CMD_CmdTreeToString(const CMD_NODE_S *pstNode, CmdDisplay *pcCmdStr)
{
    if (pcCmdStr == nullptr) {
        IBP_ERR("pcCmdStr is NULL");
        return 1;
    }
    do {
        CMD_CmdNodeToString(pstNode, pcCmdStr);
        if (pstNode->ulChildNum != 0 && !CMD_IsEndNode(pstNode))
            CMD_CmdTreeToString(CMD_FirstChild(pstNode), pcCmdStr);
        pstNode = CMD_NextSibling(pstNode);
    } while (pstNode->bFirstChild == 0);
    return 0;
}

// Clears and hands out the result buffer; null before CMD_Init has made it,
// and then the request is answered "operate fail" without it.
char *CMD_TakeResultBuf()
{
    char *pcResult = CMD_ResultBuf();
    if (pcResult == nullptr) {
        IBP_ERR("cmd result buffer not ready");
        return nullptr;
    }
    memset(pcResult, 0, CMD_RESULT_BUF_LEN);
    return pcResult;
}

void CMD_GetCmdTree()
{
    char *pcResult = CMD_TakeResultBuf();
    u32 ulRet = 1;
    if (pcResult != nullptr && ghCmdTreeLock != nullptr && gstCmdRootList.pstNext != nullptr) {
        IspMutexGuard stLock(ghCmdTreeLock);
        CmdDisplay stText(pcResult, CMD_RESULT_BUF_LEN);
        for (MOD_LIST_S *p = gstCmdRootList.pstNext; p != &gstCmdRootList; p = p->pstNext) {
            const CMD_NODE_S *pstRoot = CMD_NodeOfSibling(p);
            CMD_CmdNodeToString(pstRoot, &stText);
            // A root without commands is a tree of one node.
            ulRet = pstRoot->ulChildNum == 0 ? 0 : CMD_CmdTreeToString(CMD_FirstChild(pstRoot), &stText);
            if (ulRet != 0) {
                IBP_ERR("convert cmd tree to string fail");
                break;
            }
        }
    }
    if ((ulRet != 0 ? CMD_SendText(kOperateFail) : CMD_SendText(pcResult)) != 0)
        IBP_ERR("send ack message fail");
}

// Runs the row of pcFullCmd into pcResult; false when there is no such row.
// A display function's failure is an answer, not a failure of this step.
bool CMD_ExecuteCmd(const char *pcFullCmd, char *pcResult)
{
    if (pcFullCmd == nullptr || pcFullCmd[0] == '\0') {
        IBP_ERR("%s", "pcFullCmd is NULL or empty");
        return false;
    }
    if (pcResult == nullptr) {
        IBP_ERR("pcResult is NULL");
        return false;
    }
    CMD_FULL_CMD_S *pstHead = CMD_FullCmdList();
    if (pstHead == nullptr)
        return false;
    CMD_PROC_PFN pfnCmdProc = nullptr;
    for (MOD_LIST_S *p = __atomic_load_n(&pstHead->stNode.pstNext, __ATOMIC_ACQUIRE); p != &pstHead->stNode;
         p = __atomic_load_n(&p->pstNext, __ATOMIC_ACQUIRE)) {
        const CMD_FULL_CMD_S *pstRow = MOD_ListEntry(p, &CMD_FULL_CMD_S::stNode);
        if (pstRow->pfnCmdProc != nullptr && ISP_strcmp(pstRow->szFullCmd, pcFullCmd) == 0) {
            pfnCmdProc = pstRow->pfnCmdProc;
            break;
        }
    }
    if (pfnCmdProc == nullptr)
        return false;
    u32 ulOutLen = CMD_RESULT_BUF_LEN;
    const u32 ulRet = pfnCmdProc(&ulOutLen, pcResult);
    // Whatever the function did, the answer stays a terminated text.
    pcResult[CMD_RESULT_BUF_LEN - 1] = '\0';
    // The room is taken from the text itself, not from the length that the
    // function reported, so that a wrong length cannot push the append past
    // the buffer.
    const size_t ulRoom = CMD_RESULT_BUF_LEN - 1 - ISP_strlen(pcResult);
    if (ulRet != 0)
        ISP_strncat(pcResult, kOperateFail, ulRoom);
    else if (ulOutLen == 0)
        ISP_strncat(pcResult, kOperateSuccess, ulRoom);
    return true;
}

// The parameters are what stands behind the last ">", split at ";" (empty
// pieces vanish), at most 7 of at most 31 characters. A copy with a NUL
// before its end is a text up to that NUL: with no ">" before it, it has no
// parameters.
void CMD_SplitParams(char *pcCopy)
{
    char *pcLast = strrchr(pcCopy, '>');
    if (pcLast == nullptr)
        return;
    char *pcSave = nullptr;
    u32 ulNum = 0;
    for (char *pcPiece = ISP_strtok_r(pcLast + 1, ";", &pcSave); pcPiece != nullptr && ulNum < CMD_MAX_PARAM_NUM;
         pcPiece = ISP_strtok_r(nullptr, ";", &pcSave))
        ISP_strncpy(gaszCmdParam[ulNum++].data(), pcPiece, CMD_TITLE_LEN - 1);
}

void CMD_ProcCmd(const char *pcBody, u32 ulLen)
{
    char *pcCopy = nullptr;
    if (pcBody == nullptr || ulLen == 0) {
        IBP_ERR("input param invalid");
    } else if ((pcCopy = static_cast<char *>(ISP_calloc(0, 1, static_cast<size_t>(ulLen) + 1))) == nullptr) {
        IBP_ERR("calloc %u fail", ulLen + 1);
    } else {
        gaszCmdParam = {};
        memcpy(pcCopy, pcBody, ulLen);
        // The full command ends just behind the first ">", or at the first NUL.
        u32 ulEnd = 0;
        while (ulEnd < ulLen && pcCopy[ulEnd] != '\0' && pcCopy[ulEnd++] != '>') {
        }
        if (ulEnd < ulLen)
            CMD_SplitParams(pcCopy);
        pcCopy[ulEnd] = '\0';
        char *pcResult = CMD_TakeResultBuf();
        if (pcResult != nullptr && CMD_ExecuteCmd(pcCopy, pcResult)) {
            if (CMD_SendText(pcResult) != 0)
                IBP_ERR("fail to send success-response");
            ISP_free(&pcCopy);
            return;
        }
        IBP_ERR("execute cmd fail");
    }
    if (CMD_SendText(kOperateFail) != 0)
        IBP_ERR("fail to send fail-response.");
    ISP_free(&pcCopy);
}

// An ack that reaches the handler is never answered: answering acks would let
// one crafted datagram (an ack from "ISP_CMD" to "ISP_CMD") keep the service
// answering its own answers for ever.
bool CMD_IsAck(MSG_HANDLE hMsg)
{
    if (hMsg->pMem == nullptr || hMsg->ulLen < MSG_HDR_LEN)
        return false;
    const auto *pstHdr = static_cast<const MSG_HDR_S *>(hMsg->pMem);
    if (pstHdr->enMsgType != MSG_TYPE_SYNC_ACK && pstHdr->enMsgType != MSG_TYPE_ASYNC_ACK)
        return false;
    IBP_WRN("drop ack msg: id=%#x assId=%#x type=%u src=[%#x %#x] dst=[%#x %#x]", pstHdr->ulMsgID,
            pstHdr->ulAssMsgID, pstHdr->enMsgType, pstHdr->ulSrcProcID, pstHdr->ulSrcModuleID,
            pstHdr->ulDstProcID, pstHdr->ulDstModuleID);
    return true;
}

// True while an earlier set-up serves requests: its table is there and its
// handler sits on a running "ISP_CMD". After MOD_SysDestroy (or CMD_Destroy)
// a new set-up may replace it.
bool CMD_ServiceRunning()
{
    if (CMD_FullCmdList() == nullptr)
        return false;
    MOD_MODULE_S *pstModule = MOD_GetModuleByID(MOD_ID_ISP_CMD);
    MOD_MSG_PROC_COPY_S stProc{};
    return pstModule != nullptr && MOD_FindMsgProc(&pstModule->stMsgProcCtrl, 0, &stProc) &&
           stProc.pfnMsgProc == CMD_ProcMsg;
}

}  // namespace

extern "C" {

IBP_API u32 CMD_Init(void)
{
    // A second set-up would pull the tree from under the running service.
    if (CMD_ServiceRunning()) {
        IBP_ERR("cmd tree is initialized already, call CMD_Destroy first");
        return 1;
    }
    if (CMD_TreeSetUp() != 0)
        return 1;
    // The table goes live before the handler, so that a request never finds
    // the handler without its table; the result buffer comes last, and a
    // request that arrives before it is answered "operate fail".
    if (MOD_RegMsgProc(MOD_ID_ISP_CMD, 0, CMD_ProcMsg, nullptr) != 0) {
        IBP_ERR("register message proc fail");
        CMD_TreeDropTable();
        return 1;
    }
    if (CMD_MakeResultBuf() != 0) {
        CMD_TreeDropTable();
        return 1;
    }
    return 0;
}

IBP_API u32 CMD_ProcMsg(u32 ulMsgID, MSG_HANDLE hReqMsg, void *pParam)
{
    (void)pParam;
    if (hReqMsg == nullptr) {
        IBP_ERR("hReqMsg is invalid");
        return 0;
    }
    if (CMD_IsAck(hReqMsg))
        return 0;
    if (ghCmdReqMsg != nullptr) {  // a former ack could not be sent
        MSG_Destroy(ghCmdReqMsg);
        ghCmdReqMsg = nullptr;
    }
    ghCmdReqMsg = MSG_Clone(hReqMsg);
    if (ghCmdReqMsg == nullptr) {
        IBP_ERR("MSG_Clone fail");
        return 0;
    }
    void *pBody = nullptr;
    u32 ulBodyLen = 0;
    if (MSG_Decode(hReqMsg, &pBody, &ulBodyLen) != 0) {
        IBP_ERR("msg decode fail");
        if (CMD_SendText(kOperateFail) != 0)
            IBP_ERR("CMD_SendAckMsg fail");
        return 0;
    }
    switch (ulMsgID) {
        case CMD_MSG_GET_TREE:
            CMD_GetCmdTree();
            break;
        case CMD_MSG_EXEC_CMD:
            CMD_ProcCmd(static_cast<const char *>(pBody), ulBodyLen);
            break;
        default:
            IBP_WRN("unknown msg %u", ulMsgID);
            (void)CMD_SendText(kUnknownCmdType);
            break;
    }
    return 0;
}

IBP_API u32 CMD_GetParamNumFromMsg(const void *pParamMsg, u32 *pulParamNum)
{
    if (pParamMsg == nullptr) {
        IBP_ERR("pParamMsg is NULL");
        return 1;
    }
    if (pulParamNum == nullptr) {
        IBP_ERR("pulParamNum is NULL");
        return 1;
    }
    u32 ulNum = 0;
    while (ulNum < CMD_MAX_PARAM_NUM && gaszCmdParam[ulNum][0] != '\0')
        ulNum++;
    *pulParamNum = ulNum;
    IBP_DBG("*pulParamNum : %u", ulNum);
    return 0;
}

IBP_API u32 CMD_GetParamInfoFromMsg(u32 ulParaSeq, const void *pParamMsg, char **ppcParaInfo)
{
    (void)pParamMsg;
    if (ppcParaInfo == nullptr || ulParaSeq < 1 || ulParaSeq > CMD_MAX_PARAM_NUM) {
        IBP_ERR("Param illegal, ppcParaInfo:%p, ulParaSeq:%u", static_cast<void *>(ppcParaInfo), ulParaSeq);
        return 1;
    }
    *ppcParaInfo = gaszCmdParam[ulParaSeq - 1].data();
    IBP_DBG("ParaInfo : %s", *ppcParaInfo);
    return 0;
}

}  // extern "C"
