// Two-Way search, written once for bytes and for the text families, over
// characters mapped by a fold (the identity, or ASCII lower case).
//
// The needle is cut at a critical factorisation into a left and a right
// part; each window compares the right part forwards, then the left part
// backwards. A mismatch in the right part shifts past it, a mismatch in the
// left part shifts by the period, and for a periodic needle the part already
// known to match is remembered so that nothing is compared twice. That
// bounds the work by about 2n comparisons with O(1) memory, where a naive
// scan can take n times m on inputs such as "aaaa" / "aaab". Folding both
// sides is a search over the folded alphabet, so the same bounds hold.
#ifndef TN_SRC_CORE_TWO_WAY_H
#define TN_SRC_CORE_TWO_WAY_H

#include <cstddef>
#include <cstring>
#include <type_traits>

namespace tn {

// The fold that compares characters as they are.
struct same_char {
    template <class C>
    constexpr C operator()(C c) const
    {
        return c;
    }
};

// ASCII letters in lower case; every other value, 0x80 and above included,
// stays.
struct ascii_lower {
    template <class C>
    constexpr C operator()(C c) const
    {
        return (c >= 'A' && c <= 'Z') ? static_cast<C>(c + ('a' - 'A')) : c;
    }
};

namespace two_way_detail {

using std::size_t;

// The start of the greatest suffix of x[0, m) in folded order (in the
// reverse order when `reversed`), and in *period that suffix's smallest
// period. One left-to-right pass comparing a candidate suffix against the
// best so far.
template <class C, class Fold>
size_t greatest_suffix(const C *x, size_t m, bool reversed, size_t *period, Fold fold)
{
    size_t best = 0, candidate = 1, k = 0, p = 1;
    while (candidate + k < m) {
        C a = fold(x[candidate + k]), b = fold(x[best + k]);
        if (a == b) {
            // Still repeating the best suffix's period: go on inside it, or
            // skip a whole repetition once it is complete.
            if (k + 1 == p) {
                candidate += p;
                k = 0;
            } else {
                ++k;
            }
        } else if ((a < b) != reversed) {
            // Every suffix starting up to the mismatch is smaller, and the
            // best suffix's period now reaches to the mismatch.
            candidate += k + 1;
            k = 0;
            p = candidate - best;
        } else {
            // The candidate is greater: it becomes the best.
            best = candidate;
            candidate = best + 1;
            k = 0;
            p = 1;
        }
    }
    *period = p;
    return best;
}

template <class C, class Fold>
bool equal(const C *a, const C *b, size_t count, Fold fold)
{
    for (size_t i = 0; i < count; ++i)
        if (fold(a[i]) != fold(b[i])) return false;
    return true;
}

// The first window start from j on, up to last, whose byte at split folds
// to c, or a value above last.
template <class C, class Fold>
size_t skip_to(const C *hay, size_t j, size_t last, size_t split, C c, Fold fold)
{
    if constexpr (sizeof(C) == 1 && std::is_same_v<Fold, same_char>) {
        // Bytes compared as they are: memchr skips far faster than a loop.
        const void *hit = std::memchr(hay + j + split, c, last - j + 1);
        return hit ? static_cast<size_t>(static_cast<const C *>(hit) - hay) - split : last + 1;
    }
    while (j <= last && fold(hay[j + split]) != c) ++j;
    return j;
}

} // namespace two_way_detail

// The offset of the first occurrence of needle[0, m) in hay[0, n), or n;
// m >= 1. Characters are compared as fold maps them.
template <class C, class Fold>
std::size_t two_way(const C *hay, std::size_t n, const C *needle, std::size_t m, Fold fold)
{
    using namespace two_way_detail;
    if (m > n) return n;
    // The later of the two greatest-suffix starts is a critical position:
    // the local period there equals the needle's period. split < m always,
    // and period <= m - split, being the period of needle[split, m).
    size_t period_fwd, period_rev;
    size_t split_fwd = greatest_suffix(needle, m, false, &period_fwd, fold);
    size_t split_rev = greatest_suffix(needle, m, true, &period_rev, fold);
    size_t split = split_fwd > split_rev ? split_fwd : split_rev;
    size_t period = split_fwd > split_rev ? period_fwd : period_rev;

    // The needle has period `period` as a whole iff the left part repeats
    // one period further on. Otherwise no two occurrences can lie closer than
    // max(left, right) + 1, which then is the shift after a left mismatch,
    // and nothing needs remembering.
    bool periodic = equal(needle, needle + period, split, fold);
    if (!periodic) period = (split > m - split ? split : m - split) + 1;

    const C split_char = fold(needle[split]);
    const size_t last = n - m; // the last window start
    size_t j = 0;
    size_t memory = 0; // characters at the window's start known to match
    while (j <= last) {
        if (memory == 0 && fold(hay[j + split]) != split_char) {
            // Nothing is carried over, so jump straight to the next window
            // whose first right-part character fits: every window skipped
            // fails on that character.
            j = skip_to(hay, j, last, split, split_char, fold);
            if (j > last) break;
        }
        size_t i = split > memory ? split : memory;
        while (i < m && fold(needle[i]) == fold(hay[j + i])) ++i;
        if (i < m) {
            // Right-part mismatch: no window starting before it can match.
            j += i - split + 1;
            memory = 0;
            continue;
        }
        i = split;
        while (i > memory && fold(needle[i - 1]) == fold(hay[j + i - 1])) --i;
        if (i <= memory) return j;
        j += period;
        // After a shift by the period, the next window's first m - period
        // characters are the ones just matched.
        if (periodic) memory = m - period;
    }
    return n;
}

} // namespace tn

#endif
