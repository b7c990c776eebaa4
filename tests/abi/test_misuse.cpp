// Misuse of every exported call that takes a pointer, a handle or a length,
// in a running service process: each pointer argument null in turn (those
// behind it null as well, so the record must name the first), handles
// destroyed before or never made, lengths past the end of what the call can
// see. Each case gives its result and exactly one first record, never a crash.
#include <gtest/gtest.h>

#include <sys/prctl.h>

#include <cstdint>
#include <ctime>
#include <fstream>
#include <functional>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "harness/service.h"

using namespace ibptest;

namespace {

// The arguments of one case: those before ulBad as given, the one at ulBad
// replaced by pBad, those behind it null or, for a bad handle, as given.
struct Args {
    u32 ulBad;
    void *pBad;
    template <typename T> T P(u32 i, T p) const
    {
        if (i < ulBad || (i > ulBad && pBad != nullptr))
            return p;
        if constexpr (std::is_object_v<std::remove_pointer_t<T>>)
            return i == ulBad ? static_cast<T>(pBad) : nullptr;
        return nullptr;
    }
};

// A handle destroyed before, or never made, at argument ulArg.
struct BadHandle {
    u32 ulArg;
    void *pHandle;
    const char *pcText;
};

// Records are "LEVEL MODULE text", "out:" a line on standard output, ""
// neither; a text without its level and module is ERR BP.
using Fn = std::function<long(const Args &)>;

// Calls of one shape share a row.
struct Row {
    std::vector<Fn> calls;
    long lResult;
    std::vector<std::string> texts;  // the first record with pointer argument k null
    std::vector<BadHandle> bad = {};
};

// Results as one number: a pointer is 1 when set, a broken-down time its day.
long Ret(long l) { return l; }
long Ret(const volatile void *p) { return p != nullptr; }
long Ret(const struct tm &t) { return t.tm_mday; }

// A call with valid arguments, whose cases null its pointer arguments (counted
// alone, in order) or put a bad handle in one of them.
template <typename R, typename... P, typename... A> Fn Call(R (*pfn)(P...), A... args)
{
    return [=](const Args &a) {
        u32 i = 0;
        const auto pick = [&]<typename T>(T v) {
            if constexpr (std::is_pointer_v<T>)
                return a.P(i++, v);
            else
                return v;
        };
        const std::tuple<A...> t{pick(args)...};  // left to right
        if constexpr (std::is_void_v<R>)
            return (std::apply(pfn, t), 0L);
        else
            return Ret(std::apply(pfn, t));
    };
}
// A call made once, as written: a length or a block that the call can see is wrong.
#define ONCE(...) [&](const Args &) { return Ret(__VA_ARGS__); }

std::string Expected(const std::string &s)
{
    if (s.starts_with("out:"))
        return s + "\n";
    return s.empty() || s.starts_with("ERR ") || s.starts_with("WRN ") ? s : "ERR BP " + s;
}

u32 Handler(u32, MSG_HANDLE, void *) { return 0; }
void Visit(void *, void *, u32 *) {}
std::string Ptr(const void *p) { char ac[32]; snprintf(ac, sizeof(ac), "%p", p); return ac; }

class Misuse : public ServiceTest<LOG_LEVEL_WRN> {  // not the threads' INF records
protected:
    void Check(size_t ulRow, size_t ulCall, const Row &r, const Args &a, const std::string &text)
    {
        SCOPED_TRACE(testing::Message() << "row " << ulRow << " (" << r.texts[0] << "), call " << ulCall
                                        << ", argument " << a.ulBad << (a.pBad != nullptr ? " bad" : " null"));
        cap_.Clear();
        testing::internal::CaptureStdout();
        const long lResult = r.calls[ulCall](a);
        std::string seen = testing::internal::GetCapturedStdout();
        EXPECT_EQ(lResult, r.lResult);
        seen = seen.empty() ? "" : "out:" + seen;
        if (const auto lines = cap_.Lines(); !lines.empty())
            seen += lines[0];
        EXPECT_EQ(seen, Expected(text));
    }
};

TEST_F(Misuse, EveryCallRefusesWithItsResultAndRecord)
{
    const CBUF_INIT_S stInit = {"misuse", 1, 8, 0, nullptr, nullptr, nullptr};
    const SKT_SOCK_INFO_S stSock = {0, SKT_ROLE_CLIENT, 0, 0, inet_addr("127.0.0.1"), htons(7009), 0, 0, 0, 10};
    CBUF_HANDLE hBuf = CBUF_Init(&stInit), hDeadBuf = CBUF_Init(&stInit);
    SKT_HANDLE hSock = SKT_UdpInit(&stSock), hDeadSock = SKT_UdpInit(&stSock);
    CBUF_Destroy(hDeadBuf);
    SKT_UdpDestroy(&hDeadSock);
    void *pNever = reinterpret_cast<void *>(uintptr_t{0x40});  // reading it would crash
    const auto Bad = [&](u32 ulArg, void *pDead, const char *pcText) {
        return std::vector<BadHandle>{{ulArg, pDead, pcText}, {ulArg, pNever, pcText}};
    };
    const auto kBuf = Bad(0, hDeadBuf, "hCBuf is invalid"), kSock = Bad(0, hDeadSock, "pstSocketCB is invalid");
    const auto kSockIn = Bad(1, hDeadSock, "*ppstSocketCB is invalid");
    // The poll takes a block of the caller's own making as it is: only a destroyed one is refused unread.
    const std::vector<BadHandle> kPolled = {{1, hDeadSock, kSock[0].pcText}};
    MSG_HANDLE hMsg = MSG_Create("hi", 2), hLying = MSG_Create("hi", 2), hShort = MOD_GetBuf(8), hAck = nullptr;
    MOD_MODULE_S *pstProc = MOD_GetModuleByID(MOD_PROC_MODULE_ID);
    ASSERT_TRUE(hBuf && hSock && hMsg && hShort && pstProc);
    static_cast<MSG_HDR_S *>(hLying->pMem)->ulMsgBodyLen = 100;
    ISP_MSG_S stRec = {MOD_ID_ISP_IMG, 0, 0, 0, 1, 0}, stHuge = {MOD_ID_ISP_IMG, 0, 0, 0, 1, 0xfffffff0u}, *pstAck;
    MOD_MSG_CTRL_S stQueue{};
    MOD_MSG_PROC_CTRL_S *pstHandlers = &pstProc->stMsgProcCtrl;
    CMD_ELEMENT_S stElem{};
    XML_DOC_S stNoTree{};
    XML_GET_TABLE_S astTable[1] = {};
    ISP_LIN_S stLin = {{{10, 1}}, 1};
    u8 aucMem[64] = {}, aucMac[6];
    u32 aul[2] = {1, 1}, ulNum = 8, ulZero = 0;
    void *pMem = nullptr;
    char *pcParam = nullptr, acOut[64] = {};
    sockaddr_in stAddr{};
    time_t tNow = 0;
    struct tm stTm;
    ASSERT_TRUE(std::ofstream("/tmp/m.xml") << "<?xml version=\"1.0\"?>\n<cfg><v>1</v></cfg>\n");
    XML_HANDLE hDoc = XML_InitLensFile("/tmp/m.xml");
    XML_NODE hN = XML_GetNodeset(hDoc, "cfg/v");
    ASSERT_NE(hN, nullptr);
    const u32 kImg = MOD_ID_ISP_IMG, kProc = MOD_PROC_MODULE_ID;

    const std::vector<Row> rows = {
        // start, the log
        {{Call(IBP_Init, (IBP_INIT_S *)nullptr)}, 1, {"out:pstInit is NULL"}},
        {{Call(IBP_LOG_Init, (const LOG_INIT_S *)nullptr)}, 1, {"out:pstInit is NULL!"}},
        {{Call(IBP_LOG_SetLevelByName, "BP", 1)}, 1, {"pcName is NULL"}},
        {{[](const Args &a) { return (LOG_Pirnt(0, 3, a.P(0, "f"), a.P(1, "fn"), 1, a.P(2, "%s"), "x"), 0L); }}, 0,
         {"out:pcSrcFile is NULL", "out:pcFunc is NULL", "out:pcFormat is NULL"}},
        {{Call(IBP_SetLoglevel, &ulNum, acOut)}, 1, {"pulOutBufLen is NULL"}},
        // modules, queues, handlers, transport, inspection
        {{Call(MOD_GetProcCfgByName, "ISP")}, 0, {"pcProcName is NULL"}},
        {{Call(MOD_GetModuleCfgByName, "ISP")}, 0, {"pcModuleName is NULL"}},
        {{Call(MOD_RegModule, "ISP_IMG", &ulNum)}, 1, {"pcModuleName is NULL", "pulModuleID is NULL"}},
        {{Call(MOD_AddModuleMsg, &stQueue, hMsg)}, 1, {"pstMsgCtrl is NULL", "pstModBuf is NULL"}},
        {{Call(MOD_GetModuleMsg, &stQueue, MOD_GET_BY_ORDER, 0)}, 0, {"pstMsgCtrl is NULL"}},
        {{Call(MOD_RecvMsgProc, pstProc)}, 1, {"pstModule is NULL"}},
        {{Call(MOD_SendMsgProc, pstProc, hMsg)}, 1, {"pstSrcModule is NULL", "pstModBuf is NULL"}},
        {{Call(MOD_SysInit, "ISP", MOD_PROC_ID_ISP)}, 1, {"pcProcName is NULL"}},
        {{Call(MOD_RecvSocketData, &stAddr)}, 1, {"pstAddr is NULL"}},
        {{ONCE(MOD_ParseSocketMsg(&stAddr, nullptr))}, 1, {"pulFlag is NULL"}},
        {{Call(MOD_DestroyProcEpoll, (MOD_PROC_S *)nullptr)}, 0, {"pstProc is NULL"}},
        {{Call(MOD_RegMsgProc, kImg, 1, Handler, nullptr)}, 1, {"pfnMsgProc is NULL"}},
        {{Call(MOD_AddMsgProc, pstHandlers, 1, Handler, nullptr)}, 1,
         {"pstMsgProcCtrl is NULL", "pfnMsgProc is NULL"}},
        {{Call(MOD_DelMsgProc, pstHandlers, 1)}, 1, {"pstMsgProcCtrl is NULL"}},
        {{Call(MOD_GetMsgProc, pstHandlers, 1)}, 0, {"pstCtrl is NULL"}},
        {{Call(MOD_PrintModule, &ulNum, acOut), Call(MOD_PrintModuleCfg, &ulNum, acOut),
          Call(MOD_PrintProcCfg, &ulNum, acOut), Call(CBUF_PrintCircBuf, &ulNum, acOut),
          Call(SKT_PrintSock, &ulNum, acOut)},
         1, {"pulOutBufLen is NULL", "pcOutBuf is NULL"}},
        // message objects and sending; a block too short for a header, a header that claims too much
        {{Call(MOD_FreeBuf, hMsg), Call(MSG_Destroy, hMsg)}, 0, {"pstModBuf is NULL"}},
        {{Call(MSG_Create, "hi", 2)}, 0, {"pulMem is NULL"}},
        {{Call(MSG_Clone, hShort)}, 0, {"hMsg is invalid"}},
        {{Call(MSG_Decode, hMsg, &pMem, &ulNum)}, 1, {"hMsg is invalid", "ppMemAddr is NULL", "pulMemLen is NULL"}},
        {{ONCE(MSG_Decode(hLying, &pMem, &ulNum))}, 1,
         {"message body len error! ulMsgBodyLen=100 ulHdrLen=48 ulBufLen=50"}},
        {{Call(MSG_GetAssMsgID, hMsg, &ulNum)}, 1, {"hMsg is invalid", "pulAssMsgID is NULL"}},
        {{Call(MSG_CheckHdr, (const char *)aucMem, 48)}, 1, {"pcMsgHdr is NULL"}},
        {{Call(MSG_ConfigHdr, hShort, kProc, kImg, MSG_TYPE_SYNC_REQ, 1)}, 1, {"hMsg is invalid"}},
        {{ONCE(MSG_GetAssMsgID(hShort, &ulNum)), ONCE(MSG_ConfigHdr(hShort, kProc, kImg, MSG_TYPE_SYNC_REQ, 1)),
          ONCE(MSG_SendSyncMsg(kImg, 1, hShort, 10, &hAck)), ONCE(MSG_SendAsyncMsg(kImg, 1, MOD_GetBuf(8)))},
         1, {"pstMsgHdr is NULL"}},  // the async call destroys its block
        {{Call(MSG_SendSyncMsg, kImg, 1, hShort, 10, &hAck)}, 1, {"hReqMsg is invalid", "phAckMsg is NULL!"}},
        {{Call(MSG_SendAsyncMsg, kImg, 1, hShort), Call(MSG_ForwardMsg, MOD_ID_ISP_CMD, hShort),
          ONCE(MSG_SendAckMsg(hShort, hMsg))}, 1, {"hReqMsg is invalid"}},
        {{Call(MSG_SendAckMsg, hMsg, hMsg)}, 1, {"hReqMsg is invalid", "hAckMsg is invalid"}},
        {{ONCE(MSG_ForwardMsg(MOD_ID_ISP_CMD, hShort))}, 1, {"get request message header fail"}},
        {{Call(ISP_SendSyncMsg, &stRec, 10, &pstAck)}, 1, {"pstReqMsg is NULL", "ppstAckMsg is NULL"}},
        {{Call(ISP_SendAsyncMsg, &stRec)}, 1, {"pstReqMsg is NULL"}},
        {{ONCE(ISP_SendSyncMsg(&stHuge, 10, &pstAck)), ONCE(ISP_SendAsyncMsg(&stHuge))}, 1,
         {"request memory size 4294967295 too big"}},
        {{Call(ISP_SendAckMsg, hMsg, "hi", 2)}, 1, {"hReqMsg is invalid", "pulMem is NULL"}},
        {{Call(ISP_IsMsgValid, &stRec, 24)}, 0, {"pstMsg is NULL"}},
        // circular buffers and queues
        {{Call(CBUF_Init, &stInit), Call(CQUE_Init, &stInit)}, 0, {"pstInit is NULL"}},
        {{Call(CBUF_IsEmpty, hBuf), Call(CBUF_Destroy, hBuf), Call(CQUE_Destroy, hBuf), Call(CBUF_Reset, hBuf),
          Call(CQUE_Reset, hBuf)}, 0, {"hCBuf is invalid"}, kBuf},
        {{Call(CBUF_IsFull, hBuf)}, 0, {"pstCBuf is NULL!"}, kBuf},
        {{Call(CBUF_Read, hBuf, 1, aucMem), Call(CBUF_Write, hBuf, aucMem, 1), Call(CBUF_Prefetch, hBuf, 1, aucMem)},
         -1, {"hCBuf is invalid", "pMem is NULL"}, kBuf},
        {{Call(CQUE_Pop, hBuf, aucMem), Call(CQUE_Push, hBuf, aucMem)}, 1, {"hCBuf is invalid", "pMem is NULL"}, kBuf},
        {{Call(CBUF_Iterate, hBuf, Visit, nullptr), Call(CQUE_Iterate, hBuf, Visit, nullptr)}, 1,
         {"hCBuf is invalid", "pfnIter is NULL"}, kBuf},
        {{Call(CBUF_GetWriteMemNum, hBuf, &pMem, &ulNum, aul)}, 1,
         {"hCBuf is NULL", "pWriteMem is NULL", "pulNum is NULL", "pbNext is NULL"}, kBuf},
        {{Call(CBUF_SetWriteNum, hBuf, 0), Call(CBUF_DropElem, hBuf, 1)}, 1, {"hCBuf is invalid"}, kBuf},
        {{ONCE(CBUF_SetWriteNum(hBuf, 8))}, 1, {"circ buf space not enough! request=8 space=7 maxNum=8"}},
        {{Call(CBUF_GetReadNum, hBuf, &ulNum)}, 1, {"hCBuf is invalid", "pulNum is NULL"}, kBuf},
        {{Call(CBUF_TokenLocate, hBuf, (const u8 *)aucMem, 1)}, 1, {"hCBuf is invalid", "pucToken is NULL"}, kBuf},
        // sockets
        {{Call(SKT_UdpInit, &stSock), Call(SKT_TcpInit, &stSock)}, 0, {"pstSockInfo is NULL"}},
        {{Call(SKT_GetSocketFD, hSock)}, -1, {"pstSocketCB is NULL"}, kSock},
        {{Call(SKT_GetMacAddr, "lo", aucMac)}, 1, {"pcNetName is NULL!", "pucMacAddr is NULL!"}},
        {{[&](const Args &a) { SKT_HANDLE h = a.P(1, hSock); return Ret(SKT_TcpPollSock(1, a.P(0, &h), 1)); }}, 1,
         {"pstSocketCB is NULL", "pstSocketCB is NULL"}, kPolled},
        {{ONCE(SKT_TcpPollSock(0, &hSock, 10))}, 1, {"invalid socket number"}},
        {{Call(SKT_TcpConnect, hSock)}, 1, {"pstSocketCB is NULL"}, kSock},
        {{Call(SKT_TcpSend, hSock, 4, aucMem, aul, aul)}, -1, {"pstSocketCB is NULL!"}, kSock},
        {{[&](const Args &a) { return Ret(SKT_TcpSend(hSock, 4, a.P(0, aucMem), a.P(1, aul), a.P(2, aul))); }}, 1,
         {"pucBuf is NULL", "pulRetryNum is NULL", "pulSleepTime is NULL"}},
        {{Call(SKT_TcpRecv, hSock, 0, &ulNum, aucMem)}, 1,
         {"pstSocketCB is NULL", "pulDataLen is NULL", "pucBuf is NULL"}, kSock},
        {{ONCE(SKT_TcpRecv(hSock, 0, &ulZero, aucMem))}, 1, {"Param illegal, datalen is 0"}},
        // debug commands and the command line
        {{Call(CMD_SetCmdElement, &stElem, 1, "t", nullptr)}, 0,
         {"Param illegal, pstCmdE:(nil), pcCmdTitle:(nil)",
          "Param illegal, pstCmdE:" + Ptr(&stElem) + ", pcCmdTitle:(nil)"}},
        {{Call(CMD_RegDisplayCmd, MOD_PrintProcCfg, &stElem, 1)}, 1, {"pfnCmdProc is NULL", "invaild input param."}},
        {{Call(CMD_ProcMsg, 0x10002, hMsg, nullptr)}, 0, {"hReqMsg is invalid"}},
        {{Call(CMD_GetParamNumFromMsg, aucMem, &ulNum)}, 1, {"pParamMsg is NULL", "pulParamNum is NULL"}},
        {{Call(CMD_GetParamInfoFromMsg, 1, nullptr, &pcParam)}, 1, {"Param illegal, ppcParaInfo:(nil), ulParaSeq:1"}},
        {{ONCE(CMD_GetParamInfoFromMsg(8, nullptr, &pcParam))}, 1,
         {"Param illegal, ppcParaInfo:" + Ptr(&pcParam) + ", ulParaSeq:8"}},
        {{Call(ISP_CLI_PrintTree, (CLI_NODE_S *)nullptr)}, 1, {"ERR CLI pstCurModule is NULL"}},
        // XML documents and readers
        {{Call(XML_Init, "/tmp/m.xml", nullptr), Call(XML_InitLensFile, "/tmp/m.xml")}, 0, {"pcXmlFile is NULL"}},
        {{Call(XML_Destroy, &stNoTree)}, 0, {"hHandle is invalid"}},
        {{ONCE((XML_Destroy(&stNoTree), 0)), ONCE(XML_GetNodeset(&stNoTree, "cfg"))}, 0, {"xml node is invalid"}},
        {{Call(XML_GetNodeset, hDoc, "cfg")}, 0, {"hHandle is invalid", "pcNodePath is NULL"}},
        {{Call(XML_GetInt, hN, 4, aul, aul)}, 1, {"hNode is invalid", "pulElemNum is NULL", "pValue is NULL"}},
        {{Call(XML_GetIntArray, hN, 4, aul, aul)}, 1, {"hNode is invalid", "pulElemNum is NULL"}},
        {{Call(XML_GetString, hN, 0, aul, acOut)}, 1, {"hNode is invalid", "pulSize is NULL", "pValue is NULL"}},
        {{Call(XML_BatchGet, hDoc, "cfg", astTable, 1, aul)}, 1,
         {"hHandle is invalid", "pcNodePath is NULL", "pstGetTable is NULL", "pValue is NULL"}},
        {{Call(XML_GetIntArray2D, hDoc, "cfg", 4, aul, aul)}, 1,
         {"hHandle is invalid", "pcNodePath is NULL", "pulElemNum is NULL", "pValue is NULL"}},
        // numeric helpers
        {{Call(ISP_PieceWiseLinInterp_llu, &stLin, 5, &ulNum)}, 1, {"pstLin is NULL", "pulY is NULL"}},
        {{Call(__ISP_div0, "f.c", 7, 1, 0, 0)}, 1,
         {"WRN BP in file=(null) line=7: div 0 detected! divdend=1 divisor=0"}},
        // the ISP_ layer's own functions: results only, no record, but for the mutex handles
        {{Call(ISP_mutex_lock, aucMem), Call(ISP_mutex_unlock, aucMem)}, -1, {"hHandle is NULL!"}},
        {{Call(ISP_mutex_destroy, aucMem)}, 0, {"handle is NULL"}},
        {{Call(ISP_check_running, "misuse")}, 1, {""}},
        {{Call(ISP_thr_create, (ISP_THR_ENTRY_PFN) nullptr, nullptr, 0, nullptr, 0), Call(ISP_system, "true"),
          ONCE(ISP_prctl(PR_SET_NAME, 0, 0, 0, 0)), Call(ISP_rmdir, "/tmp/d", nullptr), Call(ISP_dultoa, 5, acOut),
          Call(ISP_settimeofday, (const ISP_TIMEVAL_S *)nullptr), Call(ISP_GetMonotonicTime, (u64 *)nullptr),
          Call(ISP_clock_gettime, 0, (ISP_TIMESPEC_S *)nullptr),
          Call(ISP_nanosleep, (const ISP_TIMESPEC_S *)nullptr, nullptr)},
         -1, {""}},
        {{Call(ISP_mkdir, "/tmp/d", 0755), Call(ISP_strnchr, "abc", 'b', 3), Call(ISP_ltoa, 5, acOut, 10),
          Call(ISP_atodul, "5"), Call(ISP_gmtime, &tNow), Call(ISP_localtime, &tNow)}, 0, {""}},
        {{Call(ISP_copy, "/tmp/m.xml", "/tmp/n.xml")}, -1, {"", ""}},
        {{Call(ISP_strnstr, "abc", "b", 1), Call(ISP_strlstr, "abc", "b", 1), Call(ISP_localtime_r, &tNow, &stTm)}, 0,
         {"", ""}},
        {{[&](const Args &a) { SKT_HANDLE h = a.P(1, hSock); return (SKT_UdpDestroy(a.P(0, &h)), 0L); },
          [&](const Args &a) { SKT_HANDLE h = a.P(1, hSock); return (SKT_TcpDestroy(a.P(0, &h)), 0L); }}, 0,
         {"phSocket is NULL", "*ppstSocketCB is NULL"}, kSockIn},
    };
    for (size_t i = 0; i < rows.size(); ++i) {
        for (size_t c = 0; c < rows[i].calls.size(); ++c) {
            for (u32 k = 0; k < rows[i].texts.size(); ++k)
                Check(i, c, rows[i], {k, nullptr}, rows[i].texts[k]);
            for (const BadHandle &b : rows[i].bad)
                Check(i, c, rows[i], {b.ulArg, b.pHandle}, b.pcText);
        }
    }
    XML_Destroy(hDoc);
    MSG_Destroy(hMsg);
    MSG_Destroy(hLying);
    MOD_FreeBuf(hShort);
    SKT_UdpDestroy(&hSock);
    CBUF_Destroy(hBuf);
}

}  // namespace
