#include <tarnel_util/tn_alloc.h>
#include <tarnel_util/tn_array.h>
#include <tarnel_util/tn_thread.h>
#include "support/alloc.h"
#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <tuple>
#include <vector>

namespace {
using Bytes = std::vector<unsigned char>;
using ArrayTest = tn_test::AllocTest;
tn_array make(tn_uint32 size) { tn_array a; return tn_array_init(&a, size), a; }
Bytes raw(const tn_array &a) { return a.length ? Bytes(a.data, a.data + a.length) : Bytes(); }
template <class T>
Bytes flat(const std::vector<T> &v) { return raw({(tn_uchar *)v.data(), 1, 0, tn_uint32(v.size() * sizeof(T)), 0}); }
std::vector<tn_uint32> asked;
enum { CAT, INS, ALLOC, ALIGN }; // catn, insertn at 0, allocate, allocate_align
// Element size, elements held (above 1 MiB: faked), call, count, the one request made (0: none), the result.
TEST_F(ArrayTest, GrowthAsksExactlyByTheRule)
{
    const struct { tn_uint32 size, prior, how, count, request; bool ok; } rows[] = {
        {1, 0, CAT, 1, 128, 1}, {1, 0, CAT, 129, 256, 1}, {1, 1024, CAT, 1, 1152, 1}, {1, 1024, CAT, 200, 1280, 1},
        {1, 100, CAT, 28, 0, 1}, {8, 0, CAT, 1, 128, 1}, {1, 128, INS, 1, 256, 1}, {4, 0, ALLOC, 0, 0, 0},
        {1, 100, ALLOC, 0, 0, 1}, {4, 25, ALLOC, 40, 160, 1}, {1, 100, ALLOC, 129, 144, 1}, {7, 0, ALIGN, 1, 128, 1},
        {8, 0, ALIGN, 1, 4096, 1}, {1, 100, ALIGN, 129, 256, 1}, {8, 512, ALIGN, 513, 8192, 1},
        {1, 1, ALIGN, 0xFFFFFF81u, 0, 0}, {8, 1, ALIGN, 0x1FFFFFFFu, 0, 0}, {8, 1, ALIGN, 0x1FFFFE00u, 0xFFFFF000u, 0},
        {1, 1, ALIGN, 0xFFFFFF80u, 0xFFFFFF80u, 0}, {4, 1, ALLOC, 1u << 30, 0, 0}, {65536, 1, ALIGN, 65536, 0, 0},
        {1, 0xFFFFFF00u, CAT, 256, 0, 0}, {1, 0xFFFFFF00u, CAT, 129, 0, 0}, {1, 0xFFFFFF00u, CAT, 128, 0xFFFFFF80u, 0},
        {1, 0xF0000000u, CAT, 1, 0xF0000080u, 0}, {1, 0x80000000u, CAT, 1, 0x90000000u, 0}};
    tn_alloc_set_alloc_handler(
        [](tn_uint32 n) { return asked.push_back(n), n > 1u << 20 ? nullptr : std::memset(std::malloc(n), 0xA5, n); });
    tn_alloc_set_free_handler(std::free);
    for (const auto &r : rows) {
        SCOPED_TRACE(testing::Message() << r.size << "B, " << r.prior << " held, call " << r.how << ", " << r.count);
        const bool fake = r.prior > (1u << 20), served = r.request && r.request <= (1u << 20);
        const Bytes prior(fake ? 16 : r.size * r.prior, 0x3C), more(r.how <= INS ? r.size * r.count : 0, 0x5D);
        tn_array a = make(r.size);
        EXPECT_TRUE(tn_array_catn(&a, prior.data(), tn_uint32(prior.size()) / r.size));
        if (a.data) std::memset(a.data + a.length, 0x11, a.capacity - a.length);
        if (fake) a.capacity = a.length = r.prior;
        const tn_array before = a;
        asked.clear();
        const bool ok = r.how == CAT ? tn_array_catn(&a, more.data(), r.count)
                      : r.how == INS ? tn_array_insertn(&a, more.data(), r.count, 0)
                      : (r.how == ALLOC ? tn_array_allocate : tn_array_allocate_align)(&a, r.count) != nullptr;
        EXPECT_EQ(std::tuple(ok, asked, a.capacity, a.data != before.data, a.failed != 0),
                  std::tuple(r.ok, std::vector<tn_uint32>(r.request != 0, r.request),
                             served ? r.request : before.capacity, served, r.how <= INS && !r.ok));
        EXPECT_TRUE(fake || std::equal(prior.begin(), prior.end(), a.data + (ok && r.how == INS) * more.size()));
        EXPECT_TRUE(!served || !std::count(a.data + a.length, a.data + a.capacity, 0x11)) << "spare bytes moved";
        tn_array_free(&a);
    }
}

// Rows: start (live and failed arrays hold 10, 20, 30), call, result, flag after; the bytes never change.
TEST_F(ArrayTest, FailureFrameTable)
{
    enum { LIVE, EMPTY, FAILED, OOM }; // OOM: live, with the first allocation refused
    tn_uint32 vals[] = {10, 20, 30}, odd[] = {10, 20, 30 + (1u << 24)}, es = 4; // odd differs in the last byte
    tn_array a, src = make(4), big = make(4), none = make(4), bad = make(4);
    ASSERT_TRUE(tn_array_catn(&src, vals, 3) && tn_array_catn(&bad, odd, 3));
    ASSERT_TRUE(tn_array_catn(&big, Bytes(400).data(), 100));
    tn_array_fail(&bad);
    auto row = [&](int start, const char *what, const std::function<tn_int64()> &op, tn_int64 result, bool flag) {
        if (a = make(4); start != EMPTY) { EXPECT_TRUE(tn_array_catn(&a, vals, 3)); }
        if (start == FAILED) tn_array_fail(&a);
        const auto before = std::tuple(a.data, a.capacity, raw(a));
        tn_test::fail_nth_allocation(start == OOM); // 0 disarms
        const tn_int64 got = op();
        EXPECT_EQ(std::tuple(got, tn_test::allocations(), !!a.failed), std::tuple(result, start == OOM, flag)) << what;
        EXPECT_EQ(std::tuple(a.data, a.capacity, raw(a)), before) << what;
        tn_array_free(&a);
        EXPECT_TRUE(!a.data && a.element_size == 4 && !a.capacity && !a.length && !a.failed) << what << ": free";
    };
#define ROW(start, call, result, flag) row(start, #call, [&]() -> tn_int64 { return tn_array_##call; }, result, flag)
    const tn_comparator cmp = [](const void *key, const void *element, void *) -> tn_int32 { // the key comes first
        return *static_cast<const tn_uint32 *>(key) != *static_cast<const tn_uint32 *>(element) + 10; };
    ROW(LIVE, remove(&a, ~0u), 0, 1), ROW(LIVE, remove(&a, 1u << 30), 0, 1), ROW(EMPTY, remove_end(&a), 0, 0);
    ROW(LIVE, seto(&a, vals, ~0u), 0, 0), ROW(LIVE, seto(&a, vals, 1u << 30), 0, 0), ROW(LIVE, find(&a, &odd[2]), 3, 0);
    ROW(LIVE, get_pos(&a, ~0u) != nullptr, 0, 0), ROW(LIVE, get_pos(&a, 1u << 30) != nullptr, 0, 0);
    ROW(LIVE, truncate_length(&a, (1u << 30) + 1), 0, 0); // wraps to 4 bytes, which would fit
    ROW(LIVE, catn(&a, vals, ~0u / 2), 0, 0), ROW(LIVE, insertn(&a, vals, ~0u / 2, 0), 0, 0);
    ROW(LIVE, cat(&a, &bad), 0, 1), ROW(LIVE, insert(&a, &bad, 0), 0, 1), ROW(LIVE, equal(&a, &bad), 0, 0);
    ROW(LIVE, find2(&a, &vals[1], cmp, &es), 0, 0), ROW(EMPTY, get_end(&a) != nullptr, 0, 0);
    ROW(OOM, catn(&a, big.data, 50), 0, 1), ROW(OOM, insertn(&a, big.data, 50, 1), 0, 1), ROW(OOM, cat(&a, &big), 0, 1);
    ROW(OOM, allocate_align(&a, 50) != nullptr, 0, 0), ROW(OOM, sort(&a, cmp, &es), 0, 0);
    ROW(FAILED, catn(&a, vals, 0), 1, 1), ROW(FAILED, insertn(&a, vals, 0, 9), 1, 1), ROW(FAILED, cat(&a, &none), 1, 1);
    ROW(FAILED, insert(&a, &none, 0), 1, 1), ROW(FAILED, cat(&a, &src), 0, 1), ROW(FAILED, insert(&a, &src, 0), 0, 1);
    ROW(FAILED, inserto_in_sort(&a, vals, cmp, &es), 0, 1), ROW(FAILED, find2(&a, &vals[2], cmp, &es), 0, 1);
    ROW(FAILED, allocate(&a, 1) != nullptr, 0, 1), ROW(FAILED, get_end(&a) != nullptr, 0, 1);
    ROW(FAILED, equal(&a, &src), 1, 1), ROW(FAILED, find(&a, &vals[2]), 0, 1), ROW(FAILED, remove_end(&a), 0, 1);
    ROW(FAILED, get(&a) == a.data && a.data, 1, 1), ROW(FAILED, sort(&a, cmp, &es), 0, 1);
    ROW(FAILED, bytes(&a), 0, 1), ROW(FAILED, truncate_length(&a, 3), 1, 1), ROW(FAILED, seto(&a, vals, 0), 0, 1);
    for (tn_array *s : {&src, &big, &bad}) tn_array_free(s);
}
// Only keys are compared, so serials (all bytes in use) show where equal keys went; each call logs both elements.
struct Item { tn_uint32 key, serial; };
using Calls = std::vector<std::array<tn_uint32, 4>>;
tn_int32 logged_compare(const void *a, const void *b, void *user)
{
    const Item &x = *static_cast<const Item *>(a), &y = *static_cast<const Item *>(b);
    static_cast<Calls *>(user)->push_back({x.key, x.serial, y.key, y.serial});
    return x.key < y.key ? -1 : x.key > y.key;
}
// The references. Search: halve until low meets high or a compare gives 0; one more compare decides.
tn_uint32 reference_insert(const std::vector<Item> &v, const Item &e, Calls &log)
{
    tn_uint32 low = 0, high = tn_uint32(v.size()) - 1, middle = 0;
    for (tn_int32 r = 0; !v.empty() && low != high; (r > 0 ? low : high) = middle)
        if ((r = logged_compare(&e, &v[middle = (low + high) / 2], &log)) == 0 || (r < 0 && high == middle) ||
            (r > 0 && low == middle && ++middle)) break;
    return v.empty() ? 0 : middle + (logged_compare(&e, &v[middle], &log) > 0);
}
// Quicksort: the last element is the pivot, and both scans stop at elements equal to it.
void reference_sort(std::vector<Item> &v, long low, long high, Calls &log)
{
    if (low >= high) return;
    const Item pivot = v[high];
    for (long i = low - 1, j = high;; std::swap(v[i], v[j])) {
        while (logged_compare(&v[++i], &pivot, &log) < 0) {}
        if (i < --j) while (logged_compare(&pivot, &v[j], &log) < 0 && i < --j) {}
        if (i >= j)
            return std::swap(v[i], v[high]), reference_sort(v, low, i - 1, log), reference_sort(v, i + 1, high, log);
    }
}

// Three of each size to 40, then 257 and 1000; keys mostly distinct, mostly equal, sorted, reversed, all equal.
// Then a third is removed from anywhere, and as many elements overwritten, against the same model.
TEST_F(ArrayTest, SortAndSortedInsertionMakeExactlyTheReferenceCalls)
{
    std::mt19937 rng(12345);
    for (tn_uint32 round = 0; round < 625 && !HasFailure(); ++round) {
        const tn_uint32 shape = round % 5, n = round < 615 ? round / 15 : round < 620 ? 257 : 1000;
        std::vector<tn_uint32> keys(n);
        std::vector<Item> input(n), sorted, inserted;
        for (tn_uint32 i = 0, r = 0; i < n; ++i, r = tn_uint32(rng()))
            input[i] = {keys[i] = std::array<tn_uint32, 5>{r % 1000, r % 3, i, n - i, 5}[shape], i * 0x9E3779B9u};
        SCOPED_TRACE(testing::Message() << "keys " << testing::PrintToString(keys));
        tn_array a = make(sizeof(Item));
        Calls want, got, want_in, got_in;
        reference_sort(sorted = input, 0, long(n) - 1, want), tn_test::reset_counts();
        EXPECT_TRUE(tn_array_catn(&a, input.data(), n) && tn_array_sort(&a, logged_compare, &got));
        EXPECT_TRUE(got == want && raw(a) == flat(sorted) && tn_test::allocations() == (n > 0) + (n > 1)) << "sort";
        tn_array_truncate(&a);
        for (const Item &e : input) {
            inserted.insert(inserted.begin() + reference_insert(inserted, e, want_in), e);
            EXPECT_TRUE(tn_array_inserto_in_sort(&a, &e, logged_compare, &got_in));
        }
        EXPECT_TRUE(got_in == want_in && raw(a) == flat(inserted)) << "inserto_in_sort";
        for (tn_uint32 i = 0; i < n / 3; ++i) { // a third removed, from anywhere, and as many overwritten
            const tn_uint32 at = tn_uint32(rng() % inserted.size()), to = tn_uint32(rng() % (inserted.size() - 1));
            EXPECT_TRUE(tn_array_remove(&a, at) && tn_array_seto(&a, &inserted[at], to)) << at << ", " << to;
            inserted[to + (to >= at)] = inserted[at], inserted.erase(inserted.begin() + at); // to: after the erase
        }
        EXPECT_EQ(raw(a), flat(inserted)) << "remove and seto";
        tn_array_free(&a);
    }
}

// Sorted input drives the last-element pivot to its worst case; plain recursion would go one frame per element deep
// and overflow this 128 KiB stack, while the sort keeps its pending ranges in one frame.
TEST_F(ArrayTest, SortedInputSortsOnASmallStack)
{
    tn_array a = make(4);
    std::vector<tn_uint32> keys(12000);
    for (tn_uint32 i = 0; i < 12000; ++i) keys[i] = __builtin_bswap32(i); // stored bytes ascend
    tn_thread t;
    ASSERT_TRUE(tn_array_catn(&a, keys.data(), 12000));
    ASSERT_TRUE(tn_thread_create(&t, 128 * 1024, [](void *p) { tn_uint32_array_sort((tn_array *)p); }, &a));
    EXPECT_TRUE(tn_thread_join(&t) && raw(a) == flat(keys));
    tn_array_free(&a);
}
// A miss, an empty and a failed array read 0; stored bytes have the high bit set, so sign or width mistakes show.
template <class T>
void check_view(T (*pos)(const tn_array *, tn_uint32), T (*end)(const tn_array *), const char *family)
{
    T want[4], zero{};
    for (size_t i = 0; i < sizeof want; ++i) reinterpret_cast<unsigned char *>(want)[i] = (unsigned char)(0x81 + i * 3);
    tn_array a = make(sizeof(T));
    EXPECT_TRUE(pos(&a, 0) == zero && end(&a) == zero && tn_array_catn(&a, want, 4) && pos(&a, 4) == zero) << family;
    EXPECT_TRUE(pos(&a, 0) == want[0] && pos(&a, 2) == want[2] && end(&a) == want[3]) << family;
    EXPECT_TRUE((tn_array_fail(&a), pos(&a, 0) == zero && end(&a) == zero)) << family << " failed";
    tn_array_free(&a);
}

// tn_uint32 arrays order by stored bytes over the element size (here 256 sorts before 1). Pointer arrays work on
// values: find2 gets the stored pointer, cato and inserto take as many low bytes as the element has, then zeros.
TEST_F(ArrayTest, TypedViews)
{
#define VIEW(f) check_view(tn_##f##_array_get_pos, tn_##f##_array_get_end, #f)
    VIEW(int8), VIEW(uint8), VIEW(uchar), VIEW(int16), VIEW(uint16), VIEW(wchar), VIEW(bool), VIEW(id32), VIEW(int32);
    VIEW(int), VIEW(uint32), VIEW(socket), VIEW(int64), VIEW(uint64), VIEW(time), VIEW(timel), VIEW(ptr);
    const tn_uint32 in[] = {2, 1, 0x0101, 65536, 256, 0x01000000, 1, 0};
    const std::vector<tn_uint32> up = {0, 0x01000000, 65536, 256, 1, 1, 0x0101, 2}, down(up.rbegin(), up.rend());
    const tn_uint64 wide[] = {0x0200000000000007ull, 0x0100000000000007ull}; // equal in their first 4 bytes
    tn_array s[5] = {make(4), make(4), make(4), make(4), make(8)}; // sort, sortr, insert, insertr, wide sortr
    ASSERT_TRUE(tn_array_catn(&s[0], in, 8) && tn_array_catn(&s[1], in, 8) && tn_array_catn(&s[4], wide, 2));
    ASSERT_TRUE(tn_uint32_array_sort(&s[0]) && tn_uint32_array_sortr(&s[1]) && tn_uint32_array_sortr(&s[4]));
    for (tn_uint32 x : in)
        ASSERT_TRUE(tn_uint32_array_inserto_in_sort(&s[2], x) && tn_uint32_array_inserto_in_sortr(&s[3], x));
    EXPECT_EQ(std::tuple(raw(s[0]), raw(s[1]), raw(s[2]), raw(s[3]), tn_uint64_array_get_pos(&s[4], 0)),
              std::tuple(flat(up), flat(down), flat(up), flat(down), wide[0]));
    for (tn_array &a : s) tn_array_free(&a);
    const tn_uint64 v = 0x1122334455667788ull, needle = 0xAB;
    const tn_comparator same = [](const void *key, const void *element, void *seen) -> tn_int32 {
        return static_cast<std::vector<const void *> *>(seen)->push_back(element), key != element; };
    for (tn_uint32 size : {1u, 2u, 4u, 8u, 12u}) { // each value's low bytes, then zeros; find2 sees them as pointers
        tn_array a = make(size);
        Bytes want;
        for (tn_uint64 x : {v, tn_uint64(0), v, needle, tn_uint64(0xBEEF)})
            for (tn_uint32 i = 0; i < size; ++i) want.push_back(i < 8 ? tn_uchar(x >> 8 * i) : 0);
        void *value = reinterpret_cast<void *>(v), *low = nullptr; // low: what the first element holds
        std::memcpy(&low, want.data(), size < 8 ? size : 8);
        ASSERT_TRUE(tn_ptr_array_cato(&a, value) && tn_ptr_array_cat0(&a) && tn_ptr_array_inserto(&a, value, 2));
        ASSERT_TRUE(tn_uchar_array_cato(&a, 0xAB) && tn_wchar_array_cato(&a, 0xBEEF));
        std::vector<const void *> seen;
        EXPECT_EQ(std::tuple(raw(a), tn_ptr_array_find(&a, value), tn_ptr_array_find(&a, nullptr),
                             tn_ptr_array_find2(&a, (void *)needle, same, &seen), tn_ptr_array_inserto(&a, value, 6)),
                  std::tuple(want, 0u, 1u, 3u, 0)) << "size " << size;
        EXPECT_EQ((tn_array_fail(&a), tn_ptr_array_find2(&a, low, same, &seen)), 0u) << "failed, size " << size;
        EXPECT_EQ(seen, (std::vector<const void *>{low, nullptr, low, (void *)needle})) << "size " << size;
        tn_array_free(&a);
    }
}
} // namespace

