#include "split_feed.h"

#include <algorithm>
#include <cstring>

namespace tn_test {

tn_bool PieceSource::read(void *destination, tn_uint32 capacity, tn_uint32 *count, void *context)
{
    auto *s = static_cast<PieceSource *>(context);
    if (++s->calls == s->fail_at) return 0;
    auto next = std::upper_bound(s->cuts.begin(), s->cuts.end(), s->at);
    size_t end = next == s->cuts.end() ? s->text.size() : *next;
    *count = tn_uint32(std::min<size_t>(capacity, end - s->at));
    std::memcpy(destination, s->text.data() + s->at, *count);
    s->at += *count;
    return 1;
}

// Storage of exactly the length, so that the sanitizer catches a reader
// touching a byte past it.
PieceFeed::PieceFeed(const std::string &text, std::vector<size_t> cuts, tn_uint32 length)
    : source{text, std::move(cuts)}, storage(length)
{
    tn_input_buffer_init(&buffer, storage.data(), length, PieceSource::read, &source);
}

std::string PieceFeed::left() const
{
    return std::string(reinterpret_cast<const char *>(buffer.storage) + buffer.position, buffer.available) +
           source.unread();
}

std::vector<std::vector<size_t>> every_split(size_t n)
{
    std::vector<std::vector<size_t>> splits{{}};
    std::vector<size_t> bytewise;
    for (size_t i = 1; i < n; ++i) {
        bytewise.push_back(i);
        splits.push_back({i});
    }
    splits.push_back(bytewise);
    return splits;
}

} // namespace tn_test
