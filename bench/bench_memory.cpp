// Memory and array benchmarks. Each library operation runs beside what a host
// would write instead, registered so that the rows of one case sit together:
// "<case>/<size>/<contender>".

#include <benchmark/benchmark.h>

#include <tarnel_util/tn_array.h>
#include <tarnel_util/tn_byte.h>

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <random>
#include <string>
#include <vector>

namespace {

// ---- Appends ----------------------------------------------------------------
// Every iteration builds the same total from chunks of one size. "fresh"
// starts from nothing and frees at the end, so growth is measured; "reuse"
// empties the same storage, so only the copy and the bookkeeping are.

constexpr size_t append_total = size_t{1} << 20;

const unsigned char *append_source()
{
    static const std::vector<unsigned char> source = [] {
        std::vector<unsigned char> v(1024);
        for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<unsigned char>(i * 31 + 7);
        return v;
    }();
    return source.data();
}

void finish_append(benchmark::State &state)
{
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * append_total));
}

void append_tn_array(benchmark::State &state, size_t chunk, bool reuse)
{
    const unsigned char *source = append_source();
    tn_array a;
    tn_array_init(&a, 1);
    for (auto _ : state) {
        if (reuse) tn_array_truncate(&a);
        for (size_t done = 0; done < append_total; done += chunk)
            tn_array_catn(&a, source, static_cast<tn_uint32>(chunk));
        benchmark::DoNotOptimize(a.data);
        if (!reuse) tn_array_free(&a);
    }
    if (tn_array_failed(&a)) state.SkipWithError("tn_array_catn failed");
    tn_array_free(&a);
    finish_append(state);
}

void append_vector(benchmark::State &state, size_t chunk, bool reuse)
{
    const unsigned char *source = append_source();
    std::vector<unsigned char> v;
    for (auto _ : state) {
        v.clear();
        for (size_t done = 0; done < append_total; done += chunk) v.insert(v.end(), source, source + chunk);
        benchmark::DoNotOptimize(v.data());
        if (!reuse) std::vector<unsigned char>().swap(v);
    }
    finish_append(state);
}

// The buffer a C host writes by hand: realloc, doubling from 64 bytes.
struct c_buffer {
    unsigned char *data = nullptr;
    size_t length = 0, capacity = 0;
};

bool c_buffer_append(c_buffer &b, const void *bytes, size_t n)
{
    if (b.length + n > b.capacity) {
        size_t capacity = b.capacity ? b.capacity : 64;
        while (capacity < b.length + n) capacity *= 2;
        void *p = std::realloc(b.data, capacity);
        if (!p) return false;
        b.data = static_cast<unsigned char *>(p);
        b.capacity = capacity;
    }
    std::memcpy(b.data + b.length, bytes, n);
    b.length += n;
    return true;
}

void append_realloc(benchmark::State &state, size_t chunk, bool reuse)
{
    const unsigned char *source = append_source();
    c_buffer b;
    for (auto _ : state) {
        b.length = 0;
        for (size_t done = 0; done < append_total; done += chunk) c_buffer_append(b, source, chunk);
        benchmark::DoNotOptimize(b.data);
        if (!reuse) {
            std::free(b.data);
            b = c_buffer{};
        }
    }
    std::free(b.data);
    finish_append(state);
}

// ---- Substring search ---------------------------------------------------------

struct find_case {
    std::string haystack, needle;
};

// Random lower-case text with a 16-byte needle that ends the haystack.
find_case random_text(size_t size)
{
    std::mt19937 rng(12345);
    std::uniform_int_distribution<int> letter('a', 'z');
    find_case c;
    c.haystack.resize(size);
    for (char &ch : c.haystack) ch = static_cast<char>(letter(rng));
    c.needle = c.haystack.substr(size - 16);
    return c;
}

// Words drawn by their frequency in English prose, with a needle of three
// words that ends the haystack: common letters and spaces give the scan many
// false starts on the first byte.
find_case english_text(size_t size)
{
    static const char *const words[] = {"the", "of", "and", "to", "a", "in", "that", "is", "was", "he",
                                        "for", "it", "with", "as", "his", "on", "be", "at", "by", "had",
                                        "this", "which", "there", "from", "were", "their", "would", "been",
                                        "when", "more", "time", "people", "through", "between", "should"};
    std::mt19937 rng(777);
    // Zipf-like: the word at rank r is drawn about 1/(r+1) as often.
    std::vector<double> weights;
    for (size_t r = 0; r < std::size(words); ++r) weights.push_back(1.0 / static_cast<double>(r + 1));
    std::discrete_distribution<size_t> pick(weights.begin(), weights.end());
    find_case c;
    c.needle = "there should be";
    while (c.haystack.size() + c.needle.size() + 1 < size) {
        c.haystack += words[pick(rng)];
        c.haystack += rng() % 12 == 0 ? ", " : " ";
    }
    c.haystack.resize(size - c.needle.size());
    c.haystack += c.needle;
    return c;
}

