// Narrow and wide strings against one reference model over random text, then what the model cannot reach.
// Inputs sit in blocks of exactly their size, for AddressSanitizer; every output buffer has a canary behind it.
#include <tarnel_util/tn_alloc.h>
#include <tarnel_util/tn_str.h>
#include <tarnel_util/tn_wstr.h>

#include "support/alloc.h"

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {
// Both widths under one set of names, so that one test body checks both against the same model.
template <class C> struct Lib;
#define TN_LIB(P, C)                                                                                              \
    template <> struct Lib<C> {                                                                                   \
        static constexpr auto len = &P##_len, chr = &P##_chr, rchr = &P##_rchr, chrn = &P##_chrn;                \
        static constexpr auto copy = &P##_copy, copy0 = &P##_copy0, copyn = &P##_copyn, copyn0 = &P##_copyn0;     \
        static constexpr auto clone = &P##_clone, find = &P##_find, case_find = &P##_case_find, diff = &P##_diff,  \
            case_diff = &P##_case_diff, diffn = &P##_diffn, case_diffn = &P##_case_diffn, lower = &P##_case_lower, \
            upper = &P##_case_upper, lowern = &P##_case_lowern, uppern = &P##_case_uppern;                        \
    }
TN_LIB(tn_str, tn_uchar);
TN_LIB(tn_wstr, tn_wchar);
template <class C> using Text = std::vector<C>; // the characters, and for a string its terminator
using Fold = unsigned (*)(unsigned);
unsigned keep(unsigned c) { return c; }
unsigned fold(unsigned c) { return c - 'A' < 26 ? c + 32 : c; } // ASCII letters only
unsigned rise(unsigned c) { return c - 'a' < 26 ? c - 32 : c; }
template <class C> tn_uint32 m_len(const Text<C> &s) { return tn_uint32(std::find(s.begin(), s.end(), 0) - s.begin()); }
template <class C> tn_uint32 m_chr(const Text<C> &s, tn_uint32 n, C c, bool last) // first or last c of n, else n
{
    tn_uint32 at = n;
    for (tn_uint32 i = 0; i < n; ++i)
        if (s[i] == c && (last || at == n)) at = i;
    return at;
}
template <class C> tn_uint32 m_find(const Text<C> &s, const Text<C> &sub, Fold f)
{
    return tn_uint32(std::search(&s[0], &s[m_len(s)], &sub[0], &sub[m_len(sub)], [f](C p, C q) { return f(p) == f(q); }) -
                     &s[0]);
}
// The raw difference of the first unequal folded pair among n; a terminator ends the compare unless raw.
template <class C> tn_int32 m_diff(const C *a, const C *b, tn_uint32 n, Fold f, bool raw)
{
    for (; n > 0; --n, ++a, ++b)
        if (f(*a) != f(*b) || (*a == 0 && !raw)) return int(f(*a)) - int(f(*b));
    return 0;
}
template <class C> tn_uint32 m_skip(const Text<C> &s, const Text<C> &set, bool in) // characters before one (not) in set
{
    const tn_uint32 ls = m_len(s), n = m_len(set);
    tn_uint32 i = 0;
    while (i < ls && (m_chr(set, n, s[i], false) < n) == in) ++i;
    return i;
}
// Letters of both cases, the neighbours of the letter ranges, blanks and CR, and values that only look like letters
// when cut to a byte (0x141) or that a signed compare misorders; U+00C9 and U+00E9 never fold.
template <class C> const C abc[] = {'A', 'a', 'B', 'b', 'Z', 'z', '_', '@', '[', '`', '{', ' ', '\t', '\r',
                                    C(0x80), C(0xC9), C(0xE9), C(0x141), C(0xFFFF)};
template <class C> struct Gen {
    std::mt19937 rng{20240611};
    size_t below(size_t k) { return rng() % k; }
    C pick() { return abc<C>[below(sizeof abc<C> / sizeof(C))]; }
    C flip(C c) { return fold(c) - 'a' < 26 && below(2) ? C(c ^ 0x20) : c; }
    Text<C> str(size_t most)
    {
        Text<C> s(below(most + 1));
        for (C &c : s) c = pick();
        s.push_back(0);
        return s;
    }
    // Mostly a near copy of a: all of it, its tail or a piece, letters' case changed, a character changed or added.
    Text<C> near(const Text<C> &a)
    {
        if (below(5) == 0) return str(4);
        const size_t size = a.size() - 1, from = below(2) ? below(size + 1) : 0;
        Text<C> b(a.begin() + from, a.begin() + (from && below(2) ? from + below(size - from + 1) : size));
        for (C &c : b) c = flip(c);
        if (!b.empty() && below(3) == 0) b[below(b.size())] = pick();
        if (below(4) == 0) b.push_back(pick());
        b.push_back(0);
        return b;
    }
};
template <class C> class Strings : public tn_test::AllocTest {};
using Widths = ::testing::Types<tn_uchar, tn_wchar>;
TYPED_TEST_SUITE(Strings, Widths);
TYPED_TEST(Strings, AgreeWithReferenceModel)
{
    using C = TypeParam;
    using L = Lib<C>;
    using testing::PrintToString;
    const Text<C> blanks{' ', '\t', 0};
    Gen<C> g;
    for (int round = 0; round < 20000 && !this->HasFailure(); ++round) {
        const Text<C> s = g.str(round % 2 ? 12 : 4), t = g.near(s), set = round % 3 ? g.str(3) : g.near(s);
        const tn_uint32 n = tn_uint32(g.below(8)), ls = m_len(s), lt = m_len(t), k = std::min(n, ls);
        const C c = g.below(5) ? g.pick() : C(0);
        Text<C> x(n), y(n); // exactly n elements with zeros among them, for the forms that ignore terminators
        for (tn_uint32 i = 0; i < n; ++i) {
            x[i] = g.below(4) ? g.pick() : 0;
            y[i] = g.below(6) ? g.flip(x[i]) : g.pick();
        }
        const C *xp = n ? x.data() : s.data(), *yp = n ? y.data() : t.data();
        SCOPED_TRACE("s " + PrintToString(s) + " t " + PrintToString(t) + " set " + PrintToString(set) + " c " +
                     PrintToString(c) + " n " + PrintToString(n) + " x " + PrintToString(x) + " y " + PrintToString(y));
        EXPECT_EQ(L::len(s.data()), ls);
        EXPECT_EQ(L::chr(s.data(), c), m_chr(s, ls, c, false));
        EXPECT_EQ(L::rchr(s.data(), c), m_chr(s, ls, c, true));
        EXPECT_EQ(L::chrn(xp, n, c), m_chr(x, n, c, false));
        EXPECT_EQ(L::find(s.data(), t.data()), m_find(s, t, keep));
        EXPECT_EQ(L::case_find(s.data(), t.data()), m_find(s, t, fold));
        EXPECT_EQ(L::diff(s.data(), t.data()), m_diff(s.data(), t.data(), ~0u, keep, false));
        EXPECT_EQ(L::case_diff(s.data(), t.data()), m_diff(s.data(), t.data(), ~0u, fold, false));
        EXPECT_EQ(L::diffn(s.data(), n, t.data()), m_diff(s.data(), t.data(), n, keep, false));
        EXPECT_EQ(L::case_diffn(xp, n, yp), m_diff(xp, yp, n, fold, true));
        for (tn_uint32 zero = 0; zero < 2; ++zero) { // what the contract lets each copy write, then a canary
            SCOPED_TRACE(zero ? "copy0, copyn0" : "copy, copyn");
            Text<C> d(ls + 2, C('~')), d_want = d, dn(n + 1 + zero, C('~')), dn_want = dn;
            std::copy(s.begin(), s.end(), d_want.begin());
            std::copy(s.begin(), s.begin() + k, dn_want.begin());
            if (k < n || zero) dn_want[k] = 0;
            EXPECT_EQ((zero ? L::copy0 : L::copy)(d.data(), s.data()), ls + zero);
            EXPECT_EQ((zero ? L::copyn0 : L::copyn)(dn.data(), n, s.data()), k + zero);
            EXPECT_EQ(d, d_want);
            EXPECT_EQ(dn, dn_want);
        }
        Text<C> o(s.size() + 2, C('~')); // copies go from the front, so text may move left within one buffer
        std::copy(s.begin(), s.end(), o.begin() + 2);
        EXPECT_EQ(L::copy(o.data(), o.data() + 2), ls) << "move left";
        EXPECT_TRUE(std::equal(s.begin(), s.end(), o.begin())) << "move left";
        for (Fold f : {fold, rise}) { // in place, to the terminator or over exactly n, then a canary f would change
            SCOPED_TRACE(f == fold ? "lower" : "upper");
            Text<C> str = s, buf = x;
            str.push_back(f == fold ? 'Q' : 'q');
            buf.push_back(str.back());
            Text<C> str_want = str, buf_want = buf;
            std::transform(s.begin(), s.end(), str_want.begin(), [f](C e) { return C(f(e)); });
            std::transform(x.begin(), x.end(), buf_want.begin(), [f](C e) { return C(f(e)); });
            (f == fold ? L::lower : L::upper)(str.data());
            (f == fold ? L::lowern : L::uppern)(buf.data(), n);
            EXPECT_EQ(str, str_want);
            EXPECT_EQ(buf, buf_want);
        }
        const bool starved = round % 8 == 0; // every eighth clone meets exhausted memory: 0 and null
        C *clone = o.data();
        tn_test::fail_nth_allocation(starved);
        const bool cloned = L::clone(s.data(), &clone);
        tn_test::fail_nth_allocation(0);
        ASSERT_EQ(cloned, !starved);
        EXPECT_EQ(clone ? Text<C>(clone, clone + ls + 1) : Text<C>{}, starved ? Text<C>{} : s);
        tn_alloc_free(clone);
        clone = o.data();
        EXPECT_TRUE(L::clone(nullptr, &clone)) << "a null source clones to null";
        EXPECT_EQ(clone, nullptr);
        if constexpr (sizeof(C) == 1) { // the members that exist for narrow text only
            EXPECT_EQ(tn_str_end(s.data(), t.data()), ls >= lt && m_diff(&s[ls - lt], t.data(), lt, keep, true) == 0);
            EXPECT_EQ(tn_str_case_end(s.data(), t.data()), ls >= lt && !m_diff(&s[ls - lt], t.data(), lt, fold, true));
            EXPECT_EQ(tn_str_skip_till(s.data(), set.data()), m_skip(s, set, false));
            EXPECT_EQ(tn_str_skip_while(s.data(), set.data()), m_skip(s, set, true));
            EXPECT_EQ(tn_str_skip_word(s.data()), m_skip(s, blanks, false));
            EXPECT_EQ(tn_str_skip_space(s.data()), m_skip(s, blanks, true));
            EXPECT_EQ(tn_str_contain(s.data(), c), m_chr(s, ls, c, false) < ls ? c : 0);
        }
    }
}

// Longer text over two letters in both cases and their neighbours, periodic needles, planted copies with the
// case changed, and runs of 'A' against "aaa...ab": the inputs that defeat a careless shift.
TYPED_TEST(Strings, FindsAgreeWithModelOnPeriodicText)
{
    using C = TypeParam;
    Gen<C> g;
    const C letters[] = {'a', 'A', 'b', 'B', '@', '`'};
    auto text = [&](size_t size, size_t kinds, size_t period) {
        Text<C> t(size);
        for (size_t i = 0; i < size; ++i) t[i] = i >= period ? g.flip(t[i - period]) : letters[g.below(kinds)];
        t.push_back(0);
        return t;
    };
    for (int round = 0; round < 6000 && !this->HasFailure(); ++round) {
        const size_t kinds = 2 + g.below(5), period = 1 + g.below(4);
        const Text<C> s = text(g.below(90), kinds, g.below(2) ? period : ~size_t{0});
        Text<C> t = text(g.below(round % 2 ? 12 : 40), kinds, g.below(3) ? period : ~size_t{0});
        if (g.below(2) && s.size() > 1) { // a copy of a piece of s, the case of some letters changed
            const size_t from = g.below(s.size() - 1), to = from + g.below(s.size() - from);
            t.assign(s.begin() + from, s.begin() + to);
            t.push_back(0);
            for (C &c : t) c = g.flip(c);
        }
        SCOPED_TRACE("s " + testing::PrintToString(s) + " t " + testing::PrintToString(t));
        EXPECT_EQ(Lib<C>::case_find(s.data(), t.data()), m_find(s, t, fold));
        EXPECT_EQ(Lib<C>::find(s.data(), t.data()), m_find(s, t, keep));
    }
    for (size_t run : {63, 64, 1000, 5000}) {
        Text<C> s(run, 'A'), t(63, 'a');
        s.push_back(0);
        t.insert(t.end(), {'b', 0});
        EXPECT_EQ(Lib<C>::case_find(s.data(), t.data()), run) << run;
        s.insert(s.end() - 1, {'B', 'x'});
        EXPECT_EQ(Lib<C>::case_find(s.data(), t.data()), run - 63) << run;
    }
}

} // namespace
