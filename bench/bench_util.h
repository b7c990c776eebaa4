// Small helpers of the benchmark programs that have their own main: clock,
// medians and percentiles, and the one line per figure that scripts/bench.sh
// turns into the table.
#pragma once

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "../tests/harness/sockets.h"  // shared with the tests and the soak sender
#include "ibp/ibp.h"

namespace bench {

// CLOCK_MONOTONIC is one clock for every process on the host, so times taken
// in two processes can be subtracted.
inline double NowSec()
{
    struct timespec stTs;
    clock_gettime(CLOCK_MONOTONIC, &stTs);
    return static_cast<double>(stTs.tv_sec) + static_cast<double>(stTs.tv_nsec) * 1e-9;
}

inline double Median(std::vector<double> v)
{
    if (v.empty())
        return NAN;
    std::sort(v.begin(), v.end());
    size_t n = v.size();
    return (n % 2 != 0) ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// Nearest-rank percentile, p in 0..100.
inline double Percentile(std::vector<double> v, double p)
{
    if (v.empty())
        return NAN;
    std::sort(v.begin(), v.end());
    size_t k = static_cast<size_t>(std::ceil(p / 100.0 * static_cast<double>(v.size())));
    return v[std::min(v.size() - 1, k == 0 ? 0 : k - 1)];
}

inline std::string Fmt(const char *pcFormat, ...) __attribute__((format(printf, 1, 2)));
inline std::string Fmt(const char *pcFormat, ...)
{
    char acBuf[512];
    va_list args;
    va_start(args, pcFormat);
    vsnprintf(acBuf, sizeof(acBuf), pcFormat, args);
    va_end(args);
    return acBuf;
}

// One row of the table: "ROW<TAB>label<TAB>value<TAB>floor<TAB>ratio<TAB>note".
// scripts/bench.sh prints it as "label: value (floor, ratio)  note".
inline void Row(const std::string &label, const std::string &value, const std::string &floor,
                const std::string &ratio, const std::string &note)
{
    printf("ROW\t%s\t%s\t%s\t%s\t%s\n", label.c_str(), value.c_str(), floor.c_str(), ratio.c_str(),
           note.c_str());
    fflush(stdout);
}

inline const char *Verdict(bool bMet)
{
    return bMet ? "met" : "MISSED";
}

// Where scripts/bench.sh has made a network and mount namespace of its own:
// ports 7001/7002 and /var/log, /tmp, /run are private.
inline bool Isolated()
{
    const char *pcIso = getenv("IBP_BENCH_ISOLATED");
    return pcIso != nullptr && strcmp(pcIso, "1") == 0;
}

// Start record with the log in output-function mode and every threshold at
// ERR: the DBG and INF records of the runtime are filtered before they cost.
inline IBP_INIT_S InitRecord(u32 bIsDt, LOG_OUTPUT_PFN pfnOutput)
{
    return ibptest::StartRecord(bIsDt, pfnOutput, LOG_LEVEL_ERR);
}

}  // namespace bench
