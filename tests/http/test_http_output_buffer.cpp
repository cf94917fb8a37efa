#include <tarnel_util/tn_http_output_buffer.h>
#include <gtest/gtest.h>
#include "support/socket_pair.h"
#include <sys/socket.h>
#include <unistd.h>
#include <string>
#include <vector>

namespace {
using Pair = tn_test::SocketPair;

// Reads what the library's end sent, up to its shutdown.
std::string drain(Pair &pair)
{
    shutdown(pair.ours, SHUT_WR);
    std::string got;
    char block[4096];
    for (ssize_t n; (n = read(pair.peer, block, sizeof block)) > 0;) got.append(block, static_cast<size_t>(n));
    return got;
}

struct Wire : ::testing::Test {
    Pair pair{Pair::kind::tcp};
    tn_poll poll{};
    std::vector<tn_uchar> storage;
    tn_http_output_buffer b{};
    void SetUp() override { ASSERT_TRUE(tn_poll_create(&poll)); }
    void TearDown() override { tn_poll_free(&poll); }
    void open(tn_uint32 length, tn_bool chunked)
    {
        storage.assign(length, 0);
        tn_http_output_buffer_init(&b, storage.data(), length, pair.ours, &poll, 2000, chunked);
    }
    // One letter per operation: w plain write, a align write, f flush, e
    // send_eos, r reset, c/u chunked on/off. Gives each result, '-' for none.
    std::string run(const std::vector<std::pair<char, std::string>> &ops)
    {
        std::string results;
        for (const auto &[op, text] : ops) {
            const auto *s = reinterpret_cast<const tn_uchar *>(text.data());
            auto n = static_cast<tn_uint32>(text.size());
            switch (op) {
            case 'w': results += char('0' + tn_http_output_buffer_write(&b, s, n)); break;
            case 'a': results += char('0' + tn_http_output_buffer_write_align(&b, s, n)); break;
            case 'f': results += char('0' + tn_http_output_buffer_flush(&b)); break;
            case 'e': results += char('0' + tn_http_output_buffer_send_eos(&b)); break;
            case 'r': tn_http_output_buffer_reset(&b), results += '-'; break;
            case 'c': results += char('0' + tn_http_output_buffer_set_chunked_encoding(&b, 1)); break;
            case 'u': results += char('0' + tn_http_output_buffer_set_chunked_encoding(&b, 0)); break;
            }
        }
        return results;
    }
};

const std::string ten = "0123456789", big(10000, 'x');

struct Case {
    const char *name;
    tn_uint32 length;
    tn_bool chunked;
    std::vector<std::pair<char, std::string>> ops;
    std::string results, wire;
};

// clang-format off
const Case cases[] = {
    {"chunk of a flush",        256, 1, {{'w', ten}, {'f', ""}},                      "11",   "a\r\n" + ten + "\r\n"},
    {"unchunked flush",         256, 0, {{'w', ten}, {'f', ""}},                      "11",   ten},
    {"eos with 3 held",         256, 1, {{'w', "abc"}, {'e', ""}},                    "11",   "3\r\nabc\r\n0\r\n\r\n"},
    {"eos with nothing held",   256, 1, {{'e', ""}},                                  "1",    "0\r\n\r\n"},
    {"empty flush sends none",  256, 1, {{'f', ""}, {'f', ""}},                       "11",   ""},
    {"unchunked eos",           256, 0, {{'w', "abc"}, {'e', ""}, {'w', "d"}},        "110",  "abc"},
    {"locked after eos",        256, 1, {{'e', ""}, {'w', ""}, {'a', ""}, {'f', ""}, {'e', ""}},
                                                                                       "10000", "0\r\n\r\n"},
    {"reset opens again",       256, 1, {{'e', ""}, {'w', "x"}, {'r', ""}, {'w', "x"}, {'e', ""}},
                                                                                       "10-11", "0\r\n\r\n1\r\nx\r\n0\r\n\r\n"},
    {"reset drops held bytes",  256, 1, {{'w', "lost"}, {'r', ""}, {'w', "kept"}, {'f', ""}},
                                                                                       "1-11", "4\r\nkept\r\n"},
    {"align chunks of storage",   4, 1, {{'a', ten}, {'f', ""}},                      "11",   "4\r\n0123\r\n4\r\n4567\r\n2\r\n89\r\n"},
    {"align fills exactly",       4, 1, {{'a', "0123"}, {'f', ""}},                   "11",   "4\r\n0123\r\n"},
    {"plain overflow",            4, 1, {{'w', "ab"}, {'w', "cd"}, {'f', ""}},        "111",  "2\r\nab\r\n2\r\ncd\r\n"},
    {"plain direct pieces",       4, 1, {{'w', big}},                                 "1",    "2000\r\n" + big.substr(0, 8192) + "\r\n710\r\n" + big.substr(8192) + "\r\n"},
    {"head then chunked body",  256, 0, {{'w', "HTTP/1.1 200 OK\r\n\r\n"}, {'f', ""}, {'c', ""}, {'w', "body"}, {'e', ""}},
                                                                                       "11111", "HTTP/1.1 200 OK\r\n\r\n4\r\nbody\r\n0\r\n\r\n"},
};
// clang-format on

TEST_F(Wire, BytesOnTheWire)
{
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Pair fresh{Pair::kind::tcp};
        std::swap(pair.ours, fresh.ours);
        std::swap(pair.peer, fresh.peer);
        open(c.length, c.chunked);
        EXPECT_EQ(run(c.ops), c.results);
        EXPECT_EQ(drain(pair), c.wire);
    }
}

