#include "split_feed.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace tn_test {

namespace {

// Hands out the text piece by piece; a read never crosses a cut.
struct piece_source {
    const std::string &text;
    const std::vector<std::size_t> &cuts;
    std::size_t at = 0;

    std::size_t piece_end() const
    {
        auto next = std::upper_bound(cuts.begin(), cuts.end(), at);
        return next == cuts.end() ? text.size() : *next;
    }

    static tn_bool read(void *destination, tn_uint32 capacity, tn_uint32 *count, void *context)
    {
        auto *self = static_cast<piece_source *>(context);
        std::size_t n = std::min<std::size_t>(capacity, self->piece_end() - self->at);
        std::copy_n(self->text.data() + self->at, n, static_cast<char *>(destination));
        self->at += n;
        *count = static_cast<tn_uint32>(n);
        return 1;
    }
};

std::string transcript(const char *ending, const incremental_parser &parser, const tn_input_buffer &buffer,
                       const piece_source &source)
{
    std::string left(reinterpret_cast<const char *>(buffer.storage + buffer.position), buffer.available);
    left += source.text.substr(source.at);
    return std::string(ending) + "\n" + parser.result() + "\nleft: " + left;
}

} // namespace

std::string feed_in_pieces(const std::string &text, const std::vector<std::size_t> &cuts, std::uint32_t storage,
                           const incremental_parser &parser)
{
    std::vector<tn_uchar> block(storage);
    piece_source source{text, cuts};
    tn_input_buffer buffer;
    tn_input_buffer_init(&buffer, block.data(), storage, piece_source::read, &source);
    parser.reset();
    for (;;) {
        tn_uint32 before = buffer.available;
        if (!tn_input_buffer_pool(&buffer, nullptr)) return transcript("pool failed", parser, buffer, source);
        bool came = buffer.available != before;
        tn_uint32 held = buffer.available;
        feed_step step = parser.step(buffer);
        if (step == feed_step::done) return transcript("done", parser, buffer, source);
        if (step == feed_step::failed) return transcript("failed", parser, buffer, source);
        if (!came && buffer.available == held) {
            bool stalled = source.at < text.size();
            return transcript(stalled ? "stalled" : "ran out", parser, buffer, source);
        }
    }
}

std::string expect_same_at_every_split(const std::string &text, std::uint32_t storage,
                                       const incremental_parser &parser)
{
    std::string whole = feed_in_pieces(text, {}, storage, parser);
    std::vector<std::size_t> every(text.size() ? text.size() - 1 : 0);
    for (std::size_t i = 0; i < every.size(); ++i) every[i] = i + 1;
    EXPECT_EQ(feed_in_pieces(text, every, storage, parser), whole) << "one byte per refill";
    for (std::size_t cut = 1; cut < text.size(); ++cut)
        EXPECT_EQ(feed_in_pieces(text, {cut}, storage, parser), whole) << "cut at " << cut;
    return whole;
}

} // namespace tn_test
