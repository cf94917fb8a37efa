#include <tarnel_util/tn_fmt.h>

#include <gtest/gtest.h>

#include <cfloat>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace {

using u64 = tn_uint64;
constexpr tn_uchar canary = 0xA5;

// Every integer format behind one shape: the value as raw bits, a width.
using NarrowFmt = tn_uint32 (*)(tn_uchar *, u64, tn_uint32);
using WideFmt = tn_uint32 (*)(tn_wchar *, u64, tn_uint32);

struct IntFormat {
    const char *name;
    int bits;
    char kind; // 'd' signed, 'u' unsigned, 'x' hexadecimal
    bool filled;
    NarrowFmt narrow;
    WideFmt wide; // null where there is no wide form
};

#define FMT(f, T) +[](tn_uchar *b, u64 v, tn_uint32) { return f(b, static_cast<T>(v)); }
#define WFMT(f, T) +[](tn_wchar *b, u64 v, tn_uint32) { return f(b, static_cast<T>(v)); }
#define ZFMT(f, T) +[](tn_uchar *b, u64 v, tn_uint32 w) { return f(b, static_cast<T>(v), w); }
#define WZFMT(f, T) +[](tn_wchar *b, u64 v, tn_uint32 w) { return f(b, static_cast<T>(v), w); }

const IntFormat int_formats[] = {
    {"int8", 8, 'd', false, FMT(tn_str_fmt_int8, tn_int8), nullptr},
    {"int16", 16, 'd', false, FMT(tn_str_fmt_int16, tn_int16), WFMT(tn_wstr_fmt_int16, tn_int16)},
    {"int", 32, 'd', false, FMT(tn_str_fmt_int, tn_int32), WFMT(tn_wstr_fmt_int, tn_int32)},
    {"int32", 32, 'd', false, FMT(tn_str_fmt_int32, tn_int32), WFMT(tn_wstr_fmt_int32, tn_int32)},
    {"int64", 64, 'd', false, FMT(tn_str_fmt_int64, tn_int64), WFMT(tn_wstr_fmt_int64, tn_int64)},
    {"uint8", 8, 'u', false, FMT(tn_str_fmt_uint8, tn_uint8), nullptr},
    {"uint16", 16, 'u', false, FMT(tn_str_fmt_uint16, tn_uint16), WFMT(tn_wstr_fmt_uint16, tn_uint16)},
    {"uint", 32, 'u', false, FMT(tn_str_fmt_uint, tn_uint32), WFMT(tn_wstr_fmt_uint, tn_uint32)},
    {"uint32", 32, 'u', false, FMT(tn_str_fmt_uint32, tn_uint32), WFMT(tn_wstr_fmt_uint32, tn_uint32)},
    {"uint64", 64, 'u', false, FMT(tn_str_fmt_uint64, tn_uint64), WFMT(tn_wstr_fmt_uint64, tn_uint64)},
    {"xint8", 8, 'x', false, FMT(tn_str_fmt_xint8, tn_uint8), nullptr},
    {"xint16", 16, 'x', false, FMT(tn_str_fmt_xint16, tn_uint16), WFMT(tn_wstr_fmt_xint16, tn_uint16)},
    {"xint", 32, 'x', false, FMT(tn_str_fmt_xint, tn_uint32), WFMT(tn_wstr_fmt_xint, tn_uint32)},
    {"xint32", 32, 'x', false, FMT(tn_str_fmt_xint32, tn_uint32), WFMT(tn_wstr_fmt_xint32, tn_uint32)},
    {"xint64", 64, 'x', false, FMT(tn_str_fmt_xint64, tn_uint64), WFMT(tn_wstr_fmt_xint64, tn_uint64)},
    {"0uint", 32, 'u', true, ZFMT(tn_str_fmt_0uint, tn_uint32), WZFMT(tn_wstr_fmt_0uint, tn_uint32)},
    {"0uint8", 8, 'u', true, ZFMT(tn_str_fmt_0uint8, tn_uint8), nullptr},
    {"0uint16", 16, 'u', true, ZFMT(tn_str_fmt_0uint16, tn_uint16), WZFMT(tn_wstr_fmt_0uint16, tn_uint16)},
    {"0uint32", 32, 'u', true, ZFMT(tn_str_fmt_0uint32, tn_uint32), WZFMT(tn_wstr_fmt_0uint32, tn_uint32)},
    {"0uint64", 64, 'u', true, ZFMT(tn_str_fmt_0uint64, tn_uint64), WZFMT(tn_wstr_fmt_0uint64, tn_uint64)},
    {"0xint", 32, 'x', true, ZFMT(tn_str_fmt_0xint, tn_uint32), WZFMT(tn_wstr_fmt_0xint, tn_uint32)},
    {"0xint8", 8, 'x', true, ZFMT(tn_str_fmt_0xint8, tn_uint8), nullptr},
    {"0xint16", 16, 'x', true, ZFMT(tn_str_fmt_0xint16, tn_uint16), WZFMT(tn_wstr_fmt_0xint16, tn_uint16)},
    {"0xint32", 32, 'x', true, ZFMT(tn_str_fmt_0xint32, tn_uint32), WZFMT(tn_wstr_fmt_0xint32, tn_uint32)},
    {"0xint64", 64, 'x', true, ZFMT(tn_str_fmt_0xint64, tn_uint64), WZFMT(tn_wstr_fmt_0xint64, tn_uint64)},
};

