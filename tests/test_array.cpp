// The array and its typed views against exact growth, the failure frame, allocation failure and reference models.
#include <tarnel_util/tn_alloc.h>
#include <tarnel_util/tn_array.h>

#include "tn_test_alloc.h"

#include <gtest/gtest.h>
#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <pthread.h>
#include <random>
#include <tuple>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;
class ArrayTest : public tn_test::AllocTest {};
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
        if (!fake) { EXPECT_TRUE(std::equal(prior.begin(), prior.end(), a.data + (ok && r.how == INS) * more.size())); }
        if (served) { EXPECT_EQ(std::count(a.data + a.length, a.data + a.capacity, 0x11), 0) << "spare bytes moved"; }
        tn_array_free(&a);
    }
}

enum { LIVE, EMPTY, FAILED, OOM }; // OOM: live, with the first allocation refused

// Rows: start (live and failed arrays hold 10, 20, 30), call, result, flag after; the bytes never change.
TEST_F(ArrayTest, FailureFrameTable)
{
    tn_uint32 vals[] = {10, 20, 30}, odd[] = {10, 20, 30 + (1u << 24)}, es = 4; // odd differs in the last byte
    tn_array a, src = make(4), big = make(4), none = make(4), bad = make(4);
    ASSERT_TRUE(tn_array_catn(&src, vals, 3) && tn_array_catn(&bad, odd, 3));
    ASSERT_TRUE(tn_array_catn(&big, Bytes(400).data(), 100));
    tn_array_fail(&bad);
    auto row = [&](int start, const char *what, const std::function<tn_int64()> &op, tn_int64 result, bool flag) {
        SCOPED_TRACE(what);
        a = make(4);
        if (start != EMPTY) { EXPECT_TRUE(tn_array_catn(&a, vals, 3)); }
        if (start == FAILED) tn_array_fail(&a);
        const auto before = std::tuple(a.data, a.capacity, raw(a));
        tn_test::fail_nth_allocation(start == OOM); // 0 disarms
        const tn_int64 got = op();
        EXPECT_EQ(std::tuple(got, tn_test::allocations(), a.failed != 0), std::tuple(result, start == OOM, flag));
        EXPECT_EQ(std::tuple(a.data, a.capacity, raw(a)), before);
        tn_array_free(&a);
    };
#define ROW(start, call, result, flag) row(start, #call, [&]() -> tn_int64 { return tn_array_##call; }, result, flag)
    const tn_comparator cmp = [](const void *key, const void *element, void *) -> tn_int32 { // the key comes first
        return *static_cast<const tn_uint32 *>(key) != *static_cast<const tn_uint32 *>(element) + 10;
    };
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
    for (tn_array *s : {&src, &big, &bad}) tn_array_free(s);
    // Each allocation refused in turn: reported, no leak; refused growth sets the flag, a refused sort does not.
    EXPECT_GE(tn_test::sweep_alloc_failures([] {
        tn_array t = make(4), s = make(4);
        tn_uint32 size = 4, i = 0;
        while (i < 300 && tn_array_catn(&t, &i, 1) && (i % 37 || tn_array_insertn(&t, &i, 1, i / 2))) ++i;
        const bool ok = i == 300 && tn_array_catn(&s, t.data, 64) && tn_array_cat(&t, &s) && tn_array_insert(&t, &s, 5);
        const bool sorted = ok && tn_array_sort(&t, tn_array_comparator_default, &size);
        EXPECT_EQ(t.failed || s.failed, !ok);
        EXPECT_TRUE(!sorted || tn_array_length(&t) == 300u + 9u + 128u);
        tn_array_free(&t), tn_array_free(&s);
        return sorted;
    }), 10);
}

// Only keys are compared, so serials show where equal keys went; each call logs both elements, in order.
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
        if (i < j) continue;
        std::swap(v[i], v[high]);
        return reference_sort(v, low, i - 1, log), reference_sort(v, i + 1, high, log);
    }
}

