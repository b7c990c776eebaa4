// The control block behind a CBUF_HANDLE, shared by the buffer code and its
// white-box tests. Positions are element indices, always masked with N - 1.
#pragma once

#include "ibp/isp_circbuf.h"
#include "ibp/isp_rawmsg.h"

struct CBUF_S {
    char acName[64];  // at most 63 characters of the name, terminated
    u8 *pucBuf;       // ulElemNum * ulElemSize bytes, owned
    u32 ulElemSize;
    u32 ulElemNum;    // N, a power of two
    u32 bOverride;
    u32 ulHeadPos;    // H: the slot the next written element fills
    u32 ulTailPos;    // T: the oldest unread element
    void *hLock;      // ISP_mutex_init handle, taken by the four locking operations
    CBUF_ELEM_PFN pfnWrite;
    CBUF_ELEM_PFN pfnRead;
    void *pUser;
    MOD_LIST_S stNode; // link of the global list, newest first
};

// The unread elements that lie in one piece from the read position, and how
// many they are. For the one reading thread, which may look at them in place
// and then drop what it has used with CBUF_DropElem.
inline u32 CBUF_PeekLinear(const CBUF_S *pstCBuf, const u8 **ppucData)
{
    const u32 ulMask = pstCBuf->ulElemNum - 1;
    const u32 ulUsed = (pstCBuf->ulHeadPos - pstCBuf->ulTailPos) & ulMask;
    const u32 ulToEnd = pstCBuf->ulElemNum - pstCBuf->ulTailPos;
    *ppucData = pstCBuf->pucBuf + static_cast<size_t>(pstCBuf->ulTailPos) * pstCBuf->ulElemSize;
    return ulUsed < ulToEnd ? ulUsed : ulToEnd;
}
