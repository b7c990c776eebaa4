// The ISP_ wrappers that change something on the way to the libc; the others pass through.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>

#include "ibp/isp_system.h"

TEST(ThinWrappers, FreeClearsTheVariableAndTheDeviationsFromTheLibc)
{
    ISP_free(nullptr);
    char *pc = static_cast<char *>(ISP_malloc(0, 16));
    ASSERT_NE(pc, nullptr);
    ISP_free(&pc);
    EXPECT_EQ(pc, nullptr);
    ISP_free(&pc);  // a second free of the cleared variable does nothing
    EXPECT_EQ(ISP_malloc(0, 0), nullptr);
    EXPECT_EQ(ISP_posix_memalign(0, nullptr, 16, 64), -1);
    void *pa = reinterpret_cast<void *>(1);  // a failure stores null and reports -1, never an error number
    EXPECT_EQ(ISP_posix_memalign(0, &pa, 64, SIZE_MAX - 4096), -1);
    EXPECT_EQ(pa, nullptr);
    EXPECT_EQ(ISP_inet_addr("") | ISP_inet_addr(nullptr), 0u);  // not INADDR_NONE
    EXPECT_EQ(ISP_inet_ntoa(nullptr), nullptr);

    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    fd_set rd;
    FD_ZERO(&rd);
    FD_SET(fds[0], &rd);
    EXPECT_EQ(ISP_select(fds[0] + 1, &rd, nullptr, nullptr, 0), 0);  // polls, nothing ready
    ASSERT_EQ(write(fds[1], "x", 1), 1);
    FD_SET(fds[0], &rd);
    EXPECT_EQ(ISP_select(fds[0] + 1, &rd, nullptr, nullptr, 1500), 1);  // split into seconds and microseconds
    errno = 0;
    EXPECT_EQ(ISP_select(fds[0] + 1, &rd, nullptr, nullptr, -1), -1);  // negative fields are refused
    EXPECT_EQ(errno, EINVAL);
    close(fds[0]);
    close(fds[1]);
}
