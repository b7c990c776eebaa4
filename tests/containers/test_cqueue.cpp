// Circular queue: one record at a time on a circular buffer.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "harness/log_capture.h"
#include "ibp/isp_circbuf.h"

namespace {

struct Rec {
    u32 ulId;
    char acTag[12];
};

Rec MakeRec(u32 ulId)
{
    Rec stRec = {ulId, {}};
    snprintf(stRec.acTag, sizeof(stRec.acTag), "rec-%u", ulId);
    return stRec;
}

void OnRead(void *pElem, void *pUser)
{
    static_cast<std::vector<u32> *>(pUser)->push_back(static_cast<Rec *>(pElem)->ulId);
}

class Queue {
public:
    explicit Queue(u32 ulNum, u32 bOverride = 0)
    {
        CBUF_INIT_S stInit = {"queue", sizeof(Rec), ulNum, bOverride, nullptr, OnRead, &dropped};
        h = CQUE_Init(&stInit);
    }
    ~Queue()
    {
        if (h != nullptr)
            CQUE_Destroy(h);
    }
    Queue(const Queue &) = delete;
    Queue &operator=(const Queue &) = delete;

    CBUF_HANDLE h = nullptr;
    std::vector<u32> dropped;  // ids the read callback saw
};

TEST(CQueue, FourSlotsTakeThreePushes)
{
    Queue q(4);
    ASSERT_NE(nullptr, q.h);
    for (u32 i = 1; i <= 3; ++i) {
        Rec stRec = MakeRec(i);
        EXPECT_EQ(0u, CQUE_Push(q.h, &stRec));
    }
    ibptest::LogCapture cap;
    Rec stRec = MakeRec(4);
    EXPECT_EQ(1u, CQUE_Push(q.h, &stRec));
    auto recs = cap.Records();
    ASSERT_EQ(2u, recs.size()) << cap.Dump();
    EXPECT_EQ("circ buf space not enough! request=1 space=0 maxNum=4", recs[0].text);
    EXPECT_EQ("WRN", recs[0].level);
    EXPECT_EQ("CBUF_Write() fail", recs[1].text);
    EXPECT_EQ("ERR", recs[1].level);
}

TEST(CQueue, OverwriteDropsTheOldestThroughTheReadCallback)
{
    Queue q(4, 1);
    for (u32 i = 1; i <= 4; ++i) {
        Rec stRec = MakeRec(i);
        EXPECT_EQ(0u, CQUE_Push(q.h, &stRec));
    }
    EXPECT_EQ(std::vector<u32>{1}, q.dropped);
    Rec stOut = {};
    EXPECT_EQ(0u, CQUE_Pop(q.h, &stOut));
    EXPECT_EQ(2u, stOut.ulId);
    EXPECT_STREQ("rec-2", stOut.acTag);
}

TEST(CQueue, PopOfEmptyQueueFailsAndLeavesTheRecordAlone)
{
    Queue q(4);
    ibptest::LogCapture cap;
    Rec stOut = MakeRec(77);
    EXPECT_EQ(1u, CQUE_Pop(q.h, &stOut));
    EXPECT_EQ(77u, stOut.ulId);
    EXPECT_EQ(1u, cap.Records().size());
    EXPECT_LOG(cap, "ERR", "BP", "CBUF_Read() fail");
}

TEST(CQueue, AbsentRecordIsReportedTwice)
{
    Queue q(4);
    Rec stRec = MakeRec(1);
    ASSERT_EQ(0u, CQUE_Push(q.h, &stRec));
    ibptest::LogCapture cap;
    EXPECT_EQ(1u, CQUE_Pop(q.h, nullptr));
    auto recs = cap.Records();
    ASSERT_EQ(2u, recs.size());
    EXPECT_EQ("pMem is NULL", recs[0].text);
    EXPECT_EQ("CBUF_Read() fail", recs[1].text);
    cap.Clear();
    EXPECT_EQ(1u, CQUE_Push(q.h, nullptr));
    EXPECT_LOG(cap, "ERR", "BP", "CBUF_Write() fail");
    EXPECT_EQ(1u, CQUE_Push(nullptr, &stRec));
    EXPECT_LOG(cap, "ERR", "BP", "hCBuf is invalid");
}

TEST(CQueue, FirstInFirstOutAcrossTheEnd)
{
    Queue q(8);
    u32 ulNextIn = 0, ulNextOut = 0;
    // Keep five queued while the positions go round the eight slots twice.
    for (int lRound = 0; lRound < 20; ++lRound) {
        while (ulNextIn - ulNextOut < 5) {
            Rec stRec = MakeRec(ulNextIn++);
            ASSERT_EQ(0u, CQUE_Push(q.h, &stRec));
        }
        Rec stOut = {};
        ASSERT_EQ(0u, CQUE_Pop(q.h, &stOut));
        EXPECT_EQ(ulNextOut, stOut.ulId);
        EXPECT_EQ(MakeRec(ulNextOut).acTag, std::string(stOut.acTag));
        ++ulNextOut;
    }
    // One read callback per pop, in the same order.
    std::vector<u32> popped;
    for (u32 i = 0; i < 20; ++i)
        popped.push_back(i);
    EXPECT_EQ(popped, q.dropped);
}

void SumIds(void *pElem, void *pUser, u32 *pbConsume)
{
    *static_cast<u32 *>(pUser) += static_cast<Rec *>(pElem)->ulId;
    *pbConsume = (static_cast<Rec *>(pElem)->ulId < 3) ? 1 : 0;
}

TEST(CQueue, IterateAndResetGoToTheBuffer)
{
    Queue q(8);
    for (u32 i = 1; i <= 4; ++i) {
        Rec stRec = MakeRec(i);
        ASSERT_EQ(0u, CQUE_Push(q.h, &stRec));
    }
    u32 ulSum = 0;
    EXPECT_EQ(0u, CQUE_Iterate(q.h, SumIds, &ulSum));
    EXPECT_EQ(10u, ulSum);
    EXPECT_EQ((std::vector<u32>{1, 2}), q.dropped);
    CQUE_Reset(q.h);
    EXPECT_EQ((std::vector<u32>{1, 2, 3, 4}), q.dropped);
    EXPECT_EQ(1u, CBUF_IsEmpty(q.h));
}

TEST(CQueue, ShowsInTheBufferDisplay)
{
    Queue q(4);
    char acOut[1024] = {};
    u32 ulLen = sizeof(acOut);
    ASSERT_EQ(0u, CBUF_PrintCircBuf(&ulLen, acOut));
    EXPECT_NE(nullptr, strstr(acOut, "\nqueue      4          No         0          0          0          3          \n"))
        << acOut;
}

}  // namespace
