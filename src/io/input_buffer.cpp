#include <tarnel_util/tn_byte.h>
#include <tarnel_util/tn_input_buffer.h>
#include <tarnel_util/tn_str.h>

#include <cstring>

namespace {

tn_uint32 least(tn_uint32 a, tn_uint32 b) { return a < b ? a : b; }

void consume(tn_input_buffer *b, tn_uint32 n)
{
    b->position += n;
    b->available -= n;
}

// Copies what is held, up to n, to destination and consumes it.
tn_uint32 take(tn_input_buffer *b, void *destination, tn_uint32 n)
{
    tn_uint32 k = least(b->available, n);
    tn_byte_copy(destination, k, b->storage + b->position);
    consume(b, k);
    return k;
}

// The string binding's source: the end of the stream follows the bytes.
tn_bool end_of_bytes(void *, tn_uint32, tn_uint32 *count, void *)
{
    *count = 0;
    return 1;
}

enum class Fill { failed, end, filled };

// With nothing held: reads into the front of the storage and moves what
// came to the end, where unread bytes live.
Fill refill(tn_input_buffer *b)
{
    tn_uint32 room = b->position, count = 0;
    if (!b->read(b->storage, room, &count, b->context) || count > room) return Fill::failed;
    if (!count) return Fill::end;
    b->available = count;
    b->position = room - count;
    if (b->position) tn_byte_copy(b->storage + b->position, count, b->storage);
    return Fill::filled;
}

enum class Byte { failed, end, got };

// One byte for the token and line scans. A storage of 0 or 1 byte has no
// room to refill into usefully, so the byte is read on its own.
Byte read_byte(tn_input_buffer *b, tn_uchar *c)
{
    if (!b->available) {
        if (b->position < 2) {
            tn_uint32 count = 0;
            if (!b->read(c, 1, &count, b->context)) return Byte::failed;
            return count ? Byte::got : Byte::end;
        }
        Fill f = refill(b);
        if (f != Fill::filled) return f == Fill::failed ? Byte::failed : Byte::end;
    }
    *c = b->storage[b->position];
    consume(b, 1);
    return Byte::got;
}

// Byte by byte in effect: leading delimiters skipped, other bytes stored
// and counted, the scan ending at a delimiter after the first byte, at a
// byte 0 (consumed, not stored), or failing when the count reaches size.
// The held bytes are taken in runs found by the delimiter set's own search,
// and the source is asked exactly when a byte-at-a-time reader would ask.
// Returns the count, or size (never a valid count) for every failure.
template <class Delimiters>
tn_uint32 scan(tn_input_buffer *b, tn_uchar *destination, tn_uint32 size, const Delimiters &delimiters)
{
    tn_uint32 count = 0;
    for (;;) {
        if (!b->available) {
            tn_uchar c;
            Byte r = read_byte(b, &c);
            if (r != Byte::got) return r == Byte::end && count ? count : size;
            if (c == 0) return count ? count : size;
            if (delimiters(c)) {
                if (count) return count;
                continue;
            }
            if (destination) destination[count] = c;
            if (++count == size) return size;
            continue;
        }
        const tn_uchar *held = b->storage + b->position;
        const tn_uint32 n = b->available;
        tn_uint32 i = 0;
        if (!count)
            while (i < n && held[i] && delimiters(held[i])) ++i;
        const tn_uint32 span = n - i < size - count ? n - i : size - count;
        const tn_uint32 run = delimiters.stop(held + i, span);
        if (destination) tn_byte_copy(destination + count, run, held + i);
        count += run;
        i += run;
        if (count == size) {
            consume(b, i);
            return size;
        }
        if (run < span) {
            tn_uchar c = held[i];
            consume(b, i + 1);
            if (c == 0) return count ? count : size;
            if (count) return count;
            continue;
        }
        consume(b, i);
    }
}

// The delimiter string as a set of bytes, looked up without a search.
struct ByteSet {
    tn_uint64 bits[4] = {};
    explicit ByteSet(const tn_uchar *s)
    {
        for (; *s; ++s) bits[*s >> 6] |= tn_uint64{1} << (*s & 63);
    }
    bool operator()(tn_uchar c) const { return bits[c >> 6] >> (c & 63) & 1; }
    // Bytes before the first delimiter or 0 among the n at p.
    tn_uint32 stop(const tn_uchar *p, tn_uint32 n) const
    {
        tn_uint32 i = 0;
        while (i < n && p[i] && !(*this)(p[i])) ++i;
        return i;
    }
};

// Lines end at a line feed; the C library finds it, and the byte 0 that
// would end a line sooner, a vector at a time.
struct LineFeed {
    bool operator()(tn_uchar c) const { return c == '\n'; }
    tn_uint32 stop(const tn_uchar *p, tn_uint32 n) const
    {
        const void *feed = std::memchr(p, '\n', n);
        tn_uint32 end = feed ? static_cast<tn_uint32>(static_cast<const tn_uchar *>(feed) - p) : n;
        const void *zero = std::memchr(p, 0, end);
        return zero ? static_cast<tn_uint32>(static_cast<const tn_uchar *>(zero) - p) : end;
    }
};

} // namespace

