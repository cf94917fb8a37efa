/*
 * tn_str_list.h - plain lists of strings, shaped like an argument vector.
 *
 * A list is a block of string pointers ended by a null pointer; each string
 * and the pointer block come from tn_alloc. tn_wstr_list is the same shape
 * with strings of tn_wchar.
 */
#ifndef TARNEL_UTIL_TN_STR_LIST_H
#define TARNEL_UTIL_TN_STR_LIST_H

#include "tn_types.h"

TN_BEGIN_DECLS

/* Deep copy into *result. A null list gives 1 and a null result; an empty
 * list gives a block holding one null. On failure returns 0 with nothing
 * left allocated and a null result. */
TN_API tn_bool tn_str_list_clone(tn_uchar *const *list, tn_uchar ***result);
/* Frees each string, then the block. Null is ignored. */
TN_API void tn_str_list_free(tn_uchar **list);
/* Position of the first string equal to s, else the count of strings; a
 * null or empty list gives 0. */
TN_API tn_uint32 tn_str_list_find(tn_uchar *const *list, const tn_uchar *s);

TN_API tn_bool tn_wstr_list_clone(tn_wchar *const *list, tn_wchar ***result);
TN_API void tn_wstr_list_free(tn_wchar **list);
TN_API tn_uint32 tn_wstr_list_find(tn_wchar *const *list, const tn_wchar *s);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_STR_LIST_H */
