// The service process's runtime against a raw UDP peer, and sending inside
// one process: parsing, acks, forwards, time-outs, hostile datagrams.
#include <gtest/gtest.h>

#include <random>

#include "harness/log_capture.h"
#include "harness/test_env.h"
#include "runtime/transport_util.h"

using namespace ibptest;

namespace {

constexpr u16 kIspPort = 7001;
constexpr u16 kDtPort = 7002;

class Service : public testing::Test {
protected:
    void SetUp() override
    {
        IBP_REQUIRE_ISOLATION();
        IBP_INIT_S st = StartRecord(0, LogCapture::Sink());
        ASSERT_EQ(IBP_Init(&st), 0u) << cap_.Dump();
        ASSERT_EQ(MOD_RegModule("ISP_IMG", &img_), 0u);
        ASSERT_EQ(MOD_RegMsgProc(img_, 0, Recorder::Handle, &rec_), 0u);
        ASSERT_TRUE(peer_.Bound());
        up_ = true;
    }
    void TearDown() override
    {
        if (!up_)
            return;
        MOD_UnregModule(img_);
        if (cmd_)
            MOD_UnregMsgProc(MOD_ID_ISP_CMD, 0);
        MOD_SysDestroy();
        IBP_Destroy();
    }
    void Send(const Bytes &b) { ASSERT_TRUE(peer_.SendTo(kIspPort, b)); }
    std::vector<std::string> Bodies()
    {
        std::vector<std::string> v;
        for (const auto &m : rec_.Msgs())
            v.push_back(m.body);
        return v;
    }

    LogCapture cap_;
    Recorder rec_;
    Recorder cmdRec_;
    RawPeer peer_{kDtPort};
    u32 img_ = 0;
    bool up_ = false;
    bool cmd_ = false;
};

}  // namespace

TEST_F(Service, FindsMessagesAcrossDatagramBoundaries)
{
    Bytes a = FromDt(MSG_TYPE_ASYNC_REQ, 1, MOD_ID_ISP_IMG, "first");
    Bytes b = FromDt(MSG_TYPE_ASYNC_REQ, 2, MOD_ID_ISP_IMG, "second");
    Send(a + b);  // two messages in one datagram
    Bytes c = FromDt(MSG_TYPE_ASYNC_REQ, 3, MOD_ID_ISP_IMG, "split over two datagrams");
    Send(Bytes(c.begin(), c.begin() + 30));  // not even a whole header
    Send(Bytes(c.begin() + 30, c.end()));
    Send(Bytes{0x35, 0x23, 0x12, 0x00, 'x', 0xdf} + FromDt(MSG_TYPE_ASYNC_REQ, 4, MOD_ID_ISP_IMG, "after garbage"));
    ASSERT_TRUE(rec_.WaitFor(4)) << cap_.Dump();
    EXPECT_EQ(Bodies(), (std::vector<std::string>{"first", "second", "split over two datagrams", "after garbage"}));
    const MSG_HDR_S h = rec_.Msgs()[0].hdr;
    EXPECT_EQ(h.ulPeerAddr, htonl(INADDR_LOOPBACK));  // the sender, in network order
    EXPECT_EQ(h.usPeerPort, htons(kDtPort));
}

