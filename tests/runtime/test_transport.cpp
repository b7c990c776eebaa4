// The runtime over the socket: the block on the wire, the service process against
// a raw UDP peer, sending inside one process, a burst between two real processes.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <mutex>
#include <semaphore>
#include <thread>

#include "harness/files.h"
#include "harness/service.h"
#include "runtime/mod_ratelimit.h"
#include "runtime/module_internal.h"

using namespace ibptest;

namespace {

// Catch-all handler that records what a module receives, answers synchronous
// requests with an echo of the body and forwards a clone of one message id.
struct Recorder {
    u32 ulForwardID = 0, ulForwardTo = 0;  // set before the first message comes

    static u32 Handle(u32, MSG_HANDLE hMsg, void *pParam)
    {
        auto *self = static_cast<Recorder *>(pParam);
        void *pBody = nullptr;
        u32 ulLen = 0;
        MSG_Decode(hMsg, &pBody, &ulLen);
        const MSG_HDR_S hdr = *static_cast<MSG_HDR_S *>(hMsg->pMem);
        {  // recorded before answering, so that whoever got the answer finds the record
            std::lock_guard<std::mutex> lock(self->mu_);
            self->hdrs_.push_back(hdr);
            self->bodies_.emplace_back(static_cast<char *>(pBody), ulLen);
        }
        self->sem_.release();
        if (hdr.enMsgType == MSG_TYPE_SYNC_REQ)
            ISP_SendAckMsg(hMsg, pBody, ulLen);
        if (self->ulForwardTo != 0 && hdr.ulMsgID == self->ulForwardID)
            MSG_ForwardMsg(self->ulForwardTo, MSG_Clone(hMsg));
        return 0;
    }
    // Waits until n messages have arrived in all; 5 s is a safety bound only.
    bool WaitFor(size_t n)
    {
        while (Bodies().size() < n)
            if (!sem_.try_acquire_for(std::chrono::seconds(5)))
                return false;
        return true;
    }
    std::vector<MSG_HDR_S> Hdrs()
    {
        std::lock_guard<std::mutex> lock(mu_);
        return hdrs_;
    }
    std::vector<std::string> Bodies()
    {
        std::lock_guard<std::mutex> lock(mu_);
        return bodies_;
    }

private:
    std::counting_semaphore<> sem_{0};
    std::mutex mu_;
    std::vector<MSG_HDR_S> hdrs_;
    std::vector<std::string> bodies_;
};

constexpr u16 kIspPort = 7001;
constexpr u16 kDtPort = 7002;

// How often the process thread has gone to sleep: from its status under
// /proc/self/task, found by its name; ~0 when it is not found.
u64 ProcThreadSleeps()
{
    constexpr std::string_view kKey = "\nvoluntary_ctxt_switches:";
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        if (ReadFile(task.path() / "comm") != "MOD_ProcThr\n")
            continue;
        const std::string sStatus = ReadFile(task.path() / "status");
        const size_t ulAt = sStatus.find(kKey);
        return ulAt == std::string::npos ? ~0ull : std::stoull(sStatus.substr(ulAt + kKey.size()));
    }
    return ~0ull;
}

// The debug tool side: 1,000 records, then one synchronous request whose
// echo says that everything before it has been through the service. Then 40
// more trips, for which the process thread sleeps once each, for the ack: its
// own sends must not wake it.
[[noreturn]] void DebugTool(int lReadyFd)
{
    IBP_INIT_S st = StartRecord(1, nullptr, 3);
    if (char c; IBP_Init(&st) != 0 || read(lReadyFd, &c, 1) != 1)
        _exit(10);
    std::vector<u8> raw(ISP_MSG_HDR_LEN + 40, 0x5a);
    auto *pstMsg = reinterpret_cast<ISP_MSG_S *>(raw.data());
    *pstMsg = {MOD_ID_ISP_IMG, 0x5a5a5a5a, 0x5a5a5a5a, 0, 0x20001, 40};
    for (int i = 0; i < 1000; i++)
        if (ISP_SendAsyncMsg(pstMsg) != 0)
            _exit(12);
    ISP_MSG_S *pstAck = nullptr;
    if (ISP_SendSyncMsg(pstMsg, 5000, &pstAck) != 0 || memcmp(pstAck, raw.data(), raw.size()) != 0)
        _exit(13);
    ISP_free(&pstAck);
    const u64 ullBefore = ProcThreadSleeps();
    if (ullBefore == ~0ull)
        _exit(15);
    for (int i = 0; i < 40; i++) {
        if (ISP_SendSyncMsg(pstMsg, 5000, &pstAck) != 0)
            _exit(14);
        ISP_free(&pstAck);
    }
    _exit(ProcThreadSleeps() - ullBefore <= 50 ? 0 : 16);  // 38-41 now, 58-80 as a rule when they did
}

