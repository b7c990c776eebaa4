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
#include <type_traits>
#include <vector>

#include "harness/log_capture.h"
#include "harness/test_env.h"
#include "runtime/transport_util.h"

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
struct Row {
    std::function<long(const Args &)> call;
    long lResult;
    std::vector<std::string> texts;  // the first record with pointer argument k null
    std::vector<BadHandle> bad = {};
};

// Results as one number: a pointer is 1 when set, a broken-down time its day.
long Ret(long l) { return l; }
long Ret(const volatile void *p) { return p != nullptr; }
long Ret(const struct tm &t) { return t.tm_mday; }
// Captures by reference: for the rows written out in the table below.
#define CALL(...) [&]([[maybe_unused]] const Args &a) { return Ret(__VA_ARGS__); }

std::string Expected(const std::string &s)
{
    if (s.starts_with("out:"))
        return s + "\n";
    return s.empty() || s.starts_with("ERR ") || s.starts_with("WRN ") ? s : "ERR BP " + s;
}

u32 Handler(u32, MSG_HANDLE, void *) { return 0; }
void Visit(void *, void *, u32 *) {}
std::string Ptr(const void *p) { char ac[32]; snprintf(ac, sizeof(ac), "%p", p); return ac; }

class Misuse : public testing::Test {
protected:
    void SetUp() override
    {
        IBP_REQUIRE_ISOLATION();
        IBP_INIT_S st = StartRecord(0, LogCapture::Sink(), LOG_LEVEL_WRN);  // not the threads' INF
        ASSERT_EQ(IBP_Init(&st), 0u) << cap_.Dump();
    }
    void TearDown() override
    {
        MOD_SysDestroy();
        CMD_Destroy();
    }
    void Check(size_t ulRow, const Row &r, const Args &a, const std::string &text)
    {
        SCOPED_TRACE(testing::Message() << "row " << ulRow << " (" << r.texts[0] << "), argument " << a.ulBad
                                        << (a.pBad != nullptr ? " bad" : " null"));
        cap_.Clear();
        testing::internal::CaptureStdout();
        EXPECT_EQ(r.call(a), r.lResult);
        std::string seen = testing::internal::GetCapturedStdout();
        seen = seen.empty() ? "" : "out:" + seen;
        const auto recs = cap_.Records();
        if (!recs.empty())
            seen += recs[0].level + " " + recs[0].module + " " + recs[0].text;
        EXPECT_EQ(seen, Expected(text));
    }
    LogCapture cap_;
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
    const auto kSockIn = Bad(1, hDeadSock, "*ppstSocketCB is invalid"), kPolled = Bad(1, hDeadSock, kSock[0].pcText);
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
    ISP_LIN_S stLin = {{{10, 1}}, 1}, stLin11 = {{}, 11};
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
    const std::vector<std::string> kOutBuf = {"pulOutBufLen is NULL", "pcOutBuf is NULL"};

