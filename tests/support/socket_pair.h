// A connected stream pair for tests: ours is the end the library gets, peer
// the end the test drives. Local pairs are AF_UNIX and blocking on both
// ends; tcp pairs are a loopback connection whose own end is non-blocking,
// as the library's sockets are.
#ifndef TN_TESTS_SUPPORT_SOCKET_PAIR_H
#define TN_TESTS_SUPPORT_SOCKET_PAIR_H

namespace tn_test {

class SocketPair {
public:
    enum class kind { local, tcp };

    explicit SocketPair(kind k = kind::local);
    ~SocketPair();
    SocketPair(const SocketPair &) = delete;
    SocketPair &operator=(const SocketPair &) = delete;

    // Writes one byte from the peer, making ours readable.
    void send_byte() const;
    // Closes the peer's end, so that ours reads end of stream.
    void close_peer();

    int ours = -1, peer = -1;
};

} // namespace tn_test

#endif
