// The HTTP client, in the test and as the http_get example host, against
// nginx serving a directory and against small servers on test threads.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <tarnel_util/tarnel_util.h>

#include "peer/peer.h"

namespace {

const tn_uchar *text(const std::string &s) { return reinterpret_cast<const tn_uchar *>(s.c_str()); }

const std::string big_bytes = peer::varied_bytes(3 * 1024 * 1024 + 5, 3);
const std::string small_bytes = "served by nginx\n";

// What one blocking exchange gave.
struct Fetched {
    bool ok = false;
    std::string status;
    std::string body;
    std::vector<std::string> head;
};

Fetched client_fetch(const std::string &url, const char *method = "GET", tn_uint32 redirects = 10,
                     tn_str_array *request = nullptr, const char *body = nullptr)
{
    Fetched f;
    tn_http_client client;
    tn_str_array response;
    tn_uchar status[4] = "";
    if (!tn_http_client_init(&client, 0, 0)) return f;
    tn_str_array_init(&response);
    tn_http_client_set_max_following_redirects(&client, redirects);
    f.ok = tn_http_client_set_uri(&client, text(url)) &&
           tn_http_client_request(&client, text(method), request, body ? text(body) : nullptr, status, &response,
                                  10000, 10000, 10000);
    f.status.assign(reinterpret_cast<char *>(status), strnlen(reinterpret_cast<char *>(status), sizeof status));
    for (tn_uint32 i = 0; i < tn_str_array_length(&response); ++i)
        f.head.emplace_back(reinterpret_cast<char *>(tn_str_array_get_pos(&response, i)));
    if (f.ok && std::string(method) != "HEAD") {
        std::vector<char> bytes(100000);
        tn_uint32 count = 0;
        while (!tn_http_client_is_response_body_eos(&client)) {
            if (!tn_http_client_read_body(&client, bytes.data(), static_cast<tn_uint32>(bytes.size()), 10000, &count)) {
                f.ok = false;
                break;
            }
            if (count == 0) break;
            f.body.append(bytes.data(), count);
        }
    }
    tn_str_array_free(&response);
    tn_http_client_free(&client);
    return f;
}

std::string header(const Fetched &f, const std::string &name)
{
    for (const auto &line : f.head)
        if (strncasecmp(line.c_str(), (name + ": ").c_str(), name.size() + 2) == 0) return line.substr(name.size() + 2);
    return "";
}

class NginxPeer : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string nginx = peer::find_program("nginx");
        if (nginx.empty()) GTEST_SKIP() << "nginx is not installed";
        std::filesystem::create_directories(dir_ / "html/dir");
        std::filesystem::create_directories(dir_ / "logs");
        peer::write_file(dir_ / "html/small.txt", small_bytes);
        peer::write_file(dir_ / "html/big.bin", big_bytes);
        for (int attempt = 0; attempt < 3 && !started_; ++attempt) started_ = start(nginx);
        ASSERT_TRUE(started_) << peer::read_file(dir_ / "logs/error.log");
    }

    bool start(const std::string &nginx)
    {
        port_ = peer::free_port();
        std::string port = std::to_string(port_), here = "http://127.0.0.1:" + port;
        std::string conf = std::string(geteuid() == 0 ? "user root;\n" : "") +
                           "worker_processes 1;\ndaemon off;\nmaster_process off;\npid " + (dir_ / "nginx.pid") +
                           ";\nerror_log " + (dir_ / "logs/error.log") + " warn;\n"
                           "events { worker_connections 64; }\n"
                           "http {\n  access_log off;\n  default_type application/octet-stream;\n"
                           "  client_body_temp_path " + (dir_ / "tmp") + ";\n"
                           "  server {\n    listen 127.0.0.1:" + port + ";\n    root " + (dir_ / "html") + ";\n"
                           "    location = /r1 { return 301 " + here + "/r2; }\n"
                           "    location = /r2 { return 302 " + here + "/r3; }\n"
                           "    location = /r3 { return 301 " + here + "/small.txt; }\n"
                           "    location = /loop { return 301 " + here + "/loop; }\n"
                           "    location = /by-name { return 301 http://localhost:" + port + "/small.txt; }\n"
                           "  }\n}\n";
        peer::write_file(dir_ / "nginx.conf", conf);
        if (!nginx_.start({nginx, "-p", dir_.path(), "-c", dir_ / "nginx.conf"}, dir_ / "logs/stderr.log"))
            return false;
        if (peer::await_listening(port_, 20000) && nginx_.running()) return true;
        nginx_.stop();
        return false;
    }

    std::string url(const std::string &path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }

    peer::TempDir dir_;
    peer::Child nginx_;
    unsigned short port_ = 0;
    bool started_ = false;
};

