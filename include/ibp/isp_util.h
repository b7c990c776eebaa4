/** @file
 * Numeric helpers: division that survives a zero divisor and says where it
 * happened, linear interpolation in floating point and 64-bit integers, and
 * interpolation through a table of up to ten points. Stateless, any thread. */
#ifndef IBP_ISP_UTIL_H
#define IBP_ISP_UTIL_H

#include "ibp/isp_types.h"

IBP_EXTERN_C_BEGIN

/** Most points an ISP_LIN_S holds. */
#define ISP_LIN_POINT_MAX 10

/** A point of an interpolation table. */
typedef struct {
    u32 ulX; /**< abscissa */
    u32 ulY; /**< ordinate */
} ISP_LIN_POINT_S;

/** Points in ascending order of ulX from index 0; ulNum of them in use. */
typedef struct {
    ISP_LIN_POINT_S astPoint[ISP_LIN_POINT_MAX]; /**< the points, ascending in ulX */
    u32 ulNum;                                   /**< points in use */
} ISP_LIN_S;

/** @name Guarded division
 * One function per type. pcFile and lLine name the caller for the warning
 * that a zero divisor (or, in floating point, a tiny one) produces. lRound ==
 * 1 adds half the divisor before an integer division, or rounds a floating
 * quotient; any other value means no rounding. A zero integer divisor counts
 * as 1.
 * @{ */
/** Division of s32. */
IBP_API s32 __ISP_div0(const char *pcFile, s32 lLine, s32 lDividend, s32 lDivisor, s32 lRound);
/** Division of long. */
IBP_API long __ISP_div0_l(const char *pcFile, s32 lLine, long lDividend, long lDivisor,
                          s32 lRound);
/** Division of s64. */
IBP_API s64 __ISP_div0_ll(const char *pcFile, s32 lLine, s64 llDividend, s64 llDivisor,
                          s32 lRound);
/** Division of u32. */
IBP_API u32 __ISP_div0_u(const char *pcFile, s32 lLine, u32 ulDividend, u32 ulDivisor,
                         s32 lRound);
/** Division of unsigned long. */
IBP_API unsigned long __ISP_div0_lu(const char *pcFile, s32 lLine, unsigned long ulDividend,
                                    unsigned long ulDivisor, s32 lRound);
/** Division of u64. */
IBP_API u64 __ISP_div0_llu(const char *pcFile, s32 lLine, u64 ullDividend, u64 ullDivisor,
                           s32 lRound);
/** Division of double. */
IBP_API double __ISP_fdiv0(const char *pcFile, s32 lLine, double dDividend, double dDivisor,
                           s32 lRound);
/** Division of float. */
IBP_API float __ISP_fdiv0_f(const char *pcFile, s32 lLine, float fDividend, float fDivisor,
                            s32 lRound);
/** @} */

/** Linear interpolation on the segment (X0, Y0) - (X1, Y1) at X; no clamping. */
IBP_API double ISP_LinInterp(double dX, double dX0, double dX1, double dY0, double dY1);
/** As ISP_LinInterp in s64, the quotient truncated; Y0 when X1 equals X0. */
IBP_API s64 ISP_LinInterp_ll(s64 llX, s64 llX0, s64 llX1, s64 llY0, s64 llY1);
/** As ISP_LinInterp in u64, on distances so that nothing goes negative
 * whichever way the axes run; Y0 when X1 equals X0. */
IBP_API u64 ISP_LinInterp_llu(u64 ullX, u64 ullX0, u64 ullX1, u64 ullY0, u64 ullY1);

/** Looks ulX up in the table, held at the end ordinates outside it, and
 * stores the ordinate through pulY. 0 for success, 1 for failure. */
IBP_API u32 ISP_PieceWiseLinInterp_llu(const ISP_LIN_S *pstLin, u32 ulX, u32 *pulY);

/** Number of decimal digits of ulValue (1 for 0). */
IBP_API u32 ISP_GetBitNum(u32 ulValue);
/** ulNum1 / ulNum2, truncated; ulNum1 when ulNum2 is 0. */
IBP_API u32 ISP_GetNumRound(u32 ulNum1, u32 ulNum2);
/** ulNum1 % ulNum2; 0 when ulNum2 is 0. */
IBP_API u32 ISP_GetNumTruncate(u32 ulNum1, u32 ulNum2);

IBP_EXTERN_C_END

#endif /* IBP_ISP_UTIL_H */
