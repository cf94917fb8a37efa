#include <tarnel_util/tn_rfc1123_date.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr tn_time t0 = 784111777; // Sun, 06 Nov 1994 08:49:37 GMT
constexpr tn_uint32 whole = ~0u;  // the count is the whole text

struct ScanRow {
    const char *text;
    tn_uint32 count; // 0: refused
    tn_time time;
};

TEST(Rfc1123Date, ScanTakesTheDateTimeAndNothingElse)
{
    const ScanRow rows[] = {
        {"Sun, 06 Nov 1994 08:49:37 GMT", 29, t0},
        {"Mon, 06 Nov 1994 08:49:37 GMT", 29, t0},
        {"Sunday, 06-Nov-94 08:49:37 GMT", 0, 0},
        {"Sun Nov  6 08:49:37 1994", 0, 0},
        {"sun, 06 Nov 1994 08:49:37 GMT", 0, 0},
        {"Sun, 06 nov 1994 08:49:37 GMT", 0, 0},
        {"06 Nov 94 08:49 GMT", 19, t0 - 37},
        {" Sun , 06 Nov 1994 08 : 49 : 37 GMT", whole, t0},
        {"\tSun,06\tNov\t1994\t08:49:37\tGMT", whole, t0},
        {"(note) Sun, 06 (x (nested)) Nov 1994 08:49:37 GMT", whole, t0},
        {"Sun, 06 (x (unclosed) Nov 1994 08:49:37 GMT", 0, 0},
        {"(a)(b) 06 Nov 1994 08:49:37 GMT", 0, 0},
        {"Sun, 06 Nov(x)1994 08:49:37 GMT", whole, t0}, // a comment alone is a gap
        {"6 Nov 1994 08:49:37 GMT", whole, t0},
        {"6 Nov 1994 8:49:37 GMT", 0, 0},
        {"106 Nov 1994 08:49:37 GMT", 0, 0},
        {"06 Nov 1994 08:049:37 GMT", 0, 0},
        {"06 Nov 1994 08:49:37GMT", 0, 0},
        {"06 Nov 1994 08:49GMT", 0, 0},
        {"06 Nov 1994 08:49: GMT", 0, 0},
        {"06 Nov 1994 08:49 :37 GMT", whole, t0},
        {"06 Nov 1994 08:49:37+0900", 0, 0},
        {"06 Nov 1994 08:49:37 +0900", whole, t0 - 9 * 3600},
        {"06 Nov 1994 08:49:37 -0500", whole, t0 + 5 * 3600},
        {"06 Nov 1994 08:49:37 -0099", whole, t0 + 99 * 60},
        {"06 Nov 1994 08:49:37 +090", 0, 0},
        {"06 Nov 1994 08:49:37 +09000", 0, 0},
        {"01 Jan 49 00:00 GMT", whole, 2493072000},    // 2049
        {"01 Jan 50 00:00 GMT", whole, -631152000},    // 1950
        {"01 Jan 101 00:00 GMT", whole, 978307200},    // 2001
        {"01 Jan 2001 00:00 GMT", whole, 978307200},
        {"01 Jan 002001 00:00 GMT", whole, 978307200},
        {"01 Jan 67537 00:00 GMT", whole, 978307200}, // 2001 in its low 16 bits
        {"01 Jan 1 00:00 GMT", 0, 0},
        {"01 Jan 1600 00:00 GMT", 0, 0},
        {"31 Dec 30827 23:59:59 GMT", whole, 910670515199},
        {"01 Jan 30828 00:00 GMT", 0, 0},
        {"31 Feb 2001 00:00:00 GMT", 0, 0},
        {"01 Jan 2001 24:00:00 GMT", 0, 0},
        {"01 Jan 2001 23:59:60 GMT", 0, 0},
        {"Sun, 06 Nov 1994 08:49:37 GMT trailing", 30, t0},
        {"Sun, 06 Nov 1994 08:49:37 GMT (c) x", 34, t0},
        {"Sun, 06 Nov 1994 08:49:37 GMT(c)x", 32, t0},
        {"Sun, 06 Nov 1994 08:49:37 GMT (c", 0, 0},
        {"Sun, 06 Nov 1994 08:49:37 GMTx", 0, 0},
        {"06 Nov 1994 08:49:37 UTC", 0, 0},
        {"06 Nov 1994 08:49:37 UT", whole, t0},
        {"06 Nov 1994 08:49:37 Est", 0, 0},
        {"06 Nov 1994 08:49:37 EST", whole, t0 + 5 * 3600},
        {"06 Nov 1994 08:49:37 EDT", whole, t0 + 4 * 3600},
        {"06 Nov 1994 08:49:37 CST", whole, t0 + 6 * 3600},
        {"06 Nov 1994 08:49:37 CDT", whole, t0 + 5 * 3600},
        {"06 Nov 1994 08:49:37 MST", whole, t0 + 7 * 3600},
        {"06 Nov 1994 08:49:37 MDT", whole, t0 + 6 * 3600},
        {"06 Nov 1994 08:49:37 PST", whole, t0 + 8 * 3600},
        {"06 Nov 1994 08:49:37 PDT", whole, t0 + 7 * 3600},
        {"06 Nov 1994 08:49:37 a", whole, t0 - 3600},
        {"06 Nov 1994 08:49:37 I", whole, t0 - 9 * 3600},
        {"06 Nov 1994 08:49:37 J", 0, 0},
        {"06 Nov 1994 08:49:37 j", 0, 0},
        {"06 Nov 1994 08:49:37 k", whole, t0 - 10 * 3600},
        {"06 Nov 1994 08:49:37 M", whole, t0 - 12 * 3600},
        {"06 Nov 1994 08:49:37 n", whole, t0 + 3600},
        {"06 Nov 1994 08:49:37 Y", whole, t0 + 12 * 3600},
        {"06 Nov 1994 08:49:37 z", whole, t0},
        {"06 Nov 1994 08:49:37 1", 0, 0},
        {"06 Nov 1994 08:49:37 \xC1", 0, 0},
        {"", 0, 0},
    };
    for (const ScanRow &row : rows) {
        SCOPED_TRACE(row.text);
        // Exactly sized, so that a read past the terminator is caught.
        std::vector<tn_uchar> text(row.text, row.text + std::strlen(row.text) + 1);
        tn_time t = 42;
        tn_uint32 count = row.count == whole ? tn_uint32(std::strlen(row.text)) : row.count;
        EXPECT_EQ(tn_rfc1123_date_scan(text.data(), &t), count);
        EXPECT_EQ(t, count ? row.time : 42);
    }
}

