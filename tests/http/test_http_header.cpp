#include <tarnel_util/tn_http_header.h>
#include <tarnel_util/tn_http_vocab.h>
#include <tarnel_util/tn_rfc1123_date.h>
#include <tarnel_util/tn_time.h>
#include <tarnel_util/tn_uchar_array.h>

#include <fstream>
#include <sstream>

#include "support/split_feed.h"
#include "text/text_test.h"

namespace {
using namespace tn_text_test;

std::string lines_of(const tn_str_array &b)
{
    std::string all;
    for (const std::string &line : list(b)) all += line + "|";
    return all;
}

class HttpHeader : public TextTest { // sa: the block; ca: a line or a range text
protected:
    std::string lines() const { return lines_of(sa); }
    bool set(const char *name, const char *value, tn_bool replace = 0)
    {
        return tn_http_header_set_str(&sa, u(name), u(value), replace);
    }
    // Reads a whole head held in memory into the block.
    bool read(const std::string &head)
    {
        tn_input_buffer in;
        tn_str_input_buffer_init2(&in, head.data(), static_cast<tn_uint32>(head.size()));
        tn_bool done = 0;
        return tn_http_header_read_socket(&sa, &in, &ca, &done) && done;
    }
};

// A captured message without its first line.
std::string captured_head(const char *name)
{
    std::ifstream in(std::string(TN_HTTP_TEST_DATA "/") + name, std::ios::binary);
    std::stringstream all;
    all << in.rdbuf();
    return all.str().substr(all.str().find("\r\n") + 2);
}

// The header reader over its own block and line. It reads only what the
// buffer holds, so a run refills the buffer before each call, and ends when
// the head is done, the reader fails, or neither a refill nor the reader
// moves: "ran out" at the end of the text, "stalled" before it.
struct header_reader {
    tn_str_array block;
    tn_uchar_array line;
    header_reader() { tn_str_array_init(&block), tn_array_init(&line, 1); }
    ~header_reader() { tn_str_array_free(&block), tn_array_free(&line); }
    std::string run(tn_test::PieceFeed &f)
    {
        tn_str_array_truncate(&block), tn_array_truncate(&line);
        const char *ending = nullptr;
        while (!ending) {
            tn_uint32 before = f.buffer.available;
            if (!tn_input_buffer_pool(&f.buffer, nullptr)) {
                ending = "pool failed";
                break;
            }
            tn_uint32 held = f.buffer.available;
            tn_bool done = 0;
            if (!tn_http_header_read_socket(&block, &f.buffer, &line, &done)) ending = "failed";
            else if (done) ending = "done";
            else if (held == before && f.buffer.available == held)
                ending = f.source.unread().empty() ? "ran out" : "stalled";
        }
        return std::string(ending) + "\n" + lines_of(block) + " line: " + bytes(line) + "\nleft: " + f.left();
    }
    auto runner()
    {
        return [this](tn_test::PieceFeed &f) { return run(f); };
    }
};

TEST_F(HttpHeader, LinesMatchNamesUpToBlanksAndAColon)
{
    const struct { const char *line, *name; tn_bool equal; const char *value; } rows[] = {
        {"Host: a", "HOST", 1, "a"},      {"HOST:a", "host", 1, "a"},         {"Host \t:   a ", "HOST", 1, "a "},
        {"Hostname: a", "HOST", 0, "a"},  {"Hos: a", "HOST", 0, "a"},         {"Host", "HOST", 0, "(null)"},
        {"Host x: a", "HOST", 0, "a"},    {": a", "", 1, "a"},                {"X: a:b", "X", 1, "a:b"},
        {"Host:", "HOST", 1, ""},         {"Host\xff: a", "HOST\xdf", 0, "a"}, {"", "HOST", 0, "(null)"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(std::string(r.line) + " / " + r.name);
        EXPECT_EQ(tn_http_header_name_equal(u(r.line), u(r.name)), r.equal);
        EXPECT_EQ(str(tn_http_header_get_value(u(r.line))), r.value);
    }
    EXPECT_FALSE(tn_http_header_name_equal(nullptr, u("HOST")));
    EXPECT_EQ(tn_http_header_get_value2(nullptr, u("HOST")), nullptr);
}

TEST_F(HttpHeader, SettingAppendsOrReplacesTheFirstAndRemovingTakesAll)
{
    ASSERT_TRUE(set("HOST", "a"));
    ASSERT_TRUE(tn_http_header_set_uint32(&sa, tn_http_header_content_length(), 4294967295u, 0));
    ASSERT_TRUE(set("HOST", "b"));
    EXPECT_EQ(str(tn_http_header_get_value2(&sa, u("host"))), "a");
    ASSERT_TRUE(tn_http_header_set_uint64(&sa, tn_http_header_host(), 18446744073709551615ull, 1));
    EXPECT_EQ(lines(), "CONTENT-LENGTH: 4294967295|HOST: b|HOST: 18446744073709551615|");
    EXPECT_EQ(tn_http_header_find(&sa, u("HOST")), 1u);
    EXPECT_EQ(tn_http_header_find(&sa, u("SID")), 3u);
    tn_http_header_remove(&sa, u("host"));
    tn_http_header_remove(&sa, u("SID"));
    EXPECT_EQ(lines(), "CONTENT-LENGTH: 4294967295|HOST: 18446744073709551615|");
    tn_str_array_truncate(&sa);
    ASSERT_TRUE(tn_http_header_set_timeout(&sa, -1, 0));
    ASSERT_TRUE(tn_http_header_set_timeout(&sa, 1800, 0));
    ASSERT_TRUE(tn_http_header_set_timeout(&sa, 2147483647, 1));
    ASSERT_TRUE(tn_http_header_set_content_type_html(&sa, 0));
    ASSERT_TRUE(tn_http_header_set_content_type_xml(&sa, 1));
    ASSERT_TRUE(tn_http_header_set_rfc1123_date(&sa, tn_http_header_date(), 784111777, 0));
    EXPECT_EQ(lines(), "TIMEOUT: Second-1800|TIMEOUT: Second-2147483647|CONTENT-TYPE: text/xml; charset=\"utf-8\"|"
                       "DATE: Sun, 06 Nov 1994 08:49:37 GMT|");
}

// A line, with ": " and its terminator, takes at most 2048 bytes; the limit
// is tested before anything is removed.
TEST_F(HttpHeader, TheLineLimitIsTestedBeforeAnythingIsRemoved)
{
    ASSERT_TRUE(set("X", "old"));
    std::string value(2044, 'v');
    EXPECT_TRUE(set("X", value.c_str(), 1));
    value += 'v';
    EXPECT_FALSE(set("X", value.c_str(), 1));
    std::string name(2006, 'N'); // 2 + 2006 + 40 = 2048
    EXPECT_TRUE(tn_http_header_set_uint32(&sa, u(name.c_str()), 7, 0));
    name += 'N';
    EXPECT_FALSE(tn_http_header_set_uint64(&sa, u(name.c_str()), 7, 1));
    EXPECT_FALSE(tn_http_header_set_rfc1123_date(&sa, u(name.c_str()), 0, 1));
    ASSERT_EQ(tn_str_array_length(&sa), 2u);
    EXPECT_EQ(str(tn_str_array_get_pos(&sa, 0)).size(), 2047u);
    EXPECT_FALSE(tn_http_header_set_common_response_header(&sa, u(std::string(2041, 's').c_str()), 0));
    EXPECT_EQ(tn_str_array_length(&sa), 2u);
}

TEST_F(HttpHeader, NameAndValueMayLieInTheBlock)
{
    ASSERT_TRUE(set("A", "value of a"));
    ASSERT_TRUE(tn_http_header_set_str(&sa, tn_http_header_get_value2(&sa, u("A")), u("x"), 0));
    ASSERT_TRUE(tn_http_header_set_str(&sa, u("A"), tn_http_header_get_value2(&sa, u("A")), 1));
    ASSERT_TRUE(tn_http_header_set_str(&sa, u("B"), tn_str_array_get_pos(&sa, 1), 1));
    EXPECT_EQ(lines(), "value of a: x|A: value of a|B: A: value of a|");
}

TEST_F(HttpHeader, SoapManRewritesTheFirstSoapAction)
{
    EXPECT_FALSE(tn_http_header_set_soap_man(&sa));
    ASSERT_TRUE(set("SOAPACTIONX", "1"));
    ASSERT_TRUE(set("SOAPAction", "\"urn:x#A\""));
    ASSERT_TRUE(set("HOST", "h"));
    ASSERT_TRUE(set("SOAPACTION", "second"));
    ASSERT_TRUE(tn_http_header_set_soap_man(&sa));
    EXPECT_EQ(lines(), "SOAPACTIONX: 1|HOST: h|SOAPACTION: second|"
                       "man: \"http://schemas.xmlsoap.org/soap/envelope/\"; ns=01|01-SOAPAction: \"urn:x#A\"|");
    // The rewritten line is 4 bytes longer; a refusal leaves the block as it was.
    const struct { std::size_t length; tn_bool ok; tn_uint32 lines; } rows[] = {{2033, 0, 1}, {2032, 1, 2}};
    for (const auto &r : rows) {
        SCOPED_TRACE(r.length);
        tn_str_array_truncate(&sa);
        ASSERT_TRUE(set("SOAPACTION", std::string(r.length, 'a').c_str()));
        EXPECT_EQ(tn_http_header_set_soap_man(&sa), r.ok);
        EXPECT_EQ(tn_str_array_length(&sa), r.lines);
    }
}

TEST_F(HttpHeader, CommonResponseLinesInTheirOrder)
{
    ASSERT_TRUE(set("CONNECTION", "keep-alive"));
    ASSERT_TRUE(tn_http_header_set_common_response_header(&sa, u("srv"), 1));
    EXPECT_EQ(str(tn_http_header_get_value2(&sa, tn_http_header_connection())), "keep-alive");
    tn_str_array_truncate(&sa);
    tn_time before, after, date = 0;
    tn_time_sec(&before);
    ASSERT_TRUE(tn_http_header_set_common_soap_response_header(&sa, u("srv"), 0));
    tn_time_sec(&after);
    EXPECT_EQ(tn_rfc1123_date_scan(tn_http_header_get_value2(&sa, tn_http_header_date()), &date), 29u);
    EXPECT_GE(date, before);
    EXPECT_LE(date, after);
    tn_uchar text[40];
    tn_rfc1123_date_fmt(text, &date);
    EXPECT_EQ(lines(),
              "SERVER: srv|DATE: " + str(text) + "|CONNECTION: close|EXT: |CONTENT-TYPE: text/xml; charset=\"utf-8\"|");
}

TEST_F(HttpHeader, MaxAgeAndTimeoutValues)
{
    const struct {
        const char *value;
        tn_bool max_age_ok;
        tn_uint32 max_age;
        tn_bool timeout_ok;
        tn_int32 timeout;
    } rows[] = {
        {"max-age=1800", 1, 1800, 0, 7},          {"MAX-AGE \t= \t20, x", 1, 20, 0, 7},
        {"max-age=", 0, 7, 0, 7},                 {"max-ages=5", 0, 7, 0, 7},
        {"no-cache, max-age=5", 0, 7, 0, 7},      {"max-age=4294967296", 1, 0, 0, 7},
        {"Second-1800", 0, 7, 1, 1800},           {"SECOND-infinite", 0, 7, 1, -1},
        {"Second-INFINITE", 0, 7, 0, 7},          {"Second-infinitely", 0, 7, 0, 7},
        {"second--5x", 0, 7, 1, -5},              {"Second-", 0, 7, 0, 7},
        {"Second-+", 0, 7, 0, 7},                 {"Second- 5", 0, 7, 0, 7},
        {"Second-2147483648", 0, 7, 1, -2147483647 - 1},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.value);
        tn_uint32 max_age = 7;
        tn_int32 timeout = 7;
        EXPECT_EQ(tn_http_header_get_max_age(u(r.value), &max_age), r.max_age_ok);
        EXPECT_EQ(max_age, r.max_age);
        EXPECT_EQ(tn_http_header_get_timeout(u(r.value), &timeout), r.timeout_ok);
        EXPECT_EQ(timeout, r.timeout);
    }
}

// The range as start+length, or the status and the range a refusal leaves:
// the whole of size.
TEST_F(HttpHeader, RangesAgainstASize)
{
    const struct { const char *value; tn_uint64 size; const char *result; } rows[] = {
        {"bytes=0-", 100, "0+100"}, {"bytes=10-19", 100, "10+10"}, {"bytes=90-200", 100, "90+10"},
        {"bytes=-30", 100, "70+30"}, {"bytes=-200", 100, "0+100"}, {"Bytes \t= \t-\t 30", 100, "70+30"},
        {"bytes=10 \t- \t19", 100, "10+10"}, {"bytes=99-99", 100, "99+1"}, {"bytes=99- ", 100, "99+1"},
        {"bytes=5-5", 100, "5+1"}, {"bytes=100-", 100, "416, 0+100"}, {"bytes=-0", 100, "416, 0+100"},
        {"bytes=100x", 100, "416, 0+100"}, {"bytes=99999999999999999999-", 100, "416, 0+100"},
        {"bytes=18446744073709551616-", 100, "416, 0+100"}, {"bytes=-18446744073709551616", 100, "0+100"},
        {"bytes=0-99999999999999999999", 100, "0+100"},
        {"bytes=0-18446744073709551615", 18446744073709551615ull, "0+18446744073709551615"},
        {"bytes=5-2", 100, "400, 0+100"}, {"bytes=1-2,4-5", 100, "400, 0+100"}, {"items=0-1", 100, "400, 0+100"},
        {"bytes=", 100, "400, 0+100"}, {"bytes= ", 100, "400, 0+100"}, {"bytes=-", 100, "400, 0+100"},
        {"bytes=--1", 100, "400, 0+100"}, {"bytes=-1 ", 100, "400, 0+100"}, {"bytes=1", 100, "400, 0+100"},
        {"bytes=1-2 ", 100, "400, 0+100"}, {"bytes=1-x", 100, "400, 0+100"}, {"bytes 0-1", 100, "400, 0+100"},
        {"bytes=+1-2", 100, "400, 0+100"}, {"bytes=x-", 0, "0+0"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.value);
        tn_http_range range = {1, 2, 3};
        const tn_uchar *status = u("");
        const bool ok = tn_http_header_parse_range(u(r.value), r.size, &range, &status);
        const std::string whole = std::to_string(range.start) + "+" + std::to_string(range.length);
        EXPECT_EQ((ok ? "" : str(status) + ", ") + whole, r.result);
        EXPECT_TRUE(!ok || str(status).empty()) << "a taken range leaves the status alone";
        EXPECT_EQ(range.total, r.size);
    }
    tn_http_range range;
    EXPECT_FALSE(tn_http_header_parse_range(nullptr, 5, &range, nullptr));
    EXPECT_FALSE(tn_http_header_parse_range(u("bytes=0-"), 5, nullptr, nullptr));
}

TEST_F(HttpHeader, RangeLineBuilders)
{
    ASSERT_TRUE(tn_http_header_content_range_init(&ca));
    ASSERT_TRUE(tn_http_header_range_start_pos(&ca, 0));
    ASSERT_TRUE(tn_http_header_range_end_pos(&ca, 9));
    ASSERT_TRUE(tn_http_header_range_length(&ca, 100));
    EXPECT_EQ(bytes(ca), "content-range: bytes 0-9/100");
    ASSERT_TRUE(tn_http_header_range_init(&ca));
    ASSERT_TRUE(tn_http_header_range_end_pos(&ca, 18446744073709551615ull));
    ASSERT_TRUE(tn_http_header_range_unknown_length(&ca));
    EXPECT_EQ(bytes(ca), "range: bytes=-18446744073709551615/*");
}

TEST_F(HttpHeader, FindLineLooksAtTheHeldBytesOnly)
{
    const struct { const char *held; tn_uint32 used, line; } rows[] = {
        {"", 0, 0}, {"\r", 1, 1}, {"\r\n", 2, 0}, {"ab\r", 3, 3}, {"a\n\r\r\nb\r\n", 8, 3},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.held);
        tn_input_buffer b;
        tn_str_input_buffer_init(&b, u(r.held));
        tn_uint32 used = 9, line = 9;
        EXPECT_TRUE(tn_http_find_line_socket(&b, &used, &line));
        EXPECT_EQ(used, r.used);
        EXPECT_EQ(line, r.line);
        EXPECT_EQ(b.available, r.used);
    }
}

