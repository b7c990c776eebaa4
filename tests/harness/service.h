// A service process for a test: the library started as ibp-isp starts it, in
// the test's private namespaces, its log captured at ulLevel; stopped again
// at the end.
#pragma once

#include "harness/log_capture.h"
#include "harness/sockets.h"
#include "harness/test_env.h"

namespace ibptest {

template <u32 ulLevel = 0> class ServiceTest : public testing::Test {
protected:
    void SetUp() override
    {
        IBP_REQUIRE_ISOLATION();
        IBP_INIT_S st = StartRecord(0, LogCapture::Sink(), ulLevel);
        ASSERT_EQ(IBP_Init(&st), 0u) << cap_.Dump();
        up_ = true;
    }
    void TearDown() override
    {
        if (!up_)
            return;
        MOD_SysDestroy();
        CMD_Destroy();
        IBP_Destroy();
    }
    LogCapture cap_{ulLevel};
    bool up_ = false;  // started: a test that was skipped or failed to start has nothing to stop
};

}  // namespace ibptest
