/* Fixed-width types and the export marker shared by every public header. */
#ifndef IBP_ISP_TYPES_H
#define IBP_ISP_TYPES_H

/* The ISP_ layer speaks in POSIX types (struct sigaction, sigset_t, ...), which
 * a strict -std=c11 hides; ask for them when the ibp headers come first. */
#if !defined(_DEFAULT_SOURCE) && !defined(_GNU_SOURCE)
#define _DEFAULT_SOURCE 1
#endif

#include <stddef.h>
#include <stdint.h>

typedef uint32_t u32;
typedef int32_t s32;
typedef uint16_t u16;
typedef int16_t s16;
typedef uint8_t u8;
typedef int8_t s8;
typedef uint64_t u64;
typedef int64_t s64;

#if defined(__GNUC__)
#define IBP_API __attribute__((visibility("default")))
#define IBP_PRINTF(fmt, first) __attribute__((format(printf, fmt, first)))
#else
#define IBP_API
#define IBP_PRINTF(fmt, first)
#endif

#ifdef __cplusplus
#define IBP_EXTERN_C_BEGIN extern "C" {
#define IBP_EXTERN_C_END }
#else
#define IBP_EXTERN_C_BEGIN
#define IBP_EXTERN_C_END
#endif

#endif /* IBP_ISP_TYPES_H */
