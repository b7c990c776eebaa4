/** @file
 * Circular buffers of fixed-size elements (CBUF_) and the one-element queue on
 * top of them (CQUE_).
 *
 * The slot count N is a power of two; one slot always stays empty, so a buffer
 * holds at most N - 1 elements. Counts are in elements, never bytes.
 *
 * Locking: CBUF_Read, CBUF_Write, CBUF_Iterate and CBUF_Reset (and so every
 * CQUE_ call) take the buffer's own non-recursive mutex. The other operations
 * take none: those that move the read position (CBUF_DropElem,
 * CBUF_TokenLocate), and CBUF_Prefetch/CBUF_GetReadNum when their answer must
 * hold, belong to the one reading thread; CBUF_GetWriteMemNum and
 * CBUF_SetWriteNum to the one writing thread. Callbacks run under the lock
 * when a locked operation calls them and must not call a locked operation on
 * the same buffer. CBUF_Init and CBUF_Destroy change the global list without a
 * lock: create and destroy buffers at start-up and shut-down. */
#ifndef IBP_ISP_CIRCBUF_H
#define IBP_ISP_CIRCBUF_H

#include "ibp/isp_types.h"

IBP_EXTERN_C_BEGIN

/** Called with the address of one element inside the storage. */
typedef void (*CBUF_ELEM_PFN)(void *pElem, void *pUser);
/** CBUF_Iterate's visitor: set *pbConsume to 1 to consume the element. */
typedef void (*CBUF_ITER_PFN)(void *pElem, void *pUser, u32 *pbConsume);

/** Read during CBUF_Init and not kept. */
typedef struct {
    const char *pcName;   /**< for the display; may be null */
    u32 ulElemSize;       /**< bytes per element, not 0 */
    u32 ulElemNum;        /**< slots, a power of two */
    u32 bOverride;        /**< 1: a full buffer drops its oldest elements */
    CBUF_ELEM_PFN pfnWrite; /**< for each element written; may be null */
    CBUF_ELEM_PFN pfnRead;  /**< for each element that leaves; may be null */
    void *pUser;          /**< handed to both callbacks */
} CBUF_INIT_S;

/** A circular buffer; its fields are the library's own. */
typedef struct CBUF_S CBUF_S;
/** A buffer; 0 is no buffer. A queue is the same object. */
typedef CBUF_S *CBUF_HANDLE;

/** A buffer as pstInit describes it, in the global list; null on a bad
 * description. */
IBP_API CBUF_HANDLE CBUF_Init(const CBUF_INIT_S *pstInit);
/** Takes a buffer out of the global list and frees it. */
IBP_API void CBUF_Destroy(CBUF_HANDLE hCBuf);
/** 1 when the buffer holds no element, else 0. */
IBP_API u32 CBUF_IsEmpty(CBUF_HANDLE hCBuf);
/** 1 when the buffer holds N - 1 elements, else 0. */
IBP_API u32 CBUF_IsFull(CBUF_HANDLE hCBuf);
/** Empties the buffer. */
IBP_API void CBUF_Reset(CBUF_HANDLE hCBuf);
/** Read side: count first, memory second. Returns the elements moved, -1 on
 * bad arguments. */
IBP_API s32 CBUF_Read(CBUF_HANDLE hCBuf, u32 ulNum, void *pMem);
/** Write side: memory first, count second. Without overwrite a write larger
 * than the free room is cut to it (with a warning). */
IBP_API s32 CBUF_Write(CBUF_HANDLE hCBuf, const void *pMem, u32 ulNum);
/** Visits every element from the oldest on; the visitor consumes a leading
 * run of them by setting *pbConsume. Returns 0 or 1. */
IBP_API u32 CBUF_Iterate(CBUF_HANDLE hCBuf, CBUF_ITER_PFN pfnIter, void *pUser);
/** Zero-copy writing: the run of free slots at the write position, and whether
 * more free slots wait at the start of the storage; fill them, then commit. */
IBP_API u32 CBUF_GetWriteMemNum(CBUF_HANDLE hCBuf, void **pWriteMem, u32 *pulNum, u32 *pbNext);
/** Commits ulNum elements written into the memory of CBUF_GetWriteMemNum. */
IBP_API u32 CBUF_SetWriteNum(CBUF_HANDLE hCBuf, u32 ulNum);
/** Stores the number of elements that can be read. Returns 0 or 1. */
IBP_API u32 CBUF_GetReadNum(CBUF_HANDLE hCBuf, u32 *pulNum);
/** Copies ulNum elements without consuming them: all or nothing (-1). */
IBP_API s32 CBUF_Prefetch(CBUF_HANDLE hCBuf, u32 ulNum, void *pMem);
/** Consumes up to ulNum elements without copying them. Returns 0 or 1. */
IBP_API u32 CBUF_DropElem(CBUF_HANDLE hCBuf, u32 ulNum);
/** Byte buffers only: skips to the token; 0 found, 1 not found or bad call. */
IBP_API u32 CBUF_TokenLocate(CBUF_HANDLE hCBuf, const u8 *pucToken, u32 ulTokenLen);
/** Display function: one line per buffer, newest first. */
IBP_API u32 CBUF_PrintCircBuf(u32 *pulOutBufLen, char *pcOutBuf);

/** As CBUF_Init: a queue is a buffer used one element at a time. */
IBP_API CBUF_HANDLE CQUE_Init(const CBUF_INIT_S *pstInit);
/** As CBUF_Destroy. */
IBP_API void CQUE_Destroy(CBUF_HANDLE hCBuf);
/** As CBUF_Reset. */
IBP_API void CQUE_Reset(CBUF_HANDLE hCBuf);
/** Appends one element (CBUF_Write of 1). Returns 0, or 1 when it was not written. */
IBP_API u32 CQUE_Push(CBUF_HANDLE hCBuf, const void *pElem);
/** Takes the oldest element. Returns 0, or 1 (with an error record) when the queue is empty. */
IBP_API u32 CQUE_Pop(CBUF_HANDLE hCBuf, void *pElem);
/** As CBUF_Iterate. */
IBP_API u32 CQUE_Iterate(CBUF_HANDLE hCBuf, CBUF_ITER_PFN pfnIter, void *pUser);

IBP_EXTERN_C_END

#endif /* IBP_ISP_CIRCBUF_H */
