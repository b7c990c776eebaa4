// The receive path, on the process thread alone: datagrams from the socket
// go into the receive buffer (a byte stream), and whole messages are cut out
// of it by their prefix and length and delivered to their modules.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "containers/isp_circbuf_priv.h"
#include "ibp/isp_circbuf.h"
#include "ibp/isp_module.h"
#include "ibp/isp_socket.h"
#include "ibp/isp_system.h"
#include "log/log_internal.h"
#include "runtime/mod_ratelimit.h"
#include "runtime/module_internal.h"
#include "runtime/proc_internal.h"
#include "runtime/rawmsg_internal.h"

IBP_LOG_SOURCE("isp_module");

namespace {

constexpr u32 kRecvBufLen = 8192;  // elements of the receive buffer; it holds 8191 bytes
constexpr u32 kMaxMsgInBuf = kRecvBufLen - 1;
constexpr u8 kPrefixBytes[4] = {0x35, 0x23, 0x12, 0xdf};

// Who sent the bytes that wait in the receive buffer.
struct sockaddr_in gstBufSender;

// What one parse step did. The exported call turns it into its result and
// flag (kParseOut); the loop of the process thread goes on or stops by it.
enum class MOD_PARSE_E : u32 {
    kDone,          // one message delivered; there may be more
    kMore,          // no whole message in the buffer yet
    kDrop,          // a message was consumed and dropped, with its record
    kBadBuf,        // the buffer got for the message was unusable; nothing consumed
    kFailFlag,      // the fill could not be read, or the message could not be queued
    kFail,          // another failure; nothing more can be done now
    kSkipped,       // a header that can never become a message was stepped over
    kSkippedQuiet,  // the same, its records left out under the rate limit
    kGoOn,          // inside a step: the header is good so far
};

struct MOD_PARSE_OUT_S {
    u32 ulRet;
    u32 ulFlag;  // 0: the caller's flag is left as it was
};
constexpr MOD_PARSE_OUT_S kParseOut[] = {
    {0, MOD_PARSE_DONE}, {0, MOD_PARSE_MORE}, {0, MOD_PARSE_DROP}, {0, MOD_PARSE_BADBUF},
    {1, MOD_PARSE_FAIL}, {1, 0},              {1, 0},              {1, 0},
};
static_assert(sizeof(kParseOut) / sizeof(kParseOut[0]) == static_cast<u32>(MOD_PARSE_E::kGoOn));

s32 MOD_RecvFd() { return SKT_GetSocketFD(gstCurProc.hRecvSocket); }

// "a.b.c.d:port" of an address, for records.
struct MOD_ADDR_TEXT_S {
    char acText[INET_ADDRSTRLEN + 8];
};
MOD_ADDR_TEXT_S MOD_AddrText(const struct sockaddr_in &stAddr)
{
    MOD_ADDR_TEXT_S stOut{};
    char acIp[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &stAddr.sin_addr, acIp, sizeof(acIp));
    snprintf(stOut.acText, sizeof(stOut.acText), "%s:%u", acIp, static_cast<unsigned>(ntohs(stAddr.sin_port)));
    return stOut;
}

// A header that can never become a message (bad check, or longer than the
// buffer can ever hold) is stepped over by its prefix, so that the search for
// the next prefix goes on instead of finding the same one for ever.
void MOD_SkipPrefix() { (void)CBUF_DropElem(gstCurProc.hCircBuf, sizeof(kPrefixBytes)); }

// The first message prefix in ulLen bytes, or null. Mostly it stands at the
// very start, where a call of memmem would cost more than the look itself.
const u8 *MOD_FindPrefix(const u8 *pucData, u32 ulLen)
{
    while (ulLen >= sizeof(kPrefixBytes)) {
        const auto *puc = static_cast<const u8 *>(memchr(pucData, kPrefixBytes[0], ulLen - 3));
        if (puc == nullptr)
            return nullptr;
        if (memcmp(puc, kPrefixBytes, sizeof(kPrefixBytes)) == 0)
            return puc;
        ulLen -= static_cast<u32>(puc + 1 - pucData);
        pucData = puc + 1;
    }
    return nullptr;
}

// Steps over the bad header at the read position and every further one that
// follows it in the same piece of the buffer, looking at the bytes in place:
// a datagram of thousands of prefixes then costs about a scan, not a parse
// for each. Bytes between them go, as CBUF_TokenLocate would drop them; the
// first good header stops it. Returns how many further headers it skipped.
u32 MOD_SkipBadHeaders(CBUF_HANDLE hBuf)
{
    const u8 *pucData = nullptr;
    const u32 ulLen = CBUF_PeekLinear(hBuf, &pucData);
    u32 ulOff = sizeof(kPrefixBytes);
    u32 ulSkipped = 0;
    while (ulOff < ulLen) {
        const u8 *pucNext = MOD_FindPrefix(pucData + ulOff, ulLen - ulOff);
        if (pucNext == nullptr)
            break;
        const u32 ulPos = static_cast<u32>(pucNext - pucData);
        MSG_HDR_S stHdr;
        if (ulLen - ulPos < MSG_HDR_LEN)
            break;  // a header across the end of the storage: the ordinary parse takes it
        memcpy(&stHdr, pucNext, MSG_HDR_LEN);
        if (!MSG_HdrIsBad(&stHdr))
            break;
        ulOff = ulPos + sizeof(kPrefixBytes);
        ulSkipped++;
    }
    (void)CBUF_DropElem(hBuf, ulOff);
    return ulSkipped;
}

// One sender's message may come split over its datagrams, but is never mixed
// with another's: when a datagram of another sender comes, what is left of
// the last one's bytes is dropped, instead of taking the new datagram as the
// body that an unfinished (or lying) header still waits for. Left there, a
// short hostile message from any local process would swallow the requests
// behind it. Bytes before a prefix go without a record, as they always do.
void MOD_DropOtherSendersRest(const struct sockaddr_in *pstAddr, u32 *pulUsed)
{
    const bool bSame = pstAddr->sin_addr.s_addr == gstBufSender.sin_addr.s_addr &&
                       pstAddr->sin_port == gstBufSender.sin_port;
    if (*pulUsed != 0 && !bSame) {
        u8 aucHead[sizeof(kPrefixBytes)] = {};
        const bool bUnfinished = CBUF_Prefetch(gstCurProc.hCircBuf, sizeof(aucHead), aucHead) ==
                                     static_cast<s32>(sizeof(aucHead)) &&
                                 memcmp(aucHead, kPrefixBytes, sizeof(aucHead)) == 0;
        if (bUnfinished && MOD_RateAdmit(MOD_RATE_KIND_E::UNFINISHED))
            IBP_WRN("drop %u bytes of an unfinished msg from %s, a datagram of another sender came", *pulUsed,
                    MOD_AddrText(gstBufSender).acText);
        (void)CBUF_DropElem(gstCurProc.hCircBuf, *pulUsed);
        *pulUsed = 0;
    }
    gstBufSender = *pstAddr;
}

enum class RecvResult { kData, kEmpty, kBufFull, kBufFullQuiet, kFail };

// One datagram from the socket into the receive buffer. A socket with
// nothing left to read is no failure and is not logged as one.
RecvResult MOD_RecvDatagram(struct sockaddr_in *pstAddr)
{
    s32 lSocket = MOD_RecvFd();
    if (lSocket == -1) {
        IBP_ERR("get socket fd fail!");
        return RecvResult::kFail;
    }
    char acData[kRecvBufLen];  // only the received bytes are used: no clearing per datagram
    socklen_t ulAddrLen = sizeof(*pstAddr);
    ssize_t lSize = ISP_recvfrom(lSocket, acData, kRecvBufLen - 1, 0, reinterpret_cast<struct sockaddr *>(pstAddr),
                                 &ulAddrLen);
    if (lSize < 0) {
        int err = errno;
        if (err == EAGAIN || err == EWOULDBLOCK)
            return RecvResult::kEmpty;
        IBP_ERR("recv from socket fail! err=%d,%s socket=%d space=%u", err, strerror(err), lSocket, 0u);
        return RecvResult::kFail;
    }
    if (lSize == 0)
        return RecvResult::kData;
    u32 ulUsed = 0;
    (void)CBUF_GetReadNum(gstCurProc.hCircBuf, &ulUsed);
    MOD_DropOtherSendersRest(pstAddr, &ulUsed);
    const u32 ulFree = kMaxMsgInBuf - ulUsed;
    u32 ulSize = static_cast<u32>(lSize);
    if (ulSize > ulFree && !MOD_RateAdmit(MOD_RATE_KIND_E::BUF_FULL)) {
        (void)CBUF_Write(gstCurProc.hCircBuf, acData, ulFree);  // what fits, without the buffer's own record
        return RecvResult::kBufFullQuiet;
    }
    s32 lWritten = CBUF_Write(gstCurProc.hCircBuf, acData, ulSize);
    if (lWritten != lSize) {
        IBP_ERR("circ buffer write fail! lSize%d", static_cast<int>(lSize));
        return RecvResult::kBufFull;
    }
    return RecvResult::kData;
}

// Finds the next prefix and copies the header behind it, consuming nothing
// of the header itself; kGoOn with the header in *pstHdr and the fill in
// *pulUsed.
MOD_PARSE_E MOD_PeekHeader(CBUF_HANDLE hBuf, MSG_HDR_S *pstHdr, u32 *pulUsed)
{
    if (CBUF_TokenLocate(hBuf, kPrefixBytes, sizeof(kPrefixBytes)) != 0)
        return MOD_PARSE_E::kMore;
    u32 ulRet = CBUF_GetReadNum(hBuf, pulUsed);
    if (ulRet != 0) {
        IBP_ERR("get circ buf used count failed! ulRet=%u", ulRet);
        return MOD_PARSE_E::kFailFlag;
    }
    if (*pulUsed < MSG_HDR_LEN || CBUF_Prefetch(hBuf, MSG_HDR_LEN, pstHdr) != static_cast<s32>(MSG_HDR_LEN))
        return MOD_PARSE_E::kMore;
    return MOD_PARSE_E::kGoOn;
}

// Headers that can never become a message are stepped over. Records about
// bad input come under a rate limit: past the first few of a second, a bad
// header is stepped over without them.
MOD_PARSE_E MOD_CheckHeader(CBUF_HANDLE hBuf, const MSG_HDR_S &stHdr, u32 ulUsed)
{
    if (MSG_HdrIsBad(&stHdr) && !MOD_RateAdmit(MOD_RATE_KIND_E::BAD_HDR)) {
        MOD_RateLeaveOut(MOD_RATE_KIND_E::BAD_HDR, MOD_SkipBadHeaders(hBuf));
        return MOD_PARSE_E::kSkippedQuiet;
    }
    if (MSG_CheckHdr(reinterpret_cast<const char *>(&stHdr), MSG_HDR_LEN) != 0) {
        IBP_ERR("msg header check failed!");
        MOD_SkipPrefix();
        return MOD_PARSE_E::kSkipped;
    }
    if (stHdr.ulMsgLen > kMaxMsgInBuf) {
        const bool bLog = MOD_RateAdmit(MOD_RATE_KIND_E::LONG_MSG);
        if (bLog)
            IBP_ERR("msg len %u never fits the receive buffer, skip it", stHdr.ulMsgLen);
        MOD_SkipPrefix();
        return bLog ? MOD_PARSE_E::kSkipped : MOD_PARSE_E::kSkippedQuiet;
    }
    if (stHdr.ulMsgLen > ulUsed)
        return MOD_PARSE_E::kMore;  // the rest may come in the next datagram
    return MOD_PARSE_E::kGoOn;
}

// Takes the message out of the buffer into a buffer of its own, with the
// sender's address and port in its header.
MOD_PARSE_E MOD_TakeMessage(CBUF_HANDLE hBuf, const MSG_HDR_S &stHdr, const struct sockaddr_in *pstAddr,
                            MOD_BUF_S **ppstBuf)
{
    MOD_BUF_S *pstBuf = MOD_GetBuf(stHdr.ulMsgLen);
    if (pstBuf == nullptr) {
        IBP_ERR("get module buffer fail! size=%u", stHdr.ulMsgLen);
        return MOD_PARSE_E::kFail;
    }
    if (pstBuf->pMem == nullptr || pstBuf->ulLen < stHdr.ulMsgLen) {
        MOD_FreeBuf(pstBuf);
        return MOD_PARSE_E::kBadBuf;
    }
    if (CBUF_Read(hBuf, stHdr.ulMsgLen, pstBuf->pMem) != static_cast<s32>(stHdr.ulMsgLen)) {
        IBP_ERR("circ buf read fail!");
        MOD_FreeBuf(pstBuf);
        return MOD_PARSE_E::kFail;
    }
    auto *pstMsgHdr = static_cast<MSG_HDR_S *>(pstBuf->pMem);
    pstMsgHdr->ulPeerAddr = pstAddr != nullptr ? pstAddr->sin_addr.s_addr : 0;
    pstMsgHdr->usPeerPort = pstAddr != nullptr ? pstAddr->sin_port : 0;
    *ppstBuf = pstBuf;
    return MOD_PARSE_E::kGoOn;
}

// A synchronous ack is taken only from where the process it names as its
// source listens: any other local process could otherwise answer a request
// in the service's name, since identifiers are easy to guess.
bool MOD_AckFromItsProcess(const MSG_HDR_S &stHdr, const struct sockaddr_in *pstAddr)
{
    const MOD_PROC_CFG_S *pstRow = MOD_FindProcRow(stHdr.ulSrcProcID);
    if (pstRow == nullptr || pstAddr == nullptr)
        return false;
    // A row without a port takes the sender's port from each message.
    return pstAddr->sin_addr.s_addr == ISP_inet_addr(pstRow->szSocketAddr) &&
           (pstRow->usSocketPort == 0 || pstAddr->sin_port == ISP_htons(pstRow->usSocketPort));
}

MOD_PARSE_E MOD_DeliverParsed(MOD_MODULE_S *pstModule, const MSG_HDR_S &stHdr, MOD_BUF_S *pstBuf,
                              const struct sockaddr_in *pstAddr)
{
    if (stHdr.enMsgType != MSG_TYPE_SYNC_ACK) {
        if (!MOD_MsgQueuePut(pstModule, stHdr.ulDstModuleID, pstBuf)) {
            IBP_ERR("add msg to module fail! ulRet=%u", 1u);
            MOD_FreeBuf(pstBuf);
            return MOD_PARSE_E::kFailFlag;
        }
        sem_post(&pstModule->stWakeSem);
        return MOD_PARSE_E::kDone;
    }
    if (!MOD_AckFromItsProcess(stHdr, pstAddr)) {
        if (MOD_RateAdmit(MOD_RATE_KIND_E::FOREIGN_ACK))
            IBP_WRN("drop sync ack from %s, not the address of proc %#x: " MOD_MSG_HDR_FMT,
                    pstAddr != nullptr ? MOD_AddrText(*pstAddr).acText : "?", stHdr.ulSrcProcID,
                    MOD_MSG_HDR_ARGS(&stHdr));
        MOD_FreeBuf(pstBuf);
        return MOD_PARSE_E::kDrop;
    }
    MOD_DeliverSyncAck(pstModule, pstBuf);  // straight to the thread that waits for it
    return MOD_PARSE_E::kDone;
}

MOD_PARSE_E MOD_ParseOne(const struct sockaddr_in *pstAddr)
{
    CBUF_HANDLE hBuf = gstCurProc.hCircBuf;
    MSG_HDR_S stHdr;
    u32 ulUsed = 0;
    MOD_PARSE_E enRes = MOD_PeekHeader(hBuf, &stHdr, &ulUsed);
    if (enRes == MOD_PARSE_E::kGoOn)
        enRes = MOD_CheckHeader(hBuf, stHdr, ulUsed);
    if (enRes != MOD_PARSE_E::kGoOn)
        return enRes;
    MOD_MODULE_S *pstModule = MOD_GetModuleByID(stHdr.ulDstModuleID);
    if (pstModule == nullptr) {
        if (MOD_RateAdmit(MOD_RATE_KIND_E::NO_DEST)) {
            IBP_ERR("module not found by dest module id %#x!", stHdr.ulDstModuleID);
            IBP_ERR("drop msg: " MOD_MSG_HDR_FMT, MOD_MSG_HDR_ARGS(&stHdr));
        }
        (void)CBUF_DropElem(hBuf, stHdr.ulMsgLen);
        return MOD_PARSE_E::kDrop;
    }
    MOD_BUF_S *pstBuf = nullptr;
    enRes = MOD_TakeMessage(hBuf, stHdr, pstAddr, &pstBuf);
    if (enRes != MOD_PARSE_E::kGoOn)
        return enRes;
    return MOD_DeliverParsed(pstModule, stHdr, pstBuf, pstAddr);
}

// Delivers every complete message in the receive buffer. A header that was
// stepped over, or a message that was dropped, does not end the pass: what
// stands behind it is delivered now.
void MOD_ParseAll(const struct sockaddr_in *pstAddr)
{
    for (;;) {
        switch (MOD_ParseOne(pstAddr)) {
            case MOD_PARSE_E::kDone:
            case MOD_PARSE_E::kDrop:
            case MOD_PARSE_E::kSkippedQuiet:
                continue;
            case MOD_PARSE_E::kSkipped:
                IBP_ERR("parse socket msg fail!");
                continue;
            case MOD_PARSE_E::kFailFlag:
            case MOD_PARSE_E::kFail:
                IBP_ERR("parse socket msg fail!");
                return;
            default:
                return;
        }
    }
}

}  // namespace

