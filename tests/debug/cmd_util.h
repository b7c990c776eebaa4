// Shared by the command service tests: data files, C escapes, a running
// service process and requests to its command service.
#pragma once

#include <fstream>
#include <optional>
#include <sstream>
#include <string>

#include "harness/log_capture.h"
#include "harness/test_env.h"
#include "runtime/sendmsg_internal.h"
#include "runtime/transport_util.h"

namespace ibptest {

inline std::string ReadData(const std::string &name)
{
    std::ifstream in(std::string(IBP_TEST_DATA_DIR) + "/debug/data/" + name, std::ios::binary);
    std::stringstream all;
    all << in.rdbuf();
    return all.str();
}

// "\n", "\t", "\0" and "\\" as the bytes they stand for.
inline std::string Unescape(const std::string &s)
{
    std::string out;
    for (size_t i = 0; i < s.size(); i++) {
        const char c = s[i] == '\\' && i + 1 < s.size() ? s[++i] : '\\';
        out += c == '\\' ? s[i] : c == 'n' ? '\n' : c == 't' ? '\t' : c == '0' ? '\0' : c;
    }
    return out;
}

// One request to the command service from the calling thread; the answer,
// or nothing when none came within ulTimeout ms.
inline std::optional<std::string> Ask(u32 ulMsgID, const std::string &body, u32 ulTimeout = 2000)
{
    MSG_HANDLE hReq = MSG_Create(body.data(), static_cast<u32>(body.size()));
    MSG_HANDLE hAck = nullptr;
    bool bQueued = false;
    if (MSG_SendSyncMsgEx(MOD_ID_ISP_CMD, ulMsgID, hReq, ulTimeout, &hAck, &bQueued) != 0) {
        if (!bQueued)
            MSG_Destroy(hReq);
        return std::nullopt;
    }
    void *pBody = nullptr;
    u32 ulLen = 0;
    MSG_Decode(hAck, &pBody, &ulLen);
    std::string answer(static_cast<const char *>(pBody), ulLen);
    MSG_Destroy(hAck);
    return answer;
}

// A service process with the base commands, logging into cap_.
class CmdService : public testing::Test {
protected:
    void SetUp() override
    {
        IBP_REQUIRE_ISOLATION();
        IBP_INIT_S st = StartRecord(0, LogCapture::Sink(), LOG_LEVEL_INF);
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
    LogCapture cap_{LOG_LEVEL_INF};
    bool up_ = false;
};

}  // namespace ibptest
