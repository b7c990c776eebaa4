// Datagrams to the other process: where a message goes, and the sending,
// from the process thread (a batch of the outbound queue) or straight from
// the thread that sends (see the outbound queue in isp_module_route.cpp).
// sendto and sendmmsg on a datagram socket are atomic per datagram, so any
// thread may send while the process thread alone reads.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "ibp/isp_module.h"
#include "ibp/isp_socket.h"
#include "ibp/isp_system.h"
#include "log/log_internal.h"
#include "runtime/mod_stat.h"
#include "runtime/module_internal.h"
#include "runtime/proc_internal.h"

IBP_LOG_SOURCE("isp_module");

namespace {

constexpr u32 kSendBatch = 32;

// Where a message for the other process goes: the port of its row, or, for a
// row without a port, the peer that the header names. False, with the
// record, when the message cannot be sent at all.
bool MOD_DestOf(const MOD_BUF_S *pstBuf, struct sockaddr_in *pstAddr, const MOD_PROC_CFG_S **ppstCfg)
{
    if (pstBuf->pMem == nullptr) {
        IBP_ERR("buf memory addr invalid");
        return false;
    }
    const auto *pstHdr = static_cast<const MSG_HDR_S *>(pstBuf->pMem);
    const MOD_PROC_CFG_S *pstCfg = MOD_GetProcCfgByID(pstHdr->ulDstProcID);
    if (pstCfg == nullptr) {
        IBP_ERR("get proc cfg info by id %#x fail", pstHdr->ulDstProcID);
        return false;
    }
    memset(pstAddr, 0, sizeof(*pstAddr));
    pstAddr->sin_family = AF_INET;
    if (pstCfg->usSocketPort != 0) {
        pstAddr->sin_addr.s_addr = ISP_inet_addr(pstCfg->szSocketAddr);
        pstAddr->sin_port = ISP_htons(pstCfg->usSocketPort);
    } else {
        pstAddr->sin_addr.s_addr = pstHdr->ulPeerAddr;
        pstAddr->sin_port = pstHdr->usPeerPort;
    }
    *ppstCfg = pstCfg;
    return true;
}

s32 MOD_SendFd()
{
    s32 lSocket = SKT_GetSocketFD(gstCurProc.hSendSocket);
    if (lSocket == -1)
        IBP_ERR("get socket fd fail!");
    return lSocket;
}

void MOD_CountSent(const MOD_BUF_S *pstBuf, bool bSent, const MOD_PROC_CFG_S *pstCfg)
{
    MOD_PROC_STAT_COUNT_S &stStat = MOD_ProcStat();
    if (!bSent) {
        IBP_ERR("send msg to ip addr %s failed!", pstCfg->szSocketAddr);
        MOD_StatAdd(&stStat.ulSendFailures);
        return;
    }
    MOD_StatAdd(&stStat.ulDatagramsOut);
    MOD_StatAdd64(&stStat.ullBytesOut, pstBuf->ulLen);
}

// One batch of at most kSendBatch messages, every one of them sent and freed.
// False when a message stopped it: the ones behind wait for the next pass.
bool MOD_SendBatch(MOD_BUF_S *const *apstBuf, u32 ulNum, u32 *pulDone)
{
    struct sockaddr_in astAddr[kSendBatch];
    const MOD_PROC_CFG_S *apstCfg[kSendBatch];
    struct iovec astIov[kSendBatch];
    struct mmsghdr astMsg[kSendBatch];
    u32 ulReady = 0;
    bool bStop = false;
    for (; ulReady < ulNum && !bStop; ulReady++) {
        if (!MOD_DestOf(apstBuf[ulReady], &astAddr[ulReady], &apstCfg[ulReady]))
            bStop = true;
        astIov[ulReady] = {apstBuf[ulReady]->pMem, apstBuf[ulReady]->ulLen};
        memset(&astMsg[ulReady], 0, sizeof(astMsg[ulReady]));
        astMsg[ulReady].msg_hdr.msg_name = &astAddr[ulReady];
        astMsg[ulReady].msg_hdr.msg_namelen = sizeof(astAddr[ulReady]);
        astMsg[ulReady].msg_hdr.msg_iov = &astIov[ulReady];
        astMsg[ulReady].msg_hdr.msg_iovlen = 1;
    }
    const u32 ulToSend = bStop ? ulReady - 1 : ulReady;  // the stopper is freed unsent
    const s32 lSocket = ulToSend != 0 ? MOD_SendFd() : 0;
    for (u32 i = 0; i < ulToSend;) {
        int lSent = lSocket < 0 ? -1 : sendmmsg(lSocket, &astMsg[i], ulToSend - i, 0);
        if (lSent <= 0) {  // message i failed: no second attempt, as for any datagram
            MOD_CountSent(apstBuf[i], false, apstCfg[i]);
            i++;
            continue;
        }
        for (int k = 0; k < lSent; k++, i++)
            MOD_CountSent(apstBuf[i], astMsg[i].msg_len == apstBuf[i]->ulLen, apstCfg[i]);
    }
    for (u32 i = 0; i < ulReady; i++)
        MOD_FreeBuf(apstBuf[i]);
    *pulDone = ulReady;
    return !bStop;
}

}  // namespace

bool MOD_SendList(MOD_LIST_S *pstList)
{
    while (!MOD_ListEmpty(pstList)) {
        MOD_BUF_S *apstBuf[kSendBatch];
        u32 ulNum = 0;
        for (MOD_LIST_S *p = pstList->pstNext; p != pstList && ulNum < kSendBatch; p = p->pstNext)
            apstBuf[ulNum++] = MOD_ListEntry(p, &MOD_BUF_S::stNode);
        for (u32 i = 0; i < ulNum; i++)
            MOD_ListDel(&apstBuf[i]->stNode);
        u32 ulDone = 0;
        if (!MOD_SendBatch(apstBuf, ulNum, &ulDone)) {
            // The rest of this batch goes back in front of the list.
            for (u32 i = ulNum; i > ulDone; i--)
                MOD_ListPushFront(pstList, &apstBuf[i - 1]->stNode);
            return false;
        }
    }
    return true;
}

void MOD_SendToSender(MOD_BUF_S *pstBuf)
{
    const auto *pstHdr = static_cast<const MSG_HDR_S *>(pstBuf->pMem);
    struct sockaddr_in stAddr;
    memset(&stAddr, 0, sizeof(stAddr));
    stAddr.sin_family = AF_INET;
    stAddr.sin_addr.s_addr = pstHdr->ulPeerAddr;
    stAddr.sin_port = pstHdr->usPeerPort;
    const s32 lSocket = MOD_SendFd();
    const ssize_t lSent = lSocket < 0 ? -1
                                      : ISP_sendto(lSocket, pstBuf->pMem, pstBuf->ulLen, 0,
                                                   reinterpret_cast<const struct sockaddr *>(&stAddr), sizeof(stAddr));
    if (lSent != static_cast<ssize_t>(pstBuf->ulLen)) {
        IBP_ERR("send msg to ip addr %s failed!", inet_ntoa(stAddr.sin_addr));
        MOD_StatAdd(&MOD_ProcStat().ulSendFailures);
    } else {
        MOD_StatAdd(&MOD_ProcStat().ulDatagramsOut);
        MOD_StatAdd64(&MOD_ProcStat().ullBytesOut, pstBuf->ulLen);
    }
    MOD_FreeBuf(pstBuf);
}

bool MOD_SendNow(MOD_BUF_S *pstBuf)
{
    u32 ulDone = 0;
    return MOD_SendBatch(&pstBuf, 1, &ulDone);
}
