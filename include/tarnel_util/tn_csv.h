/*
 * tn_csv.h - one line of comma-separated values with backslash escapes.
 *
 * Values are separated by ","; a "," inside a value is written "\," and a
 * "\" is written "\\", and nothing else is escaped. In reading, a backslash
 * makes the next character literal, whatever it is; one that ends the text
 * is dropped. There are no quotes and no special line ends. The joined text
 * in a tn_uchar_array has no terminator: append one with
 * tn_uchar_array_cat0 to read it as a string. Exhausted memory shows through
 * the arrays' failed flags.
 */
#ifndef TARNEL_UTIL_TN_CSV_H
#define TARNEL_UTIL_TN_CSV_H

#include "tn_str_array.h"

TN_BEGIN_DECLS

/* Appends the value escaped, then ",". Returns 1, or 0 if the array's failed
 * flag is set. A run of these closed by tn_csv_end equals tn_csv_make. */
TN_API tn_bool tn_csv_cat(tn_uchar_array *text, const tn_uchar *value);

/* Removes the last character (the separator tn_csv_cat left) without
 * looking at it. An empty array gives 1. */
TN_API tn_bool tn_csv_end(tn_uchar_array *text);

/* Replace the text by all values joined: those of a string array, or count
 * plain strings. No values give the empty text and 1. */
TN_API tn_bool tn_csv_make(const tn_str_array *values, tn_uchar_array *text);
TN_API tn_bool tn_csv_make2(const tn_uchar *const *values, tn_uint32 count, tn_uchar_array *text);

/* Replaces the content of values by the values of text. A null text gives
 * 0; the empty text gives no value and 1 (it is no single empty value). On a
 * failure the values found so far stay. */
TN_API tn_bool tn_csv_split(const tn_uchar *text, tn_str_array *values);

/* The start of the last value in text, taking every "," as a separator
 * (escapes are not known here), or null for a null or empty text. */
TN_API tn_uchar *tn_csv_get_last_value(tn_uchar *text);

/* Cuts the last value and its separator off text in place; without a ","
 * the text becomes empty. Null is ignored. */
TN_API void tn_csv_remove_last_value(tn_uchar *text);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_CSV_H */
