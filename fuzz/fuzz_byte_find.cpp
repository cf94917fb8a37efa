// tn_byte_find against a naive search. Input: a mode byte, a needle length
// byte, then the needle and the haystack.
#include <tarnel_util/tn_byte.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

tn_uint32 naive_find(const std::vector<tn_uchar> &haystack, const std::vector<tn_uchar> &needle)
{
    size_t n = haystack.size(), m = needle.size();
    if (!n || !m) return 0;
    for (size_t at = 0; at + m <= n; ++at)
        if (std::memcmp(haystack.data() + at, needle.data(), m) == 0) return static_cast<tn_uint32>(at);
    return static_cast<tn_uint32>(n);
}

void dump(const char *name, const std::vector<tn_uchar> &bytes)
{
    std::fprintf(stderr, "%s (%zu):", name, bytes.size());
    for (tn_uchar b : bytes) std::fprintf(stderr, " %02x", b);
    std::fprintf(stderr, "\n");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, size_t size)
{
    if (size < 2) return 0;
    unsigned mode = data[0] & 3;
    size_t m = data[1];
    data += 2;
    size -= 2;
    if (m > size) m = size;
    // Two blocks of exactly their size, so that a read past the end of
    // either is caught, rather than landing in the other.
    std::vector<tn_uchar> needle(data, data + m), haystack(data + m, data + size);
    if (mode != 0) {
        // Two or three letters: long partial matches and periodic needles,
        // where the shifts of the search can go wrong. Mode 3 also repeats
        // the haystack, to reach inputs long enough to change strategy.
        unsigned letters = mode == 2 ? 3 : 2;
        for (tn_uchar &b : needle) b = static_cast<tn_uchar>('a' + b % letters);
        for (tn_uchar &b : haystack) b = static_cast<tn_uchar>('a' + b % letters);
        if (mode == 3) {
            std::vector<tn_uchar> once = haystack;
            for (int i = 0; i < 15; ++i) haystack.insert(haystack.end(), once.begin(), once.end());
        }
    }
    tn_uint32 got = tn_byte_find(haystack.data(), static_cast<tn_uint32>(haystack.size()),
                                 needle.data(), static_cast<tn_uint32>(needle.size()));
    tn_uint32 expected = naive_find(haystack, needle);
    if (got != expected) {
        std::fprintf(stderr, "tn_byte_find gave %u, expected %u\n", got, expected);
        dump("haystack", haystack);
        dump("needle", needle);
        std::abort();
    }
    return 0;
}
