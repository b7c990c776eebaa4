// The log record, thresholds, the setters and the rotating file pairs.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "harness/log_capture.h"
#include "harness/test_env.h"
#include "ibp/isp_log.h"

using ibptest::LogCapture;

namespace {

std::string ReadFile(const char *path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

long FileSize(const char *path)
{
    struct stat st;
    return stat(path, &st) == 0 ? static_cast<long>(st.st_size) : -1;
}

bool Exists(const char *path) { return access(path, F_OK) == 0; }

void InitMode(u32 mode, LOG_OUTPUT_PFN pfn = nullptr, u32 level = 0)
{
    LOG_INIT_S init{};
    init.ulOutputMode = mode;
    init.pfnOutput = pfn;
    for (u32 &l : init.aulLevel)
        l = level;
    ASSERT_EQ(IBP_LOG_Init(&init), 0u);
}

// Output of the test's own stdout around a call.
template <typename F> std::string Stdout(F &&fn)
{
    testing::internal::CaptureStdout();
    fn();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

}  // namespace

TEST(LogRecord, HeadColumnsAndPadding)
{
    LogCapture cap;
    LOG_Pirnt(LOG_MODULE_AWB, LOG_LEVEL_WRN, "isp_log", "IBP_LOG_Init", 535, "value %d of %s", 7, "x");
    auto recs = cap.Records();
    ASSERT_EQ(recs.size(), 1u);
    const std::string &raw = recs[0].raw;
    int y = 0, mo = 0, d = 0, h = 0, mi = 0, sec = 0, ms = 0;
    ASSERT_EQ(sscanf(raw.c_str(), "%4d-%2d-%2d %2d:%2d:%2d.%3d", &y, &mo, &d, &h, &mi, &sec, &ms), 7) << raw;
    EXPECT_GE(y, 2000);
    EXPECT_TRUE(mo >= 1 && mo <= 12 && d >= 1 && d <= 31 && h <= 23 && mi <= 59 && sec <= 60 && ms <= 999);
    EXPECT_EQ(raw.substr(0, 23).find_first_not_of("0123456789-:. "), std::string::npos) << raw;
    EXPECT_EQ(raw.substr(23), " isp_log-535         @IBP_LOG_Init             [WRN][AWB]value 7 of x\n");
}

TEST(LogRecord, LongPlaceAndFunctionShiftColumns)
{
    LogCapture cap;
    std::string file(70, 'f');
    std::string func(30, 'g');
    LOG_Pirnt(0, 3, file.c_str(), func.c_str(), 12345, "x");
    auto recs = cap.Records();
    ASSERT_EQ(recs.size(), 1u);
    // The place stops at 63 characters, so the line number is lost.
    EXPECT_EQ(recs[0].place, std::string(63, 'f'));
    EXPECT_EQ(recs[0].func, func);
    EXPECT_EQ(recs[0].text, "x");
    EXPECT_NE(recs[0].raw.find(std::string(63, 'f') + "@" + func + " [ERR][BP]x\n"), std::string::npos);
}

TEST(LogRecord, NewlineRules)
{
    LogCapture cap;
    LOG_Pirnt(0, 1, "f", "fn", 1, "ends in newline\n");
    LOG_Pirnt(0, 1, "f", "fn", 1, "%s", "argument ends in newline\n");
    LOG_Pirnt(0, 1, "f", "fn", 1, "%s", "");
    auto recs = cap.Records();
    ASSERT_EQ(recs.size(), 3u);
    EXPECT_EQ(recs[0].raw.substr(recs[0].raw.size() - 17), "]ends in newline\n");
    // The check looks at the format, not at the expansion: two newlines.
    EXPECT_EQ(recs[1].raw.substr(recs[1].raw.size() - 10), " newline\n\n");
    // An empty message still makes a head and a newline.
    EXPECT_EQ(recs[2].raw.substr(recs[2].raw.size() - 6), "][BP]\n");
}

TEST(LogRecord, CompositeIsCutAt1023Characters)
{
    LogCapture cap;
    // The format itself is cut before expansion: the conversion behind the cut is lost.
    std::string fmt(1100, 'a');
    fmt += "%d";
    LOG_Pirnt(0, 3, "f", "fn", 1, fmt.c_str(), 5);
    // An expansion that overflows is cut in the output function's buffer.
    std::string big(10000, 'b');
    LOG_Pirnt(0, 3, "f", "fn", 1, "%s", big.c_str());
    auto recs = cap.Records();
    ASSERT_EQ(recs.size(), 2u);
    for (const auto &r : recs) {
        EXPECT_EQ(r.raw.size(), 1023u);
        EXPECT_NE(r.raw.back(), '\n');
    }
    EXPECT_EQ(recs[0].text, std::string(recs[0].text.size(), 'a'));  // no "5": %d was cut off

    // A composite of 1022 characters still gets its newline; one of 1023 does not.
    size_t headLen = recs[1].raw.find("][BP]") + 5;
    cap.Clear();
    std::string fits(1022 - headLen, 'c');
    std::string fills(1023 - headLen, 'd');
    LOG_Pirnt(0, 3, "f", "fn", 1, fits.c_str());
    LOG_Pirnt(0, 3, "f", "fn", 1, fills.c_str());
    recs = cap.Records();
    ASSERT_EQ(recs.size(), 2u);
    EXPECT_EQ(recs[0].raw, recs[0].raw.substr(0, headLen) + fits + "\n");
    EXPECT_EQ(recs[1].raw, recs[1].raw.substr(0, headLen) + fills);
}

TEST(LogThreshold, LevelsAgainstThresholds)
{
    LogCapture cap;
    IBP_LOG_SetLevelByModule(LOG_MODULE_AE, 0);
    IBP_LOG_SetLevelByModule(LOG_MODULE_AWB, 3);
    IBP_LOG_SetLevelByModule(LOG_MODULE_ADN, 3);
    gstLogObj.aulLevel[LOG_MODULE_LED] = 4;  // a threshold above 3 silences the module
    cap.Clear();
    LOG_Pirnt(LOG_MODULE_AE, 0, "f", "fn", 1, "ae dbg");
    LOG_Pirnt(LOG_MODULE_AWB, 2, "f", "fn", 1, "awb wrn");
    LOG_Pirnt(LOG_MODULE_ADN, 3, "f", "fn", 1, "adn err");
    LOG_Pirnt(LOG_MODULE_LED, 3, "f", "fn", 1, "led err");
    EXPECT_LOG(cap, "DBG", "AE", "ae dbg");
    EXPECT_FALSE(cap.Has("WRN", "AWB", "awb wrn"));
    EXPECT_LOG(cap, "ERR", "ADN", "adn err");
    EXPECT_FALSE(cap.Has("ERR", "LED", "led err"));
}

TEST(LogThreshold, BadModuleAndLevelFallBack)
{
    LogCapture cap;
    std::string out = Stdout([] {
        LOG_Pirnt(12, 3, "f", "fn", 1, "to bp");
        LOG_Pirnt(0, 9, "f", "fn", 1, "as info");
    });
    EXPECT_EQ(out, "module 12 invalid, set to BP\nlevel 9 invalid, set to INFO\n");
    EXPECT_LOG(cap, "ERR", "BP", "to bp");
    EXPECT_LOG(cap, "INF", "BP", "as info");
}

TEST(LogLifecycle, UninitialisedDestroyedAndRestarted)
{
    IBP_LOG_Destroy();
    std::string out = Stdout([] { LOG_Pirnt(0, 3, "f", "fn", 1, "lost %s", "x"); });
    EXPECT_EQ(out, "isp log not initialized\n");
    EXPECT_EQ(gstLogObj.pfnOutput, nullptr);

    out = Stdout([] { EXPECT_EQ(IBP_LOG_Init(nullptr), 1u); });
    EXPECT_EQ(out, "pstInit is NULL!\n");
    EXPECT_EQ(gstLogObj.bInited, 0u);

    {
        LogCapture cap;
        LOG_Pirnt(0, 3, "f", "fn", 1, "back");
        EXPECT_LOG(cap, "ERR", "BP", "back");
    }
    out = Stdout([] { LOG_Pirnt(0, 3, "f", "fn", 1, "gone"); });
    EXPECT_EQ(out, "isp log not initialized\n");
}

TEST(LogOutput, StdoutModeAndMissingFunction)
{
    std::string out = Stdout([] {
        InitMode(LOG_OUTPUT_STDOUT);
        LOG_Pirnt(LOG_MODULE_CLI, 1, "isp_cli", "fn", 9, "hello");
    });
    EXPECT_NE(out.find("bp log init success!\n"), std::string::npos);
    EXPECT_NE(out.find(" [INF][CLI]hello\n"), std::string::npos);

    // Mode 2 without a function: records are composed and dropped, nothing printed.
    out = Stdout([] {
        InitMode(LOG_OUTPUT_FUNC, nullptr);
        LOG_Pirnt(0, 3, "f", "fn", 1, "dropped");
    });
    EXPECT_EQ(out, "");
    IBP_LOG_Destroy();
}

TEST(LogSetters, LevelByModule)
{
    LogCapture cap;
    EXPECT_EQ(IBP_LOG_SetLevelByModule(12, 7), 0u);
    EXPECT_LOG(cap, "ERR", "BP", "module 12 invalid, set to BP");
    EXPECT_LOG(cap, "ERR", "BP", "level 7 invalid, set to INFO");
    EXPECT_LOG(cap, "ERR", "BP", "set module 0 log level to 1");
    EXPECT_EQ(gstLogObj.aulLevel[0], 1u);
    EXPECT_EQ(IBP_LOG_SetLevelByModule(LOG_MODULE_FD, 3), 0u);
    EXPECT_EQ(gstLogObj.aulLevel[LOG_MODULE_FD], 3u);
}

TEST(LogSetters, LevelByName)
{
    LogCapture cap;
    EXPECT_EQ(IBP_LOG_SetLevelByName("awb", 2), 0u);
    EXPECT_EQ(gstLogObj.aulLevel[LOG_MODULE_AWB], 2u);
    EXPECT_LOG(cap, "INF", "BP", "set module awb log level to 2");

    // The whole name must match: "af" is AF, not AF_CALI.
    EXPECT_EQ(IBP_LOG_SetLevelByName("af", 3), 0u);
    EXPECT_EQ(gstLogObj.aulLevel[LOG_MODULE_AF], 3u);
    EXPECT_EQ(gstLogObj.aulLevel[LOG_MODULE_AF_CALI], 0u);

    EXPECT_EQ(IBP_LOG_SetLevelByName("ITF", 1), 1u);
    EXPECT_LOG(cap, "ERR", "BP", "module ITF not found");
    EXPECT_EQ(IBP_LOG_SetLevelByName("AE", 4), 1u);
    EXPECT_LOG(cap, "ERR", "BP", "level 4 invalid");
    EXPECT_EQ(gstLogObj.aulLevel[LOG_MODULE_AE], 0u);
    EXPECT_EQ(IBP_LOG_SetLevelByName(nullptr, 1), 1u);
    EXPECT_LOG(cap, "ERR", "BP", "pcName is NULL");
}

// ---------------------------------------------------------------- files

class LogFiles : public testing::Test {
protected:
    void SetUp() override
    {
        IBP_REQUIRE_ISOLATION();
        InitMode(LOG_OUTPUT_FILE);
        for (const char *p : {kFd0, kFd1, kAlg0, kAlg1, kAf0, kAf1, kCali0, kCali1})
            unlink(p);
    }
    void TearDown() override
    {
        IBP_LOG_SetFileSizeByModule(LOG_MODULE_FD, 0x40000);
        IBP_LOG_SetFileSizeByModule(LOG_MODULE_BP, 0x40000);
        IBP_LOG_SetFileSizeByModule(LOG_MODULE_AF_CALI, 0);
        IBP_LOG_Destroy();
    }
    // Records of one shape have one length: the time stamp has fixed width.
    static void Rec(u32 module = LOG_MODULE_FD) { LOG_Pirnt(module, 3, "t", "fn", 1, "%s", "0123456789"); }

    static constexpr const char *kFd0 = "/var/log/ISP_FD00.log";
    static constexpr const char *kFd1 = "/var/log/ISP_FD01.log";
    static constexpr const char *kAlg0 = "/var/log/ISP_ALG00.log";
    static constexpr const char *kAlg1 = "/var/log/ISP_ALG01.log";
    static constexpr const char *kAf0 = "/var/log/ISP_AF00.log";
    static constexpr const char *kAf1 = "/var/log/ISP_AF01.log";
    static constexpr const char *kCali0 = "/var/log/ISP_AF_Cali.log";
    static constexpr const char *kCali1 = "/var/log/ISP_AF_Cali01.log";
};

TEST_F(LogFiles, RotatesOnlyAboveTheLimit)
{
    Rec();
    long len = FileSize(kFd0);
    ASSERT_GT(len, 40);
    unlink(kFd0);

    IBP_LOG_SetFileSizeByModule(LOG_MODULE_FD, static_cast<u32>(2 * len));
    unlink(kFd0);  // the setter's own record went to the ALG file, not here
    Rec();
    Rec();
    EXPECT_EQ(FileSize(kFd0), 2 * len) << "exactly the limit does not rotate";
    EXPECT_FALSE(Exists(kFd1));
    Rec();
    EXPECT_FALSE(Exists(kFd0)) << "the record that crosses the limit rotates";
    EXPECT_EQ(FileSize(kFd1), 3 * len);
    Rec();
    EXPECT_EQ(FileSize(kFd0), len);

    // One byte less of limit: the second record already crosses it.
    unlink(kFd0);
    unlink(kFd1);
    IBP_LOG_SetFileSizeByModule(LOG_MODULE_FD, static_cast<u32>(2 * len - 1));
    Rec();
    Rec();
    EXPECT_FALSE(Exists(kFd0));
    EXPECT_EQ(FileSize(kFd1), 2 * len);
    // The backup holds only the previous generation.
    Rec();
    Rec();
    EXPECT_EQ(FileSize(kFd1), 2 * len);
}

TEST_F(LogFiles, SizeIsAPropertyOfTheSharedFile)
{
    Rec(LOG_MODULE_BP);
    long len = FileSize(kAlg0);
    unlink(kAlg0);
    IBP_LOG_SetFileSizeByModule(LOG_MODULE_AWB, static_cast<u32>(len));
    unlink(kAlg0);  // drop the setter's own record
    unlink(kAlg1);
    Rec(LOG_MODULE_WP);
    EXPECT_TRUE(Exists(kAlg0));
    Rec(LOG_MODULE_BP);  // BP shares the file with AWB and WP: it rotates now
    EXPECT_FALSE(Exists(kAlg0));
    EXPECT_EQ(FileSize(kAlg1), 2 * len);
    Rec(LOG_MODULE_AF);
    Rec(LOG_MODULE_AF);
    EXPECT_FALSE(Exists(kAf1)) << "AF has a file pair of its own";

    // A bad module number complains on BP's file and sets BP's file pair:
    // both records land in the file that the second one rotates.
    IBP_LOG_SetFileSizeByModule(LOG_MODULE_BP, 0x40000);
    unlink(kAlg0);
    unlink(kAlg1);
    IBP_LOG_SetFileSizeByModule(12, 1);
    EXPECT_FALSE(Exists(kAlg0));
    std::string text = ReadFile(kAlg1);
    EXPECT_NE(text.find("[ERR][BP]module 12 invalid, set to BP\n"), std::string::npos) << text;
    EXPECT_NE(text.find("[ERR][BP]set log file /var/log/ISP_ALG00.log size to 1\n"), std::string::npos);
}

TEST_F(LogFiles, ZeroLimitNeverRotatesAndLongArgumentsAreWrittenWhole)
{
    std::string big(10000, 'z');
    for (int i = 0; i < 30; i++)
        LOG_Pirnt(LOG_MODULE_AF_CALI, 3, "t", "fn", 1, "%s", big.c_str());
    EXPECT_GT(FileSize(kCali0), 300000);
    EXPECT_FALSE(Exists(kCali1));
    std::string text = ReadFile(kCali0);
    EXPECT_NE(text.find(big + "\n"), std::string::npos);
}

TEST_F(LogFiles, UnwritableDirectoryLosesTheRecordLoudly)
{
    ASSERT_EQ(mount("ibp-ro", "/var/log", "tmpfs", MS_RDONLY, nullptr), 0) << strerror(errno);
    std::string out = Stdout([] { Rec(); });
    umount("/var/log");
    EXPECT_EQ(out, "open log file /var/log/ISP_FD00.log failed! errno=30 Read-only file system\n");
}

TEST_F(LogFiles, InitRemovesTheOldFiles)
{
    for (const char *p : g_apcOldLogFile) {
        FILE *f = fopen(p, "w");
        ASSERT_NE(f, nullptr);
        fclose(f);
    }
    Rec();  // the log files themselves survive a restart
    InitMode(LOG_OUTPUT_FILE);
    for (const char *p : g_apcOldLogFile)
        EXPECT_FALSE(Exists(p)) << p;
    EXPECT_TRUE(Exists(kFd0));
}
