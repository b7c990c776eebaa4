// Guarded division, interpolation and the digit helpers.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <limits>

#include "harness/log_capture.h"
#include "ibp/isp_util.h"

using ibptest::LogCapture;

namespace {

constexpr const char *kDiv0Head = "in file=cam.c line=12: div 0 detected! ";

// Exactly one warning of the guard `func`, with the caller's place and `values`.
void ExpectDiv0Report(const LogCapture &cap, const char *func, const std::string &values)
{
    auto recs = cap.Records();
    ASSERT_EQ(recs.size(), 1u) << cap.Dump();
    EXPECT_EQ(recs[0].level, "WRN");
    EXPECT_EQ(recs[0].module, "BP");
    EXPECT_EQ(recs[0].func, func);
    EXPECT_EQ(recs[0].place.rfind("isp_util-", 0), 0u) << recs[0].place;
    EXPECT_EQ(recs[0].text, kDiv0Head + values);
}

ISP_LIN_S Table(std::initializer_list<ISP_LIN_POINT_S> points)
{
    ISP_LIN_S lin{};
    for (const ISP_LIN_POINT_S &p : points)
        lin.astPoint[lin.ulNum++] = p;
    return lin;
}

u32 Lookup(const ISP_LIN_S &lin, u32 x)
{
    u32 y = 0xDEADBEEF;
    EXPECT_EQ(ISP_PieceWiseLinInterp_llu(&lin, x, &y), 0u) << "x=" << x;
    return y;
}

}  // namespace

// ---------------------------------------------------------------- integer guards

TEST(IntegerGuard, RoundingOnlyWhenAskedWithOne)
{
    LogCapture cap;
    EXPECT_EQ(__ISP_div0("cam.c", 12, 7, 2, 0), 3);
    EXPECT_EQ(__ISP_div0("cam.c", 12, 7, 2, 1), 4);
    EXPECT_EQ(__ISP_div0("cam.c", 12, 7, 2, 2), 3);
    EXPECT_EQ(__ISP_div0("cam.c", 12, 7, 2, -1), 3);
    EXPECT_EQ(__ISP_div0_u("cam.c", 12, 7, 2, 1), 4u);
    EXPECT_EQ(__ISP_div0_llu("cam.c", 12, 7, 2, 1), 4u);
    EXPECT_TRUE(cap.Records().empty()) << cap.Dump();
}

TEST(IntegerGuard, ZeroDivisorGivesDividendAndWarns)
{
    LogCapture cap;
    for (s32 round : {0, 1}) {
        cap.Clear();
        EXPECT_EQ(__ISP_div0("cam.c", 12, 7, 0, round), 7);
        ExpectDiv0Report(cap, "__ISP_div0", "divdend=7 divisor=0");
    }
    cap.Clear();
    EXPECT_EQ(__ISP_div0_l("cam.c", 12, -7, 0, 1), -7);
    ExpectDiv0Report(cap, "__ISP_div0_l", "divdend=-7 divisor=0");
    cap.Clear();
    EXPECT_EQ(__ISP_div0_ll("cam.c", 12, -5000000000LL, 0, 1), -5000000000LL);
    ExpectDiv0Report(cap, "__ISP_div0_ll", "divdend=-5000000000 divisor=0");
    cap.Clear();
    EXPECT_EQ(__ISP_div0_u("cam.c", 12, UINT32_MAX, 0, 1), UINT32_MAX);
    ExpectDiv0Report(cap, "__ISP_div0_u", "divdend=4294967295 divisor=0");
    cap.Clear();
    EXPECT_EQ(__ISP_div0_lu("cam.c", 12, 4000000000UL, 0, 0), 4000000000UL);
    ExpectDiv0Report(cap, "__ISP_div0_lu", "divdend=4000000000 divisor=0");
    cap.Clear();
    EXPECT_EQ(__ISP_div0_llu("cam.c", 12, UINT64_MAX, 0, 1), UINT64_MAX);
    ExpectDiv0Report(cap, "__ISP_div0_llu", "divdend=18446744073709551615 divisor=0");
}

