#include <tarnel_util/tn_pack.h>
#include <gtest/gtest.h>
#include <algorithm>
#include <cstring>
#include <random>

namespace {
// Packs at every offset from 0 to 8 and compares with the value's bytes on this little-endian host (reversed
// for the big forms), then unpacks; the bytes around the value stay. Float bit patterns move unchanged: a NaN
// with a payload, a negative zero and signalling NaNs among them, which a conversion would alter.
template <class T>
void check(void (*pack)(tn_uchar *, T), void (*unpack)(const tn_uchar *, T *), bool big, const char *name)
{
    const tn_uint64 special[] = {0x7FC12345u, 0x8000000000000000u, 0x7FF0000000000001u, 0x7F800001u,
                                 0x0102030405060708u};
    std::mt19937_64 rng(7);
    for (int i = 0; i < 500; ++i) {
        const tn_uint64 bits = i < 5 ? special[i] : rng();
        T v, got;
        std::memcpy(&v, &bits, sizeof v);
        tn_uchar buf[24], want[24];
        const unsigned off = i % 9;
        std::memset(buf, 0xEE, sizeof buf);
        std::memset(want, 0xEE, sizeof want);
        std::memcpy(want + off, &v, sizeof v);
        if (big) std::reverse(want + off, want + off + sizeof v);
        pack(buf + off, v);
        unpack(buf + off, &got);
        ASSERT_EQ(std::memcmp(buf, want, sizeof buf), 0) << name << " of " << std::hex << bits << " at " << off;
        ASSERT_EQ(std::memcmp(&got, &v, sizeof v), 0) << name << " back of " << std::hex << bits << " at " << off;
    }
}

TEST(Pack, EveryFormWritesItsByteOrderAtAnyAlignmentAndReadsItBack)
{
#define BOTH(f, T)                                     \
    check<T>(tn_##f##_pack, tn_##f##_unpack, 0, #f); \
    check<T>(tn_##f##_pack_big, tn_##f##_unpack_big, 1, #f "_big")
    BOTH(uint16, tn_uint16);
    BOTH(uint32, tn_uint32);
    BOTH(uint64, tn_uint64);
    BOTH(float32, float);
    BOTH(float64, double);
#undef BOTH
    tn_uchar b[4];
    tn_uint32_pack_big(b, 0xDEADBEEF); // one literal, in case the host is not what the model assumes
    EXPECT_EQ(0, std::memcmp(b, "\xDE\xAD\xBE\xEF", 4));
    EXPECT_EQ(tn_endian_is_little(), 1);
    EXPECT_EQ(tn_endian_is_big(), 0);
    EXPECT_EQ(tn_endian_get(), 1);
}
} // namespace
