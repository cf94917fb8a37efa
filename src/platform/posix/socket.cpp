#include <tarnel_util/tn_socket.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/posix/socket_internal.h"

namespace {

// An errno value, or a resolver code (negative); see the internal header.
thread_local int last_error = 0;

tn_bool fail()
{
    last_error = errno;
    return 0;
}

tn_bool check(int result) { return result == 0 ? 1 : fail(); }

const sockaddr *address_of(const tn_ip *ip) { return reinterpret_cast<const sockaddr *>(ip->bytes); }
sockaddr *address_of(tn_ip *ip) { return reinterpret_cast<sockaddr *>(ip->bytes); }
socklen_t size_of(const tn_ip *ip) { return static_cast<socklen_t>(tn::socket::ip_size(ip)); }

// A signal handler of the host must not turn into a failure of ours.
template <typename Call> auto retrying(Call call)
{
    auto result = call();
    while (result < 0 && errno == EINTR) result = call();
    return result;
}

tn_bool open_socket(tn_socket *out, const tn_ip *ip, int type, int protocol)
{
    *out = TN_SOCKET_INVALID;
    if (!tn_socket_init()) return 0;
    sa_family_t family;
    std::memcpy(&family, ip->bytes, sizeof family);
    // Non-blocking and close-on-exec from the start, with no window in
    // which another thread's exec could inherit the descriptor.
    int s = ::socket(family, type | SOCK_NONBLOCK | SOCK_CLOEXEC, protocol);
    if (s < 0) return fail();
    *out = s;
    return 1;
}

tn_bool set_int_option(tn_socket s, int option, int value)
{
    return check(setsockopt(s, SOL_SOCKET, option, &value, sizeof value));
}

void try_reserve(tn_socket s, int option, tn_uint32 size)
{
    while (size >= 1024) {
        if (set_int_option(s, option, static_cast<int>(size))) return;
        size -= size >> 5;
    }
}

tn_bool set_nonblocking(tn_socket s, int on) { return check(ioctl(s, FIONBIO, &on)); }

// sendfile cannot be told MSG_NOSIGNAL, so a peer that has gone away would
// raise SIGPIPE. Blocking it in this thread for the call, and taking a
// SIGPIPE that the call raised off the pending set before the mask comes
// back, keeps it from the host without touching its signal dispositions. A
// SIGPIPE that was pending before is the host's and stays.
class sigpipe_shield {
public:
    sigpipe_shield()
    {
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe_, &saved_);
        // Only a host that blocks SIGPIPE itself can have one pending: an
        // unblocked signal is delivered at once. So the common case costs
        // one call here and one on the way out.
        host_blocks_ = sigismember(&saved_, SIGPIPE) == 1;
        sigset_t pending;
        was_pending_ = host_blocks_ && sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
    }
    ~sigpipe_shield()
    {
        if (raised_ && !was_pending_) {
            const timespec zero{0, 0};
            while (sigtimedwait(&pipe_, nullptr, &zero) < 0 && errno == EINTR) {
            }
        }
        if (!host_blocks_) pthread_sigmask(SIG_SETMASK, &saved_, nullptr);
    }
    sigpipe_shield(const sigpipe_shield &) = delete;
    sigpipe_shield &operator=(const sigpipe_shield &) = delete;

    void note_broken_pipe() { raised_ = true; }

private:
    sigset_t pipe_;
    sigset_t saved_;
    bool host_blocks_ = false;
    bool was_pending_ = false;
    bool raised_ = false;
};

// The unit in which send_file reads and sends, and in which a failed call
// counts what went out.
constexpr std::size_t chunk_size = 8192;

// The progress of one send_file call: bytes sent, mirrored into the
// caller's count after every step.
struct progress {
    tn_uint64 length;
    tn_uint64 sent;
    tn_uint64 *count;
    void add(tn_uint64 n)
    {
        sent += n;
        if (count) *count = sent;
    }
    tn_uint64 left() const { return length - sent; }
};

enum class outcome { finished, failed, unsupported };

// The kernel copies from the page cache straight into the socket. The file
// position moves by exactly what went out.
outcome send_zero_copy(tn_socket s, tn_file file, progress &p)
{
    constexpr tn_uint64 most_per_call = 0x7ffff000; // the kernel's own limit for one transfer
    sigpipe_shield shield;
    while (p.left() != 0) {
        const std::size_t want = static_cast<std::size_t>(p.left() < most_per_call ? p.left() : most_per_call);
        ssize_t n = retrying([&] { return sendfile(s, file, nullptr, want); });
        if (n < 0) {
            const int error = errno;
            if (error == EINVAL || error == ENOSYS) return outcome::unsupported;
            if (error == EPIPE) shield.note_broken_pipe();
            last_error = error;
            if (error == EAGAIN) return outcome::finished;
            // sendfile has no chunks of its own, but over a regular file every
            // chunk before the failing one is whole: rounding down leaves out
            // the part of the chunk in hand that went, as the copying road does.
            p.sent -= p.sent % chunk_size;
            if (p.count) *p.count = p.sent;
            return outcome::failed;
        }
        // A short transfer may be the end of the file, a full socket or a
        // connection that broke under way; only the next call tells which.
        if (n == 0) break;
        p.add(static_cast<tn_uint64>(n));
    }
    return outcome::finished;
}

