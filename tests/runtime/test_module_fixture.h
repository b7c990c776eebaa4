// Shared by the module tests: a pool set up as the service process would,
// a stand-in process thread, message helpers and waits with a limit.
#pragma once

#include <gtest/gtest.h>
#include <semaphore.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "harness/log_capture.h"
#include "harness/test_env.h"
#include "ibp/isp_log.h"
#include "ibp/isp_module.h"
#include "ibp/isp_system.h"
#include "runtime/module_internal.h"

namespace modtest {

// Stands in for the transport's process thread: it serves the process
// module's own queue by polling, as the real one does on its idle tick.
inline void *PollingProcThread(void *pvModule)
{
    auto *pstModule = static_cast<MOD_MODULE_S *>(pvModule);
    while (MOD_IsRunning(pstModule)) {
        MOD_RecvMsgProc(pstModule);
        ISP_usleep(1000);
    }
    return nullptr;
}

// A semaphore whose wait gives up after a generous limit, so that a broken
// runtime fails the test instead of hanging it.
class Signal {
public:
    Signal() { sem_init(&sem_, 0, 0); }
    ~Signal() { sem_destroy(&sem_); }
    void Post() { sem_post(&sem_); }
    bool Wait(int iSeconds = 20)
    {
        timespec ts{};
        clock_gettime(CLOCK_REALTIME, &ts);
        ts.tv_sec += iSeconds;
        while (sem_timedwait(&sem_, &ts) != 0) {
            if (errno != EINTR)
                return false;
        }
        return true;
    }

private:
    sem_t sem_;
};

inline u32 FreeSlots()
{
    MOD_MODULE_CTRL_S &stCtrl = gstCurProc.stModuleCtrl;
    MOD_SemGuard lock(&stCtrl.stLock);
    u32 n = 0;
    for (MOD_LIST_S *p = stCtrl.stFreeList.pstNext; p != &stCtrl.stFreeList; p = p->pstNext)
        ++n;
    return n;
}

// For what only a detached thread's end makes true: nothing to wait on, so
// poll for at most ten seconds.
template <typename Cond>
bool Eventually(Cond cond)
{
    for (int i = 0; i < 10000 && !cond(); ++i)
        ISP_usleep(1000);
    return cond();
}

// A message with a one-word body, its header filled in as a sender would.
inline MSG_HANDLE MakeMsg(u32 ulMsgID, u32 ulDstModuleID, u32 ulSeq = 0, u32 ulType = MSG_TYPE_ASYNC_REQ,
                          u32 ulAssMsgID = 0, u32 ulDstProcID = MOD_PROC_ID_ISP)
{
    MSG_HANDLE hMsg = MSG_Create(&ulSeq, sizeof(ulSeq));
    auto *pstHdr = static_cast<MSG_HDR_S *>(hMsg->pMem);
    memset(pstHdr, 0, MSG_HDR_LEN);
    pstHdr->ulPrefix = MSG_PREFIX;
    pstHdr->enMsgType = ulType;
    pstHdr->ulMsgID = ulMsgID;
    pstHdr->ulAssMsgID = ulAssMsgID;
    pstHdr->ulMsgLen = MSG_HDR_LEN + sizeof(ulSeq);
    pstHdr->ulMsgBodyLen = sizeof(ulSeq);
    pstHdr->ulSrcModuleID = MOD_PROC_MODULE_ID;
    pstHdr->ulDstModuleID = ulDstModuleID;
    pstHdr->ulSrcProcID = MOD_PROC_ID_ISP;
    pstHdr->ulDstProcID = ulDstProcID;
    return hMsg;
}

inline u32 BodyWord(MSG_HANDLE hMsg)
{
    u32 ulWord = 0;
    memcpy(&ulWord, static_cast<char *>(hMsg->pMem) + MSG_HDR_LEN, sizeof(ulWord));
    return ulWord;
}

// The service process with its pool set up and nothing registered; what a
// test leaves registered is unregistered before the log capture ends.
class ServiceProcess : public ::testing::Test {
protected:
    explicit ServiceProcess(u32 ulLogLevel = 0) : cap_(ulLogLevel) {}
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
        MOD_MODULE_CTRL_S &stCtrl = gstCurProc.stModuleCtrl;
        while (!MOD_ListEmpty(&stCtrl.stUsedList))
            ASSERT_EQ(MOD_UnregModule(MOD_ListEntry(stCtrl.stUsedList.pstNext, &MOD_MODULE_S::stNode)->ulModuleID), 0u);
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
