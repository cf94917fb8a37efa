// Reading one whole response (status line, head, body) off a socket on a
// kept-alive connection, against http-parser driven by recv (what a host
// would pick in C). Each round the peer writes the response into a local
// stream pair before it is read, the same bytes for both contenders. The
// client copies every header line into its block and the body into the
// caller's destination; http-parser's callbacks count the header pieces
// and copy the body into the same destination. Rows of one response sit
// together: "<response>/<contender>"; the rate is per response.

#include <benchmark/benchmark.h>

#include <tarnel_util/tn_http_client.h>

#include <http_parser.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace {

const std::string head = "HTTP/1.1 200 OK\r\n"
                         "Content-Type: text/xml; charset=\"utf-8\"\r\n"
                         "Server: Debian DLNADOC/1.50 UPnP/1.0\r\n"
                         "Date: Mon, 23 Nov 2026 02:53:12 GMT\r\n"
                         "EXT:\r\n";

const std::string by_length = head + "Content-Length: 1152\r\n\r\n" + std::string(1152, 'x');

std::string chunked_body()
{
    std::string s = head + "Transfer-Encoding: chunked\r\n\r\n";
    for (int i = 0; i < 4; ++i) s += "120\r\n" + std::string(288, 'x') + "\r\n";
    return s + "0\r\n\r\n";
}
const std::string chunked = chunked_body();

struct stream_pair {
    int ours = -1, peer = -1;
    stream_pair()
    {
        int f[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, f) != 0) return;
        ours = f[0];
        peer = f[1];
        fcntl(ours, F_SETFL, O_NONBLOCK);
    }
    bool load(const std::string &bytes) const
    {
        return send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL) == ssize_t(bytes.size());
    }
};

char destination[4096];

void read_tn(benchmark::State &state, const std::string &response)
{
    stream_pair pair;
    tn_http_client c;
    tn_http_client_init(&c, 0, 0);
    tn_http_client_set_socket(&c, pair.ours);
    tn_str_array block;
    tn_str_array_init(&block);
    tn_uchar status[4];
    for (auto _ : state) {
        if (!pair.load(response) || !tn_http_client_read_header(&c, status, &block, -1)) state.SkipWithError("head");
        for (tn_uint32 n = 1; n;)
            if (!tn_http_client_read_body(&c, destination, sizeof destination, -1, &n)) state.SkipWithError("body");
    }
    tn_str_array_free(&block);
    tn_http_client_free(&c);
    close(pair.peer);
    state.SetItemsProcessed(state.iterations());
}

struct parsed {
    int pieces = 0;
    size_t body = 0;
    bool complete = false;
};

parsed &of(http_parser *p) { return *static_cast<parsed *>(p->data); }

int count_piece(http_parser *p, const char *, size_t)
{
    ++of(p).pieces;
    return 0;
}

int copy_body(http_parser *p, const char *at, size_t n)
{
    std::memcpy(destination, at, n);
    of(p).body += n;
    return 0;
}

int complete(http_parser *p)
{
    of(p).complete = true;
    http_parser_pause(p, 1);
    return 0;
}

void read_http_parser(benchmark::State &state, const std::string &response)
{
    stream_pair pair;
    http_parser_settings settings;
    std::memset(&settings, 0, sizeof settings);
    settings.on_header_field = count_piece;
    settings.on_header_value = count_piece;
    settings.on_body = copy_body;
    settings.on_message_complete = complete;
    char storage[8192];
    for (auto _ : state) {
        if (!pair.load(response)) state.SkipWithError("load");
        http_parser parser;
        http_parser_init(&parser, HTTP_RESPONSE);
        parsed result;
        parser.data = &result;
        while (!result.complete) {
            ssize_t n = recv(pair.ours, storage, sizeof storage, 0);
            pollfd wait{pair.ours, POLLIN, 0};
            if (n < 0 && poll(&wait, 1, -1) == 1) continue;
            if (n <= 0) break;
            http_parser_execute(&parser, &settings, storage, size_t(n));
        }
        if (!result.complete) state.SkipWithError("response");
        benchmark::DoNotOptimize(result.pieces);
    }
    close(pair.ours);
    close(pair.peer);
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK_CAPTURE(read_tn, by_length/tn, by_length);
BENCHMARK_CAPTURE(read_http_parser, by_length/http_parser, by_length);
BENCHMARK_CAPTURE(read_tn, chunked/tn, chunked);
BENCHMARK_CAPTURE(read_http_parser, chunked/http_parser, chunked);

} // namespace
