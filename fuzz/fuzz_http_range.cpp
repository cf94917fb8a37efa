// tn_http_header_parse_range on any text against a size taken from the
// input. The input's first byte picks the size among edge values; the rest
// is the value. A range taken lies inside the size; a refusal leaves the
// whole size and names one of the two statuses; nothing is read past the
// terminator.
#include <tarnel_util/tn_http_header.h>
#include <tarnel_util/tn_http_vocab.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

[[noreturn]] void fail(const char *what)
{
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

constexpr tn_uint64 sizes[] = {0, 1, 2, 100, 16044, 4294967296ull, 18446744073709551614ull,
                               18446744073709551615ull};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, size_t size)
{
    if (!size) return 0;
    tn_uint64 total = sizes[data[0] % (sizeof sizes / sizeof sizes[0])];
    std::vector<tn_uchar> text(data + 1, data + size);
    text.push_back(0);
    tn_http_range range = {7, 7, 7};
    const tn_uchar *status = nullptr;
    tn_bool ok = tn_http_header_parse_range(text.data(), total, &range, &status);
    if (range.total != total) fail("total is not the size");
    if (ok) {
        if (status) fail("status set on success");
        if (total && (!range.length || range.start >= total || range.length > total - range.start))
            fail("range outside the size");
        if (!total && (range.start || range.length)) fail("empty size gave a range");
        return 0;
    }
    if (range.start || range.length != total) fail("refusal did not reset the range");
    if (status != tn_http_status_bad_request() && status != tn_http_status_requested_range_not_satisfiable())
        fail("refusal without its status");
    return 0;
}
