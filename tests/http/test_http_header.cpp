#include <tarnel_util/tn_http_header.h>
#include <tarnel_util/tn_http_vocab.h>
#include <tarnel_util/tn_rfc1123_date.h>
#include <tarnel_util/tn_time.h>
#include <tarnel_util/tn_uchar_array.h>

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/alloc.h"
#include "support/split_feed.h"

namespace {

const tn_uchar *u(const char *s) { return reinterpret_cast<const tn_uchar *>(s); }
std::string s(const tn_uchar *p) { return p ? reinterpret_cast<const char *>(p) : "(null)"; }

std::string lines_of(const tn_str_array &b)
{
    std::string all;
    for (tn_uint32 i = 0; i < tn_str_array_length(&b); ++i) all += s(tn_str_array_get_pos(&b, i)) + "|";
    return all;
}

class HttpHeader : public tn_test::AllocTest {
protected:
    tn_str_array block;
    tn_uchar_array text;
    void SetUp() override
    {
        AllocTest::SetUp();
        tn_str_array_init(&block);
        tn_array_init(&text, 1);
    }
    void TearDown() override
    {
        tn_str_array_free(&block);
        tn_array_free(&text);
        AllocTest::TearDown();
    }
    std::string lines() const { return lines_of(block); }
    std::string text_s() const
    {
        return std::string(static_cast<const char *>(tn_array_get(&text)), tn_array_length(&text));
    }
};

std::string capture(const char *name)
{
    std::ifstream in(std::string(TN_HTTP_TEST_DATA "/") + name, std::ios::binary);
    std::stringstream all;
    all << in.rdbuf();
    return all.str();
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
        return std::string(ending) + "\n" + lines_of(block) + " line: " +
               std::string(static_cast<const char *>(tn_array_get(&line)), tn_array_length(&line)) +
               "\nleft: " + f.left();
    }
    auto runner()
    {
        return [this](tn_test::PieceFeed &f) { return run(f); };
    }
};

struct match_row {
    const char *line, *name;
    tn_bool equal;
    const char *value; // of tn_http_header_get_value
};

TEST_F(HttpHeader, LinesMatchNamesUpToBlanksAndAColon)
{
    const match_row rows[] = {
        {"Host: a", "HOST", 1, "a"},      {"HOST:a", "host", 1, "a"},         {"Host \t:   a ", "HOST", 1, "a "},
        {"Hostname: a", "HOST", 0, "a"},  {"Hos: a", "HOST", 0, "a"},         {"Host", "HOST", 0, nullptr},
        {"Host x: a", "HOST", 0, "a"},    {": a", "", 1, "a"},                {"X: a:b", "X", 1, "a:b"},
        {"Host:", "HOST", 1, ""},         {"Host\xff: a", "HOST\xdf", 0, "a"}, {"", "HOST", 0, nullptr},
    };
    for (const match_row &r : rows) {
        SCOPED_TRACE(std::string(r.line) + " / " + r.name);
        EXPECT_EQ(tn_http_header_name_equal(u(r.line), u(r.name)), r.equal);
        EXPECT_EQ(s(tn_http_header_get_value(u(r.line))), r.value ? r.value : "(null)");
    }
    EXPECT_FALSE(tn_http_header_name_equal(nullptr, u("HOST")));
    EXPECT_EQ(tn_http_header_get_value2(nullptr, u("HOST")), nullptr);
}

TEST_F(HttpHeader, SettingTwiceAndReplacingTheFirstOnly)
{
    ASSERT_TRUE(tn_http_header_set_str(&block, tn_http_header_host(), u("a"), 0));
    ASSERT_TRUE(tn_http_header_set_uint32(&block, tn_http_header_content_length(), 4294967295u, 0));
    ASSERT_TRUE(tn_http_header_set_str(&block, tn_http_header_host(), u("b"), 0));
    EXPECT_EQ(s(tn_http_header_get_value2(&block, u("host"))), "a");
    ASSERT_TRUE(tn_http_header_set_uint64(&block, tn_http_header_host(), 18446744073709551615ull, 1));
    EXPECT_EQ(lines(), "CONTENT-LENGTH: 4294967295|HOST: b|HOST: 18446744073709551615|");
    EXPECT_EQ(tn_http_header_find(&block, u("HOST")), 1u);
    EXPECT_EQ(tn_http_header_find(&block, u("SID")), 3u);
    tn_http_header_remove(&block, u("host"));
    tn_http_header_remove(&block, u("SID"));
    EXPECT_EQ(lines(), "CONTENT-LENGTH: 4294967295|HOST: 18446744073709551615|");
}

