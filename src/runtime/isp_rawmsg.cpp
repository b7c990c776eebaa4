// Message buffers and message objects: make, clone, decode, free, check.
#include "ibp/isp_rawmsg.h"

#include <climits>
#include <cstring>

#include "ibp/isp_system.h"
#include "log/log_internal.h"
#include "runtime/rawmsg_internal.h"

IBP_LOG_SOURCE("isp_rawmsg");

namespace {

constexpr u32 kWarnMsgLen = 2048;

// The header of a message whose buffer can hold one, else null.
MSG_HDR_S *MSG_HdrOf(MSG_HANDLE hMsg)
{
    if (hMsg == nullptr || hMsg->pMem == nullptr || hMsg->ulLen < MSG_HDR_LEN)
        return nullptr;
    return static_cast<MSG_HDR_S *>(hMsg->pMem);
}

}  // namespace

static_assert(sizeof(MSG_HDR_S) == MSG_HDR_LEN, "the wire header is 48 bytes");

bool MSG_HdrIsBad(const MSG_HDR_S *pstHdr)
{
    return pstHdr->ulPrefix != MSG_PREFIX || pstHdr->ulMsgLen < MSG_HDR_LEN ||
           static_cast<u64>(pstHdr->ulMsgBodyLen) + MSG_HDR_LEN != pstHdr->ulMsgLen;
}

