// Table lookups, registration, module threads and their end, handler tables, queues, routing in the process.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <semaphore>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "harness/log_capture.h"
#include "ibp/isp_module.h"
#include "ibp/isp_sendmsg.h"
#include "ibp/isp_stat.h"
#include "ibp/isp_system.h"
#include "runtime/mod_ratelimit.h"
#include "runtime/mod_tap.h"
#include "runtime/module_internal.h"
#include "runtime/sendmsg_internal.h"

namespace {

using namespace std::chrono;

const char kImgExit[] = "exit module thread: szModuleName=ISP_IMG ulProcID=0xbfffffff ulModuleID=0x90000001";

// Stands in for the transport's process thread: polls the process module's queue.
void *PollingProcThread(void *pvModule)
{
    for (auto *pstModule = static_cast<MOD_MODULE_S *>(pvModule); MOD_IsRunning(pstModule); ISP_usleep(1000))
        MOD_RecvMsgProc(pstModule);
    return nullptr;
}

// Wait gives up after 20 s, so that a broken runtime fails the test instead of hanging it.
struct Signal : std::counting_semaphore<> {
    Signal() : std::counting_semaphore<>(0) {}
    void Post() { release(); }
    bool Wait() { return try_acquire_for(seconds(20)); }
};

// A handler whose work is a lambda, handed over as pParam.
using Body = std::function<void(MSG_HANDLE hMsg)>;
u32 RunBody(u32, MSG_HANDLE hMsg, void *pParam) { return (*static_cast<Body *>(pParam))(hMsg), 0; }

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

u32 FreeSlots()
{
    MOD_MODULE_CTRL_S &stCtrl = gstCurProc.stModuleCtrl;
    MOD_SemGuard lock(&stCtrl.stLock);  // a thread may give its slot back meanwhile
    u32 n = 0;
    for (MOD_LIST_S *p = stCtrl.stFreeList.pstNext; p != &stCtrl.stFreeList; p = p->pstNext)
        ++n;
    return n;
}

// A message whose one-word body is ulSeq, its header filled in as a sender would.
MSG_HANDLE MakeMsg(u32 ulMsgID, u32 ulDstModuleID, u32 ulSeq = 0, u32 ulType = MSG_TYPE_ASYNC_REQ, u32 ulAssMsgID = 0,
                   u32 ulDstProcID = MOD_PROC_ID_ISP)
{
    MSG_HANDLE hMsg = MSG_Create(&ulSeq, sizeof(ulSeq));
    *static_cast<MSG_HDR_S *>(hMsg->pMem) = {MSG_PREFIX, ulType, ulMsgID, ulAssMsgID, MSG_HDR_LEN + 4, 4,
                                             MOD_PROC_MODULE_ID, ulDstModuleID, MOD_PROC_ID_ISP, ulDstProcID, 0, 0, 0};
    return hMsg;
}

u32 BodyWord(MSG_HANDLE hMsg) { return static_cast<const u32 *>(hMsg->pMem)[MSG_HDR_LEN / 4]; }

// Nothing registered at the start; what a test leaves registered is unregistered at the end.
class ServiceProcess : public ::testing::Test {
protected:
    void SetUp() override
    {
        strcpy(gstCurProc.szProcName, "ISP");
        gstCurProc.ulProcID = MOD_PROC_ID_ISP;
        // Slots keep their counters across registrations; start from load.
        memset(static_cast<void *>(gstCurProc.astModule), 0, sizeof(gstCurProc.astModule));
        MOD_InitModulePool(PollingProcThread);
        gCalls.clear();
    }
    void TearDown() override
    {
        MOD_LIST_S &stUsed = gstCurProc.stModuleCtrl.stUsedList;
        while (!MOD_ListEmpty(&stUsed))
            ASSERT_EQ(MOD_UnregModule(MOD_ListEntry(stUsed.pstNext, &MOD_MODULE_S::stNode)->ulModuleID), 0u);
        EXPECT_EQ(FreeSlots(), MOD_MAX_MODULE_NUM);
        MOD_SetRemoteSendQueue(nullptr);
        MOD_RateReset();  // no count of this test is left for the next one's records
    }
    MOD_MODULE_S *Reg(const char *pcName)
    {
        u32 ulID = 0;
        return MOD_RegModule(pcName, &ulID) == 0 ? MOD_GetModuleByID(ulID) : nullptr;
    }
    ibptest::LogCapture cap_;
};

// Lookups in the tables; each refusal ends with its record (null arguments: tests/abi/test_misuse.cpp).
TEST_F(ServiceProcess, LookupsAndRefusalsThatAreRecordedAndTakeNoSlot)
{
    EXPECT_EQ(MOD_WakeupModule(MOD_PROC_MODULE_ID), 0u);  // it polls: nothing to wake, even unregistered
    EXPECT_TRUE(cap_.Records().empty()) << cap_.Dump();
    MOD_MODULE_S *pstProc = Reg("ISP");
    ASSERT_NE(pstProc, nullptr);
    u32 ulID = 0;
    const std::string s64(64, 'A'), s65(65, 'A');
    const std::string kNotMine = "ERR BP proc id not match! current=0xbfffffff request=0xbffffffe";
    MSG_HANDLE hMsg = MakeMsg(1, 0);
    auto send = [&](u32 ulDst, u32 ulDstProc) {
        static_cast<MSG_HDR_S *>(hMsg->pMem)->ulDstModuleID = ulDst;
        static_cast<MSG_HDR_S *>(hMsg->pMem)->ulDstProcID = ulDstProc;
        return MOD_SendMsgProc(pstProc, hMsg) == 1;
    };
    const std::string kNoImg = "ERR BP get module by id 0x90000001 fail";
    const std::string kSrcDst = "ERR BP src module and dest module id are invalid";
    ibptest::ExpectRefusals(cap_, {
        {[] { return MOD_GetProcCfgByName("dt") == nullptr; }, {"ERR BP proc dt not found in config"}},
        {[] { return MOD_GetProcCfgByID(0) == nullptr; }, {"ERR BP proc id 0 not found in config"}},
        {[] { return !MOD_GetModuleCfgByName("ISP_CMDX"); }, {"ERR BP module name ISP_CMDX not found in config"}},
        {[] { return !MOD_GetModuleCfgByID(0x90000003); }, {"ERR BP module id 0x90000003 not found in config"}},
        {[&] { return MOD_RegModule(s65.c_str(), &ulID) == 1; }, {"ERR BP module name len 65 beyonds limit"}},
        {[&] { return MOD_RegModule(s64.c_str(), &ulID) == 1; },
         {"INF BP register module [" + s64 + "] start", "ERR BP module name " + s64 + " not found in config",
          "ERR BP module cfg not found by name " + s64}},
        {[&] { return MOD_RegModule("DT_CLI", &ulID) == 1; }, {"INF BP register module [DT_CLI] start", kNotMine}},
        {[&] { return MOD_RegModule("DT", &ulID) == 1; },  // shares the process module's id
         {"INF BP register module [DT] start", kNotMine}},
        {[] { return MOD_UnregModule(MOD_ID_ISP_IMG) == 1; }, {kNoImg}},
        {[] { return MOD_WakeupModule(MOD_ID_ISP_IMG) == 1; }, {"ERR BP get module info by id 0x90000001 fail"}},
        {[&] { return send(MOD_ID_ISP_IMG, MOD_PROC_ID_ISP); }, {kNoImg}},
        {[&] { return send(0x90000009, MOD_PROC_ID_ISP); },
         {"ERR BP module id 0x90000009 not found in config", "ERR BP get dest module cfg failed! ulModuleID=2415919113"}},
        {[&] { return send(MOD_PROC_MODULE_ID, MOD_PROC_ID_ISP); }, {kSrcDst}},
        {[&] { return send(MOD_PROC_MODULE_ID, MOD_PROC_ID_DT); }, {kSrcDst}},
        {[&] { return send(MOD_ID_DT_CLI, MOD_PROC_ID_DT); },
         {"ERR BP no transport to proc 0xbffffffe, msg 0x1 not sent"}},
    });
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
    ASSERT_NE(Reg("ISP"), nullptr);
    MOD_MODULE_S *pstNewest = nullptr;
    for (int i = 0; i < 6; ++i)
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

TEST_F(ServiceProcess, HandlerTableCatchAllAndItsLimitOfThirtyTwo)
{
    MOD_MODULE_S *pstImg = Reg("ISP_IMG");
    ASSERT_NE(pstImg, nullptr);
    // A catch-all hides older specific handlers and yields to newer ones.
    ASSERT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 5, Note, &gA), 0u);
    EXPECT_EQ(Winners(pstImg, {0}), "-");  // id 0 is served by a catch-all only
    ASSERT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 0, Note, &gC), 0u);
    ASSERT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 6, Note, &gB), 0u);
    EXPECT_EQ(Winners(pstImg, {5, 6, 7, 0}), "CBCC");
    EXPECT_EQ(MOD_UnregMsgProc(MOD_ID_ISP_IMG, 0), 0u);
    EXPECT_EQ(Winners(pstImg, {5, 6, 7}), "AB-");
    // 5 and 6 hold two entries: with 7 to 35 it is 31.
    for (u32 id = 7; id <= 35; ++id)
        ASSERT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, id, Note, &gA), 0u) << id;
    EXPECT_EQ(cap_.CountPrefix("proc info of msg"), 0u);  // new identifiers, not changes
    EXPECT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 7, Note, &gB), 0u);  // a change takes no entry
    EXPECT_LOG(cap_, "WRN", "BP", "proc info of msg 0x7 has been changed!");
    ASSERT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 36, Note, &gA), 0u);  // the 32nd
    EXPECT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 37, Note, &gA), 1u);
    EXPECT_LOG(cap_, "ERR", "BP", "get free msg proc struct fail!");
    EXPECT_EQ(cap_.CountPrefix("add message proc fail! ulMsgID=0x25 "), 1u) << cap_.Dump();
    EXPECT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 7, Note, &gC), 1u);  // a full table refuses even a change
    EXPECT_EQ(Winners(pstImg, {7}), "B");
    EXPECT_EQ(MOD_UnregMsgProc(MOD_ID_ISP_IMG, 20), 0u);  // gives its entry back
    EXPECT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 37, Note, &gC), 0u);
}

