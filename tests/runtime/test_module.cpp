// Registration, module threads and their end, queues, routing within the process.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "test_module_fixture.h"

namespace {

using modtest::FreeSlots;
using modtest::MakeMsg;
using modtest::Body;
using modtest::Signal;
using std::chrono::seconds;
using std::chrono::steady_clock;

const char kImgExit[] = "exit module thread: szModuleName=ISP_IMG ulProcID=0xbfffffff ulModuleID=0x90000001";

// Each null argument of the runtime's calls, tested in argument order.
TEST(ModuleArgs, NullArgumentsAreNamedInOrder)
{
    ibptest::LogCapture cap;
    MOD_MSG_CTRL_S stQueue{};
    MOD_MODULE_S stModule{};
    const std::pair<std::function<bool()>, const char *> cases[] = {
        {[] { return MOD_RegModule(nullptr, nullptr) == 1; }, "pcModuleName is NULL"},
        {[] { return MOD_RegModule("ISP_IMG", nullptr) == 1; }, "pulModuleID is NULL"},
        {[] { return MOD_AddModuleMsg(nullptr, nullptr) == 1; }, "pstMsgCtrl is NULL"},
        {[&] { return MOD_AddModuleMsg(&stQueue, nullptr) == 1; }, "pstModBuf is NULL"},
        {[] { return MOD_GetModuleMsg(nullptr, MOD_GET_BY_ORDER, 0) == nullptr; }, "pstMsgCtrl is NULL"},
        {[] { return MOD_SendMsgProc(nullptr, nullptr) == 1; }, "pstSrcModule is NULL"},
        {[&] { return MOD_SendMsgProc(&stModule, nullptr) == 1; }, "pstModBuf is NULL"},
        {[] { return MOD_RecvMsgProc(nullptr) == 1; }, "pstModule is NULL"},
        {[] { return MOD_AddMsgProc(nullptr, 1, nullptr, nullptr) == 1; }, "pstMsgProcCtrl is NULL"},
        {[&] { return MOD_AddMsgProc(&stModule.stMsgProcCtrl, 1, nullptr, nullptr) == 1; }, "pfnMsgProc is NULL"},
        {[] { return MOD_DelMsgProc(nullptr, 1) == 1; }, "pstMsgProcCtrl is NULL"},
        {[] { return MOD_GetMsgProc(nullptr, 1) == nullptr; }, "pstCtrl is NULL"},
        {[] { return MOD_RegMsgProc(MOD_ID_ISP_IMG, 1, nullptr, nullptr) == 1; }, "pfnMsgProc is NULL"},
    };
    for (const auto &[call, text] : cases) {
        SCOPED_TRACE(text);
        cap.Clear();
        EXPECT_TRUE(call());
        ASSERT_EQ(cap.Records().size(), 1u) << cap.Dump();
        EXPECT_LOG(cap, "ERR", "BP", text);
    }
}

using Registry = modtest::ServiceProcess;

TEST_F(Registry, RefusalsTakeNoSlot)
{
    u32 ulID = 0;
    const std::string s64(64, 'A');
    EXPECT_EQ(MOD_RegModule(std::string(65, 'A').c_str(), &ulID), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "module name len 65 beyonds limit");
    EXPECT_EQ(MOD_RegModule(s64.c_str(), &ulID), 1u);  // passes the length test, fails on the table
    EXPECT_LOG(cap_, "ERR", "BP", "module cfg not found by name " + s64);
    for (const char *pcName : {"DT_CLI", "DT"})  // "DT" shares the process module's identifier
        EXPECT_EQ(MOD_RegModule(pcName, &ulID), 1u) << pcName;
    EXPECT_EQ(cap_.Count("ERR", "BP", "proc id not match! current=0xbfffffff request=0xbffffffe"), 2u);
    EXPECT_EQ(ulID, 0u);
    EXPECT_EQ(MOD_GetModuleByID(MOD_PROC_MODULE_ID), nullptr);
    EXPECT_EQ(FreeSlots(), MOD_MAX_MODULE_NUM);
    EXPECT_EQ(MOD_UnregModule(MOD_ID_ISP_IMG), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "get module by id 0x90000001 fail");
    EXPECT_EQ(MOD_WakeupModule(MOD_ID_ISP_IMG), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "get module info by id 0x90000001 fail");
    cap_.Clear();
    EXPECT_EQ(MOD_WakeupModule(MOD_PROC_MODULE_ID), 0u);  // polls; nothing to wake, even unregistered
    EXPECT_TRUE(cap_.Records().empty()) << cap_.Dump();

    gastModuleCfgInfo[5].ulProcID = 0;  // an unowned "DT_CMD" row is claimed by this process
    MOD_MODULE_S *pstModule = Reg("DT_CMD");
    EXPECT_EQ(gastModuleCfgInfo[5].ulProcID, MOD_PROC_ID_ISP);
    gastModuleCfgInfo[5].ulProcID = MOD_PROC_ID_DT;
    ASSERT_NE(pstModule, nullptr);
    EXPECT_EQ(pstModule->ulProcID, MOD_PROC_ID_ISP);
}

TEST_F(Registry, PoolHoldsEightRefusesTheNinthAndReusesSlots)
{
    for (const char *pcName : {"ISP_CMD", "ISP", "ISP_IMG"})
        ASSERT_NE(Reg(pcName), nullptr) << pcName;
    EXPECT_LOG(cap_, "INF", "BP", "register module [ISP_IMG] success, module id 0x90000001");
    EXPECT_EQ(FreeSlots(), 5u);
    MOD_MODULE_S *pstNewest = nullptr;
    for (int i = 0; i < 5; ++i)
        ASSERT_NE(pstNewest = Reg("ISP_IMG"), nullptr) << i;
    EXPECT_EQ(MOD_GetModuleByID(MOD_ID_ISP_IMG), pstNewest);  // the newest is found first
    u32 ulID = 0;
    EXPECT_EQ(MOD_RegModule("ISP_IMG", &ulID), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "list is full, register module fail");
    EXPECT_EQ(FreeSlots(), 0u);

    pstNewest->ulRecvMsgCount = 41;
    EXPECT_EQ(MOD_UnregModule(MOD_ID_ISP_IMG), 0u);
    EXPECT_LOG(cap_, "INF", "BP", kImgExit);  // already left when the call returns
    EXPECT_EQ(FreeSlots(), 1u);
    EXPECT_EQ(Reg("ISP_IMG"), pstNewest);  // handed out next, its counters kept
    EXPECT_EQ(pstNewest->ulRecvMsgCount, 41u);
}

class ModuleThread : public modtest::ServiceProcess {
protected:
    void SetUp() override
    {
        ServiceProcess::SetUp();
        pstProc_ = Reg("ISP");
        pstImg_ = Reg("ISP_IMG");
        ASSERT_NE(pstImg_, nullptr);
    }
    // Runs body on ISP_IMG's thread, as the handler of one message.
    void Run(Body *pBody)
    {
        ASSERT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 0x10, modtest::RunBody, pBody), 0u);
        ASSERT_EQ(MOD_SendMsgProc(pstProc_, MakeMsg(0x10, MOD_ID_ISP_IMG)), 0u);
    }
    MOD_MODULE_S *pstProc_ = nullptr;
    MOD_MODULE_S *pstImg_ = nullptr;
    Signal entered_, release_;
    std::atomic<bool> finished_{false};
};

