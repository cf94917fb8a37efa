/*
 * tn_output_buffer.h - push-style buffered writing to one write operation,
 * and its bindings to a file and a socket.
 *
 * A buffer collects bytes in a block of the caller's storage in front of a
 * write operation (a function pointer with a context). It owns nothing and
 * has no free; nothing is written out without a call, so the caller
 * flushes when it is done.
 *
 * The write operation returns 1 when it wrote the whole count, else 0;
 * there are no partial results.
 *
 * Two kinds of write:
 *   - Plain writes keep the storage never quite full: a write that fits
 *     strictly inside the free room is copied; otherwise what is held is
 *     flushed, and data of at least the room goes straight to the write
 *     operation in pieces of the greater of the storage's size and 8192
 *     bytes, the remainder below the room being copied.
 *   - Align writes always copy and hand over only a full storage, so the
 *     sink sees pieces of exactly the storage's size, apart from what the
 *     final flush hands over. They may leave the storage full. They need a
 *     storage of at least one byte and fail on an empty one.
 *
 * Failures. A failed flush keeps the held bytes, so a later flush hands the
 * same bytes over again; the bytes of the failing write that had not gone
 * into the storage are lost. Results are 1 or 0; nothing here allocates.
 */
#ifndef TARNEL_UTIL_TN_OUTPUT_BUFFER_H
#define TARNEL_UTIL_TN_OUTPUT_BUFFER_H

#include "tn_input_buffer.h"
#include "tn_poll.h"
#include "tn_types.h"

TN_BEGIN_DECLS

typedef tn_bool (*tn_output_buffer_write_op)(const void *source, tn_uint32 count, void *context);

typedef struct tn_output_buffer {
    tn_uchar *storage;              /* the caller's block, not owned */
    tn_uint32 length;               /* its size in bytes */
    tn_uint32 used;                 /* bytes held, from the start */
    tn_uint32 limit;                /* size of the room: length after init, reset, flush */
    tn_output_buffer_write_op write; /* where bytes go */
    void *context;                  /* handed to every call of write */
} tn_output_buffer;

typedef struct tn_file_output_buffer {
    tn_output_buffer buffer;
    tn_file file; /* not owned */
} tn_file_output_buffer;

typedef struct tn_socket_output_buffer {
    tn_output_buffer buffer;
    tn_poll *poll;          /* the set each wait uses, not owned */
    tn_socket socket;       /* not owned */
    tn_int32 write_timeout; /* per wait, ms: negative no limit, 0 one look */
} tn_socket_output_buffer;

TN_API void tn_output_buffer_init(tn_output_buffer *buffer, void *storage, tn_uint32 length,
                                  tn_output_buffer_write_op write, void *context);
/* Drops what is held. */
TN_API void tn_output_buffer_reset(tn_output_buffer *buffer);
TN_API tn_uint32 tn_output_buffer_length(const tn_output_buffer *buffer);
TN_API tn_uint32 tn_output_buffer_used(const tn_output_buffer *buffer);

/* Plain writes of n bytes, or of a string without its terminator. */
TN_API tn_bool tn_output_buffer_write(tn_output_buffer *buffer, const void *source, tn_uint32 n);
TN_API tn_bool tn_output_buffer_writes(tn_output_buffer *buffer, const tn_uchar *s);
/* Align writes of n bytes, or of a string without its terminator. */
TN_API tn_bool tn_output_buffer_write_align(tn_output_buffer *buffer, const void *source, tn_uint32 n);
TN_API tn_bool tn_output_buffer_writes_align(tn_output_buffer *buffer, const tn_uchar *s);

/* Hands what is held to the write operation; with nothing held, makes no
 * call and returns 1. */
TN_API tn_bool tn_output_buffer_flush(tn_output_buffer *buffer);

/* Copies the input to its end of stream as plain writes of what each feed
 * makes available. The tail stays held in the output; the caller flushes. */
TN_API tn_bool tn_output_buffer_copy(tn_input_buffer *input, tn_output_buffer *output);

/* The write operation writes the whole count with tn_file_write. */
TN_API void tn_file_output_buffer_init(tn_file_output_buffer *buffer, void *storage, tn_uint32 length, tn_file file);
TN_API tn_bool tn_file_output_buffer_get_file(const tn_file_output_buffer *buffer, tn_file *file);

TN_API void tn_socket_output_buffer_init(tn_socket_output_buffer *buffer, void *storage, tn_uint32 length,
                                         tn_socket socket, tn_poll *poll, tn_int32 write_timeout);
/* The socket's write operation, with the record as context, for a caller
 * that has flushed and sends a large block past the storage. It sends
 * until every byte has left: before each send it fails on a cancelled poll
 * set; on would-block it waits once for writability (write_timeout) and
 * sends once more. A count of 0 returns 1 at once. */
TN_API tn_bool tn_socket_output_buffer_write_op(const void *source, tn_uint32 n, void *buffer);
TN_API tn_bool tn_socket_output_buffer_get_socket(const tn_socket_output_buffer *buffer, tn_socket *socket);
TN_API tn_bool tn_socket_output_buffer_get_poll(const tn_socket_output_buffer *buffer, tn_poll **poll);
TN_API tn_bool tn_socket_output_buffer_get_write_timeout(const tn_socket_output_buffer *buffer, tn_int32 *timeout);
/* Holds from the next wait on. */
TN_API tn_bool tn_socket_output_buffer_set_write_timeout(tn_socket_output_buffer *buffer, tn_int32 timeout);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_OUTPUT_BUFFER_H */
