#include "core/byte_find.h"

#include "core/two_way.h"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace tn {
namespace {

using std::size_t;

// A search that checks only candidate windows, those whose first and last
// bytes match, in order. The compares spent on candidates that fail are
// charged to a budget of a quarter of the haystack; once candidates prove
// that dense (periodic needles, runs of one byte), Two-Way takes over from
// the next unchecked window, so the whole search stays linear. Bytes are
// compared as Fold maps them: as they are, or ASCII letters in lower case.
template <class Fold>
struct candidates {
    const tn_uchar *hay;
    size_t n;
    const tn_uchar *needle;
    size_t m;
    size_t budget;
    Fold fold;
};

enum class verdict { none, hit, dense };

// What a scan settled: a match at `at`, none, or candidates too dense, with
// `at` the first window not yet checked.
struct outcome {
    verdict kind;
    size_t at;
};

// The window at `at` has the needle's first byte; compares the last byte,
// then the ones between. Every miss costs at least one unit of the budget,
// so that a flood of candidates failing at once also hands over to Two-Way.
template <class Fold>
verdict check(candidates<Fold> &c, size_t at)
{
    const tn_uchar *w = c.hay + at;
    size_t i = 1;
    if (c.fold(w[c.m - 1]) == c.fold(c.needle[c.m - 1])) {
        while (i + 1 < c.m && c.fold(w[i]) == c.fold(c.needle[i])) ++i;
        if (i + 1 >= c.m) return verdict::hit;
    }
    if (c.budget < i) return verdict::dense;
    c.budget -= i;
    return verdict::none;
}

template <class Fold>
outcome settle(candidates<Fold> &c, size_t at)
{
    verdict v = check(c, at);
    return {v, v == verdict::dense ? at + 1 : at};
}

// The first window from `at` on, below `windows`, that starts with the
// needle's first byte; `windows` if there is none.
template <class Fold>
size_t next_start(const candidates<Fold> &c, size_t at, size_t windows)
{
    if constexpr (std::is_same_v<Fold, same_char>) {
        const void *hit = std::memchr(c.hay + at, c.needle[0], windows - at);
        return hit ? static_cast<size_t>(static_cast<const tn_uchar *>(hit) - c.hay) : windows;
    } else {
        const tn_uchar first = c.fold(c.needle[0]);
        while (at < windows && c.fold(c.hay[at]) != first) ++at;
        return at;
    }
}

// The portable scan, and the one for fewer windows than a vector holds.
template <class Fold>
outcome scan_scalar(candidates<Fold> &c)
{
    const size_t windows = c.n - c.m + 1;
    for (size_t at = next_start(c, 0, windows); at < windows; at = next_start(c, at + 1, windows)) {
        outcome o = settle(c, at);
        if (o.kind != verdict::none) return o;
    }
    return {verdict::none, c.n};
}

#if defined(__SSE2__)

constexpr size_t block = 16;

// Sixteen lanes of one needle byte: under ASCII folding a letter is sought
// in both its cases.
template <class Fold>
struct lanes {
    __m128i one, other;

    lanes(tn_uchar b, Fold fold)
    {
        tn_uchar low = fold(b), high = low >= 'a' && low <= 'z' ? static_cast<tn_uchar>(low - ('a' - 'A')) : low;
        one = _mm_set1_epi8(static_cast<char>(low));
        other = _mm_set1_epi8(static_cast<char>(high));
    }

    __m128i match(const tn_uchar *p) const
    {
        __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
        if constexpr (std::is_same_v<Fold, same_char>)
            return _mm_cmpeq_epi8(v, one);
        else
            return _mm_or_si128(_mm_cmpeq_epi8(v, one), _mm_cmpeq_epi8(v, other));
    }
};

// Bit k set: the window at p + k starts with the needle's first byte and
// ends with its last. Reads p[0, 16) and p[last, last + 16).
template <class Fold>
unsigned block_mask(const tn_uchar *p, size_t last, const lanes<Fold> &first, const lanes<Fold> &final)
{
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_and_si128(first.match(p), final.match(p + last))));
}

// The candidates of a mask whose bit k stands for the window at base + k.
template <class Fold>
outcome resolve(candidates<Fold> &c, size_t base, std::uint64_t mask)
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
template <class Fold>
outcome scan_sse2(candidates<Fold> &c)
{
    const size_t windows = c.n - c.m + 1, last = c.m - 1;
    const lanes<Fold> first(c.needle[0], c.fold), final(c.needle[last], c.fold);
    size_t base = 0;
    for (; base + 2 * block <= windows; base += 2 * block) {
        std::uint64_t mask = block_mask(c.hay + base, last, first, final) |
                             block_mask(c.hay + base + block, last, first, final) << block;
        if (!mask) continue;
        outcome o = resolve(c, base, mask);
        if (o.kind != verdict::none) return o;
    }
    for (; base < windows; base += block) {
        // The final block ends at the last window; bits of windows seen
        // already are dropped.
        size_t at = base + block <= windows ? base : windows - block;
        std::uint64_t mask = block_mask(c.hay + at, last, first, final) >> (base - at) << (base - at);
        outcome o = resolve(c, at, mask);
        if (o.kind != verdict::none) return o;
    }
    return {verdict::none, c.n};
}

#endif

template <class Fold>
outcome scan(candidates<Fold> &c)
{
#if defined(__SSE2__)
    if (c.n - c.m + 1 >= block) return scan_sse2(c);
#endif
    return scan_scalar(c);
}

// Two-Way's set-up alone would cost more than a whole search in a header
// block, and the candidate scan is faster still on ordinary data; Two-Way
// is kept for the inputs that defeat the scan.
template <class Fold>
tn_uint32 find(const tn_uchar *haystack, tn_uint32 n, const tn_uchar *needle, tn_uint32 m, Fold fold)
{
    if (m > n) return n;
    candidates<Fold> c{haystack, n, needle, m, n / 4u, fold};
    outcome o = m == 1 ? outcome{verdict::none, next_start(c, 0, n)} : scan(c);
    if (o.kind != verdict::dense) return static_cast<tn_uint32>(o.at);
    return static_cast<tn_uint32>(o.at + two_way(haystack + o.at, n - o.at, needle, m, fold));
}

} // namespace

tn_uint32 byte_find(const tn_uchar *haystack, tn_uint32 n, const tn_uchar *needle, tn_uint32 m)
{
    return find(haystack, n, needle, m, same_char{});
}

tn_uint32 byte_case_find(const tn_uchar *haystack, tn_uint32 n, const tn_uchar *needle, tn_uint32 m)
{
    return find(haystack, n, needle, m, ascii_lower{});
}

} // namespace tn
