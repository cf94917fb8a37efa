#include <tarnel_util/tn_byte.h>

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

// Blocks of exactly the bytes given, so that AddressSanitizer reports any
// read beyond either end.
std::vector<tn_uchar> exact(const std::string &s) { return {s.begin(), s.end()}; }

tn_uint32 find(const std::string &haystack, const std::string &needle)
{
    std::vector<tn_uchar> h = exact(haystack), n = exact(needle);
    return tn_byte_find(h.data(), static_cast<tn_uint32>(h.size()), n.data(),
                        static_cast<tn_uint32>(n.size()));
}

tn_uint32 naive_find(const std::string &haystack, const std::string &needle)
{
    if (haystack.empty() || needle.empty()) return 0;
    size_t at = haystack.find(needle);
    return static_cast<tn_uint32>(at == std::string::npos ? haystack.size() : at);
}

std::string repeat(const std::string &s, int times)
{
    std::string out;
    while (times-- > 0) out += s;
    return out;
}

TEST(ByteFind, Table)
{
    struct Case {
        std::string haystack, needle;
        tn_uint32 expected;
    } cases[] = {
        {"", "", 0},
        {"", "a", 0},
        {"abc", "", 0},
        {"ab", "abc", 2},  // needle longer than the haystack
        {"xxab", "ab", 2}, // match at the very end
        {"xyz", "w", 3},
        {"xa", "ab", 2},   // first byte at the end, second beyond it
        {"aaaaab", "aab", 3},
        {"abcabcabd", "abcabd", 3},
        {"aabaabaabaac", "abaabaac", 4},
        {std::string("\x80\xff\x00\x01", 4), std::string("\xff\x00", 2), 1},
        {std::string("a\0b\0a\0c", 7), std::string("\0c", 2), 5},
        // Near misses of periodic needles, right after a shift by the period.
        {"babbbaaba", "babba", 9},
        {"babbbaabba", "babba", 10},
        {"babbaabaaa", "baba", 10},
        {"aababaaaaa", "aabaa", 10},
        {"HTTP/1.1 200 OK\r\nA: b\r\n\r\nbody", "\r\n\r\n", 21},
    };
    for (const Case &c : cases)
        EXPECT_EQ(find(c.haystack, c.needle), c.expected)
            << "haystack \"" << c.haystack << "\" needle \"" << c.needle << "\"";
}

// Repetitive haystacks and needles: the inputs where a plain scan turns
// quadratic and the search changes strategy part-way through.
TEST(ByteFind, PeriodicNeedles)
{
    struct Case {
        std::string haystack, needle;
    } cases[] = {
        {std::string(5000, 'a'), std::string(300, 'a') + "b"},
        {std::string(5000, 'a') + "b", std::string(300, 'a') + "b"},
        {std::string(5000, 'a') + "b", "b" + std::string(300, 'a')},
        {repeat("ab", 3000) + "b", repeat("ab", 200) + "b"},
        {repeat("aab", 2000) + "aac" + repeat("aab", 10), repeat("aab", 100) + "aac"},
        {repeat("abaab", 1000) + "abaac", repeat("abaab", 50) + "abaac"},
        {repeat("abc", 2000), "cab" + repeat("abc", 99) + "abd"},
        {std::string(4000, 'a') + std::string(300, 'a') + "ba", std::string(300, 'a') + "ba"},
    };
    for (const Case &c : cases)
        EXPECT_EQ(find(c.haystack, c.needle), naive_find(c.haystack, c.needle))
            << "haystack of " << c.haystack.size() << " starting \"" << c.haystack.substr(0, 12)
            << "\", needle \"" << c.needle.substr(0, 12) << "...\" of " << c.needle.size();
}

TEST(ByteFind, AgreesWithNaiveSearch)
{
    std::mt19937 rng(20240611);
    auto below = [&](size_t bound) { return static_cast<size_t>(rng() % bound); };
    for (int round = 0; round < 30000; ++round) {
        size_t alphabet = 2 + below(2);
        auto letter = [&] { return static_cast<char>('a' + below(alphabet)); };
        // Two or three letters, and mostly a short unit repeated with a flaw
        // or two: long partial matches, where the shifts can go wrong.
        std::string unit(1 + below(4), 'a');
        for (char &ch : unit) ch = letter();
        auto make = [&](size_t length, bool periodic) {
            std::string s(length, 'a');
            for (size_t i = 0; i < length; ++i) s[i] = periodic ? unit[i % unit.size()] : letter();
            for (size_t flaws = below(3); flaws && length; --flaws) s[below(length)] = letter();
            return s;
        };
        size_t longest = round % 2 ? 65 : 13;
        std::string haystack = make(below(longest), round % 4 > 1);
        std::string needle = make(below(longest), round % 3 != 0);
        if (round % 5 == 0 && !needle.empty() && needle.size() <= haystack.size())
            needle = haystack.substr(below(haystack.size() - needle.size() + 1), needle.size());
        ASSERT_EQ(find(haystack, needle), naive_find(haystack, needle))
            << "haystack \"" << haystack << "\" needle \"" << needle << "\"";
    }
}

TEST(ByteCopy, OverlapInEitherDirectionActsAsMemmove)
{
    for (size_t from = 0; from < 12; ++from)
        for (size_t to = 0; to < 12; ++to)
            for (tn_uint32 length = 0; length <= 20; ++length) {
                tn_uchar got[32], expected[32];
                for (size_t i = 0; i < 32; ++i) got[i] = expected[i] = static_cast<tn_uchar>(i + 1);
                std::memmove(expected + to, expected + from, length);
                ASSERT_EQ(tn_byte_copy(got + to, length, got + from), length);
                ASSERT_EQ(std::memcmp(got, expected, sizeof got), 0)
                    << "from " << from << " to " << to << " length " << length;
            }
    tn_uchar same[4] = {1, 2, 3, 4};
    EXPECT_EQ(tn_byte_copy(same, 4, same), 4u);
    EXPECT_EQ(same[3], 4);
}

TEST(ByteDiff, UnsignedBytesGiveMinusOneZeroOne)
{
    struct Case {
        std::string a, b;
        tn_int32 expected;
    } cases[] = {
        {"\x01", "\xff", -1}, // a signed compare would call 0x01 the larger
        {"\x80", "\x7f", 1},
        {std::string("\0", 1), "\xff", -1}, // the size of the difference does not show
        {"\xff", std::string("\0", 1), 1},
        {"abcx", "abcy", -1},
        {"abcd", "abcd", 0},
    };
    for (const Case &c : cases) {
        std::vector<tn_uchar> a = exact(c.a), b = exact(c.b);
        EXPECT_EQ(tn_byte_diff(a.data(), static_cast<tn_uint32>(a.size()), b.data()), c.expected)
            << "a \"" << c.a << "\" b \"" << c.b << "\"";
    }
    EXPECT_EQ(tn_byte_diff("x", 0, "y"), 0);
}

TEST(ByteZero, ClearsExactlyTheRange)
{
    tn_uchar block[16];
    std::memset(block, 0xAB, sizeof block);
    tn_byte_zero(block + 3, 9);
    for (size_t i = 0; i < sizeof block; ++i)
        EXPECT_EQ(block[i], i >= 3 && i < 12 ? 0 : 0xAB) << "byte " << i;
    tn_byte_zero(block, 0);
    EXPECT_EQ(block[0], 0xAB);
}

} // namespace
