#include <tarnel_util/tn_csv.h>
#include <tarnel_util/tn_uchar_array.h>

#include "support/alloc.h"

#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

using strings = std::vector<std::string>;
const tn_uchar *u(std::string_view s) { return reinterpret_cast<const tn_uchar *>(s.data()); } // a terminated text
tn_uchar *w(std::string &s) { return reinterpret_cast<tn_uchar *>(s.data()); }

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
    strings got() // the values as they stand
    {
        char **e = reinterpret_cast<char **>(tn_str_array_get(&values));
        return strings(e, e + tn_str_array_length(&values));
    }
    std::string joined() { return std::string(static_cast<const char *>(tn_array_get(&text)), tn_array_bytes(&text)); }
};

TEST_F(Csv, SplitUnescapes)
{
    const struct { const char *text; strings values; } cases[] = {
        {"a,b", {"a", "b"}},
        {"a,", {"a", ""}},
        {",", {"", ""}},
        {"", {}}, // the empty text is no single empty value
        {"a\\,b,c\\\\d", {"a,b", "c\\d"}},
        {"a\\b", {"ab"}},
        {"ab\\", {"ab"}}, // a trailing backslash is dropped
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_TRUE(tn_csv_split(u(c.text), &values));
        EXPECT_EQ(got(), c.values);
    }
    EXPECT_FALSE(tn_csv_split(nullptr, &values));
    EXPECT_EQ(got(), strings{});
}

TEST_F(Csv, MakeAndTheIncrementalFormAgreeAndRoundTrip)
{
    const tn_uchar *two[] = {u("a,b"), u("c\\d")}, *empty[] = {u("")};
    EXPECT_TRUE(tn_csv_make2(two, 2, &text));
    EXPECT_EQ(joined(), "a\\,b,c\\\\d");
    EXPECT_TRUE(tn_csv_make2(empty, 1, &text));
    EXPECT_EQ(joined(), "");
    EXPECT_TRUE(tn_csv_make2(nullptr, 0, &text));
    EXPECT_TRUE(tn_csv_end(&text));
    std::mt19937 rng(5);
    for (int round = 0; round < 300; ++round) {
        strings model(1 + rng() % 5);
        tn_array_truncate(&text);
        tn_str_array_truncate(&values);
        for (auto &v : model) {
            for (unsigned k = rng() % 4; k; --k) v += "ab,\\"[rng() % 4];
            ASSERT_TRUE(tn_str_array_cato(&values, u(v)));
            ASSERT_TRUE(tn_csv_cat(&text, u(v)));
        }
        ASSERT_TRUE(tn_csv_end(&text));
        const std::string line = joined();
        SCOPED_TRACE(line);
        EXPECT_TRUE(tn_csv_make(&values, &text));
        EXPECT_EQ(joined(), line) << "make differs from the incremental form";
        EXPECT_TRUE(tn_csv_split(u(line), &values));
        EXPECT_EQ(got(), line.empty() ? strings{} : model) << "one empty value joins to the empty text";
    }
}

TEST_F(Csv, LastValueKnowsNoEscapes)
{
    std::string t;
    const struct { const char *text, *last, *rest; } cases[] = {
        {"a,b,c", "c", "a,b"},
        {"ab", "ab", ""},
        {"a,", "", "a"},
        {"a\\,b", "b", "a\\"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        t = c.text;
        EXPECT_EQ(tn_csv_get_last_value(w(t)), w(t) + t.size() - std::strlen(c.last));
        tn_csv_remove_last_value(w(t));
        EXPECT_STREQ(t.c_str(), c.rest);
    }
    tn_csv_remove_last_value(nullptr); // ignored
    EXPECT_EQ(tn_csv_get_last_value(nullptr), nullptr);
    t = "";
    EXPECT_EQ(tn_csv_get_last_value(w(t)), nullptr);
}

TEST_F(Csv, OutOfMemoryIsCleanAndKeepsWhatWasFound)
{
    const strings all = {"one", "two,x", "three"};
    tn_test::sweep_alloc_failures([&] {
        const bool ok = tn_csv_split(u("one,two\\,x,three"), &values);
        const strings v = got();
        if (ok) {
            EXPECT_EQ(v, all);
        } else {
            EXPECT_LT(v.size(), 3u);
            EXPECT_TRUE(std::equal(v.begin(), v.end(), all.begin())) << "not a beginning of the values";
        }
        tn_str_array_free(&values);
        return ok;
    });
    const std::string big(300, 'z');
    const tn_uchar *two[] = {u("x,y"), u(big)};
    tn_test::sweep_alloc_failures([&] {
        const bool ok = tn_csv_make2(two, 2, &text);
        EXPECT_EQ(ok, !tn_array_failed(&text));
        tn_array_free(&text);
        return ok;
    });
}

} // namespace
