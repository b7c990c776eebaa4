// Starting and stopping the library in either kind of process.
#include <gtest/gtest.h>

#include "harness/log_capture.h"
#include "harness/sockets.h"
#include "harness/test_env.h"

using namespace ibptest;

TEST(LibraryStart, EitherProcessLogSettersAndRefusedRestart)
{
    IBP_REQUIRE_ISOLATION();
    LogCapture cap;
    // Its _CMD module registers only under the matching process id.
    const struct { u32 bIsDt; const char *pcName; u32 ulCmdModule; } kProcs[] = {
        {2, "DT", MOD_ID_DT_CMD},  // any value but 0 is the debug tool
        {0, "ISP", MOD_ID_ISP_CMD}};
    for (const auto &p : kProcs) {
        SCOPED_TRACE(p.pcName);
        IBP_INIT_S st = StartRecord(p.bIsDt, LogCapture::Sink());
        ASSERT_EQ(IBP_Init(&st), 0u) << cap.Dump();
        EXPECT_STREQ(MOD_GetCurWrokProcName(), p.pcName);
        EXPECT_NE(MOD_GetModuleByID(p.ulCmdModule), nullptr);
        // A second start would rebuild queues under running threads: refused,
        // and the log keeps its start record (the other has thresholds 3).
        IBP_INIT_S again = StartRecord(!p.bIsDt, LogCapture::Sink(), 3);
        cap.Clear();
        EXPECT_EQ(IBP_Init(&again), 1u);
        EXPECT_EQ(cap.CountPrefix("ibp is running already!"), 1u) << cap.Dump();
        EXPECT_STREQ(MOD_GetCurWrokProcName(), p.pcName);
        EXPECT_EQ(gstLogObj.aulLevel[LOG_MODULE_BP], 0u);
        EXPECT_EQ(IBP_SetLogLevelByModule(LOG_MODULE_BP, LOG_LEVEL_ERR), 0u);
        EXPECT_EQ(gstLogObj.aulLevel[LOG_MODULE_BP], LOG_LEVEL_ERR);
        EXPECT_EQ(IBP_SetLogFileSizeByModule(LOG_MODULE_BP, 4096), 0u);
        const std::string last = cap.Records().back().text;
        EXPECT_TRUE(last.starts_with("set log file ") && last.ends_with(" size to 4096")) << cap.Dump();
        MOD_SysDestroy();
        IBP_Destroy();
        EXPECT_EQ(gstLogObj.bInited, 0u);
    }
}

TEST(LibraryStart, FailuresLeaveNothingOpen)
{
    IBP_REQUIRE_ISOLATION();
    LogCapture cap;
    {
        RawPeer squatter(7001);  // the service's port is taken
        ASSERT_TRUE(squatter.Bound());
        IBP_INIT_S st = StartRecord(0, LogCapture::Sink());
        EXPECT_EQ(IBP_Init(&st), 1u);
        EXPECT_LOG(cap, "ERR", "BP", "UDP init fail");
        EXPECT_LOG(cap, "ERR", "BP", "MOD_SysInit() fail! bIsDt=0");
        EXPECT_EQ(MOD_GetModuleByID(MOD_ID_ISP_CMD), nullptr);
    }
    // A name without a row fails at its _CMD module; the socket is given back for the start at the end.
    EXPECT_EQ(MOD_SysInit("XYZ", MOD_PROC_ID_ISP), 1u);
    EXPECT_LOG(cap, "ERR", "BP", "module cfg not found by name XYZ_CMD");
    EXPECT_LOG(cap, "ERR", "BP", "init proc failed! pcProcName=XYZ ulProcID=0xbfffffff");
    EXPECT_EQ(MOD_SysInit("DT", MOD_PROC_ID_ISP), 1u);  // the other process's rows
    EXPECT_EQ(cap.CountPrefix("proc id not match! current=0xbfffffff request=0xbffffffe"), 1u);
    EXPECT_EQ(MOD_SysInit("", 0), 1u);  // a null name: tests/abi/test_misuse.cpp
    EXPECT_LOG(cap, "ERR", "BP", "param invalid, proc name is empty!");
    EXPECT_EQ(MOD_SysInit("ISP", MOD_PROC_ID_ISP), 0u);
    MOD_SysDestroy();
}
