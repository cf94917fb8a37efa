/*
 * tn_http_chunk.h - incremental reading of a body in the chunked transfer
 * coding of HTTP/1.1 from an input buffer.
 *
 * The reader's whole state is a small record, so that a caller on a
 * non-blocking socket can stop between any two bytes of the framing and
 * come back when more bytes have arrived. The framing (size lines, the CRLF
 * behind each chunk, the trailer lines and the closing line) is consumed
 * from what the buffer holds; data goes straight to the caller's
 * destination. Chunk extensions and trailer lines are skipped and dropped.
 * Nothing here allocates.
 *
 * The state field tells where the reader stands; the values are those of
 * the TN_HTTP_CHUNK_ names below. A caller learns that the body has ended
 * from the state TN_HTTP_CHUNK_COMPLETE. TN_HTTP_CHUNK_FAILED is final:
 * every malformed byte, every premature end of the stream and every failed
 * read of the source ends there, and it stays until the record is
 * initialised again. No reason is kept: a failed source and bad framing
 * look alike.
 *
 * A size line is hex digits of either case, then optional blanks (a digit
 * behind a blank still counts), then either CR LF or ";" and an extension
 * that runs to the CR. Leading zeros are free; a 17th significant digit
 * fails. A size of 0 ends the data; trailer lines follow, each ending at
 * its LF (a CR not followed by LF keeps the line going until an LF), and
 * the empty line CR LF ends the body. Bytes behind it stay unread in the
 * buffer.
 */
#ifndef TARNEL_UTIL_TN_HTTP_CHUNK_H
#define TARNEL_UTIL_TN_HTTP_CHUNK_H

#include "tn_input_buffer.h"
#include "tn_types.h"

TN_BEGIN_DECLS

/* The values of the state field. */
#define TN_HTTP_CHUNK_FAILED 0u
#define TN_HTTP_CHUNK_SIZE_START 1u       /* the first hex digit of a size line */
#define TN_HTTP_CHUNK_SIZE_DIGITS 2u      /* more digits, or what ends the size */
#define TN_HTTP_CHUNK_SIZE_LF 3u          /* the LF of the size line */
#define TN_HTTP_CHUNK_DATA 4u             /* data bytes of the chunk */
#define TN_HTTP_CHUNK_DATA_CR 5u          /* the CR behind the data */
#define TN_HTTP_CHUNK_DATA_LF 6u          /* the LF behind the data */
#define TN_HTTP_CHUNK_EXTENSION 7u        /* any bytes up to the size line's CR */
#define TN_HTTP_CHUNK_TRAILER_START 8u    /* a trailer line, or the closing CR */
#define TN_HTTP_CHUNK_TRAILER_LINE 9u     /* any bytes up to a trailer line's CR */
#define TN_HTTP_CHUNK_TRAILER_LF 10u      /* the LF of a trailer line */
#define TN_HTTP_CHUNK_FINAL_LF 11u        /* the LF of the closing line */
#define TN_HTTP_CHUNK_COMPLETE 12u        /* the body has ended */

typedef struct tn_http_chunk {
    tn_uint32 state;
    /* While a size line is read, the size assembled so far; then the count
     * of data bytes of the current chunk still to come. */
    tn_uint64 remaining;
} tn_http_chunk;

/* Makes the record ready for a new body: state TN_HTTP_CHUNK_SIZE_START,
 * remaining 0. */
TN_API void tn_http_chunk_init(tn_http_chunk *chunk);

/* Reads on in the body. *count and *ready are set to 0 first. Size is the
 * destination's capacity and must be at least 1.
 *
 *   1, *count > 0, *ready 1  data was delivered: at most size bytes, and
 *                            never more than is left of one chunk; the CRLF
 *                            behind the chunk is left for the next call.
 *   1, *count 0,   *ready 1  the closing line has been read; the state is
 *                            TN_HTTP_CHUNK_COMPLETE.
 *   1, *count 0,   *ready 0  every byte held was framing; call again when
 *                            more bytes have arrived.
 *   0                        the body cannot be read further; the state is
 *                            TN_HTTP_CHUNK_FAILED, except in the cases
 *                            below.
 *
 * Waiting. A call that starts in the data of a chunk reads once like
 * tn_input_buffer_read, which may go to the source (on a socket: wait
 * there, within the socket's time-out). Any other call that finds nothing
 * held refills once with tn_input_buffer_pool, whose failure or end of the
 * stream fails the reader; after that the call works only on the bytes
 * held and does not wait.
 *
 * Two results of 0 leave the state as it is: a byte other than LF where
 * the closing line's LF belongs (the state stays TN_HTTP_CHUNK_FINAL_LF),
 * and a call in the state TN_HTTP_CHUNK_COMPLETE or TN_HTTP_CHUNK_FAILED,
 * which consumes nothing; such a call that finds nothing held still
 * refills first and fails the reader when the refill fails. A null
 * argument or a size of 0 gives 0 and changes nothing. */
TN_API tn_bool tn_http_chunk_read(tn_http_chunk *chunk, tn_input_buffer *buffer, void *destination,
                                  tn_uint32 size, tn_uint32 *count, tn_uint32 *ready);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_HTTP_CHUNK_H */