TEST_F(HttpHeader, TheLineLimitIsTestedBeforeAnythingIsRemoved)
{
    ASSERT_TRUE(tn_http_header_set_str(&block, u("X"), u("old"), 0));
    std::string value(2044, 'v'); // "X" + 2044 = 2045, with ": " and the terminator 2048
    EXPECT_TRUE(tn_http_header_set_str(&block, u("X"), u(value.c_str()), 1));
    value += 'v';
    EXPECT_FALSE(tn_http_header_set_str(&block, u("X"), u(value.c_str()), 1));
    std::string name(2006, 'N'); // 2 + 2006 + 40 = 2048
    EXPECT_TRUE(tn_http_header_set_uint32(&block, u(name.c_str()), 7, 0));
    name += 'N';
    EXPECT_FALSE(tn_http_header_set_uint64(&block, u(name.c_str()), 7, 1));
    EXPECT_FALSE(tn_http_header_set_rfc1123_date(&block, u(name.c_str()), 0, 1));
    ASSERT_EQ(tn_str_array_length(&block), 2u);
    EXPECT_EQ(s(tn_str_array_get_pos(&block, 0)).size(), 2047u);
}

TEST_F(HttpHeader, NameAndValueMayLieInTheBlock)
{
    ASSERT_TRUE(tn_http_header_set_str(&block, u("A"), u("value of a"), 0));
    ASSERT_TRUE(tn_http_header_set_str(&block, tn_http_header_get_value2(&block, u("A")), u("x"), 0));
    ASSERT_TRUE(tn_http_header_set_str(&block, u("A"), tn_http_header_get_value2(&block, u("A")), 1));
    ASSERT_TRUE(tn_http_header_set_str(&block, u("B"), tn_str_array_get_pos(&block, 1), 1));
    EXPECT_EQ(lines(), "value of a: x|A: value of a|B: A: value of a|");
}

TEST_F(HttpHeader, FixedLines)
{
    ASSERT_TRUE(tn_http_header_set_timeout(&block, -1, 0));
    ASSERT_TRUE(tn_http_header_set_timeout(&block, 1800, 0));
    ASSERT_TRUE(tn_http_header_set_timeout(&block, 2147483647, 1));
    ASSERT_TRUE(tn_http_header_set_content_type_html(&block, 0));
    ASSERT_TRUE(tn_http_header_set_content_type_xml(&block, 1));
    ASSERT_TRUE(tn_http_header_set_rfc1123_date(&block, tn_http_header_date(), 784111777, 0));
    EXPECT_EQ(lines(), "TIMEOUT: Second-1800|TIMEOUT: Second-2147483647|CONTENT-TYPE: text/xml; charset=\"utf-8\"|"
                       "DATE: Sun, 06 Nov 1994 08:49:37 GMT|");
}

TEST_F(HttpHeader, SoapManRewritesTheFirstSoapAction)
{
    EXPECT_FALSE(tn_http_header_set_soap_man(&block));
    ASSERT_TRUE(tn_http_header_set_str(&block, u("SOAPACTIONX"), u("1"), 0));
    ASSERT_TRUE(tn_http_header_set_str(&block, u("SOAPAction"), u("\"urn:x#A\""), 0));
    ASSERT_TRUE(tn_http_header_set_str(&block, u("HOST"), u("h"), 0));
    ASSERT_TRUE(tn_http_header_set_str(&block, u("SOAPACTION"), u("second"), 0));
    ASSERT_TRUE(tn_http_header_set_soap_man(&block));
    EXPECT_EQ(lines(), "SOAPACTIONX: 1|HOST: h|SOAPACTION: second|"
                       "man: \"http://schemas.xmlsoap.org/soap/envelope/\"; ns=01|01-SOAPAction: \"urn:x#A\"|");

    tn_str_array_truncate(&block);
    std::string long_action = "SOAPACTION: " + std::string(2033, 'a'); // 2045 + 4 > 2048
    ASSERT_TRUE(tn_str_array_cato(&block, u(long_action.c_str())));
    EXPECT_FALSE(tn_http_header_set_soap_man(&block));
    EXPECT_EQ(tn_str_array_length(&block), 1u);
    tn_str_array_truncate(&block);
    long_action.pop_back();
    ASSERT_TRUE(tn_str_array_cato(&block, u(long_action.c_str())));
    EXPECT_TRUE(tn_http_header_set_soap_man(&block));
}

