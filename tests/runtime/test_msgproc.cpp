// Handler tables, and the hand-over of queued messages to handlers.
#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "test_module_fixture.h"

namespace {

using namespace modtest;

char gA = 'A', gB = 'B', gC = 'C';  // handler tags, handed over as pParam
std::mutex gMu;
std::vector<std::pair<char, u32>> gCalls;  // tag, message id

u32 Note(u32 ulMsgID, MSG_HANDLE, void *pParam)
{
    std::lock_guard<std::mutex> lock(gMu);
    gCalls.emplace_back(*static_cast<char *>(pParam), ulMsgID);
    return 0;
}

// The tag of the handler that each identifier finds, '-' for none.
std::string Winners(MOD_MODULE_S *pstModule, std::initializer_list<u32> ids)
{
    std::string s;
    for (u32 id : ids) {
        const MOD_MSG_PROC_S *p = MOD_GetMsgProc(&pstModule->stMsgProcCtrl, id);
        s += p == nullptr ? '-' : *static_cast<char *>(p->pParam);
    }
    return s;
}

class Handlers : public ServiceProcess {
    void SetUp() override { ServiceProcess::SetUp(), gCalls.clear(); }
};

TEST_F(Handlers, CatchAllHidesOlderAndYieldsToNewerSpecificHandlers)
{
    MOD_MODULE_S *pstImg = Reg("ISP_IMG");
    ASSERT_NE(pstImg, nullptr);
    ASSERT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 5, Note, &gA), 0u);
    EXPECT_EQ(Winners(pstImg, {0}), "-");  // id 0 is served by a catch-all only
    ASSERT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 0, Note, &gC), 0u);
    ASSERT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 6, Note, &gB), 0u);
    EXPECT_EQ(Winners(pstImg, {5, 6, 7, 0}), "CBCC");
    EXPECT_EQ(MOD_UnregMsgProc(MOD_ID_ISP_IMG, 0), 0u);
    EXPECT_EQ(Winners(pstImg, {5, 6, 7}), "AB-");
}

TEST_F(Handlers, ThirtySecondFitsThirtyThirdFailsWithBothRecords)
{
    MOD_MODULE_S *pstImg = Reg("ISP_IMG");
    ASSERT_NE(pstImg, nullptr);
    for (u32 id = 1; id <= 31; ++id)
        ASSERT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, id, Note, &gA), 0u) << id;
    EXPECT_EQ(cap_.CountPrefix("proc info of msg"), 0u);  // new identifiers, not changes
    EXPECT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 7, Note, &gB), 0u);  // a change takes no entry
    EXPECT_LOG(cap_, "WRN", "BP", "proc info of msg 0x7 has been changed!");
    EXPECT_EQ(Winners(pstImg, {7}), "B");
    ASSERT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 32, Note, &gA), 0u);
    cap_.Clear();
    EXPECT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 33, Note, &gA), 1u);
    char szExpect[160];
    snprintf(szExpect, sizeof(szExpect), "add message proc fail! ulMsgID=0x21 pfnMsgProc=%p pParam=%p",
             reinterpret_cast<void *>(Note), static_cast<void *>(&gA));
    ASSERT_EQ(cap_.Records().size(), 2u) << cap_.Dump();
    EXPECT_EQ(cap_.Records()[0].text, "get free msg proc struct fail!");
    EXPECT_EQ(cap_.Records()[1].text, szExpect);
    EXPECT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 7, Note, &gC), 1u);  // a full table refuses even a change
    EXPECT_EQ(Winners(pstImg, {7}), "B");
    EXPECT_EQ(MOD_UnregMsgProc(MOD_ID_ISP_IMG, 20), 0u);  // gives its entry back
    EXPECT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 33, Note, &gC), 0u);
}

TEST_F(Handlers, DrainHandsEachMessageToItsHandlerInOrder)
{
    MOD_MODULE_S stModule{};  // served by no thread: the test drains it
    MOD_InitMsgProcTable(&stModule);
    MOD_InitListCtrl(&stModule.stMsgCtrl, 50);
    ASSERT_EQ(MOD_AddMsgProc(&stModule.stMsgProcCtrl, 5, Note, &gA), 0u);
    ASSERT_EQ(MOD_AddMsgProc(&stModule.stMsgProcCtrl, 6, Note, &gB), 0u);
    MOD_BUF_S *pstBad = MOD_GetBuf(64);  // a buffer without a block ends the drain
    ISP_free(&pstBad->pMem);
    for (u32 id : {5u, 7u, 6u, 5u, 0u, 6u})
        ASSERT_EQ(MOD_AddModuleMsg(&stModule.stMsgCtrl, id ? MakeMsg(id, 0, 0, MSG_TYPE_ASYNC_REQ, 3) : pstBad), 0u);
    EXPECT_EQ(MOD_RecvMsgProc(&stModule), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "buf memory addr invalid");
    EXPECT_EQ(gCalls, (decltype(gCalls){{'A', 5}, {'B', 6}, {'A', 5}}));
    EXPECT_EQ(stModule.ulRecvMsgCount, 4u);  // the one without a handler counts as well
    EXPECT_EQ(stModule.ulLastRecvMsg, 5u);
    const std::string tail = " type=2 len=[52 4] src=[0xbfffffff 0x9fffffff] dst=[0xbfffffff 0]";
    EXPECT_LOG(cap_, "WRN", "BP", "msg proc func not found: prefix=[0x35 0x23 0x12 0xdf] id=[0x7 0x3]" + tail);
    EXPECT_LOG(cap_, "DBG", "BP", "proc msg: prefix=[0x35 0x23 0x12 0xdf] id=[0x6 0x3]" + tail);
    EXPECT_EQ(cap_.Count("DBG", "BP", "proc msg: id=0x5 assId=0x3 DONE!!!"), 2u);
    EXPECT_EQ(MOD_RecvMsgProc(&stModule), 0u);
    EXPECT_EQ(gCalls.size(), 4u);
    EXPECT_TRUE(MOD_ListEmpty(&stModule.stMsgCtrl.stUsedList));
}

TEST_F(Handlers, RunOneAtATimeInArrivalOrder)
{
    MOD_MODULE_S *pstProc = Reg("ISP");
    ASSERT_NE(Reg("ISP_IMG"), nullptr);
    // The first message holds the thread until the rest pile up in the queue.
    Signal gate, each;
    std::atomic<int> inside{0}, maxInside{0};
    std::vector<u32> order;
    Body serial = [&](MSG_HANDLE hMsg) {
        maxInside = std::max(maxInside.load(), ++inside);
        if (BodyWord(hMsg) == 0)
            gate.Wait();
        order.push_back(BodyWord(hMsg));
        --inside, each.Post();
    };
    // Three identifiers, served by a catch-all registered before a specific handler.
    ASSERT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 0, RunBody, &serial), 0u);
    ASSERT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 0x71, Note, &gB), 0u);
    std::vector<u32> expected;
    for (u32 i = 0; i < 40; ++i) {
        ASSERT_EQ(MOD_SendMsgProc(pstProc, MakeMsg(0x70 + (i % 3), MOD_ID_ISP_IMG, i)), 0u);
        if (i % 3 != 1)
            expected.push_back(i);
    }
    gate.Post();
    for (size_t i = 0; i < expected.size(); ++i)
        ASSERT_TRUE(each.Wait()) << i;
    EXPECT_EQ(order, expected);
    EXPECT_EQ(maxInside.load(), 1);
    EXPECT_EQ(gCalls.size(), 40 - expected.size());  // in between, before the last one
}

}  // namespace
