// The socket and file bindings of the buffers, on real loopback sockets and
// files in a temporary directory.

#include <tarnel_util/tn_input_buffer.h>
#include <tarnel_util/tn_output_buffer.h>
#include <tarnel_util/tn_time.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;

long long ms_since(clock_type::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(clock_type::now() - start).count();
}

// A connected TCP pair on loopback; the library's end is non-blocking.
struct Pair {
    int ours = -1, peer = -1;
    Pair()
    {
        int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t n = sizeof a;
        bind(listener, reinterpret_cast<sockaddr *>(&a), n);
        listen(listener, 1);
        getsockname(listener, reinterpret_cast<sockaddr *>(&a), &n);
        peer = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        connect(peer, reinterpret_cast<sockaddr *>(&a), n);
        ours = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        close(listener);
    }
    ~Pair()
    {
        close(ours);
        if (peer >= 0) close(peer);
    }
    void close_peer()
    {
        close(peer);
        peer = -1;
    }
};

class SocketBuffer : public ::testing::Test {
protected:
    Pair pair;
    tn_poll poll{};
    std::vector<tn_uchar> storage = std::vector<tn_uchar>(4096);
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
    tn_socket_input_buffer_init(&in, storage.data(), 16, pair.ours, &poll, 2000);
    std::thread writer([&] {
        for (const char *piece : {"hel", "lo\r", "\nwor", "ld and more than sixteen\n", "tail"}) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            (void)!write(pair.peer, piece, strlen(piece));
        }
        pair.close_peer();
    });
    tn_uchar line[64];
    std::vector<std::string> got;
    while (tn_input_buffer_read_line(&in.buffer, line, sizeof line)) got.push_back(reinterpret_cast<char *>(line));
    writer.join();
    EXPECT_EQ(got, (std::vector<std::string>{"hello", "world and more than sixteen", "tail"}));
    tn_uint32 n = 1;
    char c;
    EXPECT_TRUE(tn_input_buffer_read(&in.buffer, &c, 1, &n));
    EXPECT_EQ(n, 0u) << "the close is seen again";
}

TEST_F(SocketBuffer, AReadWaitsForItsTimeOutOnlyOnce)
{
    tn_socket_input_buffer in;
    tn_socket_input_buffer_init(&in, storage.data(), 64, pair.ours, &poll, 150);
    tn_uchar line[16];
    auto start = clock_type::now();
    EXPECT_FALSE(tn_input_buffer_read_line(&in.buffer, line, sizeof line));
    const long long waited = ms_since(start);
    EXPECT_GE(waited, 140);
    EXPECT_LT(waited, 2000);

    tn_socket_input_buffer_set_read_timeout(&in, 0);
    start = clock_type::now();
    EXPECT_FALSE(tn_input_buffer_read_line(&in.buffer, line, sizeof line));
    EXPECT_LT(ms_since(start), 100) << "a time-out of 0 looks once";
}

TEST_F(SocketBuffer, ACancelFromAnotherThreadEndsABlockedReadAndABlockedWrite)
{
    for (bool writing : {false, true}) {
        SCOPED_TRACE(writing ? "write" : "read");
        std::thread canceller([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            tn_poll_cancel(&poll);
        });
        auto start = clock_type::now();
        if (writing) {
            tn_socket_output_buffer out;
            tn_socket_output_buffer_init(&out, storage.data(), 4096, pair.ours, &poll, -1);
            std::vector<char> block(64 << 20, 'x');
            EXPECT_FALSE(tn_socket_output_buffer_write_op(block.data(), static_cast<tn_uint32>(block.size()), &out));
        } else {
            tn_socket_input_buffer in;
            tn_socket_input_buffer_init(&in, storage.data(), 4096, pair.ours, &poll, -1);
            tn_uint32 n;
            char c;
            EXPECT_FALSE(tn_input_buffer_read(&in.buffer, &c, 1, &n));
        }
        canceller.join();
        EXPECT_LT(ms_since(start), 1500) << "one slice after the cancel";
        tn_poll_reset(&poll);
    }
}

TEST_F(SocketBuffer, PartialSendsGoOnUntilASlowPeerHasEverything)
{
    std::string sent(6 << 20, 0);
    for (size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i * 131 >> 7);
    std::string received;
    std::thread reader([&] {
        char piece[65536];
        ssize_t k;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        while ((k = read(pair.peer, piece, sizeof piece)) > 0) received.append(piece, static_cast<size_t>(k));
    });
    tn_socket_output_buffer out;
    tn_socket_output_buffer_init(&out, storage.data(), 1000, pair.ours, &poll, 5000);
    for (size_t at = 0; at < sent.size(); at += 70001)
        ASSERT_TRUE(tn_output_buffer_write(&out.buffer, sent.data() + at, static_cast<tn_uint32>(std::min<size_t>(70001, sent.size() - at))));
    ASSERT_TRUE(tn_output_buffer_flush(&out.buffer));
    shutdown(pair.ours, SHUT_WR);
    reader.join();
    EXPECT_TRUE(received == sent);

    // With a peer that reads nothing, the wait's time-out fails the write.
    tn_socket_output_buffer_set_write_timeout(&out, 100);
    Pair idle;
    out.socket = idle.ours;
    const std::vector<char> block(64 << 20, 'x');
    auto start = clock_type::now();
    EXPECT_FALSE(tn_socket_output_buffer_write_op(block.data(), static_cast<tn_uint32>(block.size()), &out));
    EXPECT_GE(ms_since(start), 90);
}

class FileBuffer : public ::testing::Test {
protected:
    std::string dir, path;
    void SetUp() override
    {
        char name[] = "/tmp/tn_buffer_XXXXXX";
        ASSERT_TRUE(mkdtemp(name));
        dir = name;
        path = dir + "/data";
    }
    void TearDown() override
    {
        unlink(path.c_str());
        rmdir(dir.c_str());
    }
};

TEST_F(FileBuffer, PositionsSkipsAndWholeWrites)
{
    std::string text;
    for (int i = 0; i < 10000; ++i) text += static_cast<char>('a' + i % 26);
    int fd = open(path.c_str(), O_CREAT | O_RDWR | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    tn_uchar block[4096];
    tn_file_output_buffer out;
    tn_file_output_buffer_init(&out, block, 300, fd);
    EXPECT_TRUE(tn_output_buffer_write(&out.buffer, text.data(), static_cast<tn_uint32>(text.size())));
    EXPECT_TRUE(tn_output_buffer_flush(&out.buffer));
    lseek(fd, 0, SEEK_SET);

    tn_file_input_buffer in;
    tn_file_input_buffer_init(&in, block, sizeof block, fd);
    char ten[10];
    tn_uint64 at = 0;
    EXPECT_TRUE(tn_input_buffer_fill(&in.buffer, ten, 10));
    EXPECT_TRUE(tn_file_input_buffer_get_pos(&in, &at));
    EXPECT_EQ(at, 10u);
    EXPECT_TRUE(tn_file_input_buffer_skip(&in, 5000)) << "past the held bytes, by seeking";
    EXPECT_TRUE(tn_file_input_buffer_get_pos(&in, &at));
    EXPECT_EQ(at, 5010u);
    EXPECT_TRUE(tn_input_buffer_fill(&in.buffer, ten, 1));
    EXPECT_EQ(ten[0], text[5010]);
    EXPECT_TRUE(tn_file_input_buffer_skip(&in, 10000 - 5011)) << "exactly to the end";
    EXPECT_FALSE(tn_file_input_buffer_skip(&in, 1)) << "past the end";
    close(fd);
}

} // namespace