TEST_F(NginxPeer, ClientFetchesPlainAndLargeFiles)
{
    struct Row {
        const char *path;
        const std::string *bytes;
    } rows[] = {{"/small.txt", &small_bytes}, {"/big.bin", &big_bytes}};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.path);
        Fetched f = client_fetch(url(row.path));
        EXPECT_TRUE(f.ok);
        EXPECT_EQ(f.status, "200");
        EXPECT_EQ(header(f, "Content-Length"), std::to_string(row.bytes->size()));
        EXPECT_TRUE(f.body == *row.bytes) << f.body.size() << " bytes";
    }
}

TEST_F(NginxPeer, ClientFollowsARedirectChainWithinItsLimit)
{
    struct Row {
        const char *path;
        tn_uint32 limit;
        const char *status;
    } rows[] = {{"/r1", 10, "200"}, {"/r1", 3, "200"}, {"/r1", 2, "301"}, {"/r1", 0, "301"},
                {"/loop", 4, "301"}, {"/by-name", 1, "200"}};
    for (const Row &row : rows) {
        SCOPED_TRACE(std::string(row.path) + " limit " + std::to_string(row.limit));
        Fetched f = client_fetch(url(row.path), "GET", row.limit);
        EXPECT_TRUE(f.ok);
        EXPECT_EQ(f.status, row.status);
        if (std::string(row.status) == "200") {
            EXPECT_EQ(f.body, small_bytes);
        }
    }
}

TEST_F(NginxPeer, ClientHeadGetsTheLengthOfTheFile)
{
    Fetched f = client_fetch(url("/big.bin"), "HEAD");
    EXPECT_TRUE(f.ok);
    EXPECT_EQ(f.status, "200");
    EXPECT_EQ(header(f, "Content-Length"), std::to_string(big_bytes.size()));
}

TEST_F(NginxPeer, ClientPostToAFileFallsBackToMPostOnce)
{
    tn_str_array request;
    tn_str_array_init(&request);
    tn_http_header_set_str(&request, tn_http_header_soapaction(), text("\"urn:x#Act\""), 1);
    Fetched f = client_fetch(url("/small.txt"), "POST", 10, &request, "<x/>");
    EXPECT_TRUE(f.ok);
    EXPECT_EQ(f.status, "405");
    EXPECT_LT(tn_http_header_find(&request, tn_http_header_man()), tn_str_array_length(&request))
        << "the block was not rewritten";
    tn_str_array_free(&request);
}

TEST_F(NginxPeer, HttpGetWritesFilesAndFollowsRedirects)
{
    struct Row {
        const char *path;
        const std::string *bytes;
    } rows[] = {{"/big.bin", &big_bytes}, {"/r1", &small_bytes}};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.path);
        peer::Result r = peer::run({TN_HTTP_GET, "-o", dir_ / "out", url(row.path)}, 60000);
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_TRUE(peer::read_file(dir_ / "out") == *row.bytes);
    }
    peer::Result to_stdout = peer::run({TN_HTTP_GET, url("/small.txt")});
    EXPECT_EQ(to_stdout.out, small_bytes);
}

TEST_F(NginxPeer, HttpGetPrintsTheHeadAndFailsOnAnErrorStatus)
{
    peer::Result r = peer::run({TN_HTTP_GET, "-i", url("/small.txt")});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << r.out;
    EXPECT_EQ(r.out.substr(r.out.find("\r\n\r\n") + 4), small_bytes);

    peer::Result head = peer::run({TN_HTTP_GET, "-I", url("/big.bin")});
    EXPECT_EQ(head.status, 0);
    EXPECT_NE(head.out.find("Content-Length: " + std::to_string(big_bytes.size()) + "\r\n"), std::string::npos);
    EXPECT_EQ(head.out.substr(head.out.size() - 4), "\r\n\r\n");

    peer::Result missing = peer::run({TN_HTTP_GET, url("/missing")});
    EXPECT_EQ(missing.status, 1);
    peer::Result refused = peer::run({TN_HTTP_GET, "http://127.0.0.1:" + std::to_string(peer::free_port()) + "/"});
    EXPECT_EQ(refused.status, 2);
}

