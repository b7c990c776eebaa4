// Registration, module threads and their end, queues, routing within the
// process.
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <thread>

#include "test_module_fixture.h"

namespace {

using modtest::FreeSlots;
using modtest::MakeMsg;
using modtest::Signal;
using std::chrono::seconds;
using std::chrono::steady_clock;

const char kImgExit[] = "exit module thread: szModuleName=ISP_IMG ulProcID=0xbfffffff ulModuleID=0x90000001";

class Registry : public modtest::ServiceProcess {};

TEST_F(Registry, RefusalsTakeNoSlot)
{
    u32 ulID = 0;
    EXPECT_EQ(MOD_RegModule(nullptr, &ulID), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "pcModuleName is NULL");
    EXPECT_EQ(MOD_RegModule("ISP_IMG", nullptr), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "pulModuleID is NULL");
    EXPECT_EQ(MOD_RegModule(std::string(65, 'A').c_str(), &ulID), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "module name len 65 beyonds limit");
    // 64 characters pass the length test and fail on the table.
    const std::string s64(64, 'A');
    EXPECT_EQ(MOD_RegModule(s64.c_str(), &ulID), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "module cfg not found by name " + s64);

    // Rows of the other process, "DT" included although it shares the
    // process module's identifier.
    EXPECT_EQ(MOD_RegModule("DT_CLI", &ulID), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "proc id not match! current=0xbfffffff request=0xbffffffe");
    EXPECT_EQ(MOD_RegModule("DT", &ulID), 1u);
    EXPECT_EQ(cap_.Count("ERR", "BP", "proc id not match! current=0xbfffffff request=0xbffffffe"), 2u);
    EXPECT_EQ(MOD_GetModuleByID(MOD_PROC_MODULE_ID), nullptr);
    EXPECT_EQ(ulID, 0u);
    EXPECT_EQ(FreeSlots(), MOD_MAX_MODULE_NUM);
}

TEST_F(Registry, UnownedRowIsClaimedByTheRegisteringProcess)
{
    gastModuleCfgInfo[5].ulProcID = 0;  // "DT_CMD"
    MOD_MODULE_S *pstModule = Reg("DT_CMD");
    EXPECT_EQ(gastModuleCfgInfo[5].ulProcID, MOD_PROC_ID_ISP);
    gastModuleCfgInfo[5].ulProcID = MOD_PROC_ID_DT;
    ASSERT_NE(pstModule, nullptr);
    EXPECT_EQ(pstModule->ulProcID, MOD_PROC_ID_ISP);
}

TEST_F(Registry, PoolHoldsEightAndRefusesTheNinth)
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
}

TEST_F(Registry, UnregisterWaitsForTheThreadAndFreesTheSlot)
{
    MOD_MODULE_S *pstModule = Reg("ISP_IMG");
    ASSERT_NE(pstModule, nullptr);
    pstModule->ulRecvMsgCount = 41;
    EXPECT_EQ(MOD_UnregModule(MOD_ID_ISP_IMG), 0u);
    EXPECT_LOG(cap_, "INF", "BP", kImgExit);  // already left when the call returns
    EXPECT_EQ(MOD_GetModuleByID(MOD_ID_ISP_IMG), nullptr);
    EXPECT_EQ(FreeSlots(), 8u);

    EXPECT_EQ(MOD_UnregModule(MOD_ID_ISP_IMG), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "get module by id 0x90000001 fail");
    EXPECT_EQ(MOD_WakeupModule(MOD_ID_ISP_IMG), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "get module info by id 0x90000001 fail");
    cap_.Clear();
    EXPECT_EQ(MOD_WakeupModule(MOD_PROC_MODULE_ID), 0u);  // polls; nothing to wake, even unregistered
    EXPECT_TRUE(cap_.Records().empty()) << cap_.Dump();

    // The slot given back is the next handed out, its counters kept.
    EXPECT_EQ(Reg("ISP_CMD"), pstModule);
    EXPECT_EQ(pstModule->ulRecvMsgCount, 41u);
}

