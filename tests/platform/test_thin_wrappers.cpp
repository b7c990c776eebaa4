// The ISP_ wrappers that change something on the way to the libc.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "harness/test_env.h"
#include "ibp/isp_system.h"

TEST(ThinMemory, FreeTakesTheAddressAndClearsIt)
{
    ISP_free(nullptr);
    void *p = nullptr;
    ISP_free(&p);
    EXPECT_EQ(p, nullptr);

    char *pc = static_cast<char *>(ISP_malloc(0, 16));
    ASSERT_NE(pc, nullptr);
    ISP_free(&pc);
    EXPECT_EQ(pc, nullptr);
    ISP_free(&pc);  // a second free of the cleared variable does nothing
}

TEST(ThinMemory, AllocatorDeviations)
{
    EXPECT_EQ(ISP_malloc(0, 0), nullptr);
    void *pz = ISP_calloc(0, 1, 0);  // whatever calloc(1, 0) gives; it must be freeable
    ISP_free(&pz);

    EXPECT_EQ(ISP_posix_memalign(0, nullptr, 16, 64), -1);
    void *pa = reinterpret_cast<void *>(1);
    EXPECT_EQ(ISP_posix_memalign(0, &pa, 64, 100), 0);
    ASSERT_NE(pa, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(pa) % 64, 0u);
    ISP_free(&pa);

    // A failed allocation stores null and reports -1, never an error number.
    void *pf = reinterpret_cast<void *>(1);
    EXPECT_EQ(ISP_posix_memalign(0, &pf, 64, SIZE_MAX - 4096), -1);
    EXPECT_EQ(pf, nullptr);

    char buf[4] = {1, 2, 3, 4};
    EXPECT_EQ(ISP_memzero(buf, 3), buf);
    EXPECT_EQ(buf[0] | buf[1] | buf[2], 0);
    EXPECT_EQ(buf[3], 4);
}

TEST(ThinText, FormattedFrontsAndCharacterClasses)
{
    char out[8];
    EXPECT_EQ(ISP_snprintf(out, sizeof(out), "%d-%s", 42, "abcdefgh"), 11);
    EXPECT_STREQ(out, "42-abcd");
    int a = 0;
    char word[8] = {};
    EXPECT_EQ(ISP_sscanf("17 beta", "%d %7s", &a, word), 2);
    EXPECT_EQ(a, 17);
    EXPECT_STREQ(word, "beta");

    EXPECT_NE(ISP_isalpha('q'), 0);
    EXPECT_EQ(ISP_isalpha('7'), 0);
    EXPECT_NE(ISP_isalnum('7'), 0);
    EXPECT_EQ(ISP_isalnum('-'), 0);
}

TEST(ThinNet, AddressTextAndByteOrder)
{
    EXPECT_EQ(ISP_inet_addr(""), 0u);
    EXPECT_EQ(ISP_inet_addr(nullptr), 0u);
    EXPECT_EQ(ISP_inet_addr("not an address"), INADDR_NONE);
    EXPECT_EQ(ISP_inet_addr("127.0.0.1"), ISP_htonl(0x7f000001));
    EXPECT_EQ(ISP_inet_ntoa(nullptr), nullptr);
    struct in_addr addr;
    addr.s_addr = ISP_htonl(0xc0a80102);
    EXPECT_STREQ(ISP_inet_ntoa(&addr), "192.168.1.2");

    EXPECT_EQ(ISP_htons(0x1234), 0x3412);
    EXPECT_EQ(ISP_ntohs(0xff00), 0x00ff);
    EXPECT_EQ(ISP_htonl(0x11223344), 0x44332211u);
    for (u32 v : {0u, 1u, 0x80000000u, 0xdf122335u, 0xffffffffu})
        EXPECT_EQ(ISP_ntohl(ISP_htonl(v)), v);
    EXPECT_EQ(ISP_IsBigEndian(), 0u);
}

TEST(ThinNet, SelectTakesMilliseconds)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    fd_set rd;
    FD_ZERO(&rd);
    FD_SET(fds[0], &rd);
    EXPECT_EQ(ISP_select(fds[0] + 1, &rd, nullptr, nullptr, 0), 0);  // polls, nothing ready
    ASSERT_EQ(write(fds[1], "x", 1), 1);
    FD_SET(fds[0], &rd);
    EXPECT_EQ(ISP_select(fds[0] + 1, &rd, nullptr, nullptr, 1500), 1);
    FD_SET(fds[0], &rd);
    errno = 0;
    EXPECT_EQ(ISP_select(fds[0] + 1, &rd, nullptr, nullptr, -1), -1);  // negative fields are refused
    EXPECT_EQ(errno, EINVAL);
    close(fds[0]);
    close(fds[1]);
}

TEST(ThinFiles, VariadicArgumentsPassThrough)
{
    IBP_REQUIRE_ISOLATION();
    mode_t old = ISP_umask(0);
    int fd = ISP_open("/tmp/thin_open", O_CREAT | O_WRONLY | O_TRUNC, 0640);
    ISP_umask(old);
    ASSERT_GE(fd, 0);
    struct stat st;
    ASSERT_EQ(ISP_fstat(fd, &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);
    int fl = ISP_fcntl(fd, F_GETFL);
    EXPECT_EQ(ISP_fcntl(fd, F_SETFL, fl | O_NONBLOCK), 0);
    EXPECT_NE(ISP_fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(ISP_close(fd), 0);
    EXPECT_EQ(ISP_unlink("/tmp/thin_open"), 0);

    ISP_setlasterr(0);
    EXPECT_EQ(ISP_open("/tmp/does/not/exist", O_RDONLY), -1);
    EXPECT_EQ(ISP_getlasterr(), ENOENT);
    ISP_setlasterr(EAGAIN);
    EXPECT_EQ(errno, EAGAIN);
}
