// The typed views over tn_array: by-value accessors of every width, byte-order
// sorting of tn_uint32 arrays, and the value operations of pointer arrays.
#include <tarnel_util/tn_array.h>

#include "tn_test_alloc.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

class TypedArrayTest : public tn_test::AllocTest {};

// The bytes of a returned value, as the low bytes of a tn_uint64.
template <class T>
tn_uint64 bits(T v)
{
    tn_uint64 b = 0;
    std::memcpy(&b, &v, sizeof v);
    return b;
}

struct View {
    const char *family;
    tn_uint32 width;
    tn_uint64 (*get_pos)(const tn_array *, tn_uint32);
    tn_uint64 (*get_end)(const tn_array *);
};

#define VIEW(f, width)                                                                             \
    View{#f, width, [](const tn_array *a, tn_uint32 p) { return bits(tn_##f##_array_get_pos(a, p)); }, \
         [](const tn_array *a) { return bits(tn_##f##_array_get_end(a)); }}

const View views[] = {
    VIEW(int8, 1),   VIEW(uint8, 1),  VIEW(uchar, 1),  VIEW(int16, 2),  VIEW(uint16, 2),
    VIEW(wchar, 2),  VIEW(bool, 4),   VIEW(id32, 4),   VIEW(int32, 4),  VIEW(int, 4),
    VIEW(uint32, 4), VIEW(socket, 4), VIEW(int64, 8),  VIEW(uint64, 8), VIEW(time, 8),
    VIEW(timel, 8),  VIEW(ptr, sizeof(void *)),
};

TEST_F(TypedArrayTest, GetPosAndGetEndByValueForEveryWidth)
{
    for (const View &v : views) {
        SCOPED_TRACE(v.family);
        tn_array a;
        tn_array_init(&a, v.width);
        EXPECT_EQ(v.get_pos(&a, 0), 0u) << "unallocated";
        EXPECT_EQ(v.get_end(&a), 0u) << "unallocated";
        // High bits set in every byte, so a sign or width mistake shows.
        std::vector<tn_uchar> bytes(4 * v.width);
        for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<tn_uchar>(0x81 + i * 3);
        ASSERT_TRUE(tn_array_catn(&a, bytes.data(), 4));
        tn_uint64 want = 0;
        for (tn_uint32 p = 0; p < 4; ++p) {
            std::memcpy(&want, &bytes[p * v.width], v.width);
            EXPECT_EQ(v.get_pos(&a, p), want) << "position " << p;
        }
        EXPECT_EQ(v.get_end(&a), want);
        EXPECT_EQ(v.get_pos(&a, 4), 0u);
        EXPECT_EQ(v.get_pos(&a, 0xFFFFFFFFu), 0u);
        tn_array_fail(&a);
        EXPECT_EQ(v.get_pos(&a, 0), 0u) << "failed";
        EXPECT_EQ(v.get_end(&a), 0u) << "failed";
        tn_array_free(&a);
        ASSERT_TRUE(tn_array_catn(&a, bytes.data(), 1));
        tn_array_truncate(&a);
        EXPECT_EQ(v.get_pos(&a, 0), 0u) << "emptied";
        EXPECT_EQ(v.get_end(&a), 0u) << "emptied";
        tn_array_free(&a);
    }
}

// ---- tn_uint32 arrays ------------------------------------------------------------

std::vector<tn_uint32> contents(const tn_array &a)
{
    std::vector<tn_uint32> v(a.length / 4);
    if (!v.empty()) std::memcpy(v.data(), a.data, a.length);
    return v;
}

TEST_F(TypedArrayTest, Uint32OrderIsStoredByteOrder)
{
    tn_array a, b;
    tn_array_init(&a, 4);
    tn_array_init(&b, 4);
    const tn_uint32 pair[] = {1, 256};
    ASSERT_TRUE(tn_array_catn(&a, pair, 2));
    ASSERT_TRUE(tn_uint32_array_sort(&a));
    EXPECT_EQ(contents(a), (std::vector<tn_uint32>{256, 1}));
    ASSERT_TRUE(tn_uint32_array_sortr(&a));
    EXPECT_EQ(contents(a), (std::vector<tn_uint32>{1, 256}));
    tn_array_free(&a);

    std::mt19937 rng(99);
    std::vector<tn_uint32> values(700);
    for (auto &x : values) x = rng() % 3 == 0 ? tn_uint32(rng() % 5) << (8 * (rng() % 4)) : tn_uint32(rng());
    std::vector<tn_uint32> up = values;
    std::sort(up.begin(), up.end(), [](tn_uint32 x, tn_uint32 y) { return std::memcmp(&x, &y, 4) < 0; });
    const std::vector<tn_uint32> down(up.rbegin(), up.rend());
    ASSERT_TRUE(tn_array_catn(&a, values.data(), 700));
    ASSERT_TRUE(tn_uint32_array_sort(&a));
    EXPECT_EQ(contents(a), up);
    ASSERT_TRUE(tn_uint32_array_sortr(&a));
    EXPECT_EQ(contents(a), down);
    tn_array_free(&a);
    for (tn_uint32 x : values) {
        ASSERT_TRUE(tn_uint32_array_inserto_in_sort(&a, x));
        ASSERT_TRUE(tn_uint32_array_inserto_in_sortr(&b, x));
    }
    EXPECT_EQ(contents(a), up);
    EXPECT_EQ(contents(b), down);
    tn_array_fail(&a);
    EXPECT_FALSE(tn_uint32_array_sort(&a));
    EXPECT_FALSE(tn_uint32_array_inserto_in_sort(&a, 3));
    EXPECT_EQ(a.length, 2800u);
    tn_array_free(&a);
    tn_array_free(&b);

    // The comparator's byte count is the array's element size, not 4.
    tn_array_init(&a, 8);
    const tn_uint64 wide[] = {0x0200000000000007ull, 0x0100000000000007ull};
    ASSERT_TRUE(tn_array_catn(&a, wide, 2));
    ASSERT_TRUE(tn_uint32_array_sortr(&a));
    EXPECT_EQ(tn_uint64_array_get_pos(&a, 0), wide[0]);
    ASSERT_TRUE(tn_uint32_array_sort(&a));
    EXPECT_EQ(tn_uint64_array_get_pos(&a, 0), wide[1]);
    tn_array_free(&a);
}

// ---- Pointer arrays ----------------------------------------------------------------

struct Seen {
    std::vector<const void *> elements;
};

tn_int32 compare_strings(const void *key, const void *element, void *user)
{
    static_cast<Seen *>(user)->elements.push_back(element);
    return element ? std::strcmp(static_cast<const char *>(key), static_cast<const char *>(element)) : 1;
}

TEST_F(TypedArrayTest, PointerArrayWorksOnPointerValues)
{
    char first[] = "abc", second[] = "abc", third[] = "xyz";
    tn_array a;
    tn_array_init(&a, sizeof(void *));
    ASSERT_TRUE(tn_ptr_array_cato(&a, first));
    ASSERT_TRUE(tn_ptr_array_cato(&a, second));
    ASSERT_TRUE(tn_ptr_array_cat0(&a));
    ASSERT_EQ(tn_array_length(&a), 3u);
    EXPECT_EQ(tn_ptr_array_get_pos(&a, 0), first);
    EXPECT_EQ(tn_ptr_array_get_pos(&a, 2), nullptr);
    EXPECT_EQ(tn_ptr_array_get_end(&a), nullptr);

    // find compares the pointers: equal text elsewhere is another value.
    EXPECT_EQ(tn_ptr_array_find(&a, second), 1u);
    EXPECT_EQ(tn_ptr_array_find(&a, nullptr), 2u);
    EXPECT_EQ(tn_ptr_array_find(&a, third), 3u);

    // find2 hands the comparator the stored pointer itself.
    Seen seen;
    EXPECT_EQ(tn_ptr_array_find2(&a, "abc", compare_strings, &seen), 0u);
    EXPECT_EQ(seen.elements, (std::vector<const void *>{first}));
    seen.elements.clear();
    EXPECT_EQ(tn_ptr_array_find2(&a, "xyz", compare_strings, &seen), 3u);
    EXPECT_EQ(seen.elements, (std::vector<const void *>{first, second, nullptr}));

    ASSERT_TRUE(tn_ptr_array_inserto(&a, third, 0));
    ASSERT_TRUE(tn_ptr_array_inserto(&a, third, 4)); // the length: appends
    EXPECT_FALSE(tn_ptr_array_inserto(&a, third, 6));
    EXPECT_FALSE(tn_array_failed(&a));
    EXPECT_EQ(tn_array_length(&a), 5u);
    EXPECT_EQ(tn_ptr_array_get_pos(&a, 1), first);
    EXPECT_EQ(tn_ptr_array_get_end(&a), third);

    const tn_array before = a;
    tn_array_fail(&a);
    seen.elements.clear();
    EXPECT_EQ(tn_ptr_array_find2(&a, "abc", compare_strings, &seen), 0u);
    EXPECT_TRUE(seen.elements.empty());
    EXPECT_EQ(tn_ptr_array_find(&a, third), 0u);
    EXPECT_FALSE(tn_ptr_array_cato(&a, first));
    EXPECT_FALSE(tn_ptr_array_cat0(&a));
    EXPECT_FALSE(tn_ptr_array_inserto(&a, first, 0));
    EXPECT_EQ(a.length, before.length);
    EXPECT_EQ(a.data, before.data);
    tn_array_free(&a);

    tn_test::fail_nth_allocation(1);
    EXPECT_FALSE(tn_ptr_array_cato(&a, first));
    EXPECT_TRUE(tn_array_failed(&a));
    tn_array_free(&a);
}

TEST_F(TypedArrayTest, ValueAppendsTakeTheLowBytes)
{
    const void *value = reinterpret_cast<const void *>(static_cast<uintptr_t>(0x1122334455667788ull));
    struct Case {
        tn_uint32 size;
        std::vector<tn_uchar> want;
    } cases[] = {
        {1, {0x88}},
        {2, {0x88, 0x77}},
        {4, {0x88, 0x77, 0x66, 0x55}},
        {8, {0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11}},
        {12, {0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 0, 0, 0, 0}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE("element size " + std::to_string(c.size));
        tn_array a;
        tn_array_init(&a, c.size);
        ASSERT_TRUE(tn_ptr_array_cato(&a, value));
        ASSERT_TRUE(tn_ptr_array_inserto(&a, value, 0));
        ASSERT_TRUE(tn_ptr_array_cat0(&a));
        std::vector<tn_uchar> want = c.want;
        want.insert(want.end(), c.want.begin(), c.want.end());
        want.resize(want.size() + c.size, 0);
        EXPECT_EQ(std::vector<tn_uchar>(a.data, a.data + a.length), want);
        EXPECT_EQ(tn_ptr_array_find(&a, value), 0u);
        tn_array_free(&a);
    }

    tn_array s, w;
    tn_array_init(&s, 1);
    tn_array_init(&w, 2);
    ASSERT_TRUE(tn_uchar_array_cato(&s, 0xAB));
    ASSERT_TRUE(tn_uchar_array_cato(&s, 0x00));
    ASSERT_TRUE(tn_wchar_array_cato(&s, 0xBEEF)); // the array's size rules: one byte
    ASSERT_TRUE(tn_wchar_array_cato(&w, 0xBEEF));
    ASSERT_TRUE(tn_uchar_array_cato(&w, 0xCD));
    EXPECT_EQ(std::vector<tn_uchar>(s.data, s.data + s.length), (std::vector<tn_uchar>{0xAB, 0x00, 0xEF}));
    EXPECT_EQ(tn_uchar_array_get_end(&s), 0xEF);
    EXPECT_EQ(tn_wchar_array_get_pos(&w, 0), 0xBEEF);
    EXPECT_EQ(tn_wchar_array_get_end(&w), 0x00CD);
    tn_array_free(&s);
    tn_array_free(&w);
}

} // namespace