// A plain head's lines, split at CRLF up to the empty line.
std::string reference_lines(const std::string &head)
{
    std::string all;
    for (std::size_t at = 0, end; (end = head.find("\r\n", at)) != at; at = end + 2)
        all += head.substr(at, end - at) + "|";
    return all;
}

// Each capture's lines land in the block however the head arrives; a Range
// line among them goes through the range parser, against 1000 bytes.
TEST_F(HttpHeader, RealHeadsReadTheSameHoweverTheyArrive)
{
    const struct { const char *name, *range; } captures[] = {
        {"soap-browse-0.request", "none"},           {"soap-browse-0.response", "none"},
        {"ssdp-msearch-mediaserver.request", "none"}, {"ssdp-msearch-mediaserver.response", "none"},
        {"http-get-range.request", "10-99"},          {"http-get-range.response", "none"},
        {"curl-get-range.request", "0-99"},           {"ssdp-notify-alive-mediaserver.notify", "none"},
    };
    for (const auto &c : captures) {
        SCOPED_TRACE(c.name);
        const std::string head = captured_head(c.name);
        ASSERT_NE(head.find("\r\n\r\n"), std::string::npos);
        const std::string body = head.substr(head.find("\r\n\r\n") + 4);
        header_reader reader;
        for (tn_uint32 storage : {4096u, 256u})
            EXPECT_EQ(tn_test::expect_same_for_every_split(head, storage, reader.runner()),
                      "done\n" + reference_lines(head) + " line: \nleft: " + body);
        const tn_uchar *value = tn_http_header_get_value2(&reader.block, tn_http_header_range());
        tn_http_range r{};
        const bool parsed = value && tn_http_header_parse_range(value, 1000, &r, nullptr);
        EXPECT_EQ(parsed ? std::to_string(r.start) + "-" + std::to_string(r.start + r.length - 1) : "none", c.range);
    }
}

