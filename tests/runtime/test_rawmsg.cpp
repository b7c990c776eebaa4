// Message buffers and message objects at their limits.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "harness/log_capture.h"
#include "ibp/isp_rawmsg.h"

using ibptest::LogCapture;

namespace {

MSG_HDR_S GoodHdr(u32 ulMsgLen)
{
    MSG_HDR_S hdr{};
    hdr.ulPrefix = MSG_PREFIX;
    hdr.ulMsgLen = ulMsgLen;
    hdr.ulMsgBodyLen = ulMsgLen - MSG_HDR_LEN;
    return hdr;
}

u32 Check(const MSG_HDR_S &hdr, u32 size = MSG_HDR_LEN)
{
    return MSG_CheckHdr(reinterpret_cast<const char *>(&hdr), size);
}

}  // namespace

TEST(ModBuf, SizeLimits)
{
    LogCapture cap;
    MOD_BUF_S *buf = MOD_GetBuf(8191);
    ASSERT_NE(buf, nullptr);
    EXPECT_EQ(buf->ulLen, 8191u);
    EXPECT_NE(buf->pMem, nullptr);
    EXPECT_EQ(buf->stNode.pstNext, nullptr);
    MOD_FreeBuf(buf);

    EXPECT_EQ(MOD_GetBuf(8192), nullptr);
    EXPECT_LOG(cap, "ERR", "BP", "request memory size 8192 too big");
    EXPECT_EQ(MOD_GetBuf(0), nullptr);
    EXPECT_LOG(cap, "ERR", "BP", "malloc fail for size 0");
    MOD_FreeBuf(nullptr);
    EXPECT_LOG(cap, "ERR", "BP", "pstModBuf is NULL");
}

TEST(MsgCreate, BodyLimits)
{
    LogCapture cap;
    std::vector<char> body(8144, 'x');
    MSG_HANDLE h = MSG_Create(body.data(), 8143);
    ASSERT_NE(h, nullptr);
    auto *hdr = static_cast<MSG_HDR_S *>(h->pMem);
    EXPECT_EQ(hdr->ulMsgLen, 8191u);
    EXPECT_EQ(hdr->ulMsgBodyLen, 8143u);
    EXPECT_EQ(h->ulLen, 8191u);
    EXPECT_EQ(memcmp(static_cast<char *>(h->pMem) + MSG_HDR_LEN, body.data(), 8143), 0);
    MSG_Destroy(h);

    EXPECT_EQ(MSG_Create(body.data(), 8144), nullptr);
    EXPECT_LOG(cap, "ERR", "BP", "request memory size 8192 too big");
    EXPECT_LOG(cap, "ERR", "BP", "get module buf fail! ulMsgLen=8192");

    cap.Clear();
    EXPECT_EQ(MSG_Create(nullptr, 4), nullptr);
    EXPECT_LOG(cap, "ERR", "BP", "pulMem is NULL");
    EXPECT_EQ(MSG_Create(body.data(), 0), nullptr);
    EXPECT_LOG(cap, "ERR", "BP", "ulMemLen = 0");
    // A body length that would wrap the block length is refused, not truncated.
    EXPECT_EQ(MSG_Create(body.data(), 0xfffffff0u), nullptr);
    EXPECT_EQ(cap.CountPrefix("get module buf fail!"), 1u);
    MSG_Destroy(nullptr);
    EXPECT_LOG(cap, "ERR", "BP", "pstModBuf is NULL");
}

