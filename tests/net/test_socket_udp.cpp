// UDP endpoints: options, binding, the global list and its display, the descriptor
// limit, the MAC address helper; null and dead handles are in tests/abi/test_misuse.cpp.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "harness/log_capture.h"
#include "harness/sockets.h"
#include "harness/test_env.h"
#include "ibp/isp_socket.h"

namespace {

using ibptest::SockOpt;

SKT_SOCK_INFO_S UdpInfo(u32 enRole, const char *pcLocalIp, u16 usLocalPort)
{
    // Buffer sizes are a TCP matter: a UDP endpoint must leave the system's.
    return {0, enRole, inet_addr(pcLocalIp), htons(usLocalPort), inet_addr("127.0.0.1"), htons(7002),
            4096, 4096, 0, 2000};
}

struct Udp {
    explicit Udp(const SKT_SOCK_INFO_S &stInfo) : h(SKT_UdpInit(&stInfo)) {}
    ~Udp() { if (h != nullptr) SKT_UdpDestroy(&h); }
    SKT_HANDLE h;
};

int LowestFreeFd() { int fd = dup(0); close(fd); return fd; }  // the descriptor the next socket gets

std::string Display(u32 ulCap = 8192)
{
    std::vector<char> buf(ulCap + 1, '\0');
    u32 ulLen = ulCap;
    EXPECT_EQ(0u, SKT_PrintSock(&ulLen, buf.data()));
    EXPECT_EQ(strlen(buf.data()), ulLen);
    return buf.data();
}

TEST(SocketUdp, OptionsBindingDisplayAndABindFailureThatLeavesTheListAsItWas)
{
    IBP_REQUIRE_ISOLATION();
    int plain = socket(AF_INET, SOCK_DGRAM, 0);
    const int lDefSnd = SockOpt(plain, SOL_SOCKET, SO_SNDBUF), lDefRcv = SockOpt(plain, SOL_SOCKET, SO_RCVBUF);
    close(plain);
    const u32 ulLo = inet_addr("127.0.0.1");
    Udp srv(UdpInfo(SKT_ROLE_SERVER, "127.0.0.1", 7001)),
        cli({0x90000002, SKT_ROLE_CLIENT, ulLo, htons(7001), inet_addr("127.0.0.9"), htons(65535), 4096, 4096, 0, -1});
    for (Udp *pU : {&srv, &cli}) {
        ASSERT_NE(nullptr, pU->h);
        SCOPED_TRACE(pU->h->enRole);
        s32 fd = SKT_GetSocketFD(pU->h);
        EXPECT_NE(0, fcntl(fd, F_GETFL) & O_NONBLOCK);
        EXPECT_EQ(1, SockOpt(fd, SOL_SOCKET, SO_REUSEADDR));
        EXPECT_EQ(lDefSnd, SockOpt(fd, SOL_SOCKET, SO_SNDBUF));
        EXPECT_EQ(lDefRcv, SockOpt(fd, SOL_SOCKET, SO_RCVBUF));
        struct sockaddr_in stAddr = {};
        socklen_t len = sizeof(stAddr);
        ASSERT_EQ(0, getsockname(fd, reinterpret_cast<sockaddr *>(&stAddr), &len));
        const bool bServer = pU == &srv;  // only the server binds
        EXPECT_EQ(bServer ? ulLo : 0u, stAddr.sin_addr.s_addr);
        EXPECT_EQ(bServer ? htons(7001) : 0, stAddr.sin_port);
    }
    const auto fd = [](SKT_HANDLE h) { std::string s = std::to_string(SKT_GetSocketFD(h)); return s.resize(10, ' '), s; };
    const std::string sHead = "SocketFd   ModuleID   IPAddr           Port     TCP/UDP    "
                              "Server/Client    Status     Timeout(ms) \n";
    const std::string sAll =  // newest first
        sHead + fd(cli.h) + " 0x90000002 127.0.0.9        65535    UDP        Client           0          -1         \n" +
        fd(srv.h) + " 0          127.0.0.1        7002     UDP        Server           0          2000       \n";
    EXPECT_EQ(sAll, Display());
    const int lFree = LowestFreeFd();
    ibptest::LogCapture cap;
    const SKT_SOCK_INFO_S stAway = UdpInfo(SKT_ROLE_SERVER, "192.0.2.1", 7009);  // not in this namespace
    EXPECT_EQ(nullptr, SKT_UdpInit(&stAway));
    EXPECT_LOG(cap, "ERR", "BP", "bind socket failed! error:Cannot assign requested address lSocket:" +
                                     std::to_string(lFree) + " localip:192.0.2.1 port:7009");
    EXPECT_EQ(sAll, Display());
    EXPECT_EQ(lFree, LowestFreeFd());
    for (Udp *pU : {&srv, &cli}) {
        SKT_HANDLE h = pU->h;
        s32 fd = SKT_GetSocketFD(h);
        SKT_UdpDestroy(&pU->h);
        EXPECT_EQ(h, std::exchange(pU->h, nullptr));  // the caller's variable is left as it was
        EXPECT_EQ(-1, fcntl(fd, F_GETFD));
    }
    EXPECT_EQ(sHead, Display());
}

TEST(SocketUdp, DescriptorsFrom1024AreRefused)
{
    struct rlimit stOld = {};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &stOld));
    if (stOld.rlim_max != RLIM_INFINITY && stOld.rlim_max < 1100)
        GTEST_SKIP() << "descriptor limit " << stOld.rlim_max << " too low to reach 1024";
    struct rlimit stNew = {1100, stOld.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &stNew));
    struct Fds : std::vector<int> { ~Fds() { for (int fd : *this) close(fd); } } fds;  // all free ones below 1024
    while (fds.empty() || (fds.back() >= 0 && fds.back() < 1023))
        fds.push_back(open("/dev/null", O_RDONLY));
    ASSERT_EQ(1023, fds.back());
    ibptest::LogCapture cap;
    SKT_SOCK_INFO_S stInfo = UdpInfo(SKT_ROLE_CLIENT, "127.0.0.1", 0);
    EXPECT_EQ(nullptr, SKT_UdpInit(&stInfo));
    auto recs = cap.Records();
    ASSERT_EQ(2u, recs.size()) << cap.Dump();
    EXPECT_EQ(0u, recs[0].text.rfind("create socket failed! error:", 0)) << recs[0].text;
    EXPECT_NE(std::string::npos, recs[0].text.find(" socket:1024")) << recs[0].text;
    EXPECT_EQ("SKT_CreateSocket() failed!", recs[1].text);
    EXPECT_EQ(-1, fcntl(1024, F_GETFD));  // closed again
    close(1023);
    fds.pop_back();
    Udp ok(stInfo);
    EXPECT_EQ(1023, ok.h == nullptr ? -1 : SKT_GetSocketFD(ok.h));
    setrlimit(RLIMIT_NOFILE, &stOld);
}

