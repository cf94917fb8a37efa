#include <tarnel_util/tn_fmt.h>
#include <tarnel_util/tn_http_header.h>
#include <tarnel_util/tn_http_vocab.h>
#include <tarnel_util/tn_str.h>

#include "http/client.h"

namespace {

using U = tn_uchar;

const U *u(const char *s) { return reinterpret_cast<const U *>(s); }

tn_output_buffer *out(tn_http_client *c) { return &c->output.buffer; }

bool put(tn_http_client *c, const U *text) { return tn_output_buffer_writes_align(out(c), text); }

bool put_n(tn_http_client *c, const void *bytes, tn_uint32 n) { return tn_output_buffer_write_align(out(c), bytes, n); }

bool has(const tn_str_array *block, const U *name)
{
    return block && tn_http_header_find(block, name) < tn_str_array_length(block);
}

// ":" and the port, when the uri has one.
bool put_port(tn_http_client *c)
{
    const U *port = tn_uri_get_port(&c->uri);
    return !*port || (put(c, u(":")) && put(c, port));
}

bool put_request_line(tn_http_client *c, const U *method)
{
    const U *query = tn_uri_get_query(&c->uri);
    bool absolute = c->proxy_host != nullptr;
    return put(c, method) && put(c, u(" ")) &&
           (!absolute || (put(c, tn_uri_get_protocol(&c->uri)) && put(c, u("://")) &&
                          put(c, tn_uri_get_host(&c->uri)) && put_port(c))) &&
           put(c, tn_uri_get_path(&c->uri)) && (!*query || (put(c, u("?")) && put(c, query))) &&
           put(c, u(" HTTP/")) && put(c, u(c->version ? "1.1" : "1.0")) && put(c, tn_str_crlf());
}

bool put_line(tn_http_client *c, const U *name, const U *value)
{
    return put(c, name) && put(c, tn_http_header_colon_sp()) && put(c, value) && put(c, tn_str_crlf());
}

// The caller's own HOST line stands in for the generated one, so that the
// request carries exactly one, and the one the caller meant.
bool put_host(tn_http_client *c, const tn_str_array *block)
{
    const U *host = tn_http_header_host();
    if (has(block, host))
        return put(c, tn_str_array_get_pos(block, tn_http_header_find(block, host))) && put(c, tn_str_crlf());
    if (!c->version) return true;
    return put(c, host) && put(c, tn_http_header_colon_sp()) && put(c, tn_uri_get_host(&c->uri)) && put_port(c) &&
           put(c, tn_str_crlf());
}

bool put_length(tn_http_client *c, const tn_str_array *block, tn_uint32 content_length)
{
    if (has(block, tn_http_header_content_length()) || has(block, tn_http_header_transfer_encoding())) return true;
    U digits[16];
    digits[tn_str_fmt_uint32(digits, content_length)] = 0;
    return put_line(c, tn_http_header_content_length(), digits);
}

bool put_close(tn_http_client *c, const tn_str_array *block, tn_bool close)
{
    if (!close || has(block, tn_http_header_connection())) return true;
    return put_line(c, tn_http_header_connection(), u("close"));
}

bool put_block(tn_http_client *c, const tn_str_array *block)
{
    const tn_uint32 n = block ? tn_str_array_length(block) : 0;
    for (tn_uint32 i = 0; i < n; ++i) {
        const U *line = tn_str_array_get_pos(block, i);
        if (tn_http_header_name_equal(line, tn_http_header_host())) continue;
        if (!put(c, line) || !put(c, tn_str_crlf())) return false;
    }
    return true;
}

// The three pieces of one chunk, through the given writer of n bytes.
template <class Write>
bool put_chunk(const void *source, tn_uint32 n, Write write)
{
    U size[10];
    return write(size, tn::http::chunk_size_line(size, n)) && (!n || write(source, n)) && write(tn_str_crlf(), 2);
}

tn_bool direct(tn_http_client *c, const void *source, tn_uint32 n)
{
    return tn_socket_output_buffer_write_op(source, n, &c->output);
}

} // namespace

tn_bool tn_http_client_write_header(tn_http_client *c, const tn_uchar *method, tn_uint32 content_length,
                                    const tn_str_array *block, tn_int32 write_timeout_ms)
{
    return tn_http_client_write_header2(c, method, content_length, 0, block, write_timeout_ms);
}

tn_bool tn_http_client_write_header2(tn_http_client *c, const tn_uchar *method, tn_uint32 content_length,
                                     tn_bool close, const tn_str_array *block, tn_int32 write_timeout_ms)
{
    // A failed block lost lines of the caller's: sending without them would
    // be a different request.
    if (!c || !method || c->version > 1 || !tn_uri_get_path(&c->uri)) return 0;
    if (block && tn_str_array_failed(block)) return 0;
    tn_socket_output_buffer_set_write_timeout(&c->output, write_timeout_ms);
    return put_request_line(c, method) && put_host(c, block) && put_length(c, block, content_length) &&
           put_close(c, block, close) && put_block(c, block) && put(c, tn_str_crlf()) &&
           tn_output_buffer_flush(out(c));
}

tn_bool tn_http_client_write_body(tn_http_client *c, const void *source, tn_uint32 n, tn_int32 write_timeout_ms)
{
    if (!c || (!source && n)) return 0;
    tn_socket_output_buffer_set_write_timeout(&c->output, write_timeout_ms);
    if (c->direct_writes) return direct(c, source, n);
    return put_n(c, source, n) && tn_output_buffer_flush(out(c));
}

tn_bool tn_http_client_write_chunk_body(tn_http_client *c, const void *source, tn_uint32 n,
                                        tn_int32 write_timeout_ms)
{
    if (!c || (!source && n)) return 0;
    tn_socket_output_buffer_set_write_timeout(&c->output, write_timeout_ms);
    if (c->direct_writes)
        return put_chunk(source, n, [c](const void *s, tn_uint32 k) { return direct(c, s, k) != 0; });
    return put_chunk(source, n, [c](const void *s, tn_uint32 k) { return put_n(c, s, k); }) &&
           tn_output_buffer_flush(out(c));
}