TEST(IntegerGuard, SignedHalvesDiffer)
{
    // Half of -3 is -1 by signed division, -2 by arithmetic shift.
    EXPECT_EQ(__ISP_div0("cam.c", 12, 7, -3, 1), -2);
    EXPECT_EQ(__ISP_div0_l("cam.c", 12, 7, -3, 1), -2L);
    EXPECT_EQ(__ISP_div0_ll("cam.c", 12, 7, -3, 1), -1);
    // The half is added whatever the dividend's sign.
    EXPECT_EQ(__ISP_div0("cam.c", 12, -7, 2, 1), -3);
    EXPECT_EQ(__ISP_div0("cam.c", 12, -5, 4, 1), 0);
    EXPECT_EQ(__ISP_div0_ll("cam.c", 12, -5, 4, 1), 0);
    // Without rounding, signed division truncates toward zero.
    EXPECT_EQ(__ISP_div0("cam.c", 12, -7, 2, 0), -3);
    EXPECT_EQ(__ISP_div0_ll("cam.c", 12, -7, 2, 0), -3);
    // -5 / 2 is -2, -5 >> 1 is -3.
    EXPECT_EQ(__ISP_div0("cam.c", 12, 17, -5, 1), -3);     // (17 - 2) / -5
    EXPECT_EQ(__ISP_div0_ll("cam.c", 12, 17, -5, 1), -2);  // (17 - 3) / -5
}

TEST(IntegerGuard, WrapsInOwnWidth)
{
    EXPECT_EQ(__ISP_div0_u("cam.c", 12, 0xFFFFFFFFu, 2, 1), 0u);
    EXPECT_EQ(__ISP_div0_lu("cam.c", 12, ULONG_MAX, 2, 1), 0UL);
    EXPECT_EQ(__ISP_div0_llu("cam.c", 12, UINT64_MAX, 2, 1), 0u);
    // Unsigned half is a logical shift: the top bit of the divisor stays out.
    EXPECT_EQ(__ISP_div0_u("cam.c", 12, 0x80000000u, 0xFFFFFFFFu, 1), 1u);
    // A 64-bit operand is not cut to 32 bits.
    EXPECT_EQ(__ISP_div0_llu("cam.c", 12, 0x500000000ULL, 0x100000000ULL, 0), 5u);
    EXPECT_EQ(__ISP_div0_ll("cam.c", 12, -0x500000000LL, 0x100000000LL, 0), -5);
    // Signed rounding past the largest value wraps to the negative side.
    EXPECT_EQ(__ISP_div0("cam.c", 12, INT32_MAX, 2, 1), INT32_MIN / 2);
    EXPECT_EQ(__ISP_div0_ll("cam.c", 12, INT64_MAX, 2, 1), INT64_MIN / 2);
}

TEST(IntegerGuard, SmallestByMinusOneDoesNotTrap)
{
    EXPECT_EQ(__ISP_div0("cam.c", 12, INT32_MIN, -1, 0), INT32_MIN);
    EXPECT_EQ(__ISP_div0_l("cam.c", 12, LONG_MIN, -1, 0), LONG_MIN);
    EXPECT_EQ(__ISP_div0_ll("cam.c", 12, INT64_MIN, -1, 0), INT64_MIN);
    EXPECT_EQ(__ISP_div0("cam.c", 12, 5, -1, 0), -5);
    // Shift-half of -1 is -1: (6 - 1) / -1.
    EXPECT_EQ(__ISP_div0_ll("cam.c", 12, 6, -1, 1), -5);
    EXPECT_EQ(__ISP_div0("cam.c", 12, 6, -1, 1), -6);
}

// ---------------------------------------------------------------- floating-point guards

