// Numeric helpers: guarded division, linear and piece-wise linear interpolation,
// and small digit helpers. No state, no lock.
#include "ibp/isp_util.h"

#include <cmath>
#include <iterator>
#include <type_traits>

#include "log/log_internal.h"

IBP_LOG_SOURCE("isp_util");

namespace {

// Signed overflow is undefined in C++, but these helpers promise wrap-round in
// the operand's width, so the arithmetic goes through the unsigned twin.
template <typename T> constexpr T WrapAdd(T a, T b)
{
    using U = std::make_unsigned_t<T>;
    return static_cast<T>(static_cast<U>(a) + static_cast<U>(b));
}

template <typename T> constexpr T WrapSub(T a, T b)
{
    using U = std::make_unsigned_t<T>;
    return static_cast<T>(static_cast<U>(a) - static_cast<U>(b));
}

template <typename T> constexpr T WrapMul(T a, T b)
{
    using U = std::make_unsigned_t<T>;
    return static_cast<T>(static_cast<U>(a) * static_cast<U>(b));
}

// Division truncating toward zero for a divisor that is not 0. The smallest
// signed value divided by -1 does not fit and traps on x86; it wraps to
// itself here, as the negation in the unsigned twin does.
template <typename T> constexpr T TruncDiv(T dividend, T divisor)
{
    if constexpr (std::is_signed_v<T>) {
        if (divisor == -1)
            return WrapSub(T{0}, dividend);
    }
    return dividend / divisor;
}

// How half the divisor is taken when rounding is asked for.
enum class Half {
    kTruncate,  // signed division by 2, toward zero
    kShift,     // shift right by 1: arithmetic for signed, logical for unsigned
};

// The arithmetic common to the six integer guards.
template <Half H, typename T> constexpr T GuardedQuotient(T dividend, T divisor, s32 lRound)
{
    if (divisor == 0)
        divisor = 1;
    if (lRound == 1)
        dividend = WrapAdd(dividend, H == Half::kTruncate ? static_cast<T>(divisor / 2)
                                                           : static_cast<T>(divisor >> 1));
    return TruncDiv(dividend, divisor);
}

// %s of a null pointer is not defined by C; the report prints a marker instead.
const char *FileName(const char *pcFile) { return pcFile != nullptr ? pcFile : "(null)"; }

// The six integer guards: a zero divisor is reported under the caller's
// function name, then counts as 1. Printing through the widest type gives
// the same digits as the operand's own conversion, whatever its width.
template <Half H, typename T>
T GuardedDiv(const char *pcFunc, const char *pcFile, s32 lLine, T dividend, T divisor, s32 lRound)
{
    if (divisor == 0) {
        if constexpr (std::is_signed_v<T>)
            LOG_Pirnt(LOG_MODULE_BP, LOG_LEVEL_WRN, kLogSrcFile, pcFunc, __LINE__,
                      "in file=%s line=%d: div 0 detected! divdend=%lld divisor=%lld", FileName(pcFile),
                      lLine, static_cast<long long>(dividend), static_cast<long long>(divisor));
        else
            LOG_Pirnt(LOG_MODULE_BP, LOG_LEVEL_WRN, kLogSrcFile, pcFunc, __LINE__,
                      "in file=%s line=%d: div 0 detected! divdend=%llu divisor=%llu", FileName(pcFile),
                      lLine, static_cast<unsigned long long>(dividend),
                      static_cast<unsigned long long>(divisor));
    }
    return GuardedQuotient<H>(dividend, divisor, lRound);
}

constexpr double kFdivThreshold = 1e-15;
constexpr double kFdivThresholdF = 1e-6;  // compared in double, after widening the float

}  // namespace