TEST_F(Service, DropsUnknownDestinationsAndStepsOverBadHeaders)
{
    Send(FromDt(MSG_TYPE_ASYNC_REQ, 5, MOD_ID_DT_CLI, "not here"));
    Bytes bad = FromDt(MSG_TYPE_ASYNC_REQ, 6, MOD_ID_ISP_IMG, "bad length");
    bad[16] = 47;  // ulMsgLen below a header
    Bytes huge = FromDt(MSG_TYPE_ASYNC_REQ, 7, MOD_ID_ISP_IMG, "");
    const u32 ulHuge = 9000;  // passes the check, but can never fit the buffer
    memcpy(&huge[16], &ulHuge, 4);
    const u32 ulHugeBody = ulHuge - MSG_HDR_LEN;
    memcpy(&huge[20], &ulHugeBody, 4);
    Send(bad + huge + FromDt(MSG_TYPE_ASYNC_REQ, 8, MOD_ID_ISP_IMG, "good"));
    ASSERT_TRUE(rec_.WaitFor(1)) << cap_.Dump();
    EXPECT_EQ(Bodies(), std::vector<std::string>{"good"});
    EXPECT_LOG(cap_, "ERR", "BP", "module not found by dest module id 0x91000001!");
    EXPECT_EQ(cap_.CountPrefix("drop msg: prefix=[0x35 0x23 0x12 0xdf] id=[0x5 0] type=2 len=[56 8]"), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "message len error! ulMsgLen=47 < 48");
    EXPECT_EQ(cap_.Count("ERR", "BP", "msg header check failed!"), 1u);
    EXPECT_EQ(cap_.Count("ERR", "BP", "parse socket msg fail!"), 2u);
}

TEST_F(Service, AnswersSyncRequestsOfTheOtherProcess)
{
    Send(FromDt(MSG_TYPE_SYNC_REQ, 0x10002, MOD_ID_ISP_IMG, "ping", 41));
    Bytes ack = peer_.Recv();
    ASSERT_EQ(ack.size(), MSG_HDR_LEN + 4) << cap_.Dump();
    MSG_HDR_S h;
    memcpy(&h, ack.data(), sizeof(h));
    EXPECT_EQ(h.ulPrefix, MSG_PREFIX);
    EXPECT_EQ(h.enMsgType, static_cast<u32>(MSG_TYPE_SYNC_ACK));
    EXPECT_EQ(h.ulMsgID, 0x10002u);
    EXPECT_EQ(h.ulAssMsgID, 41u);
    EXPECT_EQ(h.ulSrcModuleID, MOD_ID_ISP_IMG);
    EXPECT_EQ(h.ulDstModuleID, MOD_PROC_MODULE_ID);
    EXPECT_EQ(h.ulSrcProcID, MOD_PROC_ID_ISP);
    EXPECT_EQ(h.ulDstProcID, MOD_PROC_ID_DT);
    EXPECT_EQ(std::string(ack.begin() + MSG_HDR_LEN, ack.end()), "ping");
}

TEST_F(Service, KeepsServingAfterRandomDatagrams)
{
    std::mt19937 rng(7);
    for (int i = 0; i < 10000; i++) {
        Bytes b;
        if (i % 2 == 0) {  // a valid-looking header with random fields and a random tail
            b = FromDt(rng() % 7, rng(), i % 4 == 0 ? MOD_ID_ISP_IMG : static_cast<u32>(rng()), "");
            for (size_t k = 12; k < b.size(); k++)
                if (rng() % 3 == 0)
                    b[k] = static_cast<u8>(rng());
        }
        b.resize(b.size() + rng() % 200);
        for (size_t k = b.empty() ? 0 : (i % 2 == 0 ? MSG_HDR_LEN : 0); k < b.size(); k++)
            b[k] = static_cast<u8>(rng());
        peer_.SendTo(kIspPort, b);
    }
    RawPeer client(7100);
    ASSERT_TRUE(client.SendTo(kIspPort, Bytes(100, 0) + FromDt(MSG_TYPE_SYNC_REQ, 9, MOD_ID_ISP_IMG, "still there?", 99)));
    Bytes ack;
    for (int i = 0; i < 50 && ack.size() != MSG_HDR_LEN + 12; i++)
        ack = peer_.Recv();  // acks of random sync requests may come first
    ASSERT_EQ(ack.size(), MSG_HDR_LEN + 12);
    EXPECT_EQ(std::string(ack.begin() + MSG_HDR_LEN, ack.end()), "still there?");
}