    std::vector<Row> rows = {
        // start, the log
        {CALL(IBP_Init(a.P(0, (IBP_INIT_S *)nullptr))), 1, {"out:pstInit is NULL"}},
        {CALL(IBP_LOG_Init(a.P(0, (const LOG_INIT_S *)nullptr))), 1, {"out:pstInit is NULL!"}},
        {CALL(IBP_LOG_SetLevelByName(a.P(0, "BP"), 1)), 1, {"pcName is NULL"}},
        {CALL((LOG_Pirnt(0, 3, a.P(0, "f"), a.P(1, "fn"), 1, a.P(2, "%s"), "x"), 0)), 0,
         {"out:pcSrcFile is NULL", "out:pcFunc is NULL", "out:pcFormat is NULL"}},
        {CALL(IBP_SetLoglevel(a.P(0, &ulNum), acOut)), 1, {"pulOutBufLen is NULL"}},
        // modules, queues, handlers, transport
        {CALL(MOD_GetProcCfgByName(a.P(0, "ISP"))), 0, {"pcProcName is NULL"}},
        {CALL(MOD_GetModuleCfgByName(a.P(0, "ISP"))), 0, {"pcModuleName is NULL"}},
        {CALL(MOD_RegModule(a.P(0, "ISP_IMG"), a.P(1, &ulNum))), 1, {"pcModuleName is NULL", "pulModuleID is NULL"}},
        {CALL(MOD_AddModuleMsg(a.P(0, &stQueue), a.P(1, hMsg))), 1, {"pstMsgCtrl is NULL", "pstModBuf is NULL"}},
        {CALL(MOD_GetModuleMsg(a.P(0, &stQueue), MOD_GET_BY_ORDER, 0)), 0, {"pstMsgCtrl is NULL"}},
        {CALL(MOD_RecvMsgProc(a.P(0, pstProc))), 1, {"pstModule is NULL"}},
        {CALL(MOD_SendMsgProc(a.P(0, pstProc), a.P(1, hMsg))), 1, {"pstSrcModule is NULL", "pstModBuf is NULL"}},
        {CALL(MOD_SendMsgProc(pstProc, hShort)), 1, {"buf memory addr invalid"}},
        {CALL(MOD_SysInit(a.P(0, "ISP"), MOD_PROC_ID_ISP)), 1, {"pcProcName is NULL"}},
        {CALL(MOD_RecvSocketData(a.P(0, &stAddr))), 1, {"pstAddr is NULL"}},
        {CALL(MOD_ParseSocketMsg(&stAddr, nullptr)), 1, {"pulFlag is NULL"}},
        {CALL((MOD_DestroyProcEpoll(a.P(0, (MOD_PROC_S *)nullptr)), 0)), 0, {"pstProc is NULL"}},
        {CALL(MOD_RegMsgProc(kImg, 1, a.P(0, Handler), nullptr)), 1, {"pfnMsgProc is NULL"}},
        {CALL(MOD_AddMsgProc(a.P(0, pstHandlers), 1, a.P(1, Handler), nullptr)), 1,
         {"pstMsgProcCtrl is NULL", "pfnMsgProc is NULL"}},
        {CALL(MOD_DelMsgProc(a.P(0, pstHandlers), 1)), 1, {"pstMsgProcCtrl is NULL"}},
        {CALL(MOD_GetMsgProc(a.P(0, pstHandlers), 1)), 0, {"pstCtrl is NULL"}},
        // message objects and sending; a block too short for a header, a header that claims too much
        {CALL(MOD_GetBuf(MOD_BUF_MAX_LEN)), 0, {"request memory size 8192 too big"}},
        {CALL((MOD_FreeBuf(a.P(0, hMsg)), 0)), 0, {"pstModBuf is NULL"}},
        {CALL((MSG_Destroy(a.P(0, hMsg)), 0)), 0, {"pstModBuf is NULL"}},
        {CALL(MSG_Create(a.P(0, "hi"), 2)), 0, {"pulMem is NULL"}},
        {CALL(MSG_Clone(a.P(0, hShort))), 0, {"hMsg is invalid"}},
        {CALL(MSG_Decode(a.P(0, hMsg), a.P(1, &pMem), a.P(2, &ulNum))), 1,
         {"hMsg is invalid", "ppMemAddr is NULL", "pulMemLen is NULL"}},
        {CALL(MSG_Decode(hLying, &pMem, &ulNum)), 1,
         {"message body len error! ulMsgBodyLen=100 ulHdrLen=48 ulBufLen=50"}},
        {CALL(MSG_GetAssMsgID(a.P(0, hMsg), a.P(1, &ulNum))), 1, {"hMsg is invalid", "pulAssMsgID is NULL"}},
        {CALL(MSG_GetAssMsgID(hShort, &ulNum)), 1, {"pstMsgHdr is NULL"}},
        {CALL(MSG_CheckHdr(a.P(0, (const char *)aucMem), 48)), 1, {"pcMsgHdr is NULL"}},
        {CALL(MSG_ConfigHdr(a.P(0, hShort), kProc, kImg, MSG_TYPE_SYNC_REQ, 1)), 1, {"hMsg is invalid"}},
        {CALL(MSG_ConfigHdr(hShort, kProc, kImg, MSG_TYPE_SYNC_REQ, 1)), 1, {"pstMsgHdr is NULL"}},
        {CALL(MSG_SendSyncMsg(kImg, 1, a.P(0, hShort), 10, a.P(1, &hAck))), 1,
         {"hReqMsg is invalid", "phAckMsg is NULL!"}},
        {CALL(MSG_SendSyncMsg(kImg, 1, hShort, 10, &hAck)), 1, {"pstMsgHdr is NULL"}},
        {CALL(MSG_SendAsyncMsg(kImg, 1, a.P(0, hShort))), 1, {"hReqMsg is invalid"}},
        {CALL(MSG_SendAsyncMsg(kImg, 1, MOD_GetBuf(8))), 1, {"pstMsgHdr is NULL"}},  // and destroyed
        {CALL(MSG_SendAckMsg(a.P(0, hMsg), a.P(1, hMsg))), 1, {"hReqMsg is invalid", "hAckMsg is invalid"}},
        {CALL(MSG_SendAckMsg(hShort, hMsg)), 1, {"hReqMsg is invalid"}},
        {CALL(MSG_ForwardMsg(MOD_ID_ISP_CMD, a.P(0, hShort))), 1, {"hReqMsg is invalid"}},
        {CALL(MSG_ForwardMsg(MOD_ID_ISP_CMD, hShort)), 1, {"get request message header fail"}},
        {CALL(ISP_SendSyncMsg(a.P(0, &stRec), 10, a.P(1, &pstAck))), 1, {"pstReqMsg is NULL", "ppstAckMsg is NULL"}},
        {CALL(ISP_SendSyncMsg(&stHuge, 10, &pstAck)), 1, {"request memory size 4294967295 too big"}},
        {CALL(ISP_SendAsyncMsg(a.P(0, &stRec))), 1, {"pstReqMsg is NULL"}},
        {CALL(ISP_SendAsyncMsg(&stHuge)), 1, {"request memory size 4294967295 too big"}},
        {CALL(ISP_SendAckMsg(a.P(0, hMsg), a.P(1, "hi"), 2)), 1, {"hReqMsg is invalid", "pulMem is NULL"}},
        {CALL(ISP_IsMsgValid(a.P(0, &stRec), 24)), 0, {"pstMsg is NULL"}},
        // circular buffers and queues
        {CALL(CBUF_Init(a.P(0, &stInit))), 0, {"pstInit is NULL"}},
        {CALL(CQUE_Init(a.P(0, &stInit))), 0, {"pstInit is NULL"}},
        {CALL(CBUF_IsEmpty(a.P(0, hBuf))), 0, {"hCBuf is invalid"}, kBuf},
        {CALL(CBUF_IsFull(a.P(0, hBuf))), 0, {"pstCBuf is NULL!"}, kBuf},
        {CALL(CBUF_Read(a.P(0, hBuf), 1, a.P(1, aucMem))), -1, {"hCBuf is invalid", "pMem is NULL"}, kBuf},
        {CALL(CBUF_Write(a.P(0, hBuf), a.P(1, aucMem), 1)), -1, {"hCBuf is invalid", "pMem is NULL"}, kBuf},
        {CALL(CBUF_Prefetch(a.P(0, hBuf), 1, a.P(1, aucMem))), -1, {"hCBuf is invalid", "pMem is NULL"}, kBuf},
        {CALL(CQUE_Pop(a.P(0, hBuf), a.P(1, aucMem))), 1, {"hCBuf is invalid", "pMem is NULL"}, kBuf},
        {CALL(CQUE_Push(a.P(0, hBuf), a.P(1, aucMem))), 1, {"hCBuf is invalid", "pMem is NULL"}, kBuf},
        {CALL(CBUF_Iterate(a.P(0, hBuf), a.P(1, Visit), nullptr)), 1, {"hCBuf is invalid", "pfnIter is NULL"}, kBuf},
        {CALL(CQUE_Iterate(a.P(0, hBuf), a.P(1, Visit), nullptr)), 1, {"hCBuf is invalid", "pfnIter is NULL"}, kBuf},
        {CALL(CBUF_GetWriteMemNum(a.P(0, hBuf), a.P(1, &pMem), a.P(2, &ulNum), a.P(3, aul))), 1,
         {"hCBuf is NULL", "pWriteMem is NULL", "pulNum is NULL", "pbNext is NULL"}, kBuf},
        {CALL(CBUF_SetWriteNum(a.P(0, hBuf), 0)), 1, {"hCBuf is invalid"}, kBuf},
        {CALL(CBUF_SetWriteNum(hBuf, 8)), 1, {"circ buf space not enough! request=8 space=7 maxNum=8"}},
        {CALL(CBUF_GetReadNum(a.P(0, hBuf), a.P(1, &ulNum))), 1, {"hCBuf is invalid", "pulNum is NULL"}, kBuf},
        {CALL(CBUF_DropElem(a.P(0, hBuf), 1)), 1, {"hCBuf is invalid"}, kBuf},
        {CALL(CBUF_TokenLocate(a.P(0, hBuf), a.P(1, (const u8 *)aucMem), 1)), 1,
         {"hCBuf is invalid", "pucToken is NULL"}, kBuf},
        // sockets
        {CALL(SKT_UdpInit(a.P(0, &stSock))), 0, {"pstSockInfo is NULL"}},
        {CALL(SKT_TcpInit(a.P(0, &stSock))), 0, {"pstSockInfo is NULL"}},
        {CALL(SKT_GetSocketFD(a.P(0, hSock))), -1, {"pstSocketCB is NULL"}, kSock},
        {CALL(SKT_GetMacAddr(a.P(0, "lo"), a.P(1, aucMac))), 1, {"pcNetName is NULL!", "pucMacAddr is NULL!"}},
        {CALL(SKT_TcpPollSock(0, &hSock, 10)), 1, {"invalid socket number"}},
        {CALL(SKT_TcpConnect(a.P(0, hSock))), 1, {"pstSocketCB is NULL"}, kSock},
        {CALL(SKT_TcpSend(a.P(0, hSock), 4, aucMem, aul, aul)), -1, {"pstSocketCB is NULL!"}, kSock},
        {CALL(SKT_TcpSend(hSock, 4, a.P(0, aucMem), a.P(1, aul), a.P(2, aul))), 1,
         {"pucBuf is NULL", "pulRetryNum is NULL", "pulSleepTime is NULL"}},
        {CALL(SKT_TcpRecv(a.P(0, hSock), 0, a.P(1, &ulNum), a.P(2, aucMem))), 1,
         {"pstSocketCB is NULL", "pulDataLen is NULL", "pucBuf is NULL"}, kSock},
        {CALL(SKT_TcpRecv(hSock, 0, &ulZero, aucMem)), 1, {"Param illegal, datalen is 0"}},
        // debug commands and the command line
        {CALL((CMD_SetCmdElement(a.P(0, &stElem), 1, a.P(1, "t"), nullptr), 0)), 0,
         {"Param illegal, pstCmdE:(nil), pcCmdTitle:(nil)",
          "Param illegal, pstCmdE:" + Ptr(&stElem) + ", pcCmdTitle:(nil)"}},
        {CALL(CMD_RegDisplayCmd(a.P(0, MOD_PrintProcCfg), a.P(1, &stElem), 1)), 1,
         {"pfnCmdProc is NULL", "invaild input param."}},
        {CALL(CMD_ProcMsg(0x10002, a.P(0, hMsg), nullptr)), 0, {"hReqMsg is invalid"}},
        {CALL(CMD_GetParamNumFromMsg(a.P(0, aucMem), a.P(1, &ulNum))), 1, {"pParamMsg is NULL", "pulParamNum is NULL"}},
        {CALL(CMD_GetParamInfoFromMsg(1, nullptr, a.P(0, &pcParam))), 1,
         {"Param illegal, ppcParaInfo:(nil), ulParaSeq:1"}},
        {CALL(CMD_GetParamInfoFromMsg(8, nullptr, &pcParam)), 1,
         {"Param illegal, ppcParaInfo:" + Ptr(&pcParam) + ", ulParaSeq:8"}},
        {CALL(ISP_CLI_PrintTree(a.P(0, (CLI_NODE_S *)nullptr))), 1, {"ERR CLI pstCurModule is NULL"}},
        // XML documents and readers
        {CALL(XML_Init(a.P(0, "/tmp/m.xml"), nullptr)), 0, {"pcXmlFile is NULL"}},
        {CALL(XML_InitLensFile(a.P(0, "/tmp/m.xml"))), 0, {"pcXmlFile is NULL"}},
        {CALL((XML_Destroy(a.P(0, &stNoTree)), 0)), 0, {"hHandle is invalid"}},
        {CALL((XML_Destroy(&stNoTree), 0)), 0, {"xml node is invalid"}},
        {CALL(XML_GetNodeset(a.P(0, hDoc), a.P(1, "cfg"))), 0, {"hHandle is invalid", "pcNodePath is NULL"}},
        {CALL(XML_GetNodeset(&stNoTree, "cfg")), 0, {"xml node is invalid"}},
        {CALL(XML_GetInt(a.P(0, hN), 4, a.P(1, aul), a.P(2, aul))), 1,
         {"hNode is invalid", "pulElemNum is NULL", "pValue is NULL"}},
        {CALL(XML_GetIntArray(a.P(0, hN), 4, a.P(1, aul), aul)), 1, {"hNode is invalid", "pulElemNum is NULL"}},
        {CALL(XML_GetString(a.P(0, hN), 0, a.P(1, aul), a.P(2, acOut))), 1,
         {"hNode is invalid", "pulSize is NULL", "pValue is NULL"}},
        {CALL(XML_BatchGet(a.P(0, hDoc), a.P(1, "cfg"), a.P(2, astTable), 1, a.P(3, aul))), 1,
         {"hHandle is invalid", "pcNodePath is NULL", "pstGetTable is NULL", "pValue is NULL"}},
        {CALL(XML_GetIntArray2D(a.P(0, hDoc), a.P(1, "cfg"), 4, a.P(2, aul), a.P(3, aul))), 1,
         {"hHandle is invalid", "pcNodePath is NULL", "pulElemNum is NULL", "pValue is NULL"}},
        // numeric helpers
        {CALL(ISP_PieceWiseLinInterp_llu(a.P(0, &stLin), 5, a.P(1, &ulNum))), 1, {"pstLin is NULL", "pulY is NULL"}},
        {CALL(ISP_PieceWiseLinInterp_llu(&stLin11, 5, &ulNum)), 1, {"piece wise linear point num 11 > 10"}},
        {CALL(__ISP_div0(a.P(0, "f.c"), 7, 1, 0, 0)), 1,
         {"WRN BP in file=(null) line=7: div 0 detected! divdend=1 divisor=0"}},
        // the ISP_ layer's own functions: results only, no record, but for the mutex handles
        {CALL(ISP_mutex_lock(a.P(0, aucMem))), -1, {"hHandle is NULL!"}},
        {CALL(ISP_mutex_unlock(a.P(0, aucMem))), -1, {"hHandle is NULL!"}},
        {CALL((ISP_mutex_destroy(a.P(0, aucMem)), 0)), 0, {"handle is NULL"}},
        {CALL(ISP_thr_create(a.P(0, (ISP_THR_ENTRY_PFN) nullptr), nullptr, 0, nullptr, 0)), -1, {""}},
        {CALL(ISP_check_running(a.P(0, "misuse"))), 1, {""}},
        {CALL(ISP_system(a.P(0, "true"))), -1, {""}},
        {CALL(ISP_prctl(PR_SET_NAME, 0, 0, 0, 0)), -1, {""}},
        {CALL(ISP_copy(a.P(0, "/tmp/m.xml"), a.P(1, "/tmp/n.xml"))), -1, {"", ""}},
        {CALL(ISP_mkdir(a.P(0, "/tmp/d"), 0755)), 0, {""}},
        {CALL(ISP_rmdir(a.P(0, "/tmp/d"), nullptr)), -1, {""}},
        {CALL(ISP_strnstr(a.P(0, "abc"), a.P(1, "b"), 1)), 0, {"", ""}},
        {CALL(ISP_strlstr(a.P(0, "abc"), a.P(1, "b"), 1)), 0, {"", ""}},
        {CALL(ISP_strnchr(a.P(0, "abc"), 'b', 3)), 0, {""}},
        {CALL(ISP_ltoa(5, a.P(0, acOut), 10)), 0, {""}},
        {CALL(ISP_atodul(a.P(0, "5"))), 0, {""}},
        {CALL(ISP_dultoa(5, a.P(0, acOut))), -1, {""}},
        {CALL(ISP_gmtime(a.P(0, &tNow))), 0, {""}},
        {CALL(ISP_localtime(a.P(0, &tNow))), 0, {""}},
        {CALL(ISP_localtime_r(a.P(0, &tNow), a.P(1, &stTm))), 0, {"", ""}},
        {CALL(ISP_settimeofday(a.P(0, (const ISP_TIMEVAL_S *)nullptr))), -1, {""}},
        {CALL(ISP_clock_gettime(0, a.P(0, (ISP_TIMESPEC_S *)nullptr))), -1, {""}},
        {CALL(ISP_GetMonotonicTime(a.P(0, (u64 *)nullptr))), -1, {""}},
        {CALL(ISP_nanosleep(a.P(0, (const ISP_TIMESPEC_S *)nullptr), nullptr)), -1, {""}},
    };
    // Calls of one shape share their rows.
    for (void (*pfn)(CBUF_HANDLE) : {CBUF_Destroy, CQUE_Destroy, CBUF_Reset, CQUE_Reset})
        rows.push_back({[&, pfn](const Args &a) { return (pfn(a.P(0, hBuf)), 0L); }, 0, {kBuf[0].pcText}, kBuf});
    for (void (*pfn)(SKT_HANDLE *) : {SKT_UdpDestroy, SKT_TcpDestroy})
        rows.push_back({[&, pfn](const Args &a) { SKT_HANDLE h = a.P(1, hSock); return (pfn(a.P(0, &h)), 0L); }, 0,
                        {"phSocket is NULL", "*ppstSocketCB is NULL"}, kSockIn});
    rows.push_back({[&](const Args &a) { SKT_HANDLE h = a.P(1, hSock); return Ret(SKT_TcpPollSock(1, a.P(0, &h), 1)); },
                    1, {"pstSocketCB is NULL", "pstSocketCB is NULL"}, kPolled});
    for (CMD_PROC_PFN pfn : {MOD_PrintModule, MOD_PrintModuleCfg, MOD_PrintProcCfg, CBUF_PrintCircBuf, SKT_PrintSock})
        rows.push_back({[&, pfn](const Args &a) { return Ret(pfn(a.P(0, &ulNum), a.P(1, acOut))); }, 1, kOutBuf});
    for (size_t i = 0; i < rows.size(); ++i) {
        for (u32 k = 0; k < rows[i].texts.size(); ++k)
            Check(i, rows[i], {k, nullptr}, rows[i].texts[k]);
        for (const BadHandle &b : rows[i].bad)
            Check(i, rows[i], {b.ulArg, b.pHandle}, b.pcText);
    }
    XML_Destroy(hDoc);
    MSG_Destroy(hMsg);
    MSG_Destroy(hLying);
    MOD_FreeBuf(hShort);
    SKT_UdpDestroy(&hSock);
    CBUF_Destroy(hBuf);
}

}  // namespace