TEST_F(ModuleThread, UnregisterTakesAboutTheHandlersTimeNotFiveSeconds)
{
    Body body = [&](u32, MSG_HANDLE) { entered_.Post(), ISP_usleep(100 * 1000), finished_ = true; };
    Run(&body);
    ASSERT_TRUE(entered_.Wait());
    const auto start = steady_clock::now();
    EXPECT_EQ(MOD_UnregModule(MOD_ID_ISP_IMG), 0u);
    EXPECT_LT(steady_clock::now() - start, seconds(2));
    EXPECT_TRUE(finished_) << "returned while the handler still ran";
    EXPECT_EQ(MOD_UnregModule(MOD_PROC_MODULE_ID), 0u);  // the polling thread stops the same way
    EXPECT_EQ(FreeSlots(), 8u);
}

TEST_F(ModuleThread, HandlerUnregisteringItsOwnModuleDoesNotDeadlock)
{
    u32 ulResult = 99;
    steady_clock::duration took{};
    Body body = [&](u32, MSG_HANDLE) {
        const auto start = steady_clock::now();
        ulResult = MOD_UnregModule(MOD_ID_ISP_IMG);
        took = steady_clock::now() - start;
        entered_.Post();
    };
    Run(&body);
    ASSERT_TRUE(entered_.Wait());
    EXPECT_EQ(ulResult, 0u);
    EXPECT_LT(took, seconds(2));
    // The thread gives its slot back itself once the handler has returned.
    EXPECT_TRUE(modtest::Eventually([] { return FreeSlots() == 7u; }));
    EXPECT_EQ(MOD_GetModuleByID(MOD_ID_ISP_IMG), nullptr);
    EXPECT_LOG(cap_, "INF", "BP", kImgExit);
}

