// Circular buffer: positions and wrap-around, partial and overwriting writes,
// zero-copy writing, token search, iteration and the display.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "containers/isp_circbuf_priv.h"
#include "harness/log_capture.h"
#include "ibp/isp_circbuf.h"

namespace {

using Slots = std::vector<u32>;

// Destroyed at the end of the test; the callbacks note the slot of every
// element they are offered.
struct Buf {
    explicit Buf(u32 ulNum, u32 ulSize = 1, u32 bOverride = 0, const char *pcName = "test")
    {
        CBUF_INIT_S stInit = {pcName, ulSize, ulNum, bOverride, On<false>, On<true>, this};
        h = CBUF_Init(&stInit);
    }
    ~Buf() { if (h != nullptr) CBUF_Destroy(h); }
    template <bool bRead>
    static void On(void *p, void *pUser)
    {
        auto *pB = static_cast<Buf *>(pUser);
        (bRead ? pB->reads : pB->writes).push_back(static_cast<u32>((static_cast<u8 *>(p) - pB->h->pucBuf) / pB->h->ulElemSize));
    }
    u32 Head() const { return h->ulHeadPos; }
    u32 Tail() const { return h->ulTailPos; }
    u32 Used() const { u32 n = ~0u; return CBUF_GetReadNum(h, &n) == 0 ? n : ~0u; }
    std::string Take(u32 ulNum)
    {
        std::string s(ulNum, '\0');
        s.resize(static_cast<size_t>(std::max<s32>(0, CBUF_Read(h, ulNum, s.data()))));
        return s;
    }
    // Moves both positions to ulPos through the interface, writes sData and
    // forgets what the callbacks saw.
    void Start(u32 ulPos, const std::string &sData = "")
    {
        u8 aucElem[64];
        while (Head() != ulPos) {
            ASSERT_EQ(1, CBUF_Write(h, "xxxxxxxx", 1));
            ASSERT_EQ(1, CBUF_Read(h, 1, aucElem));
        }
        ASSERT_EQ(static_cast<s32>(sData.size()), CBUF_Write(h, sData.data(), static_cast<u32>(sData.size())));
        reads.clear();
        writes.clear();
    }

