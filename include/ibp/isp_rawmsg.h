/* The message block (48-byte header and opaque body), the buffer that holds
 * it, and the operations on a message that need no module.
 *
 * Ownership: a message made by MSG_Create or MSG_Clone is the caller's until
 * a send call takes it; a message passed to a handler is the runtime's, which
 * frees it when the handler returns (clone it to keep it). */
#ifndef IBP_ISP_RAWMSG_H
#define IBP_ISP_RAWMSG_H

#include "ibp/isp_types.h"

IBP_EXTERN_C_BEGIN

#define MSG_PREFIX 0xdf122335u
#define MSG_HDR_LEN 48u
#define MOD_BUF_MAX_LEN 8192u

typedef enum {
    MSG_TYPE_SYNC_REQ = 0,
    MSG_TYPE_SYNC_ACK = 1,
    MSG_TYPE_ASYNC_REQ = 2,
    MSG_TYPE_ASYNC_ACK = 3,
    MSG_TYPE_INVALID = 5
} MSG_TYPE_E;

/* Layout in memory and on the wire, in the byte order of the machine. */
typedef struct {
    u32 ulPrefix;
    u32 enMsgType; /* MSG_TYPE_E, kept 32 bits wide on every ABI */
    u32 ulMsgID;
    u32 ulAssMsgID;
    u32 ulMsgLen;
    u32 ulMsgBodyLen;
    u32 ulSrcModuleID;
    u32 ulDstModuleID;
    u32 ulSrcProcID;
    u32 ulDstProcID;
    u32 ulPeerAddr;  /* network byte order */
    u16 usPeerPort;  /* network byte order */
    u16 usReserved;
} MSG_HDR_S;

/* Link of the circular doubly linked lists; an empty head points at itself. */
typedef struct MOD_LIST_S {
    struct MOD_LIST_S *pstNext;
    struct MOD_LIST_S *pstPrev;
} MOD_LIST_S;

/* One heap block; a message handle points at the MOD_BUF_S of its block. */
typedef struct {
    void *pMem;
    u32 ulLen;
    MOD_LIST_S stNode;
} MOD_BUF_S;

typedef MOD_BUF_S *MSG_HANDLE;

IBP_API MOD_BUF_S *MOD_GetBuf(u32 ulLen);
IBP_API void MOD_FreeBuf(MOD_BUF_S *pstModBuf);

IBP_API MSG_HANDLE MSG_Create(const void *pMem, u32 ulMemLen);
IBP_API void MSG_Destroy(MSG_HANDLE hMsg);
IBP_API MSG_HANDLE MSG_Clone(MSG_HANDLE hMsg);
IBP_API u32 MSG_Decode(MSG_HANDLE hMsg, void **ppMemAddr, u32 *pulMemLen);
IBP_API u32 MSG_GetAssMsgID(MSG_HANDLE hMsg, u32 *pulAssMsgID);
IBP_API u32 MSG_CheckHdr(const char *pcMsgHdr, u32 ulSize);

IBP_EXTERN_C_END

#endif /* IBP_ISP_RAWMSG_H */
