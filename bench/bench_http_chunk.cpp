// Chunked body decoding from memory, 4 MiB of data in chunks of 64 bytes
// and of 64 KiB, into one 64-KiB destination: the library's reader over a
// buffer holding the whole body, against http_parser (the body behind a
// minimal response head, each data run copied out in its callback), with
// a plain copy of the data as the ceiling. Rows: "<chunk>/<contender>";
// throughput counts the encoded body's bytes.

#include <benchmark/benchmark.h>

#include <tarnel_util/tn_http_chunk.h>

#include <http_parser.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr size_t data_size = 4 << 20;
constexpr size_t destination_size = 64 << 10;

std::string chunked_body(size_t chunk)
{
    std::string body;
    const std::string piece(chunk, 'd');
    char line[32];
    for (size_t done = 0; done < data_size; done += chunk) {
        std::snprintf(line, sizeof line, "%zx\r\n", chunk);
        body += line + piece + "\r\n";
    }
    return body + "0\r\n\r\n";
}

void tn_reader(benchmark::State &state)
{
    const std::string body = chunked_body(size_t(state.range(0)));
    std::vector<char> destination(destination_size);
    for (auto _ : state) {
        tn_input_buffer in;
        tn_str_input_buffer_init2(&in, body.data(), tn_uint32(body.size()));
        tn_http_chunk chunk;
        tn_http_chunk_init(&chunk);
        size_t total = 0;
        tn_uint32 count, ready;
        while (chunk.state != TN_HTTP_CHUNK_COMPLETE &&
               tn_http_chunk_read(&chunk, &in, destination.data(), destination_size, &count, &ready))
            total += count;
        if (total != data_size) state.SkipWithError("short body");
        benchmark::DoNotOptimize(destination.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations() * body.size()));
}

struct Sink {
    char *destination;
    size_t total;
};

int on_body(http_parser *parser, const char *at, size_t length)
{
    auto *sink = static_cast<Sink *>(parser->data);
    while (length) {
        const size_t n = length < destination_size ? length : destination_size;
        std::memcpy(sink->destination, at, n);
        sink->total += n;
        at += n;
        length -= n;
    }
    return 0;
}

void http_parser_reader(benchmark::State &state)
{
    const std::string head = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    const std::string message = head + chunked_body(size_t(state.range(0)));
    std::vector<char> destination(destination_size);
    http_parser_settings settings;
    http_parser_settings_init(&settings);
    settings.on_body = on_body;
    for (auto _ : state) {
        http_parser parser;
        http_parser_init(&parser, HTTP_RESPONSE);
        Sink sink{destination.data(), 0};
        parser.data = &sink;
        http_parser_execute(&parser, &settings, message.data(), message.size());
        if (sink.total != data_size) state.SkipWithError("short body");
        benchmark::DoNotOptimize(destination.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations() * (message.size() - head.size())));
}

void copy_only(benchmark::State &state)
{
    const std::string body = chunked_body(size_t(state.range(0)));
    const std::string data(data_size, 'd');
    std::vector<char> destination(destination_size);
    const size_t step = size_t(state.range(0)) < destination_size ? size_t(state.range(0)) : destination_size;
    for (auto _ : state) {
        for (size_t at = 0; at < data_size; at += step) std::memcpy(destination.data(), data.data() + at, step);
        benchmark::DoNotOptimize(destination.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations() * body.size()));
}

} // namespace

BENCHMARK(tn_reader)->Name("chunk/tn_http_chunk")->Arg(64)->Arg(64 << 10);
BENCHMARK(http_parser_reader)->Name("chunk/http_parser")->Arg(64)->Arg(64 << 10);
BENCHMARK(copy_only)->Name("chunk/memcpy")->Arg(64)->Arg(64 << 10);
