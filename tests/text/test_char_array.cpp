#include <tarnel_util/tn_uchar_array.h>
#include <tarnel_util/tn_wchar_array.h>

#include "text_test.h"

#include <cctype>

namespace {
using namespace tn_text_test;
using CharArray = TextTest;

TEST(Hex, DigitsBothWays)
{
    const std::string digits = "0123456789abcdef";
    for (int c = 0; c < 256; ++c) {
        const size_t value = digits.find(static_cast<char>(std::tolower(c)));
        EXPECT_EQ(tn_uchar_is_hex(tn_uchar(c)), value != digits.npos) << c;
        EXPECT_EQ(tn_uchar_hex_to_uint8(tn_uchar(c)), value != digits.npos ? value : 0) << c;
        EXPECT_EQ(tn_uchar_uint8_to_hex(tn_uint8(c)), c < 16 ? digits[c] : '0') << c;
    }
}

TEST_F(CharArray, TerminatorsCountAsElements)
{
    EXPECT_TRUE(tn_uchar_array_copys0(&ca, u("ab")));
    EXPECT_FALSE(tn_uchar_array_equals(&ca, u("ab"))) << "the terminator is an element";
    EXPECT_TRUE(tn_uchar_array_remove0(&ca));
    EXPECT_TRUE(tn_uchar_array_equals(&ca, u("ab")));
    EXPECT_FALSE(tn_uchar_array_remove0(&ca)) << "'b' is no terminator";
    EXPECT_EQ(bytes(ca), "ab");
    EXPECT_EQ(tn_uchar_array_find(&ca, 'b'), 1u);
    EXPECT_EQ(tn_uchar_array_find(&ca, 'x'), 2u);
    EXPECT_TRUE(tn_uchar_array_insert0(&ca, 2)) << "at the length: appends";
    EXPECT_FALSE(tn_uchar_array_insert0(&ca, 4)) << "past the length";
    EXPECT_FALSE(tn_array_failed(&ca));
    EXPECT_TRUE(tn_uchar_array_catn0(&ca, u("cd"), 1));
    EXPECT_EQ(bytes(ca), std::string("ab\0c\0", 5));
    EXPECT_TRUE(tn_uchar_array_copyn0(&ca, u("xyz"), 2));
    EXPECT_EQ(bytes(ca), std::string("xy\0", 3));
    tn_array_truncate(&ca);
    EXPECT_FALSE(tn_uchar_array_remove0(&ca)) << "empty";
    EXPECT_TRUE(tn_uchar_array_cats0(&ca, u("")));
    EXPECT_EQ(tn_array_length(&ca), 1u);

    const tn_wchar wide[] = {'h', 0xE9, 0};
    EXPECT_TRUE(tn_wchar_array_cats0(&wa, wide));
    EXPECT_EQ(tn_array_length(&wa), 3u);
    EXPECT_TRUE(tn_wchar_array_remove0(&wa));
    EXPECT_TRUE(tn_wchar_array_equals(&wa, wide));
    EXPECT_EQ(tn_wchar_array_find(&wa, 0xE9), 1u);
    EXPECT_EQ(tn_wchar_array_find(&wa, 0x1E9), 2u) << "two bytes compared, not one";
    EXPECT_TRUE(tn_wchar_array_insert0(&wa, 0));
    EXPECT_EQ(tn_wchar_array_get_pos(&wa, 0), 0);
    EXPECT_TRUE(tn_wchar_array_catn0(&wa, wide, 2));
    EXPECT_TRUE(tn_wchar_array_cat0(&wa));
    EXPECT_EQ(tn_array_length(&wa), 7u);

    tn_array none; // elements of no size: the position check of an insert would divide by zero
    tn_array_init(&none, 0);
    EXPECT_FALSE(tn_uchar_array_insert0(&none, 0));
    EXPECT_FALSE(tn_wchar_array_insert0(&none, 0));
    EXPECT_EQ(tn_array_length(&none), 0u);
    tn_array_free(&none);
}

TEST_F(CharArray, FailuresFollowTheArrayFrame)
{
    ASSERT_TRUE(tn_uchar_array_copys(&ca, u("ab")));
    tn_array_fail(&ca);
    EXPECT_TRUE(tn_uchar_array_cats(&ca, u(""))) << "nothing to do: 1 even when failed";
    EXPECT_FALSE(tn_uchar_array_cat0(&ca));
    EXPECT_TRUE(tn_uchar_array_equals(&ca, u(""))) << "a failed array reads as empty";
    EXPECT_EQ(tn_uchar_array_find(&ca, 'a'), 0u);
    // A copy empties the array first, failed or not, so one that runs out of memory leaves it empty and failed.
    EXPECT_FALSE(tn_uchar_array_copys(&ca, u("x")));
    EXPECT_EQ(ca.length, 0u);
    tn_array_free(&ca);
    ASSERT_TRUE(tn_uchar_array_copys(&ca, u("keep")));
    tn_test::fail_nth_allocation(1);
    EXPECT_FALSE(tn_uchar_array_copys0(&ca, u(std::string(200, 'x'))));
    EXPECT_TRUE(tn_array_failed(&ca));
    EXPECT_EQ(ca.length, 0u) << "nothing of the old text is left";
}

} // namespace
