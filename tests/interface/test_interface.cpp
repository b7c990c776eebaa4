// The default entry points: results, the "func entry" record under the
// underscore name, aliases at one address, arguments ignored.
#include <gtest/gtest.h>

#include <cstdint>
#include <iterator>
#include <set>
#include <string>

#include "harness/log_capture.h"
#include "ibp/isp_interface.h"
#include "ibp/isp_log.h"

using ibptest::LogCapture;

namespace {

using EntryFn = u32 (*)(...);

struct Entry {
    const char *pcName;
    EntryFn pfnDefault;  // _NAME
    EntryFn pfnPlain;    // NAME
    u32 ulResult;
    bool bLogs;
};

#define ENTRY_ROW(name, kind) {#name, &_##name, &name, ISP_IF_RESULT_##kind, ISP_IF_LOGS_##kind != 0},
const Entry kEntries[] = {ISP_INTERFACE_TABLE(ENTRY_ROW)};
#undef ENTRY_ROW

// The compiler may treat two declared functions as distinct and fold the
// comparison of their addresses; read them back through a volatile.
uintptr_t Address(EntryFn pfn)
{
    volatile uintptr_t addr = reinterpret_cast<uintptr_t>(pfn);
    return addr;
}

// Exactly one info record "func entry" of the default named `func`.
void ExpectEntryRecord(const LogCapture &cap, const std::string &func)
{
    auto recs = cap.Records();
    ASSERT_EQ(recs.size(), 1u) << func << "\n" << cap.Dump();
    EXPECT_EQ(recs[0].level, "INF");
    EXPECT_EQ(recs[0].module, "BP");
    EXPECT_EQ(recs[0].text, "func entry");
    EXPECT_EQ(recs[0].func, func);
    EXPECT_EQ(recs[0].place.rfind("isp_interface-", 0), 0u) << recs[0].place;
}

struct Thermal4 {
    u32 aul[4];
};
struct BlackBody {
    u32 aul[5];
};
struct Pair {
    u32 ul1, ul2;
};
struct Big {
    u8 auc[200];
};

}  // namespace

TEST(InterfaceTable, CountsAndNames)
{
    size_t ulOk = 0, ulErr = 0, ulQuiet = 0;
    std::set<std::string> names;
    for (const Entry &e : kEntries) {
        names.insert(e.pcName);
        ulOk += e.ulResult == 0 ? 1 : 0;
        ulErr += e.ulResult == ISP_DEFAULT_ERROR ? 1 : 0;
        ulQuiet += e.bLogs ? 0 : 1;
        const std::string name = e.pcName;
        if (name != "IMG_GetThermalFrozenStat") {
            EXPECT_EQ(name.rfind("ISP_", 0), 0u) << name;
        }
    }
    EXPECT_EQ(std::size(kEntries), 206u);
    EXPECT_EQ(names.size(), 206u);
    EXPECT_EQ(ulOk, 105u);
    EXPECT_EQ(ulErr, 101u);
    EXPECT_EQ(ulQuiet, 1u);
    EXPECT_EQ(ISP_DEFAULT_ERROR, 9215);
}

TEST(InterfaceTable, EveryDefaultThroughBothNames)
{
    LogCapture cap;
    for (const Entry &e : kEntries) {
        SCOPED_TRACE(e.pcName);
        const std::string underscore = std::string("_") + e.pcName;
        EXPECT_EQ(Address(e.pfnPlain), Address(e.pfnDefault));
        for (EntryFn pfn : {e.pfnDefault, e.pfnPlain}) {
            cap.Clear();
            EXPECT_EQ(pfn(), e.ulResult);
            if (e.bLogs) {
                ExpectEntryRecord(cap, underscore);
            } else {
                EXPECT_TRUE(cap.Records().empty()) << cap.Dump();
            }
        }
    }
}

TEST(InterfaceDefaults, ResultsByName)
{
    LogCapture cap;
    EXPECT_EQ(ISP_Load(), 0u);
    ExpectEntryRecord(cap, "_ISP_Load");
    cap.Clear();
    EXPECT_EQ(ISP_ZoomIn(), 9215u);
    ExpectEntryRecord(cap, "_ISP_ZoomIn");
    cap.Clear();
    EXPECT_EQ(IMG_GetThermalFrozenStat(), 0u);
    ExpectEntryRecord(cap, "_IMG_GetThermalFrozenStat");

    EXPECT_EQ(ISP_SetLensType(), 0u);
    EXPECT_EQ(ISP_GetLensType(), 9215u);
    EXPECT_EQ(ISP_SetExposure(), 0u);
    EXPECT_EQ(ISP_GetExposure(), 9215u);
    EXPECT_EQ(ISP_GetImgStabCap(), 9215u);
    EXPECT_EQ(ISP_CLI_GetBackFoucsStatus(), 9215u);
    EXPECT_EQ(ISP_SetAutoFocusStatus(), 9215u);
    EXPECT_EQ(ISP_SetImgStab(), 0u);
    EXPECT_EQ(ISP_WindowProc(), 0u);
    for (EntryFn pfn : {&ISP_GetAEIris, &ISP_GetAEShutter, &ISP_GetAEGain, &ISP_GetAWBRGain,
                        &ISP_GetAWBBGain, &ISP_GetCurrentLuma})
        EXPECT_EQ(pfn(), 0u);

    cap.Clear();
    EXPECT_EQ(ISP_GetPeriphStatus(), 0u);
    EXPECT_EQ(_ISP_GetPeriphStatus(), 0u);
    EXPECT_TRUE(cap.Records().empty()) << cap.Dump();
}

TEST(InterfaceDefaults, ArgumentsAreIgnored)
{
    LogCapture cap;
    Thermal4 k{{1, 2, 3, 4}};
    BlackBody bb{{5, 6, 7, 8, 9}};
    Pair a{1, 2}, b{3, 4};
    Big big{};
    big.auc[199] = 0xAA;
    u32 ulOut = 0x1234;

    EXPECT_EQ(ISP_CalcKFParam(k), 0u);
    EXPECT_EQ(ISP_SetBlackBodyInfo(7u, bb), 0u);
    EXPECT_EQ(ISP_FaceAreaVisible2Thermal(a, b), 0u);
    EXPECT_EQ(ISP_ZoomIn(1.5, "text", -7, nullptr, big, 2.25f, &ulOut, 9ull, 10, 11, 12), 9215u);
    EXPECT_EQ(_ISP_GetZoomPos(&ulOut), 9215u);
    EXPECT_EQ(cap.Records().size(), 5u) << cap.Dump();
    // Nothing is read from or written through the arguments.
    EXPECT_EQ(ulOut, 0x1234u);
    EXPECT_EQ(big.auc[199], 0xAA);
    EXPECT_EQ(k.aul[3], 4u);
}

TEST(InterfaceDefaults, ResultDoesNotDependOnTheLogThreshold)
{
    LogCapture cap(LOG_LEVEL_WRN);
    EXPECT_EQ(ISP_ZoomIn(), 9215u);
    EXPECT_EQ(ISP_Load(), 0u);
    EXPECT_TRUE(cap.Records().empty()) << cap.Dump();
}
