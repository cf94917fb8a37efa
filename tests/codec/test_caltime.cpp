#include <tarnel_util/tn_caltime.h>
#include <tarnel_util/tn_rfc1123_date.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

namespace {

constexpr tn_time first = -11644473600;   // 1601-01-01 00:00:00 UTC
constexpr tn_time last = 910670515199;    // 30827-12-31 23:59:59 UTC
constexpr tn_caltime zero{};

bool same(const tn_caltime &a, const tn_caltime &b) { return std::memcmp(&a, &b, sizeof a) == 0; }

tn_caltime from_tm(const std::tm &tm)
{
    return {tn_uint32(tm.tm_year + 1900), tn_uint32(tm.tm_mon + 1), tn_uint32(tm.tm_mday), tn_uint32(tm.tm_hour),
            tn_uint32(tm.tm_min), tn_uint32(tm.tm_sec), tn_uint32(tm.tm_wday)};
}

std::string show(const tn_caltime &c)
{
    char s[96];
    std::snprintf(s, sizeof s, "%u-%u-%u %u:%u:%u wd %u", c.year, c.month, c.day, c.hour, c.minute, c.second, c.weekday);
    return s;
}

// Every day of the calendar, at a time of day that moves with the day, in
// one pass: the fields against gmtime_r, back through the fields, out as
// text against strftime, and in again through the scan.
TEST(Caltime, EveryDayAgreesWithTheCLibraryAndRoundTrips)
{
    tn_time failed_at = 0;
    std::string failure;
    for (tn_time day = first / 86400; day <= last / 86400 && failure.empty(); ++day) {
        tn_time t = day * 86400 + ((day * 7919) % 86400 + 86400) % 86400, back = 0, scanned = 0;
        if (day == last / 86400) t = last;
        tn_caltime c;
        tn_caltime_utc_from_time(&c, &t);
        std::time_t tt = t;
        std::tm tm;
        gmtime_r(&tt, &tm);
        char expected[40];
        std::strftime(expected, sizeof expected, "%a, %d %b %Y %H:%M:%S GMT", &tm);
        tn_uchar text[40];
        tn_uint32 n = tn_rfc1123_date_fmt(text, &t);
        if (!same(c, from_tm(tm)))
            failure = "fields " + show(c) + " vs " + show(from_tm(tm));
        else if (!tn_caltime_utc_to_time(&c, &back) || back != t || timegm(&tm) != t)
            failure = "back to " + std::to_string(back);
        else if (n != std::strlen(expected) || std::strcmp(reinterpret_cast<char *>(text), expected) != 0)
            failure = std::string("text ") + reinterpret_cast<char *>(text) + " vs " + expected;
        else if (tn_rfc1123_date_scan(text, &scanned) != n || scanned != t)
            failure = "scanned " + std::to_string(scanned);
        failed_at = t;
    }
    EXPECT_EQ(failure, "") << "at " << failed_at;
}

TEST(Caltime, TimesOutsideTheCalendarGiveZeroFields)
{
    for (tn_time t : {first - 1, last + 1, tn_time(INT64_MIN), tn_time(INT64_MAX)}) {
        SCOPED_TRACE(t);
        tn_caltime c{1, 2, 3, 4, 5, 6, 7};
        tn_caltime_utc_from_time(&c, &t);
        EXPECT_TRUE(same(c, zero)) << show(c);
        tn_uchar text[40];
        std::memset(text, 0xA5, sizeof text);
        EXPECT_EQ(tn_rfc1123_date_fmt(text, &t), 26u);
        EXPECT_STREQ(reinterpret_cast<char *>(text), "Sun, 00 Dec 0 00:00:00 GMT");
        EXPECT_EQ(text[27], 0xA5) << "the terminator only";
    }
}

TEST(Caltime, BuildingTakesRealDatesOnly)
{
    const struct { tn_caltime fields; bool valid; tn_time time; } rows[] = {
        {{2001, 2, 31, 0, 0, 0, 0}, false, 0},
        {{1900, 2, 29, 0, 0, 0, 0}, false, 0},
        {{1700, 2, 29, 0, 0, 0, 0}, false, 0},
        {{2000, 2, 29, 0, 0, 0, 0}, true, 951782400},
        {{2001, 4, 31, 0, 0, 0, 0}, false, 0},
        {{1600, 12, 31, 23, 59, 59, 0}, false, 0},
        {{30828, 1, 1, 0, 0, 0, 0}, false, 0},
        {{1601, 1, 1, 0, 0, 0, 0}, true, first},
        {{30827, 12, 31, 23, 59, 59, 0}, true, last},
        {{2001, 0, 1, 0, 0, 0, 0}, false, 0},
        {{2001, 13, 1, 0, 0, 0, 0}, false, 0},
        {{2001, 1, 0, 0, 0, 0, 0}, false, 0},
        {{2001, 1, 1, 24, 0, 0, 0}, false, 0},
        {{2001, 1, 1, 0, 60, 0, 0}, false, 0},
        {{2001, 1, 1, 0, 0, 60, 0}, false, 0},
        {{2001, 1, 1, 0, 0, 0, 99}, true, 978307200},               // the weekday plays no part
        {{2001 + 65536, 1 + 65536, 1, 0, 0, 0, 0}, true, 978307200}, // low 16 bits only
        {{2001, 1, 1 + 65536 * 2, 65536, 0, 0, 0}, true, 978307200},
        {{2001, 1, 65536, 0, 0, 0, 0}, false, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(show(row.fields));
        tn_time t = 42;
        EXPECT_EQ(tn_caltime_utc_to_time(&row.fields, &t), row.valid ? 1 : 0);
        EXPECT_EQ(t, row.valid ? row.time : 42);
    }
}

// Sets TZ for the life of the object.
struct Zone {
    explicit Zone(const char *tz) { setenv("TZ", tz, 1), tzset(); }
    ~Zone() { unsetenv("TZ"), tzset(); }
};

// Each half hour of two years and the calendar's ends, in zones with and
// without daylight saving: the fields as localtime_r gives them, and back to
// the earliest instant that reads so.
TEST(LocalTime, AgreesWithLocaltimeAndRoundTrips)
{
    const struct { const char *tz; tn_int32 bias; } zones[] = {
        {"UTC0", 0}, {"CET-1CEST,M3.5.0,M10.5.0/3", -3600}, {"EST5EDT,M3.2.0,M11.1.0", 18000}, {"<+0545>-5:45", -20700},
    };
    for (const auto &z : zones) {
        SCOPED_TRACE(z.tz);
        Zone zone(z.tz);
        tn_int32 bias = 1;
        EXPECT_EQ(tn_caltime_get_offset(&bias), 1);
        EXPECT_EQ(bias, z.bias);
        std::string failure;
        auto check = [&](tn_time t) {
            tn_caltime c;
            tn_caltime_local_from_time(&c, &t);
            std::time_t tt = t;
            std::tm tm;
            localtime_r(&tt, &tm);
            tn_time back = 0, earlier = t - 3600;
            if (tm.tm_year + 1900 < 1601 || tm.tm_year + 1900 > 30827) {
                if (!same(c, zero)) failure = "not zero at " + std::to_string(t);
            } else if (!same(c, from_tm(tm))) {
                failure = show(c) + " vs " + show(from_tm(tm)) + " at " + std::to_string(t);
            } else if (!tn_caltime_local_to_time(&c, &back)) {
                failure = "refused " + show(c);
            } else if (back != t) {
                tn_caltime again;
                tn_caltime_local_from_time(&again, &earlier);
                if (back != earlier || !same(again, c))
                    failure = "back to " + std::to_string(back) + " from " + show(c);
            }
        };
        for (tn_time t = 1735689600; t < 1735689600 + 2 * 366 * 86400 && failure.empty(); t += 1800) check(t);
        for (tn_time t : {first - 7200, first - 1, first, first + 7200, last - 7200, last, last + 3600}) check(t);
        EXPECT_EQ(failure, "");
    }
}

TEST(LocalTimeRules, SkippedAndRepeatedReadingsAndAChangedZone)
{
    Zone zone("CET-1CEST,M3.5.0,M10.5.0/3");
    tn_time t = 0;
    tn_caltime skipped{2026, 3, 29, 2, 30, 0, 0}, repeated{2026, 10, 25, 2, 30, 0, 0};
    EXPECT_EQ(tn_caltime_local_to_time(&skipped, &t), 1);
    EXPECT_EQ(t, 1774747800); // 01:30 UTC, shown as 03:30
    EXPECT_EQ(tn_caltime_local_to_time(&repeated, &t), 1);
    EXPECT_EQ(t, 1792888200); // 00:30 UTC, the first of the two
    // A new zone counts from the next call on, without tzset from the host.
    setenv("TZ", "JST-9", 1);
    tn_caltime c;
    tn_caltime_local_from_time(&c, &t);
    EXPECT_EQ(c.hour, 9u);
}

} // namespace
