// TCP endpoints on loopback: the step-wise connect and accept, polling with
// its restart rules, sending with a retry budget, receiving, dead peers.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "harness/log_capture.h"
#include "harness/test_env.h"
#include "ibp/isp_socket.h"

namespace {

constexpr u16 kPort = 7101;
constexpr u16 kDeadPort = 7102;

SKT_SOCK_INFO_S TcpInfo(u32 enRole, u16 usPort, s32 lTimeOut = 5000)
{
    SKT_SOCK_INFO_S stInfo = {};
    stInfo.ulModuleID = 0x90000002;
    stInfo.enRole = enRole;
    stInfo.ulLocalIp = inet_addr("127.0.0.1");
    stInfo.usLocalPort = htons(usPort);
    stInfo.ulRemoteIp = inet_addr("127.0.0.1");
    stInfo.usRemotePort = htons(usPort);
    stInfo.ulBacklog = 5;
    stInfo.lTimeOut = lTimeOut;
    return stInfo;
}

// Destroys the endpoint at the end of the test unless the test did.
struct Tcp {
    explicit Tcp(const SKT_SOCK_INFO_S &stInfo) : h(SKT_TcpInit(&stInfo)) {}
    ~Tcp() { Close(); }
    void Close()
    {
        if (h != nullptr)
            SKT_TcpDestroy(&h);
        h = nullptr;
    }
    Tcp(const Tcp &) = delete;
    Tcp &operator=(const Tcp &) = delete;
    SKT_HANDLE h;
};

int IntOption(int fd, int level, int name)
{
    int value = -1;
    socklen_t len = sizeof(value);
    EXPECT_EQ(0, getsockopt(fd, level, name, &value, &len));
    return value;
}

// A connected client and server on loopback, driven through SKT_TcpConnect.
struct Pair {
    explicit Pair(s32 lTimeOut = 5000, u32 ulSndBuf = 0, u32 ulRcvBuf = 0)
        : srv(WithBuffers(TcpInfo(SKT_ROLE_SERVER, kPort, lTimeOut), 0, ulRcvBuf)),
          cli(WithBuffers(TcpInfo(SKT_ROLE_CLIENT, kPort, lTimeOut), ulSndBuf, 0))
    {
        if (srv.h == nullptr || cli.h == nullptr)
            return;
        if (SKT_TcpConnect(cli.h) != 0)
            SKT_TcpConnect(cli.h);
        SKT_TcpConnect(srv.h);
    }
    static SKT_SOCK_INFO_S WithBuffers(SKT_SOCK_INFO_S stInfo, u32 ulSnd, u32 ulRcv)
    {
        stInfo.ulSndBufSize = ulSnd;
        stInfo.ulRcvBufSize = ulRcv;
        return stInfo;
    }
    bool Up() const
    {
        return srv.h != nullptr && cli.h != nullptr && srv.h->enSockStatus == SKT_STATUS_CONNECTED &&
               cli.h->enSockStatus == SKT_STATUS_CONNECTED;
    }
    Tcp srv;
    Tcp cli;
};

// Records whose text starts with `prefix`, in order.
std::vector<std::string> TextsWithPrefix(const ibptest::LogCapture &cap, const std::string &prefix,
                                         const std::string &level)
{
    std::vector<std::string> out;
    for (const auto &rec : cap.Records())
        if (rec.level == level && rec.text.compare(0, prefix.size(), prefix) == 0)
            out.push_back(rec.text);
    return out;
}

TEST(TcpConnect, ClientThroughInProgressAndServerAccept)
{
    IBP_REQUIRE_ISOLATION();
    Tcp srv(TcpInfo(SKT_ROLE_SERVER, kPort));
    Tcp cli(TcpInfo(SKT_ROLE_CLIENT, kPort));
    ASSERT_NE(nullptr, srv.h);
    ASSERT_NE(nullptr, cli.h);
    EXPECT_EQ(static_cast<u32>(SKT_STATUS_LISTENING), srv.h->enSockStatus);
    EXPECT_EQ(static_cast<u32>(SKT_STATUS_CREATED), cli.h->enSockStatus);
    EXPECT_EQ(SKT_PROTO_TCP, cli.h->ulProto);
    s32 lListen = SKT_GetSocketFD(srv.h);
    // The fixed options of a TCP socket.
    for (s32 fd : {lListen, cli.h->lSocket}) {
        EXPECT_NE(0, fcntl(fd, F_GETFL) & O_NONBLOCK);
        EXPECT_EQ(1, IntOption(fd, SOL_SOCKET, SO_REUSEADDR));
        EXPECT_NE(0, IntOption(fd, IPPROTO_TCP, TCP_NODELAY));
        EXPECT_EQ(1, IntOption(fd, SOL_SOCKET, SO_KEEPALIVE));
        struct linger stLinger = {-1, -1};
        socklen_t len = sizeof(stLinger);
        ASSERT_EQ(0, getsockopt(fd, SOL_SOCKET, SO_LINGER, &stLinger, &len));
        EXPECT_EQ(0, stLinger.l_onoff);
    }

    ibptest::LogCapture cap;
    // Loopback reports EINPROGRESS for a non-blocking connect.
    u32 ulFirst = SKT_TcpConnect(cli.h);
    if (ulFirst == 0) {
        EXPECT_EQ(static_cast<u32>(SKT_STATUS_CONNECTED), cli.h->enSockStatus);
    } else {
        EXPECT_EQ(static_cast<u32>(SKT_STATUS_CONNECTING), cli.h->enSockStatus);
        EXPECT_EQ(0u, SKT_TcpConnect(cli.h));  // the handshake needs no accept
        EXPECT_EQ(static_cast<u32>(SKT_STATUS_CONNECTED), cli.h->enSockStatus);
    }

    EXPECT_EQ(0u, SKT_TcpConnect(srv.h));
    EXPECT_EQ(static_cast<u32>(SKT_STATUS_CONNECTED), srv.h->enSockStatus);
    EXPECT_EQ(lListen, srv.h->lListenSocket);
    s32 lConn = SKT_GetSocketFD(srv.h);
    EXPECT_NE(lListen, lConn);
    EXPECT_EQ(1u, cap.CountPrefix("accept a connection(ip:127.0.0.1, port:")) << cap.Dump();
    // The remote address of the record is not replaced by the peer's.
    EXPECT_EQ(htons(kPort), srv.h->usRemotePort);
    // The accepted descriptor keeps the system's blocking default.
    EXPECT_EQ(0, fcntl(lConn, F_GETFL) & O_NONBLOCK);

    cap.Clear();
    EXPECT_EQ(0u, SKT_TcpConnect(srv.h));
    EXPECT_EQ(0u, SKT_TcpConnect(cli.h));
    EXPECT_EQ(0u, cap.Records().size());

    srv.Close();
    EXPECT_EQ(-1, fcntl(lListen, F_GETFD));
    EXPECT_EQ(-1, fcntl(lConn, F_GETFD));
}

TEST(TcpConnect, ClientWhoseConnectSucceedsAtOnce)
{
    IBP_REQUIRE_ISOLATION();
    Tcp srv(TcpInfo(SKT_ROLE_SERVER, kPort));
    Tcp cli(TcpInfo(SKT_ROLE_CLIENT, kPort));
    ASSERT_NE(nullptr, cli.h);
    if (SKT_TcpConnect(cli.h) == 0)
        SUCCEED() << "connected at once on the first call";
    else {
        // Once the handshake is through, connect() on the socket reports
        // success right away: drive the first step again from status 1.
        struct pollfd stPfd = {cli.h->lSocket, POLLOUT, 0};
        ASSERT_EQ(1, poll(&stPfd, 1, -1));
        cli.h->enSockStatus = SKT_STATUS_CREATED;
        EXPECT_EQ(0u, SKT_TcpConnect(cli.h));
    }
    EXPECT_EQ(static_cast<u32>(SKT_STATUS_CONNECTED), cli.h->enSockStatus);
}

TEST(TcpConnect, NobodyListening)
{
    IBP_REQUIRE_ISOLATION();
    Tcp cli(TcpInfo(SKT_ROLE_CLIENT, kDeadPort));
    ASSERT_NE(nullptr, cli.h);
    ibptest::LogCapture cap;
    EXPECT_EQ(1u, SKT_TcpConnect(cli.h));
    if (cli.h->enSockStatus == SKT_STATUS_CREATED) {
        EXPECT_EQ(0u, cap.Records().size());  // an immediate refusal is not logged
        return;
    }
    ASSERT_EQ(static_cast<u32>(SKT_STATUS_CONNECTING), cli.h->enSockStatus);
    EXPECT_EQ(1u, SKT_TcpConnect(cli.h));
    EXPECT_EQ(static_cast<u32>(SKT_STATUS_CONNECTING), cli.h->enSockStatus);
    EXPECT_LOG(cap, "DBG", "BP", "Failed to connect the host(ip:127.0.0.1 port:7102) errno:Connection refused.");
}

TEST(TcpConnect, ServerWithNobodyCallingTimesOutAndStaysListening)
{
    IBP_REQUIRE_ISOLATION();
    Tcp srv(TcpInfo(SKT_ROLE_SERVER, kPort, 30));
    ASSERT_NE(nullptr, srv.h);
    ibptest::LogCapture cap;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(1u, SKT_TcpConnect(srv.h));
        EXPECT_EQ(static_cast<u32>(SKT_STATUS_LISTENING), srv.h->enSockStatus);
    }
    char acText[128];
    snprintf(acText, sizeof(acText), "no connect info received! lSocket:%d ulModuleID:0x90000002 lTimeOut:30",
             srv.h->lSocket);
    EXPECT_EQ(2u, cap.Count("DBG", "BP", acText)) << cap.Dump();
    EXPECT_EQ(-1, srv.h->lListenSocket);
}