TEST(TwoProcesses, BurstArrivesWholeAndSendsDoNotWakeTheSender)
{
    IBP_REQUIRE_ISOLATION();
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t pid = fork();  // first in the program: no thread has run yet (qemu-user needs that)
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(fds[1]);  // a parent that dies early ends the child's wait
        DebugTool(fds[0]);
    }
    close(fds[0]);
    LogCapture cap(LOG_LEVEL_WRN);
    IBP_INIT_S st = StartRecord(0, LogCapture::Sink(), LOG_LEVEL_WRN);
    ASSERT_EQ(IBP_Init(&st), 0u);
    u32 ulImg = 0;
    Recorder rec;  // echoes the closing synchronous request
    ASSERT_EQ(MOD_RegModule("ISP_IMG", &ulImg), 0u);
    ASSERT_EQ(MOD_RegMsgProc(ulImg, 0, Recorder::Handle, &rec), 0u);
    ASSERT_EQ(write(fds[1], "go", 1), 1);
    int lStatus = -1;
    ASSERT_EQ(waitpid(pid, &lStatus, 0), pid);
    MOD_UnregModule(ulImg);
    MOD_SysDestroy();
    IBP_Destroy();
    EXPECT_EQ(lStatus, 0);  // exited, status 0
    const auto bodies = rec.Bodies();
    ASSERT_EQ(bodies.size(), 1041u) << cap.Dump();
    EXPECT_EQ(rec.Hdrs().back().enMsgType, static_cast<u32>(MSG_TYPE_SYNC_REQ));  // after all the others
    // Each body whole: the debug tool checked the echo of the last.
    EXPECT_EQ(std::count(bodies.begin(), bodies.end(), bodies.back()), 1041);
}

TEST(Wire, FirstCommandRequestOfTheDebugTool)
{
    IBP_REQUIRE_ISOLATION();
    // Slots keep their counters across registrations: start as a fresh process.
    memset(static_cast<void *>(gstCurProc.astModule), 0, sizeof(gstCurProc.astModule));
    RawPeer service(kIspPort);
    ASSERT_TRUE(service.Bound());
    LogCapture cap;
    IBP_INIT_S st = StartRecord(1, LogCapture::Sink());
    ASSERT_EQ(IBP_Init(&st), 0u);
    MSG_HANDLE hAck = nullptr;
    // Nobody answers: the request is the runtime's after the time-out.
    EXPECT_EQ(MSG_SendSyncMsg(MOD_ID_ISP_CMD, 0x10001, MSG_Create("dbgcmd", 7), 0, &hAck), 1u);
    Bytes wire = service.Recv();
    MOD_SysDestroy();
    IBP_Destroy();
    const Bytes expect = {0x35, 0x23, 0x12, 0xdf, 0, 0, 0, 0, 0x01, 0, 0x01, 0, 0, 0, 0, 0,
                          0x37, 0, 0, 0, 0x07, 0, 0, 0, 0xff, 0xff, 0xff, 0x9f, 0x02, 0, 0, 0x90,
                          0xfe, 0xff, 0xff, 0xbf, 0xff, 0xff, 0xff, 0xbf, 0, 0, 0, 0, 0, 0, 0xee, 0xee,
                          'd', 'b', 'g', 'c', 'm', 'd', 0};
    ASSERT_EQ(wire.size(), 55u);
    wire[46] = wire[47] = 0xee;  // reserved: any two bytes
    EXPECT_EQ(wire, expect);
}