// For descriptors that sendfile does not take: read and send through one
// buffer on the stack. After a short send the file is put back behind the
// last byte sent, as the zero-copy road leaves it.
outcome send_by_copy(tn_socket s, tn_file file, progress &p)
{
    unsigned char chunk[chunk_size];
    while (p.left() != 0) {
        const std::size_t want = p.left() < sizeof chunk ? static_cast<std::size_t>(p.left()) : sizeof chunk;
        ssize_t got = retrying([&] { return ::read(file, chunk, want); });
        if (got < 0) {
            fail();
            return outcome::failed;
        }
        if (got == 0) break;
        std::size_t out = 0;
        while (out < static_cast<std::size_t>(got)) {
            const std::size_t rest = static_cast<std::size_t>(got) - out;
            ssize_t n = retrying([&] { return ::send(s, chunk + out, rest, MSG_NOSIGNAL); });
            if (n < 0) {
                last_error = errno;
                // A failed chunk is not counted, not even what of it went out.
                if (last_error != EAGAIN) return outcome::failed;
                break;
            }
            out += static_cast<std::size_t>(n);
        }
        if (out < static_cast<std::size_t>(got)) {
            // A file that cannot be put back (a pipe) has lost the unsent
            // bytes: that is a failure, and the chunk in hand is not counted.
            if (lseek(file, -static_cast<off_t>(static_cast<std::size_t>(got) - out), SEEK_CUR) < 0) {
                fail();
                return outcome::failed;
            }
            p.add(out);
            break;
        }
        p.add(out);
    }
    return outcome::finished;
}

tn_uint32 code_of(int error)
{
    // Resolver codes are negative here, and each of them is just a failure.
    if (error < 0) return TN_SOCKET_ERROR_OTHER;
    switch (error) {
    case 0: return TN_SOCKET_ERROR_NONE;
    case EAGAIN:
#if EWOULDBLOCK != EAGAIN
    case EWOULDBLOCK:
#endif
    case EINPROGRESS: return TN_SOCKET_ERROR_WOULD_BLOCK;
    case ECONNREFUSED: return TN_SOCKET_ERROR_REFUSED;
    case ETIMEDOUT: return TN_SOCKET_ERROR_TIMED_OUT;
    case ENETUNREACH:
    case EHOSTUNREACH: return TN_SOCKET_ERROR_UNREACHABLE;
    case EADDRINUSE: return TN_SOCKET_ERROR_ADDRESS_IN_USE;
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM: return TN_SOCKET_ERROR_NO_RESOURCES;
    default: return TN_SOCKET_ERROR_OTHER;
    }
}

tn_int32 serves(const void *key, const void *element, void *)
{
    tn_socket s;
    std::memcpy(&s, element, sizeof s);
    tn_ip local;
    if (!tn_socket_local(s, &local)) return 1;
    return tn_ip_addr_equal(&local, static_cast<const tn_ip *>(key)) || tn_ip_is_any(&local) ? 0 : 1;
}

} // namespace

void tn::socket::set_last_error(int code) { last_error = code; }

// The kernel's sockets need no service started, so there is nothing that
// could fail or that a later call would have to try again.
tn_bool tn_socket_init(void) { return 1; }

tn_uint32 tn_socket_get_last_error(void)
{
    if (!tn_socket_init()) return TN_SOCKET_ERROR_OTHER;
    return code_of(last_error);
}

tn_bool tn_socket_tcp(tn_socket *out, const tn_ip *ip) { return open_socket(out, ip, SOCK_STREAM, IPPROTO_TCP); }

tn_bool tn_socket_udp(tn_socket *out, const tn_ip *ip) { return open_socket(out, ip, SOCK_DGRAM, IPPROTO_UDP); }

tn_bool tn_socket_close(tn_socket socket)
{
    if (socket == TN_SOCKET_INVALID) return 1;
    // The descriptor is gone even when close reports an interruption;
    // closing again could hit a descriptor that another thread just opened.
    return ::close(socket) == 0 || errno == EINTR ? 1 : fail();
}

tn_bool tn_socket_connect(tn_socket socket, const tn_ip *ip)
{
    return check(::connect(socket, address_of(ip), size_of(ip)));
}