TEST_F(ModuleThread, ThreadStillBusyAfterTheLimitGivesItsSlotBackItself)
{
    Body body = [&](u32, MSG_HANDLE) { entered_.Post(), release_.Wait(); };
    Run(&body);
    ASSERT_TRUE(entered_.Wait());
    EXPECT_EQ(MOD_UnregModule(MOD_ID_ISP_IMG), 0u);
    EXPECT_LOG(cap_, "WRN", "BP",
               "module 0x90000001 thread still busy after 5000 ms, its slot is given back when it ends");
    EXPECT_EQ(FreeSlots(), 6u);  // not handed out under the running thread
    EXPECT_EQ(MOD_UnregModule(MOD_ID_ISP_IMG), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "module 0x90000001 is already being unregistered");
    release_.Post();
    EXPECT_TRUE(modtest::Eventually([] { return FreeSlots() == 7u; }));
}

TEST_F(ModuleThread, CurrentModuleIsToldByTheThread)
{
    ASSERT_NE(Reg("ISP_CMD"), nullptr);  // newer than the process module, found first in walks
    EXPECT_EQ(MOD_GetCurWorkModule(), pstProc_);
    MOD_MODULE_S *pstSeen = nullptr;
    std::thread([&] { pstSeen = MOD_GetCurWorkModule(); }).join();
    EXPECT_EQ(pstSeen, pstProc_);

    std::string name;
    Body whoAmI = [&](u32, MSG_HANDLE) {
        pstSeen = MOD_GetCurWorkModule(), name = MOD_GetCurWrokModuleName(), entered_.Post();
    };
    Run(&whoAmI);
    ASSERT_TRUE(entered_.Wait());
    EXPECT_EQ(pstSeen, pstImg_);
    EXPECT_EQ(name, "ISP_IMG");
    ASSERT_EQ(MOD_RegMsgProc(MOD_PROC_MODULE_ID, 0x21, modtest::RunBody, &whoAmI), 0u);
    ASSERT_EQ(MOD_SendMsgProc(pstImg_, MakeMsg(0x21, MOD_PROC_MODULE_ID)), 0u);
    ASSERT_TRUE(entered_.Wait());
    EXPECT_EQ(pstSeen, pstProc_);

    // Without a process module other threads are nobody.
    ASSERT_EQ(MOD_UnregModule(MOD_PROC_MODULE_ID), 0u);
    EXPECT_EQ(MOD_GetCurWorkModule(), nullptr);
    EXPECT_STREQ(MOD_GetCurWrokModuleName(), "ISP");
    gstCurProc.ulProcID = 0;
    EXPECT_STREQ(MOD_GetCurWrokModuleName(), "invalid");
    gstCurProc.ulProcID = MOD_PROC_ID_ISP;
}

TEST(ModuleQueue, OrderAssociationAndModes)
{
    ibptest::LogCapture cap;
    MOD_MSG_CTRL_S stQueue{};
    MOD_InitListCtrl(&stQueue, 50);
    EXPECT_EQ(MOD_GetModuleMsg(&stQueue, static_cast<MOD_GET_TYPE_E>(2), 0), nullptr);
    EXPECT_TRUE(cap.Records().empty()) << "an empty queue answers before the mode is read";
    const u32 aulAss[] = {7, 8, 7};
    for (u32 i = 0; i < 3; ++i)
        ASSERT_EQ(MOD_AddModuleMsg(&stQueue, MakeMsg(1, MOD_ID_ISP_IMG, i, MSG_TYPE_SYNC_ACK, aulAss[i])), 0u);
    EXPECT_EQ(MOD_GetModuleMsg(&stQueue, static_cast<MOD_GET_TYPE_E>(2), 0), nullptr);
    EXPECT_LOG(cap, "ERR", "BP", "getby type 2 invalid");
    EXPECT_EQ(MOD_GetModuleMsg(&stQueue, MOD_GET_BY_ASSID, 5), nullptr);

    std::vector<u32> seqs;  // nothing was taken above: all three are still there
    for (auto [enType, ulAss] : {std::pair{MOD_GET_BY_ASSID, 7u}, {MOD_GET_BY_ORDER, 0u}, {MOD_GET_BY_ORDER, 0u}}) {
        MOD_BUF_S *p = MOD_GetModuleMsg(&stQueue, enType, ulAss);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(p->stNode.pstNext, nullptr);
        seqs.push_back(modtest::BodyWord(p));
        MSG_Destroy(p);
    }
    EXPECT_EQ(seqs, (std::vector<u32>{0, 1, 2}));  // the older of the two 7s first
    EXPECT_EQ(MOD_GetModuleMsg(&stQueue, MOD_GET_BY_ORDER, 0), nullptr);
}

using Routing = modtest::ServiceProcess;