TEST(FloatGuard, ZeroAndTinyDivisorsWarnButDivide)
{
    LogCapture cap;
    EXPECT_EQ(__ISP_fdiv0("cam.c", 12, 1.0, 0.0, 0), std::numeric_limits<double>::infinity());
    ExpectDiv0Report(cap, "__ISP_fdiv0", "divdend=1.000000 divisor=0.000000");
    cap.Clear();
    EXPECT_EQ(__ISP_fdiv0("cam.c", 12, 1.0, -0.0, 1), -std::numeric_limits<double>::infinity());
    EXPECT_EQ(cap.Records().size(), 1u);
    cap.Clear();
    EXPECT_TRUE(std::isnan(__ISP_fdiv0("cam.c", 12, 0.0, 0.0, 0)));
    EXPECT_EQ(cap.Records().size(), 1u);
    cap.Clear();
    EXPECT_NEAR(__ISP_fdiv0("cam.c", 12, 1.0, 1e-16, 0), 1e16, 1.0);
    EXPECT_EQ(cap.Records().size(), 1u);
    cap.Clear();
    EXPECT_NEAR(__ISP_fdiv0("cam.c", 12, 1.0, -1e-16, 0), -1e16, 1.0);
    EXPECT_EQ(cap.Records().size(), 1u);
    cap.Clear();
    EXPECT_EQ(__ISP_fdiv0_f("cam.c", 12, -2.5f, 0.0f, 0), -std::numeric_limits<float>::infinity());
    ExpectDiv0Report(cap, "__ISP_fdiv0_f", "divdend=-2.500000 divisor=0.000000");
}

TEST(FloatGuard, ThresholdIsStrict)
{
    LogCapture cap;
    __ISP_fdiv0("cam.c", 12, 1.0, 1e-15, 0);
    __ISP_fdiv0("cam.c", 12, 1.0, -1e-15, 0);
    EXPECT_EQ(cap.Records().size(), 0u) << cap.Dump();
    __ISP_fdiv0("cam.c", 12, 1.0, std::nextafter(1e-15, 0.0), 0);
    EXPECT_EQ(cap.Records().size(), 1u);
    cap.Clear();
    // A NaN divisor is not below the threshold.
    EXPECT_TRUE(std::isnan(__ISP_fdiv0("cam.c", 12, 1.0, std::nan(""), 0)));
    EXPECT_TRUE(std::isnan(__ISP_fdiv0_f("cam.c", 12, 1.0f, std::nanf(""), 0)));
    EXPECT_EQ(cap.Records().size(), 0u) << cap.Dump();
}

TEST(FloatGuard, FloatThresholdComparedInDouble)
{
    LogCapture cap;
    // The float nearest 1e-6 lies just below the double 1e-6.
    const float fNear = 1e-6f;
    ASSERT_LT(static_cast<double>(fNear), 1e-6);
    __ISP_fdiv0_f("cam.c", 12, 1.0f, fNear, 0);
    EXPECT_EQ(cap.Records().size(), 1u) << cap.Dump();
    cap.Clear();
    __ISP_fdiv0_f("cam.c", 12, 1.0f, std::nextafter(fNear, 1.0f), 0);
    __ISP_fdiv0_f("cam.c", 12, 1.0f, -std::nextafter(fNear, 1.0f), 0);
    EXPECT_EQ(cap.Records().size(), 0u) << cap.Dump();
}

TEST(FloatGuard, RoundsHalvesAwayFromZero)
{
    EXPECT_EQ(__ISP_fdiv0("cam.c", 12, 5.0, 2.0, 1), 3.0);
    EXPECT_EQ(__ISP_fdiv0("cam.c", 12, -5.0, 2.0, 1), -3.0);
    EXPECT_EQ(__ISP_fdiv0("cam.c", 12, 5.0, 2.0, 2), 2.5);
    EXPECT_EQ(__ISP_fdiv0("cam.c", 12, 7.0, 3.0, 1), 2.0);
    EXPECT_EQ(__ISP_fdiv0_f("cam.c", 12, 5.0f, 2.0f, 1), 3.0f);
    EXPECT_EQ(__ISP_fdiv0_f("cam.c", 12, -5.0f, 2.0f, 1), -3.0f);
    EXPECT_EQ(__ISP_fdiv0_f("cam.c", 12, 5.0f, 2.0f, 0), 2.5f);
}

// ---------------------------------------------------------------- interpolation

