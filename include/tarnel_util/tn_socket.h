/*
 * tn_socket.h - the thin layer over the platform's sockets.
 *
 * Every socket that this layer creates or accepts is non-blocking from
 * birth and is not inherited by programs that the process executes. Every
 * outcome is 1 or 0, and the reason for a 0 is asked for afterwards, on the
 * same thread and before any other socket call there, with
 * tn_socket_get_last_error, which gives one of the TN_SOCKET_ERROR_ codes.
 * Addresses are always tn_ip records: where one goes to the platform, its
 * size comes from its family (16 bytes for IPv4, 28 for IPv6, 0 otherwise);
 * where one comes back, it is filled through all 28 bytes.
 *
 * The would-block pattern. On a non-blocking socket a call that cannot go
 * on now returns 0 with TN_SOCKET_ERROR_WOULD_BLOCK; the caller waits for
 * the socket in a tn_poll and calls again. In detail:
 *
 *   tn_socket_connect  1: connected at once. 0 with code 7: under way; the
 *                      socket turns writable in a tn_poll when the
 *                      connection is made, and a failed attempt shows there
 *                      through the error bit. Another code: failed, and the
 *                      caller closes the socket.
 *   tn_socket_accept   1: a new non-blocking socket is stored. 0 with code
 *                      7: no connection waits; -1 is stored.
 *   tn_socket_recv(_from)  1: the count holds what arrived; a count of 0 on
 *                      a stream socket is the peer's orderly close, and every
 *                      later read says the same. 0 with code 7: nothing to
 *                      read now. On 0 the count is not written.
 *   tn_socket_send(_to)    1: the count holds what the platform took, which
 *                      may be less than offered; a caller that must send all
 *                      repeats with the rest. 0 with code 7: nothing taken
 *                      now. On 0 the count is not written.
 *
 * Sending never raises SIGPIPE: a peer that has gone away gives 0 with an
 * error code, and the host's signal handling is neither needed nor touched.
 *
 * The last error belongs to the calling thread. A failed platform call sets
 * it; a successful one leaves it as it was. The name operations of tn_ip set
 * it too, also to no error. Nothing here allocates, logs or starts a thread,
 * and a socket's own concurrency is the platform's.
 */
#ifndef TARNEL_UTIL_TN_SOCKET_H
#define TARNEL_UTIL_TN_SOCKET_H

#include "tn_array.h"
#include "tn_ip.h"

TN_BEGIN_DECLS

/* The results of tn_socket_get_last_error. */
#define TN_SOCKET_ERROR_NONE 0u
#define TN_SOCKET_ERROR_OTHER 1u          /* every error not named below */
#define TN_SOCKET_ERROR_NO_RESOURCES 2u   /* out of descriptors, buffers or memory */
#define TN_SOCKET_ERROR_REFUSED 3u        /* the peer refused the connection */
#define TN_SOCKET_ERROR_TIMED_OUT 4u      /* the connection timed out */
#define TN_SOCKET_ERROR_UNREACHABLE 5u    /* no route to the network or host */
#define TN_SOCKET_ERROR_ADDRESS_IN_USE 6u /* the local address is taken */
#define TN_SOCKET_ERROR_WOULD_BLOCK 7u    /* nothing can be done now; wait and retry */

/* Makes the socket service ready; 1 on success. On this platform there is
 * nothing to start, and the call always succeeds. The operations that need
 * the service call it themselves. */
TN_API tn_bool tn_socket_init(void);

/* The calling thread's last socket error as a TN_SOCKET_ERROR_ code: 0
 * until a socket call of this thread has failed. Every error code of the
 * name operations of tn_ip but 0 reads as TN_SOCKET_ERROR_OTHER. */
TN_API tn_uint32 tn_socket_get_last_error(void);

/* Creates a non-blocking TCP socket of the family of ip (which lends only its
 * family) and stores it in *out. On failure stores -1 and returns 0. */
TN_API tn_bool tn_socket_tcp(tn_socket *out, const tn_ip *ip);
/* The same for UDP. */
TN_API tn_bool tn_socket_udp(tn_socket *out, const tn_ip *ip);

/* Closes the socket. -1 returns 1 at once. */
TN_API tn_bool tn_socket_close(tn_socket socket);

/* Connects to ip; see the would-block pattern above. */
TN_API tn_bool tn_socket_connect(tn_socket socket, const tn_ip *ip);

/* Binds to ip, which may be a wildcard address and port 0. A taken address
 * gives TN_SOCKET_ERROR_ADDRESS_IN_USE. */
