#include <tarnel_util/tn_http_client.h>
#include <tarnel_util/tn_http_header.h>
#include <tarnel_util/tn_socket.h>
#include <gtest/gtest.h>
#include "support/alloc.h"
#include "support/socket_pair.h"
#include "support/split_feed.h"
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <atomic>
#include <chrono>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {
using Pair = tn_test::SocketPair;
using Clock = std::chrono::steady_clock;

const tn_uchar *u(const char *s) { return reinterpret_cast<const tn_uchar *>(s); }
const tn_uchar *u(const std::string &s) { return u(s.c_str()); }
std::string str(const tn_uchar *s) { return s ? reinterpret_cast<const char *>(s) : "(null)"; }

bool readable(int fd, int ms)
{
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, ms) == 1;
}

// Everything the peer can read now, after the writer has finished.
std::string drain(int fd)
{
    std::string s;
    char b[4096];
    for (ssize_t n; (n = recv(fd, b, sizeof b, MSG_DONTWAIT)) > 0;) s.append(b, size_t(n));
    return s;
}

// A request is complete at the end of its head plus its CONTENT-LENGTH.
bool complete(const std::string &r)
{
    const size_t head = r.find("\r\n\r\n"), at = r.find("CONTENT-LENGTH: ");
    return head != std::string::npos && r.size() >= head + 4 + (at < head ? std::stoul(r.substr(at + 16)) : 0);
}

// A scripted server on 127.0.0.1 ("@" in its texts: its host and port). The
// nth connection gets the nth reply (the last one repeats) and is held until
// the client closes it; each whole request is recorded.
class Server {
public:
    explicit Server(std::vector<std::string> replies = {}) : replies_(std::move(replies))
    {
        sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t n = sizeof a;
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr *>(&a), n), 0);
        EXPECT_EQ(listen(listener_, 8), 0);
        EXPECT_EQ(getsockname(listener_, reinterpret_cast<sockaddr *>(&a), &n), 0);
        port = ntohs(a.sin_port);
        if (!replies_.empty()) thread_ = std::thread([this] { run(); });
    }
    ~Server()
    {
        stop();
        close(listener_);
    }
    std::string at(const std::string &text) const
    {
        return std::regex_replace(text, std::regex("@"), "127.0.0.1:" + std::to_string(port));
    }
    // The requests so far; the server serves no more.
    std::vector<std::string> requests()
    {
        stop();
        return requests_;
    }
    tn_uint16 port = 0;

private:
    void stop()
    {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
    }
    void run()
    {
        for (size_t i = 0; !stop_;) {
            const int fd = readable(listener_, 20) ? accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
            if (fd < 0) continue;
            serve(fd, at(replies_[std::min(i++, replies_.size() - 1)]));
            close(fd);
        }
    }
    void serve(int fd, const std::string &reply)
    {
        std::string r;
        char b[4096];
        for (ssize_t n; !complete(r) && readable(fd, 5000) && (n = recv(fd, b, sizeof b, 0)) > 0;) r.append(b, size_t(n));
        requests_.push_back(r);
        (void)send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
        while (!stop_) // until the client closes
            if (readable(fd, 20) && recv(fd, b, sizeof b, 0) <= 0) break;
    }

    int listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::atomic<bool> stop_{false};
    std::thread thread_;
    std::vector<std::string> replies_, requests_;
};

class HttpClient : public tn_test::AllocTest {
protected:
    void SetUp() override
    {
        AllocTest::SetUp();
        tn_socket_init();
        ASSERT_TRUE(tn_http_client_init(&c, 0, 0));
        tn_str_array_init(&response);
    }
    void TearDown() override
    {
        tn_http_client_free(&c);
        tn_str_array_free(&response);
        AllocTest::TearDown();
    }
    // Hands the client our end of a fresh loopback pair that carries bytes, and closes the peer after them.
    void serve(tn_http_client *k, Pair &pair, const std::string &bytes, bool then_close = true)
    {
        tn_http_client_disconnect(k);
        tn_http_client_set_socket(k, std::exchange(pair.ours, -1));
        ASSERT_EQ(send(pair.peer, bytes.data(), bytes.size(), 0), ssize_t(bytes.size()));
        if (then_close) pair.close_peer();
    }
    std::string body()
    {
        std::string s;
        char b[7];
        tn_uint32 n = 0;
        while (tn_http_client_read_body(&c, b, sizeof b, 5000, &n) && n) s.append(b, n);
        return s;
    }
    tn_bool request(const char *method, tn_str_array *block, const char *content)
    {
        return tn_http_client_request(&c, u(method), block, content ? u(content) : nullptr, status, &response, 5000,
                                      5000, 5000);
    }

