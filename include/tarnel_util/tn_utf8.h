/*
 * tn_utf8.h - conversion between UTF-8 and 16-bit wide text, and measuring
 * UTF-8.
 *
 * A UTF-8 source is counted, not terminated: a zero byte in it is a character
 * like any other. A wide source is counted too, but its first zero character
 * ends it. A wide character is one 16-bit unit and surrogates get no
 * treatment in either direction: the three-byte forms of U+D800 to U+DFFF
 * are legal and written, each unit of a pair becoming its own sequence, and
 * a four-byte sequence decodes to U+FFFD.
 *
 * Legal sequences: a lead byte of 0x00-0x7F, or 0xC2-0xF4 followed by the
 * right number of continuation bytes (0x80-0xBF), with the second byte after
 * 0xE0 in 0xA0-0xBF, after 0xF0 in 0x90-0xBF and after 0xF4 in 0x80-0x8F.
 * The length of a sequence is read off its lead byte alone (0x80-0xBF: 1,
 * 0xF8-0xFB: 5, 0xFC-0xFF: 6, all illegal), and a source that ends before
 * that length is an incomplete tail: the conversions stop cleanly in front
 * of it, while the measuring operations fail on it.
 *
 * No operation writes a terminator. All results are 1 or 0.
 */
#ifndef TARNEL_UTIL_TN_UTF8_H
#define TARNEL_UTIL_TN_UTF8_H

#include "tn_array.h"

TN_BEGIN_DECLS

/* Converts UTF-8 into at most capacity wide characters at destination (a
 * null destination only counts, whatever the capacity). Stops at the end, in
 * front of an incomplete tail, or when the destination is full; then stores
 * the characters written in *count, leaves in *source_length the bytes not
 * consumed, and returns 1. On an illegal sequence returns 0 with
 * *source_length counting from that sequence on and *count not written. */
TN_API tn_bool tn_utf8_to_wcs(const tn_uchar *source, tn_uint32 *source_length, tn_wchar *destination,
                              tn_uint32 capacity, tn_uint32 *count);

/* Appends the converted characters to a wide array, ignoring an incomplete
 * tail. Returns 0 on an illegal sequence or when the array refuses (its flag
 * then set); what was appended before stays. */
TN_API tn_bool tn_utf8_cat_to_wcs(const tn_uchar *source, tn_uint32 length, tn_wchar_array *array);

/* Converts wide text into UTF-8 at destination (a null destination only
 * measures). Stops at a zero character, at the end, or before a character
 * whose bytes would bring the total to capacity or beyond, so at most
 * capacity - 1 bytes are written; stores the bytes in *byte_count and leaves
 * in *source_length the characters not taken. A measure stops likewise before
 * a character that would take the count past 0xFFFFFFFF. Always returns 1. */
TN_API tn_bool tn_utf8_from_wcs(const tn_wchar *source, tn_uint32 *source_length, tn_uchar *destination,
                                tn_uint32 capacity, tn_uint32 *byte_count);

/* Appends the UTF-8 of up to length characters (ending at a zero character)
 * to a narrow array. Returns 0 when the array refuses. */
TN_API tn_bool tn_utf8_cat_from_wcs(const tn_wchar *source, tn_uint32 length, tn_uchar_array *array);

/* Stores the length of the first sequence and returns 1, or returns 0 with
 * nothing stored if fewer bytes are available or the sequence is illegal. */
TN_API tn_bool tn_utf8_get_char_size(const tn_uchar *bytes, tn_uint32 available, tn_uint32 *size);

/* Counts the characters of the whole source into *count and returns 1; an
 * illegal or incomplete sequence returns 0 with the count reached so far. */
TN_API tn_bool tn_utf8_get_str_len(const tn_uchar *bytes, tn_uint32 length, tn_uint32 *count);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_UTF8_H */
