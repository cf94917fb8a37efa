#include <tarnel_util/tn_csv.h>
#include <tarnel_util/tn_uchar_array.h>

#include "text_test.h"

#include <cstring>
#include <random>

namespace {
using namespace tn_text_test;
using Csv = TextTest; // sa: the values, ca: the text

TEST_F(Csv, SplitUnescapes)
{
    const struct { const char *text; strings values; } cases[] = {
        {"a,b", {"a", "b"}},
        {",", {"", ""}},
        {"", {}}, // the empty text is no single empty value
        {"a\\,b,c\\\\d", {"a,b", "c\\d"}},
        {"a\\b", {"ab"}},
        {"ab\\", {"ab"}}, // a trailing backslash is dropped
    };
    for (const auto &x : cases) {
        EXPECT_TRUE(tn_csv_split(u(x.text), &sa)) << x.text;
        EXPECT_EQ(list(sa), x.values) << x.text;
    }
    EXPECT_FALSE(tn_csv_split(nullptr, &sa));
    EXPECT_EQ(list(sa), strings{});
}

TEST_F(Csv, MakeAndTheIncrementalFormAgreeAndRoundTrip)
{
    const tn_uchar *two[] = {u("a,b"), u("c\\d")}, *empty[] = {u("")};
    EXPECT_TRUE(tn_csv_make2(two, 2, &ca));
    EXPECT_EQ(bytes(ca), "a\\,b,c\\\\d");
    EXPECT_TRUE(tn_csv_make2(empty, 1, &ca));
    EXPECT_EQ(bytes(ca), "");
    EXPECT_TRUE(tn_csv_make2(nullptr, 0, &ca));
    EXPECT_TRUE(tn_csv_end(&ca));
    std::mt19937 rng(5);
    for (int round = 0; round < 300; ++round) {
        strings model(1 + rng() % 5);
        tn_array_truncate(&ca);
        tn_str_array_truncate(&sa);
        for (auto &v : model) {
            for (unsigned k = rng() % 4; k; --k) v += "ab,\\"[rng() % 4];
            ASSERT_TRUE(tn_str_array_cato(&sa, u(v)));
            ASSERT_TRUE(tn_csv_cat(&ca, u(v)));
        }
        ASSERT_TRUE(tn_csv_end(&ca));
        const std::string line = bytes(ca);
        SCOPED_TRACE(line);
        EXPECT_TRUE(tn_csv_make(&sa, &ca));
        EXPECT_EQ(bytes(ca), line) << "make differs from the incremental form";
        EXPECT_TRUE(tn_csv_split(u(line), &sa));
        EXPECT_EQ(list(sa), line.empty() ? strings{} : model) << "one empty value joins to the empty text";
    }
}

TEST_F(Csv, LastValueKnowsNoEscapes)
{
    const struct { std::string text; const char *last, *rest; } cases[] = {
        {"a,b,c", "c", "a,b"},
        {"ab", "ab", ""},
        {"a,", "", "a"},
        {"a\\,b", "b", "a\\"},
    };
    for (auto x : cases) {
        auto *p = const_cast<tn_uchar *>(u(x.text));
        EXPECT_EQ(tn_csv_get_last_value(p), p + x.text.size() - std::strlen(x.last)) << x.text;
        tn_csv_remove_last_value(p);
        EXPECT_STREQ(x.text.c_str(), x.rest);
    }
    tn_csv_remove_last_value(nullptr); // ignored
    EXPECT_EQ(tn_csv_get_last_value(nullptr), nullptr);
    std::string none;
    EXPECT_EQ(tn_csv_get_last_value(const_cast<tn_uchar *>(u(none))), nullptr);
}

TEST_F(Csv, OutOfMemoryIsCleanAndKeepsWhatWasFound)
{
    const strings all = {"one", "two,x", "three"};
    tn_test::sweep_alloc_failures([&] {
        const bool ok = tn_csv_split(u("one,two\\,x,three"), &sa);
        const strings v = list(sa); // a failed split keeps a beginning of the values, never all of them
        EXPECT_EQ(v, strings(all.begin(), all.begin() + (ok ? 3 : std::min<size_t>(v.size(), 2))));
        tn_str_array_free(&sa);
        return ok;
    });
    const std::string big(300, 'z');
    const tn_uchar *two[] = {u("x,y"), u(big)};
    tn_test::sweep_alloc_failures([&] {
        const bool ok = tn_csv_make2(two, 2, &ca);
        EXPECT_EQ(ok, !tn_array_failed(&ca));
        tn_array_free(&ca);
        return ok;
    });
}

} // namespace
