/*
 * tn_http_header.h - the header block of an HTTP message: a tn_str_array
 * with one string per logical header line (name, colon, blank, value, no
 * line end), its queries and setters, the incremental reader that fills it
 * from an input buffer, and the Range vocabulary.
 *
 * There is no map and no parsed form: every query scans the lines in order
 * and sees the first match, every setter appends one complete line, and the
 * connections write the lines out unchanged. The block is the caller's.
 *
 * Matching. A line matches a name when its first strlen(name) bytes equal
 * the name without regard to ASCII case and what follows them, after any
 * run of blanks (SP and HT), is a colon: "Host : x" matches HOST, "Hostname:
 * x" does not.
 *
 * Setters. The replace flag removes the first matching line, and only that
 * one, before the new line is appended at the end. A setter composes the
 * line on the stack, so name and value may lie in the block itself. A line
 * of name, ": " and value must fit 2048 bytes with its terminator; the
 * number and date setters reckon 40 bytes for the value. A line too long
 * returns 0 and leaves the block as it was; a failure of memory after the
 * old line was removed leaves the block failed (tn_str_array.h). A null
 * block, name or value gives 0.
 *
 * Results are 1 or 0 unless told otherwise.
 */
#ifndef TARNEL_UTIL_TN_HTTP_HEADER_H
#define TARNEL_UTIL_TN_HTTP_HEADER_H

#include "tn_input_buffer.h"
#include "tn_str_array.h"
#include "tn_types.h"

TN_BEGIN_DECLS

/* The result of tn_http_header_parse_range. */
typedef struct tn_http_range {
    tn_uint64 start;  /* first byte of the range */
    tn_uint64 length; /* count of bytes */
    tn_uint64 total;  /* the size the range was taken against */
} tn_http_range;

/* 1 if the line matches the name; 0 for a null argument. */
TN_API tn_bool tn_http_header_name_equal(const tn_uchar *line, const tn_uchar *name);
/* Index of the first matching line, or the block's length (0 for a null
 * or failed block). */
TN_API tn_uint32 tn_http_header_find(const tn_str_array *block, const tn_uchar *name);
/* Behind the line's first colon and the blanks after it, or null when the
 * line has no colon. Trailing blanks stay. */
TN_API tn_uchar *tn_http_header_get_value(const tn_uchar *line);
/* The same for the first line that matches the name: null for a null
 * block, no match, or a match without colon. Valid until the block
 * changes. */
TN_API tn_uchar *tn_http_header_get_value2(const tn_str_array *block, const tn_uchar *name);
/* Removes the first matching line, if any. */
TN_API void tn_http_header_remove(tn_str_array *block, const tn_uchar *name);

/* Append name, ": " and the value: the text, the decimal number, or the
 * date in the form of tn_rfc1123_date_fmt. */
TN_API tn_bool tn_http_header_set_str(tn_str_array *block, const tn_uchar *name, const tn_uchar *value,
                                      tn_bool replace);
TN_API tn_bool tn_http_header_set_uint32(tn_str_array *block, const tn_uchar *name, tn_uint32 value,
                                         tn_bool replace);
TN_API tn_bool tn_http_header_set_uint64(tn_str_array *block, const tn_uchar *name, tn_uint64 value,
                                         tn_bool replace);
TN_API tn_bool tn_http_header_set_rfc1123_date(tn_str_array *block, const tn_uchar *name, tn_time value,
                                               tn_bool replace);
/* CONTENT-TYPE: text/xml; charset="utf-8", and CONTENT-TYPE: text/html. */
TN_API tn_bool tn_http_header_set_content_type_xml(tn_str_array *block, tn_bool replace);
TN_API tn_bool tn_http_header_set_content_type_html(tn_str_array *block, tn_bool replace);
/* TIMEOUT: Second-<seconds>, or Second-infinite for a negative count. The
 * line always fits, so there is no length test. */
TN_API tn_bool tn_http_header_set_timeout(tn_str_array *block, tn_int32 seconds, tn_bool replace);

/* Turns a block for POST into one for M-POST: appends
 * man: "http://schemas.xmlsoap.org/soap/envelope/"; ns=01 (the name in
 * lower case), then the first SOAPACTION line with "01-" in front, and
 * removes that SOAPACTION line. Without a SOAPACTION line, or with one
 * whose length + 4 exceeds 2048, returns 0 and changes nothing. */
TN_API tn_bool tn_http_header_set_soap_man(tn_str_array *block);

/* SERVER with the server text (replacing), DATE with the clock's time
 * (replacing), and CONNECTION: close (replacing) when persistent is 0; a
 * persistent response leaves every CONNECTION line alone. Stops with 0 at
 * the first failure. */
TN_API tn_bool tn_http_header_set_common_response_header(tn_str_array *block, const tn_uchar *server,
                                                         tn_bool persistent);
/* The same, then EXT with an empty value ("EXT: ") and the XML
 * CONTENT-TYPE, each replacing. */
TN_API tn_bool tn_http_header_set_common_soap_response_header(tn_str_array *block, const tn_uchar *server,
                                                              tn_bool persistent);

