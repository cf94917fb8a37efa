#include <tarnel_util/tn_fmt.h>
#include <tarnel_util/tn_http_header.h>
#include <tarnel_util/tn_http_vocab.h>
#include <tarnel_util/tn_str.h>

#include "http/client.h"

namespace {

using U = tn_uchar;

const U *u(const char *s) { return reinterpret_cast<const U *>(s); }

constexpr tn_uint32 version_size = 12;
constexpr tn_uint32 status_size = 4;
constexpr tn_uint32 status_line_limit = 8192;

const U *held(const tn_input_buffer *b) { return b->storage + b->position; }

// A status token that does not fit fills the caller's four bytes without a
// terminator; it is emptied then, so the caller never reads past them.
bool read_tokens(const U *line, tn_uint32 n, U *status)
{
    tn_input_buffer tokens;
    tn_str_input_buffer_init2(&tokens, line, n);
    U version[version_size];
    if (tn_input_buffer_read_token(&tokens, version, version_size, tn_str_htsp()) &&
        tn_input_buffer_read_token(&tokens, status, status_size, tn_str_htsp()) &&
        tn_str_len(status) == status_size - 1)
        return true;
    status[0] = 0;
    return false;
}

// The framing of the body, from a complete response head.
tn_bool set_framing(tn_http_client *c, const tn_str_array *block)
{
    const U *coding = tn_http_header_get_value2(block, tn_http_header_transfer_encoding());
    if (coding) {
        if (tn_str_case_diff(coding, u("chunked"))) return 0;
        tn_http_chunk_init(&c->chunk);
        c->state = TN_HTTP_CLIENT_BODY_CHUNKED;
        return 1;
    }
    const U *length = tn_http_header_get_value2(block, tn_http_header_content_length());
    if (!length) {
        c->state = TN_HTTP_CLIENT_BODY_TO_CLOSE;
        return 1;
    }
    tn_uint64 value = 0;
    if (!tn_str_scan_uint64(length, &value)) return 0;
    c->remaining = value;
    c->state = TN_HTTP_CLIENT_BODY_LENGTH;
    return 1;
}

// Runs a non-blocking step of the client until it is done.
template <class Step>
bool until_done(tn_http_client *c, const tn_time *deadline, Step step)
{
    return tn::http::until_done(&c->poll, c->socket, tn::http::input_of(c), deadline, step);
}

bool wait_unless_held(tn_http_client *c, const tn_time *deadline)
{
    return tn::http::input_of(c)->available || tn_poll_wait_read_abs(&c->poll, c->socket, deadline);
}

tn_bool fail_body(tn_http_client *c)
{
    c->state = TN_HTTP_CLIENT_FAILED;
    return 0;
}

tn_bool read_by_length(tn_http_client *c, void *destination, tn_uint32 size, tn_uint32 *count)
{
    tn_uint32 n = c->remaining < size ? static_cast<tn_uint32>(c->remaining) : size;
    if (!tn_input_buffer_read(tn::http::input_of(c), destination, n, count) || !*count) return fail_body(c);
    c->remaining -= *count;
    if (!c->remaining) c->state = TN_HTTP_CLIENT_BODY_ENDED;
    return 1;
}

tn_bool read_to_close(tn_http_client *c, void *destination, tn_uint32 size, tn_uint32 *count)
{
    if (!tn_input_buffer_read(tn::http::input_of(c), destination, size, count)) return fail_body(c);
    if (!*count) c->state = TN_HTTP_CLIENT_BODY_ENDED;
    return 1;
}

tn_bool read_chunk(tn_http_client *c, void *destination, tn_uint32 size, tn_uint32 *count, tn_bool *ready)
{
    tn_uint32 r = 0;
    if (!tn_http_chunk_read(&c->chunk, tn::http::input_of(c), destination, size, count, &r)) return 0;
    if (c->chunk.state == TN_HTTP_CHUNK_COMPLETE) c->state = TN_HTTP_CLIENT_BODY_ENDED;
    *ready = r != 0;
    return 1;
}

} // namespace