// A handler that reports its entry and then runs for a while or until told.
struct Handler {
    Signal entered, release, done;
    std::atomic<bool> finished{false};
    u32 ulSleepMs = 0;
    u32 ulUnregResult = 99;
    steady_clock::duration took{};
    MOD_MODULE_S *pstSeen = nullptr;
    std::string name;
    long tid = 0;

    static u32 Sleep(u32, MSG_HANDLE, void *pParam)
    {
        auto *self = static_cast<Handler *>(pParam);
        self->entered.Post();
        if (self->ulSleepMs != 0)
            ISP_usleep(self->ulSleepMs * 1000);
        else
            self->release.Wait(60);
        self->finished = true;
        return 0;
    }
    static u32 UnregSelf(u32, MSG_HANDLE, void *pParam)
    {
        auto *self = static_cast<Handler *>(pParam);
        const auto start = steady_clock::now();
        self->ulUnregResult = MOD_UnregModule(MOD_ID_ISP_IMG);
        self->took = steady_clock::now() - start;
        self->done.Post();
        return 0;
    }
    static u32 WhoAmI(u32, MSG_HANDLE, void *pParam)
    {
        auto *self = static_cast<Handler *>(pParam);
        self->pstSeen = MOD_GetCurWorkModule();
        self->name = MOD_GetCurWrokModuleName();
        self->tid = syscall(SYS_gettid);
        self->done.Post();
        return 0;
    }
};

class ModuleThread : public modtest::ServiceProcess {
protected:
    void SetUp() override
    {
        ServiceProcess::SetUp();
        pstProc_ = Reg("ISP");
        pstImg_ = Reg("ISP_IMG");
        ASSERT_NE(pstImg_, nullptr);
    }
    // Registers pfn for one message to ISP_IMG and sends that message.
    void Run(MOD_MSG_PROC_PFN pfn, Handler *pstHandler)
    {
        ASSERT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 0x10, pfn, pstHandler), 0u);
        ASSERT_EQ(MOD_SendMsgProc(pstProc_, MakeMsg(0x10, MOD_ID_ISP_IMG)), 0u);
    }
    MOD_MODULE_S *pstProc_ = nullptr;
    MOD_MODULE_S *pstImg_ = nullptr;
};

TEST_F(ModuleThread, UnregisterTakesAboutTheHandlersTimeNotFiveSeconds)
{
    Handler handler;
    handler.ulSleepMs = 100;
    Run(Handler::Sleep, &handler);
    ASSERT_TRUE(handler.entered.Wait());
    const auto start = steady_clock::now();
    EXPECT_EQ(MOD_UnregModule(MOD_ID_ISP_IMG), 0u);
    EXPECT_LT(steady_clock::now() - start, seconds(2));
    EXPECT_TRUE(handler.finished) << "returned while the handler still ran";
    // The process module's polling thread stops the same way.
    EXPECT_EQ(MOD_UnregModule(MOD_PROC_MODULE_ID), 0u);
    EXPECT_EQ(FreeSlots(), 8u);
}

TEST_F(ModuleThread, HandlerUnregisteringItsOwnModuleDoesNotDeadlock)
{
    Handler handler;
    Run(Handler::UnregSelf, &handler);
    ASSERT_TRUE(handler.done.Wait());
    EXPECT_EQ(handler.ulUnregResult, 0u);
    EXPECT_LT(handler.took, seconds(2));
    // The thread gives its slot back itself once the handler has returned.
    EXPECT_TRUE(modtest::Eventually([] { return FreeSlots() == 7u; }));
    EXPECT_EQ(MOD_GetModuleByID(MOD_ID_ISP_IMG), nullptr);
    EXPECT_LOG(cap_, "INF", "BP", kImgExit);
}