// The text ends (or holds a zero byte) at every position: only the cuts
// that leave a complete date are taken.
TEST(Rfc1123Date, ScanOfEveryCut)
{
    const std::string full = "Sun, 06 Nov 1994 08:49:37 GMT (c)";
    for (size_t cut = 0; cut <= full.size(); ++cut) {
        SCOPED_TRACE(cut);
        std::vector<tn_uchar> text(full.begin(), full.begin() + cut);
        text.push_back(0);
        std::vector<tn_uchar> zeroed(full.begin(), full.end());
        zeroed.push_back(0);
        zeroed[cut] = 0;
        tn_uint32 expected = cut == 27 || cut == 29 || cut == 30 || cut == 33 ? tn_uint32(cut) : 0;
        tn_time a = 42, b = 42;
        EXPECT_EQ(tn_rfc1123_date_scan(text.data(), &a), expected);
        EXPECT_EQ(tn_rfc1123_date_scan(zeroed.data(), &b), expected);
        EXPECT_EQ(a, !expected ? 42 : cut == 27 ? t0 - 7 * 3600 : t0); // 27: "G", the military zone
        EXPECT_EQ(b, a);
    }
}

TEST(Rfc1123Date, ScanIntoItsOwnText)
{
    union {
        tn_time time;
        tn_uchar text[40];
    } both;
    std::memcpy(both.text, "Sun, 06 Nov 1994 08:49:37 GMT", 30);
    EXPECT_EQ(tn_rfc1123_date_scan(both.text, &both.time), 29u);
    EXPECT_EQ(both.time, t0);
}

struct FmtRow {
    tn_time time;
    const char *text;
};

TEST(Rfc1123Date, FormatWritesTheTextAndATerminatorOnly)
{
    const FmtRow rows[] = {
        {0, "Thu, 01 Jan 1970 00:00:00 GMT"},
        {-1, "Wed, 31 Dec 1969 23:59:59 GMT"},
        {t0, "Sun, 06 Nov 1994 08:49:37 GMT"},
        {-11644473600, "Mon, 01 Jan 1601 00:00:00 GMT"},
        {910670515199, "Fri, 31 Dec 30827 23:59:59 GMT"},
        {-11644473601, "Sun, 00 Dec 0 00:00:00 GMT"},
        {910670515200, "Sun, 00 Dec 0 00:00:00 GMT"},
    };
    for (const FmtRow &row : rows) {
        SCOPED_TRACE(row.text);
        tn_uchar buffer[40];
        std::memset(buffer, 0xA5, sizeof buffer);
        tn_uint32 n = tn_rfc1123_date_fmt(buffer, &row.time);
        EXPECT_EQ(n, std::strlen(row.text));
        EXPECT_STREQ(reinterpret_cast<char *>(buffer), row.text);
        EXPECT_EQ(buffer[n + 1], 0xA5);
    }
}

} // namespace
