#include <tarnel_util/tn_alloc.h>
#include <tarnel_util/tn_array.h>
#include <tarnel_util/tn_byte.h>

#include <cstdint>
#include <cstring>

#include "core/checked.h"

namespace {

constexpr tn_uint32 no_position = 0xFFFFFFFFu;

bool mult(tn_uint32 a, tn_uint32 b, tn_uint32 *out) { return tn::checked_mult(a, b, out); }

// The one growth rule behind every operation that needs room: room for
// unit * count bytes, at least one eighth more than now, optionally rounded to
// whole blocks. False when the size cannot be had in 32 bits.
bool grown_capacity(const tn_array *a, tn_uint32 unit, tn_uint32 count, bool align, tn_uint32 *out)
{
    tn_uint32 need;
    if (!mult(unit, count, &need)) return false;
    tn_uint32 eighth_more = a->capacity + a->capacity / 8;
    if (eighth_more >= need) need = eighth_more;
    if (align) {
        // The checks against the block size catch a sum that wrapped.
        if (unit < 8) {
            need = (need + 127u) & ~tn_uint32{127};
            if (need < 128u) return false;
        } else {
            need = (need + 4095u) & ~tn_uint32{4095};
            if (need < 4096u) return false;
        }
    }
    *out = need;
    return true;
}

// Room for unit * count bytes; only the used bytes move to a new block.
tn_uchar *grow(tn_array *a, tn_uint32 unit, tn_uint32 count, bool align)
{
    if (a->failed) return nullptr;
    tn_uint32 need;
    if (!mult(unit, count, &need)) return nullptr;
    if (a->capacity >= need) return a->data;
    if (!grown_capacity(a, unit, count, align, &need)) return nullptr;
    void *p = tn_alloc_re(a->data, a->length, need);
    if (!p) return nullptr;
    a->data = static_cast<tn_uchar *>(p);
    a->capacity = need;
    return a->data;
}

// Byte offset of a position that must lie within the used length.
bool offset_within(const tn_array *a, tn_uint32 position, tn_uint32 *offset)
{
    return position != no_position && mult(position, a->element_size, offset) &&
           *offset < a->length;
}

tn_bool fail(tn_array *a)
{
    a->failed = 1;
    return 0;
}

std::uintptr_t address(const void *p) { return reinterpret_cast<std::uintptr_t>(p); }

// A growing append or insert builds the new block around the gap and copies
// the elements in before the old block goes, so elements taken from the
// array's own storage are still there to be read.
tn_bool place_moving(tn_array *a, const void *elements, tn_uint32 bytes, tn_uint32 offset, tn_uint32 total)
{
    tn_uint32 capacity;
    if (!grown_capacity(a, 1, total, true, &capacity)) return fail(a);
    auto *fresh = static_cast<tn_uchar *>(tn_alloc(capacity));
    if (!fresh) return fail(a);
    if (offset) std::memcpy(fresh, a->data, offset);
    std::memcpy(fresh + offset, elements, bytes);
    if (a->length > offset) std::memcpy(fresh + offset + bytes, a->data + offset, a->length - offset);
    tn_alloc_free(a->data);
    a->data = fresh;
    a->capacity = capacity;
    a->length = total;
    return 1;
}

// Opens the gap by moving the tail up; elements that lay in that tail are
// now bytes further on, and those in front of the gap stayed where they were.
void place_in_place(tn_array *a, const void *elements, tn_uint32 bytes, tn_uint32 offset)
{
    tn_uchar *at = a->data + offset;
    const auto *from = static_cast<const tn_uchar *>(elements);
    tn_uint32 tail = a->length - offset;
    std::memmove(at + bytes, at, tail);
    if (!tail || address(from) + bytes <= address(at) || address(from) >= address(at) + tail) {
        std::memmove(at, from, bytes);
        return;
    }
    tn_uint32 front = address(from) < address(at) ? static_cast<tn_uint32>(address(at) - address(from)) : 0;
    std::memmove(at, from, front);
    std::memmove(at + front, from + front + bytes, bytes - front);
}

// The common end of every append and insert: a gap of bytes at offset (no
// move at the end), the elements copied in. A length beyond 32 bits or
// storage that cannot grow fails the array.
tn_bool place(tn_array *a, const void *elements, tn_uint32 bytes, tn_uint32 offset)
{
    tn_uint32 total = a->length + bytes;
    if (total < bytes) return fail(a);
    if (total > a->capacity) return place_moving(a, elements, bytes, offset, total);
    place_in_place(a, elements, bytes, offset);
    a->length = total;
    return 1;
}

tn_uint32 count_of(const tn_array *a) { return a->failed ? 0 : a->length / a->element_size; }

void exchange(tn_uchar *x, tn_uchar *y, tn_uchar *slot, tn_uint32 size)
{
    std::memcpy(slot, x, size);
    std::memmove(x, y, size); // x and y may be the same element
    std::memcpy(y, slot, size);
}

// Quicksort with the last element of each range as pivot. The ranges are
// visited in the same order as the plain recursion (left part wholly, then
// right part), so the comparator sees the same calls; pending right parts
// wait on a small stack in this frame, and only when that is full does the
// left part go one level deeper. Sorted input so never recurses.
struct sorter {
    tn_uchar *base;
    tn_uint32 size;
    tn_comparator cmp;
    void *user;
    tn_uchar *pivot;
    tn_uchar *slot;

