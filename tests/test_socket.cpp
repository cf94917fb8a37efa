#include <tarnel_util/tn_socket.h>

#include "tn_test_alloc.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

namespace {

using bytes = std::vector<unsigned char>;

tn_ip address(tn_uint32 family, const void *octets, tn_uint16 port = 0)
{
    tn_ip ip;
    tn_ip_init(&ip);
    tn_ip_set2(&ip, family, static_cast<const tn_uchar *>(octets), port);
    return ip;
}
tn_ip loopback(tn_uint32 family = TN_IP_FAMILY_V4, tn_uint16 port = 0)
{
    return address(family, family == TN_IP_FAMILY_V4 ? tn_ip_addr_loopback4() : tn_ip_addr_loopback6(), port);
}
tn_uint16 port_of(tn_socket s)
{
    tn_ip ip;
    tn_uint16 port = 0;
    EXPECT_TRUE(tn_socket_local(s, &ip));
    tn_ip_get2(&ip, nullptr, nullptr, nullptr, &port);
    return port;
}
bool ready(tn_socket s, short events)
{
    pollfd p{s, events, 0};
    return ::poll(&p, 1, 5000) == 1;
}
unsigned char pattern(tn_uint64 i) { return static_cast<unsigned char>(i % 251); }
void expect_pattern(const bytes &got, tn_uint64 from)
{
    for (std::size_t i = 0; i < got.size(); ++i) {
        if (got[i] != pattern(from + i)) {
            ADD_FAILURE() << "byte " << i << " differs, offset " << from + i;
            return;
        }
    }
}

// A TCP connection over loopback made the library's way.
struct Connection {
    tn_socket listener = -1, client = -1, server = -1;
    tn_ip peer{};
    explicit Connection(tn_uint32 family = TN_IP_FAMILY_V4) { open(family); }
    void open(tn_uint32 family)
    {
        tn_ip here = loopback(family);
        ASSERT_TRUE(tn_socket_tcp(&listener, &here) && tn_socket_bind(listener, &here) &&
                    tn_socket_listen(listener, 4));
        tn_ip there = loopback(family, port_of(listener));
        ASSERT_TRUE(tn_socket_tcp(&client, &there));
        if (!tn_socket_connect(client, &there)) {
            ASSERT_EQ(tn_socket_get_last_error(), TN_SOCKET_ERROR_WOULD_BLOCK);
        }
        ASSERT_TRUE(ready(listener, POLLIN));
        ASSERT_TRUE(tn_socket_accept(listener, &server, &peer));
        ASSERT_TRUE(ready(client, POLLOUT));
    }
    ~Connection()
    {
        for (tn_socket s : {listener, client, server}) EXPECT_TRUE(tn_socket_close(s));
    }
};

// Sends the pattern until the socket takes no more; returns how much it took.
tn_uint64 fill(tn_socket s)
{
    bytes block(65536);
    for (tn_uint64 total = 0;;) {
        for (std::size_t i = 0; i < block.size(); ++i) block[i] = pattern(total + i);
        tn_uint32 count = 0xDEADBEEF;
        if (!tn_socket_send(s, block.data(), static_cast<tn_uint32>(block.size()), &count)) {
            EXPECT_EQ(tn_socket_get_last_error(), TN_SOCKET_ERROR_WOULD_BLOCK);
            EXPECT_EQ(count, 0xDEADBEEF) << "the count is not written on failure";
            return total;
        }
        total += count;
    }
}

// Receives exactly n bytes, waiting as needed.
bytes receive(tn_socket s, tn_uint64 n)
{
    bytes got(n);
    for (tn_uint64 have = 0; have < n;) {
        tn_uint32 count = 0;
        bool ok = tn_socket_recv(s, got.data() + have, static_cast<tn_uint32>(n - have), &count);
        if (ok ? count == 0 : tn_socket_get_last_error() != TN_SOCKET_ERROR_WOULD_BLOCK || !ready(s, POLLIN)) {
            ADD_FAILURE() << "the stream ended or stalled after " << have << " bytes";
            break;
        }
        have += ok ? count : 0;
    }
    return got;
}

// An unlinked temporary file of the pattern, standing at its start.
struct PatternFile {
    int fd = -1;
    tn_uint64 size;
    explicit PatternFile(tn_uint64 n) : size(n)
    {
        char name[] = "/tmp/tn_socket_XXXXXX";
        fd = mkstemp(name);
        unlink(name);
        bytes content(n);
        for (tn_uint64 i = 0; i < n; ++i) content[i] = pattern(i);
        EXPECT_EQ(write(fd, content.data(), n), static_cast<ssize_t>(n));
        lseek(fd, 0, SEEK_SET);
    }
    ~PatternFile() { close(fd); }
    tn_uint64 where() const { return static_cast<tn_uint64>(lseek(fd, 0, SEEK_CUR)); }
};

class Socket : public tn_test::AllocTest {};

TEST_F(Socket, NonBlockingCloseOnExecAndWouldBlock)
{
    for (tn_uint32 family : {TN_IP_FAMILY_V4, TN_IP_FAMILY_V6}) {
        SCOPED_TRACE(family == TN_IP_FAMILY_V4 ? "IPv4" : "IPv6");
        Connection c(family);
        tn_ip here = loopback(family), mine, theirs;
        tn_socket udp = -1;
        ASSERT_TRUE(tn_socket_udp(&udp, &here));
        for (tn_socket s : {c.listener, c.client, c.server, udp}) {
            EXPECT_TRUE(fcntl(s, F_GETFL) & O_NONBLOCK) << s;
            EXPECT_TRUE(fcntl(s, F_GETFD) & FD_CLOEXEC) << s;
        }
        EXPECT_TRUE(tn_socket_close(udp));
        ASSERT_TRUE(tn_socket_local(c.client, &mine) && tn_socket_remote(c.server, &theirs));
        EXPECT_TRUE(tn_ip_equal(&c.peer, &mine) && tn_ip_equal(&theirs, &mine));

        tn_socket none = 123;
        EXPECT_FALSE(tn_socket_accept(c.listener, &none, nullptr));
        EXPECT_EQ(tn_socket_get_last_error(), TN_SOCKET_ERROR_WOULD_BLOCK);
        EXPECT_EQ(none, -1);
        tn_uint32 count = 77;
        EXPECT_FALSE(tn_socket_recv(c.server, &none, 1, &count));
        EXPECT_EQ(tn_socket_get_last_error(), TN_SOCKET_ERROR_WOULD_BLOCK);
        EXPECT_EQ(count, 77u);
        EXPECT_TRUE(tn_socket_ndelay_off(c.server));
        EXPECT_FALSE(fcntl(c.server, F_GETFL) & O_NONBLOCK);
        EXPECT_TRUE(tn_socket_ndelay_on(c.server));
        EXPECT_TRUE(fcntl(c.server, F_GETFL) & O_NONBLOCK);
    }
}

TEST_F(Socket, ConnectionRefusedAgainstAClosedPort)
{
    tn_ip here = loopback();
    tn_socket s = -1;
    ASSERT_TRUE(tn_socket_tcp(&s, &here) && tn_socket_bind(s, &here));
    const tn_ip there = loopback(TN_IP_FAMILY_V4, port_of(s));
    tn_socket_close(s);
    // Blocking, so that the refusal comes from the call itself.
    ASSERT_TRUE(tn_socket_tcp(&s, &there) && tn_socket_ndelay_off(s));
    EXPECT_FALSE(tn_socket_connect(s, &there));
    EXPECT_EQ(tn_socket_get_last_error(), TN_SOCKET_ERROR_REFUSED);
    tn_socket_close(s);
}

TEST_F(Socket, PartialSendsUntilWouldBlockThenEverythingArrives)
{
    Connection c;
    tn_socket_try_reserve_out(c.client, 16384);
    tn_socket_try_reserve_in(c.server, 16384);
    const tn_uint64 sent = fill(c.client);
    ASSERT_GT(sent, 0u);
    expect_pattern(receive(c.server, sent), 0);
    tn_uint32 count = 0;
    EXPECT_TRUE(tn_socket_send(c.client, "x", 1, &count));
    EXPECT_EQ(count, 1u);
}

// Twice: with SIGPIPE deliverable, and with the host blocking it and one of
// its own pending, which must stay pending, once, and stay blocked.
TEST_F(Socket, PeerCloseIsEndOfStreamAndWritingToItRaisesNoSignal)
{
    auto old = std::signal(SIGPIPE, SIG_DFL); // a SIGPIPE would end the test run here
    for (bool host_blocks : {false, true}) {
        SCOPED_TRACE(host_blocks ? "host blocks SIGPIPE, one pending" : "SIGPIPE deliverable");
        sigset_t pipe, mask_before, mask_after, pending;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        if (host_blocks) {
            pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
            pthread_kill(pthread_self(), SIGPIPE);
        }
        pthread_sigmask(SIG_BLOCK, nullptr, &mask_before);
        {
            Connection c;
            ASSERT_TRUE(tn_socket_shutdown(c.server, 1)); // its sending side
            ASSERT_TRUE(ready(c.client, POLLIN));
            for (int i = 0; i < 2; ++i) {
                tn_uint32 count = 5;
                EXPECT_TRUE(tn_socket_recv(c.client, &count, 1, &count));
                EXPECT_EQ(count, 0u) << "read " << i;
            }
            EXPECT_TRUE(tn_socket_close(c.server));
            c.server = -1;
            bool failed = false;
            for (int i = 0; i < 200 && !failed; ++i) {
                failed = !tn_socket_send(c.client, "data", 4, nullptr);
                if (!failed) usleep(1000);
            }
            ASSERT_TRUE(failed) << "sending to a closed peer never failed";
            EXPECT_EQ(tn_socket_get_last_error(), TN_SOCKET_ERROR_OTHER);
            PatternFile f(100000);
            tn_uint64 count = 99;
            EXPECT_FALSE(tn_socket_send_file(c.client, f.fd, 1, 50000, &count));
            EXPECT_EQ(count, 0u);
        }
        pthread_sigmask(SIG_BLOCK, nullptr, &mask_after);
        EXPECT_EQ(sigismember(&mask_before, SIGPIPE), sigismember(&mask_after, SIGPIPE));
        sigpending(&pending);
        EXPECT_EQ(sigismember(&pending, SIGPIPE), host_blocks ? 1 : 0);
        if (host_blocks) {
            const timespec zero{0, 0};
            EXPECT_EQ(sigtimedwait(&pipe, nullptr, &zero), SIGPIPE);
            EXPECT_EQ(sigtimedwait(&pipe, nullptr, &zero), -1) << "only the host's own SIGPIPE was pending";
            pthread_sigmask(SIG_UNBLOCK, &pipe, nullptr);
        }
    }
    std::signal(SIGPIPE, old);
}

TEST_F(Socket, SendFileResumesWhereTheSocketStopped)
{
    PatternFile f(3 << 20);
    Connection c;
    tn_socket_try_reserve_out(c.client, 32768);
    tn_socket_try_reserve_in(c.server, 32768);

    // The peer does not read yet: the first call stops short, with success.
    tn_uint64 position = (1 << 20) + 123, length = 3 << 19, count = 0;
    const tn_uint64 start = position, total = length;
    ASSERT_TRUE(tn_socket_send_file(c.client, f.fd, position, length, &count));
    ASSERT_LT(count, length);
    EXPECT_EQ(f.where(), position + count) << "the file stands behind the last byte sent";
    bytes got;
    std::thread reader([&] { got = receive(c.server, total); });
    while (length -= count, position += count, length != 0) {
        ASSERT_TRUE(ready(c.client, POLLOUT));
        ASSERT_TRUE(tn_socket_send_file(c.client, f.fd, position, length, &count));
        ASSERT_NE(count, 0u) << "a writable socket took nothing at " << position;
    }
    reader.join();
    expect_pattern(got, start);

    // A file shorter than the length ends with its size as the count.
    ASSERT_TRUE(tn_socket_send_file(c.client, f.fd, f.size - 100, 1000, &count));
    EXPECT_EQ(count, 100u);
    expect_pattern(receive(c.server, 100), f.size - 100);
    // A length of 0 still seeks and zeroes the count; position 0 does not seek.
    ASSERT_TRUE(tn_socket_send_file(c.client, f.fd, 5000, 0, &count));
    EXPECT_EQ(count + f.where(), 5000u);
    ASSERT_TRUE(tn_socket_send_file(c.client, f.fd, 0, 20, &count));
    EXPECT_EQ(count, 20u);
    expect_pattern(receive(c.server, 20), 5000);
}

TEST_F(Socket, SendFileAtPositionZeroThatSentNothingResumesFromTheStart)
{
    PatternFile f(20000);
    Connection c;
    const tn_uint64 filled = fill(c.client);
    tn_uint64 count = 5, done = 0;
    ASSERT_TRUE(tn_socket_send_file(c.client, f.fd, 0, f.size, &count));
    EXPECT_EQ(count + f.where(), 0u);
    receive(c.server, filled);
    for (; done < f.size; done += count) {
        ASSERT_TRUE(ready(c.client, POLLOUT));
        ASSERT_TRUE(tn_socket_send_file(c.client, f.fd, done, f.size - done, &count));
    }
    expect_pattern(receive(c.server, f.size), 0);
}

TEST_F(Socket, SendFileCopiesWhereTheKernelCannotSplice)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    bytes content(20000);
    for (std::size_t i = 0; i < content.size(); ++i) content[i] = pattern(i);
    ASSERT_EQ(write(fds[1], content.data(), content.size()), static_cast<ssize_t>(content.size()));
    close(fds[1]);
    Connection c;
    tn_uint64 count = 0;
    EXPECT_TRUE(tn_socket_send_file(c.client, fds[0], 0, 30000, &count));
    EXPECT_EQ(count, 20000u); // the end of the pipe ends it
    expect_pattern(receive(c.server, 20000), 0);
    EXPECT_FALSE(tn_socket_send_file(c.client, fds[0], 10, 5, &count)) << "a pipe cannot seek";
    close(fds[0]);
}

