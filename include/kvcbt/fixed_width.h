/* Fixed-width integers and layout checks for the public interface.
 *
 * The headers in this directory describe bytes that leave the driver (control requests,
 * replies, files on disk, the debug log), so they are plain C with exact widths and no
 * padding. They are read by the driver, which is built without any C library header, and
 * by tools built with one; the widths therefore come from the compiler itself. */
#ifndef KVCBT_FIXED_WIDTH_H
#define KVCBT_FIXED_WIDTH_H

#if defined(_MSC_VER)
typedef unsigned __int8 CBT_U8;
typedef unsigned __int16 CBT_U16;
typedef unsigned __int32 CBT_U32;
typedef unsigned __int64 CBT_U64;
typedef signed __int32 CBT_I32;
typedef signed __int64 CBT_I64;
#else
typedef __UINT8_TYPE__ CBT_U8;
typedef __UINT16_TYPE__ CBT_U16;
typedef __UINT32_TYPE__ CBT_U32;
typedef __UINT64_TYPE__ CBT_U64;
typedef __INT32_TYPE__ CBT_I32;
typedef __INT64_TYPE__ CBT_I64;
#endif

/* A layout fact checked when the header is compiled. */
#if defined(__cplusplus)
#define CBT_LAYOUT_CHECK(condition, what) static_assert(condition, what)
#else
#define CBT_LAYOUT_CHECK(condition, what) _Static_assert(condition, what)
#endif

#if defined(__cplusplus)
#define CBT_OFFSET_OF(type, field) __builtin_offsetof(type, field)
#elif defined(_MSC_VER)
#define CBT_OFFSET_OF(type, field) ((CBT_U64)(&((type*)0)->field))
#else
#define CBT_OFFSET_OF(type, field) __builtin_offsetof(type, field)
#endif

CBT_LAYOUT_CHECK(sizeof(CBT_U8) == 1 && sizeof(CBT_U16) == 2 && sizeof(CBT_U32) == 4 && sizeof(CBT_U64) == 8,
                 "fixed-width integers have their widths");

#endif /* KVCBT_FIXED_WIDTH_H */
