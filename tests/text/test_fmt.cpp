#include <tarnel_util/tn_fmt.h>

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using u64 = tn_uint64;
constexpr tn_uchar canary = 0xA5;
const char hex_digits[] = "0123456789abcdef";
const tn_uchar *u(const std::string &s) { return reinterpret_cast<const tn_uchar *>(s.c_str()); }

// Every integer format behind one shape: the value as raw bits, and a width only the 0 forms take.
struct IntFormat {
    const char *name;
    int bits, kind; // kind: 'd' signed, 'u' unsigned, 'x' hexadecimal
    bool filled;
    tn_uint32 (*narrow)(tn_uchar *, u64, tn_uint32);
    tn_uint32 (*wide)(tn_wchar *, u64, tn_uint32); // null where there is no wide form
};
#define CALL(C, call) [](C *b, u64 v, [[maybe_unused]] tn_uint32 w) { return call; }
#define FN(n, k, T) {#n, 8 * sizeof(T), k, false, CALL(tn_uchar, tn_str_fmt_##n(b, T(v))), nullptr}
#define FNW(n, k, T) {#n, 8 * sizeof(T), k, false, CALL(tn_uchar, tn_str_fmt_##n(b, T(v))), \
                      CALL(tn_wchar, tn_wstr_fmt_##n(b, T(v)))}
#define ZN(n, k, T) {#n, 8 * sizeof(T), k, true, CALL(tn_uchar, tn_str_fmt_##n(b, T(v), w)), nullptr}
#define ZNW(n, k, T) {#n, 8 * sizeof(T), k, true, CALL(tn_uchar, tn_str_fmt_##n(b, T(v), w)), \
                      CALL(tn_wchar, tn_wstr_fmt_##n(b, T(v), w))}
const IntFormat int_formats[] = {
    FN(int8, 'd', tn_int8),
    FNW(int16, 'd', tn_int16),
    FNW(int, 'd', tn_int32),
    FNW(int32, 'd', tn_int32),
    FNW(int64, 'd', tn_int64),
    FN(uint8, 'u', tn_uint8),
    FNW(uint16, 'u', tn_uint16),
    FNW(uint, 'u', tn_uint32),
    FNW(uint32, 'u', tn_uint32),
    FNW(uint64, 'u', tn_uint64),
    FN(xint8, 'x', tn_uint8),
    FNW(xint16, 'x', tn_uint16),
    FNW(xint, 'x', tn_uint32),
    FNW(xint32, 'x', tn_uint32),
    FNW(xint64, 'x', tn_uint64),
    ZNW(0uint, 'u', tn_uint32),
    ZN(0uint8, 'u', tn_uint8),
    ZNW(0uint16, 'u', tn_uint16),
    ZNW(0uint32, 'u', tn_uint32),
    ZNW(0uint64, 'u', tn_uint64),
    ZNW(0xint, 'x', tn_uint32),
    ZN(0xint8, 'x', tn_uint8),
    ZNW(0xint16, 'x', tn_uint16),
    ZNW(0xint32, 'x', tn_uint32),
    ZNW(0xint64, 'x', tn_uint64),
};

u64 mask(int bits) { return bits == 64 ? ~u64{0} : (u64{1} << bits) - 1; }

std::string reference(const IntFormat &f, u64 v, tn_uint32 width)
{
    char out[128];
    v &= mask(f.bits);
    if (f.kind == 'd' && f.bits < 64 && (v >> (f.bits - 1)) & 1) v |= ~mask(f.bits); // sign-extended
    if (f.kind == 'd') return std::to_string(static_cast<long long>(v));
    snprintf(out, sizeof out, f.kind == 'u' ? "%0*llu" : "%0*llx", f.filled ? int(width) : 0, 0ull + v);
    return out;
}

// Boundaries of every width (powers of ten and two with their neighbours), then random values of random length.
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
        // Buffers of the type's longest text (or the width), for hexadecimal of exactly the text (a field may sit
        // in a record of its size): nothing goes past them, not even in passing. On the heap, for AddressSanitizer.
        const size_t longest = reference(f, f.kind == 'd' ? u64{1} << (f.bits - 1) : ~u64{0}, 0).size();
        for (u64 v : values)
            for (tn_uint32 width : f.filled ? std::vector<tn_uint32>{0, 1, 3, 8, 16, 21} : std::vector<tn_uint32>{0}) {
                const std::string want = reference(f, v, width);
                SCOPED_TRACE(std::string(f.name) + " of " + want + " width " + std::to_string(width));
                tn_uchar narrow[40];
                std::memset(narrow, canary, sizeof narrow);
                const tn_uint32 n = f.narrow(narrow, v, width);
                ASSERT_EQ(std::string(reinterpret_cast<char *>(narrow), n), want);
                ASSERT_EQ(narrow[n], canary) << "wrote behind the text";
                ASSERT_EQ(f.narrow(nullptr, v, width), n) << "measuring";
                std::vector<tn_uchar> exact(f.kind == 'x' ? want.size() : std::max<size_t>(longest, width));
                ASSERT_EQ(f.narrow(exact.data(), v, width), n);
                if (!f.wide) continue;
                tn_wchar wide[40];
                std::fill(std::begin(wide), std::end(wide), tn_wchar{0xA5A5});
                ASSERT_EQ(f.wide(wide, v, width), n) << "wide";
                ASSERT_EQ(f.wide(nullptr, v, width), n) << "wide, measuring";
                ASSERT_EQ(wide[n], 0xA5A5) << "wide wrote behind the text";
                ASSERT_TRUE(std::equal(narrow, narrow + n, wide)) << "wide text differs";
            }
    }
}

