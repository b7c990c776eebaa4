/** @file
 * Sending: synchronous requests with their acks, one-way messages, acks and
 * forwards between modules of one process or of the two processes; and the
 * application calls that carry a plain ISP_MSG_S record as the body.
 *
 * Who owns a message after each call:
 * | call             | success                       | failure                                  |
 * |------------------|-------------------------------|------------------------------------------|
 * | MSG_SendSyncMsg  | the runtime; the ack handed   | before the request was queued: the       |
 * |                  | back is the caller's          | caller's; after (time-out, the module    |
 * |                  | (MSG_Destroy)                 | went away): the runtime's                |
 * | MSG_SendAsyncMsg | the runtime                   | destroyed by the call                    |
 * | MSG_SendAckMsg   | the runtime                   | the caller's                             |
 * | MSG_ForwardMsg   | the runtime                   | the caller's                             |
 * The ISP_ calls copy the caller's record into a message of their own and
 * keep these rules for it themselves: the record stays the caller's. */
#ifndef IBP_ISP_SENDMSG_H
#define IBP_ISP_SENDMSG_H

#include "ibp/isp_rawmsg.h"
#include "ibp/isp_types.h"

IBP_EXTERN_C_BEGIN

/** Fills in the header of a message: prefix, type, identifier, the source
 * and destination modules and their processes, and a new association
 * identifier of the source module. Returns 0 or 1. */
IBP_API u32 MSG_ConfigHdr(MSG_HANDLE hMsg, u32 ulSrcModuleID, u32 ulDstModuleID,
                          MSG_TYPE_E enMsgType, u32 ulMsgID);
/** Sends a synchronous request and blocks the calling thread until the ack
 * comes, the time-out (ms, counted in 10 ms steps) runs out, or the module of
 * this process that holds the request goes away. The ack, stored in
 * *phAckMsg, is the caller's (MSG_Destroy). Returns 0 or 1. A failure before
 * the request was queued (bad argument, no such module, no current module)
 * leaves hReqMsg with the caller; a time-out or a module gone leaves it with
 * the runtime, which frees it. */
IBP_API u32 MSG_SendSyncMsg(u32 ulDstModuleID, u32 ulMsgID, MSG_HANDLE hReqMsg, u32 ulTimeout,
                            MSG_HANDLE *phAckMsg);
/** Sends a one-way message. Returns 0 or 1; the message is the runtime's
 * either way: a refused one has been destroyed. */
IBP_API u32 MSG_SendAsyncMsg(u32 ulDstModuleID, u32 ulMsgID, MSG_HANDLE hReqMsg);
/** Sends hAckMsg as the answer to the request hReqMsg, back to its sender.
 * Returns 0 or 1; on failure hAckMsg is still the caller's, and hReqMsg is
 * never taken. */
IBP_API u32 MSG_SendAckMsg(MSG_HANDLE hReqMsg, MSG_HANDLE hAckMsg);
/** Passes a message on to another module registered in this process, the
 * header kept but for the destination. Returns 0 or 1; on failure the
 * message is still the caller's. A handler forwards a clone (MSG_Clone) of
 * the message it got, which stays the runtime's. */
IBP_API u32 MSG_ForwardMsg(u32 ulDstModuleID, MSG_HANDLE hReqMsg);

/** Bytes of the head of an application message. */
#define ISP_MSG_HDR_LEN 24u
/** Largest body of an application message: what is left of a message block. */
#define ISP_MSG_MAX_BODY_LEN (MOD_BUF_MAX_LEN - 1u - MSG_HDR_LEN - ISP_MSG_HDR_LEN)

/* C++ has flexible array members only as an extension of GCC and clang; the
 * record is the same in both languages, so -pedantic need not say so. */
#if defined(__cplusplus) && defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
#endif
/** The application message: a 24-byte head and ulBodyLen bytes, laid out in
 * the caller's memory exactly as it travels as a message body. */
typedef struct {
    u32 ulDstModuleID; /**< module that receives it */
    u32 ulAppWord1;    /**< the application's, carried unchanged */
    u32 ulAppWord2;    /**< the application's, carried unchanged */
    u32 ulResult;      /**< in a synchronous ack: 0, or what the requester's call returns */
    u32 ulMsgID;       /**< message identifier: selects the handler */
    u32 ulBodyLen;     /**< bytes of aucBody */
    u8 aucBody[];      /**< the body */
} ISP_MSG_S;
#if defined(__cplusplus) && defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

/** Sends pstReqMsg as a synchronous request to its ulDstModuleID and waits
 * at most ulTimeout ms. The request stays the caller's. The ack, a heap block
 * for ISP_free, is stored through ppstAckMsg. Returns 0, 1, or the ack's
 * ulResult. */
IBP_API u32 ISP_SendSyncMsg(const ISP_MSG_S *pstReqMsg, u32 ulTimeout, ISP_MSG_S **ppstAckMsg);
/** Sends pstReqMsg one way to its ulDstModuleID; the record stays the
 * caller's. Returns 0 or 1. */
IBP_API u32 ISP_SendAsyncMsg(const ISP_MSG_S *pstReqMsg);
/** From a handler: answers the request hReqMsg with ulMemLen bytes at pMem,
 * usually an ISP_MSG_S. Returns 0 or 1. */
IBP_API u32 ISP_SendAckMsg(MSG_HANDLE hReqMsg, const void *pMem, u32 ulMemLen);
/** 1 when ulLen is the record's head plus its ulBodyLen, else 0. */
IBP_API u32 ISP_IsMsgValid(const ISP_MSG_S *pstMsg, u32 ulLen);

IBP_EXTERN_C_END

#endif /* IBP_ISP_SENDMSG_H */