// A run of 'a' and a needle of 63 'a' and one 'b': every position matches
// all but the last byte, and nothing is found.
find_case adversarial(size_t size) { return {std::string(size, 'a'), std::string(63, 'a') + 'b'}; }

void find_tn_byte_find(benchmark::State &state, const find_case &c)
{
    for (auto _ : state) {
        tn_uint32 at = tn_byte_find(c.haystack.data(), static_cast<tn_uint32>(c.haystack.size()), c.needle.data(),
                                    static_cast<tn_uint32>(c.needle.size()));
        benchmark::DoNotOptimize(at);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * c.haystack.size()));
}

void find_memmem(benchmark::State &state, const find_case &c)
{
    for (auto _ : state) {
        const void *at = memmem(c.haystack.data(), c.haystack.size(), c.needle.data(), c.needle.size());
        benchmark::DoNotOptimize(at);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * c.haystack.size()));
}

// ---- Sort ---------------------------------------------------------------------
// All contenders order by stored bytes (memcmp of 4 bytes), as the library's
// default comparator does. The unsorted copy is made with the timer paused.

constexpr size_t sort_count = 100000;

const std::vector<tn_uint32> &sort_input()
{
    static const std::vector<tn_uint32> input = [] {
        std::mt19937 rng(54321);
        std::vector<tn_uint32> v(sort_count);
        for (tn_uint32 &x : v) x = static_cast<tn_uint32>(rng());
        return v;
    }();
    return input;
}

void sort_tn_array(benchmark::State &state)
{
    const std::vector<tn_uint32> &input = sort_input();
    tn_uint32 size = sizeof(tn_uint32);
    tn_array a;
    tn_array_init(&a, size);
    tn_array_catn(&a, input.data(), static_cast<tn_uint32>(input.size()));
    for (auto _ : state) {
        state.PauseTiming();
        std::memcpy(a.data, input.data(), input.size() * sizeof(tn_uint32));
        state.ResumeTiming();
        if (!tn_array_sort(&a, tn_array_comparator_default, &size)) state.SkipWithError("tn_array_sort failed");
    }
    tn_array_free(&a);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * sort_count));
}

template <typename Less> void sort_std(benchmark::State &state, Less less)
{
    const std::vector<tn_uint32> &input = sort_input();
    std::vector<tn_uint32> v(input.size());
    for (auto _ : state) {
        state.PauseTiming();
        v = input;
        state.ResumeTiming();
        std::sort(v.begin(), v.end(), less);
        benchmark::DoNotOptimize(v.data());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * sort_count));
}

// Lambdas, as a host would write them, so that std::sort can inline them.
constexpr auto less_memcmp = [](const tn_uint32 &a, const tn_uint32 &b) {
    return std::memcmp(&a, &b, sizeof a) < 0;
};

constexpr auto less_tn_comparator = [](const tn_uint32 &a, const tn_uint32 &b) {
    tn_uint32 size = sizeof a;
    return tn_array_comparator_default(&a, &b, &size) < 0;
};

// ---- Registration ---------------------------------------------------------------

[[maybe_unused]] const int registered = [] {
    // glibc moves its mmap and trim thresholds as blocks are freed, so the
    // page faults of "fresh" growth would depend on which benchmark ran
    // before. Fixed thresholds keep the blocks on the heap, and the figures
    // compare copying and allocator work, in any order.
    mallopt(M_MMAP_THRESHOLD, 32 << 20);
    mallopt(M_TRIM_THRESHOLD, 64 << 20);
    for (bool reuse : {false, true}) {
        for (size_t chunk : {1, 16, 1024}) {
            std::string base = std::string(reuse ? "append_reuse/" : "append_fresh/") + std::to_string(chunk);
            benchmark::RegisterBenchmark((base + "/tn_array_catn").c_str(), append_tn_array, chunk, reuse);
            benchmark::RegisterBenchmark((base + "/vector_insert").c_str(), append_vector, chunk, reuse);
            benchmark::RegisterBenchmark((base + "/realloc_doubling").c_str(), append_realloc, chunk, reuse);
        }
    }

    static const find_case cases[] = {random_text(4096), random_text(65536), english_text(65536),
                                      adversarial(65536)};
    const char *names[] = {"find/random_4K", "find/random_64K", "find/english_64K", "find/aaaab_64K"};
    for (size_t i = 0; i < std::size(cases); ++i) {
        benchmark::RegisterBenchmark((std::string(names[i]) + "/tn_byte_find").c_str(), find_tn_byte_find,
                                     std::cref(cases[i]));
        benchmark::RegisterBenchmark((std::string(names[i]) + "/memmem").c_str(), find_memmem, std::cref(cases[i]));
    }

    benchmark::RegisterBenchmark("sort/100000/tn_array_sort", sort_tn_array)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("sort/100000/std_sort_memcmp", sort_std<decltype(less_memcmp)>, less_memcmp)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("sort/100000/std_sort_tn_comparator", sort_std<decltype(less_tn_comparator)>,
                                 less_tn_comparator)
        ->Unit(benchmark::kMillisecond);
    return 0;
}();

} // namespace