TEST_F(ModuleThread, ThreadStillBusyAfterTheLimitGivesItsSlotBackItself)
{
    Handler handler;
    Run(Handler::Sleep, &handler);
    ASSERT_TRUE(handler.entered.Wait());
    EXPECT_EQ(MOD_UnregModule(MOD_ID_ISP_IMG), 0u);
    EXPECT_LOG(cap_, "WRN", "BP",
               "module 0x90000001 thread still busy after 5000 ms, its slot is given back when it ends");
    EXPECT_EQ(FreeSlots(), 6u);  // not handed out under the running thread
    EXPECT_EQ(MOD_UnregModule(MOD_ID_ISP_IMG), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "module 0x90000001 is already being unregistered");

    handler.release.Post();
    EXPECT_TRUE(modtest::Eventually([] { return FreeSlots() == 7u; }));
    EXPECT_EQ(MOD_GetModuleByID(MOD_ID_ISP_IMG), nullptr);
}

TEST_F(ModuleThread, CurrentModuleIsToldByTheThread)
{
    ASSERT_NE(Reg("ISP_CMD"), nullptr);  // newer than the process module, found first in walks
    EXPECT_EQ(MOD_GetCurWorkModule(), pstProc_);
    MOD_MODULE_S *pstOnOther = nullptr;
    std::thread([&] { pstOnOther = MOD_GetCurWorkModule(); }).join();
    EXPECT_EQ(pstOnOther, pstProc_);

    Handler onImg;
    Run(Handler::WhoAmI, &onImg);
    ASSERT_TRUE(onImg.done.Wait());
    EXPECT_EQ(onImg.pstSeen, pstImg_);
    EXPECT_EQ(onImg.name, "ISP_IMG");

    Handler onProc;
    ASSERT_EQ(MOD_RegMsgProc(MOD_PROC_MODULE_ID, 0x21, Handler::WhoAmI, &onProc), 0u);
    ASSERT_EQ(MOD_SendMsgProc(pstImg_, MakeMsg(0x21, MOD_PROC_MODULE_ID)), 0u);
    ASSERT_TRUE(onProc.done.Wait());
    EXPECT_EQ(onProc.pstSeen, pstProc_);

    // Without a process module other threads are nobody.
    ASSERT_EQ(MOD_UnregModule(MOD_PROC_MODULE_ID), 0u);
    EXPECT_EQ(MOD_GetCurWorkModule(), nullptr);
    EXPECT_STREQ(MOD_GetCurWrokModuleName(), "ISP");
    gstCurProc.ulProcID = 0;
    EXPECT_STREQ(MOD_GetCurWrokModuleName(), "invalid");
    gstCurProc.ulProcID = MOD_PROC_ID_ISP;
}

// State letter and context switches of one thread, from /proc.
bool ThreadStatus(long tid, char *pcState, long *plSwitches)
{
    std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/status");
    std::string line;
    int iFields = 0;
    *plSwitches = 0;
    while (std::getline(in, line)) {
        if (line.rfind("State:", 0) == 0) {
            *pcState = line[line.find_first_not_of(" \t", 6)];
            ++iFields;
        } else if (line.find("voluntary_ctxt_switches:") != std::string::npos) {  // both kinds
            *plSwitches += std::stol(line.substr(line.find(':') + 1));
            ++iFields;
        }
    }
    return iFields == 3;
}

TEST_F(ModuleThread, IdleModuleThreadSleepsOnItsSemaphore)
{
    Handler handler;
    Run(Handler::WhoAmI, &handler);
    ASSERT_TRUE(handler.done.Wait());
    char cState = '?';
    long lBefore = 0, lAfter = 0;
    ASSERT_TRUE(modtest::Eventually([&] {
        int iValue = -1;
        sem_getvalue(&pstImg_->stWakeSem, &iValue);
        return ThreadStatus(handler.tid, &cState, &lBefore) && cState == 'S' && iValue == 0;
    })) << "thread state " << cState;
    ISP_usleep(200 * 1000);
    ASSERT_TRUE(ThreadStatus(handler.tid, &cState, &lAfter));
    EXPECT_EQ(cState, 'S');
    if (!ibptest::Emulated()) {  // an emulator may kick its threads for its own reasons
        EXPECT_EQ(lAfter, lBefore) << "an idle module thread was woken";
    }
}

