#include "core/byte_find.h"

#include <cstddef>
#include <cstring>

// Two-Way search: the needle is cut at a critical factorisation into a left
// and a right part; each window compares the right part forwards, then the
// left part backwards. A mismatch in the right part shifts past it, a
// mismatch in the left part shifts by the period, and for a periodic needle
// the part already known to match is remembered so that nothing is compared
// twice. That bounds the work by about 2n comparisons with O(1) memory,
// where a naive scan can take n times m on inputs such as "aaaa" / "aaab".

namespace tn {
namespace {

using std::size_t;

// The start of the greatest suffix of x[0, m) in byte order (in the reverse
// order when `reversed`), and in *period that suffix's smallest period. One
// left-to-right pass comparing a candidate suffix against the best so far.
size_t greatest_suffix(const tn_uchar *x, size_t m, bool reversed, size_t *period)
{
    size_t best = 0, candidate = 1, k = 0, p = 1;
    while (candidate + k < m) {
        tn_uchar a = x[candidate + k], b = x[best + k];
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

// The offset of the first occurrence in hay[0, n), or n.
size_t two_way(const tn_uchar *hay, size_t n, const tn_uchar *needle, size_t m)
{
    if (m > n) return n;
    // The later of the two greatest-suffix starts is a critical position:
    // the local period there equals the needle's period. split < m always,
    // and period <= m - split, being the period of needle[split, m).
    size_t period_fwd, period_rev;
    size_t split_fwd = greatest_suffix(needle, m, false, &period_fwd);
    size_t split_rev = greatest_suffix(needle, m, true, &period_rev);
    size_t split = split_fwd > split_rev ? split_fwd : split_rev;
    size_t period = split_fwd > split_rev ? period_fwd : period_rev;

    // The needle has period `period` as a whole iff the left part repeats
    // one period further on. Otherwise no two occurrences can lie closer than
    // max(left, right) + 1, which then is the shift after a left mismatch,
    // and nothing needs remembering.
    bool periodic = std::memcmp(needle, needle + period, split) == 0;
    if (!periodic) period = (split > m - split ? split : m - split) + 1;

    const size_t last = n - m; // the last window start
    size_t j = 0;
    size_t memory = 0; // bytes at the window's start known to match already
    while (j <= last) {
        if (memory == 0 && hay[j + split] != needle[split]) {
            // Nothing is carried over, so jump straight to the next window
            // whose first right-part byte fits: every window skipped fails on
            // that byte, and memchr skips far faster than this loop steps.
            const void *hit = std::memchr(hay + j + split, needle[split], last - j + 1);
            if (!hit) break;
            j = static_cast<size_t>(static_cast<const tn_uchar *>(hit) - hay) - split;
        }
        size_t i = split > memory ? split : memory;
        while (i < m && needle[i] == hay[j + i]) ++i;
        if (i < m) {
            // Right-part mismatch: no window starting before it can match.
            j += i - split + 1;
            memory = 0;
            continue;
        }
        i = split;
        while (i > memory && needle[i - 1] == hay[j + i - 1]) --i;
        if (i <= memory) return j;
        j += period;
        // After a shift by the period, the next window's first m - period
        // bytes are the ones just matched.
        if (periodic) memory = m - period;
    }
    return n;
}

} // namespace

tn_uint32 byte_find(const tn_uchar *haystack, tn_uint32 n, const tn_uchar *needle, tn_uint32 m)
{
    if (m > n) return n;
    // Ordinary data is searched fastest by memchr to the next first byte and
    // a short compare; Two-Way's set-up alone would cost more than a whole
    // search in a header block. That plain scan turns quadratic on repetitive
    // input, though, so once its compares beyond the second byte of each
    // window add up to a quarter of the haystack, Two-Way takes over from
    // where it stopped. A needle of one or two bytes never gets there.
    const tn_uchar *end = haystack + (n - m) + 1; // one past the last window
    size_t budget = n / 4;
    for (const tn_uchar *p = haystack; p < end; ++p) {
        p = static_cast<const tn_uchar *>(std::memchr(p, needle[0], static_cast<size_t>(end - p)));
        if (!p) break;
        size_t i = 1;
        while (i < m && p[i] == needle[i]) ++i;
        if (i == m) return static_cast<tn_uint32>(p - haystack);
        if (i - 1 > budget) {
            size_t from = static_cast<size_t>(p - haystack) + 1;
            return static_cast<tn_uint32>(from + two_way(p + 1, n - from, needle, m));
        }
        budget -= i - 1;
    }
    return n;
}

} // namespace tn
