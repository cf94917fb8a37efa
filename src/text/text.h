// The string algorithms, written once for narrow and wide characters. The
// narrow family overrides a few with the C library's tuned equivalents.
#ifndef TN_SRC_TEXT_TEXT_H
#define TN_SRC_TEXT_TEXT_H

#include <tarnel_util/tn_alloc.h>

#include <cstring>

#include "core/checked.h"
#include "core/two_way.h"

namespace tn::text {

// ASCII letters only: every other value, 0x80 and above included, stays.
template <class C>
constexpr C lower(C c)
{
    return ascii_lower{}(c);
}

template <class C>
constexpr C upper(C c)
{
    return (c >= 'a' && c <= 'z') ? static_cast<C>(c - ('a' - 'A')) : c;
}

template <class C>
tn_uint32 len(const C *s)
{
    const C *p = s;
    while (*p) ++p;
    return static_cast<tn_uint32>(p - s);
}

// Characters before a terminator among the first n, or n.
template <class C>
tn_uint32 len_within(const C *s, tn_uint32 n)
{
    tn_uint32 i = 0;
    while (i < n && s[i]) ++i;
    return i;
}

template <class C>
tn_uint32 copy_counted(C *d, const C *s, tn_uint32 length)
{
    std::memmove(d, s, (static_cast<size_t>(length) + 1) * sizeof(C));
    return length;
}

template <class C>
tn_uint32 copyn_counted(C *d, tn_uint32 n, const C *s, tn_uint32 k)
{
    // k < n: the terminator came first and goes along; else n characters.
    std::memmove(d, s, (static_cast<size_t>(k) + (k < n)) * sizeof(C));
    return k;
}

template <class C>
tn_bool clone(const C *source, C **result, tn_uint32 length)
{
    *result = nullptr;
    if (!source) return 1;
    tn_uint32 bytes;
    if (length + 1u == 0 || !checked_mult(length + 1u, tn_uint32{sizeof(C)}, &bytes)) return 0;
    auto *block = static_cast<C *>(tn_alloc(bytes));
    if (!block) return 0;
    copy_counted(block, source, length);
    *result = block;
    return 1;
}

template <class C>
tn_uint32 chrn(const C *s, tn_uint32 n, C c)
{
    for (tn_uint32 i = 0; i < n; ++i)
        if (s[i] == c) return i;
    return n;
}

template <class C>
tn_uint32 chr(const C *s, C c)
{
    tn_uint32 i = 0;
    while (s[i] && s[i] != c) ++i;
    return i;
}

template <class C>
tn_uint32 rchr(const C *s, C c)
{
    tn_uint32 i = 0, last = 0;
    bool seen = false;
    for (; s[i]; ++i)
        if (s[i] == c) last = i, seen = true;
    return seen ? last : i;
}

// Two-Way over the folded characters: linear in the lengths of both, where a
// walk start by start costs their product on inputs like "aaa...ab". Same
// results: an empty sub gives 0, a miss gives the length of s.
template <class C, class Fold>
tn_uint32 find(const C *s, tn_uint32 n, const C *sub, tn_uint32 m, Fold fold)
{
    return m ? static_cast<tn_uint32>(two_way(s, n, sub, m, fold)) : 0;
}

template <class C, class Fold>
tn_int32 diff(const C *a, const C *b, Fold fold)
{
    while (*a && fold(*a) == fold(*b)) ++a, ++b;
    return static_cast<tn_int32>(fold(*a)) - static_cast<tn_int32>(fold(*b));
}

template <class C>
tn_int32 diffn(const C *a, tn_uint32 n, const C *b)
{
    for (tn_uint32 i = 0; i < n; ++i) {
        if (a[i] != b[i]) return static_cast<tn_int32>(a[i]) - static_cast<tn_int32>(b[i]);
        if (!a[i]) return 0;
    }
    return 0;
}

// No terminator test: a zero is an ordinary value here.
template <class C>
tn_int32 case_diffn(const C *a, tn_uint32 n, const C *b)
{
    for (tn_uint32 i = 0; i < n; ++i) {
        C x = lower(a[i]), y = lower(b[i]);
        if (x != y) return static_cast<tn_int32>(x) - static_cast<tn_int32>(y);
    }
    return 0;
}

// Behind prefix in s when s begins with it, letters folded, else null. The
// terminator of s matches no character of prefix, so a shorter s stops there.
template <class C, class P>
const C *behind_case_prefix(const C *s, const P *prefix)
{
    for (; *prefix; ++s, ++prefix)
        if (lower(*s) != lower(static_cast<C>(*prefix))) return nullptr;
    return s;
}

template <class C, class Map>
void map(C *s, Map m)
{
    for (; *s; ++s) *s = m(*s);
}

template <class C, class Map>
void mapn(C *s, tn_uint32 n, Map m)
{
    for (tn_uint32 i = 0; i < n; ++i) s[i] = m(s[i]);
}

template <class C>
constexpr C same(C c)
{
    return c;
}

} // namespace tn::text

#endif
