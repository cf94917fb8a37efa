#include <tarnel_util/tn_array.h>

#include <cstring>

namespace {

// Every typed view reads its element through tn_array_get_pos, so a miss,
// an empty array and a failed array all come back as 0 of the type.
template <class T>
T get_pos(const tn_array *a, tn_uint32 position)
{
    // An element narrower than T fills only T's low bytes: never read past it.
    T value{};
    if (const void *p = tn_array_get_pos(a, position))
        std::memcpy(&value, p, a->element_size < sizeof value ? a->element_size : sizeof value);
    return value;
}

template <class T>
T get_end(const tn_array *a)
{
    tn_uint32 n = tn_array_length(a);
    return n ? get_pos<T>(a, n - 1) : T{};
}

// One element built from the low bytes of a pointer-sized value; the
// array's element size decides how many are taken.
struct element_bytes {
    tn_uchar bytes[256];
    const tn_uchar *data;
};

const void *low_bytes(const tn_array *a, tn_uint64 value, element_bytes *out)
{
    static_assert(sizeof(void *) <= sizeof(tn_uint64));
    tn_uint32 size = a->element_size;
    if (size <= sizeof value) {
        for (unsigned i = 0; i < sizeof value; ++i) out->bytes[i] = static_cast<tn_uchar>(value >> (8 * i));
        return out->bytes;
    }
    // A record-sized element: the value's bytes, then zeros. Elements too
    // large for the buffer cannot be made from a value at all.
    if (size > sizeof out->bytes) return nullptr;
    std::memset(out->bytes, 0, size);
    for (unsigned i = 0; i < sizeof value; ++i) out->bytes[i] = static_cast<tn_uchar>(value >> (8 * i));
    return out->bytes;
}

tn_uint64 value_of(const void *p) { return reinterpret_cast<tn_uint64>(p); }

tn_bool cat_value(tn_array *a, tn_uint64 value)
{
    element_bytes e;
    const void *bytes = low_bytes(a, value, &e);
    return bytes ? tn_array_catn(a, bytes, 1) : 0;
}

tn_bool byte_order_sort(tn_array *a, tn_comparator cmp)
{
    return tn_array_sort(a, cmp, &a->element_size);
}

tn_bool byte_order_insert(tn_array *a, tn_uint32 value, tn_comparator cmp)
{
    element_bytes e;
    const void *bytes = low_bytes(a, value, &e);
    return bytes ? tn_array_inserto_in_sort(a, bytes, cmp, &a->element_size) : 0;
}

} // namespace

tn_int8 tn_int8_array_get_pos(const tn_int8_array *a, tn_uint32 p) { return get_pos<tn_int8>(a, p); }
tn_int8 tn_int8_array_get_end(const tn_int8_array *a) { return get_end<tn_int8>(a); }
tn_uint8 tn_uint8_array_get_pos(const tn_uint8_array *a, tn_uint32 p) { return get_pos<tn_uint8>(a, p); }
tn_uint8 tn_uint8_array_get_end(const tn_uint8_array *a) { return get_end<tn_uint8>(a); }
tn_uchar tn_uchar_array_get_pos(const tn_uchar_array *a, tn_uint32 p) { return get_pos<tn_uchar>(a, p); }
tn_uchar tn_uchar_array_get_end(const tn_uchar_array *a) { return get_end<tn_uchar>(a); }

tn_int16 tn_int16_array_get_pos(const tn_int16_array *a, tn_uint32 p) { return get_pos<tn_int16>(a, p); }
tn_int16 tn_int16_array_get_end(const tn_int16_array *a) { return get_end<tn_int16>(a); }
tn_uint16 tn_uint16_array_get_pos(const tn_uint16_array *a, tn_uint32 p) { return get_pos<tn_uint16>(a, p); }
tn_uint16 tn_uint16_array_get_end(const tn_uint16_array *a) { return get_end<tn_uint16>(a); }
tn_wchar tn_wchar_array_get_pos(const tn_wchar_array *a, tn_uint32 p) { return get_pos<tn_wchar>(a, p); }
tn_wchar tn_wchar_array_get_end(const tn_wchar_array *a) { return get_end<tn_wchar>(a); }

