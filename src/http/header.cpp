#include <tarnel_util/tn_fmt.h>
#include <tarnel_util/tn_http_header.h>
#include <tarnel_util/tn_http_vocab.h>
#include <tarnel_util/tn_rfc1123_date.h>
#include <tarnel_util/tn_str.h>
#include <tarnel_util/tn_time.h>

#include <cstring>

#include "text/text.h"

namespace {

using U = tn_uchar;

constexpr tn_uint32 line_limit = 2048;
constexpr tn_uint32 number_room = 40;

const U *u(const char *s) { return reinterpret_cast<const U *>(s); }

// The composed line: a fixed block on the stack, filled front to back.
struct line_text {
    U text[line_limit];
    tn_uint32 length = 0;

    void put(const U *s, tn_uint32 n)
    {
        std::memcpy(text + length, s, n);
        length += n;
    }
    void put(const U *s) { put(s, tn::text::len(s)); }
};

// Whether name, ": " and value_length bytes fit; a text value reckons its
// terminator too, the room reserved for a number does not.
bool fits(const U *name, tn_uint32 value_length)
{
    tn_uint32 colon = tn::text::len(tn_http_header_colon_sp());
    tn_uint32 name_length = tn::text::len_within(name, line_limit);
    return static_cast<tn_uint64>(colon) + name_length + value_length <= line_limit;
}

void start_line(line_text &line, const U *name)
{
    line.put(name);
    line.put(tn_http_header_colon_sp());
}

tn_bool append(tn_str_array *block, const U *name, const line_text &line, tn_bool replace)
{
    if (replace) tn_http_header_remove(block, name);
    return tn_str_array_caton(block, line.text, line.length);
}

// Name and a value already known to fit go out as one line.
tn_bool set_fitting(tn_str_array *block, const U *name, const U *value, tn_uint32 value_length, tn_bool replace)
{
    line_text line;
    start_line(line, name);
    line.put(value, value_length);
    return append(block, name, line, replace);
}

template <class Format>
tn_bool set_formatted(tn_str_array *block, const U *name, tn_bool replace, Format format)
{
    if (!block || !name || !fits(name, number_room)) return 0;
    U value[number_room];
    tn_uint32 length = format(value);
    return set_fitting(block, name, value, length, replace);
}

} // namespace

tn_bool tn_http_header_name_equal(const U *line, const U *name)
{
    if (!line || !name) return 0;
    const U *rest = tn::text::behind_case_prefix(line, name);
    return rest && rest[tn_str_skip_space(rest)] == ':';
}

tn_uint32 tn_http_header_find(const tn_str_array *block, const U *name)
{
    if (!block) return 0;
    tn_uint32 count = tn_str_array_length(block);
    for (tn_uint32 i = 0; i < count; ++i)
        if (tn_http_header_name_equal(tn_str_array_get_pos(block, i), name)) return i;
    return count;
}

U *tn_http_header_get_value(const U *line)
{
    if (!line) return nullptr;
    tn_uint32 colon = tn_str_chr(line, ':');
    if (!line[colon]) return nullptr;
    const U *value = line + colon + 1;
    return const_cast<U *>(value + tn_str_skip_space(value));
}

U *tn_http_header_get_value2(const tn_str_array *block, const U *name)
{
    if (!block) return nullptr;
    tn_uint32 at = tn_http_header_find(block, name);
    if (at == tn_str_array_length(block)) return nullptr;
    return tn_http_header_get_value(tn_str_array_get_pos(block, at));
}

void tn_http_header_remove(tn_str_array *block, const U *name)
{
    if (!block) return;
    tn_uint32 at = tn_http_header_find(block, name);
    if (at < tn_str_array_length(block)) tn_str_array_remove(block, at);
}

tn_bool tn_http_header_set_str(tn_str_array *block, const U *name, const U *value, tn_bool replace)
{
    if (!block || !name || !value) return 0;
    tn_uint32 value_length = tn::text::len_within(value, line_limit);
    if (!fits(name, value_length + 1)) return 0;
    return set_fitting(block, name, value, value_length, replace);
}

tn_bool tn_http_header_set_uint32(tn_str_array *block, const U *name, tn_uint32 value, tn_bool replace)
{
    return set_formatted(block, name, replace, [value](U *out) { return tn_str_fmt_uint32(out, value); });
}

tn_bool tn_http_header_set_uint64(tn_str_array *block, const U *name, tn_uint64 value, tn_bool replace)
{
    return set_formatted(block, name, replace, [value](U *out) { return tn_str_fmt_uint64(out, value); });
}

tn_bool tn_http_header_set_rfc1123_date(tn_str_array *block, const U *name, tn_time value, tn_bool replace)
{
    return set_formatted(block, name, replace, [&value](U *out) { return tn_rfc1123_date_fmt(out, &value); });
}

tn_bool tn_http_header_set_content_type_xml(tn_str_array *block, tn_bool replace)
{
    return tn_http_header_set_str(block, tn_http_header_content_type(), u("text/xml; charset=\"utf-8\""), replace);
}

tn_bool tn_http_header_set_content_type_html(tn_str_array *block, tn_bool replace)
{
    return tn_http_header_set_str(block, tn_http_header_content_type(), u("text/html"), replace);
}

tn_bool tn_http_header_set_timeout(tn_str_array *block, tn_int32 seconds, tn_bool replace)
{
    if (!block) return 0;
    const U *name = tn_http_header_timeout();
    line_text line;
    start_line(line, name);
    line.put(u("Second-"));
    if (seconds < 0)
        line.put(u("infinite"));
    else
        line.length += tn_str_fmt_int32(line.text + line.length, seconds);
    return append(block, name, line, replace);
}

tn_bool tn_http_header_set_soap_man(tn_str_array *block)
{
    if (!block) return 0;
    tn_uint32 at = tn_http_header_find(block, tn_http_header_soapaction());
    if (at == tn_str_array_length(block)) return 0;
    const U *action = tn_str_array_get_pos(block, at);
    tn_uint32 action_length = tn::text::len(action);
    if (static_cast<tn_uint64>(action_length) + 4 > line_limit) return 0;

    // The action line moves with the pool once the man line goes in.
    line_text prefixed;
    prefixed.put(u("01-"));
    prefixed.put(action, action_length);

    line_text man;
    man.put(tn_http_header_man());
    tn_str_case_lowern(man.text, man.length);
    man.put(tn_http_header_colon_sp());
    man.put(u("\"http://schemas.xmlsoap.org/soap/envelope/\"; ns=01"));
    if (!tn_str_array_caton(block, man.text, man.length)) return 0;
    if (!tn_str_array_caton(block, prefixed.text, prefixed.length)) return 0;
    return tn_str_array_remove(block, at);
}

tn_bool tn_http_header_set_common_response_header(tn_str_array *block, const U *server, tn_bool persistent)
{
    if (!tn_http_header_set_str(block, tn_http_header_server(), server, 1)) return 0;
    tn_time now;
    tn_time_sec(&now);
    if (!tn_http_header_set_rfc1123_date(block, tn_http_header_date(), now, 1)) return 0;
    if (!persistent && !tn_http_header_set_str(block, tn_http_header_connection(), u("close"), 1)) return 0;
    return 1;
}

tn_bool tn_http_header_set_common_soap_response_header(tn_str_array *block, const U *server, tn_bool persistent)
{
    return tn_http_header_set_common_response_header(block, server, persistent) &&
           tn_http_header_set_str(block, tn_http_header_ext(), u(""), 1) &&
           tn_http_header_set_content_type_xml(block, 1);
}
