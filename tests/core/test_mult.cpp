// Checked multiplication against the exact product in 128 bits.
#include <tarnel_util/tn_mult.h>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <vector>

namespace {
__extension__ typedef __int128 wide;
__extension__ typedef unsigned __int128 uwide;

// All pairs of boundary factors (0 to 3, powers of two and the limits, their neighbours and negatives), then
// random factors of random bit lengths, so that products land on both sides of the limits.
template <class T>
void sweep(tn_bool (*mult)(T, T, T *))
{
    using L = std::numeric_limits<T>;
    std::vector<wide> w = {0, 1, 2, 3, wide(L::max()), wide(L::max()) - 1, wide(L::min()), wide(L::min()) + 1};
    for (int k = 1; k < L::digits; ++k) w.insert(w.end(), {(wide(1) << k) - 1, wide(1) << k, (wide(1) << k) + 1});
    for (size_t i = 0, n = w.size(); i < n && L::is_signed; ++i) w.push_back(-w[i]);
    std::erase_if(w, [](wide x) { return x < L::min() || x > L::max(); });
    std::vector<std::pair<T, T>> pairs;
    for (wide a : w)
        for (wide b : w) pairs.push_back({T(a), T(b)});
    std::mt19937_64 rng(sizeof(T) * 2 + L::is_signed);
    auto pick = [&] { return static_cast<T>(rng() >> (64 - sizeof(T) * 8 + rng() % (sizeof(T) * 8))); };
    for (int i = 0; i < 200000; ++i) pairs.push_back({pick(), pick()});
    for (auto [a, b] : pairs) {
        const uwide p = uwide(a) * uwide(b); // exact when unsigned, the right low bits when signed
        const bool fits = L::is_signed ? wide(a) * b >= L::min() && wide(a) * b <= L::max() : p <= uwide(L::max());
        T out = static_cast<T>(0x5A5A5A5A5A5A5A5Aull);
        ASSERT_EQ(mult(a, b, &out), fits ? 1 : 0) << +a << " * " << +b;
        ASSERT_EQ(out, static_cast<T>(fits ? p : 0x5A5A5A5A5A5A5A5Aull)) << "out of " << +a << " * " << +b;
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
} // namespace
