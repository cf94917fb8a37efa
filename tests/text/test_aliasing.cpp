// Every operation that takes text, bytes or an array must work when that input
// lies in the destination's own storage, both when the storage has to grow
// (the old block is freed) and when the content shifts in place.
#include <tarnel_util/tn_byte.h>
#include <tarnel_util/tn_csv.h>
#include <tarnel_util/tn_param.h>
#include <tarnel_util/tn_uchar_array.h>
#include <tarnel_util/tn_utf8.h>
#include <tarnel_util/tn_wchar_array.h>

#include "text_test.h"

#include <functional>

namespace {
using namespace tn_text_test;

// Characters of an array of 1- or 2-byte elements, a zero shown as "~", or numbers of 4-byte ones; strings joined by "|".
std::string text(const tn_array &a)
{
    std::string r;
    for (tn_uint32 i = 0; i < tn_array_length(&a); ++i) {
        const tn_uint32 x = a.element_size == 1 ? tn_uchar_array_get_pos(&a, i)
                            : a.element_size == 2 ? tn_wchar_array_get_pos(&a, i) : tn_uint32_array_get_pos(&a, i);
        r += a.element_size == 4 ? (i ? " " : "") + std::to_string(x) : std::string(1, x ? static_cast<char>(x) : '~');
    }
    return tn_array_failed(&a) ? "failed" : r;
}
std::string joined(const tn_str_array &a)
{
    std::string r;
    for (tn_uint32 i = 0; i < tn_str_array_length(&a); ++i) r += (i ? "|" : "") + str(tn_str_array_get_pos(&a, i));
    return tn_str_array_failed(&a) ? "failed" : r;
}

tn_int32 by_bytes(const void *x, const void *y, void *) { return tn_byte_diff(x, 4, y); }

class Aliasing : public TextTest {
protected:
    tn_array n{};
    void reset() { release(); tn_array_free(&n); init(); tn_array_init(&n, 4); }
    void TearDown() override { tn_array_free(&n); TextTest::TearDown(); }

