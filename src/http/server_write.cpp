#include <tarnel_util/tn_array.h>
#include <tarnel_util/tn_fmt.h>
#include <tarnel_util/tn_http_header.h>
#include <tarnel_util/tn_http_server.h>
#include <tarnel_util/tn_socket.h>
#include <tarnel_util/tn_str.h>
#include <tarnel_util/tn_uchar_array.h>

#include <cstdint>

#include "http/connection.h"

namespace {

using U = tn_uchar;

constexpr U status_version[] = "HTTP/1.1 ";
constexpr U blank[] = " ";
constexpr U closing_chunk[] = "0\r\n\r\n";
constexpr U page_start[] = "<html><body>";
constexpr U page_end[] = "</body></html>\r\n";
constexpr U text_html[] = "text/html";
// The page's text besides the phrase.
constexpr tn_uint32 page_frame = sizeof page_start - 1 + sizeof page_end - 1;
static_assert(page_frame == 28);

tn_output_buffer *output(tn_http_server *s) { return &s->output.buffer; }

tn_bool align(tn_http_server *s, const U *text) { return tn_output_buffer_writes_align(output(s), text); }

// Every piece in turn; the first failing one ends the sequence.
template <class... Text>
tn_bool align_all(tn_http_server *s, const Text *...texts)
{
    return (align(s, texts) && ...);
}

tn_bool write_lines(tn_http_server *s, const tn_str_array *header)
{
    tn_uint32 n = header ? tn_str_array_length(header) : 0;
    for (tn_uint32 i = 0; i < n; ++i)
        if (!align_all(s, tn_str_array_get_pos(header, i), tn_str_crlf())) return 0;
    return 1;
}

bool lies_in(const tn_array *array, const U *text)
{
    auto at = reinterpret_cast<std::uintptr_t>(text), data = reinterpret_cast<std::uintptr_t>(array->data);
    return array->data && at >= data && at - data < array->capacity;
}

// Text that lies in the block's own pool would move when the block grows;
// such text is copied out first.
const U *outside(const tn_str_array *block, const U *text, tn_uchar_array *copy)
{
    if (!lies_in(&block->pool, text)) return text;
    return tn_uchar_array_cats0(copy, text) ? static_cast<const U *>(tn_array_get(copy)) : nullptr;
}

tn_bool set_error_header(tn_str_array *block, const U *server_text, tn_bool persistent, tn_uint32 page_length)
{
    return tn_http_header_set_common_response_header(block, server_text, persistent) &&
           tn_http_header_set_uint32(block, tn_http_header_content_length(), page_length, 1) &&
           tn_http_header_set_str(block, tn_http_header_content_type(), text_html, 1);
}

tn_bool write_error(tn_http_server *s, const U *status, const U *phrase, tn_str_array *block, const U *server_text,
                    tn_bool persistent)
{
    if (!status || !phrase || !set_error_header(block, server_text, persistent, tn_str_len(phrase) + page_frame))
        return 0;
    if (!tn_http_server_write_status_line(s, status, phrase) || !tn_http_server_write_header(s, block)) return 0;
    if (tn_str_diff(s->method, tn_http_method_head()) != 0 && !align_all(s, page_start, phrase, page_end)) return 0;
    return tn_http_server_flush_output(s);
}

} // namespace

tn_bool tn_http_server_write_status_line(tn_http_server *s, const tn_uchar *status, const tn_uchar *reason)
{
    if (!s || !status) return 0;
    return align_all(s, status_version, status, blank, tn_http_server_get_reason(status, reason), tn_str_crlf());
}

tn_bool tn_http_server_write_header(tn_http_server *s, const tn_str_array *header)
{
    if (!s) return 0;
    if (s->socket_buffer_size) tn_socket_try_reserve_out(s->socket, s->socket_buffer_size);
    return write_lines(s, header) && align(s, tn_str_crlf());
}

tn_bool tn_http_server_write(tn_http_server *s, const void *source, tn_uint32 n)
{
    return s && (source || !n) && tn_output_buffer_write(output(s), source, n);
}

tn_bool tn_http_server_write_chunk(tn_http_server *s, const void *source, tn_uint32 n)
{
    if (!s) return 0;
    if (tn_http_server_is_request_version_1_0(s)) return tn_http_server_write(s, source, n);
    U size_line[10];
    return tn_http_server_write(s, size_line, tn::http::chunk_size_line(size_line, n)) &&
           tn_http_server_write(s, source, n) &&
           tn_http_server_write(s, tn_str_crlf(), 2);
}

tn_bool tn_http_server_write_chunk_eos(tn_http_server *s)
{
    if (!s) return 0;
    return tn_http_server_is_request_version_1_0(s) || tn_http_server_write(s, closing_chunk, sizeof closing_chunk - 1);
}

tn_bool tn_http_server_flush_output(tn_http_server *s) { return s && tn_output_buffer_flush(output(s)); }

tn_bool tn_http_server_write_error_response(tn_http_server *s, const tn_uchar *status, const tn_uchar *reason,
                                            tn_str_array *header, const tn_uchar *server_text, tn_bool persistent)
{
    if (!s || !status || !header) return 0;
    tn_uchar_array status_copy, phrase_copy;
    tn_array_init(&status_copy, 1);
    tn_array_init(&phrase_copy, 1);
    tn_bool result = write_error(s, outside(header, status, &status_copy),
                                 outside(header, tn_http_server_get_reason(status, reason), &phrase_copy), header,
                                 server_text, persistent);
    tn_array_free(&status_copy);
    tn_array_free(&phrase_copy);
    return result;
}

tn_bool tn_http_server_write_error_response2(tn_http_server *s, const tn_uchar *status, const tn_uchar *reason,
                                             const tn_uchar *server_text, tn_bool persistent)
{
    tn_str_array block;
    tn_str_array_init(&block);
    tn_bool result = tn_http_server_write_error_response(s, status, reason, &block, server_text, persistent);
    tn_str_array_free(&block);
    return result;
}

tn_bool tn_http_server_send_file_nonblock(tn_http_server *s, tn_file file, tn_uint64 position, tn_uint64 length,
                                          tn_uint64 *count)
{
    if (!s || tn_poll_is_canceled(&s->poll) || !tn_output_buffer_flush(output(s))) return 0;
    return tn_socket_send_file(s->socket, file, position, length, count);
}

// A pass that sends nothing although the socket was found writable means
// that the file has ended before the range did: the range cannot be
// completed, and waiting again would only spin.
tn_bool tn_http_server_send_file(tn_http_server *s, tn_file file, tn_uint64 position, tn_uint64 length,
                                 tn_uint64 *count)
{
    tn_uint64 total = 0;
    if (!count) count = &total;
    *count = 0;
    if (!s || !tn_output_buffer_flush(output(s))) return 0;
    const tn_int32 timeout = s->output.write_timeout;
    bool writable = false;
    while (!tn_poll_is_canceled(&s->poll)) {
        tn_uint64 sent = 0;
        tn_bool ok = tn_socket_send_file(s->socket, file, position + *count, length, &sent);
        *count += sent;
        length -= sent;
        if (!ok || (writable && !sent)) return 0;
        if (!length) return 1;
        if (!tn_poll_wait_write(&s->poll, s->socket, timeout)) return 0;
        writable = true;
    }
    return 0;
}
