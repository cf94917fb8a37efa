// Chunked bodies: the input is a body as it comes off the wire. It is read
// once held whole, and once fed in pieces into a small storage with a small
// destination, the sizes drawn from the input's own hash. Checks what must
// hold whatever the input: both runs deliver the same data, end with the
// same result and state and leave the same bytes unread; every call's
// result is one of the rows of the reader's contract; the data never
// exceeds the input.
#include <tarnel_util/tn_http_chunk.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct Outcome {
    std::string data;
    tn_bool result = 0;
    tn_uint32 state = 0;
    std::string left;
    bool operator==(const Outcome &) const = default;
};

void check(bool ok, const char *what)
{
    if (ok) return;
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

// Hands out the input in pieces of the sizes in turn.
struct Pieces {
    const std::uint8_t *data;
    size_t size, at = 0, turn = 0;
    std::vector<tn_uint32> sizes;
    static tn_bool read(void *destination, tn_uint32 capacity, tn_uint32 *count, void *context)
    {
        auto *p = static_cast<Pieces *>(context);
        size_t n = p->sizes[p->turn++ % p->sizes.size()];
        n = std::min({n, size_t(capacity), p->size - p->at});
        if (n) std::memcpy(destination, p->data + p->at, n);
        p->at += n;
        *count = tn_uint32(n);
        return 1;
    }
};

Outcome decode(tn_input_buffer *b, tn_uint32 size, size_t input)
{
    tn_http_chunk k;
    tn_http_chunk_init(&k);
    std::vector<char> d(size);
    Outcome o;
    for (size_t calls = 0;; ++calls) {
        check(calls <= 2 * input + 2, "a call that neither consumes nor ends");
        tn_uint32 count = 9, ready = 9;
        o.result = tn_http_chunk_read(&k, b, d.data(), size, &count, &ready);
        o.state = k.state;
        check(o.state <= TN_HTTP_CHUNK_COMPLETE && count <= size, "state or count out of range");
        check(o.result ? ready == (count > 0 || o.state == TN_HTTP_CHUNK_COMPLETE) : count == 0 && ready == 0,
              "result outside the contract");
        check(o.result || o.state == TN_HTTP_CHUNK_FAILED || o.state == TN_HTTP_CHUNK_FINAL_LF,
              "0 in a state that should have failed");
        o.data.append(d.data(), count);
        if (!o.result || o.state == TN_HTTP_CHUNK_COMPLETE) break;
    }
    check(o.data.size() <= input, "more data than input");
    o.left.assign(reinterpret_cast<const char *>(b->storage) + b->position, b->available);
    return o;
}

std::uint64_t hash(const std::uint8_t *data, size_t size)
{
    std::uint64_t h = 1469598103934665603u;
    for (size_t i = 0; i < size; ++i) h = (h ^ data[i]) * 1099511628211u;
    return h;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, size_t size)
{
    if (size > 1 << 20) return 0;
    tn_input_buffer whole;
    tn_str_input_buffer_init2(&whole, data, tn_uint32(size));
    Outcome expected = decode(&whole, 65536, size);

    std::uint64_t h = hash(data, size);
    Pieces p{data, size, 0, 0, {tn_uint32(1 + h % 7), tn_uint32(1 + (h >> 8) % 300), 1}};
    std::vector<tn_uchar> storage(1 + (h >> 20) % 64);
    tn_input_buffer fed;
    tn_input_buffer_init(&fed, storage.data(), tn_uint32(storage.size()), Pieces::read, &p);
    Outcome got = decode(&fed, tn_uint32(1 + (h >> 32) % 100), size);
    got.left.append(reinterpret_cast<const char *>(data) + p.at, size - p.at);
    check(got == expected, "split feeding differs from the whole input");
    return 0;
}
