/*
 * tn_array.h - the one dynamic array and its typed views.
 *
 * A tn_array is a caller-owned record holding a run of elements of one fixed
 * size. Lengths and positions are tn_uint32: positions are element indexes
 * from 0, and 0xFFFFFFFF is never a valid position. Storage comes from
 * tn_alloc; it grows by at least one eighth at a time, in whole blocks of 128
 * bytes for appends and inserts, and never shrinks short of tn_array_free.
 *
 * The failure frame. An array that fails to grow sets its sticky failed
 * flag. A failed array reads as empty (length 0), refuses every change that
 * has something to do, and keeps its storage and bytes untouched, so that a
 * chain of appends can be judged once at the end with tn_array_failed. Only
 * tn_array_free (or a new tn_array_init) clears the flag. Out-of-range
 * positions and size products that overflow 32 bits are refused with 0 and
 * leave the flag alone, except in tn_array_remove, which sets it.
 *
 * Suffixes, shared by every array family: no suffix takes another array of
 * the family, n a run of elements by pointer and count, o one element (by
 * pointer here, by value in the typed views), 0 a zero element, a final r
 * reverses the order, _align rounds the capacity to blocks of 128 or 4096
 * bytes.
 *
 * The array never owns what its elements point to.
 */
#ifndef TARNEL_UTIL_TN_ARRAY_H
#define TARNEL_UTIL_TN_ARRAY_H

#include "tn_types.h"

TN_BEGIN_DECLS

typedef struct tn_array {
    tn_uchar *data;         /* storage, or null while nothing is allocated */
    tn_uint32 element_size; /* bytes per element, never 0, fixed at init */
    tn_uint32 capacity;     /* bytes allocated at data */
    tn_uint32 length;       /* bytes in use: a multiple of element_size */
    tn_bool failed;         /* the sticky failed flag */
} tn_array;

/* The typed families are the same record with typed accessors. */
typedef tn_array tn_ptr_array;
typedef tn_array tn_uchar_array;
typedef tn_array tn_wchar_array;
typedef tn_array tn_int8_array;
typedef tn_array tn_uint8_array;
typedef tn_array tn_int16_array;
typedef tn_array tn_uint16_array;
typedef tn_array tn_bool_array;
typedef tn_array tn_id32_array;
typedef tn_array tn_int32_array;
typedef tn_array tn_int_array;
typedef tn_array tn_uint32_array;
typedef tn_array tn_socket_array;
typedef tn_array tn_int64_array;
typedef tn_array tn_uint64_array;
typedef tn_array tn_time_array;
typedef tn_array tn_timel_array;

/* ---- The generic array --------------------------------------------------- */

/* Clears the whole record and sets the element size. Allocates nothing. An
 * element size of 0 gives an array that is failed and stays failed, also
 * through tn_array_free: it refuses every change and reads as empty. */
TN_API void tn_array_init(tn_array *array, tn_uint32 element_size);

/* Ensures capacity for count elements in all (not count more) and returns
 * the data pointer, or null if the array is failed, the size overflows or the
 * storage cannot grow. The used length and the failed flag never change. On
 * an unallocated array a count of 0 gives null without any failure. */
TN_API void *tn_array_allocate(tn_array *array, tn_uint32 count);

/* As tn_array_allocate, with the capacity rounded up to a multiple of 128
 * bytes when the element size is below 8, and of 4096 bytes otherwise. */
TN_API void *tn_array_allocate_align(tn_array *array, tn_uint32 count);

/* The data pointer, also when failed; null while unallocated. Any growth
 * invalidates it. */
TN_API void *tn_array_get(const tn_array *array);

/* A pointer to the element at position, or null if the array is failed or
 * the position is not within the length. */
TN_API void *tn_array_get_pos(const tn_array *array, tn_uint32 position);

/* A pointer to the last element, or null if the array is failed or empty. */
TN_API void *tn_array_get_end(const tn_array *array);

/* The position of the first element whose bytes equal those at element, or
 * the length when there is none. A failed array has length 0 and gives 0. */
TN_API tn_uint32 tn_array_find(const tn_array *array, const void *element);

/* Linear search calling comparator(key, element pointer, user) from position
 * 0; the first call that returns 0 ends it. Returns that position, or the
 * length. A failed array gives 0. */
TN_API tn_uint32 tn_array_find2(const tn_array *array, const void *key,
                                tn_comparator comparator, void *user);

/* The element count; 0 if failed. */
TN_API tn_uint32 tn_array_length(const tn_array *array);

/* The used length in bytes; 0 if failed. */
TN_API tn_uint32 tn_array_bytes(const tn_array *array);

/* Sets the length to count elements. Returns 0 and changes nothing if count
 * is above the length or its size overflows, else 1. Ignores the failed flag
 * and never sets it. The capacity stays. */
TN_API tn_bool tn_array_truncate_length(tn_array *array, tn_uint32 count);