TEST(TcpConnect, WrongStatesAreRefused)
{
    IBP_REQUIRE_ISOLATION();
    SKT_SOCK_INFO_S stInfo = TcpInfo(SKT_ROLE_SERVER, kPort);
    SKT_HANDLE hUdp = SKT_UdpInit(&stInfo);
    ASSERT_NE(nullptr, hUdp);
    ibptest::LogCapture cap;
    EXPECT_EQ(1u, SKT_TcpConnect(hUdp));
    EXPECT_LOG(cap, "WRN", "BP", "socket status 0 error!");
    hUdp->enSockStatus = SKT_STATUS_CLOSED;
    EXPECT_EQ(1u, SKT_TcpConnect(hUdp));
    EXPECT_LOG(cap, "WRN", "BP", "socket status 5 error!");
    EXPECT_EQ(1u, SKT_TcpConnect(nullptr));
    EXPECT_LOG(cap, "ERR", "BP", "pstSocketCB is NULL");
    SKT_UdpDestroy(&hUdp);
}

TEST(TcpInit, ListenOnAPortInUseFailsCleanly)
{
    IBP_REQUIRE_ISOLATION();
    Tcp first(TcpInfo(SKT_ROLE_SERVER, kPort));
    ASSERT_NE(nullptr, first.h);
    ibptest::LogCapture cap;
    Tcp second(TcpInfo(SKT_ROLE_SERVER, kPort));
    EXPECT_EQ(nullptr, second.h);
    EXPECT_EQ(1u, cap.CountPrefix("bind socket failed! error:Address already in use lSocket:")) << cap.Dump();
    EXPECT_EQ(nullptr, SKT_TcpInit(nullptr));
    EXPECT_LOG(cap, "ERR", "BP", "pstSockInfo is NULL");
    SKT_TcpDestroy(nullptr);
    EXPECT_LOG(cap, "ERR", "BP", "phSocket is NULL");
}

