// Circular buffer: wrapping, partial and overwriting writes, zero-copy writing,
// token search, iteration, sizes and names, the display, and the queue on top.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "containers/isp_circbuf_priv.h"
#include "harness/files.h"
#include "harness/log_capture.h"
#include "ibp/isp_circbuf.h"

namespace {

using Slots = std::vector<u32>;

// The callbacks note the slot of every element they are offered.
struct Buf {
    explicit Buf(u32 ulNum, u32 ulSize = 1, u32 bOverride = 0, const char *pcName = "test",
                 CBUF_HANDLE (*pfnInit)(const CBUF_INIT_S *) = CBUF_Init)
    {
        CBUF_INIT_S stInit = {pcName, ulSize, ulNum, bOverride, On<false>, On<true>, this};
        h = pfnInit(&stInit);
    }
    ~Buf() { if (h != nullptr) CBUF_Destroy(h); }
    template <bool bRead>
    static void On(void *p, void *pUser)
    {
        auto *pB = static_cast<Buf *>(pUser);
        const auto ulSlot = (static_cast<u8 *>(p) - pB->h->pucBuf) / pB->h->ulElemSize;
        (bRead ? pB->reads : pB->writes).push_back(static_cast<u32>(ulSlot));
    }
    u32 Head() const { return h->ulHeadPos; }
    u32 Tail() const { return h->ulTailPos; }
    u32 Used() const { u32 n = ~0u; return CBUF_GetReadNum(h, &n) == 0 ? n : ~0u; }
    std::string Take(u32 ulNum)
    {
        std::string s(ulNum, '\0');
        return s.substr(0, static_cast<size_t>(std::max<s32>(0, CBUF_Read(h, ulNum, s.data()))));
    }
    // Empties the buffer at ulPos, writes sData and forgets what the callbacks saw.
    void Start(u32 ulPos, const std::string &sData = "")
    {
        h->ulHeadPos = h->ulTailPos = ulPos;
        ASSERT_EQ(static_cast<s32>(sData.size()), CBUF_Write(h, sData.data(), static_cast<u32>(sData.size())));
        reads.clear();
        writes.clear();
    }
    CBUF_HANDLE h = nullptr;
    Slots reads, writes;
};

TEST(CircBufWrite, PartialOverwritingWrappingAndZeroCopyWrites)
{
    // N, overwrite, T and content before; the zero-copy run from H and whether more room waits at slot 0;
    // bytes written; result, slots dropped, what is left, warning.
    const struct { u32 n, ov, tail; std::string old; u32 run, next, len; s32 ret; Slots drop; const char *rest, *warn; }
        kCases[] = {
            {8, 0, 0, "", 7, 0, 8, 7, {}, "ABCDEFG", "request=8 space=7 maxNum=8"},  // slot 7 stays empty
            {8, 0, 3, "...", 2, 1, 4, 4, {}, "...ABCD", nullptr},  // slots 6, 7, then 0, 1
            {8, 0, 2, "abcdefg", 0, 0, 1, 0, {}, "abcdefg", "request=1 space=0 maxNum=8"},
            {1, 0, 0, "", 0, 0, 2, 0, {}, "", "request=2 space=0 maxNum=1"},
            {1, 1, 0, "", 0, 0, 1, 0, {}, "", nullptr},
            {8, 1, 0, "abcdefg", 0, 0, 3, 3, {0, 1, 2}, "defgABC", nullptr},  // full: three make way
            {8, 1, 5, "pq", 1, 1, 7, 7, {5, 6}, "ABCDEFG", nullptr},
            {8, 1, 5, "pq", 1, 1, 20, 7, {5, 6}, "ABCDEFG", nullptr},
        };
    const char *pcSrc = "ABCDEFGHIJKLMNOPQRST";
    void *pMem = nullptr;
    u32 ulRun = 9, bNext = 9;
    for (const auto &c : kCases) {
        SCOPED_TRACE(std::to_string(c.n) + " " + c.old + " " + std::to_string(c.len));
        Buf b(c.n, 1, c.ov);
        b.Start(c.tail, c.old);
        const u32 ulHead = b.Head();
        ASSERT_EQ(0u, CBUF_GetWriteMemNum(b.h, &pMem, &ulRun, &bNext));  // never overwrites
        EXPECT_EQ(b.h->pucBuf + ulHead, pMem);
        EXPECT_EQ(c.run, ulRun);
        EXPECT_EQ(c.next, bNext);
        ibptest::LogCapture cap;
        EXPECT_EQ(c.ret, CBUF_Write(b.h, pcSrc, c.len));
        EXPECT_EQ(c.warn ? 1u : 0u, cap.Records().size());
        if (c.warn) {
            EXPECT_LOG(cap, "WRN", "BP", std::string("circ buf space not enough! ") + c.warn);
        }
        Slots wrote;
        for (s32 i = 0; i < c.ret; ++i) {
            wrote.push_back((ulHead + i) & (c.n - 1));
            EXPECT_EQ(pcSrc[i], static_cast<char>(b.h->pucBuf[wrote.back()]));
        }
        EXPECT_EQ(wrote, b.writes);
        EXPECT_EQ(c.drop, b.reads);
        EXPECT_EQ((ulHead + c.ret) & (c.n - 1), b.Head());
        EXPECT_EQ(strlen(c.rest) + 1 == c.n ? 1u : 0u, CBUF_IsFull(b.h));  // N = 1: empty and full
        EXPECT_EQ(c.rest[0] == '\0' ? 1u : 0u, CBUF_IsEmpty(b.h));
        EXPECT_EQ(c.rest, b.Take(8));
    }
    Buf z(8);
    z.Start(3, "...");  // H = 6: commit the run to the end, then the one from slot 0
    ASSERT_EQ(0u, CBUF_GetWriteMemNum(z.h, &pMem, &ulRun, &bNext));
    ASSERT_EQ(0u, CBUF_SetWriteNum(z.h, ulRun));
    ASSERT_EQ(0u, CBUF_GetWriteMemNum(z.h, &pMem, &ulRun, &bNext));
    EXPECT_EQ(z.h->pucBuf, pMem);
    EXPECT_EQ(0u, bNext);
    ASSERT_EQ(0u, CBUF_SetWriteNum(z.h, ulRun));
    EXPECT_EQ((Slots{6, 7, 0, 1}), z.writes);
    EXPECT_EQ(2u, z.Head());
}

TEST(CircBufRead, WrapsInOrderPrefetchIsAllOrNothingDropAndResetOfferEachOnce)
{
    Buf b(8);
    char acOut[8] = {};
    b.Start(5, "012345");  // slots 5 to 7, then 0 to 2
    EXPECT_EQ(-1, CBUF_Prefetch(b.h, 7, acOut));
    EXPECT_EQ(6, CBUF_Prefetch(b.h, 6, acOut));
    EXPECT_EQ("012345", std::string(acOut, 6));
    EXPECT_TRUE(b.reads.empty());
    ibptest::LogCapture cap;
    EXPECT_EQ("01234", b.Take(5));
    EXPECT_EQ((Slots{5, 6, 7, 0, 1}), b.reads);
    EXPECT_EQ(2u, b.Tail());
    EXPECT_EQ("5", b.Take(5));  // what there is, without a record
    EXPECT_EQ(0u, cap.Records().size());

    b.Start(6, "abcd");
    EXPECT_EQ(0u, CBUF_DropElem(b.h, 3));
    EXPECT_EQ(1u, b.Tail());
    EXPECT_EQ(0u, CBUF_DropElem(b.h, 100));  // at most what is there
    EXPECT_EQ((Slots{6, 7, 0, 1}), b.reads);
    b.Start(6, "wxyz");
    CBUF_Reset(b.h);
    EXPECT_EQ((Slots{6, 7, 0, 1}), b.reads);
    EXPECT_TRUE(b.Head() == 0 && b.Tail() == 0);
    b.Start(0, "abc");
    CBUF_Destroy(b.h);
    b.h = nullptr;
    EXPECT_TRUE(b.reads.empty());
}

TEST(CircBufToken, KeepsTheLastTokenLengthBytesAndFindsTokensAcrossTheEnd)
{
    const std::string kTok = "\xdf\x12\x23\x35";
    // Start position, content and token length; result, T and U afterwards.
    const struct { u32 ulPos; std::string sData; u32 ulLen, ulRet, ulTail, ulUsed; } kCases[] = {
        {0, kTok.substr(0, 3), 4, 1, 0, 3},
        {0, kTok, 4, 1, 0, 4},  // exactly the token: no start position is tried
        {0, kTok + "!", 4, 0, 0, 5},
        {0, "0123456789", 4, 1, 6, 4},
        {0, "junk" + kTok.substr(0, 2), 4, 1, 2, 4},  // a token's start is kept
        {12, "zz" + kTok + "y", 4, 0, 14, 5},  // token in slots 14, 15, 0, 1
        {14, kTok.substr(0, 2) + "x" + kTok + "!", 4, 0, 1, 5},  // false start across the end
        {0, "", 0, 1, 0, 0},
        {0, "ab", 0, 0, 0, 2},
    };
    for (const auto &c : kCases) {
        SCOPED_TRACE(std::to_string(c.ulPos) + " " + std::to_string(c.sData.size()));
        Buf b(16);
        b.Start(c.ulPos, c.sData);
        ibptest::LogCapture cap;
        EXPECT_EQ(c.ulRet, CBUF_TokenLocate(b.h, reinterpret_cast<const u8 *>(kTok.data()), c.ulLen));
        EXPECT_EQ(c.ulTail, b.Tail());
        EXPECT_EQ(c.ulUsed, b.Used());
        EXPECT_EQ((c.ulTail - c.ulPos) & 15, b.reads.size());
        EXPECT_EQ(0u, cap.Records().size());
    }
}

struct IterScript { std::vector<int> flags; u32 ulCalls = 0; };  // flag stored at each call; -1 leaves it

TEST(CircBufIterate, VisitsAllAndConsumesOnlyTheLeadingRun)
{
    const CBUF_ITER_PFN pfnVisit = [](void *pElem, void *pUser, u32 *pbConsume) {
        auto *pS = static_cast<IterScript *>(pUser);
        const u32 i = pS->ulCalls++;
        if (i < pS->flags.size() && pS->flags[i] >= 0)
            *pbConsume = static_cast<u32>(pS->flags[i]);
        *static_cast<char *>(pElem) = static_cast<char>('A' + i);  // changed in place
    };
    // Elements in slots 5 to 7, 0 and 1, the flag script; elements consumed.
    const struct { const char *pcData; std::vector<int> flags; u32 ulConsumed; } kCases[] = {
        {"vwxyz", {1, 1, 0, -1, 1}, 2},  // a later 1 consumes nothing more
        {"vwxyz", {1}, 5},               // the flag keeps its value between elements
        {"vwxyz", {-1, 1}, 0},           // starts cleared, and the leading run is over
        {"vwxyz", {2}, 0},               // only 1 consumes
        {"", {1}, 0},
    };
    for (const auto &c : kCases) {
        SCOPED_TRACE(testing::PrintToString(c.flags));
        Buf b(8);
        b.Start(5, c.pcData);
        IterScript s{c.flags};
        EXPECT_EQ(0u, CBUF_Iterate(b.h, pfnVisit, &s));
        const u32 ulLen = static_cast<u32>(strlen(c.pcData));
        EXPECT_EQ(ulLen, s.ulCalls);
        EXPECT_EQ((5 + c.ulConsumed) & 7, b.Tail());
        EXPECT_EQ(c.ulConsumed, b.reads.size());
        EXPECT_EQ(std::string("ABCDE", ulLen).substr(c.ulConsumed), b.Take(8));
    }
}

// Null and dead handles and null pointers: tests/abi/test_misuse.cpp.
TEST(CircBufArgs, SizesLongNamesAndTokensInElementBuffers)
{
    Buf w(8, 4), n(8, 1, 0, std::string(70, 'n').c_str());
    EXPECT_EQ(std::string(63, 'n'), n.h->acName);  // a long name is cut, not refused
    ibptest::LogCapture cap;
    for (const auto &size : {std::pair<u32, u32>{0, 8}, {4, 0}, {4, 6}}) {  // 6 is never rounded up
        CBUF_INIT_S stInit = {"x", size.first, size.second, 0, nullptr, nullptr, nullptr};
        EXPECT_EQ(nullptr, CBUF_Init(&stInit));
    }
    EXPECT_EQ(1u, CBUF_TokenLocate(w.h, reinterpret_cast<const u8 *>("x"), 0));  // byte buffers only
    EXPECT_EQ((std::vector<std::string>{"ERR BP init param invalid! ulElemSize=0 ulElemNum=8",
                                        "ERR BP init param invalid! ulElemSize=4 ulElemNum=0",
                                        "ERR BP buffer size 6 invalid!",
                                        "ERR BP seek can only be used in cbuf which elem size is 4"}),
              cap.Lines());
}

// Behind the text that the buffer holds on entry, as every display function writes (common/cmd_display.h).
TEST(CircBufPrint, NewestFirstBehindTheTextOnEntryAndCutToCapacity)
{
    Buf a(8, 1, 0, "A"), c(1024, 1, 1, nullptr), b(16, 2, 0, "a-very-long-name");
    b.Start(14);
    ASSERT_EQ(5, CBUF_Write(b.h, "0123456789", 5));
    const std::string sAll = "old\n" + ibptest::ReadData("containers/data/print.txt");
    for (u32 ulCap : {8192u, 100u}) {  // cut short, one byte goes to the terminator
        std::string sOut = "old\n" + std::string(ulCap - 4, '\0') + "########";
        u32 ulLen = ulCap;
        EXPECT_EQ(0u, CBUF_PrintCircBuf(&ulLen, sOut.data()));
        EXPECT_EQ(sOut.substr(ulCap), "########") << "written past the capacity of " << ulCap;
        sOut.resize(strlen(sOut.c_str()));
        EXPECT_EQ(sOut.size(), ulLen);
        EXPECT_EQ(sAll.substr(0, ulCap - 1), sOut);
    }
}

TEST(CQueue, FirstInFirstOutAcrossTheEndAndFailuresAreLogged)
{
    struct Rec { u32 ulId, ulCheck; };  // ulCheck = ~ulId: the whole record travels
    const auto Push = [](Buf &b, u32 ulId) { const Rec stRec = {ulId, ~ulId}; return CQUE_Push(b.h, &stRec); };
    Buf q(4, sizeof(Rec), 0, "queue", CQUE_Init), o(4, sizeof(Rec), 1, "queue", CQUE_Init);
    for (u32 i = 1; i <= 4; ++i)
        ASSERT_EQ(0u, Push(o, i));
    ibptest::LogCapture cap;
    Rec stOut = {77, 0};
    EXPECT_EQ(1u, CQUE_Pop(q.h, &stOut));
    EXPECT_EQ(77u, stOut.ulId);  // left unwritten
    u32 ulNextIn = 0;  // three stay queued while the positions go round the four slots twice
    for (u32 ulNextOut = 0; ulNextOut < 10; ++ulNextOut) {
        while (ulNextIn - ulNextOut < 3)
            ASSERT_EQ(0u, Push(q, ulNextIn++));
        if (ulNextOut == 0) {
            EXPECT_EQ(1u, Push(q, 99));  // four slots take three
        }
        ASSERT_EQ(0u, CQUE_Pop(q.h, &stOut));
        EXPECT_EQ(ulNextOut, stOut.ulId);
        EXPECT_EQ(~ulNextOut, stOut.ulCheck);
        ASSERT_EQ(ulNextOut + 1, q.reads.size());  // one read callback per pop, on the popped slot
        EXPECT_EQ(ulNextOut & 3, q.reads.back());
    }
    EXPECT_EQ((std::vector<std::string>{"ERR BP CBUF_Read() fail",
                                        "WRN BP circ buf space not enough! request=1 space=0 maxNum=4",
                                        "ERR BP CBUF_Write() fail"}),
              cap.Lines());
    EXPECT_EQ(Slots{0}, o.reads);  // overwriting: the oldest made way through the read callback
    ASSERT_EQ(0u, CQUE_Pop(o.h, &stOut));
    EXPECT_EQ(2u, stOut.ulId);
}

}  // namespace