/* Sets the used length to 0 and returns 1. Capacity and flag stay. */
TN_API tn_bool tn_array_truncate(tn_array *array);

/* Frees the storage and clears data, capacity, length and the failed flag.
 * The element size stays, so the record can be used again at once. Freeing a
 * freed array is harmless. */
TN_API void tn_array_free(tn_array *array);

/* Sets the failed flag. */
TN_API void tn_array_fail(tn_array *array);

/* The failed flag. */
TN_API tn_bool tn_array_failed(const tn_array *array);

/* 1 if no storage is allocated, else 0. */
TN_API tn_bool tn_array_unallocated(const tn_array *array);

/* 1 if both used lengths in bytes and all used bytes are equal, else 0.
 * Neither element sizes nor failed flags are looked at. */
TN_API tn_bool tn_array_equal(const tn_array *a, const tn_array *b);

/* Appends all elements of source, which may be the array itself. A failed
 * source, or one of another element size, sets the array's flag and gives 0;
 * an empty source gives 1 even on a failed array; otherwise as tn_array_catn. */
TN_API tn_bool tn_array_cat(tn_array *array, const tn_array *source);

/* Appends count elements, which may lie in the array's own storage. Count 0
 * gives 1 even on a failed array; a failed array gives 0; a size overflow of
 * count gives 0 without setting the flag; storage that cannot grow, or a used
 * length beyond 32 bits, sets the flag and gives 0. */
TN_API tn_bool tn_array_catn(tn_array *array, const void *elements, tn_uint32 count);

/* Inserts all elements of source before position. A failed source, or one
 * of another element size, sets the array's flag and gives 0; otherwise as
 * tn_array_insertn. */
TN_API tn_bool tn_array_insert(tn_array *array, const tn_array *source, tn_uint32 position);

/* Inserts count elements, which may lie in the array's own used bytes, before
 * position; a position equal to the length appends. Count 0 gives 1 even on a
 * failed array; a failed array gives 0; a position above the length or a size
 * overflow gives 0 without setting the flag; storage that cannot grow sets the
 * flag and gives 0. */
TN_API tn_bool tn_array_insertn(tn_array *array, const void *elements, tn_uint32 count,
                                tn_uint32 position);

/* Inserts one element where a binary search with comparator(element, element
 * in the array, user) places it: before an equal element that the search
 * meets, so equal elements are not kept in a stable order. Returns 1, or 0 as
 * tn_array_insertn does. */
TN_API tn_bool tn_array_inserto_in_sort(tn_array *array, const void *element,
                                        tn_comparator comparator, void *user);

/* Overwrites the element at position. Returns 0 if the array is failed or
 * the position is not within the length; never grows and never sets the
 * flag. */
TN_API tn_bool tn_array_seto(tn_array *array, const void *element, tn_uint32 position);

/* Removes the element at position; the tail moves down. A failed array gives
 * 0; a position not within the length sets the flag and gives 0. */
TN_API tn_bool tn_array_remove(tn_array *array, tn_uint32 position);

/* Removes the last element. A failed or empty array gives 0; an empty one
 * does not set the flag. */
TN_API tn_bool tn_array_remove_end(tn_array *array);

/* Sorts in place with a quicksort whose pivot is the last element of each
 * range; the sort is not stable. The comparator must not call two equal
 * elements unequal. Returns 1 (at once for fewer than two elements), or 0
 * with the array unchanged if it is failed or its two-element work area
 * cannot be allocated. Sorted and reversed input use constant stack; only
 * inputs that drive the sort to quadratic time use more, a few bytes of stack
 * per element. */
TN_API tn_bool tn_array_sort(tn_array *array, tn_comparator comparator, void *user);

/* tn_byte_diff of a and b over the number of bytes in the tn_uint32 that
 * user points to. The r form exchanges a and b, reversing the order. */
TN_API tn_int32 tn_array_comparator_default(const void *a, const void *b, void *user);
TN_API tn_int32 tn_array_comparator_defaultr(const void *a, const void *b, void *user);

/* ---- Typed views ---------------------------------------------------------
 * get_pos returns the element at position and get_end the last element, by
 * value; a missing position, an empty array and a failed array all give 0 of
 * the type, so a stored 0 and a miss read alike. */

TN_API tn_int8 tn_int8_array_get_pos(const tn_int8_array *array, tn_uint32 position);
TN_API tn_int8 tn_int8_array_get_end(const tn_int8_array *array);
TN_API tn_uint8 tn_uint8_array_get_pos(const tn_uint8_array *array, tn_uint32 position);
TN_API tn_uint8 tn_uint8_array_get_end(const tn_uint8_array *array);
TN_API tn_uchar tn_uchar_array_get_pos(const tn_uchar_array *array, tn_uint32 position);
TN_API tn_uchar tn_uchar_array_get_end(const tn_uchar_array *array);

