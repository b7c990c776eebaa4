// Files, directory trees, bounded searches, conversions and time of the ISP_
// layer.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "harness/test_env.h"
#include "ibp/isp_system.h"
#include "platform/isp_system_internal.h"

namespace {

bool IsDir(const std::string &path)
{
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool Exists(const std::string &path)
{
    struct stat st {};
    return lstat(path.c_str(), &st) == 0;
}

void WriteFile(const std::string &path, const std::string &data)
{
    FILE *fp = fopen(path.c_str(), "wb");
    ASSERT_NE(fp, nullptr) << path;
    ASSERT_EQ(fwrite(data.data(), 1, data.size(), fp), data.size());
    fclose(fp);
}

std::string ReadFile(const std::string &path)
{
    FILE *fp = fopen(path.c_str(), "rb");
    if (fp == nullptr)
        return "<missing>";
    std::string data;
    char buf[512];
    for (size_t n; (n = fread(buf, 1, sizeof(buf), fp)) > 0;)
        data.append(buf, n);
    fclose(fp);
    return data;
}

// A fresh scratch directory under the test's private /tmp.
class FileTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        IBP_REQUIRE_ISOLATION();
        char sz[] = "/tmp/isp_fileXXXXXX";
        ASSERT_NE(mkdtemp(sz), nullptr);
        base_ = sz;
    }
    void TearDown() override
    {
        if (!base_.empty())
            (void)!system(("rm -rf " + base_).c_str());
    }
    std::string P(const std::string &rel) const { return base_ + "/" + rel; }
    std::string base_;
};

// Pause function for the removal that records instead of sleeping.
std::vector<s32> g_pauses;
s32 RecordPause(s32 lMilliSec)
{
    g_pauses.push_back(lMilliSec);
    return 0;
}

}  // namespace

TEST_F(FileTest, Copy)
{
    std::string data;
    for (int i = 0; i < 3000; ++i)  // several chunks and a short last one
        data.push_back(static_cast<char>(i * 7));
    WriteFile(P("src"), data);
    WriteFile(P("dst"), std::string(5000, 'z'));  // longer: must be emptied
    EXPECT_EQ(ISP_copy(P("src").c_str(), P("dst").c_str()), 0);
    EXPECT_EQ(ReadFile(P("dst")), data);

    EXPECT_EQ(ISP_copy(P("missing").c_str(), P("dst").c_str()), -1);
    EXPECT_EQ(ReadFile(P("dst")), data);
    EXPECT_EQ(ISP_copy(P("src").c_str(), P("nodir/dst").c_str()), -1);
}

