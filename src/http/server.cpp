#include <tarnel_util/tn_byte.h>
#include <tarnel_util/tn_fmt.h>
#include <tarnel_util/tn_http_header.h>
#include <tarnel_util/tn_http_server.h>
#include <tarnel_util/tn_socket.h>
#include <tarnel_util/tn_str.h>
#include <tarnel_util/tn_time.h>

#include "http/connection.h"

namespace {

using U = tn_uchar;

constexpr tn_uint32 header_text_room = 384;
constexpr tn_uint32 line_consume_limit = 8192;
constexpr U delimiters[] = " \t";
constexpr U version_prefix[] = "HTTP/";
constexpr U version_1_0[] = "HTTP/1.0";
constexpr U chunked[] = "chunked";
constexpr U close_value[] = "close";

tn_input_buffer *input(tn_http_server *s) { return &s->input.buffer; }

template <class T>
tn_bool store(T *out, const T &value)
{
    *out = value;
    return 1;
}

// A token that did not fit leaves its destination unterminated; an empty
// text is what the caller then finds.
tn_bool token(tn_input_buffer *line, U *destination, tn_uint32 size)
{
    if (tn_input_buffer_read_token(line, destination, size, delimiters)) return 1;
    if (destination && size) destination[0] = 0;
    return 0;
}

// Method, URI and version of one request line of n bytes, CRLF excluded.
tn_bool parse_start_line(tn_http_server *s, const U *text, tn_uint32 n, U *uri, tn_uint32 size)
{
    tn_input_buffer line;
    tn_str_input_buffer_init2(&line, text, n);
    if (!token(&line, s->method, sizeof s->method)) return 0;
    if (!token(&line, uri, size) || !tn_uri_parse(&s->uri, uri)) return 0;
    if (!token(&line, s->version, sizeof s->version)) return 0;
    return tn_str_diffn(s->version, sizeof version_prefix - 1, version_prefix) == 0;
}

// The framing of the body that the head announces.
tn_bool decide_framing(tn_http_server *s)
{
    const U *coding = tn_http_header_get_value2(&s->header, tn_http_header_transfer_encoding());
    if (coding) {
        bool is_chunked = tn_str_case_diff(coding, chunked) == 0;
        if (is_chunked) tn_http_chunk_init(&s->chunk);
        s->body_mode = is_chunked ? TN_HTTP_SERVER_BODY_CHUNKED : TN_HTTP_SERVER_BODY_UNFRAMED;
        return 1;
    }
    const U *length = tn_http_header_get_value2(&s->header, tn_http_header_content_length());
    if (!length) return store(&s->body_mode, TN_HTTP_SERVER_BODY_UNFRAMED);
    tn_uint64 value = 0;
    if (!tn_str_scan_uint64(length, &value)) return 0;
    s->remaining = value;
    return store(&s->body_mode, TN_HTTP_SERVER_BODY_LENGTH);
}

tn_bool read_length_body(tn_http_server *s, void *destination, tn_uint32 size, tn_uint32 *count, tn_uint32 *ready)
{
    if (!destination || !size) return 0;
    tn_uint32 want = s->remaining < size ? static_cast<tn_uint32>(s->remaining) : size;
    // With nothing left the read could only wait and then give 0.
    if (!want || !tn_input_buffer_read(input(s), destination, want, count) || !*count) {
        s->body_mode = TN_HTTP_SERVER_BODY_FAILED;
        return 0;
    }
    s->remaining -= *count;
    if (!s->remaining) s->body_mode = TN_HTTP_SERVER_BODY_ENDED;
    return store(ready, 1u);
}

tn_bool read_chunked_body(tn_http_server *s, void *destination, tn_uint32 size, tn_uint32 *count, tn_uint32 *ready)
{
    tn_bool result = tn_http_chunk_read(&s->chunk, input(s), destination, size, count, ready);
    if (s->chunk.state == TN_HTTP_CHUNK_COMPLETE) s->body_mode = TN_HTTP_SERVER_BODY_ENDED;
    return result;
}

} // namespace

tn_bool tn_http_server_init(tn_http_server *s)
{
    if (!s) return 0;
    tn_byte_zero(s, sizeof *s);
    s->socket = -1;
    tn_poll_create(&s->poll);
    tn_uri_init(&s->uri);
    tn_str_array_init(&s->header);
    tn_array_init(&s->line, 1);
    tn_socket_input_buffer_init(&s->input, s->input_storage, sizeof s->input_storage, -1, &s->poll, 0);
    tn_socket_output_buffer_init(&s->output, s->output_storage, sizeof s->output_storage, -1, &s->poll, 0);
    s->socket_buffer_size = TN_HTTP_SERVER_SOCKET_BUFFER_SIZE;
    if (tn_str_array_allocate(&s->header, header_text_room)) return 1;
    tn_str_array_free(&s->header);
    return 0;
}

void tn_http_server_free(tn_http_server *s)
{
    if (!s) return;
    tn_poll_free(&s->poll);
    tn_socket_close(s->socket);
    s->socket = -1;
    tn_uri_free(&s->uri);
    tn_str_array_free(&s->header);
    tn_array_free(&s->line);
}

void tn_http_server_reset(tn_http_server *s)
{
    if (!s) return;
    tn_uri_reset(&s->uri);
    tn_array_truncate(&s->line);
}

