// The generic array: the growth rule, the failure frame, allocation failure,
// the exact comparator traffic of sorted insertion and sorting, and random
// operation sequences against a byte-vector model.
#include <tarnel_util/tn_alloc.h>
#include <tarnel_util/tn_array.h>

#include "tn_test_alloc.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

class ArrayTest : public tn_test::AllocTest {};

Bytes raw(const tn_array &a) { return a.length ? Bytes(a.data, a.data + a.length) : Bytes(); }

// The append and insert rule: at least one eighth more, in blocks of 128.
tn_uint32 grown_capacity(tn_uint32 capacity, tn_uint32 need)
{
    if (capacity >= need) return capacity;
    tn_uint32 more = capacity + capacity / 8;
    return ((more >= need ? more : need) + 127u) & ~127u;
}

// Hooks that record every request, fill fresh blocks with 0xA5 and refuse
// anything above 1 MiB, so that requests of gigabytes can be checked without
// being served.
std::vector<tn_uint32> g_requests;
int g_live;

void *recording_alloc(tn_uint32 size)
{
    g_requests.push_back(size);
    if (size > (1u << 20)) return nullptr;
    ++g_live;
    return std::memset(std::malloc(size), 0xA5, size);
}

void recording_free(void *p)
{
    --g_live;
    std::free(p);
}

struct RecordingHooks {
    RecordingHooks()
    {
        g_requests.clear();
        g_live = 0;
        tn_alloc_set_alloc_handler(recording_alloc);
        tn_alloc_set_free_handler(recording_free);
    }
    ~RecordingHooks()
    {
        EXPECT_EQ(g_live, 0) << "blocks left under the recording hooks";
        tn_test::install_counting_hooks();
    }
};

// ---- Growth -------------------------------------------------------------------

TEST_F(ArrayTest, AppendingOneAtATimeGrowsByAnEighthInBlocksOf128)
{
    const std::vector<tn_uint32> expected = {128,  256,  384,  512,  640,  768,  896,  1024, 1152,
                                             1408, 1664, 1920, 2176, 2560, 2944, 3328, 3840, 4352};
    for (tn_uint32 size : {1u, 3u, 8u, 24u}) {
        SCOPED_TRACE("element size " + std::to_string(size));
        tn_array a;
        tn_array_init(&a, size);
        std::vector<tn_uint32> seen;
        Bytes model;
        while (a.length + size <= 4352) {
            Bytes e(size, static_cast<unsigned char>(model.size() / size));
            const tn_uint32 before = a.capacity;
            tn_test::reset_counts();
            ASSERT_TRUE(tn_array_catn(&a, e.data(), 1));
            model.insert(model.end(), e.begin(), e.end());
            EXPECT_EQ(tn_test::allocations(), a.capacity != before ? 1 : 0) << "at " << a.length;
            if (a.capacity != before) seen.push_back(a.capacity);
        }
        EXPECT_EQ(seen, expected);
        EXPECT_EQ(raw(a), model);
        tn_array_free(&a);
    }
}

enum class Grow { catn, insertn_front, allocate, allocate_align };

struct GrowthRow {
    tn_uint32 size, prior; // element size, and elements appended first
    Grow how;
    tn_uint32 count;
    tn_uint32 capacity; // afterwards, in bytes; 0: the call gives null
    int allocations;    // made by the call itself
};

