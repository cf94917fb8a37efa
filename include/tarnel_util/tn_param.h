/*
 * tn_param.h - lists of name and value pairs, in two views.
 *
 * A list is a tn_str_array (initialised, freed and failed as such) holding
 * pairs: the name at position 2i and its value at 2i + 1; pair indexes are
 * signed and count from 0. Names and values compare exactly, byte by byte.
 * tn_param treats names as keys that occur once (set replaces the value);
 * tn_multiparam allows several values under one name and treats the pair as
 * the unit (set adds, unless that very pair is there). A failed list reads
 * as empty. Returned text points into the list and lives until it changes.
 *
 * The operations of the first table are one operation under two names.
 */
#ifndef TARNEL_UTIL_TN_PARAM_H
#define TARNEL_UTIL_TN_PARAM_H

#include "tn_str_array.h"

TN_BEGIN_DECLS

/* Pairs in the list. */
TN_API tn_int32 tn_param_length(const tn_str_array *list);
TN_API tn_int32 tn_multiparam_length(const tn_str_array *list);
/* Name or value of a pair, or null for an index below 0 or past the end. */
TN_API tn_uchar *tn_param_get_name(const tn_str_array *list, tn_int32 index);
TN_API tn_uchar *tn_multiparam_get_name_by_index(const tn_str_array *list, tn_int32 index);
TN_API tn_uchar *tn_param_get_value(const tn_str_array *list, tn_int32 index);
TN_API tn_uchar *tn_multiparam_get_value_by_index(const tn_str_array *list, tn_int32 index);
/* Removes a pair; an index below 0 or past the end is ignored. */
TN_API void tn_param_remove_by_index(tn_str_array *list, tn_int32 index);
TN_API void tn_multiparam_remove_by_index(tn_str_array *list, tn_int32 index);
/* 1 if a pair with that name and value, that name, or that value exists. */
TN_API tn_bool tn_param_contains(const tn_str_array *list, const tn_uchar *name, const tn_uchar *value);
TN_API tn_bool tn_multiparam_contains(const tn_str_array *list, const tn_uchar *name, const tn_uchar *value);
TN_API tn_bool tn_param_contains_by_name(const tn_str_array *list, const tn_uchar *name);
TN_API tn_bool tn_multiparam_contains_by_name(const tn_str_array *list, const tn_uchar *name);
TN_API tn_bool tn_param_contains_by_value(const tn_str_array *list, const tn_uchar *value);
TN_API tn_bool tn_multiparam_contains_by_value(const tn_str_array *list, const tn_uchar *value);

/* The value of the first pair with that name, or null. */
TN_API tn_uchar *tn_param_get_value_by_name(const tn_str_array *list, const tn_uchar *name);
/* Gives the first pair with that name the new value in its place, or
 * appends the pair. Returns 1, or 0 with the list failed (an old value
 * already removed is not restored). */
TN_API tn_bool tn_param_set(tn_str_array *list, const tn_uchar *name, const tn_uchar *value);
/* Removes the first pair with that name: 1, or 0 if there is none. */
TN_API tn_bool tn_param_remove(tn_str_array *list, const tn_uchar *name);

/* Appends the pair unless an equal pair exists. Returns 1, or 0 with the
 * list failed. */
TN_API tn_bool tn_multiparam_set(tn_str_array *list, const tn_uchar *name, const tn_uchar *value);
/* Index of the first equal pair, or the number of pairs. */
TN_API tn_int32 tn_multiparam_find(const tn_str_array *list, const tn_uchar *name, const tn_uchar *value);
/* Removes the last equal pair. Returns 1, also when there is none; 0 if the
 * list is failed. */
TN_API tn_bool tn_multiparam_remove(tn_str_array *list, const tn_uchar *name, const tn_uchar *value);
/* Remove every pair with that name (or value), from the last to the first.
 * Returns 1, also when there is none; 0 as soon as a removal fails. */
TN_API tn_bool tn_multiparam_remove_by_name(tn_str_array *list, const tn_uchar *name);
TN_API tn_bool tn_multiparam_remove_by_value(tn_str_array *list, const tn_uchar *value);
/* Empty out_list, then append each name (or value) once, in order of first
 * appearance. Returns 1, or 0 if out_list is failed. */
TN_API tn_bool tn_multiparam_get_name_list(const tn_str_array *list, tn_str_array *out_list);
TN_API tn_bool tn_multiparam_get_value_list(const tn_str_array *list, tn_str_array *out_list);
/* Empty out_list, then append the name of every pair with that value (or the
 * value of every pair with that name), in list order, repeats kept. */
TN_API tn_bool tn_multiparam_get_name_list_by_value(const tn_str_array *list, const tn_uchar *value,
                                                    tn_str_array *out_list);
TN_API tn_bool tn_multiparam_get_value_list_by_name(const tn_str_array *list, const tn_uchar *name,
                                                    tn_str_array *out_list);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_PARAM_H */
