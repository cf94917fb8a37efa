// Feeding an incremental reader its input in every way a network might cut
// it: whole, one byte at a time, and in two pieces at every position. A run
// is a function of a PieceFeed that returns what the reader made of the
// input (anything printable and comparable); each way of cutting must give
// what the whole input gives.
#ifndef TN_TESTS_SUPPORT_SPLIT_FEED_H
#define TN_TESTS_SUPPORT_SPLIT_FEED_H

#include <tarnel_util/tn_input_buffer.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tn_test {

// A source that hands out its text up to the next cut on each call of the
// read operation (less if the capacity is smaller), then the end of the
// stream. A call numbered fail_at (1-based) fails instead.
struct PieceSource {
    std::string text;
    std::vector<size_t> cuts; // ascending positions inside text
    size_t at = 0, calls = 0, fail_at = 0;

    static tn_bool read(void *destination, tn_uint32 capacity, tn_uint32 *count, void *context);
    std::string unread() const { return text.substr(at); }
};

// A buffer of the given storage size over a PieceSource. Not copyable: the
// buffer points at the source.
struct PieceFeed {
    PieceSource source;
    std::vector<tn_uchar> storage;
    tn_input_buffer buffer;
    PieceFeed(const std::string &text, std::vector<size_t> cuts, tn_uint32 length);
    PieceFeed(const PieceFeed &) = delete;
    // Bytes held and not yet read from the source: what a reader left.
    std::string left() const;
};

// The cut lists: none, each single position, and one at every position.
std::vector<std::vector<size_t>> every_split(size_t n);

// Runs run(PieceFeed &) over every split of text with the given storage
// size and expects the result of the unsplit input each time. Returns that
// result.
template <class Run>
auto expect_same_for_every_split(const std::string &text, tn_uint32 storage, Run run)
{
    PieceFeed whole(text, {}, storage);
    auto expected = run(whole);
    for (const std::vector<size_t> &cuts : every_split(text.size())) {
        PieceFeed feed(text, cuts, storage);
        auto got = run(feed);
        EXPECT_EQ(got, expected) << "storage " << storage << ", " << cuts.size() << " cuts"
                                 << (cuts.size() == 1 ? ", at " + std::to_string(cuts[0]) : std::string());
    }
    return expected;
}

} // namespace tn_test

#endif