// Only the service's own address and port answer for it: an ack with the identifiers of the request
// that waits, from any other local port, is dropped with its record, and the service's own answers.
TEST(Wire, AnAckFromAnotherPortDoesNotAnswerForTheService)
{
    IBP_REQUIRE_ISOLATION();
    RawPeer service(kIspPort), forger(7105);
    ASSERT_TRUE(service.Bound() && forger.Bound());
    LogCapture cap(LOG_LEVEL_WRN);
    IBP_INIT_S st = StartRecord(1, LogCapture::Sink(), LOG_LEVEL_WRN);
    ASSERT_EQ(IBP_Init(&st), 0u);
    MSG_HANDLE hAck = nullptr;
    u32 ulRet = 9;
    std::thread caller([&] { ulRet = MSG_SendSyncMsg(MOD_ID_ISP_CMD, 0x10002, MSG_Create("q", 2), 5000, &hAck); });
    const Bytes req = service.Recv();
    MSG_HDR_S stReq{};
    if (req.size() >= MSG_HDR_LEN)
        memcpy(&stReq, req.data(), MSG_HDR_LEN);
    const auto Ack = [&](const std::string &body) {
        return MakeBlock(MSG_TYPE_SYNC_ACK, stReq.ulMsgID, MOD_ID_ISP_CMD, MOD_PROC_MODULE_ID, MOD_PROC_ID_ISP,
                         MOD_PROC_ID_DT, body, stReq.ulAssMsgID);
    };
    EXPECT_TRUE(forger.SendTo(kDtPort, Ack("forged")));
    const std::string sDrop = "drop sync ack from 127.0.0.1:7105, not the address of proc 0xbfffffff: ";
    for (int i = 0; i < 500 && cap.CountPrefix(sDrop) == 0; i++)  // the process thread's record of it
        usleep(10000);
    EXPECT_EQ(cap.CountPrefix(sDrop), 1u) << cap.Dump();
    EXPECT_TRUE(service.SendTo(kDtPort, Ack("real")));
    caller.join();
    ASSERT_EQ(ulRet, 0u) << cap.Dump();
    void *pBody = nullptr;
    u32 ulLen = 0;
    ASSERT_EQ(MSG_Decode(hAck, &pBody, &ulLen), 0u);
    EXPECT_EQ(std::string(static_cast<char *>(pBody), ulLen), "real");
    MSG_Destroy(hAck);
    MOD_SysDestroy();
    IBP_Destroy();
}

// The service with "ISP_IMG" recorded by rec_, and a raw peer on the debug tool's port.
class Service : public ServiceTest<> {
protected:
    void SetUp() override
    {
        ServiceTest::SetUp();
        if (!up_)
            return;
        ASSERT_EQ(MOD_RegModule("ISP_IMG", &img_), 0u);
        ASSERT_EQ(MOD_RegMsgProc(img_, 0, Recorder::Handle, &rec_), 0u);
        ASSERT_TRUE(peer_.Bound());
    }
    void TearDown() override
    {
        if (up_)
            MOD_UnregModule(img_);  // before rec_ goes
        ServiceTest::TearDown();
    }
    void Send(const Bytes &b) { ASSERT_TRUE(peer_.SendTo(kIspPort, b)); }

    Recorder rec_;
    RawPeer peer_{kDtPort};
    u32 img_ = 0;
};

