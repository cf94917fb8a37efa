#include <tarnel_util/tn_utf8.h>

#include <array>
#include <cstring>

#include "core/within.h"

namespace {

// Sequence length by lead byte, legal or not.
constexpr std::array<tn_uint8, 256> lengths = [] {
    std::array<tn_uint8, 256> t{};
    for (int b = 0; b < 256; ++b)
        t[b] = b < 0xC0 ? 1 : b < 0xE0 ? 2 : b < 0xF0 ? 3 : b < 0xF8 ? 4 : b < 0xFC ? 5 : 6;
    return t;
}();

constexpr bool continuation(tn_uchar b) { return b >= 0x80 && b <= 0xBF; }

// s holds at least L = lengths[s[0]] bytes.
bool legal(const tn_uchar *s, tn_uint32 L)
{
    tn_uchar lead = s[0];
    if (L > 4 || (lead >= 0x80 && lead <= 0xC1) || lead > 0xF4) return false;
    if (L == 4 && !continuation(s[3])) return false;
    if (L >= 3 && !continuation(s[2])) return false;
    if (L >= 2) {
        tn_uchar lo = 0x80, hi = 0xBF;
        if (lead == 0xE0) lo = 0xA0;
        else if (lead == 0xF0) lo = 0x90;
        else if (lead == 0xF4) hi = 0x8F;
        if (s[1] < lo || s[1] > hi) return false;
    }
    return true;
}

enum class step { done, incomplete, illegal };

// One character from r bytes: its value and the bytes it takes.
step decode(const tn_uchar *s, tn_uint32 r, tn_wchar *out, tn_uint32 *used)
{
    tn_uint32 L = lengths[s[0]];
    if (r < L) return step::incomplete; // checked first: even an illegal lead at the end
    if (!legal(s, L)) return step::illegal;
    tn_uint32 v;
    switch (L) {
    case 1: v = s[0]; break;
    case 2: v = (s[0] & 0x1Fu) << 6 | (s[1] & 0x3Fu); break;
    case 3: v = (s[0] & 0x0Fu) << 12 | (s[1] & 0x3Fu) << 6 | (s[2] & 0x3Fu); break;
    default: v = 0xFFFD; break; // beyond 16 bits
    }
    *out = static_cast<tn_wchar>(v);
    *used = L;
    return step::done;
}

tn_uint32 encode(tn_wchar c, tn_uchar *out)
{
    if (c < 0x80) {
        out[0] = static_cast<tn_uchar>(c);
        return 1;
    }
    if (c < 0x800) {
        out[0] = static_cast<tn_uchar>(0xC0 | c >> 6);
        out[1] = static_cast<tn_uchar>(0x80 | (c & 0x3F));
        return 2;
    }
    out[0] = static_cast<tn_uchar>(0xE0 | c >> 12);
    out[1] = static_cast<tn_uchar>(0x80 | (c >> 6 & 0x3F));
    out[2] = static_cast<tn_uchar>(0x80 | (c & 0x3F));
    return 3;
}

constexpr tn_uint64 high_bits = 0x8080808080808080ull;

// Decodes into out, room characters at most (out null only counts), until
// the input ends, a sequence is incomplete or illegal, or the room is full;
// the sequence behind a full room is still judged, so an illegal one fails.
// Eight ASCII bytes at a time while both sides have room for them.
struct Run {
    tn_uint32 count;
    step end; // done: input used up or room full
};

Run decode_run(const tn_uchar *&s, tn_uint32 &left, tn_wchar *out, tn_uint32 room)
{
    tn_uint32 n = 0;
    while (left) {
        tn_uint64 word;
        if (left >= 8 && room - n >= 8 && (std::memcpy(&word, s, 8), !(word & high_bits))) {
            if (out)
                for (int i = 0; i < 8; ++i) out[n + i] = s[i];
            n += 8, s += 8, left -= 8;
            continue;
        }
        tn_wchar c;
        tn_uint32 used;
        step r = decode(s, left, &c, &used);
        if (r != step::done) return {n, r};
        if (n == room) break;
        if (out) out[n] = c;
        ++n, s += used, left -= used;
    }
    return {n, step::done};
}

// Encodes until the input ends, meets a 0 unit, or the next character would
// not fit in room bytes. Returns the bytes written.
tn_uint32 encode_run(const tn_wchar *&s, tn_uint32 &left, tn_uchar *out, tn_uint32 room)
{
    tn_uint32 n = 0;
    while (left && *s) {
        if (*s < 0x80) {
            if (n == room) break;
            out[n++] = static_cast<tn_uchar>(*s);
        } else {
            tn_uchar encoded[3];
            tn_uint32 size = encode(*s, encoded);
            if (room - n < size) break;
            for (tn_uint32 i = 0; i < size; ++i) out[n + i] = encoded[i];
            n += size;
        }
        ++s, --left;
    }
    return n;
}

// Bytes of the UTF-8 form up to the end, a 0 unit, or the character that
// would take the count past 32 bits: that one stays in left, as a character
// that does not fit a destination does. At three bytes a unit the limit
// comes after some 1.4 G units, well within a 32-bit source length.
tn_uint32 measure(const tn_wchar *s, tn_uint32 *left)
{
    const tn_uint32 n = *left;
    tn_uint64 bytes = 0;
    tn_uint32 i = 0;
    for (; i < n && s[i]; ++i) {
        const tn_uint32 size = s[i] < 0x80 ? 1 : s[i] < 0x800 ? 2 : 3;
        if (bytes + size > 0xFFFFFFFFu) break;
        bytes += size;
    }
    *left = n - i;
    return static_cast<tn_uint32>(bytes);
}

} // namespace

