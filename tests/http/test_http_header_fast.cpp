// What one call of the header reader leaves behind when a line may go to the
// block without passing through the accumulator: the accumulator keeps
// every line whose follower is not yet complete, and a failed block leaves
// the same trail as ever.
#include <tarnel_util/tn_http_header.h>
#include <tarnel_util/tn_uchar_array.h>

#include <gtest/gtest.h>

#include <string>

#include "support/alloc.h"

namespace {

struct one_call_row {
    const char *held;
    bool block_failed;
    std::string transcript; // result, done, block lines, accumulator, bytes left
};

std::string one_call(const one_call_row &r)
{
    tn_str_array block;
    tn_uchar_array line;
    tn_str_array_init(&block);
    tn_array_init(&line, 1);
    if (r.block_failed) tn_array_fail(&block.pool);
    std::string text(r.held);
    tn_input_buffer in;
    tn_str_input_buffer_init2(&in, text.data(), static_cast<tn_uint32>(text.size()));
    tn_bool done = 0;
    tn_bool result = tn_http_header_read_socket(&block, &in, &line, &done);
    std::string all = std::to_string(result) + std::to_string(done);
    for (tn_uint32 i = 0; i < tn_str_array_length(&block); ++i)
        all += std::string(" ") + reinterpret_cast<const char *>(tn_str_array_get_pos(&block, i)) + "|";
    all += " [" + std::string(static_cast<const char *>(tn_array_get(&line)), tn_array_bytes(&line)) + "] " +
           text.substr(in.position, in.available);
    tn_str_array_free(&block);
    tn_array_free(&line);
    return all;
}

class HttpHeaderOneCall : public tn_test::AllocTest {};

TEST_F(HttpHeaderOneCall, LinesWaitForACompleteFollower)
{
    using namespace std::string_literals;
    const one_call_row rows[] = {
        {"A: 1\r\n", false, "10 [A: 1] "},
        {"A: 1\r\nB", false, "10 [A: 1] B"},
        {"A: 1\r\nB: 2\r\nC", false, "10 A: 1| [B: 2] C"},
        {"A: 1\r\nB: 2\r\n C", false, "10 A: 1| [B: 2]  C"},
        {"A: 1\r\n\tx\r\nB", false, "10 [A: 1\tx] B"},
        {"A: 1\r\nB: 2\r\n\r", false, "10 A: 1| [B: 2] \r"},
        {"A: 1\r\nno\r\nB: 2\r\n\r\nbody", false, "11 A: 1| B: 2| [] body"},
        {"A: 1\r\nB: 2\r\n\r\n", true, "00 [A: 1\0] B: 2\r\n\r\n"s},
        {"no\r\nB\r\n\r\nbody", true, "11 [] body"},
    };
    for (const one_call_row &r : rows) {
        SCOPED_TRACE(std::string(r.held) + (r.block_failed ? " (failed block)" : ""));
        EXPECT_EQ(one_call(r), r.transcript);
    }
}

} // namespace
