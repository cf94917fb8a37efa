/*
 * tn_str.h - narrow strings: zero-terminated runs of tn_uchar.
 *
 * Bytes compare as unsigned values and no character set is assumed: UTF-8
 * and Latin-1 bytes pass through unchanged. Case handling is ASCII only ('A'
 * to 'Z' against 'a' to 'z'), and the compare, find and end operations fold
 * both sides to lower case. Nothing depends on the locale.
 *
 * Conventions. A search returns a position, and a miss returns the length of
 * what was searched, so a caller compares the result with the length (or
 * looks for the terminator at the position). A copy writes the terminator
 * but returns the count without it: that count is where the next piece of a
 * composed text goes; the 0 forms count the terminator. In the n forms the
 * count stands between the two strings. Copies go from the front and do not
 * test for overlap. Only tn_str_clone allocates, and only it accepts a null
 * pointer (as its source). A destination too small is the caller's fault.
 */
#ifndef TARNEL_UTIL_TN_STR_H
#define TARNEL_UTIL_TN_STR_H

#include "tn_types.h"

TN_BEGIN_DECLS

/* The constant "\r\n", the line end of HTTP. Never write through it. */
TN_API const tn_uchar *tn_str_crlf(void);
/* The constant "\t ", the blanks of HTTP header parsing. */
TN_API const tn_uchar *tn_str_htsp(void);

/* Characters before the terminator. */
TN_API tn_uint32 tn_str_len(const tn_uchar *s);

/* Copies source with its terminator; returns the length of source. */
TN_API tn_uint32 tn_str_copy(tn_uchar *destination, const tn_uchar *source);
/* The same copy; returns the length of source plus 1. */
TN_API tn_uint32 tn_str_copy0(tn_uchar *destination, const tn_uchar *source);
/* Copies until a terminator has been copied or n characters have; returns
 * the characters copied other than a terminator. A source of n characters or
 * more gives exactly n bytes and no terminator. */
TN_API tn_uint32 tn_str_copyn(tn_uchar *destination, tn_uint32 n, const tn_uchar *source);
/* As tn_str_copyn, then always a terminator behind (the destination holds
 * n + 1 bytes); returns the characters copied plus 1. */
TN_API tn_uint32 tn_str_copyn0(tn_uchar *destination, tn_uint32 n, const tn_uchar *source);

/* Stores a copy of source, from tn_alloc, in *result, which the caller gives
 * back with tn_alloc_free. A null source gives 1 and a null result. Returns
 * 0 with a null result when memory fails. */
TN_API tn_bool tn_str_clone(const tn_uchar *source, tn_uchar **result);

/* Position of the first c, or the length of s; c = 0 gives the length. */
TN_API tn_uint32 tn_str_chr(const tn_uchar *s, tn_uchar c);
/* Position of the first c among exactly the bytes s[0] to s[n-1], zero
 * bytes included (c may be 0), or n. */
TN_API tn_uint32 tn_str_chrn(const tn_uchar *s, tn_uint32 n, tn_uchar c);
/* Position of the last c, or the length of s; c = 0 gives the length. */
TN_API tn_uint32 tn_str_rchr(const tn_uchar *s, tn_uchar c);
/* c (never 0) when s contains c, else 0; always 0 for c = 0. */
TN_API tn_uchar tn_str_contain(const tn_uchar *s, tn_uchar c);

/* Position of the first occurrence of sub in s, or the length of s. An
 * empty sub gives 0; an empty s gives 0. The case_ form folds letters. */
TN_API tn_uint32 tn_str_find(const tn_uchar *s, const tn_uchar *sub);
TN_API tn_uint32 tn_str_case_find(const tn_uchar *s, const tn_uchar *sub);

/* 0 when equal, else the unsigned byte of a minus that of b where they first
 * differ (a terminator is byte 0): -255 to 255, not reduced to -1 or 1. */
TN_API tn_int32 tn_str_diff(const tn_uchar *a, const tn_uchar *b);
/* As tn_str_diff over at most n characters. */
TN_API tn_int32 tn_str_diffn(const tn_uchar *a, tn_uint32 n, const tn_uchar *b);
/* As tn_str_diff on lower-cased bytes. */
TN_API tn_int32 tn_str_case_diff(const tn_uchar *a, const tn_uchar *b);
/* Compares exactly n lower-cased bytes and stops only at a difference: a
 * zero byte is an ordinary byte here, so at least one of the two must hold n
 * characters before its terminator. */
TN_API tn_int32 tn_str_case_diffn(const tn_uchar *a, tn_uint32 n, const tn_uchar *b);

/* 1 when s ends with suffix, else 0. The case_ form folds letters. */
TN_API tn_bool tn_str_end(const tn_uchar *s, const tn_uchar *suffix);
TN_API tn_bool tn_str_case_end(const tn_uchar *s, const tn_uchar *suffix);

/* Count of leading characters of s not in set (till) or in set (while). */
TN_API tn_uint32 tn_str_skip_till(const tn_uchar *s, const tn_uchar *set);
TN_API tn_uint32 tn_str_skip_while(const tn_uchar *s, const tn_uchar *set);
/* tn_str_skip_while and tn_str_skip_till with the blanks " \t". */
TN_API tn_uint32 tn_str_skip_space(const tn_uchar *s);
TN_API tn_uint32 tn_str_skip_word(const tn_uchar *s);

/* Change case in place up to the terminator, or over exactly n bytes (a
 * zero byte being no stop). */
TN_API void tn_str_case_lower(tn_uchar *s);
TN_API void tn_str_case_lowern(tn_uchar *s, tn_uint32 n);
TN_API void tn_str_case_upper(tn_uchar *s);
TN_API void tn_str_case_uppern(tn_uchar *s, tn_uint32 n);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_STR_H */
