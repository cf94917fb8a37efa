#include <tarnel_util/tn_byte.h>
#include <tarnel_util/tn_str.h>
#include <tarnel_util/tn_str_array.h>
#include <tarnel_util/tn_uchar_array.h>

#include <cstring>

namespace {

using U = tn_uchar;

tn_uint32 count(const tn_str_array *a) { return tn_array_length(&a->entries); }
U **entries(const tn_str_array *a) { return static_cast<U **>(tn_array_get(&a->entries)); }

bool either_failed(const tn_str_array *a) { return a->entries.failed || a->pool.failed; }

void fail_both(tn_str_array *a)
{
    tn_array_fail(&a->entries);
    tn_array_fail(&a->pool);
}

// The test every changing operation ends with: the two records fail together.
tn_bool settle(tn_str_array *a)
{
    if (!either_failed(a)) return 1;
    fail_both(a);
    return 0;
}

// Bytes taken by the first n strings of a pool, terminators counted; the
// walk stays within the used bytes.
tn_uint32 span(const tn_array *pool, tn_uint32 n)
{
    const U *p = pool->data, *end = pool->data + pool->length;
    for (; n && p < end; --n) p += std::strlen(reinterpret_cast<const char *>(p)) + 1;
    return static_cast<tn_uint32>(p - pool->data);
}

// Points each entry, in order, at the next string of the pool.
void relink(tn_str_array *a)
{
    tn_uint32 n = a->entries.length / a->entries.element_size;
    U **e = static_cast<U **>(static_cast<void *>(a->entries.data));
    U *p = a->pool.data;
    for (tn_uint32 i = 0; i < n; ++i) {
        e[i] = p;
        p += std::strlen(reinterpret_cast<const char *>(p)) + 1;
    }
}

// Pool offset of the string at position (within the length).
tn_uint32 offset_of(const tn_str_array *a, tn_uint32 position)
{
    U *at = entries(a)[position];
    return at ? static_cast<tn_uint32>(at - a->pool.data) : a->pool.length;
}

tn_bool catn_from_step2(tn_str_array *d, const tn_str_array *s, tn_uint32 n)
{
    if (either_failed(d)) return 0;
    tn_array_catn(&d->entries, tn_array_get(&s->entries), n);
    tn_array_catn(&d->pool, s->pool.data, span(&s->pool, n));
    if (!settle(d)) return 0;
    relink(d);
    return 1;
}

void empty_both(tn_str_array *a)
{
    tn_array_truncate(&a->entries);
    tn_array_truncate(&a->pool);
    settle(a);
}

} // namespace

void tn_str_array_init(tn_str_array *a)
{
    tn_array_init(&a->entries, sizeof(U *));
    tn_array_init(&a->pool, 1);
}

void tn_str_array_free(tn_str_array *a)
{
    tn_array_free(&a->entries);
    tn_array_free(&a->pool);
}

void *tn_str_array_allocate(tn_str_array *a, tn_uint32 n) { return tn_array_allocate(&a->pool, n); }
void *tn_str_array_allocate_align(tn_str_array *a, tn_uint32 n) { return tn_array_allocate_align(&a->pool, n); }

U **tn_str_array_get(const tn_str_array *a) { return entries(a); }
U *tn_str_array_get_pos(const tn_str_array *a, tn_uint32 position)
{
    return static_cast<U *>(tn_ptr_array_get_pos(&a->entries, position));
}
U *tn_str_array_get_end(const tn_str_array *a) { return static_cast<U *>(tn_ptr_array_get_end(&a->entries)); }
tn_uint32 tn_str_array_length(const tn_str_array *a) { return count(a); }

tn_uint32 tn_str_array_find(const tn_str_array *a, const U *s)
{
    tn_uint32 n = count(a);
    U **e = entries(a);
    for (tn_uint32 i = 0; i < n; ++i)
        if (tn_str_diff(e[i], s) == 0) return i;
    return n;
}

tn_bool tn_str_array_failed(const tn_str_array *a) { return either_failed(a); }

tn_bool tn_str_array_truncate(tn_str_array *a)
{
    tn_array_truncate(&a->entries);
    tn_array_truncate(&a->pool);
    return settle(a);
}

tn_bool tn_str_array_truncate_length(tn_str_array *a, tn_uint32 n)
{
    if (n > count(a)) return 0;
    tn_array_truncate_length(&a->entries, n);
    tn_array_truncate_length(&a->pool, span(&a->pool, n));
    return settle(a);
}

tn_bool tn_str_array_catn(tn_str_array *d, const tn_str_array *s, tn_uint32 n)
{
    if (!n) return 1;
    if (n > count(s)) return 0;
    return catn_from_step2(d, s, n);
}

tn_bool tn_str_array_cat(tn_str_array *d, const tn_str_array *s) { return tn_str_array_catn(d, s, count(s)); }

tn_bool tn_str_array_copyn(tn_str_array *d, const tn_str_array *s, tn_uint32 n)
{
    // Onto itself: emptying first would lose the source, which already holds
    // the copy's first n strings.
    if (d == s && n && n <= count(d)) return tn_str_array_truncate_length(d, n);
    empty_both(d);
    return tn_str_array_catn(d, s, n);
}

