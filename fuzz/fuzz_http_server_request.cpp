// One server record reading requests from bytes that arrive on a real
// socket: the peer writes the input and shuts its side, and the record goes
// the non-blocking road (start line, head, body by its framing), answers
// with an error page, then reads a next request of the same connection with
// the blocking reader. Every reading must end, keep the input buffer's
// layout, and deliver no more body than the framing allows.
#include <tarnel_util/tn_http_server.h>
#include <tarnel_util/tn_socket.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

[[noreturn]] void fail(const char *what)
{
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

void check_layout(const tn_http_server *s)
{
    const tn_input_buffer &b = s->input.buffer;
    if (b.position + b.available != b.length || b.length != TN_HTTP_SERVER_INPUT_SIZE) fail("input layout broken");
}

// Pools once; false at the end of the stream or on failure.
bool pool(tn_http_server *s)
{
    tn_uint32 before = s->input.buffer.available, count = 0;
    return tn_input_buffer_pool(&s->input.buffer, &count) && count > before;
}

template <class Reader>
bool until_done(tn_http_server *s, Reader reader)
{
    for (int rounds = 0; rounds < 100000; ++rounds) {
        tn_bool done = 0;
        tn_bool ok = reader(&done);
        check_layout(s);
        if (!ok) return false;
        if (done) return true;
        if (!pool(s)) return false;
    }
    fail("the head reading does not end");
}

void read_body(tn_http_server *s, size_t input_size)
{
    const tn_uint32 mode = s->body_mode;
    const tn_uint64 length = s->remaining;
    tn_uint64 total = 0;
    char data[97];
    for (size_t rounds = 0; rounds < 4 * input_size + 16; ++rounds) {
        if (s->body_mode != TN_HTTP_SERVER_BODY_LENGTH && s->body_mode != TN_HTTP_SERVER_BODY_CHUNKED) return;
        tn_uint32 count = 0, ready = 0;
        if (!s->input.buffer.available && mode == TN_HTTP_SERVER_BODY_LENGTH && !pool(s)) return;
        tn_bool ok = tn_http_server_read_body_nonblock(s, data, sizeof data, &count, &ready);
        check_layout(s);
        if (count > sizeof data) fail("more than the destination");
        total += count;
        if (mode == TN_HTTP_SERVER_BODY_LENGTH && total > length) fail("more than the length");
        if (total > input_size) fail("more body than input");
        if (!ok) return;
        if (!count && !ready && !pool(s)) return;
    }
    fail("the body reading does not end");
}

void serve(tn_http_server *s, size_t input_size)
{
    tn_uchar uri[TN_HTTP_SERVER_URI_SIZE];
    if (!until_done(s, [&](tn_bool *d) { return tn_http_server_read_start_line_nonblock(s, uri, sizeof uri, d); }))
        return;
    tn_str_array_truncate(&s->header);
    if (!until_done(s, [&](tn_bool *d) { return tn_http_server_read_header_nonblock(s, d); })) return;
    read_body(s, input_size);
    tn_bool persistent = tn_http_server_is_persistent_connection_request(s);
    if (!tn_http_server_write_error_response2(s, tn_http_status_not_found(), nullptr,
                                              reinterpret_cast<const tn_uchar *>("fuzz/1"), persistent))
        fail("the answer did not go out");
    tn_http_server_reset(s);
    if (tn_http_server_read_header(s)) read_body(s, input_size);
    check_layout(s);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, size_t size)
{
    if (size > 65536) return 0;
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) fail("no socket pair");
    const int peer = pair[1];
    if (size && write(peer, data, size) != static_cast<ssize_t>(size)) fail("short write");
    shutdown(peer, SHUT_WR);
    tn_http_server s;
    if (!tn_http_server_init(&s)) fail("init failed");
    // The time-outs only bound waits that the closed peer never makes long.
    tn_http_server_set_socket2(&s, pair[0], 1000, 1000);
    tn_socket_ndelay_on(pair[0]);
    serve(&s, size);
    tn_http_server_free(&s);
    close(peer);
    return 0;
}