TEST(IntFormat, BoolWritesOneDigit)
{
    tn_uchar b[2] = {0, canary};
    for (tn_bool v : {-7, 0}) {
        EXPECT_EQ(tn_str_fmt_bool(b, v), 1u) << v;
        EXPECT_EQ(b[0], v ? '1' : '0') << v;
    }
    EXPECT_EQ(b[1], canary);
}

struct IntScan {
    const char *name;
    int bits, kind; // bits of the stored value (the accumulator has 64 for 64, else 32); kind: 'd', 'u', 'x', 'b'
    bool keeps_on_empty;
    tn_uint32 (*narrow)(const tn_uchar *, u64 *);
    tn_uint32 (*wide)(const tn_wchar *, u64 *);
};
#define SCAN(f, T) [](const auto *s, u64 *v) { T t; std::memcpy(&t, v, sizeof t); const tn_uint32 n = f(s, &t); \
                                               *v = 0; std::memcpy(v, &t, sizeof t); return n; }
#define SN(n, k, T) {#n, 8 * sizeof(T), k, false, SCAN(tn_str_scan_##n, T), nullptr}
#define SNW(n, k, T, keeps) {#n, 8 * sizeof(T), k, keeps, SCAN(tn_str_scan_##n, T), SCAN(tn_wstr_scan_##n, T)}
const IntScan int_scans[] = {
    SN(bool, 'b', tn_bool),
    SNW(int, 'd', tn_int32, true),
    SN(int8, 'd', tn_int8),
    SNW(int16, 'd', tn_int16, false),
    SNW(int32, 'd', tn_int32, false),
    SNW(int64, 'd', tn_int64, true),
    SN(uint8, 'u', tn_uint8),
    SNW(uint16, 'u', tn_uint16, false),
    SNW(uint, 'u', tn_uint32, false),
    SNW(uint32, 'u', tn_uint32, false),
    SNW(uint64, 'u', tn_uint64, false),
    SNW(xint, 'x', tn_uint32, false),
    SN(xint8, 'x', tn_uint8),
    SNW(xint16, 'x', tn_uint16, false),
    SNW(xint32, 'x', tn_uint32, false),
    SNW(xint64, 'x', tn_uint64, false),
};

