#include <tarnel_util/tn_caltime.h>
#include <tarnel_util/tn_fmt.h>
#include <tarnel_util/tn_rfc1123_date.h>

namespace {

constexpr char weekdays[7][4] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr char months[12][4] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

tn_uint32 put(tn_uchar *out, const char *s)
{
    tn_uint32 n = 0;
    for (; s[n]; ++n) out[n] = static_cast<tn_uchar>(s[n]);
    return n;
}

tn_uint32 put2(tn_uchar *out, tn_uint32 v)
{
    out[0] = static_cast<tn_uchar>('0' + v / 10 % 10);
    out[1] = static_cast<tn_uchar>('0' + v % 10);
    return 2;
}

// ---- Scanning ---------------------------------------------------------------

constexpr bool blank(tn_uchar c) { return c == ' ' || c == '\t'; }

// Behind the ")" that closes the comment opening at s[0], or null if the
// text ends inside it.
const tn_uchar *past_comment(const tn_uchar *s)
{
    tn_uint32 depth = 0;
    do {
        if (!*s) return nullptr;
        depth += *s == '(';
        depth -= *s == ')';
        ++s;
    } while (depth);
    return s;
}

// The characters of blanks and comments from s: a comment only at the start
// or right behind a blank, and 0 for everything if a comment is left open.
tn_uint32 skip(const tn_uchar *s)
{
    const tn_uchar *p = s;
    if (!*p) return 0;
    for (;;) {
        if (*p == '(' && !(p = past_comment(p))) return 0;
        if (!blank(*p)) break;
        if (!*++p) break;
    }
    return static_cast<tn_uint32>(p - s);
}

// Which of the three-letter names stands at s, exactly cased, or n.
template <tn_uint32 n>
tn_uint32 name_at(const tn_uchar *s, const char (&names)[n][4])
{
    for (tn_uint32 i = 0; i < n; ++i)
        if (s[0] == tn_uchar(names[i][0]) && s[1] == tn_uchar(names[i][1]) && s[2] == tn_uchar(names[i][2])) return i;
    return n;
}

// A run of digits at s whose length lies in [least, most]; its count, or 0.
tn_uint32 digits(const tn_uchar *s, tn_uint32 least, tn_uint32 most, tn_uint32 *value)
{
    tn_uint32 n = tn_str_scan_uint(s, value);
    return n >= least && n <= most ? n : 0;
}

constexpr bool digit(tn_uchar c) { return c >= '0' && c <= '9'; }

struct named_zone {
    const char *text;
    tn_int32 correction;
};

constexpr named_zone named_zones[] = {
    {"UT", 0},         {"GMT", 0},        {"EDT", 4 * 3600}, {"EST", 5 * 3600}, {"CDT", 5 * 3600},
    {"CST", 6 * 3600}, {"MDT", 6 * 3600}, {"MST", 7 * 3600}, {"PDT", 7 * 3600}, {"PST", 8 * 3600},
};

// The length of prefix when s starts with it, exactly cased, else 0.
tn_uint32 starts(const tn_uchar *s, const char *prefix)
{
    tn_uint32 n = 0;
    for (; prefix[n]; ++n)
        if (s[n] != tn_uchar(prefix[n])) return 0;
    return n;
}

// The zone at s: its length, or 0 when there is none, with the seconds to
// add to the time read as UTC.
tn_uint32 zone(const tn_uchar *s, tn_int64 *correction)
{
    if ((s[0] == '+' || s[0] == '-') && digit(s[1]) && digit(s[2]) && digit(s[3]) && digit(s[4]) && !digit(s[5])) {
        tn_int64 hh = (s[1] - '0') * 10 + (s[2] - '0'), mm = (s[3] - '0') * 10 + (s[4] - '0');
        *correction = (hh * 60 + mm) * 60 * (s[0] == '+' ? -1 : 1);
        return 5;
    }
    for (const named_zone &z : named_zones) {
        if (tn_uint32 n = starts(s, z.text)) {
            *correction = z.correction;
            return n;
        }
    }
    tn_uchar letter = s[0] | 0x20;
    if (letter < 'a' || letter > 'z' || letter == 'j') return 0;
    if (letter <= 'i')
        *correction = -(letter - 'a' + 1) * 3600;
    else if (letter <= 'm')
        *correction = -(letter - 'k' + 10) * 3600;
    else if (letter <= 'y')
        *correction = (letter - 'n' + 1) * 3600;
    else
        *correction = 0;
    return 1;
}

// Two-digit years: below 50 in this century, else in the last; three
// digits count from 1900 too.
tn_uint32 full_year(tn_uint32 value, tn_uint32 count)
{
    if (count == 2) return value + (value < 50 ? 2000 : 1900);
    return count == 3 ? value + 1900 : value;
}

// The fields and zone of the date at s; the position behind it, or 0.
tn_uint32 parse(const tn_uchar *s, tn_caltime *c, tn_int64 *correction)
{
    tn_uint32 p = skip(s), n;
    if (name_at(s + p, weekdays) < 7) {
        p += 3;
        p += skip(s + p);
        if (s[p] != ',') return 0;
        ++p;
        p += skip(s + p);
    }
    if (!(n = digits(s + p, 1, 2, &c->day))) return 0;
    p += n;
    if (!(n = skip(s + p))) return 0;
    p += n;
    if ((c->month = name_at(s + p, months) + 1) > 12) return 0;
    p += 3;
    if (!(n = skip(s + p))) return 0;
    p += n;
    if (!(n = digits(s + p, 2, ~0u, &c->year))) return 0;
    c->year = full_year(c->year, n);
    p += n;
    if (!(n = skip(s + p))) return 0;
    p += n;
    if (!(n = digits(s + p, 2, 2, &c->hour))) return 0;
    p += n;
    p += skip(s + p);
    if (s[p] != ':') return 0;
    ++p;
    p += skip(s + p);
    if (!(n = digits(s + p, 2, 2, &c->minute))) return 0;
    p += n;
    n = skip(s + p);
    p += n;
    c->second = 0;
    if (s[p] == ':') {
        ++p;
        p += skip(s + p);
        if (!(n = digits(s + p, 2, 2, &c->second))) return 0;
        p += n;
        n = skip(s + p);
        p += n;
    }
    // The zone never touches the time.
    if (!n || !(n = zone(s + p, correction))) return 0;
    p += n;
    if (!s[p]) return p;
    if (!(n = skip(s + p))) return 0;
    return p + n;
}

} // namespace

