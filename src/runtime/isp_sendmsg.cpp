// Sending primitives (header set-up, sync, async, ack, forward) and the
// application calls over ISP_MSG_S records.
#include "ibp/isp_sendmsg.h"

#include <cstring>

#include "ibp/isp_module.h"
#include "ibp/isp_system.h"
#include "log/log_internal.h"
#include "runtime/mod_stat.h"
#include "runtime/module_internal.h"
#include "runtime/sendmsg_internal.h"

IBP_LOG_SOURCE("isp_sendmsg");

namespace {

constexpr u32 kSyncStepMs = 10;

MSG_HDR_S *HdrOf(MSG_HANDLE hMsg) { return static_cast<MSG_HDR_S *>(hMsg->pMem); }

// Destroys a message at scope end.
class MsgGuard {
public:
    explicit MsgGuard(MSG_HANDLE hMsg) : hMsg_(hMsg) {}
    ~MsgGuard() { MSG_Destroy(hMsg_); }
    MsgGuard(const MsgGuard &) = delete;
    MsgGuard &operator=(const MsgGuard &) = delete;

private:
    MSG_HANDLE hMsg_;
};

// Waits for the request's ack on the waiter's own semaphore, woken by its
// delivery, or by its failure when the module that holds the request (or the
// caller's own) goes away. The time-out is still counted in whole 10 ms
// steps, at least one: 0 waits 10 ms, 25 waits 30, and the record says so.
u32 MSG_WaitAck(MOD_MODULE_S *pstModule, MOD_ACK_WAITER_S *pstWaiter, u32 ulMsgID, u32 ulDstModuleID,
                u32 ulTimeout, MSG_HANDLE *phAckMsg)
{
    const u64 ullSteps = (static_cast<u64>(ulTimeout) + kSyncStepMs - 1) / kSyncStepMs;
    const u64 ullWaitMs = (ullSteps == 0 ? 1 : ullSteps) * kSyncStepMs;
    (void)MOD_SemWaitFor(&pstWaiter->stSem, ullWaitMs);
    // An ack that came just at the deadline still counts.
    MOD_BUF_S *pstAck = MOD_DelAckWaiter(pstModule, pstWaiter);
    if (pstAck != nullptr) {
        *phAckMsg = pstAck;
        return 0;
    }
    if (pstWaiter->bFailed) {
        MOD_StatAdd(&MOD_ProcStat().ulSyncFailed);
        IBP_ERR("wait ack message fail! the module went away msgId=%#x assMsgId=%#x module=[%#x to %#x]", ulMsgID,
                pstWaiter->ulAssMsgID, pstModule->ulModuleID, ulDstModuleID);
        return 1;
    }
    MOD_StatAdd(&MOD_ProcStat().ulSyncTimedOut);
    const u32 ulWaited = ullWaitMs > UINT32_MAX ? UINT32_MAX : static_cast<u32>(ullWaitMs);
    IBP_ERR("wait ack message timeout! waitTime=%u timeoutTime=%u msgId=%#x assMsgId=%#x module=[%#x to %#x]",
            ulWaited, ulTimeout, ulMsgID, pstWaiter->ulAssMsgID, pstModule->ulModuleID, ulDstModuleID);
    return 1;
}

// Length of an application record with its head, saturated so that a huge
// ulBodyLen is refused as too big instead of wrapping round to a small one.
u32 ISP_RecordLen(const ISP_MSG_S *pstMsg)
{
    u64 ullLen = static_cast<u64>(pstMsg->ulBodyLen) + ISP_MSG_HDR_LEN;
    return ullLen > UINT32_MAX ? UINT32_MAX : static_cast<u32>(ullLen);
}

}  // namespace