TEST_F(HttpHeader, CommonResponseLinesInTheirOrder)
{
    ASSERT_TRUE(tn_http_header_set_str(&block, tn_http_header_connection(), u("keep-alive"), 0));
    ASSERT_TRUE(tn_http_header_set_common_response_header(&block, u("srv"), 1));
    EXPECT_EQ(s(tn_http_header_get_value2(&block, tn_http_header_connection())), "keep-alive");

    tn_str_array_truncate(&block);
    tn_time before, after, date = 0;
    tn_time_sec(&before);
    ASSERT_TRUE(tn_http_header_set_common_soap_response_header(&block, u("srv"), 0));
    tn_time_sec(&after);
    ASSERT_EQ(tn_str_array_length(&block), 5u);
    EXPECT_EQ(s(tn_str_array_get_pos(&block, 0)), "SERVER: srv");
    EXPECT_TRUE(tn_http_header_name_equal(tn_str_array_get_pos(&block, 1), tn_http_header_date()));
    EXPECT_EQ(tn_rfc1123_date_scan(tn_http_header_get_value2(&block, tn_http_header_date()), &date), 29u);
    EXPECT_TRUE(date >= before && date <= after);
    EXPECT_EQ(s(tn_str_array_get_pos(&block, 2)), "CONNECTION: close");
    EXPECT_EQ(s(tn_str_array_get_pos(&block, 3)), "EXT: ");
    EXPECT_EQ(s(tn_str_array_get_pos(&block, 4)), "CONTENT-TYPE: text/xml; charset=\"utf-8\"");
    std::string server(2041, 's');
    EXPECT_FALSE(tn_http_header_set_common_response_header(&block, u(server.c_str()), 0));
    EXPECT_EQ(tn_str_array_length(&block), 5u);
}

TEST_F(HttpHeader, MaxAgeAndTimeoutValues)
{
    struct row {
        const char *value;
        tn_bool max_age_ok;
        tn_uint32 max_age;
        tn_bool timeout_ok;
        tn_int32 timeout;
    };
    const row rows[] = {
        {"max-age=1800", 1, 1800, 0, 7},          {"MAX-AGE \t= \t20, x", 1, 20, 0, 7},
        {"max-age=", 0, 7, 0, 7},                 {"max-ages=5", 0, 7, 0, 7},
        {"no-cache, max-age=5", 0, 7, 0, 7},      {"max-age=4294967296", 1, 0, 0, 7},
        {"Second-1800", 0, 7, 1, 1800},           {"SECOND-infinite", 0, 7, 1, -1},
        {"Second-INFINITE", 0, 7, 0, 7},          {"Second-infinitely", 0, 7, 0, 7},
        {"second--5x", 0, 7, 1, -5},              {"Second-", 0, 7, 0, 7},
        {"Second-+", 0, 7, 0, 7},                 {"Second- 5", 0, 7, 0, 7},
        {"Second-2147483648", 0, 7, 1, -2147483647 - 1},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.value);
        tn_uint32 max_age = 7;
        tn_int32 timeout = 7;
        EXPECT_EQ(tn_http_header_get_max_age(u(r.value), &max_age), r.max_age_ok);
        EXPECT_EQ(max_age, r.max_age);
        EXPECT_EQ(tn_http_header_get_timeout(u(r.value), &timeout), r.timeout_ok);
        EXPECT_EQ(timeout, r.timeout);
    }
}

