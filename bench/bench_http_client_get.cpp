// Sequential GETs of a small file, a new connection for each, against
// libcurl with a fresh easy handle per request (what a C host would use
// instead). The server is named by TN_BENCH_HTTP_URL, which
// scripts/bench_http.sh points at an nginx it starts; without it the rows
// are skipped. Each row runs 1,000 GETs; the rate is per GET.

#include <benchmark/benchmark.h>

#include <tarnel_util/tn_http_client.h>

#include <curl/curl.h>

#include <cstdlib>

namespace {

const char *target() { return std::getenv("TN_BENCH_HTTP_URL"); }
const tn_uchar *text(const char *s) { return reinterpret_cast<const tn_uchar *>(s); }

void get_tn(benchmark::State &state)
{
    if (!target()) return state.SkipWithError("TN_BENCH_HTTP_URL is not set");
    tn_http_client client;
    tn_str_array response;
    tn_str_array_init(&response);
    if (!tn_http_client_init(&client, 0, 0)) return state.SkipWithError("client init failed");
    char body[16384];
    tn_uint64 bytes = 0;
    for (auto _ : state) {
        tn_uchar status[4];
        if (!tn_http_client_set_uri(&client, text(target())) ||
            !tn_http_client_request(&client, text("GET"), nullptr, nullptr, status, &response, 5000, 5000, 5000)) {
            state.SkipWithError("request failed");
            break;
        }
        while (!tn_http_client_is_response_body_eos(&client)) {
            tn_uint32 count = 0;
            if (!tn_http_client_read_body(&client, body, sizeof body, 5000, &count)) break;
            bytes += count;
        }
        tn_http_client_disconnect(&client);
    }
    tn_http_client_free(&client);
    tn_str_array_free(&response);
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    state.SetItemsProcessed(state.iterations());
}

size_t discard(char *, size_t size, size_t count, void *bytes)
{
    *static_cast<tn_uint64 *>(bytes) += size * count;
    return size * count;
}

void get_libcurl(benchmark::State &state)
{
    if (!target()) return state.SkipWithError("TN_BENCH_HTTP_URL is not set");
    curl_global_init(CURL_GLOBAL_DEFAULT);
    tn_uint64 bytes = 0;
    for (auto _ : state) {
        CURL *easy = curl_easy_init();
        curl_easy_setopt(easy, CURLOPT_URL, target());
        curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, discard);
        curl_easy_setopt(easy, CURLOPT_WRITEDATA, &bytes);
        if (curl_easy_perform(easy) != CURLE_OK) {
            state.SkipWithError("request failed");
            curl_easy_cleanup(easy);
            break;
        }
        curl_easy_cleanup(easy);
    }
    curl_global_cleanup();
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(get_tn)->Name("http_client_get/tn")->Iterations(1000)->UseRealTime();
BENCHMARK(get_libcurl)->Name("http_client_get/libcurl")->Iterations(1000)->UseRealTime();

} // namespace
