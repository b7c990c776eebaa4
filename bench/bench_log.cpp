// Cost of LOG_Pirnt: a record below its module's threshold, against a bare
// threshold check in a function of the same shape; and a record written to
// its file, against a bare open-append-write-close of a record of the same
// length in the same directory.
//
//   bench_log --benchmark_counters_tabular=true
//
// The file figures write /var/log, so they run only where scripts/bench.sh
// has mounted a private tmpfs there (IBP_BENCH_ISOLATED=1); elsewhere they
// are skipped.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bench_util.h"

namespace {

constexpr u32 kAllErr = LOG_LEVEL_ERR;
// Roughly what the log's own pair allows before it rotates; the floor file is
// bounded the same way so that neither grows without end on the tmpfs.
constexpr off_t kFloorFileMax = 0x40000;
const char *const kFloorFile = "/var/log/bench_floor.log";

// The file figures write /var/log: only on the private tmpfs.
bool FileRunAllowed(benchmark::State &state)
{
    if (bench::Isolated())
        return true;
    state.SkipWithError("needs the private tmpfs on /var/log of scripts/bench.sh");
    return false;
}

void StartLog(u32 ulMode, u32 ulThreshold, LOG_OUTPUT_PFN pfnOutput = nullptr)
{
    LOG_INIT_S stInit = {};
    stInit.ulOutputMode = ulMode;
    stInit.pfnOutput = pfnOutput;
    for (u32 &ulLevel : stInit.aulLevel)
        ulLevel = ulThreshold;
    IBP_LOG_Init(&stInit);
}

// The floor of a filtered call: the same arguments, variadic, out of line and
// reached through a pointer as a call into the shared object is, and the same
// checks before the threshold (initialised, module and level in range).
struct FloorLog {
    u32 bInited = 1;
    u32 aulLevel[LOG_MODULE_NUM] = {};
};
FloorLog gstFloorLog;

__attribute__((noinline)) void FloorPrint(u32 ulModule, u32 ulLevel, const char *pcSrcFile,
                                          const char *pcFunc, s32 lLine, const char *pcFormat, ...)
{
    if (__atomic_load_n(&gstFloorLog.bInited, __ATOMIC_RELAXED) == 0)
        return;
    if (ulModule >= LOG_MODULE_NUM)
        ulModule = 0;
    if (ulLevel >= LOG_LEVEL_NUM)
        ulLevel = 1;
    if (__atomic_load_n(&gstFloorLog.aulLevel[ulModule], __ATOMIC_RELAXED) > ulLevel)
        return;
    // Never reached in the benchmark: the threshold is above the level.
    va_list args;
    va_start(args, pcFormat);
    benchmark::DoNotOptimize(pcSrcFile);
    benchmark::DoNotOptimize(pcFunc);
    benchmark::DoNotOptimize(lLine);
    va_end(args);
}

using PrintFn = void (*)(u32, u32, const char *, const char *, s32, const char *, ...);
PrintFn volatile gpfnFloor = FloorPrint;
PrintFn volatile gpfnLog = LOG_Pirnt;

// The same call through either pointer, so that only the callee differs.
void RunFiltered(benchmark::State &state, PrintFn pfn)
{
    u32 i = 0;
    for (auto _ : state) {
        pfn(LOG_MODULE_IMG, LOG_LEVEL_DBG, "bench_log", __func__, __LINE__, "frame %u done", i++);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_LogFiltered(benchmark::State &state)
{
    StartLog(LOG_OUTPUT_STDOUT, kAllErr);
    RunFiltered(state, gpfnLog);
    IBP_LOG_Destroy();
}

void BM_FloorFiltered(benchmark::State &state)
{
    for (u32 &ulLevel : gstFloorLog.aulLevel)
        ulLevel = kAllErr;
    RunFiltered(state, gpfnFloor);
}

// The length of one record as the log makes it, taken from the output
// function mode, so that the floor writes records of the same size.
size_t gulRecordLen = 0;
s32 MeasureRecord(const char *pcText)
{
    gulRecordLen = strlen(pcText);
    return 0;
}

// The record that the file figures write, the same every time.
void FileRecord()
{
    LOG_Pirnt(LOG_MODULE_BP, LOG_LEVEL_ERR, "bench_log", "BM_LogFileRecord", 123, "frame %u done", 77u);
}

size_t RecordLen()
{
    if (gulRecordLen == 0) {
        StartLog(LOG_OUTPUT_FUNC, kAllErr, MeasureRecord);
        FileRecord();
        IBP_LOG_Destroy();
    }
    return gulRecordLen;
}

// One record per iteration through the module's file, rotation included
// (BP's pair rotates at 256 KiB, every few thousand records).
void BM_LogFileRecord(benchmark::State &state)
{
    if (!FileRunAllowed(state))
        return;
    RecordLen();
    StartLog(LOG_OUTPUT_FILE, kAllErr);
    for (auto _ : state)
        FileRecord();
    state.SetItemsProcessed(state.iterations());
    state.counters["record_bytes"] = static_cast<double>(gulRecordLen);
    IBP_LOG_Destroy();
}

// open(O_APPEND) + write + close of a record of the same length; the file is
// started afresh at the same size limit, as the log's pair would be.
void BM_FloorFileRecord(benchmark::State &state)
{
    if (!FileRunAllowed(state))
        return;
    std::string record(RecordLen(), 'x');
    record.back() = '\n';
    for (auto _ : state) {
        int fd = open(kFloorFile, O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (fd < 0) {
            state.SkipWithError("open of the floor file failed");
            return;
        }
        ssize_t lDone = write(fd, record.data(), record.size());
        off_t lEnd = lseek(fd, 0, SEEK_CUR);
        close(fd);
        benchmark::DoNotOptimize(lDone);
        if (lEnd > kFloorFileMax)
            unlink(kFloorFile);
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["record_bytes"] = static_cast<double>(record.size());
}

}  // namespace

BENCHMARK(BM_LogFiltered);
BENCHMARK(BM_FloorFiltered);
BENCHMARK(BM_LogFileRecord);
BENCHMARK(BM_FloorFileRecord);
