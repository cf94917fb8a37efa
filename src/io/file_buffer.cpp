#include <tarnel_util/tn_file.h>
#include <tarnel_util/tn_input_buffer.h>
#include <tarnel_util/tn_output_buffer.h>

namespace {

tn_bool read_file(void *destination, tn_uint32 capacity, tn_uint32 *count, void *context)
{
    return tn_file_read(static_cast<tn_file_input_buffer *>(context)->file, destination, capacity, count);
}

// A short write is no failure of tn_file_write, so the rest goes again; a
// write that takes nothing would never end and counts as failed.
tn_bool write_file(const void *source, tn_uint32 n, void *context)
{
    tn_file file = static_cast<tn_file_output_buffer *>(context)->file;
    const auto *from = static_cast<const tn_uchar *>(source);
    while (n) {
        tn_uint32 written = 0;
        if (!tn_file_write(file, from, n, &written) || !written || written > n) return 0;
        from += written;
        n -= written;
    }
    return 1;
}

} // namespace

void tn_file_input_buffer_init(tn_file_input_buffer *b, void *storage, tn_uint32 length, tn_file file)
{
    tn_input_buffer_init(&b->buffer, storage, length, read_file, b);
    b->file = file;
}

tn_bool tn_file_input_buffer_get_file(const tn_file_input_buffer *b, tn_file *file)
{
    *file = b->file;
    return 1;
}

tn_bool tn_file_input_buffer_get_pos(const tn_file_input_buffer *b, tn_uint64 *position)
{
    tn_uint64 at = 0;
    if (!tn_file_seek_pos(b->file, &at)) return 0;
    *position = at - b->buffer.available;
    return 1;
}

tn_bool tn_file_input_buffer_skip(tn_file_input_buffer *b, tn_uint64 n)
{
    if (!n) return 1;
    if (n <= b->buffer.available) return tn_input_buffer_skip(&b->buffer, n);
    tn_uint64 from = 0, landed = 0;
    if (!tn_file_input_buffer_get_pos(b, &from)) return 0;
    tn_input_buffer_reset(&b->buffer);
    if (!tn_file_seek_set(b->file, from + n, &landed) || landed != from + n) return 0;
    tn_uint32 count = 0;
    if (!tn_input_buffer_feed(&b->buffer, &count)) return 0;
    if (count) return 1;
    // Nothing came: the seek went to the end or past it.
    tn_file_status status;
    tn_uint64 size = tn_file_get_fstatus(b->file, &status) ? status.size : 0;
    return landed == size;
}

void tn_file_output_buffer_init(tn_file_output_buffer *b, void *storage, tn_uint32 length, tn_file file)
{
    tn_output_buffer_init(&b->buffer, storage, length, write_file, b);
    b->file = file;
}

tn_bool tn_file_output_buffer_get_file(const tn_file_output_buffer *b, tn_file *file)
{
    *file = b->file;
    return 1;
}
