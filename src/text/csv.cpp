#include <tarnel_util/tn_csv.h>
#include <tarnel_util/tn_str.h>
#include <tarnel_util/tn_uchar_array.h>

#include "core/within.h"

namespace {

constexpr tn_uchar separator = ',';
constexpr tn_uchar escape = '\\';

tn_bool add(tn_uchar_array *a, tn_uchar c) { return tn_array_catn(a, &c, 1); }

// Ends the value collected in value and hands it to values.
bool close_value(tn_uchar_array *value, tn_str_array *values)
{
    if (!tn_uchar_array_cat0(value) || !tn_str_array_cato(values, static_cast<tn_uchar *>(tn_array_get(value))))
        return false;
    tn_array_truncate(value);
    return true;
}

template <class Next>
tn_bool make_into(tn_uint32 count, Next next, tn_uchar_array *text)
{
    tn_array_truncate(text);
    if (!count) return 1;
    for (tn_uint32 i = 0; i < count; ++i)
        if (!tn_csv_cat(text, next(i))) return 0;
    return tn_csv_end(text);
}

template <class Next>
bool reads_from(const tn_uchar_array *text, tn_uint32 count, Next next)
{
    for (tn_uint32 i = 0; i < count; ++i)
        if (tn::within(text, next(i))) return true;
    return false;
}

// Emptying the text first would overwrite values that lie in it: such a text
// is built aside and then takes the new storage. A failed text refuses
// anyway, and must stay failed.
template <class Next>
tn_bool make(tn_uint32 count, Next next, tn_uchar_array *text)
{
    if (text->failed || !reads_from(text, count, next)) return make_into(count, next, text);
    tn_uchar_array aside;
    tn_array_init(&aside, 1);
    if (!make_into(count, next, &aside)) {
        tn_array_free(&aside);
        tn_array_truncate(text);
        tn_array_fail(text);
        return 0;
    }
    tn_array_free(text);
    *text = aside;
    return 1;
}

} // namespace

tn_bool tn_csv_cat(tn_uchar_array *text, const tn_uchar *value)
{
    // Read through the anchor: each append may move a text that holds the value.
    const tn::anchor from = tn::anchor_in(text, value);
    for (tn_uint32 i = 0; tn_uchar c = from.at()[i]; ++i) {
        if (c == separator || c == escape) add(text, escape);
        add(text, c);
    }
    add(text, separator);
    return !tn_array_failed(text);
}

tn_bool tn_csv_end(tn_uchar_array *text)
{
    tn_uint32 n = tn_array_length(text);
    return n ? tn_array_truncate_length(text, n - 1) : 1;
}

tn_bool tn_csv_make(const tn_str_array *values, tn_uchar_array *text)
{
    return make(tn_str_array_length(values), [values](tn_uint32 i) { return tn_str_array_get_pos(values, i); }, text);
}

tn_bool tn_csv_make2(const tn_uchar *const *values, tn_uint32 count, tn_uchar_array *text)
{
    return make(count, [values](tn_uint32 i) { return values[i]; }, text);
}

tn_bool tn_csv_split(const tn_uchar *text, tn_str_array *values)
{
    tn_str_array_truncate(values);
    if (!text) return 0;
    if (!*text) return 1;
    tn_uchar_array value;
    tn_array_init(&value, 1);
    bool ok = true;
    for (; *text && ok; ++text) {
        if (*text == separator) {
            ok = close_value(&value, values);
        } else if (*text == escape) {
            if (text[1]) add(&value, *++text);
        } else {
            add(&value, *text);
        }
    }
    ok = ok && close_value(&value, values);
    tn_array_free(&value);
    return ok;
}

tn_uchar *tn_csv_get_last_value(tn_uchar *text)
{
    if (!text || !*text) return nullptr;
    tn_uint32 at = tn_str_rchr(text, separator);
    return text[at] ? text + at + 1 : text;
}

void tn_csv_remove_last_value(tn_uchar *text)
{
    if (!text) return;
    tn_uint32 at = tn_str_rchr(text, separator);
    text[text[at] ? at : 0] = 0;
}
