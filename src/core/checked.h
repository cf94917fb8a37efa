// Checked multiplication for the library's own size arithmetic: the same
// contract as the tn_*_mult family, inline where a size check sits on a hot
// path.
#ifndef TN_SRC_CORE_CHECKED_H
#define TN_SRC_CORE_CHECKED_H

namespace tn {

// The compiler's overflow-checked multiply computes the exact product and
// tells whether it fits; out is written only when it does.
template <class T>
inline bool checked_mult(T a, T b, T *out)
{
    T product;
    if (__builtin_mul_overflow(a, b, &product)) return false;
    *out = product;
    return true;
}

} // namespace tn

#endif
