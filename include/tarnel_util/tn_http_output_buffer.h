/*
 * tn_http_output_buffer.h - an output buffer bound to a socket whose write
 * operation can frame every piece it passes in the chunked transfer coding
 * of HTTP/1.1, and which ends a body and then refuses further output.
 *
 * The record begins with a tn_output_buffer whose context is the record
 * itself, followed by poll set, socket and write time-out at the same places
 * as in a tn_socket_output_buffer; the buffer rules of tn_output_buffer.h
 * (plain and align writes, failed flushes keeping the held bytes) hold
 * unchanged. Poll set, socket and storage stay the caller's; there is no
 * free.
 *
 * With the chunked flag off the write operation sends the bytes it is
 * handed and nothing else, exactly like a tn_socket_output_buffer. With the
 * flag on, each call of the write operation puts one chunk on the wire: the
 * count in lower-case hexadecimal without leading zeros, CR LF, the bytes,
 * CR LF, with no extension, as three separate sends. The chunks therefore
 * follow the buffer's flushes: an align write yields chunks of exactly the
 * storage's length, a plain write chunks of what the storage held when it
 * overflowed and direct chunks of at least 8192 bytes for large data, and a
 * flush one chunk of what is held, or nothing when nothing is held. An
 * empty flush can thus never send the closing chunk.
 *
 * Sending. Every byte range goes out whole: before each send the call fails
 * if the poll set is cancelled; on would-block it waits once for
 * writability within the write time-out (negative: no limit) and sends once
 * more, failing if that fails. A cancel from another thread ends a wait
 * within one 100 ms slice.
 *
 * States. The buffer is open after init and reset. tn_http_output_buffer_send_eos
 * ends the body and moves it to ended; there every write, every flush and a
 * second send_eos return 0 without touching the socket, until reset.
 *
 * Failures. A failed send leaves the wire in the middle of a chunk, and the
 * connection cannot carry a further message; the call returns 0 and takes
 * no further step. Held bytes stay held as in tn_output_buffer.h, so a
 * retried flush would send them as a new chunk. Results are 1 or 0, no
 * reason is kept, and nothing here allocates. One thread at a time uses a
 * record; tn_poll_cancel on its poll set may come from any thread.
 */
#ifndef TARNEL_UTIL_TN_HTTP_OUTPUT_BUFFER_H
#define TARNEL_UTIL_TN_HTTP_OUTPUT_BUFFER_H

#include "tn_output_buffer.h"
#include "tn_poll.h"
#include "tn_types.h"

TN_BEGIN_DECLS

typedef struct tn_http_output_buffer {
    tn_output_buffer buffer; /* context: the record itself */
    tn_poll *poll;           /* the set each wait uses, not owned */
    tn_socket socket;        /* not owned */
    tn_int32 write_timeout;  /* per wait, ms: negative no limit, 0 one look */
    tn_bool chunked;         /* each call of the write operation is one chunk */
    tn_bool eos_sent;        /* the body has been ended */
} tn_http_output_buffer;

/* Sets up the record on the caller's storage of length bytes, empty and
 * open, with the chunked flag as given. */
TN_API void tn_http_output_buffer_init(tn_http_output_buffer *buffer, void *storage, tn_uint32 length,
                                       tn_socket socket, tn_poll *poll, tn_int32 write_timeout, tn_bool chunked);
/* Drops what is held and opens the buffer again, for the next message on a
 * persistent connection. The chunked flag stays. */
TN_API void tn_http_output_buffer_reset(tn_http_output_buffer *buffer);

/* Each returns 0 at once in the ended state (also for a count of 0), and is
 * otherwise the tn_output_buffer operation of the same name. */
TN_API tn_bool tn_http_output_buffer_flush(tn_http_output_buffer *buffer);
TN_API tn_bool tn_http_output_buffer_write(tn_http_output_buffer *buffer, const void *source, tn_uint32 n);
TN_API tn_bool tn_http_output_buffer_write_align(tn_http_output_buffer *buffer, const void *source, tn_uint32 n);
TN_API tn_bool tn_http_output_buffer_writes(tn_http_output_buffer *buffer, const tn_uchar *s);
TN_API tn_bool tn_http_output_buffer_writes_align(tn_http_output_buffer *buffer, const tn_uchar *s);

/* Ends the body: returns 0 if it has been ended already; flushes what is
 * held (in chunked mode, the last chunk with data) and returns 0 if that
 * fails; in chunked mode sends the closing chunk "0\r\n\r\n" with no
 * trailer, returning 0 if that fails; then moves to the ended state and
 * returns 1. Without the chunked flag it is a flush and the lock. A
 * failure leaves the buffer open. */
TN_API tn_bool tn_http_output_buffer_send_eos(tn_http_output_buffer *buffer);

/* The chunked flag. A new value acts from the next call of the write
 * operation on, so a caller writes a message head unframed, flushes it,
 * then turns the flag on for the body. */
TN_API tn_bool tn_http_output_buffer_get_chunked_encoding(const tn_http_output_buffer *buffer, tn_bool *chunked);
TN_API tn_bool tn_http_output_buffer_set_chunked_encoding(tn_http_output_buffer *buffer, tn_bool chunked);

/* The fields shared with tn_socket_output_buffer. A new time-out holds from
 * the next wait on. */
TN_API tn_bool tn_http_output_buffer_get_socket(const tn_http_output_buffer *buffer, tn_socket *socket);
TN_API tn_bool tn_http_output_buffer_get_poll(const tn_http_output_buffer *buffer, tn_poll **poll);
TN_API tn_bool tn_http_output_buffer_get_write_timeout(const tn_http_output_buffer *buffer, tn_int32 *timeout);
TN_API tn_bool tn_http_output_buffer_set_write_timeout(tn_http_output_buffer *buffer, tn_int32 timeout);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_HTTP_OUTPUT_BUFFER_H */
