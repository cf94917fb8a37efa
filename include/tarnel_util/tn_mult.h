/*
 * tn_mult.h - checked multiplication.
 *
 * Each operation multiplies a by b. If the exact product fits the type, it is
 * stored through out and 1 is returned; otherwise 0 is returned and out is
 * left as it was. A factor of 0 always fits.
 */
#ifndef TARNEL_UTIL_TN_MULT_H
#define TARNEL_UTIL_TN_MULT_H

#include "tn_types.h"

TN_BEGIN_DECLS

TN_API tn_bool tn_int16_mult(tn_int16 a, tn_int16 b, tn_int16 *out);
TN_API tn_bool tn_int32_mult(tn_int32 a, tn_int32 b, tn_int32 *out);
TN_API tn_bool tn_int64_mult(tn_int64 a, tn_int64 b, tn_int64 *out);
TN_API tn_bool tn_uint16_mult(tn_uint16 a, tn_uint16 b, tn_uint16 *out);
TN_API tn_bool tn_uint32_mult(tn_uint32 a, tn_uint32 b, tn_uint32 *out);
TN_API tn_bool tn_uint64_mult(tn_uint64 a, tn_uint64 b, tn_uint64 *out);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_MULT_H */
