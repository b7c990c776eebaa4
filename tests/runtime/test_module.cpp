// Registration, module threads and their end, queues, routing within the process.
#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "test_module_fixture.h"

namespace {

using namespace modtest;
using namespace std::chrono;

const char kImgExit[] = "exit module thread: szModuleName=ISP_IMG ulProcID=0xbfffffff ulModuleID=0x90000001";
const char kNotMine[] = "proc id not match! current=0xbfffffff request=0xbffffffe";

// Each refusal ends with its record; null pointers are named in argument order.
TEST_F(ServiceProcess, RefusalsAreRecordedAndTakeNoSlot)
{
    EXPECT_EQ(MOD_WakeupModule(MOD_PROC_MODULE_ID), 0u);  // it polls: nothing to wake, even unregistered
    EXPECT_TRUE(cap_.Records().empty()) << cap_.Dump();
    MOD_MODULE_S *pstProc = Reg("ISP");
    ASSERT_NE(pstProc, nullptr);
    MOD_MSG_CTRL_S stQueue{};
    MOD_MODULE_S stModule{};
    u32 ulID = 0;
    const std::string s64(64, 'A'), s65(65, 'A');
    MSG_HANDLE hMsg = MakeMsg(1, 0);
    auto send = [&](u32 ulDst, u32 ulDstProc) {
        static_cast<MSG_HDR_S *>(hMsg->pMem)->ulDstModuleID = ulDst;
        static_cast<MSG_HDR_S *>(hMsg->pMem)->ulDstProcID = ulDstProc;
        return MOD_SendMsgProc(pstProc, hMsg) == 1;
    };
    const std::pair<std::function<bool()>, std::string> cases[] = {
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
        {[&] { return MOD_RegModule(s65.c_str(), &ulID) == 1; }, "module name len 65 beyonds limit"},
        {[&] { return MOD_RegModule(s64.c_str(), &ulID) == 1; }, "module cfg not found by name " + s64},
        {[&] { return MOD_RegModule("DT_CLI", &ulID) == 1; }, kNotMine},
        {[&] { return MOD_RegModule("DT", &ulID) == 1; }, kNotMine},  // shares the process module's id
        {[] { return MOD_UnregModule(MOD_ID_ISP_IMG) == 1; }, "get module by id 0x90000001 fail"},
        {[] { return MOD_WakeupModule(MOD_ID_ISP_IMG) == 1; }, "get module info by id 0x90000001 fail"},
        {[&] { return send(MOD_ID_ISP_IMG, MOD_PROC_ID_ISP); }, "get module by id 0x90000001 fail"},
        {[&] { return send(0x90000009, MOD_PROC_ID_ISP); }, "get dest module cfg failed! ulModuleID=2415919113"},
        {[&] { return send(MOD_PROC_MODULE_ID, MOD_PROC_ID_ISP); }, "src module and dest module id are invalid"},
        {[&] { return send(MOD_PROC_MODULE_ID, MOD_PROC_ID_DT); }, "src module and dest module id are invalid"},
        {[&] { return send(MOD_ID_DT_CLI, MOD_PROC_ID_DT); }, "no transport to proc 0xbffffffe, msg 0x1 not sent"},
    };
    for (const auto &[call, text] : cases) {
        SCOPED_TRACE(text);
        cap_.Clear();
        EXPECT_TRUE(call());
        const auto recs = cap_.Records();
        ASSERT_FALSE(recs.empty());
        EXPECT_EQ(recs.back().level + recs.back().module + " " + recs.back().text, "ERRBP " + text);
    }
    MSG_Destroy(hMsg);  // refused messages stay the caller's
    EXPECT_EQ(ulID, 0u);
    EXPECT_EQ(FreeSlots(), MOD_MAX_MODULE_NUM - 1);
    EXPECT_EQ(pstProc->ulSendMsgCount, 0u);
}

TEST_F(ServiceProcess, PoolHoldsEightRefusesTheNinthAndReusesSlots)
{
    gastModuleCfgInfo[5].ulProcID = 0;  // an unowned "DT_CMD" row is claimed by this process
    MOD_MODULE_S *pstCmd = Reg("DT_CMD");
    EXPECT_EQ(std::exchange(gastModuleCfgInfo[5].ulProcID, MOD_PROC_ID_DT), MOD_PROC_ID_ISP);
    ASSERT_NE(pstCmd, nullptr);
    EXPECT_EQ(pstCmd->ulProcID, MOD_PROC_ID_ISP);
    for (const char *pcName : {"ISP", "ISP_IMG"})
        ASSERT_NE(Reg(pcName), nullptr) << pcName;
    EXPECT_LOG(cap_, "INF", "BP", "register module [ISP_IMG] success, module id 0x90000001");
    MOD_MODULE_S *pstNewest = nullptr;
    for (int i = 0; i < 5; ++i)
        ASSERT_NE(pstNewest = Reg("ISP_IMG"), nullptr) << i;
    EXPECT_EQ(MOD_GetModuleByID(MOD_ID_ISP_IMG), pstNewest);  // the newest is found first
    u32 ulID = 0;
    EXPECT_EQ(MOD_RegModule("ISP_IMG", &ulID), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "list is full, register module fail");
    EXPECT_EQ(FreeSlots(), 0u);

    EXPECT_EQ(MOD_UnregModule(MOD_ID_ISP_IMG), 0u);
    EXPECT_LOG(cap_, "INF", "BP", kImgExit);  // already left when the call returns
    EXPECT_EQ(FreeSlots(), 1u);
    EXPECT_EQ(Reg("ISP_IMG"), pstNewest);  // handed out next
}

class ModuleThread : public ServiceProcess {
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
        ASSERT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 0x10, RunBody, pBody), 0u);
        ASSERT_EQ(MOD_SendMsgProc(pstProc_, MakeMsg(0x10, MOD_ID_ISP_IMG)), 0u);
        ASSERT_TRUE(entered_.Wait());
    }
    MOD_MODULE_S *pstProc_ = nullptr;
    MOD_MODULE_S *pstImg_ = nullptr;
    Signal entered_;
};