TEST_F(Routing, RefusalsLeaveTheMessageWithTheCaller)
{
    MOD_MODULE_S *pstProc = Reg("ISP");
    ASSERT_NE(pstProc, nullptr);
    MSG_HANDLE hMsg = MakeMsg(1, MOD_ID_ISP_IMG);
    auto *pstHdr = static_cast<MSG_HDR_S *>(hMsg->pMem);
    EXPECT_EQ(MOD_SendMsgProc(pstProc, hMsg), 1u);  // configured, not registered
    EXPECT_LOG(cap_, "ERR", "BP", "get module by id 0x90000001 fail");
    pstHdr->ulDstModuleID = 0x90000009;
    EXPECT_EQ(MOD_SendMsgProc(pstProc, hMsg), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "get dest module cfg failed! ulModuleID=2415919113");
    pstHdr->ulDstModuleID = MOD_PROC_MODULE_ID;  // process module to process module, here or across
    for (u32 ulDstProc : {MOD_PROC_ID_ISP, MOD_PROC_ID_DT})
        EXPECT_EQ((pstHdr->ulDstProcID = ulDstProc, MOD_SendMsgProc(pstProc, hMsg)), 1u);
    EXPECT_EQ(cap_.Count("ERR", "BP", "src module and dest module id are invalid"), 2u);
    EXPECT_EQ(pstProc->ulSendMsgCount, 0u);
    MSG_Destroy(hMsg);
}

TEST_F(Routing, AckGoesToTheAckQueueAndReachesNoHandler)
{
    MOD_MODULE_S *pstProc = Reg("ISP");
    MOD_MODULE_S *pstImg = Reg("ISP_IMG");
    ASSERT_NE(pstImg, nullptr);
    Signal each;
    Body post = [&](u32, MSG_HANDLE) { each.Post(); };
    ASSERT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 0, modtest::RunBody, &post), 0u);
    MSG_HANDLE hAck = MakeMsg(0x50, MOD_ID_ISP_IMG, 0, MSG_TYPE_SYNC_ACK, 77);
    ASSERT_EQ(MOD_SendMsgProc(pstProc, hAck), 0u);
    // An ordinary message behind it shows that the thread has been through its queue.
    ASSERT_EQ(MOD_SendMsgProc(pstProc, MakeMsg(0x51, MOD_ID_ISP_IMG)), 0u);
    ASSERT_TRUE(each.Wait());
    EXPECT_EQ(MOD_GetModuleMsg(&pstImg->stAckMsgCtrl, MOD_GET_BY_ASSID, 77), hAck);
    MSG_Destroy(hAck);
    EXPECT_EQ(pstImg->ulRecvMsgCount, 1u);
    EXPECT_EQ(pstImg->ulLastRecvMsg, 0x51u);
    EXPECT_EQ(pstProc->ulSendMsgCount, 2u);
}

TEST_F(Routing, OtherProcessNeedsTheTransportQueueAndConcurrentSendersLoseNoCount)
{
    MOD_MODULE_S *pstImg = Reg("ISP_IMG");
    ASSERT_NE(pstImg, nullptr);
    MSG_HANDLE hMsg = MakeMsg(0x42, MOD_ID_DT_CLI, 0, MSG_TYPE_ASYNC_REQ, 0, MOD_PROC_ID_DT);
    EXPECT_EQ(MOD_SendMsgProc(pstImg, hMsg), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "no transport to proc 0xbffffffe, msg 0x42 not sent");
    MSG_Destroy(hMsg);
    MOD_MSG_CTRL_S stOut{};
    MOD_InitListCtrl(&stOut, 50);
    MOD_SetRemoteSendQueue(&stOut);
    constexpr u32 kThreads = 4, kEach = 300;
    std::vector<u32> ids[kThreads];
    std::vector<std::thread> threads;
    for (u32 t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (u32 i = 0; i < kEach; ++i) {
                ids[t].push_back(MOD_DrawAssMsgID(pstImg));
                MOD_SendMsgProc(pstImg, MakeMsg(0x42 + t, MOD_ID_DT_CLI, i, MSG_TYPE_ASYNC_REQ, 0, MOD_PROC_ID_DT));
            }
        });
    std::vector<u32> all;
    for (u32 t = 0; t < kThreads; ++t) {
        threads[t].join();
        all.insert(all.end(), ids[t].begin(), ids[t].end());
    }
    EXPECT_EQ(pstImg->ulSendMsgCount, kThreads * kEach);
    std::sort(all.begin(), all.end());
    EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end()) << "an association id was drawn twice";
    u32 ulQueued = 0;
    for (MOD_BUF_S *p; (p = MOD_GetModuleMsg(&stOut, MOD_GET_BY_ORDER, 0)) != nullptr; ++ulQueued)
        MSG_Destroy(p);
    EXPECT_EQ(ulQueued, kThreads * kEach);
}

}  // namespace