// Three of each size to 40, then 257 and 1000; keys mostly distinct, mostly equal, sorted, reversed, all equal.
TEST_F(ArrayTest, SortAndSortedInsertionMakeExactlyTheReferenceCalls)
{
    std::mt19937 rng(12345);
    for (tn_uint32 round = 0; round < 625 && !HasFailure(); ++round) {
        const tn_uint32 shape = round % 5, n = round < 615 ? round / 15 : round < 620 ? 257 : 1000;
        std::vector<tn_uint32> keys(n);
        std::vector<Item> input(n), sorted, inserted;
        for (tn_uint32 i = 0, r = 0; i < n; ++i, r = tn_uint32(rng()))
            input[i] = {keys[i] = std::array<tn_uint32, 5>{r % 1000, r % 3, i, n - i, 5}[shape], i};
        SCOPED_TRACE(testing::Message() << "keys " << testing::PrintToString(keys));
        tn_array a = make(sizeof(Item));
        Calls want, got, want_in, got_in;
        reference_sort(sorted = input, 0, long(n) - 1, want);
        tn_test::reset_counts();
        EXPECT_TRUE(tn_array_catn(&a, input.data(), n) && tn_array_sort(&a, logged_compare, &got));
        EXPECT_TRUE(got == want && raw(a) == flat(sorted) && tn_test::allocations() == (n > 0) + (n > 1)) << "sort";
        tn_array_truncate(&a);
        for (const Item &e : input) {
            inserted.insert(inserted.begin() + reference_insert(inserted, e, want_in), e);
            EXPECT_TRUE(tn_array_inserto_in_sort(&a, &e, logged_compare, &got_in));
        }
        EXPECT_TRUE(got_in == want_in && raw(a) == flat(inserted)) << "inserto_in_sort";
        tn_array_free(&a);
    }
}

// The model: the bytes, kept while failed, and the flag. Growing appends and inserts are refused now and then.
// Sorted input drives the last-element pivot to its worst case; plain
// recursion would go one frame per element deep and overflow this 128 KiB
// stack, while the sort keeps its pending ranges in one frame.
TEST_F(ArrayTest, SortedInputSortsOnASmallStack)
{
    static tn_array a;
    tn_array_init(&a, sizeof(tn_uint32));
    for (tn_uint32 i = 0; i < 12000; ++i) ASSERT_TRUE(tn_array_catn(&a, &i, 1));
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, 128 * 1024);
    pthread_t t;
    static tn_bool sorted;
    auto body = [](void *) -> void * {
        tn_comparator numeric = [](const void *x, const void *y, void *) -> tn_int32 {
            tn_uint32 u, v;
            std::memcpy(&u, x, 4);
            std::memcpy(&v, y, 4);
            return (u > v) - (u < v);
        };
        sorted = tn_array_sort(&a, numeric, nullptr);
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&t, &attr, body, nullptr), 0);
    pthread_join(t, nullptr);
    pthread_attr_destroy(&attr);
    EXPECT_TRUE(sorted);
    EXPECT_EQ(tn_uint32_array_get_pos(&a, 0), 0u);
    EXPECT_EQ(tn_uint32_array_get_end(&a), 11999u);
    tn_array_free(&a);
}

TEST_F(ArrayTest, RandomOperationsAgainstModel)
{
    const tn_uint32 es = 3;
    std::mt19937 rng(es);
    auto pick = [&](tn_uint32 n) { return std::uniform_int_distribution<tn_uint32>(0, n)(rng); };
    tn_array a = make(es);
    Bytes model;
    bool failed = false, ok;
    for (int step = 0; step < 10000 && !HasFailure(); ++step) {
        const tn_uint32 n = tn_uint32(model.size()) / es, capacity = a.capacity, op = pick(5), pos = pick(n + 1);
        Bytes e((op <= 1 ? (pick(3) ? pick(12) : pick(200)) : 1) * es);
        for (auto &x : e) x = static_cast<unsigned char>(pick(255));
        const tn_uint32 count = tn_uint32(e.size()) / es, at = op ? pos : n;
        const tn_array from = {e.data(), es, tn_uint32(e.size()), tn_uint32(e.size()), 0};
        SCOPED_TRACE(testing::Message() << "step " << step << ", op " << op << ", " << count << " at " << pos);
        bool grows = op <= 1 && count && !failed && at <= n && model.size() + e.size() > capacity;
        tn_test::fail_nth_allocation(grows && pick(6) == 0);
        switch (op) {
        case 0: case 1: // append, insert: through cat and insert, which take catn and insertn
            ok = op ? tn_array_insert(&a, &from, at) : tn_array_cat(&a, &from);
            EXPECT_EQ(tn_test::allocations(), grows);
            failed = failed || tn_test::failure_fired(), grows = grows && !tn_test::failure_fired();
            EXPECT_EQ(ok, !count || (!failed && at <= n));
            if (ok) model.insert(model.begin() + at * es, e.begin(), e.end());
            break;
        case 2: // out of range sets the flag; remove_end sometimes takes the last
            ok = !failed && pos < n;
            EXPECT_EQ(pos + 1 == n && pick(1) ? tn_array_remove_end(&a) : tn_array_remove(&a, pos), ok);
            if (!(failed = !ok)) model.erase(model.begin() + pos * es, model.begin() + (pos + 1) * es);
            break;
        case 3:
            EXPECT_EQ(tn_array_seto(&a, e.data(), pos), ok = !failed && pos < n);
            if (ok) std::copy(e.begin(), e.end(), model.begin() + pos * es);
            break;
        case 4: // whatever the flag
            EXPECT_EQ(tn_array_truncate_length(&a, pos), ok = pos <= n);
            if (ok) model.resize(pos * es);
            break;
        default:
            if (failed || pick(9) == 0) tn_array_free(&a), model.clear(), failed = false;
        }
        tn_test::fail_nth_allocation(0);
        const tn_uint32 bytes = tn_uint32(model.size()), m = failed ? 0 : bytes / es, grown = capacity + capacity / 8;
        EXPECT_EQ(std::tuple(a.failed != 0, raw(a), tn_array_length(&a), tn_array_bytes(&a)),
                  std::tuple(failed, model, m, m * es));
        if (op < 5) { EXPECT_EQ(a.capacity, grows ? (std::max(grown, bytes) + 127) & ~127u : capacity); }
    }
    tn_array_free(&a);
}

