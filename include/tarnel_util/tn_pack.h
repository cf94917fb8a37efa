/*
 * tn_pack.h - packing values into bytes, and the host's byte order.
 *
 * pack writes a value to a buffer of at least its size and unpack reads one
 * back through out. The plain forms are little-endian, the _big forms
 * big-endian, whatever the host's order; buffers need no alignment. The float
 * forms move the IEEE 754 bit pattern unchanged.
 */
#ifndef TARNEL_UTIL_TN_PACK_H
#define TARNEL_UTIL_TN_PACK_H

#include "tn_types.h"

TN_BEGIN_DECLS

TN_API void tn_uint16_pack(tn_uchar *destination, tn_uint16 value);
TN_API void tn_uint16_pack_big(tn_uchar *destination, tn_uint16 value);
TN_API void tn_uint16_unpack(const tn_uchar *source, tn_uint16 *out);
TN_API void tn_uint16_unpack_big(const tn_uchar *source, tn_uint16 *out);

TN_API void tn_uint32_pack(tn_uchar *destination, tn_uint32 value);
TN_API void tn_uint32_pack_big(tn_uchar *destination, tn_uint32 value);
TN_API void tn_uint32_unpack(const tn_uchar *source, tn_uint32 *out);
TN_API void tn_uint32_unpack_big(const tn_uchar *source, tn_uint32 *out);

TN_API void tn_uint64_pack(tn_uchar *destination, tn_uint64 value);
TN_API void tn_uint64_pack_big(tn_uchar *destination, tn_uint64 value);
TN_API void tn_uint64_unpack(const tn_uchar *source, tn_uint64 *out);
TN_API void tn_uint64_unpack_big(const tn_uchar *source, tn_uint64 *out);

TN_API void tn_float32_pack(tn_uchar *destination, float value);
TN_API void tn_float32_pack_big(tn_uchar *destination, float value);
TN_API void tn_float32_unpack(const tn_uchar *source, float *out);
TN_API void tn_float32_unpack_big(const tn_uchar *source, float *out);

TN_API void tn_float64_pack(tn_uchar *destination, double value);
TN_API void tn_float64_pack_big(tn_uchar *destination, double value);
TN_API void tn_float64_unpack(const tn_uchar *source, double *out);
TN_API void tn_float64_unpack_big(const tn_uchar *source, double *out);

/* 1 on a little-endian host, else 0. */
TN_API tn_bool tn_endian_is_little(void);
/* 1 on a big-endian host, else 0. */
TN_API tn_bool tn_endian_is_big(void);
/* 1 on a little-endian host, 0 on a big-endian one. */
TN_API tn_bool tn_endian_get(void);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_PACK_H */
