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
