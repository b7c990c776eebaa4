// The log record, thresholds, the setters and the rotating file pairs.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <map>
#include <thread>

#include "harness/files.h"
#include "harness/log_capture.h"
#include "harness/test_env.h"
#include "ibp/isp_log.h"

using ibptest::FileSize;
using ibptest::LogCapture;
using ibptest::ReadFile;

namespace {

void InitMode(u32 mode)
{
    const LOG_INIT_S init{mode, nullptr, {}};
    ASSERT_EQ(IBP_LOG_Init(&init), 0u);
}

template <typename F> std::string Stdout(F &&fn)
{
    testing::internal::CaptureStdout();
    fn();
    return testing::internal::GetCapturedStdout();  // flushes stdout first
}

}  // namespace

TEST(LogRecord, ColumnsNewlinesAndThe1023CharacterCut)
{
    LogCapture cap;
    LOG_Pirnt(0, 1, "f", "fn", 1, "%s", "");
    const size_t head = cap.Records()[0].raw.size() - 1;  // all but the newline of an empty text
    LOG_Pirnt(LOG_MODULE_AWB, LOG_LEVEL_WRN, "isp_log", "IBP_LOG_Init", 535, "value %d of %s", 7, "x");
    // A place beyond 63 characters loses the line number; long names shift the columns.
    LOG_Pirnt(0, 3, std::string(70, 'f').c_str(), std::string(30, 'g').c_str(), 12345, "x");
    LOG_Pirnt(0, 1, "f", "fn", 1, "ends in newline\n");
    LOG_Pirnt(0, 1, "f", "fn", 1, "%s", "argument ends in newline\n");  // the format is checked: two
    // A long format is cut before expansion (losing its %d), a long expansion in the output buffer.
    LOG_Pirnt(0, 3, "f", "fn", 1, (std::string(1100, 'a') + "%d").c_str(), 5);
    LOG_Pirnt(0, 3, "f", "fn", 1, "%s", std::string(10000, 'b').c_str());
    // A composite of 1022 characters still gets its newline; one of 1023 does not.
    const std::string fits(1022 - head, 'c'), fills(1023 - head, 'd');
    LOG_Pirnt(0, 3, "f", "fn", 1, fits.c_str());
    LOG_Pirnt(0, 3, "f", "fn", 1, fills.c_str());
    auto recs = cap.Records();
    ASSERT_EQ(recs.size(), 9u);
    // The time stamp's layout: the shared capture parses every record by it.
    EXPECT_EQ(recs[1].raw.substr(23), " isp_log-535         @IBP_LOG_Init             [WRN][AWB]value 7 of x\n");
    EXPECT_EQ(recs[2].raw.substr(23), " " + std::string(63, 'f') + "@" + std::string(30, 'g') + " [ERR][BP]x\n");
    std::vector<std::string> texts;
    for (size_t i = 3; i < recs.size(); i++)
        texts.push_back(recs[i].raw.substr(head));
    EXPECT_EQ(texts, (std::vector<std::string>{"ends in newline\n", "argument ends in newline\n\n",
                                               std::string(1023 - head, 'a'), std::string(1023 - head, 'b'),
                                               fits + "\n", fills}));
}

