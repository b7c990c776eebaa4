// Shared by the module tests: the service process's pool, message helpers, waits with a limit.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <semaphore>

#include "harness/log_capture.h"
#include "ibp/isp_module.h"
#include "ibp/isp_system.h"
#include "runtime/module_internal.h"

namespace modtest {

// Stands in for the transport's process thread: polls the process module's queue.
inline void *PollingProcThread(void *pvModule)
{
    for (auto *pstModule = static_cast<MOD_MODULE_S *>(pvModule); MOD_IsRunning(pstModule); ISP_usleep(1000))
        MOD_RecvMsgProc(pstModule);
    return nullptr;
}

// Wait gives up after 20 s, so that a broken runtime fails the test instead of hanging it.
struct Signal : std::counting_semaphore<> {
    Signal() : std::counting_semaphore<>(0) {}
    void Post() { release(); }
    bool Wait() { return try_acquire_for(std::chrono::seconds(20)); }
};

// A handler whose work is a lambda, handed over as pParam.
using Body = std::function<void(MSG_HANDLE hMsg)>;
inline u32 RunBody(u32, MSG_HANDLE hMsg, void *pParam) { return (*static_cast<Body *>(pParam))(hMsg), 0; }

inline u32 FreeSlots()
{
    MOD_MODULE_CTRL_S &stCtrl = gstCurProc.stModuleCtrl;
    MOD_SemGuard lock(&stCtrl.stLock);  // a thread may give its slot back meanwhile
    u32 n = 0;
    for (MOD_LIST_S *p = stCtrl.stFreeList.pstNext; p != &stCtrl.stFreeList; p = p->pstNext)
        ++n;
    return n;
}

// For what only a detached thread's end makes true: poll for at most ten seconds.
template <typename Cond> bool Eventually(Cond cond)
{
    for (int i = 0; i < 10000 && !cond(); ++i)
        ISP_usleep(1000);
    return cond();
}

// A message whose one-word body is ulSeq, its header filled in as a sender would.
inline MSG_HANDLE MakeMsg(u32 ulMsgID, u32 ulDstModuleID, u32 ulSeq = 0, u32 ulType = MSG_TYPE_ASYNC_REQ,
                          u32 ulAssMsgID = 0, u32 ulDstProcID = MOD_PROC_ID_ISP)
{
    MSG_HANDLE hMsg = MSG_Create(&ulSeq, sizeof(ulSeq));
    *static_cast<MSG_HDR_S *>(hMsg->pMem) = {MSG_PREFIX, ulType, ulMsgID, ulAssMsgID, MSG_HDR_LEN + 4, 4,
                                             MOD_PROC_MODULE_ID, ulDstModuleID, MOD_PROC_ID_ISP, ulDstProcID, 0, 0, 0};
    return hMsg;
}

inline u32 BodyWord(MSG_HANDLE hMsg) { return static_cast<const u32 *>(hMsg->pMem)[MSG_HDR_LEN / 4]; }

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
    }
    void TearDown() override
    {
        MOD_LIST_S &stUsed = gstCurProc.stModuleCtrl.stUsedList;
        while (!MOD_ListEmpty(&stUsed))
            ASSERT_EQ(MOD_UnregModule(MOD_ListEntry(stUsed.pstNext, &MOD_MODULE_S::stNode)->ulModuleID), 0u);
        EXPECT_EQ(FreeSlots(), MOD_MAX_MODULE_NUM);
        MOD_SetRemoteSendQueue(nullptr);
    }
    MOD_MODULE_S *Reg(const char *pcName)
    {
        u32 ulID = 0;
        return MOD_RegModule(pcName, &ulID) == 0 ? MOD_GetModuleByID(ulID) : nullptr;
    }
    ibptest::LogCapture cap_;
};

}  // namespace modtest
