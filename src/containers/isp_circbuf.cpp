// Circular buffers of fixed-size elements, their global list and display, and
// the one-element queue on top of them.
#include "ibp/isp_circbuf.h"

#include <pthread.h>

#include <cstring>

#include "containers/isp_circbuf_priv.h"
#include "common/cmd_display.h"
#include "common/handle_set.h"
#include "ibp/isp_system.h"
#include "log/log_internal.h"
#include "common/mod_list.h"

IBP_LOG_SOURCE("isp_circbuf");

namespace {

// All living buffers, newest first. No lock: buffers come and go at start-up
// and shut-down of their users.
MOD_LIST_S gstCBufList = {&gstCBufList, &gstCBufList};

// The same buffers, for the handle check of every call.
HandleSet<11> gstLiveCBufs;

constexpr const char *kBadHandle = "hCBuf is invalid";

// Why a call refuses hCBuf, or null when it names a living buffer. The check
// never reads the block behind the handle, so a handle never made or already
// destroyed is refused safely; a buffer destroyed while another thread is
// still inside a call on it is that caller's race, not caught here.
inline const char *CBufRefusal(CBUF_HANDLE hCBuf, const char *pcNullText = kBadHandle)
{
    return gstLiveCBufs.Refusal(hCBuf, pcNullText, kBadHandle);
}

constexpr u32 kNameMax = sizeof(CBUF_S{}.acName) - 1;

// Holds the buffer's mutex for a scope. The handle of ISP_mutex_init is the
// address of a pthread mutex, and a living buffer always has one, so the
// buffer locks it directly, without the handle check of ISP_mutex_lock.
class CBufLock {
public:
    explicit CBufLock(const CBUF_S *pstCBuf) : pstLock_(static_cast<pthread_mutex_t *>(pstCBuf->hLock))
    {
        pthread_mutex_lock(pstLock_);
    }
    ~CBufLock() { pthread_mutex_unlock(pstLock_); }
    CBufLock(const CBufLock &) = delete;
    CBufLock &operator=(const CBufLock &) = delete;

private:
    pthread_mutex_t *pstLock_;
};

inline u32 CBufMask(const CBUF_S *pstCBuf) { return pstCBuf->ulElemNum - 1; }

// U: elements waiting to be read.
inline u32 CBufUsed(const CBUF_S *pstCBuf)
{
    return (pstCBuf->ulHeadPos - pstCBuf->ulTailPos) & CBufMask(pstCBuf);
}

// F: free slots; the slot at H never counts, so U + F = N - 1.
inline u32 CBufFree(const CBUF_S *pstCBuf)
{
    return (pstCBuf->ulTailPos - 1 - pstCBuf->ulHeadPos) & CBufMask(pstCBuf);
}

// Free slots that follow H without passing the end of the storage.
inline u32 CBufWriteRun(const CBUF_S *pstCBuf)
{
    u32 ulToEnd = pstCBuf->ulElemNum - pstCBuf->ulHeadPos;
    u32 ulFree = CBufFree(pstCBuf);
    return (ulFree > ulToEnd - 1) ? ulToEnd : ulFree;
}

inline u8 *CBufSlot(const CBUF_S *pstCBuf, u32 ulPos)
{
    return pstCBuf->pucBuf + static_cast<size_t>(ulPos) * pstCBuf->ulElemSize;
}

inline size_t CBufBytes(const CBUF_S *pstCBuf, u32 ulNum)
{
    return static_cast<size_t>(ulNum) * pstCBuf->ulElemSize;
}

// Visits the slots of ulNum elements from slot ulPos on, wrapping to slot 0:
// at most two runs, each given to move(slots, byte offset in the run, bytes).
// The caller has checked that the ulNum elements (or slots) are there.
template <typename Move> void CBufRuns(const CBUF_S *pstCBuf, u32 ulPos, u32 ulNum, Move move)
{
    u32 ulRun = pstCBuf->ulElemNum - ulPos;
    if (ulNum <= ulRun) {
        move(CBufSlot(pstCBuf, ulPos), 0, CBufBytes(pstCBuf, ulNum));
        return;
    }
    move(CBufSlot(pstCBuf, ulPos), 0, CBufBytes(pstCBuf, ulRun));
    move(pstCBuf->pucBuf, CBufBytes(pstCBuf, ulRun), CBufBytes(pstCBuf, ulNum - ulRun));
}

void CBufCopyOut(const CBUF_S *pstCBuf, u32 ulPos, u32 ulNum, u8 *pucDst)
{
    CBufRuns(pstCBuf, ulPos, ulNum, [pucDst](const u8 *pucSlots, size_t ulOff, size_t ulBytes) {
        memcpy(pucDst + ulOff, pucSlots, ulBytes);
    });
}

void CBufCopyIn(CBUF_S *pstCBuf, u32 ulPos, u32 ulNum, const u8 *pucSrc)
{
    CBufRuns(pstCBuf, ulPos, ulNum, [pucSrc](u8 *pucSlots, size_t ulOff, size_t ulBytes) {
        memcpy(pucSlots, pucSrc + ulOff, ulBytes);
    });
}

// Offers the elements from ulStartPos up to (not including) ulEndPos to the
// callback selected by `pfn`. Called after the position has moved, so the
// callback sees elements that have left (read) or entered (write) the content.
void CBufCallBack(const CBUF_S *pstCBuf, CBUF_ELEM_PFN CBUF_S::*pfn, u32 ulStartPos, u32 ulEndPos)
{
    if (pstCBuf == nullptr) {
        IBP_ERR("pstCBuf is NULL");
        return;
    }
    CBUF_ELEM_PFN pfnCall = pstCBuf->*pfn;
    if (pfnCall == nullptr || ulStartPos == ulEndPos)
        return;
    if (ulStartPos >= pstCBuf->ulElemNum || ulEndPos >= pstCBuf->ulElemNum) {
        IBP_ERR("pos invalid! ulStartPos=%u ulEndPos=%u", ulStartPos, ulEndPos);
        return;
    }
    u32 ulMask = CBufMask(pstCBuf);
    for (u32 ulPos = ulStartPos; ulPos != ulEndPos; ulPos = (ulPos + 1) & ulMask)
        pfnCall(CBufSlot(pstCBuf, ulPos), pstCBuf->pUser);
}

inline void CBufReadCallBack(const CBUF_S *pstCBuf, u32 ulStartPos, u32 ulEndPos)
{
    CBufCallBack(pstCBuf, &CBUF_S::pfnRead, ulStartPos, ulEndPos);
}

inline void CBufWriteCallBack(const CBUF_S *pstCBuf, u32 ulStartPos, u32 ulEndPos)
{
    CBufCallBack(pstCBuf, &CBUF_S::pfnWrite, ulStartPos, ulEndPos);
}

// Moves T over ulNum elements (at most U) and lets them go by the read callback.
void CBufAdvanceTail(CBUF_S *pstCBuf, u32 ulNum)
{
    u32 ulOldTail = pstCBuf->ulTailPos;
    pstCBuf->ulTailPos = (ulOldTail + ulNum) & CBufMask(pstCBuf);
    if (pstCBuf->pfnRead != nullptr)  // most buffers have none: keep the copy path short
        CBufReadCallBack(pstCBuf, ulOldTail, pstCBuf->ulTailPos);
}

// Moves H over ulNum elements and announces them to the write callback.
void CBufAdvanceHead(CBUF_S *pstCBuf, u32 ulNum)
{
    u32 ulOldHead = pstCBuf->ulHeadPos;
    pstCBuf->ulHeadPos = (ulOldHead + ulNum) & CBufMask(pstCBuf);
    if (pstCBuf->pfnWrite != nullptr)
        CBufWriteCallBack(pstCBuf, ulOldHead, pstCBuf->ulHeadPos);
}

// Gives back what CBUF_Init took: the lock if it was made, the storage, the block.
void CBufRelease(CBUF_S *pstCBuf)
{
    if (pstCBuf->hLock != nullptr)
        ISP_mutex_destroy(pstCBuf->hLock);
    ISP_free(&pstCBuf->pucBuf);
    ISP_free(&pstCBuf);
}

}  // namespace

