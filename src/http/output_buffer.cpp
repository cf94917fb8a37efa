#include <tarnel_util/tn_fmt.h>
#include <tarnel_util/tn_http_output_buffer.h>
#include <tarnel_util/tn_str.h>

#include <cstddef>

#include "http/connection.h"

// The socket fields stand where tn_socket_output_buffer has them, so a
// caller may treat the one record as the other.
static_assert(offsetof(tn_http_output_buffer, poll) == offsetof(tn_socket_output_buffer, poll));
static_assert(offsetof(tn_http_output_buffer, socket) == offsetof(tn_socket_output_buffer, socket));
static_assert(offsetof(tn_http_output_buffer, write_timeout) == offsetof(tn_socket_output_buffer, write_timeout));

namespace {

using U = tn_uchar;

template <class T>
tn_bool store(T *out, T value)
{
    *out = value;
    return 1;
}

// The socket's send-all loop, run on a view of the shared fields.
tn_bool send_all(const tn_http_output_buffer *b, const void *source, tn_uint32 n)
{
    tn_socket_output_buffer view;
    view.poll = b->poll;
    view.socket = b->socket;
    view.write_timeout = b->write_timeout;
    return tn_socket_output_buffer_write_op(source, n, &view);
}

// The size line of a chunk: lower-case hex and CRLF.
tn_bool send_size(const tn_http_output_buffer *b, tn_uint32 n)
{
    U text[10];
    return send_all(b, text, tn::http::chunk_size_line(text, n));
}

tn_bool write_op(const void *source, tn_uint32 n, void *context)
{
    const auto *b = static_cast<const tn_http_output_buffer *>(context);
    if (!b->chunked) return send_all(b, source, n);
    return send_size(b, n) && send_all(b, source, n) && send_all(b, tn_str_crlf(), 2);
}

bool open(const tn_http_output_buffer *b) { return !b->eos_sent; }

} // namespace

void tn_http_output_buffer_init(tn_http_output_buffer *b, void *storage, tn_uint32 length, tn_socket socket,
                                tn_poll *poll, tn_int32 write_timeout, tn_bool chunked)
{
    tn_output_buffer_init(&b->buffer, storage, length, write_op, b);
    b->poll = poll;
    b->socket = socket;
    b->write_timeout = write_timeout;
    b->chunked = chunked;
    b->eos_sent = 0;
}

void tn_http_output_buffer_reset(tn_http_output_buffer *b)
{
    tn_output_buffer_reset(&b->buffer);
    b->eos_sent = 0;
}

tn_bool tn_http_output_buffer_flush(tn_http_output_buffer *b) { return open(b) && tn_output_buffer_flush(&b->buffer); }

tn_bool tn_http_output_buffer_write(tn_http_output_buffer *b, const void *source, tn_uint32 n)
{
    return open(b) && tn_output_buffer_write(&b->buffer, source, n);
}

tn_bool tn_http_output_buffer_write_align(tn_http_output_buffer *b, const void *source, tn_uint32 n)
{
    return open(b) && tn_output_buffer_write_align(&b->buffer, source, n);
}

tn_bool tn_http_output_buffer_writes(tn_http_output_buffer *b, const tn_uchar *s)
{
    return open(b) && tn_output_buffer_writes(&b->buffer, s);
}

tn_bool tn_http_output_buffer_writes_align(tn_http_output_buffer *b, const tn_uchar *s)
{
    return open(b) && tn_output_buffer_writes_align(&b->buffer, s);
}

// The closing chunk carries no trailer: its size line and the empty line.
tn_bool tn_http_output_buffer_send_eos(tn_http_output_buffer *b)
{
    if (!open(b) || !tn_output_buffer_flush(&b->buffer)) return 0;
    if (b->chunked && !(send_size(b, 0) && send_all(b, tn_str_crlf(), 2))) return 0;
    b->eos_sent = 1;
    return 1;
}

tn_bool tn_http_output_buffer_get_chunked_encoding(const tn_http_output_buffer *b, tn_bool *c) { return store(c, b->chunked); }
tn_bool tn_http_output_buffer_set_chunked_encoding(tn_http_output_buffer *b, tn_bool c) { return store(&b->chunked, c); }
tn_bool tn_http_output_buffer_get_socket(const tn_http_output_buffer *b, tn_socket *s) { return store(s, b->socket); }
tn_bool tn_http_output_buffer_get_poll(const tn_http_output_buffer *b, tn_poll **p) { return store(p, b->poll); }
tn_bool tn_http_output_buffer_get_write_timeout(const tn_http_output_buffer *b, tn_int32 *t) { return store(t, b->write_timeout); }
tn_bool tn_http_output_buffer_set_write_timeout(tn_http_output_buffer *b, tn_int32 t) { return store(&b->write_timeout, t); }
