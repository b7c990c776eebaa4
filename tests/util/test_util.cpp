// Guarded division, interpolation and the digit helpers.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "harness/files.h"
#include "harness/log_capture.h"
#include "ibp/isp_util.h"

using ibptest::LogCapture;

namespace {

using Texts = std::vector<std::string>;

// "LEVEL MODULE function text" of every captured record; then clears.
Texts Take(LogCapture &cap)
{
    const Texts lines = cap.Lines(true);
    return cap.Clear(), lines;
}

// Every integer guard through one signature, by name; values travel as 64-bit patterns.
using DivFn = u64 (*)(u64, u64, s32);
#define GUARD(fn, T) {#fn, [](u64 a, u64 b, s32 r) { return static_cast<u64>(fn("cam.c", 12, (T)a, (T)b, r)); }}
const std::map<std::string, DivFn> kGuards = {GUARD(__ISP_div0, s32),        GUARD(__ISP_div0_l, long),
                                              GUARD(__ISP_div0_ll, s64),     GUARD(__ISP_div0_u, u32),
                                              GUARD(__ISP_div0_lu, unsigned long), GUARD(__ISP_div0_llu, u64)};
#undef GUARD
u64 Num(const std::string &s) { return s[0] == '-' ? u64(std::stoll(s, nullptr, 0)) : std::stoull(s, nullptr, 0); }

// The two floating-point guards; `single` picks the float one.
struct FloatCase { bool single; double a, b; s32 round; double want; const char *report; };
constexpr double kInf = std::numeric_limits<double>::infinity(), kNan = std::numeric_limits<double>::quiet_NaN();
constexpr float kNearF = 1e-6f;  // the float nearest 1e-6 lies below the double 1e-6
const FloatCase kFloatCases[] = {
    {false, 1, 0.0, 0, kInf, "divdend=1.000000 divisor=0.000000"},  // no replacement divisor
    {false, 1, -0.0, 1, -kInf, "divdend=1.000000 divisor=-0.000000"},
    {false, 1, std::nextafter(1e-15, 0.0), 0, 1e15, "divdend=1.000000 divisor=0.000000"},
    {true, -2.5, 0, 0, -kInf, "divdend=-2.500000 divisor=0.000000"},
    {true, 1, kNearF, 0, 1e6, "divdend=1.000000 divisor=0.000001"},  // compared in double
    // At or above the threshold, or NaN: no report.
    {false, 1, 1e-15, 0, 1e15, nullptr},
    {true, 1, std::nextafter(kNearF, 1.0f), 0, 1e6, nullptr},
    {false, 1, kNan, 0, kNan, nullptr},
    // Rounding halves away from zero, only with 1.
    {false, -5, 2, 1, -3, nullptr},
    {false, 5, 2, 2, 2.5, nullptr},
    {true, -5, 2, 1, -3, nullptr},
};

}  // namespace

TEST(DivGuard, RoundingHalvesWrapThresholdsAndReports)
{
    // With `values`, exactly one warning of the guard `func`; without, no record.
    const auto Report = [](const std::string &func, const char *values) {
        return values ? Texts{"WRN BP " + func + " in file=cam.c line=12: div 0 detected! " + values} : Texts{};
    };
    LogCapture cap;
    for (const auto &row : ibptest::Rows("util/data/div_guards.txt")) {
        SCOPED_TRACE(row[0] + " " + row[1] + " by " + row[2]);
        EXPECT_EQ(kGuards.at(row[0])(Num(row[1]), Num(row[2]), std::stoi(row[3])), Num(row[4]));
        EXPECT_EQ(Take(cap), Report(row[0], row[5].empty() ? nullptr : row[5].c_str()));
    }
    for (const FloatCase &c : kFloatCases) {
        SCOPED_TRACE(std::to_string(c.a) + " by " + std::to_string(c.b) + (c.single ? " in float" : ""));
        const double got = c.single ? __ISP_fdiv0_f("cam.c", 12, float(c.a), float(c.b), c.round)
                                    : __ISP_fdiv0("cam.c", 12, c.a, c.b, c.round);
        EXPECT_TRUE(got == c.want || (std::isnan(got) && std::isnan(c.want)) ||
                    std::fabs(got - c.want) <= 1e-6 * std::fabs(c.want)) << got;
        EXPECT_EQ(Take(cap), Report(c.single ? "__ISP_fdiv0_f" : "__ISP_fdiv0", c.report));
    }
}