tn_bool tn_utf8_to_wcs(const tn_uchar *source, tn_uint32 *source_length, tn_wchar *destination,
                       tn_uint32 capacity, tn_uint32 *count)
{
    tn_uint32 left = *source_length;
    Run r = decode_run(source, left, destination, destination ? capacity : ~tn_uint32{0});
    *source_length = left;
    if (r.end == step::illegal) return 0;
    *count = r.count;
    return 1;
}

// The appends decode straight into the array while its capacity lasts and
// let the array's own append take the character that needs more room, so
// the array grows exactly as with one append per character. The source is
// found afresh after each such append, which may have moved it with the
// array's storage.
tn_bool tn_utf8_cat_to_wcs(const tn_uchar *source, tn_uint32 length, tn_wchar_array *array)
{
    const tn::anchor from = tn::anchor_in(array, source);
    const tn_uint32 total = length;
    while (length) {
        source = from.at() + (total - length);
        if (array->element_size == sizeof(tn_wchar) && !array->failed) {
            auto *end = reinterpret_cast<tn_wchar *>(array->data + array->length);
            Run r = decode_run(source, length, end, (array->capacity - array->length) / sizeof(tn_wchar));
            array->length += r.count * static_cast<tn_uint32>(sizeof(tn_wchar));
            if (r.end != step::done) return r.end == step::incomplete;
            if (!length) break;
        }
        tn_wchar c;
        tn_uint32 used;
        step r = decode(source, length, &c, &used);
        if (r != step::done) return r == step::incomplete;
        if (!tn_wchar_array_cato(array, c)) return 0;
        length -= used;
    }
    return 1;
}

tn_bool tn_utf8_from_wcs(const tn_wchar *source, tn_uint32 *source_length, tn_uchar *destination,
                         tn_uint32 capacity, tn_uint32 *byte_count)
{
    if (destination) {
        // One byte stays free for the caller's terminator.
        *byte_count = capacity ? encode_run(source, *source_length, destination, capacity - 1) : 0;
        return 1;
    }
    *byte_count = measure(source, source_length);
    return 1;
}

tn_bool tn_utf8_cat_from_wcs(const tn_wchar *source, tn_uint32 length, tn_uchar_array *array)
{
    const tn::anchor from = tn::anchor_in(array, source);
    const tn_uint32 total = length;
    while (length) {
        // Found afresh: the append below may have moved an array that holds the source.
        source = reinterpret_cast<const tn_wchar *>(from.at()) + (total - length);
        if (!*source) break;
        if (array->element_size == 1 && !array->failed) {
            array->length += encode_run(source, length, array->data + array->length, array->capacity - array->length);
            if (!length || !*source) break;
        }
        tn_uchar encoded[3];
        if (!tn_array_catn(array, encoded, encode(*source, encoded))) return 0;
        --length;
    }
    return 1;
}

tn_bool tn_utf8_get_char_size(const tn_uchar *bytes, tn_uint32 available, tn_uint32 *size)
{
    if (!available) return 0;
    tn_uint32 L = lengths[bytes[0]];
    if (available < L || !legal(bytes, L)) return 0;
    *size = L;
    return 1;
}

tn_bool tn_utf8_get_str_len(const tn_uchar *bytes, tn_uint32 length, tn_uint32 *count)
{
    *count = 0;
    while (length) {
        tn_uint32 L = lengths[bytes[0]];
        if (length < L || !legal(bytes, L)) return 0;
        ++*count;
        bytes += L;
        length -= L;
    }
    return 1;
}
