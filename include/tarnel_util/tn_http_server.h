/*
 * tn_http_server.h - one accepted connection of an HTTP/1.1 server: reads a
 * request head incrementally, decides how the body is framed, delivers the
 * body, and writes status line, headers, body, chunks, files and error
 * pages.
 *
 * The record is flat, with its buffers inside (1024 bytes of input storage,
 * 256 bytes of output storage), so a host keeps one per connection and the
 * read path allocates nothing beyond the header block's text and the line
 * accumulator. It does not listen, accept or dispatch: the host does, and
 * calls the _nonblock operations from its event loop, or the blocking
 * tn_http_server_read_header and tn_http_server_send_file from a thread of
 * its own. The record owns its socket (closed by tn_http_server_free), its
 * poll set, its URI, header block and accumulator.
 *
 * The non-blocking road of one request:
 *   1. tn_http_server_read_start_line_nonblock; bytes of the next request
 *      may be held already. While done is 0 the host waits until the socket
 *      is readable, calls tn_input_buffer_pool on the input buffer (an
 *      available count of 0 afterwards is the peer's close) and calls
 *      again. The pool comes after the wait: with a read time-out of 0 a
 *      pool on a socket with nothing to read fails.
 *   2. The host empties the header block (tn_str_array_truncate), which this
 *      road does not do by itself.
 *   3. tn_http_server_read_header_nonblock, with the same wait and pool
 *      while done is 0.
 *   4. The body, if any, with tn_http_server_read_body_nonblock; the
 *      answer; tn_http_server_reset.
 * The readers keep no state of their own: what survives between calls is
 * the held bytes, the accumulator, the header block, and which reader the
 * host is in.
 *
 * A response goes out as tn_http_server_write_status_line,
 * tn_http_server_write_header, the body (tn_http_server_write, the chunk
 * operations or a send-file operation), tn_http_server_flush_output. No
 * call enforces the order. The version written is always HTTP/1.1. The
 * reason phrases come from tn_http_server_get_reason in tn_http_vocab.h.
 *
 * Failures carry no reason: a malformed request, a time-out, a cancel and a
 * failed socket all read 0, and the host picks the status of its error
 * response. A failed write leaves the connection unusable; the library does
 * not close it. Results are 1 or 0 unless told otherwise; text that a getter
 * returns lives in the record until the next read.
 *
 * One thread at a time uses a record. tn_poll_cancel on the record's poll
 * set (tn_http_server_get_poll) may come from any thread: it ends the waits
 * of tn_http_server_read_header, of the buffers' read and write operations
 * and of tn_http_server_send_file within one 100 ms slice, and those calls
 * then return 0.
 */
#ifndef TARNEL_UTIL_TN_HTTP_SERVER_H
#define TARNEL_UTIL_TN_HTTP_SERVER_H

#include "tn_http_chunk.h"
#include "tn_http_vocab.h"
#include "tn_input_buffer.h"
#include "tn_ip.h"
#include "tn_output_buffer.h"
#include "tn_poll.h"
#include "tn_str_array.h"
#include "tn_types.h"
#include "tn_uri.h"

TN_BEGIN_DECLS

/* Sizes of the record's storage and text fields; a text field holds one
 * byte less than its size, for the terminator. */
#define TN_HTTP_SERVER_INPUT_SIZE 1024u
#define TN_HTTP_SERVER_OUTPUT_SIZE 256u
#define TN_HTTP_SERVER_METHOD_SIZE 32u
#define TN_HTTP_SERVER_VERSION_SIZE 12u
/* The URI buffer of tn_http_server_read_header. */
#define TN_HTTP_SERVER_URI_SIZE 256u
/* The socket send buffer size asked for by default. */
#define TN_HTTP_SERVER_SOCKET_BUFFER_SIZE 65535u