// ---- receiving

TEST(TcpRecv, PartialReceiveLeavesTheRestForTheNextCall)
{
    IBP_REQUIRE_ISOLATION();
    ibptest::LogCapture cap;
    Pair p;
    ASSERT_TRUE(p.Up());
    std::vector<u8> data(100);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<u8>(i);
    u32 ulRetry = 0, ulSleep = 0;
    ASSERT_EQ(100, SKT_TcpSend(p.cli.h, 100, data.data(), &ulRetry, &ulSleep));

    u8 aucBuf[200] = {};
    u32 ulLen = 10;
    ASSERT_EQ(0u, SKT_TcpRecv(p.srv.h, 1, &ulLen, aucBuf));
    EXPECT_EQ(10u, ulLen);
    EXPECT_EQ(0, memcmp(aucBuf, data.data(), 10));
    u32 ulTotal = 10;
    while (ulTotal < 100) {
        ulLen = sizeof(aucBuf) - (ulTotal - 10);
        ASSERT_EQ(0u, SKT_TcpRecv(p.srv.h, 1, &ulLen, aucBuf + ulTotal - 10));
        ulTotal += ulLen;
    }
    EXPECT_EQ(100u, ulTotal);
    EXPECT_EQ(0, memcmp(aucBuf, data.data() + 10, 90));
    EXPECT_EQ(static_cast<u32>(SKT_STATUS_CONNECTED), p.srv.h->enSockStatus);
}

