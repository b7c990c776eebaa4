// Handler tables, and the hand-over of queued messages to handlers.
#include <atomic>
#include <mutex>

#include "test_module_fixture.h"

namespace {

using modtest::MakeMsg;
using modtest::Signal;

using Calls = std::vector<std::pair<char, u32>>;  // handler tag, message id

struct Seen {
    std::mutex mu;
    Calls calls;
    Signal each;
};

template <char Tag>
u32 Tagged(u32 ulMsgID, MSG_HANDLE, void *pParam)
{
    auto *pstSeen = static_cast<Seen *>(pParam);
    {
        std::lock_guard<std::mutex> lock(pstSeen->mu);
        pstSeen->calls.emplace_back(Tag, ulMsgID);
    }
    pstSeen->each.Post();
    return 0;
}

// A module slot that no thread serves: MOD_RecvMsgProc is called directly.
class LocalTable : public ::testing::Test {
protected:
    void SetUp() override
    {
        memset(static_cast<void *>(&module_), 0, sizeof(module_));
        MOD_InitMsgProcTable(&module_);
        MOD_InitListCtrl(&module_.stMsgCtrl, 50);
    }
    MOD_MSG_PROC_CTRL_S *Table() { return &module_.stMsgProcCtrl; }
    u32 Add(u32 ulMsgID, MOD_MSG_PROC_PFN pfn) { return MOD_AddMsgProc(Table(), ulMsgID, pfn, &seen_); }
    char Winner(u32 ulMsgID)
    {
        const MOD_MSG_PROC_S *p = MOD_GetMsgProc(Table(), ulMsgID);
        return p == nullptr ? '-' : p->pfnMsgProc == Tagged<'A'> ? 'A' : p->pfnMsgProc == Tagged<'B'> ? 'B' : 'C';
    }
    std::vector<u32> UsedIDs()
    {
        std::vector<u32> ids;
        for (MOD_LIST_S *p = Table()->stUsedList.pstNext; p != &Table()->stUsedList; p = p->pstNext)
            ids.push_back(MOD_ListEntry(p, &MOD_MSG_PROC_S::stNode)->ulMsgID);
        return ids;
    }
    MOD_MODULE_S module_;
    Seen seen_;
    ibptest::LogCapture cap_;
};

TEST_F(LocalTable, CatchAllHidesOlderAndYieldsToNewerSpecificHandlers)
{
    ASSERT_EQ(Add(5, Tagged<'A'>), 0u);
    EXPECT_EQ(Winner(0), '-');  // id 0 is served by a catch-all only
    ASSERT_EQ(Add(0, Tagged<'C'>), 0u);
    ASSERT_EQ(Add(6, Tagged<'B'>), 0u);
    EXPECT_EQ(std::string() + Winner(5) + Winner(6) + Winner(7) + Winner(0), "CBCC");
    EXPECT_EQ(MOD_DelMsgProc(Table(), 0), 0u);
    EXPECT_EQ(std::string() + Winner(5) + Winner(6) + Winner(7), "AB-");
    EXPECT_TRUE(cap_.Records().empty()) << cap_.Dump();
}

TEST_F(LocalTable, ChangesKeepTheirPlaceAndAFullTableRefusesThem)
{
    for (u32 id = 1; id <= 31; ++id)
        ASSERT_EQ(Add(id, Tagged<'A'>), 0u) << id;
    int iOther = 0;
    EXPECT_EQ(MOD_AddMsgProc(Table(), 7, Tagged<'B'>, &iOther), 0u);
    EXPECT_LOG(cap_, "WRN", "BP", "proc info of msg 0x7 has been changed!");
    EXPECT_EQ(UsedIDs()[31 - 7], 7u);  // still where it was, newest first
    EXPECT_EQ(MOD_GetMsgProc(Table(), 7)->pParam, &iOther);

    EXPECT_EQ(Add(32, Tagged<'A'>), 0u);  // the 32nd fits
    cap_.Clear();
    EXPECT_EQ(Add(33, Tagged<'A'>), 1u);
    EXPECT_EQ(Add(7, Tagged<'C'>), 1u);  // a full table refuses even a change
    EXPECT_EQ(cap_.Count("ERR", "BP", "get free msg proc struct fail!"), 2u);
    EXPECT_EQ(Winner(7), 'B');

    cap_.Clear();
    EXPECT_EQ(MOD_DelMsgProc(Table(), 40), 1u);  // absent: no record
    EXPECT_TRUE(cap_.Records().empty()) << cap_.Dump();
    EXPECT_EQ(MOD_DelMsgProc(Table(), 20), 0u);
    EXPECT_EQ(MOD_GetMsgProc(Table(), 20), nullptr);
    EXPECT_EQ(Add(33, Tagged<'C'>), 0u);
    EXPECT_EQ(UsedIDs().size(), MOD_MAX_MSG_PROC_NUM);
}

TEST_F(LocalTable, NullArguments)
{
    EXPECT_EQ(MOD_AddMsgProc(nullptr, 1, nullptr, nullptr), 1u);
    EXPECT_EQ(MOD_DelMsgProc(nullptr, 1), 1u);
    EXPECT_EQ(cap_.Count("ERR", "BP", "pstMsgProcCtrl is NULL"), 2u);
    EXPECT_EQ(Add(1, nullptr), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "pfnMsgProc is NULL");
    EXPECT_EQ(MOD_GetMsgProc(nullptr, 1), nullptr);
    EXPECT_LOG(cap_, "ERR", "BP", "pstCtrl is NULL");
    EXPECT_EQ(MOD_RecvMsgProc(nullptr), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "pstModule is NULL");
    EXPECT_TRUE(UsedIDs().empty());
}

TEST_F(LocalTable, DrainHandsEachMessageToItsHandlerInOrder)
{
    ASSERT_EQ(Add(5, Tagged<'A'>), 0u);
    ASSERT_EQ(Add(6, Tagged<'B'>), 0u);
    for (u32 id : {5u, 7u, 6u, 5u})
        ASSERT_EQ(MOD_AddModuleMsg(&module_.stMsgCtrl, MakeMsg(id, MOD_ID_ISP_IMG, 0, MSG_TYPE_ASYNC_REQ, 3)), 0u);
    EXPECT_EQ(MOD_RecvMsgProc(&module_), 0u);
    EXPECT_EQ(seen_.calls, (Calls{{'A', 5}, {'B', 6}, {'A', 5}}));
    EXPECT_TRUE(MOD_ListEmpty(&module_.stMsgCtrl.stUsedList));
    EXPECT_EQ(module_.ulRecvMsgCount, 4u);  // the one without a handler counts as well
    EXPECT_EQ(module_.ulLastRecvMsg, 5u);

    const std::string tail = " type=2 len=[52 4] src=[0xbfffffff 0x9fffffff] dst=[0xbfffffff 0x90000001]";
    EXPECT_LOG(cap_, "WRN", "BP", "msg proc func not found: prefix=[0x35 0x23 0x12 0xdf] id=[0x7 0x3]" + tail);
    EXPECT_EQ(cap_.CountPrefix("msg proc func not found"), 1u);
    EXPECT_LOG(cap_, "DBG", "BP", "proc msg: prefix=[0x35 0x23 0x12 0xdf] id=[0x6 0x3]" + tail);
    EXPECT_EQ(cap_.Count("DBG", "BP", "proc msg: id=0x5 assId=0x3 DONE!!!"), 2u);

    // A buffer without a block is reported and freed, and ends the drain.
    MOD_BUF_S *pstBad = MOD_GetBuf(64);
    ISP_free(&pstBad->pMem);
    ASSERT_EQ(MOD_AddModuleMsg(&module_.stMsgCtrl, pstBad), 0u);
    ASSERT_EQ(MOD_AddModuleMsg(&module_.stMsgCtrl, MakeMsg(6, MOD_ID_ISP_IMG)), 0u);
    EXPECT_EQ(MOD_RecvMsgProc(&module_), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "buf memory addr invalid");
    EXPECT_EQ(seen_.calls.size(), 3u);
    EXPECT_EQ(MOD_RecvMsgProc(&module_), 0u);
    EXPECT_EQ(seen_.calls.size(), 4u);
    EXPECT_EQ(module_.ulRecvMsgCount, 5u);
}

// ---------------------------------------------------------------- through registered modules

class Handlers : public modtest::ServiceProcess {};

TEST_F(Handlers, ThirtySecondFitsThirtyThirdFailsWithBothRecords)
{
    Seen seen;
    EXPECT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 1, Tagged<'A'>, &seen), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "get module by id 0x90000001 fail");
    EXPECT_EQ(MOD_UnregMsgProc(MOD_ID_ISP_IMG, 1), 1u);
    EXPECT_EQ(cap_.Count("ERR", "BP", "get module by id 0x90000001 fail"), 2u);
    EXPECT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 1, nullptr, &seen), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "pfnMsgProc is NULL");

    ASSERT_NE(Reg("ISP_IMG"), nullptr);
    for (u32 id = 1; id <= MOD_MAX_MSG_PROC_NUM; ++id)
        ASSERT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, id, Tagged<'A'>, &seen), 0u) << id;
    cap_.Clear();
    EXPECT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 33, Tagged<'A'>, &seen), 1u);
    char szExpect[160];
    snprintf(szExpect, sizeof(szExpect), "add message proc fail! ulMsgID=0x21 pfnMsgProc=%p pParam=%p",
             reinterpret_cast<void *>(Tagged<'A'>), static_cast<void *>(&seen));
    ASSERT_EQ(cap_.Records().size(), 2u) << cap_.Dump();
    EXPECT_EQ(cap_.Records()[0].text, "get free msg proc struct fail!");
    EXPECT_EQ(cap_.Records()[1].text, szExpect);
    EXPECT_EQ(MOD_UnregMsgProc(MOD_ID_ISP_IMG, 32), 0u);
    EXPECT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 33, Tagged<'A'>, nullptr), 0u);
}

