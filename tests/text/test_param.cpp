#include <tarnel_util/tn_param.h>

#include "text_test.h"

namespace {
using namespace tn_text_test;
using Param = TextTest; // sa: the list, sb: a list gathered from it

strings pairs(const tn_str_array &a) // read through both views, which are one list
{
    strings r;
    for (tn_int32 i = 0; i < tn_param_length(&a); ++i)
        r.push_back(str(tn_param_get_name(&a, i)) + "=" + str(tn_multiparam_get_value_by_index(&a, i)));
    return r;
}

TEST_F(Param, SetReplacesInPlaceAndRemoveNeedsAName)
{
    for (auto [n, v] : {std::pair{"a", "1"}, {"b", "2"}, {"a", "3"}}) ASSERT_TRUE(tn_param_set(&sa, u(n), u(v)));
    EXPECT_EQ(pairs(sa), (strings{"a=3", "b=2"}));
    EXPECT_EQ(str(tn_param_get_value_by_name(&sa, u("b"))), "2");
    EXPECT_EQ(tn_param_get_value_by_name(&sa, u("A")), nullptr) << "names keep their case";
    EXPECT_EQ(tn_param_get_name(&sa, -1), nullptr);
    EXPECT_EQ(tn_param_get_value(&sa, 2), nullptr);
    EXPECT_EQ(tn_multiparam_length(&sa), 2);
    EXPECT_TRUE(tn_param_contains(&sa, u("a"), u("3")));
    EXPECT_FALSE(tn_param_contains(&sa, u("a"), u("1")));
    EXPECT_TRUE(tn_param_contains_by_value(&sa, u("2")));
    EXPECT_FALSE(tn_multiparam_contains_by_name(&sa, u("c")));
    EXPECT_FALSE(tn_param_remove(&sa, u("c")));
    EXPECT_TRUE(tn_param_remove(&sa, u("a")));
    tn_param_remove_by_index(&sa, -1); // ignored
    tn_param_remove_by_index(&sa, 1);  // past the end: ignored
    EXPECT_EQ(pairs(sa), strings{"b=2"});
    EXPECT_FALSE(tn_str_array_failed(&sa));
}

TEST_F(Param, MultiparamKeepsPairsAndGathersLists)
{
    for (auto [n, v] : {std::pair{"a", "1"}, {"b", "2"}, {"a", "3"}, {"a", "1"}, {"c", "1"}})
        ASSERT_TRUE(tn_multiparam_set(&sa, u(n), u(v)));
    EXPECT_EQ(pairs(sa), (strings{"a=1", "b=2", "a=3", "c=1"})) << "a=1 only once";
    EXPECT_EQ(tn_multiparam_find(&sa, u("a"), u("3")), 2);
    EXPECT_EQ(tn_multiparam_find(&sa, u("a"), u("9")), 4) << "a miss gives the length";
    EXPECT_TRUE(tn_multiparam_get_name_list(&sa, &sb));
    EXPECT_EQ(list(sb), (strings{"a", "b", "c"}));
    EXPECT_TRUE(tn_multiparam_get_value_list(&sa, &sb));
    EXPECT_EQ(list(sb), (strings{"1", "2", "3"}));
    EXPECT_TRUE(tn_multiparam_get_value_list_by_name(&sa, u("a"), &sb));
    EXPECT_EQ(list(sb), (strings{"1", "3"}));
    EXPECT_TRUE(tn_multiparam_get_name_list_by_value(&sa, u("1"), &sb));
    EXPECT_EQ(list(sb), (strings{"a", "c"}));
    EXPECT_TRUE(tn_multiparam_remove(&sa, u("x"), u("y"))) << "removing an absent pair";
    EXPECT_TRUE(tn_multiparam_remove_by_value(&sa, u("1")));
    ASSERT_TRUE(tn_str_array_cato(&sa, u("b"))); // a duplicate pair by other means
    ASSERT_TRUE(tn_str_array_cato(&sa, u("2")));
    EXPECT_TRUE(tn_multiparam_remove(&sa, u("b"), u("2")));
    EXPECT_EQ(pairs(sa), (strings{"b=2", "a=3"})) << "the last of equal pairs goes";
    EXPECT_TRUE(tn_multiparam_remove_by_name(&sa, u("a")));
    EXPECT_EQ(pairs(sa), strings{"b=2"});
    EXPECT_FALSE(tn_str_array_remove(&sb, 9)); // fails sb
    EXPECT_FALSE(tn_multiparam_get_name_list(&sa, &sb)) << "into a failed list";
}

TEST_F(Param, OutOfMemoryFailsTheList)
{
    const std::string big(300, 'v');
    tn_test::sweep_alloc_failures([&] {
        const bool ok = tn_param_set(&sa, u("name"), u("short")) && tn_param_set(&sa, u("name"), u(big)) &&
                        tn_multiparam_set(&sa, u("name"), u("short"));
        EXPECT_EQ(ok, !tn_str_array_failed(&sa));
        tn_str_array_free(&sa);
        return ok;
    });
}

} // namespace
