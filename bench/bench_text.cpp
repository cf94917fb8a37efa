// Text benchmarks: number text against <charconv>, string scans against the
// C library, UTF-8 conversion against iconv, string-array appends against a
// vector of strings, and the cost of a log call that its level turns away.
// Rows of one case sit together: "<case>/<contender>".

#include <benchmark/benchmark.h>

#include <tarnel_util/tn_fmt.h>
#include <tarnel_util/tn_log.h>
#include <tarnel_util/tn_str.h>
#include <tarnel_util/tn_str_array.h>
#include <tarnel_util/tn_utf8.h>
#include <tarnel_util/tn_wstr.h>
#include <tarnel_util/tn_wchar_array.h>
#include <tarnel_util/tn_uchar_array.h>
#include <tarnel_util/tn_array.h>

#include <iconv.h>

#include <cctype>
#include <charconv>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

// ---- Number text ------------------------------------------------------------
// 1024 values whose lengths spread over every digit count, formatted (or
// scanned) one after another; the rate is per value.

constexpr size_t value_count = 1024;

template <class T>
const std::vector<T> &values()
{
    static const std::vector<T> v = [] {
        std::mt19937_64 random(3);
        std::vector<T> out(value_count);
        for (T &x : out) x = static_cast<T>(random() >> (random() % 64)) * ((random() & 1) && T(-1) < T(0) ? -1 : 1);
        return out;
    }();
    return v;
}

template <class T, class F>
void format_all(benchmark::State &state, F format)
{
    const std::vector<T> &v = values<T>();
    char out[32];
    for (auto _ : state) {
        for (T x : v) {
            benchmark::DoNotOptimize(format(out, x));
            benchmark::ClobberMemory();
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * v.size()));
}

tn_uchar *u(char *s) { return reinterpret_cast<tn_uchar *>(s); }

void fmt_uint32_tn(benchmark::State &s) { format_all<tn_uint32>(s, [](char *b, tn_uint32 x) { return tn_str_fmt_uint32(u(b), x); }); }
void fmt_uint32_std(benchmark::State &s) { format_all<tn_uint32>(s, [](char *b, tn_uint32 x) { return std::to_chars(b, b + 32, x).ptr; }); }
void fmt_uint64_tn(benchmark::State &s) { format_all<tn_uint64>(s, [](char *b, tn_uint64 x) { return tn_str_fmt_uint64(u(b), x); }); }
void fmt_uint64_std(benchmark::State &s) { format_all<tn_uint64>(s, [](char *b, tn_uint64 x) { return std::to_chars(b, b + 32, x).ptr; }); }
void fmt_int64_tn(benchmark::State &s) { format_all<tn_int64>(s, [](char *b, tn_int64 x) { return tn_str_fmt_int64(u(b), x); }); }
void fmt_int64_std(benchmark::State &s) { format_all<tn_int64>(s, [](char *b, tn_int64 x) { return std::to_chars(b, b + 32, x).ptr; }); }
void fmt_xint32_tn(benchmark::State &s) { format_all<tn_uint32>(s, [](char *b, tn_uint32 x) { return tn_str_fmt_xint32(u(b), x); }); }
void fmt_xint32_std(benchmark::State &s) { format_all<tn_uint32>(s, [](char *b, tn_uint32 x) { return std::to_chars(b, b + 32, x, 16).ptr; }); }

BENCHMARK(fmt_uint32_tn)->Name("fmt_uint32/tn");
BENCHMARK(fmt_uint32_std)->Name("fmt_uint32/to_chars");
BENCHMARK(fmt_uint64_tn)->Name("fmt_uint64/tn");
BENCHMARK(fmt_uint64_std)->Name("fmt_uint64/to_chars");
BENCHMARK(fmt_int64_tn)->Name("fmt_int64/tn");
BENCHMARK(fmt_int64_std)->Name("fmt_int64/to_chars");
BENCHMARK(fmt_xint32_tn)->Name("fmt_xint32/tn");
BENCHMARK(fmt_xint32_std)->Name("fmt_xint32/to_chars");

// The texts end in a NUL, as the scan expects; from_chars gets the exact
// end, which it needs and a host would have to find first.
struct ScanTexts {
    std::vector<char> text;
    std::vector<size_t> start, length;
};

