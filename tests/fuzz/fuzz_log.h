// The log of every fuzz target: errors are formatted, as the inputs provoke
// them, but go nowhere; the fuzzer pays for the formatting, not for files.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ibp/isp_log.h"

namespace fuzzlog {

inline s32 DiscardRecord(const char *) { return 0; }

inline LOG_INIT_S QuietLog()
{
    LOG_INIT_S stInit;
    std::memset(&stInit, 0, sizeof(stInit));
    stInit.ulOutputMode = LOG_OUTPUT_FUNC;
    stInit.pfnOutput = DiscardRecord;
    for (u32 &ulLevel : stInit.aulLevel)
        ulLevel = LOG_LEVEL_ERR;
    return stInit;
}

// For the targets that do not start the library, which would start the log.
inline void Start()
{
    const LOG_INIT_S stInit = QuietLog();
    if (IBP_LOG_Init(&stInit) != 0) {
        std::fprintf(stderr, "cannot start the log\n");
        std::exit(1);
    }
}

}  // namespace fuzzlog
