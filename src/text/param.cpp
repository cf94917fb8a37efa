#include <tarnel_util/tn_alloc.h>
#include <tarnel_util/tn_param.h>
#include <tarnel_util/tn_str.h>

#include "core/within.h"

namespace {

using U = tn_uchar;
constexpr int name_part = 0, value_part = 1;

tn_int32 pairs(const tn_str_array *l) { return static_cast<tn_int32>(tn_str_array_length(l) / 2); }

U *part(const tn_str_array *l, tn_int32 i, int which)
{
    if (i < 0 || i >= pairs(l)) return nullptr;
    return tn_str_array_get_pos(l, static_cast<tn_uint32>(2 * i + which));
}

bool same(const U *a, const U *b) { return tn_str_diff(a, b) == 0; }

// First (or, with last, the last) pair that match accepts, or -1.
template <class Match>
tn_int32 search(const tn_str_array *l, Match match, bool last = false)
{
    tn_int32 n = pairs(l);
    for (tn_int32 k = 0; k < n; ++k) {
        tn_int32 i = last ? n - 1 - k : k;
        if (match(part(l, i, name_part), part(l, i, value_part))) return i;
    }
    return -1;
}

auto by_name(const U *name) { return [name](const U *n, const U *) { return same(n, name); }; }
auto by_value(const U *value) { return [value](const U *, const U *v) { return same(v, value); }; }
auto by_pair(const U *name, const U *value)
{
    return [name, value](const U *n, const U *v) { return same(n, name) && same(v, value); };
}

void remove_pair(tn_str_array *l, tn_int32 i)
{
    if (i < 0 || i >= pairs(l)) return;
    tn_str_array_remove(l, static_cast<tn_uint32>(2 * i));
    tn_str_array_remove(l, static_cast<tn_uint32>(2 * i));
}

// The value may come from the list itself, whose pool the name's append
// can move: it is found again by its offset.
tn_bool append_pair(tn_str_array *l, const U *name, const U *value)
{
    const tn::anchor from = tn::anchor_in(&l->pool, value);
    return tn_str_array_cato(l, name) && tn_str_array_cato(l, from.at());
}

template <class Match>
tn_bool remove_all(tn_str_array *l, Match match)
{
    for (tn_int32 i = pairs(l) - 1; i >= 0; --i) {
        if (!match(part(l, i, name_part), part(l, i, value_part))) continue;
        remove_pair(l, i);
        if (tn_str_array_failed(l)) return 0;
    }
    return 1;
}

// A key taken from the list would shift under the removals, so it is
// compared as a copy.
template <class By>
tn_bool remove_all_by(tn_str_array *l, const U *key, By by)
{
    U *copy = nullptr;
    if (tn::within(&l->pool, key) && !tn_str_clone(key, &copy)) return 0;
    tn_bool done = remove_all(l, by(copy ? copy : key));
    tn_alloc_free(copy);
    return done;
}

// Each name (or value) once, in order of first appearance; with a key, every
// pair whose other part matches it.
tn_bool gather_into(const tn_str_array *l, int which, const U *key, tn_str_array *out)
{
    tn_str_array_truncate(out);
    tn_int32 n = pairs(l);
    for (tn_int32 i = 0; i < n; ++i) {
        const U *mine = part(l, i, which), *other = part(l, i, 1 - which);
        if (key ? !same(other, key) : tn_str_array_find(out, mine) < tn_str_array_length(out)) continue;
        tn_str_array_cato(out, mine);
    }
    return !tn_str_array_failed(out);
}

// Emptying out first would lose the list, or a key read from out: such a
// list is gathered aside and out then takes its storage.
tn_bool gather(const tn_str_array *l, int which, const U *key, tn_str_array *out)
{
    bool reads_out = out == l || (key && tn::within(&out->pool, key));
    if (!reads_out || tn_str_array_failed(out)) return gather_into(l, which, key, out);
    tn_str_array aside;
    tn_str_array_init(&aside);
    tn_bool done = gather_into(l, which, key, &aside);
    tn_str_array_free(out);
    *out = aside;
    return done;
}

} // namespace