TEST_F(Socket, SendFileThatFailsMidwayCountsWholeChunksOnly)
{
    // A blocking stream whose reader goes away while the call is sending:
    // the call fails, and of what went out only whole 8192-byte chunks
    // count, on the zero-copy road (a file) and the copying one (a pipe).
    const tn_uint64 length = 200000;
    for (bool from_pipe : {false, true}) {
        SCOPED_TRACE(from_pipe ? "pipe" : "file");
        PatternFile f(length);
        int source = f.fd, fds[2] = {-1, -1}, pair[2];
        if (from_pipe) {
            ASSERT_EQ(pipe(fds), 0);
            ASSERT_GE(fcntl(fds[1], F_SETPIPE_SZ, 1 << 18), 1 << 18);
            ASSERT_EQ(splice(f.fd, nullptr, fds[1], nullptr, length, 0), static_cast<ssize_t>(length));
            source = fds[0];
        }
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
        const int small = 4096;
        setsockopt(pair[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
        tn_bool ok = 1;
        tn_uint64 count = 0;
        tn_uint32 error = 0;
        std::thread sender([&] {
            ok = tn_socket_send_file(pair[0], source, 0, length, &count);
            error = tn_socket_get_last_error();
        });
        bytes got(10000);
        EXPECT_EQ(recv(pair[1], got.data(), got.size(), MSG_WAITALL), 10000);
        close(pair[1]);
        sender.join();
        EXPECT_FALSE(ok);
        EXPECT_EQ(error, TN_SOCKET_ERROR_OTHER);
        EXPECT_EQ(count % 8192, 0u) << count;
        EXPECT_GE(count, 8192u); // the reader had a whole chunk
        EXPECT_LT(count, length);
        for (int fd : {pair[0], fds[0], fds[1]}) close(fd);
    }
}

TEST_F(Socket, LastErrorBelongsToTheThread)
{
    Connection c;
    char byte;
    ASSERT_FALSE(tn_socket_recv(c.server, &byte, 1, nullptr));
    ASSERT_EQ(tn_socket_get_last_error(), TN_SOCKET_ERROR_WOULD_BLOCK);
    std::thread other([] {
        EXPECT_EQ(tn_socket_get_last_error(), TN_SOCKET_ERROR_NONE);
        EXPECT_FALSE(tn_socket_listen(-1, 1));
        EXPECT_EQ(tn_socket_get_last_error(), TN_SOCKET_ERROR_OTHER);
        tn_ip ip;
        EXPECT_TRUE(tn_ip_set(&ip, tn_ip_str_loopback4(), 1)); // the resolver's 0 is kept too
        EXPECT_EQ(tn_socket_get_last_error(), TN_SOCKET_ERROR_NONE);
    });
    other.join();
    EXPECT_EQ(tn_socket_get_last_error(), TN_SOCKET_ERROR_WOULD_BLOCK);
}

TEST_F(Socket, DatagramsBindReuseAndFindIp)
{
    tn_ip here = loopback(), from, sender;
    const tn_ip any = address(TN_IP_FAMILY_V4, tn_ip_addr_any4());
    tn_socket a = -1, b = -1, c = -1, wild = -1;
    ASSERT_TRUE(tn_socket_udp(&a, &here) && tn_socket_bind_reuse(a, &here));
    const tn_ip shared = loopback(TN_IP_FAMILY_V4, port_of(a));
    ASSERT_TRUE(tn_socket_udp(&b, &here));
    EXPECT_FALSE(tn_socket_bind(b, &shared));
    EXPECT_EQ(tn_socket_get_last_error(), TN_SOCKET_ERROR_ADDRESS_IN_USE);
    EXPECT_TRUE(tn_socket_bind_reuse(b, &shared));

    ASSERT_TRUE(tn_socket_udp(&c, &here) && tn_socket_bind(c, &here) && tn_socket_bcast_on(c));
    tn_uint32 count = 0;
    ASSERT_TRUE(tn_socket_send_to(c, "hello", 5, &shared, &count));
    EXPECT_EQ(count, 5u);
    pollfd both[2] = {{a, POLLIN, 0}, {b, POLLIN, 0}}; // which one gets it is the kernel's choice
    ASSERT_EQ(::poll(both, 2, 5000), 1);
    char text[8] = {};
    ASSERT_TRUE(tn_socket_recv_from(both[0].revents ? a : b, text, sizeof text, &from, &count));
    EXPECT_EQ(count, 5u);
    EXPECT_STREQ(text, "hello");
    ASSERT_TRUE(tn_socket_local(c, &sender));
    EXPECT_TRUE(tn_ip_equal(&from, &sender));

    ASSERT_TRUE(tn_socket_udp(&wild, &any) && tn_socket_bind(wild, &any));
    tn_socket_array sockets;
    tn_array_init(&sockets, sizeof(tn_socket));
    const tn_ip elsewhere = address(TN_IP_FAMILY_V4, "\x0a\x01\x02\x03"), v6 = loopback(TN_IP_FAMILY_V6);
    EXPECT_EQ(tn_socket_array_find_ip(&sockets, &here), 0u);
    const tn_socket order[] = {-1, a, wild};
    ASSERT_TRUE(tn_array_catn(&sockets, order, 3));
    EXPECT_EQ(tn_socket_array_find_ip(&sockets, &here), 1u); // the port does not count
    EXPECT_EQ(tn_socket_array_find_ip(&sockets, &elsewhere), 2u);
    EXPECT_EQ(tn_socket_array_find_ip(&sockets, &v6), 2u); // a wildcard serves any family
    tn_array_remove_end(&sockets);
    EXPECT_EQ(tn_socket_array_find_ip(&sockets, &elsewhere), 2u);
    tn_array_free(&sockets);
    for (tn_socket s : {a, b, c, wild}) tn_socket_close(s);
}

TEST_F(Socket, ReserveAndHostName)
{
    tn_ip here = loopback();
    tn_socket s = -1;
    ASSERT_TRUE(tn_socket_tcp(&s, &here));
    auto size = [&] {
        int value = 0;
        socklen_t n = sizeof value;
        getsockopt(s, SOL_SOCKET, SO_RCVBUF, &value, &n);
        return value;
    };
    const int before = size();
    tn_socket_try_reserve_in(s, 1023);
    EXPECT_EQ(size(), before) << "below 1024 nothing is set";
    tn_socket_try_reserve_in(s, 4096);
    EXPECT_NE(size(), before);
    tn_socket_try_reserve_out(-1, 1u << 31); // refused all the way down, and it ends
    EXPECT_EQ(tn_socket_get_last_error(), TN_SOCKET_ERROR_OTHER);
    EXPECT_TRUE(tn_socket_close(s));
    EXPECT_TRUE(tn_socket_close(-1));

    tn_uchar name[256];
    std::memset(name, 0xFF, sizeof name);
    ASSERT_TRUE(tn_hostname_get(name));
    EXPECT_GT(std::strlen(reinterpret_cast<char *>(name)), 0u);
}

} // namespace