u64 mask(int bits) { return bits == 64 ? ~u64{0} : (u64{1} << bits) - 1; }

// Raw bits of the value, sign-extended for the signed kinds.
long long as_signed(u64 v, int bits)
{
    v &= mask(bits);
    if (bits < 64 && (v >> (bits - 1)) & 1) v |= ~mask(bits);
    return static_cast<long long>(v);
}

std::string reference(const IntFormat &f, u64 v, tn_uint32 width)
{
    char out[128];
    int w = f.filled ? static_cast<int>(width) : 0;
    if (f.kind == 'd')
        snprintf(out, sizeof out, "%lld", as_signed(v, f.bits));
    else
        snprintf(out, sizeof out, f.kind == 'u' ? "%0*llu" : "%0*llx", w,
                 static_cast<unsigned long long>(v & mask(f.bits)));
    return out;
}

// Boundaries of every width (powers of the radix and of two, each with its
// neighbours, the extremes), then random values of random bit length.
std::vector<u64> samples()
{
    std::vector<u64> v{0, 1, ~u64{0}};
    for (int b = 1; b < 64; ++b)
        for (u64 d : {u64{0}, u64{1}, ~u64{0}}) {
            v.push_back((u64{1} << b) + d);
            v.push_back(~(u64{1} << b) + d);
        }
    for (u64 p = 10, last = 1; p > last; last = p, p *= 10)
        for (u64 d : {u64{0}, u64{1}, ~u64{0}}) v.push_back(p + d);
    std::mt19937_64 random(7);
    for (int i = 0; i < 3000; ++i) v.push_back(random() >> (random() % 64));
    return v;
}

TEST(IntFormat, AgreesWithPrintfInEveryWidthNarrowAndWide)
{
    const std::vector<u64> values = samples();
    for (const IntFormat &f : int_formats) {
        for (u64 v : values) {
            for (tn_uint32 width : f.filled ? std::vector<tn_uint32>{0, 1, 3, 8, 21} : std::vector<tn_uint32>{0}) {
                const std::string want = reference(f, v, width);
                SCOPED_TRACE(std::string(f.name) + " of " + want + " width " + std::to_string(width));
                tn_uchar narrow[40];
                std::memset(narrow, canary, sizeof narrow);
                const tn_uint32 n = f.narrow(narrow, v, width);
                ASSERT_EQ(n, want.size());
                ASSERT_EQ(std::string(reinterpret_cast<char *>(narrow), n), want);
                ASSERT_EQ(narrow[n], canary) << "wrote behind the text";
                ASSERT_EQ(f.narrow(nullptr, v, width), n) << "measuring";
                // The buffer holds only the longest text of the type (or the
                // width): nothing may be written past it, not even in passing.
                const size_t longest = f.kind == 'x' ? f.bits / 4 : f.bits == 8 ? 3 : f.bits == 16 ? 5 : f.bits == 32 ? 10 : 20;
                std::vector<tn_uchar> exact(std::max<size_t>(longest + (f.kind == 'd'), width));
                ASSERT_EQ(f.narrow(exact.data(), v, width), n);
                if (!f.wide) continue;
                tn_wchar wide[40];
                std::fill(std::begin(wide), std::end(wide), tn_wchar{0xA5A5});
                ASSERT_EQ(f.wide(wide, v, width), n);
                ASSERT_EQ(f.wide(nullptr, v, width), n);
                for (tn_uint32 i = 0; i < n; ++i) ASSERT_EQ(wide[i], narrow[i]) << "at " << i;
                ASSERT_EQ(wide[n], 0xA5A5);
            }
        }
    }
}

