#include <tarnel_util/tn_utf8.h>

#include <array>

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

} // namespace

tn_bool tn_utf8_to_wcs(const tn_uchar *source, tn_uint32 *source_length, tn_wchar *destination,
                       tn_uint32 capacity, tn_uint32 *count)
{
    tn_uint32 n = 0, left = *source_length;
    while (left) {
        tn_wchar c;
        tn_uint32 used;
        step r = decode(source, left, &c, &used);
        if (r == step::illegal) {
            *source_length = left;
            return 0;
        }
        if (r == step::incomplete || (destination && n == capacity)) break;
        if (destination) destination[n] = c;
        ++n;
        source += used;
        left -= used;
    }
    *source_length = left;
    *count = n;
    return 1;
}

tn_bool tn_utf8_cat_to_wcs(const tn_uchar *source, tn_uint32 length, tn_wchar_array *array)
{
    while (length) {
        tn_wchar c;
        tn_uint32 used;
        step r = decode(source, length, &c, &used);
        if (r == step::illegal) return 0;
        if (r == step::incomplete) return 1;
        if (!tn_wchar_array_cato(array, c)) return 0;
        source += used;
        length -= used;
    }
    return 1;
}

tn_bool tn_utf8_from_wcs(const tn_wchar *source, tn_uint32 *source_length, tn_uchar *destination,
                         tn_uint32 capacity, tn_uint32 *byte_count)
{
    tn_uint32 bytes = 0;
    while (*source_length && *source) {
        tn_uchar encoded[3];
        tn_uint32 size = encode(*source, encoded);
        if (destination && bytes + size >= capacity) break;
        if (destination)
            for (tn_uint32 i = 0; i < size; ++i) destination[bytes + i] = encoded[i];
        bytes += size;
        ++source;
        --*source_length;
    }
    *byte_count = bytes;
    return 1;
}

tn_bool tn_utf8_cat_from_wcs(const tn_wchar *source, tn_uint32 length, tn_uchar_array *array)
{
    for (; length && *source; --length, ++source) {
        tn_uchar encoded[3];
        if (!tn_array_catn(array, encoded, encode(*source, encoded))) return 0;
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
