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

TEST(CQueue, FirstInFirstOutAcrossTheEndAndFailuresAreLogged)
{
    Queue q(4, 0, 0), o(4, 1, 4);
    ibptest::LogCapture cap;
    Rec stOut = {77, 0};
    EXPECT_EQ(1u, CQUE_Pop(q.h, &stOut));
    EXPECT_EQ(77u, stOut.ulId);  // left unwritten
    u32 ulNextIn = 0;  // three stay queued while the positions go round the four slots twice
    for (u32 ulNextOut = 0; ulNextOut < 10; ++ulNextOut) {
        while (ulNextIn - ulNextOut < 3)
            ASSERT_EQ(0u, q.Push(ulNextIn++));
        if (ulNextOut == 0) {
            EXPECT_EQ(1u, q.Push(99));  // four slots take three
        }
        ASSERT_EQ(0u, CQUE_Pop(q.h, &stOut));
        EXPECT_EQ(ulNextOut, stOut.ulId);
        EXPECT_EQ(~ulNextOut, stOut.ulCheck);
        ASSERT_EQ(ulNextOut + 1, q.left.size());  // one read callback per pop
        EXPECT_EQ(ulNextOut, q.left.back());
    }
    std::vector<std::string> texts;
    for (const auto &rec : cap.Records())
        texts.push_back("[" + rec.level + "]" + rec.text);
    EXPECT_EQ((std::vector<std::string>{"[ERR]CBUF_Read() fail", "[WRN]circ buf space not enough! request=1 space=0 maxNum=4",
                                        "[ERR]CBUF_Write() fail"}), texts);
    EXPECT_EQ(std::vector<u32>{1}, o.left);  // overwriting: the oldest made way through the read callback
    EXPECT_EQ(0u, CQUE_Pop(o.h, &stOut));
    EXPECT_EQ(2u, stOut.ulId);
}

}  // namespace
