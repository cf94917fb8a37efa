#include <tarnel_util/tn_byte.h>

#include <cstring>

#include "core/byte_find.h"

tn_uint32 tn_byte_copy(void *destination, tn_uint32 length, const void *source)
{
    // memmove is already word-wise for disjoint ranges and correct for
    // overlap, so one call serves every case.
    if (destination != source && length) std::memmove(destination, source, length);
    return length;
}

tn_int32 tn_byte_diff(const void *a, tn_uint32 length, const void *b)
{
    if (!length) return 0;
    int d = std::memcmp(a, b, length);
    return (d > 0) - (d < 0);
}

void tn_byte_zero(void *block, tn_uint32 length)
{
    if (length) std::memset(block, 0, length);
}

tn_uint32 tn_byte_find(const void *haystack, tn_uint32 haystack_length, const void *needle,
                       tn_uint32 needle_length)
{
    if (!haystack_length || !needle_length) return 0;
    return tn::byte_find(static_cast<const tn_uchar *>(haystack), haystack_length,
                         static_cast<const tn_uchar *>(needle), needle_length);
}