TN_API tn_bool tn_socket_bind(tn_socket socket, const tn_ip *ip);
/* Allows the local address to be reused (whether that works does not
 * matter), then binds as tn_socket_bind. Two UDP sockets so bound share a
 * port; a TCP socket may bind a port that connections of an earlier
 * listener still hold. */
TN_API tn_bool tn_socket_bind_reuse(tn_socket socket, const tn_ip *ip);

/* Starts listening with a queue of backlog connections. */
TN_API tn_bool tn_socket_listen(tn_socket socket, tn_int32 backlog);

/* Accepts one waiting connection: stores the new non-blocking socket in
 * *out and the peer's address in *ip (unless ip is null). On failure stores
 * -1. */
TN_API tn_bool tn_socket_accept(tn_socket socket, tn_socket *out, tn_ip *ip);

/* Receives at most n bytes into destination and stores the count in *count
 * unless count is null. */
TN_API tn_bool tn_socket_recv(tn_socket socket, void *destination, tn_uint32 n, tn_uint32 *count);
/* The same, storing the sender's address in *ip. */
TN_API tn_bool tn_socket_recv_from(tn_socket socket, void *destination, tn_uint32 n, tn_ip *ip,
                                   tn_uint32 *count);

/* Sends at most n bytes from source and stores the count taken in *count
 * unless count is null. */
TN_API tn_bool tn_socket_send(tn_socket socket, const void *source, tn_uint32 n, tn_uint32 *count);
/* The same to the address ip. */
TN_API tn_bool tn_socket_send_to(tn_socket socket, const void *source, tn_uint32 n, const tn_ip *ip,
                                 tn_uint32 *count);

/* Sends length bytes of an open file from position on, without waiting.
 * A position of 0 means no seek: the bytes come from where the file stands.
 * Any other position is sought first, and a failed seek returns 0. Then
 * *count (unless null) is set to 0, and bytes go out until the length is
 * sent, the file ends, or the socket takes no more; each of these returns 1
 * with the bytes sent in *count. A count below the length thus means either
 * the end of the file or a socket that would block: the caller waits until
 * the socket is writable and resumes with position + count and
 * length - count. The file then stands right behind the last byte sent, so a
 * resume at position 0 that sent nothing at all also goes on correctly; a
 * pipe cannot be put back, so from a pipe the bytes read but not sent are
 * lost. A length of 0 returns 1 after the seek. The stretch is taken in chunks of at
 * most 8192 bytes as the file yields them (whole ones from a regular file). A
 * failure of the file or the socket returns 0, also after part of the stretch
 * went out in this call, with *count holding the bytes of the chunks finished
 * before it: what went out of the chunk in hand is not counted. The file
 * position is then undefined. */
TN_API tn_bool tn_socket_send_file(tn_socket socket, tn_file file, tn_uint64 position,
                                   tn_uint64 length, tn_uint64 *count);

/* Ask for a receive (in) or send (out) buffer of size bytes, stepping down
 * by a thirty-second of the size while the platform refuses, until it
 * accepts or the size falls below 1024. A size below 1024 sets nothing. This
 * platform takes any size and trims it to its own limit. No result. */
TN_API void tn_socket_try_reserve_in(tn_socket socket, tn_uint32 size);
TN_API void tn_socket_try_reserve_out(tn_socket socket, tn_uint32 size);

/* Shuts down one or both directions: 0 receiving, 1 sending, 2 both. */
TN_API tn_bool tn_socket_shutdown(tn_socket socket, tn_int32 direction);

/* Makes the socket non-blocking (on) or blocking (off). Blocking stays until
 * switched back. */
TN_API tn_bool tn_socket_ndelay_on(tn_socket socket);
TN_API tn_bool tn_socket_ndelay_off(tn_socket socket);

/* The socket's own (local) and its peer's (remote) address. */
TN_API tn_bool tn_socket_local(tn_socket socket, tn_ip *ip);
TN_API tn_bool tn_socket_remote(tn_socket socket, tn_ip *ip);

/* Allows sending to broadcast addresses. */
TN_API tn_bool tn_socket_bcast_on(tn_socket socket);

/* The position of the first socket of the array that serves ip: one whose
 * local address has ip's address (the port does not count), or one bound to
 * the wildcard address of its own family, which serves any address of any
 * family. A socket whose local address cannot be read never matches. Returns
 * the array's length when none serves. */
TN_API tn_uint32 tn_socket_array_find_ip(const tn_socket_array *array, const tn_ip *ip);

/* Stores the machine's host name with its terminator in text, which holds at
 * least 256 bytes. */
TN_API tn_bool tn_hostname_get(tn_uchar *text);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_SOCKET_H */
