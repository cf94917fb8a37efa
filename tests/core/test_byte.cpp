#include <tarnel_util/tn_byte.h>
#include <gtest/gtest.h>
#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

// Blocks of exactly the bytes given, so that AddressSanitizer reports any read beyond either end.
static void check_find(const std::string &hay, const std::string &needle)
{
    const std::vector<tn_uchar> h(hay.begin(), hay.end()), n(needle.begin(), needle.end());
    size_t at = 0; // the naive search: each start in turn
    while (!needle.empty() && at < hay.size() && hay.compare(at, needle.size(), needle) != 0) ++at;
    ASSERT_EQ(tn_byte_find(h.data(), tn_uint32(h.size()), n.data(), tn_uint32(n.size())), at)
        << hay.substr(0, 40) << " (" << hay.size() << ") / " << needle.substr(0, 40) << " (" << needle.size() << ")";
}
static std::string rep(const std::string &s, size_t times)
{
    std::string out;
    while (times--) out += s;
    return out;
}
// Periodic near misses just after a shift by the period, long repetitive input that makes the search change
// strategy midway; then random ones, empty operands among them: short units repeated with a flaw or two.
TEST(ByteFind, AgreesWithNaiveSearch)
{
    const std::string a300(300, 'a');
    const struct { std::string haystack, needle; } cases[] = {
        {"xa", "ab"},
        {"xxab", "ab"},
        {"aaaaab", "aab"},
        {"abcabcabd", "abcabd"},
        {"aabaabaabaac", "abaabaac"},
        {"babbbaaba", "babba"},
        {"babbbaabba", "babba"},
        {"babbaabaaa", "baba"},
        {"aababaaaaa", "aabaa"},
        {std::string("\x80\xff\0\x01", 4), std::string("\xff\0", 2)},
        {rep("a", 5000), a300 + "b"},
        {rep("a", 5300) + "ba", a300 + "ba"},
        {rep("aab", 2000) + "aac" + rep("aab", 9), rep("aab", 99) + "aac"},
    };
    for (const auto &c : cases) check_find(c.haystack, c.needle);
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
        ASSERT_NO_FATAL_FAILURE(check_find(s[0], s[1]));
    }
}

// Every needle length around the widths a vectorised scan works in, haystacks of every window count up to
// five blocks, and needles planted at or just before the very end, where a scan's last block overlaps.
TEST(ByteFind, AgreesWithNaiveSearchAtEveryLengthNearVectorWidths)
{
    std::mt19937 rng(7);
    std::vector<size_t> lengths = {64, 65};
    for (size_t m = 1; m <= 33; ++m) lengths.push_back(m);
    for (size_t m : lengths)
        for (size_t alphabet = 1; alphabet <= 4; alphabet *= 2)
            for (size_t windows = 1; windows <= 80; ++windows) {
                std::string hay(m - 1 + windows, 'a');
                for (char &ch : hay) ch = char('a' + rng() % alphabet);
                const size_t back = rng() % 3; // the needle ends this far before the end
                std::string planted = hay.substr(hay.size() - std::min(hay.size(), m + back), m), other = planted;
                other[rng() % m] = 'z';
                ASSERT_NO_FATAL_FAILURE(check_find(hay, planted));
                ASSERT_NO_FATAL_FAILURE(check_find(hay, other));
            }
}

TEST(Byte, CopyAndZeroMatchTheirModelAndCompareIsUnsigned)
{
    for (size_t k = 0; k < 12 * 12 * 21; ++k) { // every source and target offset below 12, lengths 0 to 20
        const size_t from = k % 12, to = k / 12 % 12, length = k / 144;
        tn_uchar got[32], want[32];
        for (size_t i = 0; i < 32; ++i) got[i] = want[i] = tn_uchar(i + 1);
        SCOPED_TRACE(testing::Message() << "from " << from << " to " << to << " length " << length);
        const bool clear = to % 3 == 0; // then clears the source, on some rows
        std::memmove(want + to, want + from, length);
        if (clear) std::memset(want + from, 0, length);
        ASSERT_EQ(tn_byte_copy(got + to, tn_uint32(length), got + from), length);
        if (clear) tn_byte_zero(got + from, tn_uint32(length));
        ASSERT_EQ(std::memcmp(got, want, 32), 0);
    }
    // A signed compare calls 0x01 the larger; only the sign comes back, not the difference; length 0 is equal.
    EXPECT_EQ(tn_byte_diff("\x01", 1, "\xff"), -1);
    EXPECT_EQ(tn_byte_diff("\xff", 1, "\x01"), 1);
    EXPECT_EQ(tn_byte_diff("", 0, "b"), 0);
}