// Senders that speak as one module draw its counter without losing a count.
TEST_F(ServiceProcess, ConcurrentSendersToTheOtherProcessLoseNoCount)
{
    MOD_MODULE_S *pstImg = Reg("ISP_IMG");
    ASSERT_NE(pstImg, nullptr);
    MOD_MSG_CTRL_S stOut{};
    MOD_InitListCtrl(&stOut, 50);
    MOD_SetRemoteSendQueue(&stOut);
    constexpr u32 kThreads = 4, kEach = 300;
    std::vector<std::thread> threads;
    for (u32 t = 0; t < kThreads; ++t)
        threads.emplace_back([&] {
            for (u32 i = 0; i < kEach; ++i)
                EXPECT_EQ(MOD_SendMsgProc(pstImg, MakeMsg(0x42, MOD_ID_DT_CLI, i, MSG_TYPE_ASYNC_REQ, 0, MOD_PROC_ID_DT)),
                          0u);
        });
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(pstImg->ulSendMsgCount, kThreads * kEach);
    u32 ulQueued = 0;
    for (MOD_BUF_S *p; (p = MOD_GetModuleMsg(&stOut, MOD_GET_BY_ORDER, 0)) != nullptr; ++ulQueued)
        MSG_Destroy(p);
    EXPECT_EQ(ulQueued, kThreads * kEach);  // one-way messages wait for the process thread
    MOD_SetRemoteSendQueue(nullptr);  // before stOut goes
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

// Handlers run one at a time in arrival order. (Synchronous acks that no thread waits for: test_transport.)
TEST_F(ModuleThread, HandlersRunOneAtATimeInArrivalOrder)
{
    // The first message holds the thread until the rest pile up in the queue.
    Signal gate;
    std::atomic<int> inside{0}, maxInside{0};
    std::vector<u32> order;
    Body serial = [&](MSG_HANDLE hMsg) {
        maxInside = std::max(maxInside.load(), ++inside);
        if (BodyWord(hMsg) == 0)
            gate.Wait();
        order.push_back(BodyWord(hMsg));
        --inside;
        entered_.Post();
    };
    // Three identifiers, served by a catch-all registered before a specific handler.
    ASSERT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 0, RunBody, &serial), 0u);
    ASSERT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 0x71, Note, &gB), 0u);
    std::vector<u32> expected;
    for (u32 i = 0; i < 40; ++i) {
        ASSERT_EQ(MOD_SendMsgProc(pstProc_, MakeMsg(0x70 + (i % 3), MOD_ID_ISP_IMG, i)), 0u);
        if (i % 3 != 1)
            expected.push_back(i);
    }
    gate.Post();
    for (size_t i = 0; i < expected.size(); ++i)
        ASSERT_TRUE(entered_.Wait()) << i;
    EXPECT_EQ(order, expected);
    EXPECT_EQ(maxInside.load(), 1);
    EXPECT_EQ(gCalls.size(), 40 - expected.size());  // in between, before the last one
    EXPECT_EQ(pstImg_->ulRecvMsgCount, 40u);
    EXPECT_EQ(pstProc_->ulSendMsgCount, 40u);
}