TEST_F(ArrayTest, GrowthTable)
{
    const GrowthRow rows[] = {
        {1, 0, Grow::catn, 1, 128, 1},
        {1, 0, Grow::catn, 128, 128, 1},
        {1, 0, Grow::catn, 129, 256, 1},
        {1, 1024, Grow::catn, 1, 1152, 1},   // 1024 + 1024/8, already a whole block
        {1, 1024, Grow::catn, 200, 1280, 1}, // more than an eighth: the need, rounded
        {1, 100, Grow::catn, 28, 128, 0},
        {1, 128, Grow::insertn_front, 1, 256, 1},
        {8, 0, Grow::catn, 1, 128, 1}, // 128 whatever the element size
        {16, 0, Grow::catn, 9, 256, 1},
        {4, 0, Grow::allocate, 0, 0, 0}, // nothing asked, nothing had, no failure
        {4, 0, Grow::allocate_align, 0, 0, 0},
        {1, 100, Grow::allocate, 0, 128, 0},
        {4, 0, Grow::allocate, 10, 40, 1},
        {8, 0, Grow::allocate, 1, 8, 1},
        {1, 128, Grow::allocate, 129, 144, 1}, // an eighth more, not rounded
        {1, 128, Grow::allocate, 200, 200, 1},
        {1, 128, Grow::allocate, 100, 128, 0},
        {4, 0, Grow::allocate_align, 10, 128, 1},
        {7, 0, Grow::allocate_align, 1, 128, 1},
        {8, 0, Grow::allocate_align, 1, 4096, 1},
        {16, 0, Grow::allocate_align, 300, 8192, 1},
        {1, 0, Grow::allocate_align, 129, 256, 1},
        {1, 128, Grow::allocate_align, 129, 256, 1},
        {8, 16, Grow::allocate_align, 17, 4096, 1},
        {8, 512, Grow::allocate_align, 513, 8192, 1},
        {8, 512, Grow::allocate_align, 512, 4096, 0},
    };
    for (const GrowthRow &r : rows) {
        SCOPED_TRACE("element size " + std::to_string(r.size) + ", " + std::to_string(r.prior) + " elements, op " +
                     std::to_string(static_cast<int>(r.how)) + " count " + std::to_string(r.count));
        tn_array a;
        tn_array_init(&a, r.size);
        Bytes prior(r.size * r.prior, 0x3C), more(r.size * r.count, 0x5D);
        ASSERT_TRUE(tn_array_catn(&a, prior.data(), r.prior));
        tn_test::reset_counts();
        void *p = nullptr;
        switch (r.how) {
        case Grow::catn: p = tn_array_catn(&a, more.data(), r.count) ? a.data : nullptr; break;
        case Grow::insertn_front: p = tn_array_insertn(&a, more.data(), r.count, 0) ? a.data : nullptr; break;
        case Grow::allocate: p = tn_array_allocate(&a, r.count); break;
        case Grow::allocate_align: p = tn_array_allocate_align(&a, r.count); break;
        }
        EXPECT_EQ(p, r.capacity ? a.data : nullptr);
        EXPECT_EQ(a.capacity, r.capacity);
        EXPECT_EQ(tn_test::allocations(), r.allocations);
        if (r.how >= Grow::allocate) { EXPECT_EQ(raw(a), prior); }
        EXPECT_FALSE(a.failed);
        tn_array_free(&a);
    }
}

TEST_F(ArrayTest, GrowthCarriesOnlyTheUsedBytes)
{
    RecordingHooks hooks;
    tn_array a;
    tn_array_init(&a, 1);
    ASSERT_NE(tn_array_allocate(&a, 100), nullptr);
    std::memset(a.data, 0x11, 100);
    const Bytes head(10, 0x22);
    ASSERT_TRUE(tn_array_catn(&a, head.data(), 10));
    ASSERT_NE(tn_array_allocate(&a, 1000), nullptr);
    EXPECT_EQ(raw(a), head);
    for (int i = 10; i < 100; ++i) ASSERT_EQ(a.data[i], 0xA5) << "byte " << i << " beyond the used length was copied";
    tn_array_truncate(&a);
    ASSERT_NE(tn_array_allocate(&a, 2000), nullptr);
    for (int i = 0; i < 10; ++i) ASSERT_EQ(a.data[i], 0xA5) << "byte " << i << " of an emptied array was copied";
    EXPECT_EQ(g_requests, (std::vector<tn_uint32>{100, 1000, 2000}));
    tn_array_free(&a);
}

