// Reading a whole message head into a header block, against http-parser
// and picohttpparser (what a host would pick for HTTP/1.1 heads in C). The
// heads are captured UPnP traffic: a SOAP request, an M-SEARCH, and a 200
// response with ten header lines. The library reads the header lines behind
// the start line (the connection reads that line on its own) from a string
// input buffer into a block and line that are reused, so it copies every
// line once; http-parser walks the whole head, start line included, and its
// callbacks only count the fields and values, copying nothing;
// picohttpparser parses the whole head, start line included, in one call
// that points into the caller's bytes, copying nothing either. Rows of one
// head sit together: "<head>/<contender>"; the rate is per head.

#include <benchmark/benchmark.h>

#include <tarnel_util/tn_http_header.h>

#include <http_parser.h>
#include <picohttpparser.h>

#include <cstring>

#include "bench_heads.h"
#include <string>

namespace {

using tn_bench::m_search;
using tn_bench::response;
using tn_bench::soap_request;

void read_tn(benchmark::State &state, const std::string &head)
{
    std::string lines = head.substr(head.find("\r\n") + 2);
    tn_str_array block;
    tn_uchar_array line;
    tn_str_array_init(&block);
    tn_array_init(&line, 1);
    for (auto _ : state) {
        tn_str_array_truncate(&block);
        tn_array_truncate(&line);
        tn_input_buffer buffer;
        tn_str_input_buffer_init2(&buffer, lines.data(), static_cast<tn_uint32>(lines.size()));
        tn_bool done = 0;
        benchmark::DoNotOptimize(tn_http_header_read_socket(&block, &buffer, &line, &done));
        if (!done) state.SkipWithError("head not read");
    }
    tn_str_array_free(&block);
    tn_array_free(&line);
    state.SetItemsProcessed(state.iterations());
}

int count_piece(http_parser *parser, const char *, size_t)
{
    ++*static_cast<int *>(parser->data);
    return 0;
}

void read_http_parser(benchmark::State &state, const std::string &head)
{
    http_parser_settings settings;
    std::memset(&settings, 0, sizeof settings);
    settings.on_header_field = count_piece;
    settings.on_header_value = count_piece;
    int pieces = 0;
    for (auto _ : state) {
        http_parser parser;
        http_parser_init(&parser, HTTP_BOTH);
        parser.data = &pieces;
        size_t n = http_parser_execute(&parser, &settings, head.data(), head.size());
        if (n != head.size()) state.SkipWithError("head not read");
    }
    benchmark::DoNotOptimize(pieces);
    state.SetItemsProcessed(state.iterations());
}

int parse_pico(const std::string &head, phr_header *headers, size_t *count)
{
    int minor = 0, status = 0;
    const char *method, *path, *message;
    size_t method_length, path_length, message_length;
    if (head.compare(0, 5, "HTTP/") == 0)
        return phr_parse_response(head.data(), head.size(), &minor, &status, &message, &message_length, headers,
                                  count, 0);
    return phr_parse_request(head.data(), head.size(), &method, &method_length, &path, &path_length, &minor,
                             headers, count, 0);
}

void read_pico(benchmark::State &state, const std::string &head)
{
    phr_header headers[32];
    for (auto _ : state) {
        size_t count = sizeof headers / sizeof headers[0];
        int n = parse_pico(head, headers, &count);
        benchmark::DoNotOptimize(headers);
        if (n != static_cast<int>(head.size())) state.SkipWithError("head not read");
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK_CAPTURE(read_tn, soap_request/tn, soap_request);
BENCHMARK_CAPTURE(read_http_parser, soap_request/http_parser, soap_request);
BENCHMARK_CAPTURE(read_pico, soap_request/picohttpparser, soap_request);
BENCHMARK_CAPTURE(read_tn, m_search/tn, m_search);
BENCHMARK_CAPTURE(read_http_parser, m_search/http_parser, m_search);
BENCHMARK_CAPTURE(read_pico, m_search/picohttpparser, m_search);
BENCHMARK_CAPTURE(read_tn, response_10_lines/tn, response);
BENCHMARK_CAPTURE(read_http_parser, response_10_lines/http_parser, response);
BENCHMARK_CAPTURE(read_pico, response_10_lines/picohttpparser, response);

} // namespace