TEST_F(ModuleThread, UnregisterTakesAboutTheHandlersTimeNotFiveSeconds)
{
    std::atomic<bool> finished{false};
    Body body = [&](MSG_HANDLE) { entered_.Post(), ISP_usleep(100 * 1000), finished = true; };
    Run(&body);
    const auto start = steady_clock::now();
    EXPECT_EQ(MOD_UnregModule(MOD_ID_ISP_IMG), 0u);
    EXPECT_LT(steady_clock::now() - start, seconds(2));
    EXPECT_TRUE(finished) << "returned while the handler still ran";
    EXPECT_EQ(MOD_UnregModule(MOD_PROC_MODULE_ID), 0u);  // the polling thread stops the same way
    EXPECT_EQ(FreeSlots(), 8u);
}

TEST_F(ModuleThread, HandlerUnregisteringItsOwnModuleDoesNotDeadlock)
{
    u32 ulResult = 99;
    Body body = [&](MSG_HANDLE) { ulResult = MOD_UnregModule(MOD_ID_ISP_IMG), entered_.Post(); };
    Run(&body);
    EXPECT_EQ(ulResult, 0u);
    EXPECT_EQ(cap_.CountPrefix("module 0x90000001 thread still busy"), 0u) << "waited for itself";
    // The thread gives its slot back itself once the handler has returned.
    EXPECT_TRUE(Eventually([] { return FreeSlots() == 7u; }));
    EXPECT_EQ(MOD_GetModuleByID(MOD_ID_ISP_IMG), nullptr);
    EXPECT_LOG(cap_, "INF", "BP", kImgExit);
}

TEST_F(ModuleThread, CurrentModuleIsToldByTheThread)
{
    ASSERT_NE(Reg("ISP_CMD"), nullptr);  // newer than the process module, found first in walks
    EXPECT_EQ(MOD_GetCurWorkModule(), pstProc_);  // a thread of no module's
    MOD_MODULE_S *pstSeen = nullptr;
    std::string name;
    Body whoAmI = [&](MSG_HANDLE) {
        pstSeen = MOD_GetCurWorkModule(), name = MOD_GetCurWrokModuleName(), entered_.Post();
    };
    Run(&whoAmI);
    EXPECT_EQ(pstSeen, pstImg_);
    EXPECT_EQ(name, "ISP_IMG");
    ASSERT_EQ(MOD_RegMsgProc(MOD_PROC_MODULE_ID, 0x21, RunBody, &whoAmI), 0u);
    ASSERT_EQ(MOD_SendMsgProc(pstImg_, MakeMsg(0x21, MOD_PROC_MODULE_ID)), 0u);
    ASSERT_TRUE(entered_.Wait());
    EXPECT_EQ(pstSeen, pstProc_);
    ASSERT_EQ(MOD_UnregModule(MOD_PROC_MODULE_ID), 0u);
    EXPECT_EQ(MOD_GetCurWorkModule(), nullptr);  // without a process module other threads are nobody
    EXPECT_STREQ(MOD_GetCurWrokModuleName(), "ISP");
}