TEST_F(NginxPeer, HttpGetGoesThroughTheProxyItIsGiven)
{
    std::string proxy = "127.0.0.1:" + std::to_string(port_);
    peer::Result by_option = peer::run({TN_HTTP_GET, "--proxy", proxy, "http://origin.invalid/small.txt"});
    EXPECT_EQ(by_option.status, 0) << by_option.err;
    EXPECT_EQ(by_option.out, small_bytes);
    peer::Result by_environment =
        peer::run({TN_HTTP_GET, "http://origin.invalid/small.txt"}, 30000, {"http_proxy=http://" + proxy + "/"});
    EXPECT_EQ(by_environment.status, 0) << by_environment.err;
    EXPECT_EQ(by_environment.out, small_bytes);
}

// A server on a test thread: takes one connection at a time, records each
// request head, and answers from a list of canned replies in turn.
class ScriptedServer {
public:
    explicit ScriptedServer(std::vector<std::string> replies) : replies_(std::move(replies))
    {
        listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        if (bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
            listen(listener_, 8) != 0 || getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &size) != 0)
            return;
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~ScriptedServer()
    {
        if (thread_.joinable()) thread_.join();
        close(listener_);
    }
    unsigned short port() const { return port_; }
    std::vector<std::string> requests()
    {
        std::lock_guard<std::mutex> hold(lock_);
        return requests_;
    }

private:
    void serve()
    {
        for (const std::string &reply : replies_) {
            pollfd p{listener_, POLLIN, 0};
            if (poll(&p, 1, 20000) <= 0) return;
            int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) return;
            std::string head = read_head(fd);
            {
                std::lock_guard<std::mutex> hold(lock_);
                requests_.push_back(head);
            }
            send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
            shutdown(fd, SHUT_WR);
            bool closed = false;
            peer::read_to_close(fd, 20000, &closed);
            close(fd);
        }
    }
    static std::string read_head(int fd)
    {
        std::string head;
        char c;
        while (head.find("\r\n\r\n") == std::string::npos) {
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, 20000) <= 0 || recv(fd, &c, 1, 0) != 1) break;
            head += c;
        }
        return head;
    }

    std::vector<std::string> replies_;
    int listener_ = -1;
    unsigned short port_ = 0;
    std::thread thread_;
    std::mutex lock_;
    std::vector<std::string> requests_;
};

TEST(ClientPeer, ChunkedBodyWithOddSizesExtensionsAndTrailers)
{
    const std::string expected = peer::varied_bytes(1 + 0x1f + 4093 + 8192 + 3, 4);
    std::string reply = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    size_t at = 0;
    struct Piece {
        size_t size;
        const char *size_text;
    } pieces[] = {{1, "1"}, {0x1f, "1F;name=value"}, {4093, "ffd ; a=\"b;c\""}, {8192, "00002000"}, {3, "3"}};
    for (const Piece &piece : pieces) {
        reply += std::string(piece.size_text) + "\r\n" + expected.substr(at, piece.size) + "\r\n";
        at += piece.size;
    }
    reply += "0;last\r\nX-Trailer: one\r\nX-Other: two\r\n\r\n";
    ScriptedServer server({reply, reply});
    ASSERT_NE(server.port(), 0);
    std::string where = "http://127.0.0.1:" + std::to_string(server.port()) + "/chunked";

    Fetched f = client_fetch(where);
    EXPECT_TRUE(f.ok);
    EXPECT_EQ(f.status, "200");
    EXPECT_TRUE(f.body == expected) << f.body.size() << " bytes";

    peer::Result r = peer::run({TN_HTTP_GET, where});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(r.out == expected) << r.out.size() << " bytes";
}

TEST(ClientPeer, ClosedFramedBodyIsReadToTheClose)
{
    const std::string expected = peer::varied_bytes(100000, 5);
    ScriptedServer server({"HTTP/1.0 200 OK\r\nContent-Type: x/y\r\n\r\n" + expected});
    ASSERT_NE(server.port(), 0);
    Fetched f = client_fetch("http://127.0.0.1:" + std::to_string(server.port()) + "/");
    EXPECT_TRUE(f.ok);
    EXPECT_TRUE(f.body == expected) << f.body.size() << " bytes";
}

