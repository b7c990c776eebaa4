// Files, directory trees, bounded searches, conversions and time of the ISP_ layer.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "harness/files.h"
#include "harness/test_env.h"
#include "ibp/isp_system.h"
#include "platform/isp_system_internal.h"

namespace {

using ibptest::WriteFile;

// The file type bits of a path, not following a final link; 0 if missing.
mode_t Type(const std::string &path)
{
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 ? st.st_mode & S_IFMT : 0;
}

// A fresh scratch directory under the test's private /tmp.
class FileTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        IBP_REQUIRE_ISOLATION();
        ASSERT_NE(mkdtemp(base_), nullptr);
    }
    std::string P(const std::string &rel) const { return std::string(base_) + "/" + rel; }
    char base_[20] = "/tmp/isp_fileXXXXXX";
};

TEST_F(FileTest, CopyReplacesTheContents)
{
    std::string data;  // several chunks and a short last one
    for (int i = 0; i < 3000; ++i)
        data += static_cast<char>(i * 7);
    WriteFile(P("src"), data);
    WriteFile(P("dst"), std::string(5000, 'z'));  // longer: must be emptied
    EXPECT_EQ(ISP_copy(P("src").c_str(), P("dst").c_str()), 0);
    EXPECT_EQ(ISP_copy(P("missing").c_str(), P("dst").c_str()), -1);
    EXPECT_EQ(ibptest::ReadFile(P("dst")), data);
}

TEST_F(FileTest, MkdirMakesEveryMissingLevel)
{
    for (const char *pc : {"", "///"})
        EXPECT_EQ(ISP_mkdir(pc, 0755), 0);
    for (const char *rel : {"a/b/c", "a/b/c", "t/u/", "x//y"})
        EXPECT_EQ(ISP_mkdir(P(rel).c_str(), 0755), 0) << rel;
    EXPECT_EQ(Type(P("a/b/c")) | Type(P("t/u")) | Type(P("x/y")), S_IFDIR);
    WriteFile(P("f"), "x");  // a file in the way
    EXPECT_EQ(ISP_mkdir(P("f").c_str(), 0755), -1);
    EXPECT_EQ(ISP_mkdir(P("f/sub").c_str(), 0755), -1);
    // A component ending at index 255 fits the 256-byte buffer; at 256 it
    // does not, after the earlier levels have been made.
    const std::string d2 = P(std::string(100, 'd') + "/" + std::string(100, 'e'));
    const std::string fits = d2 + "/" + std::string(255 - d2.size() - 1, 'f');
    EXPECT_EQ(ISP_mkdir((d2 + "/" + std::string(256 - d2.size() - 1, 'g')).c_str(), 0755), -1);
    EXPECT_EQ(Type(d2), S_IFDIR);
    EXPECT_EQ(ISP_mkdir(fits.c_str(), 0755), 0);
    EXPECT_EQ(Type(fits), S_IFDIR);
}

std::vector<s32> g_pauses;  // what the removal asked to pause, instead of sleeping

TEST_F(FileTest, RmdirRecursesPausesAndRefuses)
{
    const s32 lPause = 10;
    const ibp::platform::PauseFn record = [](s32 ms) { g_pauses.push_back(ms); return 0; };
    EXPECT_EQ(ISP_rmdir(P("missing").c_str(), &lPause), -1);
    // Two files below, their directory, one file beside it: four pauses.
    ASSERT_EQ(ISP_mkdir(P("t/sub").c_str(), 0755), 0);
    for (const char *name : {"t/sub/a", "t/sub/b", "t/c"})
        WriteFile(P(name), "x");
    EXPECT_EQ(ibp::platform::RmdirTree(P("t/").c_str(), &lPause, record), 0);
    EXPECT_EQ(g_pauses, (std::vector<s32>{10, 10, 10, 10}));
    ASSERT_EQ(ISP_mkdir(P("n/sub").c_str(), 0755), 0);
    EXPECT_EQ(ibp::platform::RmdirTree(P("n").c_str(), nullptr, record), 0);  // no pause
    EXPECT_EQ(g_pauses.size(), 4u);
    EXPECT_EQ(Type(P("t")) | Type(P("n")), 0u);

    ASSERT_EQ(mkdir(P("r").c_str(), 0755), 0);
    ASSERT_EQ(symlink(P("nowhere").c_str(), P("r/dangling").c_str()), 0);
    EXPECT_EQ(ISP_rmdir(P("r").c_str(), nullptr), -1);  // stat fails on it
    EXPECT_NE(Type(P("r/dangling")), 0u);
    // A link to a directory goes; what it points at stays.
    ASSERT_EQ(unlink(P("r/dangling").c_str()), 0);
    ASSERT_EQ(ISP_mkdir(P("target/inner").c_str(), 0755), 0);
    ASSERT_EQ(symlink(P("target").c_str(), P("r/link").c_str()), 0);
    EXPECT_EQ(ISP_rmdir(P("r").c_str(), nullptr), 0);
    EXPECT_EQ(Type(P("r")), 0u);
    EXPECT_EQ(Type(P("target/inner")), S_IFDIR);

    // A path of 256 bytes or more is refused, and so is an entry whose path
    // would not fit: not cut, which could name another file.
    const std::string dir = P(std::string(239 - strlen(base_), 'e'));
    const std::string deep = dir + "/" + std::string(20, 'n');  // 260 characters
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    ASSERT_EQ(mkdir(deep.c_str(), 0755), 0);
    EXPECT_EQ(ISP_rmdir(deep.c_str(), nullptr), -1);
    EXPECT_EQ(ISP_rmdir(dir.c_str(), nullptr), -1);
    EXPECT_EQ(Type(deep), S_IFDIR);
}

