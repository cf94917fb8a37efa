#include <tarnel_util/tn_input_buffer.h>
#include <tarnel_util/tn_output_buffer.h>
#include <tarnel_util/tn_time.h>
#include "support/socket_pair.h"
#include "support/split_feed.h"
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>
#include <chrono>
#include <cstring>
#include <random>
#include <sstream>
#include <thread>

namespace {
using tn_test::PieceFeed;
using Pair = tn_test::SocketPair;
using std::chrono::milliseconds;
const tn_uchar *u(const char *s) { return reinterpret_cast<const tn_uchar *>(s); }
std::string s(const tn_uchar *text) { return reinterpret_cast<const char *>(text); }
std::string held(const tn_input_buffer &b)
{
    return {reinterpret_cast<const char *>(b.storage) + b.position, b.available};
}
bool sound(const tn_input_buffer &b) { return b.position + b.available == b.length && b.position <= b.length; }

// Cuts a text of the given size after steps[0] bytes, then steps[1], ... in turn.
std::vector<size_t> cuts(size_t size, const std::vector<size_t> &steps)
{
    std::vector<size_t> at;
    for (size_t p = steps[0], i = 1; p < size; p += steps[i++ % steps.size()]) at.push_back(p);
    return at;
}

// A buffer over a sink that records its pieces and can refuse its Nth call.
struct Writer {
    std::string data;
    std::vector<tn_uint32> pieces;
    size_t calls = 0, fail_at = 0;
    std::vector<tn_uchar> storage;
    tn_output_buffer b;
    explicit Writer(tn_uint32 n) : storage(n + 1) { tn_output_buffer_init(&b, storage.data(), n, write, this); }
    static tn_bool write(const void *s, tn_uint32 n, void *context)
    {
        auto *k = static_cast<Writer *>(context);
        if (++k->calls == k->fail_at) return 0;
        k->pieces.push_back(n);
        k->data.append(static_cast<const char *>(s), n);
        return 1;
    }
};

// Lines as the reader defines them: segments between line feeds, empty ones skipped, one trailing CR dropped.
std::vector<std::string> model_lines(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (!line.empty()) lines.push_back(line.back() == '\r' ? line.substr(0, line.size() - 1) : line);
    return lines;
}

// Every storage size from none to larger than the text, pieces of one byte, of two and five in turn, and whole.
// The copy's output has that size too; its input a byte at least, as none feeds nothing.
TEST(InputBuffer, LinesBytesAndCopiesAgreeWithTheModelForEveryStorageAndPieces)
{
    std::mt19937 random(1);
    const std::string alphabet = "ab \r\n\n\t";
    for (int round = 0; round < 300; ++round) {
        std::string text;
        for (int i = random() % 40; i > 0; --i) text += alphabet[random() % alphabet.size()];
        for (tn_uint32 length : {0u, 1u, 2u, 3u, 7u, 64u}) {
            for (const std::vector<size_t> &steps : {std::vector<size_t>{1}, {2, 5}, {64}}) {
                SCOPED_TRACE(::testing::Message() << "'" << text << "', storage " << length << ", piece " << steps[0]);
                const std::vector<size_t> at = cuts(text.size(), steps);
                PieceFeed r(text, at, length), all(text, at, length), copied(text, at, std::max(length, 1u));
                std::vector<std::string> lines;
                tn_uchar line[64];
                while (tn_input_buffer_read_line(&r.buffer, line, sizeof line)) lines.push_back(s(line));
                ASSERT_TRUE(sound(r.buffer));
                ASSERT_EQ(lines, model_lines(text)) << "read_line";
                std::string bytes;
                tn_uint32 n = 0;
                while (tn_input_buffer_read(&all.buffer, line, 1 + bytes.size() % 5, &n) && n)
                    bytes.append(reinterpret_cast<char *>(line), n);
                ASSERT_TRUE(sound(all.buffer));
                ASSERT_EQ(bytes, text) << "read";
                Writer w(length);
                ASSERT_TRUE(tn_output_buffer_copy(&copied.buffer, &w.b));
                ASSERT_TRUE(tn_output_buffer_flush(&w.b));
                ASSERT_EQ(w.data, text) << "copied";
            }
        }
    }
}

// A line or token of the size or more fails and stays consumed; a byte 0 ends one too; a CR ending a line goes,
// but counts towards the size.
TEST(InputBuffer, ListedLineAndTokenCases)
{
    const struct { std::string text; tn_uint32 size; const char *delimiters; std::vector<std::string> got; } cases[] = {
        {"text\r\n\r\n", 8, nullptr, {"text", ""}},
        {std::string("ab\0cd", 5), 8, nullptr, {"ab", "cd"}},
        {"1234567\nx", 7, nullptr, {"!", "x"}},
        {"123456\r\nx", 8, nullptr, {"123456", "x"}},
        {"123456\r\nx", 7, nullptr, {"!", "x"}},
        {"  word\t\tsecond", 8, " \t", {"word", "second"}},
        {"abcdefgh z", 8, " ", {"!", "z"}},
        {"abcdefg z", 8, " ", {"abcdefg", "z"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        tn_input_buffer b;
        tn_str_input_buffer_init2(&b, c.text.data(), static_cast<tn_uint32>(c.text.size()));
        tn_uchar out[8];
        std::vector<std::string> got; // "!" for a failure
        for (int i = 0; i < 5 && tn_input_buffer_available(&b); ++i) {
            const bool ok = c.delimiters ? tn_input_buffer_read_token(&b, out, c.size, u(c.delimiters))
                                         : tn_input_buffer_read_line(&b, out, c.size);
            got.push_back(ok ? s(out) : "!");
        }
        EXPECT_EQ(got, c.got);
        EXPECT_FALSE(tn_input_buffer_read_line(&b, nullptr, 8)) << "at the end";
        EXPECT_FALSE(tn_input_buffer_read_token(&b, out, 8, u(" "))) << "at the end";
        out[0] = 'x';
        EXPECT_FALSE(tn_input_buffer_read_line(&b, out, 0));
        EXPECT_EQ(out[0], 0) << "size 0 fails, but terminates first";
    }
}

TEST(InputBuffer, ReadFillSkipAndPoolKeepTheirBoundaries)
{
    PieceFeed r("abcdefghij", {3, 6, 9}, 4);
    tn_uint32 n = 99;
    char out[16];
    EXPECT_TRUE(tn_input_buffer_read(&r.buffer, out, 0, &n));
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(tn_input_buffer_available(&r.buffer), 3u) << "a read of 0 still refills, and the bytes stay held";
    EXPECT_TRUE(tn_input_buffer_read(&r.buffer, out, 16, &n));
    EXPECT_EQ(n, 3u) << "held bytes come without a call";
    EXPECT_EQ(r.source.calls, 1u);
    EXPECT_TRUE(tn_input_buffer_read(&r.buffer, out, 4, &n));
    EXPECT_EQ(std::string(out, n), "def");
    EXPECT_TRUE(tn_input_buffer_fill(&r.buffer, out, 4)) << "over a storage of 4 and pieces of 3";
    EXPECT_EQ(std::string(out, 4), "ghij");
    EXPECT_TRUE(tn_input_buffer_read(&r.buffer, out, 1, &n));
    EXPECT_EQ(n, 0u) << "the end";
    EXPECT_FALSE(tn_input_buffer_fill(&r.buffer, out, 1));
    EXPECT_TRUE(tn_input_buffer_fill(&r.buffer, out, 0));
    EXPECT_TRUE(tn_input_buffer_skip(&r.buffer, 0));
    EXPECT_FALSE(tn_input_buffer_skip(&r.buffer, 1));
    EXPECT_TRUE(sound(r.buffer));

    // Pooling adds behind the held bytes, and keeps them when the source fails.
    PieceFeed p("abcdefgh", {3, 6}, 8);
    tn_uint32 count = 0;
    EXPECT_TRUE(tn_input_buffer_skip(&p.buffer, 1));
    EXPECT_TRUE(tn_input_buffer_pool(&p.buffer, &count));
    EXPECT_EQ(count, 5u);
    EXPECT_EQ(held(p.buffer), "bcdef");
    p.source.fail_at = p.source.calls + 1;
    EXPECT_FALSE(tn_input_buffer_pool(&p.buffer, &count));
    EXPECT_EQ(count, 5u);
    EXPECT_EQ(held(p.buffer), "bcdef") << "a failed pool lost the held bytes";
    EXPECT_TRUE(tn_input_buffer_pool(&p.buffer, nullptr));
    EXPECT_EQ(held(p.buffer), "bcdefgh");
    EXPECT_TRUE(tn_input_buffer_pool(&p.buffer, &count)) << "the end adds nothing, and is no failure";
    EXPECT_EQ(count, 7u);

    // A string's bytes (here a literal's) are read only: pooling must not write to them.
    tn_input_buffer b;
    tn_str_input_buffer_init(&b, u("read-only"));
    EXPECT_TRUE(tn_input_buffer_skip(&b, 5));
    EXPECT_TRUE(tn_input_buffer_pool(&b, &count));
    EXPECT_EQ(count, 4u);
}

TEST(OutputBuffer, WritesHandOverTheListedPiecesAndFailedFlushesKeepTheirBytes)
{
    const std::string source(20000, 'x');
    const struct { tn_uint32 held; bool align; tn_uint32 n; std::vector<tn_uint32> pieces; tn_uint32 used; } cases[] = {
        {10, false, 246, {10}, 246},
        {0, false, 256, {256}, 0},
        {0, true, 256, {}, 256},
        {0, false, 20000, {8192, 8192, 3616}, 0},
        {0, false, 16500, {8192, 8192}, 116},
        {0, true, 600, {256, 256}, 88},
        {0, false, 255, {}, 255},
        {10, false, 245, {}, 255},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(::testing::Message() << c.held << " held, " << (c.align ? "align " : "plain ") << c.n);
        Writer w(256);
        ASSERT_TRUE(tn_output_buffer_write(&w.b, source.data(), c.held));
        EXPECT_TRUE((c.align ? tn_output_buffer_write_align : tn_output_buffer_write)(&w.b, source.data(), c.n));
        EXPECT_EQ(w.pieces, c.pieces);
        EXPECT_EQ(tn_output_buffer_used(&w.b), c.used);
        EXPECT_TRUE(tn_output_buffer_flush(&w.b));
        EXPECT_EQ(tn_output_buffer_used(&w.b), 0u);
        EXPECT_EQ(w.data.size(), c.held + c.n);
    }

    // An empty storage passes plain writes on and refuses align ones, rather than loop; a copy fails with its write.
    Writer w(16);
    EXPECT_TRUE(tn_output_buffer_writes(&w.b, u("held")));
    w.fail_at = 1;
    EXPECT_FALSE(tn_output_buffer_write(&w.b, "0123456789abcdef", 16));
    EXPECT_EQ(tn_output_buffer_used(&w.b), 4u) << "a failed flush keeps the held bytes";
    EXPECT_TRUE(tn_output_buffer_flush(&w.b));
    EXPECT_EQ(w.data, "held");
    EXPECT_TRUE(tn_output_buffer_flush(&w.b));
    EXPECT_EQ(w.calls, 2u) << "nothing held, no call";
    tn_output_buffer_init(&w.b, nullptr, 0, Writer::write, &w);
    EXPECT_TRUE(tn_output_buffer_write(&w.b, "abc", 3));
    EXPECT_TRUE(tn_output_buffer_write(&w.b, "", 0));
    EXPECT_FALSE(tn_output_buffer_write_align(&w.b, "abc", 3));
    EXPECT_EQ(w.data, "heldabc");
    PieceFeed in("xyz", {}, 4);
    w.fail_at = w.calls + 1;
    EXPECT_FALSE(tn_output_buffer_copy(&in.buffer, &w.b)) << "a refused write fails the copy";
}

TEST(FileBuffer, PositionsSkipsAndWholeWrites)
{
    std::string text;
    for (int i = 0; i < 10000; ++i) text += static_cast<char>('a' + i % 26);
    const int fd = memfd_create("tn_file_buffer", MFD_CLOEXEC);
    tn_uchar block[4096];
    tn_file_output_buffer out;
    tn_file_output_buffer_init(&out, block, 300, fd);
    EXPECT_TRUE(tn_output_buffer_write(&out.buffer, text.data(), 10000));
    EXPECT_TRUE(tn_output_buffer_flush(&out.buffer));
    lseek(fd, 0, SEEK_SET);
    tn_file_input_buffer in;
    tn_file_input_buffer_init(&in, block, sizeof block, fd);
    char ten[10];
    tn_uint64 at = 0;
    EXPECT_TRUE(tn_input_buffer_fill(&in.buffer, ten, 10));
    EXPECT_EQ(std::string(ten, 10), text.substr(0, 10));
    EXPECT_TRUE(tn_file_input_buffer_get_pos(&in, &at));
    EXPECT_EQ(at, 10u) << "the position of the reader, not of the file";
    EXPECT_TRUE(tn_file_input_buffer_skip(&in, 5000));
    EXPECT_TRUE(tn_file_input_buffer_get_pos(&in, &at));
    EXPECT_EQ(at, 5010u);
    EXPECT_TRUE(tn_input_buffer_fill(&in.buffer, ten, 1));
    EXPECT_EQ(ten[0], text[5010]);
    EXPECT_TRUE(tn_file_input_buffer_skip(&in, 10000 - 5011)) << "to the end";
    EXPECT_FALSE(tn_file_input_buffer_skip(&in, 1)) << "past the end";
    close(fd);
}

// A connected TCP pair on loopback; the library's end is non-blocking.
struct SocketBuffer : ::testing::Test {
    Pair pair{Pair::kind::tcp};
    tn_poll poll{};
    tn_uchar storage[4096];
    tn_elapse watch;
    const std::vector<char> block = std::vector<char>(64 << 20, 'x'); // more than any socket holds
    void SetUp() override { ASSERT_TRUE(tn_poll_create(&poll)); }
    void TearDown() override { tn_poll_free(&poll); }
};

// A read waits once for its time-out (two waits take 800 ms), 0 looks once. A call cancelled before fails even if
// it need not wait; one blocked ends within a slice.
TEST_F(SocketBuffer, AWaitEndsAtItsTimeOutOrACancel)
{
    tn_socket_input_buffer in;
    tn_socket_output_buffer out;
    tn_socket_input_buffer_init(&in, storage, 4096, pair.ours, &poll, 400);
    tn_socket_output_buffer_init(&out, nullptr, 0, pair.ours, &poll, -1);
    tn_uint32 n;
    char c;
    for (tn_int32 timeout : {400, 0}) {
        SCOPED_TRACE(testing::Message() << "time-out " << timeout);
        tn_socket_input_buffer_set_read_timeout(&in, timeout);
        tn_elapse_start(&watch);
        EXPECT_FALSE(tn_input_buffer_read(&in.buffer, &c, 1, &n));
        const tn_uint32 waited = tn_elapse_total(&watch);
        EXPECT_GE(waited + 10, tn_uint32(timeout));
        EXPECT_LT(waited, tn_uint32(timeout) + 400) << "waited more than once";
    }
    tn_socket_input_buffer_set_read_timeout(&in, -1);
    tn_poll_cancel(&poll);
    ASSERT_EQ(write(pair.peer, "x", 1), 1);
    EXPECT_FALSE(tn_input_buffer_read(&in.buffer, &c, 1, &n)) << "a byte waits";
    EXPECT_FALSE(tn_socket_output_buffer_write_op("x", 1, &out)) << "there is room for a byte";
    tn_poll_reset(&poll);
    EXPECT_TRUE(tn_input_buffer_read(&in.buffer, &c, 1, &n));
    EXPECT_EQ(n, 1u);
    EXPECT_EQ(c, 'x');
    for (bool writing : {false, true}) {
        SCOPED_TRACE(writing ? "write" : "read");
        std::thread canceller([&] {
            std::this_thread::sleep_for(milliseconds(100));
            tn_poll_cancel(&poll);
        });
        tn_elapse_start(&watch);
        EXPECT_FALSE(writing ? tn_socket_output_buffer_write_op(block.data(), 64 << 20, &out)
                             : tn_input_buffer_read(&in.buffer, &c, 1, &n));
        canceller.join();
        EXPECT_LT(tn_elapse_total(&watch), 1500u);
        tn_poll_reset(&poll);
    }
}

// Partial sends go on until a slow peer has everything. Lines the peer then sends in pieces, longer than the
// storage, arrive whole, and its close ends the stream. With a peer that reads nothing, the wait's time-out fails
// the write.
TEST_F(SocketBuffer, PartialSendsAndReadsGoOnUntilEverythingIsThrough)
{
    std::string sent(6 << 20, 0), received(6 << 20, 0);
    for (size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i * 131 >> 7);
    std::thread peer([&] {
        std::this_thread::sleep_for(milliseconds(50));
        EXPECT_EQ(recv(pair.peer, received.data(), received.size(), MSG_WAITALL), static_cast<ssize_t>(sent.size()));
        for (const char *piece : {"hel", "lo\r", "\nwor", "ld and more than sixteen\n", "tail"}) {
            std::this_thread::sleep_for(milliseconds(10));
            (void)!write(pair.peer, piece, strlen(piece));
        }
        shutdown(pair.peer, SHUT_WR);
    });
    tn_socket_output_buffer out;
    tn_socket_output_buffer_init(&out, storage, 1000, pair.ours, &poll, 5000);
    EXPECT_TRUE(tn_output_buffer_write(&out.buffer, sent.data(), 1)); // held, then sent ahead of the rest
    EXPECT_TRUE(tn_output_buffer_write(&out.buffer, &sent[1], (6 << 20) - 1));
    EXPECT_TRUE(tn_output_buffer_flush(&out.buffer));
    tn_socket_input_buffer in;
    tn_socket_input_buffer_init(&in, storage + 1000, 16, pair.ours, &poll, 2000);
    tn_uchar line[64];
    std::vector<std::string> got;
    while (tn_input_buffer_read_line(&in.buffer, line, sizeof line)) got.push_back(s(line));
    peer.join();
    EXPECT_TRUE(received == sent) << "the bytes arrived altered"; // not EXPECT_EQ: 6 MiB would be printed
    EXPECT_EQ(got, (std::vector<std::string>{"hello", "world and more than sixteen", "tail"}));
    tn_uint32 n = 1;
    EXPECT_TRUE(tn_input_buffer_read(&in.buffer, line, 1, &n));
    EXPECT_EQ(n, 0u) << "the close is seen again";
    tn_socket_output_buffer_set_write_timeout(&out, 100);
    Pair idle{Pair::kind::tcp};
    out.socket = idle.ours;
    tn_elapse_start(&watch);
    EXPECT_FALSE(tn_socket_output_buffer_write_op(block.data(), 64 << 20, &out));
    EXPECT_GE(tn_elapse_total(&watch), 90u);
}
} // namespace
