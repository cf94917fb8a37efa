#include <tarnel_util/tn_http_header.h>
#include <tarnel_util/tn_http_server.h>
#include <tarnel_util/tn_time.h>
#include <gtest/gtest.h>
#include "support/alloc.h"
#include "support/socket_pair.h"
#include "support/split_feed.h"
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {
using Pair = tn_test::SocketPair;
using U = tn_uchar;

const U *u(const char *s) { return reinterpret_cast<const U *>(s); }
std::string str(const U *s) { return s ? reinterpret_cast<const char *>(s) : "(null)"; }

std::string capture(const char *name)
{
    std::ifstream in(std::string(TN_HTTP_TEST_DATA "/") + name, std::ios::binary);
    std::stringstream all;
    all << in.rdbuf();
    return all.str();
}

// A record on the non-blocking end of a loopback pair; the test is the peer.
struct Conn {
    Pair pair{Pair::kind::tcp};
    tn_http_server s;
    explicit Conn(tn_int32 read_timeout = 0, const std::string &request = "")
    {
        EXPECT_TRUE(tn_http_server_init(&s));
        EXPECT_TRUE(tn_http_server_set_socket2(&s, std::exchange(pair.ours, -1), read_timeout, 2000));
        send(request);
    }
    ~Conn() { tn_http_server_free(&s); }
    void send(const std::string &t) const { ASSERT_EQ(write(pair.peer, t.data(), t.size()), ssize_t(t.size())); }
    void shut() const { shutdown(pair.peer, SHUT_WR); }
    tn_input_buffer *in() { return &s.input.buffer; }
    // What the record sent, up to the shutdown of its sending side.
    std::string wire() const
    {
        shutdown(s.socket, SHUT_WR);
        std::string got;
        char block[4096];
        for (ssize_t n; (n = read(pair.peer, block, sizeof block)) > 0;) got.append(block, size_t(n));
        return got;
    }
    // Waits for the peer's next bytes and pools them; false at the close.
    bool pool()
    {
        tn_uint32 before = in()->available, count = 0;
        return tn_poll_wait_read(&s.poll, s.socket, 5000) && tn_input_buffer_pool(in(), &count) && count > before;
    }
};

// One request's whole road on the non-blocking calls, as a host's event loop
// drives it, with the request written into the socket in the given pieces.
std::string drive(const std::string &text, const std::vector<size_t> &cuts)
{
    Conn c;
    std::vector<size_t> ends = cuts;
    ends.push_back(text.size());
    size_t next = 0, from = 0;
    auto more = [&] { // the next piece, or the close after the last
        if (next == ends.size()) c.shut();
        else c.send(text.substr(from, ends[next] - from)), from = ends[next++];
        return c.pool();
    };
    auto until_done = [&](auto reader, const char *fails, const char *closed) -> std::string {
        for (tn_bool done = 0;;) {
            if (!reader(&done)) return fails;
            if (done) return "";
            if (!more()) return closed;
        }
    };
    U uri[256];
    std::string body, outcome = until_done(
        [&](tn_bool *done) { return tn_http_server_read_start_line_nonblock(&c.s, uri, sizeof uri, done); },
        "start line fails", "closed in start line");
    if (outcome.empty())
        outcome = until_done([&](tn_bool *done) { return tn_http_server_read_header_nonblock(&c.s, done); },
                             "header fails", "closed in header");
    while (outcome.empty()) {
        tn_uint32 count = 0, ready = 0, mode = c.s.body_mode;
        char data[7];
        if (mode == TN_HTTP_SERVER_BODY_UNFRAMED || mode == TN_HTTP_SERVER_BODY_ENDED) outcome = "ok";
        else if (!c.in()->available && !more()) outcome = "closed in body";
        else if (!tn_http_server_read_body_nonblock(&c.s, data, sizeof data, &count, &ready)) outcome = "body fails";
        else body.append(data, count);
    }
    std::string lines;
    for (tn_uint32 i = 0; i < tn_str_array_length(&c.s.header); ++i) lines += str(tn_str_array_get_pos(&c.s.header, i)) + "|";
    return outcome + " " + str(c.s.method) + " " + str(tn_uri_get_path(&c.s.uri)) + "?" + str(tn_uri_get_query(&c.s.uri)) +
           " " + str(c.s.version) + " mode " + std::to_string(c.s.body_mode) + " {" + lines + "} body {" + body + "}";
}

const std::string soap = capture("soap-browse-0.request");

// clang-format off
const struct { const char *name; std::string request, expected; } road_cases[] = {
    {"device description", capture("http-get-device-description.request"),
     "ok GET /rootDesc.xml? HTTP/1.1 mode 3 {Host: 10.77.0.1:8200|User-Agent: Linux/6 UPnP/1.0 tn-interop/0.1|Connection: close|} body {}"},
    {"empty lines skipped", "\r\n\r\nGET /a?b=c HTTP/1.0\r\nHost: x\r\n\r\n", "ok GET /a?b=c HTTP/1.0 mode 3 {Host: x|} body {}"},
    {"folded line", "GET / HTTP/1.1\r\nX-A: one\r\n two\r\nHost: h\r\n\r\n", "ok GET /? HTTP/1.1 mode 3 {X-A: one two|Host: h|} body {}"},
    {"soap by length", soap,
     "ok POST /ctl/ContentDir? HTTP/1.1 mode 4 {Host: 10.77.0.1:8200|Content-Type: text/xml; charset=\"utf-8\"|"
     "SOAPACTION: \"urn:schemas-upnp-org:service:ContentDirectory:1#Browse\"|User-Agent: Linux/6 UPnP/1.0 tn-interop/0.1|"
     "Content-Length: 438|Connection: close|} body {" + soap.substr(soap.find("\r\n\r\n") + 4) + "}"},
    {"chunked upload", "POST /up HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n",
     "ok POST /up? HTTP/1.1 mode 4 {Transfer-Encoding: chunked|} body {hello}"},
    {"body cut short", "PUT / HTTP/1.1\r\nContent-Length: 9\r\n\r\nabc", "closed in body PUT /? HTTP/1.1 mode 1 {Content-Length: 9|} body {abc}"},
    {"head cut short", "GET / HTTP/1.1\r\nHost", "closed in header GET /? HTTP/1.1 mode 0 {} body {}"},
    {"bad chunk framing", "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n",
     "body fails POST /? HTTP/1.1 mode 2 {Transfer-Encoding: chunked|} body {}"},
};
// clang-format on

TEST(HttpServerRoad, EveryWayOfCuttingTheRequestReadsTheSame)
{
    for (const auto &c : road_cases) {
        SCOPED_TRACE(c.name);
        for (const auto &cuts : tn_test::every_split(c.request.size())) {
            const std::string got = drive(c.request, cuts);
            EXPECT_EQ(got, c.expected) << cuts.size() << " cuts, the first at " << (cuts.empty() ? 0 : cuts[0]);
            if (got != c.expected) break; // one report per request
        }
    }
}

const std::string m31(31, 'M'), uri255 = "/" + std::string(254, 'u');
const tn_uint32 none = TN_HTTP_SERVER_BODY_NONE, length = TN_HTTP_SERVER_BODY_LENGTH,
                chunked = TN_HTTP_SERVER_BODY_CHUNKED, unframed = TN_HTTP_SERVER_BODY_UNFRAMED;

// clang-format off
const struct { const char *name; std::string line, lines; tn_bool result; std::string method, path, version; tn_uint32 mode; tn_uint64 remaining; } head_cases[] = {
    {"plain",             "GET / HTTP/1.1",               "",  1, "GET", "/", "HTTP/1.1", unframed, 0},
    {"tabs",              "GET\t/x\tHTTP/1.1",            "",  1, "GET", "/x", "HTTP/1.1", unframed, 0},
    {"fourth token",      "GET / HTTP/1.1 extra",         "",  1, "GET", "/", "HTTP/1.1", unframed, 0},
    {"two tokens",        "GET /",                        "",  0, "GET", "/", "", none, 0},
    {"other protocol",    "GET / FTP/1.1",                "",  0, "GET", "/", "FTP/1.1", none, 0},
    {"version case",      "GET / http/1.1",               "",  0, "GET", "/", "http/1.1", none, 0},
    {"leading blank",     " GET / HTTP/1.1",              "",  0, "", "(null)", "", none, 0},
    {"colon in URI",      "GET /a:b HTTP/1.1",            "",  0, "GET", "(null)", "", none, 0},
    {"method 31",         m31 + " / HTTP/1.1",            "",  1, m31, "/", "HTTP/1.1", unframed, 0},
    {"method 32",         m31 + "M / HTTP/1.1",           "",  0, "", "(null)", "", none, 0},
    {"version 11",        "GET / HTTP/1.1234",            "",  1, "GET", "/", "HTTP/1.1234", unframed, 0},
    {"version 12",        "GET / HTTP/1.12345",           "",  0, "GET", "/", "", none, 0},
    {"URI 255",           "GET " + uri255 + " HTTP/1.1",  "",  1, "GET", uri255, "HTTP/1.1", unframed, 0},
    {"URI 256",           "GET " + uri255 + "u HTTP/1.1", "",  0, "GET", "(null)", "", none, 0},
    {"chunked",           "POST / HTTP/1.1", "Transfer-Encoding: chunked\r\n",                       1, "POST", "/", "HTTP/1.1", chunked, 0},
    {"chunked any case",  "POST / HTTP/1.1", "TRANSFER-ENCODING: ChUnKeD\r\n",                       1, "POST", "/", "HTTP/1.1", chunked, 0},
    {"chunked over length", "POST / HTTP/1.1", "Content-Length: 10\r\nTransfer-Encoding: chunked\r\n", 1, "POST", "/", "HTTP/1.1", chunked, 0},
    {"gzip over length",  "POST / HTTP/1.1", "Transfer-Encoding: gzip\r\nContent-Length: 5\r\n",     1, "POST", "/", "HTTP/1.1", unframed, 0},
    {"chunked not whole", "POST / HTTP/1.1", "Transfer-Encoding: gzip, chunked\r\n",                 1, "POST", "/", "HTTP/1.1", unframed, 0},
    {"length",            "POST / HTTP/1.1", "Content-Length: 123\r\n",                              1, "POST", "/", "HTTP/1.1", length, 123},
    {"length 0",          "POST / HTTP/1.1", "Content-Length: 0\r\n",                                1, "POST", "/", "HTTP/1.1", length, 0},
    {"largest length",    "POST / HTTP/1.1", "Content-Length: 18446744073709551615\r\n",             1, "POST", "/", "HTTP/1.1", length, 18446744073709551615u},
    {"length not a number", "POST / HTTP/1.1", "Content-Length: ten\r\n",                            0, "POST", "/", "HTTP/1.1", none, 0},
};
// clang-format on

// The blocking reader over whole heads that the peer then closes.
TEST(HttpServerHead, StartLineLimitsAndFraming)
{
    for (const auto &c : head_cases) {
        SCOPED_TRACE(c.name + std::string(": ") + c.line);
        Conn conn(5000, c.line + "\r\n" + c.lines + "\r\n");
        conn.shut();
        EXPECT_EQ(tn_http_server_read_header(&conn.s), c.result);
        EXPECT_EQ(str(conn.s.method), c.method);
        EXPECT_EQ(str(tn_uri_get_path(&conn.s.uri)), c.path);
        EXPECT_EQ(str(conn.s.version), c.version);
        EXPECT_EQ(conn.s.body_mode, c.mode);
        EXPECT_EQ(conn.s.remaining, c.remaining);
    }
}

// A start line may fill the 1024 bytes of storage with its CRLF, no more:
// one byte more fails at once rather than waiting for a line end that no
// refill can bring. Neither that nor a head cut off by the peer's close
// keeps a reader without time-out waiting.
TEST(HttpServerHead, AStartLineMustFitTheInputStorage)
{
    for (size_t size : {1024u, 1025u, 2000u}) {
        SCOPED_TRACE(size);
        Conn c(0, "GET /" + std::string(size - 16, 'a') + " HTTP/1.1\r\n");
        std::vector<U> uri(2048);
        tn_bool done = 0, r = 1;
        for (int i = 0; i < 10 && r && !done; ++i) {
            r = tn_http_server_read_start_line_nonblock(&c.s, uri.data(), tn_uint32(uri.size()), &done);
            if (r && !done) {
                ASSERT_TRUE(c.pool());
            }
        }
        EXPECT_EQ(r && done, size <= 1024);
    }
    for (const std::string &request : {"GET /" + std::string(1100, 'a'), std::string("GET / HTTP/1.1\r\nHost")}) {
        Conn c(-1, request);
        c.shut();
        tn_elapse watch;
        tn_elapse_start(&watch);
        EXPECT_FALSE(tn_http_server_read_header(&c.s));
        EXPECT_LT(tn_elapse_total(&watch), 2000u);
    }
}

TEST(HttpServerHead, ThePersistenceTable)
{
    const struct { const char *version, *lines; tn_bool persistent; } cases[] = {
        {"HTTP/1.1", "", 1},
        {"HTTP/1.1", "Connection: close\r\n", 0},
        {"HTTP/1.1", "Connection: Close\r\n", 0},
        {"HTTP/1.1", "Connection: close, x\r\n", 1},
        {"HTTP/1.1", "Connection: keep-alive\r\n", 1},
        {"HTTP/1.0", "", 0},
        {"HTTP/1.0", "Connection: keep-alive\r\n", 0},
        {"HTTP/1.2", "", 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.version) + " " + c.lines);
        Conn conn(5000, std::string("GET / ") + c.version + "\r\n" + c.lines + "\r\n");
        ASSERT_TRUE(tn_http_server_read_header(&conn.s));
        EXPECT_EQ(tn_http_server_is_persistent_connection_request(&conn.s), c.persistent);
        EXPECT_EQ(tn_http_server_is_request_version_1_0(&conn.s), std::string(c.version) == "HTTP/1.0");
    }
}

