// tn_http_header_read_socket on any bytes, fed through an input buffer in
// pieces. The first input byte picks the storage size, the second the piece
// size; the rest is the stream. The reading must end (every call either
// finishes or lets the buffer make room), never read outside the held bytes,
// keep the buffer's layout, and give the same block, the same line under way
// and the same unread bytes as the reading of the stream in one piece.
#include <tarnel_util/tn_http_header.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

struct source {
    const std::uint8_t *data;
    size_t size, at, piece;
};

tn_bool read_piece(void *destination, tn_uint32 capacity, tn_uint32 *count, void *context)
{
    auto *s = static_cast<source *>(context);
    size_t n = std::min({static_cast<size_t>(capacity), s->piece, s->size - s->at});
    std::copy_n(s->data + s->at, n, static_cast<std::uint8_t *>(destination));
    s->at += n;
    *count = static_cast<tn_uint32>(n);
    return 1;
}

[[noreturn]] void fail(const char *what)
{
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

std::string read_all(const std::uint8_t *data, size_t size, tn_uint32 storage, size_t piece)
{
    // Exactly the storage, so that ASan sees any access outside it.
    std::vector<tn_uchar> block_storage(storage);
    source src{data, size, 0, piece};
    tn_input_buffer buffer;
    tn_input_buffer_init(&buffer, block_storage.data(), storage, read_piece, &src);
    tn_str_array block;
    tn_uchar_array line;
    tn_str_array_init(&block);
    tn_array_init(&line, 1);
    std::string ending = "ran out";
    for (size_t rounds = 0;; ++rounds) {
        if (rounds > 4 * size + 8) fail("the reading does not end");
        tn_uint32 before = buffer.available;
        tn_input_buffer_pool(&buffer, nullptr);
        tn_uint32 held = buffer.available;
        tn_bool done = 0;
        tn_bool ok = tn_http_header_read_socket(&block, &buffer, &line, &done);
        if (buffer.position + buffer.available != buffer.length) fail("buffer layout broken");
        if (!ok || done) {
            ending = ok ? "done" : "failed";
            break;
        }
        if (held == before && buffer.available == held) {
            if (src.at < size) fail("stalled with the storage full");
            break;
        }
    }
    std::string result = ending + "\n";
    for (tn_uint32 i = 0; i < tn_str_array_length(&block); ++i) {
        std::string text = reinterpret_cast<const char *>(tn_str_array_get_pos(&block, i));
        if (text.find(':') == std::string::npos) fail("a line without colon reached the block");
        if (text.find("\r\n") != std::string::npos) fail("a line end reached the block");
        result += text + "|";
    }
    result += std::string(static_cast<const char *>(tn_array_get(&line)), tn_array_length(&line)) + "\n";
    result.append(reinterpret_cast<const char *>(buffer.storage + buffer.position), buffer.available);
    result.append(reinterpret_cast<const char *>(data + src.at), size - src.at);
    tn_str_array_free(&block);
    tn_array_free(&line);
    return result;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, size_t size)
{
    if (size < 2) return 0;
    tn_uint32 storage = 2 + data[0];
    size_t piece = 1 + data[1] % 16;
    if (read_all(data + 2, size - 2, storage, piece) != read_all(data + 2, size - 2, storage, size))
        fail("pieces read otherwise than the whole");
    return 0;
}