const ScanTexts &scan_texts()
{
    static const ScanTexts t = [] {
        ScanTexts out;
        for (tn_uint64 x : values<tn_uint64>()) {
            std::string s = std::to_string(x);
            out.start.push_back(out.text.size());
            out.length.push_back(s.size());
            out.text.insert(out.text.end(), s.begin(), s.end());
            out.text.push_back(0);
        }
        return out;
    }();
    return t;
}

void scan_uint64_tn(benchmark::State &state)
{
    const ScanTexts &t = scan_texts();
    const tn_uchar *base = reinterpret_cast<const tn_uchar *>(t.text.data());
    for (auto _ : state) {
        for (size_t i = 0; i < t.start.size(); ++i) {
            tn_uint64 v = 0;
            benchmark::DoNotOptimize(tn_str_scan_uint64(base + t.start[i], &v));
            benchmark::DoNotOptimize(v);
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * t.start.size()));
}

void scan_uint64_std(benchmark::State &state)
{
    const ScanTexts &t = scan_texts();
    for (auto _ : state) {
        for (size_t i = 0; i < t.start.size(); ++i) {
            tn_uint64 v = 0;
            const char *p = t.text.data() + t.start[i];
            benchmark::DoNotOptimize(std::from_chars(p, p + t.length[i], v).ptr);
            benchmark::DoNotOptimize(v);
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * t.start.size()));
}

BENCHMARK(scan_uint64_tn)->Name("scan_uint64/tn");
BENCHMARK(scan_uint64_std)->Name("scan_uint64/from_chars");

// ---- String scans -----------------------------------------------------------
// Text of the given length, the sought character and word at its very end.

std::string haystack(size_t n)
{
    std::string s;
    std::mt19937 random(9);
    while (s.size() + 4 < n) s.push_back(static_cast<char>('a' + random() % 20));
    return s + "wxyz";
}

void str_len(benchmark::State &state, bool library)
{
    const std::string s = haystack(static_cast<size_t>(state.range(0)));
    const tn_uchar *t = reinterpret_cast<const tn_uchar *>(s.c_str());
    for (auto _ : state) {
        benchmark::DoNotOptimize(t);
        benchmark::DoNotOptimize(library ? tn_str_len(t) : std::strlen(s.c_str()));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * s.size()));
}

void str_chr(benchmark::State &state, bool library)
{
    const std::string s = haystack(static_cast<size_t>(state.range(0)));
    const tn_uchar *t = reinterpret_cast<const tn_uchar *>(s.c_str());
    for (auto _ : state) {
        benchmark::DoNotOptimize(t);
        if (library)
            benchmark::DoNotOptimize(tn_str_chr(t, 'z'));
        else
            benchmark::DoNotOptimize(std::strchr(s.c_str(), 'z'));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * s.size()));
}

void str_find(benchmark::State &state, bool library)
{
    const std::string s = haystack(static_cast<size_t>(state.range(0)));
    const tn_uchar *t = reinterpret_cast<const tn_uchar *>(s.c_str());
    const tn_uchar *word = reinterpret_cast<const tn_uchar *>("wxyz");
    for (auto _ : state) {
        benchmark::DoNotOptimize(t);
        if (library)
            benchmark::DoNotOptimize(tn_str_find(t, word));
        else
            benchmark::DoNotOptimize(std::strstr(s.c_str(), "wxyz"));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * s.size()));
}

BENCHMARK_CAPTURE(str_len, tn, true)->Name("str_len/tn")->Arg(16)->Arg(4096);
BENCHMARK_CAPTURE(str_len, libc, false)->Name("str_len/strlen")->Arg(16)->Arg(4096);
BENCHMARK_CAPTURE(str_chr, tn, true)->Name("str_chr/tn")->Arg(16)->Arg(4096);
BENCHMARK_CAPTURE(str_chr, libc, false)->Name("str_chr/strchr")->Arg(16)->Arg(4096);
BENCHMARK_CAPTURE(str_find, tn, true)->Name("str_find/tn")->Arg(16)->Arg(4096);
BENCHMARK_CAPTURE(str_find, libc, false)->Name("str_find/strstr")->Arg(16)->Arg(4096);

// Case-blind search: the word in upper case at the end of mixed-case text,
// and "aaa...ab" in a run of 'A', where a start-by-start walk compares the
// whole needle at every start.
struct case_find_case {
    std::string haystack, needle;
};