tn_bool tn_socket_bind(tn_socket socket, const tn_ip *ip) { return check(::bind(socket, address_of(ip), size_of(ip))); }

tn_bool tn_socket_bind_reuse(tn_socket socket, const tn_ip *ip)
{
    set_int_option(socket, SO_REUSEADDR, 1);
    return tn_socket_bind(socket, ip);
}

tn_bool tn_socket_listen(tn_socket socket, tn_int32 backlog) { return check(::listen(socket, backlog)); }

tn_bool tn_socket_accept(tn_socket socket, tn_socket *out, tn_ip *ip)
{
    *out = TN_SOCKET_INVALID;
    socklen_t size = sizeof(tn_ip);
    int s = retrying([&] {
        return accept4(socket, ip ? address_of(ip) : nullptr, ip ? &size : nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    });
    if (s < 0) return fail();
    *out = s;
    return 1;
}

tn_bool tn_socket_recv(tn_socket socket, void *destination, tn_uint32 n, tn_uint32 *count)
{
    ssize_t got = retrying([&] { return ::recv(socket, destination, n, 0); });
    if (got < 0) return fail();
    if (count) *count = static_cast<tn_uint32>(got);
    return 1;
}

tn_bool tn_socket_recv_from(tn_socket socket, void *destination, tn_uint32 n, tn_ip *ip, tn_uint32 *count)
{
    socklen_t size = sizeof(tn_ip);
    ssize_t got = retrying([&] { return ::recvfrom(socket, destination, n, 0, address_of(ip), &size); });
    if (got < 0) return fail();
    if (count) *count = static_cast<tn_uint32>(got);
    return 1;
}

tn_bool tn_socket_send(tn_socket socket, const void *source, tn_uint32 n, tn_uint32 *count)
{
    ssize_t sent = retrying([&] { return ::send(socket, source, n, MSG_NOSIGNAL); });
    if (sent < 0) return fail();
    if (count) *count = static_cast<tn_uint32>(sent);
    return 1;
}

tn_bool tn_socket_send_to(tn_socket socket, const void *source, tn_uint32 n, const tn_ip *ip, tn_uint32 *count)
{
    ssize_t sent =
        retrying([&] { return ::sendto(socket, source, n, MSG_NOSIGNAL, address_of(ip), size_of(ip)); });
    if (sent < 0) return fail();
    if (count) *count = static_cast<tn_uint32>(sent);
    return 1;
}

tn_bool tn_socket_send_file(tn_socket socket, tn_file file, tn_uint64 position, tn_uint64 length, tn_uint64 *count)
{
    if (position != 0) {
        if (position > static_cast<tn_uint64>(INT64_MAX)) {
            last_error = EINVAL;
            return 0;
        }
        off_t at = lseek(file, static_cast<off_t>(position), SEEK_SET);
        if (at < 0) return fail();
        if (static_cast<tn_uint64>(at) != position) {
            last_error = EINVAL;
            return 0;
        }
    }
    if (count) *count = 0;
    progress p{length, 0, count};
    outcome result = send_zero_copy(socket, file, p);
    if (result == outcome::unsupported) result = send_by_copy(socket, file, p);
    return result == outcome::finished;
}

void tn_socket_try_reserve_in(tn_socket socket, tn_uint32 size) { try_reserve(socket, SO_RCVBUF, size); }

void tn_socket_try_reserve_out(tn_socket socket, tn_uint32 size) { try_reserve(socket, SO_SNDBUF, size); }

tn_bool tn_socket_shutdown(tn_socket socket, tn_int32 direction) { return check(::shutdown(socket, direction)); }

tn_bool tn_socket_ndelay_on(tn_socket socket) { return set_nonblocking(socket, 1); }

tn_bool tn_socket_ndelay_off(tn_socket socket) { return set_nonblocking(socket, 0); }

tn_bool tn_socket_local(tn_socket socket, tn_ip *ip)
{
    socklen_t size = sizeof(tn_ip);
    return check(getsockname(socket, address_of(ip), &size));
}

tn_bool tn_socket_remote(tn_socket socket, tn_ip *ip)
{
    socklen_t size = sizeof(tn_ip);
    return check(getpeername(socket, address_of(ip), &size));
}

tn_bool tn_socket_bcast_on(tn_socket socket) { return set_int_option(socket, SO_BROADCAST, 1); }

tn_uint32 tn_socket_array_find_ip(const tn_socket_array *array, const tn_ip *ip)
{
    return tn_array_find2(array, ip, serves, nullptr);
}

tn_bool tn_hostname_get(tn_uchar *text)
{
    if (!tn_socket_init()) return 0;
    if (gethostname(reinterpret_cast<char *>(text), 256) != 0) return fail();
    // A name that fills the buffer need not come terminated.
    text[255] = 0;
    return 1;
}