    tn_uchar *at(tn_int64 i) const { return base + static_cast<tn_uint64>(i) * size; }

    tn_int64 partition(tn_int64 low, tn_int64 high) const
    {
        std::memcpy(pivot, at(high), size);
        tn_int64 i = low - 1, j = high;
        for (;;) {
            do ++i;
            while (cmp(at(i), pivot, user) < 0);
            if (i >= --j) break;
            bool crossed = false;
            while (cmp(pivot, at(j), user) < 0) {
                if (i >= --j) {
                    crossed = true;
                    break;
                }
            }
            if (crossed) break;
            exchange(at(i), at(j), slot, size);
        }
        exchange(at(i), at(high), slot, size);
        return i;
    }

    void sort(tn_int64 low, tn_int64 high) const
    {
        struct range {
            tn_int64 low, high;
        };
        range pending[64];
        unsigned top = 0;
        for (;;) {
            while (low < high) {
                tn_int64 i = partition(low, high);
                if (i + 1 < high) {
                    if (top == sizeof pending / sizeof pending[0]) {
                        sort(low, i - 1);
                        low = i + 1;
                        continue;
                    }
                    pending[top++] = {i + 1, high};
                }
                high = i - 1;
            }
            if (!top) return;
            --top;
            low = pending[top].low;
            high = pending[top].high;
        }
    }
};

// A source is read in its own element size: one of another size cannot be
// taken over, and the destination fails as it does for a failed source.
bool unusable_source(tn_array *array, const tn_array *source)
{
    if (!source->failed && source->element_size == array->element_size) return false;
    array->failed = 1;
    return true;
}

} // namespace

// Every count is the used length divided by the element size. An array
// without one can hold nothing: it is failed from the start, and stays so
// through tn_array_free, so no count is ever taken of it.
void tn_array_init(tn_array *array, tn_uint32 element_size)
{
    std::memset(array, 0, sizeof *array);
    array->element_size = element_size;
    array->failed = element_size == 0;
}

void *tn_array_allocate(tn_array *array, tn_uint32 count)
{
    return grow(array, array->element_size, count, false);
}

void *tn_array_allocate_align(tn_array *array, tn_uint32 count)
{
    return grow(array, array->element_size, count, true);
}

void *tn_array_get(const tn_array *array) { return array->data; }

void *tn_array_get_pos(const tn_array *array, tn_uint32 position)
{
    tn_uint32 offset;
    if (array->failed || !offset_within(array, position, &offset)) return nullptr;
    return array->data + offset;
}

void *tn_array_get_end(const tn_array *array)
{
    if (array->failed || array->length < array->element_size) return nullptr;
    return array->data + (array->length - array->element_size);
}

tn_uint32 tn_array_find(const tn_array *array, const void *element)
{
    tn_uint32 n = count_of(array), size = array->element_size;
    const tn_uchar *p = array->data;
    for (tn_uint32 i = 0; i < n; ++i, p += size)
        if (std::memcmp(p, element, size) == 0) return i;
    return n;
}

tn_uint32 tn_array_find2(const tn_array *array, const void *key, tn_comparator comparator,
                         void *user)
{
    tn_uint32 n = count_of(array), size = array->element_size;
    const tn_uchar *p = array->data;
    for (tn_uint32 i = 0; i < n; ++i, p += size)
        if (comparator(key, p, user) == 0) return i;
    return n;
}

tn_uint32 tn_array_length(const tn_array *array) { return count_of(array); }

tn_uint32 tn_array_bytes(const tn_array *array) { return array->failed ? 0 : array->length; }

tn_bool tn_array_truncate_length(tn_array *array, tn_uint32 count)
{
    tn_uint32 bytes;
    if (!mult(count, array->element_size, &bytes) || bytes > array->length) return 0;
    array->length = bytes;
    return 1;
}

tn_bool tn_array_truncate(tn_array *array)
{
    array->length = 0;
    return 1;
}