namespace {

// Every count divides by the element size, and a source is read in its own
// element size: an array without one, and a source of another size, are
// refused with 0 instead of dividing by zero or reading the wrong span.
TEST_F(ArrayTest, SizelessArraysAndSourcesOfAnotherSizeAreRefused)
{
    const tn_uint32 three[] = {1, 2, 3}, key = 2;
    tn_array none = make(0);
    for (const char *when : {"after init", "after free"}) {
        SCOPED_TRACE(when);
        EXPECT_TRUE(tn_array_failed(&none) && !tn_array_catn(&none, three, 1) && !tn_array_insertn(&none, three, 1, 0));
        EXPECT_TRUE(!tn_array_length(&none) && !tn_array_bytes(&none) && !tn_array_find(&none, &key));
        EXPECT_TRUE(!tn_array_get_pos(&none, 0) && !tn_array_get_end(&none) && !tn_array_allocate(&none, 1));
        EXPECT_TRUE(!tn_array_remove_end(&none) && !tn_array_sort(&none, tn_array_comparator_default, &none.element_size));
        EXPECT_TRUE(!tn_array_inserto_in_sort(&none, &key, tn_array_comparator_default, &none.element_size) && none.length == 0);
        tn_array_free(&none);
    }
    const struct { const char *call; tn_uint32 destination, source; bool insert; } rows[] = {
        {"cat 4-byte elements after 2-byte ones", 2, 4, false}, {"cat 2-byte elements after 4-byte ones", 4, 2, false},
        {"insert 2-byte elements among 4-byte ones", 4, 2, true}, {"cat from a sizeless array", 4, 0, false},
    };
    for (const auto &row : rows) {
        tn_array d = make(row.destination), s = make(row.source);
        tn_array_catn(&d, three, 2), tn_array_catn(&s, three, 1);
        const Bytes before = raw(d);
        EXPECT_FALSE(row.insert ? tn_array_insert(&d, &s, 0) : tn_array_cat(&d, &s)) << row.call;
        EXPECT_EQ(raw(d), before) << row.call << ": the destination changed";
        tn_array_free(&d), tn_array_free(&s);
    }
}

} // namespace
