/*
 * tn_mime_type.h - tests on the text of a MIME type: a major type, "/", a
 * subtype, and parameters behind ";", such as the value of a Content-Type
 * header: text/xml; charset="utf-8".
 *
 * The tests read the text in place and build no record of it. Type and
 * parameter names compare without regard to ASCII case; values keep their
 * bytes. Nothing allocates, and every result depends on the arguments alone.
 * A null text or name gives 0.
 */
#ifndef TARNEL_UTIL_TN_MIME_TYPE_H
#define TARNEL_UTIL_TN_MIME_TYPE_H

#include "tn_types.h"

TN_BEGIN_DECLS

/* 1 when mime starts with major, in any case, and "/" follows at once: for
 * "Text/xml" the major "text" gives 1, for "text" or "textual/x" it gives 0. */
TN_API tn_bool tn_mime_type_major_equal(const tn_uchar *mime, const tn_uchar *major);

/* 1 when sub, in any case, stands right behind the first "/" of mime, and
 * the text ends behind it or a tab, a space or ";" follows: for
 * "text/XML; charset=x" the sub "xml" gives 1, for "text/xml+y" it gives 0.
 * A text without "/" gives 0. */
TN_API tn_bool tn_mime_type_sub_equal(const tn_uchar *mime, const tn_uchar *sub);

/* Copies the value of the parameter name into value, with a terminator, and
 * returns 1; returns 0 when there is no such parameter or the value and its
 * terminator need more than size bytes, and then leaves value alone.
 *
 * A parameter starts behind a ";" and the spaces and tabs that follow it;
 * it matches when it starts with name, in any case, and "=" follows at once,
 * so that "a = b" is no parameter a. The first match wins. Its value runs
 * from behind the "=" to the next ";", space or tab, or to the end of the
 * text. Quotes have no meaning: they stay in the value, and a blank between
 * them ends it, so charset="utf-8" gives the seven characters "utf-8" with
 * its quotes. A name followed by "=" alone gives the empty value and 1.
 *
 * mime and name may lie inside value's own storage. */
TN_API tn_bool tn_mime_type_get_parameter_value(const tn_uchar *mime, const tn_uchar *name, tn_uchar *value,
                                                tn_uint32 size);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_MIME_TYPE_H */
