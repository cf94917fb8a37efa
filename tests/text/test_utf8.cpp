#include <tarnel_util/tn_utf8.h>
#include <tarnel_util/tn_wchar_array.h>
#include "support/alloc.h"
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using wide = std::vector<tn_wchar>;
const tn_uchar *u(const std::string &s) { return reinterpret_cast<const tn_uchar *>(s.data()); }
wide chars(const tn_array &w)
{ auto *p = static_cast<const tn_wchar *>(tn_array_get(&w)); return wide(p, p + tn_array_length(&w)); }
std::string text(const tn_array &a) { return std::string(static_cast<const char *>(tn_array_get(&a)), tn_array_bytes(&a)); }
std::string hex(const tn_uchar *s, tn_uint32 n, const char *d = "0123456789ABCDEF", std::string r = "bytes")
{ for (tn_uint32 i = 0; i < n; ++i) r += {' ', d[s[i] >> 4], d[s[i] & 15]}; return r; }

// Reference decoder of one sequence, written from the rules rather than from the library's tables.
enum Kind { ok, incomplete, illegal };
struct Seq { Kind kind; tn_uint32 len; tn_wchar c; };
Seq model(const tn_uchar *s, tn_uint32 r)
{
    unsigned b = s[0];
    tn_uint32 L = b >= 0xFC ? 6 : b >= 0xF8 ? 5 : b >= 0xF0 ? 4 : b >= 0xE0 ? 3 : b >= 0xC0 ? 2 : 1;
    if (r < L) return {incomplete, L, 0};
    unsigned lo = b == 0xE0 ? 0xA0 : b == 0xF0 ? 0x90 : 0x80, hi = b == 0xF4 ? 0x8F : 0xBF;
    unsigned v = L == 1 ? b : b & (0x7Fu >> L);
    bool legal = L <= 4 && (b < 0x80 || (b >= 0xC2 && b <= 0xF4)) && (L < 2 || (s[1] >= lo && s[1] <= hi));
    for (tn_uint32 i = 1; i < L && legal; ++i) legal = s[i] >= 0x80 && s[i] <= 0xBF, v = v << 6 | (s[i] & 0x3F);
    return legal ? Seq{ok, L, static_cast<tn_wchar>(v > 0xFFFF ? 0xFFFD : v)} : Seq{illegal, L, 0};
}

// Checks every operation on s[0..n) against the model; with w, also every capacity and an append behind an 'X'.
bool agrees(const tn_uchar *s, tn_uint32 n, tn_array *w)
{
    tn_uint32 k = 0, at[8] = {0}, none = 0xDEAD, len = none, size = none;
    tn_wchar c[8], out[8]; bool good = true;
    for (Seq q{}; at[k] < n && (q = model(s + at[k], n - at[k])).kind == ok; ++k) c[k] = q.c, at[k + 1] = at[k] + q.len;
    Kind end = at[k] < n ? model(s + at[k], n - at[k]).kind : ok;
    // Capacities 0 to k, then room to spare (8) and no destination (9).
    for (tn_uint32 cap = w ? 0 : 8; cap <= 9; cap = cap < k ? cap + 1 : cap < 8 ? 8 : cap + 1) {
        tn_uint32 left = n, count = none, got = cap < k ? cap : k;
        bool r = tn_utf8_to_wcs(s, &left, cap < 9 ? out : nullptr, cap < 9 ? cap : 0, &count);
        good &= r == (cap < k || end != illegal) && left == n - at[got];
        good &= r ? count == got && (cap == 9 || !std::memcmp(out, c, got * 2)) : count == none;
    }
    good &= tn_utf8_get_str_len(s, n, &len) == (end == ok) && len == k;
    Seq q = n ? model(s, n) : Seq{incomplete, 0, 0};
    good &= tn_utf8_get_char_size(s, n, &size) == (q.kind == ok) && size == (q.kind == ok ? q.len : none);
    if (w && tn_array_truncate(w) && tn_wchar_array_cato(w, 'X'))
        good &= tn_utf8_cat_to_wcs(s, n, w) == (end != illegal) && tn_array_length(w) == k + 1 &&
                !std::memcmp(static_cast<tn_wchar *>(tn_array_get(w)) + 1, c, k * 2);
    return good;
}
class Utf8 : public tn_test::AllocTest {
protected:
    tn_array w{}, a{}; int bad = 0;
    void SetUp() override { AllocTest::SetUp(), tn_array_init(&w, 2), tn_array_init(&a, 1); }
    void TearDown() override { tn_array_free(&w), tn_array_free(&a), AllocTest::TearDown(); EXPECT_EQ(bad, 0); }
    void check(const tn_uchar *s, tn_uint32 n, bool thorough)
    { if (!agrees(s, n, thorough ? &w : nullptr) && ++bad <= 5) ADD_FAILURE() << "input " << hex(s, n); }
};