// Requests near 4 GiB. The arrays hold one element already, so that a request
// wrapped to 0 bytes could not pass for success; and since the fields are
// public, a small real block can pose as a huge one while no growth is served.
TEST_F(ArrayTest, WrapAroundGuards)
{
    RecordingHooks hooks;
    struct {
        tn_uint32 size, count;
        bool align;
        std::vector<tn_uint32> requests;
    } direct[] = {
        {1, 0xFFFFFF81u, true, {}},            // rounding up to 128 wraps
        {8, 0x1FFFFFFFu, true, {}},            // rounding up to 4096 wraps
        {8, 0x1FFFFE00u, true, {0xFFFFF000u}}, // the last whole block is still asked for
        {1, 0xFFFFFF80u, true, {0xFFFFFF80u}},
        {4, 0x40000000u, false, {}}, // size times count overflows
        {0x10000, 0x10000, true, {}},
    };
    for (auto &d : direct) {
        SCOPED_TRACE("element size " + std::to_string(d.size) + " count " + std::to_string(d.count));
        tn_array a;
        tn_array_init(&a, d.size);
        ASSERT_TRUE(tn_array_catn(&a, Bytes(d.size).data(), 1));
        const tn_array before = a;
        g_requests.clear();
        EXPECT_EQ(d.align ? tn_array_allocate_align(&a, d.count) : tn_array_allocate(&a, d.count), nullptr);
        EXPECT_EQ(g_requests, d.requests);
        EXPECT_FALSE(a.failed);
        EXPECT_EQ(a.capacity, before.capacity);
        EXPECT_EQ(a.data, before.data);
        tn_array_free(&a);
    }
    struct {
        tn_uint32 fake, append;
        std::vector<tn_uint32> requests;
    } appends[] = {
        {0xFFFFFF00u, 0x100, {}},            // the new used length wraps
        {0xFFFFFF00u, 0x81, {}},             // the eighth wraps, then the rounding
        {0xFFFFFF00u, 0x80, {0xFFFFFF80u}},  // the last whole block is still asked for
        {0xF0000000u, 1, {0xF0000080u}},     // a wrapped eighth is not taken
        {0x80000000u, 1, {0x90000000u}},     // an eighth more, exactly
    };
    const Bytes src(0x100, 7);
    for (auto &p : appends) {
        SCOPED_TRACE("faked length " + std::to_string(p.fake) + " append " + std::to_string(p.append));
        tn_array a;
        tn_array_init(&a, 1);
        ASSERT_TRUE(tn_array_catn(&a, src.data(), 16));
        tn_uchar *data = a.data;
        a.capacity = a.length = p.fake;
        g_requests.clear();
        EXPECT_FALSE(tn_array_catn(&a, src.data(), p.append));
        EXPECT_TRUE(a.failed);
        EXPECT_EQ(g_requests, p.requests);
        EXPECT_EQ(a.data, data);
        EXPECT_EQ(a.capacity, p.fake);
        EXPECT_EQ(a.length, p.fake);
        tn_array_free(&a);
    }
}

// ---- The failure frame --------------------------------------------------------

struct FrameCtx {
    tn_array src, big, empty, failed_src;
    tn_uint32 value = 20, size = 4;
};

enum class Start { live, empty, failed };

struct FrameRow {
    const char *what;
    Start start; // live and failed arrays hold 10, 20, 30
    tn_int64 (*op)(tn_array *, FrameCtx &);
    tn_int64 result; // pointers count as 1 when non-null
    bool failed_after;
    int allocations;
};

#define OP(expr) [](tn_array *a, FrameCtx &c) -> tn_int64 { (void)a; (void)c; return (expr); }
#define PTR(expr) OP((expr) != nullptr)
#define FAIL_FIRST(expr) OP((tn_test::fail_nth_allocation(1), (expr)))