const case_find_case &case_find_input(bool adversarial)
{
    static const case_find_case text = [] {
        std::string s = haystack(65536);
        for (size_t i = 0; i < s.size(); i += 3) s[i] = static_cast<char>(std::toupper(s[i]));
        return case_find_case{s, "WXYZ"};
    }();
    static const case_find_case repeated{std::string(65536, 'A'), std::string(63, 'a') + 'b'};
    return adversarial ? repeated : text;
}

void str_case_find(benchmark::State &state, bool adversarial, bool library)
{
    const case_find_case &c = case_find_input(adversarial);
    const tn_uchar *t = reinterpret_cast<const tn_uchar *>(c.haystack.c_str());
    const tn_uchar *word = reinterpret_cast<const tn_uchar *>(c.needle.c_str());
    for (auto _ : state) {
        benchmark::DoNotOptimize(t);
        if (library)
            benchmark::DoNotOptimize(tn_str_case_find(t, word));
        else
            benchmark::DoNotOptimize(strcasestr(c.haystack.c_str(), c.needle.c_str()));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * c.haystack.size()));
}

void wstr_case_find(benchmark::State &state, bool adversarial)
{
    const case_find_case &c = case_find_input(adversarial);
    const std::vector<tn_wchar> t(c.haystack.c_str(), c.haystack.c_str() + c.haystack.size() + 1);
    const std::vector<tn_wchar> word(c.needle.c_str(), c.needle.c_str() + c.needle.size() + 1);
    for (auto _ : state) benchmark::DoNotOptimize(tn_wstr_case_find(t.data(), word.data()));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * c.haystack.size()));
}

BENCHMARK_CAPTURE(str_case_find, text_tn, false, true)->Name("case_find/text_64K/tn_str_case_find");
BENCHMARK_CAPTURE(str_case_find, text_libc, false, false)->Name("case_find/text_64K/strcasestr");
BENCHMARK_CAPTURE(wstr_case_find, text_wide, false)->Name("case_find/text_64K/tn_wstr_case_find");
BENCHMARK_CAPTURE(str_case_find, aaab_tn, true, true)->Name("case_find/AAAAb_64K/tn_str_case_find");
BENCHMARK_CAPTURE(str_case_find, aaab_libc, true, false)->Name("case_find/AAAAb_64K/strcasestr");
BENCHMARK_CAPTURE(wstr_case_find, aaab_wide, true)->Name("case_find/AAAAb_64K/tn_wstr_case_find");

// ---- UTF-8 ------------------------------------------------------------------
// 64 KiB of mixed text: ASCII runs with Latin, Greek, CJK and a few
// characters outside the BMP, the mix of a media library's titles.

const std::string &utf8_text()
{
    static const std::string t = [] {
        const char *pieces[] = {"The Quick Brown Fox ", "caf\xc3\xa9 ", "\xce\xb1\xce\xb2\xce\xb3 ",
                                "\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e ", "\xf0\x9f\x8e\xb5 ", "track 07 - "};
        std::mt19937 random(13);
        std::string s;
        while (s.size() < 65536) s += pieces[random() % 6];
        return s;
    }();
    return t;
}

const std::vector<tn_wchar> &utf16_text()
{
    static const std::vector<tn_wchar> t = [] {
        tn_wchar_array a;
        tn_array_init(&a, sizeof(tn_wchar));
        const std::string &s = utf8_text();
        tn_utf8_cat_to_wcs(reinterpret_cast<const tn_uchar *>(s.data()), static_cast<tn_uint32>(s.size()), &a);
        const tn_wchar *p = static_cast<const tn_wchar *>(tn_array_get(&a));
        std::vector<tn_wchar> out(p, p + tn_array_length(&a));
        tn_array_free(&a);
        return out;
    }();
    return t;
}

void utf8_to_utf16_tn(benchmark::State &state)
{
    const std::string &s = utf8_text();
    tn_wchar_array a;
    tn_array_init(&a, sizeof(tn_wchar));
    for (auto _ : state) {
        tn_array_truncate(&a);
        if (!tn_utf8_cat_to_wcs(reinterpret_cast<const tn_uchar *>(s.data()), static_cast<tn_uint32>(s.size()), &a))
            state.SkipWithError("conversion failed");
        benchmark::DoNotOptimize(a.data);
    }
    tn_array_free(&a);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * s.size()));
}