tn_bool tn_bool_array_get_pos(const tn_bool_array *a, tn_uint32 p) { return get_pos<tn_bool>(a, p); }
tn_bool tn_bool_array_get_end(const tn_bool_array *a) { return get_end<tn_bool>(a); }
tn_id32 tn_id32_array_get_pos(const tn_id32_array *a, tn_uint32 p) { return get_pos<tn_id32>(a, p); }
tn_id32 tn_id32_array_get_end(const tn_id32_array *a) { return get_end<tn_id32>(a); }
tn_int32 tn_int32_array_get_pos(const tn_int32_array *a, tn_uint32 p) { return get_pos<tn_int32>(a, p); }
tn_int32 tn_int32_array_get_end(const tn_int32_array *a) { return get_end<tn_int32>(a); }
tn_int tn_int_array_get_pos(const tn_int_array *a, tn_uint32 p) { return get_pos<tn_int>(a, p); }
tn_int tn_int_array_get_end(const tn_int_array *a) { return get_end<tn_int>(a); }
tn_uint32 tn_uint32_array_get_pos(const tn_uint32_array *a, tn_uint32 p) { return get_pos<tn_uint32>(a, p); }
tn_uint32 tn_uint32_array_get_end(const tn_uint32_array *a) { return get_end<tn_uint32>(a); }
tn_socket tn_socket_array_get_pos(const tn_socket_array *a, tn_uint32 p) { return get_pos<tn_socket>(a, p); }
tn_socket tn_socket_array_get_end(const tn_socket_array *a) { return get_end<tn_socket>(a); }

tn_int64 tn_int64_array_get_pos(const tn_int64_array *a, tn_uint32 p) { return get_pos<tn_int64>(a, p); }
tn_int64 tn_int64_array_get_end(const tn_int64_array *a) { return get_end<tn_int64>(a); }
tn_uint64 tn_uint64_array_get_pos(const tn_uint64_array *a, tn_uint32 p) { return get_pos<tn_uint64>(a, p); }
tn_uint64 tn_uint64_array_get_end(const tn_uint64_array *a) { return get_end<tn_uint64>(a); }
tn_time tn_time_array_get_pos(const tn_time_array *a, tn_uint32 p) { return get_pos<tn_time>(a, p); }
tn_time tn_time_array_get_end(const tn_time_array *a) { return get_end<tn_time>(a); }
tn_timel tn_timel_array_get_pos(const tn_timel_array *a, tn_uint32 p) { return get_pos<tn_timel>(a, p); }
tn_timel tn_timel_array_get_end(const tn_timel_array *a) { return get_end<tn_timel>(a); }

void *tn_ptr_array_get_pos(const tn_ptr_array *a, tn_uint32 p) { return get_pos<void *>(a, p); }
void *tn_ptr_array_get_end(const tn_ptr_array *a) { return get_end<void *>(a); }

tn_bool tn_ptr_array_cato(tn_ptr_array *a, const void *value) { return cat_value(a, value_of(value)); }
tn_bool tn_uchar_array_cato(tn_uchar_array *a, tn_uchar c) { return cat_value(a, c); }
tn_bool tn_wchar_array_cato(tn_wchar_array *a, tn_wchar c) { return cat_value(a, c); }

tn_bool tn_ptr_array_cat0(tn_ptr_array *a) { return cat_value(a, 0); }

tn_bool tn_ptr_array_inserto(tn_ptr_array *a, const void *value, tn_uint32 position)
{
    element_bytes e;
    const void *bytes = low_bytes(a, value_of(value), &e);
    return bytes ? tn_array_insertn(a, bytes, 1, position) : 0;
}

tn_uint32 tn_ptr_array_find(const tn_ptr_array *a, const void *value)
{
    element_bytes e;
    const void *bytes = low_bytes(a, value_of(value), &e);
    return bytes ? tn_array_find(a, bytes) : tn_array_length(a);
}

tn_uint32 tn_ptr_array_find2(const tn_ptr_array *a, const void *key, tn_comparator comparator,
                             void *user)
{
    tn_uint32 n = tn_array_length(a);
    for (tn_uint32 i = 0; i < n; ++i)
        if (comparator(key, get_pos<void *>(a, i), user) == 0) return i;
    return n;
}

tn_bool tn_uint32_array_inserto_in_sort(tn_uint32_array *a, tn_uint32 v)
{
    return byte_order_insert(a, v, tn_array_comparator_default);
}

tn_bool tn_uint32_array_inserto_in_sortr(tn_uint32_array *a, tn_uint32 v)
{
    return byte_order_insert(a, v, tn_array_comparator_defaultr);
}

tn_bool tn_uint32_array_sort(tn_uint32_array *a) { return byte_order_sort(a, tn_array_comparator_default); }
tn_bool tn_uint32_array_sortr(tn_uint32_array *a) { return byte_order_sort(a, tn_array_comparator_defaultr); }
