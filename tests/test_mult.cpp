// Checked multiplication against the exact product in 128 bits.
#include <tarnel_util/tn_mult.h>

#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <type_traits>
#include <vector>

namespace {

__extension__ typedef __int128 wide;
__extension__ typedef unsigned __int128 uwide;

template <class T>
using Mult = tn_bool (*)(T, T, T *);

// 0, 1, 2, 3, every power of two with its neighbours, the limits and their
// neighbours, and for signed types the negatives of all of these.
template <class T>
std::vector<T> boundary_values()
{
    using L = std::numeric_limits<T>;
    std::vector<wide> w = {0, 1, 2, 3, wide(L::max()), wide(L::max()) - 1, wide(L::min()),
                           wide(L::min()) + 1};
    for (int k = 1; k < L::digits; ++k) {
        wide p = wide(1) << k;
        w.insert(w.end(), {p - 1, p, p + 1});
    }
    if (L::is_signed)
        for (size_t i = 0, n = w.size(); i < n; ++i) w.push_back(-w[i]);
    std::vector<T> out;
    for (wide x : w)
        if (x >= wide(L::min()) && x <= wide(L::max())) out.push_back(static_cast<T>(x));
    return out;
}

template <class T>
void check(Mult<T> mult, T a, T b)
{
    using L = std::numeric_limits<T>;
    bool fits;
    T exact;
    if constexpr (L::is_signed) {
        wide p = wide(a) * wide(b);
        fits = p >= wide(L::min()) && p <= wide(L::max());
        exact = static_cast<T>(p);
    } else {
        uwide p = uwide(a) * uwide(b);
        fits = p <= uwide(L::max());
        exact = static_cast<T>(p);
    }
    const T sentinel = static_cast<T>(0x5A5A5A5A5A5A5A5Aull);
    T out = sentinel;
    tn_bool r = mult(a, b, &out);
    ASSERT_EQ(r, fits ? 1 : 0) << +a << " * " << +b;
    ASSERT_EQ(out, fits ? exact : sentinel) << +a << " * " << +b;
}

template <class T>
void sweep(Mult<T> mult)
{
    const std::vector<T> edges = boundary_values<T>();
    for (T a : edges)
        for (T b : edges) ASSERT_NO_FATAL_FAILURE(check(mult, a, b));
    // Random factors of random bit lengths, so products land on both sides.
    std::mt19937_64 rng(sizeof(T) * 2 + std::is_signed_v<T>);
    for (int i = 0; i < 200000; ++i) {
        auto pick = [&] {
            int bits = static_cast<int>(rng() % (sizeof(T) * 8 + 1));
            tn_uint64 v = bits == 64 ? rng() : rng() & ((tn_uint64(1) << bits) - 1);
            return static_cast<T>(v);
        };
        ASSERT_NO_FATAL_FAILURE(check(mult, pick(), pick()));
    }
}

TEST(Mult, AgainstTheExactProduct)
{
    sweep<tn_int16>(tn_int16_mult);
    sweep<tn_int32>(tn_int32_mult);
    sweep<tn_int64>(tn_int64_mult);
    sweep<tn_uint16>(tn_uint16_mult);
    sweep<tn_uint32>(tn_uint32_mult);
    sweep<tn_uint64>(tn_uint64_mult);
}

TEST(Mult, NamedEdges)
{
    tn_uint32 u32 = 7;
    EXPECT_FALSE(tn_uint32_mult(65536, 65536, &u32));
    EXPECT_EQ(u32, 7u);
    EXPECT_TRUE(tn_uint32_mult(65535, 65535, &u32));
    EXPECT_EQ(u32, 4294836225u);
    tn_int64 i64 = 7;
    EXPECT_TRUE(tn_int64_mult(-(tn_int64(1) << 62), 2, &i64));
    EXPECT_EQ(i64, std::numeric_limits<tn_int64>::min());
    i64 = 7;
    EXPECT_FALSE(tn_int64_mult(tn_int64(1) << 62, 2, &i64));
    EXPECT_EQ(i64, 7);
    tn_int16 i16 = 7;
    EXPECT_FALSE(tn_int16_mult(-32768, -1, &i16));
    EXPECT_EQ(i16, 7);
    // The cross product fits in 32 bits; only the final addition carries out.
    tn_uint64 u64 = 7;
    EXPECT_FALSE(tn_uint64_mult((tn_uint64(1) << 33) - 1, (tn_uint64(1) << 32) - 1, &u64));
    EXPECT_EQ(u64, 7u);
}

} // namespace
