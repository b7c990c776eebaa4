// The process: set-up and teardown of the runtime, the process thread with its
// socket, receive buffer and parser, and the outbound queue to the other process.
//
// Threads: the process thread alone touches the socket, the epoll instance and
// the receive buffer once MOD_SysInit has returned. Other threads only put
// messages on stSendMsgCtrl (through MOD_SendMsgProc) and wake the thread.
//
// The process thread has no tick. It sleeps in epoll_wait on two descriptors:
// the socket, and an eventfd that other threads write when they queue
// something for it (an outbound message, a message for the process module) or
// stop it. That costs one more descriptor per process, and one write per
// burst: a flag keeps further writes away until the thread has run. After its
// events, every pass serves the process module's queue and sends all that is
// queued, so steady inbound traffic never holds the outbound queue back. The
// only timer is that of the rate-limit counts, and it runs only while a count
// waits to be written.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <unistd.h>

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
constexpr int kEpollSize = 256;
constexpr int kEpollEvents = 20;
// After a failed epoll_wait other than an interruption: a pause, so that a
// lasting failure cannot turn the thread into a busy loop of records.
constexpr u32 kEpollErrorPauseMs = 20;
constexpr u32 kSocketEvents = EPOLLIN | EPOLLOUT | EPOLLET;  // 0x80000005
constexpr u8 kPrefixBytes[4] = {0x35, 0x23, 0x12, 0xdf};
constexpr int kPrSetName = 15;
// A burst that another process sends in one idle tick arrives while this
// thread may be busy; the system's default receive buffer holds only a few
// hundred small datagrams. Ask for more, beyond rmem_max where we may.
constexpr int kSocketBufBytes = 4 * 1024 * 1024;
constexpr u32 kCmdSuffixMax = 63;

bool gbSysRunning = false;

// The process thread's wake-up: an eventfd in its epoll set, -1 when there
// is no runtime. gulWakePending is 1 from the first write until the thread
// has taken the wake-up, so a burst of sends writes once.
s32 glWakeFd = -1;
u32 gulWakePending = 0;
// Held for the write and for the close, so that a late wake-up never writes
// to a descriptor number that has been closed and given to someone else.
pthread_mutex_t gstWakeFdLock = PTHREAD_MUTEX_INITIALIZER;

// Who sent the bytes that wait in the receive buffer; process thread only.
struct sockaddr_in gstBufSender;

struct MOD_PARSE_RESULT_S {
    u32 ulRet;
    bool bConsumed;  // a failure that stepped over bytes: parsing may go on
    bool bQuiet;     // its records were left out under the rate limit
};

s32 MOD_RecvFd() { return SKT_GetSocketFD(gstCurProc.hRecvSocket); }

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

// Best effort: the socket works with the system's sizes as well.
void MOD_GrowSocketBuffers(s32 lSocket)
{
    int lBytes = kSocketBufBytes;
    if (ISP_setsockopt(lSocket, SOL_SOCKET, SO_RCVBUFFORCE, &lBytes, sizeof(lBytes)) != 0)
        (void)ISP_setsockopt(lSocket, SOL_SOCKET, SO_RCVBUF, &lBytes, sizeof(lBytes));
    if (ISP_setsockopt(lSocket, SOL_SOCKET, SO_SNDBUFFORCE, &lBytes, sizeof(lBytes)) != 0)
        (void)ISP_setsockopt(lSocket, SOL_SOCKET, SO_SNDBUF, &lBytes, sizeof(lBytes));
}

u32 MOD_InitWakeFd(s32 lEpollFd)
{
    s32 lFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (lFd < 0) {
        int err = errno;
        IBP_ERR("create wake fd failed! error=%d,%s", err, strerror(err));
        return 1;
    }
    struct epoll_event stEvent;
    memset(&stEvent, 0, sizeof(stEvent));
    stEvent.events = EPOLLIN;
    stEvent.data.fd = lFd;
    if (epoll_ctl(lEpollFd, EPOLL_CTL_ADD, lFd, &stEvent) != 0) {
        int err = errno;
        IBP_ERR("add wake fd to epoll failed! error=%d,%s", err, strerror(err));
        ISP_close(lFd);
        return 1;
    }
    MOD_MutexGuard lock(&gstWakeFdLock);
    __atomic_store_n(&gulWakePending, 0u, __ATOMIC_RELAXED);
    __atomic_store_n(&glWakeFd, lFd, __ATOMIC_RELEASE);
    return 0;
}

