#include <tarnel_util/tn_input_buffer.h>
#include <tarnel_util/tn_output_buffer.h>
#include <tarnel_util/tn_time.h>
#include <gtest/gtest.h>
#include "support/socket_pair.h"
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {
using Pair = tn_test::SocketPair;
using std::chrono::milliseconds;

// A connected TCP pair on loopback; the library's end is non-blocking.
struct SocketBuffer : ::testing::Test {
    Pair pair{Pair::kind::tcp};
    tn_poll poll{};
    tn_uchar storage[4096];
    tn_elapse watch;
    const std::vector<char> block = std::vector<char>(64 << 20, 'x'); // more than any socket holds
    void SetUp() override
    {
        ASSERT_GE(pair.ours, 0);
        ASSERT_TRUE(tn_poll_create(&poll));
    }
    void TearDown() override { tn_poll_free(&poll); }
};

TEST_F(SocketBuffer, LinesArriveInPiecesAndThePeersCloseEndsTheStream)
{
    tn_socket_input_buffer in;
    tn_socket_input_buffer_init(&in, storage, 16, pair.ours, &poll, 2000);
    std::thread writer([&] {
        for (const char *piece : {"hel", "lo\r", "\nwor", "ld and more than sixteen\n", "tail"}) {
            std::this_thread::sleep_for(milliseconds(10));
            (void)!write(pair.peer, piece, strlen(piece));
        }
        shutdown(pair.peer, SHUT_WR);
    });
    tn_uchar line[64];
    std::vector<std::string> got;
    while (tn_input_buffer_read_line(&in.buffer, line, sizeof line)) got.push_back(reinterpret_cast<char *>(line));
    writer.join();
    EXPECT_EQ(got, (std::vector<std::string>{"hello", "world and more than sixteen", "tail"}));
    tn_uint32 n = 1;
    EXPECT_TRUE(tn_input_buffer_read(&in.buffer, line, 1, &n));
    EXPECT_EQ(n, 0u) << "the close is seen again";
}

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

TEST_F(SocketBuffer, PartialSendsGoOnUntilASlowPeerHasEverything)
{
    std::string sent(6 << 20, 0), received(6 << 20, 0);
    for (size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i * 131 >> 7);
    std::thread reader([&] {
        std::this_thread::sleep_for(milliseconds(50));
        EXPECT_EQ(recv(pair.peer, received.data(), received.size(), MSG_WAITALL), static_cast<ssize_t>(sent.size()));
    });
    tn_socket_output_buffer out;
    tn_socket_output_buffer_init(&out, storage, 1000, pair.ours, &poll, 5000);
    EXPECT_TRUE(tn_output_buffer_write(&out.buffer, sent.data(), 1)); // held, then sent ahead of the rest
    EXPECT_TRUE(tn_output_buffer_write(&out.buffer, &sent[1], (6 << 20) - 1));
    EXPECT_TRUE(tn_output_buffer_flush(&out.buffer));
    reader.join();
    EXPECT_TRUE(received == sent) << "the bytes arrived altered"; // not EXPECT_EQ: 6 MiB would be printed

    // With a peer that reads nothing, the wait's time-out fails the write.
    tn_socket_output_buffer_set_write_timeout(&out, 100);
    Pair idle{Pair::kind::tcp};
    out.socket = idle.ours;
    tn_elapse_start(&watch);
    EXPECT_FALSE(tn_socket_output_buffer_write_op(block.data(), 64 << 20, &out));
    EXPECT_GE(tn_elapse_total(&watch), 90u);
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

} // namespace