    tn_http_client c;
    tn_str_array response;
    tn_uchar status[4] = {};
};

// clang-format off
const struct { const char *name, *uri; tn_uint32 version; const char *proxy, *method; std::vector<const char *> block;
               tn_uint32 length; tn_bool close; const char *wire; /* null: the call fails, writing nothing */ } head_cases[] = {
    {"GET, no block", "http://h:81/p?q=1", 1, nullptr, "GET", {}, 0, 0, "GET /p?q=1 HTTP/1.1\r\nHOST: h:81\r\nCONTENT-LENGTH: 0\r\n\r\n"},
    {"HTTP/1.0 has no HOST", "http://h/p", 0, nullptr, "GET", {}, 0, 0, "GET /p HTTP/1.0\r\nCONTENT-LENGTH: 0\r\n\r\n"},
    {"empty query dropped", "HTTP://h/p?", 1, nullptr, "GET", {}, 0, 0, "GET /p HTTP/1.1\r\nHOST: h\r\nCONTENT-LENGTH: 0\r\n\r\n"},
    {"proxy: absolute form", "http://h:8080/a?b", 1, "127.0.0.1", "GET", {}, 0, 0, "GET http://h:8080/a?b HTTP/1.1\r\nHOST: h:8080\r\nCONTENT-LENGTH: 0\r\n\r\n"},
    {"caller's length", "http://h/", 1, nullptr, "POST", {"Content-Length: 5", "X: y"}, 9, 0, "POST / HTTP/1.1\r\nHOST: h\r\nContent-Length: 5\r\nX: y\r\n\r\n"},
    {"transfer coding", "http://h/", 1, nullptr, "POST", {"TRANSFER-ENCODING: chunked"}, 9, 0, "POST / HTTP/1.1\r\nHOST: h\r\nTRANSFER-ENCODING: chunked\r\n\r\n"},
    {"close flag", "http://h/", 1, nullptr, "PUT", {}, 4294967295u, 1, "PUT / HTTP/1.1\r\nHOST: h\r\nCONTENT-LENGTH: 4294967295\r\nCONNECTION: close\r\n\r\n"},
    {"caller's connection", "http://h/", 1, nullptr, "GET", {"Connection: keep-alive"}, 0, 1, "GET / HTTP/1.1\r\nHOST: h\r\nCONTENT-LENGTH: 0\r\nConnection: keep-alive\r\n\r\n"},
    {"caller's host", "http://h/", 1, nullptr, "GET", {"X-A: 1", "Host : other:1", "host: third", "X-B: 2"}, 0, 0, "GET / HTTP/1.1\r\nHost : other:1\r\nCONTENT-LENGTH: 0\r\nX-A: 1\r\nX-B: 2\r\n\r\n"},
    {"caller's host on 1.0", "http://h/", 0, nullptr, "GET", {"HOST: v"}, 0, 0, "GET / HTTP/1.0\r\nHOST: v\r\nCONTENT-LENGTH: 0\r\n\r\n"},
    {"Hostname is no HOST", "http://h/", 1, nullptr, "GET", {"Hostname: x"}, 0, 0, "GET / HTTP/1.1\r\nHOST: h\r\nCONTENT-LENGTH: 0\r\nHostname: x\r\n\r\n"},
    {"version 2", "http://h/", 2, nullptr, "GET", {}, 0, 0, nullptr},
    {"failed block", "http://h/", 1, nullptr, "GET", {"X: 1", nullptr}, 0, 0, nullptr},
};
// clang-format on

