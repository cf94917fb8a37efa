#include <tarnel_util/tn_mult.h>

#include "core/checked.h"

using tn::checked_mult;

tn_bool tn_int16_mult(tn_int16 a, tn_int16 b, tn_int16 *out) { return checked_mult(a, b, out); }
tn_bool tn_int32_mult(tn_int32 a, tn_int32 b, tn_int32 *out) { return checked_mult(a, b, out); }
tn_bool tn_int64_mult(tn_int64 a, tn_int64 b, tn_int64 *out) { return checked_mult(a, b, out); }
tn_bool tn_uint16_mult(tn_uint16 a, tn_uint16 b, tn_uint16 *out) { return checked_mult(a, b, out); }
tn_bool tn_uint32_mult(tn_uint32 a, tn_uint32 b, tn_uint32 *out) { return checked_mult(a, b, out); }
tn_bool tn_uint64_mult(tn_uint64 a, tn_uint64 b, tn_uint64 *out) { return checked_mult(a, b, out); }
