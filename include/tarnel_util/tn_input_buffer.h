/*
 * tn_input_buffer.h - pull-style buffered reading from one read operation,
 * and its bindings to bytes in memory, a file and a socket.
 *
 * A buffer puts a block of the caller's storage in front of a read
 * operation (a function pointer with a context) and reads bytes, tokens and
 * lines on top of it. The buffer owns nothing: storage, file, socket and
 * poll set stay the caller's and outlive the record; there is no free.
 *
 * Layout. The unread bytes lie at the end of the storage: between calls,
 * position + available = length, and an empty buffer has position = length.
 * A refill reads into the front of the storage and moves what came to the
 * end.
 *
 * The read operation stores at most capacity bytes at destination and their
 * count in *count, and returns 1; a count of 0 is the end of the stream. It
 * returns 0 on failure. The buffer tells no reason: a failed source, a
 * time-out and a cancel look alike. End of stream is not remembered: each
 * later refill asks the operation again.
 *
 * Results are 1 or 0. tn_input_buffer_read returns 1 with a count of 0 at
 * the end of the stream; line, token, fill and skip return 0 for both end
 * of stream and failure. Nothing here allocates.
 */
#ifndef TARNEL_UTIL_TN_INPUT_BUFFER_H
#define TARNEL_UTIL_TN_INPUT_BUFFER_H

#include "tn_poll.h"
#include "tn_types.h"

TN_BEGIN_DECLS

typedef tn_bool (*tn_input_buffer_read_op)(void *destination, tn_uint32 capacity, tn_uint32 *count,
                                            void *context);

typedef struct tn_input_buffer {
    tn_uchar *storage;            /* the caller's block, not owned */
    tn_uint32 length;             /* its size in bytes */
    tn_uint32 available;          /* unread bytes held */
    tn_uint32 position;           /* index of the first unread byte */
    tn_input_buffer_read_op read; /* where bytes come from */
    void *context;                /* handed to every call of read */
} tn_input_buffer;

/* A buffer over a file; its read operation is tn_file_read. */
typedef struct tn_file_input_buffer {
    tn_input_buffer buffer;
    tn_file file; /* not owned */
} tn_file_input_buffer;

/* A buffer over a socket that may be non-blocking. */
typedef struct tn_socket_input_buffer {
    tn_input_buffer buffer;
    tn_poll *poll;          /* the set each wait uses, not owned */
    tn_socket socket;       /* not owned */
    tn_int32 read_timeout;  /* per wait, ms: negative no limit, 0 one look */
} tn_socket_input_buffer;

/* Sets the fields; the buffer starts empty (available 0, position =
 * length). */
TN_API void tn_input_buffer_init(tn_input_buffer *buffer, void *storage, tn_uint32 length,
                                 tn_input_buffer_read_op read, void *context);
/* Drops every unread byte. */
TN_API void tn_input_buffer_reset(tn_input_buffer *buffer);
TN_API tn_uint32 tn_input_buffer_length(const tn_input_buffer *buffer);
TN_API tn_uint32 tn_input_buffer_available(const tn_input_buffer *buffer);

/* Delivers between 0 and n bytes and their count; does not wait for n.
 * Held bytes are delivered without calling the read operation. With none
 * held, a request of at least the storage's size goes straight to the read
 * operation, and a smaller one refills the storage first. One call makes at
 * most one call of the read operation. */
TN_API tn_bool tn_input_buffer_read(tn_input_buffer *buffer, void *destination, tn_uint32 n, tn_uint32 *count);

/* Reads one token: leading delimiters (bytes of the delimiter string) are
 * skipped, the token ends at the next delimiter, which is consumed, or at
 * the end of the stream or a byte 0 (consumed, not stored). On success the
 * token is terminated in destination (which may be null: the bytes are
 * only consumed). A token that reaches size bytes fails with 0 and stays
 * consumed, so a usable token has at most size - 1 bytes; size 0 fails
 * without reading. End of stream before any byte fails. */
