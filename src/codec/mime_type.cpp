#include <tarnel_util/tn_mime_type.h>
#include <tarnel_util/tn_str.h>

#include <cstring>

#include "text/text.h"

namespace {

using U = tn_uchar;

const U *find(const U *s, U c)
{
    const U *at = s + tn_str_chr(s, c);
    return *at ? at : nullptr;
}

bool is_blank(U c) { return c == ' ' || c == '\t'; }
bool ends_value(U c) { return !c || c == ';' || is_blank(c); }

const U *skip_blanks(const U *s)
{
    while (is_blank(*s)) ++s;
    return s;
}

// The value behind the "=" of the first parameter called name, or null.
const U *parameter_value(const U *mime, const U *name)
{
    for (const U *at = find(mime, ';'); at; at = find(at, ';')) {
        at = skip_blanks(at + 1); // at the end no "=" and no ";" can follow
        const U *equals = tn::text::behind_case_prefix(at, name);
        if (equals && *equals == '=') return equals + 1;
    }
    return nullptr;
}

} // namespace

tn_bool tn_mime_type_major_equal(const U *mime, const U *major)
{
    if (!mime || !major) return 0;
    const U *slash = tn::text::behind_case_prefix(mime, major);
    return slash && *slash == '/';
}

tn_bool tn_mime_type_sub_equal(const U *mime, const U *sub)
{
    if (!mime || !sub) return 0;
    const U *slash = find(mime, '/');
    const U *end = slash ? tn::text::behind_case_prefix(slash + 1, sub) : nullptr;
    return end && ends_value(*end);
}

tn_bool tn_mime_type_get_parameter_value(const U *mime, const U *name, U *value, tn_uint32 size)
{
    if (!mime || !name || !value) return 0;
    const U *start = parameter_value(mime, name);
    if (!start) return 0;
    size_t length = 0;
    while (!ends_value(start[length])) ++length;
    if (length >= size) return 0;
    // The value may lie in the buffer it goes to.
    std::memmove(value, start, length);
    value[length] = 0;
    return 1;
}
