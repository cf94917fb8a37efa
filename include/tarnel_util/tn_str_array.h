/*
 * tn_str_array.h - a list of strings in one character pool.
 *
 * All strings lie end to end in the pool, each with its terminator and no
 * gaps, and the entries point into the pool, one pointer per string. The
 * array always copies what it is given and never hands a string over: a
 * pointer from get, get_pos or get_end is good only until the next change of
 * the array, since any change that moves the pool rewrites the entries.
 * Strings hold no zero byte; a counted run of characters is trusted to hold
 * none.
 *
 * The two records fail together: an operation that ends with either failed
 * flag set sets both and returns 0, and only tn_str_array_free clears them. A
 * failed array reads as empty. A cat of a failed or empty source, and n = 0
 * in catn or insertn, return 1 with nothing to do; copy and copyn empty the
 * destination first and then do the same. An n above the source's (or, in
 * truncate_length, the array's) length is refused with 0.
 */
#ifndef TARNEL_UTIL_TN_STR_ARRAY_H
#define TARNEL_UTIL_TN_STR_ARRAY_H

#include "tn_array.h"

TN_BEGIN_DECLS

typedef struct tn_str_array {
    tn_ptr_array entries; /* one pointer per string, into the pool */
    tn_uchar_array pool;  /* the strings, each with its terminator */
} tn_str_array;

/* Initialises both records; allocates nothing. */
TN_API void tn_str_array_init(tn_str_array *array);
/* Frees both records and clears both flags; usable again at once. */
TN_API void tn_str_array_free(tn_str_array *array);

/* Reserve room for n pool bytes, terminators counted; the pool's data or
 * null, as tn_array_allocate and tn_array_allocate_align. */
TN_API void *tn_str_array_allocate(tn_str_array *array, tn_uint32 n);
TN_API void *tn_str_array_allocate_align(tn_str_array *array, tn_uint32 n);

/* The array of string pointers, null while none was added; zero-terminated
 * only after tn_str_array_cat0. */
TN_API tn_uchar **tn_str_array_get(const tn_str_array *array);
/* The string at position, or null. */
TN_API tn_uchar *tn_str_array_get_pos(const tn_str_array *array, tn_uint32 position);
/* The last string, or null. */
TN_API tn_uchar *tn_str_array_get_end(const tn_str_array *array);
/* The number of strings; 0 if failed. */
TN_API tn_uint32 tn_str_array_length(const tn_str_array *array);
/* Position of the first string equal to s, or the length. */
TN_API tn_uint32 tn_str_array_find(const tn_str_array *array, const tn_uchar *s);
/* 1 if either flag is set. */
TN_API tn_bool tn_str_array_failed(const tn_str_array *array);

/* Empty the array, or keep its first n strings; capacity stays. 1, or 0
 * with both flags set if either was set (the emptying happens all the same). */
TN_API tn_bool tn_str_array_truncate(tn_str_array *array);
TN_API tn_bool tn_str_array_truncate_length(tn_str_array *array, tn_uint32 n);

/* Append copies of all (cat) or the first n (catn) strings of source; copy
 * and copyn empty destination first. Source may be destination itself, and
 * every string argument of this family may point into the array's own pool. */
TN_API tn_bool tn_str_array_cat(tn_str_array *destination, const tn_str_array *source);
TN_API tn_bool tn_str_array_catn(tn_str_array *destination, const tn_str_array *source, tn_uint32 n);
TN_API tn_bool tn_str_array_copy(tn_str_array *destination, const tn_str_array *source);
TN_API tn_bool tn_str_array_copyn(tn_str_array *destination, const tn_str_array *source, tn_uint32 n);

/* Append a copy of s, or of the n characters at s, as one string; an empty
 * string is a string and adds an entry. */
TN_API tn_bool tn_str_array_cato(tn_str_array *array, const tn_uchar *s);
TN_API tn_bool tn_str_array_caton(tn_str_array *array, const tn_uchar *s, tn_uint32 n);

/* Appends a null entry, so that tn_str_array_get is a zero-terminated list.
 * Afterwards only get, get_pos and length read the array until it is emptied
 * or freed. */
TN_API tn_bool tn_str_array_cat0(tn_str_array *array);

/* Insert before position; a position equal to the length appends, one above
 * it returns 0 without setting a flag. */
TN_API tn_bool tn_str_array_insert(tn_str_array *destination, const tn_str_array *source, tn_uint32 position);
TN_API tn_bool tn_str_array_insertn(tn_str_array *destination, const tn_str_array *source, tn_uint32 n,
                                    tn_uint32 position);
TN_API tn_bool tn_str_array_inserto(tn_str_array *array, const tn_uchar *s, tn_uint32 position);
TN_API tn_bool tn_str_array_inserton(tn_str_array *array, const tn_uchar *s, tn_uint32 n, tn_uint32 position);

/* Removes the string at position; a position not below the length sets both
 * flags and returns 0. */
TN_API tn_bool tn_str_array_remove(tn_str_array *array, tn_uint32 position);
/* Removes the last string; an empty array returns 0 and sets no flag. */
TN_API tn_bool tn_str_array_remove_end(tn_str_array *array);

/* 0 if both hold the same strings in the same order, else 1 (difference,
 * not order). Failed arrays count as empty. */
TN_API tn_int32 tn_str_array_diff(const tn_str_array *a, const tn_str_array *b);
/* 0 if the first n strings are equal, else 1. Arrays both shorter than n
 * compare whole when of equal length; one shorter than n differs. */
TN_API tn_int32 tn_str_array_diffn(const tn_str_array *a, tn_uint32 n, const tn_str_array *b);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_STR_ARRAY_H */
