#include <tarnel_util/tn_fmt.h>

#include <bit>
#include <cstring>
#include <type_traits>

namespace {

constexpr tn_uint64 pow10[20] = {
    1ull, 10ull, 100ull, 1000ull, 10000ull, 100000ull, 1000000ull, 10000000ull, 100000000ull,
    1000000000ull, 10000000000ull, 100000000000ull, 1000000000000ull, 10000000000000ull,
    100000000000000ull, 1000000000000000ull, 10000000000000000ull, 100000000000000000ull,
    1000000000000000000ull, 10000000000000000000ull};

// "00" to "99": two digits per division halves the divisions.
constexpr struct Pairs {
    char c[200];
    constexpr Pairs() : c()
    {
        for (int i = 0; i < 100; ++i) {
            c[2 * i] = static_cast<char>('0' + i / 10);
            c[2 * i + 1] = static_cast<char>('0' + i % 10);
        }
    }
} pairs;

constexpr char hex_digits[] = "0123456789abcdef";

// Digit value of every ASCII character for the scans, 16 for "no digit".
constexpr struct HexValues {
    tn_uint8 v[128];
    constexpr HexValues() : v()
    {
        for (int c = 0; c < 128; ++c)
            v[c] = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10
                 : c >= 'A' && c <= 'F' ? c - 'A' + 10 : 16;
    }
} hex_values;

// log10 from the bit width, corrected by one comparison (1233 / 4096 is
// just above log10(2)).
template <class U>
tn_uint32 decimal_digits(U v)
{
    v |= 1;
    tn_uint32 t = (static_cast<tn_uint32>(std::bit_width(v)) * 1233) >> 12;
    return t + (v >= pow10[t]);
}

template <class U>
tn_uint32 hex_digit_count(U v)
{
    return (static_cast<tn_uint32>(std::bit_width(static_cast<U>(v | 1))) + 3) / 4;
}

template <class C, class U>
void put_decimal(C *end, U v)
{
    while (v >= 100) {
        unsigned r = static_cast<unsigned>(v % 100) * 2;
        v /= 100;
        end -= 2;
        end[0] = static_cast<C>(pairs.c[r]);
        end[1] = static_cast<C>(pairs.c[r + 1]);
    }
    if (v >= 10) {
        end[-2] = static_cast<C>(pairs.c[v * 2]);
        end[-1] = static_cast<C>(pairs.c[v * 2 + 1]);
    } else {
        end[-1] = static_cast<C>('0' + v);
    }
}

// Eight hexadecimal digits at once: each nibble spread to a byte, all
// turned to ASCII together, bytes swapped so the first digit comes first.
tn_uint64 hex8(tn_uint32 v)
{
    tn_uint64 x = v;
    x = (x | x << 16) & 0x0000FFFF0000FFFFull;
    x = (x | x << 8) & 0x00FF00FF00FF00FFull;
    x = (x | x << 4) & 0x0F0F0F0F0F0F0F0Full;
    const tn_uint64 letters = ((x + 0x0606060606060606ull) >> 4) & 0x0101010101010101ull;
    return __builtin_bswap64(x + 0x3030303030303030ull + letters * ('a' - '0' - 10));
}

// The last n (1 to 8) characters of an eight-character text, at p. A whole
// text goes in one eight-byte store; a shorter one byte by byte, since the
// caller's buffer may end right behind it.
void store_tail(tn_uchar *p, tn_uint64 text, tn_uint32 n)
{
    if (n == 8) {
        std::memcpy(p, &text, 8);
        return;
    }
    // The n characters to the low bytes, then out in pieces of four, two
    // and one: at most three stores, none past the text.
    tn_uint64 rest = text >> (8 * (8 - n));
    if (n & 4) {
        const auto four = static_cast<tn_uint32>(rest);
        std::memcpy(p, &four, 4);
        p += 4;
        rest >>= 32;
    }
    if (n & 2) {
        const auto two = static_cast<tn_uint16>(rest);
        std::memcpy(p, &two, 2);
        p += 2;
        rest >>= 16;
    }
    if (n & 1) *p = static_cast<tn_uchar>(rest);
}

// Narrow text whose fill and digits fit in the type's longest text comes
// from the whole zero-filled text, worked out eight digits at once; the rest
// digit by digit. Only the text's own bytes are written.
template <class C, class U>
bool put_hex_whole(C *b, U v, tn_uint32 body)
{
    if constexpr (sizeof(C) != 1) {
        return false;
    } else {
        if (body > 2 * sizeof(U) || sizeof(U) < 4) return false;
        const tn_uint64 low = hex8(static_cast<tn_uint32>(v));
        if (body <= 8) {
            store_tail(b, low, body);
        } else {
            store_tail(b, hex8(static_cast<tn_uint32>(static_cast<tn_uint64>(v) >> 32)), body - 8);
            store_tail(b + body - 8, low, 8);
        }
        return true;
    }
}

template <class C, class U>
void put_hex(C *end, U v, tn_uint32 digits)
{
    for (C *p = end - digits; digits;) *p++ = static_cast<C>(hex_digits[(v >> (4 * --digits)) & 15]);
}

// The shared shape of every integer format: sign, fill up to the width,
// digits; a null buffer only measures.
template <bool Hex, class C, class U>
tn_uint32 fmt_unsigned(C *b, U v, tn_uint32 width, bool negative)
{
    tn_uint32 digits = Hex ? hex_digit_count(v) : decimal_digits(v);
    tn_uint32 body = digits < width ? width : digits;
    if (!b) return body + negative;
    if (Hex && put_hex_whole(b, v, body)) return body;
    if (negative) *b++ = '-';
    for (tn_uint32 i = digits; i < body; ++i) *b++ = '0';
    if (Hex)
        put_hex(b + digits, v, digits);
    else
        put_decimal(b + digits, v);
    return body + negative;
}

template <class C, class S>
tn_uint32 fmt_signed(C *b, S v)
{
    using U = std::conditional_t<(sizeof(S) > 4), tn_uint64, tn_uint32>;
    U magnitude = v < 0 ? U(0) - static_cast<U>(v) : static_cast<U>(v);
    return fmt_unsigned<false>(b, magnitude, 0, v < 0);
}

template <class C, class U>
tn_uint32 dec(C *b, U v, tn_uint32 width = 0)
{
    return fmt_unsigned<false>(b, v, width, false);
}

template <class C, class U>
tn_uint32 hex(C *b, U v, tn_uint32 width = 0)
{
    return fmt_unsigned<true>(b, v, width, false);
}

// Digits of the radix into a wrapping accumulator; returns their count.
template <unsigned Radix, class C, class A>
tn_uint32 scan_digits(const C *s, A &acc)
{
    const C *p = s;
    for (;; ++p) {
        unsigned d;
        if (Radix == 10)
            d = static_cast<unsigned>(*p) - '0';
        else
            d = *p < 128 ? hex_values.v[*p] : 16;
        if (d >= Radix) break;
        acc = static_cast<A>(acc * Radix + d);
    }
    return static_cast<tn_uint32>(p - s);
}

template <unsigned Radix, class C, class T>
tn_uint32 scan_unsigned(const C *s, T *value)
{
    std::conditional_t<(sizeof(T) > 4), tn_uint64, tn_uint32> acc = 0;
    tn_uint32 n = scan_digits<Radix>(s, acc);
    *value = static_cast<T>(acc);
    return n;
}

enum class Empty { store_zero, keep };

template <Empty OnEmpty, class C, class T>
tn_uint32 scan_signed(const C *s, T *value)
{
    if (!*s) {
        if (OnEmpty == Empty::store_zero) *value = 0;
        return 0;
    }
    bool negative = *s == '-';
    tn_uint32 sign = negative || *s == '+';
    std::conditional_t<(sizeof(T) > 4), tn_uint64, tn_uint32> acc = 0;
    tn_uint32 n = sign + scan_digits<10>(s + sign, acc);
    if (negative) acc = 0 - acc;
    *value = static_cast<T>(acc);
    return n;
}

} // namespace

