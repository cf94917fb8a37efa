#include <tarnel_util/tn_input_buffer.h>
#include <tarnel_util/tn_output_buffer.h>

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

const tn_uchar *u(const char *s) { return reinterpret_cast<const tn_uchar *>(s); }

// A source that hands out its text in chunks of the sizes given, in turn,
// and can be told to fail at its Nth call.
struct Source {
    std::string text;
    std::vector<tn_uint32> chunks{1};
    size_t at = 0, calls = 0, fail_at = 0;

    static tn_bool read(void *d, tn_uint32 capacity, tn_uint32 *count, void *context)
    {
        auto *s = static_cast<Source *>(context);
        if (++s->calls == s->fail_at) return 0;
        tn_uint32 k = s->chunks[(s->calls - 1) % s->chunks.size()];
        k = std::min<tn_uint32>({k, capacity, static_cast<tn_uint32>(s->text.size() - s->at)});
        std::memcpy(d, s->text.data() + s->at, k);
        s->at += k;
        *count = k;
        return 1;
    }
};

struct Reader {
    Source source;
    std::vector<tn_uchar> storage;
    tn_input_buffer b;

    Reader(std::string text, tn_uint32 length, std::vector<tn_uint32> chunks = {1}) : storage(length + 1)
    {
        source.text = std::move(text);
        source.chunks = std::move(chunks);
        tn_input_buffer_init(&b, storage.data(), length, Source::read, &source);
    }
    bool sound() const { return b.position + b.available == b.length && b.position <= b.length; }
};

// Lines as the reader defines them: segments between line feeds, empty
// ones skipped, one trailing CR dropped.
std::vector<std::string> model_lines(const std::string &text)
{
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        std::string line = text.substr(start, end == std::string::npos ? std::string::npos : end - start);
        if (!line.empty()) lines.push_back(line.back() == '\r' ? line.substr(0, line.size() - 1) : line);
        if (end == std::string::npos) break;
        start = end + 1;
    }
    return lines;
}

// Every storage size from none to larger than the text, every chunking.
TEST(InputBuffer, LinesTokensAndBytesAgreeWithTheModelForEveryStorageAndChunking)
{
    std::mt19937 random(1);
    const std::string alphabet = "ab \r\n\n\t";
    for (int round = 0; round < 300; ++round) {
        std::string text;
        for (int i = random() % 40; i > 0; --i) text += alphabet[random() % alphabet.size()];
        const std::vector<std::string> want = model_lines(text);
        for (tn_uint32 length : {0u, 1u, 2u, 3u, 7u, 64u}) {
            for (const std::vector<tn_uint32> &chunks : {std::vector<tn_uint32>{1}, {2, 5}, {64}}) {
                SCOPED_TRACE(::testing::Message() << "text '" << text << "' storage " << length << " chunk " << chunks[0]);
                Reader r(text, length, chunks);
                std::vector<std::string> got;
                tn_uchar line[64];
                while (tn_input_buffer_read_line(&r.b, line, sizeof line)) got.push_back(reinterpret_cast<char *>(line));
                ASSERT_TRUE(r.sound());
                ASSERT_EQ(got, want);

                Reader all(text, length, chunks);
                std::string bytes;
                tn_uint32 n = 0;
                char piece[5];
                while (tn_input_buffer_read(&all.b, piece, 1 + bytes.size() % 5, &n) && n) bytes.append(piece, n);
                ASSERT_EQ(bytes, text);
                ASSERT_TRUE(all.sound());
            }
        }
    }
}

