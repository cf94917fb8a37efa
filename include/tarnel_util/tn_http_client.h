/*
 * tn_http_client.h - one HTTP/1.1 client connection together with the URI
 * it talks to.
 *
 * The client resolves the host (or the proxy), tries the addresses in turn
 * with non-blocking connects, writes a request head, reads a status line
 * and a header block incrementally, reads the body by its framing and
 * writes request bodies. tn_http_client_request strings these together into
 * one blocking exchange that skips 1xx responses, follows redirects and
 * falls back from POST to the M-POST form of SOAP on a 405. There is no
 * TLS: "http" is the only protocol the client accepts.
 *
 * Two roads. Every step exists as a _nonblock operation that works only on
 * the bytes the input buffer holds (it returns 1 with *done 0 when it needs
 * more; the host refills with tn_input_buffer_pool when the socket is
 * readable), and as a blocking operation that waits in the record's own
 * poll set. A time-out argument of a blocking operation is signed 32-bit
 * milliseconds, negative for no limit, and becomes one absolute deadline
 * for the whole call. tn_http_client_cancel from another thread ends such a
 * wait within one 100 ms slice.
 *
 * The record owns its socket, its poll set, both storages and the address
 * list; the host declares it, makes it ready with tn_http_client_init and
 * ends it with tn_http_client_free. One thread at a time uses a record;
 * only tn_http_client_cancel may come from another.
 *
 * State. The state field takes the values of the TN_HTTP_CLIENT_ names
 * below. A response head sets the framing of the body:
 *   - TRANSFER-ENCODING "chunked" (the whole value, any case): chunked;
 *     any other TRANSFER-ENCODING fails the head;
 *   - else CONTENT-LENGTH, scanned as an unsigned 64-bit decimal: by
 *     length (a value that does not scan fails the head);
 *   - else the body runs until the peer closes.
 * Status code and request method play no part: the caller who knows that
 * no body comes (HEAD, 204, 304) does not read one. The client makes no
 * keep-alive decision and never looks at a response's CONNECTION line.
 *
 * Failures carry no reason: a failed lookup, a refused connect, a time-out,
 * a cancel, a socket error and malformed input all read 0. A failed write
 * or read leaves the socket open; the next connect closes it. Input and
 * output storages are allocated once at init; neither connect nor read
 * allocates apart from the address list and the header blocks.
 *
 * Results are 1 or 0 unless a comment says otherwise.
 */
#ifndef TARNEL_UTIL_TN_HTTP_CLIENT_H
#define TARNEL_UTIL_TN_HTTP_CLIENT_H

#include "tn_array.h"
#include "tn_http_chunk.h"
#include "tn_input_buffer.h"
#include "tn_ip.h"
#include "tn_output_buffer.h"
#include "tn_poll.h"
#include "tn_str_array.h"
#include "tn_types.h"
#include "tn_uri.h"

TN_BEGIN_DECLS

/* The values of the state field. */
#define TN_HTTP_CLIENT_FAILED 0u         /* the last connect or a body read failed */
#define TN_HTTP_CLIENT_IDLE 1u           /* no connection; a connect starts with a lookup */
#define TN_HTTP_CLIENT_CONNECTING 2u     /* a connect is under way on the address index */
#define TN_HTTP_CLIENT_CONNECTED 3u      /* buffers set up, no response head read */
#define TN_HTTP_CLIENT_BODY_LENGTH 4u    /* a body of remaining bytes is being read */
#define TN_HTTP_CLIENT_BODY_TO_CLOSE 5u  /* the body runs until the peer closes */
#define TN_HTTP_CLIENT_BODY_CHUNKED 6u   /* a chunked body is being read */
#define TN_HTTP_CLIENT_BODY_ENDED 7u     /* the body has been read to its end */

/* Defaults of tn_http_client_init and of the record. */
#define TN_HTTP_CLIENT_INPUT_SIZE 8192u
#define TN_HTTP_CLIENT_OUTPUT_SIZE 1024u
#define TN_HTTP_CLIENT_MAX_REDIRECTS 10u
#define TN_HTTP_CLIENT_SOCKET_BUFFER_SIZE 65535u
#define TN_HTTP_CLIENT_DEFAULT_PORT 80u