using U = tn_uchar;
using W = tn_wchar;

tn_uint32 tn_str_fmt_int8(U *b, tn_int8 v) { return fmt_signed(b, v); }
tn_uint32 tn_str_fmt_int16(U *b, tn_int16 v) { return fmt_signed(b, v); }
tn_uint32 tn_str_fmt_int(U *b, tn_int32 v) { return fmt_signed(b, v); }
tn_uint32 tn_str_fmt_int32(U *b, tn_int32 v) { return fmt_signed(b, v); }
tn_uint32 tn_str_fmt_int64(U *b, tn_int64 v) { return fmt_signed(b, v); }
tn_uint32 tn_str_fmt_uint(U *b, tn_uint32 v) { return dec(b, v); }
tn_uint32 tn_str_fmt_uint8(U *b, tn_uint8 v) { return dec(b, tn_uint32{v}); }
tn_uint32 tn_str_fmt_uint16(U *b, tn_uint16 v) { return dec(b, tn_uint32{v}); }
tn_uint32 tn_str_fmt_uint32(U *b, tn_uint32 v) { return dec(b, v); }
tn_uint32 tn_str_fmt_uint64(U *b, tn_uint64 v) { return dec(b, v); }
tn_uint32 tn_str_fmt_xint(U *b, tn_uint32 v) { return hex(b, v); }
tn_uint32 tn_str_fmt_xint8(U *b, tn_uint8 v) { return hex(b, v); }
tn_uint32 tn_str_fmt_xint16(U *b, tn_uint16 v) { return hex(b, v); }
tn_uint32 tn_str_fmt_xint32(U *b, tn_uint32 v) { return hex(b, v); }
tn_uint32 tn_str_fmt_xint64(U *b, tn_uint64 v) { return hex(b, v); }
tn_uint32 tn_str_fmt_0uint(U *b, tn_uint32 v, tn_uint32 w) { return dec(b, v, w); }
tn_uint32 tn_str_fmt_0uint8(U *b, tn_uint8 v, tn_uint32 w) { return dec(b, tn_uint32{v}, w); }
tn_uint32 tn_str_fmt_0uint16(U *b, tn_uint16 v, tn_uint32 w) { return dec(b, tn_uint32{v}, w); }
tn_uint32 tn_str_fmt_0uint32(U *b, tn_uint32 v, tn_uint32 w) { return dec(b, v, w); }
tn_uint32 tn_str_fmt_0uint64(U *b, tn_uint64 v, tn_uint32 w) { return dec(b, v, w); }
tn_uint32 tn_str_fmt_0xint(U *b, tn_uint32 v, tn_uint32 w) { return hex(b, v, w); }
tn_uint32 tn_str_fmt_0xint8(U *b, tn_uint8 v, tn_uint32 w) { return hex(b, v, w); }
tn_uint32 tn_str_fmt_0xint16(U *b, tn_uint16 v, tn_uint32 w) { return hex(b, v, w); }
tn_uint32 tn_str_fmt_0xint32(U *b, tn_uint32 v, tn_uint32 w) { return hex(b, v, w); }
tn_uint32 tn_str_fmt_0xint64(U *b, tn_uint64 v, tn_uint32 w) { return hex(b, v, w); }

