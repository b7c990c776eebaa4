// Two real processes on loopback: the block on the wire, and a burst of
// asynchronous records from the debug tool to the service.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <atomic>

#include "harness/log_capture.h"
#include "harness/test_env.h"
#include "runtime/transport_util.h"

using namespace ibptest;

// Runs first in this program: the debug tool's process module has not drawn
// an association identifier yet, as in a fresh process.
TEST(TwoProcesses, FirstCommandRequestOnTheWire)
{
    IBP_REQUIRE_ISOLATION();
    RawPeer service(7001);  // stands in for the service process
    ASSERT_TRUE(service.Bound());
    LogCapture cap;
    IBP_INIT_S st = StartRecord(1, LogCapture::Sink());
    ASSERT_EQ(IBP_Init(&st), 0u);
    MSG_HANDLE hReq = MSG_Create("dbgcmd", 7);
    MSG_HANDLE hAck = nullptr;
    // Nobody answers: the request is the runtime's after the time-out.
    EXPECT_EQ(MSG_SendSyncMsg(MOD_ID_ISP_CMD, 0x10001, hReq, 0, &hAck), 1u);
    Bytes wire = service.Recv();
    MOD_SysDestroy();
    IBP_Destroy();

    const Bytes expect = {0x35, 0x23, 0x12, 0xdf, 0, 0, 0, 0, 0x01, 0, 0x01, 0, 0, 0, 0, 0,
                          0x37, 0, 0, 0, 0x07, 0, 0, 0, 0xff, 0xff, 0xff, 0x9f, 0x02, 0, 0, 0x90,
                          0xfe, 0xff, 0xff, 0xbf, 0xff, 0xff, 0xff, 0xbf, 0, 0, 0, 0, 0, 0, 0xee, 0xee,
                          'd', 'b', 'g', 'c', 'm', 'd', 0};
    ASSERT_EQ(wire.size(), 55u);
    wire[46] = wire[47] = 0xee;  // reserved: any two bytes
    EXPECT_EQ(wire, expect);
}

namespace {

std::atomic<u32> gAsync{0};

u32 CountOrEcho(u32, MSG_HANDLE hMsg, void *)
{
    void *pBody = nullptr;
    u32 ulLen = 0;
    MSG_Decode(hMsg, &pBody, &ulLen);
    if (static_cast<MSG_HDR_S *>(hMsg->pMem)->enMsgType == MSG_TYPE_SYNC_REQ)
        ISP_SendAckMsg(hMsg, pBody, ulLen);
    else
        gAsync++;
    return 0;
}

// The debug tool side: 1,000 records, then one synchronous request whose
// echo says that everything before it has been through the service.
[[noreturn]] void DebugTool(int lReadyFd)
{
    IBP_INIT_S st = StartRecord(1, nullptr, 3);
    if (IBP_Init(&st) != 0)
        _exit(10);
    char c;
    if (read(lReadyFd, &c, 1) != 1)
        _exit(11);
    std::vector<u8> raw(ISP_MSG_HDR_LEN + 40, 0x5a);
    auto *pstMsg = reinterpret_cast<ISP_MSG_S *>(raw.data());
    pstMsg->ulDstModuleID = MOD_ID_ISP_IMG;
    pstMsg->ulMsgID = 0x20001;
    pstMsg->ulResult = 0;
    pstMsg->ulBodyLen = 40;
    for (int i = 0; i < 1000; i++)
        if (ISP_SendAsyncMsg(pstMsg) != 0)
            _exit(12);
    ISP_MSG_S *pstAck = nullptr;
    int lStatus = ISP_SendSyncMsg(pstMsg, 5000, &pstAck) == 0 && memcmp(pstAck, raw.data(), raw.size()) == 0 ? 0 : 13;
    ISP_free(&pstAck);
    MOD_SysDestroy();
    IBP_Destroy();
    _exit(lStatus);
}

}  // namespace

TEST(TwoProcesses, BurstOfAsyncRecordsArrivesWhole)
{
    IBP_REQUIRE_ISOLATION();
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t pid = fork();  // before the service starts any thread
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(fds[1]);
        DebugTool(fds[0]);
    }
    close(fds[0]);
    LogCapture cap(LOG_LEVEL_WRN);
    IBP_INIT_S st = StartRecord(0, LogCapture::Sink(), LOG_LEVEL_WRN);
    ASSERT_EQ(IBP_Init(&st), 0u);
    u32 ulImg = 0;
    ASSERT_EQ(MOD_RegModule("ISP_IMG", &ulImg), 0u);
    ASSERT_EQ(MOD_RegMsgProc(ulImg, 0, CountOrEcho, nullptr), 0u);
    ASSERT_EQ(write(fds[1], "go", 1), 1);
    int lStatus = -1;
    ASSERT_EQ(waitpid(pid, &lStatus, 0), pid);
    close(fds[1]);
    MOD_UnregModule(ulImg);
    MOD_SysDestroy();
    IBP_Destroy();
    ASSERT_TRUE(WIFEXITED(lStatus));
    EXPECT_EQ(WEXITSTATUS(lStatus), 0);
    EXPECT_EQ(gAsync.load(), 1000u) << cap.Dump();
}
