// Socket control blocks and UDP endpoints: fixed options, binding, the global
// list and its display, descriptor limits, the MAC address helper.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <dirent.h>
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
    stInfo.ulBacklog = 5;
    stInfo.lTimeOut = 2000;
    return stInfo;
}

// Destroys the endpoint at the end of the test.
struct Udp {
    explicit Udp(const SKT_SOCK_INFO_S &stInfo) : h(SKT_UdpInit(&stInfo)) {}
    ~Udp()
    {
        if (h != nullptr)
            SKT_UdpDestroy(&h);
    }
    Udp(const Udp &) = delete;
    Udp &operator=(const Udp &) = delete;
    SKT_HANDLE h;
};

int IntOption(int fd, int level, int name)
{
    int value = -1;
    socklen_t len = sizeof(value);
    EXPECT_EQ(0, getsockopt(fd, level, name, &value, &len));
    return value;
}

size_t OpenFdCount()
{
    size_t n = 0;
    DIR *dir = opendir("/proc/self/fd");
    if (dir == nullptr)
        return 0;
    while (readdir(dir) != nullptr)
        ++n;
    closedir(dir);
    return n;
}

std::string Display(u32 ulCap = 8192, u32 *pulLen = nullptr)
{
    std::vector<char> buf(ulCap + 1, '\0');
    u32 ulLen = ulCap;
    EXPECT_EQ(0u, SKT_PrintSock(&ulLen, buf.data()));
    EXPECT_EQ(strlen(buf.data()), ulLen);
    if (pulLen != nullptr)
        *pulLen = ulLen;
    return buf.data();
}

std::string PadRight(const std::string &s, size_t ulWidth)
{
    return s.size() >= ulWidth ? s : s + std::string(ulWidth - s.size(), ' ');
}

const std::string kHeading =
    "SocketFd   ModuleID   IPAddr           Port     TCP/UDP    Server/Client    Status     Timeout(ms) \n";

TEST(SocketUdp, ServerBindsLoopbackNonBlockingWithReuseAddr)
{
    IBP_REQUIRE_ISOLATION();
    Udp srv(UdpInfo(SKT_ROLE_SERVER, "127.0.0.1", 7001));
    ASSERT_NE(nullptr, srv.h);
    s32 fd = SKT_GetSocketFD(srv.h);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fd, srv.h->lSocket);
    EXPECT_NE(0, fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(1, IntOption(fd, SOL_SOCKET, SO_REUSEADDR));
    EXPECT_EQ(SOCK_DGRAM, IntOption(fd, SOL_SOCKET, SO_TYPE));
    struct sockaddr_in stAddr = {};
    socklen_t len = sizeof(stAddr);
    ASSERT_EQ(0, getsockname(fd, reinterpret_cast<sockaddr *>(&stAddr), &len));
    EXPECT_EQ(inet_addr("127.0.0.1"), stAddr.sin_addr.s_addr);
    EXPECT_EQ(htons(7001), stAddr.sin_port);
    EXPECT_EQ(SKT_PROTO_UDP, srv.h->ulProto);
    EXPECT_EQ(static_cast<u32>(SKT_STATUS_IDLE), srv.h->enSockStatus);
    EXPECT_EQ(-1, srv.h->lListenSocket);

    // The descriptor is what the runtime sends and receives on directly.
    int peer = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(peer, 0);
    ASSERT_EQ(5, sendto(peer, "hello", 5, 0, reinterpret_cast<sockaddr *>(&stAddr), sizeof(stAddr)));
    close(peer);
    char acBuf[16] = {};
    EXPECT_EQ(5, recv(fd, acBuf, sizeof(acBuf), 0));
    EXPECT_STREQ("hello", acBuf);
    EXPECT_EQ(-1, recv(fd, acBuf, sizeof(acBuf), 0));  // nothing left, and no blocking
    EXPECT_EQ(EAGAIN, errno);
}

