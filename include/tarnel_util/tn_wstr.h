/*
 * tn_wstr.h - wide strings: zero-terminated runs of 16-bit tn_wchar.
 *
 * Each operation has the arguments, results and edge behaviour of the narrow
 * operation of the same name in tn_str.h. Lengths, positions, counts and n
 * are in characters, never bytes. Characters compare as unsigned 16-bit
 * values, so differences run from -65535 to 65535. A surrogate pair is two
 * characters. Case handling folds only the ASCII letters.
 */
#ifndef TARNEL_UTIL_TN_WSTR_H
#define TARNEL_UTIL_TN_WSTR_H

#include "tn_types.h"

TN_BEGIN_DECLS

TN_API tn_uint32 tn_wstr_len(const tn_wchar *s);

TN_API tn_uint32 tn_wstr_copy(tn_wchar *destination, const tn_wchar *source);
TN_API tn_uint32 tn_wstr_copy0(tn_wchar *destination, const tn_wchar *source);
TN_API tn_uint32 tn_wstr_copyn(tn_wchar *destination, tn_uint32 n, const tn_wchar *source);
/* The destination holds n + 1 characters. */
TN_API tn_uint32 tn_wstr_copyn0(tn_wchar *destination, tn_uint32 n, const tn_wchar *source);

/* The block holds 2 * (length + 1) bytes. */
TN_API tn_bool tn_wstr_clone(const tn_wchar *source, tn_wchar **result);

TN_API tn_uint32 tn_wstr_chr(const tn_wchar *s, tn_wchar c);
TN_API tn_uint32 tn_wstr_chrn(const tn_wchar *s, tn_uint32 n, tn_wchar c);
TN_API tn_uint32 tn_wstr_rchr(const tn_wchar *s, tn_wchar c);

TN_API tn_uint32 tn_wstr_find(const tn_wchar *s, const tn_wchar *sub);
TN_API tn_uint32 tn_wstr_case_find(const tn_wchar *s, const tn_wchar *sub);

TN_API tn_int32 tn_wstr_diff(const tn_wchar *a, const tn_wchar *b);
TN_API tn_int32 tn_wstr_diffn(const tn_wchar *a, tn_uint32 n, const tn_wchar *b);
TN_API tn_int32 tn_wstr_case_diff(const tn_wchar *a, const tn_wchar *b);
TN_API tn_int32 tn_wstr_case_diffn(const tn_wchar *a, tn_uint32 n, const tn_wchar *b);

TN_API void tn_wstr_case_lower(tn_wchar *s);
TN_API void tn_wstr_case_lowern(tn_wchar *s, tn_uint32 n);
TN_API void tn_wstr_case_upper(tn_wchar *s);
TN_API void tn_wstr_case_uppern(tn_wchar *s, tn_uint32 n);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_WSTR_H */