const FrameRow frame_rows[] = {
    {"remove at the length", Start::live, OP(tn_array_remove(a, 3)), 0, true, 0},
    {"remove at 0xFFFFFFFF", Start::live, OP(tn_array_remove(a, 0xFFFFFFFFu)), 0, true, 0},
    {"remove, position overflows", Start::live, OP(tn_array_remove(a, 0x40000000u)), 0, true, 0},
    {"remove on empty", Start::empty, OP(tn_array_remove(a, 0)), 0, true, 0},
    {"remove_end on empty", Start::empty, OP(tn_array_remove_end(a)), 0, false, 0},
    {"get_end on empty", Start::empty, PTR(tn_array_get_end(a)), 0, false, 0},
    {"insertn past the length", Start::live, OP(tn_array_insertn(a, &c.value, 1, 4)), 0, false, 0},
    {"seto at the length", Start::live, OP(tn_array_seto(a, &c.value, 3)), 0, false, 0},
    {"seto at 0xFFFFFFFF", Start::live, OP(tn_array_seto(a, &c.value, 0xFFFFFFFFu)), 0, false, 0},
    {"seto, position overflows", Start::live, OP(tn_array_seto(a, &c.value, 0x40000000u)), 0, false, 0},
    {"get_pos at the length", Start::live, PTR(tn_array_get_pos(a, 3)), 0, false, 0},
    {"get_pos at 0xFFFFFFFF", Start::live, PTR(tn_array_get_pos(a, 0xFFFFFFFFu)), 0, false, 0},
    {"get_pos, position overflows", Start::live, PTR(tn_array_get_pos(a, 0x40000000u)), 0, false, 0},
    {"truncate_length above", Start::live, OP(tn_array_truncate_length(a, 4)), 0, false, 0},
    {"truncate_length overflows", Start::live, OP(tn_array_truncate_length(a, 0x40000001u)), 0, false, 0},
    {"catn, count overflows", Start::live, OP(tn_array_catn(a, &c.value, 0x40000000u)), 0, false, 0},
    {"insertn, count overflows", Start::live, OP(tn_array_insertn(a, &c.value, 0x40000000u, 0)), 0, false, 0},
    {"allocate overflows", Start::live, PTR(tn_array_allocate(a, 0x40000000u)), 0, false, 0},
    {"cat of a failed source", Start::live, OP(tn_array_cat(a, &c.failed_src)), 0, true, 0},
    {"insert of a failed source", Start::live, OP(tn_array_insert(a, &c.failed_src, 0)), 0, true, 0},
    {"catn, storage fails", Start::live, FAIL_FIRST(tn_array_catn(a, c.big.data, 100)), 0, true, 1},
    {"insertn, storage fails", Start::live, FAIL_FIRST(tn_array_insertn(a, c.big.data, 100, 1)), 0, true, 1},
    {"cat, storage fails", Start::live, FAIL_FIRST(tn_array_cat(a, &c.big)), 0, true, 1},
    {"allocate, storage fails", Start::live, FAIL_FIRST(tn_array_allocate(a, 100) != nullptr), 0, false, 1},
    {"align, storage fails", Start::live, FAIL_FIRST(tn_array_allocate_align(a, 100) != nullptr), 0, false, 1},
    {"sort, work area fails", Start::live, FAIL_FIRST(tn_array_sort(a, tn_array_comparator_default, &c.size)), 0,
     false, 1},
    {"failed: catn of 0", Start::failed, OP(tn_array_catn(a, &c.value, 0)), 1, true, 0},
    {"failed: insertn of 0", Start::failed, OP(tn_array_insertn(a, &c.value, 0, 9)), 1, true, 0},
    {"failed: cat of empty", Start::failed, OP(tn_array_cat(a, &c.empty)), 1, true, 0},
    {"failed: insert of empty", Start::failed, OP(tn_array_insert(a, &c.empty, 0)), 1, true, 0},
    {"failed: catn", Start::failed, OP(tn_array_catn(a, &c.value, 1)), 0, true, 0},
    {"failed: insertn", Start::failed, OP(tn_array_insertn(a, &c.value, 1, 0)), 0, true, 0},
    {"failed: cat", Start::failed, OP(tn_array_cat(a, &c.src)), 0, true, 0},
    {"failed: insert", Start::failed, OP(tn_array_insert(a, &c.src, 0)), 0, true, 0},
    {"failed: seto", Start::failed, OP(tn_array_seto(a, &c.value, 0)), 0, true, 0},
    {"failed: remove", Start::failed, OP(tn_array_remove(a, 0)), 0, true, 0},
    {"failed: remove_end", Start::failed, OP(tn_array_remove_end(a)), 0, true, 0},
    {"failed: sort", Start::failed, OP(tn_array_sort(a, tn_array_comparator_default, &c.size)), 0, true, 0},
    {"failed: inserto_in_sort", Start::failed,
     OP(tn_array_inserto_in_sort(a, &c.value, tn_array_comparator_default, &c.size)), 0, true, 0},
    {"failed: allocate", Start::failed, PTR(tn_array_allocate(a, 100)), 0, true, 0},
    {"failed: allocate within capacity", Start::failed, PTR(tn_array_allocate(a, 1)), 0, true, 0},
    {"failed: allocate_align", Start::failed, PTR(tn_array_allocate_align(a, 1)), 0, true, 0},
    {"failed: get_pos", Start::failed, PTR(tn_array_get_pos(a, 0)), 0, true, 0},
    {"failed: get_end", Start::failed, PTR(tn_array_get_end(a)), 0, true, 0},
    {"failed: find of a stored value", Start::failed, OP(tn_array_find(a, &c.value)), 0, true, 0},
    {"failed: find2", Start::failed, OP(tn_array_find2(a, &c.value, tn_array_comparator_default, &c.size)), 0,
     true, 0},
    {"failed: length", Start::failed, OP(tn_array_length(a)), 0, true, 0},
    {"failed: bytes", Start::failed, OP(tn_array_bytes(a)), 0, true, 0},
    {"failed: get gives the data", Start::failed, OP(tn_array_get(a) == a->data && a->data), 1, true, 0},
    {"failed: equal ignores the flag", Start::failed, OP(tn_array_equal(a, &c.src)), 1, true, 0},
};