extern "C" {

// ---------------------------------------------------------------- integer guards

IBP_API s32 __ISP_div0(const char *pcFile, s32 lLine, s32 lDividend, s32 lDivisor, s32 lRound)
{
    return GuardedDiv<Half::kTruncate>(__func__, pcFile, lLine, lDividend, lDivisor, lRound);
}

IBP_API long __ISP_div0_l(const char *pcFile, s32 lLine, long lDividend, long lDivisor,
                          s32 lRound)
{
    return GuardedDiv<Half::kTruncate>(__func__, pcFile, lLine, lDividend, lDivisor, lRound);
}

IBP_API s64 __ISP_div0_ll(const char *pcFile, s32 lLine, s64 llDividend, s64 llDivisor,
                          s32 lRound)
{
    return GuardedDiv<Half::kShift>(__func__, pcFile, lLine, llDividend, llDivisor, lRound);
}

IBP_API u32 __ISP_div0_u(const char *pcFile, s32 lLine, u32 ulDividend, u32 ulDivisor, s32 lRound)
{
    return GuardedDiv<Half::kShift>(__func__, pcFile, lLine, ulDividend, ulDivisor, lRound);
}

IBP_API unsigned long __ISP_div0_lu(const char *pcFile, s32 lLine, unsigned long ulDividend,
                                    unsigned long ulDivisor, s32 lRound)
{
    return GuardedDiv<Half::kShift>(__func__, pcFile, lLine, ulDividend, ulDivisor, lRound);
}

IBP_API u64 __ISP_div0_llu(const char *pcFile, s32 lLine, u64 ullDividend, u64 ullDivisor,
                           s32 lRound)
{
    return GuardedDiv<Half::kShift>(__func__, pcFile, lLine, ullDividend, ullDivisor, lRound);
}

// ---------------------------------------------------------------- floating-point guards
// A tiny divisor is only reported: the IEEE quotient (infinity, NaN or a
// huge value) is what the caller gets. A NaN divisor compares false.

IBP_API double __ISP_fdiv0(const char *pcFile, s32 lLine, double dDividend, double dDivisor,
                           s32 lRound)
{
    if (std::fabs(dDivisor) < kFdivThreshold)
        IBP_WRN("in file=%s line=%d: div 0 detected! divdend=%lf divisor=%lf", FileName(pcFile),
                lLine, dDividend, dDivisor);
    double dQuot = dDividend / dDivisor;
    return lRound == 1 ? std::round(dQuot) : dQuot;
}

IBP_API float __ISP_fdiv0_f(const char *pcFile, s32 lLine, float fDividend, float fDivisor,
                            s32 lRound)
{
    if (static_cast<double>(std::fabs(fDivisor)) < kFdivThresholdF)
        IBP_WRN("in file=%s line=%d: div 0 detected! divdend=%f divisor=%f", FileName(pcFile),
                lLine, static_cast<double>(fDividend), static_cast<double>(fDivisor));
    float fQuot = fDividend / fDivisor;
    return lRound == 1 ? std::roundf(fQuot) : fQuot;
}

// ---------------------------------------------------------------- interpolation

IBP_API double ISP_LinInterp(double dX, double dX0, double dX1, double dY0, double dY1)
{
    double dDy = dY1 - dY0;
    double dDx = dX - dX0;
    double dSpan = dX1 - dX0;
    return dDy * dDx / dSpan + dY0;
}

IBP_API s64 ISP_LinInterp_ll(s64 llX, s64 llX0, s64 llX1, s64 llY0, s64 llY1)
{
    if (llX1 == llX0)
        return llY0;
    s64 llProduct = WrapMul(WrapSub(llY1, llY0), WrapSub(llX, llX0));
    return WrapAdd(llY0, TruncDiv(llProduct, WrapSub(llX1, llX0)));
}

// Distances instead of differences, so nothing goes negative on the segment
// whichever way either axis runs; the result leans toward ullY0.
IBP_API u64 ISP_LinInterp_llu(u64 ullX, u64 ullX0, u64 ullX1, u64 ullY0, u64 ullY1)
{
    if (ullX1 == ullX0)
        return ullY0;
    u64 ullDist = ullX1 > ullX0 ? ullX - ullX0 : ullX0 - ullX;
    u64 ullSpan = ullX1 > ullX0 ? ullX1 - ullX0 : ullX0 - ullX1;
    if (ullY1 >= ullY0)
        return ullY0 + ((ullY1 - ullY0) * ullDist) / ullSpan;
    return ullY0 - ((ullY0 - ullY1) * ullDist) / ullSpan;
}

// pulY is tested too, and an empty table is refused: neither has an answer
// to store, and both would otherwise read or write through nothing.
IBP_API u32 ISP_PieceWiseLinInterp_llu(const ISP_LIN_S *pstLin, u32 ulX, u32 *pulY)
{
    if (pstLin == nullptr) {
        IBP_ERR("pstLin is NULL");
        return 1;
    }
    if (pulY == nullptr) {
        IBP_ERR("pulY is NULL");
        return 1;
    }
    const size_t ulMax = std::size(pstLin->astPoint);
    const u32 ulNum = pstLin->ulNum;
    if (ulNum > ulMax) {
        IBP_ERR("piece wise linear point num %u > %zd", ulNum, ulMax);
        return 1;
    }
    if (ulNum == 0) {
        IBP_ERR("piece wise linear point num is 0");
        return 1;
    }

    const ISP_LIN_POINT_S *pstPts = pstLin->astPoint;
    if (pstPts[0].ulX > ulX) {
        *pulY = pstPts[0].ulY;
        return 0;
    }
    if (pstPts[ulNum - 1].ulX < ulX || ulNum == 1) {
        *pulY = pstPts[ulNum - 1].ulY;
        return 0;
    }
    // A value on a point's abscissa belongs to the segment that ends there.
    // The last point's abscissa is at least ulX, so the search ends by ulNum - 1.
    u32 i = 1;
    while (i < ulNum - 1 && pstPts[i].ulX < ulX)
        ++i;
    *pulY = static_cast<u32>(ISP_LinInterp_llu(ulX, pstPts[i - 1].ulX, pstPts[i].ulX,
                                               pstPts[i - 1].ulY, pstPts[i].ulY));
    return 0;
}

// ---------------------------------------------------------------- digits

IBP_API u32 ISP_GetBitNum(u32 ulValue)
{
    u32 ulDigits = 1;
    for (; ulValue >= 10; ulValue /= 10)
        ++ulDigits;
    return ulDigits;
}

IBP_API u32 ISP_GetNumRound(u32 ulNum1, u32 ulNum2)
{
    return ulNum2 == 0 ? ulNum1 : ulNum1 / ulNum2;
}

// A zero divisor would trap (SIGFPE); like ISP_GetNumRound it counts as 1,
// which leaves no remainder.
IBP_API u32 ISP_GetNumTruncate(u32 ulNum1, u32 ulNum2)
{
    return ulNum2 == 0 ? 0 : ulNum1 % ulNum2;
}

}  // extern "C"
