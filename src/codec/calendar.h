// Proleptic Gregorian arithmetic on day counts from 1970-01-01, exact for
// every year the calendar fields allow, with no help from the C library
// (whose range and leap rules for far years vary by platform).
#ifndef TN_SRC_CODEC_CALENDAR_H
#define TN_SRC_CODEC_CALENDAR_H

#include <tarnel_util/tn_caltime.h>

namespace tn::calendar {

inline constexpr tn_int64 day_seconds = 86400;
inline constexpr tn_uint32 first_year = 1601;
inline constexpr tn_uint32 last_year = 30827;

constexpr bool leap(tn_int64 y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

constexpr tn_uint32 month_days(tn_int64 y, tn_uint32 m)
{
    constexpr tn_uint32 days[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return m == 2 && leap(y) ? 29 : days[m - 1];
}

// Counting from March makes the leap day the last of its year, so one
// formula serves every month; eras of 400 years repeat exactly.
constexpr tn_int64 days_from_civil(tn_int64 y, tn_uint32 m, tn_uint32 d)
{
    y -= m <= 2;
    tn_int64 era = (y >= 0 ? y : y - 399) / 400;
    tn_int64 yoe = y - era * 400;
    tn_int64 doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
    tn_int64 doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

struct civil {
    tn_int64 year;
    tn_uint32 month, day;
};

constexpr civil civil_from_days(tn_int64 z)
{
    z += 719468;
    tn_int64 era = (z >= 0 ? z : z - 146096) / 146097;
    tn_int64 doe = z - era * 146097;
    tn_int64 yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    tn_int64 doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    tn_int64 mp = (5 * doy + 2) / 153;
    auto d = static_cast<tn_uint32>(doy - (153 * mp + 2) / 5 + 1);
    auto m = static_cast<tn_uint32>(mp < 10 ? mp + 3 : mp - 9);
    return {yoe + era * 400 + (m <= 2), m, d};
}

inline constexpr tn_time first_time = days_from_civil(first_year, 1, 1) * day_seconds;
inline constexpr tn_time last_time = days_from_civil(last_year, 12, 31) * day_seconds + day_seconds - 1;

static_assert(first_time == -11644473600, "1601 lies where the platform's file times begin");
static_assert(days_from_civil(1970, 1, 1) == 0);
static_assert(civil_from_days(-1).year == 1969 && civil_from_days(-1).day == 31);

// The fields of a time within [first_time, last_time]; the caller checks.
constexpr tn_caltime fields(tn_time t)
{
    tn_int64 days = (t >= 0 ? t : t - (day_seconds - 1)) / day_seconds;
    tn_int64 rest = t - days * day_seconds;
    civil c = civil_from_days(days);
    // 1970-01-01 was a Thursday.
    tn_int64 weekday = (days % 7 + 11) % 7;
    return {static_cast<tn_uint32>(c.year), c.month, c.day, static_cast<tn_uint32>(rest / 3600),
            static_cast<tn_uint32>(rest / 60 % 60), static_cast<tn_uint32>(rest % 60),
            static_cast<tn_uint32>(weekday)};
}

// The time that valid fields name, read as UTC; false if they name none.
// Only the low 16 bits of each field count, and the weekday not at all.
constexpr bool seconds(const tn_caltime &c, tn_time *out)
{
    tn_uint32 y = c.year & 0xFFFF, m = c.month & 0xFFFF, d = c.day & 0xFFFF;
    tn_uint32 h = c.hour & 0xFFFF, mi = c.minute & 0xFFFF, s = c.second & 0xFFFF;
    if (y < first_year || y > last_year || m < 1 || m > 12 || d < 1 || d > month_days(y, m)) return false;
    if (h > 23 || mi > 59 || s > 59) return false;
    *out = days_from_civil(y, m, d) * day_seconds + h * 3600 + mi * 60 + s;
    return true;
}

} // namespace tn::calendar

#endif