    CBUF_HANDLE h = nullptr;
    Slots reads, writes;
};

TEST(CircBufWrite, PartialWriteWarnsAndSingleSlotHoldsNothing)
{
    Buf b(8), one(1), oneOver(1, 1, 1);
    ibptest::LogCapture cap;
    EXPECT_EQ(7, CBUF_Write(b.h, "abcdefgh", 8));
    EXPECT_LOG(cap, "WRN", "BP", "circ buf space not enough! request=8 space=7 maxNum=8");
    EXPECT_EQ(1u, CBUF_IsFull(b.h));
    EXPECT_EQ(7u, b.Used());
    EXPECT_EQ(0, CBUF_Write(b.h, "z", 1));
    EXPECT_LOG(cap, "WRN", "BP", "circ buf space not enough! request=1 space=0 maxNum=8");
    EXPECT_EQ("abcdefg", b.Take(8));

    ASSERT_NE(nullptr, one.h);
    EXPECT_EQ(1u, CBUF_IsEmpty(one.h));
    EXPECT_EQ(1u, CBUF_IsFull(one.h));
    EXPECT_EQ(0, CBUF_Write(one.h, "ab", 2));
    EXPECT_LOG(cap, "WRN", "BP", "circ buf space not enough! request=2 space=0 maxNum=1");
    cap.Clear();
    EXPECT_EQ(0, CBUF_Write(oneOver.h, "a", 1));  // overwrite mode: no record
    EXPECT_EQ(0u, cap.Records().size());
    EXPECT_EQ("", oneOver.Take(1));
    EXPECT_TRUE(oneOver.reads.empty() && oneOver.writes.empty());
}

TEST(CircBufWrite, RunStopsAtTheEndOrBeforeTailAndWritesWrap)
{
    // N, T and U before; the run from H, and whether more room waits at slot 0.
    const struct { u32 ulNum, ulTail, ulUsed, ulRun, bNext; } kCases[] = {
        {8, 3, 3, 2, 1},  // H = 6: slots 6 and 7, then 0 and 1
        {8, 0, 5, 2, 0},  // H = 5: slot 7 stays empty
        {8, 7, 3, 4, 0},  // H = 2: up to slot 5, short of the end
        {8, 5, 0, 3, 1},  // empty at 5: to the end, then 0 to 3
        {1, 0, 0, 0, 0},
    };
    void *pMem = nullptr;
    u32 ulRun = 9, bNext = 9;
    for (const auto &c : kCases) {
        SCOPED_TRACE(c.ulTail);
        Buf b(c.ulNum);
        b.Start(c.ulTail, std::string(c.ulUsed, '.'));
        ASSERT_EQ(0u, CBUF_GetWriteMemNum(b.h, &pMem, &ulRun, &bNext));
        EXPECT_EQ(b.h->pucBuf + b.Head(), pMem);
        EXPECT_EQ(c.ulRun, ulRun);
        EXPECT_EQ(c.bNext, bNext);
        u32 ulHead = b.Head();
        ASSERT_EQ(0u, CBUF_SetWriteNum(b.h, ulRun));  // zero-copy commit of the whole run
        EXPECT_EQ((ulHead + ulRun) & (c.ulNum - 1), b.Head());
        EXPECT_EQ(ulRun, b.writes.size());
    }
    Buf b(8);
    b.Start(3, "...");
    EXPECT_EQ(4, CBUF_Write(b.h, "ABCD", 4));
    EXPECT_EQ(0, memcmp(b.h->pucBuf, "CD", 2));
    EXPECT_EQ(0, memcmp(b.h->pucBuf + 6, "AB", 2));
    EXPECT_EQ(2u, b.Head());
    EXPECT_EQ(1u, CBUF_IsFull(b.h));
    EXPECT_EQ((Slots{6, 7, 0, 1}), b.writes);
}

TEST(CircBufRead, WrapsInOrderPrefetchIsAllOrNothingDropAndResetOfferEachOnce)
{
    Buf b(8);
    char acOut[8] = {};
    EXPECT_EQ(-1, CBUF_Prefetch(b.h, 1, acOut));
    b.Start(5, "012345");  // slots 5 to 7, then 0 to 2
    EXPECT_EQ(-1, CBUF_Prefetch(b.h, 7, acOut));
    EXPECT_EQ(6, CBUF_Prefetch(b.h, 6, acOut));
    EXPECT_EQ("012345", std::string(acOut, 6));
    EXPECT_EQ(5u, b.Tail());
    EXPECT_TRUE(b.reads.empty());
    ibptest::LogCapture cap;
    EXPECT_EQ("01234", b.Take(5));
    EXPECT_EQ((Slots{5, 6, 7, 0, 1}), b.reads);
    EXPECT_EQ(2u, b.Tail());
    EXPECT_EQ("5", b.Take(5));  // what there is, without a record
    EXPECT_EQ("", b.Take(5));
    EXPECT_EQ(0u, cap.Records().size());

    b.Start(6, "abcd");
    EXPECT_EQ(0u, CBUF_DropElem(b.h, 3));
    EXPECT_EQ(1u, b.Tail());
    EXPECT_EQ(0u, CBUF_DropElem(b.h, 100));  // at most what is there
    EXPECT_EQ((Slots{6, 7, 0, 1}), b.reads);
    b.Start(6, "wxyz");
    CBUF_Reset(b.h);
    EXPECT_EQ((Slots{6, 7, 0, 1}), b.reads);
    EXPECT_EQ(0u, b.Head());
    EXPECT_EQ(0u, b.Tail());
    b.Start(0, "abc");
    CBUF_Destroy(b.h);
    b.h = nullptr;
    EXPECT_TRUE(b.reads.empty());
}

TEST(CircBufOverride, DropsTheOldestAndKeepsTheFirstMOfTheSource)
{
    const std::string sSrc = "ABCDEFGHIJKLMNOPQRST";
    // T and content before, bytes written; slots dropped, H and content after.
    const struct { u32 ulTail; const char *pcOld; u32 ulLen; Slots dropped; u32 ulHead; const char *pcAfter; } kCases[] = {
        {0, "abcdefg", 3, {0, 1, 2}, 2, "defgABC"},  // full: three make way
        {5, "pq", 7, {5, 6}, 6, "ABCDEFG"},
        {5, "pq", 20, {5, 6}, 6, "ABCDEFG"},
    };
    for (const auto &c : kCases) {
        SCOPED_TRACE(c.ulLen);
        Buf b(8, 1, 1);
        b.Start(c.ulTail, c.pcOld);
        ibptest::LogCapture cap;
        EXPECT_EQ(static_cast<s32>(std::min(c.ulLen, 7u)), CBUF_Write(b.h, sSrc.data(), c.ulLen));
        EXPECT_EQ(0u, cap.Records().size());
        EXPECT_EQ(c.dropped, b.reads);
        EXPECT_EQ(c.ulHead, b.Head());
        EXPECT_EQ(1u, CBUF_IsFull(b.h));
        EXPECT_EQ(c.pcAfter, b.Take(8));
    }
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

void Visit(void *pElem, void *pUser, u32 *pbConsume)
{
    auto *pS = static_cast<IterScript *>(pUser);
    u32 i = pS->ulCalls++;
    if (i < pS->flags.size() && pS->flags[i] >= 0)
        *pbConsume = static_cast<u32>(pS->flags[i]);
    *static_cast<char *>(pElem) = static_cast<char>('A' + i);  // changed in place
}

TEST(CircBufIterate, VisitsAllAndConsumesOnlyTheLeadingRun)
{
    // Flag script over five elements in slots 5 to 7, 0 and 1; elements consumed.
    const struct { std::vector<int> flags; u32 ulConsumed; } kCases[] = {
        {{1, 1, 0, -1, 1}, 2},  // a later 1 consumes nothing more
        {{1}, 5},               // the flag keeps its value between elements
        {{-1, 1}, 0},           // starts cleared, and the leading run is over
        {{2}, 0},               // only 1 consumes
    };
    for (const auto &c : kCases) {
        SCOPED_TRACE(c.ulConsumed);
        Buf b(8);
        b.Start(5, "vwxyz");
        IterScript s{c.flags};
        EXPECT_EQ(0u, CBUF_Iterate(b.h, Visit, &s));
        EXPECT_EQ(5u, s.ulCalls);
        EXPECT_EQ((5 + c.ulConsumed) & 7, b.Tail());
        EXPECT_EQ(c.ulConsumed, b.reads.size());
        EXPECT_EQ(std::string("ABCDE").substr(c.ulConsumed), b.Take(8));
    }
    Buf e(8);
    IterScript s{{1}};
    EXPECT_EQ(0u, CBUF_Iterate(e.h, Visit, &s));
    EXPECT_EQ(0u, s.ulCalls);
}

TEST(CircBufArgs, BadArgumentsAreLoggedInArgumentOrder)
{
    Buf b(8), w(8, 4), n(8, 1, 0, std::string(70, 'n').c_str());
    EXPECT_EQ(std::string(63, 'n'), n.h->acName);  // a long name is cut, not refused
    u32 ulNum = 0;
    void *pMem = nullptr;
    ibptest::LogCapture cap;
    EXPECT_EQ(nullptr, CBUF_Init(nullptr));
    for (const auto &size : {std::pair<u32, u32>{0, 8}, {4, 0}, {4, 6}}) {  // 6 is never rounded up
        CBUF_INIT_S stInit = {"x", size.first, size.second, 0, nullptr, nullptr, nullptr};
        EXPECT_EQ(nullptr, CBUF_Init(&stInit));
    }
    EXPECT_EQ(0u, CBUF_IsFull(nullptr));
    EXPECT_EQ(-1, CBUF_Write(nullptr, nullptr, 1));
    EXPECT_EQ(-1, CBUF_Read(b.h, 1, nullptr));
    EXPECT_EQ(1u, CBUF_GetWriteMemNum(nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(1u, CBUF_GetWriteMemNum(b.h, nullptr, nullptr, nullptr));
    EXPECT_EQ(1u, CBUF_GetWriteMemNum(b.h, &pMem, nullptr, nullptr));
    EXPECT_EQ(1u, CBUF_GetWriteMemNum(b.h, &pMem, &ulNum, nullptr));
    EXPECT_EQ(1u, CBUF_TokenLocate(w.h, reinterpret_cast<const u8 *>("x"), 0));  // byte buffers only
    EXPECT_EQ(1u, CBUF_PrintCircBuf(nullptr, nullptr));
    std::vector<std::string> texts;
    for (const auto &rec : cap.Records())
        texts.push_back("[" + rec.level + "]" + rec.text);
    EXPECT_EQ((std::vector<std::string>{"[ERR]pstInit is NULL", "[ERR]init param invalid! ulElemSize=0 ulElemNum=8",
                                        "[ERR]init param invalid! ulElemSize=4 ulElemNum=0", "[ERR]buffer size 6 invalid!",
                                        "[ERR]pstCBuf is NULL!", "[ERR]hCBuf is invalid", "[ERR]pMem is NULL",
                                        "[ERR]hCBuf is NULL", "[ERR]pWriteMem is NULL", "[ERR]pulNum is NULL",
                                        "[ERR]pbNext is NULL", "[ERR]seek can only be used in cbuf which elem size is 4",
                                        "[ERR]pulOutBufLen is NULL"}),
              texts);
}

std::string Print(u32 ulCap)
{
    std::vector<char> buf(ulCap + 1, '\0');
    u32 ulLen = ulCap;
    EXPECT_EQ(0u, CBUF_PrintCircBuf(&ulLen, buf.data()));
    EXPECT_EQ(strlen(buf.data()), ulLen);
    return buf.data();
}

TEST(CircBufPrint, NewestFirstAndCutToCapacity)
{
    const std::string sHead = "BufName    BufNum     Override   HeadPos    TailPos    UsedNum    SpaceNum   \n";
    EXPECT_EQ(sHead, Print(8192));
    Buf a(8, 1, 0, "A");
    Buf c(1024, 1, 1, nullptr);
    Buf b(16, 2, 0, "a-very-long-name");
    b.Start(14);
    ASSERT_EQ(5, CBUF_Write(b.h, "0123456789", 5));
    const std::string sAll = sHead +
                             "a-very-long-name 16         No         3          14         5          10         \n"
                             "           1024       Yes        0          0          0          1023       \n"
                             "A          8          No         0          0          0          7          \n";
    EXPECT_EQ(sAll, Print(8192));
    EXPECT_EQ(sAll.substr(0, 99), Print(100));  // one byte goes to the terminator
}

}  // namespace