// A handler's thread is told its module, a thread of no module's the process module, and nobody once that
// has gone too.
TEST_F(ModuleThread, UnregisterWaitsForABusyHandlerAndMayComeFromItsOwnHandler)
{
    ASSERT_NE(Reg("ISP_CMD"), nullptr);  // newer than the process module, found first in walks
    EXPECT_EQ(MOD_GetCurWorkModule(), pstProc_);
    u32 ulResult = 99;
    MOD_MODULE_S *pstSeen = nullptr;
    std::string name;
    Body self = [&](MSG_HANDLE) {
        pstSeen = MOD_GetCurWorkModule();
        name = MOD_GetCurWrokModuleName();
        ulResult = MOD_UnregModule(MOD_ID_ISP_IMG);
        entered_.Post();
    };
    Run(&self);
    EXPECT_EQ(ulResult, 0u);
    EXPECT_EQ(pstSeen, pstImg_);
    EXPECT_EQ(name, "ISP_IMG");
    EXPECT_EQ(cap_.CountPrefix("module 0x90000001 thread still busy"), 0u) << "waited for itself";
    // The thread gives its slot back itself once the handler has returned: poll for at most ten seconds.
    for (int i = 0; i < 10000 && FreeSlots() != 6u; ++i)
        ISP_usleep(1000);
    EXPECT_EQ(FreeSlots(), 6u);
    EXPECT_EQ(MOD_GetModuleByID(MOD_ID_ISP_IMG), nullptr);
    EXPECT_LOG(cap_, "INF", "BP", kImgExit);

    ASSERT_NE(Reg("ISP_IMG"), nullptr);
    std::atomic<bool> finished{false};
    Body busy = [&](MSG_HANDLE) {
        entered_.Post();
        ISP_usleep(100 * 1000);
        finished = true;
    };
    Run(&busy);
    EXPECT_EQ(MOD_UnregModule(MOD_ID_ISP_IMG), 0u);
    EXPECT_TRUE(finished) << "returned while the handler still ran";
    EXPECT_EQ(MOD_UnregModule(MOD_PROC_MODULE_ID), 0u);  // the polling thread stops the same way
    EXPECT_EQ(FreeSlots(), 7u);
    EXPECT_EQ(MOD_GetCurWorkModule(), nullptr);
    EXPECT_STREQ(MOD_GetCurWrokModuleName(), "ISP");
}

