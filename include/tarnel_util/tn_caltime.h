/*
 * tn_caltime.h - calendar time: a tn_time broken into calendar fields and
 * built back, in UTC or in the host's local time.
 *
 * A tn_time here counts seconds since 1970-01-01 00:00:00 UTC, and every
 * operation takes it through a pointer. The calendar is the proleptic
 * Gregorian one, with no leap second, over the years 1601 to 30827: the
 * times from 1601-01-01 00:00:00 to 30827-12-31 23:59:59 (UTC for the UTC
 * forms, local time for the local forms) are the ones that have fields.
 *
 * Breaking down. tn_caltime_utc_from_time and tn_caltime_local_from_time
 * fill all seven fields; a time outside the range above gives seven zero
 * fields, which the caller can tell by the year 0.
 *
 * Building. tn_caltime_utc_to_time and tn_caltime_local_to_time take only
 * the low 16 bits of each field, so 65537 counts as 1, and ignore the
 * weekday. The fields must name a real date and time: year 1601 to 30827,
 * month 1 to 12, a day that its month has in that year, hour 0 to 23,
 * minute and second 0 to 59. They then store the time and return 1, else
 * they return 0 and leave the time as it was.
 *
 * Local time follows the host's time-zone rules, read again at every call,
 * so a host that changes its zone sees the change at once. A local time that
 * a change of the clock repeats names its first occurrence; one that a
 * change skips is read with the offset in force before the change, so 02:30
 * on a night that moves from 02:00 to 03:00 names 03:30. Both forms thus
 * take every valid set of fields.
 *
 * tn_caltime_get_offset stores the bias of the host's standard time in
 * seconds: UTC minus local time, positive west of Greenwich, daylight saving
 * left out (Central Europe gives -3600, New York 18000). It returns 1, or 0
 * with nothing stored when the platform cannot tell.
 *
 * None of these operations touches shared state of the library.
 */
#ifndef TARNEL_UTIL_TN_CALTIME_H
#define TARNEL_UTIL_TN_CALTIME_H

#include "tn_types.h"

TN_BEGIN_DECLS

/* One moment in calendar terms, owned by the caller. */
typedef struct tn_caltime {
    tn_uint32 year;    /* full year, 1601 to 30827 */
    tn_uint32 month;   /* 1 to 12, 1 is January */
    tn_uint32 day;     /* 1 to 31 */
    tn_uint32 hour;    /* 0 to 23 */
    tn_uint32 minute;  /* 0 to 59 */
    tn_uint32 second;  /* 0 to 59 */
    tn_uint32 weekday; /* 0 to 6, 0 is Sunday; filled on breaking down only */
} tn_caltime;

TN_API void tn_caltime_utc_from_time(tn_caltime *caltime, const tn_time *time);
TN_API void tn_caltime_local_from_time(tn_caltime *caltime, const tn_time *time);

TN_API tn_bool tn_caltime_utc_to_time(const tn_caltime *caltime, tn_time *time);
TN_API tn_bool tn_caltime_local_to_time(const tn_caltime *caltime, tn_time *time);

TN_API tn_bool tn_caltime_get_offset(tn_int32 *offset);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_CALTIME_H */