TEST(TcpRecv, PeerThatClosedIsMarkedClosed)
{
    IBP_REQUIRE_ISOLATION();
    ibptest::LogCapture cap;
    Pair p;
    ASSERT_TRUE(p.Up());
    p.cli.Close();
    cap.Clear();
    u8 aucBuf[16];
    u32 ulLen = sizeof(aucBuf);
    EXPECT_EQ(1u, SKT_TcpRecv(p.srv.h, 1, &ulLen, aucBuf));
    EXPECT_EQ(static_cast<u32>(SKT_STATUS_CLOSED), p.srv.h->enSockStatus);
    EXPECT_EQ(1u, TextsWithPrefix(cap, "Socket received no data, error:", "DBG").size()) << cap.Dump();

    // From here on the connection is only good for destroying.
    cap.Clear();
    s32 fd = p.srv.h->lSocket;
    char acText[96];
    u32 ulRetry = 0, ulSleep = 0;
    EXPECT_EQ(-1, SKT_TcpSend(p.srv.h, 4, aucBuf, &ulRetry, &ulSleep));
    snprintf(acText, sizeof(acText), "Param illegal! enSockStatus:5 lSocket:%d", fd);
    EXPECT_LOG(cap, "ERR", "BP", acText);
    EXPECT_EQ(1u, SKT_TcpRecv(p.srv.h, 1, &ulLen, aucBuf));
    snprintf(acText, sizeof(acText), "Param illegal, enSockStatus:5, lSocket:%d", fd);
    EXPECT_LOG(cap, "ERR", "BP", acText);
    EXPECT_EQ(1u, SKT_TcpConnect(p.srv.h));
    EXPECT_LOG(cap, "WRN", "BP", "socket status 5 error!");
}

TEST(TcpRecv, QuietPeerWithWaitKeepsTheConnection)
{
    IBP_REQUIRE_ISOLATION();
    ibptest::LogCapture cap;
    Pair p(30);
    ASSERT_TRUE(p.Up());
    cap.Clear();
    u8 aucBuf[16];
    u32 ulLen = sizeof(aucBuf);
    EXPECT_EQ(1u, SKT_TcpRecv(p.srv.h, 1, &ulLen, aucBuf));
    EXPECT_EQ(static_cast<u32>(SKT_STATUS_CONNECTED), p.srv.h->enSockStatus);
    EXPECT_LOG(cap, "ERR", "BP", "SKT_TcpPollSock() failed, ulModuleID:0x90000002, lTimeOut:30");
    // Without waiting, a quiet connection looks like a dead one.
    EXPECT_EQ(1u, SKT_TcpRecv(p.srv.h, 0, &ulLen, aucBuf));
    EXPECT_EQ(static_cast<u32>(SKT_STATUS_CLOSED), p.srv.h->enSockStatus);
}