    // Each array holds its content in storage of exactly that size, so the next append must move it;
    // with room, the content shifts in place instead.
    void numbers_full(std::vector<tn_uint32> v, tn_uint32 room = 0)
    {
        tn_array_allocate(&n, static_cast<tn_uint32>(v.size()) + room);
        tn_array_catn(&n, v.data(), static_cast<tn_uint32>(v.size()));
    }
    void full(tn_array *a, const std::string &v) // characters of 1 or 2 bytes, one for each byte of v
    {
        tn_array_allocate(a, static_cast<tn_uint32>(v.size()));
        for (char x : v) {
            const tn_wchar w = static_cast<tn_uchar>(x);
            tn_array_catn(a, a->element_size == 1 ? static_cast<const void *>(&x) : &w, 1);
        }
    }
    void strings_full(tn_str_array *a, const strings &v)
    {
        tn_uint32 size = 0;
        for (const auto &x : v) size += static_cast<tn_uint32>(x.size()) + 1;
        tn_str_array_allocate(a, size);
        for (const auto &x : v) tn_str_array_cato(a, u(x));
    }
    tn_uchar *chars() { return static_cast<tn_uchar *>(tn_array_get(&ca)); }
    tn_wchar *wide() { return static_cast<tn_wchar *>(tn_array_get(&wa)); }
    tn_uint32 *number(tn_uint32 i) { return static_cast<tn_uint32 *>(tn_array_get_pos(&n, i)); }
    tn_uchar *at(tn_uint32 i) { return tn_str_array_get_pos(&sa, i); }
};

TEST_F(Aliasing, InputInTheDestinationsOwnStorage)
{
    struct Row {
        const char *operation;
        std::function<std::string()> run;
        std::string want;
    };
    const Row rows[] = {
        {"tn_array_catn(1 2 3, its own 1 2)", [&] { numbers_full({1, 2, 3}); tn_array_catn(&n, number(0), 2); return text(n); }, "1 2 3 1 2"},
        {"tn_array_insertn(1 2 3, its own 2 3, at 0)", [&] { numbers_full({1, 2, 3}); tn_array_insertn(&n, number(1), 2, 0); return text(n); }, "2 3 1 2 3"},
        {"tn_array_insertn(1 2 3, its own 3, at 0), in place", [&] { numbers_full({1, 2, 3}, 4); tn_array_insertn(&n, number(2), 1, 0); return text(n); }, "3 1 2 3"},
        {"tn_array_insertn(1 2 3, its own 2 3, at 2), in place", [&] { numbers_full({1, 2, 3}, 4); tn_array_insertn(&n, number(1), 2, 2); return text(n); }, "1 2 2 3 3"},
        {"tn_array_cat(1 2 3, itself)", [&] { numbers_full({1, 2, 3}); tn_array_cat(&n, &n); return text(n); }, "1 2 3 1 2 3"},
        {"tn_array_insert(1 2 3, itself, at 1)", [&] { numbers_full({1, 2, 3}); tn_array_insert(&n, &n, 1); return text(n); }, "1 1 2 3 2 3"},
        {"tn_array_insert(1 2 3, itself, at 1), in place", [&] { numbers_full({1, 2, 3}, 4); tn_array_insert(&n, &n, 1); return text(n); }, "1 1 2 3 2 3"},
        {"tn_array_inserto_in_sort(1 2 3, its own 2)", [&] { numbers_full({1, 2, 3}); tn_array_inserto_in_sort(&n, number(1), by_bytes, nullptr); return text(n); }, "1 2 2 3"},
        {"tn_uchar_array_cats(ab~, its own ab)", [&] { full(&ca, {"ab", 3}); tn_uchar_array_cats(&ca, chars()); return text(ca); }, "ab~ab"},
        {"tn_uchar_array_cats0(ab~, its own ab)", [&] { full(&ca, {"ab", 3}); tn_uchar_array_cats0(&ca, chars()); return text(ca); }, "ab~ab~"},
        {"tn_uchar_array_catn0(ab~, its own b, 1)", [&] { full(&ca, {"ab", 3}); tn_uchar_array_catn0(&ca, chars() + 1, 1); return text(ca); }, "ab~b~"},
        {"tn_uchar_array_copyn(abc, its own bc, 2)", [&] { full(&ca, "abc"); tn_uchar_array_copyn(&ca, chars() + 1, 2); return text(ca); }, "bc"},
        {"tn_uchar_array_copyn0(abc, its own bc, 2)", [&] { full(&ca, "abc"); tn_uchar_array_copyn0(&ca, chars() + 1, 2); return text(ca); }, "bc~"},
        {"tn_uchar_array_copys(abc~, its own bc)", [&] { full(&ca, {"abc", 4}); tn_uchar_array_copys(&ca, chars() + 1); return text(ca); }, "bc"},
        {"tn_uchar_array_copys0(ab~, its own b)", [&] { full(&ca, {"ab", 3}); tn_uchar_array_copys0(&ca, chars() + 1); return text(ca); }, "b~"},
        {"tn_uchar_array_copy(ab, itself)", [&] { full(&ca, "ab"); tn_uchar_array_copy(&ca, &ca); return text(ca); }, "ab"},
        {"tn_wchar_array_cats(ab~, its own ab)", [&] { full(&wa, {"ab", 3}); tn_wchar_array_cats(&wa, wide()); return text(wa); }, "ab~ab"},
        {"tn_wchar_array_cats0(ab~, its own b)", [&] { full(&wa, {"ab", 3}); tn_wchar_array_cats0(&wa, wide() + 1); return text(wa); }, "ab~b~"},
        {"tn_wchar_array_catn0(ab, its own ab, 2)", [&] { full(&wa, "ab"); tn_wchar_array_catn0(&wa, wide(), 2); return text(wa); }, "abab~"},
        {"tn_utf8_cat_to_wcs(ab, its own 4 bytes)", [&] { full(&wa, "ab"); tn_utf8_cat_to_wcs(reinterpret_cast<tn_uchar *>(wide()), 4, &wa); return text(wa); }, "aba~b~"},
        {"tn_utf8_cat_from_wcs(a~b~, its own 2 units)", [&] { full(&ca, {"a\0b\0", 4}); tn_utf8_cat_from_wcs(reinterpret_cast<tn_wchar *>(chars()), 2, &ca); return text(ca); }, "a~b~ab"},
        {"tn_csv_cat(x~, its own x)", [&] { full(&ca, {"x", 2}); tn_csv_cat(&ca, chars()); return text(ca); }, "x~x,"},
        {"tn_csv_make2(a~b~, its own b and a)", [&] { full(&ca, {"a\0b", 4}); const tn_uchar *v[] = {chars() + 2, chars()}; tn_csv_make2(v, 2, &ca); return text(ca); }, "b,a"},
        {"tn_csv_make2(failed a~b~, its own b)", [&] { full(&ca, {"a\0b", 4}); tn_array_fail(&ca); const tn_uchar *v[] = {chars() + 2}; tn_csv_make2(v, 1, &ca); return text(ca); }, "failed"},
        {"tn_str_array_cato(ab|cd, its own ab)", [&] { strings_full(&sa, {"ab", "cd"}); tn_str_array_cato(&sa, at(0)); return joined(sa); }, "ab|cd|ab"},
        {"tn_str_array_caton(ab|cd, its own d)", [&] { strings_full(&sa, {"ab", "cd"}); tn_str_array_caton(&sa, at(1) + 1, 1); return joined(sa); }, "ab|cd|d"},
        {"tn_str_array_inserto(ab|cd, its own cd, at 0)", [&] { strings_full(&sa, {"ab", "cd"}); tn_str_array_inserto(&sa, at(1), 0); return joined(sa); }, "cd|ab|cd"},
        {"tn_str_array_inserton(ab|cd, its own a, at 1)", [&] { strings_full(&sa, {"ab", "cd"}); tn_str_array_inserton(&sa, at(0), 1, 1); return joined(sa); }, "ab|a|cd"},
        {"tn_str_array_cat(ab|cd, itself)", [&] { strings_full(&sa, {"ab", "cd"}); tn_str_array_cat(&sa, &sa); return joined(sa); }, "ab|cd|ab|cd"},
        {"tn_str_array_catn(ab|cd, itself, 1)", [&] { strings_full(&sa, {"ab", "cd"}); tn_str_array_catn(&sa, &sa, 1); return joined(sa); }, "ab|cd|ab"},
        {"tn_str_array_copy(ab|cd, itself)", [&] { strings_full(&sa, {"ab", "cd"}); tn_str_array_copy(&sa, &sa); return joined(sa); }, "ab|cd"},
        {"tn_str_array_copyn(ab|cd, itself, 1)", [&] { strings_full(&sa, {"ab", "cd"}); tn_str_array_copyn(&sa, &sa, 1); return joined(sa); }, "ab"},
        {"tn_str_array_insert(ab|cd, itself, at 1)", [&] { strings_full(&sa, {"ab", "cd"}); tn_str_array_insert(&sa, &sa, 1); return joined(sa); }, "ab|ab|cd|cd"},
        {"tn_str_array_insertn(ab|cd, itself, 1, at 1)", [&] { strings_full(&sa, {"ab", "cd"}); tn_str_array_insertn(&sa, &sa, 1, 1); return joined(sa); }, "ab|ab|cd"},
        {"tn_param_set(a=1 b=2, a, its own 2)", [&] { strings_full(&sa, {"a", "1", "b", "2"}); tn_param_set(&sa, u("a"), at(3)); return joined(sa); }, "a|2|b|2"},
        {"tn_param_set(a=1 b=2, c, its own 1)", [&] { strings_full(&sa, {"a", "1", "b", "2"}); tn_param_set(&sa, u("c"), at(1)); return joined(sa); }, "a|1|b|2|c|1"},
        {"tn_multiparam_set(a=1 b=2, c, its own b)", [&] { strings_full(&sa, {"a", "1", "b", "2"}); tn_multiparam_set(&sa, u("c"), at(2)); return joined(sa); }, "a|1|b|2|c|b"},
        {"tn_multiparam_remove_by_name(a=1 a=2 b=3, its own second a)", [&] { strings_full(&sa, {"a", "1", "a", "2", "b", "3"}); tn_multiparam_remove_by_name(&sa, at(2)); return joined(sa); }, "b|3"},
        {"tn_multiparam_remove_by_value(a=1 b=1 c=2, its own second 1)", [&] { strings_full(&sa, {"a", "1", "b", "1", "c", "2"}); tn_multiparam_remove_by_value(&sa, at(3)); return joined(sa); }, "c|2"},
        {"tn_multiparam_get_value_list_by_name(a=1 b=2 a=3, out's own a)", [&] { strings_full(&sa, {"a", "1", "b", "2", "a", "3"}); strings_full(&sb, {"a"}); tn_multiparam_get_value_list_by_name(&sa, tn_str_array_get_pos(&sb, 0), &sb); return joined(sb); }, "1|3"},
        {"tn_multiparam_get_name_list(a=1 b=2, into itself)", [&] { strings_full(&sa, {"a", "1", "b", "2"}); tn_multiparam_get_name_list(&sa, &sa); return joined(sa); }, "a|b"},
    };
    for (const Row &row : rows) {
        reset();
        EXPECT_EQ(row.run(), row.want) << row.operation;
    }
}

} // namespace
