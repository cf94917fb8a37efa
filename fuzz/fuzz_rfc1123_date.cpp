// tn_rfc1123_date_scan on any text: it must not read past the terminator,
// and what it takes must hold up. A refusal leaves the time alone; a date
// taken is taken again, the same, from the consumed part alone; and a time
// the calendar covers comes back from its own printed text.
#include <tarnel_util/tn_rfc1123_date.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

constexpr tn_time untouched = 0x5A5A5A5A5A5A5A5A;

[[noreturn]] void fail(const char *what, const std::vector<tn_uchar> &text)
{
    std::fprintf(stderr, "%s: \"%s\"\n", what, reinterpret_cast<const char *>(text.data()));
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, size_t size)
{
    // Exactly the input and a terminator, so that ASan sees any read past it.
    std::vector<tn_uchar> text(data, data + size);
    text.push_back(0);
    tn_time t = untouched;
    tn_uint32 n = tn_rfc1123_date_scan(text.data(), &t);
    if (!n) {
        if (t != untouched) fail("refused, but the time was stored", text);
        return 0;
    }
    if (n > std::strlen(reinterpret_cast<const char *>(text.data()))) fail("consumed past the end", text);

    std::vector<tn_uchar> taken(text.begin(), text.begin() + n);
    taken.push_back(0);
    tn_time again = untouched;
    if (tn_rfc1123_date_scan(taken.data(), &again) != n || again != t) fail("the consumed part reads otherwise", text);

    tn_uchar printed[40];
    tn_uint32 length = tn_rfc1123_date_fmt(printed, &t);
    if (length > 30) fail("printed text too long", text);
    tn_time back = untouched;
    bool covered = t >= -11644473600 && t <= 910670515199;
    if (covered && (tn_rfc1123_date_scan(printed, &back) != length || back != t)) fail("printed text reads otherwise", text);
    return 0;
}
