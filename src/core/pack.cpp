#include <tarnel_util/tn_pack.h>

#include <cstring>

namespace {

// Values are built and taken apart with shifts, one byte at a time, so the
// host's byte order and the buffer's alignment never matter. The compiler
// turns these loops into single loads and stores where it can.
template <class T>
void pack_le(tn_uchar *d, T v)
{
    for (unsigned i = 0; i < sizeof(T); ++i) d[i] = static_cast<tn_uchar>(v >> (8 * i));
}

template <class T>
void pack_be(tn_uchar *d, T v)
{
    for (unsigned i = 0; i < sizeof(T); ++i)
        d[sizeof(T) - 1 - i] = static_cast<tn_uchar>(v >> (8 * i));
}

template <class T>
T unpack_le(const tn_uchar *s)
{
    T v = 0;
    for (unsigned i = 0; i < sizeof(T); ++i) v = static_cast<T>(v | static_cast<T>(s[i]) << (8 * i));
    return v;
}

template <class T>
T unpack_be(const tn_uchar *s)
{
    T v = 0;
    for (unsigned i = 0; i < sizeof(T); ++i) v = static_cast<T>(v << 8 | s[i]);
    return v;
}

// A float moves as the integer of its width holding the same bits.
template <class U, class F>
U bits_of(F f)
{
    static_assert(sizeof(U) == sizeof(F));
    U u;
    std::memcpy(&u, &f, sizeof u);
    return u;
}

template <class F, class U>
F float_of(U u)
{
    static_assert(sizeof(U) == sizeof(F));
    F f;
    std::memcpy(&f, &u, sizeof f);
    return f;
}

} // namespace

void tn_uint16_pack(tn_uchar *d, tn_uint16 v) { pack_le(d, v); }
void tn_uint16_pack_big(tn_uchar *d, tn_uint16 v) { pack_be(d, v); }
void tn_uint16_unpack(const tn_uchar *s, tn_uint16 *out) { *out = unpack_le<tn_uint16>(s); }
void tn_uint16_unpack_big(const tn_uchar *s, tn_uint16 *out) { *out = unpack_be<tn_uint16>(s); }

void tn_uint32_pack(tn_uchar *d, tn_uint32 v) { pack_le(d, v); }
void tn_uint32_pack_big(tn_uchar *d, tn_uint32 v) { pack_be(d, v); }
void tn_uint32_unpack(const tn_uchar *s, tn_uint32 *out) { *out = unpack_le<tn_uint32>(s); }
void tn_uint32_unpack_big(const tn_uchar *s, tn_uint32 *out) { *out = unpack_be<tn_uint32>(s); }

void tn_uint64_pack(tn_uchar *d, tn_uint64 v) { pack_le(d, v); }
void tn_uint64_pack_big(tn_uchar *d, tn_uint64 v) { pack_be(d, v); }
void tn_uint64_unpack(const tn_uchar *s, tn_uint64 *out) { *out = unpack_le<tn_uint64>(s); }
void tn_uint64_unpack_big(const tn_uchar *s, tn_uint64 *out) { *out = unpack_be<tn_uint64>(s); }

void tn_float32_pack(tn_uchar *d, float v) { pack_le(d, bits_of<tn_uint32>(v)); }
void tn_float32_pack_big(tn_uchar *d, float v) { pack_be(d, bits_of<tn_uint32>(v)); }
void tn_float32_unpack(const tn_uchar *s, float *out) { *out = float_of<float>(unpack_le<tn_uint32>(s)); }
void tn_float32_unpack_big(const tn_uchar *s, float *out) { *out = float_of<float>(unpack_be<tn_uint32>(s)); }

void tn_float64_pack(tn_uchar *d, double v) { pack_le(d, bits_of<tn_uint64>(v)); }
void tn_float64_pack_big(tn_uchar *d, double v) { pack_be(d, bits_of<tn_uint64>(v)); }
void tn_float64_unpack(const tn_uchar *s, double *out) { *out = float_of<double>(unpack_le<tn_uint64>(s)); }
void tn_float64_unpack_big(const tn_uchar *s, double *out) { *out = float_of<double>(unpack_be<tn_uint64>(s)); }

tn_bool tn_endian_is_little(void) { return __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__; }
tn_bool tn_endian_is_big(void) { return __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__; }
tn_bool tn_endian_get(void) { return tn_endian_is_little(); }