TEST(IntFormat, LongestTextsAndBool)
{
    tn_uchar b[24];
    EXPECT_EQ(tn_str_fmt_int8(b, INT8_MIN), 4u);
    EXPECT_EQ(tn_str_fmt_int16(b, INT16_MIN), 6u);
    EXPECT_EQ(tn_str_fmt_int(b, INT32_MIN), 11u);
    EXPECT_EQ(tn_str_fmt_int64(b, INT64_MIN), 20u);
    EXPECT_EQ(tn_str_fmt_uint64(b, UINT64_MAX), 20u);
    EXPECT_EQ(tn_str_fmt_xint64(b, UINT64_MAX), 16u);
    b[1] = canary;
    EXPECT_EQ(tn_str_fmt_bool(b, -7), 1u);
    EXPECT_EQ(b[0], '1');
    EXPECT_EQ(tn_str_fmt_bool(b, 0), 1u);
    EXPECT_EQ(b[0], '0');
    EXPECT_EQ(b[1], canary);
}

// The scans' model: the value of a run of digits modulo 2^64, taken in
// chunks that strtoull reads without overflow, then reduced to the
// accumulator's width.
u64 wrapped_value(const std::string &digits, int radix)
{
    const size_t chunk = radix == 10 ? 18 : 15;
    u64 value = 0;
    for (size_t at = 0; at < digits.size(); at += chunk) {
        std::string part = digits.substr(at, chunk);
        u64 scale = 1;
        for (size_t i = 0; i < part.size(); ++i) scale *= static_cast<u64>(radix);
        value = value * scale + std::strtoull(part.c_str(), nullptr, radix);
    }
    return value;
}

using NarrowScan = tn_uint32 (*)(const tn_uchar *, u64 *);
using WideScan = tn_uint32 (*)(const tn_wchar *, u64 *);

struct IntScan {
    const char *name;
    int bits;      // of the stored value
    int acc_bits;  // of the accumulator
    char kind;     // 'd', 'u', 'x', 'b' (bool)
    bool keeps_on_empty;
    NarrowScan narrow;
    WideScan wide;
};

#define SCAN(f, T) +[](const tn_uchar *s, u64 *v) { T t; std::memcpy(&t, v, sizeof t); tn_uint32 n = f(s, &t); *v = 0; std::memcpy(v, &t, sizeof t); return n; }
#define WSCAN(f, T) +[](const tn_wchar *s, u64 *v) { T t; std::memcpy(&t, v, sizeof t); tn_uint32 n = f(s, &t); *v = 0; std::memcpy(v, &t, sizeof t); return n; }

