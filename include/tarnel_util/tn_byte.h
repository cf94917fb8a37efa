/*
 * tn_byte.h - raw byte operations.
 *
 * Mind the argument order: the length always stands between the two
 * pointers.
 */
#ifndef TARNEL_UTIL_TN_BYTE_H
#define TARNEL_UTIL_TN_BYTE_H

#include "tn_types.h"

TN_BEGIN_DECLS

/* Copies length bytes from source to destination and returns length. The
 * ranges may overlap in either direction. */
TN_API tn_uint32 tn_byte_copy(void *destination, tn_uint32 length, const void *source);

/* Compares length bytes as unsigned: 0 if equal, -1 if the first differing
 * byte of a is smaller, 1 if it is larger. Length 0 gives 0. */
TN_API tn_int32 tn_byte_diff(const void *a, tn_uint32 length, const void *b);

/* Clears length bytes. */
TN_API void tn_byte_zero(void *block, tn_uint32 length);

/* Returns the offset of the first occurrence of needle in haystack, or
 * haystack_length when there is none. An empty haystack or an empty needle
 * gives 0. Nothing beyond either end is read. The search takes time linear in
 * the haystack, whatever the input. */
TN_API tn_uint32 tn_byte_find(const void *haystack, tn_uint32 haystack_length,
                              const void *needle, tn_uint32 needle_length);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_BYTE_H */