TEST(MsgClone, SameMessageAndEmptyBody)
{
    LogCapture cap;
    const char text[] = "dbgcmd";
    MSG_HANDLE h = MSG_Create(text, sizeof(text));
    ASSERT_NE(h, nullptr);
    auto *hdr = static_cast<MSG_HDR_S *>(h->pMem);
    hdr->ulPrefix = MSG_PREFIX;
    hdr->ulMsgID = 0x10001;
    hdr->ulAssMsgID = 77;
    hdr->ulSrcModuleID = 0x9fffffff;
    hdr->usPeerPort = 0x591b;
    MSG_HANDLE c = MSG_Clone(h);
    ASSERT_NE(c, nullptr);
    EXPECT_NE(c->pMem, h->pMem);
    EXPECT_EQ(c->ulLen, 55u);
    EXPECT_EQ(memcmp(c->pMem, h->pMem, 55), 0);  // header bytes and body alike
    u32 ass = 0;
    EXPECT_EQ(MSG_GetAssMsgID(c, &ass), 0u);
    EXPECT_EQ(ass, 77u);
    void *pBody = nullptr;
    u32 len = 0;
    EXPECT_EQ(MSG_Decode(c, &pBody, &len), 0u);
    EXPECT_EQ(pBody, static_cast<char *>(c->pMem) + MSG_HDR_LEN);
    EXPECT_EQ(len, 7u);
    MSG_Destroy(c);
    MSG_Destroy(h);

    // A block of a bare header (as the socket can deliver) can't be cloned.
    MOD_BUF_S *bare = MOD_GetBuf(MSG_HDR_LEN);
    ASSERT_NE(bare, nullptr);
    *static_cast<MSG_HDR_S *>(bare->pMem) = GoodHdr(MSG_HDR_LEN);
    EXPECT_EQ(MSG_Clone(bare), nullptr);
    EXPECT_LOG(cap, "ERR", "BP", "ulMemLen = 0");
    EXPECT_LOG(cap, "ERR", "BP", "create new message fail, clone message fail!");
    MOD_FreeBuf(bare);
    EXPECT_EQ(MSG_Clone(nullptr), nullptr);
    EXPECT_LOG(cap, "ERR", "BP", "hMsg is invalid");
}

TEST(MsgAccessors, ArgumentsInOrder)
{
    LogCapture cap;
    const char b = 'b';
    MSG_HANDLE h = MSG_Create(&b, 1);
    ASSERT_NE(h, nullptr);
    void *p = nullptr;
    u32 n = 0;
    EXPECT_EQ(MSG_Decode(nullptr, nullptr, nullptr), 1u);
    EXPECT_LOG(cap, "ERR", "BP", "hMsg is invalid");
    EXPECT_EQ(MSG_Decode(h, nullptr, nullptr), 1u);
    EXPECT_LOG(cap, "ERR", "BP", "ppMemAddr is NULL");
    EXPECT_EQ(MSG_Decode(h, &p, nullptr), 1u);
    EXPECT_LOG(cap, "ERR", "BP", "pulMemLen is NULL");

    cap.Clear();
    EXPECT_EQ(MSG_GetAssMsgID(nullptr, nullptr), 1u);
    EXPECT_LOG(cap, "ERR", "BP", "hMsg is invalid");
    EXPECT_EQ(MSG_GetAssMsgID(h, nullptr), 1u);
    EXPECT_LOG(cap, "ERR", "BP", "pulAssMsgID is NULL");
    MOD_BUF_S empty{};
    EXPECT_EQ(MSG_GetAssMsgID(&empty, &n), 1u);
    EXPECT_LOG(cap, "ERR", "BP", "pstMsgHdr is NULL");
    MSG_Destroy(h);
}

TEST(MsgCheckHdr, EachRuleInOrder)
{
    LogCapture cap;
    EXPECT_EQ(Check(GoodHdr(48)), 0u);
    EXPECT_EQ(Check(GoodHdr(2048)), 0u);
    EXPECT_EQ(cap.Records().size(), 0u) << cap.Dump();
    EXPECT_EQ(Check(GoodHdr(2049)), 0u);
    EXPECT_LOG(cap, "WRN", "BP", "message len may be abnormal! ulMsgLen=2049");

    cap.Clear();
    EXPECT_EQ(MSG_CheckHdr(nullptr, 48), 1u);
    EXPECT_LOG(cap, "ERR", "BP", "pcMsgHdr is NULL");
    EXPECT_EQ(Check(GoodHdr(48), 47), 1u);
    EXPECT_LOG(cap, "ERR", "BP", "message header size not match! ulSize=47 != 48");

    MSG_HDR_S bad = GoodHdr(60);
    bad.ulPrefix = 0xdf122336;
    EXPECT_EQ(Check(bad), 1u);
    EXPECT_LOG(cap, "ERR", "BP", "message prefix not match! 0x36 0x23 0x12 0xdf != 0x35 0x23 0x12 0xdf");

    bad = GoodHdr(60);
    bad.ulMsgLen = 47;  // the body length no longer makes sense either
    EXPECT_EQ(Check(bad), 1u);
    EXPECT_LOG(cap, "ERR", "BP", "message len error! ulMsgLen=47 < 48");

    bad = GoodHdr(3000);
    bad.ulMsgBodyLen = 2951;
    cap.Clear();
    EXPECT_EQ(Check(bad), 1u);
    EXPECT_LOG(cap, "WRN", "BP", "message len may be abnormal! ulMsgLen=3000");
    EXPECT_LOG(cap, "ERR", "BP", "message body len error! ulMsgBodyLen=2951 ulHdrLen=48 ulMsgLen=3000");
}