void MOD_CloseWakeFd()
{
    MOD_MutexGuard lock(&gstWakeFdLock);
    s32 lFd = __atomic_exchange_n(&glWakeFd, -1, __ATOMIC_ACQ_REL);
    if (lFd >= 0)
        ISP_close(lFd);
}

// Takes the wake-up: from here on the next MOD_WakeProcThread writes again.
// The flag is cleared before the queues are looked at, so that a message
// queued after that look always comes with a write of its own.
void MOD_TakeWakeUp(s32 lFd)
{
    u64 ullCount = 0;
    (void)!read(lFd, &ullCount, sizeof(ullCount));
    __atomic_store_n(&gulWakePending, 0u, __ATOMIC_SEQ_CST);
}

u32 MOD_InitProcEpoll(MOD_PROC_S *pstProc, const MOD_PROC_CFG_S *pstCfg)
{
    SKT_SOCK_INFO_S stInfo;
    memset(&stInfo, 0, sizeof(stInfo));
    stInfo.ulModuleID = 0;
    stInfo.enRole = 0;
    stInfo.ulLocalIp = ISP_inet_addr(pstCfg->szSocketAddr);
    stInfo.ulRemoteIp = stInfo.ulLocalIp;
    stInfo.usLocalPort = ISP_htons(pstCfg->usSocketPort);
    stInfo.usRemotePort = stInfo.usLocalPort;
    stInfo.ulBacklog = 5;
    stInfo.lTimeOut = 2000;

    pstProc->lEpollFd = -1;
    pstProc->hRecvSocket = SKT_UdpInit(&stInfo);
    if (pstProc->hRecvSocket == nullptr) {
        IBP_ERR("UDP init fail");
        return 1;
    }
    pstProc->hSendSocket = pstProc->hRecvSocket;
    s32 lSocket = SKT_GetSocketFD(pstProc->hRecvSocket);
    u32 ulRet = 1;
    if (lSocket == -1) {
        IBP_ERR("get socket fd fail");
    } else if ((pstProc->lEpollFd = epoll_create(kEpollSize)) < 0) {
        int err = errno;
        IBP_ERR("create epoll failed! error=%d,%s", err, strerror(err));
    } else {
        MOD_GrowSocketBuffers(lSocket);
        struct epoll_event stEvent;
        memset(&stEvent, 0, sizeof(stEvent));
        stEvent.events = kSocketEvents;
        stEvent.data.fd = lSocket;
        if (epoll_ctl(pstProc->lEpollFd, EPOLL_CTL_ADD, lSocket, &stEvent) != 0) {
            IBP_WRN("add socket fd to epoll failed!");
        } else if (MOD_InitWakeFd(pstProc->lEpollFd) != 0) {
            IBP_ERR("init proc wake fd fail!");
        } else {
            IBP_INF("proc %s init epoll done! epollFd=%d socketFd=%d", pstProc->szProcName, pstProc->lEpollFd,
                    lSocket);
            ulRet = 0;
        }
    }
    if (ulRet != 0) {
        if (pstProc->lEpollFd >= 0)
            ISP_close(pstProc->lEpollFd);
        pstProc->lEpollFd = -1;
        SKT_UdpDestroy(&pstProc->hRecvSocket);
        pstProc->hSendSocket = nullptr;
    }
    return ulRet;
}

// "ISP" gives "ISP_CMD": at most 63 characters in all.
void MOD_CmdModuleName(const char *pcProcName, char (&acName)[MOD_NAME_LEN])
{
    memset(acName, 0, sizeof(acName));
    ISP_strncpy(acName, pcProcName, kCmdSuffixMax);
    ISP_strncat(acName, "_CMD", kCmdSuffixMax - strlen(acName));
}

