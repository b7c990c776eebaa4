// Weak default entry points of the camera control interface, one per line of
// ISP_INTERFACE_TABLE: a global _NAME body and a weak NAME alias of it.
#include "ibp/isp_interface.h"

#include <algorithm>
#include <iterator>

#include "log/log_internal.h"

IBP_LOG_SOURCE("isp_interface");

namespace {

// The record names the underscore entry point (pcFunc is its __func__), also
// when the caller came in through the plain alias.
u32 DefaultEntry(const char *pcFunc, u32 ulResult, bool bLog)
{
    if (bLog)
        LOG_Pirnt(LOG_MODULE_BP, LOG_LEVEL_INF, kLogSrcFile, pcFunc, __LINE__, "func entry");
    return ulResult;
}

#define ISP_IF_RESULT_OF(name, kind) ISP_IF_RESULT_##kind,
constexpr u32 kResults[] = {ISP_INTERFACE_TABLE(ISP_IF_RESULT_OF)};
#undef ISP_IF_RESULT_OF

// The interface has 206 entry points: 105 defaults succeed, 101 refuse.
static_assert(std::size(kResults) == 206);
static_assert(std::count(std::begin(kResults), std::end(kResults), 0u) == 105);
static_assert(std::count(std::begin(kResults), std::end(kResults), u32{ISP_DEFAULT_ERROR}) == 101);

}  // namespace

extern "C" {

// The variadic parameter list takes whatever the caller passes; the body
// never reads it. Arguments are the caller's to clean up on both ABIs, so a
// caller with a fixed prototype of its own is served as well.
#define ISP_IF_DEFINE(name, kind)                                                   \
    IBP_API u32 _##name(...)                                                        \
    {                                                                               \
        return DefaultEntry(__func__, ISP_IF_RESULT_##kind, ISP_IF_LOGS_##kind);    \
    }                                                                               \
    IBP_API u32 name(...) __attribute__((weak, alias("_" #name)));

ISP_INTERFACE_TABLE(ISP_IF_DEFINE)

#undef ISP_IF_DEFINE

}  // extern "C"
