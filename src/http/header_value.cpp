#include <tarnel_util/tn_fmt.h>
#include <tarnel_util/tn_http_header.h>
#include <tarnel_util/tn_http_vocab.h>
#include <tarnel_util/tn_str.h>
#include <tarnel_util/tn_uchar_array.h>

#include "text/text.h"

namespace {

using U = tn_uchar;

const U *u(const char *s) { return reinterpret_cast<const U *>(s); }

const U *skip_blanks(const U *s) { return s + tn_str_skip_space(s); }

bool is_digit(U c) { return c >= '0' && c <= '9'; }

// Behind "=" with the blanks on both sides, or null.
const U *behind_equals(const U *s)
{
    s = skip_blanks(s);
    return *s == '=' ? skip_blanks(s + 1) : nullptr;
}

// A decimal of at least one digit; more digits than 64 bits hold give the
// largest value rather than a wrapped small one. Null without a digit.
const U *scan_saturating(const U *s, tn_uint64 *value)
{
    if (!is_digit(*s)) return nullptr;
    tn_uint64 v = 0;
    for (; is_digit(*s); ++s) {
        unsigned digit = static_cast<unsigned>(*s - '0');
        v = v > (UINT64_MAX - digit) / 10 ? UINT64_MAX : v * 10 + digit;
    }
    *value = v;
    return s;
}

enum class range_result { taken, malformed, unsatisfiable };

range_result suffix_range(const U *s, tn_uint64 size, tn_http_range *range)
{
    tn_uint64 count;
    s = scan_saturating(skip_blanks(s), &count);
    if (!s || *s) return range_result::malformed;
    if (!count) return range_result::unsatisfiable;
    if (count > size) count = size;
    range->start = size - count;
    range->length = count;
    return range_result::taken;
}

range_result position_range(const U *s, tn_uint64 size, tn_http_range *range)
{
    tn_uint64 start, end;
    s = scan_saturating(s, &start);
    if (!s) return range_result::malformed;
    if (start >= size) return range_result::unsatisfiable;
    s = skip_blanks(s);
    if (*s != '-') return range_result::malformed;
    s = skip_blanks(s + 1);
    if (!*s) {
        range->start = start;
        range->length = size - start;
        return range_result::taken;
    }
    s = scan_saturating(s, &end);
    if (!s || *s || end < start) return range_result::malformed;
    if (end >= size) end = size - 1;
    range->start = start;
    range->length = end - start + 1;
    return range_result::taken;
}

range_result read_range(const U *value, tn_uint64 size, tn_http_range *range)
{
    const U *s = value ? tn::text::behind_case_prefix(value, "bytes") : nullptr;
    if (s) s = behind_equals(s);
    if (!s || !*s) return range_result::malformed;
    return *s == '-' ? suffix_range(s + 1, size, range) : position_range(s, size, range);
}

tn_bool range_number(tn_uchar_array *text, tn_uint64 value)
{
    U digits[20];
    return tn_array_catn(text, digits, tn_str_fmt_uint64(digits, value));
}

// The header name in lower case, ": " and the unit text.
tn_bool range_start(tn_uchar_array *text, const U *name, const char *unit)
{
    if (!text || !tn_uchar_array_copys(text, name)) return 0;
    tn_str_case_lowern(static_cast<U *>(tn_array_get(text)), tn_array_length(text));
    return tn_uchar_array_cats(text, tn_http_header_colon_sp()) && tn_uchar_array_cats(text, u(unit));
}

} // namespace

tn_bool tn_http_header_get_max_age(const U *value, tn_uint32 *max_age)
{
    if (!value || !max_age) return 0;
    const U *s = tn::text::behind_case_prefix(value, "max-age");
    if (s) s = behind_equals(s);
    if (!s || !is_digit(*s)) return 0;
    tn_str_scan_uint(s, max_age);
    return 1;
}

tn_bool tn_http_header_get_timeout(const U *value, tn_int32 *seconds)
{
    if (!value || !seconds) return 0;
    const U *s = tn::text::behind_case_prefix(value, "second-");
    if (!s) return 0;
    if (!tn_str_diff(s, u("infinite"))) {
        *seconds = -1;
        return 1;
    }
    if (!is_digit(s[*s == '+' || *s == '-'])) return 0;
    tn_str_scan_int32(s, seconds);
    return 1;
}

tn_bool tn_http_header_parse_range(const U *value, tn_uint64 size, tn_http_range *range, const U **status)
{
    if (!range) return 0;
    *range = {0, size, size};
    if (!size) return 1;
    range_result result = read_range(value, size, range);
    if (result == range_result::taken) return 1;
    *range = {0, size, size};
    if (status)
        *status = result == range_result::malformed ? tn_http_status_bad_request()
                                                    : tn_http_status_requested_range_not_satisfiable();
    return 0;
}

tn_bool tn_http_header_range_init(tn_uchar_array *text)
{
    return range_start(text, tn_http_header_range(), "bytes=");
}

tn_bool tn_http_header_content_range_init(tn_uchar_array *text)
{
    return range_start(text, tn_http_header_content_range(), "bytes ");
}

tn_bool tn_http_header_range_start_pos(tn_uchar_array *text, tn_uint64 position)
{
    return text && range_number(text, position) && tn_uchar_array_cato(text, '-');
}

tn_bool tn_http_header_range_end_pos(tn_uchar_array *text, tn_uint64 position)
{
    if (!text) return 0;
    tn_uint32 length = tn_array_length(text);
    if ((!length || tn_uchar_array_get_pos(text, length - 1) != '-') && !tn_uchar_array_cato(text, '-')) return 0;
    return range_number(text, position);
}

tn_bool tn_http_header_range_length(tn_uchar_array *text, tn_uint64 length)
{
    return text && tn_uchar_array_cato(text, '/') && range_number(text, length);
}

tn_bool tn_http_header_range_unknown_length(tn_uchar_array *text)
{
    return text && tn_uchar_array_cats(text, u("/*"));
}