// A service that restarts a module while others talk to it: one-way and synchronous senders beside
// register/unregister rounds. Nothing hangs, and every message that a send let in reached the module's
// thread (its handler, or the no-handler record before the handler is added); every synchronous
// request let in ends with its ack or a failure, never a time-out.
TEST_F(ServiceProcess, SendersBesideRestartsNeitherHangNorLoseMessages)
{
    ibptest::LogCapture cap(LOG_LEVEL_WRN);  // the rounds' own records are not needed
    ASSERT_NE(Reg("ISP"), nullptr);  // the senders speak as the process module
    constexpr int kRounds = 100;
    std::atomic<u32> handled{0}, letIn{0}, round{0};
    std::atomic<bool> stop{false};
    Signal served;
    Body answer = [&](MSG_HANDLE hMsg) {
        if (static_cast<const MSG_HDR_S *>(hMsg->pMem)->enMsgType == MSG_TYPE_SYNC_REQ) {
            EXPECT_EQ(MSG_SendAckMsg(hMsg, MSG_Create("ok", 2)), 0u);
        }
        handled++;
        served.Post();
    };
    // A refused sender waits for the next round rather than filling the log.
    auto sender = [&](bool bSync) {
        while (!stop) {
            const u32 ulRound = round;
            MSG_HANDLE hReq = MSG_Create("hi", 2), hAck = nullptr;
            bool bQueued = false;
            u32 ulRet = bSync ? MSG_SendSyncMsgEx(MOD_ID_ISP_IMG, 0x50, hReq, 10000, &hAck, &bQueued)
                              : MSG_SendAsyncMsg(MOD_ID_ISP_IMG, 0x50, hReq);
            letIn += (bSync ? bQueued : ulRet == 0) ? 1 : 0;
            MSG_Destroy(hAck);
            if (bSync && !bQueued)
                MSG_Destroy(hReq);
            while (ulRet != 0 && !stop && round == ulRound)
                std::this_thread::yield();
        }
    };
    std::thread async(sender, false), sync(sender, true);
    for (int i = 0; i < kRounds; ++i) {
        ASSERT_NE(Reg("ISP_IMG"), nullptr);
        ASSERT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 0x50, RunBody, &answer), 0u);
        round++;
        for (const u32 ulEnough = handled + 20; handled < ulEnough;)
            ASSERT_TRUE(served.Wait()) << i;
        ASSERT_EQ(MOD_UnregModule(MOD_ID_ISP_IMG), 0u);
    }
    stop = true;
    round++;
    async.join();
    sync.join();
    EXPECT_EQ(handled + cap.CountPrefix("msg proc func not found"), letIn.load());
    EXPECT_EQ(cap.CountPrefix("wait ack message timeout"), 0u);
    EXPECT_EQ(FreeSlots(), MOD_MAX_MODULE_NUM - 1);
}