std::vector<std::string> scan_texts()
{
    std::vector<std::string> t{"", "-", "+", "x", "-x", "+-1", "--1", " 1", "0x10", "fFz", "12abc", "007",
                               "300", "-1", "-0", "+5", "4294967296", "4294967295", "18446744073709551616",
                               "99999999999999999999999999999", "-9223372036854775808", "ffffffffffffffffff1",
                               "123456789012345678901234567890:", "1\xe2\x80\x8a", "12\xb1", "f\xe6"};
    char b[32];
    for (u64 v : samples()) {
        snprintf(b, sizeof b, "%llX;", static_cast<unsigned long long>(v));
        t.insert(t.end(), {std::to_string(v), "-" + std::to_string(v), b});
    }
    return t;
}

TEST(IntScan, AgreesWithAWrappingAccumulatorNarrowAndWide)
{
    for (const IntScan &f : int_scans)
        for (const std::string &text : scan_texts()) {
            SCOPED_TRACE(std::string(f.name) + " of '" + text + "'");
            const int radix = f.kind == 'x' ? 16 : 10;
            const size_t sign = f.kind == 'd' && !text.empty() && (text[0] == '-' || text[0] == '+');
            const char *set = radix == 16 ? "0123456789abcdefABCDEF" : "0123456789";
            const std::string digits = text.substr(sign, std::strspn(text.c_str() + sign, set));
            u64 acc = 0; // the model: an accumulator that wraps, first at 64 bits
            for (char c : digits) acc = acc * u64(radix) + u64(std::strchr(hex_digits, c | 0x20) - hex_digits);
            if (sign && text[0] == '-') acc = 0 - acc;
            acc &= mask(f.bits == 64 ? 64 : 32);
            const u64 untouched = 0x5A5A5A5A5A5A5A5Aull & mask(f.bits);
            const u64 want = text.empty() && f.keeps_on_empty ? untouched : f.kind == 'b' ? acc != 0 : acc & mask(f.bits);
            u64 got = untouched;
            const tn_uint32 n = f.narrow(u(text), &got);
            ASSERT_EQ(n, sign + digits.size()) << "characters taken";
            ASSERT_EQ(got, want);
            if (!f.wide) continue;
            std::vector<tn_wchar> wide; // a byte beyond ASCII becomes a character whose low byte is a digit
            for (tn_uchar c : text) wide.push_back(c < 0x80 ? c : tn_wchar(0x100 | (c & 0x7F)));
            wide.push_back(0);
            got = untouched;
            ASSERT_EQ(f.wide(wide.data(), &got), n) << "wide";
            ASSERT_EQ(got, want) << "wide";
        }
}

std::string ffmt(double v, bool single)
{
    tn_uchar b[32];
    std::memset(b, canary, sizeof b);
    const tn_uint32 n = single ? tn_str_fmt_float32(b, static_cast<float>(v)) : tn_str_fmt_float64(b, v);
    EXPECT_EQ(b[n], canary) << "wrote behind the text";
    EXPECT_LE(n, single ? 14u : 15u);
    return std::string(reinterpret_cast<char *>(b), n);
}

TEST(FloatFormat, WorkedValues)
{
    const struct { double v; bool single; const char *text; } cases[] = {
        {1.5, true, "1.5000000"},
        {-2.5, true, "-2.5000000"},
        {1234.5, true, "1.2345000E3"},
        {0.3, true, "3.0000001E-1"},
        {0.0, true, "0"},
        {3.14159265358979, false, "3.1415926"},
        {10.0, false, "1.0000000E1"},
        {-1e10, false, "-1.0000000E10"},
        {-0.0, false, "0"},
        {0.01, false, "9.9999999E-3"},
        {0.01, true, "9.9999997E-3"},
        {DBL_MAX, false, "1.7976931E308"},
        {4.9406564584124654e-324, false, "4.9406564E-324"},
        {FLT_MAX, true, "3.4028234E38"},
        {-FLT_TRUE_MIN, true, "-1.4012984E-45"},
        {INFINITY, false, "INF"},
        {-INFINITY, true, "-INF"},
        {NAN, false, "NaN"},
        {NAN, true, "NaN"},
    };
    for (const auto &c : cases) EXPECT_EQ(ffmt(c.v, c.single), c.text) << (c.single ? "float32 " : "float64 ") << c.v;
}