TEST(InputBuffer, ListedLineAndTokenCases)
{
    tn_input_buffer b;
    tn_uchar line[8];
    tn_str_input_buffer_init(&b, u("text\r\n\r\n"));
    EXPECT_TRUE(tn_input_buffer_read_line(&b, line, 8));
    EXPECT_STREQ(reinterpret_cast<char *>(line), "text");
    EXPECT_TRUE(tn_input_buffer_read_line(&b, line, 8));
    EXPECT_STREQ(reinterpret_cast<char *>(line), "");
    EXPECT_FALSE(tn_input_buffer_read_line(&b, line, 8));

    tn_str_input_buffer_init2(&b, "ab\0cd", 5);
    EXPECT_TRUE(tn_input_buffer_read_line(&b, line, 8) && !std::strcmp(reinterpret_cast<char *>(line), "ab"));
    EXPECT_TRUE(tn_input_buffer_read_line(&b, line, 8) && !std::strcmp(reinterpret_cast<char *>(line), "cd"));

    tn_str_input_buffer_init(&b, u("1234567\nx"));
    EXPECT_FALSE(tn_input_buffer_read_line(&b, line, 7)) << "seven bytes need a size of 8";
    tn_str_input_buffer_init(&b, u("123456\nlast"));
    EXPECT_TRUE(tn_input_buffer_read_line(&b, line, 7));
    EXPECT_TRUE(tn_input_buffer_read_line(&b, line, 7));
    EXPECT_STREQ(reinterpret_cast<char *>(line), "last");
    EXPECT_FALSE(tn_input_buffer_read_line(&b, nullptr, 8192));
    line[0] = 'x';
    EXPECT_FALSE(tn_input_buffer_read_line(&b, line, 0));
    EXPECT_EQ(line[0], 0);

    tn_str_input_buffer_init(&b, u("  word\t\tsecond"));
    EXPECT_TRUE(tn_input_buffer_read_token(&b, line, 8, u(" \t")));
    EXPECT_STREQ(reinterpret_cast<char *>(line), "word");
    EXPECT_TRUE(tn_input_buffer_read_token(&b, line, 8, u(" \t")));
    EXPECT_STREQ(reinterpret_cast<char *>(line), "second");
    EXPECT_FALSE(tn_input_buffer_read_token(&b, line, 8, u(" \t")));
    tn_str_input_buffer_init(&b, u("abcdefgh z"));
    EXPECT_FALSE(tn_input_buffer_read_token(&b, line, 8, u(" "))) << "a full token fails and stays consumed";
    EXPECT_TRUE(tn_input_buffer_read_token(&b, line, 8, u(" ")));
    EXPECT_STREQ(reinterpret_cast<char *>(line), "z") << "the eighth byte went with the failure";
}

TEST(InputBuffer, ReadRefillsOnceBypassesLargeRequestsAndReportsTheEnd)
{
    Reader r("abcdefghij", 4, {3});
    tn_uint32 n = 99;
    char out[16];
    EXPECT_TRUE(tn_input_buffer_read(&r.b, out, 0, &n));
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(tn_input_buffer_available(&r.b), 3u) << "a read of 0 still refills, and the bytes stay held";
    EXPECT_TRUE(tn_input_buffer_read(&r.b, out, 16, &n));
    EXPECT_EQ(n, 3u) << "held bytes come without a call";
    EXPECT_EQ(r.source.calls, 1u);
    EXPECT_TRUE(tn_input_buffer_read(&r.b, out, 4, &n));
    EXPECT_EQ(std::string(out, n), "def") << "a request of the storage's size goes straight to the source";
    EXPECT_EQ(tn_input_buffer_available(&r.b), 0u);
    EXPECT_TRUE(tn_input_buffer_fill(&r.b, out, 4));
    EXPECT_EQ(std::string(out, 4), "ghij");
    EXPECT_TRUE(tn_input_buffer_read(&r.b, out, 1, &n));
    EXPECT_EQ(n, 0u);
    EXPECT_FALSE(tn_input_buffer_fill(&r.b, out, 1));
    EXPECT_TRUE(tn_input_buffer_fill(&r.b, out, 0));
    EXPECT_TRUE(tn_input_buffer_skip(&r.b, 0));
    EXPECT_FALSE(tn_input_buffer_skip(&r.b, 1));
    EXPECT_TRUE(r.sound());
}

TEST(InputBuffer, PoolAddsBehindTheHeldBytesAndKeepsThemOnFailure)
{
    Reader r("abcdefgh", 8, {3});
    tn_uint32 held = 0;
    char c;
    EXPECT_TRUE(tn_input_buffer_read(&r.b, &c, 1, &held));
    EXPECT_TRUE(tn_input_buffer_pool(&r.b, &held));
    EXPECT_EQ(held, 5u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(r.storage.data()) + r.b.position, r.b.available), "bcdef");
    r.source.fail_at = r.source.calls + 1;
    EXPECT_FALSE(tn_input_buffer_pool(&r.b, &held));
    EXPECT_EQ(held, 5u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(r.storage.data()) + r.b.position, r.b.available), "bcdef");
    EXPECT_TRUE(tn_input_buffer_pool(&r.b, nullptr));
    EXPECT_TRUE(tn_input_buffer_pool(&r.b, &held)) << "the end of the stream adds nothing and is no failure";
    EXPECT_EQ(held, 7u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(r.storage.data()) + r.b.position, r.b.available), "bcdefgh");
    EXPECT_TRUE(r.sound());

    // A string's bytes are read only: pooling must not write to them.
    static const char text[] = "read-only";
    tn_input_buffer s;
    tn_str_input_buffer_init(&s, u(text));
    EXPECT_TRUE(tn_input_buffer_skip(&s, 5));
    EXPECT_TRUE(tn_input_buffer_pool(&s, &held));
    EXPECT_EQ(held, 4u);
}