void MOD_RecvReset() { memset(&gstBufSender, 0, sizeof(gstBufSender)); }

// The socket is edge-triggered: read until it is empty, parsing after each
// datagram so that the buffer makes room for the next.
void MOD_RecvSocketMsgProc()
{
    for (;;) {
        struct sockaddr_in stAddr;
        memset(&stAddr, 0, sizeof(stAddr));
        RecvResult enRes = MOD_RecvDatagram(&stAddr);
        if (enRes == RecvResult::kEmpty)
            return;
        if (enRes == RecvResult::kBufFull || enRes == RecvResult::kFail)
            IBP_ERR("recv msg from socket fail!");
        if (enRes == RecvResult::kFail)
            return;  // nothing was read; the next event tries again
        MOD_ParseAll(&stAddr);
    }
}

extern "C" {

IBP_API u32 MOD_RecvSocketData(struct sockaddr_in *pstAddr)
{
    if (pstAddr == nullptr) {
        IBP_ERR("pstAddr is NULL");
        return 1;
    }
    RecvResult enRes = MOD_RecvDatagram(pstAddr);
    return (enRes == RecvResult::kData || enRes == RecvResult::kEmpty) ? 0 : 1;
}

IBP_API u32 MOD_ParseSocketMsg(const struct sockaddr_in *pstAddr, u32 *pulFlag)
{
    if (pulFlag == nullptr) {
        IBP_ERR("pulFlag is NULL");
        return 1;
    }
    const MOD_PARSE_OUT_S &stOut = kParseOut[static_cast<u32>(MOD_ParseOne(pstAddr))];
    if (stOut.ulFlag != 0)
        *pulFlag = stOut.ulFlag;
    return stOut.ulRet;
}

}  // extern "C"
