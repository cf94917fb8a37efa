// URI benchmarks against liburiparser: parsing the URLs of a UPnP exchange
// (locations, control and media URLs, request targets) and resolving the
// relative URLs of a device description against its location. The library
// copies the components into its record and writes the resolved text; the
// contender parses into pointers, resolves parsed records and writes the
// text. Rows of one case sit together: "<case>/<contender>"; the rate is per
// URL.

#include <benchmark/benchmark.h>

#include <tarnel_util/tn_uchar_array.h>
#include <tarnel_util/tn_uri.h>

#include <uriparser/Uri.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

const std::vector<const char *> urls = {
    "http://10.77.0.1:8200/rootDesc.xml", "http://10.77.0.1:8200/MediaItems/23.mp3",
    "http://10.77.0.1:8200/MediaItems/29.wav", "http://www.netgear.com/",
    "http://10.77.0.1:8200/ctl/ContentDir?ObjectID=64&BrowseFlag=BrowseDirectChildren",
    "/ctl/ContentDir", "/MediaItems/29.wav", "/rootDesc.xml",
};

const char *location = "http://10.77.0.1:8200/rootDesc.xml";
const std::vector<const char *> relative = {
    "/ctl/ContentDir", "/evt/ContentDir", "/ContentDir.xml", "/icons/sm.png", "/icons/lrg.jpg", "/", "icons/sm.jpg",
};

const tn_uchar *u(const char *s) { return reinterpret_cast<const tn_uchar *>(s); }

void parse_tn(benchmark::State &state)
{
    tn_uri uri;
    tn_uri_init(&uri);
    for (auto _ : state)
        for (const char *url : urls) benchmark::DoNotOptimize(tn_uri_parse(&uri, u(url)));
    tn_uri_free(&uri);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * urls.size()));
}

void parse_uriparser(benchmark::State &state)
{
    UriUriA uri;
    const char *error;
    for (auto _ : state) {
        for (const char *url : urls) {
            benchmark::DoNotOptimize(uriParseSingleUriA(&uri, url, &error));
            uriFreeUriMembersA(&uri);
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * urls.size()));
}

// The contender's whole road from two texts to one: the base is parsed once,
// as a host would keep it; each reference is parsed, resolved and written.
bool resolve_uriparser(const UriUriA &base, const char *reference, std::vector<char> &text)
{
    UriUriA ref, result;
    const char *error;
    bool written = false;
    if (uriParseSingleUriA(&ref, reference, &error) == URI_SUCCESS &&
        uriAddBaseUriA(&result, &ref, &base) == URI_SUCCESS) {
        int needed = 0;
        uriToStringCharsRequiredA(&result, &needed);
        text.resize(static_cast<size_t>(needed) + 1);
        written = uriToStringA(text.data(), &result, needed + 1, nullptr) == URI_SUCCESS;
        uriFreeUriMembersA(&result);
    }
    uriFreeUriMembersA(&ref);
    return written;
}

void resolve_tn(benchmark::State &state)
{
    tn_uchar_array out;
    tn_array_init(&out, 1);
    for (auto _ : state)
        for (const char *ref : relative) benchmark::DoNotOptimize(tn_uri_resolve(u(location), u(ref), &out));
    tn_array_free(&out);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * relative.size()));
}

void resolve_uriparser(benchmark::State &state)
{
    UriUriA base;
    const char *error;
    if (uriParseSingleUriA(&base, location, &error) != URI_SUCCESS) return state.SkipWithError("base");
    std::vector<char> text;
    tn_uchar_array out;
    tn_array_init(&out, 1);
    for (const char *ref : relative) {
        // Both must write the same text, or the rows would compare different work.
        tn_uri_resolve(u(location), u(ref), &out);
        std::string ours(static_cast<const char *>(tn_array_get(&out)), tn_array_bytes(&out));
        if (!resolve_uriparser(base, ref, text) || text.data() != ours) {
            std::fprintf(stderr, "the two resolve %s differently\n", ref);
            std::abort();
        }
    }
    tn_array_free(&out);
    for (auto _ : state)
        for (const char *ref : relative) benchmark::DoNotOptimize(resolve_uriparser(base, ref, text));
    uriFreeUriMembersA(&base);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * relative.size()));
}

BENCHMARK(parse_tn)->Name("uri_parse/tn");
BENCHMARK(parse_uriparser)->Name("uri_parse/uriparser");
BENCHMARK(resolve_tn)->Name("uri_resolve/tn");
BENCHMARK(resolve_uriparser)->Name("uri_resolve/uriparser");

} // namespace