extern "C" {

IBP_API MOD_BUF_S *MOD_GetBuf(u32 ulLen)
{
    if (ulLen >= MOD_BUF_MAX_LEN) {
        IBP_ERR("request memory size %u too big", ulLen);
        return nullptr;
    }
    auto *pstBuf = static_cast<MOD_BUF_S *>(ISP_calloc(0, 1, sizeof(MOD_BUF_S)));
    if (pstBuf == nullptr) {
        IBP_ERR("malloc fail for size %zd", sizeof(MOD_BUF_S));
        return nullptr;
    }
    void *pMem = ISP_malloc(0, ulLen);
    if (pMem == nullptr) {
        IBP_ERR("malloc fail for size %u", ulLen);
        ISP_free(&pstBuf);
        return nullptr;
    }
    pstBuf->pMem = pMem;
    pstBuf->ulLen = ulLen;
    return pstBuf;
}

IBP_API void MOD_FreeBuf(MOD_BUF_S *pstModBuf)
{
    if (pstModBuf == nullptr) {
        IBP_ERR("pstModBuf is NULL");
        return;
    }
    ISP_free(&pstModBuf->pMem);
    ISP_free(&pstModBuf);
}

IBP_API MSG_HANDLE MSG_Create(const void *pMem, u32 ulMemLen)
{
    if (pMem == nullptr) {
        IBP_ERR("pulMem is NULL");
        return nullptr;
    }
    if (ulMemLen == 0) {
        IBP_ERR("ulMemLen = 0");
        return nullptr;
    }
    // A body length near 4 GiB would wrap the block length to a small number;
    // saturate so that MOD_GetBuf refuses it as too big.
    u32 ulMsgLen = (ulMemLen > UINT32_MAX - MSG_HDR_LEN) ? UINT32_MAX : ulMemLen + MSG_HDR_LEN;
    MOD_BUF_S *pstBuf = MOD_GetBuf(ulMsgLen);
    if (pstBuf == nullptr) {
        IBP_ERR("get module buf fail! ulMsgLen=%u", ulMsgLen);
        return nullptr;
    }
    auto *pstHdr = static_cast<MSG_HDR_S *>(pstBuf->pMem);
    pstHdr->ulMsgLen = ulMsgLen;
    pstHdr->ulMsgBodyLen = ulMemLen;
    memcpy(reinterpret_cast<char *>(pstHdr) + MSG_HDR_LEN, pMem, ulMemLen);
    return pstBuf;
}

IBP_API void MSG_Destroy(MSG_HANDLE hMsg)
{
    MOD_FreeBuf(hMsg);
}

IBP_API MSG_HANDLE MSG_Clone(MSG_HANDLE hMsg)
{
    const MSG_HDR_S *pstHdr = MSG_HdrOf(hMsg);
    if (pstHdr == nullptr) {
        IBP_ERR("hMsg is invalid");
        return nullptr;
    }
    // The body is what the buffer holds behind the header, whatever the
    // header claims, so a damaged header can't make us read past the block.
    MSG_HANDLE hNew = MSG_Create(reinterpret_cast<const char *>(pstHdr) + MSG_HDR_LEN,
                                 hMsg->ulLen - MSG_HDR_LEN);
    if (hNew == nullptr) {
        IBP_ERR("create new message fail, clone message fail!");
        return nullptr;
    }
    memcpy(hNew->pMem, pstHdr, MSG_HDR_LEN);
    return hNew;
}

IBP_API u32 MSG_Decode(MSG_HANDLE hMsg, void **ppMemAddr, u32 *pulMemLen)
{
    MSG_HDR_S *pstHdr = MSG_HdrOf(hMsg);
    if (pstHdr == nullptr) {
        IBP_ERR("hMsg is invalid");
        return 1;
    }
    if (ppMemAddr == nullptr) {
        IBP_ERR("ppMemAddr is NULL");
        return 1;
    }
    if (pulMemLen == nullptr) {
        IBP_ERR("pulMemLen is NULL");
        return 1;
    }
    // A header that claims more body than the block holds would send the
    // caller reading past its end.
    if (pstHdr->ulMsgBodyLen > hMsg->ulLen - MSG_HDR_LEN) {
        IBP_ERR("message body len error! ulMsgBodyLen=%u ulHdrLen=%zd ulBufLen=%u", pstHdr->ulMsgBodyLen,
                static_cast<size_t>(MSG_HDR_LEN), hMsg->ulLen);
        return 1;
    }
    *ppMemAddr = reinterpret_cast<char *>(pstHdr) + MSG_HDR_LEN;
    *pulMemLen = pstHdr->ulMsgBodyLen;
    return 0;
}

IBP_API u32 MSG_GetAssMsgID(MSG_HANDLE hMsg, u32 *pulAssMsgID)
{
    if (hMsg == nullptr) {
        IBP_ERR("hMsg is invalid");
        return 1;
    }
    if (pulAssMsgID == nullptr) {
        IBP_ERR("pulAssMsgID is NULL");
        return 1;
    }
    const MSG_HDR_S *pstHdr = MSG_HdrOf(hMsg);
    if (pstHdr == nullptr) {
        IBP_ERR("pstMsgHdr is NULL");
        return 1;
    }
    *pulAssMsgID = pstHdr->ulAssMsgID;
    return 0;
}

IBP_API u32 MSG_CheckHdr(const char *pcMsgHdr, u32 ulSize)
{
    if (pcMsgHdr == nullptr) {
        IBP_ERR("pcMsgHdr is NULL");
        return 1;
    }
    if (ulSize != MSG_HDR_LEN) {
        IBP_ERR("message header size not match! ulSize=%u != %zd", ulSize, static_cast<size_t>(MSG_HDR_LEN));
        return 1;
    }
    MSG_HDR_S stHdr;
    memcpy(&stHdr, pcMsgHdr, sizeof(stHdr));  // the bytes need not be aligned
    if (stHdr.ulPrefix != MSG_PREFIX) {
        const auto *puc = reinterpret_cast<const u8 *>(pcMsgHdr);
        IBP_ERR("message prefix not match! %#x %#x %#x %#x != %#x %#x %#x %#x",
                puc[0], puc[1], puc[2], puc[3], 0x35u, 0x23u, 0x12u, 0xdfu);
        return 1;
    }
    if (stHdr.ulMsgLen < MSG_HDR_LEN) {
        IBP_ERR("message len error! ulMsgLen=%u < %zd", stHdr.ulMsgLen, static_cast<size_t>(MSG_HDR_LEN));
        return 1;
    }
    if (stHdr.ulMsgLen > kWarnMsgLen)
        IBP_WRN("message len may be abnormal! ulMsgLen=%u", stHdr.ulMsgLen);
    if (static_cast<u64>(stHdr.ulMsgBodyLen) + MSG_HDR_LEN != stHdr.ulMsgLen) {
        IBP_ERR("message body len error! ulMsgBodyLen=%u ulHdrLen=%zd ulMsgLen=%u",
                stHdr.ulMsgBodyLen, static_cast<size_t>(MSG_HDR_LEN), stHdr.ulMsgLen);
        return 1;
    }
    return 0;
}

}  // extern "C"
