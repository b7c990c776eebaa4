/** @file
 * Fixed-width types and the export marker shared by every public header. */
#ifndef IBP_ISP_TYPES_H
#define IBP_ISP_TYPES_H

/* The ISP_ layer speaks in POSIX types (struct sigaction, sigset_t, ...), which
 * a strict -std=c11 hides; ask for them when the ibp headers come first. */
#if !defined(_DEFAULT_SOURCE) && !defined(_GNU_SOURCE)
/** Asks the libc for the POSIX types that a strict -std=c11 hides. */
#define _DEFAULT_SOURCE 1
#endif

#include <stddef.h>
#include <stdint.h>

typedef uint32_t u32; /**< unsigned, 32 bits */
typedef int32_t s32;  /**< signed, 32 bits */
typedef uint16_t u16; /**< unsigned, 16 bits */
typedef int16_t s16;  /**< signed, 16 bits */
typedef uint8_t u8;   /**< unsigned, 8 bits */
typedef int8_t s8;    /**< signed, 8 bits */
typedef uint64_t u64; /**< unsigned, 64 bits */
typedef int64_t s64;  /**< signed, 64 bits */

#if defined(__GNUC__)
/** Marks a name that the shared object exports. */
#define IBP_API __attribute__((visibility("default")))
/** Lets the compiler check a printf format: argument numbers of the format and of its first value. */
#define IBP_PRINTF(fmt, first) __attribute__((format(printf, fmt, first)))
#else
#define IBP_API
#define IBP_PRINTF(fmt, first)
#endif

#ifdef __cplusplus
#define IBP_EXTERN_C_BEGIN extern "C" {
#define IBP_EXTERN_C_END }
#else
/** Opens C linkage for the declarations of a header in C++; empty in C. */
#define IBP_EXTERN_C_BEGIN
/** Closes IBP_EXTERN_C_BEGIN. */
#define IBP_EXTERN_C_END
#endif

#endif /* IBP_ISP_TYPES_H */