/* The values of the body mode. */
#define TN_HTTP_SERVER_BODY_NONE 0u     /* no head has been read yet */
#define TN_HTTP_SERVER_BODY_LENGTH 1u   /* a body of remaining bytes follows */
#define TN_HTTP_SERVER_BODY_CHUNKED 2u  /* a chunked body follows */
#define TN_HTTP_SERVER_BODY_UNFRAMED 3u /* no usable framing: no body can be read */
#define TN_HTTP_SERVER_BODY_ENDED 4u    /* the body has been read to its end */
#define TN_HTTP_SERVER_BODY_FAILED 5u   /* reading the body failed */

typedef struct tn_http_server {
    tn_ip local_ip;                                   /* from the socket, by set_socket */
    tn_ip remote_ip;                                  /* set by the host */
    tn_socket socket;                                 /* owned; -1 when there is none */
    tn_poll poll;                                     /* this connection's waits and cancel */
    tn_uchar input_storage[TN_HTTP_SERVER_INPUT_SIZE];
    tn_uchar output_storage[TN_HTTP_SERVER_OUTPUT_SIZE];
    tn_socket_input_buffer input;                     /* on input_storage */
    tn_socket_output_buffer output;                   /* on output_storage */
    tn_uchar method[TN_HTTP_SERVER_METHOD_SIZE];      /* terminated text */
    tn_uri uri;                                       /* the parsed request URI */
    tn_uchar version[TN_HTTP_SERVER_VERSION_SIZE];    /* terminated text, such as "HTTP/1.1" */
    tn_str_array header;                              /* the request's header block */
    tn_uchar_array line;                              /* the logical header line under way */
    tn_uint64 remaining;                              /* bytes of a length-framed body to come */
    tn_http_chunk chunk;                              /* the chunked body's reader */
    tn_uint32 body_mode;                              /* a TN_HTTP_SERVER_BODY_ value */
    tn_uint32 socket_buffer_size;                     /* asked for by write_header; 0: left alone */
} tn_http_server;

/* Zeroes the record and sets it up: socket -1, both buffers on their
 * storage, a poll set, an empty URI, a header block with 384 bytes of text
 * room reserved, body mode none, socket buffer size 65535. On 0 (memory)
 * nothing needs freeing. */
TN_API tn_bool tn_http_server_init(tn_http_server *server);
/* Frees the poll set, closes the socket, frees URI, header block and
 * accumulator. A null record is ignored. */
TN_API void tn_http_server_free(tn_http_server *server);
/* Empties URI and accumulator for the next request on the connection.
 * Header block, body mode and the input buffer stay, so bytes of a next
 * request that are held already survive. */
TN_API void tn_http_server_reset(tn_http_server *server);

/* Takes over an accepted socket: sets up both buffers on it with the
 * record's poll set and the time-outs (per wait, ms; negative no limit, 0
 * one look), and reads the local address. Returns the result of reading
 * the address. An earlier socket is not closed. set_socket gives both
 * time-outs 0. */
TN_API tn_bool tn_http_server_set_socket(tn_http_server *server, tn_socket socket);
TN_API tn_bool tn_http_server_set_socket2(tn_http_server *server, tn_socket socket, tn_int32 read_timeout,
                                          tn_int32 write_timeout);
TN_API tn_bool tn_http_server_get_socket(const tn_http_server *server, tn_socket *socket);
/* The record's poll set; a host ends a wait with tn_poll_cancel on it. */
TN_API tn_poll *tn_http_server_get_poll(tn_http_server *server);

/* Copy the local address out, the remote address in and out. */
TN_API tn_bool tn_http_server_get_local_ip(const tn_http_server *server, tn_ip *ip);
TN_API tn_bool tn_http_server_set_remote_ip(tn_http_server *server, const tn_ip *ip);
TN_API tn_bool tn_http_server_get_remote_ip(const tn_http_server *server, tn_ip *ip);

/* Pointers into the record. */
TN_API tn_socket_input_buffer *tn_http_server_get_socket_input_buffer(tn_http_server *server);
TN_API tn_socket_output_buffer *tn_http_server_get_socket_output_buffer(tn_http_server *server);
TN_API const tn_uchar *tn_http_server_get_method(const tn_http_server *server);
TN_API tn_uri *tn_http_server_get_uri(tn_http_server *server);
TN_API const tn_uchar *tn_http_server_get_version(const tn_http_server *server);
TN_API tn_str_array *tn_http_server_get_header(tn_http_server *server);