TEST_F(ArrayTest, FailureFrameTable)
{
    const tn_uint32 values[] = {10, 20, 30};
    FrameCtx c;
    for (tn_array *s : {&c.src, &c.big, &c.empty, &c.failed_src}) tn_array_init(s, 4);
    ASSERT_TRUE(tn_array_catn(&c.src, values, 3));
    ASSERT_TRUE(tn_array_catn(&c.failed_src, values, 3));
    tn_array_fail(&c.failed_src);
    ASSERT_TRUE(tn_array_catn(&c.big, Bytes(400).data(), 100));
    for (const FrameRow &r : frame_rows) {
        SCOPED_TRACE(r.what);
        tn_array a;
        tn_array_init(&a, 4);
        if (r.start != Start::empty) { ASSERT_TRUE(tn_array_catn(&a, values, 3)); }
        if (r.start == Start::failed) tn_array_fail(&a);
        const tn_array before = a;
        const Bytes bytes = raw(a);
        tn_test::reset_counts();
        EXPECT_EQ(r.op(&a, c), r.result);
        EXPECT_EQ(tn_test::allocations(), r.allocations);
        tn_test::fail_nth_allocation(0);
        EXPECT_EQ(a.failed, r.failed_after ? 1 : 0);
        EXPECT_EQ(a.data, before.data);
        EXPECT_EQ(a.capacity, before.capacity);
        EXPECT_EQ(a.element_size, 4u);
        EXPECT_EQ(raw(a), bytes);
        tn_array_free(&a);
    }
    EXPECT_TRUE(c.failed_src.failed);
    for (tn_array *s : {&c.src, &c.big, &c.failed_src}) tn_array_free(s);
}

TEST_F(ArrayTest, TruncateAndFreeStillWorkWhenFailed)
{
    const tn_uint32 values[] = {10, 20, 30};
    tn_array a;
    tn_array_init(&a, 4);
    ASSERT_TRUE(tn_array_catn(&a, values, 3));
    const tn_uint32 capacity = a.capacity;
    tn_array_fail(&a);
    EXPECT_TRUE(tn_array_truncate_length(&a, 2));
    EXPECT_EQ(a.length, 8u);
    EXPECT_FALSE(tn_array_truncate_length(&a, 3)) << "measured against the stored length";
    EXPECT_TRUE(tn_array_truncate(&a));
    EXPECT_TRUE(a.failed);
    EXPECT_EQ(a.capacity, capacity);
    tn_array_free(&a);
    EXPECT_FALSE(a.failed);
    EXPECT_TRUE(tn_array_unallocated(&a));
    EXPECT_TRUE(tn_array_catn(&a, values, 3)) << "the element size survives free";
    EXPECT_EQ(tn_array_length(&a), 3u);
    tn_array_free(&a);
    tn_array_free(&a);
}

// ---- Allocation failure --------------------------------------------------------

// Appends, inserts, a cat, an insert and a sort. A refused step reports 0 and
// leaves data, capacity and bytes as they were; growth sets the sticky flag,
// the sort does not.
bool append_insert_sort_run()
{
    tn_array a, src;
    tn_array_init(&a, 4);
    tn_array_init(&src, 4);
    tn_uint32 size = 4;
    bool ok = true;
    auto step = [&](tn_array &t, bool sets_flag, const std::function<tn_bool()> &op) {
        if (!ok) return;
        const tn_array before = t;
        const Bytes bytes = raw(t);
        if (op()) return;
        ok = false;
        EXPECT_EQ(t.failed, sets_flag ? 1 : 0);
        EXPECT_EQ(t.data, before.data);
        EXPECT_EQ(t.capacity, before.capacity);
        EXPECT_EQ(raw(t), bytes);
        tn_uint32 v = 0;
        EXPECT_EQ(tn_array_catn(&t, &v, 1), sets_flag ? 0 : 1) << "the flag is sticky";
    };
    for (tn_uint32 i = 0; i < 300; ++i) {
        tn_uint32 v = i * 2654435761u;
        step(a, true, [&] { return tn_array_catn(&a, &v, 1); });
        if (i % 37 == 0) step(a, true, [&] { return tn_array_insertn(&a, &v, 1, i / 2); });
    }
    step(src, true, [&] { return tn_array_catn(&src, a.data, 64); });
    step(a, true, [&] { return tn_array_cat(&a, &src); });
    step(a, true, [&] { return tn_array_insert(&a, &src, 5); });
    step(a, false, [&] { return tn_array_sort(&a, tn_array_comparator_default, &size); });
    if (ok) { EXPECT_EQ(tn_array_length(&a), 300u + 9u + 128u); }
    tn_array_free(&a);
    tn_array_free(&src);
    return ok;
}