TEST_F(Service, FindsMessagesAcrossDatagramsAndStepsOverJunk)
{
    Send(FromDt(MSG_TYPE_ASYNC_REQ, 1, MOD_ID_ISP_IMG, "first") +
         FromDt(MSG_TYPE_ASYNC_REQ, 2, MOD_ID_ISP_IMG, "second"));  // two in one datagram
    Bytes c = FromDt(MSG_TYPE_ASYNC_REQ, 3, MOD_ID_ISP_IMG, "split over two datagrams");
    Send(Bytes(c.begin(), c.begin() + 30));  // not even a whole header
    Send(Bytes(c.begin() + 30, c.end()));
    Send(Bytes{0x35, 0x23, 0x12, 0x00, 'x', 0xdf} + FromDt(MSG_TYPE_ASYNC_REQ, 4, MOD_ID_ISP_IMG, "after garbage"));
    Send(FromDt(MSG_TYPE_ASYNC_REQ, 5, MOD_ID_DT_CLI, "not here"));
    Bytes bad = FromDt(MSG_TYPE_ASYNC_REQ, 6, MOD_ID_ISP_IMG, "bad length");
    bad[16] = 47;  // ulMsgLen below a header
    // Passes the check, but can never fit the receive buffer.
    Bytes huge = MakeBlock(MSG_TYPE_ASYNC_REQ, 7, MOD_PROC_MODULE_ID, MOD_ID_ISP_IMG, MOD_PROC_ID_DT, MOD_PROC_ID_ISP,
                           std::string(9000 - MSG_HDR_LEN, 'h'));
    huge.resize(MSG_HDR_LEN);
    Send(bad + huge + FromDt(MSG_TYPE_ASYNC_REQ, 8, MOD_ID_ISP_IMG, "good"));
    // Another sender's unfinished message does not take the next datagram as its body.
    Bytes cut = FromDt(MSG_TYPE_ASYNC_REQ, 9, MOD_ID_ISP_IMG, std::string(100, 'c'));
    ASSERT_TRUE(RawPeer(7101).SendTo(kIspPort, Bytes(cut.begin(), cut.begin() + 60)));
    Send(FromDt(MSG_TYPE_ASYNC_REQ, 10, MOD_ID_ISP_IMG, "not swallowed"));
    ASSERT_TRUE(rec_.WaitFor(6)) << cap_.Dump();
    EXPECT_EQ(rec_.Bodies(), (std::vector<std::string>{"first", "second", "split over two datagrams", "after garbage",
                                                       "good", "not swallowed"}));
    EXPECT_LOG(cap_, "WRN", "BP", "drop 60 bytes of an unfinished msg from 127.0.0.1:7101, a datagram of another sender came");
    EXPECT_LOG(cap_, "ERR", "BP", "module not found by dest module id 0x91000001!");
    EXPECT_EQ(cap_.Count("ERR", "BP", "msg header check failed!"), 1u);
}

// A request behind junk, from a port of its own: the ack goes to the debug tool's process, turns the
// request's identifiers round and keeps its peer fields, the sender's address and port in network order.
TEST_F(Service, AnAckTurnsTheIdentifiersRoundAndKeepsThePeerFields)
{
    RawPeer client(7100);
    ASSERT_TRUE(client.SendTo(kIspPort, Bytes(100, 0) + FromDt(MSG_TYPE_SYNC_REQ, 0x10002, MOD_ID_ISP_IMG, "hi", 41)));
    Bytes want = MakeBlock(MSG_TYPE_SYNC_ACK, 0x10002, MOD_ID_ISP_IMG, MOD_PROC_MODULE_ID, MOD_PROC_ID_ISP,
                           MOD_PROC_ID_DT, "hi", 41);
    reinterpret_cast<MSG_HDR_S *>(want.data())->ulPeerAddr = htonl(INADDR_LOOPBACK);
    reinterpret_cast<MSG_HDR_S *>(want.data())->usPeerPort = htons(7100);
    Bytes ack = peer_.Recv();
    ASSERT_EQ(ack.size(), want.size()) << cap_.Dump();
    ack[46] = ack[47] = 0;  // reserved
    EXPECT_EQ(ack, want);
}

// Bad input is logged for the first few of a second and counted after that; what stands behind it still arrives.
TEST_F(Service, BadInputFloodsAreCountedNotLoggedOneByOne)
{
    Bytes prefixes;
    for (int i = 0; i < 2000; i++)
        prefixes = prefixes + Bytes{0x35, 0x23, 0x12, 0xdf};
    Send(prefixes + FromDt(MSG_TYPE_ASYNC_REQ, 1, MOD_ID_ISP_IMG, "behind 2000 bad headers"));
    Bytes acks;
    for (u32 i = 0; i < 20; i++)  // nobody waits for these
        acks = acks + FromDt(MSG_TYPE_SYNC_ACK, 2, MOD_ID_ISP_IMG, "stray", 100 + i);
    Send(acks + FromDt(MSG_TYPE_ASYNC_REQ, 3, MOD_ID_ISP_IMG, "behind 20 stray acks"));
    ASSERT_TRUE(rec_.WaitFor(2)) << cap_.Dump();
    EXPECT_EQ(rec_.Bodies(), (std::vector<std::string>{"behind 2000 bad headers", "behind 20 stray acks"}));
    MOD_RateReset();  // writes the counts that the process thread's timer would write
    const size_t ulBadLogged = cap_.Count("ERR", "BP", "msg header check failed!");
    EXPECT_LE(ulBadLogged, 5u);
    EXPECT_EQ(ulBadLogged + cap_.LeftOut("msg header check failed"), 2000u) << cap_.Dump();
    const size_t ulAcksLogged = cap_.CountPrefix("drop sync ack that no thread waits for: ");
    EXPECT_EQ(ulAcksLogged, 1u);
    EXPECT_EQ(ulAcksLogged + cap_.LeftOut("sync ack that no thread waits for dropped"), 20u) << cap_.Dump();
    IBP_PROC_STAT_S st{};  // the statistics count every one, whether its record was written or not
    ASSERT_EQ(IBP_GetProcStat(&st), 0u);
    EXPECT_EQ(std::vector<u32>({st.aulBadInput[IBP_BAD_HEADER], st.ulStrayAcks, st.ulDatagramsIn}),
              std::vector<u32>({2000, 20, 2}));
}

