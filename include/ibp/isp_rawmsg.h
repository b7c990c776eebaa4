/** @file
 * The message block (48-byte header and opaque body), the buffer that holds
 * it, and the operations on a message that need no module.
 *
 * Ownership: a message made by MSG_Create or MSG_Clone is the caller's until
 * a send call takes it; a message passed to a handler is the runtime's, which
 * frees it when the handler returns (clone it to keep it). */
#ifndef IBP_ISP_RAWMSG_H
#define IBP_ISP_RAWMSG_H

#include "ibp/isp_types.h"

IBP_EXTERN_C_BEGIN

#define MSG_PREFIX 0xdf122335u /**< first word of every message block; marks its start in a stream */
#define MSG_HDR_LEN 48u         /**< bytes of MSG_HDR_S */
#define MOD_BUF_MAX_LEN 8192u   /**< a message block is shorter than this: at most 8191 bytes */

/** Kind of a message, in MSG_HDR_S.enMsgType. */
typedef enum {
    MSG_TYPE_SYNC_REQ = 0,  /**< a request whose sender waits for its ack */
    MSG_TYPE_SYNC_ACK = 1,  /**< the ack of a synchronous request */
    MSG_TYPE_ASYNC_REQ = 2, /**< a one-way message */
    MSG_TYPE_ASYNC_ACK = 3, /**< an answer to anything but a synchronous request */
    MSG_TYPE_INVALID = 5    /**< what MSG_ConfigHdr puts in place of an unknown type */
} MSG_TYPE_E;

/** Header of a message block. Layout in memory and on the wire, in the byte
 * order of the machine. */
typedef struct {
    u32 ulPrefix;      /**< MSG_PREFIX */
    u32 enMsgType;     /**< MSG_TYPE_E, kept 32 bits wide on every ABI */
    u32 ulMsgID;       /**< chosen by the application; selects the handler; an ack keeps its request's */
    u32 ulAssMsgID;    /**< drawn from the sending module's counter; an ack carries its request's */
    u32 ulMsgLen;      /**< bytes of the whole block, header included */
    u32 ulMsgBodyLen;  /**< bytes of the body: ulMsgLen - MSG_HDR_LEN */
    u32 ulSrcModuleID; /**< sending module */
    u32 ulDstModuleID; /**< destination module */
    u32 ulSrcProcID;   /**< sending process */
    u32 ulDstProcID;   /**< destination process */
    u32 ulPeerAddr;    /**< IPv4 address of the sender once received over the socket; network byte order */
    u16 usPeerPort;    /**< UDP port of the sender, likewise; network byte order */
    u16 usReserved;    /**< neither set nor read */
} MSG_HDR_S;

/** Link of the circular doubly linked lists; an empty head points at itself. */
typedef struct MOD_LIST_S {
    struct MOD_LIST_S *pstNext; /**< next link, or the head */
    struct MOD_LIST_S *pstPrev; /**< previous link, or the head */
} MOD_LIST_S;

/** One heap block; a message handle points at the MOD_BUF_S of its block. */
typedef struct {
    void *pMem;        /**< the block: a message header and its body */
    u32 ulLen;         /**< bytes of the block */
    MOD_LIST_S stNode; /**< link in the queue that holds the buffer */
} MOD_BUF_S;

/** A message: the buffer that holds its block. */
typedef MOD_BUF_S *MSG_HANDLE;

/** A buffer with a block of ulLen bytes (below MOD_BUF_MAX_LEN), or null. */
IBP_API MOD_BUF_S *MOD_GetBuf(u32 ulLen);
/** Frees a buffer of MOD_GetBuf with its block; null is ignored. */
IBP_API void MOD_FreeBuf(MOD_BUF_S *pstModBuf);

/** A message whose body is a copy of ulMemLen bytes (at least 1) at pMem,
 * the caller's until a send call takes it; or null. Of the header only the
 * lengths are set: the send calls fill in the rest. */
IBP_API MSG_HANDLE MSG_Create(const void *pMem, u32 ulMemLen);
/** Frees a message; null is ignored. */
IBP_API void MSG_Destroy(MSG_HANDLE hMsg);
/** A copy of a message, header and body, for the caller; or null. */
IBP_API MSG_HANDLE MSG_Clone(MSG_HANDLE hMsg);
/** Stores the address and length of a message's body. Returns 0 or 1. */
IBP_API u32 MSG_Decode(MSG_HANDLE hMsg, void **ppMemAddr, u32 *pulMemLen);
/** Stores the association identifier of a message's header. Returns 0 or 1. */
IBP_API u32 MSG_GetAssMsgID(MSG_HANDLE hMsg, u32 *pulAssMsgID);
/** Checks 48 bytes that claim to be a header (ulSize must be MSG_HDR_LEN):
 * the prefix and the two lengths. Returns 0 for a header that can be taken,
 * 1 otherwise. */
IBP_API u32 MSG_CheckHdr(const char *pcMsgHdr, u32 ulSize);

IBP_EXTERN_C_END

#endif /* IBP_ISP_RAWMSG_H */