TEST(Interpolation, AtAndBeyondTheEndsTruncationAndRefusals)
{
    EXPECT_EQ(ISP_LinInterp(0.0, 2.0, 6.0, -1.0, 7.0), -5.0);
    EXPECT_EQ(ISP_LinInterp(1.0, 0.0, 49.0, 0.0, 49.0), 1.0);         // product before quotient
    EXPECT_TRUE(std::isinf(ISP_LinInterp(3.0, 2.0, 2.0, 0.0, 1.0)));  // no guard
    EXPECT_EQ(ISP_LinInterp_ll(5, 0, 10, 0, -3), -1);                 // toward zero
    EXPECT_EQ(ISP_LinInterp_ll(12345, 7, 7, -8, 99), -8);
    EXPECT_EQ(ISP_LinInterp_ll(1, 0, 2, 0, 0x200000000LL), 0x100000000LL);
    EXPECT_EQ(ISP_LinInterp_ll(1, 0, -1, 0, INT64_MIN), INT64_MIN);   // wraps, no trap
    // Unsigned: the result leans to the first ordinate, either direction of either axis.
    EXPECT_EQ(ISP_LinInterp_llu(5, 0, 10, 7, 10), 8u);
    EXPECT_EQ(ISP_LinInterp_llu(5, 0, 10, 10, 7), 9u);
    EXPECT_EQ(ISP_LinInterp_llu(5, 10, 0, 0, 10), 5u);
    EXPECT_EQ(ISP_LinInterp_llu(20, 0, 10, 0, 10), 20u);
    EXPECT_EQ(ISP_LinInterp_llu(99, 4, 4, 31, 0), 31u);

    // Piece-wise: held at the end ordinates outside the table.
    ISP_LIN_S full{{}, ISP_LIN_POINT_MAX};  // a full table is valid
    for (u32 i = 0; i < ISP_LIN_POINT_MAX; ++i)
        full.astPoint[i] = {i * 100, i * 1000};
    const ISP_LIN_S lins[] = {{{{10, 100}, {20, 200}, {30, 150}}, 3},
                              {{{10, 1}, {10, 2}, {20, 3}}, 3},  // a point ends the segment before it
                              {{{0, UINT32_MAX}, {UINT32_MAX, 0}}, 2},  // 64-bit arithmetic in between
                              {{{10, 5}}, 1}, full, {{{10, 5}}, ISP_LIN_POINT_MAX + 1}, {{{10, 5}}, 0}};
    const std::tuple<int, u32, u32> cases[] = {
        {0, 0, 100}, {0, 10, 100}, {0, 15, 150}, {0, 20, 200},  {0, 25, 175}, {0, 29, 155},
        {0, 30, 150}, {0, UINT32_MAX, 150}, {1, 10, 1}, {1, 11, 2}, {3, 0, 5}, {3, 10, 5},
        {3, 11, 5}, {2, 0x80000000u, 0x7FFFFFFFu}, {4, 850, 8500}, {4, 901, 9000}};
    for (auto [i, x, want] : cases) {
        u32 y = 0xDEADBEEF;
        EXPECT_EQ(ISP_PieceWiseLinInterp_llu(&lins[i], x, &y), 0u);
        EXPECT_EQ(y, want) << "table " << i << " x=" << x;
    }

    LogCapture cap;
    u32 y = 77;
    for (const ISP_LIN_S *p : {&lins[5], &lins[6]})
        EXPECT_EQ(ISP_PieceWiseLinInterp_llu(p, 15, &y), 1u);
    EXPECT_EQ(y, 77u);
    const std::string k = "ERR BP ISP_PieceWiseLinInterp_llu ";
    EXPECT_EQ(Take(cap), (Texts{k + "piece wise linear point num 11 > 10", k + "piece wise linear point num is 0"}));
}

TEST(Digits, BitNumRoundTruncate)
{
    const std::pair<u32, u32> digits[] = {{0, 1}, {9, 1}, {10, 2}, {999999999, 9}, {1000000000, 10}, {UINT32_MAX, 10}};
    for (auto [v, n] : digits)
        EXPECT_EQ(ISP_GetBitNum(v), n) << v;
    LogCapture cap;
    EXPECT_EQ(ISP_GetNumRound(9, 10), 0u);  // truncates
    EXPECT_EQ(ISP_GetNumRound(7, 0), 7u);
    EXPECT_EQ(ISP_GetNumTruncate(UINT32_MAX, 10), 5u);
    EXPECT_EQ(ISP_GetNumTruncate(7, 0), 0u);  // no trap
    EXPECT_EQ(Take(cap), Texts{});
}
