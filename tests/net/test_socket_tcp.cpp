// TCP endpoints on loopback: step-wise connect and accept, polling, sending with a retry budget, dead peers.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "harness/log_capture.h"
#include "harness/sockets.h"
#include "harness/test_env.h"
#include "ibp/isp_socket.h"

namespace {

using ibptest::SockOpt;

constexpr u16 kPort = 7101;
constexpr u32 kCreated = SKT_STATUS_CREATED, kConnecting = SKT_STATUS_CONNECTING,
              kListening = SKT_STATUS_LISTENING, kConnected = SKT_STATUS_CONNECTED, kClosed = SKT_STATUS_CLOSED;

struct Tcp {  // destroyed at the end of the test unless the test did
    explicit Tcp(u32 enRole, s32 lTimeOut = 5000, u16 usPort = kPort, u32 ulBufSize = 0)
    {
        const u32 ulIp = inet_addr("127.0.0.1");
        const SKT_SOCK_INFO_S stInfo = {0x90000002, enRole, ulIp, htons(usPort), ulIp, htons(usPort),
                                        ulBufSize, ulBufSize, 5, lTimeOut};
        h = SKT_TcpInit(&stInfo);
    }
    ~Tcp() { Close(); }
    void Close() { if (h != nullptr) SKT_TcpDestroy(&h); h = nullptr; }
    SKT_HANDLE h;
};

// A client and a server connected through SKT_TcpConnect.
struct Pair {
    explicit Pair(s32 lTimeOut = 5000, u32 ulBufSize = 0)
        : srv(SKT_ROLE_SERVER, lTimeOut, kPort, ulBufSize), cli(SKT_ROLE_CLIENT, lTimeOut, kPort, ulBufSize)
    {
        if (srv.h != nullptr && cli.h != nullptr && (SKT_TcpConnect(cli.h) == 0 || SKT_TcpConnect(cli.h) == 0))
            SKT_TcpConnect(srv.h);
    }
    bool Up() const { return srv.h && cli.h && srv.h->enSockStatus == kConnected && cli.h->enSockStatus == kConnected; }
    Tcp srv, cli;
};

TEST(TcpConnect, ClientAtOnceOrThroughInProgressAndServerAccept)
{
    IBP_REQUIRE_ISOLATION();
    Tcp srv(SKT_ROLE_SERVER), cli(SKT_ROLE_CLIENT);
    ASSERT_TRUE(srv.h && cli.h);
    EXPECT_EQ(kListening, srv.h->enSockStatus);
    EXPECT_EQ(kCreated, cli.h->enSockStatus);
    const s32 lListen = SKT_GetSocketFD(srv.h);
    for (s32 fd : {lListen, cli.h->lSocket}) {
        EXPECT_NE(0, fcntl(fd, F_GETFL) & O_NONBLOCK);
        EXPECT_EQ(1, SockOpt(fd, SOL_SOCKET, SO_REUSEADDR));
        EXPECT_LT(0, SockOpt(fd, IPPROTO_TCP, TCP_NODELAY));
        EXPECT_EQ(1, SockOpt(fd, SOL_SOCKET, SO_KEEPALIVE));
    }
    ibptest::LogCapture cap;
    // Loopback mostly answers a non-blocking connect with EINPROGRESS.
    if (SKT_TcpConnect(cli.h) != 0) {
        EXPECT_EQ(kConnecting, cli.h->enSockStatus);
        EXPECT_EQ(0u, SKT_TcpConnect(cli.h));  // the handshake needs no accept
    }
    EXPECT_EQ(kConnected, cli.h->enSockStatus);

    EXPECT_EQ(0u, SKT_TcpConnect(srv.h));
    EXPECT_EQ(kConnected, srv.h->enSockStatus);
    EXPECT_EQ(lListen, srv.h->lListenSocket);
    const s32 lConn = SKT_GetSocketFD(srv.h);
    EXPECT_NE(lListen, lConn);
    EXPECT_EQ(htons(kPort), srv.h->usRemotePort);  // not replaced by the peer's
    cap.Clear();
    EXPECT_EQ(0u, SKT_TcpConnect(srv.h));  // connected: nothing to do
    EXPECT_EQ(0u, SKT_TcpConnect(cli.h));
    EXPECT_EQ(0u, cap.Records().size());
    srv.Close();
    EXPECT_EQ(-1, fcntl(lListen, F_GETFD));
    EXPECT_EQ(-1, fcntl(lConn, F_GETFD));
}

TEST(TcpConnect, FailedStepsKeepTheirStatus)
{
    IBP_REQUIRE_ISOLATION();
    Tcp dead(SKT_ROLE_CLIENT, 5000, kPort + 1), srv(SKT_ROLE_SERVER, 30);
    ASSERT_TRUE(dead.h && srv.h);
    ibptest::LogCapture cap;
    // Unconnected, it polls as hung up, never as readable: news not asked for runs out the time-out.
    dead.h->usEvents = POLLIN;
    EXPECT_EQ(1u, SKT_TcpPollSock(1, &dead.h, 20));
    EXPECT_NE(0, dead.h->usREvents & POLLHUP);
    cap.Clear();
    // Nobody listening: refused at once without a record, or on the second step.
    EXPECT_EQ(1u, SKT_TcpConnect(dead.h));
    if (dead.h->enSockStatus == kCreated) {
        EXPECT_EQ(0u, cap.Records().size());
    } else {
        EXPECT_EQ(1u, SKT_TcpConnect(dead.h));
        EXPECT_EQ(kConnecting, dead.h->enSockStatus);
    }
    // Nobody calling: the step waits out the time-out and stays listening.
    EXPECT_EQ(1u, SKT_TcpConnect(srv.h));
    EXPECT_EQ(kListening, srv.h->enSockStatus);
    EXPECT_EQ(1u, cap.Count("DBG", "BP", "no connect info received! lSocket:" + std::to_string(srv.h->lSocket) +
                                             " ulModuleID:0x90000002 lTimeOut:30")) << cap.Dump();
    EXPECT_EQ(-1, srv.h->lListenSocket);
}

TEST(TcpRecv, PartialReceiveQuietPeerAndClosedPeer)
{
    IBP_REQUIRE_ISOLATION();
    ibptest::LogCapture cap;
    Pair p(30);
    ASSERT_TRUE(p.Up());
    u8 aucData[100], aucBuf[200] = {};
    for (u32 i = 0; i < sizeof(aucData); ++i)
        aucData[i] = static_cast<u8>(i + 1);
    u32 ulRetry = 0, ulSleep = 1, ulLen = 10;
    ASSERT_EQ(100, SKT_TcpSend(p.cli.h, 100, aucData, &ulRetry, &ulSleep));
    // Both ends polled at once: each keeps its own result.
    SKT_HANDLE ah[2] = {p.cli.h, p.srv.h};
    p.cli.h->usEvents = p.srv.h->usEvents = POLLIN;
    p.cli.h->usREvents = 0xffff;
    EXPECT_EQ(0u, SKT_TcpPollSock(2, ah, 1000));
    EXPECT_EQ(0, p.cli.h->usREvents);
    EXPECT_EQ(POLLIN, p.srv.h->usREvents);
    ASSERT_EQ(0u, SKT_TcpRecv(p.srv.h, 1, &ulLen, aucBuf));
    EXPECT_EQ(10u, ulLen);
    for (u32 ulTotal = 10; ulTotal < 100; ulTotal += ulLen) {  // the other 90 wait for the next calls
        ulLen = sizeof(aucBuf) - ulTotal;
        ASSERT_EQ(0u, SKT_TcpRecv(p.srv.h, 1, &ulLen, aucBuf + ulTotal));
    }
    EXPECT_EQ(0, memcmp(aucBuf, aucData, 100));
    // Waiting on a quiet peer keeps the connection; without a wait it looks dead.
    cap.Clear();
    EXPECT_EQ(1u, SKT_TcpRecv(p.srv.h, 1, &ulLen, aucBuf));
    EXPECT_EQ(kConnected, p.srv.h->enSockStatus);
    EXPECT_LOG(cap, "ERR", "BP", "SKT_TcpPollSock() failed, ulModuleID:0x90000002, lTimeOut:30");
    EXPECT_EQ(1u, cap.Records().size()) << cap.Dump();  // the poll's own time-out is not logged
    EXPECT_EQ(1u, SKT_TcpRecv(p.cli.h, 0, &ulLen, aucBuf));
    EXPECT_EQ(kClosed, p.cli.h->enSockStatus);

    // A closed peer: the first send draws a reset, later ones fail without SIGPIPE (which would end this program).
    const sighandler_t pfnOld = signal(SIGPIPE, SIG_DFL);
    p.cli.Close();
    ASSERT_EQ(1, SKT_TcpSend(p.srv.h, 1, aucBuf, &ulRetry, &ulSleep));
    struct pollfd stPfd = {p.srv.h->lSocket, 0, 0};
    ASSERT_EQ(1, poll(&stPfd, 1, -1));
    cap.Clear();
    EXPECT_EQ(0, SKT_TcpSend(p.srv.h, 64, aucBuf, &ulRetry, &ulSleep));
    EXPECT_EQ(0, SKT_TcpSend(p.srv.h, 64, aucBuf, &ulRetry, &ulSleep));
    signal(SIGPIPE, pfnOld);
    const std::string sFd = std::to_string(p.srv.h->lSocket);
    const auto lines = cap.Lines();
    EXPECT_EQ(2, std::count_if(lines.begin(), lines.end(), [](auto &l) { return l.starts_with("ERR BP send() "); }));
    EXPECT_EQ(lines.back(), "ERR BP send() failed! lSocket:" + sFd + " ulDataLen:64 ulLeft:64 error(32):" + strerror(EPIPE));
    EXPECT_EQ(kConnected, p.srv.h->enSockStatus);  // sending never changes the status
    cap.Clear();
    ulLen = sizeof(aucBuf);
    EXPECT_EQ(1u, SKT_TcpRecv(p.srv.h, 1, &ulLen, aucBuf));
    EXPECT_EQ(kClosed, p.srv.h->enSockStatus);
    // From here on the connection is only good for destroying.
    EXPECT_EQ(-1, SKT_TcpSend(p.srv.h, 4, aucBuf, &ulRetry, &ulSleep));
    EXPECT_LOG(cap, "ERR", "BP", "Param illegal! enSockStatus:5 lSocket:" + sFd);
    EXPECT_EQ(1u, SKT_TcpRecv(p.srv.h, 1, &ulLen, aucBuf));
    EXPECT_LOG(cap, "ERR", "BP", "Param illegal, enSockStatus:5, lSocket:" + sFd);
    EXPECT_EQ(1u, SKT_TcpConnect(p.srv.h));
    EXPECT_LOG(cap, "WRN", "BP", "socket status 5 error!");
}

TEST(TcpSend, BudgetAgainstAStalledPeer)
{
    IBP_REQUIRE_ISOLATION();
    ibptest::LogCapture cap;
    Pair p(5000, 4096);  // small buffers, and the server does not read yet
    ASSERT_TRUE(p.Up());
    constexpr u32 kLen = 4u << 20;
    std::vector<u8> data(kLen);
    for (u32 i = 0; i < kLen; ++i)
        data[i] = static_cast<u8>(i * 13 + (i >> 9));
    const std::string sFd = std::to_string(p.cli.h->lSocket), sAgain = std::string(" error(11):") + strerror(EAGAIN);
    u32 ulRetry = 2, ulSleep = 1, ulNone = 0;
    cap.Clear();
    const s32 lSent = SKT_TcpSend(p.cli.h, kLen, data.data(), &ulRetry, &ulSleep);
    ASSERT_GT(lSent, 0);
    ASSERT_LT(lSent, static_cast<s32>(kLen));
    // Each stall starts with the whole budget and each retry takes one: the last stall ends with 2, 1, 0.
    const auto lines = cap.Lines();
    ASSERT_GE(lines.size(), 4u) << cap.Dump();
    const std::string sStall = "DBG BP send() failed! lSocket:" + sFd + " lRet:-1 ulRetryNum:";
    unsigned ulBudget = 99, ulExpect = 2, ulLeft = 0;
    for (size_t i = 0; i + 1 < lines.size(); i++) {
        ASSERT_TRUE(lines[i].starts_with(sStall) && lines[i].ends_with(sAgain)) << lines[i];
        ASSERT_EQ(2, sscanf(lines[i].c_str() + sStall.size(), "%u ulSleepTime:1 ulLeft:%u", &ulBudget, &ulLeft));
        EXPECT_TRUE(ulBudget == ulExpect || ulBudget == 2) << lines[i];
        ulExpect = ulBudget - 1;
    }
    EXPECT_EQ(0u, ulBudget);
    EXPECT_EQ(kLen - lSent, ulLeft);
    EXPECT_EQ(lines.back(), "ERR BP send() failed! lSocket:" + sFd + " ulDataLen:" + std::to_string(kLen) +
                                " ulLeft:" + std::to_string(ulLeft) + sAgain);
    // A budget of 0 gives up at the first EAGAIN; a sleep time of 0 stands for 20.
    cap.Clear();
    const s32 lMore = SKT_TcpSend(p.cli.h, kLen - lSent, data.data() + lSent, &ulNone, &ulNone);
    const std::string sLeft = std::to_string(kLen - lSent - lMore);
    EXPECT_EQ(cap.Lines(), (std::vector<std::string>{sStall + "0 ulSleepTime:20 ulLeft:" + sLeft + sAgain,
                                                     "ERR BP send() failed! lSocket:" + sFd + " ulDataLen:" +
                                                         std::to_string(kLen - lSent) + " ulLeft:" + sLeft + sAgain}));

    // What was reported as sent arrives, in order and nothing more.
    const u32 ulSent = static_cast<u32>(lSent + lMore);
    std::vector<u8> got(ulSent + 1);
    for (u32 ulTotal = 0, ulLen; ulTotal < ulSent; ulTotal += ulLen) {
        ulLen = static_cast<u32>(got.size()) - ulTotal;
        ASSERT_EQ(0u, SKT_TcpRecv(p.srv.h, 1, &ulLen, got.data() + ulTotal));
        ASSERT_LE(ulTotal + ulLen, ulSent);
    }
    EXPECT_EQ(0, memcmp(got.data(), data.data(), ulSent));
    int lWaiting = -1;
    ASSERT_EQ(0, ioctl(p.srv.h->lSocket, FIONREAD, &lWaiting));
    EXPECT_EQ(0, lWaiting);
}

}  // namespace
