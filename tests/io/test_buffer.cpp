#include <tarnel_util/tn_input_buffer.h>
#include <tarnel_util/tn_output_buffer.h>
#include <gtest/gtest.h>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {
const tn_uchar *u(const char *s) { return reinterpret_cast<const tn_uchar *>(s); }
std::string s(const tn_uchar *text) { return reinterpret_cast<const char *>(text); }

// A buffer over a source that hands out its text in chunks of the sizes given, in turn, and can fail its Nth call.
struct Reader {
    std::string text;
    std::vector<tn_uint32> chunks;
    size_t at = 0, calls = 0, fail_at = 0;
    std::vector<tn_uchar> storage;
    tn_input_buffer b;
    Reader(const std::string &t, tn_uint32 n, const std::vector<tn_uint32> &c) : text(t), chunks(c), storage(n + 1)
    {
        tn_input_buffer_init(&b, storage.data(), n, read, this);
    }
    static tn_bool read(void *d, tn_uint32 capacity, tn_uint32 *count, void *context)
    {
        auto *r = static_cast<Reader *>(context);
        if (++r->calls == r->fail_at) return 0;
        *count = std::min<tn_uint32>({r->chunks[(r->calls - 1) % r->chunks.size()], capacity, tn_uint32(r->text.size() - r->at)});
        std::memcpy(d, r->text.data() + r->at, *count);
        r->at += *count;
        return 1;
    }
    bool sound() const { return b.position + b.available == b.length && b.position <= b.length; }
    std::string held() const { return {reinterpret_cast<const char *>(b.storage) + b.position, b.available}; }
};

// A buffer over a sink that records its pieces and can refuse its Nth call.
struct Writer {
    std::string data;
    std::vector<tn_uint32> pieces;
    size_t calls = 0, fail_at = 0;
    std::vector<tn_uchar> storage;
    tn_output_buffer b;
    explicit Writer(tn_uint32 n) : storage(n + 1) { tn_output_buffer_init(&b, storage.data(), n, write, this); }
    static tn_bool write(const void *s, tn_uint32 n, void *context)
    {
        auto *k = static_cast<Writer *>(context);
        if (++k->calls == k->fail_at) return 0;
        k->pieces.push_back(n);
        k->data.append(static_cast<const char *>(s), n);
        return 1;
    }
};

// Lines as the reader defines them: segments between line feeds, empty ones skipped, one trailing CR dropped.
std::vector<std::string> model_lines(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (!line.empty()) lines.push_back(line.back() == '\r' ? line.substr(0, line.size() - 1) : line);
    return lines;
}

// Every storage size from none to larger than the text, every chunking. The copy's output has that size too; its
// input a byte at least, as none feeds nothing.
TEST(InputBuffer, LinesBytesAndCopiesAgreeWithTheModelForEveryStorageAndChunking)
{
    std::mt19937 random(1);
    const std::string alphabet = "ab \r\n\n\t";
    for (int round = 0; round < 300; ++round) {
        std::string text;
        for (int i = random() % 40; i > 0; --i) text += alphabet[random() % alphabet.size()];
        for (tn_uint32 length : {0u, 1u, 2u, 3u, 7u, 64u}) {
            for (const std::vector<tn_uint32> &chunks : {std::vector<tn_uint32>{1}, {2, 5}, {64}}) {
                SCOPED_TRACE(::testing::Message() << "'" << text << "', storage " << length << ", chunk " << chunks[0]);
                Reader r(text, length, chunks), all(text, length, chunks), copied(text, std::max(length, 1u), chunks);
                std::vector<std::string> lines;
                tn_uchar line[64];
                while (tn_input_buffer_read_line(&r.b, line, sizeof line)) lines.push_back(s(line));
                ASSERT_TRUE(r.sound());
                ASSERT_EQ(lines, model_lines(text)) << "read_line";
                std::string bytes;
                tn_uint32 n = 0;
                while (tn_input_buffer_read(&all.b, line, 1 + bytes.size() % 5, &n) && n)
                    bytes.append(reinterpret_cast<char *>(line), n);
                ASSERT_TRUE(all.sound());
                ASSERT_EQ(bytes, text) << "read";
                Writer w(length);
                ASSERT_TRUE(tn_output_buffer_copy(&copied.b, &w.b));
                ASSERT_TRUE(tn_output_buffer_flush(&w.b));
                ASSERT_EQ(w.data, text) << "copied";
            }
        }
    }
}

