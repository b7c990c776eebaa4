// How library code logs: each source file names itself once with
//   IBP_LOG_SOURCE("isp_module");
// and then calls IBP_ERR / IBP_WRN / IBP_INF / IBP_DBG (module BP) or
// IBP_LOGM(module, level, ...) for another log module.
#pragma once

#include "ibp/isp_log.h"

#define IBP_LOG_SOURCE(name) static constexpr const char kLogSrcFile[] = name

// True when LOG_Pirnt would do anything with a record of this module and
// level: it is below its threshold only when the log runs. Asked inline, so
// that a record below its threshold costs no call and no arguments.
inline bool LOG_Wanted(u32 ulModule, u32 ulLevel)
{
    return ulModule >= LOG_MODULE_NUM || __atomic_load_n(&gstLogObj.bInited, __ATOMIC_RELAXED) == 0 ||
           __atomic_load_n(&gstLogObj.aulLevel[ulModule], __ATOMIC_RELAXED) <= ulLevel;
}

#define IBP_LOGM(module, level, fmt, ...)                                                                \
    do {                                                                                                  \
        if (LOG_Wanted((module), (level)))                                                                \
            LOG_Pirnt((module), (level), kLogSrcFile, __func__, __LINE__, fmt __VA_OPT__(, ) __VA_ARGS__); \
    } while (0)

#define IBP_ERR(fmt, ...) IBP_LOGM(LOG_MODULE_BP, LOG_LEVEL_ERR, fmt __VA_OPT__(, ) __VA_ARGS__)
#define IBP_WRN(fmt, ...) IBP_LOGM(LOG_MODULE_BP, LOG_LEVEL_WRN, fmt __VA_OPT__(, ) __VA_ARGS__)
#define IBP_INF(fmt, ...) IBP_LOGM(LOG_MODULE_BP, LOG_LEVEL_INF, fmt __VA_OPT__(, ) __VA_ARGS__)
#define IBP_DBG(fmt, ...) IBP_LOGM(LOG_MODULE_BP, LOG_LEVEL_DBG, fmt __VA_OPT__(, ) __VA_ARGS__)