tn_int32 tn_param_length(const tn_str_array *l) { return pairs(l); }
tn_int32 tn_multiparam_length(const tn_str_array *l) { return pairs(l); }
U *tn_param_get_name(const tn_str_array *l, tn_int32 i) { return part(l, i, name_part); }
U *tn_multiparam_get_name_by_index(const tn_str_array *l, tn_int32 i) { return part(l, i, name_part); }
U *tn_param_get_value(const tn_str_array *l, tn_int32 i) { return part(l, i, value_part); }
U *tn_multiparam_get_value_by_index(const tn_str_array *l, tn_int32 i) { return part(l, i, value_part); }
void tn_param_remove_by_index(tn_str_array *l, tn_int32 i) { remove_pair(l, i); }
void tn_multiparam_remove_by_index(tn_str_array *l, tn_int32 i) { remove_pair(l, i); }

// The contains family searches from the last pair; the answer is the same.
tn_bool tn_param_contains(const tn_str_array *l, const U *n, const U *v) { return search(l, by_pair(n, v), true) >= 0; }
tn_bool tn_multiparam_contains(const tn_str_array *l, const U *n, const U *v) { return tn_param_contains(l, n, v); }
tn_bool tn_param_contains_by_name(const tn_str_array *l, const U *n) { return search(l, by_name(n), true) >= 0; }
tn_bool tn_multiparam_contains_by_name(const tn_str_array *l, const U *n) { return tn_param_contains_by_name(l, n); }
tn_bool tn_param_contains_by_value(const tn_str_array *l, const U *v) { return search(l, by_value(v), true) >= 0; }
tn_bool tn_multiparam_contains_by_value(const tn_str_array *l, const U *v) { return tn_param_contains_by_value(l, v); }

U *tn_param_get_value_by_name(const tn_str_array *l, const U *name)
{
    return part(l, search(l, by_name(name)), value_part);
}

tn_bool tn_param_set(tn_str_array *l, const U *name, const U *value)
{
    tn_int32 i = search(l, by_name(name));
    if (i < 0) return append_pair(l, name, value);
    // The new value goes in before the old one leaves: a value read from this
    // list is then still where it was when it is copied.
    tn_uint32 at = static_cast<tn_uint32>(2 * i + 1);
    return tn_str_array_inserto(l, value, at) && tn_str_array_remove(l, at + 1);
}

tn_bool tn_param_remove(tn_str_array *l, const U *name)
{
    tn_int32 i = search(l, by_name(name));
    if (i < 0) return 0;
    remove_pair(l, i);
    return 1;
}

tn_bool tn_multiparam_set(tn_str_array *l, const U *name, const U *value)
{
    return search(l, by_pair(name, value)) >= 0 ? 1 : append_pair(l, name, value);
}

tn_int32 tn_multiparam_find(const tn_str_array *l, const U *name, const U *value)
{
    tn_int32 i = search(l, by_pair(name, value));
    return i < 0 ? pairs(l) : i;
}

tn_bool tn_multiparam_remove(tn_str_array *l, const U *name, const U *value)
{
    remove_pair(l, search(l, by_pair(name, value), true));
    return !tn_str_array_failed(l);
}

tn_bool tn_multiparam_remove_by_name(tn_str_array *l, const U *name) { return remove_all_by(l, name, by_name); }
tn_bool tn_multiparam_remove_by_value(tn_str_array *l, const U *value) { return remove_all_by(l, value, by_value); }
tn_bool tn_multiparam_get_name_list(const tn_str_array *l, tn_str_array *out) { return gather(l, name_part, nullptr, out); }
tn_bool tn_multiparam_get_value_list(const tn_str_array *l, tn_str_array *out) { return gather(l, value_part, nullptr, out); }

tn_bool tn_multiparam_get_name_list_by_value(const tn_str_array *l, const U *value, tn_str_array *out)
{
    return gather(l, name_part, value, out);
}

tn_bool tn_multiparam_get_value_list_by_name(const tn_str_array *l, const U *name, tn_str_array *out)
{
    return gather(l, value_part, name, out);
}
