// Pieces shared by the server and client connections and the chunked
// output: the deadline of a blocking call, the wait-and-refill loop around
// a non-blocking reader, the first line of a message, and a chunk's size
// line.
#ifndef TN_SRC_HTTP_CONNECTION_H
#define TN_SRC_HTTP_CONNECTION_H

#include <tarnel_util/tn_fmt.h>
#include <tarnel_util/tn_input_buffer.h>
#include <tarnel_util/tn_poll.h>
#include <tarnel_util/tn_time.h>

namespace tn::http {

// One absolute deadline for a whole blocking call: 0 means no limit.
tn_time deadline_after(tn_int32 timeout_ms);

// Waits until the socket is readable and takes more bytes in. A refill that
// brings nothing new means the peer has closed, whether or not bytes are
// held, so a head cut off mid-line fails instead of waiting for ever.
bool await_more(tn_poll *poll, tn_socket socket, tn_input_buffer *in, const tn_time *deadline);

// Runs a non-blocking reader until it is done, waiting between attempts.
template <class Reader>
bool until_done(tn_poll *poll, tn_socket socket, tn_input_buffer *in, const tn_time *deadline, Reader reader)
{
    for (;;) {
        tn_bool done = 0;
        if (!reader(&done)) return false;
        if (done) return true;
        if (!await_more(poll, socket, in, deadline)) return false;
    }
}

// Skips the empty lines that may stand before a start or status line and
// gives the length of that line, CRLF excluded, or 0 while it is not yet
// complete. Held bytes that fill the storage without a line end can never
// become a line: that returns false.
bool first_line(tn_input_buffer *in, tn_uint32 *length);

// The size line of a chunk, n in lower-case hexadecimal and CRLF, in text;
// returns its length.
inline tn_uint32 chunk_size_line(tn_uchar (&text)[10], tn_uint32 n)
{
    tn_uint32 k = tn_str_fmt_xint(text, n);
    text[k] = '\r';
    text[k + 1] = '\n';
    return k + 2;
}

} // namespace tn::http

#endif