TEST_F(HttpHeader, RangesAgainstASize)
{
    struct row {
        const char *value;
        tn_uint64 size;
        tn_bool ok;
        tn_uint64 start, length;
        const char *status; // "" when untouched
    };
    const row rows[] = {
        {"bytes=0-", 100, 1, 0, 100, ""},          {"bytes=10-19", 100, 1, 10, 10, ""},
        {"bytes=90-200", 100, 1, 90, 10, ""},      {"bytes=-30", 100, 1, 70, 30, ""},
        {"bytes=-200", 100, 1, 0, 100, ""},        {"Bytes \t= \t-\t 30", 100, 1, 70, 30, ""},
        {"bytes=10 \t- \t19", 100, 1, 10, 10, ""}, {"bytes=99-99", 100, 1, 99, 1, ""},
        {"bytes=99- ", 100, 1, 99, 1, ""},         {"bytes=5-5", 100, 1, 5, 1, ""},
        {"bytes=100-", 100, 0, 0, 100, "416"},     {"bytes=-0", 100, 0, 0, 100, "416"},
        {"bytes=100x", 100, 0, 0, 100, "416"},     {"bytes=99999999999999999999-", 100, 0, 0, 100, "416"},
        {"bytes=18446744073709551616-", 100, 0, 0, 100, "416"},
        {"bytes=-18446744073709551616", 100, 1, 0, 100, ""},
        {"bytes=0-99999999999999999999", 100, 1, 0, 100, ""},
        {"bytes=0-18446744073709551615", 18446744073709551615ull, 1, 0, 18446744073709551615ull, ""},
        {"bytes=5-2", 100, 0, 0, 100, "400"},      {"bytes=1-2,4-5", 100, 0, 0, 100, "400"},
        {"items=0-1", 100, 0, 0, 100, "400"},      {"bytes=", 100, 0, 0, 100, "400"},
        {"bytes= ", 100, 0, 0, 100, "400"},        {"bytes=-", 100, 0, 0, 100, "400"},
        {"bytes=--1", 100, 0, 0, 100, "400"},      {"bytes=-1 ", 100, 0, 0, 100, "400"},
        {"bytes=1", 100, 0, 0, 100, "400"},        {"bytes=1-2 ", 100, 0, 0, 100, "400"},
        {"bytes=1-x", 100, 0, 0, 100, "400"},      {"bytes 0-1", 100, 0, 0, 100, "400"},
        {"bytes=+1-2", 100, 0, 0, 100, "400"},     {"bytes=x-", 0, 1, 0, 0, ""},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.value);
        tn_http_range range = {1, 2, 3};
        const tn_uchar *status = u("");
        EXPECT_EQ(tn_http_header_parse_range(u(r.value), r.size, &range, &status), r.ok);
        EXPECT_EQ(range.start, r.start);
        EXPECT_EQ(range.length, r.length);
        EXPECT_EQ(range.total, r.size);
        EXPECT_EQ(s(status), r.status);
    }
    tn_http_range range;
    EXPECT_FALSE(tn_http_header_parse_range(nullptr, 5, &range, nullptr));
    EXPECT_FALSE(tn_http_header_parse_range(u("bytes=0-"), 5, nullptr, nullptr));
}

TEST_F(HttpHeader, RangeLineBuilders)
{
    ASSERT_TRUE(tn_http_header_content_range_init(&text));
    ASSERT_TRUE(tn_http_header_range_start_pos(&text, 0));
    ASSERT_TRUE(tn_http_header_range_end_pos(&text, 9));
    ASSERT_TRUE(tn_http_header_range_length(&text, 100));
    EXPECT_EQ(text_s(), "content-range: bytes 0-9/100");
    ASSERT_TRUE(tn_http_header_range_init(&text));
    ASSERT_TRUE(tn_http_header_range_end_pos(&text, 18446744073709551615ull));
    ASSERT_TRUE(tn_http_header_range_unknown_length(&text));
    EXPECT_EQ(text_s(), "range: bytes=-18446744073709551615/*");
}

