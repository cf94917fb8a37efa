// The server connection's request road and its chunked body output.
//
// request_head: a captured SOAP request head held in the record's input
// storage, read by the two non-blocking readers (start line with the URI
// split into its components, header lines into the block, the framing
// decided), against http-parser walking the same head with callbacks that
// copy the URL, names and values into reused strings and then splitting
// the URL with http_parser_parse_url. The rate is per head.
//
// chunked_body: 1 MiB of body in writes of 1000 bytes, framed in the
// chunked coding over an AF_UNIX pair whose other end a thread drains: the
// HTTP output buffer on 4096 bytes of storage (three sends per chunk),
// against a host framing 4096-byte blocks itself with snprintf and one
// writev per chunk. The rate is in bytes.

#include <benchmark/benchmark.h>

#include <tarnel_util/tn_byte.h>
#include <tarnel_util/tn_http_output_buffer.h>
#include <tarnel_util/tn_http_server.h>

#include <http_parser.h>

#include "bench_heads.h"

#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

const std::string &soap_head = tn_bench::soap_request;

void hold(tn_http_server *s, const std::string &bytes)
{
    tn_input_buffer *b = &s->input.buffer;
    b->available = static_cast<tn_uint32>(bytes.size());
    b->position = b->length - b->available;
    tn_byte_copy(b->storage + b->position, b->available, bytes.data());
}

void request_head_tn(benchmark::State &state)
{
    tn_http_server s;
    if (!tn_http_server_init(&s)) return state.SkipWithError("init");
    tn_uchar uri[TN_HTTP_SERVER_URI_SIZE];
    for (auto _ : state) {
        hold(&s, soap_head);
        tn_bool done = 0;
        tn_http_server_read_start_line_nonblock(&s, uri, sizeof uri, &done);
        tn_str_array_truncate(&s.header);
        tn_http_server_read_header_nonblock(&s, &done);
        if (!done) state.SkipWithError("head not read");
        tn_http_server_reset(&s);
    }
    tn_http_server_free(&s);
    state.SetItemsProcessed(state.iterations());
}

struct parsed {
    std::string url, names, values;
    size_t fields = 0;
};

int on_url(http_parser *p, const char *at, size_t n) { return static_cast<parsed *>(p->data)->url.append(at, n), 0; }
int on_field(http_parser *p, const char *at, size_t n)
{
    auto *r = static_cast<parsed *>(p->data);
    ++r->fields;
    return r->names.append(at, n), 0;
}
int on_value(http_parser *p, const char *at, size_t n) { return static_cast<parsed *>(p->data)->values.append(at, n), 0; }

void request_head_http_parser(benchmark::State &state)
{
    http_parser_settings settings;
    std::memset(&settings, 0, sizeof settings);
    settings.on_url = on_url;
    settings.on_header_field = on_field;
    settings.on_header_value = on_value;
    parsed r;
    for (auto _ : state) {
        r.url.clear(), r.names.clear(), r.values.clear();
        http_parser parser;
        http_parser_init(&parser, HTTP_REQUEST);
        parser.data = &r;
        if (http_parser_execute(&parser, &settings, soap_head.data(), soap_head.size()) != soap_head.size())
            state.SkipWithError("head not read");
        http_parser_url url;
        http_parser_url_init(&url);
        benchmark::DoNotOptimize(http_parser_parse_url(r.url.data(), r.url.size(), 0, &url));
    }
    state.SetItemsProcessed(state.iterations());
}

constexpr size_t body_size = 1 << 20, piece = 1000, storage_size = 4096;

// A pair whose second end a thread reads to the end of the stream.
struct drained_pair {
    int fd[2] = {-1, -1};
    std::thread reader;
    drained_pair()
    {
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fd) != 0) return;
        reader = std::thread([this] {
            char block[65536];
            while (read(fd[1], block, sizeof block) > 0) {
            }
        });
    }
    ~drained_pair()
    {
        shutdown(fd[0], SHUT_WR);
        if (reader.joinable()) reader.join();
        close(fd[0]);
        close(fd[1]);
    }
};

void chunked_body_tn(benchmark::State &state)
{
    drained_pair pair;
    tn_poll poll;
    tn_poll_create(&poll);
    std::vector<tn_uchar> storage(storage_size);
    const std::string data(piece, 'd');
    for (auto _ : state) {
        tn_http_output_buffer b;
        tn_http_output_buffer_init(&b, storage.data(), storage_size, pair.fd[0], &poll, -1, 1);
        for (size_t sent = 0; sent < body_size; sent += piece)
            if (!tn_http_output_buffer_write_align(&b, data.data(), piece)) return state.SkipWithError("write");
        if (!tn_http_output_buffer_send_eos(&b)) return state.SkipWithError("eos");
    }
    tn_poll_free(&poll);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * body_size));
}

bool send_chunk(int fd, const char *data, size_t n)
{
    char size_line[24];
    int k = std::snprintf(size_line, sizeof size_line, "%zx\r\n", n);
    iovec parts[3] = {{size_line, size_t(k)}, {const_cast<char *>(data), n}, {const_cast<char *>("\r\n"), 2}};
    return writev(fd, parts, 3) == static_cast<ssize_t>(size_t(k) + n + 2);
}

void chunked_body_writev(benchmark::State &state)
{
    drained_pair pair;
    std::vector<char> storage(storage_size);
    const std::string data(piece, 'd');
    for (auto _ : state) {
        size_t used = 0;
        for (size_t sent = 0; sent < body_size; sent += piece) {
            for (size_t from = 0; from < piece;) {
                size_t k = std::min(piece - from, storage_size - used);
                std::memcpy(storage.data() + used, data.data() + from, k);
                used += k, from += k;
                if (used == storage_size && !send_chunk(pair.fd[0], storage.data(), used)) return state.SkipWithError("send");
                if (used == storage_size) used = 0;
            }
        }
        if ((used && !send_chunk(pair.fd[0], storage.data(), used)) || !send_chunk(pair.fd[0], nullptr, 0))
            return state.SkipWithError("send");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * body_size));
}

BENCHMARK(request_head_tn)->Name("request_head/tn");
BENCHMARK(request_head_http_parser)->Name("request_head/http_parser");
BENCHMARK(chunked_body_tn)->Name("chunked_body/tn");
BENCHMARK(chunked_body_writev)->Name("chunked_body/writev");

} // namespace
