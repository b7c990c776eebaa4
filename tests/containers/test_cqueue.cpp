// Circular queue: one record at a time on a circular buffer.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "harness/log_capture.h"
#include "ibp/isp_circbuf.h"

namespace {

struct Rec { u32 ulId, ulCheck; };  // ulCheck = ~ulId: the whole record travels

// ulNum slots holding records 1 to ulPushed; `left` gets the ids the read callback sees leave.
struct Queue {
    Queue(u32 ulNum, u32 bOverride, u32 ulPushed)
    {
        CBUF_INIT_S stInit = {"queue", sizeof(Rec), ulNum, bOverride, nullptr, OnRead, &left};
        h = CQUE_Init(&stInit);
        for (u32 i = 1; i <= ulPushed; ++i)
            EXPECT_EQ(0u, Push(i)) << i;
    }
    ~Queue() { CQUE_Destroy(h); }
    static void OnRead(void *p, void *pUser) { static_cast<std::vector<u32> *>(pUser)->push_back(static_cast<Rec *>(p)->ulId); }
    u32 Push(u32 ulId) { Rec stRec = {ulId, ~ulId}; return CQUE_Push(h, &stRec); }
    CBUF_HANDLE h;
    std::vector<u32> left;
};

TEST(CQueue, FourSlotsTakeThreeUnlessOverwritingAndFailuresAreLogged)
{
    Queue q(4, 0, 3), e(4, 0, 0), o(4, 1, 4);
    ibptest::LogCapture cap;
    EXPECT_EQ(1u, q.Push(4));
    EXPECT_EQ(1u, CQUE_Pop(q.h, nullptr));
    Rec stOut = {77, 0};
    EXPECT_EQ(1u, CQUE_Pop(e.h, &stOut));
    EXPECT_EQ(77u, stOut.ulId);  // left unwritten
    std::vector<std::string> texts;
    for (const auto &rec : cap.Records())
        texts.push_back("[" + rec.level + "]" + rec.text);
    EXPECT_EQ((std::vector<std::string>{"[WRN]circ buf space not enough! request=1 space=0 maxNum=4",
                                        "[ERR]CBUF_Write() fail", "[ERR]pMem is NULL", "[ERR]CBUF_Read() fail",
                                        "[ERR]CBUF_Read() fail"}),
              texts);
    EXPECT_TRUE(q.left.empty());
    // Overwriting: the oldest made way through the read callback.
    EXPECT_EQ(std::vector<u32>{1}, o.left);
    EXPECT_EQ(0u, CQUE_Pop(o.h, &stOut));
    EXPECT_EQ(2u, stOut.ulId);
}

TEST(CQueue, FirstInFirstOutAcrossTheEnd)
{
    Queue q(8, 0, 0);
    u32 ulNextIn = 0;
    // Keep five queued while the positions go round the eight slots twice.
    for (u32 ulNextOut = 0; ulNextOut < 20; ++ulNextOut) {
        while (ulNextIn - ulNextOut < 5)
            ASSERT_EQ(0u, q.Push(ulNextIn++));
        Rec stOut = {};
        ASSERT_EQ(0u, CQUE_Pop(q.h, &stOut));
        EXPECT_EQ(ulNextOut, stOut.ulId);
        EXPECT_EQ(~ulNextOut, stOut.ulCheck);
        ASSERT_EQ(ulNextOut + 1, q.left.size());  // one read callback per pop
        EXPECT_EQ(ulNextOut, q.left.back());
    }
}

}  // namespace
