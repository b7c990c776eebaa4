// Circular queue: one record at a time on a circular buffer.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "harness/log_capture.h"
#include "ibp/isp_circbuf.h"

namespace {

struct Rec {
    u32 ulId;
    char acTag[12];  // the id again, as text
};

void OnRead(void *pElem, void *pUser) { static_cast<std::vector<u32> *>(pUser)->push_back(static_cast<Rec *>(pElem)->ulId); }

// A queue of ulNum slots holding records with ids 1 to ulPushed.
struct Queue {
    Queue(u32 ulNum, u32 bOverride, u32 ulPushed)
    {
        CBUF_INIT_S stInit = {"queue", sizeof(Rec), ulNum, bOverride, nullptr, OnRead, &left};
        h = CQUE_Init(&stInit);
        for (u32 i = 1; i <= ulPushed; ++i)
            EXPECT_EQ(0u, Push(i)) << i;
    }
    ~Queue() { CQUE_Destroy(h); }
    u32 Push(u32 ulId)
    {
        Rec stRec = {ulId, {}};
        snprintf(stRec.acTag, sizeof(stRec.acTag), "%u", ulId);
        return CQUE_Push(h, &stRec);
    }
    CBUF_HANDLE h;
    std::vector<u32> left;  // ids the read callback saw leave
};

TEST(CQueue, FourSlotsTakeThreeUnlessOverwriting)
{
    Queue q(4, 0, 3), o(4, 1, 4);
    ibptest::LogCapture cap;
    EXPECT_EQ(1u, q.Push(4));
    auto recs = cap.Records();
    ASSERT_EQ(2u, recs.size()) << cap.Dump();
    EXPECT_EQ("[WRN]circ buf space not enough! request=1 space=0 maxNum=4", "[" + recs[0].level + "]" + recs[0].text);
    EXPECT_EQ("[ERR]CBUF_Write() fail", "[" + recs[1].level + "]" + recs[1].text);
    // Overwriting: the oldest made way through the read callback.
    EXPECT_EQ(std::vector<u32>{1}, o.left);
    Rec stOut = {};
    EXPECT_EQ(0u, CQUE_Pop(o.h, &stOut));
    EXPECT_EQ(2u, stOut.ulId);
}

TEST(CQueue, FailedPopsLeaveTheRecordAndAreLogged)
{
    Queue q(4, 0, 0);
    ibptest::LogCapture cap;
    Rec stOut = {77, {}};
    EXPECT_EQ(1u, CQUE_Pop(q.h, &stOut));
    EXPECT_EQ(77u, stOut.ulId);
    EXPECT_LOG(cap, "ERR", "BP", "CBUF_Read() fail");
    ASSERT_EQ(0u, q.Push(1));
    cap.Clear();
    EXPECT_EQ(1u, CQUE_Pop(q.h, nullptr));
    auto recs = cap.Records();
    ASSERT_EQ(2u, recs.size()) << cap.Dump();
    EXPECT_EQ("pMem is NULL", recs[0].text);
    EXPECT_EQ("CBUF_Read() fail", recs[1].text);
}

TEST(CQueue, FirstInFirstOutAcrossTheEnd)
{
    Queue q(8, 0, 0);
    u32 ulNextIn = 0;
    std::vector<u32> popped;
    // Keep five queued while the positions go round the eight slots twice.
    for (u32 ulNextOut = 0; ulNextOut < 20; ++ulNextOut) {
        while (ulNextIn - ulNextOut < 5)
            ASSERT_EQ(0u, q.Push(ulNextIn++));
        Rec stOut = {};
        ASSERT_EQ(0u, CQUE_Pop(q.h, &stOut));
        popped.push_back(stOut.ulId);
        EXPECT_EQ(std::to_string(ulNextOut), stOut.acTag);
    }
    std::vector<u32> expected;
    for (u32 i = 0; i < 20; ++i)
        expected.push_back(i);
    EXPECT_EQ(expected, popped);
    EXPECT_EQ(expected, q.left);  // one read callback per pop, in order
}

}  // namespace