TEST(ClientPeer, ResponseHeadsOfEveryShape)
{
    struct Row {
        const char *name;
        std::string reply;
        bool ok;
        const char *status;
        const char *body;
    } rows[] = {
        {"interim answers skipped", "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 199 Odd\r\nX: y\r\n\r\n"
                                    "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok", true, "200", "ok"},
        {"empty lines before the status", "\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok", true, "200", "ok"},
        {"bare status", "HTTP/1.1 204\r\nContent-Length: 2\r\n\r\nok", true, "204", "ok"},
        {"folded and long lines", "HTTP/1.1 200 OK\r\nX-A: one\r\n\ttwo\r\nX-B: " + std::string(7000, 'b') +
                                      "\r\nContent-Length: 2\r\n\r\nok", true, "200", "ok"},
        {"redirect without location", "HTTP/1.1 302 Found\r\nContent-Length: 0\r\n\r\n", false, "302", ""},
        {"relative location", "HTTP/1.1 301 Moved\r\nLocation: /else\r\nContent-Length: 0\r\n\r\n", false, "301", ""},
        {"unknown transfer coding", "HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip\r\n\r\nxx", false, "200", ""},
        {"status of four digits", "HTTP/1.1 2000 OK\r\nContent-Length: 2\r\n\r\nok", false, "", ""},
        {"status line over the storage", "HTTP/1.1 200 " + std::string(9000, 'x') + "\r\nContent-Length: 2\r\n\r\nok",
         false, "", ""},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        ScriptedServer server({row.reply});
        ASSERT_NE(server.port(), 0);
        Fetched f = client_fetch("http://127.0.0.1:" + std::to_string(server.port()) + "/");
        EXPECT_EQ(f.ok, row.ok);
        if (row.ok) {
            EXPECT_EQ(f.status, row.status);
            EXPECT_EQ(f.body, row.body);
        }
    }
}

TEST(ClientPeer, PostAnswered405IsRepeatedAsMPost)
{
    ScriptedServer server({"HTTP/1.1 405 Method Not Allowed\r\nContent-Length: 0\r\n\r\n",
                           "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"});
    ASSERT_NE(server.port(), 0);
    tn_str_array request;
    tn_str_array_init(&request);
    tn_http_header_set_str(&request, tn_http_header_soapaction(), text("\"urn:x#Act\""), 1);
    Fetched f = client_fetch("http://127.0.0.1:" + std::to_string(server.port()) + "/control", "POST", 10, &request,
                             "<body/>");
    tn_str_array_free(&request);
    EXPECT_TRUE(f.ok);
    EXPECT_EQ(f.status, "200");
    EXPECT_EQ(f.body, "ok");
    std::vector<std::string> requests = server.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].rfind("POST /control HTTP/1.1\r\n", 0), 0u) << requests[0];
    EXPECT_NE(requests[0].find("\r\nSOAPACTION: \"urn:x#Act\"\r\n"), std::string::npos) << requests[0];
    EXPECT_EQ(requests[1].rfind("M-POST /control HTTP/1.1\r\n", 0), 0u) << requests[1];
    EXPECT_NE(requests[1].find("\r\nman: \"http://schemas.xmlsoap.org/soap/envelope/\"; ns=01\r\n"),
              std::string::npos)
        << requests[1];
    EXPECT_NE(requests[1].find("\r\n01-SOAPACTION: \"urn:x#Act\"\r\n"), std::string::npos) << requests[1];
}

TEST(ClientPeer, HttpGetSendsMethodHeadersAndBodyAsGiven)
{
    ScriptedServer server({"HTTP/1.1 405 Method Not Allowed\r\nContent-Length: 0\r\n\r\n",
                           "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"});
    ASSERT_NE(server.port(), 0);
    peer::Result r = peer::run({TN_HTTP_GET, "-X", "POST", "-H", "SOAPACTION: \"urn:x#Act\"", "-d", "<body/>",
                                "http://127.0.0.1:" + std::to_string(server.port()) + "/control"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "ok");
    std::vector<std::string> requests = server.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_NE(requests[0].find("\r\nCONTENT-LENGTH: 7\r\n"), std::string::npos) << requests[0];
    EXPECT_EQ(requests[1].rfind("M-POST /control HTTP/1.1\r\n", 0), 0u) << requests[1];
}

} // namespace