TEST_F(HttpClient, RequestHeadsAreExact)
{
    for (const auto &t : head_cases) {
        SCOPED_TRACE(t.name);
        Pair pair(Pair::kind::tcp);
        serve(&c, pair, "", false);
        ASSERT_TRUE(tn_http_client_set_uri(&c, u(t.uri)));
        tn_http_client_set_http_version(&c, t.version);
        ASSERT_TRUE(tn_http_client_set_proxy(&c, t.proxy ? u(t.proxy) : nullptr, 3128));
        tn_str_array block;
        tn_str_array_init(&block);
        for (const char *line : t.block) {
            if (line) tn_str_array_cato(&block, u(line));
            else tn_array_fail(&block.pool); // a null line stands for a failed append
        }
        EXPECT_EQ(tn_http_client_write_header2(&c, u(t.method), t.length, t.close, &block, 1000), t.wire != nullptr);
        EXPECT_EQ(drain(pair.peer), t.wire ? t.wire : "");
        tn_str_array_free(&block);
    }
}

TEST_F(HttpClient, UriMustBeHttpWithHost)
{
    for (const char *bad : {"https://h/", "http:///a", "/relative", "ftp://h/"}) {
        SCOPED_TRACE(bad);
        ASSERT_TRUE(tn_http_client_set_uri(&c, u("http://h/")));
        EXPECT_FALSE(tn_http_client_set_uri(&c, u(bad)));
        EXPECT_EQ(tn_str_array_length(tn_http_client_get_uri(&c)), 0u);
    }
}

TEST_F(HttpClient, ProxyMayBeSetFromItsOwnText)
{
    ASSERT_TRUE(tn_http_client_set_proxy(&c, u("proxy.local"), 1));
    ASSERT_TRUE(tn_http_client_set_proxy(&c, tn_http_client_get_proxy_host(&c) + 6, 2));
    EXPECT_EQ(str(tn_http_client_get_proxy_host(&c)), "local");
    EXPECT_EQ(tn_http_client_get_proxy_port(&c), 2);
    ASSERT_TRUE(tn_http_client_set_proxy(&c, nullptr, 3));
    EXPECT_EQ(tn_http_client_get_proxy_host(&c), nullptr);
    EXPECT_EQ(tn_http_client_get_proxy_port(&c), 0);
}

