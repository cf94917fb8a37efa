#include <tarnel_util/tn_input_buffer.h>
#include <tarnel_util/tn_output_buffer.h>
#include <tarnel_util/tn_socket.h>

namespace {

bool would_block() { return tn_socket_get_last_error() == TN_SOCKET_ERROR_WOULD_BLOCK; }

// The getters and setters of both records: store, and report success.
template <class T>
tn_bool store(T *out, T value)
{
    *out = value;
    return 1;
}

// One wait at most: the time-out bounds each wait, not the whole read.
tn_bool read_socket(void *destination, tn_uint32 capacity, tn_uint32 *count, void *context)
{
    auto *b = static_cast<tn_socket_input_buffer *>(context);
    if (tn_poll_is_canceled(b->poll)) return 0;
    if (tn_socket_recv(b->socket, destination, capacity, count)) return 1;
    if (!would_block() || !tn_poll_wait_read(b->poll, b->socket, b->read_timeout)) return 0;
    return tn_socket_recv(b->socket, destination, capacity, count);
}

} // namespace

void tn_socket_input_buffer_init(tn_socket_input_buffer *b, void *storage, tn_uint32 length, tn_socket socket,
                                 tn_poll *poll, tn_int32 read_timeout)
{
    tn_input_buffer_init(&b->buffer, storage, length, read_socket, b);
    b->poll = poll;
    b->socket = socket;
    b->read_timeout = read_timeout;
}

tn_bool tn_socket_input_buffer_get_socket(const tn_socket_input_buffer *b, tn_socket *s) { return store(s, b->socket); }
tn_bool tn_socket_input_buffer_get_poll(const tn_socket_input_buffer *b, tn_poll **p) { return store(p, b->poll); }
tn_bool tn_socket_input_buffer_get_read_timeout(const tn_socket_input_buffer *b, tn_int32 *t) { return store(t, b->read_timeout); }
tn_bool tn_socket_input_buffer_set_read_timeout(tn_socket_input_buffer *b, tn_int32 t) { return store(&b->read_timeout, t); }

void tn_socket_output_buffer_init(tn_socket_output_buffer *b, void *storage, tn_uint32 length, tn_socket socket,
                                  tn_poll *poll, tn_int32 write_timeout)
{
    tn_output_buffer_init(&b->buffer, storage, length, tn_socket_output_buffer_write_op, b);
    b->poll = poll;
    b->socket = socket;
    b->write_timeout = write_timeout;
}

// A partial send never ends the operation: it goes on until every byte has
// left or a step fails.
tn_bool tn_socket_output_buffer_write_op(const void *source, tn_uint32 n, void *context)
{
    auto *b = static_cast<tn_socket_output_buffer *>(context);
    const auto *from = static_cast<const tn_uchar *>(source);
    while (n) {
        if (tn_poll_is_canceled(b->poll)) return 0;
        tn_uint32 sent = 0;
        if (!tn_socket_send(b->socket, from, n, &sent)) {
            if (!would_block() || !tn_poll_wait_write(b->poll, b->socket, b->write_timeout)) return 0;
            if (!tn_socket_send(b->socket, from, n, &sent)) return 0;
        }
        // A send that took nothing would take nothing again: give up
        // rather than spin.
        if (sent == 0 || sent > n) return 0;
        from += sent;
        n -= sent;
    }
    return 1;
}

tn_bool tn_socket_output_buffer_get_socket(const tn_socket_output_buffer *b, tn_socket *s) { return store(s, b->socket); }
tn_bool tn_socket_output_buffer_get_poll(const tn_socket_output_buffer *b, tn_poll **p) { return store(p, b->poll); }
tn_bool tn_socket_output_buffer_get_write_timeout(const tn_socket_output_buffer *b, tn_int32 *t) { return store(t, b->write_timeout); }
tn_bool tn_socket_output_buffer_set_write_timeout(tn_socket_output_buffer *b, tn_int32 t) { return store(&b->write_timeout, t); }