TEST(LogControl, ThresholdsSettersAndTheirRecords)
{
    LogCapture cap;
    gstLogObj.aulLevel[LOG_MODULE_AWB] = 3;
    gstLogObj.aulLevel[LOG_MODULE_LED] = 4;  // above 3 silences the module
    LOG_Pirnt(LOG_MODULE_AE, 0, "f", "fn", 1, "ae dbg");
    LOG_Pirnt(LOG_MODULE_AWB, 2, "f", "fn", 1, "awb wrn");
    LOG_Pirnt(LOG_MODULE_AWB, 3, "f", "fn", 1, "awb err");
    LOG_Pirnt(LOG_MODULE_LED, 3, "f", "fn", 1, "led err");
    EXPECT_EQ(Stdout([] { LOG_Pirnt(12, 3, "f", "fn", 1, "to bp"); LOG_Pirnt(0, 9, "f", "fn", 1, "as info"); }),
              "module 12 invalid, set to BP\nlevel 9 invalid, set to INFO\n");
    EXPECT_EQ(IBP_LOG_SetLevelByModule(12, 7), 0u);
    EXPECT_EQ(IBP_LOG_SetLevelByName("awb", 2), 0u);
    EXPECT_EQ(IBP_LOG_SetLevelByName("af", 3), 0u);  // the whole name: AF, not AF_CALI
    // (Refused names and levels: the command table of test_cmd_service sets them through the same call.)
    const u32 *lv = gstLogObj.aulLevel;
    EXPECT_EQ(std::vector<u32>({lv[0], lv[LOG_MODULE_AWB], lv[LOG_MODULE_AF], lv[LOG_MODULE_AF_CALI]}),
              std::vector<u32>({1, 2, 3, 0}));
    EXPECT_EQ(cap.Lines(), ibptest::Split(ibptest::ReadData("log/data/thresholds.txt"), '\n'));
}

TEST(LogControl, OutputModesDestroyAndRestart)
{
    IBP_LOG_Destroy();
    EXPECT_EQ(Stdout([] { LOG_Pirnt(0, 3, "f", "fn", 1, "lost %s", "x"); }), "isp log not initialized\n");
    const std::string out = Stdout([] {
        InitMode(LOG_OUTPUT_STDOUT);
        LOG_Pirnt(LOG_MODULE_CLI, 1, "isp_cli", "fn", 9, "hello");
        InitMode(LOG_OUTPUT_FUNC);  // without a function: composed and dropped
        LOG_Pirnt(0, 3, "f", "fn", 1, "dropped");
    });
    EXPECT_NE(out.find("[INF][BP]bp log init success!\n"), std::string::npos) << out;
    EXPECT_NE(out.find(" [INF][CLI]hello\n"), std::string::npos) << out;
    EXPECT_EQ(out.find("dropped"), std::string::npos) << out;
    IBP_LOG_Destroy();
}

constexpr const char *kFd0 = "/var/log/ISP_FD00.log", *kFd1 = "/var/log/ISP_FD01.log";
constexpr const char *kAlg0 = "/var/log/ISP_ALG00.log", *kAlg1 = "/var/log/ISP_ALG01.log";
constexpr const char *kCali0 = "/var/log/ISP_AF_Cali.log", *kCali1 = "/var/log/ISP_AF_Cali01.log";

class LogFiles : public testing::Test {
protected:
    void SetUp() override
    {
        IBP_REQUIRE_ISOLATION();
        InitMode(LOG_OUTPUT_FILE);
        for (const char *p : {kFd0, kFd1, kAlg0, kAlg1, kCali0, kCali1, "/var/log/ISP_AF01.log"})
            unlink(p);
    }
    void TearDown() override
    {
        IBP_LOG_SetFileSizeByModule(LOG_MODULE_FD, 0x40000);
        IBP_LOG_SetFileSizeByModule(LOG_MODULE_BP, 0x40000);
        IBP_LOG_Destroy();
    }
    // `n` records of one length each: the time stamp has a fixed width.
    static void Rec(u32 module = LOG_MODULE_FD, int n = 1)
    {
        for (; n > 0; n--)
            LOG_Pirnt(module, 3, "t", "fn", 1, "%s", "0123456789");
    }
    // Length of one Rec; then the new limit, dropping the setter's own record from the ALG pair.
    static long SetLimitInRecs(u32 recModule, const char *file, u32 module, long recs)
    {
        Rec(recModule);
        const long len = FileSize(file);
        IBP_LOG_SetFileSizeByModule(module, static_cast<u32>(recs * len));
        for (const char *p : {file, kAlg0, kAlg1})
            unlink(p);
        return len;
    }
};

