#include <tarnel_util/tn_str.h>
#include <tarnel_util/tn_uchar_array.h>
#include <tarnel_util/tn_wchar_array.h>
#include <tarnel_util/tn_wstr.h>

#include <cstring>

#include "text/text.h"

namespace {

// One set of steps for both widths; C is the character type and matches the
// array's element size.
template <class C>
tn_uint32 find(const tn_array *a, C c)
{
    return tn::text::chrn(static_cast<const C *>(tn_array_get(a)), tn_array_length(a), c);
}

template <class C>
tn_bool equals(const tn_array *a, const C *s)
{
    tn_uint32 n = tn_array_length(a);
    if (tn::text::len(s) != n) return 0;
    return n == 0 || std::memcmp(tn_array_get(a), s, static_cast<size_t>(n) * sizeof(C)) == 0;
}

template <class C>
tn_bool cat0(tn_array *a)
{
    const C zero = 0;
    return tn_array_catn(a, &zero, 1);
}

template <class C>
tn_bool catn0(tn_array *a, const C *characters, tn_uint32 n)
{
    return tn_array_catn(a, characters, n) && cat0<C>(a);
}

template <class C>
tn_bool remove0(tn_array *a)
{
    tn_uint32 n = tn_array_length(a);
    if (n && static_cast<const C *>(tn_array_get(a))[n - 1] != 0) return 0;
    return tn_array_remove_end(a);
}

template <class C>
tn_bool insert0(tn_array *a, tn_uint32 position)
{
    // A failed array refuses the insert anyway, and may have no element size.
    if (a->failed || position > a->length / a->element_size) return 0;
    const C zero = 0;
    return tn_array_insertn(a, &zero, 1, position);
}

// The copy forms empty the array first, a failed one too, then append.
template <class Append>
tn_bool emptied(tn_array *a, Append append)
{
    tn_array_truncate(a);
    return append();
}

} // namespace

tn_bool tn_uchar_is_hex(tn_uchar c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

tn_uint8 tn_uchar_hex_to_uint8(tn_uchar c)
{
    if (c >= '0' && c <= '9') return static_cast<tn_uint8>(c - '0');
    if (c >= 'a' && c <= 'f') return static_cast<tn_uint8>(c - 'a' + 10);
    if (c >= 'A' && c <= 'F') return static_cast<tn_uint8>(c - 'A' + 10);
    return 0;
}

tn_uchar tn_uchar_uint8_to_hex(tn_uint8 value) { return value < 16 ? "0123456789abcdef"[value] : '0'; }

tn_uint32 tn_uchar_array_find(const tn_uchar_array *a, tn_uchar c) { return find(a, c); }
tn_bool tn_uchar_array_equals(const tn_uchar_array *a, const tn_uchar *s) { return equals(a, s); }
tn_bool tn_uchar_array_cats(tn_uchar_array *a, const tn_uchar *s) { return tn_array_catn(a, s, tn_str_len(s)); }
tn_bool tn_uchar_array_cats0(tn_uchar_array *a, const tn_uchar *s) { return tn_array_catn(a, s, tn_str_len(s) + 1); }
tn_bool tn_uchar_array_catn0(tn_uchar_array *a, const tn_uchar *c, tn_uint32 n) { return catn0(a, c, n); }
tn_bool tn_uchar_array_cat0(tn_uchar_array *a) { return cat0<tn_uchar>(a); }
tn_bool tn_uchar_array_remove0(tn_uchar_array *a) { return remove0<tn_uchar>(a); }
tn_bool tn_uchar_array_insert0(tn_uchar_array *a, tn_uint32 position) { return insert0<tn_uchar>(a, position); }

tn_bool tn_uchar_array_copy(tn_uchar_array *a, const tn_uchar_array *source)
{
    // Onto itself: emptying first would lose the source, and a sound array
    // already holds the copy.
    if (a == source && !a->failed) return 1;
    return emptied(a, [&] { return tn_array_cat(a, source); });
}

tn_bool tn_uchar_array_copyn(tn_uchar_array *a, const tn_uchar *c, tn_uint32 n)
{
    return emptied(a, [&] { return tn_array_catn(a, c, n); });
}

tn_bool tn_uchar_array_copyn0(tn_uchar_array *a, const tn_uchar *c, tn_uint32 n)
{
    return emptied(a, [&] { return catn0(a, c, n); });
}

tn_bool tn_uchar_array_copys(tn_uchar_array *a, const tn_uchar *s)
{
    return emptied(a, [&] { return tn_uchar_array_cats(a, s); });
}

tn_bool tn_uchar_array_copys0(tn_uchar_array *a, const tn_uchar *s)
{
    return emptied(a, [&] { return tn_uchar_array_cats0(a, s); });
}

tn_uint32 tn_wchar_array_find(const tn_wchar_array *a, tn_wchar c) { return find(a, c); }
tn_bool tn_wchar_array_equals(const tn_wchar_array *a, const tn_wchar *s) { return equals(a, s); }
tn_bool tn_wchar_array_cats(tn_wchar_array *a, const tn_wchar *s) { return tn_array_catn(a, s, tn_wstr_len(s)); }
tn_bool tn_wchar_array_cats0(tn_wchar_array *a, const tn_wchar *s) { return tn_array_catn(a, s, tn_wstr_len(s) + 1); }
tn_bool tn_wchar_array_catn0(tn_wchar_array *a, const tn_wchar *c, tn_uint32 n) { return catn0(a, c, n); }
tn_bool tn_wchar_array_cat0(tn_wchar_array *a) { return cat0<tn_wchar>(a); }
tn_bool tn_wchar_array_remove0(tn_wchar_array *a) { return remove0<tn_wchar>(a); }
tn_bool tn_wchar_array_insert0(tn_wchar_array *a, tn_uint32 position) { return insert0<tn_wchar>(a, position); }
