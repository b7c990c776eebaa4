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
#include "runtime/mod_stat.h"
#include "runtime/mod_tap.h"
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
    kFailFlag,      // the fill of the receive buffer could not be read
    kRefused,       // a message was consumed, and refused by its module going away
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
    {1, MOD_PARSE_FAIL}, {1, MOD_PARSE_FAIL}, {1, 0},              {1, 0},              {1, 0},
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

// In ulLen bytes that start with a bad header: how many to drop to step over
// it and every further bad header that follows, looking at the bytes in
// place, so that a datagram of thousands of prefixes costs about a scan, not
// a parse for each. Bytes between them go, as the search for a prefix would
// drop them; the first good header stops it. *pulSkipped: the further ones.
u32 MOD_BadHeadersRun(const u8 *pucData, u32 ulLen, u32 *pulSkipped)
{
    u32 ulOff = sizeof(kPrefixBytes);
    *pulSkipped = 0;
    while (ulOff < ulLen) {
        const u8 *pucNext = MOD_FindPrefix(pucData + ulOff, ulLen - ulOff);
        if (pucNext == nullptr)
            break;
        const u32 ulPos = static_cast<u32>(pucNext - pucData);
        MSG_HDR_S stHdr;
        if (ulLen - ulPos < MSG_HDR_LEN)
            break;  // a header cut off here: the ordinary parse takes it
        memcpy(&stHdr, pucNext, MSG_HDR_LEN);
        if (!MSG_HdrIsBad(&stHdr))
            break;
        ulOff = ulPos + sizeof(kPrefixBytes);
        (*pulSkipped)++;
    }
    return ulOff;
}

// The bytes a parse works on, in two forms with one parser: the receive
// buffer, which keeps what is left of a sender's datagrams until the rest
// comes, and one datagram parsed where it lies, which saves a copy.
class MOD_RingBytes {
public:
    explicit MOD_RingBytes(CBUF_HANDLE hBuf) : hBuf_(hBuf) {}
    // Drops what stands before the next prefix; false when there is none.
    bool Locate() { return CBUF_TokenLocate(hBuf_, kPrefixBytes, sizeof(kPrefixBytes)) == 0; }
    u32 Used(u32 *pulUsed) { return CBUF_GetReadNum(hBuf_, pulUsed); }
    bool Peek(MSG_HDR_S *pstHdr) { return CBUF_Prefetch(hBuf_, MSG_HDR_LEN, pstHdr) == static_cast<s32>(MSG_HDR_LEN); }
    void Drop(u32 ulNum) { (void)CBUF_DropElem(hBuf_, ulNum); }
    bool Read(u32 ulNum, void *pDst) { return CBUF_Read(hBuf_, ulNum, pDst) == static_cast<s32>(ulNum); }
    u32 SkipBadHeaders()
    {
        const u8 *pucData = nullptr;
        const u32 ulLinear = CBUF_PeekLinear(hBuf_, &pucData);
        u32 ulSkipped = 0;
        Drop(MOD_BadHeadersRun(pucData, ulLinear, &ulSkipped));
        return ulSkipped;
    }

private:
    CBUF_HANDLE hBuf_;
};