TEST(SocketUdp, ClientDoesNotBindButHasTheSameOptions)
{
    IBP_REQUIRE_ISOLATION();
    Udp cli(UdpInfo(SKT_ROLE_CLIENT, "127.0.0.1", 7002));
    ASSERT_NE(nullptr, cli.h);
    s32 fd = SKT_GetSocketFD(cli.h);
    EXPECT_NE(0, fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(1, IntOption(fd, SOL_SOCKET, SO_REUSEADDR));
    struct sockaddr_in stAddr = {};
    socklen_t len = sizeof(stAddr);
    ASSERT_EQ(0, getsockname(fd, reinterpret_cast<sockaddr *>(&stAddr), &len));
    EXPECT_EQ(0, stAddr.sin_port);
}

TEST(SocketUdp, BufferSizesOfTheRecordAreIgnored)
{
    IBP_REQUIRE_ISOLATION();
    int plain = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(plain, 0);
    int lDefSnd = IntOption(plain, SOL_SOCKET, SO_SNDBUF);
    int lDefRcv = IntOption(plain, SOL_SOCKET, SO_RCVBUF);
    close(plain);
    SKT_SOCK_INFO_S stInfo = UdpInfo(SKT_ROLE_SERVER, "127.0.0.1", 7001);
    stInfo.ulSndBufSize = 4096;
    stInfo.ulRcvBufSize = 4096;
    Udp srv(stInfo);
    ASSERT_NE(nullptr, srv.h);
    EXPECT_EQ(0u, srv.h->ulSndBufSize);
    EXPECT_EQ(0u, srv.h->ulRcvBufSize);
    EXPECT_EQ(lDefSnd, IntOption(srv.h->lSocket, SOL_SOCKET, SO_SNDBUF));
    EXPECT_EQ(lDefRcv, IntOption(srv.h->lSocket, SOL_SOCKET, SO_RCVBUF));
}

TEST(SocketUdp, BindFailureLeavesNothingBehind)
{
    IBP_REQUIRE_ISOLATION();
    Udp keep(UdpInfo(SKT_ROLE_SERVER, "127.0.0.1", 7001));
    ASSERT_NE(nullptr, keep.h);
    std::string sBefore = Display();
    size_t ulFds = OpenFdCount();
    ibptest::LogCapture cap;
    // An address this namespace does not have (documentation range).
    SKT_SOCK_INFO_S stInfo = UdpInfo(SKT_ROLE_SERVER, "192.0.2.1", 7009);
    EXPECT_EQ(nullptr, SKT_UdpInit(&stInfo));
    EXPECT_EQ(1u, cap.CountPrefix("bind socket failed! error:Cannot assign requested address lSocket:")) << cap.Dump();
    auto recs = cap.Records();
    ASSERT_FALSE(recs.empty());
    const std::string &sText = recs.back().text;
    EXPECT_NE(std::string::npos, sText.find(" localip:192.0.2.1 port:7009")) << sText;
    EXPECT_EQ(sBefore, Display());
    EXPECT_EQ(ulFds, OpenFdCount());
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

TEST(SocketUdp, DestroyClosesTheDescriptorAndLeavesTheHandleVariable)
{
    IBP_REQUIRE_ISOLATION();
    SKT_SOCK_INFO_S stInfo = UdpInfo(SKT_ROLE_SERVER, "127.0.0.1", 7001);
    SKT_HANDLE h = SKT_UdpInit(&stInfo);
    ASSERT_NE(nullptr, h);
    s32 fd = SKT_GetSocketFD(h);
    SKT_HANDLE hCopy = h;
    SKT_UdpDestroy(&h);
    EXPECT_EQ(hCopy, h);
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
    EXPECT_EQ(kHeading, Display());
}

// Occupies every free descriptor below `limit` and releases them at the end.
class FdFiller {
public:
    explicit FdFiller(int limit)
    {
        for (;;) {
            int fd = open("/dev/null", O_RDONLY);
            if (fd < 0)
                break;
            if (fd >= limit) {
                close(fd);
                break;
            }
            fds.push_back(fd);
        }
    }
    ~FdFiller()
    {
        for (int fd : fds)
            close(fd);
    }
    std::vector<int> fds;
};

TEST(SocketUdp, DescriptorLimitIs1023)
{
    struct rlimit stOld = {};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &stOld));
    if (stOld.rlim_max != RLIM_INFINITY && stOld.rlim_max < 1100)
        GTEST_SKIP() << "descriptor limit " << stOld.rlim_max << " too low to reach 1024";
    struct rlimit stNew = stOld;
    stNew.rlim_cur = 1100;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &stNew));
    {
        FdFiller fill(1024);
        ASSERT_FALSE(fill.fds.empty());
        ASSERT_EQ(1023, fill.fds.back());
        ibptest::LogCapture cap;
        SKT_SOCK_INFO_S stInfo = UdpInfo(SKT_ROLE_CLIENT, "127.0.0.1", 0);
        EXPECT_EQ(nullptr, SKT_UdpInit(&stInfo));
        EXPECT_EQ(1u, cap.CountPrefix("create socket failed! error:")) << cap.Dump();
        EXPECT_EQ(1u, cap.Count("ERR", "BP", "SKT_CreateSocket() failed!"));
        auto recs = cap.Records();
        ASSERT_EQ(2u, recs.size());
        EXPECT_NE(std::string::npos, recs[0].text.find(" socket:1024")) << recs[0].text;
        EXPECT_EQ(-1, fcntl(1024, F_GETFD));  // closed again
        EXPECT_EQ(kHeading, Display());

        close(1023);
        fill.fds.pop_back();
        Udp ok(stInfo);
        ASSERT_NE(nullptr, ok.h);
        EXPECT_EQ(1023, SKT_GetSocketFD(ok.h));
    }
    setrlimit(RLIMIT_NOFILE, &stOld);
}

