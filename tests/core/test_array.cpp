#include <tarnel_util/tn_alloc.h>
#include <tarnel_util/tn_array.h>
#include <tarnel_util/tn_thread.h>
#include "support/alloc.h"
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

namespace {
using Bytes = std::vector<unsigned char>;
using ArrayTest = tn_test::AllocTest;

tn_array make(tn_uint32 element_size) { tn_array a; tn_array_init(&a, element_size); return a; }
Bytes raw(const tn_array &a) { return a.length ? Bytes(a.data, a.data + a.length) : Bytes(); }
template <class T> Bytes flat(const std::vector<T> &v)
{
    const auto *p = reinterpret_cast<const unsigned char *>(v.data());
    return Bytes(p, p + v.size() * sizeof(T));
}

std::vector<tn_uint32> asked; // the sizes the growth handler was asked for
constexpr tn_uint32 MiB = 1u << 20;
void *logging_alloc(tn_uint32 n) // refuses above 1 MiB; fills blocks so that stray copies show
{
    asked.push_back(n);
    return n > MiB ? nullptr : std::memset(std::malloc(n), 0xA5, n);
}

enum Call { CAT, INSERT, ALLOCATE, ALIGN }; // catn, insertn at 0, allocate, allocate_align

// Element size, elements held before (above 1 MiB faked through the record), the call and its count, the one
// request the handler sees (0: none) and the result. Appends grow by an eighth at least, in 128-byte steps;
// sizes that wrap 32 bits fail without a request.
TEST_F(ArrayTest, GrowthAsksExactlyByTheRule)
{
    const struct Row { tn_uint32 size, held; Call call; tn_uint32 count, request; bool ok; } rows[] = {
        {1, 0, CAT, 1, 128, true},
        {1, 0, CAT, 129, 256, true},
        {1, 1024, CAT, 1, 1152, true},
        {1, 1024, CAT, 200, 1280, true},
        {1, 100, CAT, 28, 0, true},
        {8, 0, CAT, 1, 128, true},
        {1, 128, INSERT, 1, 256, true},
        {4, 0, ALLOCATE, 0, 0, false},
        {1, 100, ALLOCATE, 0, 0, true},
        {4, 25, ALLOCATE, 40, 160, true},
        {1, 100, ALLOCATE, 129, 144, true},
        {7, 0, ALIGN, 1, 128, true},
        {8, 0, ALIGN, 1, 4096, true},
        {1, 100, ALIGN, 129, 256, true},
        {8, 512, ALIGN, 513, 8192, true},
        {1, 1, ALIGN, 0xFFFFFF81u, 0, false},
        {1, 1, ALIGN, 0xFFFFFF80u, 0xFFFFFF80u, false},
        {8, 1, ALIGN, 0x1FFFFFFFu, 0, false},
        {8, 1, ALIGN, 0x1FFFFE00u, 0xFFFFF000u, false},
        {4, 1, ALLOCATE, 1u << 30, 0, false},
        {65536, 1, ALIGN, 65536, 0, false},
        {1, 0xFFFFFF00u, CAT, 256, 0, false},
        {1, 0xFFFFFF00u, CAT, 129, 0, false},
        {1, 0xFFFFFF00u, CAT, 128, 0xFFFFFF80u, false},
        {1, 0xF0000000u, CAT, 1, 0xF0000080u, false},
        {1, 0x80000000u, CAT, 1, 0x90000000u, false},
    };
    tn_alloc_set_alloc_handler(logging_alloc);
    tn_alloc_set_free_handler(std::free);
    for (const Row &r : rows) {
        SCOPED_TRACE(testing::Message() << "element size " << r.size << ", " << r.held << " held, call " << r.call
                                        << ", count " << r.count);
        const bool fake = r.held > MiB, served = r.request != 0 && r.request <= MiB;
        const Bytes held(fake ? 16 : r.size * r.held, 0x3C);
        const Bytes more(r.call <= INSERT ? r.size * r.count : 0, 0x5D);
        tn_array a = make(r.size);
        ASSERT_TRUE(tn_array_catn(&a, held.data(), tn_uint32(held.size()) / r.size));
        if (a.data) std::memset(a.data + a.length, 0x11, a.capacity - a.length); // marks the spare bytes
        if (fake) a.capacity = a.length = r.held;
        const tn_array before = a;
        asked.clear();
        bool ok = false;
        switch (r.call) {
        case CAT: ok = tn_array_catn(&a, more.data(), r.count); break;
        case INSERT: ok = tn_array_insertn(&a, more.data(), r.count, 0); break;
        case ALLOCATE: ok = tn_array_allocate(&a, r.count) != nullptr; break;
        case ALIGN: ok = tn_array_allocate_align(&a, r.count) != nullptr; break;
        }
        EXPECT_EQ(ok, r.ok);
        EXPECT_EQ(asked, r.request ? std::vector<tn_uint32>{r.request} : std::vector<tn_uint32>{});
        EXPECT_EQ(a.capacity, served ? r.request : before.capacity);
        EXPECT_EQ(a.data != before.data, served);
        EXPECT_EQ(a.failed != 0, r.call <= INSERT && !r.ok) << "only appends and inserts set the flag";
        if (!fake) {
            const tn_uchar *kept = a.data + (ok && r.call == INSERT ? more.size() : 0);
            EXPECT_TRUE(std::equal(held.begin(), held.end(), kept)) << "the held elements changed";
        }
        if (served) {
            EXPECT_EQ(std::count(a.data + a.length, a.data + a.capacity, 0x11), 0) << "spare bytes copied";
        }
        tn_array_free(&a);
    }
}

// Positions and counts whose byte size wraps, failed sources, exhausted memory and a failed array: each call's
// result and the flag after it; the array's bytes and storage never change.
TEST_F(ArrayTest, FailuresLeaveTheArrayAsItWas)
{
    enum Start { LIVE, EMPTY, FAILED, OOM }; // OOM: live, with the first allocation refused
    static tn_uint32 vals[] = {10, 20, 30}, odd[] = {10, 20, 30 + (1u << 24)}; // odd differs in the last byte
    static tn_uint32 es = 4;
    static tn_array src, big, none, bad; // bad: failed
    src = make(4), big = make(4), none = make(4), bad = make(4);
    ASSERT_TRUE(tn_array_catn(&src, vals, 3));
    ASSERT_TRUE(tn_array_catn(&bad, odd, 3));
    ASSERT_TRUE(tn_array_catn(&big, Bytes(400).data(), 100));
    tn_array_fail(&bad);
    static const tn_comparator cmp = [](const void *key, const void *element, void *) -> tn_int32 {
        return *static_cast<const tn_uint32 *>(key) != *static_cast<const tn_uint32 *>(element) + 10;
    };
    using Op = std::function<tn_int64(tn_array *)>;
#define OP(call) #call, [](tn_array *a) -> tn_int64 { return tn_array_##call; }
    const struct Row { Start start; const char *what; Op op; tn_int64 result; bool flag; } rows[] = {
        {LIVE, OP(remove(a, ~0u)), 0, true},
        {LIVE, OP(remove(a, 1u << 30)), 0, true},
        {EMPTY, OP(remove_end(a)), 0, false},
        {LIVE, OP(seto(a, vals, ~0u)), 0, false},
        {LIVE, OP(seto(a, vals, 1u << 30)), 0, false},
        {LIVE, OP(find(a, &odd[2])), 3, false},
        {LIVE, OP(get_pos(a, ~0u) != nullptr), 0, false},
        {LIVE, OP(get_pos(a, 1u << 30) != nullptr), 0, false},
        {LIVE, OP(truncate_length(a, (1u << 30) + 1)), 0, false}, // wraps to 4 bytes, which would fit
        {LIVE, OP(catn(a, vals, ~0u / 2)), 0, false},
        {LIVE, OP(insertn(a, vals, ~0u / 2, 0)), 0, false},
        {LIVE, OP(cat(a, &bad)), 0, true},
        {LIVE, OP(insert(a, &bad, 0)), 0, true},
        {LIVE, OP(equal(a, &bad)), 0, false},
        {LIVE, OP(find2(a, &vals[1], cmp, &es)), 0, false}, // the key comes first
        {EMPTY, OP(get_end(a) != nullptr), 0, false},
        {OOM, OP(catn(a, big.data, 50)), 0, true},
        {OOM, OP(insertn(a, big.data, 50, 1)), 0, true},
        {OOM, OP(cat(a, &big)), 0, true},
        {OOM, OP(allocate_align(a, 50) != nullptr), 0, false},
        {OOM, OP(sort(a, cmp, &es)), 0, false},
        {FAILED, OP(catn(a, vals, 0)), 1, true},
        {FAILED, OP(insertn(a, vals, 0, 9)), 1, true},
        {FAILED, OP(cat(a, &none)), 1, true},
        {FAILED, OP(insert(a, &none, 0)), 1, true},
        {FAILED, OP(cat(a, &src)), 0, true},
        {FAILED, OP(insert(a, &src, 0)), 0, true},
        {FAILED, OP(inserto_in_sort(a, vals, cmp, &es)), 0, true},
        {FAILED, OP(find2(a, &vals[2], cmp, &es)), 0, true},
        {FAILED, OP(allocate(a, 1) != nullptr), 0, true},
        {FAILED, OP(get_end(a) != nullptr), 0, true},
        {FAILED, OP(equal(a, &src)), 1, true},
        {FAILED, OP(find(a, &vals[2])), 0, true},
        {FAILED, OP(remove_end(a)), 0, true},
        {FAILED, OP(get(a) == a->data && a->data), 1, true},
        {FAILED, OP(sort(a, cmp, &es)), 0, true},
        {FAILED, OP(bytes(a)), 0, true},
        {FAILED, OP(truncate_length(a, 3)), 1, true},
        {FAILED, OP(seto(a, vals, 0)), 0, true},
    };
#undef OP
    for (const Row &r : rows) {
        SCOPED_TRACE(r.what);
        tn_array a = make(4);
        if (r.start != EMPTY) {
            ASSERT_TRUE(tn_array_catn(&a, vals, 3));
        }
        if (r.start == FAILED) tn_array_fail(&a);
        const tn_array before = a;
        const Bytes bytes = raw(a);
        tn_test::fail_nth_allocation(r.start == OOM ? 1 : 0);
        EXPECT_EQ(r.op(&a), r.result);
        EXPECT_EQ(tn_test::allocations(), r.start == OOM ? 1 : 0);
        EXPECT_EQ(a.failed != 0, r.flag);
        EXPECT_EQ(a.data, before.data);
        EXPECT_EQ(a.capacity, before.capacity);
        EXPECT_EQ(raw(a), bytes);
        tn_array_free(&a);
        EXPECT_EQ(a.data, nullptr);
        EXPECT_EQ(a.element_size, 4u) << "free keeps the element size";
        EXPECT_EQ(a.capacity + a.length + a.failed, 0u) << "free clears the rest";
    }
    for (tn_array *s : {&src, &big, &bad}) tn_array_free(s);
}

// Only keys are compared, so serials show where equal keys went; each call logs both elements.
struct Item { tn_uint32 key, serial; };
using Calls = std::vector<std::vector<tn_uint32>>;
tn_int32 logged_compare(const void *a, const void *b, void *user)
{
    const Item &x = *static_cast<const Item *>(a), &y = *static_cast<const Item *>(b);
    static_cast<Calls *>(user)->push_back({x.key, x.serial, y.key, y.serial});
    return x.key < y.key ? -1 : x.key > y.key;
}

// Binary search: halve until low meets high or a compare gives 0; one more compare decides the side.
tn_uint32 reference_insert_position(const std::vector<Item> &v, const Item &e, Calls &log)
{
    if (v.empty()) return 0;
    tn_uint32 low = 0, high = tn_uint32(v.size()) - 1, middle = 0;
    while (low != high) {
        middle = (low + high) / 2;
        const tn_int32 r = logged_compare(&e, &v[middle], &log);
        if (r == 0) break;
        if (r < 0) {
            if (high == middle) break;
            high = middle;
        } else {
            if (low == middle) {
                ++middle;
                break;
            }
            low = middle;
        }
    }
    return middle + (logged_compare(&e, &v[middle], &log) > 0 ? 1 : 0);
}

// Quicksort: the last element is the pivot, and both scans stop at elements equal to it.
void reference_sort(std::vector<Item> &v, long low, long high, Calls &log)
{
    if (low >= high) return;
    const Item pivot = v[high];
    long i = low - 1, j = high;
    for (;;) {
        while (logged_compare(&v[++i], &pivot, &log) < 0) {}
        if (i < --j) {
            while (logged_compare(&pivot, &v[j], &log) < 0 && i < --j) {}
        }
        if (i >= j) break;
        std::swap(v[i], v[j]);
    }
    std::swap(v[i], v[high]);
    reference_sort(v, low, i - 1, log);
    reference_sort(v, i + 1, high, log);
}

// Three of each size to 40, then 257 and 1000; keys mostly distinct, mostly equal, sorted, reversed, all equal.
// Then a third is removed from anywhere, and as many elements overwritten, against the same model.
TEST_F(ArrayTest, SortAndSortedInsertionMakeExactlyTheReferenceCalls)
{
    std::mt19937 rng(12345);
    for (tn_uint32 round = 0; round < 625 && !HasFailure(); ++round) {
        const tn_uint32 shape = round % 5, n = round < 615 ? round / 15 : round < 620 ? 257 : 1000;
        std::vector<tn_uint32> keys(n);
        std::vector<Item> input(n);
        for (tn_uint32 i = 0; i < n; ++i) {
            const tn_uint32 r = tn_uint32(rng());
            const tn_uint32 by_shape[] = {r % 1000, r % 3, i, n - i, 5};
            keys[i] = by_shape[shape];
            input[i] = {keys[i], i * 0x9E3779B9u};
        }
        SCOPED_TRACE(testing::Message() << "keys " << testing::PrintToString(keys));
        tn_array a = make(sizeof(Item));
        Calls want, got;
        std::vector<Item> sorted = input;
        reference_sort(sorted, 0, long(n) - 1, want);
        ASSERT_TRUE(tn_array_catn(&a, input.data(), n));
        tn_test::reset_counts();
        EXPECT_TRUE(tn_array_sort(&a, logged_compare, &got));
        EXPECT_EQ(got, want) << "sort compared differently";
        EXPECT_EQ(raw(a), flat(sorted));
        EXPECT_EQ(tn_test::allocations(), n > 1 ? 1 : 0) << "the pivot and exchange slots: one block, once";

        tn_array_truncate(&a);
        Calls want_in, got_in;
        std::vector<Item> inserted;
        for (const Item &e : input) {
            inserted.insert(inserted.begin() + reference_insert_position(inserted, e, want_in), e);
            EXPECT_TRUE(tn_array_inserto_in_sort(&a, &e, logged_compare, &got_in));
        }
        EXPECT_EQ(got_in, want_in) << "inserto_in_sort compared differently";
        EXPECT_EQ(raw(a), flat(inserted));

        for (tn_uint32 i = 0; i < n / 3; ++i) { // a third removed, from anywhere, and as many overwritten
            const tn_uint32 at = tn_uint32(rng() % inserted.size()), to = tn_uint32(rng() % (inserted.size() - 1));
            EXPECT_TRUE(tn_array_remove(&a, at)) << at;
            EXPECT_TRUE(tn_array_seto(&a, &inserted[at], to)) << to;
            inserted[to + (to >= at)] = inserted[at]; // to counts after the removal
            inserted.erase(inserted.begin() + at);
        }
        EXPECT_EQ(raw(a), flat(inserted)) << "remove and seto";
        tn_array_free(&a);
    }
}

// Sorted input drives the last-element pivot to its worst case; plain recursion would go one frame per element
// deep and overflow this 128 KiB stack, while the sort keeps its pending ranges in one frame.
TEST_F(ArrayTest, SortedInputSortsOnASmallStack)
{
    tn_array a = make(4);
    std::vector<tn_uint32> keys(12000);
    for (tn_uint32 i = 0; i < 12000; ++i) keys[i] = __builtin_bswap32(i); // stored bytes ascend
    ASSERT_TRUE(tn_array_catn(&a, keys.data(), 12000));
    tn_thread t;
    ASSERT_TRUE(tn_thread_create(&t, 128 * 1024, [](void *p) { tn_uint32_array_sort(static_cast<tn_array *>(p)); }, &a));
    EXPECT_TRUE(tn_thread_join(&t));
    EXPECT_EQ(raw(a), flat(keys));
    tn_array_free(&a);
}

// A miss, an empty and a failed array read 0; stored bytes have the high bit set, so sign or width mistakes show.
template <class T> void check_view(T (*pos)(const tn_array *, tn_uint32), T (*end)(const tn_array *), const char *family)
{
    SCOPED_TRACE(family);
    T want[4], zero{};
    auto *bytes = reinterpret_cast<unsigned char *>(want);
    for (size_t i = 0; i < sizeof want; ++i) bytes[i] = static_cast<unsigned char>(0x81 + i * 3);
    tn_array a = make(sizeof(T));
    EXPECT_EQ(pos(&a, 0), zero) << "empty";
    EXPECT_EQ(end(&a), zero) << "empty";
    ASSERT_TRUE(tn_array_catn(&a, want, 4));
    EXPECT_EQ(pos(&a, 0), want[0]);
    EXPECT_EQ(pos(&a, 2), want[2]);
    EXPECT_EQ(end(&a), want[3]);
    EXPECT_EQ(pos(&a, 4), zero) << "past the end";
    tn_array_fail(&a);
    EXPECT_EQ(pos(&a, 0), zero) << "failed";
    EXPECT_EQ(end(&a), zero) << "failed";
    tn_array_free(&a);
}

TEST_F(ArrayTest, TypedViewsReadTheirOwnWidth)
{
#define VIEW(f) check_view(tn_##f##_array_get_pos, tn_##f##_array_get_end, #f)
    VIEW(int8), VIEW(uint8), VIEW(uchar), VIEW(int16), VIEW(uint16), VIEW(wchar);
    VIEW(bool), VIEW(id32), VIEW(int32), VIEW(int), VIEW(uint32), VIEW(socket);
    VIEW(int64), VIEW(uint64), VIEW(time), VIEW(timel), VIEW(ptr);
#undef VIEW
}

// tn_uint32 arrays order by stored bytes over the element size, so 256 sorts before 1 on this host.
TEST_F(ArrayTest, Uint32OrderIsByStoredBytes)
{
    const tn_uint32 in[] = {2, 1, 0x0101, 65536, 256, 0x01000000, 1, 0};
    const std::vector<tn_uint32> up = {0, 0x01000000, 65536, 256, 1, 1, 0x0101, 2}, down(up.rbegin(), up.rend());
    tn_array sorted = make(4), reversed = make(4), inserted = make(4), inserted_r = make(4), wide = make(8);
    ASSERT_TRUE(tn_array_catn(&sorted, in, 8));
    ASSERT_TRUE(tn_array_catn(&reversed, in, 8));
    EXPECT_TRUE(tn_uint32_array_sort(&sorted));
    EXPECT_TRUE(tn_uint32_array_sortr(&reversed));
    for (tn_uint32 x : in) {
        EXPECT_TRUE(tn_uint32_array_inserto_in_sort(&inserted, x));
        EXPECT_TRUE(tn_uint32_array_inserto_in_sortr(&inserted_r, x));
    }
    EXPECT_EQ(raw(sorted), flat(up));
    EXPECT_EQ(raw(reversed), flat(down));
    EXPECT_EQ(raw(inserted), flat(up));
    EXPECT_EQ(raw(inserted_r), flat(down));
    const tn_uint64 pair[] = {0x0200000000000007ull, 0x0100000000000007ull}; // equal in their first 4 bytes
    ASSERT_TRUE(tn_array_catn(&wide, pair, 2));
    EXPECT_TRUE(tn_uint32_array_sortr(&wide));
    EXPECT_EQ(tn_uint64_array_get_pos(&wide, 0), pair[0]) << "compared 4 bytes of 8-byte elements";
    for (tn_array *a : {&sorted, &reversed, &inserted, &inserted_r, &wide}) tn_array_free(a);
}

// Pointer arrays work on values: cato and inserto take as many low bytes as the element has, then zeros, and
// find2 hands the comparator the stored pointer.
TEST_F(ArrayTest, PointerArraysStoreLowBytesAndFindByValue)
{
    const tn_uint64 v = 0x1122334455667788ull, needle = 0xAB;
    const tn_comparator same = [](const void *key, const void *element, void *seen) -> tn_int32 {
        static_cast<std::vector<const void *> *>(seen)->push_back(element);
        return key != element;
    };
    for (tn_uint32 size : {1u, 2u, 4u, 8u, 12u}) {
        SCOPED_TRACE(testing::Message() << "element size " << size);
        tn_array a = make(size);
        Bytes want;
        for (tn_uint64 x : {v, tn_uint64(0), v, needle, tn_uint64(0xBEEF)})
            for (tn_uint32 i = 0; i < size; ++i) want.push_back(i < 8 ? tn_uchar(x >> 8 * i) : 0);
        void *value = reinterpret_cast<void *>(v), *low = nullptr; // low: what the first element holds
        std::memcpy(&low, want.data(), size < 8 ? size : 8);
        ASSERT_TRUE(tn_ptr_array_cato(&a, value));
        ASSERT_TRUE(tn_ptr_array_cat0(&a));
        ASSERT_TRUE(tn_ptr_array_inserto(&a, value, 2));
        ASSERT_TRUE(tn_uchar_array_cato(&a, 0xAB));
        ASSERT_TRUE(tn_wchar_array_cato(&a, 0xBEEF));
        EXPECT_EQ(raw(a), want);
        EXPECT_EQ(tn_ptr_array_find(&a, value), 0u);
        EXPECT_EQ(tn_ptr_array_find(&a, nullptr), 1u);
        EXPECT_FALSE(tn_ptr_array_inserto(&a, value, 6)) << "past the end";
        std::vector<const void *> seen;
        EXPECT_EQ(tn_ptr_array_find2(&a, reinterpret_cast<void *>(needle), same, &seen), 3u);
        EXPECT_EQ(seen, (std::vector<const void *>{low, nullptr, low, reinterpret_cast<void *>(needle)}));
        tn_array_fail(&a);
        EXPECT_EQ(tn_ptr_array_find2(&a, low, same, &seen), 0u) << "failed";
        tn_array_free(&a);
    }
}
// Every count divides by the element size, and a source is read in its own element size: an array without one, and
// a source of another size, are refused with 0 instead of dividing by zero or reading the wrong span.
TEST_F(ArrayTest, SizelessArraysAndSourcesOfAnotherSizeAreRefused)
{
    static const tn_uint32 three[] = {1, 2, 3}, key = 2;
    tn_array none = make(0);
    using Op = std::function<tn_int64(tn_array *)>;
#define OP(call) #call, [](tn_array *a) -> tn_int64 { return tn_array_##call; }
    const struct { const char *what; Op op; tn_int64 result; } calls[] = {
        {OP(failed(a)), 1}, {OP(catn(a, three, 1)), 0}, {OP(insertn(a, three, 1, 0)), 0}, {OP(length(a)), 0},
        {OP(bytes(a)), 0}, {OP(find(a, &key)), 0}, {OP(get_pos(a, 0) != nullptr), 0}, {OP(get_end(a) != nullptr), 0},
        {OP(allocate(a, 1) != nullptr), 0}, {OP(remove_end(a)), 0}, {OP(sort(a, tn_array_comparator_default, &a->element_size)), 0},
        {OP(inserto_in_sort(a, &key, tn_array_comparator_default, &a->element_size)), 0}, {OP(length(a)), 0},
    };
#undef OP
    for (const char *when : {"after init", "after free"}) {
        for (const auto &c : calls) EXPECT_EQ(c.op(&none), c.result) << c.what << " " << when;
        tn_array_free(&none);
    }
    const struct { const char *call; tn_uint32 destination, source; bool insert; } rows[] = {
        {"cat 4-byte elements after 2-byte ones", 2, 4, false}, {"cat 2-byte elements after 4-byte ones", 4, 2, false},
        {"insert 2-byte elements among 4-byte ones", 4, 2, true}, {"cat from a sizeless array", 4, 0, false},
    };
    for (const auto &row : rows) {
        tn_array d = make(row.destination), s = make(row.source);
        tn_array_catn(&d, three, 2);
        tn_array_catn(&s, three, 1);
        const Bytes before = raw(d);
        EXPECT_FALSE(row.insert ? tn_array_insert(&d, &s, 0) : tn_array_cat(&d, &s)) << row.call;
        EXPECT_EQ(raw(d), before) << row.call << ": the destination changed";
        tn_array_free(&d);
        tn_array_free(&s);
    }
}

} // namespace