TEST(LinInterp, DoubleEndsMidpointAndBeyond)
{
    EXPECT_EQ(ISP_LinInterp(2.0, 2.0, 6.0, -1.0, 7.0), -1.0);
    EXPECT_EQ(ISP_LinInterp(6.0, 2.0, 6.0, -1.0, 7.0), 7.0);
    EXPECT_EQ(ISP_LinInterp(4.0, 2.0, 6.0, -1.0, 7.0), 3.0);
    EXPECT_EQ(ISP_LinInterp(8.0, 2.0, 6.0, -1.0, 7.0), 11.0);
    EXPECT_EQ(ISP_LinInterp(0.0, 2.0, 6.0, -1.0, 7.0), -5.0);
    // Product before quotient: 49 * 1 / 49 is exactly 1, 49 * (1 / 49) is not.
    EXPECT_EQ(ISP_LinInterp(1.0, 0.0, 49.0, 0.0, 49.0), 1.0);
    // No guard on an empty segment: the IEEE quotient stands.
    EXPECT_TRUE(std::isinf(ISP_LinInterp(3.0, 2.0, 2.0, 0.0, 1.0)));
    EXPECT_TRUE(std::isnan(ISP_LinInterp(2.0, 2.0, 2.0, 0.0, 1.0)));
}

TEST(LinInterp, SignedTruncatesTowardZero)
{
    EXPECT_EQ(ISP_LinInterp_ll(5, 0, 10, 0, -3), -1);
    EXPECT_EQ(ISP_LinInterp_ll(5, 0, 10, 0, 3), 1);
    EXPECT_EQ(ISP_LinInterp_ll(0, 0, 10, 4, 9), 4);
    EXPECT_EQ(ISP_LinInterp_ll(10, 0, 10, 4, 9), 9);
    EXPECT_EQ(ISP_LinInterp_ll(20, 0, 10, 4, 9), 14);
    EXPECT_EQ(ISP_LinInterp_ll(-10, 0, 10, 4, 9), -1);
    EXPECT_EQ(ISP_LinInterp_ll(5, 10, 0, 0, 10), 5);
    EXPECT_EQ(ISP_LinInterp_ll(12345, 7, 7, -8, 99), -8);
    // Large values stay 64-bit.
    EXPECT_EQ(ISP_LinInterp_ll(1, 0, 2, 0, 0x200000000LL), 0x100000000LL);
    // The smallest quotient by -1 wraps instead of trapping.
    EXPECT_EQ(ISP_LinInterp_ll(1, 0, -1, 0, INT64_MIN), INT64_MIN);
}

TEST(LinInterp, UnsignedLeansToFirstOrdinate)
{
    EXPECT_EQ(ISP_LinInterp_llu(5, 0, 10, 7, 10), 8u);
    EXPECT_EQ(ISP_LinInterp_llu(5, 0, 10, 10, 7), 9u);
    EXPECT_EQ(ISP_LinInterp_llu(5, 10, 0, 0, 10), 5u);
    EXPECT_EQ(ISP_LinInterp_llu(3, 10, 0, 10, 0), 3u);
    EXPECT_EQ(ISP_LinInterp_llu(0, 0, 10, 7, 10), 7u);
    EXPECT_EQ(ISP_LinInterp_llu(10, 0, 10, 7, 10), 10u);
    EXPECT_EQ(ISP_LinInterp_llu(20, 0, 10, 0, 10), 20u);
    EXPECT_EQ(ISP_LinInterp_llu(99, 4, 4, 31, 0), 31u);
    EXPECT_EQ(ISP_LinInterp_llu(0x80000000u, 0, 0xFFFFFFFFu, 0, 0xFFFFFFFFu), 0x80000000u);
}

TEST(PieceWise, SegmentsEndsAndHolds)
{
    ISP_LIN_S lin = Table({{10, 100}, {20, 200}, {30, 150}});
    const std::pair<u32, u32> expect[] = {{0, 100},   {5, 100},   {10, 100}, {15, 150},
                                          {20, 200},  {25, 175},  {29, 155}, {30, 150},
                                          {35, 150},  {UINT32_MAX, 150}};
    for (auto [x, y] : expect)
        EXPECT_EQ(Lookup(lin, x), y) << "x=" << x;
}

