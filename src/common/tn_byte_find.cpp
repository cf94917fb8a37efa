#include "tn_byte_find.h"

#include <cstring>

namespace tn {

// Placeholder scan; replaced by a linear-time search.
tn_uint32 byte_find(const tn_uchar *haystack, tn_uint32 n, const tn_uchar *needle, tn_uint32 m)
{
    if (m > n) return n;
    const tn_uchar *end = haystack + (n - m) + 1;
    for (const tn_uchar *p = haystack; p < end;) {
        p = static_cast<const tn_uchar *>(std::memchr(p, needle[0], static_cast<size_t>(end - p)));
        if (!p) break;
        if (std::memcmp(p, needle, m) == 0) return static_cast<tn_uint32>(p - haystack);
        ++p;
    }
    return n;
}

} // namespace tn
