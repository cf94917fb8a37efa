#include <tarnel_util/tn_file.h>
#include <tarnel_util/tn_str.h>
#include <tarnel_util/tn_uchar_array.h>
#include <tarnel_util/tn_uri.h>

namespace {

using U = tn_uchar;

enum component : tn_uint32 { protocol, host, port, path, query, components };

struct span {
    tn_uint32 at, n;
};

constexpr bool is_letter(U c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
constexpr bool is_digit(U c) { return c >= '0' && c <= '9'; }

struct safe_table {
    bool safe[256];
    constexpr safe_table() : safe{}
    {
        for (unsigned c = 0; c < 256; ++c) {
            U u = static_cast<U>(c);
            safe[c] = is_letter(u) || is_digit(u) || u == '-' || u == '_' || u == '.';
        }
    }
};
constexpr safe_table safe_bytes;

const U *text(const char *s) { return reinterpret_cast<const U *>(s); }

tn_uint32 find_from(const U *t, tn_uint32 from, U c) { return from + tn_str_chr(t + from, c); }

// ---- Writing in place -------------------------------------------------------
// The writers put their bytes straight into the spare room behind the used
// bytes and then append them from there, where the append finds them
// already in place: no scratch buffer, and no allocation once the room is
// there. A string array's room is reserved while it is empty, for the whole
// operation: reserving moves the pool and leaves the entries behind.

bool lies_in(const tn_array *a, const void *p)
{
    const U *at = static_cast<const U *>(p), *data = a->data;
    return data && at >= data && at < data + a->capacity;
}

bool lies_in(const tn_str_array *a, const void *p) { return lies_in(&a->pool, p) || lies_in(&a->entries, p); }

// Room for most more bytes behind the used ones, or null with the array
// failed.
U *room(tn_array *a, tn_uint32 most)
{
    tn_uint32 used = tn_array_bytes(a);
    void *data = used + most >= used ? tn_array_allocate(a, used + most) : nullptr;
    if (!data) tn_array_fail(a);
    return data ? static_cast<U *>(data) + used : nullptr;
}

// write(to) puts at most `most` bytes at to and returns how many it put.
template <class Write>
bool cat_written(tn_uchar_array *a, tn_uint32 most, Write write)
{
    if (!most) return !tn_array_failed(a);
    U *to = room(a, most);
    return to && tn_array_catn(a, to, write(to));
}

void fail(tn_str_array *a)
{
    tn_array_fail(&a->pool);
    tn_array_fail(&a->entries);
}

// Room in the pool of an emptied array for the bytes of all its strings,
// terminators counted.
bool reserve(tn_str_array *a, tn_uint64 bytes)
{
    if (bytes <= 0xFFFFFFFFu && tn_str_array_allocate(a, static_cast<tn_uint32>(bytes))) return true;
    fail(a);
    return false;
}

// One more string written by write(to), in the room reserved: an array short
// of it fails rather than moving its pool.
template <class Write>
bool cat_written(tn_str_array *a, tn_uint32 most, Write write)
{
    if (tn_str_array_failed(a)) return false;
    tn_array &pool = a->pool;
    if (pool.capacity - pool.length <= most) {
        fail(a);
        return false;
    }
    U *to = pool.data + pool.length;
    return tn_str_array_caton(a, to, write(to));
}

void init(tn_uchar_array *a) { tn_array_init(a, 1); }
void init(tn_str_array *a) { tn_str_array_init(a); }
void free_all(tn_uchar_array *a) { tn_array_free(a); }
void free_all(tn_str_array *a) { tn_str_array_free(a); }
bool failed(const tn_uchar_array *a) { return tn_array_failed(a); }
bool failed(const tn_str_array *a) { return tn_str_array_failed(a); }

template <class Array>
void take(Array *out, Array *aside)
{
    free_all(out);
    *out = *aside;
}

// Emptying an output first would overwrite input that lies in it: such
// output is built aside and then takes the new storage. A failed output
// refuses anyway, and stays failed.
template <class Array, class Build>
tn_bool into(Array *out, bool aliased, Build build)
{
    if (!aliased || failed(out)) return build(out);
    Array aside;
    init(&aside);
    tn_bool ok = build(&aside);
    take(out, &aside);
    return ok;
}

// ---- Split ------------------------------------------------------------------

struct split_text {
    span part[components];
    bool slash_in_front; // the path gets a "/" that the text does not hold
};

// Whether the colon at t[colon] has "//" and a character behind it.
bool authority_follows(const U *t, tn_uint32 colon)
{
    return t[colon] && t[colon + 1] == '/' && t[colon + 2] == '/' && t[colon + 3];
}

// The start of the rest behind the authority, with protocol, host and port
// set; false where no authority follows the colon.
bool split_authority(const U *t, tn_uint32 colon, split_text *s, tn_uint32 *rest)
{
    if (!authority_follows(t, colon)) return false;
    tn_uint32 start = colon + 3;
    tn_uint32 slash = find_from(t, start, '/'), port_colon = find_from(t, start, ':');
    s->part[protocol] = {0, colon};
    if (port_colon < slash) {
        s->part[host] = {start, port_colon - start};
        s->part[port] = {port_colon + 1, slash - port_colon - 1};
    } else {
        s->part[host] = {start, slash - start};
    }
    *rest = slash;
    return true;
}

bool split(const U *t, split_text *s)
{
    *s = {};
    tn_uint32 length = tn_str_len(t), colon = tn_str_chr(t, ':'), rest = 0;
    if (colon < length && !split_authority(t, colon, s, &rest)) return false;
    s->slash_in_front = t[rest] != '/' && t[rest] != '*';
    tn_uint32 mark = find_from(t, rest, '?');
    s->part[path] = {rest, mark - rest};
    if (mark < length) s->part[query] = {mark + 1, length - mark - 1};
    return true;
}

tn_uint32 put_slash_and(U *to, const U *from, tn_uint32 n)
{
    to[0] = '/';
    for (tn_uint32 i = 0; i < n; ++i) to[i + 1] = from[i];
    return n + 1;
}

bool store(tn_uri *uri, const U *t, const split_text &s)
{
    for (tn_uint32 k = 0; k < components; ++k) {
        const span p = s.part[k];
        if (k == path && s.slash_in_front)
            cat_written(uri, p.n + 1, [&](U *to) { return put_slash_and(to, t + p.at, p.n); });
        else
            tn_str_array_caton(uri, t + p.at, p.n);
    }
    return !tn_str_array_failed(uri);
}

tn_bool parse_into(tn_uri *uri, const U *t)
{
    if (!tn_str_array_truncate(uri) || !t) return 0;
    split_text s;
    if (!split(t, &s)) return 0;
    // The components hold no more than the text, a '/' and five terminators.
    if (!reserve(uri, tn_uint64{tn_str_len(t)} + 1 + components)) return 0;
    if (store(uri, t, s)) return 1;
    tn_str_array_truncate(uri);
    return 0;
}

// ---- Escapes ----------------------------------------------------------------

// How one byte is written: the form escape turns a blank into "+", the
// file form escapes it like any other byte.
enum class blank { plus, escaped };

constexpr bool single(U c, blank b) { return safe_bytes.safe[c] || (b == blank::plus && c == ' '); }

U *put_escape(U *to, U c)
{
    to[0] = '%';
    to[1] = tn_uchar_uint8_to_hex(static_cast<tn_uint8>(c >> 4));
    to[2] = tn_uchar_uint8_to_hex(static_cast<tn_uint8>(c & 15));
    return to + 3;
}

template <class Map>
tn_uint32 put_escaped(U *to, const U *t, blank b, Map map)
{
    U *start = to;
    for (; *t; ++t) {
        U c = map(*t);
        if (!single(c, b)) to = put_escape(to, c);
        else *to++ = c == ' ' ? U{'+'} : c;
    }
    return static_cast<tn_uint32>(to - start);
}

// Measures first, so that the room taken is exactly the escaped length.
template <class Map>
bool cat_escaped(tn_uchar_array *out, const U *t, blank b, Map map)
{
    tn_uint32 length = 0, triples = 0;
    for (; t[length]; ++length) triples += !single(map(t[length]), b);
    if (triples > (0xFFFFFFFFu - length) / 2) {
        tn_array_fail(out);
        return false;
    }
    return cat_written(out, length + 2 * triples, [&](U *to) { return put_escaped(to, t, b, map); });
}

tn_uint8 hex(U c) { return tn_uchar_hex_to_uint8(c); }

// Decodes the n bytes at t into to and returns the count written. An escape
// that the end of the n bytes cuts short keeps its "%" when nothing follows
// it and takes a single digit as the high half.
tn_uint32 put_unescaped(U *to, const U *t, tn_uint32 n)
{
    U *start = to;
    for (tn_uint32 i = 0; i < n; ++i) {
        if (t[i] == '+') {
            *to++ = ' ';
        } else if (t[i] != '%' || i + 1 == n) {
            *to++ = t[i];
        } else if (i + 2 == n) {
            *to++ = static_cast<U>(hex(t[++i]) << 4);
        } else {
            *to++ = static_cast<U>(hex(t[i + 1]) << 4 | hex(t[i + 2]));
            i += 2;
        }
    }
    return static_cast<tn_uint32>(to - start);
}

tn_bool escape_into(const U *t, tn_uchar_array *out)
{
    tn_array_truncate(out);
    return !tn_array_failed(out) && cat_escaped(out, t, blank::plus, [](U c) { return c; });
}

tn_bool unescape_into(const U *t, tn_uchar_array *out)
{
    tn_array_truncate(out);
    tn_uint32 n = tn_str_len(t);
    return !tn_array_failed(out) && cat_written(out, n, [&](U *to) { return put_unescaped(to, t, n); });
}

// ---- Query ------------------------------------------------------------------

// A name or value is a string: it ends at the first byte of 0 it decodes to.
tn_uint32 put_decoded_string(U *to, const U *t, tn_uint32 n)
{
    tn_uint32 written = put_unescaped(to, t, n);
    for (tn_uint32 i = 0; i < written; ++i)
        if (!to[i]) return i;
    return written;
}

bool cat_decoded(tn_str_array *a, const U *t, tn_uint32 n)
{
    return cat_written(a, n, [&](U *to) { return put_decoded_string(to, t, n); });
}

tn_bool split_query(const U *q, tn_str_array *names, tn_str_array *values)
{
    bool emptied = tn_str_array_truncate(names) & tn_str_array_truncate(values);
    if (!emptied || !q) return 0;
    // Each pair takes an '=' and adds two terminators; decoding never grows.
    tn_uint32 length = tn_str_len(q), pairs = 0;
    for (tn_uint32 i = 0; i < length; ++i) pairs += q[i] == '=';
    if (!pairs) return 0;
    tn_uint64 most = tn_uint64{length} + (names == values ? 2 : 1) * tn_uint64{pairs};
    if (!reserve(names, most) || !reserve(values, most)) return 0;
    for (tn_uint32 at = 0;;) {
        tn_uint32 equals = find_from(q, at, '=');
        if (equals == length) return 0;
        tn_uint32 amp = find_from(q, equals + 1, '&');
        if (!cat_decoded(names, q + at, equals - at) || !cat_decoded(values, q + equals + 1, amp - equals - 1))
            return 0;
        if (amp == length) return 1;
        at = amp + 1;
    }
}

// ---- Resolve ----------------------------------------------------------------

struct prefix {
    tn_uint32 n;    // bytes of base in front of the reference
    bool add_slash; // a base without a third '/' gets one
};

// What of base goes in front of reference, or false where base has no colon
// with two '/' behind it and a character behind the second.
bool base_prefix(const U *base, const U *reference, prefix *p)
{
    if (!base) return false;
    tn_uint32 length = tn_str_len(base), colon = tn_str_chr(base, ':');
    if (colon == length) return false;
    tn_uint32 first = find_from(base, colon + 1, '/');
    if (first == length) return false;
    tn_uint32 second = find_from(base, first + 1, '/');
    if (second == length || !base[second + 1]) return false;
    tn_uint32 third = find_from(base, second + 1, '/');
    if (reference[0] == '/') *p = {third, false};
    else if (third == length) *p = {length, true};
    else *p = {tn_str_rchr(base, '/') + 1, false};
    return true;
}

bool is_absolute(const U *base, const U *reference)
{
    return is_letter(reference[0]) && (!base || reference[tn_str_chr(reference, ':')]);
}

tn_bool resolve_into(const U *base, const U *reference, tn_uchar_array *out)
{
    tn_array_truncate(out);
    if (tn_array_failed(out)) return 0;
    if (is_absolute(base, reference)) return tn_uchar_array_cats(out, reference);
    prefix p;
    if (!base_prefix(base, reference, &p)) return 0;
    tn_array_catn(out, base, p.n);
    if (p.add_slash) tn_uchar_array_cats(out, text("/"));
    tn_uchar_array_cats(out, reference);
    return !tn_array_failed(out);
}

// ---- Record and files -------------------------------------------------------

tn_bool to_string_into(const tn_uri *uri, tn_uchar_array *out)
{
    static constexpr const char *before[components] = {"", "", ":", "", "?"};
    static constexpr const char *behind[components] = {"://", "", "", "", ""};
    tn_array_truncate(out);
    for (tn_uint32 k = 0; k < components; ++k) {
        const U *c = tn_str_array_get_pos(uri, k);
        if (!c || !*c) continue;
        tn_uchar_array_cats(out, text(before[k]));
        tn_uchar_array_cats(out, c);
        tn_uchar_array_cats(out, text(behind[k]));
    }
    return !tn_array_failed(out);
}

tn_bool file_uri_into(const U *file_path, tn_uchar_array *out)
{
    tn_array_truncate(out);
    if (tn_array_failed(out)) return 0;
    const U separator = tn_file_separator();
    auto slashed = [separator](U c) { return c == separator ? U{'/'} : c; };
    // Only where the separator is '/' itself does the mapped path still
    // begin with the separator, and only then is it dropped.
    tn_uint32 start = slashed(file_path[0]) == separator;
    tn_uchar_array_cats(out, text("file:///"));
    return cat_escaped(out, file_path + start, blank::escaped, slashed) && !tn_array_failed(out);
}

void move_to_front(U *t, tn_uint32 from)
{
    tn_uint32 i = 0;
    do t[i] = t[from + i];
    while (t[i++]);
}

} // namespace

void tn_uri_init(tn_uri *uri) { tn_str_array_init(uri); }
tn_bool tn_uri_reset(tn_uri *uri) { return tn_str_array_truncate(uri); }

void tn_uri_free(tn_uri *uri)
{
    if (uri) tn_str_array_free(uri);
}

tn_bool tn_uri_parse(tn_uri *uri, const U *t)
{
    return into(uri, lies_in(uri, t), [t](tn_uri *to) { return parse_into(to, t); });
}

U *tn_uri_get_protocol(const tn_uri *uri) { return tn_str_array_get_pos(uri, protocol); }
U *tn_uri_get_host(const tn_uri *uri) { return tn_str_array_get_pos(uri, host); }
U *tn_uri_get_port(const tn_uri *uri) { return tn_str_array_get_pos(uri, port); }
U *tn_uri_get_path(const tn_uri *uri) { return tn_str_array_get_pos(uri, path); }
U *tn_uri_get_query(const tn_uri *uri) { return tn_str_array_get_pos(uri, query); }

tn_bool tn_uri_to_string(const tn_uri *uri, tn_uchar_array *output)
{
    return to_string_into(uri, output);
}

tn_bool tn_uri_resolve(const U *base, const U *reference, tn_uchar_array *output)
{
    if (!reference) return 0;
    bool aliased = (base && lies_in(output, base)) || lies_in(output, reference);
    return into(output, aliased, [=](tn_uchar_array *to) { return resolve_into(base, reference, to); });
}

tn_bool tn_uri_escape(const U *t, tn_uchar_array *output)
{
    if (!t) return 0;
    return into(output, lies_in(output, t), [t](tn_uchar_array *to) { return escape_into(t, to); });
}

tn_bool tn_uri_unescape(const U *t, tn_uchar_array *output)
{
    if (!t) return 0;
    return into(output, lies_in(output, t), [t](tn_uchar_array *to) { return unescape_into(t, to); });
}

tn_bool tn_uri_is_escaped(const U *t)
{
    if (!t) return 0;
    for (tn_uint32 digits = 0; *t; ++t) {
        if (*t == '%') digits = 1;
        else if (digits && is_digit(*t)) ++digits;
        else digits = 0;
        if (digits == 3) return 1;
    }
    return 0;
}

tn_bool tn_uri_should_escape(const U *t)
{
    if (!t || tn_uri_is_escaped(t)) return 0;
    for (; *t; ++t)
        if (!safe_bytes.safe[*t]) return 1;
    return 0;
}

tn_bool tn_uri_parse_query(const U *q, tn_str_array *names, tn_str_array *values)
{
    bool aliased = q && (lies_in(names, q) || lies_in(values, q));
    if (!aliased || tn_str_array_failed(names) || tn_str_array_failed(values)) return split_query(q, names, values);
    tn_str_array names_aside, values_aside;
    tn_str_array_init(&names_aside);
    tn_str_array_init(&values_aside);
    tn_bool ok = split_query(q, &names_aside, names == values ? &names_aside : &values_aside);
    take(names, &names_aside);
    if (names != values) take(values, &values_aside);
    return ok;
}

tn_bool tn_uri_parse_query2(const U *q, tn_str_array *pairs) { return tn_uri_parse_query(q, pairs, pairs); }

tn_bool tn_uri_path_to_file_uri(const U *file_path, tn_uchar_array *output)
{
    if (!file_path) return 0;
    return into(output, lies_in(output, file_path), [file_path](tn_uchar_array *to) { return file_uri_into(file_path, to); });
}

tn_bool tn_uri_trim_path_prefix(U *t)
{
    if (!t) return 0;
    if (t[0] == '/') return 1;
    tn_uint32 colon = tn_str_chr(t, ':');
    if (!authority_follows(t, colon)) return 0;
    tn_uint32 slash = find_from(t, colon + 3, '/');
    if (!t[slash]) {
        t[0] = '/';
        t[1] = 0;
        return 1;
    }
    move_to_front(t, slash);
    return 1;
}
