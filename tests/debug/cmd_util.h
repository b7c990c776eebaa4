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

// "\n", "\t", "\r", "\0", "\e" (ESC), "\a" (BEL), "\xNN" and "\\" as the bytes they stand for.
inline std::string Unescape(const std::string &s)
{
    static const std::string kFrom = "ntr0ea", kTo = std::string("\n\t\r\0\x1b\a", 6);
    std::string out;
    for (size_t i = 0; i < s.size(); i++) {
        const char c = s[i] == '\\' && i + 1 < s.size() ? s[++i] : '\\';
        if (c == 'x' && i + 2 < s.size() + 1)
            out += static_cast<char>(std::stoi(s.substr(i + 1, 2), nullptr, 16)), i += 2;
        else
            out += c == '\\' ? s[i] : kFrom.find(c) != std::string::npos ? kTo[kFrom.find(c)] : c;
    }
    return out;
}

// The parts of s between the separators.
inline std::vector<std::string> Split(const std::string &s, char cSep)
{
    std::vector<std::string> parts;
    for (std::istringstream in(s); std::getline(in, parts.emplace_back(), cSep);) {
    }
    return parts.pop_back(), parts;
}

// The synchronous ack that a played service sends for the request `req`.
inline Bytes AckTo(const Bytes &req, const std::string &sBody)
{
    const auto *h = reinterpret_cast<const MSG_HDR_S *>(req.data());
    return MakeBlock(MSG_TYPE_SYNC_ACK, h->ulMsgID, h->ulDstModuleID, h->ulSrcModuleID, h->ulDstProcID,
                     h->ulSrcProcID, sBody, h->ulAssMsgID);
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
