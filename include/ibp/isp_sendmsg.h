/* Sending: synchronous requests with their acks, one-way messages, acks and
 * forwards between modules of one process or of the two processes; and the
 * application calls that carry a plain ISP_MSG_S record as the body.
 *
 * Ownership after the call: on success the runtime owns the message, except
 * the ack that MSG_SendSyncMsg hands back, which the caller frees with
 * MSG_Destroy. On failure MSG_SendAsyncMsg has already destroyed the message;
 * the other calls leave it with the caller. */
#ifndef IBP_ISP_SENDMSG_H
#define IBP_ISP_SENDMSG_H

#include "ibp/isp_rawmsg.h"
#include "ibp/isp_types.h"

IBP_EXTERN_C_BEGIN

IBP_API u32 MSG_ConfigHdr(MSG_HANDLE hMsg, u32 ulSrcModuleID, u32 ulDstModuleID,
                          MSG_TYPE_E enMsgType, u32 ulMsgID);
/* Blocks the calling thread until the ack comes or the time-out (ms, counted in
 * 10 ms steps) runs out. */
IBP_API u32 MSG_SendSyncMsg(u32 ulDstModuleID, u32 ulMsgID, MSG_HANDLE hReqMsg, u32 ulTimeout,
                            MSG_HANDLE *phAckMsg);
IBP_API u32 MSG_SendAsyncMsg(u32 ulDstModuleID, u32 ulMsgID, MSG_HANDLE hReqMsg);
IBP_API u32 MSG_SendAckMsg(MSG_HANDLE hReqMsg, MSG_HANDLE hAckMsg);
IBP_API u32 MSG_ForwardMsg(u32 ulDstModuleID, MSG_HANDLE hReqMsg);

/* The application message: a 24-byte head and ulBodyLen bytes, laid out in the
 * caller's memory exactly as it travels as a message body. */
#define ISP_MSG_HDR_LEN 24u
#define ISP_MSG_MAX_BODY_LEN (MOD_BUF_MAX_LEN - 1u - MSG_HDR_LEN - ISP_MSG_HDR_LEN)

typedef struct {
    u32 ulDstModuleID;
    u32 ulAppWord1;
    u32 ulAppWord2;
    u32 ulResult; /* in a synchronous ack: 0, or what the requester's call returns */
    u32 ulMsgID;
    u32 ulBodyLen;
    u8 aucBody[];
} ISP_MSG_S;

/* The request stays the caller's. A record returned through ppstAckMsg is a
 * heap block for ISP_free. Returns 0, 1, or the ack's ulResult. */
IBP_API u32 ISP_SendSyncMsg(const ISP_MSG_S *pstReqMsg, u32 ulTimeout, ISP_MSG_S **ppstAckMsg);
IBP_API u32 ISP_SendAsyncMsg(const ISP_MSG_S *pstReqMsg);
IBP_API u32 ISP_SendAckMsg(MSG_HANDLE hReqMsg, const void *pMem, u32 ulMemLen);
/* 1 when ulLen is the record's head plus its ulBodyLen, else 0. */
IBP_API u32 ISP_IsMsgValid(const ISP_MSG_S *pstMsg, u32 ulLen);

IBP_EXTERN_C_END

#endif /* IBP_ISP_SENDMSG_H */
