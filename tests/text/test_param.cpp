#include <tarnel_util/tn_param.h>

#include "support/alloc.h"

#include <string>
#include <vector>

namespace {

using strings = std::vector<std::string>;
const tn_uchar *u(const char *s) { return reinterpret_cast<const tn_uchar *>(s); }
std::string str(const tn_uchar *s) { return s ? reinterpret_cast<const char *>(s) : "(null)"; }

class Param : public tn_test::AllocTest {
protected:
    tn_str_array list{}, out{};
    void SetUp() override
    {
        AllocTest::SetUp();
        tn_str_array_init(&list);
        tn_str_array_init(&out);
    }
    void TearDown() override
    {
        tn_str_array_free(&list);
        tn_str_array_free(&out);
        AllocTest::TearDown();
    }
    strings pairs() // read through both views, which are one list
    {
        strings s;
        for (tn_int32 i = 0; i < tn_param_length(&list); ++i)
            s.push_back(str(tn_param_get_name(&list, i)) + "=" + str(tn_multiparam_get_value_by_index(&list, i)));
        return s;
    }
    strings out_list()
    {
        char **e = reinterpret_cast<char **>(tn_str_array_get(&out));
        return strings(e, e + tn_str_array_length(&out));
    }
};

TEST_F(Param, SetReplacesInPlaceAndRemoveNeedsAName)
{
    ASSERT_TRUE(tn_param_set(&list, u("a"), u("1")));
    ASSERT_TRUE(tn_param_set(&list, u("b"), u("2")));
    ASSERT_TRUE(tn_param_set(&list, u("a"), u("3")));
    EXPECT_EQ(pairs(), (strings{"a=3", "b=2"}));
    EXPECT_EQ(str(tn_param_get_value_by_name(&list, u("b"))), "2");
    EXPECT_EQ(tn_param_get_value_by_name(&list, u("A")), nullptr) << "names keep their case";
    EXPECT_EQ(tn_param_get_name(&list, -1), nullptr);
    EXPECT_EQ(tn_param_get_value(&list, 2), nullptr);
    EXPECT_EQ(tn_multiparam_length(&list), 2);
    EXPECT_TRUE(tn_param_contains(&list, u("a"), u("3")));
    EXPECT_FALSE(tn_param_contains(&list, u("a"), u("1")));
    EXPECT_TRUE(tn_param_contains_by_value(&list, u("2")));
    EXPECT_FALSE(tn_multiparam_contains_by_name(&list, u("c")));
    EXPECT_FALSE(tn_param_remove(&list, u("c")));
    EXPECT_TRUE(tn_param_remove(&list, u("a")));
    tn_param_remove_by_index(&list, -1); // ignored
    tn_param_remove_by_index(&list, 1);  // past the end: ignored
    EXPECT_EQ(pairs(), strings{"b=2"});
    EXPECT_FALSE(tn_str_array_failed(&list));
}

TEST_F(Param, MultiparamKeepsPairsAndGathersLists)
{
    for (auto [n, v] : {std::pair{"a", "1"}, {"b", "2"}, {"a", "3"}, {"a", "1"}, {"c", "1"}})
        ASSERT_TRUE(tn_multiparam_set(&list, u(n), u(v)));
    EXPECT_EQ(pairs(), (strings{"a=1", "b=2", "a=3", "c=1"})) << "a=1 only once";
    EXPECT_EQ(tn_multiparam_find(&list, u("a"), u("3")), 2);
    EXPECT_EQ(tn_multiparam_find(&list, u("a"), u("9")), 4) << "a miss gives the length";
    EXPECT_TRUE(tn_multiparam_get_name_list(&list, &out));
    EXPECT_EQ(out_list(), (strings{"a", "b", "c"}));
    EXPECT_TRUE(tn_multiparam_get_value_list(&list, &out));
    EXPECT_EQ(out_list(), (strings{"1", "2", "3"}));
    EXPECT_TRUE(tn_multiparam_get_value_list_by_name(&list, u("a"), &out));
    EXPECT_EQ(out_list(), (strings{"1", "3"}));
    EXPECT_TRUE(tn_multiparam_get_name_list_by_value(&list, u("1"), &out));
    EXPECT_EQ(out_list(), (strings{"a", "c"}));
    EXPECT_TRUE(tn_multiparam_remove(&list, u("x"), u("y"))) << "removing an absent pair";
    EXPECT_TRUE(tn_multiparam_remove_by_value(&list, u("1")));
    ASSERT_TRUE(tn_str_array_cato(&list, u("b"))); // a duplicate pair by other means
    ASSERT_TRUE(tn_str_array_cato(&list, u("2")));
    EXPECT_TRUE(tn_multiparam_remove(&list, u("b"), u("2")));
    EXPECT_EQ(pairs(), (strings{"b=2", "a=3"})) << "the last of equal pairs goes";
    EXPECT_TRUE(tn_multiparam_remove_by_name(&list, u("a")));
    EXPECT_EQ(pairs(), strings{"b=2"});
    EXPECT_FALSE(tn_str_array_remove(&out, 9)); // fails out
    EXPECT_FALSE(tn_multiparam_get_name_list(&list, &out)) << "into a failed list";
}

TEST_F(Param, OutOfMemoryFailsTheList)
{
    const std::string big(300, 'v');
    tn_test::sweep_alloc_failures([&] {
        const bool ok = tn_param_set(&list, u("name"), u("short")) && tn_param_set(&list, u("name"), u(big.c_str())) &&
                        tn_multiparam_set(&list, u("name"), u("short"));
        EXPECT_EQ(ok, !tn_str_array_failed(&list));
        tn_str_array_free(&list);
        return ok;
    });
}

} // namespace
