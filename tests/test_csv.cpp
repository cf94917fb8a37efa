#include <tarnel_util/tn_csv.h>
#include <tarnel_util/tn_uchar_array.h>

#include "tn_test_alloc.h"

#include <random>
#include <string>
#include <vector>

namespace {

using strings = std::vector<std::string>;
const tn_uchar *u(const std::string &s) { return reinterpret_cast<const tn_uchar *>(s.c_str()); }

class Csv : public tn_test::AllocTest {
protected:
    tn_str_array values{};
    tn_uchar_array text{};
    void SetUp() override
    {
        AllocTest::SetUp();
        tn_str_array_init(&values);
        tn_array_init(&text, 1);
    }
    void TearDown() override
    {
        tn_str_array_free(&values);
        tn_array_free(&text);
        AllocTest::TearDown();
    }
    strings split(const std::string &s)
    {
        EXPECT_TRUE(tn_csv_split(u(s), &values)) << s;
        strings out;
        for (tn_uint32 i = 0; i < tn_str_array_length(&values); ++i)
            out.push_back(reinterpret_cast<const char *>(tn_str_array_get_pos(&values, i)));
        return out;
    }
    std::string joined() { return std::string(static_cast<const char *>(tn_array_get(&text)), tn_array_bytes(&text)); }
};

TEST_F(Csv, SplitUnescapes)
{
    EXPECT_EQ(split("a,b"), (strings{"a", "b"}));
    EXPECT_EQ(split("a,"), (strings{"a", ""}));
    EXPECT_EQ(split(","), (strings{"", ""}));
    EXPECT_EQ(split(""), strings{}); // the empty text is no single empty value
    EXPECT_EQ(split("a\\,b,c\\\\d"), (strings{"a,b", "c\\d"}));
    EXPECT_EQ(split("a\\b"), strings{"ab"});
    EXPECT_EQ(split("ab\\"), strings{"ab"}); // a trailing backslash is dropped
    EXPECT_FALSE(tn_csv_split(nullptr, &values));
    EXPECT_EQ(tn_str_array_length(&values), 0u);
}

TEST_F(Csv, MakeAndTheIncrementalFormAgreeAndRoundTrip)
{
    const std::string a = "a,b", c = "c\\d", none;
    const tn_uchar *two[] = {u(a), u(c)};
    EXPECT_TRUE(tn_csv_make2(two, 2, &text));
    EXPECT_EQ(joined(), "a\\,b,c\\\\d");
    const tn_uchar *empty[] = {u(none)};
    EXPECT_TRUE(tn_csv_make2(empty, 1, &text));
    EXPECT_EQ(joined(), "");
    EXPECT_TRUE(tn_csv_make2(nullptr, 0, &text));
    EXPECT_TRUE(tn_csv_end(&text)); // empty: nothing to remove

    std::mt19937 rng(5);
    const char alphabet[] = "ab,\\";
    for (int round = 0; round < 300; ++round) {
        strings model(1 + rng() % 5);
        tn_str_array_truncate(&values);
        tn_uchar_array incremental;
        tn_array_init(&incremental, 1);
        for (auto &v : model) {
            for (unsigned k = rng() % 4; k; --k) v += alphabet[rng() % 4];
            tn_str_array_cato(&values, u(v));
            EXPECT_TRUE(tn_csv_cat(&incremental, u(v)));
        }
        EXPECT_TRUE(tn_csv_end(&incremental));
        ASSERT_TRUE(tn_csv_make(&values, &text));
        EXPECT_TRUE(tn_array_equal(&text, &incremental));
        tn_array_free(&incremental);
        std::string line = joined();
        // One empty value joins to the empty text, which splits to no value.
        EXPECT_EQ(split(line), line.empty() ? strings{} : model) << line;
    }
}

TEST_F(Csv, LastValueKnowsNoEscapes)
{
    std::string s = "a,b";
    EXPECT_STREQ(reinterpret_cast<char *>(tn_csv_get_last_value(const_cast<tn_uchar *>(u(s)))), "b");
    s = "ab";
    EXPECT_EQ(tn_csv_get_last_value(const_cast<tn_uchar *>(u(s))), u(s));
    s = "a,";
    EXPECT_EQ(*tn_csv_get_last_value(const_cast<tn_uchar *>(u(s))), 0);
    EXPECT_EQ(tn_csv_get_last_value(nullptr), nullptr);
    for (auto [in, out] : {std::pair{"a,b,c", "a,b"}, {"abc", ""}, {"a\\,b", "a\\"}}) {
        std::string t = in;
        tn_csv_remove_last_value(const_cast<tn_uchar *>(u(t)));
        EXPECT_STREQ(t.c_str(), out) << in;
    }
    tn_csv_remove_last_value(nullptr);
}

TEST_F(Csv, OutOfMemoryIsCleanAndKeepsWhatWasFound)
{
    tn_test::sweep_alloc_failures([&] {
        tn_str_array v;
        tn_str_array_init(&v);
        bool ok = tn_csv_split(u("one,two\\,x,three"), &v);
        if (!ok) {
            EXPECT_LE(tn_str_array_length(&v), 3u); // what was found so far stays
        }
        tn_str_array_free(&v);
        return ok;
    });
    const std::string first = "x,y", second(300, 'z');
    tn_test::sweep_alloc_failures([&] {
        tn_uchar_array t;
        tn_array_init(&t, 1);
        const tn_uchar *vals[] = {u(first), u(second)};
        bool ok = tn_csv_make2(vals, 2, &t);
        EXPECT_EQ(ok, !tn_array_failed(&t));
        tn_array_free(&t);
        return ok;
    });
}

} // namespace