class MOD_DatagramBytes {
public:
    MOD_DatagramBytes(const u8 *pucData, u32 ulLen) : pucData_(pucData), ulLen_(ulLen) {}
    // As the receive buffer's search: the last bytes stay for a prefix whose
    // start alone has come.
    bool Locate()
    {
        if (ulLen_ - ulOff_ <= sizeof(kPrefixBytes))
            return false;
        const u8 *puc = MOD_FindPrefix(pucData_ + ulOff_, ulLen_ - ulOff_ - 1);
        ulOff_ = puc != nullptr ? static_cast<u32>(puc - pucData_) : ulLen_ - static_cast<u32>(sizeof(kPrefixBytes));
        return puc != nullptr;
    }
    u32 Used(u32 *pulUsed)
    {
        *pulUsed = ulLen_ - ulOff_;
        return 0;
    }
    bool Peek(MSG_HDR_S *pstHdr)
    {
        if (ulLen_ - ulOff_ < MSG_HDR_LEN)
            return false;
        memcpy(pstHdr, pucData_ + ulOff_, MSG_HDR_LEN);
        return true;
    }
    void Drop(u32 ulNum) { ulOff_ += ulNum < ulLen_ - ulOff_ ? ulNum : ulLen_ - ulOff_; }
    bool Read(u32 ulNum, void *pDst)
    {
        memcpy(pDst, pucData_ + ulOff_, ulNum);
        ulOff_ += ulNum;
        return true;
    }
    u32 SkipBadHeaders()
    {
        u32 ulSkipped = 0;
        Drop(MOD_BadHeadersRun(pucData_ + ulOff_, ulLen_ - ulOff_, &ulSkipped));
        return ulSkipped;
    }
    // What is left unparsed.
    const u8 *Rest(u32 *pulLen) const
    {
        *pulLen = ulLen_ - ulOff_;
        return pucData_ + ulOff_;
    }

private:
    const u8 *pucData_;
    u32 ulLen_;
    u32 ulOff_ = 0;
};

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

enum class RecvResult { kData, kBufFull, kBufFullQuiet };

// A datagram into the receive buffer, behind what waits there.
RecvResult MOD_BufferDatagram(const u8 *pucData, u32 ulSize, u32 ulUsed)
{
    const u32 ulFree = kMaxMsgInBuf - ulUsed;
    if (ulSize > ulFree && !MOD_RateAdmit(MOD_RATE_KIND_E::BUF_FULL)) {
        (void)CBUF_Write(gstCurProc.hCircBuf, pucData, ulFree);  // what fits, without the buffer's own record
        return RecvResult::kBufFullQuiet;
    }
    s32 lWritten = CBUF_Write(gstCurProc.hCircBuf, pucData, ulSize);
    if (lWritten != static_cast<s32>(ulSize)) {
        IBP_ERR("circ buffer write fail! lSize%d", static_cast<int>(ulSize));
        return RecvResult::kBufFull;
    }
    return RecvResult::kData;
}

// Finds the next prefix and copies the header behind it, consuming nothing
// of the header itself; kGoOn with the header in *pstHdr and the fill in
// *pulUsed.
template <typename Bytes>
MOD_PARSE_E MOD_PeekHeader(Bytes &stBytes, MSG_HDR_S *pstHdr, u32 *pulUsed)
{
    if (!stBytes.Locate())
        return MOD_PARSE_E::kMore;
    u32 ulRet = stBytes.Used(pulUsed);
    if (ulRet != 0) {
        IBP_ERR("get circ buf used count failed! ulRet=%u", ulRet);
        return MOD_PARSE_E::kFailFlag;
    }
    if (*pulUsed < MSG_HDR_LEN || !stBytes.Peek(pstHdr))
        return MOD_PARSE_E::kMore;
    return MOD_PARSE_E::kGoOn;
}

// Headers that can never become a message are stepped over by their prefix,
// so that the search for the next prefix goes on instead of finding the same
// one for ever. Records about bad input come under a rate limit: past the
// first few of a second, a bad header is stepped over without them.
template <typename Bytes>
MOD_PARSE_E MOD_CheckHeader(Bytes &stBytes, const MSG_HDR_S &stHdr, u32 ulUsed)
{
    if (MSG_HdrIsBad(&stHdr) && !MOD_RateAdmit(MOD_RATE_KIND_E::BAD_HDR)) {
        MOD_RateLeaveOut(MOD_RATE_KIND_E::BAD_HDR, stBytes.SkipBadHeaders());
        return MOD_PARSE_E::kSkippedQuiet;
    }
    if (MSG_CheckHdr(reinterpret_cast<const char *>(&stHdr), MSG_HDR_LEN) != 0) {
        IBP_ERR("msg header check failed!");
        stBytes.Drop(sizeof(kPrefixBytes));
        return MOD_PARSE_E::kSkipped;
    }
    if (stHdr.ulMsgLen > kMaxMsgInBuf) {
        const bool bLog = MOD_RateAdmit(MOD_RATE_KIND_E::LONG_MSG);
        if (bLog)
            IBP_ERR("msg len %u never fits the receive buffer, skip it", stHdr.ulMsgLen);
        stBytes.Drop(sizeof(kPrefixBytes));
        return bLog ? MOD_PARSE_E::kSkipped : MOD_PARSE_E::kSkippedQuiet;
    }
    if (stHdr.ulMsgLen > ulUsed)
        return MOD_PARSE_E::kMore;  // the rest may come in the next datagram
    return MOD_PARSE_E::kGoOn;
}

