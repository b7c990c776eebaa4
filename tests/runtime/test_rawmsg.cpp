// Message buffers and message objects at their limits.
#include <gtest/gtest.h>

#include <cstring>
#include <tuple>
#include <vector>

#include "harness/log_capture.h"
#include "ibp/isp_rawmsg.h"

using ibptest::LogCapture;
using Lines = std::vector<std::string>;

// The largest message and its clone; then each refusal with all its records: empty arguments, sizes
// past the limit (null arguments: tests/abi/test_misuse.cpp).
TEST(RawMsg, MakeCloneAndRefusals)
{
    LogCapture cap;
    const std::vector<char> b(8144, 'x');
    MSG_HANDLE h = MSG_Create(b.data(), 8143);
    ASSERT_NE(h, nullptr);
    auto *hdr = static_cast<MSG_HDR_S *>(h->pMem);
    EXPECT_EQ(std::tie(hdr->ulMsgLen, hdr->ulMsgBodyLen, h->ulLen), std::tuple(8191u, 8143u, 8191u));
    EXPECT_EQ(memcmp(hdr + 1, b.data(), 8143), 0);
    MSG_HANDLE c = MSG_Clone(h);
    ASSERT_NE(c, nullptr);
    EXPECT_NE(c->pMem, h->pMem);
    EXPECT_EQ(c->ulLen, 8191u);
    EXPECT_EQ(memcmp(c->pMem, h->pMem, 8191), 0);  // header bytes and body alike
    MSG_Destroy(c);
    EXPECT_EQ(cap.Lines(), Lines{});
    // A block of a bare header (as the socket can deliver) can't be cloned.
    MOD_BUF_S *bare = MOD_GetBuf(MSG_HDR_LEN);
    ASSERT_NE(bare, nullptr);
    *static_cast<MSG_HDR_S *>(bare->pMem) = {MSG_PREFIX, 0, 0, 0, MSG_HDR_LEN, 0, 0, 0, 0, 0, 0, 0, 0};
    ibptest::ExpectRefusals(cap, {
        {[&] { return MSG_Create(b.data(), 0) == nullptr; }, {"ERR BP ulMemLen = 0"}},
        {[] { return MOD_GetBuf(0) == nullptr; }, {"ERR BP malloc fail for size 0"}},
        {[&] { return MSG_Create(b.data(), 8144) == nullptr; },
         {"ERR BP request memory size 8192 too big", "ERR BP get module buf fail! ulMsgLen=8192"}},
        // A body length that would wrap the block length is refused, not truncated.
        {[&] { return MSG_Create(b.data(), 0xfffffff0u) == nullptr; },
         {"ERR BP request memory size 4294967295 too big", "ERR BP get module buf fail! ulMsgLen=4294967295"}},
        {[&] { return MSG_Clone(bare) == nullptr; },
         {"ERR BP ulMemLen = 0", "ERR BP create new message fail, clone message fail!"}},
    });
    MOD_FreeBuf(bare);
    MSG_Destroy(h);
}

TEST(RawMsg, CheckHdrRulesInOrder)
{
    LogCapture cap;
    const struct {
        u32 prefix, len, bodyLen, size, ret;
        Lines recs;
    } cases[] = {
        {MSG_PREFIX, 48, 0, 48, 0, {}},
        {MSG_PREFIX, 2048, 2000, 48, 0, {}},
        {MSG_PREFIX, 2049, 2001, 48, 0, {"WRN BP message len may be abnormal! ulMsgLen=2049"}},
        {MSG_PREFIX, 48, 0, 47, 1, {"ERR BP message header size not match! ulSize=47 != 48"}},
        {0xdf122336, 60, 12, 48, 1, {"ERR BP message prefix not match! 0x36 0x23 0x12 0xdf != 0x35 0x23 0x12 0xdf"}},
        {MSG_PREFIX, 47, 12, 48, 1, {"ERR BP message len error! ulMsgLen=47 < 48"}},  // body makes no sense either
        {MSG_PREFIX, 3000, 2951, 48, 1,
         {"WRN BP message len may be abnormal! ulMsgLen=3000",
          "ERR BP message body len error! ulMsgBodyLen=2951 ulHdrLen=48 ulMsgLen=3000"}},
    };
    for (const auto &c : cases) {
        MSG_HDR_S hdr{};
        hdr.ulPrefix = c.prefix;
        hdr.ulMsgLen = c.len;
        hdr.ulMsgBodyLen = c.bodyLen;
        cap.Clear();
        EXPECT_EQ(MSG_CheckHdr(reinterpret_cast<const char *>(&hdr), c.size), c.ret) << c.len;
        EXPECT_EQ(cap.Lines(), c.recs);
    }
}