// (A synchronous round trip from a thread of no module's: test_module, test_cmd_service.)
TEST_F(Service, ForwardAndTimeOutsInsideTheProcess)
{
    rec_.ulForwardID = 0x33;
    rec_.ulForwardTo = MOD_ID_ISP_CMD;
    // Async, forwarded by ISP_IMG's handler to ISP_CMD with its source kept.
    Recorder cmdRec;
    ASSERT_EQ(MOD_RegMsgProc(MOD_ID_ISP_CMD, 0, Recorder::Handle, &cmdRec), 0u);
    ASSERT_EQ(MSG_SendAsyncMsg(MOD_ID_ISP_IMG, 0x33, MSG_Create("fwd", 3)), 0u);
    ASSERT_TRUE(cmdRec.WaitFor(1)) << cap_.Dump();
    const MSG_HDR_S f = cmdRec.Hdrs()[0];
    EXPECT_EQ(f.enMsgType, static_cast<u32>(MSG_TYPE_ASYNC_REQ));
    EXPECT_EQ(f.ulSrcModuleID, MOD_PROC_MODULE_ID);
    EXPECT_EQ(f.ulDstModuleID, MOD_ID_ISP_CMD);
    EXPECT_EQ(cmdRec.Bodies(), std::vector<std::string>{"fwd"});
    ASSERT_EQ(MOD_UnregMsgProc(MOD_ID_ISP_CMD, 0), 0u);  // before cmdRec goes
    // From ISP_IMG's thread to the process module, whose thread sleeps in epoll, not on its semaphore.
    Recorder procRec;
    ASSERT_EQ(MOD_RegMsgProc(MOD_PROC_MODULE_ID, 0x34, Recorder::Handle, &procRec), 0u);
    rec_.ulForwardID = 0x34;
    rec_.ulForwardTo = MOD_PROC_MODULE_ID;
    ASSERT_EQ(MSG_SendAsyncMsg(MOD_ID_ISP_IMG, 0x34, MSG_Create("to proc", 7)), 0u);
    ASSERT_TRUE(procRec.WaitFor(1)) << cap_.Dump();
    ASSERT_EQ(MOD_UnregMsgProc(MOD_PROC_MODULE_ID, 0x34), 0u);

    // Time-outs count sleeps, not the clock. ISP_SendSyncMsg frees a request that was never queued,
    // and never one that was: that one is the runtime's (ASan sees a leak or a double free).
    ASSERT_EQ(MOD_UnregMsgProc(img_, 0), 0u);  // requests are dropped unanswered
    ISP_MSG_S stReq{MOD_ID_ISP_IMG, 0, 0, 0, 0x40, 0};
    ISP_MSG_S *pstAck = nullptr;
    for (u32 ulTimeout : {0u, 25u})
        EXPECT_EQ(ISP_SendSyncMsg(&stReq, ulTimeout, &pstAck), 1u);
    EXPECT_EQ(pstAck, nullptr);
    EXPECT_EQ(cap_.CountPrefix("wait ack message timeout! waitTime=10 timeoutTime=0 msgId=0x40 "), 1u) << cap_.Dump();
    EXPECT_EQ(cap_.CountPrefix("wait ack message timeout! waitTime=30 timeoutTime=25 msgId=0x40 "), 1u);
    stReq.ulDstModuleID = 0x12345678;  // no such module
    EXPECT_EQ(ISP_SendSyncMsg(&stReq, 0, &pstAck), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "get module cfg by id 0x12345678 failed");
    EXPECT_EQ(cap_.Count("ERR", "BP", "send sync raw message fail"), 3u);
}

}  // namespace
