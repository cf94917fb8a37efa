#include <tarnel_util/tn_http_header.h>
#include <tarnel_util/tn_str.h>
#include <tarnel_util/tn_str_array.h>
#include <tarnel_util/tn_uchar_array.h>

#include <cstring>

namespace {

using U = tn_uchar;

const U *held(const tn_input_buffer *buffer) { return buffer->storage + buffer->position; }

const U *find_byte(const U *from, const U *end, U byte)
{
    return static_cast<const U *>(std::memchr(from, byte, static_cast<size_t>(end - from)));
}

// Index of the first CRLF at or after from among the held bytes, or the
// held count. Line feeds are rare, so looking for them alone and then at
// the byte before beats matching the pair everywhere; a bare one stays
// inside its line.
tn_uint32 find_crlf(const tn_input_buffer *buffer, tn_uint32 from = 0)
{
    if (buffer->available - from < 2) return buffer->available;
    const U *start = held(buffer), *end = start + buffer->available;
    for (const U *lf = find_byte(start + from + 1, end, '\n'); lf; lf = find_byte(lf + 1, end, '\n'))
        if (lf[-1] == '\r') return static_cast<tn_uint32>(lf - 1 - start);
    return buffer->available;
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
    if (accumulator->failed) return 0;
    if (!accumulator->length) return 1;
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

// A line that nothing is under way before, followed by a complete line that
// opens with no blank, is a whole logical line by itself: it can go to the
// block straight from the held bytes, skipping the accumulator, with the
// same result. The following line must be complete because until then the
// accumulator keeps the line. A failed block keeps the long way, which
// fails as it always did.
bool stands_alone(const tn_str_array *block, const tn_input_buffer *buffer, const tn_uchar_array *accumulator,
                  tn_uint32 n, tn_uint32 following)
{
    if (accumulator->length || accumulator->failed || block->pool.failed || block->entries.failed) return false;
    if (!n || following >= buffer->available) return false;
    U next = held(buffer)[n + 2];
    return next != ' ' && next != '\t';
}

// The line read as a string, as the accumulator would hand it on: up to its
// first zero byte, kept only if a colon comes before that.
bool keep_field(tn_str_array *block, const U *line, tn_uint32 n)
{
    const U *end = line + n, *zero = find_byte(line, end, 0);
    if (zero) end = zero;
    return !find_byte(line, end, ':') || tn_str_array_caton(block, line, static_cast<tn_uint32>(end - line));
}

// One complete physical line of length n at the front of the held bytes;
// following is the end of the line behind it (the held count if that is
// incomplete).
step take_line(tn_str_array *block, tn_input_buffer *buffer, tn_uchar_array *accumulator, tn_uint32 n,
               tn_uint32 following)
{
    if (stands_alone(block, buffer, accumulator, n, following)) {
        const U *line = held(buffer);
        consume(buffer, n + 2);
        return keep_field(block, line, n) ? step::line : step::fault;
    }
    if (!close_unless_folded(block, buffer, accumulator)) return step::fault;
    if (n && !tn_array_catn(accumulator, held(buffer), n)) return step::fault;
    consume(buffer, n + 2);
    return n ? step::line : step::empty_line;
}

// Takes the complete line of length *n at the front and leaves in *n the end
// of the next one, so each held byte is searched once.
step take_next(tn_str_array *block, tn_input_buffer *buffer, tn_uchar_array *accumulator, tn_uint32 *n)
{
    tn_uint32 following = *n ? find_crlf(buffer, *n + 2) : *n;
    step taken = take_line(block, buffer, accumulator, *n, following);
    *n = following - *n - 2;
    return taken;
}

} // namespace

tn_bool tn_http_find_line_str(const tn_input_buffer *buffer, tn_uint32 *used, tn_uint32 *line_length)
{
    if (!buffer || !used || !line_length) return 0;
    *used = buffer->available;
    *line_length = find_crlf(buffer);
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
    for (tn_uint32 n = find_crlf(buffer);;) {
        if (n < buffer->available) {
            step taken = take_next(block, buffer, accumulator, &n);
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
    for (tn_uint32 n = find_crlf(buffer);;) {
        if (n == buffer->available) return 1;
        step taken = take_next(block, buffer, accumulator, &n);
        if (taken != step::line) return taken == step::empty_line;
    }
}
