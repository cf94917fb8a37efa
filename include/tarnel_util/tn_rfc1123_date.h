/*
 * tn_rfc1123_date.h - the HTTP date: printed in the one form the library
 * sends, read in the date-time form of RFC 822 and RFC 1123.
 *
 * tn_rfc1123_date_fmt writes the time, always in GMT, as
 * "Sun, 06 Nov 1994 08:49:37 GMT": weekday, comma, day in two digits, month,
 * year in plain decimal, hour, minute and second in two digits each, "GMT".
 * It writes a terminator and returns the count of characters without it: 29
 * for a year of four digits, 30 for five. A buffer of 31 bytes holds every
 * text; the header setters allow 40. A time outside 1601-01-01 00:00:00 to
 * 30827-12-31 23:59:59 UTC prints its zero fields,
 * "Sun, 00 Dec 0 00:00:00 GMT".
 *
 * tn_rfc1123_date_scan reads one date from the start of a zero-terminated
 * text and returns the count of characters consumed, storing the time; it
 * returns 0 and stores nothing when it refuses the text. The grammar:
 *
 *   [weekday ","] day month year hour ":" minute [":" second] zone
 *
 * Names of weekdays ("Sun" to "Sat") and months ("Jan" to "Dec") match with
 * exactly this case. The weekday is not checked against the date. The day
 * has 1 or 2 digits; the hour, minute and second exactly 2; the year at
 * least 2: two digits below 50 are 20xx, other two and all three digit
 * years count from 1900 ("101" is 2001), and four or more digits are the
 * year as it stands. Between the tokens stand blanks (space or tab) and
 * comments in parentheses, which nest and have no escape; a comment is
 * passed only at the start of such a gap or right behind a blank. The gaps
 * in front of the month, the year, the hour and the zone must not be empty,
 * the others may. The zone is "+hhmm" or "-hhmm" (four digits, the minutes
 * not bounded by 59), "UT", "GMT", the North American "EST", "EDT", "CST",
 * "CDT", "MST", "MDT", "PST", "PDT" (exactly this case), or one military
 * letter in either case: "A" to "I" and "K" to "M" stand for 1 to 12 hours
 * east, "N" to "Y" for 1 to 12 hours west, "Z" for UTC; "J" is refused.
 *
 * Behind the zone the text may end, or a gap must follow; the count
 * returned takes in that gap and stops in front of whatever comes next,
 * which is left to the caller. So "UTC" (the zone "UT" and a stray "C") and
 * "GMTx" are refused, and "... GMT trailing" is consumed up to "trailing".
 * A date that does not exist (31 Feb, hour 24, second 60, a year outside
 * 1601 to 30827 after the low 16 bits are taken) is refused. The RFC 850
 * form "Sunday, 06-Nov-94 08:49:37 GMT" and the asctime form
 * "Sun Nov  6 08:49:37 1994" are refused. The text may lie anywhere,
 * including in the tn_time that receives the result.
 */
#ifndef TARNEL_UTIL_TN_RFC1123_DATE_H
#define TARNEL_UTIL_TN_RFC1123_DATE_H

#include "tn_types.h"

TN_BEGIN_DECLS

TN_API tn_uint32 tn_rfc1123_date_fmt(tn_uchar *buffer, const tn_time *time);
TN_API tn_uint32 tn_rfc1123_date_scan(const tn_uchar *text, tn_time *time);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_RFC1123_DATE_H */