void iconv_all(benchmark::State &state, const char *to, const char *from, const char *in, size_t in_bytes)
{
    iconv_t cd = iconv_open(to, from);
    if (cd == reinterpret_cast<iconv_t>(-1)) {
        state.SkipWithError("iconv_open failed");
        return;
    }
    std::vector<char> out(in_bytes * 2 + 16);
    for (auto _ : state) {
        char *source = const_cast<char *>(in);
        size_t left = in_bytes;
        char *dest = out.data();
        size_t room = out.size();
        if (iconv(cd, &source, &left, &dest, &room) == static_cast<size_t>(-1)) state.SkipWithError("iconv failed");
        benchmark::DoNotOptimize(out.data());
    }
    iconv_close(cd);
}

void utf8_to_utf16_iconv(benchmark::State &state)
{
    const std::string &s = utf8_text();
    iconv_all(state, "UTF-16LE", "UTF-8", s.data(), s.size());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * s.size()));
}

void utf16_to_utf8_tn(benchmark::State &state)
{
    const std::vector<tn_wchar> &w = utf16_text();
    tn_uchar_array a;
    tn_array_init(&a, 1);
    for (auto _ : state) {
        tn_array_truncate(&a);
        if (!tn_utf8_cat_from_wcs(w.data(), static_cast<tn_uint32>(w.size()), &a))
            state.SkipWithError("conversion failed");
        benchmark::DoNotOptimize(a.data);
    }
    tn_array_free(&a);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * utf8_text().size()));
}

void utf16_to_utf8_iconv(benchmark::State &state)
{
    const std::vector<tn_wchar> &w = utf16_text();
    iconv_all(state, "UTF-8", "UTF-16LE", reinterpret_cast<const char *>(w.data()), w.size() * 2);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * utf8_text().size()));
}

// Rates are in bytes of UTF-8 on both sides.
BENCHMARK(utf8_to_utf16_tn)->Name("utf8_to_utf16/tn");
BENCHMARK(utf8_to_utf16_iconv)->Name("utf8_to_utf16/iconv");
BENCHMARK(utf16_to_utf8_tn)->Name("utf16_to_utf8/tn");
BENCHMARK(utf16_to_utf8_iconv)->Name("utf16_to_utf8/iconv");

// ---- String arrays ----------------------------------------------------------
// 1000 short strings appended to an array that is emptied each round.

const std::vector<std::string> &words()
{
    static const std::vector<std::string> w = [] {
        std::vector<std::string> out;
        std::mt19937 random(17);
        for (int i = 0; i < 1000; ++i) out.push_back(std::string(4 + random() % 20, static_cast<char>('a' + i % 26)));
        return out;
    }();
    return w;
}

void str_array_cato_tn(benchmark::State &state)
{
    const std::vector<std::string> &w = words();
    tn_str_array a;
    tn_str_array_init(&a);
    for (auto _ : state) {
        tn_str_array_truncate(&a);
        for (const std::string &s : w) tn_str_array_cato(&a, reinterpret_cast<const tn_uchar *>(s.c_str()));
        benchmark::DoNotOptimize(tn_str_array_get(&a));
    }
    if (tn_str_array_failed(&a)) state.SkipWithError("append failed");
    tn_str_array_free(&a);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * w.size()));
}

void str_array_cato_vector(benchmark::State &state)
{
    const std::vector<std::string> &w = words();
    std::vector<std::string> a;
    for (auto _ : state) {
        a.clear();
        for (const std::string &s : w) a.emplace_back(s.c_str());
        benchmark::DoNotOptimize(a.data());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * w.size()));
}

BENCHMARK(str_array_cato_tn)->Name("str_array_cato/tn");
BENCHMARK(str_array_cato_vector)->Name("str_array_cato/vector_string");

// ---- The log ----------------------------------------------------------------
// A debug line at the default level 0: the cost of a call the level turns
// away, once the log is set up.

void log_turned_away(benchmark::State &state)
{
    tn_log_set_level(0);
    tn_log_d("bench", "never written");
    for (auto _ : state) tn_log_dv("bench", "value %d", 42);
}

BENCHMARK(log_turned_away)->Name("log_turned_away/tn");

} // namespace