u32 MOD_InitProc(const char *pcProcName, u32 ulProcID)
{
    MOD_PROC_S *pstProc = &gstCurProc;
    memset(&gstBufSender, 0, sizeof(gstBufSender));
    memset(pstProc->szProcName, 0, sizeof(pstProc->szProcName));
    ISP_strncpy(pstProc->szProcName, pcProcName, MOD_NAME_LEN - 1);
    pstProc->ulProcID = ulProcID;

    const MOD_PROC_CFG_S *pstCfg = MOD_GetProcCfgByID(ulProcID);
    if (pstCfg == nullptr) {
        IBP_ERR("get proc cfg info by ID %#x failed!", ulProcID);
        return 1;
    }
    if (MOD_InitProcEpoll(pstProc, pstCfg) != 0) {
        IBP_ERR("init proc epoll fail!");
        return 1;
    }
    MOD_InitModulePool(MOD_ProcThreadProc);
    MOD_InitListCtrl(&pstProc->stSendMsgCtrl, MOD_NOMINAL_MAX_NUM);
    MOD_SetRemoteSendQueue(&pstProc->stSendMsgCtrl);

    CBUF_INIT_S stBufInit;
    memset(&stBufInit, 0, sizeof(stBufInit));
    stBufInit.pcName = pstProc->szProcName;
    stBufInit.ulElemSize = 1;
    stBufInit.ulElemNum = kRecvBufLen;
    stBufInit.bOverride = 0;
    pstProc->hCircBuf = CBUF_Init(&stBufInit);
    u32 ulRet = 1;
    char acCmdName[MOD_NAME_LEN];
    MOD_CmdModuleName(pstProc->szProcName, acCmdName);
    if (pstProc->hCircBuf == nullptr) {
        IBP_ERR("circ buf init failed! ulElemNum=%u ulElemSize=%u", stBufInit.ulElemNum, stBufInit.ulElemSize);
    } else if (MOD_RegModule(acCmdName, &pstProc->ulCmdModuleID) != 0) {
        IBP_ERR("register module %s failed!", acCmdName);
    } else if (MOD_RegModule(pstProc->szProcName, &pstProc->ulProcModuleID) != 0) {
        IBP_ERR("register module %s failed!", pstProc->szProcName);
        MOD_UnregModule(pstProc->ulCmdModuleID);
    } else {
        ulRet = 0;
    }
    if (ulRet != 0) {
        MOD_SetRemoteSendQueue(nullptr);
        if (pstProc->hCircBuf != nullptr) {
            CBUF_Destroy(pstProc->hCircBuf);
            pstProc->hCircBuf = nullptr;
        }
        MOD_DestroyProcEpoll(pstProc);
    }
    return ulRet;
}

enum class RecvResult { kData, kEmpty, kBufFull, kBufFullQuiet, kFail };

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
        if (bUnfinished && MOD_RateAdmit(MOD_RATE_KIND_E::UNFINISHED)) {
            char acFrom[INET_ADDRSTRLEN] = "";
            inet_ntop(AF_INET, &gstBufSender.sin_addr, acFrom, sizeof(acFrom));
            IBP_WRN("drop %u bytes of an unfinished msg from %s:%u, a datagram of another sender came", *pulUsed,
                    acFrom, static_cast<unsigned>(ntohs(gstBufSender.sin_port)));
        }
        (void)CBUF_DropElem(gstCurProc.hCircBuf, *pulUsed);
        *pulUsed = 0;
    }
    gstBufSender = *pstAddr;
}

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