// Holds the first message until the test opens the gate, so that the rest
// pile up in the queue, and notes how many handlers run at once.
struct Serial {
    Signal gate, each;
    std::atomic<int> inside{0}, maxInside{0};
    std::vector<u32> order;
    static u32 Proc(u32, MSG_HANDLE hMsg, void *pParam)
    {
        auto *self = static_cast<Serial *>(pParam);
        const int now = ++self->inside;
        if (now > self->maxInside)
            self->maxInside = now;
        const u32 ulSeq = modtest::BodyWord(hMsg);
        if (ulSeq == 0)
            self->gate.Wait();
        self->order.push_back(ulSeq);
        --self->inside;
        self->each.Post();
        return 0;
    }
};

TEST_F(Handlers, RunOneAtATimeInArrivalOrder)
{
    MOD_MODULE_S *pstProc = Reg("ISP");
    ASSERT_NE(Reg("ISP_IMG"), nullptr);
    Serial serial;
    Seen seen;
    // Three identifiers, served by a catch-all registered before two specific handlers.
    ASSERT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 0, Serial::Proc, &serial), 0u);
    ASSERT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 0x71, Tagged<'B'>, &seen), 0u);
    constexpr u32 kMsgs = 40;
    std::vector<u32> expected;
    for (u32 i = 0; i < kMsgs; ++i) {
        ASSERT_EQ(MOD_SendMsgProc(pstProc, MakeMsg(0x70 + (i % 3), MOD_ID_ISP_IMG, i)), 0u);
        if (i % 3 != 1)
            expected.push_back(i);
    }
    serial.gate.Post();
    for (size_t i = 0; i < expected.size(); ++i)
        ASSERT_TRUE(serial.each.Wait()) << i;
    for (u32 i = 0; i < kMsgs - expected.size(); ++i)
        ASSERT_TRUE(seen.each.Wait()) << i;
    EXPECT_EQ(serial.order, expected);
    EXPECT_EQ(serial.maxInside.load(), 1);
    EXPECT_EQ(seen.calls.size(), kMsgs - expected.size());
}

}  // namespace
