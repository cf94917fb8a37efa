#include <tarnel_util/tn_socket.h>
#include "support/alloc.h"
#include "support/socket_pair.h"
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <csignal>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {
using bytes = std::vector<unsigned char>;

tn_ip ip_of(const char *text)
{
    tn_ip ip;
    EXPECT_TRUE(tn_ip_set(&ip, reinterpret_cast<const tn_uchar *>(text), 0)) << text;
    return ip;
}
bool ready(tn_socket s, short events)
{
    pollfd p{s, events, 0};
    return ::poll(&p, 1, 5000) == 1;
}

// Every byte stream and file of these tests: byte i is i % 251.
const bytes pattern = [] {
    bytes b(4 << 20);
    for (std::size_t i = 0; i < b.size(); ++i) b[i] = static_cast<unsigned char>(i % 251);
    return b;
}();

// A TCP connection over loopback made the library's way.
struct Connection {
    tn_socket listener = -1, client = -1, server = -1;
    tn_ip peer{};
    explicit Connection(const char *host = "127.0.0.1") { open(ip_of(host)); }
    void open(const tn_ip here)
    {
        ASSERT_TRUE(tn_socket_tcp(&listener, &here));
        ASSERT_TRUE(tn_socket_bind(listener, &here));
        ASSERT_TRUE(tn_socket_listen(listener, 4));
        tn_ip there;
        ASSERT_TRUE(tn_socket_local(listener, &there));
        ASSERT_TRUE(tn_socket_tcp(&client, &there));
        if (!tn_socket_connect(client, &there)) {
            ASSERT_EQ(tn_socket_get_last_error(), TN_SOCKET_ERROR_WOULD_BLOCK);
        }
        ASSERT_TRUE(ready(listener, POLLIN));
        ASSERT_TRUE(tn_socket_accept(listener, &server, &peer));
        ASSERT_TRUE(ready(client, POLLOUT));
    }
    ~Connection() { for (tn_socket s : {listener, client, server}) EXPECT_TRUE(tn_socket_close(s)); }
};

// Receives n bytes, blocking (which s stays) for ten seconds at most, and
// expects them to be the pattern from offset from on.
void expect_pattern(tn_socket s, tn_uint64 n, tn_uint64 from)
{
    bytes got(n);
    const timeval patience{10, 0};
    setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    EXPECT_TRUE(tn_socket_ndelay_off(s));
    EXPECT_EQ(recv(s, got.data(), n, MSG_WAITALL), static_cast<ssize_t>(n)) << "the stream ended or stalled";
    EXPECT_TRUE(std::equal(got.begin(), got.end(), pattern.begin() + from)) << n << " bytes from " << from;
}

// An unlinked temporary file of the pattern, shared by the tests.
constexpr tn_uint64 size = 3 << 20;
const int file = [] {
    char name[] = "/tmp/tn_socket_XXXXXX";
    const int fd = mkstemp(name);
    unlink(name);
    return pwrite(fd, pattern.data(), size, 0) == static_cast<ssize_t>(size) ? fd : -1;
}();
tn_uint64 where() { return static_cast<tn_uint64>(lseek(file, 0, SEEK_CUR)); }

class Socket : public tn_test::AllocTest {};

// The last error belongs to the calling thread; a port nobody listens on refuses a blocking connect.
TEST_F(Socket, NonBlockingCloseOnExecWouldBlockAndPerThreadErrors)
{
    tn_ip closed;
    for (const char *host : {"127.0.0.1", "::1"}) {
        SCOPED_TRACE(host);
        Connection c(host);
        tn_ip mine, theirs;
        tn_socket none = 123;
        for (tn_socket s : {c.listener, c.client, c.server}) {
            EXPECT_TRUE(fcntl(s, F_GETFL) & O_NONBLOCK) << s;
            EXPECT_TRUE(fcntl(s, F_GETFD) & FD_CLOEXEC) << s;
        }
        ASSERT_TRUE(tn_socket_local(c.client, &mine));
        ASSERT_TRUE(tn_socket_remote(c.server, &theirs));
        ASSERT_TRUE(tn_socket_local(c.listener, &closed));
        EXPECT_TRUE(tn_ip_equal(&c.peer, &mine)) << "accept's peer";
        EXPECT_TRUE(tn_ip_equal(&theirs, &mine)) << "remote";
        EXPECT_FALSE(tn_socket_accept(c.listener, &none, nullptr));
        EXPECT_EQ(tn_socket_get_last_error(), TN_SOCKET_ERROR_WOULD_BLOCK);
        tn_uint32 count = 77;
        EXPECT_FALSE(tn_socket_recv(c.server, &mine, 1, &count));
        EXPECT_EQ(tn_socket_get_last_error(), TN_SOCKET_ERROR_WOULD_BLOCK);
        EXPECT_EQ(none, -1) << "a failed accept stores -1";
        EXPECT_EQ(count, 77u) << "a failed receive leaves the count";
    }
    tn_socket s = -1;
    ASSERT_TRUE(tn_socket_tcp(&s, &closed));
    ASSERT_TRUE(tn_socket_ndelay_off(s));
    EXPECT_FALSE(tn_socket_connect(s, &closed));
    EXPECT_EQ(tn_socket_get_last_error(), TN_SOCKET_ERROR_REFUSED);
    std::thread([] {
        EXPECT_EQ(tn_socket_get_last_error(), TN_SOCKET_ERROR_NONE);
        EXPECT_FALSE(tn_socket_listen(-1, 1));
        EXPECT_EQ(tn_socket_get_last_error(), TN_SOCKET_ERROR_OTHER);
    }).join();
    EXPECT_EQ(tn_socket_get_last_error(), TN_SOCKET_ERROR_REFUSED);
    tn_socket_close(s);
}

TEST_F(Socket, PartialSendsAndSendFileResumeWhereAFullSocketStopped)
{
    Connection c;
    tn_socket_try_reserve_out(c.client, 32768);
    tn_socket_try_reserve_in(c.server, 32768);
    tn_uint64 filled = 0, count = 5;
    tn_uint32 taken = 0;
    for (tn_uint32 n : {65536u, 1u})
        while (tn_socket_send(c.client, pattern.data() + filled, n, &taken)) filled += taken;
    EXPECT_EQ(tn_socket_get_last_error(), TN_SOCKET_ERROR_WOULD_BLOCK);
    // Nothing fits: success, a count of 0, and the file where it stood, so
    // that a resume at position 0 goes on from the start. The copying road
    // holds a chunk read from a pipe then, which cannot be put back behind
    // it: that call fails rather than report success with those bytes gone.
    lseek(file, 0, SEEK_SET);
    ASSERT_TRUE(tn_socket_send_file(c.client, file, 0, size, &count));
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(where(), 0u) << "the file moved though nothing was sent";
    int fds[2];
    ASSERT_TRUE(pipe(fds) == 0 && write(fds[1], pattern.data(), 100) == 100);
    count = 5;
    EXPECT_FALSE(tn_socket_send_file(c.client, fds[0], 0, 100, &count));
    EXPECT_EQ(tn_socket_get_last_error(), TN_SOCKET_ERROR_OTHER);
    EXPECT_EQ(count, 0u);
    for (int fd : fds) close(fd);
    expect_pattern(c.server, filled, 0);
    // The peer does not read yet: the first call stops short, with success.
    const tn_uint64 start = (1 << 20) + 123, total = 3 << 19;
    ASSERT_TRUE(tn_socket_send_file(c.client, file, start, total, &count));
    ASSERT_LT(count, total);
    EXPECT_EQ(where(), start + count) << "the file stands behind the last byte sent";
    std::thread reader([&] { expect_pattern(c.server, total, start); });
    for (tn_uint64 done = count; done < total; done += count) {
        ASSERT_TRUE(ready(c.client, POLLOUT));
        ASSERT_TRUE(tn_socket_send_file(c.client, file, start + done, total - done, &count));
        ASSERT_NE(count, 0u) << "a writable socket took nothing at " << start + done;
    }
    reader.join();
    // The end of a file, or of a pipe (copied, as it cannot splice, and
    // sent from where it stands, as position 0 means), ends a call.
    EXPECT_TRUE(tn_socket_send_file(c.client, file, size - 100, 1000, &count));
    EXPECT_EQ(count, 100u);
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(write(fds[1], pattern.data() + size, 20000), 20000);
    close(fds[1]);
    EXPECT_TRUE(tn_socket_send_file(c.client, fds[0], 0, 30000, &count));
    EXPECT_EQ(count, 20000u);
    expect_pattern(c.server, 20100, size - 100);
    EXPECT_FALSE(tn_socket_send_file(c.client, fds[0], 10, 5, &count)) << "a pipe cannot seek";
    close(fds[0]);
}

// Twice: with SIGPIPE deliverable (it would end the run), and with the host
// blocking it and one of its own pending, which must stay pending, once.
TEST_F(Socket, PeerCloseIsEndOfStreamAndWritingToItRaisesNoSignal)
{
    auto old = std::signal(SIGPIPE, SIG_DFL);
    sigset_t pipe, mask_before, mask_after, pending;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    for (bool host_blocks : {false, true}) {
        SCOPED_TRACE(host_blocks ? "host blocks SIGPIPE, one pending" : "SIGPIPE deliverable");
        pthread_sigmask(host_blocks ? SIG_BLOCK : SIG_UNBLOCK, &pipe, nullptr); // whatever earlier tests left
        if (host_blocks) pthread_kill(pthread_self(), SIGPIPE);
        pthread_sigmask(SIG_BLOCK, nullptr, &mask_before);
        {
            Connection c;
            ASSERT_TRUE(tn_socket_shutdown(c.server, 1)); // its sending side
            ASSERT_TRUE(ready(c.client, POLLIN));
            tn_uint32 count = 5;
            EXPECT_TRUE(tn_socket_recv(c.client, &count, 1, &count));
            EXPECT_EQ(count, 0u) << "end of stream";
            EXPECT_TRUE(tn_socket_close(std::exchange(c.server, -1)));
            int tries = 0;
            while (tn_socket_send(c.client, "data", 4, nullptr) && ++tries < 200) usleep(1000);
            ASSERT_LT(tries, 200) << "sending to a closed peer never failed";
            EXPECT_EQ(tn_socket_get_last_error(), TN_SOCKET_ERROR_OTHER);
            tn_uint64 sent = 99;
            EXPECT_FALSE(tn_socket_send_file(c.client, file, 1, 50000, &sent));
            EXPECT_EQ(sent, 0u);
        }
        pthread_sigmask(SIG_BLOCK, nullptr, &mask_after);
        EXPECT_EQ(sigismember(&mask_before, SIGPIPE), sigismember(&mask_after, SIGPIPE));
        sigpending(&pending);
        EXPECT_EQ(sigismember(&pending, SIGPIPE), host_blocks ? 1 : 0);
        const timespec zero{0, 0};
        if (host_blocks) {
            EXPECT_EQ(sigtimedwait(&pipe, nullptr, &zero), SIGPIPE) << "the host's SIGPIPE stays";
        }
        EXPECT_EQ(sigtimedwait(&pipe, nullptr, &zero), -1) << "only the host's own SIGPIPE was pending";
        pthread_sigmask(SIG_UNBLOCK, &pipe, nullptr);
    }
    std::signal(SIGPIPE, old);
}

// A blocking stream whose reader takes 10000 bytes and goes away: the call
// fails, and of what went out only whole 8192-byte chunks count (one at least),
// on the zero-copy road (from 1, so that the kernel's page-sized steps never
// end on a chunk's end) and on the copying one (a pipe).
TEST_F(Socket, SendFileThatFailsMidwayCountsWholeChunksOnly)
{
    const tn_uint64 length = 200000;
    for (bool from_pipe : {false, true}) {
        SCOPED_TRACE(from_pipe ? "pipe" : "file");
        int fds[2] = {-1, -1};
        if (from_pipe) {
            ASSERT_EQ(pipe(fds), 0);
            ASSERT_GE(fcntl(fds[1], F_SETPIPE_SZ, 1 << 18), 1 << 18);
            ASSERT_EQ(write(fds[1], pattern.data(), length), static_cast<ssize_t>(length));
        }
        tn_test::SocketPair pair;
        const int small = 4096;
        setsockopt(pair.ours, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
        tn_uint64 count = 0;
        tn_uint32 ok = 1, error = 0;
        std::thread sender([&] {
            ok = tn_socket_send_file(pair.ours, from_pipe ? fds[0] : file, from_pipe ? 0 : 1, length, &count);
            error = tn_socket_get_last_error();
        });
        char got[10000];
        EXPECT_EQ(recv(pair.peer, got, sizeof got, MSG_WAITALL), 10000);
        pair.close_peer();
        sender.join();
        EXPECT_FALSE(ok);
        EXPECT_EQ(error, TN_SOCKET_ERROR_OTHER);
        EXPECT_EQ(count % 8192, 0u) << count << ": not whole chunks";
        EXPECT_GE(count, 8192u);
        EXPECT_LT(count, length);
        for (int fd : fds) close(fd);
    }
}

TEST_F(Socket, DatagramsBindReuseAndFindIp)
{
    const tn_ip here = ip_of("127.0.0.1"), any = ip_of("0.0.0.0"), elsewhere = ip_of("10.1.2.3"), v6 = ip_of("::1");
    tn_socket a = -1, b = -1, wild = -1;
    tn_ip shared;
    ASSERT_TRUE(tn_socket_udp(&a, &here));
    ASSERT_TRUE(tn_socket_bind_reuse(a, &here));
    ASSERT_TRUE(tn_socket_local(a, &shared));
    ASSERT_TRUE(tn_socket_udp(&b, &here));
    EXPECT_FALSE(tn_socket_bind(b, &shared));
    EXPECT_EQ(tn_socket_get_last_error(), TN_SOCKET_ERROR_ADDRESS_IN_USE);
    EXPECT_TRUE(tn_socket_bind_reuse(b, &shared));
    tn_uint32 count = 0;
    ASSERT_TRUE(tn_socket_send_to(a, "hello", 5, &shared, &count));
    EXPECT_EQ(count, 5u);
    pollfd both[2] = {{a, POLLIN, 0}, {b, POLLIN, 0}}; // which one gets it is the kernel's choice
    ASSERT_EQ(::poll(both, 2, 5000), 1);
    char text[8];
    tn_ip from{};
    ASSERT_TRUE(tn_socket_recv_from(both[0].revents ? a : b, text, sizeof text, &from, &count));
    EXPECT_EQ(std::string(text, count), "hello");
    EXPECT_TRUE(tn_ip_equal(&from, &shared));
    // The port does not count, a wildcard serves any family, and a socket
    // whose address cannot be read serves nothing.
    ASSERT_TRUE(tn_socket_udp(&wild, &any));
    ASSERT_TRUE(tn_socket_bind(wild, &any));
    tn_socket_array sockets;
    tn_array_init(&sockets, sizeof(tn_socket));
    const tn_socket order[] = {-1, a, wild};
    ASSERT_TRUE(tn_array_catn(&sockets, order, 3));
    EXPECT_EQ(tn_socket_array_find_ip(&sockets, &here), 1u);
    EXPECT_EQ(tn_socket_array_find_ip(&sockets, &elsewhere), 2u);
    EXPECT_EQ(tn_socket_array_find_ip(&sockets, &v6), 2u);
    tn_array_remove_end(&sockets);
    EXPECT_EQ(tn_socket_array_find_ip(&sockets, &elsewhere), 2u);
    tn_array_free(&sockets);
    for (tn_socket s : {a, b, wild}) tn_socket_close(s);
}
} // namespace