typedef struct tn_http_client {
    tn_uri uri;                     /* the target */
    tn_uint32 version;              /* 1 for HTTP/1.1 (default), 0 for HTTP/1.0 */
    tn_uchar *proxy_host;           /* owned copy, or null */
    tn_uint16 proxy_port;
    tn_ip_array addresses;          /* the result of the last name lookup */
    tn_uint32 address_index;        /* the address being tried */
    tn_socket socket;               /* -1 when closed; owned */
    tn_poll poll;                   /* every wait of the record goes through it */
    tn_uchar *input_storage;        /* owned */
    tn_uint32 input_size;
    tn_socket_input_buffer input;
    tn_uchar *output_storage;       /* owned */
    tn_uint32 output_size;
    tn_socket_output_buffer output;
    tn_uchar_array accumulator;     /* the logical header line under way */
    tn_uint64 remaining;            /* bytes of a length-framed body still to come */
    tn_http_chunk chunk;
    tn_uint32 state;                /* a TN_HTTP_CLIENT_ value */
    tn_uint32 max_redirects;        /* redirects tn_http_client_request follows */
    tn_uint32 socket_buffer_size;   /* receive buffer asked for; 0 leaves it alone */
    tn_bool direct_writes;          /* bodies go past the output storage */
} tn_http_client;

/* Sets the record up and allocates both storages. An input size of 0
 * means 8192, an output size of 0 means 1024, and an output size of -1
 * means 1024 with direct writes turned on (any other negative size fails).
 * The state is TN_HTTP_CLIENT_IDLE, the version 1, the redirect limit 10,
 * the socket buffer size 65535, no proxy, no socket. A failed allocation
 * frees what was allocated and returns 0; the record then needs no free. */
TN_API tn_bool tn_http_client_init(tn_http_client *client, tn_uint32 input_size, tn_int32 output_size);
/* Closes an open socket and frees everything the record owns. A null
 * record is ignored. */
TN_API void tn_http_client_free(tn_http_client *client);

/* Parses text into the uri. The protocol must equal "http" without regard
 * to case and the host must not be empty; otherwise the uri is left empty
 * and the result is 0. */
TN_API tn_bool tn_http_client_set_uri(tn_http_client *client, const tn_uchar *text);
/* The record's uri; it lives as long as the record. */
TN_API tn_uri *tn_http_client_get_uri(tn_http_client *client);

/* 1 for HTTP/1.1, 0 for HTTP/1.0. Any other value makes every request head
 * fail with nothing written. */
TN_API void tn_http_client_set_http_version(tn_http_client *client, tn_uint32 version);
TN_API tn_uint32 tn_http_client_get_http_version(const tn_http_client *client);
/* The number of redirects tn_http_client_request follows; 0 follows none. */
TN_API void tn_http_client_set_max_following_redirects(tn_http_client *client, tn_uint32 count);

/* With a host: stores a copy of it and the port, freeing the old host; a
 * failed copy returns 0 and keeps the old proxy. With null: no proxy (host
 * null, port 0). Requests through a proxy connect to it and carry the
 * absolute URI in the request line. */
TN_API tn_bool tn_http_client_set_proxy(tn_http_client *client, const tn_uchar *host, tn_uint16 port);
/* The stored proxy host (the record's property) or null, and its port. */
TN_API const tn_uchar *tn_http_client_get_proxy_host(const tn_http_client *client);
TN_API tn_uint16 tn_http_client_get_proxy_port(const tn_http_client *client);

/* Takes over a socket that is already connected: sets both buffers up on
 * it with time-outs 0, state TN_HTTP_CLIENT_CONNECTED. A socket the record
 * held before is not closed; the record owns the new one. */
TN_API void tn_http_client_set_socket(tn_http_client *client, tn_socket socket);
/* The socket, -1 when none is open. */
TN_API tn_socket tn_http_client_get_socket(const tn_http_client *client);
/* The record's poll set. */
TN_API tn_poll *tn_http_client_get_poll(tn_http_client *client);
/* The receive buffer size asked for on each new socket; 0 leaves the
 * system's default. */
TN_API void tn_http_client_set_socket_buffer_size(tn_http_client *client, tn_uint32 size);
/* Cancels the record's present or next wait; safe on any thread. A read
 * wait then fails; a connect wait goes on with the next address; a write
 * fails before its next send. */
TN_API void tn_http_client_cancel(tn_http_client *client);

