/*
 * tn_types.h - the shared names of tarnel_util.
 *
 * Every public header includes this one. It fixes the widths that the whole
 * library is written for, the export and linkage markers, and the comparator
 * shape that all array families share. It is plain C99.
 */
#ifndef TARNEL_UTIL_TN_TYPES_H
#define TARNEL_UTIL_TN_TYPES_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define TN_BEGIN_DECLS extern "C" {
#define TN_END_DECLS }
#else
#define TN_BEGIN_DECLS
#define TN_END_DECLS
#endif

/* Marks a function as part of the library's exported interface. Everything
 * else in the shared object is hidden. */
#if defined(TN_STATIC)
#define TN_API
#elif defined(__GNUC__) || defined(__clang__)
#define TN_API __attribute__((visibility("default")))
#else
#define TN_API
#endif

TN_BEGIN_DECLS

/* A truth value: 1 or 0, 32 bits wide. */
typedef int32_t tn_bool;

typedef int8_t tn_int8;
typedef int16_t tn_int16;
typedef int32_t tn_int32;
typedef int64_t tn_int64;
typedef uint8_t tn_uint8;
typedef uint16_t tn_uint16;
typedef uint32_t tn_uint32;
typedef uint64_t tn_uint64;

/* An 8-bit character of narrow text, compared as unsigned. */
typedef unsigned char tn_uchar;
/* A 16-bit character of wide text; no surrogate logic anywhere. */
typedef uint16_t tn_wchar;

/* A 32-bit identifier, such as a task id. */
typedef uint32_t tn_id32;

/* Signed 64-bit time values, in the unit each operation names. */
typedef int64_t tn_time;
typedef int64_t tn_timel;

/* The platform's socket and file handles; -1 is the invalid handle. */
typedef int32_t tn_socket;
typedef int32_t tn_file;

#define TN_SOCKET_INVALID ((tn_socket)-1)
#define TN_FILE_INVALID ((tn_file)-1)

/* An unsigned integer as wide as a pointer, for opaque handles. */
typedef uintptr_t tn_uintptr;

/* A plain int, for the tn_int_array family. */
typedef int tn_int;

/* The ordering callback of all array families: negative if a sorts before
 * b, 0 if they are equal, positive if a sorts after b. user is passed through
 * unchanged. */
typedef tn_int32 (*tn_comparator)(const void *a, const void *b, void *user);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_TYPES_H */
