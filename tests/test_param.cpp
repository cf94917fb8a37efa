#include <tarnel_util/tn_param.h>

#include "tn_test_alloc.h"

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
    strings pairs()
    {
        strings s;
        for (tn_int32 i = 0; i < tn_param_length(&list); ++i)
            s.push_back(str(tn_param_get_name(&list, i)) + "=" + str(tn_multiparam_get_value_by_index(&list, i)));
        return s;
    }
    strings out_list()
    {
        strings s;
        for (tn_uint32 i = 0; i < tn_str_array_length(&out); ++i) s.push_back(str(tn_str_array_get_pos(&out, i)));
        return s;
    }
};

TEST_F(Param, SetReplacesInPlaceAndRemoveNeedsAName)
{
    ASSERT_TRUE(tn_param_set(&list, u("a"), u("1")) && tn_param_set(&list, u("b"), u("2")));
    ASSERT_TRUE(tn_param_set(&list, u("a"), u("3")));
    EXPECT_EQ(pairs(), (strings{"a=3", "b=2"}));
    EXPECT_EQ(str(tn_param_get_value_by_name(&list, u("b"))), "2");
    EXPECT_EQ(tn_param_get_value_by_name(&list, u("A")), nullptr); // names keep their case
    EXPECT_EQ(tn_param_get_name(&list, -1), nullptr);
    EXPECT_EQ(tn_param_get_value(&list, 2), nullptr);
    EXPECT_TRUE(tn_param_contains(&list, u("a"), u("3")) && !tn_param_contains(&list, u("a"), u("1")));
    EXPECT_TRUE(tn_param_contains_by_value(&list, u("2")) && !tn_multiparam_contains_by_name(&list, u("c")));
    EXPECT_FALSE(tn_param_remove(&list, u("c")));
    EXPECT_TRUE(tn_param_remove(&list, u("a")));
    tn_param_remove_by_index(&list, -1);
    tn_param_remove_by_index(&list, 5); // past the end: ignored, the list stays sound
    EXPECT_EQ(pairs(), strings{"b=2"});
    EXPECT_FALSE(tn_str_array_failed(&list));
}

TEST_F(Param, MultiparamKeepsPairsAndGathersLists)
{
    for (auto [n, v] : {std::pair{"a", "1"}, {"b", "2"}, {"a", "3"}, {"a", "1"}, {"c", "1"}})
        ASSERT_TRUE(tn_multiparam_set(&list, u(n), u(v)));
    EXPECT_EQ(pairs(), (strings{"a=1", "b=2", "a=3", "c=1"})); // a=1 only once
    EXPECT_EQ(tn_multiparam_find(&list, u("a"), u("3")), 2);
    EXPECT_EQ(tn_multiparam_find(&list, u("a"), u("9")), 4);
    EXPECT_TRUE(tn_multiparam_get_name_list(&list, &out));
    EXPECT_EQ(out_list(), (strings{"a", "b", "c"}));
    EXPECT_TRUE(tn_multiparam_get_value_list_by_name(&list, u("a"), &out));
    EXPECT_EQ(out_list(), (strings{"1", "3"}));
    EXPECT_TRUE(tn_multiparam_get_name_list_by_value(&list, u("1"), &out));
    EXPECT_EQ(out_list(), (strings{"a", "c"}));
    EXPECT_TRUE(tn_multiparam_remove(&list, u("x"), u("y"))); // none: still 1
    EXPECT_TRUE(tn_multiparam_remove_by_value(&list, u("1")));
    EXPECT_EQ(pairs(), (strings{"b=2", "a=3"}));
    tn_str_array_cato(&list, u("a")), tn_str_array_cato(&list, u("3")); // a duplicate pair by other means
    EXPECT_TRUE(tn_multiparam_remove(&list, u("a"), u("3")));          // takes the last
    EXPECT_TRUE(tn_multiparam_remove_by_name(&list, u("a")));
    EXPECT_EQ(pairs(), strings{"b=2"});
}

TEST_F(Param, OutOfMemoryFailsTheList)
{
    tn_test::sweep_alloc_failures([&] {
        tn_str_array l;
        tn_str_array_init(&l);
        bool ok = tn_param_set(&l, u("name"), u("short")) && tn_param_set(&l, u("name"), u(std::string(300, 'v').c_str()));
        EXPECT_EQ(ok, !tn_str_array_failed(&l));
        tn_str_array_free(&l);
        return ok;
    });
}

} // namespace