/* Starts a non-blocking connect, or moves on to the next address.
 *   - An open socket is closed first; a record connecting
 *     (TN_HTTP_CLIENT_CONNECTING) then moves on to the next address, any
 *     other starts over.
 *   - Starting over resolves: the proxy host and port, or else the uri's
 *     host and its port (80 when the uri has none; a port that is not an
 *     unsigned 16-bit decimal fails).
 *   - The addresses are tried in order from there: a socket is made, its
 *     receive buffer asked for, and a connect begun; a connect that is
 *     complete or under way gives 1 with state TN_HTTP_CLIENT_CONNECTING.
 * With no address left, or a failed lookup, the socket is closed, the
 * state becomes TN_HTTP_CLIENT_FAILED and the result is 0; a call in that
 * state with no socket open stays there and returns 0.
 *
 * The host then waits for the socket to become writable: on success it
 * calls tn_http_client_connect_nonblock_completed, on an error condition
 * it calls this again for the next address. */
TN_API tn_bool tn_http_client_connect_nonblock(tn_http_client *client);
/* Sets both buffers up with time-outs 0, state TN_HTTP_CLIENT_CONNECTED. */
TN_API void tn_http_client_connect_nonblock_completed(tn_http_client *client);
/* Connects from scratch (state TN_HTTP_CLIENT_IDLE first) and waits; one
 * deadline covers all addresses. An address that does not become writable
 * in time, or shows an error, gives way to the next; after the deadline
 * each address left gets one attempt and fails at once. On success the
 * state is TN_HTTP_CLIENT_CONNECTED. */
TN_API tn_bool tn_http_client_connect(tn_http_client *client, tn_int32 timeout_ms);
/* Closes an open socket, drops the poll set's entries and a pending cancel,
 * state TN_HTTP_CLIENT_IDLE. With no socket open nothing changes. */
TN_API void tn_http_client_disconnect(tn_http_client *client);

/* As tn_http_client_write_header2 with the close flag 0. */
TN_API tn_bool tn_http_client_write_header(tn_http_client *client, const tn_uchar *method, tn_uint32 content_length,
                                           const tn_str_array *block, tn_int32 write_timeout_ms);
/* Writes and flushes the request head, each line ending in CRLF:
 *   1. the method, a blank, the target, " HTTP/1.1" or " HTTP/1.0". The
 *      target is the uri's path, and "?" and the query when the query is
 *      not empty; through a proxy the protocol, "://", the host, and ":"
 *      and the port when the uri has one, stand in front of it;
 *   2. a HOST line: the block's first HOST line when it has one, for
 *      either version; else, for HTTP/1.1 only, HOST with the uri's host,
 *      and ":" and the port when the uri has one (the uri's host through a
 *      proxy as well);
 *   3. unless the block has a CONTENT-LENGTH or TRANSFER-ENCODING line:
 *      CONTENT-LENGTH with content_length in decimal, for every method,
 *      0 included;
 *   4. with the close flag set and no CONNECTION line in the block:
 *      "CONNECTION: close";
 *   5. the lines of the block in order, its HOST lines left out, so that
 *      at most one HOST line goes out;
 *   6. the empty line, then a flush, whose result is the result.
 * The write time-out is stored for each wait of the output. A version
 * other than 0 and 1, an empty uri or a failed block returns 0 with
 * nothing written. The block may be null. The state is not looked at. */
TN_API tn_bool tn_http_client_write_header2(tn_http_client *client, const tn_uchar *method, tn_uint32 content_length,
                                            tn_bool close, const tn_str_array *block, tn_int32 write_timeout_ms);

/* Reads the status line from the bytes held. Sets *done to 0; without a
 * CRLF held, returns 1 and consumes nothing. Empty lines before it are
 * consumed and skipped. A line that starts with a blank fails. Of the line,
 * two tokens delimited by SP and HT are read: the version (at most 11
 * bytes, not checked further) and the status code, which must be exactly 3
 * bytes and is stored terminated in status (4 bytes). The reason phrase is
 * dropped with the line, and *done becomes 1. When the held bytes fill the
 * input storage with no CRLF the line can never fit, and the result is 0. */
TN_API tn_bool tn_http_client_read_status_line_nonblock(tn_http_client *client, tn_uchar *status, tn_bool *done);
/* Reads header lines from the bytes held into block, keeping the logical
 * line under way in accumulator (both emptied by the caller before the
 * first call of a response). Returns 1 with *done 0 when it needs more; at
 * the empty line sets *done to 1 and the framing of the body (see above),
 * which may fail the call. */
