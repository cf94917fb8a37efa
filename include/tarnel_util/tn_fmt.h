/*
 * tn_fmt.h - number text: integers and floats to text and back, narrow and
 * wide, with no locale, no format string and no allocation.
 *
 * Formats. A format writes the text of the value and no terminator, and
 * returns the count of characters, so results add up to a running position;
 * a caller that wants a string writes the terminator at that position. No
 * format takes a buffer size: the buffer holds the longest text of the type
 * (below), or the width of a zero-filled form when that is larger; a format
 * may use all of that space while it works, and leaves the bytes behind its
 * text as they were. Given a null buffer, an integer format writes nothing
 * and returns the count it would have written.
 *
 *   int: signed decimal, "-" in front of a negative value; the most
 *        negative value of each width prints its full magnitude.
 *   uint: unsigned decimal.  xint: lower-case hexadecimal, no "0x".
 *   0uint, 0xint: as uint and xint, filled on the left with "0" up to the
 *        width given; a width at or below the digit count adds nothing and
 *        never cuts the value.
 *   8, 16, 32, 64: the width of the value in bits; none means 32.
 *
 * Longest texts, in characters: int8 4, int16 6, int/int32 11, int64 20,
 * uint8 3, uint16 5, uint/uint32 10, uint64 20, xint8 2, xint16 4,
 * xint/xint32 8, xint64 16, bool 1, float32 14, float64 15.
 *
 * Scans. A scan reads from the first character, skips no blanks, stores the
 * value through its pointer and returns the count of characters consumed:
 * 0 means nothing was consumed. Digits are consumed until the first
 * character that is none (the terminator is none), however many there are;
 * the value builds in an unsigned 32-bit accumulator (64-bit for the 64-bit
 * forms) that wraps silently, and the 8- and 16-bit forms store its low
 * bits. The signed forms take one leading "+" or "-", which counts as
 * consumed and negates the accumulator in wrapping arithmetic: a lone sign
 * returns 1 and stores 0. The unsigned forms take no sign. The value is
 * stored even when no digit was found (it is then 0), except that
 * tn_str_scan_int, tn_str_scan_int64 and their wide forms leave it untouched
 * when the text is empty. Hexadecimal scans take both cases and no "0x".
 *
 * Floats. tn_str_fmt_float32/64 write an optional "-", one digit, ".",
 * seven more digits, and, when the decimal exponent is not 0, "E" and the
 * exponent in signed decimal: 1.5 gives "1.5000000" and 1234.5 gives
 * "1.2345000E3". The eight digits are the value's leading digits truncated,
 * not rounded, after scaling in double arithmetic (the float32 form scales
 * by the single-precision 0.1, so 0.3f gives "3.0000001E-1"); a double
 * prints eight digits too. Zero of either sign gives "0". Two further rules
 * keep the text bounded and true:
 *   - Where rounding in the scaling leaves only seven digits (at or just
 *     below a power of ten, such as 0.01), the exponent is lowered by one and
 *     the digits taken again, so the text always holds eight digits and the
 *     exponent of its leading digit (0.01 gives "9.9999999E-3"). Should the
 *     same rounding give nine digits, the exponent is raised instead.
 *   - An infinity gives "INF" or "-INF", a NaN gives "NaN". The float scans
 *     do not read these texts back (they return 0).
 * Subnormal values print their digits like any other (5e-324 gives
 * "4.9406564E-324"). The float formats write no more than the count they
 * return and need a buffer; they have no measuring mode.
 *
 * tn_str_scan_float32/64 store 0.0 first, then read an optional sign,
 * decimal digits with at most one ".", and an optional exponent: "E" or
 * "e", an optional sign and digits. The scan ends at the first character
 * that is none of "+-.Ee" or a digit, and returns the count consumed. It
 * must end after an integer digit, a fraction digit or an exponent digit:
 * "5.", "1e", "-" and "." return 0, while "1.e2" gives 100 and ".e1" gives
 * 0. A text that breaks the grammar ("1.2.3", "1+2", "1e5e6", "--1")
 * returns 0 and leaves 0.0, even where a valid number stands before the
 * break. The value is the mantissa times 10.0 or 0.1 once per unit of the
 * exponent, so it may overflow to an infinity or underflow to 0; a zero
 * mantissa gives 0 of its sign whatever the exponent. Fraction digits
 * beyond the ninth still count at their own place.
 */
#ifndef TARNEL_UTIL_TN_FMT_H
#define TARNEL_UTIL_TN_FMT_H

#include "tn_types.h"

TN_BEGIN_DECLS