// What a module's counters and a monitor's tap see of the same messages, the tap's filter and the
// end of its lease, the text of "isp stat module" and a clear.
TEST_F(ModuleThread, CountersAndTheMonitorTapSeeTheSameMessages)
{
    ASSERT_TRUE(MOD_TapLease(MOD_ID_ISP_IMG, MOD_PROC_ID_ISP, 60000));
    Body count = [&](MSG_HANDLE) { entered_.Post(); };
    IBP_MODULE_STAT_S st{};
    Body snapshot = [&](MSG_HANDLE) {  // the counters of the messages before this one are complete
        EXPECT_EQ(IBP_GetModuleStat(MOD_ID_ISP_IMG, &st), 0u);
        entered_.Post();
    };
    ASSERT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 0x60, RunBody, &count), 0u);
    ASSERT_EQ(MOD_RegMsgProc(MOD_ID_ISP_IMG, 0x63, RunBody, &snapshot), 0u);
    for (u32 id : {0x61u, 0x60u, 0x60u, 0x63u})  // 0x61 has no handler
        ASSERT_EQ(MOD_SendMsgProc(pstProc_, MakeMsg(id, MOD_ID_ISP_IMG)), 0u);
    ASSERT_NE(Reg("ISP_CMD"), nullptr);
    ASSERT_EQ(MOD_SendMsgProc(pstProc_, MakeMsg(0x62, MOD_ID_ISP_CMD)), 0u);  // not ISP_IMG's: filtered out
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(entered_.Wait());
    EXPECT_EQ(std::vector<u32>({st.ulRecvMsgs, st.ulHandledMsgs, st.ulNoHandler, st.ulQueueDepth, st.ulHandlerRuns}),
              std::vector<u32>({4, 2, 1, 0, 2}));
    EXPECT_GE(st.ulQueueHigh, 1u);
    EXPECT_GE(st.ulHandlerMaxUs + 1, st.ulHandlerP99Us / 2);  // the max lies in the p99's bucket or above
    std::vector<char> text(8000);
    u32 ulLost = 9;
    EXPECT_EQ(MOD_TapTake(text.data(), 8000, &ulLost), 4u);
    EXPECT_EQ(ulLost, 0u);
    EXPECT_NE(std::string(text.data()).find(" ISP -> ISP_IMG async id=0x61 len=4\n"), std::string::npos) << text.data();
    ASSERT_TRUE(MOD_TapLease(0, 0, 0));  // a lease that has run out ends at the thread's next look
    EXPECT_EQ(MOD_TapExpire(), -1);
    ASSERT_EQ(MOD_SendMsgProc(pstProc_, MakeMsg(0x60, MOD_ID_ISP_IMG)), 0u);
    ASSERT_TRUE(entered_.Wait());
    EXPECT_EQ(MOD_TapTake(text.data(), 8000, &ulLost), 0u);
    u32 ulLen = 8000;
    text[0] = '\0';
    ASSERT_EQ(MOD_PrintModuleStat(&ulLen, text.data()), 0u);
    unsigned uID = 0, uRecv = 0;
    const char *pcRow = strstr(text.data(), "\nISP_IMG ");
    ASSERT_NE(pcRow, nullptr) << text.data();
    EXPECT_EQ(sscanf(pcRow, " ISP_IMG %x %u", &uID, &uRecv), 2);
    EXPECT_EQ(std::vector<unsigned>({uID, uRecv}), std::vector<unsigned>({MOD_ID_ISP_IMG, 5}));
    IBP_ClearStat();
    ASSERT_EQ(IBP_GetModuleStat(MOD_ID_ISP_IMG, &st), 0u);
    EXPECT_EQ(st.ulRecvMsgs, 0u);
}

}  // namespace