extern "C" {

IBP_API CBUF_HANDLE CBUF_Init(const CBUF_INIT_S *pstInit)
{
    if (pstInit == nullptr) {
        IBP_ERR("pstInit is NULL");
        return nullptr;
    }
    if (pstInit->ulElemSize == 0 || pstInit->ulElemNum == 0) {
        IBP_ERR("init param invalid! ulElemSize=%u ulElemNum=%u", pstInit->ulElemSize, pstInit->ulElemNum);
        return nullptr;
    }
    // Masking needs a power of two; the count is never rounded up.
    if (((pstInit->ulElemNum - 1) & pstInit->ulElemNum) != 0) {
        IBP_ERR("buffer size %u invalid!", pstInit->ulElemNum);
        return nullptr;
    }
    auto *pstCBuf = static_cast<CBUF_S *>(ISP_calloc(0, 1, sizeof(CBUF_S)));
    if (pstCBuf == nullptr) {
        IBP_ERR("calloc %zd failed!", sizeof(CBUF_S));
        return nullptr;
    }
    // calloc checks the product for overflow; the log shows it as u32.
    pstCBuf->pucBuf = static_cast<u8 *>(ISP_calloc(0, pstInit->ulElemNum, pstInit->ulElemSize));
    if (pstCBuf->pucBuf == nullptr) {
        IBP_ERR("calloc %u failed!", pstInit->ulElemNum * pstInit->ulElemSize);
        CBufRelease(pstCBuf);
        return nullptr;
    }
    pstCBuf->ulElemSize = pstInit->ulElemSize;
    pstCBuf->ulElemNum = pstInit->ulElemNum;
    pstCBuf->bOverride = pstInit->bOverride;
    pstCBuf->pfnWrite = pstInit->pfnWrite;
    pstCBuf->pfnRead = pstInit->pfnRead;
    pstCBuf->pUser = pstInit->pUser;
    pstCBuf->hLock = ISP_mutex_init();
    if (pstCBuf->hLock == nullptr) {
        IBP_ERR("ISP_mutex_init Vid Lock fail!");
        CBufRelease(pstCBuf);
        return nullptr;
    }
    if (pstInit->pcName != nullptr)
        ISP_strncpy(pstCBuf->acName, pstInit->pcName, kNameMax);
    if (!gstLiveCBufs.Add(pstCBuf)) {
        IBP_ERR("too many circ bufs! max=%u", gstLiveCBufs.kMaxLive);
        CBufRelease(pstCBuf);
        return nullptr;
    }
    // Inserting before the first element puts the new buffer at the front.
    MOD_ListAddTail(gstCBufList.pstNext, &pstCBuf->stNode);
    return pstCBuf;
}

IBP_API void CBUF_Destroy(CBUF_HANDLE hCBuf)
{
    HANDLE_REFUSE_IF(CBufRefusal(hCBuf), );
    // Of two threads destroying one buffer, the one that did not take it out is refused.
    HANDLE_REFUSE_IF(gstLiveCBufs.Remove(hCBuf) ? nullptr : kBadHandle, );
    // Elements still held are not offered to the read callback.
    MOD_ListDel(&hCBuf->stNode);
    CBufRelease(hCBuf);
}

IBP_API u32 CBUF_IsEmpty(CBUF_HANDLE hCBuf)
{
    HANDLE_REFUSE_IF(CBufRefusal(hCBuf), 0);
    return hCBuf->ulHeadPos == hCBuf->ulTailPos ? 1 : 0;
}

IBP_API u32 CBUF_IsFull(CBUF_HANDLE hCBuf)
{
    HANDLE_REFUSE_IF(CBufRefusal(hCBuf, "pstCBuf is NULL!"), 0);
    return CBufFree(hCBuf) == 0 ? 1 : 0;
}

IBP_API void CBUF_Reset(CBUF_HANDLE hCBuf)
{
    HANDLE_REFUSE_IF(CBufRefusal(hCBuf), );
    CBufLock stLock(hCBuf);
    CBufReadCallBack(hCBuf, hCBuf->ulTailPos, hCBuf->ulHeadPos);
    hCBuf->ulHeadPos = 0;
    hCBuf->ulTailPos = 0;
}

IBP_API s32 CBUF_Read(CBUF_HANDLE hCBuf, u32 ulNum, void *pMem)
{
    HANDLE_REFUSE_IF(CBufRefusal(hCBuf), -1);
    if (pMem == nullptr) {
        IBP_ERR("pMem is NULL");
        return -1;
    }
    if (ulNum == 0)
        return 0;
    CBufLock stLock(hCBuf);
    u32 ulUsed = CBufUsed(hCBuf);
    // Fewer than asked (even none) is a normal result.
    u32 ulCount = (ulNum < ulUsed) ? ulNum : ulUsed;
    if (ulCount == 0)
        return 0;
    CBufCopyOut(hCBuf, hCBuf->ulTailPos, ulCount, static_cast<u8 *>(pMem));
    CBufAdvanceTail(hCBuf, ulCount);
    return static_cast<s32>(ulCount);
}

IBP_API s32 CBUF_Write(CBUF_HANDLE hCBuf, const void *pMem, u32 ulNum)
{
    HANDLE_REFUSE_IF(CBufRefusal(hCBuf), -1);
    if (pMem == nullptr) {
        IBP_ERR("pMem is NULL");
        return -1;
    }
    if (ulNum == 0)
        return 0;
    CBufLock stLock(hCBuf);
    u32 ulFree = CBufFree(hCBuf);
    u32 ulCount;
    if (hCBuf->bOverride == 1) {
        // Only the first N - 1 elements of a longer source can be held.
        u32 ulMask = CBufMask(hCBuf);
        ulCount = (ulNum < ulMask) ? ulNum : ulMask;
        if (ulFree < ulCount)
            CBufAdvanceTail(hCBuf, ulCount - ulFree);
    } else {
        if (ulNum > ulFree)
            IBP_WRN("circ buf space not enough! request=%u space=%u maxNum=%u", ulNum, ulFree,
                    hCBuf->ulElemNum);
        ulCount = (ulNum < ulFree) ? ulNum : ulFree;
    }
    if (ulCount == 0)
        return 0;
    CBufCopyIn(hCBuf, hCBuf->ulHeadPos, ulCount, static_cast<const u8 *>(pMem));
    CBufAdvanceHead(hCBuf, ulCount);
    return static_cast<s32>(ulCount);
}

IBP_API u32 CBUF_Iterate(CBUF_HANDLE hCBuf, CBUF_ITER_PFN pfnIter, void *pUser)
{
    HANDLE_REFUSE_IF(CBufRefusal(hCBuf), 1);
    if (pfnIter == nullptr) {
        IBP_ERR("pfnIter is NULL");
        return 1;
    }
    // The flag is cleared once: it keeps what the visitor left from one
    // element to the next, so a visitor that set it keeps consuming.
    u32 bConsume = 0;
    CBufLock stLock(hCBuf);
    u32 ulMask = CBufMask(hCBuf);
    u32 ulPos = hCBuf->ulTailPos;
    u32 ulUsed = CBufUsed(hCBuf);
    bool bConsuming = true;
    // Every element is visited; only a leading run can be consumed.
    for (u32 i = 0; i < ulUsed; ++i, ulPos = (ulPos + 1) & ulMask) {
        pfnIter(CBufSlot(hCBuf, ulPos), pUser, &bConsume);
        if (!bConsuming)
            continue;
        if (bConsume == 1)
            CBufAdvanceTail(hCBuf, 1);
        else
            bConsuming = false;
    }
    return 0;
}

IBP_API u32 CBUF_GetWriteMemNum(CBUF_HANDLE hCBuf, void **pWriteMem, u32 *pulNum, u32 *pbNext)
{
    HANDLE_REFUSE_IF(CBufRefusal(hCBuf, "hCBuf is NULL"), 1);
    if (pWriteMem == nullptr) {
        IBP_ERR("pWriteMem is NULL");
        return 1;
    }
    if (pulNum == nullptr) {
        IBP_ERR("pulNum is NULL");
        return 1;
    }
    if (pbNext == nullptr) {
        IBP_ERR("pbNext is NULL");
        return 1;
    }
    // Never overwrites, whatever bOverride says: a full buffer gives 0.
    u32 ulRun = CBufWriteRun(hCBuf);
    *pWriteMem = CBufSlot(hCBuf, hCBuf->ulHeadPos);
    *pulNum = ulRun;
    *pbNext = (ulRun != CBufFree(hCBuf)) ? 1 : 0;
    return 0;
}

IBP_API u32 CBUF_SetWriteNum(CBUF_HANDLE hCBuf, u32 ulNum)
{
    HANDLE_REFUSE_IF(CBufRefusal(hCBuf), 1);
    // More than the free slots would carry H past T and turn the content
    // into garbage; within them the caller is trusted to have filled its run.
    u32 ulFree = CBufFree(hCBuf);
    if (ulNum > ulFree) {
        IBP_ERR("circ buf space not enough! request=%u space=%u maxNum=%u", ulNum, ulFree, hCBuf->ulElemNum);
        return 1;
    }
    CBufAdvanceHead(hCBuf, ulNum);
    return 0;
}

IBP_API u32 CBUF_GetReadNum(CBUF_HANDLE hCBuf, u32 *pulNum)
{
    HANDLE_REFUSE_IF(CBufRefusal(hCBuf), 1);
    if (pulNum == nullptr) {
        IBP_ERR("pulNum is NULL");
        return 1;
    }
    *pulNum = CBufUsed(hCBuf);
    return 0;
}

IBP_API s32 CBUF_Prefetch(CBUF_HANDLE hCBuf, u32 ulNum, void *pMem)
{
    HANDLE_REFUSE_IF(CBufRefusal(hCBuf), -1);
    if (pMem == nullptr) {
        IBP_ERR("pMem is NULL");
        return -1;
    }
    if (ulNum == 0)
        return 0;
    u32 ulUsed = CBufUsed(hCBuf);
    if (ulUsed == 0 || ulNum > ulUsed)
        return -1;
    CBufCopyOut(hCBuf, hCBuf->ulTailPos, ulNum, static_cast<u8 *>(pMem));
    return static_cast<s32>(ulNum);
}

IBP_API u32 CBUF_DropElem(CBUF_HANDLE hCBuf, u32 ulNum)
{
    HANDLE_REFUSE_IF(CBufRefusal(hCBuf), 1);
    u32 ulUsed = CBufUsed(hCBuf);
    CBufAdvanceTail(hCBuf, (ulNum < ulUsed) ? ulNum : ulUsed);
    return 0;
}

IBP_API u32 CBUF_TokenLocate(CBUF_HANDLE hCBuf, const u8 *pucToken, u32 ulTokenLen)
{
    HANDLE_REFUSE_IF(CBufRefusal(hCBuf), 1);
    if (pucToken == nullptr) {
        IBP_ERR("pucToken is NULL");
        return 1;
    }
    if (hCBuf->ulElemSize != 1) {
        IBP_ERR("seek can only be used in cbuf which elem size is %u", hCBuf->ulElemSize);
        return 1;
    }
    u32 ulUsed = CBufUsed(hCBuf);
    if (ulUsed < ulTokenLen)
        return 1;
    // U - len start positions, not U - len + 1: the last ulTokenLen bytes stay
    // unexamined, so a token whose start has arrived is kept for the next call.
    u32 ulMask = CBufMask(hCBuf);
    for (u32 ulTry = ulUsed - ulTokenLen; ulTry > 0; --ulTry) {
        u32 ulPos = hCBuf->ulTailPos;
        u32 i = 0;
        while (i < ulTokenLen && hCBuf->pucBuf[ulPos] == pucToken[i]) {
            ++i;
            ulPos = (ulPos + 1) & ulMask;
        }
        if (i == ulTokenLen)
            return 0;
        CBufAdvanceTail(hCBuf, 1);
    }
    return 1;
}

IBP_API u32 CBUF_PrintCircBuf(u32 *pulOutBufLen, char *pcOutBuf)
{
    CMD_DISPLAY_CHECK_ARGS(pulOutBufLen, pcOutBuf);
    CmdDisplay stOut(pcOutBuf, *pulOutBufLen);
    stOut.Append("%-10s %-10s %-10s %-10s %-10s %-10s %-10s \n", "BufName", "BufNum", "Override", "HeadPos",
                 "TailPos", "UsedNum", "SpaceNum");
    for (MOD_LIST_S *pstLink = gstCBufList.pstNext; pstLink != &gstCBufList; pstLink = pstLink->pstNext) {
        const CBUF_S *pstCBuf = MOD_ListEntry(pstLink, &CBUF_S::stNode);
        stOut.Append("%-10s %-10lu %-10s %-10lu %-10lu %-10lu %-10lu \n", pstCBuf->acName,
                     static_cast<unsigned long>(pstCBuf->ulElemNum), pstCBuf->bOverride == 1 ? "Yes" : "No",
                     static_cast<unsigned long>(pstCBuf->ulHeadPos),
                     static_cast<unsigned long>(pstCBuf->ulTailPos),
                     static_cast<unsigned long>(CBufUsed(pstCBuf)),
                     static_cast<unsigned long>(CBufFree(pstCBuf)));
    }
    *pulOutBufLen = stOut.Length();
    return 0;
}

// ---- the queue: one element at a time on the same object

IBP_API CBUF_HANDLE CQUE_Init(const CBUF_INIT_S *pstInit)
{
    return CBUF_Init(pstInit);
}

IBP_API void CQUE_Destroy(CBUF_HANDLE hCBuf)
{
    CBUF_Destroy(hCBuf);
}

IBP_API void CQUE_Reset(CBUF_HANDLE hCBuf)
{
    CBUF_Reset(hCBuf);
}

IBP_API u32 CQUE_Push(CBUF_HANDLE hCBuf, const void *pElem)
{
    if (CBUF_Write(hCBuf, pElem, 1) != 1) {
        IBP_ERR("CBUF_Write() fail");
        return 1;
    }
    return 0;
}

IBP_API u32 CQUE_Pop(CBUF_HANDLE hCBuf, void *pElem)
{
    // An empty queue is reported like a fault; pollers test CBUF_IsEmpty first.
    if (CBUF_Read(hCBuf, 1, pElem) != 1) {
        IBP_ERR("CBUF_Read() fail");
        return 1;
    }
    return 0;
}

IBP_API u32 CQUE_Iterate(CBUF_HANDLE hCBuf, CBUF_ITER_PFN pfnIter, void *pUser)
{
    return CBUF_Iterate(hCBuf, pfnIter, pUser);
}

}  // extern "C"