TEST_F(HttpHeader, HostileHeads)
{
    const std::string long_line = "X-Long: " + std::string(2992, 'a') + "\r\nNext: 1\r\n\r\n";
    const std::string long_tail = "X-Long: " + std::string(2037, 'a') + "b: c\r\nNext: 1\r\n\r\n";
    const struct { const char *text; std::size_t length; tn_uint32 storage; const char *transcript; } rows[] = {
        {"A: 1\r\n\tfolded\r\n  again\r\nB: 2\r\n\r\nbody", 0, 64,
         "done\nA: 1\tfolded  again|B: 2| line: \nleft: body"},
        {"no colon\r\nA: 1\r\n\r\n", 0, 64, "done\nA: 1| line: \nleft: "},
        {" folded first: x\r\n\r\n", 0, 64, "done\n folded first: x| line: \nleft: "},
        {"A: 1\nB: 2\r\n\r\n", 0, 64, "done\nA: 1\nB: 2| line: \nleft: "},
        {"A\0: 1\r\nB: x\0y\r\n\r\n", 17, 64, "done\nB: x| line: \nleft: "},
        {"A: 1\r\nB: 2\r\n", 0, 64, "ran out\nA: 1| line: B: 2\nleft: "},
        {"A: 1\r\nB: 2\r", 0, 64, "ran out\n line: A: 1\nleft: B: 2\r"},
        {"\r\nA: 1\r\n\r\n", 0, 64, "done\n line: \nleft: A: 1\r\n\r\n"},
        {long_line.c_str(), 0, 1024, "done\nNext: 1| line: \nleft: "},
        {long_tail.c_str(), 0, 1024, "done\nab: c|Next: 1| line: \nleft: "},
        {"ABCD", 0, 2, "failed\n line: \nleft: ABCD"},
        {"A: 1\r\n\r\n", 0, 1, "failed\n line: \nleft: A: 1\r\n\r\n"},
    };
    for (const auto &r : rows) { // a length of 0: up to the terminator
        std::string input(r.text, r.length ? r.length : std::char_traits<char>::length(r.text));
        SCOPED_TRACE(input.substr(0, 40));
        header_reader reader;
        EXPECT_EQ(tn_test::expect_same_for_every_split(input, r.storage, reader.runner()), r.transcript);
    }
}

