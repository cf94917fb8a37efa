// Feeding a text to an incremental parser in pieces. The parser reads only
// what an input buffer holds; the feeder refills the buffer with
// tn_input_buffer_pool from a source that hands out the text cut at chosen
// places, and calls the parser after each refill. Whatever the cuts, a
// parser that keeps no state outside its own records must end the same way:
// the same result, and the same bytes left for whoever reads next.
#ifndef TN_TESTS_SUPPORT_SPLIT_FEED_H
#define TN_TESTS_SUPPORT_SPLIT_FEED_H

#include <tarnel_util/tn_input_buffer.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace tn_test {

enum class feed_step { more, done, failed };

// The parser under test. reset makes its records fresh for a new feeding;
// step parses what the buffer holds; result tells the outcome as text.
struct incremental_parser {
    std::function<void()> reset;
    std::function<feed_step(tn_input_buffer &)> step;
    std::function<std::string()> result;
};

// Feeds text, cut before each offset in cuts (ascending, inside the text),
// through a buffer of the given storage size. Returns a transcript: how the
// feeding ended ("done", "failed", "ran out", or "stalled" for a parser that
// neither finished nor consumed while the storage was full), the parser's
// result, and every byte not consumed.
std::string feed_in_pieces(const std::string &text, const std::vector<std::size_t> &cuts, std::uint32_t storage,
                           const incremental_parser &parser);

// Feeds text whole, one byte per refill, and cut once at every offset, and
// expects every transcript to equal the whole feeding's, which it returns.
std::string expect_same_at_every_split(const std::string &text, std::uint32_t storage,
                                       const incremental_parser &parser);

} // namespace tn_test

#endif