void tn_input_buffer_init(tn_input_buffer *b, void *storage, tn_uint32 length, tn_input_buffer_read_op read,
                          void *context)
{
    b->storage = static_cast<tn_uchar *>(storage);
    b->length = length;
    b->available = 0;
    b->position = length;
    b->read = read;
    b->context = context;
}

void tn_input_buffer_reset(tn_input_buffer *b)
{
    b->available = 0;
    b->position = b->length;
}

tn_uint32 tn_input_buffer_length(const tn_input_buffer *b) { return b->length; }
tn_uint32 tn_input_buffer_available(const tn_input_buffer *b) { return b->available; }

tn_bool tn_input_buffer_read(tn_input_buffer *b, void *destination, tn_uint32 n, tn_uint32 *count)
{
    if (!b->available) {
        // A request of at least the storage's size skips the extra copy.
        if (b->position <= n) return b->read(destination, n, count, b->context);
        Fill f = refill(b);
        if (f == Fill::failed) return 0;
        if (f == Fill::end) {
            *count = 0;
            return 1;
        }
    }
    *count = take(b, destination, n);
    return 1;
}

tn_bool tn_input_buffer_read_token(tn_input_buffer *b, tn_uchar *destination, tn_uint32 size,
                                   const tn_uchar *delimiters)
{
    if (!size) return 0;
    tn_uint32 count = scan(b, destination, size, ByteSet(delimiters));
    if (count == size) return 0;
    if (destination) destination[count] = 0;
    return 1;
}

tn_bool tn_input_buffer_read_line(tn_input_buffer *b, tn_uchar *destination, tn_uint32 size)
{
    if (destination) destination[0] = 0;
    if (!size) return 0;
    tn_uint32 count = scan(b, destination, size, LineFeed{});
    if (count == size) return 0;
    if (destination) {
        destination[count] = 0;
        if (destination[count - 1] == '\r') destination[count - 1] = 0;
    }
    return 1;
}

tn_bool tn_input_buffer_fill(tn_input_buffer *b, void *destination, tn_uint32 n)
{
    auto *to = static_cast<tn_uchar *>(destination);
    while (n) {
        if (!b->available && refill(b) != Fill::filled) return 0;
        tn_uint32 k = take(b, to, n);
        to += k;
        n -= k;
    }
    return 1;
}

tn_bool tn_input_buffer_skip(tn_input_buffer *b, tn_uint64 n)
{
    while (n) {
        if (!b->available && refill(b) != Fill::filled) return 0;
        tn_uint32 k = n < b->available ? static_cast<tn_uint32>(n) : b->available;
        consume(b, k);
        n -= k;
    }
    return 1;
}

tn_bool tn_input_buffer_feed(tn_input_buffer *b, tn_uint32 *count)
{
    if (!b->available && refill(b) == Fill::failed) return 0;
    *count = b->available;
    return 1;
}

tn_bool tn_input_buffer_pool(tn_input_buffer *b, tn_uint32 *count)
{
    const tn_uint32 held = b->available, room = b->position;
    if (count) *count = held;
    // The string binding's source never writes, so its bytes (which may be
    // read-only) need not move out of the way and back.
    const bool moves = held && b->read != end_of_bytes;
    if (moves) tn_byte_copy(b->storage, held, b->storage + room);
    tn_uint32 got = 0;
    tn_bool ok = b->read(b->storage + held, room, &got, b->context);
    if (ok && got && got <= room) {
        b->available = held + got;
        b->position = room - got;
        if (count) *count = b->available;
        if (b->position && b->available) tn_byte_copy(b->storage + b->position, b->available, b->storage);
        return 1;
    }
    if (moves) tn_byte_copy(b->storage + room, held, b->storage);
    return ok && got <= room;
}

void tn_str_input_buffer_init(tn_input_buffer *b, const tn_uchar *s) { tn_str_input_buffer_init2(b, s, tn_str_len(s)); }

void tn_str_input_buffer_init2(tn_input_buffer *b, const void *bytes, tn_uint32 n)
{
    // The storage is only ever read: the source adds nothing to refill.
    tn_input_buffer_init(b, const_cast<void *>(bytes), n, end_of_bytes, nullptr);
    b->available = n;
    b->position = 0;
}