MOD_PARSE_RESULT_S MOD_ParseOne(const struct sockaddr_in *pstAddr, u32 *pulFlag)
{
    if (pulFlag == nullptr) {
        IBP_ERR("pulFlag is NULL");
        return {1, false, false};
    }
    CBUF_HANDLE hBuf = gstCurProc.hCircBuf;
    if (CBUF_TokenLocate(hBuf, kPrefixBytes, sizeof(kPrefixBytes)) != 0) {
        *pulFlag = MOD_PARSE_MORE;
        return {0, false, false};
    }
    u32 ulUsed = 0;
    u32 ulRet = CBUF_GetReadNum(hBuf, &ulUsed);
    if (ulRet != 0) {
        IBP_ERR("get circ buf used count failed! ulRet=%u", ulRet);
        *pulFlag = MOD_PARSE_FAIL;
        return {1, false, false};
    }
    MSG_HDR_S stHdr;
    if (ulUsed < MSG_HDR_LEN || CBUF_Prefetch(hBuf, MSG_HDR_LEN, &stHdr) != static_cast<s32>(MSG_HDR_LEN)) {
        *pulFlag = MOD_PARSE_MORE;
        return {0, false, false};
    }
    // Records about bad input come under a rate limit: past the first few of
    // a second, a bad header is stepped over without them.
    if (MSG_HdrIsBad(&stHdr) && !MOD_RateAdmit(MOD_RATE_KIND_E::BAD_HDR)) {
        MOD_RateLeaveOut(MOD_RATE_KIND_E::BAD_HDR, MOD_SkipBadHeaders(hBuf));
        return {1, true, true};
    }
    if (MSG_CheckHdr(reinterpret_cast<const char *>(&stHdr), MSG_HDR_LEN) != 0) {
        IBP_ERR("msg header check failed!");
        MOD_SkipPrefix();
        return {1, true, false};
    }
    if (stHdr.ulMsgLen > kMaxMsgInBuf) {
        const bool bLog = MOD_RateAdmit(MOD_RATE_KIND_E::LONG_MSG);
        if (bLog)
            IBP_ERR("msg len %u never fits the receive buffer, skip it", stHdr.ulMsgLen);
        MOD_SkipPrefix();
        return {1, true, !bLog};
    }
    if (stHdr.ulMsgLen > ulUsed) {
        *pulFlag = MOD_PARSE_MORE;  // the rest may come in the next datagram
        return {0, false, false};
    }
    MOD_MODULE_S *pstModule = MOD_GetModuleByID(stHdr.ulDstModuleID);
    if (pstModule == nullptr) {
        if (MOD_RateAdmit(MOD_RATE_KIND_E::NO_DEST)) {
            IBP_ERR("module not found by dest module id %#x!", stHdr.ulDstModuleID);
            IBP_ERR("drop msg: " MOD_MSG_HDR_FMT, MOD_MSG_HDR_ARGS(&stHdr));
        }
        (void)CBUF_DropElem(hBuf, stHdr.ulMsgLen);
        *pulFlag = MOD_PARSE_DROP;
        return {0, false, false};
    }
    MOD_BUF_S *pstBuf = MOD_GetBuf(stHdr.ulMsgLen);
    if (pstBuf == nullptr) {
        IBP_ERR("get module buffer fail! size=%u", stHdr.ulMsgLen);
        return {1, false, false};
    }
    if (pstBuf->pMem == nullptr || pstBuf->ulLen < stHdr.ulMsgLen) {
        MOD_FreeBuf(pstBuf);
        *pulFlag = MOD_PARSE_BADBUF;
        return {0, false, false};
    }
    if (CBUF_Read(hBuf, stHdr.ulMsgLen, pstBuf->pMem) != static_cast<s32>(stHdr.ulMsgLen)) {
        IBP_ERR("circ buf read fail!");
        MOD_FreeBuf(pstBuf);
        return {1, false, false};
    }
    auto *pstMsgHdr = static_cast<MSG_HDR_S *>(pstBuf->pMem);
    pstMsgHdr->ulPeerAddr = pstAddr != nullptr ? pstAddr->sin_addr.s_addr : 0;
    pstMsgHdr->usPeerPort = pstAddr != nullptr ? pstAddr->sin_port : 0;
    *pulFlag = MOD_PARSE_DONE;
    if (stHdr.enMsgType == MSG_TYPE_SYNC_ACK) {
        // Straight to the thread that waits for it; no module thread to wake.
        MOD_DeliverSyncAck(pstModule, pstBuf);
        return {0, false, false};
    }
    ulRet = MOD_AddModuleMsg(&pstModule->stMsgCtrl, pstBuf);
    if (ulRet != 0) {
        *pulFlag = MOD_PARSE_FAIL;
        IBP_ERR("add msg to module fail! ulRet=%u", ulRet);
        MOD_FreeBuf(pstBuf);
        return {1, false, false};
    }
    if (MOD_WakeupModule(stHdr.ulDstModuleID) != 0) {
        IBP_ERR("wake module %#x fail", stHdr.ulDstModuleID);
        return {1, false, false};
    }
    return {0, false, false};
}