TEST(TcpRecv, BadArguments)
{
    IBP_REQUIRE_ISOLATION();
    Tcp cli(TcpInfo(SKT_ROLE_CLIENT, kPort));
    ASSERT_NE(nullptr, cli.h);
    u8 aucBuf[4];
    u32 ulLen = sizeof(aucBuf), ulZero = 0;
    ibptest::LogCapture cap;
    EXPECT_EQ(1u, SKT_TcpRecv(nullptr, 0, &ulLen, aucBuf));
    EXPECT_LOG(cap, "ERR", "BP", "pstSocketCB is NULL");
    EXPECT_EQ(1u, SKT_TcpRecv(cli.h, 0, nullptr, aucBuf));
    EXPECT_LOG(cap, "ERR", "BP", "pulDataLen is NULL");
    EXPECT_EQ(1u, SKT_TcpRecv(cli.h, 0, &ulLen, nullptr));
    EXPECT_LOG(cap, "ERR", "BP", "pucBuf is NULL");
    EXPECT_EQ(1u, SKT_TcpRecv(cli.h, 0, &ulZero, aucBuf));
    EXPECT_LOG(cap, "ERR", "BP", "Param illegal, datalen is 0");
    EXPECT_EQ(1u, SKT_TcpRecv(cli.h, 0, &ulLen, aucBuf));
    EXPECT_EQ(1u, cap.CountPrefix("Param illegal, enSockStatus:1, lSocket:"));
    EXPECT_EQ(static_cast<u32>(SKT_STATUS_CREATED), cli.h->enSockStatus);
}

// ---- sending

TEST(TcpSend, BudgetAgainstAStalledPeer)
{
    IBP_REQUIRE_ISOLATION();
    // Small buffers on both ends, and the server never reads.
    ibptest::LogCapture cap;
    Pair p(5000, 4096, 4096);
    ASSERT_TRUE(p.Up());
    constexpr u32 kLen = 4u << 20;
    std::vector<u8> data(kLen);
    for (u32 i = 0; i < kLen; ++i)
        data[i] = static_cast<u8>(i * 13 + (i >> 9));
    u32 ulRetry = 2, ulSleep = 1;
    s32 lSent;
    {
        cap.Clear();
        lSent = SKT_TcpSend(p.cli.h, kLen, data.data(), &ulRetry, &ulSleep);
        ASSERT_GT(lSent, 0);
        ASSERT_LT(lSent, static_cast<s32>(kLen));
        auto dbg = TextsWithPrefix(cap, "send() failed! lSocket:", "DBG");
        ASSERT_GE(dbg.size(), 3u) << cap.Dump();
        // Every stall starts with the full budget, and each retry takes one.
        int lExpect = 2;
        for (const std::string &sText : dbg) {
            unsigned ulLeftRetry = 99;
            ASSERT_EQ(1, sscanf(strstr(sText.c_str(), "ulRetryNum:"), "ulRetryNum:%u", &ulLeftRetry)) << sText;
            EXPECT_TRUE(static_cast<int>(ulLeftRetry) == lExpect || ulLeftRetry == 2) << sText;
            lExpect = static_cast<int>(ulLeftRetry) - 1;
            EXPECT_NE(std::string::npos, sText.find(" ulSleepTime:1 ")) << sText;
            EXPECT_NE(std::string::npos, sText.find(" error(11):")) << sText;
        }
        // The last stall: three attempts in a row, two sleeps.
        size_t n = dbg.size();
        EXPECT_NE(std::string::npos, dbg[n - 3].find("ulRetryNum:2 "));
        EXPECT_NE(std::string::npos, dbg[n - 2].find("ulRetryNum:1 "));
        EXPECT_NE(std::string::npos, dbg[n - 1].find("ulRetryNum:0 "));
        auto err = TextsWithPrefix(cap, "send() failed! lSocket:", "ERR");
        ASSERT_EQ(1u, err.size());
        char acTail[96];
        snprintf(acTail, sizeof(acTail), " ulDataLen:%u ulLeft:%u error(11):", kLen, kLen - static_cast<u32>(lSent));
        EXPECT_NE(std::string::npos, err[0].find(acTail)) << err[0];
    }
    EXPECT_EQ(static_cast<u32>(SKT_STATUS_CONNECTED), p.cli.h->enSockStatus);

    // What was reported as sent arrives, in order and nothing more.
    std::vector<u8> got(static_cast<size_t>(lSent) + 1);
    u32 ulTotal = 0;
    while (ulTotal < static_cast<u32>(lSent)) {
        u32 ulLen = static_cast<u32>(got.size()) - ulTotal;
        ASSERT_EQ(0u, SKT_TcpRecv(p.srv.h, 1, &ulLen, got.data() + ulTotal));
        ulTotal += ulLen;
    }
    EXPECT_EQ(static_cast<u32>(lSent), ulTotal);
    EXPECT_EQ(0, memcmp(got.data(), data.data(), ulTotal));
    int lWaiting = -1;
    ASSERT_EQ(0, ioctl(p.srv.h->lSocket, FIONREAD, &lWaiting));
    EXPECT_EQ(0, lWaiting);
}