TN_API tn_bool tn_http_client_read_header_nonblock(tn_http_client *client, tn_str_array *block,
                                                   tn_uchar_array *accumulator, tn_bool *done);
/* Reads a whole response head, waiting, under one deadline for the status
 * line and the header lines together; block is emptied first. A peer that
 * closes before the head ends, a status line that cannot fit the input
 * storage, a failed wait and a failed framing give 0. */
TN_API tn_bool tn_http_client_read_header(tn_http_client *client, tn_uchar *status, tn_str_array *block,
                                          tn_int32 timeout_ms);

/* Reads on in the response body from what the socket gives without
 * waiting. *count and *ready are set to 0 first.
 *   - body ended: count 0, ready 1, result 1;
 *   - by length: reads at most min(size, remaining); a failed read or a
 *     count of 0 sets TN_HTTP_CLIENT_FAILED and returns 0; at remaining 0
 *     the body has ended;
 *   - to the close: a failed read sets TN_HTTP_CLIENT_FAILED and returns 0;
 *     a count of 0 ends the body;
 *   - chunked: as tn_http_chunk_read, whose result of 0 is passed on with
 *     the state left as it is; ready as the chunk reader sets it;
 *   - any other state: 0.
 * A delivery sets ready 1. */
TN_API tn_bool tn_http_client_read_body_nonblock(tn_http_client *client, void *destination, tn_uint32 size,
                                                 tn_uint32 *count, tn_bool *ready);
/* Reads what one read of the body gives, not size bytes, waiting first
 * when nothing is held (one deadline for the call). The end of the body
 * shows as a count of 0 with result 1, and as
 * tn_http_client_is_response_body_eos. A failed wait returns 0 and leaves
 * the state; failed reads set it as tn_http_client_read_body_nonblock
 * says. */
TN_API tn_bool tn_http_client_read_body(tn_http_client *client, void *destination, tn_uint32 size,
                                        tn_int32 timeout_ms, tn_uint32 *count);
/* 1 when the state is TN_HTTP_CLIENT_BODY_ENDED. */
TN_API tn_bool tn_http_client_is_response_body_eos(const tn_http_client *client);

/* Writes n bytes of a request body and flushes them; with direct writes
 * they go straight to the socket. */
TN_API tn_bool tn_http_client_write_body(tn_http_client *client, const void *source, tn_uint32 n,
                                         tn_int32 write_timeout_ms);
/* Writes n bytes as one chunk: the size in lower-case hex and CRLF, the
 * bytes, CRLF; then flushes. n = 0 writes the closing chunk "0\r\n\r\n" and
 * is the only way to end a chunked request body. */
TN_API tn_bool tn_http_client_write_chunk_body(tn_http_client *client, const void *source, tn_uint32 n,
                                               tn_int32 write_timeout_ms);

/* One blocking exchange with the uri. Every attempt connects anew (the
 * connect time-out for each), writes the head with the length of body (a
 * terminated text, or null for none) and then the body, and reads the
 * response head with the read time-out, again for every 1xx response.
 *   - 304 and any status not starting with "3" return 1;
 *   - a 405 to a POST whose block has a SOAPACTION line repeats the
 *     request once as M-POST, the block rewritten by
 *     tn_http_header_set_soap_man (it stays rewritten after the call);
 *   - a 3xx with redirects left follows its LOCATION, which must be an
 *     absolute http URI with a host: one missing, or relative, returns 0
 *     (the uri empty for one that parses but is not absolute http). The
 *     method, block and body go again unchanged.
 *   - a 3xx when the limit is reached returns 1 with that status.
 * A method of 16 bytes or more returns 0. The limit counts attempts, so an
 * M-POST attempt uses one redirect. After a result of 1 the connection
 * stays open with the framing in the state, for tn_http_client_read_body.
 * Status and response block are as tn_http_client_read_header leaves
 * them. */
TN_API tn_bool tn_http_client_request(tn_http_client *client, const tn_uchar *method, tn_str_array *block,
                                      const tn_uchar *body, tn_uchar *status, tn_str_array *response_block,
                                      tn_int32 connect_timeout_ms, tn_int32 write_timeout_ms,
                                      tn_int32 read_timeout_ms);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_HTTP_CLIENT_H */
