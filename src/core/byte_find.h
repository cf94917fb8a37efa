// Substring search over bytes, shared by the byte and string families.
#ifndef TN_SRC_CORE_BYTE_FIND_H
#define TN_SRC_CORE_BYTE_FIND_H

#include <tarnel_util/tn_types.h>

namespace tn {

// Offset of the first occurrence of needle (length m >= 1) in haystack
// (length n), or n. Linear in n for every input; reads nothing outside
// either range.
tn_uint32 byte_find(const tn_uchar *haystack, tn_uint32 n, const tn_uchar *needle, tn_uint32 m);

// The same with ASCII letters matching regardless of case.
tn_uint32 byte_case_find(const tn_uchar *haystack, tn_uint32 n, const tn_uchar *needle, tn_uint32 m);

} // namespace tn

#endif