// Takes the message out into a buffer of its own, with the sender's address
// and port in its header.
template <typename Bytes>
MOD_PARSE_E MOD_TakeMessage(Bytes &stBytes, const MSG_HDR_S &stHdr, const struct sockaddr_in *pstAddr,
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
    if (!stBytes.Read(stHdr.ulMsgLen, pstBuf->pMem)) {
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
        const MOD_PUT_E enPut = MOD_MsgQueuePut(pstModule, stHdr.ulDstModuleID, pstBuf);
        if (enPut == MOD_PUT_E::kRefused) {
            MOD_StatAdd(&MOD_SlotStat(MOD_SlotIndex(pstModule)).ulRefused);
            IBP_ERR("add msg to module fail! ulRet=%u", 1u);
            MOD_FreeBuf(pstBuf);
            return MOD_PARSE_E::kRefused;
        }
        MOD_Tap(stHdr);
        if (enPut == MOD_PUT_E::kFirst)
            MOD_WakeModuleThread(pstModule, stHdr.ulDstModuleID);
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
    MOD_Tap(stHdr);
    MOD_DeliverSyncAck(pstModule, pstBuf);  // straight to the thread that waits for it
    return MOD_PARSE_E::kDone;
}

template <typename Bytes>
MOD_PARSE_E MOD_ParseOne(Bytes &stBytes, const struct sockaddr_in *pstAddr)
{
    MSG_HDR_S stHdr;
    u32 ulUsed = 0;
    MOD_PARSE_E enRes = MOD_PeekHeader(stBytes, &stHdr, &ulUsed);
    if (enRes == MOD_PARSE_E::kGoOn)
        enRes = MOD_CheckHeader(stBytes, stHdr, ulUsed);
    if (enRes != MOD_PARSE_E::kGoOn)
        return enRes;
    MOD_MODULE_S *pstModule = MOD_GetModuleByID(stHdr.ulDstModuleID);
    if (pstModule == nullptr) {
        if (MOD_RateAdmit(MOD_RATE_KIND_E::NO_DEST)) {
            IBP_ERR("module not found by dest module id %#x!", stHdr.ulDstModuleID);
            IBP_ERR("drop msg: " MOD_MSG_HDR_FMT, MOD_MSG_HDR_ARGS(&stHdr));
        }
        stBytes.Drop(stHdr.ulMsgLen);
        return MOD_PARSE_E::kDrop;
    }
    MOD_BUF_S *pstBuf = nullptr;
    enRes = MOD_TakeMessage(stBytes, stHdr, pstAddr, &pstBuf);
    if (enRes != MOD_PARSE_E::kGoOn)
        return enRes;
    return MOD_DeliverParsed(pstModule, stHdr, pstBuf, pstAddr);
}

// Delivers every complete message. A header that was stepped over, or a
// message that was dropped, does not end the pass: what stands behind it is
// delivered now.
template <typename Bytes>
void MOD_ParseAll(Bytes &stBytes, const struct sockaddr_in *pstAddr)
{
    for (;;) {
        switch (MOD_ParseOne(stBytes, pstAddr)) {
            case MOD_PARSE_E::kDone:
            case MOD_PARSE_E::kDrop:
            case MOD_PARSE_E::kSkippedQuiet:
                continue;
            case MOD_PARSE_E::kSkipped:
            case MOD_PARSE_E::kRefused:  // consumed: the messages behind it are still good
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

// One datagram in. Whole messages are parsed where they lie; what is left
// (the start of a message that the next datagram finishes) goes to the
// receive buffer. When the buffer already holds this sender's unfinished
// message, the datagram goes behind it there.
void MOD_TakeDatagram(const struct sockaddr_in *pstAddr, const u8 *pucData, u32 ulSize)
{
    MOD_StatInc(&MOD_ProcStat().ulDatagramsIn);
    MOD_StatInc64(&MOD_ProcStat().ullBytesIn, ulSize);
    if (ulSize == 0)
        return;
    u32 ulUsed = 0;
    (void)CBUF_GetReadNum(gstCurProc.hCircBuf, &ulUsed);
    MOD_DropOtherSendersRest(pstAddr, &ulUsed);
    if (ulUsed != 0) {
        const RecvResult enRes = MOD_BufferDatagram(pucData, ulSize, ulUsed);
        if (enRes == RecvResult::kBufFull)
            IBP_ERR("recv msg from socket fail!");
        MOD_RingBytes stRing(gstCurProc.hCircBuf);
        MOD_ParseAll(stRing, pstAddr);
        return;
    }
    MOD_DatagramBytes stBytes(pucData, ulSize);
    MOD_ParseAll(stBytes, pstAddr);
    u32 ulRest = 0;
    const u8 *pucRest = stBytes.Rest(&ulRest);
    if (ulRest != 0)
        (void)MOD_BufferDatagram(pucRest, ulRest, 0);  // an empty buffer holds any datagram
}

// Datagrams are read in batches: one call of the kernel for many, so that
// the thread drains the socket faster than one sender fills it.
constexpr u32 kRecvBatch = 16;

struct MOD_RECV_BATCH_S {
    struct mmsghdr astMsg[kRecvBatch];
    struct iovec astIov[kRecvBatch];
    struct sockaddr_in astAddr[kRecvBatch];
    alignas(struct cmsghdr) u8 aaucCtl[kRecvBatch][CMSG_SPACE(sizeof(u32))];
    u8 aaucData[kRecvBatch][kRecvBufLen];
};
MOD_RECV_BATCH_S gstBatch;  // the process thread's
u32 gulKernelDrops;         // the socket's count of drops, as last seen

void MOD_PrepareBatch()
{
    for (u32 i = 0; i < kRecvBatch; i++) {
        gstBatch.astIov[i] = {gstBatch.aaucData[i], kRecvBufLen - 1};
        struct msghdr &stHdr = gstBatch.astMsg[i].msg_hdr;
        stHdr.msg_name = &gstBatch.astAddr[i];
        stHdr.msg_namelen = sizeof(gstBatch.astAddr[i]);
        stHdr.msg_iov = &gstBatch.astIov[i];
        stHdr.msg_iovlen = 1;
        stHdr.msg_control = gstBatch.aaucCtl[i];
        stHdr.msg_controllen = sizeof(gstBatch.aaucCtl[i]);
        stHdr.msg_flags = 0;
    }
}

// The kernel's count of datagrams dropped on the socket comes with each
// datagram; what grew since the last one was lost before it.
void MOD_NoteKernelDrops(const struct msghdr &stHdr)
{
    for (struct cmsghdr *pstCmsg = CMSG_FIRSTHDR(&stHdr); pstCmsg != nullptr;
         pstCmsg = CMSG_NXTHDR(const_cast<struct msghdr *>(&stHdr), pstCmsg)) {
        if (pstCmsg->cmsg_level != SOL_SOCKET || pstCmsg->cmsg_type != SO_RXQ_OVFL)
            continue;
        u32 ulDrops = 0;
        memcpy(&ulDrops, CMSG_DATA(pstCmsg), sizeof(ulDrops));
        const u32 ulNew = ulDrops - gulKernelDrops;
        gulKernelDrops = ulDrops;
        if (ulNew == 0 || ulNew > 0x7fffffffu)
            continue;
        MOD_StatInc(&MOD_ProcStat().ulKernelDrops, ulNew);
        if (MOD_RateAdmit(MOD_RATE_KIND_E::KERNEL_DROP))
            IBP_WRN("socket dropped %u datagrams, its receive buffer was full (%u in all)", ulNew, ulDrops);
    }
}

// One batch; false when the socket had no more than it.
bool MOD_RecvBatch(s32 lSocket)
{
    MOD_PrepareBatch();
    int lNum = recvmmsg(lSocket, gstBatch.astMsg, kRecvBatch, MSG_DONTWAIT, nullptr);
    if (lNum < 0) {
        int err = errno;
        if (err != EAGAIN && err != EWOULDBLOCK) {
            IBP_ERR("recv from socket fail! err=%d,%s socket=%d space=%u", err, strerror(err), lSocket, 0u);
            IBP_ERR("recv msg from socket fail!");
        }
        return false;
    }
    for (int i = 0; i < lNum; i++) {
        MOD_NoteKernelDrops(gstBatch.astMsg[i].msg_hdr);
        MOD_TakeDatagram(&gstBatch.astAddr[i], gstBatch.aaucData[i], gstBatch.astMsg[i].msg_len);
    }
    return static_cast<u32>(lNum) == kRecvBatch;
}

}  // namespace

void MOD_RecvReset()
{
    memset(&gstBufSender, 0, sizeof(gstBufSender));
    gulKernelDrops = 0;  // a new socket counts from 0
}

// The socket is edge-triggered: read until it has no more. A datagram that
// comes after the last read raises the next event.
void MOD_RecvSocketMsgProc()
{
    s32 lSocket = MOD_RecvFd();
    if (lSocket == -1) {
        IBP_ERR("get socket fd fail!");
        IBP_ERR("recv msg from socket fail!");
        return;
    }
    while (MOD_RecvBatch(lSocket)) {
    }
}

extern "C" {

// One datagram into the receive buffer, as the parse of MOD_ParseSocketMsg
// then expects it there. A socket with nothing to read is no failure.
IBP_API u32 MOD_RecvSocketData(struct sockaddr_in *pstAddr)
{
    if (pstAddr == nullptr) {
        IBP_ERR("pstAddr is NULL");
        return 1;
    }
    s32 lSocket = MOD_RecvFd();
    if (lSocket == -1) {
        IBP_ERR("get socket fd fail!");
        return 1;
    }
    u8 *pucData = gstBatch.aaucData[0];  // the process thread's, as this call is
    socklen_t ulAddrLen = sizeof(*pstAddr);
    ssize_t lSize = ISP_recvfrom(lSocket, pucData, kRecvBufLen - 1, 0, reinterpret_cast<struct sockaddr *>(pstAddr),
                                 &ulAddrLen);
    if (lSize < 0) {
        int err = errno;
        if (err == EAGAIN || err == EWOULDBLOCK)
            return 0;
        IBP_ERR("recv from socket fail! err=%d,%s socket=%d space=%u", err, strerror(err), lSocket, 0u);
        return 1;
    }
    if (lSize == 0)
        return 0;
    u32 ulUsed = 0;
    (void)CBUF_GetReadNum(gstCurProc.hCircBuf, &ulUsed);
    MOD_DropOtherSendersRest(pstAddr, &ulUsed);
    return MOD_BufferDatagram(pucData, static_cast<u32>(lSize), ulUsed) == RecvResult::kBufFull ? 1 : 0;
}

IBP_API u32 MOD_ParseSocketMsg(const struct sockaddr_in *pstAddr, u32 *pulFlag)
{
    if (pulFlag == nullptr) {
        IBP_ERR("pulFlag is NULL");
        return 1;
    }
    MOD_RingBytes stRing(gstCurProc.hCircBuf);
    const MOD_PARSE_OUT_S &stOut = kParseOut[static_cast<u32>(MOD_ParseOne(stRing, pstAddr))];
    if (stOut.ulFlag != 0)
        *pulFlag = stOut.ulFlag;
    return stOut.ulRet;
}

}  // extern "C"