TEST_F(ArrayTest, AllocationFailureSweep) { EXPECT_GE(tn_test::sweep_alloc_failures(append_insert_sort_run), 10); }

// ---- Comparator traffic ---------------------------------------------------------

// Elements are a key and a serial; only keys are compared, so serials show
// where equal keys went. Each comparator call is logged as the two elements
// it saw, first argument first.
struct Item {
    tn_uint32 key, serial;
};
using Calls = std::vector<std::array<tn_uint32, 4>>;

tn_int32 logged_compare(const void *a, const void *b, void *user)
{
    Item x, y;
    std::memcpy(&x, a, sizeof x);
    std::memcpy(&y, b, sizeof y);
    static_cast<Calls *>(user)->push_back({x.key, x.serial, y.key, y.serial});
    return x.key < y.key ? -1 : x.key > y.key ? 1 : 0;
}

// The reference search: halve until low meets high or a compare is 0, then
// one more compare at middle decides before or after.
tn_uint32 reference_insert_position(const std::vector<Item> &v, const Item &e, Calls &log)
{
    if (v.empty()) return 0;
    tn_uint32 low = 0, high = static_cast<tn_uint32>(v.size()) - 1, middle = 0;
    if (high != 0) {
        do {
            middle = (low + high) / 2;
            const tn_int32 r = logged_compare(&e, &v[middle], &log);
            if (r == 0) break;
            if (r > 0 && low == middle) {
                ++middle;
                break;
            }
            if (r < 0 && high == middle) break;
            (r > 0 ? low : high) = middle;
        } while (low != high);
    }
    return middle + (logged_compare(&e, &v[middle], &log) > 0 ? 1 : 0);
}

// The reference quicksort: the last element of the range is the pivot, both
// scans stop at elements equal to it, and the recursion is plain.
void reference_sort(std::vector<Item> &v, long low, long high, Calls &log)
{
    if (low >= high) return;
    const Item pivot = v[high];
    long i = low - 1, j = high;
scan:
    do ++i;
    while (logged_compare(&v[i], &pivot, &log) < 0);
    if (!(i < --j)) goto place;
    while (logged_compare(&pivot, &v[j], &log) < 0)
        if (!(i < --j)) goto place;
    std::swap(v[i], v[j]);
    goto scan;
place:
    std::swap(v[i], v[high]);
    reference_sort(v, low, i - 1, log);
    reference_sort(v, i + 1, high, log);
}

// Sizes 0 to 40 and a few larger, in five shapes: mostly distinct keys, many
// equal keys, sorted, reverse sorted, all equal.
TEST_F(ArrayTest, SortAndSortedInsertionMakeExactlyTheReferenceCalls)
{
    std::mt19937 rng(12345);
    std::vector<tn_uint32> sizes;
    for (tn_uint32 n = 0; n <= 40; ++n) sizes.insert(sizes.end(), 3, n);
    sizes.insert(sizes.end(), {257, 1000});
    for (tn_uint32 n : sizes) {
        for (int shape = 0; shape < 5; ++shape) {
            std::vector<Item> input(n), sorted, inserted;
            std::string keys = "shape " + std::to_string(shape) + ", " + std::to_string(n) + " keys:";
            for (tn_uint32 i = 0; i < n; ++i) {
                const tn_uint32 k[] = {tn_uint32(rng() % 1000), tn_uint32(rng() % 3), i, n - i, 5};
                input[i] = {k[shape], i};
                if (n <= 40) keys += " " + std::to_string(k[shape]);
            }
            SCOPED_TRACE(keys);
            tn_array a;
            tn_array_init(&a, sizeof(Item));

            Calls want, got;
            sorted = input;
            reference_sort(sorted, 0, static_cast<long>(n) - 1, want);
            ASSERT_TRUE(tn_array_catn(&a, input.data(), n));
            tn_test::reset_counts();
            ASSERT_TRUE(tn_array_sort(&a, logged_compare, &got));
            EXPECT_EQ(tn_test::allocations(), n < 2 ? 0 : 1) << "one work area, none below two elements";
            ASSERT_TRUE(got == want) << "sort: the comparator calls differ";
            ASSERT_EQ(0, n ? std::memcmp(a.data, sorted.data(), n * sizeof(Item)) : 0) << "sort: the order differs";

            want.clear();
            got.clear();
            tn_array_truncate(&a);
            for (const Item &e : input) {
                inserted.insert(inserted.begin() + reference_insert_position(inserted, e, want), e);
                ASSERT_TRUE(tn_array_inserto_in_sort(&a, &e, logged_compare, &got));
            }
            ASSERT_TRUE(got == want) << "inserto_in_sort: the comparator calls differ";
            ASSERT_EQ(0, n ? std::memcmp(a.data, inserted.data(), n * sizeof(Item)) : 0)
                << "inserto_in_sort: the order differs";
            tn_array_free(&a);
        }
    }
    // One element: a single compare, and an equal element lands before it.
    tn_array a;
    tn_array_init(&a, sizeof(Item));
    const Item first{4, 1}, second{4, 2};
    Calls calls;
    ASSERT_TRUE(tn_array_inserto_in_sort(&a, &first, logged_compare, &calls));
    ASSERT_TRUE(tn_array_inserto_in_sort(&a, &second, logged_compare, &calls));
    EXPECT_EQ(calls, (Calls{{4, 2, 4, 1}}));
    EXPECT_EQ(static_cast<Item *>(tn_array_get_pos(&a, 0))->serial, 2u);
    tn_array_free(&a);
}

