#include <tarnel_util/tn_str_list.h>

#include "text_test.h"

#include <algorithm>
#include <cstring>
#include <random>

namespace {
using namespace tn_text_test;
using Model = strings;
// Two arrays agree in their first n strings exactly when these prefixes are equal.
Model head(const Model &v, size_t n) { return Model(v.begin(), v.begin() + static_cast<long>(std::min(n, v.size()))); }

class StrArray : public tn_test::AllocTest {
protected:
    tn_str_array a{}, b{}, m{};
    void SetUp() override { AllocTest::SetUp(); for (tn_str_array *x : {&a, &b, &m}) tn_str_array_init(x); }
    void TearDown() override { for (tn_str_array *x : {&a, &b, &m}) tn_str_array_free(x); AllocTest::TearDown(); }
    static void fill(tn_str_array *x, const Model &v)
    {
        tn_str_array_free(x);
        for (const auto &e : v) ASSERT_TRUE(tn_str_array_cato(x, u(e)));
    }
    // The invariant of a sound array against its model; w is a near copy of v to diff against.
    void check(const tn_str_array &x, const Model &v, const Model &w)
    {
        size_t size = v.size(); // the strings lie end to end, each with its terminator
        for (const auto &e : v) size += e.size();
        ASSERT_FALSE(tn_str_array_failed(&x));
        ASSERT_EQ(tn_array_bytes(&x.pool), size) << "pool " << bytes(x.pool);
        ASSERT_EQ(tn_str_array_length(&x), v.size());
        const tn_uchar *p = static_cast<const tn_uchar *>(tn_array_get(&x.pool)), *const *e = tn_str_array_get(&x);
        for (tn_uint32 i = 0; i < v.size(); ++i) {
            SCOPED_TRACE(testing::Message() << "entry " << i);
            ASSERT_EQ(e[i], p) << "does not point at its string";
            ASSERT_EQ(tn_str_array_get_pos(&x, i), p);
            ASSERT_STREQ(reinterpret_cast<const char *>(p), v[i].c_str());
            ASSERT_EQ(tn_str_array_find(&x, p), std::find(v.begin(), v.end(), v[i]) - v.begin());
            p += std::strlen(reinterpret_cast<const char *>(p)) + 1;
        }
        EXPECT_EQ(tn_str_array_get_pos(&x, static_cast<tn_uint32>(v.size())), nullptr);
        EXPECT_EQ(tn_str_array_find(&x, u("zz")), v.size());
        EXPECT_EQ(tn_str_array_get_end(&x), v.empty() ? nullptr : e[v.size() - 1]);
        ASSERT_NO_FATAL_FAILURE(fill(&m, w));
        EXPECT_EQ(tn_str_array_diff(&x, &m), v != w ? 1 : 0);
        EXPECT_EQ(tn_str_array_diff(&m, &x), v != w ? 1 : 0);
        for (tn_uint32 n = 0; n <= v.size() + 1; ++n)
            EXPECT_EQ(tn_str_array_diffn(&x, n, &m), head(v, n) != head(w, n) ? 1 : 0) << "diffn n " << n;
    }
};

TEST_F(StrArray, MatchesAModelOfStrings)
{
    std::mt19937 rng(20240611);
    auto pick = [&](size_t n) { return static_cast<tn_uint32>(rng() % n); };
    // Short words over a small alphabet repeat, so find meets duplicates; the long ones move the pool.
    auto word = [&] {
        std::string s;
        for (auto l = pick(8) ? pick(5) : 40 + pick(200); l > 0; --l) s += "abc"[pick(3)];
        return s;
    };
    Model v, bv;
    for (int step = 0; step < 6000 && !HasFailure(); ++step) {
        for (bv.clear(); bv.size() < pick(4);) bv.push_back(word());
        ASSERT_NO_FATAL_FAILURE(fill(&b, bv));
        std::string s = word();
        auto len = static_cast<tn_uint32>(v.size()), pos = pick(len + 2), k = pick(bv.size() + 1), n = pick(s.size() + 1);
        if (pick(16) == 0) pos = 0xFFFFFFFFu;
        int op = static_cast<int>(pick(15)), armed = pick(3) == 0 ? 1 + static_cast<int>(pick(2)) : 0;
        if (op == 11 && pick(4)) pos = len ? pos % len : 0; // mostly valid removes, so the array grows
        SCOPED_TRACE(testing::Message() << "step " << step << " op " << op << " len " << len << " pos " << pos << " k " << k
                                        << " n " << n << " fail " << armed << " s " << s);
        Model want = v, src = head(bv, k);
        tn_bool got = 0, ok = 1, in = pos <= len;
        tn_test::fail_nth_allocation(armed);
        switch (op) { // ok: what the call should report; a refused call leaves the array failed
        case 0: case 1: got = tn_str_array_cato(&a, u(s)); want.push_back(s); break;
        case 2: got = tn_str_array_caton(&a, u(s), n); want.push_back(s.substr(0, n)); break;
        case 3: got = tn_str_array_inserto(&a, u(s), pos); ok = in; if (in) want.insert(want.begin() + pos, s); break;
        case 4: got = tn_str_array_inserton(&a, u(s), n, pos); ok = in;
            if (in) want.insert(want.begin() + pos, s.substr(0, n));
            break;
        case 5: got = tn_str_array_cat(&a, &b); want.insert(want.end(), bv.begin(), bv.end()); break;
        case 6: got = tn_str_array_catn(&a, &b, k); want.insert(want.end(), src.begin(), src.end()); break;
        case 7: got = tn_str_array_copy(&a, &b); want = bv; break;
        case 8: got = tn_str_array_copyn(&a, &b, k); want = src; break;
        case 9: got = tn_str_array_insert(&a, &b, pos); ok = in || bv.empty(); // inserting nothing succeeds anywhere
            if (in) want.insert(want.begin() + pos, bv.begin(), bv.end());
            break;
        case 10: got = tn_str_array_insertn(&a, &b, k, pos); ok = in || !k;
            if (in) want.insert(want.begin() + pos, src.begin(), src.end());
            break;
        case 11: got = tn_str_array_remove(&a, pos); ok = pos < len; if (ok) want.erase(want.begin() + pos); break;
        case 12: got = tn_str_array_remove_end(&a); ok = len > 0; if (ok) want.pop_back(); break;
        default: k = pick(len + 1); got = tn_str_array_truncate_length(&a, k); want.resize(k); break;
        }
        bool fired = tn_test::failure_fired();
        tn_test::fail_nth_allocation(0);
        if (fired || (op == 11 && !ok)) { // a failed array reads as empty and refuses changes until freed
            EXPECT_FALSE(got);
            EXPECT_TRUE(tn_array_failed(&a.entries));
            EXPECT_TRUE(tn_array_failed(&a.pool));
            EXPECT_EQ(tn_str_array_length(&a), 0u);
            EXPECT_EQ(tn_str_array_find(&a, u(s)), 0u);
            EXPECT_EQ(tn_str_array_get_pos(&a, 0), nullptr);
            EXPECT_EQ(tn_str_array_get_end(&a), nullptr);
            EXPECT_TRUE(tn_str_array_cat(&b, &a)) << "a failed array reads as empty";
            EXPECT_TRUE(tn_str_array_insert(&b, &a, 0));
            EXPECT_EQ(tn_str_array_length(&b), bv.size());
            EXPECT_FALSE(tn_str_array_cato(&a, u(s)));
            EXPECT_FALSE(tn_str_array_truncate(&a));
            EXPECT_EQ(tn_str_array_diff(&a, &b), bv.empty() ? 0 : 1);
            EXPECT_TRUE(tn_str_array_copyn(&a, &b, 0)) << "an empty copy succeeds";
            EXPECT_TRUE(tn_str_array_failed(&a)) << "and leaves the array failed";
            tn_str_array_free(&a); // usable again at once
            v.clear();
            continue;
        }
        EXPECT_EQ(got, ok ? 1 : 0);
        if (ok) v = want;
        Model w = v; // a near copy to diff against
        const auto change = pick(4);
        if (change == 0 && !w.empty()) w.pop_back();
        if (change == 1 && !w.empty()) w[pick(w.size())] += "x";
        if (change == 2) w.push_back("");
        check(a, v, w);
    }
}

template <class C>
void clone_find_free(tn_bool (*clone)(C *const *, C ***), void (*release)(C **), tn_uint32 (*find)(C *const *, const C *))
{
    std::vector<std::vector<C>> words;
    for (const char *s : {"alpha", "", "gamma", "beta"}) words.emplace_back(s, s + std::strlen(s) + 1);
    std::vector<C *> list{words[0].data(), words[1].data(), words[2].data(), nullptr};
    C *const none[] = {nullptr};
    C **r = nullptr;
    const auto made = tn_test::sweep_alloc_failures([&] {
        r = list.data();
        if (!clone(list.data(), &r)) {
            EXPECT_EQ(r, nullptr) << "a failed clone gives null";
            return false;
        }
        for (size_t i = 0; i < 3; ++i) {
            EXPECT_NE(r[i], list[i]) << "string " << i << " was not copied";
            EXPECT_TRUE(std::equal(words[i].begin(), words[i].end(), r[i])) << "string " << i;
        }
        EXPECT_EQ(r[3], nullptr);
        EXPECT_EQ(find(r, words[2].data()), 2u);
        EXPECT_EQ(find(r, words[1].data()), 1u);
        release(r);
        return true;
    });
    EXPECT_EQ(made, 4) << "the block and one per string";
    EXPECT_EQ(find(list.data() + 1, words[3].data()), 2u) << "a miss gives the length";
    EXPECT_EQ(find(none, words[0].data()), 0u);
    EXPECT_EQ(find(nullptr, words[0].data()), 0u);
    r = list.data();
    EXPECT_TRUE(clone(nullptr, &r));
    EXPECT_EQ(r, nullptr) << "a null list clones to null";
    ASSERT_TRUE(clone(none, &r));
    ASSERT_NE(r, nullptr) << "an empty list clones to a block holding one null";
    EXPECT_EQ(r[0], nullptr);
    release(r);
    release(nullptr);
}
class StrList : public tn_test::AllocTest {};
TEST_F(StrList, NarrowCloneFindFree) { clone_find_free<tn_uchar>(tn_str_list_clone, tn_str_list_free, tn_str_list_find); }
TEST_F(StrList, WideCloneFindFree) { clone_find_free<tn_wchar>(tn_wstr_list_clone, tn_wstr_list_free, tn_wstr_list_find); }

// Entries and pool agree after a failed insert too: every entry the record holds points at the next string of
// the pool, and the strings fill the pool exactly.
TEST_F(StrArray, FailedInsertKeepsEntriesAndPoolInStep)
{
    const std::string longer(120, 'x'); // moves the pool; sixteen strings fill the first block of entries
    tn_test::sweep_alloc_failures([&] {
        for (int i = 0; i < 16; ++i) tn_str_array_cato(&a, u("s" + std::to_string(i)));
        const bool ready = tn_str_array_cato(&b, u(longer)) && !tn_str_array_failed(&a);
        const tn_bool done = ready && tn_str_array_insertn(&a, &b, 1, 1);
        if (ready) { // else the setting up failed
            const auto *e = static_cast<tn_uchar *const *>(tn_array_get(&a.entries));
            const tn_uint32 count = a.entries.length / a.entries.element_size;
            const tn_uchar *p = a.pool.data, *end = a.pool.data + a.pool.length;
            for (tn_uint32 i = 0; i < count && p < end; p += std::strlen(reinterpret_cast<const char *>(p)) + 1, ++i)
                EXPECT_EQ(e[i], p) << "entry " << i << " of " << count << (done ? "" : " after a failed insert");
            EXPECT_EQ(p, end) << "the pool holds strings no entry points at";
            EXPECT_EQ(count, done ? 17u : 16u) << "entries after the insert, done " << done;
            EXPECT_EQ(tn_str_array_failed(&a), !done) << "a failed insert fails the array";
        }
        tn_str_array_free(&a);
        tn_str_array_free(&b);
        return done != 0;
    });
}

} // namespace
