#include <tarnel_util/tn_http_chunk.h>
#include <tarnel_util/tn_poll.h>
#include <tarnel_util/tn_time.h>
#include <gtest/gtest.h>
#include "support/alloc.h"
#include "support/socket_pair.h"
#include "support/split_feed.h"
#include <sys/socket.h>
#include <string>
#include <vector>

namespace {
using tn_test::PieceFeed;

struct Call {
    tn_bool result;
    tn_uint32 count, ready, state;
    std::string data;
};

Call read_once(tn_http_chunk *k, tn_input_buffer *b, tn_uint32 size)
{
    std::vector<char> d(size);
    tn_uint32 count = 7, ready = 7;
    tn_bool r = tn_http_chunk_read(k, b, d.data(), size, &count, &ready);
    return {r, count, ready, k->state, std::string(d.data(), count)};
}

std::string show(const Call &c)
{
    return std::to_string(c.result) + " count " + std::to_string(c.count) + " ready " + std::to_string(c.ready) +
           " state " + std::to_string(c.state) + " " + c.data;
}

// Reads until the body ends or the reader gives up, checking each call
// against the table of results; the outcome is the data, the last result,
// the state and what was left unread.
std::string decode(PieceFeed &f, tn_uint32 size)
{
    tn_http_chunk k;
    tn_http_chunk_init(&k);
    std::string data;
    for (int calls = 0; calls < 100000; ++calls) {
        Call c = read_once(&k, &f.buffer, size);
        EXPECT_LE(c.count, size);
        EXPECT_EQ(c.ready, c.count > 0 || (c.result && c.state == TN_HTTP_CHUNK_COMPLETE));
        data += c.data;
        EXPECT_TRUE(c.result || c.count + c.ready == 0) << "a failed call delivers nothing";
        if (!c.result || c.state == TN_HTTP_CHUNK_COMPLETE)
            return data + "|" + std::to_string(c.result) + "|" + std::to_string(c.state) + "|" + f.left();
    }
    return "no end";
}

struct Case {
    const char *name, *input, *data;
    tn_bool result;
    tn_uint32 state;
    const char *left;
};

// clang-format off
const Case cases[] = {
    {"one chunk",             "5\r\nhello\r\n0\r\n\r\n",                 "hello",      1, 12, ""},
    {"two chunks",            "3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n",        "abcde",      1, 12, ""},
    {"upper-case hex",        "1A\r\nabcdefghijklmnopqrstuvwxyz\r\n0\r\n\r\n", "abcdefghijklmnopqrstuvwxyz", 1, 12, ""},
    {"lower-case hex",        "1a\r\nabcdefghijklmnopqrstuvwxyz\r\n0\r\n\r\n", "abcdefghijklmnopqrstuvwxyz", 1, 12, ""},
    {"extension",             "5;name=\"a;b\\\"c\" ;x\tz\r\nhello\r\n0;last\r\n\r\n", "hello", 1, 12, ""},
    {"extension with LF",     "5;a\nb\r\nhello\r\n0\r\n\r\n",            "hello",      1, 12, ""},
    {"blanks behind size",    "5 \t \r\nhello\r\n0\r\n\r\n",             "hello",      1, 12, ""},
    {"digit behind a blank",  "1 2\r\n0123456789abcdefgh\r\n0\r\n\r\n",  "0123456789abcdefgh", 1, 12, ""},
    {"leading zeros free",    "00000000000000000000005\r\nhello\r\n0000\r\n\r\n", "hello", 1, 12, ""},
    {"trailers dropped",      "2\r\nhi\r\n0\r\nX-A: 1\r\nX-B: two\r\n\r\n", "hi",      1, 12, ""},
    {"bare CR in a trailer",  "0\r\nX: a\rb\r\rc\r\n\r\n",               "",           1, 12, ""},
    {"LF opens a trailer",    "0\r\n\n\r\n\r\n",                        "",           1, 12, ""},
    {"trailer line LF only",  "0\r\nX\nY\r\n\r\n",                       "",           1, 12, ""},
    {"next message kept",     "3\r\nabc\r\n0\r\n\r\nGET / HTTP/1.1\r\n", "abc",        1, 12, "GET / HTTP/1.1\r\n"},
    {"16 digits, no data",    "FFFFFFFFFFFFFFFF\r\nabc",                 "abc",        0, 0,  ""},
    {"17th digit",            "10000000000000000\r\nx",                  "",           0, 0,  "\r\nx"},
    {"17 digits after zeros", "00FFFFFFFFFFFFFFFF0\r\n",                 "",           0, 0,  "\r\n"},
    {"empty input",           "",                                        "",           0, 0,  ""},
    {"size line not hex",     "g\r\n",                                   "",           0, 0,  "\r\n"},
    {"blank before size",     " 5\r\nhello",                             "",           0, 0,  "5\r\nhello"},
    {"sign before size",      "-1\r\n",                                  "",           0, 0,  "1\r\n"},
    {"0x prefix",             "0x5\r\nhello",                            "",           0, 0,  "5\r\nhello"},
    {"LF ends size line",     "5\nhello",                                "",           0, 0,  "hello"},
    {"CR then not LF",        "5\rXhello",                               "",           0, 0,  "hello"},
    {"end inside data",       "5\r\nhel",                                "hel",        0, 0,  ""},
    {"end inside size line",  "5\r\nhello\r\n1",                         "hello",      0, 0,  ""},
    {"end before closing",    "5\r\nhello\r\n0\r\n",                     "hello",      0, 0,  ""},
    {"end inside trailer",    "0\r\nX: 1",                               "",           0, 0,  ""},
    {"data then not CR",      "5\r\nhelloX\r\n0\r\n\r\n",                "hello",      0, 0,  "\r\n0\r\n\r\n"},
    {"data CR then not LF",   "5\r\nhello\rX0\r\n\r\n",                  "hello",      0, 0,  "0\r\n\r\n"},
    {"closing CR then not LF","0\r\n\rX\r\n",                            "",           0, 11, "\r\n"},
};
// clang-format on

struct ChunkTest : tn_test::AllocTest {};

TEST_F(ChunkTest, EveryCaseGivesTheSameForEverySplitStorageAndDestination)
{
    for (const Case &c : cases)
        for (tn_uint32 storage : {1u, 2u, 5u, 4096u})
            for (tn_uint32 size : {1u, 3u, 4096u}) {
                SCOPED_TRACE(::testing::Message() << c.name << ": \"" << c.input << "\", destination " << size);
                std::string got = tn_test::expect_same_for_every_split(
                    c.input, storage, [size](PieceFeed &f) { return decode(f, size); });
                EXPECT_EQ(got, std::string(c.data) + "|" + std::to_string(c.result) + "|" + std::to_string(c.state) +
                                   "|" + c.left);
            }
    EXPECT_EQ(tn_test::allocations(), 0);
}

// Complete and failed readers consume nothing held; a refill that finds the
// end of the stream fails even a complete one.
TEST_F(ChunkTest, WholeBodyGivesDataThenTheEndAndNothingMore)
{
    PieceFeed f("5\r\nhello\r\n0\r\n\r\nNEXT", {}, 4096);
    tn_http_chunk k;
    tn_http_chunk_init(&k);
    EXPECT_EQ(show(read_once(&k, &f.buffer, 64)), "1 count 5 ready 1 state 5 hello");
    EXPECT_EQ(show(read_once(&k, &f.buffer, 64)), "1 count 0 ready 1 state 12 ");
    EXPECT_EQ(show(read_once(&k, &f.buffer, 64)), "0 count 0 ready 0 state 12 ");
    k.state = TN_HTTP_CHUNK_FAILED;
    EXPECT_EQ(show(read_once(&k, &f.buffer, 64)), "0 count 0 ready 0 state 0 ");
    EXPECT_EQ(f.left(), "NEXT");
    tn_input_buffer_reset(&f.buffer);
    k.state = TN_HTTP_CHUNK_COMPLETE;
    EXPECT_EQ(show(read_once(&k, &f.buffer, 64)), "0 count 0 ready 0 state 0 ");
}

TEST_F(ChunkTest, BadArgumentsChangeNothing)
{
    PieceFeed f("5\r\nhello", {}, 16);
    tn_http_chunk k;
    tn_http_chunk_init(&k);
    char d[8];
    tn_uint32 count = 9, ready = 9;
    EXPECT_FALSE(tn_http_chunk_read(&k, &f.buffer, d, 0, &count, &ready));
    EXPECT_FALSE(tn_http_chunk_read(&k, &f.buffer, nullptr, 8, &count, &ready));
    EXPECT_FALSE(tn_http_chunk_read(nullptr, &f.buffer, d, 8, &count, &ready));
    EXPECT_FALSE(tn_http_chunk_read(&k, nullptr, d, 8, &count, &ready));
    EXPECT_EQ(k.state, TN_HTTP_CHUNK_SIZE_START);
    EXPECT_EQ(f.source.calls, 0u);
    EXPECT_EQ(count, 9u);
}

// A source that fails at any of its calls leaves the reader failed, with a
// prefix of the data delivered, or not reached at all.
TEST_F(ChunkTest, SourceFailingAtEachCallFailsTheReader)
{
    const std::string text = "3\r\nabc\r\n4;e\r\ndefg\r\n0\r\nT: 1\r\n\r\n";
    for (size_t fail_at = 1; fail_at <= text.size() + 1; ++fail_at) {
        SCOPED_TRACE(::testing::Message() << "failing call " << fail_at);
        PieceFeed f(text, tn_test::every_split(text.size()).back(), 4096);
        f.source.fail_at = fail_at;
        std::string got = decode(f, 2);
        if (f.source.calls >= fail_at) EXPECT_EQ(got.substr(got.find('|')), "|0|0|" + text.substr(f.source.at));
        else EXPECT_EQ(got, "abcdefg|1|12|");
    }
}

// On a socket, framing bytes held are parsed without a wait, and a peer
// that goes silent ends the read within the socket's time-out.
TEST(ChunkSocket, SilentPeerEndsWithinTheTimeout)
{
    tn_test::SocketPair pair{tn_test::SocketPair::kind::tcp};
    tn_poll poll{};
    ASSERT_TRUE(tn_poll_create(&poll));
    tn_uchar storage[256];
    tn_socket_input_buffer in;
    tn_socket_input_buffer_init(&in, storage, sizeof storage, pair.ours, &poll, 100);
    ASSERT_EQ(send(pair.peer, "5\r\nhe", 5, 0), 5);
    tn_http_chunk k;
    tn_http_chunk_init(&k);
    EXPECT_EQ(show(read_once(&k, &in.buffer, 64)), "1 count 2 ready 1 state 4 he");
    tn_time start, end;
    tn_time_msec(&start);
    EXPECT_EQ(show(read_once(&k, &in.buffer, 64)), "0 count 0 ready 0 state 0 ");
    tn_time_msec(&end);
    EXPECT_LT(end - start, 2000);
    ASSERT_EQ(send(pair.peer, "5\r", 2, 0), 2);
    tn_http_chunk_init(&k);
    EXPECT_EQ(show(read_once(&k, &in.buffer, 64)), "1 count 0 ready 0 state 3 ");
    tn_poll_free(&poll);
}

} // namespace
