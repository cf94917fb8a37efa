/*
 * tn_uri.h - URIs as an HTTP layer sees them: split into five components and
 * put together again, references resolved against a base, query and form
 * escapes, queries split into names and values, file paths as file URIs.
 *
 * This is a plain, fast splitter, not a parser of the full URI grammar. It
 * looks for single characters in a fixed order, and that order is the
 * behaviour: there is no notion of user information, bracketed addresses,
 * fragments or dot segments. Any colon makes what stands before it a
 * protocol; "#" is an ordinary character; "." and ".." segments stay as they
 * are.
 *
 * The record. A tn_uri is a tn_str_array that after a successful parse holds
 * exactly five strings, in this order:
 *
 *   0  protocol  the text before the first colon; empty without a colon
 *   1  host      the text between "://" and the port or path
 *   2  port      any text, not only digits; empty without a port
 *   3  path      always there; it begins with "/", or it is a request
 *                target that begins with "*"
 *   4  query     the text behind the first "?" behind the host, without
 *                the "?"; empty without one
 *
 * A fresh, reset or failed record holds no strings, and its getters return
 * null. The record owns copies of its strings; a getter's pointer lives until
 * the record changes.
 *
 * Safe characters, the ones escaping leaves alone: "0" to "9", "A" to "Z",
 * "a" to "z", "-", "_" and ".". Escapes are written with lower-case hex
 * digits and read in either case.
 *
 * Output arrays are tn_uchar_array records owned by the caller. Every
 * operation that writes one empties it first and writes no terminator;
 * exhausted memory shows as the array's failed flag and a result of 0. Text
 * arguments may lie in the storage of the array or record that the
 * operation writes, a component of the very record or the output's own
 * bytes. A null text gives 0 and leaves an output array untouched.
 *
 * Results are 1 or 0 unless a comment says otherwise.
 */
#ifndef TARNEL_UTIL_TN_URI_H
#define TARNEL_UTIL_TN_URI_H

#include "tn_str_array.h"

TN_BEGIN_DECLS

typedef tn_str_array tn_uri;

/* Initialises an empty record; allocates nothing. */
TN_API void tn_uri_init(tn_uri *uri);
/* Drops the components and keeps the storage, as tn_str_array_truncate. */
TN_API tn_bool tn_uri_reset(tn_uri *uri);
/* Frees the record's memory and clears its failed state; a null record is
 * ignored. */
TN_API void tn_uri_free(tn_uri *uri);

/* Replaces the components by those of text:
 *   - With a colon, the text before the first colon is the protocol, and
 *     "//" and at least one more character must follow that colon. Behind
 *     the slashes, the first "/" and the first ":" are looked for: a ":"
 *     before the "/" ends the host and starts the port, which the "/" (or
 *     the end) ends; otherwise the host runs to the "/" or the end. The rest
 *     begins at that "/", or is empty.
 *   - Without a colon the rest is the whole text.
 *   - A rest that begins with neither "/" nor "*" gets a "/" in front, so a
 *     text without a path has the path "/". The first "?" of the rest ends
 *     the path and starts the query.
 * "/a:b", "x:/a" and "x://" fail. "x://host?a=b" gives the host "host?a=b"
 * and the path "/"; "x://[::1]:80/a" gives the host "[" and the port
 * ":1]:80". On 0 (a null text, a failed split, a failed record or exhausted
 * memory) the record is empty. */
TN_API tn_bool tn_uri_parse(tn_uri *uri, const tn_uchar *text);

/* A component, or null if the record is failed or empty. */
TN_API tn_uchar *tn_uri_get_protocol(const tn_uri *uri);
TN_API tn_uchar *tn_uri_get_host(const tn_uri *uri);
TN_API tn_uchar *tn_uri_get_port(const tn_uri *uri);
TN_API tn_uchar *tn_uri_get_path(const tn_uri *uri);
TN_API tn_uchar *tn_uri_get_query(const tn_uri *uri);

/* Writes the URI: protocol and "://", host, ":" and port, path, "?" and
 * query, each piece only where its component is not empty. An empty record
 * gives the empty text. 1 unless the output has failed. */
TN_API tn_bool tn_uri_to_string(const tn_uri *uri, tn_uchar_array *output);