std::string capture(const char *name)
{
    std::ifstream in(std::string(TN_HTTP_TEST_DATA "/") + name, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

const tn_uint32 connected = TN_HTTP_CLIENT_CONNECTED, length = TN_HTTP_CLIENT_BODY_LENGTH,
                to_close = TN_HTTP_CLIENT_BODY_TO_CLOSE, chunked = TN_HTTP_CLIENT_BODY_CHUNKED,
                ended = TN_HTTP_CLIENT_BODY_ENDED, failed = TN_HTTP_CLIENT_FAILED;

// state: after the head; end: after the body.
struct ResponseCase { const char *name; std::string bytes; tn_bool head; const char *status; tn_uint32 state; std::string body; tn_uint32 end; };

// A real response: its body is what stands behind the head.
ResponseCase captured(const char *name, const char *status, tn_uint32 end)
{
    const std::string wire = capture(name);
    return {name, wire, 1, status, length, wire.substr(wire.find("\r\n\r\n") + 4), end};
}

// clang-format off
const ResponseCase response_cases[] = {
    {"to the close",       "HTTP/1.1 200 OK\r\n\r\nabcdefghij",               1, "200", to_close, "abcdefghij", ended},
    {"empty lines first",  "\r\n\r\nHTTP/1.1 204 No\r\n\r\n",                 1, "204", to_close, "", ended},
    {"tabs, no reason",    "HTTP/1.0\t404\r\n\r\n",                           1, "404", to_close, "", ended},
    {"any version token",  "ICY 200 OK\r\n\r\n",                              1, "200", to_close, "", ended},
    {"11-byte version",    "HTTP/1.1.11 200 OK\r\n\r\n",                      1, "200", to_close, "", ended},
    {"12-byte version",    "HTTP/1.1.111 200 OK\r\n\r\n",                     0, "",    connected, "", connected},
    {"4-byte status",      "HTTP/1.1 2000 OK\r\n\r\n",                        0, "",    connected, "", connected},
    {"2-byte status",      "HTTP/1.1 20 OK\r\n\r\n",                          0, "",    connected, "", connected},
    {"no status",          "HTTP/1.1\r\n\r\n",                                0, "",    connected, "", connected},
    {"leading blank",      " HTTP/1.1 200 OK\r\n\r\n",                        0, "",    connected, "", connected},
    {"closed in the head", "HTTP/1.1 200 OK\r\nA: b\r\n",                     0, "200", connected, "", connected},
    {"closed in the line", "HTTP/1.1 200",                                    0, "",    connected, "", connected},
    {"gzip",               "HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip\r\n\r\n", 0, "200", connected, "", connected},
    {"chunked plus more",  "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked, gzip\r\n\r\n", 0, "200", connected, "", connected},
    {"length not a number","HTTP/1.1 200 OK\r\nContent-Length: x\r\n\r\n",   0, "200", connected, "", connected},
    {"chunked over length","HTTP/1.1 200 OK\r\nTransfer-Encoding: CHUNKED\r\nContent-Length: 3\r\n\r\n3;x=y\r\nabc\r\n0\r\nT: 1\r\n\r\n", 1, "200", chunked, "abc", ended},
    {"chunked cut",        "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nab", 1, "200", chunked, "ab", chunked},
    {"largest length",     "HTTP/1.1 200 OK\r\nContent-Length: 18446744073709551615\r\n\r\n", 1, "200", length, "", failed},
    {"length 0",           "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n",    1, "200", length, "", failed},
    {"short length",       "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nabc", 1, "200", length, "abc", failed},
    {"length",             "HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nabcdef", 1, "200", length, "abc", ended},
    captured("http-get-range.response", "206", ended),
    captured("soap-browse-0.response", "200", ended),
    captured("ssdp-msearch-mediaserver.response", "200", failed), // a length of 0: a read fails
};
// clang-format on

// Each response is followed by the peer's close, which ends any wait at once.
TEST_F(HttpClient, ResponsesOverASocket)
{
    for (const ResponseCase &t : response_cases) {
        SCOPED_TRACE(t.name);
        Pair pair(Pair::kind::tcp);
        serve(&c, pair, t.bytes);
        status[0] = 0;
        const auto start = Clock::now();
        EXPECT_EQ(tn_http_client_read_header(&c, status, &response, 60000), t.head);
        EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
        ASSERT_LT(strnlen(reinterpret_cast<char *>(status), sizeof status), sizeof status) << "an unterminated status";
        EXPECT_EQ(str(status), t.status);
        EXPECT_EQ(c.state, t.state);
        EXPECT_EQ(t.head ? body() : "", t.body);
        EXPECT_EQ(c.state, t.end);
        tn_uint32 n = 9;
        EXPECT_EQ(tn_http_client_read_body(&c, status, 1, 5000, &n), t.end == ended);
        EXPECT_EQ(n, 0u);
    }
}

TEST_F(HttpClient, LinesLongerThanStorageFailAtOnce)
{
    tn_http_client small;
    ASSERT_TRUE(tn_http_client_init(&small, 64, 0));
    for (std::string line : {"HTTP/1.1 200 " + std::string(80, 'x'), std::string(70, 'x')}) {
        Pair pair(Pair::kind::tcp);
        serve(&small, pair, line, false);
        const auto start = Clock::now();
        EXPECT_FALSE(tn_http_client_read_header(&small, status, &response, 20000));
        EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
    }
    tn_test::PieceFeed full(std::string(64, 'x'), {}, 64);
    small.input.buffer = full.buffer;
    tn_bool done = 1;
    ASSERT_TRUE(tn_input_buffer_pool(&small.input.buffer, nullptr));
    EXPECT_FALSE(tn_http_client_read_status_line_nonblock(&small, status, &done));
    EXPECT_FALSE(done);
    tn_http_client_free(&small);
}

// Status, head and body of one response through the non-blocking road,
// the client's input taken from the feed.
std::string decode(tn_test::PieceFeed &f)
{
    tn_http_client k;
    if (!tn_http_client_init(&k, 0, 0)) return "init";
    k.input.buffer = f.buffer;
    tn_input_buffer *b = &k.input.buffer;
    tn_uchar st[4] = {};
    tn_str_array block;
    tn_str_array_init(&block);
    tn_bool done = 0, ready = 0, ok = 1;
    auto more = [b] {
        tn_uint32 before = b->available, now = 0;
        return tn_input_buffer_pool(b, &now) && now > before;
    };
    while (ok && !done) ok = tn_http_client_read_status_line_nonblock(&k, st, &done) && (done || more());
    for (done = 0; ok && !done;) ok = tn_http_client_read_header_nonblock(&k, &block, &k.accumulator, &done) && (done || more());
    std::string out = str(st) + "|" + std::to_string(tn_str_array_length(&block)) + "|";
    char d[5];
    for (tn_uint32 n = 0, calls = 0; ok && !tn_http_client_is_response_body_eos(&k) && calls < 10000; ++calls) {
        ok = tn_http_client_read_body_nonblock(&k, d, sizeof d, &n, &ready);
        out.append(d, n);
    }
    out += "|" + std::to_string(ok) + "|" + std::to_string(k.state);
    tn_str_array_free(&block);
    tn_http_client_free(&k);
    return out;
}

TEST_F(HttpClient, ResponsesSurviveEverySplit)
{
    const struct { const char *input, *expected; } cases[] = {
        {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nX: a\r\n b\r\n\r\n4;ext=\"1\"\r\nWiki\r\nA\r\npedia in\r\n\r\n"
         "0;last\r\nExpires: never\r\n\r\n",
         "200|2|Wikipedia in\r\n|1|7"},
        {"\r\nHTTP/1.0 200 OK\r\nContent-Length: 7\r\n\r\nabcdefgXYZ", "200|1|abcdefg|1|7"},
        {"HTTP/1.0 206 OK\r\nServer: s\r\n\r\nto the close", "206|1|to the close|1|7"},
    };
    for (const auto &t : cases) {
        SCOPED_TRACE(t.input);
        EXPECT_EQ(tn_test::expect_same_for_every_split(t.input, 64, decode), t.expected);
    }
}

TEST_F(HttpClient, BodyWrites)
{
    const struct { tn_int32 output; bool chunked; size_t n; } cases[] = {
        {0, false, 10}, {-1, false, 10}, {0, false, 5000}, {-1, false, 5000}, {0, true, 10}, {-1, true, 10},
        {0, true, 1023}, {-1, true, 5000}, {0, true, 0}, {-1, true, 0}, {0, false, 0},
    };
    for (const auto &t : cases) {
        SCOPED_TRACE(std::to_string(t.output) + (t.chunked ? " chunked " : " plain ") + std::to_string(t.n));
        tn_http_client w;
        ASSERT_TRUE(tn_http_client_init(&w, 0, t.output));
        EXPECT_EQ(w.direct_writes, t.output == -1);
        Pair pair(Pair::kind::tcp);
        serve(&w, pair, "", false);
        std::string data(t.n, 'd');
        for (size_t i = 0; i < t.n; ++i) data[i] = char('a' + i % 26);
        auto write = t.chunked ? tn_http_client_write_chunk_body : tn_http_client_write_body;
        EXPECT_TRUE(write(&w, data.data(), tn_uint32(t.n), 1000));
        char size[16];
        snprintf(size, sizeof size, "%zx\r\n", t.n);
        std::string wire = t.chunked ? size + data + "\r\n" : data, got;
        while (got.size() < wire.size() && readable(pair.peer, 5000)) got += drain(pair.peer);
        EXPECT_EQ(got, wire);
        tn_http_client_free(&w);
    }
}

std::string get(const char *path) { return std::string("GET ") + path + " HTTP/1.1\r\nHOST: @\r\nCONTENT-LENGTH: 0\r\n\r\n"; }
std::string moved(const char *to) { return std::string("HTTP/1.1 302 Found\r\nLocation: ") + to + "\r\nContent-Length: 0\r\n\r\n"; }
const std::string ok2 = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok",
                  play = "HOST: @\r\nCONTENT-LENGTH: 4\r\n", // of a SOAP POST of <x/>
                  soap_man = "man: \"http://schemas.xmlsoap.org/soap/envelope/\"; ns=01\r\n01-";

// Whole exchanges with a scripted server: interim responses, redirects, the
// M-POST form, a proxy. A null body is not read.
TEST_F(HttpClient, Requests)
{
    // clang-format off
    const struct { const char *name, *uri; bool proxy; const char *method, *line, *content; tn_uint32 redirects;
                   std::vector<std::string> replies; tn_bool result; const char *status, *body;
                   std::vector<std::string> requests; const char *path; /* of the uri afterwards */ } cases[] = {
        {"interim skipped", "http://@/a", false, "POST", nullptr, "hello", 10, {"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 199 X\r\nA: b\r\n\r\n" + ok2}, 1, "200", "ok", {"POST /a HTTP/1.1\r\nHOST: @\r\nCONTENT-LENGTH: 5\r\n\r\nhello"}, "/a"},
        {"M-POST once", "http://@/ctl", false, "POST", "SOAPACTION: \"urn:x#Play\"", "<x/>", 10, {"HTTP/1.1 405 Method Not Allowed\r\nContent-Length: 0\r\n\r\n"}, 1, "405", nullptr, {"POST /ctl HTTP/1.1\r\n" + play + "SOAPACTION: \"urn:x#Play\"\r\n\r\n<x/>", "M-POST /ctl HTTP/1.1\r\n" + play + soap_man + "SOAPACTION: \"urn:x#Play\"\r\n\r\n<x/>"}, "/ctl"},
        {"proxy", "http://example.invalid:8080/a?b=1", true, "GET", nullptr, nullptr, 10, {ok2}, 1, "200", "ok", {"GET http://example.invalid:8080/a?b=1 HTTP/1.1\r\nHOST: example.invalid:8080\r\nCONTENT-LENGTH: 0\r\n\r\n"}, "/a"},
        {"redirects", "http://@/a", false, "GET", nullptr, nullptr, 10, {moved("http://@/b"), moved("http://@/c"), ok2}, 1, "200", "ok", {get("/a"), get("/b"), get("/c")}, "/c"},
        {"limit 0", "http://@/a", false, "GET", nullptr, nullptr, 0, {moved("http://@/b")}, 1, "302", nullptr, {get("/a")}, "/a"},
        {"limit reached", "http://@/a", false, "GET", nullptr, nullptr, 2, {moved("http://@/b"), moved("http://@/c"), moved("http://@/d")}, 1, "302", nullptr, {get("/a"), get("/b"), get("/c")}, "/c"},
        {"no location", "http://@/a", false, "GET", nullptr, nullptr, 10, {"HTTP/1.1 302 Found\r\n\r\n"}, 0, "302", nullptr, {get("/a")}, "/a"},
        {"relative", "http://@/a", false, "GET", nullptr, nullptr, 10, {moved("/b")}, 0, "302", nullptr, {get("/a")}, nullptr},
        {"https", "http://@/a", false, "GET", nullptr, nullptr, 10, {moved("https://@/b")}, 0, "302", nullptr, {get("/a")}, nullptr},
        {"304", "http://@/a", false, "GET", nullptr, nullptr, 10, {"HTTP/1.1 304 Not Modified\r\nLocation: /x\r\n\r\n"}, 1, "304", nullptr, {get("/a")}, "/a"},
    };
    // clang-format on
    for (const auto &t : cases) {
        SCOPED_TRACE(t.name);
        Server srv(t.replies);
        ASSERT_TRUE(tn_http_client_set_uri(&c, u(srv.at(t.uri))));
        ASSERT_TRUE(tn_http_client_set_proxy(&c, t.proxy ? u("127.0.0.1") : nullptr, srv.port));
        tn_http_client_set_max_following_redirects(&c, t.redirects);
        tn_str_array block;
        tn_str_array_init(&block);
        if (t.line) {
            ASSERT_TRUE(tn_str_array_cato(&block, u(t.line)));
        }
        EXPECT_EQ(request(t.method, t.line ? &block : nullptr, t.content), t.result);
        EXPECT_EQ(str(status), t.status);
        if (t.body) {
            EXPECT_EQ(body(), t.body);
        }
        EXPECT_EQ(str(tn_uri_get_path(tn_http_client_get_uri(&c))), t.path ? t.path : "(null)");
        tn_http_client_disconnect(&c);
        tn_str_array_free(&block);
        const std::vector<std::string> requests = srv.requests();
        ASSERT_EQ(requests.size(), t.requests.size());
        for (size_t i = 0; i < requests.size(); ++i) EXPECT_EQ(requests[i], srv.at(t.requests[i])) << "request " << i;
    }
}

TEST_F(HttpClient, RefusedConnectFails)
{
    ASSERT_TRUE(tn_http_client_set_uri(&c, u(Server().at("http://@/"))));
    EXPECT_FALSE(tn_http_client_connect(&c, 5000));
    EXPECT_EQ(c.state, TN_HTTP_CLIENT_FAILED);
    EXPECT_EQ(c.socket, -1);
    EXPECT_FALSE(tn_http_client_connect_nonblock(&c));
    EXPECT_FALSE(request("GET", nullptr, nullptr));
    EXPECT_FALSE(tn_http_client_request(&c, u("SIXTEEN-BYTES-XX"), nullptr, nullptr, status, &response, 1, 1, 1));
}

TEST_F(HttpClient, ConnectMovesPastARefusingAddress)
{
    Server s({"HTTP/1.1 200 OK\r\n\r\n"});
    tn_ip ips[2];
    ASSERT_TRUE(tn_ip_set(&ips[0], u("127.0.0.1"), Server().port));
    ASSERT_TRUE(tn_ip_set(&ips[1], u("127.0.0.1"), s.port));
    ASSERT_TRUE(tn_array_catn(&c.addresses, ips, 2));
    c.address_index = ~0u;
    c.state = TN_HTTP_CLIENT_CONNECTING;
    ASSERT_TRUE(tn_http_client_connect_nonblock(&c));
    for (int i = 0; i < 2 && !tn_poll_wait_write(&c.poll, c.socket, 5000); ++i)
        ASSERT_TRUE(tn_http_client_connect_nonblock(&c));
    tn_http_client_connect_nonblock_completed(&c);
    EXPECT_EQ(c.state, TN_HTTP_CLIENT_CONNECTED);
    EXPECT_EQ(c.address_index, 1u);
    ASSERT_TRUE(tn_http_client_set_uri(&c, u("http://x/")));
    EXPECT_TRUE(tn_http_client_write_header(&c, u("GET"), 0, nullptr, 1000));
    EXPECT_TRUE(tn_http_client_read_header(&c, status, &response, 5000));
}

TEST_F(HttpClient, CancelEndsABlockingRead)
{
    Server s({"HTTP/1.1 200 OK\r\n\r\n"});
    ASSERT_TRUE(tn_http_client_set_uri(&c, u(s.at("http://@/"))));
    ASSERT_TRUE(request("GET", nullptr, nullptr));
    std::thread other([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        tn_http_client_cancel(&c);
    });
    const auto start = Clock::now();
    tn_uint32 n = 0;
    char b[8];
    EXPECT_FALSE(tn_http_client_read_body(&c, b, sizeof b, 60000, &n));
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
    other.join();
    EXPECT_EQ(c.state, TN_HTTP_CLIENT_BODY_TO_CLOSE);
}

TEST_F(HttpClient, AllocationFailuresInInitAndRequest)
{
    Server s({"HTTP/1.1 200 OK\r\nContent-Length: 2\r\nA: b\r\n\r\nok"});
    const std::int64_t made = tn_test::sweep_alloc_failures([&] {
        tn_http_client k;
        if (!tn_http_client_init(&k, 0, 0)) return false;
        tn_str_array r;
        tn_str_array_init(&r);
        tn_uchar st[4];
        bool ok = tn_http_client_set_uri(&k, u(s.at("http://@/a"))) &&
                  tn_http_client_request(&k, u("GET"), nullptr, nullptr, st, &r, 5000, 5000, 5000);
        tn_str_array_free(&r);
        tn_http_client_free(&k);
        return ok;
    });
    EXPECT_GE(made, 5) << "two storages, the uri, the address list and the response block";
}

} // namespace
