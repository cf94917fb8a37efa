/*
 * tn_uchar_array.h - growable narrow text, and single hexadecimal digits.
 *
 * A tn_uchar_array is a tn_array of element size 1 (tn_array_init(&a, 1));
 * every tn_array operation applies to it. Its content is a run of characters
 * with a length, and a string only when its last element is a zero, which
 * then counts in the length: the 0 forms append one, and remove0 takes it
 * off again before more text is added. Results are those of the tn_array
 * operation behind each: a failed array refuses, exhausted memory sets the
 * failed flag. The copy forms first empty the array, failed or not.
 */
#ifndef TARNEL_UTIL_TN_UCHAR_ARRAY_H
#define TARNEL_UTIL_TN_UCHAR_ARRAY_H

#include "tn_array.h"

TN_BEGIN_DECLS

/* 1 for '0' to '9', 'a' to 'f' and 'A' to 'F', else 0. */
TN_API tn_bool tn_uchar_is_hex(tn_uchar c);
/* The value of a hexadecimal digit of either case; any other character
 * gives 0, so test with tn_uchar_is_hex first where bad input matters. */
TN_API tn_uint8 tn_uchar_hex_to_uint8(tn_uchar c);
/* The lower-case digit of a value below 16; '0' for 16 and above. */
TN_API tn_uchar tn_uchar_uint8_to_hex(tn_uint8 value);

/* Position of the first element equal to c, or the length (0 if failed). */
TN_API tn_uint32 tn_uchar_array_find(const tn_uchar_array *array, tn_uchar c);
/* 1 if the elements equal the characters of s, in number too; a terminator
 * in the array is an element, so an array ending in one does not equal its
 * own text. A failed array equals the empty string. */
TN_API tn_bool tn_uchar_array_equals(const tn_uchar_array *array, const tn_uchar *s);
/* Append the characters of s, without (cats) or with (cats0) its terminator. */
TN_API tn_bool tn_uchar_array_cats(tn_uchar_array *array, const tn_uchar *s);
TN_API tn_bool tn_uchar_array_cats0(tn_uchar_array *array, const tn_uchar *s);
/* Appends n characters and then, only if that worked, a zero element. */
TN_API tn_bool tn_uchar_array_catn0(tn_uchar_array *array, const tn_uchar *characters, tn_uint32 n);
/* Appends one zero element. */
TN_API tn_bool tn_uchar_array_cat0(tn_uchar_array *array);
/* Removes the last element if it is zero. Returns 0, changing nothing, if
 * the last element is not zero or the array is empty; never sets the flag. */
TN_API tn_bool tn_uchar_array_remove0(tn_uchar_array *array);
/* Inserts a zero element at position; a position above the element count
 * returns 0 without setting the flag. */
TN_API tn_bool tn_uchar_array_insert0(tn_uchar_array *array, tn_uint32 position);

/* Empty the array, then as tn_array_cat, tn_array_catn, catn0, cats, cats0. */
TN_API tn_bool tn_uchar_array_copy(tn_uchar_array *array, const tn_uchar_array *source);
TN_API tn_bool tn_uchar_array_copyn(tn_uchar_array *array, const tn_uchar *characters, tn_uint32 n);
TN_API tn_bool tn_uchar_array_copyn0(tn_uchar_array *array, const tn_uchar *characters, tn_uint32 n);
TN_API tn_bool tn_uchar_array_copys(tn_uchar_array *array, const tn_uchar *s);
TN_API tn_bool tn_uchar_array_copys0(tn_uchar_array *array, const tn_uchar *s);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_UCHAR_ARRAY_H */
