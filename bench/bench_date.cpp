// HTTP dates: tn_rfc1123_date_fmt against gmtime_r and strftime, and
// tn_rfc1123_date_scan against strptime and timegm, over 1024 times spread
// from 1970 to 2100. Rows of one case sit together: "<case>/<contender>".

#include <benchmark/benchmark.h>

#include <tarnel_util/tn_rfc1123_date.h>

#include <ctime>
#include <random>
#include <string>
#include <vector>

namespace {

const std::vector<tn_time> &times()
{
    static const std::vector<tn_time> v = [] {
        std::mt19937_64 random(5);
        std::vector<tn_time> out(1024);
        for (tn_time &t : out) t = static_cast<tn_time>(random() % 4102444800u);
        return out;
    }();
    return v;
}

const std::vector<std::string> &texts()
{
    static const std::vector<std::string> v = [] {
        std::vector<std::string> out;
        for (tn_time t : times()) {
            tn_uchar text[40];
            tn_rfc1123_date_fmt(text, &t);
            out.emplace_back(reinterpret_cast<char *>(text));
        }
        return out;
    }();
    return v;
}

void fmt_tn(benchmark::State &state)
{
    tn_uchar out[40];
    for (auto _ : state) {
        for (const tn_time &t : times()) {
            benchmark::DoNotOptimize(tn_rfc1123_date_fmt(out, &t));
            benchmark::ClobberMemory();
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * times().size()));
}

void fmt_strftime(benchmark::State &state)
{
    char out[40];
    for (auto _ : state) {
        for (tn_time t : times()) {
            std::time_t tt = t;
            std::tm tm;
            gmtime_r(&tt, &tm);
            benchmark::DoNotOptimize(std::strftime(out, sizeof out, "%a, %d %b %Y %H:%M:%S GMT", &tm));
            benchmark::ClobberMemory();
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * times().size()));
}

void scan_tn(benchmark::State &state)
{
    for (auto _ : state) {
        for (const std::string &s : texts()) {
            tn_time t;
            benchmark::DoNotOptimize(tn_rfc1123_date_scan(reinterpret_cast<const tn_uchar *>(s.c_str()), &t));
            benchmark::DoNotOptimize(t);
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * texts().size()));
}

void scan_strptime(benchmark::State &state)
{
    for (auto _ : state) {
        for (const std::string &s : texts()) {
            std::tm tm{};
            benchmark::DoNotOptimize(strptime(s.c_str(), "%a, %d %b %Y %H:%M:%S GMT", &tm));
            benchmark::DoNotOptimize(timegm(&tm));
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * texts().size()));
}

} // namespace

BENCHMARK(fmt_tn)->Name("date_fmt/tn");
BENCHMARK(fmt_strftime)->Name("date_fmt/gmtime_r+strftime");
BENCHMARK(scan_tn)->Name("date_scan/tn");
BENCHMARK(scan_strptime)->Name("date_scan/strptime+timegm");