TEST(TcpSend, ZeroSleepMeansTwentyAndZeroBudgetGivesUpAtOnce)
{
    IBP_REQUIRE_ISOLATION();
    ibptest::LogCapture cap;
    Pair p(5000, 4096, 4096);
    ASSERT_TRUE(p.Up());
    std::vector<u8> data(4u << 20, 0x5a);
    u32 ulRetry = 0, ulSleep = 0;
    cap.Clear();
    s32 lSent = SKT_TcpSend(p.cli.h, static_cast<u32>(data.size()), data.data(), &ulRetry, &ulSleep);
    EXPECT_LT(lSent, static_cast<s32>(data.size()));
    auto dbg = TextsWithPrefix(cap, "send() failed! lSocket:", "DBG");
    ASSERT_EQ(1u, dbg.size()) << cap.Dump();
    EXPECT_NE(std::string::npos, dbg[0].find(" ulRetryNum:0 ulSleepTime:20 ")) << dbg[0];
}

TEST(TcpSend, RefusedWhenNotConnectedAndOnBadArguments)
{
    IBP_REQUIRE_ISOLATION();
    Tcp cli(TcpInfo(SKT_ROLE_CLIENT, kPort));
    ASSERT_NE(nullptr, cli.h);
    u8 aucBuf[4] = {};
    u32 ulRetry = 1, ulSleep = 1;
    ibptest::LogCapture cap;
    EXPECT_EQ(-1, SKT_TcpSend(cli.h, 4, aucBuf, &ulRetry, &ulSleep));
    EXPECT_EQ(1u, cap.CountPrefix("Param illegal! enSockStatus:1 lSocket:"));
    EXPECT_EQ(-1, SKT_TcpSend(nullptr, 4, aucBuf, &ulRetry, &ulSleep));
    EXPECT_LOG(cap, "ERR", "BP", "pstSocketCB is NULL!");
    EXPECT_EQ(1, SKT_TcpSend(cli.h, 4, nullptr, &ulRetry, &ulSleep));
    EXPECT_LOG(cap, "ERR", "BP", "pucBuf is NULL");
    EXPECT_EQ(1, SKT_TcpSend(cli.h, 4, aucBuf, nullptr, &ulSleep));
    EXPECT_LOG(cap, "ERR", "BP", "pulRetryNum is NULL");
    EXPECT_EQ(1, SKT_TcpSend(cli.h, 4, aucBuf, &ulRetry, nullptr));
    EXPECT_LOG(cap, "ERR", "BP", "pulSleepTime is NULL");
}

TEST(TcpSend, ClosedPeerGivesAnErrorNotASignal)
{
    IBP_REQUIRE_ISOLATION();
    ibptest::LogCapture cap;
    Pair p;
    ASSERT_TRUE(p.Up());
    // The default action of SIGPIPE would end this test program.
    struct sigaction stOld = {};
    struct sigaction stDfl = {};
    stDfl.sa_handler = SIG_DFL;
    sigaction(SIGPIPE, &stDfl, &stOld);
    p.srv.Close();
    u8 aucBuf[64] = {};
    u32 ulRetry = 0, ulSleep = 1;
    // The first send reaches a closed socket, which answers with a reset.
    ASSERT_EQ(1, SKT_TcpSend(p.cli.h, 1, aucBuf, &ulRetry, &ulSleep));
    struct pollfd stPfd = {p.cli.h->lSocket, 0, 0};
    ASSERT_EQ(1, poll(&stPfd, 1, -1));
    cap.Clear();
    EXPECT_EQ(0, SKT_TcpSend(p.cli.h, sizeof(aucBuf), aucBuf, &ulRetry, &ulSleep));
    EXPECT_EQ(0, SKT_TcpSend(p.cli.h, sizeof(aucBuf), aucBuf, &ulRetry, &ulSleep));
    auto err = TextsWithPrefix(cap, "send() failed! lSocket:", "ERR");
    ASSERT_EQ(2u, err.size()) << cap.Dump();
    EXPECT_NE(std::string::npos, err[1].find(" ulDataLen:64 ulLeft:64 error(32):")) << err[1];
    // Sending never changes the status; only a receive finds the peer gone.
    EXPECT_EQ(static_cast<u32>(SKT_STATUS_CONNECTED), p.cli.h->enSockStatus);
    sigaction(SIGPIPE, &stOld, nullptr);
}