TEST_F(Service, SyncAsyncAndForwardInsideTheProcess)
{
    // A synchronous request from a thread that is no module's: it speaks as
    // the process module and gets its ack back through the ack queue.
    MSG_HANDLE hReq = MSG_Create("abc", 3);
    MSG_HANDLE hAck = nullptr;
    ASSERT_EQ(MSG_SendSyncMsg(MOD_ID_ISP_IMG, 0x31, hReq, 1000, &hAck), 0u) << cap_.Dump();
    const auto *pAck = static_cast<const MSG_HDR_S *>(hAck->pMem);
    EXPECT_EQ(pAck->enMsgType, static_cast<u32>(MSG_TYPE_SYNC_ACK));
    EXPECT_EQ(pAck->ulDstModuleID, MOD_PROC_MODULE_ID);
    EXPECT_EQ(pAck->ulAssMsgID, rec_.Msgs().at(0).hdr.ulAssMsgID);
    MSG_Destroy(hAck);

    // The application record: the echo's ulResult 0 makes a copy for the caller.
    std::vector<u8> raw(ISP_MSG_HDR_LEN + 5);
    auto *pstReq = reinterpret_cast<ISP_MSG_S *>(raw.data());
    pstReq->ulDstModuleID = MOD_ID_ISP_IMG;
    pstReq->ulMsgID = 0x32;
    pstReq->ulBodyLen = 5;
    memcpy(pstReq->aucBody, "hello", 5);
    ISP_MSG_S *pstAck = nullptr;
    ASSERT_EQ(ISP_SendSyncMsg(pstReq, 1000, &pstAck), 0u);
    EXPECT_EQ(memcmp(pstAck, raw.data(), raw.size()), 0);
    ISP_free(&pstAck);

    // Async, forwarded by ISP_IMG's handler to ISP_CMD with its source kept.
    ASSERT_EQ(MOD_RegMsgProc(MOD_ID_ISP_CMD, 0, Recorder::Handle, &cmdRec_), 0u);
    cmd_ = true;
    rec_.Forward(0x33, MOD_ID_ISP_CMD);
    ASSERT_EQ(MSG_SendAsyncMsg(MOD_ID_ISP_IMG, 0x33, MSG_Create("fwd", 3)), 0u);
    ASSERT_TRUE(cmdRec_.WaitFor(1)) << cap_.Dump();
    const MSG_HDR_S f = cmdRec_.Msgs()[0].hdr;
    EXPECT_EQ(f.enMsgType, static_cast<u32>(MSG_TYPE_ASYNC_REQ));
    EXPECT_EQ(f.ulSrcModuleID, MOD_PROC_MODULE_ID);
    EXPECT_EQ(f.ulDstModuleID, MOD_ID_ISP_CMD);
    EXPECT_EQ(cmdRec_.Msgs()[0].body, "fwd");
}

TEST_F(Service, SyncTimeOutCountsSleepsNotTheClock)
{
    rec_.Echo(false);
    for (u32 ulTimeout : {0u, 25u}) {
        MSG_HANDLE hAck = nullptr;
        EXPECT_EQ(MSG_SendSyncMsg(MOD_ID_ISP_IMG, 0x40, MSG_Create("q", 1), ulTimeout, &hAck), 1u);
        EXPECT_EQ(hAck, nullptr);
    }
    EXPECT_EQ(cap_.CountPrefix("wait ack message timeout! waitTime=10 timeoutTime=0 msgId=0x40 "), 1u) << cap_.Dump();
    EXPECT_EQ(cap_.CountPrefix("wait ack message timeout! waitTime=30 timeoutTime=25 msgId=0x40 "), 1u);
    // A request that was never queued stays the caller's (ASan would see a leak
    // or a double free otherwise).
    std::vector<u8> raw(ISP_MSG_HDR_LEN);
    auto *pstReq = reinterpret_cast<ISP_MSG_S *>(raw.data());
    pstReq->ulDstModuleID = 0x12345678;  // no such module
    ISP_MSG_S *pstAck = nullptr;
    EXPECT_EQ(ISP_SendSyncMsg(pstReq, 0, &pstAck), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "get module cfg by id 0x12345678 failed");
    EXPECT_LOG(cap_, "ERR", "BP", "send sync raw message fail");
}