// A line or token of the size or more fails and stays consumed; a byte 0 ends one too; a CR ending a line goes,
// but counts towards the size.
TEST(InputBuffer, ListedLineAndTokenCases)
{
    const struct { std::string text; tn_uint32 size; const char *delimiters; std::vector<std::string> got; } cases[] = {
        {"text\r\n\r\n", 8, nullptr, {"text", ""}},
        {std::string("ab\0cd", 5), 8, nullptr, {"ab", "cd"}},
        {"1234567\nx", 7, nullptr, {"!", "x"}},
        {"123456\r\nx", 8, nullptr, {"123456", "x"}},
        {"123456\r\nx", 7, nullptr, {"!", "x"}},
        {"  word\t\tsecond", 8, " \t", {"word", "second"}},
        {"abcdefgh z", 8, " ", {"!", "z"}},
        {"abcdefg z", 8, " ", {"abcdefg", "z"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        tn_input_buffer b;
        tn_str_input_buffer_init2(&b, c.text.data(), static_cast<tn_uint32>(c.text.size()));
        tn_uchar out[8];
        std::vector<std::string> got; // "!" for a failure
        for (int i = 0; i < 5 && tn_input_buffer_available(&b); ++i) {
            const bool ok = c.delimiters ? tn_input_buffer_read_token(&b, out, c.size, u(c.delimiters))
                                         : tn_input_buffer_read_line(&b, out, c.size);
            got.push_back(ok ? s(out) : "!");
        }
        EXPECT_EQ(got, c.got);
        EXPECT_FALSE(tn_input_buffer_read_line(&b, nullptr, 8)) << "at the end";
        EXPECT_FALSE(tn_input_buffer_read_token(&b, out, 8, u(" "))) << "at the end";
        out[0] = 'x';
        EXPECT_FALSE(tn_input_buffer_read_line(&b, out, 0));
        EXPECT_EQ(out[0], 0) << "size 0 fails, but terminates first";
    }
}

TEST(InputBuffer, ReadFillSkipAndPoolKeepTheirBoundaries)
{
    Reader r("abcdefghij", 4, {3});
    tn_uint32 n = 99;
    char out[16];
    EXPECT_TRUE(tn_input_buffer_read(&r.b, out, 0, &n));
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(tn_input_buffer_available(&r.b), 3u) << "a read of 0 still refills, and the bytes stay held";
    EXPECT_TRUE(tn_input_buffer_read(&r.b, out, 16, &n));
    EXPECT_EQ(n, 3u) << "held bytes come without a call";
    EXPECT_EQ(r.calls, 1u);
    EXPECT_TRUE(tn_input_buffer_read(&r.b, out, 4, &n));
    EXPECT_EQ(std::string(out, n), "def");
    EXPECT_TRUE(tn_input_buffer_fill(&r.b, out, 4)) << "over a storage of 4 and chunks of 3";
    EXPECT_EQ(std::string(out, 4), "ghij");
    EXPECT_TRUE(tn_input_buffer_read(&r.b, out, 1, &n));
    EXPECT_EQ(n, 0u) << "the end";
    EXPECT_FALSE(tn_input_buffer_fill(&r.b, out, 1));
    EXPECT_TRUE(tn_input_buffer_fill(&r.b, out, 0));
    EXPECT_TRUE(tn_input_buffer_skip(&r.b, 0));
    EXPECT_FALSE(tn_input_buffer_skip(&r.b, 1));
    EXPECT_TRUE(r.sound());

    // Pooling adds behind the held bytes, and keeps them when the source fails.
    Reader p("abcdefgh", 8, {3});
    tn_uint32 held = 0;
    EXPECT_TRUE(tn_input_buffer_skip(&p.b, 1));
    EXPECT_TRUE(tn_input_buffer_pool(&p.b, &held));
    EXPECT_EQ(held, 5u);
    EXPECT_EQ(p.held(), "bcdef");
    p.fail_at = p.calls + 1;
    EXPECT_FALSE(tn_input_buffer_pool(&p.b, &held));
    EXPECT_EQ(held, 5u);
    EXPECT_EQ(p.held(), "bcdef") << "a failed pool lost the held bytes";
    EXPECT_TRUE(tn_input_buffer_pool(&p.b, nullptr));
    EXPECT_EQ(p.held(), "bcdefgh");
    EXPECT_TRUE(tn_input_buffer_pool(&p.b, &held)) << "the end adds nothing, and is no failure";
    EXPECT_EQ(held, 7u);

    // A string's bytes (here a literal's) are read only: pooling must not write to them.
    tn_input_buffer b;
    tn_str_input_buffer_init(&b, u("read-only"));
    EXPECT_TRUE(tn_input_buffer_skip(&b, 5));
    EXPECT_TRUE(tn_input_buffer_pool(&b, &held));
    EXPECT_EQ(held, 4u);
}

TEST(OutputBuffer, WritesHandOverTheListedPiecesAndFailedFlushesKeepTheirBytes)
{
    const std::string source(20000, 'x');
    const struct { tn_uint32 held; bool align; tn_uint32 n; std::vector<tn_uint32> pieces; tn_uint32 used; } cases[] = {
        {10, false, 246, {10}, 246},
        {0, false, 256, {256}, 0},
        {0, true, 256, {}, 256},
        {0, false, 20000, {8192, 8192, 3616}, 0},
        {0, false, 16500, {8192, 8192}, 116},
        {0, true, 600, {256, 256}, 88},
        {0, false, 255, {}, 255},
        {10, false, 245, {}, 255},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(::testing::Message() << c.held << " held, " << (c.align ? "align " : "plain ") << c.n);
        Writer w(256);
        ASSERT_TRUE(tn_output_buffer_write(&w.b, source.data(), c.held));
        EXPECT_TRUE((c.align ? tn_output_buffer_write_align : tn_output_buffer_write)(&w.b, source.data(), c.n));
        EXPECT_EQ(w.pieces, c.pieces);
        EXPECT_EQ(tn_output_buffer_used(&w.b), c.used);
        EXPECT_TRUE(tn_output_buffer_flush(&w.b));
        EXPECT_EQ(tn_output_buffer_used(&w.b), 0u);
        EXPECT_EQ(w.data.size(), c.held + c.n);
    }

    // A failed flush keeps the held bytes; an empty storage passes plain writes on and refuses align ones, rather
    // than loop.
    Writer w(16);
    EXPECT_TRUE(tn_output_buffer_writes(&w.b, u("held")));
    w.fail_at = 1;
    EXPECT_FALSE(tn_output_buffer_write(&w.b, "0123456789abcdef", 16));
    EXPECT_EQ(tn_output_buffer_used(&w.b), 4u) << "a failed flush keeps the held bytes";
    EXPECT_TRUE(tn_output_buffer_flush(&w.b));
    EXPECT_EQ(w.data, "held");
    EXPECT_TRUE(tn_output_buffer_flush(&w.b));
    EXPECT_EQ(w.calls, 2u) << "nothing held, no call";
    tn_output_buffer_init(&w.b, nullptr, 0, Writer::write, &w);
    EXPECT_TRUE(tn_output_buffer_write(&w.b, "abc", 3));
    EXPECT_TRUE(tn_output_buffer_write(&w.b, "", 0));
    EXPECT_FALSE(tn_output_buffer_write_align(&w.b, "abc", 3));
    EXPECT_EQ(w.data, "heldabc");
}

} // namespace
