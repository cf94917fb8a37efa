#include <tarnel_util/tn_http_client.h>
#include <tarnel_util/tn_http_header.h>
#include <tarnel_util/tn_socket.h>
#include <tarnel_util/tn_time.h>
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
#include <sstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

const tn_uchar *u(const char *s) { return reinterpret_cast<const tn_uchar *>(s); }
const tn_uchar *u(const std::string &s) { return u(s.c_str()); }

// Waits up to ms for fd to become readable.
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
    size_t head = r.find("\r\n\r\n");
    if (head == std::string::npos) return false;
    size_t at = r.find("CONTENT-LENGTH: ");
    size_t length = at < head ? std::stoul(r.substr(at + 16)) : 0;
    return r.size() >= head + 4 + length;
}

// A scripted server on 127.0.0.1: each connection gets the next reply (the
// last one repeats), and the exact request bytes are recorded. A reply
// marked keep is followed by waiting for the client to close.
class Server {
public:
    struct Reply {
        std::string bytes;
        bool keep = false;
    };

    Server()
    {
        listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t n = sizeof a;
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr *>(&a), n), 0);
        EXPECT_EQ(listen(listener_, 8), 0);
        EXPECT_EQ(getsockname(listener_, reinterpret_cast<sockaddr *>(&a), &n), 0);
        port = ntohs(a.sin_port);
    }
    ~Server()
    {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
        close(listener_);
    }
    void start(std::vector<Reply> replies)
    {
        replies_ = std::move(replies);
        thread_ = std::thread([this] { run(); });
    }
    std::vector<std::string> requests()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return requests_;
    }
    std::string url(const char *path) const { return "http://127.0.0.1:" + std::to_string(port) + path; }

    int port = 0;