// ---- polling

SKT_SOCK_INFO_S UdpAt(u16 usPort)
{
    return TcpInfo(SKT_ROLE_SERVER, usPort, 1000);
}

void SendDatagram(u16 usPort)
{
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    struct sockaddr_in stAddr = {};
    stAddr.sin_family = AF_INET;
    stAddr.sin_addr.s_addr = inet_addr("127.0.0.1");
    stAddr.sin_port = htons(usPort);
    EXPECT_EQ(1, sendto(fd, "x", 1, 0, reinterpret_cast<sockaddr *>(&stAddr), sizeof(stAddr)));
    close(fd);
}

// UDP endpoints on three ports, destroyed at the end.
struct ThreeUdp {
    ThreeUdp()
    {
        for (u16 i = 0; i < 3; ++i) {
            SKT_SOCK_INFO_S stInfo = UdpAt(static_cast<u16>(7201 + i));
            ah[i] = SKT_UdpInit(&stInfo);
        }
    }
    ~ThreeUdp()
    {
        for (SKT_HANDLE &h : ah)
            if (h != nullptr)
                SKT_UdpDestroy(&h);
    }
    SKT_HANDLE ah[3] = {};
};

TEST(TcpPoll, OneReadyOfThreeAndEveryResultStored)
{
    IBP_REQUIRE_ISOLATION();
    ThreeUdp s;
    for (SKT_HANDLE h : s.ah) {
        ASSERT_NE(nullptr, h);
        h->usEvents = POLLIN;
        h->usREvents = 0xffff;
    }
    SendDatagram(7202);
    EXPECT_EQ(0u, SKT_TcpPollSock(3, s.ah, 1000));
    EXPECT_EQ(0, s.ah[0]->usREvents);
    EXPECT_EQ(POLLIN, s.ah[1]->usREvents);
    EXPECT_EQ(0, s.ah[2]->usREvents);
    // Nothing there: the plain time-out is not logged.
    char c;
    ASSERT_EQ(1, recv(s.ah[1]->lSocket, &c, 1, 0));
    ibptest::LogCapture cap;
    EXPECT_EQ(1u, SKT_TcpPollSock(3, s.ah, 10));
    EXPECT_EQ(0u, cap.Records().size());
}

TEST(TcpPoll, BadListsAreRefused)
{
    IBP_REQUIRE_ISOLATION();
    ThreeUdp s;
    ibptest::LogCapture cap;
    EXPECT_EQ(1u, SKT_TcpPollSock(0, s.ah, 10));
    EXPECT_LOG(cap, "ERR", "BP", "invalid socket number");
    s32 lSaved = s.ah[1]->lSocket;
    s.ah[1]->lSocket = -1;
    EXPECT_EQ(1u, SKT_TcpPollSock(3, s.ah, 10));
    EXPECT_LOG(cap, "ERR", "BP", "i:1 lSocket:-1 illegal");
    s.ah[1]->lSocket = lSaved;
    SKT_HANDLE ahHole[2] = {s.ah[0], nullptr};
    EXPECT_EQ(1u, SKT_TcpPollSock(2, ahHole, 10));
    EXPECT_LOG(cap, "ERR", "BP", "pstSocketCB is NULL");
}