// A miss, an empty and a failed array read 0; stored bytes have the high bit set, so sign or width mistakes show.
template <class T>
void check_view(T (*pos)(const tn_array *, tn_uint32), T (*end)(const tn_array *), const char *family)
{
    auto bits = [](T v) { tn_uint64 b = 0; return std::memcpy(&b, &v, sizeof v), b; };
    Bytes bytes(4 * sizeof(T));
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(0x81 + i * 3);
    tn_array a = make(sizeof(T));
    tn_uint64 misses = bits(pos(&a, 0)) | bits(end(&a)), want = 0;
    EXPECT_TRUE(tn_array_catn(&a, bytes.data(), 4));
    for (tn_uint32 p = 0; p < 4; ++p)
        EXPECT_EQ(bits(pos(&a, p)), (std::memcpy(&want, &bytes[p * sizeof(T)], sizeof(T)), want)) << family << '@' << p;
    EXPECT_EQ(bits(end(&a)), want) << family;
    misses |= bits(pos(&a, 4)) | bits(pos(&a, 0xFFFFFFFFu));
    tn_array_fail(&a);
    EXPECT_EQ(misses | bits(pos(&a, 0)) | bits(end(&a)), 0u) << family;
    tn_array_free(&a);
}

// tn_uint32 arrays order by stored bytes over the element size (here 256 sorts before 1). Pointer arrays work on
// values: find2 gets the stored pointer, cato takes as many low bytes as the element has, then zeros.
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
    char first[] = "abc", second[] = "abc", third[] = "xyz";
    tn_array a = make(sizeof(void *)), c = make(1), w = make(2);
    ASSERT_TRUE(tn_ptr_array_cato(&a, first) && tn_ptr_array_cato(&a, second) && tn_ptr_array_cat0(&a));
    ASSERT_TRUE(tn_ptr_array_inserto(&a, third, 3) && !tn_ptr_array_inserto(&a, third, 5)); // the length appends
    EXPECT_EQ(std::tuple(tn_ptr_array_find(&a, second), tn_ptr_array_find(&a, nullptr), tn_ptr_array_get_end(&a)),
              std::tuple(1u, 2u, static_cast<void *>(third)));
    const tn_comparator compare = [](const void *key, const void *element, void *seen) -> tn_int32 {
        static_cast<std::vector<const void *> *>(seen)->push_back(element);
        return element ? std::strcmp(static_cast<const char *>(key), static_cast<const char *>(element)) : 1;
    };
    std::vector<const void *> seen;
    EXPECT_EQ(tn_ptr_array_find2(&a, "xyz", compare, &seen), 3u);
    EXPECT_EQ((tn_array_fail(&a), tn_ptr_array_find2(&a, "abc", compare, &seen)), 0u) << "failed";
    EXPECT_EQ(seen, (std::vector<const void *>{first, second, nullptr, third}));
    tn_array_free(&a);
    const void *value = reinterpret_cast<const void *>(tn_uintptr(0x1122334455667788ull));
    const Bytes low = {0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 0, 0, 0, 0};
    for (tn_uint32 size : {1u, 2u, 4u, 8u, 12u}) {
        a = make(size);
        ASSERT_TRUE(tn_ptr_array_cato(&a, value) && tn_ptr_array_inserto(&a, value, 0) && tn_ptr_array_cat0(&a));
        Bytes want(3 * size);
        for (tn_uint32 i = 0; i < 2 * size; ++i) want[i] = low[i % size];
        EXPECT_EQ(std::pair(raw(a), tn_ptr_array_find(&a, value)), std::pair(want, 0u)) << "size " << size;
        tn_array_free(&a);
    }
    ASSERT_TRUE(tn_uchar_array_cato(&c, 0xAB) && tn_wchar_array_cato(&c, 0xBEEF) && tn_uchar_array_cato(&w, 0xCD));
    EXPECT_EQ(std::pair(raw(c), raw(w)), std::pair(Bytes{0xAB, 0xEF}, Bytes{0xCD, 0x00}));
    tn_array_free(&c), tn_array_free(&w);
}

} // namespace
