#include <tarnel_util/tn_byte.h>
#include <tarnel_util/tn_http_header.h>
#include <tarnel_util/tn_str.h>
#include <tarnel_util/tn_uchar_array.h>

namespace {

using U = tn_uchar;

const U *held(const tn_input_buffer *buffer) { return buffer->storage + buffer->position; }

// Index of the first CRLF among the held bytes, or the held count.
tn_uint32 find_crlf(const tn_input_buffer *buffer)
{
    return tn_byte_find(held(buffer), buffer->available, tn_str_crlf(), 2);
}

void consume(tn_input_buffer *buffer, tn_uint32 n)
{
    buffer->position += n;
    buffer->available -= n;
}

// The logical line under way is complete: it goes to the block, read as a
// string, if it holds a colon.
tn_bool end_logical_line(tn_str_array *block, tn_uchar_array *accumulator)
{
    if (tn_array_failed(accumulator)) return 0;
    if (!tn_array_length(accumulator)) return 1;
    if (!tn_uchar_array_cat0(accumulator)) return 0;
    const U *line = static_cast<const U *>(tn_array_get(accumulator));
    if (line[tn_str_chr(line, ':')] && !tn_str_array_cato(block, line)) return 0;
    return tn_array_truncate(accumulator);
}

// A line opening with a blank continues the logical line under way; any
// other line closes that one first.
bool close_unless_folded(tn_str_array *block, const tn_input_buffer *buffer, tn_uchar_array *accumulator)
{
    U first = held(buffer)[0];
    return first == ' ' || first == '\t' || end_logical_line(block, accumulator);
}

enum class step { line, empty_line, fault };

// One complete physical line of length n at the front of the held bytes.
step take_line(tn_str_array *block, tn_input_buffer *buffer, tn_uchar_array *accumulator, tn_uint32 n)
{
    if (!close_unless_folded(block, buffer, accumulator)) return step::fault;
    if (n && !tn_array_catn(accumulator, held(buffer), n)) return step::fault;
    consume(buffer, n + 2);
    return n ? step::line : step::empty_line;
}

} // namespace

tn_bool tn_http_find_line_str(const tn_input_buffer *buffer, tn_uint32 *used, tn_uint32 *line_length)
{
    if (!buffer || !used || !line_length) return 0;
    *used = buffer->available;
    *line_length = buffer->available >= 2 ? find_crlf(buffer) : buffer->available;
    return 1;
}

tn_bool tn_http_find_line_socket(const tn_input_buffer *buffer, tn_uint32 *used, tn_uint32 *line_length)
{
    return tn_http_find_line_str(buffer, used, line_length);
}

tn_bool tn_http_header_read_socket(tn_str_array *block, tn_input_buffer *buffer, tn_uchar_array *accumulator,
                                   tn_bool *done)
{
    if (!done) return 0;
    *done = 0;
    if (!block || !buffer || !accumulator || buffer->length < 2) return 0;
    for (;;) {
        tn_uint32 n = find_crlf(buffer);
        if (n < buffer->available) {
            step taken = take_line(block, buffer, accumulator, n);
            if (taken == step::fault) return 0;
            if (taken == step::empty_line) {
                *done = 1;
                return 1;
            }
            continue;
        }
        if (buffer->available < buffer->length) return 1;
        // Full without a line end: make room, keeping the two bytes in which
        // a CRLF may straddle the refill. With no more than those held no
        // refill can ever bring the line end.
        if (buffer->available <= 2) return 0;
        if (!close_unless_folded(block, buffer, accumulator)) return 0;
        consume(buffer, buffer->available - 2);
        return 1;
    }
}

tn_bool tn_http_header_read_str(tn_str_array *block, tn_input_buffer *buffer, tn_uchar_array *accumulator)
{
    if (!block || !buffer || !accumulator) return 0;
    tn_bool emptied = tn_str_array_truncate(block);
    if (!tn_array_truncate(accumulator) || tn_array_failed(accumulator) || !emptied) return 0;
    for (;;) {
        tn_uint32 n = find_crlf(buffer);
        if (n == buffer->available) return 1;
        step taken = take_line(block, buffer, accumulator, n);
        if (taken != step::line) return taken == step::empty_line;
    }
}
