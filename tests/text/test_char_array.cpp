#include <tarnel_util/tn_uchar_array.h>
#include <tarnel_util/tn_wchar_array.h>

#include "support/alloc.h"

#include <cctype>
#include <string>

namespace {

const tn_uchar *u(const char *s) { return reinterpret_cast<const tn_uchar *>(s); }
std::string text(const tn_array &a) { return std::string(static_cast<const char *>(tn_array_get(&a)), tn_array_bytes(&a)); }

class CharArray : public tn_test::AllocTest {
protected:
    tn_array a{}, w{};
    void SetUp() override
    {
        AllocTest::SetUp();
        tn_array_init(&a, 1);
        tn_array_init(&w, 2);
    }
    void TearDown() override
    {
        tn_array_free(&a);
        tn_array_free(&w);
        AllocTest::TearDown();
    }
};

TEST(Hex, DigitsBothWays)
{
    const std::string digits = "0123456789abcdef";
    for (int c = 0; c < 256; ++c) {
        const size_t value = digits.find(static_cast<char>(std::tolower(c)));
        const bool hex = value != digits.npos;
        EXPECT_EQ(tn_uchar_is_hex(tn_uchar(c)), hex) << c;
        EXPECT_EQ(tn_uchar_hex_to_uint8(tn_uchar(c)), hex ? value : 0) << c;
    }
    for (int v = 0; v < 256; ++v) EXPECT_EQ(tn_uchar_uint8_to_hex(tn_uint8(v)), v < 16 ? digits[v] : '0') << v;
}

TEST_F(CharArray, TerminatorsCountAsElements)
{
    EXPECT_TRUE(tn_uchar_array_copys0(&a, u("ab")));
    EXPECT_EQ(tn_array_length(&a), 3u);
    EXPECT_FALSE(tn_uchar_array_equals(&a, u("ab"))) << "the terminator is an element";
    EXPECT_TRUE(tn_uchar_array_remove0(&a));
    EXPECT_TRUE(tn_uchar_array_equals(&a, u("ab")));
    EXPECT_FALSE(tn_uchar_array_remove0(&a)) << "'b' is no terminator";
    EXPECT_EQ(text(a), "ab");
    EXPECT_EQ(tn_uchar_array_find(&a, 'b'), 1u);
    EXPECT_EQ(tn_uchar_array_find(&a, 'x'), 2u);
    EXPECT_TRUE(tn_uchar_array_insert0(&a, 2)) << "at the length: appends";
    EXPECT_FALSE(tn_uchar_array_insert0(&a, 4)) << "past the length";
    EXPECT_FALSE(tn_array_failed(&a));
    EXPECT_TRUE(tn_uchar_array_catn0(&a, u("cd"), 1));
    EXPECT_EQ(text(a), std::string("ab\0c\0", 5));
    EXPECT_TRUE(tn_uchar_array_copyn0(&a, u("xyz"), 2));
    EXPECT_EQ(text(a), std::string("xy\0", 3));
    tn_array_truncate(&a);
    EXPECT_FALSE(tn_uchar_array_remove0(&a)) << "empty";
    EXPECT_TRUE(tn_uchar_array_cats0(&a, u("")));
    EXPECT_EQ(tn_array_length(&a), 1u);

    const tn_wchar wide[] = {'h', 0xE9, 0};
    EXPECT_TRUE(tn_wchar_array_cats0(&w, wide));
    EXPECT_EQ(tn_array_length(&w), 3u);
    EXPECT_TRUE(tn_wchar_array_remove0(&w));
    EXPECT_TRUE(tn_wchar_array_equals(&w, wide));
    EXPECT_EQ(tn_wchar_array_find(&w, 0xE9), 1u);
    EXPECT_EQ(tn_wchar_array_find(&w, 0x1E9), 2u) << "two bytes compared, not one";
    EXPECT_TRUE(tn_wchar_array_insert0(&w, 0));
    EXPECT_EQ(tn_wchar_array_get_pos(&w, 0), 0);
    EXPECT_TRUE(tn_wchar_array_catn0(&w, wide, 2));
    EXPECT_TRUE(tn_wchar_array_cat0(&w));
    EXPECT_EQ(tn_array_length(&w), 7u);
}

TEST_F(CharArray, FailuresFollowTheArrayFrame)
{
    ASSERT_TRUE(tn_uchar_array_copys(&a, u("ab")));
    tn_array_fail(&a);
    EXPECT_TRUE(tn_uchar_array_cats(&a, u(""))) << "nothing to do: 1 even when failed";
    EXPECT_FALSE(tn_uchar_array_cat0(&a));
    EXPECT_TRUE(tn_uchar_array_equals(&a, u(""))) << "a failed array reads as empty";
    EXPECT_EQ(tn_uchar_array_find(&a, 'a'), 0u);
    // A copy empties the array first, failed or not, so one that runs out of memory leaves it empty and failed.
    EXPECT_FALSE(tn_uchar_array_copys(&a, u("x")));
    EXPECT_EQ(a.length, 0u);
    tn_array_free(&a);
    const std::string big(200, 'x');
    ASSERT_TRUE(tn_uchar_array_copys(&a, u("keep")));
    tn_test::fail_nth_allocation(1);
    EXPECT_FALSE(tn_uchar_array_copys0(&a, u(big.c_str())));
    EXPECT_TRUE(tn_array_failed(&a));
    EXPECT_EQ(a.length, 0u);
    tn_array_free(&a);
    tn_test::fail_nth_allocation(1);
    EXPECT_FALSE(tn_uchar_array_catn0(&a, u(big.c_str()), 200));
    EXPECT_TRUE(tn_array_failed(&a));
    EXPECT_EQ(a.length, 0u);
}

} // namespace

namespace {

TEST(CharArraySizeless, InsertOfATerminatorIsRefused) // its position check divides by the element size
{
    tn_array none;
    tn_array_init(&none, 0);
    EXPECT_TRUE(!tn_uchar_array_insert0(&none, 0) && !tn_wchar_array_insert0(&none, 0) && !tn_array_length(&none));
    tn_array_free(&none);
}

} // namespace
