// Socket control blocks and UDP endpoints: fixed options, binding, the global
// list and its display, the descriptor limit, the MAC address helper.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "harness/log_capture.h"
#include "harness/test_env.h"
#include "ibp/isp_socket.h"

namespace {

SKT_SOCK_INFO_S UdpInfo(u32 enRole, const char *pcLocalIp, u16 usLocalPort, u32 ulModuleID = 0)
{
    SKT_SOCK_INFO_S stInfo = {};
    stInfo.ulModuleID = ulModuleID;
    stInfo.enRole = enRole;
    stInfo.ulLocalIp = inet_addr(pcLocalIp);
    stInfo.usLocalPort = htons(usLocalPort);
    stInfo.ulRemoteIp = inet_addr("127.0.0.1");
    stInfo.usRemotePort = htons(7002);
    stInfo.lTimeOut = 2000;
    return stInfo;
}

struct Udp {
    explicit Udp(const SKT_SOCK_INFO_S &stInfo) : h(SKT_UdpInit(&stInfo)) {}
    ~Udp() { if (h != nullptr) SKT_UdpDestroy(&h); }
    SKT_HANDLE h;
};

int SockOption(int fd, int name)
{
    int value = -1;
    socklen_t len = sizeof(value);
    EXPECT_EQ(0, getsockopt(fd, SOL_SOCKET, name, &value, &len));
    return value;
}

// The descriptor the next socket would get.
int LowestFreeFd()
{
    int fd = dup(0);
    close(fd);
    return fd;
}

std::string Display(u32 ulCap = 8192)
{
    std::vector<char> buf(ulCap + 1, '\0');
    u32 ulLen = ulCap;
    EXPECT_EQ(0u, SKT_PrintSock(&ulLen, buf.data()));
    EXPECT_EQ(strlen(buf.data()), ulLen);
    return buf.data();
}

const std::string kHeading =
    "SocketFd   ModuleID   IPAddr           Port     TCP/UDP    Server/Client    Status     Timeout(ms) \n";

TEST(SocketUdp, NonBlockingWithReuseAddrAndOnlyTheServerBinds)
{
    IBP_REQUIRE_ISOLATION();
    int plain = socket(AF_INET, SOCK_DGRAM, 0);
    const int lDefSnd = SockOption(plain, SO_SNDBUF), lDefRcv = SockOption(plain, SO_RCVBUF);
    close(plain);
    for (u32 enRole : {SKT_ROLE_SERVER, SKT_ROLE_CLIENT}) {
        SKT_SOCK_INFO_S stInfo = UdpInfo(enRole, "127.0.0.1", 7001);
        stInfo.ulSndBufSize = stInfo.ulRcvBufSize = 4096;  // a TCP matter: ignored here
        Udp u(stInfo);
        ASSERT_NE(nullptr, u.h);
        s32 fd = SKT_GetSocketFD(u.h);
        EXPECT_NE(0, fcntl(fd, F_GETFL) & O_NONBLOCK);
        EXPECT_EQ(1, SockOption(fd, SO_REUSEADDR));
        EXPECT_EQ(lDefSnd, SockOption(fd, SO_SNDBUF));
        EXPECT_EQ(lDefRcv, SockOption(fd, SO_RCVBUF));
        struct sockaddr_in stAddr = {};
        socklen_t len = sizeof(stAddr);
        ASSERT_EQ(0, getsockname(fd, reinterpret_cast<sockaddr *>(&stAddr), &len));
        bool bServer = enRole == SKT_ROLE_SERVER;
        EXPECT_EQ(bServer ? inet_addr("127.0.0.1") : 0u, stAddr.sin_addr.s_addr) << enRole;
        EXPECT_EQ(bServer ? htons(7001) : 0, stAddr.sin_port) << enRole;
    }
}

TEST(SocketUdp, BindFailureLeavesTheListAsItWasAndDestroyCloses)
{
    IBP_REQUIRE_ISOLATION();
    Udp keep(UdpInfo(SKT_ROLE_SERVER, "127.0.0.1", 7001));
    ASSERT_NE(nullptr, keep.h);
    const std::string sBefore = Display();
    const int lFree = LowestFreeFd();
    ibptest::LogCapture cap;
    SKT_SOCK_INFO_S stInfo = UdpInfo(SKT_ROLE_SERVER, "192.0.2.1", 7009);  // not in this namespace
    EXPECT_EQ(nullptr, SKT_UdpInit(&stInfo));
    char acText[128];
    snprintf(acText, sizeof(acText),
             "bind socket failed! error:Cannot assign requested address lSocket:%d localip:192.0.2.1 port:7009", lFree);
    EXPECT_LOG(cap, "ERR", "BP", acText);
    EXPECT_EQ(sBefore, Display());
    EXPECT_EQ(lFree, LowestFreeFd());

    SKT_HANDLE h = keep.h;
    s32 fd = SKT_GetSocketFD(h);
    SKT_UdpDestroy(&keep.h);
    EXPECT_EQ(h, keep.h);  // the caller's variable is left as it was
    keep.h = nullptr;
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
    EXPECT_EQ(kHeading, Display());
}

TEST(SocketUdp, AbsentArguments)
{
    ibptest::LogCapture cap;
    EXPECT_EQ(nullptr, SKT_UdpInit(nullptr));
    EXPECT_LOG(cap, "ERR", "BP", "pstSockInfo is NULL");
    EXPECT_EQ(-1, SKT_GetSocketFD(nullptr));
    EXPECT_LOG(cap, "ERR", "BP", "pstSocketCB is NULL");
    SKT_UdpDestroy(nullptr);
    EXPECT_LOG(cap, "ERR", "BP", "phSocket is NULL");
    SKT_HANDLE hNone = nullptr;
    SKT_UdpDestroy(&hNone);
    EXPECT_LOG(cap, "ERR", "BP", "*ppstSocketCB is NULL");
}

TEST(SocketUdp, DescriptorsFrom1024AreRefused)
{
    struct rlimit stOld = {};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &stOld));
    if (stOld.rlim_max != RLIM_INFINITY && stOld.rlim_max < 1100)
        GTEST_SKIP() << "descriptor limit " << stOld.rlim_max << " too low to reach 1024";
    struct rlimit stNew = stOld;
    stNew.rlim_cur = 1100;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &stNew));
    struct Fill {  // every free descriptor up to 1023, released at the end
        std::vector<int> fds;
        ~Fill() { for (int fd : fds) close(fd); }
    } fill;
    int fd;
    while ((fd = open("/dev/null", O_RDONLY)) >= 0 && fd < 1024)
        fill.fds.push_back(fd);
    if (fd >= 0)
        close(fd);
    ASSERT_EQ(1023, fill.fds.back());
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
    fill.fds.pop_back();
    {
        Udp ok(stInfo);
        EXPECT_EQ(1023, ok.h == nullptr ? -1 : SKT_GetSocketFD(ok.h));
    }
    setrlimit(RLIMIT_NOFILE, &stOld);
}