/* The send buffer size that tn_http_server_write_header asks the socket
 * for; 0 leaves the socket's buffer alone. */
TN_API tn_bool tn_http_server_set_socket_buffer_size(tn_http_server *server, tn_uint32 size);

/* 1 if the request's version is exactly "HTTP/1.0". */
TN_API tn_bool tn_http_server_is_request_version_1_0(const tn_http_server *server);
/* Whether the connection may carry a further request: 0 for version
 * HTTP/1.0 whatever CONNECTION says (a keep-alive of HTTP/1.0 is not
 * honoured), 0 when the first CONNECTION value is "close" in any case (the
 * whole value), else 1. */
TN_API tn_bool tn_http_server_is_persistent_connection_request(const tn_http_server *server);

/* Reads the request line from the bytes held, never calling the read
 * operation. *done is set to 0 first. Without a whole line held it returns
 * 1 and consumes nothing. Empty lines before the request line are skipped
 * and consumed. The line is split at SP and HT: the method (at most 31
 * bytes) into the record, the URI into uri (at most size - 1 bytes),
 * parsed with tn_uri_parse into the record's URI, and the version (at most
 * 11 bytes), which must begin with "HTTP/" in this case; anything behind
 * the version is ignored. Then the line is consumed, *done becomes 1 and
 * the result is 1. A line that starts with SP or HT, a missing or too long
 * token, a URI that tn_uri_parse refuses, another version, and held bytes
 * that fill the input storage without a line end return 0. On 0 the line
 * stays held and the fields are filled as far as the parse went (a parsed
 * method stays, for the HEAD test of the error response). */
TN_API tn_bool tn_http_server_read_start_line_nonblock(tn_http_server *server, tn_uchar *uri, tn_uint32 size,
                                                       tn_bool *done);

/* Reads header lines from the bytes held into the header block as
 * tn_http_header_read_socket does (the caller has emptied the block). *done
 * 1 means the empty line has been read; the input buffer then stands on the
 * body, and the body mode is set:
 *   TRANSFER-ENCODING "chunked" in any case (the whole value)  chunked
 *   TRANSFER-ENCODING with any other value                     unframed
 *   no TRANSFER-ENCODING, CONTENT-LENGTH an unsigned 64-bit decimal
 *                                            length, remaining = the value
 *   no TRANSFER-ENCODING, CONTENT-LENGTH that does not scan    0, mode kept
 *   neither                                                    unframed
 * There is no reading to the close: a request without framing has no
 * readable body. */
TN_API tn_bool tn_http_server_read_header_nonblock(tn_http_server *server, tn_bool *done);

/* The blocking form: empties the header block, then reads start line (with
 * a URI of at most 255 bytes) and header, waiting for readability and
 * pooling between attempts. The input buffer's read time-out, when not
 * negative, sets one deadline from now for the whole head. A failed or
 * expired wait, a failed pool, the peer's close, a cancel and a malformed
 * head return 0. */
TN_API tn_bool tn_http_server_read_header(tn_http_server *server);

/* Reads on in the body by its mode; *count and *ready are set to 0 first.
 *   ended      1 with count 0 and ready 1.
 *   length     one tn_input_buffer_read of at most min(size, remaining)
 *              bytes; a failed read or a count of 0 makes the mode failed
 *              and returns 0; otherwise ready 1, and the mode becomes ended
 *              when remaining reaches 0.
 *   chunked    tn_http_chunk_read with the same arguments, whose result is
 *              passed on; the mode becomes ended with the chunk state
 *              TN_HTTP_CHUNK_COMPLETE. Ready 0 with 1 means that more
 *              bytes are needed.
 *   otherwise  0.
 * A read goes through the input buffer's read operation and may wait
 * within the read time-out; with a time-out of 0 a host calls this only
 * when bytes are held or the socket is readable. A CONTENT-LENGTH of 0
 * gives mode length with nothing remaining, and a read then fails: the host
 * looks at the header before it reads an empty body. */