/* Pastes reference onto base; no dot segment is removed.
 *   - A reference that begins with an ASCII letter is absolute when base is
 *     null or the reference holds a colon anywhere: it is the result.
 *   - Otherwise base must hold a colon, a "/" somewhere behind it, a second
 *     "/" somewhere behind that, and a character behind the second; else
 *     the result is 0 with the output empty.
 *   - A reference that begins with "/" follows base up to, not including,
 *     the third "/", or the whole base if it has none.
 *   - Any other reference follows the whole base and a "/" if base has no
 *     third "/", else base up to and including its last "/", one in its
 *     query too.
 * With base "x://h/a/b": "c" gives "x://h/a/c", "/c" gives "x://h/c",
 * "../c" gives "x://h/a/../c", "" gives "x://h/a/", "y:z" gives "y:z". A null
 * reference gives 0 with the output untouched. 1 unless the output has
 * failed. */
TN_API tn_bool tn_uri_resolve(const tn_uchar *base, const tn_uchar *reference, tn_uchar_array *output);

/* Escapes for a query or a form: safe characters stay, a blank becomes "+",
 * every other byte "%" and two lower-case hex digits. */
TN_API tn_bool tn_uri_escape(const tn_uchar *text, tn_uchar_array *output);

/* Undoes escaping and never refuses: "+" becomes a blank; "%" and the two
 * characters behind it become one byte, the first giving the high half and
 * the second the low half, and a character that is no hex digit counting as
 * 0. A "%" that ends the text is kept; one followed by a single character
 * at the end takes that character as the high half ("%4" gives "@"). A byte
 * of 0 that an escape yields is written like any other. */
TN_API tn_bool tn_uri_unescape(const tn_uchar *text, tn_uchar_array *output);

/* 1 if text holds "%" followed by two decimal digits. Only decimal digits
 * count: "%20" does, "%2f" and "%2F" do not. A null text gives 0. */
TN_API tn_bool tn_uri_is_escaped(const tn_uchar *text);

/* 1 if text holds a byte outside the safe characters and tn_uri_is_escaped
 * says 0; a text that counts as escaped already gives 0, and so does the
 * empty text and a null one. */
TN_API tn_bool tn_uri_should_escape(const tn_uchar *text);

/* Replaces the contents of names and values by the pairs of query. Each
 * pair is the text up to the first "=" from where it starts, which is the
 * name whatever it holds ("a&b=1" names "a&b"), and the text from there to
 * the next "&" or the end, the value. Both are decoded as tn_uri_unescape
 * does, and each ends at a decoded byte of 0. Returns 1 when the pairs end
 * the query; 0 for an empty query, a query without "=", a trailing "&" or a
 * last item without "=", the pairs before it staying in the arrays. A null
 * query empties both and gives 0. Exhausted memory leaves the arrays
 * failed. */
TN_API tn_bool tn_uri_parse_query(const tn_uchar *query, tn_str_array *names, tn_str_array *values);
/* The same with one array: names and values alternate, name first. */
TN_API tn_bool tn_uri_parse_query2(const tn_uchar *query, tn_str_array *pairs);

/* Writes "file:///" and the path escaped: a leading '/' is dropped, and
 * every byte but the safe characters, '/' included, becomes "%" and two
 * lower-case hex digits, a blank too. "/srv/a b" gives
 * "file:///srv%2fa%20b". The path is taken as it is, relative or not. */
TN_API tn_bool tn_uri_path_to_file_uri(const tn_uchar *path, tn_uchar_array *output);

/* Reduces an absolute URI in place to its path: text that begins with "/"
 * stays as it is; otherwise text needs a colon, "//" behind it and a
 * character behind those, else 0 with text unchanged. The text is cut to
 * begin at the first "/" behind the "//", or becomes "/" if there is none.
 * "x://h" gives "/", "x://h/a" gives "/a", and "x://h/c%3a%2fd" gives
 * "/c%3a%2fd": paths here have no drive letters, so the text always keeps
 * its '/'. The counterpart of tn_uri_path_to_file_uri: the file URI of a
 * path, trimmed and unescaped, is that path again when it was absolute. A
 * null text gives 0. */
TN_API tn_bool tn_uri_trim_path_prefix(tn_uchar *text);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_URI_H */