TEST_F(HttpHeader, FindLineLooksAtTheHeldBytesOnly)
{
    struct row {
        const char *held;
        tn_uint32 used, line;
    };
    const row rows[] = {{"", 0, 0}, {"\r", 1, 1}, {"\r\n", 2, 0}, {"ab\r", 3, 3}, {"a\n\r\r\nb\r\n", 8, 3}};
    for (const row &r : rows) {
        tn_input_buffer b;
        tn_str_input_buffer_init(&b, u(r.held));
        tn_uint32 used = 9, line = 9;
        EXPECT_TRUE(tn_http_find_line_socket(&b, &used, &line));
        EXPECT_EQ(used, r.used) << r.held;
        EXPECT_EQ(line, r.line) << r.held;
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

TEST_F(HttpHeader, RealHeadsReadTheSameHoweverTheyArrive)
{
    for (const char *name : {"soap-browse-0.request", "soap-browse-0.response", "ssdp-msearch-mediaserver.request",
                             "ssdp-msearch-mediaserver.response", "ssdp-notify-alive-mediaserver.notify",
                             "http-get-range.request", "http-get-range.response"}) {
        SCOPED_TRACE(name);
        std::string message = capture(name);
        ASSERT_FALSE(message.empty());
        std::string head = message.substr(message.find("\r\n") + 2);
        std::size_t body = head.find("\r\n\r\n") + 4;
        header_reader reader;
        for (tn_uint32 storage : {4096u, 256u}) {
            std::string whole = tn_test::expect_same_for_every_split(head, storage, reader.runner());
            EXPECT_EQ(whole, "done\n" + reference_lines(head) + " line: \nleft: " + head.substr(body));
        }
    }
}

TEST_F(HttpHeader, HostileHeads)
{
    struct row {
        const char *text;
        std::size_t length; // 0: up to the terminator
        tn_uint32 storage;
        const char *transcript;
    };
    const std::string long_line = "X-Long: " + std::string(2992, 'a') + "\r\nNext: 1\r\n\r\n";
    const std::string long_tail = "X-Long: " + std::string(2037, 'a') + "b: c\r\nNext: 1\r\n\r\n";
    const row rows[] = {
        {"A: 1\r\n\tfolded\r\n  again\r\nB: 2\r\n\r\nbody", 0, 64, "done\nA: 1\tfolded  again|B: 2| line: \nleft: body"},
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
    for (const row &r : rows) {
        std::string input(r.text, r.length ? r.length : std::char_traits<char>::length(r.text));
        SCOPED_TRACE(input.substr(0, 40));
        header_reader reader;
        EXPECT_EQ(tn_test::expect_same_for_every_split(input, r.storage, reader.runner()), r.transcript);
    }
}

TEST_F(HttpHeader, ReadStrWalksAWholeTextAndKeepsTheLastLine)
{
    tn_input_buffer b;
    ASSERT_TRUE(tn_str_array_cato(&block, u("stale: 1")));
    tn_uchar_array_cats(&text, u("stale"));
    tn_str_input_buffer_init(&b, u("A: 1\r\n folded\r\nB: 2\r\nrest"));
    EXPECT_TRUE(tn_http_header_read_str(&block, &b, &text));
    EXPECT_EQ(lines(), "A: 1 folded|");
    EXPECT_EQ(text_s(), "B: 2");
    EXPECT_EQ(b.available, 4u);
    tn_str_input_buffer_init(&b, u("A: 1\r\n\r\nbody"));
    EXPECT_TRUE(tn_http_header_read_str(&block, &b, &text));
    EXPECT_EQ(lines(), "A: 1|");
    EXPECT_EQ(b.available, 4u);
}

TEST_F(HttpHeader, EveryFailedAllocationIsReported)
{
    std::string head = capture("soap-browse-0.request");
    head = head.substr(head.find("\r\n") + 2);
    tn_test::sweep_alloc_failures([&] {
        tn_str_array b;
        tn_uchar_array line;
        tn_str_array_init(&b);
        tn_array_init(&line, 1);
        tn_input_buffer in;
        tn_str_input_buffer_init2(&in, head.data(), static_cast<tn_uint32>(head.size()));
        tn_bool done = 0;
        bool ok = tn_http_header_read_socket(&b, &in, &line, &done) && done && tn_str_array_length(&b) == 6;
        tn_str_array_free(&b);
        tn_array_free(&line);
        return ok;
    });
    tn_test::sweep_alloc_failures([] {
        tn_str_array b;
        tn_str_array_init(&b);
        bool ok = tn_http_header_set_str(&b, tn_http_header_soapaction(), u("\"urn:a#B\""), 0) &&
                  tn_http_header_set_common_soap_response_header(&b, u("srv"), 0) && tn_http_header_set_soap_man(&b);
        tn_str_array_free(&b);
        return ok;
    });
    tn_test::sweep_alloc_failures([] {
        tn_uchar_array t;
        tn_array_init(&t, 1);
        bool ok = tn_http_header_content_range_init(&t) && tn_http_header_range_start_pos(&t, 1) &&
                  tn_http_header_range_end_pos(&t, 2) && tn_http_header_range_unknown_length(&t);
        tn_array_free(&t);
        return ok;
    });
}

TEST_F(HttpHeader, SteadyReadingDoesNotAllocate)
{
    std::string head = capture("soap-browse-0.request");
    head = head.substr(head.find("\r\n") + 2);
    for (int round = 0; round < 2; ++round) {
        tn_test::reset_counts();
        tn_str_array_truncate(&block);
        tn_array_truncate(&text);
        tn_input_buffer in;
        tn_str_input_buffer_init2(&in, head.data(), static_cast<tn_uint32>(head.size()));
        tn_bool done = 0;
        ASSERT_TRUE(tn_http_header_read_socket(&block, &in, &text, &done));
        if (round) {
            EXPECT_EQ(tn_test::allocations(), 0);
        }
    }
}

} // namespace