TEST(SocketMac, LoopbackHasTheZeroAddressAndUnknownNamesFail)
{
    IBP_REQUIRE_ISOLATION();
    u8 aucMac[6] = {0xaa, 0xaa, 0xaa, 0xaa, 0xaa, 0xaa};
    ibptest::LogCapture cap;
    EXPECT_EQ(1u, SKT_GetMacAddr("nosuchif0", aucMac));
    EXPECT_EQ(1u, SKT_GetMacAddr("lo-and-some-more-text", aucMac));  // cut to 15: still no interface
    EXPECT_EQ(0u, cap.Records().size());  // a missing interface is no logged fault
    EXPECT_EQ(std::vector<u8>(6, 0xaa), std::vector<u8>(aucMac, aucMac + 6));
    EXPECT_EQ(0u, SKT_GetMacAddr("lo", aucMac));
    EXPECT_EQ(std::vector<u8>(6, 0), std::vector<u8>(aucMac, aucMac + 6));
    EXPECT_EQ(1u, SKT_GetMacAddr(nullptr, nullptr));
    EXPECT_LOG(cap, "ERR", "BP", "pcNetName is NULL!");
    EXPECT_EQ(1u, SKT_GetMacAddr("lo", nullptr));
    EXPECT_LOG(cap, "ERR", "BP", "pucMacAddr is NULL!");
}

TEST(SocketPrint, NewestFirstBehindTheTextAndCutToCapacity)
{
    IBP_REQUIRE_ISOLATION();
    Udp lib(UdpInfo(SKT_ROLE_SERVER, "127.0.0.1", 7001, 0));
    SKT_SOCK_INFO_S stInfo = UdpInfo(SKT_ROLE_CLIENT, "127.0.0.1", 0, 0x90000002);
    stInfo.ulRemoteIp = inet_addr("127.0.0.9");
    stInfo.usRemotePort = htons(65535);
    stInfo.lTimeOut = -1;
    Udp app(stInfo);
    ASSERT_TRUE(lib.h != nullptr && app.h != nullptr);
    char acFds[2][16];
    snprintf(acFds[0], sizeof(acFds[0]), "%-10d", SKT_GetSocketFD(app.h));
    snprintf(acFds[1], sizeof(acFds[1]), "%-10d", SKT_GetSocketFD(lib.h));
    const std::string sAll =
        kHeading + acFds[0] + " 0x90000002 127.0.0.9        65535    UDP        Client           0          -1         \n" +
        acFds[1] + " 0          127.0.0.1        7002     UDP        Server           0          2000       \n";
    EXPECT_EQ(sAll, Display());
    EXPECT_EQ(sAll.substr(0, 119), Display(120));  // one byte goes to the terminator
    char acBuf[512] = "cbuf\n";
    u32 ulLen = sizeof(acBuf);
    EXPECT_EQ(0u, SKT_PrintSock(&ulLen, acBuf));
    EXPECT_EQ("cbuf\n" + sAll, std::string(acBuf));
    EXPECT_EQ(5u + sAll.size(), ulLen);
    ibptest::LogCapture cap;
    EXPECT_EQ(1u, SKT_PrintSock(nullptr, nullptr));
    EXPECT_LOG(cap, "ERR", "BP", "pulOutBufLen is NULL");
}

}  // namespace
