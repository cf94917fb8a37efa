// Input that may lie in the storage of the array an operation writes to.
// Callers hand the library pointers they took from the very array they
// append to (a header value copied into the same header block); growth frees
// the old storage and shifts move it, so such input is followed by offset.
#ifndef TN_SRC_CORE_WITHIN_H
#define TN_SRC_CORE_WITHIN_H

#include <tarnel_util/tn_array.h>

#include <cstdint>

namespace tn {

// Whether p points into the used bytes of a: only those survive a growth.
inline bool within(const tn_array *a, const void *p)
{
    auto at = reinterpret_cast<std::uintptr_t>(p), data = reinterpret_cast<std::uintptr_t>(a->data);
    return a->data && at >= data && at - data < a->length;
}

// A read position held as an offset into the array's used bytes when it lies
// there, so that an append which moves the storage cannot leave it dangling.
struct anchor {
    const tn_array *array;
    const tn_uchar *outside; // null when the position lies in the array
    tn_uint32 offset;

    const tn_uchar *at() const { return outside ? outside : array->data + offset; }
};

inline anchor anchor_in(const tn_array *a, const void *p)
{
    const auto *bytes = static_cast<const tn_uchar *>(p);
    if (!within(a, p)) return {a, bytes, 0};
    return {a, nullptr, static_cast<tn_uint32>(bytes - a->data)};
}

} // namespace tn

#endif