/* "max-age" in any case, blanks, "=", blanks, and at least one decimal
 * digit (tn_str_scan_uint: a value too long wraps); what follows the digits
 * is not looked at. On 0 the out value is left alone. */
TN_API tn_bool tn_http_header_get_max_age(const tn_uchar *value, tn_uint32 *max_age);
/* "second-" in any case, then "infinite" with exactly this case (-1), or a
 * signed decimal of at least one digit (tn_str_scan_int32); what follows
 * the digits is not looked at. On 0 the out value is left alone. */
TN_API tn_bool tn_http_header_get_timeout(const tn_uchar *value, tn_int32 *seconds);

/* Parses one Range value against a size: "bytes", blanks, "=", blanks, then
 * "-count" (the last count bytes, a count above size meaning all),
 * "start-" (to the end) or "start-end" (an end at or past the size meaning
 * up to the last byte), with blanks allowed around the "-" and nothing
 * after the last number. Only a single range is taken.
 *
 * The range starts as start 0, length = total = size, and a size of 0
 * returns 1 at once whatever the value. A malformed value (no "bytes=", no
 * digit, a comma or anything else after the range, an end below the start)
 * returns 0 with the range so and the text of tn_http_status_bad_request in
 * *status; an unsatisfiable one (a count of 0, a start at or past the size)
 * returns 0 with the range so and the text of
 * tn_http_status_requested_range_not_satisfiable. status may be null. A
 * number with more digits than 64 bits hold counts as the largest value,
 * so it is past any size and never wraps round to a small one. A null
 * value is malformed; a null range gives 0 and stores nothing. */
TN_API tn_bool tn_http_header_parse_range(const tn_uchar *value, tn_uint64 size, tn_http_range *range,
                                          const tn_uchar **status);

/* The text of one Range or Content-Range line, in lower case, without
 * terminator or line end: init empties the array and writes
 * "range: bytes=" or "content-range: bytes "; start_pos appends the
 * decimal and "-"; end_pos appends "-" unless the last byte is one, then
 * the decimal; length appends "/" and the decimal; unknown_length
 * appends a slash and an asterisk.
 * Content-Range for bytes 0 to 9 of 100: init, start 0, end 9, length 100
 * gives "content-range: bytes 0-9/100". */
TN_API tn_bool tn_http_header_range_init(tn_uchar_array *text);
TN_API tn_bool tn_http_header_content_range_init(tn_uchar_array *text);
TN_API tn_bool tn_http_header_range_start_pos(tn_uchar_array *text, tn_uint64 position);
TN_API tn_bool tn_http_header_range_end_pos(tn_uchar_array *text, tn_uint64 position);
TN_API tn_bool tn_http_header_range_length(tn_uchar_array *text, tn_uint64 length);
TN_API tn_bool tn_http_header_range_unknown_length(tn_uchar_array *text);

/* Stores the held count in *used and, when at least 2 bytes are held, the
 * index of the first CRLF among them (or the held count) in *line_length;
 * with fewer, the held count. Consumes nothing; always 1. The two are the
 * same operation. */
TN_API tn_bool tn_http_find_line_str(const tn_input_buffer *buffer, tn_uint32 *used, tn_uint32 *line_length);
TN_API tn_bool tn_http_find_line_socket(const tn_input_buffer *buffer, tn_uint32 *used, tn_uint32 *line_length);

/* Reads header lines from the bytes the buffer holds, never calling its
 * read operation. The caller empties block and accumulator (a tn_uchar_array
 * that keeps the logical line under way between calls) before the first
 * call of a message, and refills with tn_input_buffer_pool between calls.
 *
 * Each complete physical line (up to CRLF) is consumed. One that starts
 * with SP or HT continues the logical line, blanks included; any other
 * ends it, and the ended line goes to the block if it holds a colon and
 * vanishes otherwise. A line's text is read as a string: a zero byte ends
 * it. The empty line ends the block: *done becomes 1 and the buffer stands
 * on the first byte of the body. Without a complete line the call returns 1
 * with *done 0 and consumes nothing, unless the held bytes fill the
 * storage: then all but the last two are dropped (the head of a line longer
 * than the storage is lost, and its remainder counts as a line of its own)
 * so that the next refill has room. A storage of fewer than 3 bytes that
 * fills without a CRLF cannot go on and gives 0, as does a storage under 2
 * bytes and a failure of the arrays. No syntax error is reported. */
TN_API tn_bool tn_http_header_read_socket(tn_str_array *block, tn_input_buffer *buffer, tn_uchar_array *accumulator,
                                          tn_bool *done);
/* The same walk over a whole text held in the buffer: empties block and
 * accumulator first (0 if that fails), returns 1 at the empty line or when
 * no complete line is left. A last line that no line follows stays in the
 * accumulator; bytes after the last CRLF stay held. */
TN_API tn_bool tn_http_header_read_str(tn_str_array *block, tn_input_buffer *buffer, tn_uchar_array *accumulator);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_HTTP_HEADER_H */