tn_uint32 tn_str_fmt_bool(U *b, tn_bool v)
{
    *b = v ? '1' : '0';
    return 1;
}

tn_uint32 tn_wstr_fmt_int(W *b, tn_int32 v) { return fmt_signed(b, v); }
tn_uint32 tn_wstr_fmt_int16(W *b, tn_int16 v) { return fmt_signed(b, v); }
tn_uint32 tn_wstr_fmt_int32(W *b, tn_int32 v) { return fmt_signed(b, v); }
tn_uint32 tn_wstr_fmt_int64(W *b, tn_int64 v) { return fmt_signed(b, v); }
tn_uint32 tn_wstr_fmt_uint(W *b, tn_uint32 v) { return dec(b, v); }
tn_uint32 tn_wstr_fmt_uint16(W *b, tn_uint16 v) { return dec(b, tn_uint32{v}); }
tn_uint32 tn_wstr_fmt_uint32(W *b, tn_uint32 v) { return dec(b, v); }
tn_uint32 tn_wstr_fmt_uint64(W *b, tn_uint64 v) { return dec(b, v); }
tn_uint32 tn_wstr_fmt_xint(W *b, tn_uint32 v) { return hex(b, v); }
tn_uint32 tn_wstr_fmt_xint16(W *b, tn_uint16 v) { return hex(b, v); }
tn_uint32 tn_wstr_fmt_xint32(W *b, tn_uint32 v) { return hex(b, v); }
tn_uint32 tn_wstr_fmt_xint64(W *b, tn_uint64 v) { return hex(b, v); }
tn_uint32 tn_wstr_fmt_0uint(W *b, tn_uint32 v, tn_uint32 w) { return dec(b, v, w); }
tn_uint32 tn_wstr_fmt_0uint16(W *b, tn_uint16 v, tn_uint32 w) { return dec(b, tn_uint32{v}, w); }
tn_uint32 tn_wstr_fmt_0uint32(W *b, tn_uint32 v, tn_uint32 w) { return dec(b, v, w); }
tn_uint32 tn_wstr_fmt_0uint64(W *b, tn_uint64 v, tn_uint32 w) { return dec(b, v, w); }
tn_uint32 tn_wstr_fmt_0xint(W *b, tn_uint32 v, tn_uint32 w) { return hex(b, v, w); }
tn_uint32 tn_wstr_fmt_0xint16(W *b, tn_uint16 v, tn_uint32 w) { return hex(b, v, w); }
tn_uint32 tn_wstr_fmt_0xint32(W *b, tn_uint32 v, tn_uint32 w) { return hex(b, v, w); }
tn_uint32 tn_wstr_fmt_0xint64(W *b, tn_uint64 v, tn_uint32 w) { return hex(b, v, w); }