tn_int32 compare_u32(const void *a, const void *b, void *)
{
    tn_uint32 x, y;
    std::memcpy(&x, a, 4);
    std::memcpy(&y, b, 4);
    return x < y ? -1 : x > y ? 1 : 0;
}

void *run_function(void *f)
{
    (*static_cast<std::function<void()> *>(f))();
    return nullptr;
}

// On a 384 KiB stack. The first three shapes are quadratic for a last-element
// pivot and would take a plain recursion 12000 (sorted, reverse sorted) or
// 4000 (descending blocks of three) frames deep; the last two are large and
// balanced.
TEST_F(ArrayTest, LargeSortsStayOffTheStack)
{
    std::function<void()> body = [] {
        for (int shape = 0; shape < 5; ++shape) {
            SCOPED_TRACE("shape " + std::to_string(shape));
            const tn_uint32 count = shape < 3 ? 12000 : 200000;
            std::vector<tn_uint32> v(count);
            std::mt19937 rng(shape);
            for (tn_uint32 i = 0; i < count; ++i) {
                const tn_uint32 k[] = {i, count - i, i / 3 * 3 + 2 - i % 3, 9, tn_uint32(rng() % 4)};
                v[i] = k[shape];
            }
            tn_array a;
            tn_array_init(&a, 4);
            ASSERT_TRUE(tn_array_catn(&a, v.data(), count));
            ASSERT_TRUE(tn_array_sort(&a, compare_u32, nullptr));
            std::sort(v.begin(), v.end());
            EXPECT_EQ(0, std::memcmp(a.data, v.data(), count * 4u));
            tn_array_free(&a);
        }
    };
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, 384 * 1024);
    pthread_t thread;
    ASSERT_EQ(0, pthread_create(&thread, &attr, run_function, &body));
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attr);
}

// ---- Random operations against a model ------------------------------------------

struct FindCount {
    const void *key;
    tn_uint32 size;
    int calls;
};

tn_int32 counting_diff(const void *key, const void *element, void *user)
{
    auto *f = static_cast<FindCount *>(user);
    ++f->calls;
    EXPECT_EQ(key, f->key) << "the key comes first";
    return std::memcmp(key, element, f->size) != 0;
}