TEST_F(LogFiles, RotatesOnlyAboveTheLimitOfTheFile)
{
    const long len = SetLimitInRecs(LOG_MODULE_FD, kFd0, LOG_MODULE_FD, 2);
    Rec(LOG_MODULE_FD, 2);
    EXPECT_EQ(std::pair(FileSize(kFd0), FileSize(kFd1)), std::pair(2 * len, -1L)) << "the limit itself does not rotate";
    Rec();
    EXPECT_EQ(std::pair(FileSize(kFd0), FileSize(kFd1)), std::pair(-1L, 3 * len)) << "the crossing record rotates";
    Rec(LOG_MODULE_FD, 2);
    EXPECT_EQ(FileSize(kFd0), 2 * len);

    // AWB's limit holds for WP and BP, which share its file, and not for AF.
    SetLimitInRecs(LOG_MODULE_WP, kAlg0, LOG_MODULE_AWB, 1);
    Rec(LOG_MODULE_WP);
    Rec(LOG_MODULE_BP);
    EXPECT_EQ(std::pair(FileSize(kAlg0), FileSize(kAlg1)), std::pair(-1L, 2 * len));
    Rec(LOG_MODULE_AF, 2);
    EXPECT_EQ(FileSize("/var/log/ISP_AF01.log"), -1);

    // A bad module number complains and sets BP's pair: the second record rotates both out.
    SetLimitInRecs(LOG_MODULE_BP, kAlg0, LOG_MODULE_BP, 1000);
    IBP_LOG_SetFileSizeByModule(12, 1);
    EXPECT_EQ(FileSize(kAlg0), -1);
    const std::string text = ReadFile(kAlg1);
    EXPECT_NE(text.find("[ERR][BP]module 12 invalid, set to BP\n"), std::string::npos) << text;
    EXPECT_NE(text.find("[ERR][BP]set log file /var/log/ISP_ALG00.log size to 1\n"), std::string::npos);

    const std::string big(10000, 'z');  // no limit: the file only grows; long arguments go whole
    for (int i = 0; i < 30; i++)
        LOG_Pirnt(LOG_MODULE_AF_CALI, 3, "t", "fn", 1, "%s", big.c_str());
    EXPECT_GT(FileSize(kCali0), 300000);
    EXPECT_EQ(FileSize(kCali1), -1);
    EXPECT_NE(ReadFile(kCali0).find("[ERR][AF_CALI]" + big + "\n"), std::string::npos);
}

TEST_F(LogFiles, UnwritableDirectoryAndRestart)
{
    ASSERT_EQ(mount("ibp-ro", "/var/log", "tmpfs", MS_RDONLY, nullptr), 0) << strerror(errno);
    const std::string out = Stdout([] { Rec(); });
    umount("/var/log");
    EXPECT_EQ(out, "open log file /var/log/ISP_FD00.log failed! errno=30 Read-only file system\n");
    // A restart removes the old files and keeps the log files.
    for (const char *p : g_apcOldLogFile)
        std::ofstream{p};
    Rec();
    InitMode(LOG_OUTPUT_FILE);
    for (const char *p : g_apcOldLogFile)
        EXPECT_EQ(FileSize(p), -1) << p;
    EXPECT_GT(FileSize(kFd0), 0);
    // A record whose argument does not convert is lost as one the file refuses.
    const std::string lost = Stdout([] { LOG_Pirnt(LOG_MODULE_FD, 3, "t", "fn", 1, "%ls", L"\xd800"); Rec(); });
    EXPECT_EQ(lost, "write log file /var/log/ISP_FD00.log failed! errno=84 " + std::string(strerror(EILSEQ)) +
                        ", records are lost until it takes them again\n"
                        "write log file /var/log/ISP_FD00.log again, 1 records lost\n");
}