tn_bool tn_str_array_copy(tn_str_array *d, const tn_str_array *s) { return tn_str_array_copyn(d, s, count(s)); }

// With room in both records the three appends are plain stores, and
// nothing can fail or move.
bool append_in_place(tn_str_array *a, const U *s, tn_uint32 n)
{
    tn_array &pool = a->pool, &list = a->entries;
    if (either_failed(a) || pool.capacity - pool.length <= n || list.capacity - list.length < sizeof(U *) ||
        pool.element_size != 1 || list.element_size != sizeof(U *))
        return false;
    U *at = pool.data + pool.length;
    if (n) std::memmove(at, s, n); // s may lie in the pool's spare room
    at[n] = 0;
    pool.length += n + 1;
    std::memcpy(list.data + list.length, &at, sizeof at);
    list.length += sizeof at;
    return true;
}

tn_bool tn_str_array_caton(tn_str_array *a, const U *s, tn_uint32 n)
{
    if (append_in_place(a, s, n)) return 1;
    U *noted = a->pool.data;
    tn_uint32 at = a->pool.length;
    tn_array_catn(&a->pool, s, n);
    tn_uchar_array_cat0(&a->pool);
    tn_ptr_array_cato(&a->entries, noted ? noted + at : nullptr);
    if (!settle(a)) return 0;
    // While the pool stays put, the new entry is right and nothing moved.
    if (a->pool.data != noted) relink(a);
    return 1;
}

tn_bool tn_str_array_cato(tn_str_array *a, const U *s) { return tn_str_array_caton(a, s, tn_str_len(s)); }

tn_bool tn_str_array_cat0(tn_str_array *a)
{
    tn_ptr_array_cat0(&a->entries);
    return settle(a);
}

tn_bool tn_str_array_insertn(tn_str_array *d, const tn_str_array *s, tn_uint32 n, tn_uint32 position)
{
    if (!n) return 1;
    if (either_failed(d)) return 0;
    tn_uint32 length = count(d);
    if (position > length || n > count(s)) return 0;
    if (position == length) return catn_from_step2(d, s, n);
    if (length + n < n || !tn_array_allocate(&d->entries, length + n)) {
        fail_both(d);
        return 0;
    }
    // The reserved entries count only once their strings are in the pool: a
    // failed insert leaves no entry that points nowhere.
    tn_array_insertn(&d->pool, s->pool.data, span(&s->pool, n), offset_of(d, position));
    if (!settle(d)) return 0;
    d->entries.length += n * d->entries.element_size;
    relink(d);
    return 1;
}

tn_bool tn_str_array_insert(tn_str_array *d, const tn_str_array *s, tn_uint32 position)
{
    return tn_str_array_insertn(d, s, count(s), position);
}

tn_bool tn_str_array_inserton(tn_str_array *a, const U *s, tn_uint32 n, tn_uint32 position)
{
    if (either_failed(a)) return 0;
    tn_uint32 length = count(a);
    if (position > length) return 0;
    if (position == length) return tn_str_array_caton(a, s, n);
    tn_uint32 offset = offset_of(a, position);
    tn_array_insertn(&a->pool, s, n, offset);
    tn_uchar_array_insert0(&a->pool, offset + n);
    tn_ptr_array_inserto(&a->entries, nullptr, position);
    if (!settle(a)) return 0;
    relink(a);
    return 1;
}

tn_bool tn_str_array_inserto(tn_str_array *a, const U *s, tn_uint32 position)
{
    return tn_str_array_inserton(a, s, tn_str_len(s), position);
}

tn_bool tn_str_array_remove(tn_str_array *a, tn_uint32 position)
{
    if (either_failed(a)) return 0;
    tn_uint32 length = count(a);
    if (position == 0xFFFFFFFFu || position >= length) {
        fail_both(a);
        return 0;
    }
    U *start = entries(a)[position];
    tn_uint32 gone = tn_str_len(start) + 1;
    U *next = start + gone;
    tn_byte_copy(start, static_cast<tn_uint32>(a->pool.data + a->pool.length - next), next);
    a->pool.length -= gone;
    tn_array_truncate_length(&a->entries, length - 1);
    relink(a);
    return 1;
}

tn_bool tn_str_array_remove_end(tn_str_array *a)
{
    tn_uint32 length = count(a);
    return length ? tn_str_array_remove(a, length - 1) : 0;
}

namespace {

tn_int32 differ_in_first(const tn_str_array *a, const tn_str_array *b, tn_uint32 n)
{
    U **x = entries(a), **y = entries(b);
    for (tn_uint32 i = 0; i < n; ++i)
        if (tn_str_diff(x[i], y[i]) != 0) return 1;
    return 0;
}

} // namespace

tn_int32 tn_str_array_diff(const tn_str_array *a, const tn_str_array *b)
{
    tn_uint32 n = count(a);
    return n != count(b) ? 1 : differ_in_first(a, b, n);
}

tn_int32 tn_str_array_diffn(const tn_str_array *a, tn_uint32 n, const tn_str_array *b)
{
    if (!n) return 0;
    tn_uint32 la = count(a), lb = count(b);
    if (la >= n && lb >= n) return differ_in_first(a, b, n);
    if ((la < n) != (lb < n) || la != lb) return 1;
    return differ_in_first(a, b, la);
}
