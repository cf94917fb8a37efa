#include <tarnel_util/tn_rfc1123_date.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr tn_time t0 = 784111777; // Sun, 06 Nov 1994 08:49:37 GMT
constexpr tn_uint32 whole = ~0u;  // the count is the whole text

// Scans a copy sized exactly, so that a read past the terminator is caught.
tn_uint32 scan(const std::string &text, tn_time *t)
{
    std::vector<tn_uchar> exact(text.begin(), text.end());
    exact.push_back(0);
    return tn_rfc1123_date_scan(exact.data(), t);
}

TEST(Rfc1123Date, ScanTakesTheDateTimeAndNothingElse)
{
    const struct { const char *text; tn_uint32 count; tn_time time; } rows[] = { // a count of 0: refused
        {"Sun, 06 Nov 1994 08:49:37 GMT", 29, t0}, {"Mon, 06 Nov 1994 08:49:37 GMT", 29, t0},
        {"Sunday, 06-Nov-94 08:49:37 GMT", 0, 0}, {"Sun Nov  6 08:49:37 1994", 0, 0},
        {"sun, 06 Nov 1994 08:49:37 GMT", 0, 0}, {"Sun, 06 nov 1994 08:49:37 GMT", 0, 0},
        {"06 Nov 94 08:49 GMT", 19, t0 - 37}, {" Sun , 06 Nov 1994 08 : 49 : 37 GMT", whole, t0},
        {"\tSun,06\tNov\t1994\t08:49:37\tGMT", whole, t0},
        {"(note) Sun, 06 (x (nested)) Nov 1994 08:49:37 GMT", whole, t0},
        {"Sun, 06 (x (unclosed) Nov 1994 08:49:37 GMT", 0, 0}, {"(a)(b) 06 Nov 1994 08:49:37 GMT", 0, 0},
        {"Sun, 06 Nov(x)1994 08:49:37 GMT", whole, t0}, // a comment alone is a gap
        {"6 Nov 1994 08:49:37 GMT", whole, t0}, {"6 Nov 1994 8:49:37 GMT", 0, 0}, {"106 Nov 1994 08:49:37 GMT", 0, 0},
        {"06 Nov 1994 08:049:37 GMT", 0, 0}, {"06 Nov 1994 08:49GMT", 0, 0}, {"06 Nov 1994 08:49: GMT", 0, 0},
        {"06 Nov 1994 08:49 :37 GMT", whole, t0},
        {"01 Jan 49 00:00 GMT", whole, 2493072000},   // 2049
        {"01 Jan 50 00:00 GMT", whole, -631152000},   // 1950
        {"01 Jan 101 00:00 GMT", whole, 978307200},   // 2001
        {"01 Jan 67537 00:00 GMT", whole, 978307200}, // 2001 in its low 16 bits
        {"01 Jan 2001 00:00 GMT", whole, 978307200}, {"01 Jan 002001 00:00 GMT", whole, 978307200},
        {"01 Jan 1 00:00 GMT", 0, 0}, {"01 Jan 1600 00:00 GMT", 0, 0},
        {"31 Dec 30827 23:59:59 GMT", whole, 910670515199}, {"01 Jan 30828 00:00 GMT", 0, 0},
        {"31 Feb 2001 00:00:00 GMT", 0, 0}, {"01 Jan 2001 24:00:00 GMT", 0, 0}, {"01 Jan 2001 23:59:60 GMT", 0, 0},
        {"Sun, 06 Nov 1994 08:49:37 GMT trailing", 30, t0}, {"Sun, 06 Nov 1994 08:49:37 GMT (c) x", 34, t0},
        {"Sun, 06 Nov 1994 08:49:37 GMT(c)x", 32, t0}, {"Sun, 06 Nov 1994 08:49:37 GMT (c", 0, 0},
        {"Sun, 06 Nov 1994 08:49:37 GMTx", 0, 0}, {"", 0, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        tn_time t = 42;
        tn_uint32 count = row.count == whole ? tn_uint32(std::strlen(row.text)) : row.count;
        EXPECT_EQ(scan(row.text, &t), count);
        EXPECT_EQ(t, count ? row.time : 42);
    }
}

// The zone behind "06 Nov 1994 08:49:37", as minutes east of GMT.
TEST(Rfc1123Date, ScanOfEachZone)
{
    const struct { const char *zone; bool taken; int east; } rows[] = {
        {"GMT", 0, 0},       {" UT", 1, 0},       {" UTC", 0, 0},     {" z", 1, 0},     {"+0900", 0, 0},
        {" +0900", 1, 540},  {" -0500", 1, -300}, {" -0099", 1, -99}, {" +090", 0, 0},  {" +09000", 0, 0},
        {" EST", 1, -300},   {" EDT", 1, -240},   {" CST", 1, -360},  {" CDT", 1, -300}, {" MST", 1, -420},
        {" MDT", 1, -360},   {" PST", 1, -480},   {" PDT", 1, -420},  {" Est", 0, 0},    {" a", 1, 60},
        {" I", 1, 540},      {" J", 0, 0},        {" j", 0, 0},       {" k", 1, 600},    {" M", 1, 720},
        {" n", 1, -60},      {" Y", 1, -720},     {" 1", 0, 0},       {" \xC1", 0, 0},
    };
    for (const auto &row : rows) {
        const std::string text = std::string("06 Nov 1994 08:49:37") + row.zone;
        SCOPED_TRACE(text);
        tn_time t = 42;
        EXPECT_EQ(scan(text, &t), row.taken ? text.size() : 0u);
        EXPECT_EQ(t, row.taken ? t0 - row.east * 60 : 42);
    }
}

// The text ends (or holds a zero byte) at every position: only the cuts
// that leave a complete date are taken.
TEST(Rfc1123Date, ScanOfEveryCut)
{
    const std::string full = "Sun, 06 Nov 1994 08:49:37 GMT (c)";
    for (size_t cut = 0; cut <= full.size(); ++cut) {
        SCOPED_TRACE(cut);
        std::vector<tn_uchar> zeroed(full.begin(), full.end());
        zeroed.push_back(0);
        zeroed[cut] = 0;
        tn_uint32 expected = cut == 27 || cut == 29 || cut == 30 || cut == 33 ? tn_uint32(cut) : 0;
        tn_time a = 42, b = 42;
        EXPECT_EQ(scan(full.substr(0, cut), &a), expected);
        EXPECT_EQ(tn_rfc1123_date_scan(zeroed.data(), &b), expected);
        EXPECT_EQ(a, !expected ? 42 : cut == 27 ? t0 - 7 * 3600 : t0); // 27: "G", the military zone
        EXPECT_EQ(b, a);
    }
}

TEST(Rfc1123Date, ScanIntoItsOwnText)
{
    union { tn_time time; tn_uchar text[40]; } both;
    std::memcpy(both.text, "Sun, 06 Nov 1994 08:49:37 GMT", 30);
    EXPECT_EQ(tn_rfc1123_date_scan(both.text, &both.time), 29u);
    EXPECT_EQ(both.time, t0);
}

// Times outside the calendar are formatted in caltime's tests.
TEST(Rfc1123Date, FormatWritesTheTextAndATerminatorOnly)
{
    const struct { tn_time time; const char *text; } rows[] = {
        {t0, "Sun, 06 Nov 1994 08:49:37 GMT"},
        {-11644473600, "Mon, 01 Jan 1601 00:00:00 GMT"},
        {910670515199, "Fri, 31 Dec 30827 23:59:59 GMT"},
    };
    for (const auto &row : rows) {
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