TN_API tn_bool tn_http_server_read_body_nonblock(tn_http_server *server, void *destination, tn_uint32 size,
                                                 tn_uint32 *count, tn_uint32 *ready);
/* 1 if the body mode is ended. */
TN_API tn_bool tn_http_server_is_request_body_eos(const tn_http_server *server);

/* Align-writes "HTTP/1.1 ", the status text, " ", the reason phrase of
 * tn_http_server_get_reason, CR LF. Nothing is flushed. */
TN_API tn_bool tn_http_server_write_status_line(tn_http_server *server, const tn_uchar *status,
                                                const tn_uchar *reason);
/* Asks the socket for the send buffer size when that is not 0 (whether it
 * takes it does not matter), align-writes each line of the block (which
 * may be null) with CR LF, then the CR LF that ends the head. Nothing is
 * flushed: the head goes out with the first flush, send-file or
 * overflowing write, in pieces of 256 bytes. */
TN_API tn_bool tn_http_server_write_header(tn_http_server *server, const tn_str_array *header);
/* A plain write to the output buffer. */
TN_API tn_bool tn_http_server_write(tn_http_server *server, const void *source, tn_uint32 n);
/* One chunk by plain writes: the count in lower-case hex, CR LF, the
 * bytes, CR LF (n = 0 thus writes the closing framing). To an HTTP/1.0
 * request, the bytes alone. Nothing is flushed. */
TN_API tn_bool tn_http_server_write_chunk(tn_http_server *server, const void *source, tn_uint32 n);
/* A plain write of "0\r\n\r\n"; to an HTTP/1.0 request, nothing, and 1.
 * Nothing is flushed. So a host uses the same calls for both versions. */
TN_API tn_bool tn_http_server_write_chunk_eos(tn_http_server *server);
/* Flushes the output buffer. */
TN_API tn_bool tn_http_server_flush_output(tn_http_server *server);

/* Flushes the output buffer, then sends length bytes of the file from
 * position on (0: from where the file stands) with tn_socket_send_file,
 * without waiting; *count holds the bytes sent. A cancelled poll set or a
 * failed flush returns 0. A count below the length with 1 is a socket that
 * took no more, or the end of the file: the host resumes with position +
 * count and length - count once the socket is writable. */
TN_API tn_bool tn_http_server_send_file_nonblock(tn_http_server *server, tn_file file, tn_uint64 position,
                                                 tn_uint64 length, tn_uint64 *count);
/* The same, waiting for writability (the write time-out per wait) until all
 * length bytes have gone out. *count tells how many went out, also on 0. A
 * cancel, a failed wait and a file that ends before position + length
 * return 0. */
TN_API tn_bool tn_http_server_send_file(tn_http_server *server, tn_file file, tn_uint64 position, tn_uint64 length,
                                        tn_uint64 *count);

/* A whole error response, flushed. With phrase the result of
 * tn_http_server_get_reason(status, reason): sets on the block SERVER,
 * DATE and, unless persistent, CONNECTION: close
 * (tn_http_header_set_common_response_header), then CONTENT-LENGTH of
 * strlen(phrase) + 28 and CONTENT-TYPE: text/html, each replacing; writes
 * the status line and the head with the block's lines in order; then,
 * unless the request's method is "HEAD", the page "<html><body>", phrase,
 * "</body></html>\r\n". Returns the result of the final flush; any earlier
 * failure returns 0. The 2 form uses a block of its own, created and freed
 * inside. */
TN_API tn_bool tn_http_server_write_error_response(tn_http_server *server, const tn_uchar *status,
                                                   const tn_uchar *reason, tn_str_array *header,
                                                   const tn_uchar *server_text, tn_bool persistent);
TN_API tn_bool tn_http_server_write_error_response2(tn_http_server *server, const tn_uchar *status,
                                                    const tn_uchar *reason, const tn_uchar *server_text,
                                                    tn_bool persistent);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_HTTP_SERVER_H */