/* Narrow formats. */
TN_API tn_uint32 tn_str_fmt_int8(tn_uchar *buffer, tn_int8 value);
TN_API tn_uint32 tn_str_fmt_int16(tn_uchar *buffer, tn_int16 value);
TN_API tn_uint32 tn_str_fmt_int(tn_uchar *buffer, tn_int32 value);
TN_API tn_uint32 tn_str_fmt_int32(tn_uchar *buffer, tn_int32 value);
TN_API tn_uint32 tn_str_fmt_int64(tn_uchar *buffer, tn_int64 value);
TN_API tn_uint32 tn_str_fmt_uint(tn_uchar *buffer, tn_uint32 value);
TN_API tn_uint32 tn_str_fmt_uint8(tn_uchar *buffer, tn_uint8 value);
TN_API tn_uint32 tn_str_fmt_uint16(tn_uchar *buffer, tn_uint16 value);
TN_API tn_uint32 tn_str_fmt_uint32(tn_uchar *buffer, tn_uint32 value);
TN_API tn_uint32 tn_str_fmt_uint64(tn_uchar *buffer, tn_uint64 value);
TN_API tn_uint32 tn_str_fmt_xint(tn_uchar *buffer, tn_uint32 value);
TN_API tn_uint32 tn_str_fmt_xint8(tn_uchar *buffer, tn_uint8 value);
TN_API tn_uint32 tn_str_fmt_xint16(tn_uchar *buffer, tn_uint16 value);
TN_API tn_uint32 tn_str_fmt_xint32(tn_uchar *buffer, tn_uint32 value);
TN_API tn_uint32 tn_str_fmt_xint64(tn_uchar *buffer, tn_uint64 value);

TN_API tn_uint32 tn_str_fmt_0uint(tn_uchar *buffer, tn_uint32 value, tn_uint32 width);
TN_API tn_uint32 tn_str_fmt_0uint8(tn_uchar *buffer, tn_uint8 value, tn_uint32 width);
TN_API tn_uint32 tn_str_fmt_0uint16(tn_uchar *buffer, tn_uint16 value, tn_uint32 width);
TN_API tn_uint32 tn_str_fmt_0uint32(tn_uchar *buffer, tn_uint32 value, tn_uint32 width);
TN_API tn_uint32 tn_str_fmt_0uint64(tn_uchar *buffer, tn_uint64 value, tn_uint32 width);
TN_API tn_uint32 tn_str_fmt_0xint(tn_uchar *buffer, tn_uint32 value, tn_uint32 width);
TN_API tn_uint32 tn_str_fmt_0xint8(tn_uchar *buffer, tn_uint8 value, tn_uint32 width);
TN_API tn_uint32 tn_str_fmt_0xint16(tn_uchar *buffer, tn_uint16 value, tn_uint32 width);
TN_API tn_uint32 tn_str_fmt_0xint32(tn_uchar *buffer, tn_uint32 value, tn_uint32 width);
TN_API tn_uint32 tn_str_fmt_0xint64(tn_uchar *buffer, tn_uint64 value, tn_uint32 width);

/* "1" for any value but 0, else "0"; returns 1. The buffer is required. */
TN_API tn_uint32 tn_str_fmt_bool(tn_uchar *buffer, tn_bool value);
TN_API tn_uint32 tn_str_fmt_float32(tn_uchar *buffer, float value);
TN_API tn_uint32 tn_str_fmt_float64(tn_uchar *buffer, double value);

/* Wide formats: the same text in 16-bit characters. */
TN_API tn_uint32 tn_wstr_fmt_int(tn_wchar *buffer, tn_int32 value);
TN_API tn_uint32 tn_wstr_fmt_int16(tn_wchar *buffer, tn_int16 value);
TN_API tn_uint32 tn_wstr_fmt_int32(tn_wchar *buffer, tn_int32 value);
TN_API tn_uint32 tn_wstr_fmt_int64(tn_wchar *buffer, tn_int64 value);
TN_API tn_uint32 tn_wstr_fmt_uint(tn_wchar *buffer, tn_uint32 value);
TN_API tn_uint32 tn_wstr_fmt_uint16(tn_wchar *buffer, tn_uint16 value);
TN_API tn_uint32 tn_wstr_fmt_uint32(tn_wchar *buffer, tn_uint32 value);
TN_API tn_uint32 tn_wstr_fmt_uint64(tn_wchar *buffer, tn_uint64 value);
TN_API tn_uint32 tn_wstr_fmt_xint(tn_wchar *buffer, tn_uint32 value);
TN_API tn_uint32 tn_wstr_fmt_xint16(tn_wchar *buffer, tn_uint16 value);
TN_API tn_uint32 tn_wstr_fmt_xint32(tn_wchar *buffer, tn_uint32 value);
TN_API tn_uint32 tn_wstr_fmt_xint64(tn_wchar *buffer, tn_uint64 value);
TN_API tn_uint32 tn_wstr_fmt_0uint(tn_wchar *buffer, tn_uint32 value, tn_uint32 width);
TN_API tn_uint32 tn_wstr_fmt_0uint16(tn_wchar *buffer, tn_uint16 value, tn_uint32 width);
TN_API tn_uint32 tn_wstr_fmt_0uint32(tn_wchar *buffer, tn_uint32 value, tn_uint32 width);
TN_API tn_uint32 tn_wstr_fmt_0uint64(tn_wchar *buffer, tn_uint64 value, tn_uint32 width);
TN_API tn_uint32 tn_wstr_fmt_0xint(tn_wchar *buffer, tn_uint32 value, tn_uint32 width);
TN_API tn_uint32 tn_wstr_fmt_0xint16(tn_wchar *buffer, tn_uint16 value, tn_uint32 width);
TN_API tn_uint32 tn_wstr_fmt_0xint32(tn_wchar *buffer, tn_uint32 value, tn_uint32 width);
TN_API tn_uint32 tn_wstr_fmt_0xint64(tn_wchar *buffer, tn_uint64 value, tn_uint32 width);

