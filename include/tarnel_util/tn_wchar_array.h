/*
 * tn_wchar_array.h - growable wide text.
 *
 * A tn_wchar_array is a tn_array of element size 2; each operation works as
 * the tn_uchar_array operation of the same name, counting in characters and
 * comparing two bytes for each. The wide family has no copy forms.
 */
#ifndef TARNEL_UTIL_TN_WCHAR_ARRAY_H
#define TARNEL_UTIL_TN_WCHAR_ARRAY_H

#include "tn_array.h"

TN_BEGIN_DECLS

TN_API tn_uint32 tn_wchar_array_find(const tn_wchar_array *array, tn_wchar c);
TN_API tn_bool tn_wchar_array_equals(const tn_wchar_array *array, const tn_wchar *s);
TN_API tn_bool tn_wchar_array_cats(tn_wchar_array *array, const tn_wchar *s);
TN_API tn_bool tn_wchar_array_cats0(tn_wchar_array *array, const tn_wchar *s);
TN_API tn_bool tn_wchar_array_catn0(tn_wchar_array *array, const tn_wchar *characters, tn_uint32 n);
TN_API tn_bool tn_wchar_array_cat0(tn_wchar_array *array);
TN_API tn_bool tn_wchar_array_remove0(tn_wchar_array *array);
TN_API tn_bool tn_wchar_array_insert0(tn_wchar_array *array, tn_uint32 position);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_WCHAR_ARRAY_H */