tn_bool tn_http_client_read_status_line_nonblock(tn_http_client *c, tn_uchar *status, tn_bool *done)
{
    if (!done) return 0;
    *done = 0;
    if (!c || !status) return 0;
    tn_input_buffer *b = tn::http::input_of(c);
    tn_uint32 n = 0;
    if (!tn::http::first_line(b, &n)) return 0;
    if (!n) return 1;
    const U first = held(b)[0];
    if (first == ' ' || first == '\t') return 0;
    if (!read_tokens(held(b), n, status)) return 0;
    if (!tn_input_buffer_read_line(b, nullptr, status_line_limit)) return 0;
    *done = 1;
    return 1;
}

tn_bool tn_http_client_read_header_nonblock(tn_http_client *c, tn_str_array *block, tn_uchar_array *accumulator,
                                            tn_bool *done)
{
    if (!done) return 0;
    *done = 0;
    if (!c || !tn_http_header_read_socket(block, tn::http::input_of(c), accumulator, done)) return 0;
    return !*done || set_framing(c, block);
}

tn_bool tn_http_client_read_header(tn_http_client *c, tn_uchar *status, tn_str_array *block, tn_int32 timeout_ms)
{
    if (!c || !status || !block) return 0;
    tn_bool emptied = tn_str_array_truncate(block);
    if (!tn_array_truncate(&c->accumulator) || !emptied) return 0;
    const tn_time deadline = tn::http::deadline_after(timeout_ms);
    return until_done(c, &deadline,
                      [&](tn_bool *done) { return tn_http_client_read_status_line_nonblock(c, status, done); }) &&
           until_done(c, &deadline, [&](tn_bool *done) {
               return tn_http_client_read_header_nonblock(c, block, &c->accumulator, done);
           });
}

tn_bool tn_http_client_read_body_nonblock(tn_http_client *c, void *destination, tn_uint32 size, tn_uint32 *count,
                                          tn_bool *ready)
{
    if (!count || !ready) return 0;
    *count = 0;
    *ready = 0;
    if (!c) return 0;
    if (c->state == TN_HTTP_CLIENT_BODY_ENDED) return *ready = 1;
    if (!destination || !size) return 0;
    tn_bool ok = 0;
    switch (c->state) {
    case TN_HTTP_CLIENT_BODY_LENGTH: ok = read_by_length(c, destination, size, count); break;
    case TN_HTTP_CLIENT_BODY_TO_CLOSE: ok = read_to_close(c, destination, size, count); break;
    case TN_HTTP_CLIENT_BODY_CHUNKED: return read_chunk(c, destination, size, count, ready);
    default: return 0;
    }
    *ready = ok;
    return ok;
}

tn_bool tn_http_client_read_body(tn_http_client *c, void *destination, tn_uint32 size, tn_int32 timeout_ms,
                                 tn_uint32 *count)
{
    if (!count) return 0;
    *count = 0;
    if (!c) return 0;
    if (c->state == TN_HTTP_CLIENT_BODY_ENDED) return 1;
    if (!destination || !size) return 0;
    const tn_time deadline = tn::http::deadline_after(timeout_ms);
    switch (c->state) {
    case TN_HTTP_CLIENT_BODY_LENGTH:
        return wait_unless_held(c, &deadline) && read_by_length(c, destination, size, count);
    case TN_HTTP_CLIENT_BODY_TO_CLOSE:
        return wait_unless_held(c, &deadline) && read_to_close(c, destination, size, count);
    case TN_HTTP_CLIENT_BODY_CHUNKED:
        for (;;) {
            tn_bool ready = 0;
            if (!wait_unless_held(c, &deadline) || !read_chunk(c, destination, size, count, &ready)) return 0;
            if (ready) return 1;
        }
    default: return 0;
    }
}

tn_bool tn_http_client_is_response_body_eos(const tn_http_client *c)
{
    return c && c->state == TN_HTTP_CLIENT_BODY_ENDED;
}
