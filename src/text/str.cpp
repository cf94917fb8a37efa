#include <tarnel_util/tn_str.h>

#include <cstring>

#include "core/byte_find.h"
#include "text/text.h"

namespace text = tn::text;
using U = tn_uchar;

namespace {

const char *cs(const U *s) { return reinterpret_cast<const char *>(s); }
tn_uint32 offset(const U *s, const char *at) { return static_cast<tn_uint32>(at - cs(s)); }

const U crlf[] = {'\r', '\n', 0};
const U htsp[] = {'\t', ' ', 0};
const char blanks[] = " \t";

} // namespace

const U *tn_str_crlf(void) { return crlf; }
const U *tn_str_htsp(void) { return htsp; }

// The C library's scans are vectorised; the results are the same positions.
tn_uint32 tn_str_len(const U *s) { return static_cast<tn_uint32>(std::strlen(cs(s))); }
tn_uint32 tn_str_copy(U *d, const U *s) { return text::copy_counted(d, s, tn_str_len(s)); }
tn_uint32 tn_str_copy0(U *d, const U *s) { return tn_str_copy(d, s) + 1; }

tn_uint32 tn_str_copyn(U *d, tn_uint32 n, const U *s)
{
    return text::copyn_counted(d, n, s, static_cast<tn_uint32>(strnlen(cs(s), n)));
}

tn_uint32 tn_str_copyn0(U *d, tn_uint32 n, const U *s)
{
    tn_uint32 k = tn_str_copyn(d, n, s);
    d[k] = 0;
    return k + 1;
}

tn_bool tn_str_clone(const U *source, U **result)
{
    return text::clone(source, result, source ? tn_str_len(source) : 0);
}

tn_uint32 tn_str_chr(const U *s, U c)
{
    const char *at = std::strchr(cs(s), c); // c = 0 finds the terminator
    return at ? offset(s, at) : tn_str_len(s);
}

tn_uint32 tn_str_chrn(const U *s, tn_uint32 n, U c)
{
    const void *at = std::memchr(s, c, n);
    return at ? static_cast<tn_uint32>(static_cast<const U *>(at) - s) : n;
}

tn_uint32 tn_str_rchr(const U *s, U c)
{
    const char *at = c ? std::strrchr(cs(s), c) : nullptr;
    return at ? offset(s, at) : tn_str_len(s);
}

U tn_str_contain(const U *s, U c) { return c && std::strchr(cs(s), c) ? c : 0; }

tn_uint32 tn_str_find(const U *s, const U *sub)
{
    const char *at = std::strstr(cs(s), cs(sub));
    return at ? offset(s, at) : tn_str_len(s);
}

tn_uint32 tn_str_case_find(const U *s, const U *sub)
{
    tn_uint32 m = tn_str_len(sub);
    return m ? tn::byte_case_find(s, tn_str_len(s), sub, m) : 0;
}
tn_int32 tn_str_diff(const U *a, const U *b) { return text::diff(a, b, text::same<U>); }
tn_int32 tn_str_diffn(const U *a, tn_uint32 n, const U *b) { return text::diffn(a, n, b); }
tn_int32 tn_str_case_diff(const U *a, const U *b) { return text::diff(a, b, text::lower<U>); }
tn_int32 tn_str_case_diffn(const U *a, tn_uint32 n, const U *b) { return text::case_diffn(a, n, b); }

tn_bool tn_str_end(const U *s, const U *suffix)
{
    tn_uint32 n = tn_str_len(s), m = tn_str_len(suffix);
    return n >= m && std::memcmp(s + (n - m), suffix, m) == 0;
}

tn_bool tn_str_case_end(const U *s, const U *suffix)
{
    tn_uint32 n = tn_str_len(s), m = tn_str_len(suffix);
    return n >= m && text::case_diffn(s + (n - m), m, suffix) == 0;
}

tn_uint32 tn_str_skip_till(const U *s, const U *set) { return static_cast<tn_uint32>(std::strcspn(cs(s), cs(set))); }
tn_uint32 tn_str_skip_while(const U *s, const U *set) { return static_cast<tn_uint32>(std::strspn(cs(s), cs(set))); }
tn_uint32 tn_str_skip_space(const U *s) { return static_cast<tn_uint32>(std::strspn(cs(s), blanks)); }
tn_uint32 tn_str_skip_word(const U *s) { return static_cast<tn_uint32>(std::strcspn(cs(s), blanks)); }

void tn_str_case_lower(U *s) { text::map(s, text::lower<U>); }
void tn_str_case_lowern(U *s, tn_uint32 n) { text::mapn(s, n, text::lower<U>); }
void tn_str_case_upper(U *s) { text::map(s, text::upper<U>); }
void tn_str_case_uppern(U *s, tn_uint32 n) { text::mapn(s, n, text::upper<U>); }
