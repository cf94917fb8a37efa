#include <tarnel_util/tn_utf8.h>
#include <tarnel_util/tn_wchar_array.h>

#include "text_test.h"

#include <cstring>
#include <random>
#include <sstream>

namespace {
using namespace tn_text_test;
using wide = std::vector<tn_wchar>;
wide chars(const tn_array &w)
{
    const auto *p = static_cast<const tn_wchar *>(tn_array_get(&w));
    return wide(p, p + tn_array_length(&w));
}
std::string hex(const tn_uchar *s, tn_uint32 n)
{
    std::ostringstream out;
    out << "bytes" << std::hex;
    for (tn_uint32 i = 0; i < n; ++i) out << ' ' << unsigned(s[i]);
    return out.str();
}

// Reference decoder of one sequence, written from the rules rather than from the library's tables.
enum Kind { ok, incomplete, illegal };
struct Seq { Kind kind; tn_uint32 len; tn_wchar c; };
Seq model(const tn_uchar *s, tn_uint32 available)
{
    const unsigned lead = s[0];
    const tn_uint32 len = lead >= 0xFC ? 6 : lead >= 0xF8 ? 5 : lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
    if (available < len) return {incomplete, len, 0};
    bool legal = len <= 4 && (lead < 0x80 || (lead >= 0xC2 && lead <= 0xF4));
    // The second byte's range excludes overlong forms and code points above U+10FFFF.
    const unsigned low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80, high = lead == 0xF4 ? 0x8F : 0xBF;
    if (len >= 2 && (s[1] < low || s[1] > high)) legal = false;
    unsigned v = len == 1 ? lead : lead & (0x7Fu >> len);
    for (tn_uint32 i = 1; i < len && legal; ++i) {
        legal = s[i] >= 0x80 && s[i] <= 0xBF;
        v = v << 6 | (s[i] & 0x3F);
    }
    if (!legal) return {illegal, len, 0};
    return {ok, len, static_cast<tn_wchar>(v > 0xFFFF ? 0xFFFD : v)}; // beyond one unit: the replacement
}

// Checks every operation on s[0..n) against the model; with w, also every capacity and an append behind an 'X'.
// Returns what disagreed, or nothing.
std::string disagreement(const tn_uchar *s, tn_uint32 n, tn_array *w)
{
    constexpr tn_uint32 none = 0xDEAD;
    tn_uint32 k = 0, at[8] = {0}; // the characters that decode, and where each starts
    tn_wchar c[8], out[8];
    for (Seq q{}; at[k] < n && (q = model(s + at[k], n - at[k])).kind == ok; ++k) {
        c[k] = q.c;
        at[k + 1] = at[k] + q.len;
    }
    const Kind end = at[k] < n ? model(s + at[k], n - at[k]).kind : ok;
    std::string why;
    auto at_cap = [](tn_uint32 cap) { return " at capacity " + std::to_string(cap) + "; "; };
    // Capacities 0 to k, then room to spare (8) and no destination (9).
    for (tn_uint32 cap = w ? 0 : 8; cap <= 9; cap = cap < k ? cap + 1 : cap < 8 ? 8 : cap + 1) {
        const tn_uint32 fit = cap < k ? cap : k;
        tn_uint32 left = n, count = none;
        const bool r = tn_utf8_to_wcs(s, &left, cap < 9 ? out : nullptr, cap < 9 ? cap : 0, &count);
        if (r != (cap < k || end != illegal)) why += "to_wcs result " + std::to_string(r) + at_cap(cap);
        if (left != n - at[fit]) why += "to_wcs left " + std::to_string(left) + at_cap(cap);
        if (r && count != fit) why += "to_wcs count " + std::to_string(count) + at_cap(cap);
        if (!r && count != none) why += "a failed to_wcs wrote its count; ";
        if (r && cap < 9 && std::memcmp(out, c, fit * 2) != 0) why += "to_wcs characters" + at_cap(cap);
    }
    tn_uint32 len = none;
    const bool measured = tn_utf8_get_str_len(s, n, &len);
    if (measured != (end == ok) || len != k) why += "get_str_len " + std::to_string(measured) + ", " + std::to_string(len) + "; ";
    const Seq first = n ? model(s, n) : Seq{incomplete, 0, 0};
    tn_uint32 size = none;
    const bool sized = tn_utf8_get_char_size(s, n, &size);
    if (sized != (first.kind == ok) || size != (first.kind == ok ? first.len : none))
        why += "get_char_size " + std::to_string(sized) + ", " + std::to_string(size) + "; ";
    if (w && tn_array_truncate(w) && tn_wchar_array_cato(w, 'X')) {
        const bool r = tn_utf8_cat_to_wcs(s, n, w);
        const auto *held = static_cast<tn_wchar *>(tn_array_get(w));
        if (r != (end != illegal)) why += "cat_to_wcs result " + std::to_string(r) + "; ";
        if (tn_array_length(w) != k + 1 || std::memcmp(held + 1, c, k * 2) != 0) why += "cat_to_wcs characters; ";
    }
    return why;
}

class Utf8 : public TextTest {
protected:
    int bad = 0;
    void check(const tn_uchar *s, tn_uint32 n, bool thorough) // reports the first five inputs that disagree
    {
        const std::string why = disagreement(s, n, thorough ? &wa : nullptr);
        if (!why.empty() && ++bad <= 5) ADD_FAILURE() << hex(s, n) << ": " << why;
    }
};

TEST_F(Utf8, DecodingAgreesWithModelOnEveryShortInputAndRandomLongOnes)
{
    tn_uchar s[4] = {};
    check(s, 0, true);
    for (tn_uint32 n = 1; n <= 3; ++n) // the one- and two-byte sets are also every truncation of the three-byte one
        for (tn_uint32 v = 0; v < 1u << 8 * n; ++v) {
            for (tn_uint32 i = 0; i < n; ++i) s[i] = static_cast<tn_uchar>(v >> 8 * (n - 1 - i));
            check(s, n, n < 3);
        }
    std::mt19937 rng(20240611);
    for (int i = 0; i < 200000; ++i) { // bytes drawn evenly from anything, continuations and leads 0xE0-0xFF
        for (tn_uchar &b : s) {
            const unsigned draw = rng() % 3;
            b = static_cast<tn_uchar>(draw == 0 ? rng() : draw == 1 ? 0x80 | rng() % 64 : 0xE0 | rng() % 32);
        }
        for (tn_uint32 n = 1; n <= 4; ++n) check(s, n, true);
    }
}

TEST_F(Utf8, EncodingOfEveryWideUnitAtEveryCapacity)
{
    wide all;
    std::string encoded;
    for (tn_uint32 v = 1; v <= 0xFFFF && bad < 5; ++v) {
        SCOPED_TRACE(testing::Message() << "unit " << std::hex << v);
        const tn_wchar c = static_cast<tn_wchar>(v);
        const tn_uint32 size = v < 0x80 ? 1 : v < 0x800 ? 2 : 3;
        tn_uchar buf[4] = {0xAA, 0xAA, 0xAA, 0xAA};
        // Room for the sequence and a terminator, exactly the sequence (which it may not reach), none: measuring.
        for (tn_uint32 cap : {size + 1, size, 9u}) {
            tn_uint32 left = 1, n = 99;
            EXPECT_TRUE(tn_utf8_from_wcs(&c, &left, cap < 9 ? buf : nullptr, cap, &n)) << "capacity " << cap;
            EXPECT_EQ(n, cap == size ? 0 : size) << "capacity " << cap;
            EXPECT_EQ(left, cap == size ? 1u : 0u) << "capacity " << cap;
        }
        EXPECT_EQ(buf[size], 0xAA) << "wrote behind the sequence";
        const Seq q = model(buf, size); // the bits, checked against the decoding model
        EXPECT_EQ(q.kind, ok);
        EXPECT_EQ(q.len, size);
        EXPECT_EQ(q.c, c);
        if (HasFailure()) ++bad;
        all.push_back(c);
        encoded.append(reinterpret_cast<char *>(buf), size);
    }
    // Every unit in a row, so the surrogates too: each is its own sequence, never joined to a neighbour.
    EXPECT_TRUE(tn_utf8_cat_from_wcs(all.data(), static_cast<tn_uint32>(all.size()), &ca));
    EXPECT_EQ(bytes(ca), encoded);
    EXPECT_TRUE(tn_utf8_cat_to_wcs(u(encoded), static_cast<tn_uint32>(encoded.size()), &wa));
    EXPECT_EQ(chars(wa), all);
    const tn_wchar src[] = {0x61, 0xE9, 0x4E2D, 0, 0x62}; // 1, 2 and 3 bytes, then a zero
    for (tn_uint32 cap = 0; cap <= 9; ++cap) { // 9: no destination, which only measures
        SCOPED_TRACE(testing::Message() << "capacity " << cap);
        const tn_uint32 fit = (cap > 1) + (cap > 3) + (cap > 6); // characters that fit: 0, 1, 3 or 6 bytes
        tn_uint32 left = 5, n = 99;
        tn_uchar buf[8] = {0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA};
        EXPECT_TRUE(tn_utf8_from_wcs(src, &left, cap < 9 ? buf : nullptr, cap, &n));
        EXPECT_EQ(n, fit * (fit + 1) / 2);
        EXPECT_EQ(left, 5 - fit);
        EXPECT_EQ(buf[n], 0xAA) << "wrote behind the text";
    }
    ASSERT_TRUE(tn_array_truncate(&ca));
    EXPECT_TRUE(tn_utf8_cat_from_wcs(src, 5, &ca));
    EXPECT_TRUE(tn_utf8_cat_from_wcs(src, 1, &ca));
    EXPECT_TRUE(tn_utf8_cat_from_wcs(src, 0, &ca));
    EXPECT_EQ(bytes(ca), "a\xC3\xA9\xE4\xB8\xAD" "a") << "a zero unit ends the text";
}

// Bulk appends grow as appends of one character each do (content, capacity, allocations); a failure leaves the
// array failed and empty.
TEST_F(Utf8, CatFormsGrowAsCharacterAppendsDoAndFailCleanly)
{
    std::string src;
    for (int i = 0; i < 300; ++i) src += i % 7 ? "plain ascii " : "\xC3\xA9\xE4\xB8\xAD";
    ASSERT_TRUE(tn_utf8_cat_to_wcs(u(src), static_cast<tn_uint32>(src.size()), &wa));
    const wide units = chars(wa);
    for (bool from_wcs : {false, true}) {
        SCOPED_TRACE(from_wcs ? "cat_from_wcs" : "cat_to_wcs");
        tn_array one{};
        tn_array_init(&one, from_wcs ? 1 : 2);
        tn_test::reset_counts();
        for (tn_wchar c : units) {
            if (!from_wcs) {
                ASSERT_TRUE(tn_wchar_array_cato(&one, c));
                continue;
            }
            tn_uchar b[4];
            tn_uint32 left = 1, k = 0;
            ASSERT_TRUE(tn_utf8_from_wcs(&c, &left, b, 4, &k));
            ASSERT_TRUE(tn_array_catn(&one, b, k));
        }
        const auto per_char = tn_test::allocations();
        auto cat = [&](tn_array *t, size_t k) {
            return from_wcs ? tn_utf8_cat_from_wcs(units.data(), tn_uint32(k), t)
                            : tn_utf8_cat_to_wcs(u(src), tn_uint32(k), t);
        };
        const auto made = tn_test::sweep_alloc_failures([&] {
            tn_array t{};
            tn_array_init(&t, from_wcs ? 1 : 2);
            const bool r = cat(&t, from_wcs ? units.size() : src.size());
            if (r) {
                EXPECT_EQ(t.capacity, one.capacity);
                EXPECT_TRUE(tn_array_equal(&t, &one));
            } else {
                EXPECT_TRUE(tn_array_failed(&t));
                EXPECT_EQ(tn_array_bytes(&t), 0u);
                EXPECT_FALSE(cat(&t, 2)) << "the failure sticks";
            }
            tn_array_free(&t);
            return r;
        });
        EXPECT_EQ(made, per_char);
        tn_array_free(&one);
    }
}

// Anchors for the model: worked cases through the measuring and cat forms.
TEST_F(Utf8, ListedCases)
{
    const struct { std::string in; tn_bool result; tn_uint32 left; wide kept; } cases[] = {
        {"\x41\xC3\xA9", 1, 0, {0x41, 0xE9}},
        {"\xE0\xA4\x85", 1, 0, {0x905}},
        {"\xE0\x80\x80", 0, 3, {}},
        {"\xC0\x80", 0, 2, {}},
        {"\xC1\xBF", 0, 2, {}},
        {"\xF0\x90\x80\x80", 1, 0, {0xFFFD}},
        {"\xF4\x90\x80\x80", 0, 4, {}},
        {"\xF5\x80\x80\x80", 0, 4, {}},
        {"\xED\xA0\x80", 1, 0, {0xD800}},
        {"A\x80", 0, 1, {0x41}},
        {"\x41\xE3\x81", 1, 2, {0x41}},
        {std::string("a\0b", 3), 1, 0, {0x61, 0, 0x62}},
        {"A\xFC", 1, 1, {0x41}},
    };
    for (const auto &c : cases) {
        const tn_uint32 n = static_cast<tn_uint32>(c.in.size());
        SCOPED_TRACE(hex(u(c.in), n));
        tn_uint32 left = n, count = 0;
        EXPECT_EQ(tn_utf8_to_wcs(u(c.in), &left, nullptr, 0, &count), c.result);
        EXPECT_EQ(left, c.left);
        ASSERT_TRUE(tn_array_truncate(&wa));
        EXPECT_EQ(tn_utf8_cat_to_wcs(u(c.in), n, &wa), c.result);
        EXPECT_EQ(chars(wa), c.kept);
        check(u(c.in), n, true); // and every operation against the model so anchored
    }
}

} // namespace