// The model is the stored bytes, kept while the array is failed, and the
// flag. Appends and inserts sometimes have their one allocation refused.
TEST_F(ArrayTest, RandomOperationsAgainstModel)
{
    for (tn_uint32 es : {1u, 3u}) {
        std::mt19937 rng(es);
        auto pick = [&](tn_uint32 n) { return std::uniform_int_distribution<tn_uint32>(0, n)(rng); };
        tn_array a;
        tn_array_init(&a, es);
        Bytes model;
        bool failed = false;
        for (int step = 0; step < 6000; ++step) {
            const tn_uint32 n = static_cast<tn_uint32>(model.size()) / es, capacity = a.capacity;
            const tn_uint32 op = pick(9), pos = pick(n + 1);
            Bytes e((op <= 1 ? (pick(3) ? pick(12) : pick(200)) : 1) * es);
            for (auto &x : e) x = static_cast<unsigned char>(pick(2)); // few values, so finds hit
            const tn_uint32 count = static_cast<tn_uint32>(e.size()) / es;
            SCOPED_TRACE("element size " + std::to_string(es) + " step " + std::to_string(step) + " op " +
                         std::to_string(op) + " length " + std::to_string(n) + " position " + std::to_string(pos) +
                         " count " + std::to_string(count) + (failed ? " failed" : ""));
            bool ok = false, tried = false, refused = false;
            tn_test::reset_counts();
            switch (op) {
            case 0:
            case 1: {
                const tn_uint32 at = op ? pos : n;
                tried = count && !failed && at <= n && model.size() + e.size() > capacity;
                refused = tried && pick(6) == 0;
                if (refused) tn_test::fail_nth_allocation(1);
                tn_bool r = op ? tn_array_insertn(&a, e.data(), count, at) : tn_array_catn(&a, e.data(), count);
                EXPECT_EQ(tn_test::allocations(), tried ? 1 : 0);
                tn_test::fail_nth_allocation(0);
                ok = count == 0 || (!failed && at <= n && !refused);
                EXPECT_EQ(r, ok ? 1 : 0);
                failed = failed || refused;
                if (ok) model.insert(model.begin() + at * es, e.begin(), e.end());
                break;
            }
            case 2:
                ok = !failed && pos < n;
                EXPECT_EQ(tn_array_remove(&a, pos), ok ? 1 : 0);
                if (ok) model.erase(model.begin() + pos * es, model.begin() + (pos + 1) * es);
                failed = !ok;
                break;
            case 3:
                ok = !failed && n;
                EXPECT_EQ(tn_array_remove_end(&a), ok ? 1 : 0);
                if (ok) model.resize(model.size() - es);
                break;
            case 4:
                ok = !failed && pos < n;
                EXPECT_EQ(tn_array_seto(&a, e.data(), pos), ok ? 1 : 0);
                if (ok) std::copy(e.begin(), e.end(), model.begin() + pos * es);
                break;
            case 5:
                ok = pos <= n;
                EXPECT_EQ(tn_array_truncate_length(&a, pos), ok ? 1 : 0);
                if (ok) model.resize(pos * es);
                break;
            case 6:
            case 7: {
                if (pos < n && pick(1)) e.assign(model.begin() + pos * es, model.begin() + (pos + 1) * es);
                tn_uint32 want = 0;
                while (want < n && !std::equal(e.begin(), e.end(), model.begin() + want * es)) ++want;
                FindCount f{e.data(), es, 0};
                EXPECT_EQ(op == 6 ? tn_array_find(&a, e.data()) : tn_array_find2(&a, e.data(), counting_diff, &f),
                          failed ? 0 : want);
                EXPECT_EQ(f.calls, op == 6 || failed ? 0 : static_cast<int>(std::min(want + 1, n)));
                break;
            }
            case 8: { // byte-wise, whatever the element sizes and flags
                tn_array other;
                tn_array_init(&other, 1);
                ASSERT_TRUE(tn_array_catn(&other, model.data(), static_cast<tn_uint32>(model.size())));
                EXPECT_TRUE(tn_array_equal(&a, &other));
                if (!model.empty()) {
                    other.data[pick(static_cast<tn_uint32>(model.size()) - 1)] ^= 0x40;
                    EXPECT_FALSE(tn_array_equal(&a, &other));
                }
                tn_array_free(&other);
                tn_test::reset_counts();
                break;
            }
            default:
                if (failed || pick(9) == 0) {
                    tn_array_free(&a);
                    model.clear();
                    failed = false;
                }
            }
            ASSERT_EQ(a.failed, failed ? 1 : 0);
            ASSERT_EQ(raw(a), model);
            if (op <= 8) {
                const tn_uint32 bytes = static_cast<tn_uint32>(model.size());
                EXPECT_EQ(a.capacity, tried && !refused ? grown_capacity(capacity, bytes) : capacity);
                EXPECT_EQ(tn_test::allocations(), 0);
            }
            const tn_uint32 m = failed ? 0 : static_cast<tn_uint32>(model.size()) / es;
            ASSERT_EQ(tn_array_length(&a), m);
            ASSERT_EQ(tn_array_bytes(&a), m * es);
            if (m) {
                const tn_uint32 p = pick(m - 1);
                ASSERT_EQ(0, std::memcmp(tn_array_get_pos(&a, p), model.data() + p * es, es));
                ASSERT_EQ(tn_array_get_end(&a), a.data + (m - 1) * es);
            }
        }
        tn_array_free(&a);
    }
}

} // namespace
