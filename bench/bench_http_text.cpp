// HTTP text benchmarks: reading a Content-Type parameter against the
// strcasestr and strcspn a host would write instead, and the reason phrase
// of a status code against a switch over the code's number.
// Rows of one case sit together: "<case>/<contender>".

#include <benchmark/benchmark.h>

#include <tarnel_util/tn_http_vocab.h>
#include <tarnel_util/tn_mime_type.h>

#include <cstdlib>
#include <cstring>

namespace {

const char *const content_types[] = {
    "text/xml; charset=\"utf-8\"",
    "audio/x-wav",
    "text/html; level=1; CHARSET=ISO-8859-1",
    "multipart/byteranges; boundary=THIS_STRING_SEPARATES; charset=utf-8",
};

const tn_uchar *u(const char *s) { return reinterpret_cast<const tn_uchar *>(s); }

void MimeParameter_tarnel(benchmark::State &state)
{
    tn_uchar value[64];
    for (auto _ : state)
        for (const char *type : content_types) {
            benchmark::DoNotOptimize(tn_mime_type_get_parameter_value(u(type), u("charset"), value, sizeof value));
            benchmark::ClobberMemory();
        }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * std::size(content_types)));
}
BENCHMARK(MimeParameter_tarnel)->Name("MimeParameter/tarnel_util");

// What a host writes without the library; it also finds "xcharset=" and
// names before the first ";", which the library does not.
bool parameter_by_strcasestr(const char *type, char *value, size_t size)
{
    const char *at = strcasestr(type, "charset=");
    if (!at) return false;
    at += 8;
    size_t length = std::strcspn(at, "; \t");
    if (length >= size) return false;
    std::memcpy(value, at, length);
    value[length] = 0;
    return true;
}

void MimeParameter_strcasestr(benchmark::State &state)
{
    char value[64];
    for (auto _ : state)
        for (const char *type : content_types) {
            benchmark::DoNotOptimize(parameter_by_strcasestr(type, value, sizeof value));
            benchmark::ClobberMemory();
        }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * std::size(content_types)));
}
BENCHMARK(MimeParameter_strcasestr)->Name("MimeParameter/strcasestr");

const char *const codes[] = {"100", "200", "206", "304", "307", "400", "404", "412", "416", "500", "503", "599"};

void Reason_tarnel(benchmark::State &state)
{
    for (auto _ : state)
        for (const char *code : codes) benchmark::DoNotOptimize(tn_http_server_get_reason(u(code), nullptr));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * std::size(codes)));
}
BENCHMARK(Reason_tarnel)->Name("Reason/tarnel_util");

const char *reason_by_switch(const char *code)
{
    switch (std::atoi(code)) {
    case 100: return "Continue";
    case 200: return "OK";
    case 206: return "Partial Content";
    case 304: return "Not Modified";
    case 307: return "Temporary Redirect";
    case 400: return "Bad Request";
    case 404: return "Not Found";
    case 412: return "Precondition Failed";
    case 416: return "Requested Range Not Satisfiable";
    case 500: return "Internal Server Error";
    case 503: return "Service Unavailable";
    default: return "Error";
    }
}

void Reason_switch(benchmark::State &state)
{
    for (auto _ : state)
        for (const char *code : codes) benchmark::DoNotOptimize(reason_by_switch(code));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * std::size(codes)));
}
BENCHMARK(Reason_switch)->Name("Reason/atoi_switch");

} // namespace