TEST(SocketArgs, UnknownInterfacesAndAPolledBlockWithoutDescriptor)
{
    IBP_REQUIRE_ISOLATION();
    Udp u(UdpInfo(SKT_ROLE_CLIENT, "127.0.0.1", 0));
    ASSERT_NE(nullptr, u.h);
    u8 aucMac[6] = {0xaa, 0xaa, 0xaa, 0xaa, 0xaa, 0xaa};
    ibptest::LogCapture cap;
    EXPECT_EQ(1u, SKT_GetMacAddr("nosuchif0", aucMac));  // no record: a missing interface is no fault
    EXPECT_EQ(1u, SKT_GetMacAddr("lo-and-some-more-text", aucMac));  // cut to 15: still no interface
    EXPECT_EQ(std::vector<u8>(6, 0xaa), std::vector<u8>(aucMac, aucMac + 6));
    EXPECT_EQ(0u, SKT_GetMacAddr("lo", aucMac));
    EXPECT_EQ(std::vector<u8>(6, 0), std::vector<u8>(aucMac, aucMac + 6));
    EXPECT_EQ(0u, cap.Records().size());
    SKT_HANDLE ah[2] = {u.h, u.h};
    const s32 lFd = std::exchange(u.h->lSocket, -1);
    EXPECT_EQ(1u, SKT_TcpPollSock(2, ah, 10));
    u.h->lSocket = lFd;
    EXPECT_EQ(1u, cap.Count("ERR", "BP", "i:0 lSocket:-1 illegal")) << cap.Dump();  // the first bad one
    EXPECT_EQ(1u, cap.Records().size()) << cap.Dump();
}

}  // namespace
