/* Fixed-width integer names shared by the platform API and the daemon. */
#ifndef PLAT_TYPES_H
#define PLAT_TYPES_H

#include <stddef.h>
#include <stdint.h>

typedef uint8_t u8;
typedef uint16_t u16;
typedef uint32_t u32;
typedef uint64_t u64;
typedef int8_t i8;
typedef int16_t i16;
typedef int32_t i32;
typedef int64_t i64;

#ifdef __cplusplus
#define PLAT_EXTERN_C_BEGIN extern "C" {
#define PLAT_EXTERN_C_END }
#else
#define PLAT_EXTERN_C_BEGIN
#define PLAT_EXTERN_C_END
#endif

/* Compile-time checks of record layouts, in C and C++ alike. */
#ifdef __cplusplus
#define PLAT_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define PLAT_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

#endif