void tn_array_free(tn_array *array)
{
    tn_alloc_free(array->data);
    array->data = nullptr;
    array->capacity = 0;
    array->length = 0;
    array->failed = array->element_size == 0;
}

void tn_array_fail(tn_array *array) { array->failed = 1; }

tn_bool tn_array_failed(const tn_array *array) { return array->failed; }

tn_bool tn_array_unallocated(const tn_array *array) { return array->data == nullptr; }

tn_bool tn_array_equal(const tn_array *a, const tn_array *b)
{
    return a->length == b->length && tn_byte_diff(a->data, a->length, b->data) == 0;
}

tn_bool tn_array_cat(tn_array *array, const tn_array *source)
{
    if (unusable_source(array, source)) return 0;
    if (!source->length) return 1;
    if (array->failed) return 0;
    return tn_array_catn(array, source->data, source->length / source->element_size);
}

tn_bool tn_array_catn(tn_array *array, const void *elements, tn_uint32 count)
{
    if (!count) return 1;
    if (array->failed) return 0;
    tn_uint32 bytes;
    if (!mult(count, array->element_size, &bytes)) return 0;
    return place(array, elements, bytes, array->length);
}

tn_bool tn_array_insert(tn_array *array, const tn_array *source, tn_uint32 position)
{
    if (unusable_source(array, source)) return 0;
    return tn_array_insertn(array, source->data, tn_array_length(source), position);
}

tn_bool tn_array_insertn(tn_array *array, const void *elements, tn_uint32 count,
                         tn_uint32 position)
{
    if (!count) return 1;
    if (array->failed) return 0;
    tn_uint32 bytes, offset;
    if (position > array->length / array->element_size) return 0;
    if (!mult(count, array->element_size, &bytes) || !mult(position, array->element_size, &offset))
        return 0;
    return place(array, elements, bytes, offset);
}

tn_bool tn_array_inserto_in_sort(tn_array *array, const void *element, tn_comparator comparator,
                                 void *user)
{
    if (array->failed) return 0;
    tn_uint32 n = array->length / array->element_size;
    tn_uint32 position = 0;
    if (n) {
        tn_uint32 low = 0, high = n - 1, middle = 0;
        while (high != 0) {
            middle = low + (high - low) / 2;
            const void *e = tn_array_get_pos(array, middle);
            if (!e) return 0;
            tn_int32 r = comparator(element, e, user);
            if (r == 0) break;
            if (r > 0) {
                if (low == middle) {
                    ++middle;
                    break;
                }
                low = middle;
            } else {
                if (high == middle) break;
                high = middle;
            }
            if (low == high) break;
        }
        const void *e = tn_array_get_pos(array, middle);
        if (!e) return 0;
        position = middle + (comparator(element, e, user) > 0 ? 1u : 0u);
    }
    return tn_array_insertn(array, element, 1, position);
}

tn_bool tn_array_seto(tn_array *array, const void *element, tn_uint32 position)
{
    void *at = tn_array_get_pos(array, position);
    if (!at) return 0;
    std::memmove(at, element, array->element_size);
    return 1;
}

tn_bool tn_array_remove(tn_array *array, tn_uint32 position)
{
    if (array->failed) return 0;
    tn_uint32 offset;
    if (!offset_within(array, position, &offset)) {
        array->failed = 1;
        return 0;
    }
    tn_uint32 next = offset + array->element_size;
    std::memmove(array->data + offset, array->data + next, array->length - next);
    array->length -= array->element_size;
    return 1;
}

tn_bool tn_array_remove_end(tn_array *array)
{
    if (array->failed || array->length < array->element_size) return 0;
    array->length -= array->element_size;
    return 1;
}

tn_bool tn_array_sort(tn_array *array, tn_comparator comparator, void *user)
{
    if (array->failed) return 0;
    tn_uint32 n = array->length / array->element_size;
    if (n < 2) return 1;
    tn_uint32 size = array->element_size, area;
    if (!mult(size, 2, &area)) return 0;
    auto *work = static_cast<tn_uchar *>(tn_alloc_zero(area));
    if (!work) return 0;
    sorter s{array->data, size, comparator, user, work, work + size};
    s.sort(0, static_cast<tn_int64>(n) - 1);
    tn_alloc_free(work);
    return 1;
}

tn_int32 tn_array_comparator_default(const void *a, const void *b, void *user)
{
    return tn_byte_diff(a, *static_cast<const tn_uint32 *>(user), b);
}

tn_int32 tn_array_comparator_defaultr(const void *a, const void *b, void *user)
{
    return tn_byte_diff(b, *static_cast<const tn_uint32 *>(user), a);
}