// A record on a full file system is whole or absent; the loss is told once, and once more with its count
// when records get through again.
TEST_F(LogFiles, AFullDiskKeepsWholeRecordsAndTellsTheLossOnce)
{
    ASSERT_EQ(mount("ibp-full", "/var/log", "tmpfs", 0, "size=64k"), 0) << strerror(errno);
    const std::string pad(100, 'r');
    const std::string out = Stdout([&] {
        for (int i = 0; i < 1000; i++)
            LOG_Pirnt(LOG_MODULE_FD, 3, "t", "fn", 1, "%d %s", i, pad.c_str());
    });
    const std::string text = ReadFile(kFd0);
    ASSERT_TRUE(text.ends_with("\n")) << text.substr(text.rfind('\n') + 1);
    std::istringstream in(text);
    int kept = 0;
    for (std::string line; std::getline(in, line); kept++)
        EXPECT_TRUE(line.ends_with("[ERR][FD]" + std::to_string(kept) + " " + pad)) << line;
    EXPECT_GT(kept, 0);
    EXPECT_EQ(out, "write log file /var/log/ISP_FD00.log failed! errno=28 No space left on device, "
                   "records are lost until it takes them again\n");
    ASSERT_EQ(truncate(kFd0, 0), 0);
    const std::string again = Stdout([] { Rec(); Rec(); });
    umount("/var/log");
    EXPECT_EQ(again, "write log file /var/log/ISP_FD00.log again, " + std::to_string(1000 - kept) + " records lost\n");
}

// Two writers cross the size limit together in every round (the file is filled up to it first): a rotation
// that is not serialised deletes the generation the other writer has just saved, or saves a partial one.
TEST_F(LogFiles, ConcurrentRotationLosesNoGeneration)
{
    const long limit = 4 * SetLimitInRecs(LOG_MODULE_FD, kFd0, LOG_MODULE_FD, 4);
    cpu_set_t all;
    ASSERT_EQ(sched_getaffinity(0, sizeof(all), &all), 0);
    std::barrier sync(3);
    std::atomic<bool> stop{false};
    std::atomic<u32> started{0};
    auto writer = [&](u32 id) {
        // A processor each: a waker pulls the threads it wakes onto its own, where they take turns.
        cpu_set_t one;
        CPU_ZERO(&one);
        for (int c = 0, n = 0; c < CPU_SETSIZE; c++)
            if (CPU_ISSET(c, &all) && n++ == static_cast<int>(id))
                CPU_SET(c, &one);
        if (CPU_COUNT(&all) > 1)
            pthread_setaffinity_np(pthread_self(), sizeof(one), &one);
        for (u32 round = 0; sync.arrive_and_wait(), !stop; round++) {
            started++;  // the barrier wakes one writer after the other: meet again
            while (started < 2 * round + 2)
                std::this_thread::yield();
            LOG_Pirnt(LOG_MODULE_FD, 3, "t", "fn", 1, "w%u %u", id, round);
            sync.arrive_and_wait();
        }
    };
    std::jthread a(writer, 0u), b(writer, 1u);
    for (u32 last = 0; last < 500 && !HasFailure(); last++) {
        const long size = std::max(FileSize(kFd0), 0L);
        if (size < limit)
            std::ofstream(kFd0, std::ios::app) << std::string(limit - size - 1, '.') << '\n';
        sync.arrive_and_wait();
        sync.arrive_and_wait();
        EXPECT_GT(FileSize(kFd1), limit) << "the backup holds a whole generation; round " << last;
        // Older records go with their generations; kept ones are there once, this round's two always.
        std::map<std::string, int> seen;
        std::istringstream in(ReadFile(kFd1) + ReadFile(kFd0));
        for (std::string line; std::getline(in, line);)
            if (line.find_first_not_of('.') != std::string::npos)  // not filler
                seen[line.substr(line.find("[ERR][FD]") + 9)]++;
        for (const auto &[rec, n] : seen)
            EXPECT_EQ(n, 1) << rec << "; round " << last;
        EXPECT_EQ(seen["w0 " + std::to_string(last)] + seen["w1 " + std::to_string(last)], 2) << "round " << last;
    }
    stop = true;
    sync.arrive_and_wait();
}
