#include <tarnel_util/tn_mult.h>

namespace {

// The compiler's overflow-checked multiply computes the exact product and
// tells whether it fits, which is precisely the contract; out is written only
// when it does.
template <class T>
tn_bool checked_mult(T a, T b, T *out)
{
    T product;
    if (__builtin_mul_overflow(a, b, &product)) return 0;
    *out = product;
    return 1;
}

} // namespace

tn_bool tn_int16_mult(tn_int16 a, tn_int16 b, tn_int16 *out) { return checked_mult(a, b, out); }
tn_bool tn_int32_mult(tn_int32 a, tn_int32 b, tn_int32 *out) { return checked_mult(a, b, out); }
tn_bool tn_int64_mult(tn_int64 a, tn_int64 b, tn_int64 *out) { return checked_mult(a, b, out); }
tn_bool tn_uint16_mult(tn_uint16 a, tn_uint16 b, tn_uint16 *out) { return checked_mult(a, b, out); }
tn_bool tn_uint32_mult(tn_uint32 a, tn_uint32 b, tn_uint32 *out) { return checked_mult(a, b, out); }
tn_bool tn_uint64_mult(tn_uint64 a, tn_uint64 b, tn_uint64 *out) { return checked_mult(a, b, out); }