private:
    void run()
    {
        for (size_t i = 0; !stop_;) {
            if (!readable(listener_, 20)) continue;
            int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) continue;
            serve(fd, replies_[std::min(i++, replies_.size() - 1)]);
            close(fd);
        }
    }
    void serve(int fd, const Reply &reply)
    {
        std::string r;
        char b[4096];
        for (ssize_t n; !complete(r) && readable(fd, 5000) && (n = recv(fd, b, sizeof b, 0)) > 0;) r.append(b, size_t(n));
        {
            std::lock_guard<std::mutex> lock(mutex_);
            requests_.push_back(r);
        }
        (void)send(fd, reply.bytes.data(), reply.bytes.size(), MSG_NOSIGNAL);
        for (int i = 0; reply.keep && !stop_ && i < 500; ++i)
            if (readable(fd, 20) && recv(fd, b, sizeof b, 0) <= 0) break;
    }

    int listener_ = -1;
    std::atomic<bool> stop_{false};
    std::thread thread_;
    std::mutex mutex_;
    std::vector<Reply> replies_;
    std::vector<std::string> requests_;
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
    // Hands the client our end of a loopback pair.
    void attach(tn_test::SocketPair &pair)
    {
        tn_http_client_set_socket(&c, pair.ours);
        pair.ours = -1;
    }
    std::string body(tn_int32 timeout = 5000)
    {
        std::string s;
        char b[7];
        tn_uint32 n = 0;
        while (tn_http_client_read_body(&c, b, sizeof b, timeout, &n) && n) s.append(b, n);
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

struct HeadCase {
    const char *name, *uri;
    tn_uint32 version;
    const char *proxy, *method;
    std::vector<const char *> block;
    tn_uint32 length;
    tn_bool close;
    const char *wire; // null: the call fails with nothing written
};

// clang-format off
const HeadCase head_cases[] = {
    {"GET, no block", "http://h:81/p?q=1", 1, nullptr, "GET", {}, 0, 0,
     "GET /p?q=1 HTTP/1.1\r\nHOST: h:81\r\nCONTENT-LENGTH: 0\r\n\r\n"},
    {"HTTP/1.0 has no HOST", "http://h/p", 0, nullptr, "GET", {}, 0, 0, "GET /p HTTP/1.0\r\nCONTENT-LENGTH: 0\r\n\r\n"},
    {"empty query dropped", "HTTP://h/p?", 1, nullptr, "GET", {}, 0, 0, "GET /p HTTP/1.1\r\nHOST: h\r\nCONTENT-LENGTH: 0\r\n\r\n"},
    {"proxy: absolute form", "http://h:8080/a?b", 1, "127.0.0.1", "GET", {}, 0, 0,
     "GET http://h:8080/a?b HTTP/1.1\r\nHOST: h:8080\r\nCONTENT-LENGTH: 0\r\n\r\n"},
    {"caller's length", "http://h/", 1, nullptr, "POST", {"Content-Length: 5", "X: y"}, 9, 0,
     "POST / HTTP/1.1\r\nHOST: h\r\nContent-Length: 5\r\nX: y\r\n\r\n"},
    {"transfer coding", "http://h/", 1, nullptr, "POST", {"TRANSFER-ENCODING: chunked"}, 9, 0,
     "POST / HTTP/1.1\r\nHOST: h\r\nTRANSFER-ENCODING: chunked\r\n\r\n"},
    {"close flag", "http://h/", 1, nullptr, "PUT", {}, 4294967295u, 1,
     "PUT / HTTP/1.1\r\nHOST: h\r\nCONTENT-LENGTH: 4294967295\r\nCONNECTION: close\r\n\r\n"},
    {"caller's connection", "http://h/", 1, nullptr, "GET", {"Connection: keep-alive"}, 0, 1,
     "GET / HTTP/1.1\r\nHOST: h\r\nCONTENT-LENGTH: 0\r\nConnection: keep-alive\r\n\r\n"},
    {"caller's host", "http://h/", 1, nullptr, "GET", {"X-A: 1", "Host : other:1", "host: third", "X-B: 2"}, 0, 0,
     "GET / HTTP/1.1\r\nHost : other:1\r\nCONTENT-LENGTH: 0\r\nX-A: 1\r\nX-B: 2\r\n\r\n"},
    {"caller's host on 1.0", "http://h/", 0, nullptr, "GET", {"HOST: v"}, 0, 0,
     "GET / HTTP/1.0\r\nHOST: v\r\nCONTENT-LENGTH: 0\r\n\r\n"},
    {"Hostname is no HOST", "http://h/", 1, nullptr, "GET", {"Hostname: x"}, 0, 0,
     "GET / HTTP/1.1\r\nHOST: h\r\nCONTENT-LENGTH: 0\r\nHostname: x\r\n\r\n"},
    {"version 2", "http://h/", 2, nullptr, "GET", {}, 0, 0, nullptr},
    {"failed block", "http://h/", 1, nullptr, "GET", {"X: 1", nullptr}, 0, 0, nullptr},
};
// clang-format on

TEST_F(HttpClient, RequestHeadsAreExact)
{
    for (const HeadCase &t : head_cases) {
        SCOPED_TRACE(t.name);
        tn_test::SocketPair pair(tn_test::SocketPair::kind::tcp);
        attach(pair);
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
        tn_http_client_disconnect(&c);
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
    EXPECT_STREQ(reinterpret_cast<const char *>(tn_http_client_get_proxy_host(&c)), "local");
    EXPECT_EQ(tn_http_client_get_proxy_port(&c), 2);
    ASSERT_TRUE(tn_http_client_set_proxy(&c, nullptr, 3));
    EXPECT_EQ(tn_http_client_get_proxy_host(&c), nullptr);
    EXPECT_EQ(tn_http_client_get_proxy_port(&c), 0);
}

struct ResponseCase {
    const char *name, *bytes;
    tn_bool head;
    const char *status;
    tn_uint32 state;
};

// clang-format off
const ResponseCase response_cases[] = {
    {"plain",              "HTTP/1.1 200 OK\r\n\r\n",                         1, "200", TN_HTTP_CLIENT_BODY_TO_CLOSE},
    {"empty lines first",  "\r\n\r\nHTTP/1.1 204 No\r\n\r\n",                 1, "204", TN_HTTP_CLIENT_BODY_TO_CLOSE},
    {"tabs, no reason",    "HTTP/1.0\t404\r\n\r\n",                           1, "404", TN_HTTP_CLIENT_BODY_TO_CLOSE},
    {"any version token",  "ICY 200 OK\r\n\r\n",                              1, "200", TN_HTTP_CLIENT_BODY_TO_CLOSE},
    {"11-byte version",    "HTTP/1.1.11 200 OK\r\n\r\n",                      1, "200", TN_HTTP_CLIENT_BODY_TO_CLOSE},
    {"12-byte version",    "HTTP/1.1.111 200 OK\r\n\r\n",                     0, "",    TN_HTTP_CLIENT_CONNECTED},
    {"4-byte status",      "HTTP/1.1 2000 OK\r\n\r\n",                        0, "",    TN_HTTP_CLIENT_CONNECTED},
    {"2-byte status",      "HTTP/1.1 20 OK\r\n\r\n",                          0, "",    TN_HTTP_CLIENT_CONNECTED},
    {"no status",          "HTTP/1.1\r\n\r\n",                                0, "",    TN_HTTP_CLIENT_CONNECTED},
    {"leading blank",      " HTTP/1.1 200 OK\r\n\r\n",                        0, "",    TN_HTTP_CLIENT_CONNECTED},
    {"closed in the head", "HTTP/1.1 200 OK\r\nA: b\r\n",                     0, "200", TN_HTTP_CLIENT_CONNECTED},
    {"closed in the line", "HTTP/1.1 200",                                    0, "",    TN_HTTP_CLIENT_CONNECTED},
    {"chunked",            "HTTP/1.1 200 OK\r\nTransfer-Encoding: CHUNKED\r\nContent-Length: 3\r\n\r\n", 1, "200", TN_HTTP_CLIENT_BODY_CHUNKED},
    {"gzip",               "HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip\r\n\r\n", 0, "200", TN_HTTP_CLIENT_CONNECTED},
    {"chunked plus more",  "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked, gzip\r\n\r\n", 0, "200", TN_HTTP_CLIENT_CONNECTED},
    {"length",             "HTTP/1.1 200 OK\r\nContent-Length: 18446744073709551615\r\n\r\n", 1, "200", TN_HTTP_CLIENT_BODY_LENGTH},
    {"length not a number","HTTP/1.1 200 OK\r\nContent-Length: x\r\n\r\n",   0, "200", TN_HTTP_CLIENT_CONNECTED},
};
// clang-format on

TEST_F(HttpClient, StatusLineAndFraming)
{
    for (const ResponseCase &t : response_cases) {
        SCOPED_TRACE(t.name);
        tn_test::SocketPair pair(tn_test::SocketPair::kind::tcp);
        attach(pair);
        ASSERT_EQ(send(pair.peer, t.bytes, strlen(t.bytes), 0), ssize_t(strlen(t.bytes)));
        pair.close_peer();
        status[0] = 0;
        // A peer that closes ends the wait at once, long before the deadline.
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(tn_http_client_read_header(&c, status, &response, 60000), t.head);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
        // Whatever the outcome, the status is a terminated text.
        ASSERT_LT(strnlen(reinterpret_cast<char *>(status), sizeof status), sizeof status);
        EXPECT_STREQ(reinterpret_cast<char *>(status), t.status);
        EXPECT_EQ(c.state, t.state);
        tn_http_client_disconnect(&c);
    }
}

TEST_F(HttpClient, LinesLongerThanStorageFailAtOnce)
{
    tn_http_client small;
    ASSERT_TRUE(tn_http_client_init(&small, 64, 0));
    for (std::string line : {"HTTP/1.1 200 " + std::string(80, 'x'), std::string(70, 'x')}) {
        tn_test::SocketPair pair(tn_test::SocketPair::kind::tcp);
        tn_http_client_set_socket(&small, pair.ours);
        pair.ours = -1;
        ASSERT_GT(send(pair.peer, line.data(), line.size(), 0), 0);
        auto start = std::chrono::steady_clock::now();
        EXPECT_FALSE(tn_http_client_read_header(&small, status, &response, 20000));
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
        tn_http_client_disconnect(&small);
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
    std::string out;
    tn_bool done = 0, ready = 0, ok = 1;
    auto more = [b] {
        tn_uint32 before = b->available, now = 0;
        return tn_input_buffer_pool(b, &now) && now > before;
    };
    while (ok && !done) ok = tn_http_client_read_status_line_nonblock(&k, st, &done) && (done || more());
    for (done = 0; ok && !done;) ok = tn_http_client_read_header_nonblock(&k, &block, &k.accumulator, &done) && (done || more());
    out += std::string(reinterpret_cast<char *>(st)) + "|" + std::to_string(tn_str_array_length(&block)) + "|";
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
    const struct {
        const char *input, *expected;
    } cases[] = {
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

TEST_F(HttpClient, BodyFramingOverSocket)
{
    const struct {
        const char *name, *bytes, *body;
        tn_uint32 end_state;
    } cases[] = {
        {"to the close", "HTTP/1.1 200 OK\r\n\r\nabcdefghij", "abcdefghij", TN_HTTP_CLIENT_BODY_ENDED},
        {"length 0", "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n", "", TN_HTTP_CLIENT_FAILED},
        {"short length", "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nabc", "abc", TN_HTTP_CLIENT_FAILED},
        {"length", "HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nabcdef", "abc", TN_HTTP_CLIENT_BODY_ENDED},
        {"chunked", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3;x=y\r\nabc\r\n0\r\nT: 1\r\n\r\n", "abc",
         TN_HTTP_CLIENT_BODY_ENDED},
        {"chunked cut", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nab", "ab", TN_HTTP_CLIENT_BODY_CHUNKED},
    };
    for (const auto &t : cases) {
        SCOPED_TRACE(t.name);
        tn_test::SocketPair pair(tn_test::SocketPair::kind::tcp);
        attach(pair);
        ASSERT_GT(send(pair.peer, t.bytes, strlen(t.bytes), 0), 0);
        pair.close_peer();
        ASSERT_TRUE(tn_http_client_read_header(&c, status, &response, 5000));
        EXPECT_EQ(body(), t.body);
        EXPECT_EQ(c.state, t.end_state);
        tn_uint32 n = 9;
        EXPECT_EQ(tn_http_client_read_body(&c, status, 1, 5000, &n), t.end_state == TN_HTTP_CLIENT_BODY_ENDED);
        EXPECT_EQ(n, 0u);
        tn_http_client_disconnect(&c);
    }
}

std::string capture(const char *name)
{
    std::ifstream in(std::string(TN_HTTP_TEST_DATA "/") + name, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// Real responses: the body is what stands behind the head.
TEST_F(HttpClient, CapturedResponses)
{
    for (const char *name : {"http-get-range.response", "soap-browse-0.response", "ssdp-msearch-mediaserver.response"}) {
        SCOPED_TRACE(name);
        const std::string wire = capture(name);
        ASSERT_FALSE(wire.empty());
        tn_test::SocketPair pair(tn_test::SocketPair::kind::tcp);
        attach(pair);
        ASSERT_EQ(send(pair.peer, wire.data(), wire.size(), 0), ssize_t(wire.size()));
        pair.close_peer();
        ASSERT_TRUE(tn_http_client_read_header(&c, status, &response, 5000));
        EXPECT_EQ(std::string(reinterpret_cast<char *>(status)), wire.substr(9, 3));
        EXPECT_EQ(c.state, TN_HTTP_CLIENT_BODY_LENGTH);
        const std::string content = wire.substr(wire.find("\r\n\r\n") + 4);
        EXPECT_EQ(body(), content);
        // A length of 0 leaves nothing to read: a read fails.
        EXPECT_EQ(c.state, content.empty() ? TN_HTTP_CLIENT_FAILED : TN_HTTP_CLIENT_BODY_ENDED);
        tn_http_client_disconnect(&c);
    }
}

struct WriteCase {
    tn_int32 output;
    bool chunked;
    size_t n;
};

TEST_F(HttpClient, BodyWrites)
{
    const WriteCase cases[] = {{0, false, 10}, {-1, false, 10}, {0, false, 5000}, {-1, false, 5000},
                               {0, true, 10},  {-1, true, 10},  {0, true, 1023},  {-1, true, 5000},
                               {0, true, 0},   {-1, true, 0},   {0, false, 0}};
    for (const WriteCase &t : cases) {
        SCOPED_TRACE(std::to_string(t.output) + (t.chunked ? " chunked " : " plain ") + std::to_string(t.n));
        tn_http_client w;
        ASSERT_TRUE(tn_http_client_init(&w, 0, t.output));
        EXPECT_EQ(w.direct_writes, t.output == -1);
        tn_test::SocketPair pair(tn_test::SocketPair::kind::tcp);
        tn_http_client_set_socket(&w, pair.ours);
        pair.ours = -1;
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

TEST_F(HttpClient, RequestSkipsInterimResponses)
{
    Server s;
    s.start({{"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 199 X\r\nA: b\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"}});
    ASSERT_TRUE(tn_http_client_set_uri(&c, u(s.url("/a"))));
    ASSERT_TRUE(request("POST", nullptr, "hello"));
    EXPECT_STREQ(reinterpret_cast<char *>(status), "200");
    EXPECT_EQ(body(), "ok");
    EXPECT_EQ(s.requests().at(0), "POST /a HTTP/1.1\r\nHOST: 127.0.0.1:" + std::to_string(s.port) +
                                      "\r\nCONTENT-LENGTH: 5\r\n\r\nhello");
}

// "@" in a reply stands for the server's own address.
TEST_F(HttpClient, Redirects)
{
    const std::string moved = "HTTP/1.1 302 Found\r\nLocation: ", end = "\r\nContent-Length: 0\r\n\r\n";
    const struct {
        const char *name;
        tn_uint32 limit;
        std::vector<std::string> replies;
        tn_bool result;
        const char *status;
        size_t requests;
        const char *path; // of the uri afterwards, or null for an empty uri
    } cases[] = {
        {"chain", 10, {moved + "@/b" + end, moved + "@/c" + end, "HTTP/1.1 200 OK\r\n\r\n"}, 1, "200", 3, "/c"},
        {"limit 0", 0, {moved + "@/b" + end}, 1, "302", 1, "/a"},
        {"limit reached", 2, {moved + "@/b" + end, moved + "@/c" + end, moved + "@/d" + end}, 1, "302", 3, "/c"},
        {"no location", 10, {"HTTP/1.1 302 Found\r\n\r\n"}, 0, "302", 1, "/a"},
        {"relative", 10, {moved + "/b" + end}, 0, "302", 1, nullptr},
        {"https", 10, {moved + "https://127.0.0.1/b" + end}, 0, "302", 1, nullptr},
        {"304", 10, {"HTTP/1.1 304 Not Modified\r\nLocation: /x\r\n\r\n"}, 1, "304", 1, "/a"},
    };
    for (const auto &t : cases) {
        SCOPED_TRACE(t.name);
        Server srv;
        std::vector<Server::Reply> replies;
        for (std::string r : t.replies) {
            if (size_t at = r.find('@'); at != std::string::npos) r.replace(at, 1, srv.url(""));
            replies.push_back({r});
        }
        srv.start(replies);
        ASSERT_TRUE(tn_http_client_set_uri(&c, u(srv.url("/a"))));
        tn_http_client_set_max_following_redirects(&c, t.limit);
        EXPECT_EQ(request("GET", nullptr, nullptr), t.result);
        EXPECT_STREQ(reinterpret_cast<char *>(status), t.status);
        const tn_uchar *path = tn_uri_get_path(tn_http_client_get_uri(&c));
        EXPECT_STREQ(reinterpret_cast<const char *>(path), t.path);
        tn_http_client_disconnect(&c);
        EXPECT_EQ(srv.requests().size(), t.requests);
    }
}

TEST_F(HttpClient, MethodNotAllowedFallsBackToMPostOnce)
{
    Server s;
    s.start({{"HTTP/1.1 405 Method Not Allowed\r\nContent-Length: 0\r\n\r\n"}});
    ASSERT_TRUE(tn_http_client_set_uri(&c, u(s.url("/ctl"))));
    tn_str_array block;
    tn_str_array_init(&block);
    tn_str_array_cato(&block, u("SOAPACTION: \"urn:x#Play\""));
    EXPECT_TRUE(request("POST", &block, "<x/>"));
    EXPECT_STREQ(reinterpret_cast<char *>(status), "405");
    tn_str_array_free(&block);
    tn_http_client_disconnect(&c);
    auto r = s.requests();
    ASSERT_EQ(r.size(), 2u);
    const std::string host = "HOST: 127.0.0.1:" + std::to_string(s.port) + "\r\nCONTENT-LENGTH: 4\r\n";
    EXPECT_EQ(r[0], "POST /ctl HTTP/1.1\r\n" + host + "SOAPACTION: \"urn:x#Play\"\r\n\r\n<x/>");
    EXPECT_EQ(r[1], "M-POST /ctl HTTP/1.1\r\n" + host +
                        "man: \"http://schemas.xmlsoap.org/soap/envelope/\"; ns=01\r\n"
                        "01-SOAPACTION: \"urn:x#Play\"\r\n\r\n<x/>");
}

TEST_F(HttpClient, ProxyGetsTheConnection)
{
    Server s;
    s.start({{"HTTP/1.1 200 OK\r\n\r\n"}});
    ASSERT_TRUE(tn_http_client_set_uri(&c, u("http://example.invalid:8080/a?b=1")));
    ASSERT_TRUE(tn_http_client_set_proxy(&c, u("127.0.0.1"), tn_uint16(s.port)));
    ASSERT_TRUE(request("GET", nullptr, nullptr));
    tn_http_client_disconnect(&c);
    EXPECT_EQ(s.requests().at(0),
              "GET http://example.invalid:8080/a?b=1 HTTP/1.1\r\nHOST: example.invalid:8080\r\nCONTENT-LENGTH: 0\r\n\r\n");
}

// A port on which nothing listens.
int refused_port()
{
    Server s;
    return s.port;
}

TEST_F(HttpClient, RefusedConnectFails)
{
    ASSERT_TRUE(tn_http_client_set_uri(&c, u("http://127.0.0.1:" + std::to_string(refused_port()) + "/")));
    EXPECT_FALSE(tn_http_client_connect(&c, 5000));
    EXPECT_EQ(c.state, TN_HTTP_CLIENT_FAILED);
    EXPECT_EQ(c.socket, -1);
    EXPECT_FALSE(tn_http_client_connect_nonblock(&c));
    EXPECT_FALSE(request("GET", nullptr, nullptr));
    EXPECT_FALSE(tn_http_client_request(&c, u("SIXTEEN-BYTES-XX"), nullptr, nullptr, status, &response, 1, 1, 1));
}

TEST_F(HttpClient, ConnectMovesPastARefusingAddress)
{
    Server s;
    s.start({{"HTTP/1.1 200 OK\r\n\r\n"}});
    tn_ip ips[2];
    ASSERT_TRUE(tn_ip_set(&ips[0], u("127.0.0.1"), tn_uint16(refused_port())));
    ASSERT_TRUE(tn_ip_set(&ips[1], u("127.0.0.1"), tn_uint16(s.port)));
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
    tn_http_client_disconnect(&c);
}

TEST_F(HttpClient, CancelEndsABlockingRead)
{
    Server s;
    s.start({{"HTTP/1.1 200 OK\r\n\r\n", true}});
    ASSERT_TRUE(tn_http_client_set_uri(&c, u(s.url("/"))));
    ASSERT_TRUE(request("GET", nullptr, nullptr));
    std::thread other([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        tn_http_client_cancel(&c);
    });
    auto start = std::chrono::steady_clock::now();
    tn_uint32 n = 0;
    char b[8];
    EXPECT_FALSE(tn_http_client_read_body(&c, b, sizeof b, 60000, &n));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    other.join();
    EXPECT_EQ(c.state, TN_HTTP_CLIENT_BODY_TO_CLOSE);
    tn_http_client_disconnect(&c);
}

TEST_F(HttpClient, AllocationFailuresInInitAndRequest)
{
    Server s;
    s.start({{"HTTP/1.1 200 OK\r\nContent-Length: 2\r\nA: b\r\n\r\nok"}});
    const std::string url = s.url("/a");
    const std::int64_t made = tn_test::sweep_alloc_failures([&] {
        tn_http_client k;
        if (!tn_http_client_init(&k, 0, 0)) return false;
        tn_str_array r;
        tn_str_array_init(&r);
        tn_uchar st[4];
        bool ok = tn_http_client_set_uri(&k, u(url)) &&
                  tn_http_client_request(&k, u("GET"), nullptr, nullptr, st, &r, 5000, 5000, 5000);
        tn_str_array_free(&r);
        tn_http_client_free(&k);
        return ok;
    });
    // Two storages, the uri, the address list and the response block.
    EXPECT_GE(made, 5);
}

} // namespace