TEST_F(Wire, HeadThenChunkedBodyFramesOnlyTheBody)
{
    // The flag acts on the next call of the write operation: the head held
    // before the switch goes out framed, as one chunk.
    open(256, 0);
    EXPECT_EQ(run({{'w', "head"}, {'c', ""}, {'f', ""}}), "111");
    EXPECT_EQ(drain(pair), "4\r\nhead\r\n");
}

TEST_F(Wire, AFailedSendKeepsTheBufferOpenAndTheBytesHeld)
{
    open(256, 1);
    shutdown(pair.ours, SHUT_WR);
    EXPECT_EQ(run({{'w', "abc"}, {'e', ""}}), "10");
    EXPECT_EQ(b.eos_sent, 0);
    EXPECT_EQ(tn_output_buffer_used(&b.buffer), 3u);
}

TEST_F(Wire, ACancelledPollSetSendsNothing)
{
    open(256, 1);
    tn_poll_cancel(&poll);
    EXPECT_EQ(run({{'w', "abc"}, {'f', ""}}), "10");
    EXPECT_EQ(tn_output_buffer_used(&b.buffer), 3u);
    EXPECT_EQ(drain(pair), "");
}

TEST_F(Wire, TheSocketFieldsAreThoseOfTheSocketOutputBuffer)
{
    open(16, 1);
    ASSERT_TRUE(tn_http_output_buffer_set_write_timeout(&b, 1234));
    const auto *as_socket = reinterpret_cast<const tn_socket_output_buffer *>(&b);
    tn_socket s = -1;
    tn_poll *p = nullptr;
    tn_int32 t = 0;
    tn_bool chunked = 0;
    EXPECT_TRUE(tn_socket_output_buffer_get_socket(as_socket, &s) && s == pair.ours);
    EXPECT_TRUE(tn_socket_output_buffer_get_poll(as_socket, &p) && p == &poll);
    EXPECT_TRUE(tn_socket_output_buffer_get_write_timeout(as_socket, &t) && t == 1234);
    EXPECT_TRUE(tn_http_output_buffer_get_socket(&b, &s) && s == pair.ours);
    EXPECT_TRUE(tn_http_output_buffer_get_poll(&b, &p) && p == &poll);
    EXPECT_TRUE(tn_http_output_buffer_get_chunked_encoding(&b, &chunked) && chunked == 1);
    tn_http_output_buffer_reset(&b);
    EXPECT_TRUE(tn_http_output_buffer_get_chunked_encoding(&b, &chunked) && chunked == 1) << "reset keeps the flag";
}

} // namespace
