// The command service over messages: the tree text asked by a second process
// over UDP, the table of requests and their exact answers, and an ack that
// must not be answered.
#include <gtest/gtest.h>
#include <sys/wait.h>

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

// First in the program: the fork comes before any thread (qemu-user needs that).
TEST(CmdFromDebugTool, TreeTextAndALogLevelOverUdp)
{
    IBP_REQUIRE_ISOLATION();
    int go[2];
    ASSERT_EQ(pipe(go), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {  // the debug tool process; what it got goes to standard error
        close(go[1]);
        IBP_INIT_S st = StartRecord(1, nullptr, LOG_LEVEL_ERR);
        if (char c; IBP_Init(&st) != 0 || read(go[0], &c, 1) != 1)
            _exit(10);
        const auto tree = Ask(CMD_MSG_GET_TREE, std::string("dbgcmd", 7));
        const auto level = Ask(CMD_MSG_EXEC_CMD, std::string("<isp bp log module level >BP;3;", 32));
        if (tree == ReadData("base_tree.txt") && tree->size() == 443 && level == "operate success")
            _exit(0);
        fprintf(stderr, "tree:\n%s\nlevel: %s\n", tree.value_or("(none)").c_str(), level.value_or("(none)").c_str());
        _exit(1);
    }
    close(go[0]);
    LogCapture cap;
    IBP_INIT_S st = StartRecord(0, LogCapture::Sink(), LOG_LEVEL_INF);
    ASSERT_EQ(IBP_Init(&st), 0u) << cap.Dump();
    ASSERT_EQ(write(go[1], "g", 1), 1);
    int lStatus = -1;
    ASSERT_EQ(waitpid(pid, &lStatus, 0), pid);
    EXPECT_EQ(__atomic_load_n(&gstLogObj.aulLevel[LOG_MODULE_BP], __ATOMIC_RELAXED), static_cast<u32>(LOG_LEVEL_ERR));
    MOD_SysDestroy();
    CMD_Destroy();
    IBP_Destroy();
    EXPECT_EQ(lStatus, 0);
}

TEST_F(CmdService, AnswersEachRequestAsTheTableSays)
{
    RegTestCmds();
    std::istringstream table(ReadData("cmd_answers.txt"));
    size_t ulCases = 0;
    for (std::string line; std::getline(table, line);) {
        if (line.empty() || line[0] == '#')
            continue;
        std::vector<std::string> col;
        for (std::istringstream cells(line); std::getline(cells, col.emplace_back(), '\t');) {
        }
        ASSERT_GE(col.size(), 4u) << line;  // one empty behind the last
        const std::string expect = Unescape(col[2]);
        const bool bNone = expect == "(none)";
        const auto answer =
            Ask(static_cast<u32>(std::stoul(col[0], nullptr, 16)), Unescape(col[1]), bNone ? 200 : 2000);
        EXPECT_EQ(answer.value_or("(none)"), expect) << line;
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
        if (col.size() > 4) {
            EXPECT_LOG(cap_, col[3].substr(0, 3), "BP", col[3].substr(4));
        }
        ulCases++;
    }
    EXPECT_GE(ulCases, 25u);
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
