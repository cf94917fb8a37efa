#include <tarnel_util/tn_alloc.h>
#include <tarnel_util/tn_str_list.h>

#include "text/text.h"

namespace {

template <class C>
tn_uint32 entries(C *const *list)
{
    tn_uint32 n = 0;
    while (list[n]) ++n;
    return n;
}

template <class C>
void free_list(C **list)
{
    if (!list) return;
    for (C **p = list; *p; ++p) tn_alloc_free(*p);
    tn_alloc_free(list);
}

template <class C>
tn_bool clone_list(C *const *list, C ***result)
{
    *result = nullptr;
    if (!list) return 1;
    tn_uint32 n = entries(list), bytes;
    if (!tn::checked_mult(n + 1u, tn_uint32{sizeof(C *)}, &bytes)) return 0;
    auto **copy = static_cast<C **>(tn_alloc_zero(bytes));
    if (!copy) return 0;
    for (tn_uint32 i = 0; i < n; ++i) {
        // The block is zeroed, so what was cloned so far ends at the first null.
        if (!tn::text::clone(list[i], &copy[i], tn::text::len(list[i]))) {
            free_list(copy);
            return 0;
        }
    }
    *result = copy;
    return 1;
}

template <class C>
tn_uint32 find(C *const *list, const C *s)
{
    if (!list) return 0;
    tn_uint32 i = 0;
    for (; list[i]; ++i)
        if (tn::text::diff(list[i], s, tn::text::same<C>) == 0) break;
    return i;
}

} // namespace

tn_bool tn_str_list_clone(tn_uchar *const *list, tn_uchar ***result) { return clone_list(list, result); }
void tn_str_list_free(tn_uchar **list) { free_list(list); }
tn_uint32 tn_str_list_find(tn_uchar *const *list, const tn_uchar *s) { return find(list, s); }

tn_bool tn_wstr_list_clone(tn_wchar *const *list, tn_wchar ***result) { return clone_list(list, result); }
void tn_wstr_list_free(tn_wchar **list) { free_list(list); }
tn_uint32 tn_wstr_list_find(tn_wchar *const *list, const tn_wchar *s) { return find(list, s); }