TEST_F(Utf8, DecodingAgreesWithModelOnEveryShortInputAndRandomLongOnes)
{
    tn_uchar s[4] = {}; check(s, 0, true);
    for (tn_uint32 n = 1; n <= 3; ++n) // the one- and two-byte sets are also every truncation of the three-byte one
        for (tn_uint32 v = 0; v < 1u << 8 * n; ++v) {
            for (tn_uint32 i = 0; i < n; ++i) s[i] = static_cast<tn_uchar>(v >> 8 * (n - 1 - i));
            check(s, n, n < 3);
        }
    std::mt19937 rng(20240611);
    for (int i = 0; i < 200000; ++i) { // bytes drawn evenly from anything, continuations and leads 0xE0-0xFF
        for (tn_uchar &b : s)
            b = static_cast<tn_uchar>(rng() % 3 == 0 ? rng() : rng() % 2 ? 0x80 | rng() % 64 : 0xE0 | rng() % 32);
        for (tn_uint32 n = 1; n <= 4; ++n) check(s, n, true);
    }
}

TEST_F(Utf8, EncodingOfEveryWideUnitCapacityAndZero)
{
    wide all; std::string bytes;
    for (tn_uint32 v = 1; v <= 0xFFFF; ++v) {
        const tn_wchar c = static_cast<tn_wchar>(v);
        tn_uint32 size = v < 0x80 ? 1 : v < 0x800 ? 2 : 3, left = 1, n = 0;
        tn_uchar buf[4] = {0xAA, 0xAA, 0xAA, 0xAA};
        bool good = tn_utf8_from_wcs(&c, &left, buf, size + 1, &n) && n == size && left == 0 && buf[size] == 0xAA;
        const Seq q = model(buf, size); // the bits, checked against the decoding model
        good &= q.kind == ok && q.len == size && q.c == c;
        good &= tn_utf8_from_wcs(&c, &(left = 1), buf, size, &n) && n == 0 && left == 1; // would reach the capacity
        good &= tn_utf8_from_wcs(&c, &(left = 1), nullptr, 0, &n) && n == size && left == 0;
        if (!good && ++bad <= 5) ADD_FAILURE() << "unit " << v;
        all.push_back(c), bytes.append(reinterpret_cast<char *>(buf), size);
    }
    // Every unit in a row, so the surrogates too: each is its own sequence, never joined to a neighbour.
    EXPECT_TRUE(tn_utf8_cat_from_wcs(all.data(), static_cast<tn_uint32>(all.size()), &a) && text(a) == bytes);
    EXPECT_TRUE(tn_utf8_cat_to_wcs(u(bytes), static_cast<tn_uint32>(bytes.size()), &w) && chars(w) == all);
    const tn_wchar src[] = {0x61, 0xE9, 0x4E2D, 0, 0x62}; // 1, 2 and 3 bytes, then a zero
    for (tn_uint32 cap = 0; cap <= 9; ++cap) { // 9: no destination, which only measures
        tn_uint32 k = (cap > 1) + (cap > 3) + (cap > 6), left = 5, n = 99; // characters that fit: 0, 1, 3 or 6 bytes
        tn_uchar buf[8] = {0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA};
        const bool r = tn_utf8_from_wcs(src, &left, cap < 9 ? buf : nullptr, cap, &n);
        EXPECT_TRUE(r && n == k * (k + 1) / 2 && left == 5 - k && buf[n] == 0xAA) << cap << ": " << n << ", " << left;
    }
    EXPECT_TRUE(tn_array_truncate(&a) && tn_utf8_cat_from_wcs(src, 5, &a) && tn_utf8_cat_from_wcs(src, 1, &a) &&
                tn_utf8_cat_from_wcs(src, 0, &a) && text(a) == "a\xC3\xA9\xE4\xB8\xAD" "a") << text(a);
}

