#include <tarnel_util/tn_http_output_buffer.h>
#include <gtest/gtest.h>
#include "support/socket_pair.h"
#include <sys/socket.h>
#include <unistd.h>
#include <string>
#include <vector>

namespace {
using Pair = tn_test::SocketPair;
using Ops = std::vector<std::pair<char, std::string>>;

// A buffer on the library's end of a loopback pair, with a poll set of its own.
struct Wire {
    Pair pair{Pair::kind::tcp};
    tn_poll poll{};
    std::vector<tn_uchar> storage;
    tn_http_output_buffer b{};
    Wire(tn_uint32 length, tn_bool chunked) : storage(length)
    {
        EXPECT_TRUE(tn_poll_create(&poll));
        tn_http_output_buffer_init(&b, storage.data(), length, pair.ours, &poll, 2000, chunked);
    }
    ~Wire() { tn_poll_free(&poll); }
    // One letter per operation: w plain write, a align write, f flush, e send_eos, c chunked on; r reset,
    // s shut our sending side, k cancel the poll set. Gives each result, '-' for none.
    std::string run(const Ops &ops)
    {
        std::string results;
        for (const auto &[op, text] : ops) {
            const auto *s = reinterpret_cast<const tn_uchar *>(text.data());
            const auto n = static_cast<tn_uint32>(text.size());
            switch (op) {
            case 'w': results += char('0' + tn_http_output_buffer_write(&b, s, n)); break;
            case 'a': results += char('0' + tn_http_output_buffer_write_align(&b, s, n)); break;
            case 'f': results += char('0' + tn_http_output_buffer_flush(&b)); break;
            case 'e': results += char('0' + tn_http_output_buffer_send_eos(&b)); break;
            case 'c': results += char('0' + tn_http_output_buffer_set_chunked_encoding(&b, 1)); break;
            case 'r': tn_http_output_buffer_reset(&b), results += '-'; break;
            case 's': shutdown(pair.ours, SHUT_WR), results += '-'; break;
            case 'k': tn_poll_cancel(&poll), results += '-'; break;
            }
        }
        return results;
    }
    // What the library's end sent, up to its shutdown.
    std::string sent() const
    {
        shutdown(pair.ours, SHUT_WR);
        std::string got;
        char block[4096];
        for (ssize_t n; (n = read(pair.peer, block, sizeof block)) > 0;) got.append(block, static_cast<size_t>(n));
        return got;
    }
};

const std::string ten = "0123456789", big(10000, 'x');

// held: the bytes left in the storage.
// clang-format off
const struct { const char *name; tn_uint32 length; tn_bool chunked; Ops ops; std::string results, wire; tn_uint32 held; } cases[] = {
    {"chunk of a flush",        256, 1, {{'w', ten}, {'f', ""}},                      "11",   "a\r\n" + ten + "\r\n", 0},
    {"unchunked flush",         256, 0, {{'w', ten}, {'f', ""}},                      "11",   ten, 0},
    {"eos with 3 held",         256, 1, {{'w', "abc"}, {'e', ""}},                    "11",   "3\r\nabc\r\n0\r\n\r\n", 0},
    {"eos with nothing held",   256, 1, {{'e', ""}},                                  "1",    "0\r\n\r\n", 0},
    {"empty flush sends none",  256, 1, {{'f', ""}, {'f', ""}},                       "11",   "", 0},
    {"unchunked eos",           256, 0, {{'w', "abc"}, {'e', ""}, {'w', "d"}},        "110",  "abc", 0},
    {"locked after eos",        256, 1, {{'e', ""}, {'w', ""}, {'a', ""}, {'f', ""}, {'e', ""}}, "10000", "0\r\n\r\n", 0},
    {"reset opens again",       256, 1, {{'e', ""}, {'w', "x"}, {'r', ""}, {'w', "x"}, {'e', ""}}, "10-11", "0\r\n\r\n1\r\nx\r\n0\r\n\r\n", 0},
    {"reset drops held bytes",  256, 1, {{'w', "lost"}, {'r', ""}, {'w', "kept"}, {'f', ""}}, "1-11", "4\r\nkept\r\n", 0},
    {"align chunks of storage",   4, 1, {{'a', ten}, {'f', ""}},                      "11",   "4\r\n0123\r\n4\r\n4567\r\n2\r\n89\r\n", 0},
    {"align fills exactly",       4, 1, {{'a', "0123"}, {'f', ""}},                   "11",   "4\r\n0123\r\n", 0},
    {"plain overflow",            4, 1, {{'w', "ab"}, {'w', "cd"}, {'f', ""}},        "111",  "2\r\nab\r\n2\r\ncd\r\n", 0},
    {"plain direct pieces",       4, 1, {{'w', big}},                                 "1",    "2000\r\n" + big.substr(0, 8192) + "\r\n710\r\n" + big.substr(8192) + "\r\n", 0},
    {"head then chunked body",  256, 0, {{'w', "HTTP/1.1 200 OK\r\n\r\n"}, {'f', ""}, {'c', ""}, {'w', "body"}, {'e', ""}}, "11111", "HTTP/1.1 200 OK\r\n\r\n4\r\nbody\r\n0\r\n\r\n", 0},
    // The flag acts on the next call of the write operation: bytes held before the switch go out as one chunk.
    {"switch frames held bytes", 256, 0, {{'w', "head"}, {'c', ""}, {'f', ""}},       "111",  "4\r\nhead\r\n", 0},
    {"failed eos stays open",   256, 1, {{'s', ""}, {'w', "abc"}, {'e', ""}, {'w', "d"}}, "-101", "", 4},
    {"cancelled poll set",      256, 1, {{'k', ""}, {'w', "abc"}, {'f', ""}},         "-10",  "", 3},
};
// clang-format on

TEST(HttpOutputBuffer, BytesOnTheWire)
{
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Wire w(c.length, c.chunked);
        EXPECT_EQ(w.run(c.ops), c.results);
        EXPECT_EQ(tn_output_buffer_used(&w.b.buffer), c.held);
        EXPECT_EQ(w.sent(), c.wire);
    }
}

// The socket fields stand where the socket output buffer has them.
TEST(HttpOutputBuffer, ReadsAsASocketOutputBuffer)
{
    Wire w(16, 1);
    ASSERT_TRUE(tn_http_output_buffer_set_write_timeout(&w.b, 1234));
    const auto *view = reinterpret_cast<const tn_socket_output_buffer *>(&w.b);
    tn_socket s = -1;
    tn_poll *p = nullptr;
    tn_int32 t = 0;
    ASSERT_TRUE(tn_socket_output_buffer_get_socket(view, &s));
    ASSERT_TRUE(tn_socket_output_buffer_get_poll(view, &p));
    ASSERT_TRUE(tn_socket_output_buffer_get_write_timeout(view, &t));
    EXPECT_EQ(s, w.pair.ours);
    EXPECT_EQ(p, &w.poll);
    EXPECT_EQ(t, 1234);
}

} // namespace