// Delivers every complete message in the receive buffer. A header that was
// stepped over does not end the pass: what stands behind it is delivered now.
void MOD_ParseAll(const struct sockaddr_in *pstAddr)
{
    for (;;) {
        u32 ulFlag = 0;
        MOD_PARSE_RESULT_S stRes = MOD_ParseOne(pstAddr, &ulFlag);
        if (stRes.ulRet != 0) {
            if (!stRes.bQuiet)
                IBP_ERR("parse socket msg fail!");
            if (stRes.bConsumed)
                continue;
            return;
        }
        if (ulFlag != MOD_PARSE_DONE)
            return;
    }
}

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

void MOD_SendSocketMsgProc()
{
    for (;;) {
        struct sockaddr_in stAddr;
        memset(&stAddr, 0, sizeof(stAddr));
        MOD_BUF_S *pstBuf = MOD_GetModuleMsg(&gstCurProc.stSendMsgCtrl, MOD_GET_BY_ORDER, 0);
        if (pstBuf == nullptr)
            return;
        if (pstBuf->pMem == nullptr) {
            IBP_ERR("buf memory addr invalid");
            MOD_FreeBuf(pstBuf);
            return;
        }
        const auto *pstHdr = static_cast<const MSG_HDR_S *>(pstBuf->pMem);
        const MOD_PROC_CFG_S *pstCfg = MOD_GetProcCfgByID(pstHdr->ulDstProcID);
        if (pstCfg == nullptr) {
            IBP_ERR("get proc cfg info by id %#x fail", pstHdr->ulDstProcID);
            MOD_FreeBuf(pstBuf);
            return;
        }
        stAddr.sin_family = AF_INET;
        if (pstCfg->usSocketPort != 0) {
            stAddr.sin_addr.s_addr = ISP_inet_addr(pstCfg->szSocketAddr);
            stAddr.sin_port = ISP_htons(pstCfg->usSocketPort);
        } else {
            stAddr.sin_addr.s_addr = pstHdr->ulPeerAddr;
            stAddr.sin_port = pstHdr->usPeerPort;
        }
        s32 lSocket = SKT_GetSocketFD(gstCurProc.hSendSocket);
        if (lSocket == -1) {
            IBP_ERR("get socket fd fail!");
            MOD_FreeBuf(pstBuf);
            return;
        }
        ssize_t lSent = ISP_sendto(lSocket, pstBuf->pMem, pstBuf->ulLen, 0,
                                   reinterpret_cast<const struct sockaddr *>(&stAddr), sizeof(stAddr));
        if (lSent < 0 || static_cast<u32>(lSent) != pstBuf->ulLen)
            IBP_ERR("send msg to ip addr %s failed!", pstCfg->szSocketAddr);
        MOD_FreeBuf(pstBuf);
    }
}

}  // namespace

bool MOD_IsSysRunning() { return __atomic_load_n(&gbSysRunning, __ATOMIC_ACQUIRE); }

void MOD_WakeProcThread()
{
    if (__atomic_exchange_n(&gulWakePending, 1u, __ATOMIC_SEQ_CST) != 0)
        return;  // a write is on its way and the thread has not run since
    const u64 ullOne = 1;
    MOD_MutexGuard lock(&gstWakeFdLock);
    s32 lFd = __atomic_load_n(&glWakeFd, __ATOMIC_ACQUIRE);
    if (lFd >= 0)
        (void)!write(lFd, &ullOne, sizeof(ullOne));
}

