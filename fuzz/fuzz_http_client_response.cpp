// A client reading a response: the input is what the server sent before it
// closed. It goes through a real socket, and the client reads the status
// line, the head and the body by its framing, as tn_http_client_request
// leaves it to the caller, with an input storage and destination sized from
// the input's own hash. Checks what must hold whatever the input: the
// status is three bytes, a head read gives a framing state, the
// body never exceeds the input, the end of the body is the only count of 0
// with result 1, and every read ends at once (the peer has closed).
#include <tarnel_util/tn_http_client.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

void check(bool ok, const char *what)
{
    if (ok) return;
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

std::uint64_t hash(const std::uint8_t *data, size_t size)
{
    std::uint64_t h = 1469598103934665603u;
    for (size_t i = 0; i < size; ++i) h = (h ^ data[i]) * 1099511628211u;
    return h;
}

// Our end of a pair holding the input and then the end of the stream.
int loaded_socket(const std::uint8_t *data, size_t size)
{
    int f[2];
    check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, f) == 0, "socketpair");
    int room = 1 << 18;
    setsockopt(f[1], SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    check(send(f[1], data, size, MSG_NOSIGNAL) == ssize_t(size), "send");
    close(f[1]);
    fcntl(f[0], F_SETFL, O_NONBLOCK);
    return f[0];
}

void read_body(tn_http_client *c, tn_uint32 size, size_t input)
{
    std::vector<char> d(size);
    size_t total = 0;
    for (size_t calls = 0;; ++calls) {
        check(calls <= input + 2, "a body read that neither delivers nor ends");
        tn_uint32 count = 9;
        tn_bool ok = tn_http_client_read_body(c, d.data(), size, 1000, &count);
        check(count <= size, "count beyond the destination");
        total += count;
        if (!ok || !count) {
            check(ok == tn_http_client_is_response_body_eos(c), "count 0 with result 1 but no end of body");
            break;
        }
    }
    check(total <= input, "more body than input");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, size_t size)
{
    if (size > 1 << 16) return 0;
    std::uint64_t h = hash(data, size);
    tn_http_client c;
    if (!tn_http_client_init(&c, tn_uint32(16 + h % 600), 0)) return 0;
    tn_http_client_set_socket(&c, loaded_socket(data, size));
    tn_str_array block;
    tn_str_array_init(&block);
    tn_uchar status[4] = {};
    tn_bool head = 0;
    do {
        head = tn_http_client_read_header(&c, status, &block, 1000);
    } while (head && status[0] == '1');
    if (head) {
        check(std::strlen(reinterpret_cast<char *>(status)) == 3, "status of other than 3 bytes");
        check(c.state >= TN_HTTP_CLIENT_BODY_LENGTH && c.state <= TN_HTTP_CLIENT_BODY_ENDED, "no framing");
        read_body(&c, tn_uint32(1 + (h >> 16) % 300), size);
    }
    tn_str_array_free(&block);
    tn_http_client_free(&c);
    return 0;
}
