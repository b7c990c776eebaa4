// The command service over messages: the table of requests and their exact
// answers, and an ack that must not be answered. (The tree text:
// test_cmd_tree.cpp; a second process asking over UDP: test_dt.cpp.)
#include <gtest/gtest.h>

#include <cstring>

#include "debug/cmd_util.h"

using namespace ibptest;

namespace {

// Commands "isp t ..." whose answers show what the service did with them.
u32 Params(u32 *pulLen, char *pcOut)
{
    u32 ulNum = 0;
    CMD_GetParamNumFromMsg(pcOut, &ulNum);
    std::string text = "n=" + std::to_string(ulNum);
    for (u32 i = 1; i <= ulNum + 1 && i <= 8; i++) {
        char *pcParam = nullptr;
        text += CMD_GetParamInfoFromMsg(i, nullptr, &pcParam) == 0 ? " [" + std::string(pcParam) + "]" : " [refused]";
    }
    *pulLen = static_cast<u32>(snprintf(pcOut, *pulLen, "%s", text.c_str()));
    return 0;
}
u32 Fail(u32 *pulLen, char *) { return *pulLen = 0, 1; }
u32 FailOut(u32 *pulLen, char *pcOut) { return *pulLen = static_cast<u32>(snprintf(pcOut, *pulLen, "partial")), 1; }
u32 Quiet(u32 *pulLen, char *) { return *pulLen = 0, 0; }
u32 Same(u32 *pulLen, char *pcOut) { return *pulLen = static_cast<u32>(snprintf(pcOut, *pulLen, "operate success")), 0; }
u32 Big(u32 *pulLen, char *pcOut) { return memset(pcOut, 'b', 8150), *pulLen = 8150, 0; }

void RegTestCmds()
{
    const std::pair<CMD_PROC_PFN, const char *> kCmds[] = {
        {Params, "params"}, {Fail, "fail"}, {FailOut, "failout"}, {Quiet, "quiet"}, {Same, "same"}, {Big, "big"}};
    for (const auto &[pfn, pcWord] : kCmds) {
        CMD_ELEMENT_S astElem[3];
        CMD_SetCmdElement(&astElem[0], CMD_PARAM_TITLE, "t", nullptr);
        CMD_SetCmdElement(&astElem[1], CMD_PARAM_TITLE, pcWord, nullptr);
        CMD_SetCmdElement(&astElem[2], CMD_PARAM_STRING, "words", nullptr);
        ASSERT_EQ(CMD_RegDisplayCmd(pfn, astElem, pfn == Params ? 3 : 2), 0u) << pcWord;
    }
}

}  // namespace

TEST_F(CmdService, AnswersEachRequestAsTheTableSays)
{
    RegTestCmds();
    const auto rows = Rows("debug/data/cmd_answers.txt", '\t');
    for (const auto &col : rows) {
        const std::string line = col[0] + " " + col[1];
        ASSERT_GE(col.size(), 3u) << line;
        const bool bNone = col[2] == "(none)";
        const auto answer = Ask(static_cast<u32>(std::stoul(col[0], nullptr, 16)), col[1], bNone ? 200 : 2000);
        EXPECT_EQ(answer.value_or("(none)"), col[2]) << line;
        if (bNone) {
            // The short wait says nothing about the service's thread, which
            // may not even have started on the request. Requests are served
            // in turn: once the next one is answered, this one was dealt with,
            // and an answer to it, late as it may be, would have been dropped
            // with its record. (A table, which writes no record that a line
            // below could be looking for.)
            ASSERT_TRUE(Ask(0x10002, std::string("<isp bp proc cfg >", 19)).has_value()) << line;
            EXPECT_EQ(cap_.CountPrefix("drop sync ack that no thread waits for: "), 0u) << "answered after all: " << line;
        }
        if (col.size() > 3) {
            EXPECT_LOG(cap_, col[3].substr(0, 3), "BP", col[3].substr(4));
        }
    }
    EXPECT_GE(rows.size(), 25u);
    EXPECT_EQ(gstLogObj.aulLevel[LOG_MODULE_BP], static_cast<u32>(LOG_LEVEL_ERR));  // the last request set it
}

TEST_F(CmdService, AnAckIsDroppedAndNeverAnswered)
{
    RawPeer peer(7002);
    ASSERT_TRUE(peer.Bound());
    const u32 *pulSent = &MOD_GetModuleByID(MOD_ID_ISP_CMD)->ulSendMsgCount;  // moved by the service's thread
    const u32 ulSentBefore = __atomic_load_n(pulSent, __ATOMIC_RELAXED);       // slots keep their counters
    // From "ISP_CMD" to itself: answering it would answer the answer for ever.
    ASSERT_TRUE(peer.SendTo(7001, MakeBlock(MSG_TYPE_ASYNC_ACK, 0x10002, MOD_ID_ISP_CMD, MOD_ID_ISP_CMD,
                                            MOD_PROC_ID_ISP, MOD_PROC_ID_ISP, "operate fail", 7)));
    // Both by the socket, so they are served in turn: with this answer back, the ack was dealt with.
    ASSERT_TRUE(peer.SendTo(7001, FromDt(MSG_TYPE_SYNC_REQ, 0x10003, MOD_ID_ISP_CMD, "x", 9)));
    const Bytes answer = peer.Recv();
    ASSERT_GE(answer.size(), MSG_HDR_LEN);
    EXPECT_EQ(std::string(answer.begin() + MSG_HDR_LEN, answer.end()), "unknown cmd type");
    EXPECT_EQ(cap_.Count("WRN", "BP", "drop ack msg: id=0x10002 assId=0x7 type=3 src=[0xbfffffff 0x90000002] "
                                      "dst=[0xbfffffff 0x90000002]"), 1u) << cap_.Dump();
    EXPECT_EQ(__atomic_load_n(pulSent, __ATOMIC_RELAXED) - ulSentBefore, 1u);  // the answer to 0x10003
}
