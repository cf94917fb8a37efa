#include <tarnel_util/tn_wstr.h>

#include "text/text.h"

namespace text = tn::text;
using W = tn_wchar;

tn_uint32 tn_wstr_len(const W *s) { return text::len(s); }
tn_uint32 tn_wstr_copy(W *d, const W *s) { return text::copy_counted(d, s, text::len(s)); }
tn_uint32 tn_wstr_copy0(W *d, const W *s) { return tn_wstr_copy(d, s) + 1; }
tn_uint32 tn_wstr_copyn(W *d, tn_uint32 n, const W *s) { return text::copyn_counted(d, n, s, text::len_within(s, n)); }

tn_uint32 tn_wstr_copyn0(W *d, tn_uint32 n, const W *s)
{
    tn_uint32 k = tn_wstr_copyn(d, n, s);
    d[k] = 0;
    return k + 1;
}

tn_bool tn_wstr_clone(const W *source, W **result)
{
    return text::clone(source, result, source ? text::len(source) : 0);
}

tn_uint32 tn_wstr_chr(const W *s, W c) { return text::chr(s, c); }
tn_uint32 tn_wstr_chrn(const W *s, tn_uint32 n, W c) { return text::chrn(s, n, c); }
tn_uint32 tn_wstr_rchr(const W *s, W c) { return c ? text::rchr(s, c) : text::len(s); }
tn_uint32 tn_wstr_find(const W *s, const W *sub)
{
    return text::find(s, text::len(s), sub, text::len(sub), tn::same_char{});
}
tn_uint32 tn_wstr_case_find(const W *s, const W *sub)
{
    return text::find(s, text::len(s), sub, text::len(sub), text::lower<W>);
}
tn_int32 tn_wstr_diff(const W *a, const W *b) { return text::diff(a, b, text::same<W>); }
tn_int32 tn_wstr_diffn(const W *a, tn_uint32 n, const W *b) { return text::diffn(a, n, b); }
tn_int32 tn_wstr_case_diff(const W *a, const W *b) { return text::diff(a, b, text::lower<W>); }
tn_int32 tn_wstr_case_diffn(const W *a, tn_uint32 n, const W *b) { return text::case_diffn(a, n, b); }
void tn_wstr_case_lower(W *s) { text::map(s, text::lower<W>); }
void tn_wstr_case_lowern(W *s, tn_uint32 n) { text::mapn(s, n, text::lower<W>); }
void tn_wstr_case_upper(W *s) { text::map(s, text::upper<W>); }
void tn_wstr_case_uppern(W *s, tn_uint32 n) { text::mapn(s, n, text::upper<W>); }