TEST(HttpServerHead, BytesOfTheNextRequestSurviveTheReset)
{
    Conn c(5000, "GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\nHost: b\r\n\r\n");
    ASSERT_TRUE(tn_http_server_read_header(&c.s));
    EXPECT_EQ(str(tn_uri_get_path(&c.s.uri)), "/1");
    tn_http_server_reset(&c.s);
    EXPECT_EQ(tn_uri_get_path(&c.s.uri), nullptr);
    c.shut();
    ASSERT_TRUE(tn_http_server_read_header(&c.s));
    EXPECT_EQ(str(tn_uri_get_path(&c.s.uri)), "/2");
    EXPECT_EQ(tn_str_array_length(&c.s.header), 1u);
}

TEST(HttpServerBody, ReadsByTheMode)
{
    const struct { const char *name, *request; std::vector<std::string> reads; const char *left; } cases[] = {
        // Each read as: result, data, ready, mode after the call.
        {"length in pieces", "PUT / HTTP/1.1\r\nContent-Length: 10\r\n\r\n0123456789GET",
         {"1 0123 1 1", "1 4567 1 1", "1 89 1 4", "1  1 4"}, "GET"},
        {"length 0 is no end", "PUT / HTTP/1.1\r\nContent-Length: 0\r\n\r\nGET", {"0  0 5", "0  0 5"}, "GET"},
        {"no framing, no body", "GET / HTTP/1.1\r\n\r\nxyz", {"0  0 3"}, "xyz"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Conn conn(5000, c.request);
        ASSERT_TRUE(tn_http_server_read_header(&conn.s));
        for (const std::string &expected : c.reads) {
            char d[4];
            tn_uint32 count = 9, ready = 9;
            tn_bool r = tn_http_server_read_body_nonblock(&conn.s, d, sizeof d, &count, &ready);
            EXPECT_EQ(std::to_string(r) + " " + std::string(d, count) + " " + std::to_string(ready) + " " +
                          std::to_string(conn.s.body_mode), expected);
        }
        EXPECT_EQ(tn_http_server_is_request_body_eos(&conn.s), conn.s.body_mode == TN_HTTP_SERVER_BODY_ENDED);
        EXPECT_EQ(std::string(reinterpret_cast<const char *>(conn.in()->storage + conn.in()->position), conn.in()->available), c.left);
    }
}

TEST(HttpServerWrite, ErrorResponsesByteForByte)
{
    const struct { const char *name, *method, *status, *reason; tn_bool persistent; std::string wire; } cases[] = {
        {"404", "GET", "404", nullptr, 0, "HTTP/1.1 404 Not Found\r\nSERVER: s/1\r\nDATE: *\r\nCONNECTION: close\r\n"
         "CONTENT-LENGTH: 37\r\nCONTENT-TYPE: text/html\r\n\r\n<html><body>Not Found</body></html>\r\n"},
        {"404 to HEAD", "HEAD", "404", nullptr, 1, "HTTP/1.1 404 Not Found\r\nSERVER: s/1\r\nDATE: *\r\n"
         "CONTENT-LENGTH: 37\r\nCONTENT-TYPE: text/html\r\n\r\n"},
        {"unknown status", "GET", "799", nullptr, 1, "HTTP/1.1 799 Error\r\nSERVER: s/1\r\nDATE: *\r\n"
         "CONTENT-LENGTH: 33\r\nCONTENT-TYPE: text/html\r\n\r\n<html><body>Error</body></html>\r\n"},
        {"own reason", "GET", "500", "Gone Fishing", 1, "HTTP/1.1 500 Gone Fishing\r\nSERVER: s/1\r\nDATE: *\r\n"
         "CONTENT-LENGTH: 40\r\nCONTENT-TYPE: text/html\r\n\r\n<html><body>Gone Fishing</body></html>\r\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Conn conn(5000, std::string(c.method) + " / HTTP/1.1\r\n\r\n");
        ASSERT_TRUE(tn_http_server_read_header(&conn.s));
        EXPECT_TRUE(tn_http_server_write_error_response2(&conn.s, u(c.status), u(c.reason), u("s/1"), c.persistent));
        EXPECT_EQ(std::regex_replace(conn.wire(), std::regex("DATE: [^\r]*\r\n"), "DATE: *\r\n"), c.wire);
    }
}

// Status and reason may lie in the block that the response grows.
TEST(HttpServerWrite, ErrorResponseTextsFromItsOwnBlock)
{
    Conn c;
    tn_str_array block;
    tn_str_array_init(&block);
    ASSERT_TRUE(tn_str_array_cato(&block, u("503")) && tn_str_array_cato(&block, u("Busy Now")));
    for (int i = 0; i < 40; ++i) ASSERT_TRUE(tn_http_header_set_str(&block, u("X-Filler"), u("0123456789"), 0));
    EXPECT_TRUE(tn_http_server_write_error_response(&c.s, tn_str_array_get_pos(&block, 0), tn_str_array_get_pos(&block, 1),
                                                    &block, u("s/1"), 1));
    std::string wire = c.wire();
    EXPECT_EQ(wire.substr(0, 24), "HTTP/1.1 503 Busy Now\r\n5");
    EXPECT_NE(wire.find("CONTENT-LENGTH: 36\r\n"), std::string::npos);
    EXPECT_EQ(wire.substr(wire.size() - 40), "\r\n\r\n<html><body>Busy Now</body></html>\r\n");
    tn_str_array_free(&block);
}

// A head longer than the 256 bytes of storage, then chunks, by the version
// of the request.
TEST(HttpServerWrite, HeadAndChunksByTheRequestsVersion)
{
    tn_str_array block;
    tn_str_array_init(&block);
    std::string head = "HTTP/1.1 200 OK\r\n";
    for (int i = 0; i < 30; ++i) {
        std::string line = "X-" + std::to_string(i) + ": " + std::string(size_t(i), 'v');
        ASSERT_TRUE(tn_str_array_cato(&block, u(line.c_str())));
        head += line + "\r\n";
    }
    const std::string z(300, 'z');
    const std::pair<const char *, std::string> cases[] = {
        {"HTTP/1.1", head + "\r\n3\r\nabc\r\n12c\r\n" + z + "\r\n0\r\n\r\n"},
        {"HTTP/1.0", head + "\r\nabc" + z},
    };
    for (const auto &[version, wire] : cases) {
        SCOPED_TRACE(version);
        Conn conn(5000, std::string("GET / ") + version + "\r\n\r\n");
        ASSERT_TRUE(tn_http_server_read_header(&conn.s));
        EXPECT_TRUE(tn_http_server_write_status_line(&conn.s, tn_http_status_ok(), nullptr));
        EXPECT_TRUE(tn_http_server_write_header(&conn.s, &block));
        EXPECT_TRUE(tn_http_server_write_chunk(&conn.s, "abc", 3));
        EXPECT_TRUE(tn_http_server_write_chunk(&conn.s, z.data(), 300));
        EXPECT_TRUE(tn_http_server_write_chunk_eos(&conn.s));
        EXPECT_TRUE(tn_http_server_flush_output(&conn.s));
        EXPECT_EQ(conn.wire(), wire);
    }
    tn_str_array_free(&block);
}

// A file of known bytes in the test's own directory.
struct TempFile {
    std::string path = testing::TempDir() + "tn_http_server_file", bytes;
    tn_file fd = -1;
    explicit TempFile(size_t n)
    {
        for (size_t i = 0; i < n; ++i) bytes += char('a' + i % 23);
        std::ofstream(path, std::ios::binary) << bytes;
        fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    }
    ~TempFile() { close(fd), unlink(path.c_str()); }
};

// A range that the file ends inside: the bytes there are go out, and the
// call fails at once rather than waiting for bytes that never come.
TEST(HttpServerWrite, SendFileFlushesTheHeadThenSendsTheRange)
{
    TempFile f(30000);
    Conn c;
    tn_uint64 count = 1;
    EXPECT_TRUE(tn_http_server_write(&c.s, "head|", 5));
    EXPECT_TRUE(tn_http_server_send_file(&c.s, f.fd, 100, 20000, &count));
    EXPECT_EQ(count, 20000u);
    EXPECT_TRUE(tn_http_server_write(&c.s, "|", 1));
    EXPECT_TRUE(tn_http_server_send_file_nonblock(&c.s, f.fd, 10, 20, &count));
    EXPECT_EQ(count, 20u);
    tn_elapse watch;
    tn_elapse_start(&watch);
    EXPECT_FALSE(tn_http_server_send_file(&c.s, f.fd, 29600, 1000, &count));
    EXPECT_LT(tn_elapse_total(&watch), 2000u);
    EXPECT_EQ(count, 400u);
    tn_poll_cancel(tn_http_server_get_poll(&c.s));
    EXPECT_FALSE(tn_http_server_send_file_nonblock(&c.s, f.fd, 30, 20, &count));
    EXPECT_EQ(c.wire(), "head|" + f.bytes.substr(100, 20000) + "|" + f.bytes.substr(10, 20) + f.bytes.substr(29600));
}

// More than the socket holds: the send waits for the reader between passes.
TEST(HttpServerThreads, SendFileWaitsForASlowReader)
{
    TempFile f(3 << 20);
    Conn c;
    std::string got;
    std::thread reader([&] {
        char block[65536];
        for (ssize_t n; (n = read(c.pair.peer, block, sizeof block)) > 0;) {
            got.append(block, size_t(n));
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    tn_uint64 count = 0;
    EXPECT_TRUE(tn_http_server_send_file(&c.s, f.fd, 1, f.bytes.size() - 1, &count));
    EXPECT_EQ(count, f.bytes.size() - 1);
    shutdown(c.s.socket, SHUT_WR);
    reader.join();
    EXPECT_TRUE(got == f.bytes.substr(1)) << got.size() << " bytes arrived";
}

TEST(HttpServerThreads, ACancelEndsABlockingReadWithinASlice)
{
    Conn c(-1, "GET / HT");
    tn_elapse watch;
    tn_elapse_start(&watch);
    std::thread canceller([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        tn_poll_cancel(tn_http_server_get_poll(&c.s));
    });
    EXPECT_FALSE(tn_http_server_read_header(&c.s));
    canceller.join();
    EXPECT_LT(tn_elapse_total(&watch), 2000u);
}

struct HttpServerAlloc : tn_test::AllocTest {};

// One request's road: init, read the head, answer, free.
TEST_F(HttpServerAlloc, EveryFailingAllocationGivesACleanFailure)
{
    const std::string request = capture("http-get-device-description.request");
    std::int64_t made = tn_test::sweep_alloc_failures([&] {
        Pair pair{Pair::kind::tcp};
        EXPECT_EQ(write(pair.peer, request.data(), request.size()), ssize_t(request.size()));
        tn_http_server s;
        if (!tn_http_server_init(&s)) return false;
        tn_http_server_set_socket2(&s, std::exchange(pair.ours, -1), 5000, 5000);
        bool ok = tn_http_server_read_header(&s) && tn_http_server_write_error_response2(&s, u("404"), nullptr, u("s/1"), 0);
        tn_http_server_free(&s);
        return ok;
    });
    EXPECT_GE(made, 5) << "the road allocates for the block, the URI, the accumulator and the poll set";
}

} // namespace
