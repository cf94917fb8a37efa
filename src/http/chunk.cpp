#include <tarnel_util/tn_http_chunk.h>
#include <tarnel_util/tn_uchar_array.h>

namespace {

// Beyond this a further digit would need a 17th significant digit and
// could wrap the 64-bit size.
constexpr tn_uint64 size_limit = tn_uint64(1) << 60;

enum class Step { more, data, complete, refused, failure };

Step size_digit(tn_http_chunk *k, tn_uchar c)
{
    if (tn_uchar_is_hex(c)) {
        if (k->remaining >= size_limit) return Step::failure;
        k->remaining = k->remaining * 16 + tn_uchar_hex_to_uint8(c);
        return Step::more;
    }
    if (c == '\r') k->state = TN_HTTP_CHUNK_SIZE_LF;
    else if (c == ';') k->state = TN_HTTP_CHUNK_EXTENSION;
    else if (c != ' ' && c != '\t') return Step::failure;
    return Step::more;
}

Step size_line_feed(tn_http_chunk *k, tn_uchar c)
{
    if (c != '\n') return Step::failure;
    k->state = k->remaining ? TN_HTTP_CHUNK_DATA : TN_HTTP_CHUNK_TRAILER_START;
    return k->remaining ? Step::data : Step::more;
}

Step expect(tn_http_chunk *k, tn_uchar c, tn_uchar wanted, tn_uint32 next)
{
    if (c != wanted) return Step::failure;
    k->state = next;
    return Step::more;
}

// The transitions of one framing byte.
Step step(tn_http_chunk *k, tn_uchar c)
{
    switch (k->state) {
    case TN_HTTP_CHUNK_SIZE_START:
        if (!tn_uchar_is_hex(c)) return Step::failure;
        k->remaining = tn_uchar_hex_to_uint8(c);
        k->state = TN_HTTP_CHUNK_SIZE_DIGITS;
        return Step::more;
    case TN_HTTP_CHUNK_SIZE_DIGITS: return size_digit(k, c);
    case TN_HTTP_CHUNK_SIZE_LF: return size_line_feed(k, c);
    case TN_HTTP_CHUNK_DATA_CR: return expect(k, c, '\r', TN_HTTP_CHUNK_DATA_LF);
    case TN_HTTP_CHUNK_DATA_LF: return expect(k, c, '\n', TN_HTTP_CHUNK_SIZE_START);
    case TN_HTTP_CHUNK_EXTENSION:
        if (c == '\r') k->state = TN_HTTP_CHUNK_SIZE_LF;
        return Step::more;
    case TN_HTTP_CHUNK_TRAILER_START:
        k->state = c == '\r' ? TN_HTTP_CHUNK_FINAL_LF : TN_HTTP_CHUNK_TRAILER_LINE;
        return Step::more;
    case TN_HTTP_CHUNK_TRAILER_LINE:
        if (c == '\r') k->state = TN_HTTP_CHUNK_TRAILER_LF;
        return Step::more;
    case TN_HTTP_CHUNK_TRAILER_LF:
        if (c == '\n') k->state = TN_HTTP_CHUNK_TRAILER_START;
        return Step::more;
    case TN_HTTP_CHUNK_FINAL_LF:
        if (c != '\n') return Step::refused;
        k->state = TN_HTTP_CHUNK_COMPLETE;
        return Step::complete;
    default: return Step::failure;
    }
}

tn_bool fail(tn_http_chunk *k)
{
    k->state = TN_HTTP_CHUNK_FAILED;
    return 0;
}

// One read's worth of the current chunk; a count of 0 here is the end of
// the stream inside the data.
tn_bool deliver(tn_http_chunk *k, tn_input_buffer *b, void *destination, tn_uint32 size, tn_uint32 *count,
                tn_uint32 *ready)
{
    if (!k->remaining) return fail(k);
    const tn_uint32 n = k->remaining < size ? tn_uint32(k->remaining) : size;
    tn_uint32 got = 0;
    if (!tn_input_buffer_read(b, destination, n, &got) || !got || got > n) return fail(k);
    k->remaining -= got;
    if (!k->remaining) k->state = TN_HTTP_CHUNK_DATA_CR;
    *count = got;
    *ready = 1;
    return 1;
}

tn_uchar take_byte(tn_input_buffer *b)
{
    --b->available;
    return b->storage[b->position++];
}

} // namespace

void tn_http_chunk_init(tn_http_chunk *chunk)
{
    if (!chunk) return;
    chunk->state = TN_HTTP_CHUNK_SIZE_START;
    chunk->remaining = 0;
}

tn_bool tn_http_chunk_read(tn_http_chunk *chunk, tn_input_buffer *buffer, void *destination, tn_uint32 size,
                           tn_uint32 *count, tn_uint32 *ready)
{
    if (!chunk || !buffer || !destination || !size || !count || !ready) return 0;
    *count = 0;
    *ready = 0;
    if (chunk->state == TN_HTTP_CHUNK_DATA) return deliver(chunk, buffer, destination, size, count, ready);
    if (!buffer->available) {
        tn_uint32 held = 0;
        if (!tn_input_buffer_pool(buffer, &held) || !held) return fail(chunk);
    }
    if (chunk->state < TN_HTTP_CHUNK_SIZE_START || chunk->state > TN_HTTP_CHUNK_FINAL_LF) return 0;
    while (buffer->available) {
        switch (step(chunk, take_byte(buffer))) {
        case Step::more: break;
        case Step::data:
            if (!buffer->available) return 1;
            return deliver(chunk, buffer, destination, size, count, ready);
        case Step::complete: *ready = 1; return 1;
        case Step::refused: return 0;
        case Step::failure: return fail(chunk);
        }
    }
    return 1;
}
