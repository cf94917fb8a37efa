#include "support/socket_pair.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tn_test {

SocketPair::SocketPair(kind k)
{
    if (k == kind::local) {
        int f[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, f), 0);
        ours = f[0];
        peer = f[1];
        return;
    }
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    auto *address = reinterpret_cast<sockaddr *>(&a);
    socklen_t n = sizeof a;
    EXPECT_EQ(bind(listener, address, n), 0);
    EXPECT_EQ(listen(listener, 1), 0);
    EXPECT_EQ(getsockname(listener, address, &n), 0);
    peer = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(connect(peer, address, n), 0);
    ours = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    close(listener);
}

SocketPair::~SocketPair()
{
    if (ours >= 0) close(ours);
    if (peer >= 0) close(peer);
}

void SocketPair::send_byte() const { ASSERT_EQ(write(peer, "x", 1), 1); }

void SocketPair::close_peer()
{
    close(peer);
    peer = -1;
}

} // namespace tn_test
