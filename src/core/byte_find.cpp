#include "core/byte_find.h"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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

// A search that checks only candidate windows, those whose first and last
// bytes match, in order. The compares spent on candidates that fail are
// charged to a budget of a quarter of the haystack; once candidates prove
// that dense (periodic needles, runs of one byte), Two-Way takes over from
// the next unchecked window, so the whole search stays linear.
struct candidates {
    const tn_uchar *hay;
    size_t n;
    const tn_uchar *needle;
    size_t m;
    size_t budget;
};

enum class verdict { none, hit, dense };

// What a scan settled: a match at `at`, none, or candidates too dense, with
// `at` the first window not yet checked.
struct outcome {
    verdict kind;
    size_t at;
};

// The window at `at` has the needle's first byte; compares the last byte,
// then the ones between. A miss costs at least one unit of the budget, so
// that a scan over a run of one byte gives up as soon as a dense one would.
verdict check(candidates &c, size_t at)
{
    const tn_uchar *w = c.hay + at;
    size_t i = 1;
    if (w[c.m - 1] == c.needle[c.m - 1]) {
        while (i + 1 < c.m && w[i] == c.needle[i]) ++i;
        if (i + 1 >= c.m) return verdict::hit;
    }
    if (c.budget < i) return verdict::dense;
    c.budget -= i;
    return verdict::none;
}

outcome settle(candidates &c, size_t at)
{
    verdict v = check(c, at);
    return {v, v == verdict::dense ? at + 1 : at};
}

// The portable scan: memchr to each window that starts with the first byte.
outcome scan_scalar(candidates &c)
{
    const tn_uchar *end = c.hay + (c.n - c.m) + 1; // one past the last window
    for (const tn_uchar *p = c.hay; p < end; ++p) {
        p = static_cast<const tn_uchar *>(std::memchr(p, c.needle[0], static_cast<size_t>(end - p)));
        if (!p) break;
        outcome o = settle(c, static_cast<size_t>(p - c.hay));
        if (o.kind != verdict::none) return o;
    }
    return {verdict::none, c.n};
}

#if defined(__SSE2__)

constexpr size_t block = 16;

// Bit k set: the window at p + k starts with the needle's first byte and
// ends with its last. Reads p[0, 16) and p[last, last + 16).
unsigned block_mask(const tn_uchar *p, size_t last, __m128i first_byte, __m128i last_byte)
{
    __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
    __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + last));
    return static_cast<unsigned>(
        _mm_movemask_epi8(_mm_and_si128(_mm_cmpeq_epi8(a, first_byte), _mm_cmpeq_epi8(b, last_byte))));
}

// The candidates of a mask whose bit k stands for the window at base + k.
outcome resolve(candidates &c, size_t base, std::uint64_t mask)
{
    for (; mask; mask &= mask - 1) {
        outcome o = settle(c, base + static_cast<size_t>(std::countr_zero(mask)));
        if (o.kind != verdict::none) return o;
    }
    return {verdict::none, c.n};
}

// Sixteen windows a step, two blocks at a time while they last, and an
// overlapping last block for the remainder rather than a byte-wise tail. At
// least one block of windows is required.
outcome scan_sse2(candidates &c)
{
    const size_t windows = c.n - c.m + 1, last = c.m - 1;
    const __m128i first_byte = _mm_set1_epi8(static_cast<char>(c.needle[0]));
    const __m128i last_byte = _mm_set1_epi8(static_cast<char>(c.needle[last]));
    size_t base = 0;
    for (; base + 2 * block <= windows; base += 2 * block) {
        std::uint64_t mask = block_mask(c.hay + base, last, first_byte, last_byte) |
                             block_mask(c.hay + base + block, last, first_byte, last_byte) << block;
        if (!mask) continue;
        outcome o = resolve(c, base, mask);
        if (o.kind != verdict::none) return o;
    }
    for (; base < windows; base += block) {
        // The final block ends at the last window; bits of windows seen
        // already are dropped.
        size_t at = base + block <= windows ? base : windows - block;
        std::uint64_t mask = block_mask(c.hay + at, last, first_byte, last_byte) >> (base - at) << (base - at);
        outcome o = resolve(c, at, mask);
        if (o.kind != verdict::none) return o;
    }
    return {verdict::none, c.n};
}

#endif

outcome scan(candidates &c)
{
#if defined(__SSE2__)
    if (c.n - c.m + 1 >= block) return scan_sse2(c);
#endif
    return scan_scalar(c);
}

} // namespace

tn_uint32 byte_find(const tn_uchar *haystack, tn_uint32 n, const tn_uchar *needle, tn_uint32 m)
{
    if (m > n) return n;
    if (m == 1) {
        const void *hit = std::memchr(haystack, needle[0], n);
        return hit ? static_cast<tn_uint32>(static_cast<const tn_uchar *>(hit) - haystack) : n;
    }
    // Two-Way's set-up alone would cost more than a whole search in a header
    // block, and the candidate scan is faster still on ordinary data; Two-Way
    // is kept for the inputs that defeat the scan.
    candidates c{haystack, n, needle, m, n / 4u};
    outcome o = scan(c);
    if (o.kind != verdict::dense) return static_cast<tn_uint32>(o.at);
    return static_cast<tn_uint32>(o.at + two_way(haystack + o.at, n - o.at, needle, m));
}

} // namespace tn
