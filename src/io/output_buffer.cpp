#include <tarnel_util/tn_byte.h>
#include <tarnel_util/tn_output_buffer.h>
#include <tarnel_util/tn_str.h>

namespace {

// Pieces that go straight to the sink are at least this large, so a small
// storage does not turn a large write into many small ones.
constexpr tn_uint32 direct_piece = 8192;

tn_uint32 room(const tn_output_buffer *b) { return b->limit - b->used; }

void hold(tn_output_buffer *b, const tn_uchar *source, tn_uint32 n)
{
    tn_byte_copy(b->storage + b->used, n, source);
    b->used += n;
}

} // namespace

void tn_output_buffer_init(tn_output_buffer *b, void *storage, tn_uint32 length, tn_output_buffer_write_op write,
                           void *context)
{
    b->storage = static_cast<tn_uchar *>(storage);
    b->length = length;
    b->used = 0;
    b->limit = length;
    b->write = write;
    b->context = context;
}

void tn_output_buffer_reset(tn_output_buffer *b)
{
    b->used = 0;
    b->limit = b->length;
}

tn_uint32 tn_output_buffer_length(const tn_output_buffer *b) { return b->length; }
tn_uint32 tn_output_buffer_used(const tn_output_buffer *b) { return b->used; }

tn_bool tn_output_buffer_flush(tn_output_buffer *b)
{
    if (!b->used) return 1;
    if (!b->write(b->storage, b->used, b->context)) return 0;
    tn_output_buffer_reset(b);
    return 1;
}

tn_bool tn_output_buffer_write(tn_output_buffer *b, const void *source, tn_uint32 n)
{
    const auto *from = static_cast<const tn_uchar *>(source);
    if (room(b) > n) {
        hold(b, from, n);
        return 1;
    }
    if (!tn_output_buffer_flush(b)) return 0;
    const tn_uint32 piece = b->limit > direct_piece ? b->limit : direct_piece;
    while (n && b->limit <= n) {
        tn_uint32 k = n < piece ? n : piece;
        if (!b->write(from, k, b->context)) return 0;
        from += k;
        n -= k;
    }
    hold(b, from, n);
    return 1;
}

tn_bool tn_output_buffer_writes(tn_output_buffer *b, const tn_uchar *s)
{
    return tn_output_buffer_write(b, s, tn_str_len(s));
}

tn_bool tn_output_buffer_write_align(tn_output_buffer *b, const void *source, tn_uint32 n)
{
    const auto *from = static_cast<const tn_uchar *>(source);
    while (room(b) < n) {
        tn_uint32 k = room(b);
        // An empty storage can never pass anything on.
        if (!k && !b->used) return 0;
        hold(b, from, k);
        from += k;
        n -= k;
        if (!b->write(b->storage, b->used, b->context)) return 0;
        tn_output_buffer_reset(b);
    }
    hold(b, from, n);
    return 1;
}

tn_bool tn_output_buffer_writes_align(tn_output_buffer *b, const tn_uchar *s)
{
    return tn_output_buffer_write_align(b, s, tn_str_len(s));
}

tn_bool tn_output_buffer_copy(tn_input_buffer *in, tn_output_buffer *out)
{
    tn_uint32 count = 0;
    if (!tn_input_buffer_feed(in, &count)) return 0;
    while (count) {
        // The count is all held, so the skip only consumes and never reads.
        if (!tn_output_buffer_write(out, in->storage + in->position, count) || !tn_input_buffer_skip(in, count) ||
            !tn_input_buffer_feed(in, &count))
            return 0;
    }
    return 1;
}