// ---------------------------------------------------------------- queues

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

    std::vector<u32> seqs;
    for (auto [enType, ulAss] : {std::pair{MOD_GET_BY_ASSID, 7u}, {MOD_GET_BY_ORDER, 0u}, {MOD_GET_BY_ORDER, 0u}}) {
        MOD_BUF_S *p = MOD_GetModuleMsg(&stQueue, enType, ulAss);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(p->stNode.pstNext, nullptr);
        seqs.push_back(modtest::BodyWord(p));
        MSG_Destroy(p);
    }
    EXPECT_EQ(seqs, (std::vector<u32>{0, 1, 2}));  // the older of the two 7s first
    EXPECT_EQ(MOD_GetModuleMsg(&stQueue, MOD_GET_BY_ORDER, 0), nullptr);

    cap.Clear();
    EXPECT_EQ(MOD_AddModuleMsg(nullptr, nullptr), 1u);
    EXPECT_EQ(MOD_AddModuleMsg(&stQueue, nullptr), 1u);
    EXPECT_EQ(MOD_GetModuleMsg(nullptr, MOD_GET_BY_ORDER, 0), nullptr);
    EXPECT_EQ(cap.Count("ERR", "BP", "pstMsgCtrl is NULL"), 2u);
    EXPECT_EQ(cap.Count("ERR", "BP", "pstModBuf is NULL"), 1u);
}

// ---------------------------------------------------------------- routing within the process

class Routing : public modtest::ServiceProcess {};

TEST_F(Routing, RefusalsLeaveTheMessageWithTheCaller)
{
    MOD_MODULE_S *pstProc = Reg("ISP");
    ASSERT_NE(pstProc, nullptr);
    MSG_HANDLE hMsg = MakeMsg(1, MOD_ID_ISP_IMG);
    auto *pstHdr = static_cast<MSG_HDR_S *>(hMsg->pMem);
    EXPECT_EQ(MOD_SendMsgProc(nullptr, hMsg), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "pstSrcModule is NULL");
    EXPECT_EQ(MOD_SendMsgProc(pstProc, nullptr), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "pstModBuf is NULL");
    EXPECT_EQ(MOD_SendMsgProc(pstProc, hMsg), 1u);  // configured, not registered
    EXPECT_LOG(cap_, "ERR", "BP", "get module by id 0x90000001 fail");
    pstHdr->ulDstModuleID = 0x90000009;
    EXPECT_EQ(MOD_SendMsgProc(pstProc, hMsg), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "get dest module cfg failed! ulModuleID=2415919113");
    // Process module to process module, here or across.
    pstHdr->ulDstModuleID = MOD_PROC_MODULE_ID;
    for (u32 ulDstProc : {MOD_PROC_ID_ISP, MOD_PROC_ID_DT}) {
        pstHdr->ulDstProcID = ulDstProc;
        EXPECT_EQ(MOD_SendMsgProc(pstProc, hMsg), 1u);
    }
    EXPECT_EQ(cap_.Count("ERR", "BP", "src module and dest module id are invalid"), 2u);
    EXPECT_EQ(pstProc->ulSendMsgCount, 0u);
    MSG_Destroy(hMsg);
}