/* Narrow scans. tn_str_scan_bool scans as tn_str_scan_uint and stores 1 when
 * the accumulator ended other than 0, else 0. */
TN_API tn_uint32 tn_str_scan_bool(const tn_uchar *text, tn_bool *value);
TN_API tn_uint32 tn_str_scan_int(const tn_uchar *text, tn_int32 *value);
TN_API tn_uint32 tn_str_scan_int8(const tn_uchar *text, tn_int8 *value);
TN_API tn_uint32 tn_str_scan_int16(const tn_uchar *text, tn_int16 *value);
TN_API tn_uint32 tn_str_scan_int32(const tn_uchar *text, tn_int32 *value);
TN_API tn_uint32 tn_str_scan_int64(const tn_uchar *text, tn_int64 *value);
TN_API tn_uint32 tn_str_scan_uint(const tn_uchar *text, tn_uint32 *value);
TN_API tn_uint32 tn_str_scan_uint8(const tn_uchar *text, tn_uint8 *value);
TN_API tn_uint32 tn_str_scan_uint16(const tn_uchar *text, tn_uint16 *value);
TN_API tn_uint32 tn_str_scan_uint32(const tn_uchar *text, tn_uint32 *value);
TN_API tn_uint32 tn_str_scan_uint64(const tn_uchar *text, tn_uint64 *value);
TN_API tn_uint32 tn_str_scan_xint(const tn_uchar *text, tn_uint32 *value);
TN_API tn_uint32 tn_str_scan_xint8(const tn_uchar *text, tn_uint8 *value);
TN_API tn_uint32 tn_str_scan_xint16(const tn_uchar *text, tn_uint16 *value);
TN_API tn_uint32 tn_str_scan_xint32(const tn_uchar *text, tn_uint32 *value);
TN_API tn_uint32 tn_str_scan_xint64(const tn_uchar *text, tn_uint64 *value);
TN_API tn_uint32 tn_str_scan_float32(const tn_uchar *text, float *value);
TN_API tn_uint32 tn_str_scan_float64(const tn_uchar *text, double *value);

/* Wide scans. */
TN_API tn_uint32 tn_wstr_scan_int(const tn_wchar *text, tn_int32 *value);
TN_API tn_uint32 tn_wstr_scan_int16(const tn_wchar *text, tn_int16 *value);
TN_API tn_uint32 tn_wstr_scan_int32(const tn_wchar *text, tn_int32 *value);
TN_API tn_uint32 tn_wstr_scan_int64(const tn_wchar *text, tn_int64 *value);
TN_API tn_uint32 tn_wstr_scan_uint(const tn_wchar *text, tn_uint32 *value);
TN_API tn_uint32 tn_wstr_scan_uint16(const tn_wchar *text, tn_uint16 *value);
TN_API tn_uint32 tn_wstr_scan_uint32(const tn_wchar *text, tn_uint32 *value);
TN_API tn_uint32 tn_wstr_scan_uint64(const tn_wchar *text, tn_uint64 *value);
TN_API tn_uint32 tn_wstr_scan_xint(const tn_wchar *text, tn_uint32 *value);
TN_API tn_uint32 tn_wstr_scan_xint16(const tn_wchar *text, tn_uint16 *value);
TN_API tn_uint32 tn_wstr_scan_xint32(const tn_wchar *text, tn_uint32 *value);
TN_API tn_uint32 tn_wstr_scan_xint64(const tn_wchar *text, tn_uint64 *value);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_FMT_H */