// Bulk appends match appends of one character each (content, capacity, allocations); failures leave it failed, empty.
TEST_F(Utf8, CatFormsGrowAsCharacterAppendsDoAndFailCleanly)
{
    std::string src;
    for (int i = 0; i < 300; ++i) src += i % 7 ? "plain ascii " : "\xC3\xA9\xE4\xB8\xAD";
    ASSERT_TRUE(tn_utf8_cat_to_wcs(u(src), static_cast<tn_uint32>(src.size()), &w));
    const wide units = chars(w);
    for (int form = 0; form < 2; ++form) {
        tn_array one{}; tn_array_init(&one, form ? 1 : 2), tn_test::reset_counts();
        for (tn_wchar c : units) {
            tn_uchar b[4]; tn_uint32 left = 1, k = 0;
            form ? (tn_utf8_from_wcs(&c, &left, b, 4, &k), tn_array_catn(&one, b, k)) : tn_wchar_array_cato(&one, c);
        }
        const auto per_char = tn_test::allocations();
        auto cat = [&](tn_array *t, size_t k) { return form ? tn_utf8_cat_from_wcs(units.data(), tn_uint32(k), t)
                                                            : tn_utf8_cat_to_wcs(u(src), tn_uint32(k), t); };
        EXPECT_EQ(tn_test::sweep_alloc_failures([&] {
            tn_array t{}; tn_array_init(&t, form ? 1 : 2);
            const bool r = cat(&t, form ? units.size() : src.size());
            EXPECT_TRUE(r ? t.capacity == one.capacity && tn_array_equal(&t, &one)
                          : tn_array_failed(&t) && !tn_array_bytes(&t) && !cat(&t, 2));
            return tn_array_free(&t), r;
        }), per_char) << "form " << form;
        tn_array_free(&one);
    }
}

// Anchors for the model: the header's cases through the measuring and cat forms.
TEST_F(Utf8, ListedCases)
{
    struct Case { std::string in; tn_bool r; tn_uint32 left; wide out; }; // out: what the cat form keeps
    const Case cases[] = {
        {"\x41\xC3\xA9", 1, 0, {0x41, 0xE9}}, {"\xE0\xA4\x85", 1, 0, {0x905}}, {"\xE0\x80\x80", 0, 3, {}},
        {"\xC0\x80", 0, 2, {}}, {"\xC1\xBF", 0, 2, {}}, {"\xF0\x90\x80\x80", 1, 0, {0xFFFD}},
        {"\xF4\x90\x80\x80", 0, 4, {}}, {"\xF5\x80\x80\x80", 0, 4, {}}, {"\xED\xA0\x80", 1, 0, {0xD800}},
        {"\xED\xA0\xBD\xED\xB8\x80", 1, 0, {0xD83D, 0xDE00}}, {"\x80", 0, 1, {}}, {"A\x80", 0, 1, {0x41}},
        {"\x41\xE3\x81", 1, 2, {0x41}}, {std::string("a\0b", 3), 1, 0, {0x61, 0, 0x62}}, {"A\xFC", 1, 1, {0x41}},
    };
    for (const Case &c : cases) {
        tn_uint32 n = static_cast<tn_uint32>(c.in.size()), left = n, count = 0;
        SCOPED_TRACE(hex(u(c.in), n));
        EXPECT_TRUE(tn_utf8_to_wcs(u(c.in), &left, nullptr, 0, &count) == c.r && left == c.left);
        EXPECT_TRUE(tn_array_truncate(&w) && tn_utf8_cat_to_wcs(u(c.in), n, &w) == c.r && chars(w) == c.out);
        check(u(c.in), n, true); // and every operation against the model so anchored
    }
}

} // namespace
