// The default entry points: results, the "func entry" record under the
// underscore name, arguments ignored.
#include <gtest/gtest.h>

#include <iterator>
#include <string>

#include "harness/log_capture.h"
#include "ibp/isp_interface.h"

using ibptest::LogCapture;
using Lines = std::vector<std::string>;

namespace {

using EntryFn = u32 (*)(...);
struct Entry { const char *pcName; EntryFn pfnDefault, pfnPlain; u32 ulResult; bool bLogs; };
#define ENTRY_ROW(name, kind) {#name, &_##name, &name, ISP_IF_RESULT_##kind, ISP_IF_LOGS_##kind != 0},
const Entry kEntries[] = {ISP_INTERFACE_TABLE(ENTRY_ROW)};
#undef ENTRY_ROW

}  // namespace

TEST(InterfaceDefaults, CountsAndEveryDefaultThroughBothNames)
{
    LogCapture cap;
    size_t ulOk = 0, ulErr = 0;
    std::string quiet;
    for (const Entry &e : kEntries) {
        SCOPED_TRACE(e.pcName);
        ulOk += e.ulResult == 0;
        ulErr += e.ulResult == ISP_DEFAULT_ERROR;
        quiet += e.bLogs ? "" : e.pcName;
        for (EntryFn pfn : {e.pfnDefault, e.pfnPlain}) {
            EXPECT_EQ(pfn(), e.ulResult);
            // One info record "func entry" of the underscore name, from isp_interface.
            EXPECT_EQ(cap.Lines(true), e.bLogs ? Lines{"INF BP _" + std::string(e.pcName) + " func entry"} : Lines{});
            for (const ibptest::LogRecord &r : cap.Records())
                EXPECT_TRUE(r.place.starts_with("isp_interface-")) << r.place;
            cap.Clear();
        }
    }
    EXPECT_EQ(std::size(kEntries), 206u);
    EXPECT_EQ(quiet, "ISP_GetPeriphStatus");
    EXPECT_EQ(ulOk, 105u);
    EXPECT_EQ(ulErr, 101u);
}

TEST(InterfaceDefaults, ArgumentsAreIgnored)
{
    struct Big { u8 auc[200]; } big{};
    struct Words { u32 aul[5]; } kf{{1, 2, 3, 4}}, bb{{5, 6, 7, 8, 9}};
    struct Pair { u32 ul1, ul2; } a{1, 2}, b{3, 4};
    big.auc[199] = 0xAA;
    u32 ulOut = 0x1234;
    LogCapture cap;
    // Records by value, and anything else: nothing is read or written through them.
    EXPECT_EQ(ISP_CalcKFParam(kf), 0u);
    EXPECT_EQ(ISP_SetBlackBodyInfo(7u, bb), 0u);
    EXPECT_EQ(ISP_FaceAreaVisible2Thermal(a, b), 0u);
    EXPECT_EQ(ISP_ZoomIn(1.5, "text", -7, nullptr, big, 2.25f, &ulOut, 9ull, 10, 11, 12), 9215u);
    EXPECT_EQ(ulOut, 0x1234u);
    EXPECT_EQ(big.auc[199], 0xAA);
}
