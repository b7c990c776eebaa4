// Circular buffer: positions, wrap-around in both directions, overwrite mode,
// callbacks, zero-copy writing, token search, iteration and the display.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "containers/isp_circbuf_priv.h"
#include "harness/log_capture.h"
#include "ibp/isp_circbuf.h"

namespace {

// Records the slot index and first byte of every element a callback sees.
struct Seen {
    CBUF_HANDLE hBuf = nullptr;
    std::vector<u32> reads;
    std::vector<u32> writes;
    std::string readBytes;
};

u32 SlotOf(const Seen *pstSeen, const void *pElem)
{
    return static_cast<u32>((static_cast<const u8 *>(pElem) - pstSeen->hBuf->pucBuf) / pstSeen->hBuf->ulElemSize);
}

void OnRead(void *pElem, void *pUser)
{
    auto *pstSeen = static_cast<Seen *>(pUser);
    pstSeen->reads.push_back(SlotOf(pstSeen, pElem));
    pstSeen->readBytes.push_back(*static_cast<char *>(pElem));
}

void OnWrite(void *pElem, void *pUser)
{
    auto *pstSeen = static_cast<Seen *>(pUser);
    pstSeen->writes.push_back(SlotOf(pstSeen, pElem));
}

// A buffer that is destroyed at the end of the test; callbacks feed `seen`.
class Buf {
public:
    explicit Buf(u32 ulNum, u32 ulSize = 1, u32 bOverride = 0, const char *pcName = "test", bool bCallbacks = true)
    {
        CBUF_INIT_S stInit = {pcName, ulSize, ulNum, bOverride, nullptr, nullptr, &seen};
        if (bCallbacks) {
            stInit.pfnRead = OnRead;
            stInit.pfnWrite = OnWrite;
        }
        h = CBUF_Init(&stInit);
        seen.hBuf = h;
    }
    ~Buf()
    {
        if (h != nullptr)
            CBUF_Destroy(h);
    }
    Buf(const Buf &) = delete;
    Buf &operator=(const Buf &) = delete;

    u32 Head() const { return h->ulHeadPos; }
    u32 Tail() const { return h->ulTailPos; }
    u32 Used() const
    {
        u32 ulNum = 0xffffffff;
        EXPECT_EQ(0u, CBUF_GetReadNum(h, &ulNum));
        return ulNum;
    }
    std::string Slots(u32 ulFirst, u32 ulNum) const
    {
        return std::string(reinterpret_cast<const char *>(h->pucBuf) + ulFirst, ulNum);
    }
    // Moves both positions to ulPos through the interface, buffer empty.
    void Park(u32 ulPos)
    {
        u8 aucElem[64];
        for (u32 i = 0; i < ulPos; ++i) {
            ASSERT_EQ(1, CBUF_Write(h, "xxxxxxxx", 1));
            ASSERT_EQ(1, CBUF_Read(h, 1, aucElem));
        }
        ASSERT_EQ(ulPos, Head());
        ASSERT_EQ(ulPos, Tail());
        seen.reads.clear();
        seen.writes.clear();
        seen.readBytes.clear();
    }