TN_API tn_bool tn_input_buffer_read_token(tn_input_buffer *buffer, tn_uchar *destination, tn_uint32 size,
                                          const tn_uchar *delimiters);

/* Reads one line: stores a terminator at destination first (when given),
 * skips line feeds before the first byte, ends at a line feed after it, and
 * removes a carriage return that ends the text; "\r\n" is the empty line.
 * A line of size bytes or more fails (the CR counts) and stays consumed.
 * A last line without a line feed is returned at the end of the stream; at
 * the end of the stream with nothing read the call fails. */
TN_API tn_bool tn_input_buffer_read_line(tn_input_buffer *buffer, tn_uchar *destination, tn_uint32 size);

/* Delivers exactly n bytes or fails; bytes delivered before a failure stay
 * in destination, uncounted. */
TN_API tn_bool tn_input_buffer_fill(tn_input_buffer *buffer, void *destination, tn_uint32 n);
/* Consumes exactly n bytes or fails. */
TN_API tn_bool tn_input_buffer_skip(tn_input_buffer *buffer, tn_uint64 n);
/* Makes bytes available without consuming any: stores the count now held,
 * refilling first when none is; 0 at the end of the stream. */
TN_API tn_bool tn_input_buffer_feed(tn_input_buffer *buffer, tn_uint32 *count);
/* Reads more bytes behind those held, into the free room, without waiting
 * for the buffer to run empty. Stores the count held in *count (which may be
 * null), the new count when bytes came. Returns what the read operation
 * returned; a full storage can take nothing. An out value of 0 means
 * nothing is held and nothing came: the end of the stream. */
TN_API tn_bool tn_input_buffer_pool(tn_input_buffer *buffer, tn_uint32 *count);

/* A buffer over the bytes of a string (terminator excluded) or over n
 * bytes, which are neither copied nor written; the end of the stream
 * follows the last byte. */
TN_API void tn_str_input_buffer_init(tn_input_buffer *buffer, const tn_uchar *s);
TN_API void tn_str_input_buffer_init2(tn_input_buffer *buffer, const void *bytes, tn_uint32 n);

TN_API void tn_file_input_buffer_init(tn_file_input_buffer *buffer, void *storage, tn_uint32 length, tn_file file);
TN_API tn_bool tn_file_input_buffer_get_file(const tn_file_input_buffer *buffer, tn_file *file);
/* The logical position: the file's position less the bytes held. */
TN_API tn_bool tn_file_input_buffer_get_pos(const tn_file_input_buffer *buffer, tn_uint64 *position);
/* Skips n bytes, from the held bytes when they suffice, else by seeking
 * past them. Skipping exactly to the end of the file succeeds, past it
 * fails. */
TN_API tn_bool tn_file_input_buffer_skip(tn_file_input_buffer *buffer, tn_uint64 n);

/* The socket's read operation: fails at once on a cancelled poll set, else
 * receives; on would-block it waits once for readability (read_timeout)
 * and receives once more. A cancel from another thread ends the wait within
 * one 100 ms slice. */
TN_API void tn_socket_input_buffer_init(tn_socket_input_buffer *buffer, void *storage, tn_uint32 length,
                                        tn_socket socket, tn_poll *poll, tn_int32 read_timeout);
TN_API tn_bool tn_socket_input_buffer_get_socket(const tn_socket_input_buffer *buffer, tn_socket *socket);
TN_API tn_bool tn_socket_input_buffer_get_poll(const tn_socket_input_buffer *buffer, tn_poll **poll);
TN_API tn_bool tn_socket_input_buffer_get_read_timeout(const tn_socket_input_buffer *buffer, tn_int32 *timeout);
/* Holds from the next wait on. */
TN_API tn_bool tn_socket_input_buffer_set_read_timeout(tn_socket_input_buffer *buffer, tn_int32 timeout);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_INPUT_BUFFER_H */