// One call over the held bytes: a line goes to the block only once its
// follower is complete, and a failed block leaves the same trail as ever.
TEST_F(HttpHeader, OneCallKeepsEachLineUntilItsFollowerIsComplete)
{
    using namespace std::string_literals;
    const struct { const char *held; bool block_failed; std::string transcript; } rows[] = {
        {"A: 1\r\n", false, "10 {} [A: 1] "},
        {"A: 1\r\nB", false, "10 {} [A: 1] B"},
        {"A: 1\r\nB: 2\r\nC", false, "10 {A: 1|} [B: 2] C"},
        {"A: 1\r\nB: 2\r\n C", false, "10 {A: 1|} [B: 2]  C"},
        {"A: 1\r\n\tx\r\nB", false, "10 {} [A: 1\tx] B"},
        {"A: 1\r\nB: 2\r\n\r", false, "10 {A: 1|} [B: 2] \r"},
        {"A: 1\r\nno\r\nB: 2\r\n\r\nbody", false, "11 {A: 1|B: 2|} [] body"},
        {"A: 1\r\nB: 2\r\n\r\n", true, "00 {} [A: 1\0] B: 2\r\n\r\n"s},
        {"no\r\nB\r\n\r\nbody", true, "11 {} [] body"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(std::string(r.held) + (r.block_failed ? " (failed block)" : ""));
        release();
        init();
        if (r.block_failed) tn_array_fail(&sa.pool);
        const std::string text(r.held);
        tn_input_buffer in;
        tn_str_input_buffer_init2(&in, text.data(), static_cast<tn_uint32>(text.size()));
        tn_bool done = 0;
        const tn_bool result = tn_http_header_read_socket(&sa, &in, &ca, &done);
        EXPECT_EQ(std::to_string(result) + std::to_string(done) + " {" + lines() + "} [" + bytes(ca) + "] " +
                      text.substr(in.position, in.available),
                  r.transcript);
    }
}

TEST_F(HttpHeader, ReadStrWalksAWholeTextAndKeepsTheLastLine)
{
    tn_input_buffer b;
    ASSERT_TRUE(tn_str_array_cato(&sa, u("stale: 1")));
    tn_uchar_array_cats(&ca, u("stale"));
    tn_str_input_buffer_init(&b, u("A: 1\r\n folded\r\nB: 2\r\nrest"));
    EXPECT_TRUE(tn_http_header_read_str(&sa, &b, &ca));
    EXPECT_EQ(lines(), "A: 1 folded|");
    EXPECT_EQ(bytes(ca), "B: 2");
    EXPECT_EQ(b.available, 4u);
    tn_str_input_buffer_init(&b, u("A: 1\r\n\r\nbody"));
    EXPECT_TRUE(tn_http_header_read_str(&sa, &b, &ca));
    EXPECT_EQ(lines(), "A: 1|");
    EXPECT_EQ(b.available, 4u);
}

TEST_F(HttpHeader, EveryFailedAllocationIsReported)
{
    const std::string head = captured_head("soap-browse-0.request");
    const struct { const char *name; std::function<bool()> op; } ops[] = {
        {"read", [&] { return read(head) && tn_str_array_length(&sa) == 6; }},
        {"set", [&] {
             return tn_http_header_set_str(&sa, tn_http_header_soapaction(), u("\"urn:a#B\""), 0) &&
                    tn_http_header_set_common_soap_response_header(&sa, u("srv"), 0) &&
                    tn_http_header_set_soap_man(&sa);
         }},
        {"range", [&] {
             return tn_http_header_content_range_init(&ca) && tn_http_header_range_start_pos(&ca, 1) &&
                    tn_http_header_range_end_pos(&ca, 2) && tn_http_header_range_unknown_length(&ca);
         }},
    };
    for (const auto &o : ops) {
        SCOPED_TRACE(o.name);
        tn_test::sweep_alloc_failures([&] {
            const bool ok = o.op();
            release();
            init();
            return ok;
        });
    }
}

TEST_F(HttpHeader, SteadyReadingDoesNotAllocate)
{
    const std::string head = captured_head("soap-browse-0.request");
    for (int round = 0; round < 2; ++round) {
        tn_test::reset_counts();
        tn_str_array_truncate(&sa);
        tn_array_truncate(&ca);
        ASSERT_TRUE(read(head));
    }
    EXPECT_EQ(tn_test::allocations(), 0);
}

} // namespace