tn_uint32 tn_str_scan_bool(const U *s, tn_bool *v)
{
    tn_uint32 acc;
    tn_uint32 n = scan_unsigned<10>(s, &acc);
    *v = acc != 0;
    return n;
}

tn_uint32 tn_str_scan_int(const U *s, tn_int32 *v) { return scan_signed<Empty::keep>(s, v); }
tn_uint32 tn_str_scan_int8(const U *s, tn_int8 *v) { return scan_signed<Empty::store_zero>(s, v); }
tn_uint32 tn_str_scan_int16(const U *s, tn_int16 *v) { return scan_signed<Empty::store_zero>(s, v); }
tn_uint32 tn_str_scan_int32(const U *s, tn_int32 *v) { return scan_signed<Empty::store_zero>(s, v); }
tn_uint32 tn_str_scan_int64(const U *s, tn_int64 *v) { return scan_signed<Empty::keep>(s, v); }
tn_uint32 tn_str_scan_uint(const U *s, tn_uint32 *v) { return scan_unsigned<10>(s, v); }
tn_uint32 tn_str_scan_uint8(const U *s, tn_uint8 *v) { return scan_unsigned<10>(s, v); }
tn_uint32 tn_str_scan_uint16(const U *s, tn_uint16 *v) { return scan_unsigned<10>(s, v); }
tn_uint32 tn_str_scan_uint32(const U *s, tn_uint32 *v) { return scan_unsigned<10>(s, v); }
tn_uint32 tn_str_scan_uint64(const U *s, tn_uint64 *v) { return scan_unsigned<10>(s, v); }
tn_uint32 tn_str_scan_xint(const U *s, tn_uint32 *v) { return scan_unsigned<16>(s, v); }
tn_uint32 tn_str_scan_xint8(const U *s, tn_uint8 *v) { return scan_unsigned<16>(s, v); }
tn_uint32 tn_str_scan_xint16(const U *s, tn_uint16 *v) { return scan_unsigned<16>(s, v); }
tn_uint32 tn_str_scan_xint32(const U *s, tn_uint32 *v) { return scan_unsigned<16>(s, v); }
tn_uint32 tn_str_scan_xint64(const U *s, tn_uint64 *v) { return scan_unsigned<16>(s, v); }

tn_uint32 tn_wstr_scan_int(const W *s, tn_int32 *v) { return scan_signed<Empty::keep>(s, v); }
tn_uint32 tn_wstr_scan_int16(const W *s, tn_int16 *v) { return scan_signed<Empty::store_zero>(s, v); }
tn_uint32 tn_wstr_scan_int32(const W *s, tn_int32 *v) { return scan_signed<Empty::store_zero>(s, v); }
tn_uint32 tn_wstr_scan_int64(const W *s, tn_int64 *v) { return scan_signed<Empty::keep>(s, v); }
tn_uint32 tn_wstr_scan_uint(const W *s, tn_uint32 *v) { return scan_unsigned<10>(s, v); }
tn_uint32 tn_wstr_scan_uint16(const W *s, tn_uint16 *v) { return scan_unsigned<10>(s, v); }
tn_uint32 tn_wstr_scan_uint32(const W *s, tn_uint32 *v) { return scan_unsigned<10>(s, v); }
tn_uint32 tn_wstr_scan_uint64(const W *s, tn_uint64 *v) { return scan_unsigned<10>(s, v); }
tn_uint32 tn_wstr_scan_xint(const W *s, tn_uint32 *v) { return scan_unsigned<16>(s, v); }
tn_uint32 tn_wstr_scan_xint16(const W *s, tn_uint16 *v) { return scan_unsigned<16>(s, v); }
tn_uint32 tn_wstr_scan_xint32(const W *s, tn_uint32 *v) { return scan_unsigned<16>(s, v); }
tn_uint32 tn_wstr_scan_xint64(const W *s, tn_uint64 *v) { return scan_unsigned<16>(s, v); }