TEST_F(FileTest, MkdirMakesEveryMissingLevel)
{
    EXPECT_EQ(ISP_mkdir(nullptr, 0755), 0);
    EXPECT_EQ(ISP_mkdir("", 0755), 0);
    EXPECT_EQ(ISP_mkdir("///", 0755), 0);

    EXPECT_EQ(ISP_mkdir(P("a/b/c").c_str(), 0755), 0);
    EXPECT_TRUE(IsDir(P("a/b/c")));
    EXPECT_EQ(ISP_mkdir(P("a/b/c").c_str(), 0755), 0);  // existing: fine
    EXPECT_EQ(ISP_mkdir(P("t/u/").c_str(), 0755), 0);
    EXPECT_TRUE(IsDir(P("t/u")));
    EXPECT_EQ(ISP_mkdir(P("x//y").c_str(), 0755), 0);
    EXPECT_TRUE(IsDir(P("x/y")));

    const mode_t old = umask(022);  // the mode of each level made, under the umask
    EXPECT_EQ(ISP_mkdir(P("m/n").c_str(), 0777), 0);
    umask(old);
    struct stat st {};
    ASSERT_EQ(stat(P("m").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0755u);

    WriteFile(P("f"), "x");  // a file in the way
    EXPECT_EQ(ISP_mkdir(P("f").c_str(), 0755), -1);
    EXPECT_EQ(ISP_mkdir(P("f/sub").c_str(), 0755), -1);
}

TEST_F(FileTest, MkdirPrefixLimit)
{
    // A component ending at index 255 fits the 256-byte buffer; at 256 it
    // does not, after the earlier levels have been made.
    const std::string d2 = P(std::string(100, 'd') + "/" + std::string(100, 'e'));
    const std::string fits = d2 + "/" + std::string(255 - d2.size() - 1, 'f');
    const std::string over = d2 + "/" + std::string(256 - d2.size() - 1, 'g');
    ASSERT_EQ(over.size(), 256u);
    EXPECT_EQ(ISP_mkdir(over.c_str(), 0755), -1);
    EXPECT_TRUE(IsDir(d2));
    EXPECT_FALSE(Exists(over));
    EXPECT_EQ(ISP_mkdir(fits.c_str(), 0755), 0);
    EXPECT_TRUE(IsDir(fits));
}

TEST_F(FileTest, RmdirPausesAfterEachEntryAtEachDepth)
{
    using ibp::platform::RmdirTree;
    const s32 lPause = 10;
    EXPECT_EQ(ISP_rmdir(P("missing").c_str(), &lPause), -1);

    ASSERT_EQ(mkdir(P("empty").c_str(), 0755), 0);
    g_pauses.clear();
    EXPECT_EQ(RmdirTree(P("empty").c_str(), &lPause, RecordPause), 0);
    EXPECT_FALSE(Exists(P("empty")));
    EXPECT_TRUE(g_pauses.empty());

    ASSERT_EQ(mkdir(P("r").c_str(), 0755), 0);
    for (const char *name : {"r/f1", "r/f2", "r/f3"})
        WriteFile(P(name), "x");
    EXPECT_EQ(RmdirTree(P("r").c_str(), &lPause, RecordPause), 0);
    EXPECT_EQ(g_pauses, (std::vector<s32>{10, 10, 10}));

    // Two files below, their directory, one file beside it: four pauses.
    ASSERT_EQ(ISP_mkdir(P("t/sub").c_str(), 0755), 0);
    for (const char *name : {"t/sub/a", "t/sub/b", "t/c"})
        WriteFile(P(name), "x");
    g_pauses.clear();
    EXPECT_EQ(RmdirTree(P("t/").c_str(), &lPause, RecordPause), 0);
    EXPECT_EQ(g_pauses.size(), 4u);
    EXPECT_FALSE(Exists(P("t")));

    ASSERT_EQ(ISP_mkdir(P("n/sub").c_str(), 0755), 0);
    g_pauses.clear();
    EXPECT_EQ(RmdirTree(P("n").c_str(), nullptr, RecordPause), 0);
    EXPECT_TRUE(g_pauses.empty());

    ASSERT_EQ(ISP_mkdir(P("s/sub").c_str(), 0755), 0);  // with the real pause
    const s32 lShort = 1;
    EXPECT_EQ(ISP_rmdir(P("s").c_str(), &lShort), 0);
    EXPECT_FALSE(Exists(P("s")));
}

TEST_F(FileTest, RmdirAndSymbolicLinks)
{
    ASSERT_EQ(mkdir(P("r").c_str(), 0755), 0);
    ASSERT_EQ(symlink(P("nowhere").c_str(), P("r/dangling").c_str()), 0);
    EXPECT_EQ(ISP_rmdir(P("r").c_str(), nullptr), -1);  // stat fails on it
    EXPECT_TRUE(Exists(P("r/dangling")));

    // A link to a directory goes; what it points at stays.
    ASSERT_EQ(unlink(P("r/dangling").c_str()), 0);
    ASSERT_EQ(ISP_mkdir(P("target/inner").c_str(), 0755), 0);
    WriteFile(P("target/keep"), "x");
    ASSERT_EQ(symlink(P("target").c_str(), P("r/link").c_str()), 0);
    EXPECT_EQ(ISP_rmdir(P("r").c_str(), nullptr), 0);
    EXPECT_FALSE(Exists(P("r")));
    EXPECT_EQ(ReadFile(P("target/keep")), "x");
    EXPECT_TRUE(IsDir(P("target/inner")));
}

TEST_F(FileTest, RmdirRefusesPathsBeyondTheBuffer)
{
    std::string deep = base_;
    while (deep.size() < 300)
        deep += "/" + std::string(60, 'd');
    ASSERT_EQ(system(("mkdir -p " + deep).c_str()), 0);
    EXPECT_EQ(ISP_rmdir(deep.c_str(), nullptr), -1);
    EXPECT_TRUE(IsDir(deep));

    // The directory fits but an entry's path would not: refused, not cut.
    const std::string dir = base_ + "/" + std::string(239 - base_.size(), 'e');
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    const std::string longName = dir + "/" + std::string(20, 'n');  // 261 bytes
    WriteFile(longName, "x");
    EXPECT_EQ(ISP_rmdir(dir.c_str(), nullptr), -1);
    EXPECT_TRUE(Exists(longName));
}

TEST(StrSearch, FirstAndLastMatch)
{
    const char *s = "abcabcab";
    EXPECT_EQ(ISP_strnstr(s, "cab", 3), s + 2);
    EXPECT_EQ(ISP_strlstr(s, "cab", 3), s + 5);  // ends exactly at the text's end
    EXPECT_EQ(ISP_strlstr(s, "ab", 2), s + 6);
    EXPECT_EQ(ISP_strnstr(s, "abd", 3), nullptr);
    EXPECT_EQ(ISP_strlstr(s, "abd", 3), nullptr);
    const char *a = "aaaa";
    EXPECT_EQ(ISP_strlstr(a, "aa", 2), a + 2);  // overlapping: the highest index
    EXPECT_EQ(ISP_strnstr(s, "bcXYZ", 2), s + 1);  // only ulLen bytes of the pattern

    EXPECT_EQ(ISP_strnstr(s, "x", 0), s);
    EXPECT_EQ(ISP_strlstr(s, "x", 0), s + 8);  // the terminator
    EXPECT_EQ(ISP_strnstr(s, "abcabcabc", 9), nullptr);
    EXPECT_EQ(ISP_strlstr(s, s, 8), s);
    EXPECT_EQ(ISP_strnstr(nullptr, "a", 1), nullptr);
    EXPECT_EQ(ISP_strlstr(s, nullptr, 1), nullptr);
}

TEST(StrSearch, CharWithinLength)
{
    const char buf[] = {'a', 'b', '\0', 'c', '\xff', '\0'};
    EXPECT_EQ(ISP_strnchr(buf, 'b', 0), nullptr);
    EXPECT_EQ(ISP_strnchr(buf, 'b', 1), nullptr);
    EXPECT_EQ(ISP_strnchr(buf, 'b', 2), buf + 1);
    EXPECT_EQ(ISP_strnchr(buf, 'c', 4), buf + 3);  // past the terminator
    EXPECT_EQ(ISP_strnchr(buf, 0xff, 5), buf + 4);  // bytes compare unsigned
    EXPECT_EQ(ISP_strnchr(buf, -1, 5), nullptr);
    EXPECT_EQ(ISP_strnchr(buf, 0x161, 5), nullptr);  // not cut to a byte
    EXPECT_EQ(ISP_strnchr(nullptr, 'a', 5), nullptr);
}

TEST(Convert, Ltoa)
{
    struct Case {
        s32 lValue, lRadix;
        const char *pcText;
    };
    constexpr Case kCases[] = {
        {0, 16, "0"},   {0, 1, "0"},    {255, 16, "ff"},     {-42, 10, "-42"}, {-7, 10, "-7"},
        {1000, 10, "1000"}, {5, 2, "101"}, {35, 36, "z"},    {INT_MAX, 10, "2147483647"},
        {INT_MIN, 10, "-2147483648"},   {-1, 16, "ffffffff"},  // other bases: the bit pattern
    };
    for (const Case &c : kCases) {
        char buf[40];
        memset(buf, '#', sizeof(buf));
        EXPECT_EQ(ISP_ltoa(c.lValue, buf, c.lRadix), buf);
        EXPECT_STREQ(buf, c.pcText) << c.lValue << " radix " << c.lRadix;
    }
    char buf[40] = "untouched";
    EXPECT_EQ(ISP_ltoa(5, nullptr, 10), nullptr);
    EXPECT_EQ(ISP_ltoa(5, buf, 1), nullptr);
    EXPECT_EQ(ISP_ltoa(5, buf, 37), nullptr);
    EXPECT_STREQ(buf, "untouched");
}

TEST(Convert, SixtyFourBitValues)
{
    EXPECT_EQ(ISP_atodul("18446744073709551615"), UINT64_MAX);
    EXPECT_EQ(ISP_atodul("18446744073709551616"), 0u);  // one more wraps
    EXPECT_EQ(ISP_atodul("0042"), 42u);
    for (const char *bad : {"123 ", " 123", "+1", "-1", "12a3", ""})
        EXPECT_EQ(ISP_atodul(bad), 0u) << bad;
    EXPECT_EQ(ISP_atodul(nullptr), 0u);

    char buf[21];
    EXPECT_EQ(ISP_dultoa(UINT64_MAX, buf), 20);
    EXPECT_STREQ(buf, "18446744073709551615");
    EXPECT_EQ(ISP_dultoa(0, buf), 1);
    EXPECT_STREQ(buf, "0");

    EXPECT_EQ(ISP_htonll(0x0102030405060708ull), 0x0807060504030201ull);
    EXPECT_EQ(ISP_ntohll(0x0102030405060708ull), 0x0807060504030201ull);
    EXPECT_EQ(ISP_ntohll(ISP_htonll(0x0123456789ABCDEFull)), 0x0123456789ABCDEFull);
}

TEST(Time, RecordLayouts)
{
    EXPECT_EQ(offsetof(ISP_TIMESPEC_S, lNanoSec), 0u);  // the reverse of timespec
    EXPECT_EQ(offsetof(ISP_TIMESPEC_S, lSec), sizeof(long));
    EXPECT_EQ(offsetof(ISP_TIMEVAL_S, lSec), 0u);
    EXPECT_EQ(offsetof(ISP_TIMEVAL_S, lMicroSec), sizeof(time_t));
#if defined(__arm__)
    EXPECT_EQ(sizeof(ISP_TIMESPEC_S), 8u);
    EXPECT_EQ(sizeof(ISP_TIMEVAL_S), 8u);
#endif
}

TEST(Time, ClocksFillTheirRecords)
{
    ISP_TIMESPEC_S st{-1, -1};
    timespec before{}, after{};
    clock_gettime(CLOCK_REALTIME, &before);
    ASSERT_EQ(ISP_clock_gettime(CLOCK_REALTIME, &st), 0);
    clock_gettime(CLOCK_REALTIME, &after);
    EXPECT_GE(st.lSec, before.tv_sec);
    EXPECT_LE(st.lSec, after.tv_sec);
    EXPECT_LT(st.lNanoSec, 1000000000L);

    ISP_TIMESPEC_S keep{123, 456};
    EXPECT_EQ(ISP_clock_gettime(12345, &keep), -1);  // no such clock: untouched
    EXPECT_EQ(keep.lNanoSec, 123);
    EXPECT_EQ(keep.lSec, 456);

    u64 ullMs = 0;
    EXPECT_EQ(ISP_GetMonotonicTime(nullptr), -1);
    clock_gettime(CLOCK_MONOTONIC, &before);
    ASSERT_EQ(ISP_GetMonotonicTime(&ullMs), 0);
    clock_gettime(CLOCK_MONOTONIC, &after);
    EXPECT_GE(ullMs, static_cast<u64>(before.tv_sec) * 1000 + static_cast<u64>(before.tv_nsec) / 1000000);
    EXPECT_LE(ullMs, static_cast<u64>(after.tv_sec) * 1000 + static_cast<u64>(after.tv_nsec) / 1000000);

    EXPECT_EQ(ISP_settimeofday(nullptr), -1);
    const ISP_TIMEVAL_S bad{after.tv_sec, 2000000L};  // refused before any clock is set
    EXPECT_EQ(ISP_settimeofday(&bad), -1);
}

TEST(Time, Sleeps)
{
    EXPECT_EQ(ISP_msleep(0), 0);
    EXPECT_EQ(ISP_msleep(-1), -1);
    EXPECT_EQ(ISP_nanosleep(nullptr, nullptr), -1);
    const ISP_TIMESPEC_S req{1000, 0};  // one microsecond
    ISP_TIMESPEC_S rem{77, 77};
    EXPECT_EQ(ISP_nanosleep(&req, &rem), 0);
    EXPECT_EQ(rem.lNanoSec, 0);  // a completed sleep leaves nothing
    EXPECT_EQ(rem.lSec, 0);
    const ISP_TIMESPEC_S bad{1000000000L, 0};
    EXPECT_EQ(ISP_nanosleep(&bad, nullptr), -1);
}

TEST(Time, BrokenDownCopiesNineFields)
{
    const time_t t = 86400 * 365 + 3661;  // 1971-01-01 01:01:01 UTC, a Friday
    const struct tm g = ISP_gmtime(&t);
    EXPECT_EQ(g.tm_year, 71);
    EXPECT_EQ(g.tm_mday, 1);
    EXPECT_EQ(g.tm_hour, 1);
    EXPECT_EQ(g.tm_sec, 1);
    EXPECT_EQ(g.tm_wday, 5);
    EXPECT_EQ(g.tm_gmtoff, 0);
    EXPECT_EQ(g.tm_zone, nullptr);

    struct tm ref {};
    ASSERT_NE(localtime_r(&t, &ref), nullptr);
    EXPECT_EQ(ISP_localtime(&t).tm_hour, ref.tm_hour);
    EXPECT_EQ(ISP_localtime(&t).tm_zone, nullptr);
    struct tm out {};
    out.tm_gmtoff = 12345;
    out.tm_zone = "KEEP";
    EXPECT_EQ(ISP_localtime_r(&t, &out), &out);
    EXPECT_EQ(out.tm_isdst, ref.tm_isdst);
    EXPECT_EQ(out.tm_yday, ref.tm_yday);
    EXPECT_EQ(out.tm_gmtoff, 12345);  // not touched
    EXPECT_STREQ(out.tm_zone, "KEEP");
    EXPECT_EQ(ISP_localtime_r(nullptr, &out), nullptr);
    EXPECT_EQ(ISP_localtime_r(&t, nullptr), nullptr);

    if (sizeof(time_t) == 8) {  // a 32-bit time always converts
        const time_t huge = static_cast<time_t>(LLONG_MAX);
        const struct tm z = ISP_gmtime(&huge);
        EXPECT_EQ(z.tm_year, 0);
        EXPECT_EQ(z.tm_mday, 0);
        EXPECT_EQ(ISP_localtime_r(&huge, &out), nullptr);
        EXPECT_EQ(out.tm_yday, ref.tm_yday);  // left as it was
    }
}

TEST(Time, RandRTakesTheSeedByValue)
{
    unsigned int seed = 12345;
    const int expected = rand_r(&seed);
    EXPECT_EQ(ISP_rand_r(12345), expected);
    EXPECT_EQ(ISP_rand_r(12345), expected);
}