const IntScan int_scans[] = {
    {"bool", 32, 32, 'b', false, SCAN(tn_str_scan_bool, tn_bool), nullptr},
    {"int", 32, 32, 'd', true, SCAN(tn_str_scan_int, tn_int32), WSCAN(tn_wstr_scan_int, tn_int32)},
    {"int8", 8, 32, 'd', false, SCAN(tn_str_scan_int8, tn_int8), nullptr},
    {"int16", 16, 32, 'd', false, SCAN(tn_str_scan_int16, tn_int16), WSCAN(tn_wstr_scan_int16, tn_int16)},
    {"int32", 32, 32, 'd', false, SCAN(tn_str_scan_int32, tn_int32), WSCAN(tn_wstr_scan_int32, tn_int32)},
    {"int64", 64, 64, 'd', true, SCAN(tn_str_scan_int64, tn_int64), WSCAN(tn_wstr_scan_int64, tn_int64)},
    {"uint8", 8, 32, 'u', false, SCAN(tn_str_scan_uint8, tn_uint8), nullptr},
    {"uint16", 16, 32, 'u', false, SCAN(tn_str_scan_uint16, tn_uint16), WSCAN(tn_wstr_scan_uint16, tn_uint16)},
    {"uint", 32, 32, 'u', false, SCAN(tn_str_scan_uint, tn_uint32), WSCAN(tn_wstr_scan_uint, tn_uint32)},
    {"uint32", 32, 32, 'u', false, SCAN(tn_str_scan_uint32, tn_uint32), WSCAN(tn_wstr_scan_uint32, tn_uint32)},
    {"uint64", 64, 64, 'u', false, SCAN(tn_str_scan_uint64, tn_uint64), WSCAN(tn_wstr_scan_uint64, tn_uint64)},
    {"xint", 32, 32, 'x', false, SCAN(tn_str_scan_xint, tn_uint32), WSCAN(tn_wstr_scan_xint, tn_uint32)},
    {"xint8", 8, 32, 'x', false, SCAN(tn_str_scan_xint8, tn_uint8), nullptr},
    {"xint16", 16, 32, 'x', false, SCAN(tn_str_scan_xint16, tn_uint16), WSCAN(tn_wstr_scan_xint16, tn_uint16)},
    {"xint32", 32, 32, 'x', false, SCAN(tn_str_scan_xint32, tn_uint32), WSCAN(tn_wstr_scan_xint32, tn_uint32)},
    {"xint64", 64, 64, 'x', false, SCAN(tn_str_scan_xint64, tn_uint64), WSCAN(tn_wstr_scan_xint64, tn_uint64)},
};

std::vector<std::string> scan_texts()
{
    std::vector<std::string> t{"", "-", "+", "x", "-x", "+-1", "--1", " 1", "0x10", "fFz", "12abc", "007",
                               "300", "-1", "-0", "+5", "4294967296", "4294967295", "18446744073709551616",
                               "99999999999999999999999999999", "-9223372036854775808", "ffffffffffffffffff1",
                               "123456789012345678901234567890:", "1\xe2\x80\x8a"};
    char b[32];
    for (u64 v : samples()) {
        snprintf(b, sizeof b, "%llu", static_cast<unsigned long long>(v));
        t.push_back(b);
        t.push_back(std::string("-") + b);
        snprintf(b, sizeof b, "%llX;", static_cast<unsigned long long>(v));
        t.push_back(b);
    }
    return t;
}

TEST(IntScan, AgreesWithStrtoullWrappingNarrowAndWide)
{
    for (const IntScan &f : int_scans) {
        const int radix = f.kind == 'x' ? 16 : 10;
        const bool is_signed = f.kind == 'd';
        for (const std::string &text : scan_texts()) {
            SCOPED_TRACE(std::string(f.name) + " of '" + text + "'");
            size_t sign = is_signed && !text.empty() && (text[0] == '-' || text[0] == '+');
            std::string digits = text.substr(sign, std::strspn(text.c_str() + sign, radix == 16 ? "0123456789abcdefABCDEF" : "0123456789"));
            u64 acc = wrapped_value(digits, radix);
            if (sign && text[0] == '-') acc = 0 - acc;
            acc &= mask(f.acc_bits);
            u64 want = f.kind == 'b' ? acc != 0 : acc & mask(f.bits);
            const u64 untouched = 0x5A5A5A5A5A5A5A5Aull & mask(f.bits);
            if (text.empty() && f.keeps_on_empty) want = untouched;

            u64 got = untouched;
            const tn_uint32 n = f.narrow(reinterpret_cast<const tn_uchar *>(text.c_str()), &got);
            ASSERT_EQ(n, sign + digits.size());
            ASSERT_EQ(got, want);
            if (!f.wide) continue;
            std::vector<tn_wchar> wide(text.begin(), text.end());
            for (tn_wchar &c : wide) c = static_cast<tn_uchar>(c);
            wide.push_back(0);
            u64 wide_got = untouched;
            ASSERT_EQ(f.wide(wide.data(), &wide_got), n);
            ASSERT_EQ(wide_got, want);
        }
    }
}