// A sink that records its pieces and can refuse its Nth call.
struct Sink {
    std::string data;
    std::vector<tn_uint32> pieces;
    size_t calls = 0, fail_at = 0;
    static tn_bool write(const void *s, tn_uint32 n, void *context)
    {
        auto *k = static_cast<Sink *>(context);
        if (++k->calls == k->fail_at) return 0;
        k->pieces.push_back(n);
        k->data.append(static_cast<const char *>(s), n);
        return 1;
    }
};

TEST(OutputBuffer, PlainAndAlignWritesHandOverTheListedPieces)
{
    const std::string source(20000, 'x');
    struct Case { tn_uint32 held; bool align; tn_uint32 n; std::vector<tn_uint32> pieces; tn_uint32 used; };
    const Case cases[] = {
        {10, false, 246, {10}, 246},          {0, false, 256, {256}, 0},
        {0, true, 256, {}, 256},              {0, false, 20000, {8192, 8192, 3616}, 0},
        {0, false, 16500, {8192, 8192}, 116}, {0, true, 600, {256, 256}, 88},
        {0, false, 255, {}, 255},             {10, false, 245, {}, 255},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(::testing::Message() << c.held << " held, " << (c.align ? "align " : "plain ") << c.n);
        Sink sink;
        std::vector<tn_uchar> storage(256);
        tn_output_buffer b;
        tn_output_buffer_init(&b, storage.data(), 256, Sink::write, &sink);
        EXPECT_TRUE(tn_output_buffer_write(&b, source.data(), c.held));
        EXPECT_TRUE(c.align ? tn_output_buffer_write_align(&b, source.data(), c.n)
                            : tn_output_buffer_write(&b, source.data(), c.n));
        EXPECT_EQ(sink.pieces, c.pieces);
        EXPECT_EQ(tn_output_buffer_used(&b), c.used);
        EXPECT_TRUE(tn_output_buffer_flush(&b));
        EXPECT_EQ(sink.data.size(), c.held + c.n);
        EXPECT_EQ(tn_output_buffer_used(&b), 0u);
    }
}

TEST(OutputBuffer, FailedFlushKeepsTheHeldBytesAndEmptyStorageNeverLoops)
{
    Sink sink;
    tn_uchar storage[16];
    tn_output_buffer b;
    tn_output_buffer_init(&b, storage, 16, Sink::write, &sink);
    EXPECT_TRUE(tn_output_buffer_writes(&b, u("held")));
    sink.fail_at = 1;
    EXPECT_FALSE(tn_output_buffer_write(&b, "0123456789abcdef", 16));
    EXPECT_EQ(tn_output_buffer_used(&b), 4u);
    EXPECT_TRUE(tn_output_buffer_flush(&b));
    EXPECT_EQ(sink.data, "held");
    EXPECT_TRUE(tn_output_buffer_flush(&b));
    EXPECT_EQ(sink.calls, 2u) << "nothing held, no call";

    tn_output_buffer_init(&b, nullptr, 0, Sink::write, &sink);
    EXPECT_TRUE(tn_output_buffer_write(&b, "abc", 3));
    EXPECT_TRUE(tn_output_buffer_write(&b, "", 0));
    EXPECT_FALSE(tn_output_buffer_write_align(&b, "abc", 3));
    EXPECT_EQ(sink.data, "heldabc");
}

TEST(OutputBuffer, CopyMovesAWholeInputThroughEveryStorageSize)
{
    std::string text;
    for (int i = 0; i < 3000; ++i) text += static_cast<char>('a' + i % 26);
    for (tn_uint32 in_length : {1u, 100u, 4096u}) {
        for (tn_uint32 out_length : {1u, 256u, 10000u}) {
            Reader r(text, in_length, {7, 1000});
            Sink sink;
            std::vector<tn_uchar> storage(out_length);
            tn_output_buffer b;
            tn_output_buffer_init(&b, storage.data(), out_length, Sink::write, &sink);
            EXPECT_TRUE(tn_output_buffer_copy(&r.b, &b));
            EXPECT_TRUE(tn_output_buffer_flush(&b));
            EXPECT_EQ(sink.data, text) << in_length << " in, " << out_length << " out";
            EXPECT_TRUE(tn_output_buffer_copy(&r.b, &b)) << "at the end of the stream";
        }
    }
}

} // namespace