TEST(TcpPoll, OnlyEventsNotAskedForRunOutTheTimeOut)
{
    IBP_REQUIRE_ISOLATION();
    // An unconnected TCP socket polls as hung up, never as readable.
    Tcp cli(TcpInfo(SKT_ROLE_CLIENT, kPort, 20));
    ASSERT_NE(nullptr, cli.h);
    cli.h->usEvents = POLLIN;
    SKT_HANDLE ah[1] = {cli.h};
    ibptest::LogCapture cap;
    EXPECT_EQ(1u, SKT_TcpPollSock(1, ah, 20));
    EXPECT_NE(0, cli.h->usREvents & POLLHUP);
    EXPECT_LOG(cap, "DBG", "BP", "Poll handle timeout!");
}

// ---- interruptions

sem_t gSignalSeen;
void OnSignal(int) { sem_post(&gSignalSeen); }

bool IsSleeping(pid_t tid)
{
    char acPath[64];
    snprintf(acPath, sizeof(acPath), "/proc/self/task/%d/stat", static_cast<int>(tid));
    FILE *fp = fopen(acPath, "r");
    if (fp == nullptr)
        return false;
    char acLine[512] = {};
    bool bSleep = fgets(acLine, sizeof(acLine), fp) != nullptr && strstr(acLine, ") S ") != nullptr;
    fclose(fp);
    return bSleep;
}

// Runs SKT_TcpPollSock on another thread, interrupts it with a signal once
// that thread sleeps, then calls `after`; returns the poll's result.
template <typename F>
u32 PollInterrupted(SKT_HANDLE h, s32 lTimeOut, F after)
{
    sem_t stDone;
    sem_init(&stDone, 0, 0);
    sem_init(&gSignalSeen, 0, 0);
    struct sigaction stAct = {};
    struct sigaction stOld = {};
    stAct.sa_handler = OnSignal;  // no SA_RESTART: poll fails with EINTR
    sigemptyset(&stAct.sa_mask);
    sigaction(SIGUSR1, &stAct, &stOld);
    std::atomic<pid_t> tid{0};
    u32 ulRet = 99;
    std::thread waiter([&] {
        tid = static_cast<pid_t>(syscall(SYS_gettid));
        SKT_HANDLE ah[1] = {h};
        ulRet = SKT_TcpPollSock(1, ah, lTimeOut);
        sem_post(&stDone);
    });
    while (tid == 0 || !IsSleeping(tid))
        std::this_thread::yield();
    pthread_kill(waiter.native_handle(), SIGUSR1);
    sem_wait(&gSignalSeen);
    after();
    // Should the thread have slept somewhere before its poll, the signal
    // missed the poll: signal again until the waiter is through.
    for (;;) {
        struct timespec stUntil;
        clock_gettime(CLOCK_REALTIME, &stUntil);
        stUntil.tv_nsec += 200 * 1000 * 1000;
        if (stUntil.tv_nsec >= 1000000000) {
            stUntil.tv_sec += 1;
            stUntil.tv_nsec -= 1000000000;
        }
        if (sem_timedwait(&stDone, &stUntil) == 0)
            break;
        pthread_kill(waiter.native_handle(), SIGUSR1);
    }
    waiter.join();
    sigaction(SIGUSR1, &stOld, nullptr);
    sem_destroy(&gSignalSeen);
    sem_destroy(&stDone);
    return ulRet;
}

TEST(TcpPoll, InterruptedWaitStartsAgain)
{
    IBP_REQUIRE_ISOLATION();
    ThreeUdp s;
    ASSERT_NE(nullptr, s.ah[0]);
    s.ah[0]->usEvents = POLLIN;
    ibptest::LogCapture cap;
    EXPECT_EQ(0u, PollInterrupted(s.ah[0], 60000, [] { SendDatagram(7201); }));
    EXPECT_EQ(POLLIN, s.ah[0]->usREvents);
    EXPECT_EQ(0u, cap.Records().size()) << cap.Dump();
}

TEST(TcpPoll, InterruptedEndlessWaitEndsAtOnce)
{
    IBP_REQUIRE_ISOLATION();
    ThreeUdp s;
    ASSERT_NE(nullptr, s.ah[0]);
    s.ah[0]->usEvents = POLLIN;
    ibptest::LogCapture cap;
    EXPECT_EQ(1u, PollInterrupted(s.ah[0], -1, [] {}));
    EXPECT_LOG(cap, "DBG", "BP", "Poll handle timeout!");
}

}  // namespace