TEST(IntScan, WideDigitsOutsideAsciiEndTheScan)
{
    const tn_wchar text[] = {'1', '2', 0x0661 /* Arabic-Indic one */, 0};
    const tn_wchar high[] = {'f', 0x0166 /* low byte 'f' */, 0};
    tn_uint32 v = 0;
    EXPECT_EQ(tn_wstr_scan_uint(text, &v), 2u);
    EXPECT_EQ(v, 12u);
    EXPECT_EQ(tn_wstr_scan_xint(high, &v), 1u);
    EXPECT_EQ(v, 15u);
}

std::string fmt32(float v)
{
    tn_uchar b[32];
    std::memset(b, canary, sizeof b);
    tn_uint32 n = tn_str_fmt_float32(b, v);
    EXPECT_EQ(b[n], canary);
    EXPECT_LE(n, 14u);
    return std::string(reinterpret_cast<char *>(b), n);
}

std::string fmt64(double v)
{
    tn_uchar b[32];
    std::memset(b, canary, sizeof b);
    tn_uint32 n = tn_str_fmt_float64(b, v);
    EXPECT_EQ(b[n], canary);
    EXPECT_LE(n, 15u);
    return std::string(reinterpret_cast<char *>(b), n);
}

TEST(FloatFormat, WorkedValues)
{
    const struct { double v; bool single; const char *text; } cases[] = {
        {1.5, true, "1.5000000"},         {-2.5, true, "-2.5000000"},
        {1234.5, true, "1.2345000E3"},    {0.3, true, "3.0000001E-1"},
        {0.0, true, "0"},                 {-0.0, true, "0"},
        {3.14159265358979, false, "3.1415926"}, {10.0, false, "1.0000000E1"},
        {-1e10, false, "-1.0000000E10"},  {0.0, false, "0"},
        {-0.0, false, "0"},               {0.01, false, "9.9999999E-3"},
        {0.01, true, "9.9999997E-3"},     {0.001, false, "9.9999999E-4"},
        {DBL_MAX, false, "1.7976931E308"}, {-DBL_MAX, false, "-1.7976931E308"},
        {4.9406564584124654e-324, false, "4.9406564E-324"},
        {FLT_MAX, true, "3.4028234E38"},  {-FLT_TRUE_MIN, true, "-1.4012984E-45"},
        {INFINITY, false, "INF"},         {-INFINITY, true, "-INF"},
        {NAN, false, "NaN"},              {NAN, true, "NaN"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(c.single ? fmt32(static_cast<float>(c.v)) : fmt64(c.v), c.text);
    }
}

// Eight digits truncated and the exponent of the leading digit: the text
// reads back within one unit of the eighth digit, over every decade and at
// the powers of ten, where the scaling rounds.
TEST(FloatFormat, EightDigitsWithTheLeadingExponentEverywhere)
{
    std::vector<double> values;
    for (int e = -323; e <= 308; ++e) {
        double p = std::pow(10.0, e);
        for (double x : {p, std::nextafter(p, 0.0), std::nextafter(p, INFINITY), 3 * p, 9.99999999 * p})
            if (std::isfinite(x) && x != 0) values.push_back(x);
    }
    std::mt19937_64 random(11);
    for (int i = 0; i < 20000; ++i) {
        u64 bits = random() & ~(u64{1} << 63);
        double d;
        std::memcpy(&d, &bits, sizeof d);
        if (std::isfinite(d) && d != 0) values.push_back(i & 1 ? -d : d);
    }
    for (double v : values) {
        for (bool single : {false, true}) {
            if (single && (std::fabs(v) > FLT_MAX || std::fabs(v) < FLT_TRUE_MIN)) continue;
            const double value = single ? static_cast<float>(v) : v;
            const std::string text = single ? fmt32(static_cast<float>(v)) : fmt64(v);
            SCOPED_TRACE(text);
            const size_t lead = value < 0;
            ASSERT_GE(text.size(), lead + 9);
            ASSERT_NE(text[lead], '0');
            ASSERT_EQ(text[lead + 1], '.');
            ASSERT_EQ(text.find_first_not_of("0123456789", lead + 2), text.size() > lead + 9 ? lead + 9 : std::string::npos);
            const double back = std::strtod(text.c_str(), nullptr);
            // Subnormals carry fewer significant bits than eight digits.
            const double slack = 2.1e-7;
            ASSERT_LE(std::fabs(back - value), slack * std::fabs(value)) << "value " << value;
        }
    }
}

TEST(FloatScan, Grammar)
{
    const struct { const char *text; tn_uint32 n; double value; } cases[] = {
        {"1.5", 3, 1.5},      {"-.5e-1", 6, 0.1 * -1.0 * 0.5}, {"12abc", 2, 12.0},
        {"12,5", 2, 12.0},    {"1.e2", 4, 100.0},   {".e1", 3, 0.0},       {"+7E+1", 5, 70.0},
        {"5.", 0, 0.0},       {"1e", 0, 0.0},       {"1e+", 0, 0.0},      {"-", 0, 0.0},
        {".", 0, 0.0},        {"", 0, 0.0},         {"x1", 0, 0.0},       {"1.2.3", 0, 0.0},
        {"1+2", 0, 0.0},      {"1e5e6", 0, 0.0},    {"--1", 0, 0.0},      {"1e-+2", 0, 0.0},
        {"E5", 0, 0.0},       {"0e999999", 8, 0.0}, {"1e400", 5, INFINITY}, {"1e-400", 6, 0.0},
        {"1e4294967297", 12, 10.0},
        {"0.1234567890123", 15, 0.1234567890123},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        double d = 99;
        float f = 99;
        const auto *t = reinterpret_cast<const tn_uchar *>(c.text);
        EXPECT_EQ(tn_str_scan_float64(t, &d), c.n);
        EXPECT_EQ(tn_str_scan_float32(t, &f), c.n);
        if (std::isinf(c.value))
            EXPECT_TRUE(std::isinf(d));
        else
            EXPECT_NEAR(d, c.value, 1e-15 * std::fabs(c.value));
        EXPECT_EQ(f, static_cast<float>(d));
    }
    double minus_zero = 1;
    EXPECT_EQ(tn_str_scan_float64(reinterpret_cast<const tn_uchar *>("-0e500"), &minus_zero), 6u);
    EXPECT_TRUE(std::signbit(minus_zero) && minus_zero == 0);
}

TEST(FloatScan, ReadsTheFormatsBack)
{
    std::mt19937 random(5);
    std::uniform_real_distribution<double> exponent(-300, 300);
    for (int i = 0; i < 2000; ++i) {
        const double v = std::pow(10.0, exponent(random)) * (i & 1 ? -1 : 1);
        const std::string text = fmt64(v);
        double back = 0;
        ASSERT_EQ(tn_str_scan_float64(reinterpret_cast<const tn_uchar *>(text.c_str()), &back), text.size()) << text;
        ASSERT_LE(std::fabs(back - v), 3e-7 * std::fabs(v)) << text;
        const float single = static_cast<float>(v * 1e-290);
        if (!std::isnormal(single)) continue;
        const std::string text32 = fmt32(single);
        float back32 = 0;
        ASSERT_EQ(tn_str_scan_float32(reinterpret_cast<const tn_uchar *>(text32.c_str()), &back32), text32.size());
        ASSERT_LE(std::fabs(back32 - single), 3e-7 * std::fabs(single)) << text32;
    }
}

} // namespace