TEST_F(ModuleThread, AckGoesToTheAckQueueAndReachesNoHandler)
{
    MSG_HANDLE hAck = MakeMsg(0x10, MOD_ID_ISP_IMG, 0, MSG_TYPE_SYNC_ACK, 77);
    ASSERT_EQ(MOD_SendMsgProc(pstProc_, hAck), 0u);
    Body post = [&](MSG_HANDLE) { entered_.Post(); };
    Run(&post);  // the message behind the ack shows that the thread has been through its queue
    EXPECT_EQ(MOD_GetModuleMsg(&pstImg_->stAckMsgCtrl, MOD_GET_BY_ASSID, 77), hAck);
    MSG_Destroy(hAck);
    EXPECT_EQ(pstImg_->ulRecvMsgCount, 1u);
    EXPECT_EQ(pstProc_->ulSendMsgCount, 2u);
}

TEST_F(ServiceProcess, QueueOrderAssociationAndModes)
{
    MOD_MSG_CTRL_S stQueue{};
    MOD_InitListCtrl(&stQueue, 50);
    for (u32 i = 0; i < 3; ++i)  // association ids 7, 8, 7
        ASSERT_EQ(MOD_AddModuleMsg(&stQueue, MakeMsg(1, MOD_ID_ISP_IMG, i, MSG_TYPE_SYNC_ACK, i == 1 ? 8 : 7)), 0u);
    EXPECT_EQ(MOD_GetModuleMsg(&stQueue, static_cast<MOD_GET_TYPE_E>(2), 0), nullptr);
    EXPECT_LOG(cap_, "ERR", "BP", "getby type 2 invalid");
    EXPECT_EQ(MOD_GetModuleMsg(&stQueue, MOD_GET_BY_ASSID, 5), nullptr);

    std::vector<u32> seqs;  // nothing was taken above
    for (auto [enType, ulAss] : {std::pair{MOD_GET_BY_ASSID, 7u}, {MOD_GET_BY_ORDER, 0u}, {MOD_GET_BY_ORDER, 0u}}) {
        MOD_BUF_S *p = MOD_GetModuleMsg(&stQueue, enType, ulAss);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(p->stNode.pstNext, nullptr);
        seqs.push_back(BodyWord(p));
        MSG_Destroy(p);
    }
    EXPECT_EQ(seqs, (std::vector<u32>{0, 1, 2}));  // the older of the two 7s first
    EXPECT_EQ(MOD_GetModuleMsg(&stQueue, MOD_GET_BY_ORDER, 0), nullptr);
}

TEST_F(ServiceProcess, ConcurrentSendersToTheOtherProcessLoseNoCount)
{
    MOD_MODULE_S *pstImg = Reg("ISP_IMG");
    ASSERT_NE(pstImg, nullptr);
    MOD_MSG_CTRL_S stOut{};
    MOD_InitListCtrl(&stOut, 50);
    MOD_SetRemoteSendQueue(&stOut);
    constexpr u32 kThreads = 4, kEach = 300;
    std::vector<u32> ids[kThreads], all;
    std::vector<std::thread> threads;
    for (u32 t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (u32 i = 0; i < kEach; ++i) {
                ids[t].push_back(MOD_DrawAssMsgID(pstImg));
                MOD_SendMsgProc(pstImg, MakeMsg(0x42, MOD_ID_DT_CLI, i, MSG_TYPE_ASYNC_REQ, 0, MOD_PROC_ID_DT));
            }
        });
    for (u32 t = 0; t < kThreads; ++t)
        threads[t].join(), all.insert(all.end(), ids[t].begin(), ids[t].end());
    EXPECT_EQ(pstImg->ulSendMsgCount, kThreads * kEach);
    std::sort(all.begin(), all.end());
    EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end()) << "an association id was drawn twice";
    u32 ulQueued = 0;
    for (MOD_BUF_S *p; (p = MOD_GetModuleMsg(&stOut, MOD_GET_BY_ORDER, 0)) != nullptr; ++ulQueued)
        MSG_Destroy(p);
    EXPECT_EQ(ulQueued, kThreads * kEach);
}

}  // namespace