TEST_F(Routing, OtherProcessNeedsTheTransportQueue)
{
    MOD_MODULE_S *pstImg = Reg("ISP_IMG");
    ASSERT_NE(pstImg, nullptr);
    MSG_HANDLE hMsg = MakeMsg(0x42, MOD_ID_DT_CLI, 0, MSG_TYPE_ASYNC_REQ, 0, MOD_PROC_ID_DT);
    EXPECT_EQ(MOD_SendMsgProc(pstImg, hMsg), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "no transport to proc 0xbffffffe, msg 0x42 not sent");

    MOD_MSG_CTRL_S stOut{};
    MOD_InitListCtrl(&stOut, 50);
    MOD_SetRemoteSendQueue(&stOut);
    EXPECT_EQ(MOD_SendMsgProc(pstImg, hMsg), 0u);
    EXPECT_EQ(MOD_GetModuleMsg(&stOut, MOD_GET_BY_ORDER, 0), hMsg);
    EXPECT_EQ(pstImg->ulSendMsgCount, 1u);
    EXPECT_EQ(pstImg->ulLastSendMsg, 0x42u);
    MSG_Destroy(hMsg);
}

struct Counter {
    Signal each;
    static u32 Proc(u32, MSG_HANDLE, void *pParam)
    {
        static_cast<Counter *>(pParam)->each.Post();
        return 0;
    }
};

TEST_F(Routing, AckGoesToTheAckQueueAndReachesNoHandler)
{
    MOD_MODULE_S *pstProc = Reg("ISP");
    MOD_MODULE_S *pstImg = Reg("ISP_IMG");
    ASSERT_NE(pstImg, nullptr);
    Counter counter;
    ASSERT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 0, Counter::Proc, &counter), 0u);
    MSG_HANDLE hAck = MakeMsg(0x50, MOD_ID_ISP_IMG, 0, MSG_TYPE_SYNC_ACK, 77);
    ASSERT_EQ(MOD_SendMsgProc(pstProc, hAck), 0u);
    // An ordinary message behind it shows that the thread has been through its queue.
    ASSERT_EQ(MOD_SendMsgProc(pstProc, MakeMsg(0x51, MOD_ID_ISP_IMG)), 0u);
    ASSERT_TRUE(counter.each.Wait());

    EXPECT_EQ(MOD_GetModuleMsg(&pstImg->stAckMsgCtrl, MOD_GET_BY_ASSID, 77), hAck);
    MSG_Destroy(hAck);
    EXPECT_EQ(pstImg->ulRecvMsgCount, 1u);
    EXPECT_EQ(pstImg->ulLastRecvMsg, 0x51u);
    EXPECT_EQ(pstProc->ulSendMsgCount, 2u);
}

class QuietRouting : public modtest::ServiceProcess {
protected:
    QuietRouting() : ServiceProcess(LOG_LEVEL_WRN) {}  // not a debug record per message
};

TEST_F(QuietRouting, ConcurrentSendersLoseNoCountAndShareNoAssociationId)
{
    MOD_MODULE_S *pstProc = Reg("ISP");
    ASSERT_NE(Reg("ISP_IMG"), nullptr);
    Counter counter;
    ASSERT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 0x60, Counter::Proc, &counter), 0u);
    constexpr u32 kThreads = 4, kEach = 300;
    std::vector<std::vector<u32>> ids(kThreads);
    std::vector<std::thread> threads;
    for (u32 t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (u32 i = 0; i < kEach; ++i) {
                ids[t].push_back(MOD_DrawAssMsgID(pstProc));
                MOD_SendMsgProc(pstProc, MakeMsg(0x60, MOD_ID_ISP_IMG));
            }
        });
    }
    for (std::thread &th : threads)
        th.join();
    for (u32 i = 0; i < kThreads * kEach; ++i)
        ASSERT_TRUE(counter.each.Wait()) << i;

    EXPECT_EQ(pstProc->ulSendMsgCount, kThreads * kEach);
    EXPECT_EQ(MOD_GetModuleByID(MOD_ID_ISP_IMG)->ulRecvMsgCount, kThreads * kEach);
    std::vector<u32> all;
    for (const auto &v : ids)
        all.insert(all.end(), v.begin(), v.end());
    std::sort(all.begin(), all.end());
    EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end()) << "an association id was drawn twice";
}

}  // namespace