TEST(PieceWise, EqualAbscissaeAndSinglePoint)
{
    ISP_LIN_S dup = Table({{10, 1}, {10, 2}, {20, 3}});
    EXPECT_EQ(Lookup(dup, 10), 1u);
    EXPECT_EQ(Lookup(dup, 11), 2u);
    EXPECT_EQ(Lookup(dup, 20), 3u);

    ISP_LIN_S one = Table({{10, 5}});
    for (u32 x : {0u, 9u, 10u, 11u, UINT32_MAX})
        EXPECT_EQ(Lookup(one, x), 5u) << "x=" << x;
}

TEST(PieceWise, FullTableAndWideValues)
{
    ISP_LIN_S lin{};
    for (u32 i = 0; i < ISP_LIN_POINT_MAX; ++i)
        lin.astPoint[i] = {i * 100, i * 1000};
    lin.ulNum = ISP_LIN_POINT_MAX;
    EXPECT_EQ(Lookup(lin, 850), 8500u);
    EXPECT_EQ(Lookup(lin, 900), 9000u);
    EXPECT_EQ(Lookup(lin, 901), 9000u);

    ISP_LIN_S wide = Table({{0, 0}, {UINT32_MAX, UINT32_MAX}});
    EXPECT_EQ(Lookup(wide, 0x80000000u), 0x80000000u);
    ISP_LIN_S falling = Table({{0, UINT32_MAX}, {UINT32_MAX, 0}});
    EXPECT_EQ(Lookup(falling, 0x80000000u), 0x7FFFFFFFu);
}

TEST(PieceWise, RefusedTablesStoreNothing)
{
    LogCapture cap;
    u32 y = 77;
    EXPECT_EQ(ISP_PieceWiseLinInterp_llu(nullptr, 5, &y), 1u);
    EXPECT_LOG(cap, "ERR", "BP", "pstLin is NULL");

    ISP_LIN_S lin = Table({{10, 100}, {20, 200}});
    lin.ulNum = ISP_LIN_POINT_MAX + 1;
    EXPECT_EQ(ISP_PieceWiseLinInterp_llu(&lin, 15, &y), 1u);
    EXPECT_LOG(cap, "ERR", "BP", "piece wise linear point num 11 > 10");

    lin.ulNum = 0;
    EXPECT_EQ(ISP_PieceWiseLinInterp_llu(&lin, 15, &y), 1u);
    EXPECT_LOG(cap, "ERR", "BP", "piece wise linear point num is 0");

    lin.ulNum = 2;
    EXPECT_EQ(ISP_PieceWiseLinInterp_llu(&lin, 15, nullptr), 1u);
    EXPECT_LOG(cap, "ERR", "BP", "pulY is NULL");
    EXPECT_EQ(y, 77u);
    EXPECT_EQ(cap.Records().size(), 4u) << cap.Dump();
}

// ---------------------------------------------------------------- digits

TEST(Digits, BitNumRoundTruncate)
{
    const std::pair<u32, u32> digits[] = {{0, 1},         {9, 1},          {10, 2},
                                          {99, 2},        {100, 3},        {999999999, 9},
                                          {1000000000, 10}, {UINT32_MAX, 10}};
    for (auto [v, n] : digits)
        EXPECT_EQ(ISP_GetBitNum(v), n) << v;

    LogCapture cap;
    EXPECT_EQ(ISP_GetNumRound(7, 2), 3u);
    EXPECT_EQ(ISP_GetNumRound(9, 10), 0u);
    EXPECT_EQ(ISP_GetNumRound(7, 0), 7u);
    EXPECT_EQ(ISP_GetNumTruncate(7, 2), 1u);
    EXPECT_EQ(ISP_GetNumTruncate(UINT32_MAX, 10), 5u);
    EXPECT_EQ(ISP_GetNumTruncate(7, 0), 0u);
    EXPECT_TRUE(cap.Records().empty()) << cap.Dump();
}