tn_bool tn_http_server_set_socket(tn_http_server *s, tn_socket socket)
{
    return tn_http_server_set_socket2(s, socket, 0, 0);
}

tn_bool tn_http_server_set_socket2(tn_http_server *s, tn_socket socket, tn_int32 read_timeout, tn_int32 write_timeout)
{
    if (!s) return 0;
    s->socket = socket;
    tn_socket_input_buffer_init(&s->input, s->input_storage, sizeof s->input_storage, socket, &s->poll, read_timeout);
    tn_socket_output_buffer_init(&s->output, s->output_storage, sizeof s->output_storage, socket, &s->poll,
                                 write_timeout);
    return tn_socket_local(socket, &s->local_ip);
}

tn_bool tn_http_server_get_socket(const tn_http_server *s, tn_socket *socket) { return s && socket && store(socket, s->socket); }
tn_poll *tn_http_server_get_poll(tn_http_server *s) { return s ? &s->poll : nullptr; }
tn_bool tn_http_server_get_local_ip(const tn_http_server *s, tn_ip *ip) { return s && ip && store(ip, s->local_ip); }
tn_bool tn_http_server_set_remote_ip(tn_http_server *s, const tn_ip *ip) { return s && ip && store(&s->remote_ip, *ip); }
tn_bool tn_http_server_get_remote_ip(const tn_http_server *s, tn_ip *ip) { return s && ip && store(ip, s->remote_ip); }
tn_socket_input_buffer *tn_http_server_get_socket_input_buffer(tn_http_server *s) { return s ? &s->input : nullptr; }
tn_socket_output_buffer *tn_http_server_get_socket_output_buffer(tn_http_server *s) { return s ? &s->output : nullptr; }
const tn_uchar *tn_http_server_get_method(const tn_http_server *s) { return s ? s->method : nullptr; }
tn_uri *tn_http_server_get_uri(tn_http_server *s) { return s ? &s->uri : nullptr; }
const tn_uchar *tn_http_server_get_version(const tn_http_server *s) { return s ? s->version : nullptr; }
tn_str_array *tn_http_server_get_header(tn_http_server *s) { return s ? &s->header : nullptr; }
tn_bool tn_http_server_set_socket_buffer_size(tn_http_server *s, tn_uint32 size) { return s && store(&s->socket_buffer_size, size); }

tn_bool tn_http_server_is_request_version_1_0(const tn_http_server *s)
{
    return s && tn_str_diff(s->version, version_1_0) == 0;
}

tn_bool tn_http_server_is_persistent_connection_request(const tn_http_server *s)
{
    if (!s || tn_http_server_is_request_version_1_0(s)) return 0;
    const U *connection = tn_http_header_get_value2(&s->header, tn_http_header_connection());
    return !connection || tn_str_case_diff(connection, close_value) != 0;
}

tn_bool tn_http_server_read_start_line_nonblock(tn_http_server *s, tn_uchar *uri, tn_uint32 size, tn_bool *done)
{
    if (!done) return 0;
    *done = 0;
    if (!s || !uri) return 0;
    tn_input_buffer *in = input(s);
    tn_uint32 n = 0;
    if (!tn::http::first_line(in, &n)) return 0;
    if (!n) return 1;
    const U *text = in->storage + in->position;
    if (text[0] == ' ' || text[0] == '\t') return 0;
    if (!parse_start_line(s, text, n, uri, size)) return 0;
    if (!tn_input_buffer_read_line(in, nullptr, line_consume_limit)) return 0;
    return store(done, 1);
}

tn_bool tn_http_server_read_header_nonblock(tn_http_server *s, tn_bool *done)
{
    if (!done) return 0;
    *done = 0;
    if (!s || !tn_http_header_read_socket(&s->header, input(s), &s->line, done)) return 0;
    return !*done || decide_framing(s);
}

tn_bool tn_http_server_read_header(tn_http_server *s)
{
    if (!s) return 0;
    tn_str_array_truncate(&s->header);
    const tn_time deadline = tn::http::deadline_after(s->input.read_timeout);
    U uri[TN_HTTP_SERVER_URI_SIZE];
    auto start_line = [&](tn_bool *done) { return tn_http_server_read_start_line_nonblock(s, uri, sizeof uri, done); };
    auto header = [&](tn_bool *done) { return tn_http_server_read_header_nonblock(s, done); };
    return tn::http::until_done(&s->poll, s->socket, input(s), &deadline, start_line) &&
           tn::http::until_done(&s->poll, s->socket, input(s), &deadline, header);
}

tn_bool tn_http_server_read_body_nonblock(tn_http_server *s, void *destination, tn_uint32 size, tn_uint32 *count,
                                          tn_uint32 *ready)
{
    if (!count || !ready) return 0;
    *count = 0;
    *ready = 0;
    if (!s) return 0;
    switch (s->body_mode) {
    case TN_HTTP_SERVER_BODY_ENDED: return store(ready, 1u);
    case TN_HTTP_SERVER_BODY_LENGTH: return read_length_body(s, destination, size, count, ready);
    case TN_HTTP_SERVER_BODY_CHUNKED: return read_chunked_body(s, destination, size, count, ready);
    default: return 0;
    }
}

tn_bool tn_http_server_is_request_body_eos(const tn_http_server *s)
{
    return s && s->body_mode == TN_HTTP_SERVER_BODY_ENDED;
}