tn_uint32 tn_rfc1123_date_fmt(tn_uchar *buffer, const tn_time *time)
{
    tn_caltime c;
    tn_caltime_utc_from_time(&c, time);
    tn_uint32 n = put(buffer, weekdays[c.weekday % 7]);
    n += put(buffer + n, ", ");
    n += put2(buffer + n, c.day);
    buffer[n++] = ' ';
    n += put(buffer + n, months[c.month >= 1 && c.month <= 12 ? c.month - 1 : 11]);
    buffer[n++] = ' ';
    n += tn_str_fmt_uint(buffer + n, c.year);
    buffer[n++] = ' ';
    n += put2(buffer + n, c.hour);
    buffer[n++] = ':';
    n += put2(buffer + n, c.minute);
    buffer[n++] = ':';
    n += put2(buffer + n, c.second);
    n += put(buffer + n, " GMT");
    buffer[n] = 0;
    return n;
}

tn_uint32 tn_rfc1123_date_scan(const tn_uchar *text, tn_time *time)
{
    tn_caltime c{};
    tn_int64 correction = 0;
    tn_time t;
    tn_uint32 n = parse(text, &c, &correction);
    if (!n || !tn_caltime_utc_to_time(&c, &t)) return 0;
    *time = t + correction;
    return n;
}