TN_API tn_int16 tn_int16_array_get_pos(const tn_int16_array *array, tn_uint32 position);
TN_API tn_int16 tn_int16_array_get_end(const tn_int16_array *array);
TN_API tn_uint16 tn_uint16_array_get_pos(const tn_uint16_array *array, tn_uint32 position);
TN_API tn_uint16 tn_uint16_array_get_end(const tn_uint16_array *array);
TN_API tn_wchar tn_wchar_array_get_pos(const tn_wchar_array *array, tn_uint32 position);
TN_API tn_wchar tn_wchar_array_get_end(const tn_wchar_array *array);

TN_API tn_bool tn_bool_array_get_pos(const tn_bool_array *array, tn_uint32 position);
TN_API tn_bool tn_bool_array_get_end(const tn_bool_array *array);
TN_API tn_id32 tn_id32_array_get_pos(const tn_id32_array *array, tn_uint32 position);
TN_API tn_id32 tn_id32_array_get_end(const tn_id32_array *array);
TN_API tn_int32 tn_int32_array_get_pos(const tn_int32_array *array, tn_uint32 position);
TN_API tn_int32 tn_int32_array_get_end(const tn_int32_array *array);
TN_API tn_int tn_int_array_get_pos(const tn_int_array *array, tn_uint32 position);
TN_API tn_int tn_int_array_get_end(const tn_int_array *array);
TN_API tn_uint32 tn_uint32_array_get_pos(const tn_uint32_array *array, tn_uint32 position);
TN_API tn_uint32 tn_uint32_array_get_end(const tn_uint32_array *array);
TN_API tn_socket tn_socket_array_get_pos(const tn_socket_array *array, tn_uint32 position);
TN_API tn_socket tn_socket_array_get_end(const tn_socket_array *array);

TN_API tn_int64 tn_int64_array_get_pos(const tn_int64_array *array, tn_uint32 position);
TN_API tn_int64 tn_int64_array_get_end(const tn_int64_array *array);
TN_API tn_uint64 tn_uint64_array_get_pos(const tn_uint64_array *array, tn_uint32 position);
TN_API tn_uint64 tn_uint64_array_get_end(const tn_uint64_array *array);
TN_API tn_time tn_time_array_get_pos(const tn_time_array *array, tn_uint32 position);
TN_API tn_time tn_time_array_get_end(const tn_time_array *array);
TN_API tn_timel tn_timel_array_get_pos(const tn_timel_array *array, tn_uint32 position);
TN_API tn_timel tn_timel_array_get_end(const tn_timel_array *array);

/* ---- Pointer arrays -------------------------------------------------------
 * A tn_ptr_array is a tn_array whose element size is sizeof(void *). The
 * value operations below take the value in a pointer-sized argument and copy
 * as many of its low bytes as the array's element size (at most 8; a larger
 * element is padded with zero bytes), so the same operation appends to
 * arrays of characters as tn_uchar_array_cato and tn_wchar_array_cato. */

TN_API void *tn_ptr_array_get_pos(const tn_ptr_array *array, tn_uint32 position);
TN_API void *tn_ptr_array_get_end(const tn_ptr_array *array);

/* tn_array_catn of one element made from value. */
TN_API tn_bool tn_ptr_array_cato(tn_ptr_array *array, const void *value);

/* tn_array_catn of one zero element. */
TN_API tn_bool tn_ptr_array_cat0(tn_ptr_array *array);

/* tn_array_insertn of one element made from value. */
TN_API tn_bool tn_ptr_array_inserto(tn_ptr_array *array, const void *value, tn_uint32 position);

/* tn_array_find on the pointer value itself, not on what it points to. */
TN_API tn_uint32 tn_ptr_array_find(const tn_ptr_array *array, const void *value);

/* Linear search calling comparator(key, stored pointer, user): the stored
 * pointer itself, not a pointer to it. The first 0 ends it. Returns that
 * position or the length; a failed array gives 0. */
TN_API tn_uint32 tn_ptr_array_find2(const tn_ptr_array *array, const void *key,
                                    tn_comparator comparator, void *user);

/* The character forms of tn_ptr_array_cato: the element size of the array
 * decides how many low bytes of c are appended. */
TN_API tn_bool tn_uchar_array_cato(tn_uchar_array *array, tn_uchar c);
TN_API tn_bool tn_wchar_array_cato(tn_wchar_array *array, tn_wchar c);

/* ---- tn_uint32 arrays -----------------------------------------------------
 * These four order elements by their stored bytes, lowest address first, as
 * unsigned bytes: on this little-endian target 256 sorts before 1. They use
 * tn_array_comparator_default with the array's element size. */

TN_API tn_bool tn_uint32_array_inserto_in_sort(tn_uint32_array *array, tn_uint32 value);
TN_API tn_bool tn_uint32_array_inserto_in_sortr(tn_uint32_array *array, tn_uint32 value);
TN_API tn_bool tn_uint32_array_sort(tn_uint32_array *array);
TN_API tn_bool tn_uint32_array_sortr(tn_uint32_array *array);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_ARRAY_H */