void *MOD_ProcThreadProc(void *pvModule)
{
    auto *pstModule = static_cast<MOD_MODULE_S *>(pvModule);
    if (pstModule == nullptr) {
        IBP_ERR("pstModule is NULL");
        return nullptr;
    }
    ISP_prctl(kPrSetName, reinterpret_cast<unsigned long>("MOD_ProcThr"), 0, 0, 0);
    s32 lSocket = MOD_RecvFd();
    if (lSocket == -1) {
        IBP_ERR("get socket fd fail!");
        return nullptr;
    }
    IBP_INF("enter proc thread: szModuleName=%s ulProcID=%#x ulModuleID=%#x", pstModule->szModuleName,
            pstModule->ulProcID, pstModule->ulModuleID);
    const s32 lWakeFd = __atomic_load_n(&glWakeFd, __ATOMIC_ACQUIRE);
    while (MOD_IsRunning(pstModule)) {
        struct epoll_event astEvents[kEpollEvents];
        // No tick: asleep until the socket, a wake-up, or a due rate-limit count.
        int lNum = epoll_wait(gstCurProc.lEpollFd, astEvents, kEpollEvents, MOD_RateFlush());
        if (lNum < 0) {
            int err = errno;
            IBP_ERR("epoll_wait error! errno=%d, %s", err, strerror(err));
            if (err != EINTR)
                ISP_msleep(kEpollErrorPauseMs);
            continue;
        }
        for (int i = 0; i < lNum; i++) {
            if ((astEvents[i].events & EPOLLIN) == 0)
                continue;
            if (astEvents[i].data.fd == lSocket)
                MOD_RecvSocketMsgProc();
            else if (astEvents[i].data.fd == lWakeFd)
                MOD_TakeWakeUp(lWakeFd);
        }
        MOD_RecvMsgProc(pstModule);
        MOD_SendSocketMsgProc();
    }
    IBP_INF("exit proc thread: szModuleName=%s ulProcID=%#x ulModuleID=%#x", pstModule->szModuleName,
            pstModule->ulProcID, pstModule->ulModuleID);
    return nullptr;
}

extern "C" {

IBP_API u32 MOD_SysInit(const char *pcProcName, u32 ulProcID)
{
    if (pcProcName == nullptr) {
        IBP_ERR("pcProcName is NULL");
        return 1;
    }
    if (pcProcName[0] == '\0') {
        IBP_ERR("param invalid, proc name is empty!");
        return 1;
    }
    // Setting up lists and queues under running threads would corrupt them.
    if (MOD_IsSysRunning()) {
        IBP_ERR("module sys is running already! procName=%s", gstCurProc.szProcName);
        return 1;
    }
    if (MOD_InitProc(pcProcName, ulProcID) != 0) {
        IBP_ERR("init proc failed! pcProcName=%s ulProcID=%#x", pcProcName, ulProcID);
        return 1;
    }
    __atomic_store_n(&gbSysRunning, true, __ATOMIC_RELEASE);
    IBP_INF("module sys init succeed! procName=%s procID=%#x", pcProcName, ulProcID);
    return 0;
}

IBP_API u32 MOD_SysDestroy(void)
{
    MOD_PROC_S *pstProc = &gstCurProc;
    if (MOD_UnregModule(pstProc->ulProcModuleID) != 0)
        IBP_ERR("unregister module %#x fail", pstProc->ulProcModuleID);
    if (MOD_UnregModule(pstProc->ulCmdModuleID) != 0)
        IBP_ERR("unregister module %#x fail", pstProc->ulCmdModuleID);
    // The process thread has stopped: nobody sends what is left, so free it.
    MOD_SetRemoteSendQueue(nullptr);
    if (pstProc->stSendMsgCtrl.stUsedList.pstNext != nullptr)
        MOD_DrainQueue(&pstProc->stSendMsgCtrl);
    CBUF_Destroy(pstProc->hCircBuf);
    pstProc->hCircBuf = nullptr;
    MOD_DestroyProcEpoll(pstProc);
    MOD_RateReset();  // no timer is left to write what was counted
    __atomic_store_n(&gbSysRunning, false, __ATOMIC_RELEASE);
    IBP_INF("module sys destroy succeed!");
    return 0;
}

IBP_API u32 MOD_RecvSocketData(struct sockaddr_in *pstAddr)
{
    RecvResult enRes = MOD_RecvDatagram(pstAddr);
    return (enRes == RecvResult::kData || enRes == RecvResult::kEmpty) ? 0 : 1;
}

IBP_API u32 MOD_ParseSocketMsg(const struct sockaddr_in *pstAddr, u32 *pulFlag)
{
    return MOD_ParseOne(pstAddr, pulFlag).ulRet;
}

IBP_API void MOD_DestroyProcEpoll(MOD_PROC_S *pstProc)
{
    if (pstProc == nullptr) {
        IBP_ERR("pstProc is NULL");
        return;
    }
    SKT_UdpDestroy(&pstProc->hRecvSocket);
    pstProc->hSendSocket = nullptr;
    if (pstProc == &gstCurProc)
        MOD_CloseWakeFd();
    if (pstProc->lEpollFd >= 0)
        ISP_close(pstProc->lEpollFd);
    pstProc->lEpollFd = -1;
}

}  // extern "C"
