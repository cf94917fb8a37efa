#include <tarnel_util/tn_pack.h>

#include <gtest/gtest.h>

#include <cstring>
#include <random>

TEST(Pack, KnownByteOrders)
{
    tn_uchar b[8];
    tn_uint16_pack_big(b, 258);
    EXPECT_EQ(b[0], 0x01);
    EXPECT_EQ(b[1], 0x02);
    tn_uint16_pack(b, 258);
    EXPECT_EQ(b[0], 0x02);
    EXPECT_EQ(b[1], 0x01);
    tn_float32_pack_big(b, 1.0f);
    EXPECT_EQ(0, std::memcmp(b, "\x3F\x80\x00\x00", 4));
    tn_uint64_pack_big(b, 0x0102030405060708ull);
    EXPECT_EQ(0, std::memcmp(b, "\x01\x02\x03\x04\x05\x06\x07\x08", 8));
    tn_uint64_pack(b, 0x0102030405060708ull);
    EXPECT_EQ(0, std::memcmp(b, "\x08\x07\x06\x05\x04\x03\x02\x01", 8));
    tn_uint32_pack_big(b, 0xDEADBEEF);
    EXPECT_EQ(0, std::memcmp(b, "\xDE\xAD\xBE\xEF", 4));
}

TEST(Pack, RoundTripsAtEveryAlignment)
{
    std::mt19937_64 rng(7);
    tn_uchar buf[24];
    for (int i = 0; i < 2000; ++i) {
        tn_uint64 v = rng();
        unsigned off = static_cast<unsigned>(i % 9);
        tn_uint16 o16;
        tn_uint32 o32;
        tn_uint64 o64;
        tn_uint16_pack(buf + off, static_cast<tn_uint16>(v));
        tn_uint16_unpack(buf + off, &o16);
        ASSERT_EQ(o16, static_cast<tn_uint16>(v));
        tn_uint16_pack_big(buf + off, static_cast<tn_uint16>(v));
        tn_uint16_unpack_big(buf + off, &o16);
        ASSERT_EQ(o16, static_cast<tn_uint16>(v));
        tn_uint32_pack(buf + off, static_cast<tn_uint32>(v));
        tn_uint32_unpack(buf + off, &o32);
        ASSERT_EQ(o32, static_cast<tn_uint32>(v));
        tn_uint32_pack_big(buf + off, static_cast<tn_uint32>(v));
        tn_uint32_unpack_big(buf + off, &o32);
        ASSERT_EQ(o32, static_cast<tn_uint32>(v));
        tn_uint64_pack(buf + off, v);
        tn_uint64_unpack(buf + off, &o64);
        ASSERT_EQ(o64, v);
        tn_uint64_pack_big(buf + off, v);
        tn_uint64_unpack_big(buf + off, &o64);
        ASSERT_EQ(o64, v);
        // Big-endian bytes are the little-endian bytes reversed.
        tn_uchar le[8], be[8];
        tn_uint64_pack(le, v);
        tn_uint64_pack_big(be, v);
        for (int k = 0; k < 8; ++k) ASSERT_EQ(le[k], be[7 - k]);
    }
}

TEST(Pack, FloatsMoveTheirBitsUnchanged)
{
    // A NaN payload and a negative zero survive: no conversion happens.
    tn_uint32 nan_bits = 0x7FC12345u;
    float f;
    std::memcpy(&f, &nan_bits, 4);
    tn_uchar b[8];
    float g;
    tn_float32_pack(b, f);
    tn_float32_unpack(b, &g);
    EXPECT_EQ(0, std::memcmp(&f, &g, 4));
    tn_float32_pack_big(b, f);
    EXPECT_EQ(0, std::memcmp(b, "\x7F\xC1\x23\x45", 4));
    tn_float32_unpack_big(b, &g);
    EXPECT_EQ(0, std::memcmp(&f, &g, 4));

    double d = -0.0, e;
    tn_float64_pack_big(b, d);
    EXPECT_EQ(0, std::memcmp(b, "\x80\x00\x00\x00\x00\x00\x00\x00", 8));
    tn_float64_unpack_big(b, &e);
    EXPECT_TRUE(std::signbit(e));
    tn_float64_pack(b, 1.5);
    tn_float64_unpack(b, &e);
    EXPECT_EQ(e, 1.5);
}

TEST(Endian, LittleOnThisTarget)
{
    EXPECT_EQ(tn_endian_is_little(), 1);
    EXPECT_EQ(tn_endian_is_big(), 0);
    EXPECT_EQ(tn_endian_get(), 1);
}