// Eight truncated digits and the exponent of the leading digit, over every decade, at the powers of ten (where
// the scaling rounds) and at random bit patterns; the text reads back, by strtod and by the scans, within the
// eighth digit.
TEST(FloatFormat, EightDigitsWithTheLeadingExponentEverywhereAndScanBack)
{
    std::vector<double> values;
    for (int e = -323; e <= 308; ++e) {
        const double p = std::pow(10.0, e);
        for (double x : {p, std::nextafter(p, 0.0), std::nextafter(p, INFINITY), 3 * p, 9.99999999 * p})
            if (std::isfinite(x) && x != 0) values.push_back(x);
    }
    std::mt19937_64 random(11);
    for (int i = 0; i < 20000; ++i) {
        const u64 bits = random() & ~(u64{1} << 63);
        double d;
        std::memcpy(&d, &bits, sizeof d);
        if (std::isfinite(d) && d != 0) values.push_back(i & 1 ? -d : d);
    }
    for (double v : values)
        for (bool single : {false, true}) {
            if (single && (std::fabs(v) > FLT_MAX || std::fabs(v) < FLT_TRUE_MIN)) continue;
            const double value = single ? static_cast<float>(v) : v;
            const std::string text = ffmt(value, single);
            SCOPED_TRACE(text);
            const size_t lead = value < 0;
            ASSERT_GE(text.size(), lead + 9);
            ASSERT_NE(text[lead], '0') << "the leading digit";
            ASSERT_EQ(text[lead + 1], '.');
            ASSERT_EQ(text.find_first_not_of("0123456789", lead + 2), text.size() > lead + 9 ? lead + 9 : text.npos);
            // 2.1e-7: subnormals carry fewer significant bits than eight digits.
            ASSERT_LE(std::fabs(std::strtod(text.c_str(), nullptr) - value), 2.1e-7 * std::fabs(value)) << value;
            if (!std::isnormal(single ? static_cast<float>(value) : value)) continue;
            double back = 0;
            float back32 = 0; // the two scans write their own types
            ASSERT_EQ(single ? tn_str_scan_float32(u(text), &back32) : tn_str_scan_float64(u(text), &back), text.size());
            ASSERT_LE(std::fabs((single ? back32 : back) - value), 3e-7 * std::fabs(value));
        }
}

TEST(FloatScan, Grammar)
{
    const struct { const char *text; tn_uint32 n; double value; } cases[] = {
        {"1.5", 3, 1.5},
        {"-.5e-1", 6, 0.1 * -1.0 * 0.5},
        {"12abc", 2, 12.0},
        {"1.e2", 4, 100.0},
        {".e1", 3, 0.0},
        {"+7E+1", 5, 70.0},
        {"5.", 0, 0.0},
        {"1e", 0, 0.0},
        {"1e+", 0, 0.0},
        {"-", 0, 0.0},
        {"", 0, 0.0},
        {"1.2.3", 0, 0.0},
        {"1+2", 0, 0.0},
        {"1e5e6", 0, 0.0},
        {"--1", 0, 0.0},
        {"1e-+2", 0, 0.0},
        {"E5", 0, 0.0},
        {"0e999999", 8, 0.0},
        {"1e400", 5, INFINITY},
        {"1e-400", 6, 0.0},
        {"1e4294967297", 12, 10.0},
        {"0.1234567890123", 15, 0.1234567890123},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        double d = 99;
        float f = 99;
        EXPECT_EQ(tn_str_scan_float64(u(c.text), &d), c.n);
        EXPECT_EQ(tn_str_scan_float32(u(c.text), &f), c.n);
        if (std::isinf(c.value)) {
            EXPECT_TRUE(std::isinf(d)) << d;
        } else {
            EXPECT_LE(std::fabs(d - c.value), 1e-15 * std::fabs(c.value)) << d;
        }
        EXPECT_EQ(f, static_cast<float>(d));
    }
    double minus_zero = 1;
    EXPECT_EQ(tn_str_scan_float64(u("-0e500"), &minus_zero), 6u);
    EXPECT_EQ(minus_zero, 0);
    EXPECT_TRUE(std::signbit(minus_zero));
}

} // namespace