TEST(SocketMac, LoopbackHasTheZeroAddressAndUnknownNamesFail)
{
    IBP_REQUIRE_ISOLATION();
    u8 aucMac[6];
    memset(aucMac, 0xaa, sizeof(aucMac));
    ibptest::LogCapture cap;
    EXPECT_EQ(1u, SKT_GetMacAddr("nosuchif0", aucMac));
    EXPECT_EQ(0u, cap.Records().size());  // a missing interface is no logged fault
    for (u8 uc : aucMac)
        EXPECT_EQ(0xaa, uc);
    // A name longer than an interface name is cut, and here names nothing.
    EXPECT_EQ(1u, SKT_GetMacAddr("lo-and-some-more-text", aucMac));
    EXPECT_EQ(0u, SKT_GetMacAddr("lo", aucMac));
    for (u8 uc : aucMac)
        EXPECT_EQ(0, uc);

    EXPECT_EQ(1u, SKT_GetMacAddr(nullptr, aucMac));
    EXPECT_LOG(cap, "ERR", "BP", "pcNetName is NULL!");
    EXPECT_EQ(1u, SKT_GetMacAddr("lo", nullptr));
    EXPECT_LOG(cap, "ERR", "BP", "pucMacAddr is NULL!");
}

TEST(SocketPrint, NewestFirstWithModuleInHexAndRoleWords)
{
    IBP_REQUIRE_ISOLATION();
    Udp lib(UdpInfo(SKT_ROLE_SERVER, "127.0.0.1", 7001, 0));
    SKT_SOCK_INFO_S stInfo = UdpInfo(SKT_ROLE_CLIENT, "127.0.0.1", 0, 0x90000002);
    stInfo.ulRemoteIp = inet_addr("127.0.0.9");
    stInfo.usRemotePort = htons(65535);
    stInfo.lTimeOut = -1;
    Udp app(stInfo);
    ASSERT_NE(nullptr, lib.h);
    ASSERT_NE(nullptr, app.h);
    std::string sFdLib = PadRight(std::to_string(SKT_GetSocketFD(lib.h)), 10);
    std::string sFdApp = PadRight(std::to_string(SKT_GetSocketFD(app.h)), 10);
    EXPECT_EQ(kHeading +
                  sFdApp + " 0x90000002 127.0.0.9        65535    UDP        Client           0          -1         \n" +
                  sFdLib + " 0          127.0.0.1        7002     UDP        Server           0          2000       \n",
              Display());
}

TEST(SocketPrint, CutToCapacityAndAppendedBehindText)
{
    IBP_REQUIRE_ISOLATION();
    Udp lib(UdpInfo(SKT_ROLE_SERVER, "127.0.0.1", 7001));
    ASSERT_NE(nullptr, lib.h);
    std::string sFull = Display();
    u32 ulLen = 0;
    std::string sCut = Display(120, &ulLen);
    EXPECT_EQ(119u, ulLen);
    EXPECT_EQ(sFull.substr(0, 119), sCut);

    char acBuf[512] = "cbuf\n";
    ulLen = sizeof(acBuf);
    EXPECT_EQ(0u, SKT_PrintSock(&ulLen, acBuf));
    EXPECT_EQ("cbuf\n" + sFull, std::string(acBuf));
    EXPECT_EQ(5u + sFull.size(), ulLen);

    ibptest::LogCapture cap;
    EXPECT_EQ(1u, SKT_PrintSock(nullptr, acBuf));
    EXPECT_LOG(cap, "ERR", "BP", "pulOutBufLen is NULL");
    EXPECT_EQ(1u, SKT_PrintSock(&ulLen, nullptr));
    EXPECT_LOG(cap, "ERR", "BP", "pcOutBuf is NULL");
}

}  // namespace