    CBUF_HANDLE h = nullptr;
    Seen seen;
};

std::vector<u32> Range(u32 ulFrom, u32 ulTo, u32 ulNum)
{
    std::vector<u32> out;
    for (u32 i = ulFrom; i != ulTo; i = (i + 1) % ulNum)
        out.push_back(i);
    return out;
}

TEST(CircBufInit, RefusesBadParametersWithTheirRecords)
{
    ibptest::LogCapture cap;
    EXPECT_EQ(nullptr, CBUF_Init(nullptr));
    EXPECT_LOG(cap, "ERR", "BP", "pstInit is NULL");

    CBUF_INIT_S stInit = {"x", 0, 8, 0, nullptr, nullptr, nullptr};
    EXPECT_EQ(nullptr, CBUF_Init(&stInit));
    EXPECT_LOG(cap, "ERR", "BP", "init param invalid! ulElemSize=0 ulElemNum=8");
    stInit.ulElemSize = 4;
    stInit.ulElemNum = 0;
    EXPECT_EQ(nullptr, CBUF_Init(&stInit));
    EXPECT_LOG(cap, "ERR", "BP", "init param invalid! ulElemSize=4 ulElemNum=0");
    // Never rounded up to the next power of two.
    stInit.ulElemNum = 6;
    EXPECT_EQ(nullptr, CBUF_Init(&stInit));
    EXPECT_LOG(cap, "ERR", "BP", "buffer size 6 invalid!");
    EXPECT_EQ(4u, cap.Records().size());
}

TEST(CircBufInit, NameIsCutTo63CharactersAndAbsentNameIsEmpty)
{
    std::string sLong(70, 'n');
    Buf a(8, 1, 0, sLong.c_str());
    ASSERT_NE(nullptr, a.h);
    EXPECT_EQ(std::string(63, 'n'), a.h->acName);
    Buf b(8, 1, 0, nullptr);
    ASSERT_NE(nullptr, b.h);
    EXPECT_STREQ("", b.h->acName);
}

TEST(CircBufWrite, FillingNewBufferStopsAtNMinusOneWithWarning)
{
    Buf b(8);
    ibptest::LogCapture cap;
    EXPECT_EQ(7, CBUF_Write(b.h, "abcdefgh", 8));
    EXPECT_LOG(cap, "WRN", "BP", "circ buf space not enough! request=8 space=7 maxNum=8");
    EXPECT_EQ(1u, CBUF_IsFull(b.h));
    EXPECT_EQ(7u, b.Used());
    EXPECT_EQ(7u, b.Head());
    EXPECT_EQ(0u, b.Tail());
    EXPECT_EQ("abcdefg", b.Slots(0, 7));
    EXPECT_EQ(Range(0, 7, 8), b.seen.writes);

    cap.Clear();
    EXPECT_EQ(0, CBUF_Write(b.h, "z", 1));
    EXPECT_LOG(cap, "WRN", "BP", "circ buf space not enough! request=1 space=0 maxNum=8");
    EXPECT_EQ(7u, b.Head());
}

TEST(CircBufWrite, WrapsAcrossTheEndInTwoParts)
{
    Buf b(8);
    u8 aucOut[8];
    ASSERT_EQ(6, CBUF_Write(b.h, "......", 6));
    ASSERT_EQ(3, CBUF_Read(b.h, 3, aucOut));
    ASSERT_EQ(6u, b.Head());
    ASSERT_EQ(3u, b.Tail());
    b.seen.writes.clear();

    // H = 6, T = 3: the run up to the end is 2, more room waits at slot 0.
    void *pMem = nullptr;
    u32 ulRun = 0, bNext = 0;
    ASSERT_EQ(0u, CBUF_GetWriteMemNum(b.h, &pMem, &ulRun, &bNext));
    EXPECT_EQ(b.h->pucBuf + 6, pMem);
    EXPECT_EQ(2u, ulRun);
    EXPECT_EQ(1u, bNext);

    EXPECT_EQ(4, CBUF_Write(b.h, "ABCD", 4));
    EXPECT_EQ("AB", b.Slots(6, 2));
    EXPECT_EQ("CD", b.Slots(0, 2));
    EXPECT_EQ(2u, b.Head());
    EXPECT_EQ(3u, b.Tail());
    EXPECT_EQ(1u, CBUF_IsFull(b.h));
    EXPECT_EQ((std::vector<u32>{6, 7, 0, 1}), b.seen.writes);
}

TEST(CircBufWrite, RunStopsShortOfTheEndWhenTailIsAtZero)
{
    Buf b(8);
    ASSERT_EQ(5, CBUF_Write(b.h, "abcde", 5));
    void *pMem = nullptr;
    u32 ulRun = 0, bNext = 1;
    ASSERT_EQ(0u, CBUF_GetWriteMemNum(b.h, &pMem, &ulRun, &bNext));
    EXPECT_EQ(2u, ulRun);  // slot 7 stays empty
    EXPECT_EQ(0u, bNext);
}

TEST(CircBufRead, WrapsAcrossTheEndAndKeepsOrder)
{
    Buf b(8);
    b.Park(5);
    ASSERT_EQ(6, CBUF_Write(b.h, "012345", 6));
    ASSERT_EQ(3u, b.Head());
    char acOut[8] = {};
    EXPECT_EQ(5, CBUF_Read(b.h, 5, acOut));
    EXPECT_EQ("01234", std::string(acOut, 5));
    EXPECT_EQ(2u, b.Tail());
    EXPECT_EQ((std::vector<u32>{5, 6, 7, 0, 1}), b.seen.reads);
    EXPECT_EQ("01234", b.seen.readBytes);
    // More than there is: what is there, without a record.
    ibptest::LogCapture cap;
    EXPECT_EQ(1, CBUF_Read(b.h, 5, acOut));
    EXPECT_EQ('5', acOut[0]);
    EXPECT_EQ(0, CBUF_Read(b.h, 5, acOut));
    EXPECT_EQ(0u, cap.Records().size());
}

TEST(CircBufRead, PrefetchIsAllOrNothingAndConsumesNothing)
{
    Buf b(8);
    char acOut[8] = {};
    EXPECT_EQ(0, CBUF_Prefetch(b.h, 0, acOut));
    EXPECT_EQ(-1, CBUF_Prefetch(b.h, 1, acOut));
    b.Park(6);
    ASSERT_EQ(3, CBUF_Write(b.h, "xyz", 3));
    EXPECT_EQ(-1, CBUF_Prefetch(b.h, 5, acOut));
    EXPECT_EQ(3, CBUF_Prefetch(b.h, 3, acOut));
    EXPECT_EQ("xyz", std::string(acOut, 3));  // across the end
    EXPECT_EQ(3u, b.Used());
    EXPECT_EQ(6u, b.Tail());
    EXPECT_TRUE(b.seen.reads.empty());
}

TEST(CircBufOverride, FullBufferDropsOldestThroughReadCallback)
{
    Buf b(8, 1, 1);
    ASSERT_EQ(7, CBUF_Write(b.h, "abcdefg", 7));
    b.seen.writes.clear();
    ibptest::LogCapture cap;
    EXPECT_EQ(3, CBUF_Write(b.h, "XYZ", 3));
    EXPECT_EQ(0u, cap.Records().size());
    EXPECT_EQ(3u, b.Tail());
    EXPECT_EQ(2u, b.Head());
    EXPECT_EQ(7u, b.Used());
    EXPECT_EQ((std::vector<u32>{0, 1, 2}), b.seen.reads);
    EXPECT_EQ("abc", b.seen.readBytes);
    EXPECT_EQ((std::vector<u32>{7, 0, 1}), b.seen.writes);
    char acOut[8] = {};
    EXPECT_EQ(7, CBUF_Read(b.h, 8, acOut));
    EXPECT_EQ("defgXYZ", std::string(acOut, 7));
}

TEST(CircBufOverride, WriteOfMOrMoreKeepsTheFirstMOfTheSource)
{
    for (u32 ulLen : {7u, 8u, 20u}) {
        Buf b(8, 1, 1);
        b.Park(5);
        ASSERT_EQ(2, CBUF_Write(b.h, "pq", 2));
        std::string sSrc = std::string("ABCDEFGHIJKLMNOPQRST").substr(0, ulLen);
        ibptest::LogCapture cap;
        EXPECT_EQ(7, CBUF_Write(b.h, sSrc.data(), ulLen)) << ulLen;
        EXPECT_EQ(0u, cap.Records().size());
        EXPECT_EQ(1u, CBUF_IsFull(b.h));
        // The two old elements made way; H moved 7 from slot 7.
        EXPECT_EQ("pq", b.seen.readBytes);
        EXPECT_EQ(6u, b.Head());
        EXPECT_EQ(7u, b.Tail());
        char acOut[8] = {};
        EXPECT_EQ(7, CBUF_Read(b.h, 7, acOut));
        EXPECT_EQ("ABCDEFG", std::string(acOut, 7));
    }
}

TEST(CircBufEdge, SingleSlotBufferHoldsNothing)
{
    Buf b(1);
    ASSERT_NE(nullptr, b.h);
    EXPECT_EQ(1u, CBUF_IsEmpty(b.h));
    EXPECT_EQ(1u, CBUF_IsFull(b.h));
    ibptest::LogCapture cap;
    EXPECT_EQ(0, CBUF_Write(b.h, "ab", 2));
    EXPECT_LOG(cap, "WRN", "BP", "circ buf space not enough! request=2 space=0 maxNum=1");
    void *pMem = nullptr;
    u32 ulRun = 9, bNext = 9;
    EXPECT_EQ(0u, CBUF_GetWriteMemNum(b.h, &pMem, &ulRun, &bNext));
    EXPECT_EQ(0u, ulRun);
    EXPECT_EQ(0u, bNext);

    Buf o(1, 1, 1);
    cap.Clear();
    EXPECT_EQ(0, CBUF_Write(o.h, "a", 1));
    EXPECT_EQ(0u, cap.Records().size());
    char c = 0;
    EXPECT_EQ(0, CBUF_Read(o.h, 1, &c));
    EXPECT_TRUE(o.seen.reads.empty());
    EXPECT_TRUE(o.seen.writes.empty());
}

TEST(CircBufZeroCopy, FillAllFreeRoomInTwoCommits)
{
    Buf b(8);
    b.Park(5);
    std::string sData = "0123456";
    size_t ulDone = 0;
    u32 bNext = 1;
    int lRounds = 0;
    while (bNext == 1) {
        void *pMem = nullptr;
        u32 ulRun = 0;
        ASSERT_EQ(0u, CBUF_GetWriteMemNum(b.h, &pMem, &ulRun, &bNext));
        memcpy(pMem, sData.data() + ulDone, ulRun);
        ASSERT_EQ(0u, CBUF_SetWriteNum(b.h, ulRun));
        ulDone += ulRun;
        ++lRounds;
    }
    EXPECT_EQ(2, lRounds);
    EXPECT_EQ(7u, ulDone);
    EXPECT_EQ(1u, CBUF_IsFull(b.h));
    EXPECT_EQ((std::vector<u32>{5, 6, 7, 0, 1, 2, 3}), b.seen.writes);
    char acOut[8] = {};
    EXPECT_EQ(7, CBUF_Read(b.h, 7, acOut));
    EXPECT_EQ(sData, std::string(acOut, 7));
}

TEST(CircBufZeroCopy, CommitOfZeroChangesNothing)
{
    Buf b(8);
    b.Park(3);
    EXPECT_EQ(0u, CBUF_SetWriteNum(b.h, 0));
    EXPECT_EQ(3u, b.Head());
    EXPECT_TRUE(b.seen.writes.empty());
}

TEST(CircBufDrop, DropsAtMostWhatIsThere)
{
    Buf b(8);
    b.Park(6);
    ASSERT_EQ(4, CBUF_Write(b.h, "abcd", 4));
    EXPECT_EQ(0u, CBUF_DropElem(b.h, 3));
    EXPECT_EQ(1u, b.Tail());
    EXPECT_EQ("abc", b.seen.readBytes);
    EXPECT_EQ(0u, CBUF_DropElem(b.h, 100));
    EXPECT_EQ(1u, CBUF_IsEmpty(b.h));
    EXPECT_EQ(2u, b.Tail());
    EXPECT_EQ(0u, CBUF_DropElem(b.h, 5));
    EXPECT_EQ(2u, b.Tail());
    EXPECT_EQ("abcd", b.seen.readBytes);
}

TEST(CircBufReset, OffersEveryElementOnceAndReturnsToSlotZero)
{
    Buf b(8);
    b.Park(6);
    ASSERT_EQ(4, CBUF_Write(b.h, "abcd", 4));
    CBUF_Reset(b.h);
    EXPECT_EQ((std::vector<u32>{6, 7, 0, 1}), b.seen.reads);
    EXPECT_EQ(0u, b.Head());
    EXPECT_EQ(0u, b.Tail());
    EXPECT_EQ(1u, CBUF_IsEmpty(b.h));
}

TEST(CircBufReset, DestroyOffersNothing)
{
    Seen seen;
    CBUF_INIT_S stInit = {"d", 1, 8, 0, OnWrite, OnRead, &seen};
    CBUF_HANDLE h = CBUF_Init(&stInit);
    ASSERT_NE(nullptr, h);
    seen.hBuf = h;
    ASSERT_EQ(3, CBUF_Write(h, "abc", 3));
    CBUF_Destroy(h);
    EXPECT_TRUE(seen.reads.empty());
}

// ---- token search

const u8 kToken[4] = {0xdf, 0x12, 0x23, 0x35};

std::string Tok() { return std::string(reinterpret_cast<const char *>(kToken), 4); }

TEST(CircBufToken, NeedsMoreThanTheTokenLengthToFindIt)
{
    Buf b(16);
    ASSERT_EQ(3, CBUF_Write(b.h, Tok().data(), 3));
    EXPECT_EQ(1u, CBUF_TokenLocate(b.h, kToken, 4));
    EXPECT_EQ(0u, b.Tail());
    ASSERT_EQ(1, CBUF_Write(b.h, Tok().data() + 3, 1));
    // Exactly the token: U - len = 0 positions are tried.
    EXPECT_EQ(1u, CBUF_TokenLocate(b.h, kToken, 4));
    EXPECT_EQ(0u, b.Tail());
    ASSERT_EQ(1, CBUF_Write(b.h, "!", 1));
    EXPECT_EQ(0u, CBUF_TokenLocate(b.h, kToken, 4));
    EXPECT_EQ(0u, b.Tail());
    EXPECT_EQ(5u, b.Used());
}

TEST(CircBufToken, MissDropsAllButTheLastTokenLengthBytes)
{
    Buf b(16);
    ASSERT_EQ(10, CBUF_Write(b.h, "0123456789", 10));
    ibptest::LogCapture cap;
    EXPECT_EQ(1u, CBUF_TokenLocate(b.h, kToken, 4));
    EXPECT_EQ(0u, cap.Records().size());
    EXPECT_EQ(4u, b.Used());
    EXPECT_EQ(6u, b.Tail());
    EXPECT_EQ("012345", b.seen.readBytes);
}

TEST(CircBufToken, TokenArrivingInPiecesIsFoundLater)
{
    Buf b(16);
    std::string sFirst = "junk" + Tok().substr(0, 2);
    ASSERT_EQ(6, CBUF_Write(b.h, sFirst.data(), 6));
    EXPECT_EQ(1u, CBUF_TokenLocate(b.h, kToken, 4));
    EXPECT_EQ(2u, b.Tail());
    std::string sRest = Tok().substr(2) + "body";
    ASSERT_EQ(6, CBUF_Write(b.h, sRest.data(), 6));
    EXPECT_EQ(0u, CBUF_TokenLocate(b.h, kToken, 4));
    EXPECT_EQ(4u, b.Tail());
    EXPECT_EQ("junk", b.seen.readBytes);
}

TEST(CircBufToken, TokenStraddlingTheEndIsFound)
{
    Buf b(16);
    b.Park(12);
    std::string sData = "zz" + Tok() + "y";  // token in slots 14, 15, 0, 1
    ASSERT_EQ(7, CBUF_Write(b.h, sData.data(), 7));
    EXPECT_EQ(0u, CBUF_TokenLocate(b.h, kToken, 4));
    EXPECT_EQ(14u, b.Tail());
    EXPECT_EQ((std::vector<u32>{12, 13}), b.seen.reads);
    u8 aucHdr[4] = {};
    EXPECT_EQ(4, CBUF_Prefetch(b.h, 4, aucHdr));
    EXPECT_EQ(0, memcmp(aucHdr, kToken, 4));
}

TEST(CircBufToken, FalseStartAcrossTheEndIsSkipped)
{
    Buf b(16);
    b.Park(14);
    // A partial match at slot 14 (0xdf 0x12, then a mismatch in slot 0).
    std::string sData = Tok().substr(0, 2) + "x" + Tok() + "!";
    ASSERT_EQ(8, CBUF_Write(b.h, sData.data(), 8));
    EXPECT_EQ(0u, CBUF_TokenLocate(b.h, kToken, 4));
    EXPECT_EQ(1u, b.Tail());
    EXPECT_EQ((std::vector<u32>{14, 15, 0}), b.seen.reads);
}

TEST(CircBufToken, EmptyTokenAndWrongElementSize)
{
    Buf b(8);
    EXPECT_EQ(1u, CBUF_TokenLocate(b.h, kToken, 0));
    ASSERT_EQ(2, CBUF_Write(b.h, "ab", 2));
    EXPECT_EQ(0u, CBUF_TokenLocate(b.h, kToken, 0));
    EXPECT_EQ(0u, b.Tail());

    Buf w(8, 4);
    ASSERT_EQ(2, CBUF_Write(w.h, "abcdefgh", 2));
    ibptest::LogCapture cap;
    EXPECT_EQ(1u, CBUF_TokenLocate(w.h, kToken, 0));
    EXPECT_LOG(cap, "ERR", "BP", "seek can only be used in cbuf which elem size is 4");
    EXPECT_EQ(0u, w.Tail());
}

// ---- iteration

struct IterScript {
    std::vector<int> flags;  // what to store in the flag at each call; -1 leaves it
    std::vector<u32> slots;
    CBUF_HANDLE h;
};

void Visit(void *pElem, void *pUser, u32 *pbConsume)
{
    auto *pstScript = static_cast<IterScript *>(pUser);
    size_t i = pstScript->slots.size();
    pstScript->slots.push_back(static_cast<u32>(static_cast<u8 *>(pElem) - pstScript->h->pucBuf));
    if (i < pstScript->flags.size() && pstScript->flags[i] >= 0)
        *pbConsume = static_cast<u32>(pstScript->flags[i]);
    *static_cast<char *>(pElem) = 'A' + static_cast<char>(i);  // in place
}

TEST(CircBufIterate, ConsumesOnlyTheLeadingRun)
{
    Buf b(8);
    b.Park(5);
    ASSERT_EQ(5, CBUF_Write(b.h, "vwxyz", 5));
    IterScript s{{1, 1, 0, -1, 1}, {}, b.h};
    EXPECT_EQ(0u, CBUF_Iterate(b.h, Visit, &s));
    EXPECT_EQ((std::vector<u32>{5, 6, 7, 0, 1}), s.slots);
    EXPECT_EQ(7u, b.Tail());
    EXPECT_EQ(3u, b.Used());
    EXPECT_EQ((std::vector<u32>{5, 6}), b.seen.reads);
    char acOut[4] = {};
    EXPECT_EQ(3, CBUF_Read(b.h, 3, acOut));
    EXPECT_EQ("CDE", std::string(acOut, 3));  // changed in place
}

TEST(CircBufIterate, FlagKeepsItsValueBetweenElements)
{
    Buf b(8);
    ASSERT_EQ(4, CBUF_Write(b.h, "abcd", 4));
    IterScript s{{1}, {}, b.h};
    EXPECT_EQ(0u, CBUF_Iterate(b.h, Visit, &s));
    EXPECT_EQ(4u, s.slots.size());
    EXPECT_EQ(1u, CBUF_IsEmpty(b.h));
    EXPECT_EQ((std::vector<u32>{0, 1, 2, 3}), b.seen.reads);
}

TEST(CircBufIterate, FlagStartsClearedAndOnlyOneConsumes)
{
    Buf b(8);
    ASSERT_EQ(3, CBUF_Write(b.h, "abc", 3));
    IterScript s{{-1, 1}, {}, b.h};
    EXPECT_EQ(0u, CBUF_Iterate(b.h, Visit, &s));
    EXPECT_EQ(3u, s.slots.size());
    EXPECT_EQ(0u, b.Tail());
    IterScript t{{2}, {}, b.h};
    EXPECT_EQ(0u, CBUF_Iterate(b.h, Visit, &t));
    EXPECT_EQ(0u, b.Tail());
}

TEST(CircBufIterate, EmptyBufferCallsNothing)
{
    Buf b(8);
    IterScript s{{1}, {}, b.h};
    EXPECT_EQ(0u, CBUF_Iterate(b.h, Visit, &s));
    EXPECT_TRUE(s.slots.empty());
}

// ---- absent arguments

TEST(CircBufArgs, AbsentHandleAndPointersAreLoggedInArgumentOrder)
{
    Buf b(8);
    char acMem[4];
    u32 ulNum = 0, bNext = 0;
    void *pMem = nullptr;
    ibptest::LogCapture cap;
    EXPECT_EQ(0u, CBUF_IsEmpty(nullptr));
    EXPECT_EQ(0u, CBUF_IsFull(nullptr));
    EXPECT_LOG(cap, "ERR", "BP", "pstCBuf is NULL!");
    EXPECT_EQ(-1, CBUF_Read(nullptr, 1, nullptr));
    EXPECT_EQ(-1, CBUF_Write(nullptr, nullptr, 1));
    EXPECT_EQ(-1, CBUF_Prefetch(nullptr, 1, nullptr));
    EXPECT_EQ(1u, CBUF_Iterate(nullptr, nullptr, nullptr));
    EXPECT_EQ(1u, CBUF_GetReadNum(nullptr, nullptr));
    EXPECT_EQ(1u, CBUF_DropElem(nullptr, 1));
    EXPECT_EQ(1u, CBUF_SetWriteNum(nullptr, 1));
    EXPECT_EQ(1u, CBUF_TokenLocate(nullptr, nullptr, 1));
    CBUF_Reset(nullptr);
    CBUF_Destroy(nullptr);
    EXPECT_EQ(11u, cap.Count("ERR", "BP", "hCBuf is invalid")) << cap.Dump();
    EXPECT_EQ(1u, CBUF_GetWriteMemNum(nullptr, nullptr, nullptr, nullptr));
    EXPECT_LOG(cap, "ERR", "BP", "hCBuf is NULL");

    cap.Clear();
    EXPECT_EQ(-1, CBUF_Read(b.h, 1, nullptr));
    EXPECT_EQ(-1, CBUF_Write(b.h, nullptr, 1));
    EXPECT_EQ(-1, CBUF_Prefetch(b.h, 1, nullptr));
    EXPECT_EQ(3u, cap.Count("ERR", "BP", "pMem is NULL"));
    EXPECT_EQ(1u, CBUF_Iterate(b.h, nullptr, nullptr));
    EXPECT_LOG(cap, "ERR", "BP", "pfnIter is NULL");
    EXPECT_EQ(1u, CBUF_GetReadNum(b.h, nullptr));
    EXPECT_LOG(cap, "ERR", "BP", "pulNum is NULL");
    EXPECT_EQ(1u, CBUF_TokenLocate(b.h, nullptr, 1));
    EXPECT_LOG(cap, "ERR", "BP", "pucToken is NULL");
    EXPECT_EQ(1u, CBUF_GetWriteMemNum(b.h, nullptr, &ulNum, &bNext));
    EXPECT_LOG(cap, "ERR", "BP", "pWriteMem is NULL");
    EXPECT_EQ(1u, CBUF_GetWriteMemNum(b.h, &pMem, nullptr, &bNext));
    EXPECT_EQ(1u, CBUF_GetWriteMemNum(b.h, &pMem, &ulNum, nullptr));
    EXPECT_LOG(cap, "ERR", "BP", "pbNext is NULL");
    // A count of 0 is no work, not a bad argument.
    cap.Clear();
    EXPECT_EQ(0, CBUF_Read(b.h, 0, acMem));
    EXPECT_EQ(0, CBUF_Write(b.h, acMem, 0));
    EXPECT_EQ(0u, cap.Records().size());
}

// ---- display

std::string Print(u32 ulCap, const std::string &sBefore = "", u32 *pulLen = nullptr)
{
    std::vector<char> buf(ulCap + 1, '\0');
    memcpy(buf.data(), sBefore.data(), sBefore.size());
    u32 ulLen = ulCap;
    EXPECT_EQ(0u, CBUF_PrintCircBuf(&ulLen, buf.data()));
    std::string sOut(buf.data());
    EXPECT_EQ(sOut.size(), ulLen);
    if (pulLen != nullptr)
        *pulLen = ulLen;
    return sOut;
}

const std::string kHeading =
    "BufName    BufNum     Override   HeadPos    TailPos    UsedNum    SpaceNum   \n";

TEST(CircBufPrint, HeadingAloneWithoutBuffers)
{
    EXPECT_EQ(kHeading, Print(8192));
}

TEST(CircBufPrint, NewestFirstWithPositions)
{
    Buf a(8, 1, 0, "A");
    Buf c(1024, 1, 1, nullptr);
    Buf b(16, 2, 0, "a-very-long-name");
    b.Park(14);
    ASSERT_EQ(5, CBUF_Write(b.h, "0123456789", 5));
    EXPECT_EQ(kHeading +
                  "a-very-long-name 16         No         3          14         5          10         \n"
                  "           1024       Yes        0          0          0          1023       \n"
                  "A          8          No         0          0          0          7          \n",
              Print(8192));
}

TEST(CircBufPrint, AppendsBehindExistingTextAndCutsToCapacity)
{
    Buf a(8, 1, 0, "A");
    u32 ulLen = 0;
    std::string sOut = Print(8192, "before\n", &ulLen);
    EXPECT_EQ("before\n" + kHeading + "A          8          No         0          0          0          7          \n",
              sOut);
    // Room for the terminator is kept: 100 bytes hold 99 characters.
    sOut = Print(100, "", &ulLen);
    EXPECT_EQ(99u, ulLen);
    EXPECT_EQ((kHeading + "A          8          No         0          0          0          7          \n")
                  .substr(0, 99),
              sOut);
}

TEST(CircBufPrint, AbsentArgumentsFail)
{
    ibptest::LogCapture cap;
    char acBuf[8] = {};
    u32 ulLen = sizeof(acBuf);
    EXPECT_EQ(1u, CBUF_PrintCircBuf(nullptr, acBuf));
    EXPECT_LOG(cap, "ERR", "BP", "pulOutBufLen is NULL");
    EXPECT_EQ(1u, CBUF_PrintCircBuf(&ulLen, nullptr));
    EXPECT_LOG(cap, "ERR", "BP", "pcOutBuf is NULL");
    EXPECT_EQ(8u, ulLen);
}

// ---- one writer, one reader

TEST(CircBufThreads, WriterAndReaderMoveAStreamInOrder)
{
    Buf b(64, 1, 0, "stream", false);
    constexpr u32 kTotal = 200000;
    std::atomic<bool> bBad{false};
    std::thread reader([&] {
        u8 aucChunk[37];
        u32 ulNext = 0;
        while (ulNext < kTotal) {
            s32 lGot = CBUF_Read(b.h, sizeof(aucChunk), aucChunk);
            for (s32 i = 0; i < lGot; ++i, ++ulNext)
                if (aucChunk[i] != static_cast<u8>(ulNext * 7))
                    bBad = true;
            if (lGot == 0)
                std::this_thread::yield();
        }
    });
    u8 aucSrc[29];
    u32 ulSent = 0;
    {
        ibptest::LogCapture cap(3);  // partial writes warn; keep them out of the output
        while (ulSent < kTotal) {
            u32 ulNum = std::min<u32>(sizeof(aucSrc), kTotal - ulSent);
            for (u32 i = 0; i < ulNum; ++i)
                aucSrc[i] = static_cast<u8>((ulSent + i) * 7);
            s32 lPut = CBUF_Write(b.h, aucSrc, ulNum);
            ulSent += static_cast<u32>(lPut);
            if (lPut == 0)
                std::this_thread::yield();
        }
        reader.join();
    }
    EXPECT_FALSE(bBad);
    EXPECT_EQ(1u, CBUF_IsEmpty(b.h));
}

}  // namespace
