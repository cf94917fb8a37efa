// Byte search against a naive search, overlapping copies, unsigned compares.
#include <tarnel_util/tn_byte.h>

#include <gtest/gtest.h>
#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

// Blocks of exactly the bytes given, so that AddressSanitizer reports any read beyond either end.
void check_find(const std::string &hay, const std::string &needle)
{
    const std::vector<tn_uchar> h(hay.begin(), hay.end()), n(needle.begin(), needle.end());
    const size_t at = hay.empty() || needle.empty() ? 0 : hay.find(needle);
    ASSERT_EQ(tn_byte_find(h.data(), tn_uint32(h.size()), n.data(), tn_uint32(n.size())), std::min(at, hay.size()))
        << hay.substr(0, 40) << " (" << hay.size() << ") / " << needle.substr(0, 40) << " (" << needle.size() << ")";
}

std::string rep(const std::string &s, size_t times) { std::string out; while (times--) out += s; return out; }

// Empty operands, a needle off the end, periodic near misses just after a shift by the period, long repetitive
// input that makes the search change strategy midway; then random ones: short units repeated with a flaw or two.
TEST(ByteFind, AgreesWithNaiveSearch)
{
    const std::string a300 = rep("a", 300), a5000 = rep("a", 5000), cases[][2] = {
        {"", ""}, {"", "a"}, {"abc", ""}, {"ab", "abc"}, {"xa", "ab"}, {"xxab", "ab"}, {"aaaaab", "aab"},
        {"abcabcabd", "abcabd"}, {"aabaabaabaac", "abaabaac"}, {"babbbaaba", "babba"}, {"babbbaabba", "babba"},
        {"babbaabaaa", "baba"}, {"aababaaaaa", "aabaa"}, {std::string("\x80\xff\0\x01", 4), std::string("\xff\0", 2)},
        {a5000, a300 + "b"}, {a5000 + "b", a300 + "b"}, {a5000 + "b", "b" + a300}, {a5000 + a300 + "ba", a300 + "ba"},
        {rep("ab", 3000) + "b", rep("ab", 200) + "b"}, {rep("abc", 2000), "cab" + rep("abc", 99) + "abd"},
        {rep("aab", 2000) + "aac" + rep("aab", 10), rep("aab", 100) + "aac"},
        {rep("abaab", 1000) + "abaac", rep("abaab", 50) + "abaac"}};
    for (const auto &c : cases) check_find(c[0], c[1]);
    std::mt19937 rng(20240611);
    auto below = [&](size_t bound) { return size_t(rng() % bound); };
    for (int round = 0; round < 30000; ++round) {
        const size_t alphabet = 2 + below(2), longest = round % 2 ? 65 : 13;
        auto letter = [&] { return char('a' + below(alphabet)); };
        std::string unit(1 + below(4), 'a'), s[2]; // haystack, needle
        for (char &ch : unit) ch = letter();
        for (int k = 0; k < 2; ++k) {
            const bool periodic = k ? round % 3 != 0 : round % 4 > 1;
            s[k].resize(below(longest));
            for (size_t i = 0; i < s[k].size(); ++i) s[k][i] = periodic ? unit[i % unit.size()] : letter();
            for (size_t flaws = below(3); flaws && !s[k].empty(); --flaws) s[k][below(s[k].size())] = letter();
        }
        if (round % 5 == 0 && !s[1].empty() && s[1].size() <= s[0].size())
            s[1] = s[0].substr(below(s[0].size() - s[1].size() + 1), s[1].size());
        ASSERT_NO_FATAL_FAILURE(check_find(s[0], s[1]));
    }
}

TEST(Byte, CopyOverlapsEitherWayCompareIsUnsignedZeroIsExact)
{
    for (size_t k = 0; k < 12 * 12 * 21; ++k) { // every source and target offset below 12, lengths 0 to 20
        const size_t from = k % 12, to = k / 12 % 12, length = k / 144;
        tn_uchar got[32], want[32];
        for (size_t i = 0; i < 32; ++i) got[i] = want[i] = tn_uchar(i + 1);
        std::memmove(want + to, want + from, length);
        ASSERT_EQ(tn_byte_copy(got + to, tn_uint32(length), got + from), length);
        ASSERT_EQ(std::memcmp(got, want, 32), 0) << "from " << from << " to " << to << " length " << length;
    }
    EXPECT_EQ(tn_byte_diff("\x01", 1, "\xff"), -1); // a signed compare calls 0x01 the larger
    EXPECT_EQ(tn_byte_diff("\xff", 1, ""), 1);      // the sign only, not the difference
    EXPECT_EQ(tn_byte_diff("abcx", 4, "abcy"), -1);
    EXPECT_EQ(tn_byte_diff("abcd", 4, "abcd") + tn_byte_diff("x", 0, "y"), 0);
    std::vector<tn_uchar> block(16, 0xAB);
    tn_byte_zero(block.data() + 3, 9);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(block[i], i >= 3 && i < 12 ? 0 : 0xAB) << "byte " << i;
}

} // namespace
