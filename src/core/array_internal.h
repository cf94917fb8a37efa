// Appends for the library's own bookkeeping lists.
#ifndef TN_SRC_CORE_ARRAY_INTERNAL_H
#define TN_SRC_CORE_ARRAY_INTERNAL_H

#include <tarnel_util/tn_array.h>

namespace tn {

// Appends count elements, or reports failure and leaves the list as it was.
// A failed append leaves the content untouched, so dropping the sticky flag
// restores the list exactly: one refused request must not make a waiter
// list or a request queue refuse every later one, nor hide what it holds.
inline bool append_or_keep(tn_array *list, const void *elements, tn_uint32 count)
{
    if (tn_array_catn(list, elements, count)) return true;
    list->failed = 0;
    return false;
}

// Position of the first record of a that match accepts, or the length.
template <class Record, class Match>
tn_uint32 find_record(const tn_array *a, Match match)
{
    tn_uint32 n = tn_array_length(a);
    const auto *records = static_cast<const Record *>(tn_array_get(a));
    for (tn_uint32 i = 0; i < n; ++i)
        if (match(records[i])) return i;
    return n;
}

} // namespace tn

#endif