u32 MSG_SendSyncMsgEx(u32 ulDstModuleID, u32 ulMsgID, MSG_HANDLE hReqMsg, u32 ulTimeout,
                      MSG_HANDLE *phAckMsg, bool *pbQueued)
{
    *pbQueued = false;
    if (hReqMsg == nullptr) {
        IBP_ERR("hReqMsg is invalid");
        return 1;
    }
    if (phAckMsg == nullptr) {
        IBP_ERR("phAckMsg is NULL!");
        return 1;
    }
    MOD_MODULE_S *pstModule = MOD_GetCurWorkModule();
    if (pstModule == nullptr) {
        IBP_ERR("get current work module fail");
        return 1;
    }
    u32 ulRet = MSG_ConfigHdr(hReqMsg, pstModule->ulModuleID, ulDstModuleID, MSG_TYPE_SYNC_REQ, ulMsgID);
    if (ulRet != 0) {
        IBP_ERR("config message header fail! ulRet=%u", ulRet);
        return 1;
    }
    u32 ulAssMsgID = 0;
    ulRet = MSG_GetAssMsgID(hReqMsg, &ulAssMsgID);
    if (ulRet != 0) {
        IBP_ERR("get ass message id fail! ulRet=%u", ulRet);
        return 1;
    }
    // Listed before the request goes out, so that no ack can come first.
    MOD_ACK_WAITER_S stWaiter;
    MOD_AddAckWaiter(pstModule, &stWaiter, ulAssMsgID);
    ulRet = MOD_RouteMsg(pstModule, hReqMsg, &stWaiter);
    if (ulRet != 0) {
        IBP_ERR("send message to module fail! ulRet=%u", ulRet);
        (void)MOD_DelAckWaiter(pstModule, &stWaiter);
        return 1;
    }
    *pbQueued = true;  // from here on the request is the runtime's
    return MSG_WaitAck(pstModule, &stWaiter, ulMsgID, ulDstModuleID, ulTimeout, phAckMsg);
}