TEST(Strings, BoundedSearchesAndConversionsAtTheirLimits)
{
    const char *s = "abcabcab", *a = "aaaa";
    EXPECT_EQ(ISP_strnstr(s, "cab", 3), s + 2);
    EXPECT_EQ(ISP_strlstr(s, "cab", 3), s + 5);    // ends exactly at the text's end
    EXPECT_EQ(ISP_strlstr(a, "aa", 2), a + 2);     // overlapping: the highest index
    EXPECT_EQ(ISP_strnstr(s, "bcXYZ", 2), s + 1);  // only ulLen bytes of the pattern
    EXPECT_EQ(ISP_strlstr(s, "x", 0), s + 8);      // the terminator
    EXPECT_EQ(ISP_strnstr(s, "abcabcabc", 9), nullptr);
    const char raw[] = {'a', 'b', '\0', 'c', '\xff', '\0'};
    EXPECT_EQ(ISP_strnchr(raw, 'b', 1), nullptr);
    EXPECT_EQ(ISP_strnchr(raw, 'c', 4), raw + 3);    // past the terminator
    EXPECT_EQ(ISP_strnchr(raw, 0xff, 5), raw + 4);   // bytes compare unsigned
    EXPECT_EQ(ISP_strnchr(raw, 0x161, 5), nullptr);  // not cut to a byte

    const struct { s32 v, base; const char *text; } kLtoa[] = {
        {0, 16, "0"}, {255, 16, "ff"}, {-1, 16, "ffffffff"}, {-42, 10, "-42"}, {INT_MIN, 10, "-2147483648"}};
    char buf[40];
    for (const auto &c : kLtoa)
        EXPECT_STREQ(ISP_ltoa(c.v, buf, c.base), c.text);
    EXPECT_EQ(ISP_atodul("18446744073709551615"), UINT64_MAX);
    for (const char *bad : {"18446744073709551616", "123 ", "+1", ""})  // one more than the largest wraps
        EXPECT_EQ(ISP_atodul(bad), 0u) << bad;
    EXPECT_EQ(ISP_dultoa(UINT64_MAX, buf), 20);
    EXPECT_STREQ(buf, "18446744073709551615");
    EXPECT_EQ(ISP_ntohll(0x0102030405060708ull), 0x0807060504030201ull);
}

TEST(Time, ClocksSleepsAndBrokenDownTime)
{
    timespec mono{};
    u64 ullMs = 0;
    ASSERT_EQ(ISP_GetMonotonicTime(&ullMs), 0);
    clock_gettime(CLOCK_MONOTONIC, &mono);
    EXPECT_LE(ullMs, static_cast<u64>(mono.tv_sec) * 1000 + mono.tv_nsec / 1000000);  // milliseconds, not more
    EXPECT_GE(ullMs + 1000, static_cast<u64>(mono.tv_sec) * 1000);
    const ISP_TIMESPEC_S req{1000, 0};  // one microsecond, not 1000 seconds
    EXPECT_EQ(ISP_nanosleep(&req, nullptr), 0);

    const time_t t = 86400 * 365 + 3661;  // in 1971
    EXPECT_EQ(ISP_gmtime(&t).tm_year, 71);
    struct tm ref {}, out {};
    ASSERT_NE(localtime_r(&t, &ref), nullptr);
    out.tm_gmtoff = 12345;
    EXPECT_EQ(ISP_localtime_r(&t, &out), &out);
    EXPECT_TRUE(out.tm_hour == ref.tm_hour && out.tm_yday == ref.tm_yday && out.tm_gmtoff == 12345);
    if (sizeof(time_t) == 8) {  // a 32-bit time always converts
        const time_t huge = static_cast<time_t>(LLONG_MAX);
        EXPECT_EQ(ISP_gmtime(&huge).tm_year, 0);
        EXPECT_EQ(ISP_localtime_r(&huge, &out), nullptr);
        EXPECT_EQ(out.tm_yday, ref.tm_yday);  // left as it was
    }
}

}  // namespace