extern "C" {

IBP_API u32 MSG_ConfigHdr(MSG_HANDLE hMsg, u32 ulSrcModuleID, u32 ulDstModuleID, MSG_TYPE_E enMsgType,
                          u32 ulMsgID)
{
    if (hMsg == nullptr) {
        IBP_ERR("hMsg is invalid");
        return 1;
    }
    u32 ulType = static_cast<u32>(enMsgType);
    if (ulType > MSG_TYPE_INVALID) {
        IBP_ERR("enMsgType %d is invalid", ulType);
        ulType = MSG_TYPE_INVALID;
    }
    if (hMsg->pMem == nullptr || hMsg->ulLen < MSG_HDR_LEN) {
        IBP_ERR("pstMsgHdr is NULL");
        return 1;
    }
    MOD_MODULE_S *pstSrc = MOD_GetModuleByID(ulSrcModuleID);
    if (pstSrc == nullptr) {
        IBP_ERR("get module info by id %#x failed", ulSrcModuleID);
        return 1;
    }
    MOD_MODULE_CFG_S *pstDstCfg = MOD_GetModuleCfgByID(ulDstModuleID);
    if (pstDstCfg == nullptr) {
        IBP_ERR("get module cfg by id %#x failed", ulDstModuleID);
        return 1;
    }
    MSG_HDR_S *pstHdr = HdrOf(hMsg);
    pstHdr->ulPrefix = MSG_PREFIX;
    pstHdr->enMsgType = ulType;
    pstHdr->ulMsgID = ulMsgID;
    pstHdr->ulAssMsgID = MOD_DrawAssMsgID(pstSrc);
    pstHdr->ulMsgLen = hMsg->ulLen;
    pstHdr->ulMsgBodyLen = hMsg->ulLen - MSG_HDR_LEN;
    pstHdr->ulSrcModuleID = ulSrcModuleID;
    pstHdr->ulDstModuleID = ulDstModuleID;
    pstHdr->ulSrcProcID = pstSrc->ulProcID;
    pstHdr->ulDstProcID = pstDstCfg->ulProcID;
    pstHdr->ulPeerAddr = 0;
    pstHdr->usPeerPort = 0;
    return 0;
}

IBP_API u32 MSG_SendSyncMsg(u32 ulDstModuleID, u32 ulMsgID, MSG_HANDLE hReqMsg, u32 ulTimeout,
                            MSG_HANDLE *phAckMsg)
{
    bool bQueued = false;
    return MSG_SendSyncMsgEx(ulDstModuleID, ulMsgID, hReqMsg, ulTimeout, phAckMsg, &bQueued);
}

IBP_API u32 MSG_SendAsyncMsg(u32 ulDstModuleID, u32 ulMsgID, MSG_HANDLE hReqMsg)
{
    if (hReqMsg == nullptr) {
        IBP_ERR("hReqMsg is invalid");
        return 1;
    }
    MOD_MODULE_S *pstModule = MOD_GetCurWorkModule();
    if (pstModule == nullptr) {
        IBP_ERR("get current work module failed!");
        MSG_Destroy(hReqMsg);
        return 1;
    }
    if (MSG_ConfigHdr(hReqMsg, pstModule->ulModuleID, ulDstModuleID, MSG_TYPE_ASYNC_REQ, ulMsgID) != 0) {
        IBP_ERR("config message header fail!");
        MSG_Destroy(hReqMsg);
        return 1;
    }
    if (MOD_SendMsgProc(pstModule, hReqMsg) != 0) {
        IBP_ERR("module %#x send message to module %#x fail", pstModule->ulModuleID, ulDstModuleID);
        MSG_Destroy(hReqMsg);
        return 1;
    }
    return 0;
}

IBP_API u32 MSG_SendAckMsg(MSG_HANDLE hReqMsg, MSG_HANDLE hAckMsg)
{
    if (hReqMsg == nullptr || hReqMsg->pMem == nullptr || hReqMsg->ulLen < MSG_HDR_LEN) {
        IBP_ERR("hReqMsg is invalid");
        return 1;
    }
    if (hAckMsg == nullptr) {
        IBP_ERR("hAckMsg is invalid");
        return 1;
    }
    const MSG_HDR_S stReq = *HdrOf(hReqMsg);
    MOD_MODULE_S *pstModule = MOD_GetModuleByID(stReq.ulDstModuleID);
    if (pstModule == nullptr) {
        IBP_ERR("get module by id %#x fail", stReq.ulDstModuleID);
        return 1;
    }
    MSG_TYPE_E enType = stReq.enMsgType == MSG_TYPE_SYNC_REQ ? MSG_TYPE_SYNC_ACK : MSG_TYPE_ASYNC_ACK;
    u32 ulRet = MSG_ConfigHdr(hAckMsg, pstModule->ulModuleID, stReq.ulSrcModuleID, enType, stReq.ulMsgID);
    if (ulRet != 0) {
        IBP_ERR("config message header fail! ulRet=%u", ulRet);
        return 1;
    }
    // The request's source may be the process module, which the header set-up
    // resolved to this process: the ack goes back to the request's process.
    MSG_HDR_S *pstAck = HdrOf(hAckMsg);
    pstAck->ulAssMsgID = stReq.ulAssMsgID;
    pstAck->ulDstProcID = stReq.ulSrcProcID;
    pstAck->ulPeerAddr = stReq.ulPeerAddr;
    pstAck->usPeerPort = stReq.usPeerPort;
    u32 ulSrc = pstAck->ulSrcModuleID, ulId = pstAck->ulMsgID, ulDst = pstAck->ulDstModuleID;
    if (MOD_SendMsgProc(pstModule, hAckMsg) != 0) {
        IBP_ERR("module %#x send message %#x to %#x fail", ulSrc, ulId, ulDst);
        return 1;
    }
    return 0;
}

IBP_API u32 MSG_ForwardMsg(u32 ulDstModuleID, MSG_HANDLE hReqMsg)
{
    if (hReqMsg == nullptr) {
        IBP_ERR("hReqMsg is invalid");
        return 1;
    }
    MOD_MODULE_S *pstCur = MOD_GetCurWorkModule();
    if (pstCur == nullptr) {
        IBP_ERR("get current work module fail");
        return 1;
    }
    MOD_MODULE_S *pstDst = MOD_GetModuleByID(ulDstModuleID);
    if (pstDst == nullptr) {
        IBP_ERR("get dest module by id %#x fail", ulDstModuleID);
        return 1;
    }
    if (hReqMsg->pMem == nullptr || hReqMsg->ulLen < MSG_HDR_LEN) {
        IBP_ERR("get request message header fail");
        return 1;
    }
    MSG_HDR_S *pstHdr = HdrOf(hReqMsg);
    pstHdr->ulDstModuleID = pstDst->ulModuleID;
    pstHdr->ulDstProcID = pstDst->ulProcID;
    IBP_DBG("forword message %#x from module %#x to %#x", pstHdr->ulMsgID, pstHdr->ulSrcModuleID,
            pstDst->ulModuleID);
    u32 ulSrc = pstHdr->ulSrcModuleID, ulDst = pstHdr->ulDstModuleID;
    if (MOD_SendMsgProc(pstCur, hReqMsg) != 0) {
        IBP_ERR("module %#x send message to %#x fail", ulSrc, ulDst);
        return 1;
    }
    return 0;
}

// ---------------------------------------------------------------- application records

IBP_API u32 ISP_SendSyncMsg(const ISP_MSG_S *pstReqMsg, u32 ulTimeout, ISP_MSG_S **ppstAckMsg)
{
    if (pstReqMsg == nullptr) {
        IBP_ERR("pstReqMsg is NULL");
        return 1;
    }
    if (ppstAckMsg == nullptr) {
        IBP_ERR("ppstAckMsg is NULL");
        return 1;
    }
    u32 ulReqLen = ISP_RecordLen(pstReqMsg);
    MSG_HANDLE hReq = MSG_Create(pstReqMsg, ulReqLen);
    if (hReq == nullptr) {
        IBP_ERR("create raw message fail!");
        return 1;
    }
    MSG_HANDLE hAck = nullptr;
    bool bQueued = false;
    if (MSG_SendSyncMsgEx(pstReqMsg->ulDstModuleID, pstReqMsg->ulMsgID, hReq, ulTimeout, &hAck, &bQueued) != 0) {
        IBP_ERR("send sync raw message fail");
        if (!bQueued)
            MSG_Destroy(hReq);  // never handed over: still ours to free
        return 1;
    }
    const MsgGuard stAckGuard(hAck);  // the copy below is the caller's; the message is not
    void *pBody = nullptr;
    u32 ulAckLen = 0;
    if (MSG_Decode(hAck, &pBody, &ulAckLen) != 0) {
        IBP_ERR("raw message decode fail!");
        return 1;
    }
    const auto *pstAck = static_cast<const ISP_MSG_S *>(pBody);
    if (ulAckLen != ulReqLen || pstAck->ulMsgID != pstReqMsg->ulMsgID)
        return 1;
    if (pstAck->ulResult != 0)
        return pstAck->ulResult;
    void *pCopy = ISP_malloc(0, ulAckLen);
    *ppstAckMsg = static_cast<ISP_MSG_S *>(pCopy);
    if (pCopy == nullptr)
        return 1;
    memcpy(pCopy, pstAck, ulAckLen);
    return 0;
}

IBP_API u32 ISP_SendAsyncMsg(const ISP_MSG_S *pstReqMsg)
{
    if (pstReqMsg == nullptr) {
        IBP_ERR("pstReqMsg is NULL");
        return 1;
    }
    MSG_HANDLE hReq = MSG_Create(pstReqMsg, ISP_RecordLen(pstReqMsg));
    if (hReq == nullptr) {
        IBP_ERR("create raw message fail");
        return 1;
    }
    return MSG_SendAsyncMsg(pstReqMsg->ulDstModuleID, pstReqMsg->ulMsgID, hReq);
}

IBP_API u32 ISP_SendAckMsg(MSG_HANDLE hReqMsg, const void *pMem, u32 ulMemLen)
{
    // Named before the body, in argument order; MSG_SendAckMsg checks the rest.
    if (hReqMsg == nullptr) {
        IBP_ERR("hReqMsg is invalid");
        return 1;
    }
    MSG_HANDLE hAck = MSG_Create(pMem, ulMemLen);
    if (hAck == nullptr) {
        IBP_ERR("create raw message fail");
        return 1;
    }
    u32 ulRet = MSG_SendAckMsg(hReqMsg, hAck);
    if (ulRet != 0)
        MSG_Destroy(hAck);
    return ulRet;
}

IBP_API u32 ISP_IsMsgValid(const ISP_MSG_S *pstMsg, u32 ulLen)
{
    if (pstMsg == nullptr) {
        IBP_ERR("pstMsg is NULL");
        return 0;
    }
    if (ulLen < ISP_MSG_HDR_LEN)
        return 0;
    return static_cast<u64>(pstMsg->ulBodyLen) + ISP_MSG_HDR_LEN == ulLen ? 1 : 0;
}

}  // extern "C"
