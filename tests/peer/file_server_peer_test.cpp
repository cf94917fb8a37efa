// curl and raw sockets against the http_file_server example host.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "peer/peer.h"

namespace {

const std::string big_bytes = peer::varied_bytes(3 * 1000 * 1000 + 17, 1);
const std::string small_bytes = "a small file\n";

std::string lower(std::string s)
{
    for (auto &c : s) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return s;
}

// The 200 answers in a reply, each checked to carry the small file.
size_t count_small_answers(const std::string &reply)
{
    size_t answers = 0;
    for (size_t at = reply.find("HTTP/1.1 200 OK\r\n"); at != std::string::npos;
         at = reply.find("HTTP/1.1 200 OK\r\n", at + 1)) {
        size_t body = reply.find("\r\n\r\n", at);
        if (body != std::string::npos && reply.compare(body + 4, small_bytes.size(), small_bytes) == 0) ++answers;
    }
    return answers;
}

class FileServerPeer : public ::testing::Test {
protected:
    void SetUp() override
    {
        curl_ = peer::find_program("curl");
        if (curl_.empty()) GTEST_SKIP() << "curl is not installed";
        std::filesystem::create_directory(dir_ / "root");
        std::filesystem::create_directory(dir_ / "root/sub");
        peer::write_file(dir_ / "root/small.txt", small_bytes);
        peer::write_file(dir_ / "root/big.bin", big_bytes);
        peer::write_file(dir_ / "root/sub/a b.txt", "spaced\n");
        peer::write_file(dir_ / "secret.txt", "outside the root\n");
        std::filesystem::create_symlink(dir_ / "secret.txt", dir_ / "root/link.txt");
        peer::write_file(dir_ / "upload.bin", peer::varied_bytes(200000, 2));
        start({});
    }

    void start(const std::vector<std::string> &extra)
    {
        std::vector<std::string> argv = {TN_HTTP_FILE_SERVER, "--port", "0", "--root", dir_ / "root",
                                         "--max-seconds", "300"};
        argv.insert(argv.end(), extra.begin(), extra.end());
        ASSERT_TRUE(server_.start(argv, dir_ / "server.log"));
        std::string line = server_.read_line(20000);
        ASSERT_EQ(line.rfind("listening on port ", 0), 0u) << "first line: " << line;
        port_ = static_cast<unsigned short>(std::stoi(line.substr(18)));
    }

    std::string url(const std::string &path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }

    peer::Result curl(std::vector<std::string> args)
    {
        args.insert(args.begin(), {curl_, "-s", "--max-time", "30"});
        return peer::run(args, 60000);
    }

    // Status code and body of one GET with curl's own options in front.
    std::string fetch(const std::vector<std::string> &options, const std::string &path, std::string *body)
    {
        std::vector<std::string> args = options;
        args.insert(args.end(), {"-o", dir_ / "out", "-w", "%{http_code}", url(path)});
        peer::Result r = curl(args);
        *body = peer::read_file(dir_ / "out");
        std::filesystem::remove(dir_ / "out");
        return r.out;
    }

    std::string curl_;
    peer::TempDir dir_;
    peer::Child server_;
    unsigned short port_ = 0;
};

TEST_F(FileServerPeer, GetReturnsEveryFileByteForByte)
{
    struct Row {
        const char *path;
        const std::string *bytes;
    } rows[] = {{"/small.txt", &small_bytes}, {"/big.bin", &big_bytes}};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.path);
        std::string body;
        EXPECT_EQ(fetch({}, row.path, &body), "200");
        EXPECT_TRUE(body == *row.bytes) << "body of " << body.size() << " bytes differs";
    }
    std::string body;
    EXPECT_EQ(fetch({}, "/sub/a%20b.txt", &body), "200");
    EXPECT_EQ(body, "spaced\n");
}

TEST_F(FileServerPeer, HeadSendsTheLengthAndNoBody)
{
    peer::Result r = curl({"-I", url("/big.bin")});
    EXPECT_EQ(r.out.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << r.out;
    EXPECT_NE(lower(r.out).find("content-length: " + std::to_string(big_bytes.size()) + "\r\n"), std::string::npos)
        << r.out;
    EXPECT_EQ(r.out.substr(r.out.size() - 4), "\r\n\r\n") << "bytes after the head";
}

TEST_F(FileServerPeer, KeepAliveCarriesSeveralRequestsOnOneConnection)
{
    peer::Result r = curl({"-v", "-o", dir_ / "1", url("/small.txt"), "-o", dir_ / "2", url("/big.bin"), "-o",
                           dir_ / "3", url("/small.txt")});
    EXPECT_EQ(r.status, 0) << r.err;
    size_t reuses = 0;
    for (size_t at = r.err.find("Re-using existing connection"); at != std::string::npos;
         at = r.err.find("Re-using existing connection", at + 1))
        ++reuses;
    EXPECT_EQ(reuses, 2u) << r.err;
    EXPECT_NE(r.err.find("Connected to"), std::string::npos);
    EXPECT_EQ(peer::read_file(dir_ / "1"), small_bytes);
    EXPECT_TRUE(peer::read_file(dir_ / "2") == big_bytes);
    EXPECT_EQ(peer::read_file(dir_ / "3"), small_bytes);
}

TEST_F(FileServerPeer, SingleRangesGiveTheirSliceOr416)
{
    const size_t n = big_bytes.size();
    struct Row {
        std::string range;
        const char *status;
        size_t start, length;
    } rows[] = {
        {"0-0", "206", 0, 1},
        {"0-99", "206", 0, 100},
        {"1000000-1999999", "206", 1000000, 1000000},
        {"-500", "206", n - 500, 500},
        {std::to_string(n - 1) + "-", "206", n - 1, 1},
        {"5-" + std::to_string(n + 1000), "206", 5, n - 5},
        {"0-1,5-6", "200", 0, n},
        {"9-3", "200", 0, n},
        {std::to_string(n) + "-", "416", 0, 0},
        {std::to_string(n + 10) + "-" + std::to_string(n + 20), "416", 0, 0},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE("Range: bytes=" + row.range);
        peer::Result r = curl({"-r", row.range, "-D", "-", "-o", dir_ / "out", url("/big.bin")});
        std::string head = lower(r.out), body = peer::read_file(dir_ / "out");
        EXPECT_EQ(r.out.substr(9, 3), row.status) << r.out;
        if (std::string(row.status) == "200") {
            EXPECT_EQ(head.find("content-range"), std::string::npos) << r.out;
            EXPECT_TRUE(body == big_bytes) << body.size() << " bytes";
        } else if (std::string(row.status) == "206") {
            std::string content_range = "content-range: bytes " + std::to_string(row.start) + "-" +
                                        std::to_string(row.start + row.length - 1) + "/" + std::to_string(n);
            EXPECT_NE(head.find(content_range + "\r\n"), std::string::npos) << r.out;
            EXPECT_TRUE(body == big_bytes.substr(row.start, row.length)) << body.size() << " bytes";
        } else {
            EXPECT_NE(head.find("content-range: bytes */" + std::to_string(n) + "\r\n"), std::string::npos) << r.out;
            EXPECT_EQ(body, "<html><body>Requested Range Not Satisfiable</body></html>\r\n");
        }
    }
}

TEST_F(FileServerPeer, ChunkedUploadIsReadToItsEndAndTheConnectionGoesOn)
{
    peer::Result r = curl({"-v", "-X", "PUT", "-H", "Transfer-Encoding: chunked", "--data-binary",
                           "@" + (dir_ / "upload.bin"), "-o", dir_ / "put", url("/small.txt"), "--next", "-o",
                           dir_ / "get", url("/small.txt")});
    EXPECT_NE(r.err.find("< HTTP/1.1 405 Method Not Allowed"), std::string::npos) << r.err;
    EXPECT_EQ(peer::read_file(dir_ / "put"), "<html><body>Method Not Allowed</body></html>\r\n");
    EXPECT_NE(r.err.find("Re-using existing connection"), std::string::npos) << r.err;
    EXPECT_EQ(peer::read_file(dir_ / "get"), small_bytes);
}

TEST_F(FileServerPeer, ExpectContinueIsAnsweredBeforeTheBody)
{
    peer::Result r = curl({"-v", "-H", "Expect: 100-continue", "--expect100-timeout", "20", "--data-binary",
                           "@" + (dir_ / "upload.bin"), "-o", dir_ / "post", url("/small.txt")});
    size_t go_on = r.err.find("< HTTP/1.1 100 Continue");
    size_t answer = r.err.find("< HTTP/1.1 405 Method Not Allowed");
    ASSERT_NE(go_on, std::string::npos) << r.err;
    EXPECT_NE(answer, std::string::npos) << r.err;
    EXPECT_LT(go_on, answer);
    EXPECT_NE(r.err.find("We are completely uploaded and fine"), std::string::npos) << r.err;
}

TEST_F(FileServerPeer, MissingFileGetsTheErrorPageByteForByte)
{
    peer::Result r = curl({"-D", dir_ / "head", url("/no-such-file.txt")});
    EXPECT_EQ(r.out, "<html><body>Not Found</body></html>\r\n");
    std::string head = lower(peer::read_file(dir_ / "head"));
    EXPECT_EQ(head.rfind("http/1.1 404 not found\r\n", 0), 0u) << head;
    EXPECT_NE(head.find("content-length: 37\r\n"), std::string::npos) << head;
    EXPECT_NE(head.find("content-type: text/html\r\n"), std::string::npos) << head;
}

TEST_F(FileServerPeer, PathsOutsideTheRootAreRefused)
{
    const char *paths[] = {
        "/../secret.txt",           "/sub/../../secret.txt",       "/%2e%2e/secret.txt",
        "/%2E%2E/secret.txt",       "/sub/%2e%2e/%2e%2e/secret.txt", "/sub%2f..%2f..%2fsecret.txt",
        "/link.txt",                "/..",
    };
    for (const char *path : paths) {
        SCOPED_TRACE(path);
        std::string body;
        EXPECT_EQ(fetch({"--path-as-is"}, path, &body), "403");
        EXPECT_EQ(body.find("outside the root"), std::string::npos);
    }
}

TEST_F(FileServerPeer, FifoIsRefusedWithoutStallingTheServer)
{
    ASSERT_EQ(mkfifo((dir_ / "root/pipe").c_str(), 0644), 0);
    std::string body;
    EXPECT_EQ(fetch({}, "/pipe", &body), "403");
    EXPECT_EQ(fetch({}, "/small.txt", &body), "200");
    EXPECT_EQ(body, small_bytes);
}

TEST_F(FileServerPeer, DirectoryListingComesChunkedWithLinks)
{
    peer::Result r = curl({"-D", dir_ / "head", url("/sub/")});
    EXPECT_NE(lower(peer::read_file(dir_ / "head")).find("transfer-encoding: chunked\r\n"), std::string::npos);
    EXPECT_NE(r.out.find("<a href=\"/sub/a+b.txt\">a b.txt</a>"), std::string::npos) << r.out;
    std::string body;
    EXPECT_EQ(fetch({}, "/sub/a+b.txt", &body), "200");
    EXPECT_EQ(body, "spaced\n");
}

TEST_F(FileServerPeer, MalformedRequestLineGets400AndTheClose)
{
    const char *requests[] = {"GARBAGE\r\n\r\n", "GET /small.txt\r\n\r\n", "GET /small.txt FTP/1.0\r\n\r\n",
                              " GET /small.txt HTTP/1.1\r\n\r\n"};
    for (const char *request : requests) {
        SCOPED_TRACE(request);
        bool closed = false;
        std::string reply = peer::exchange(port_, request, 20000, &closed);
        EXPECT_TRUE(closed);
        EXPECT_EQ(reply.rfind("HTTP/1.1 400 Bad Request\r\n", 0), 0u) << reply;
        EXPECT_EQ(reply.substr(reply.size() - 39), "<html><body>Bad Request</body></html>\r\n");
    }
}

TEST_F(FileServerPeer, RawRequestsGetTheStatusTheirHeadCallsFor)
{
    const std::string close = "Connection: close\r\n\r\n";
    struct Row {
        const char *name;
        std::string request;
        const char *status;
    } rows[] = {
        {"method of 31 bytes", std::string(31, 'M') + " /small.txt HTTP/1.1\r\n" + close, "405"},
        {"method of 32 bytes", std::string(32, 'M') + " /small.txt HTTP/1.1\r\n" + close, "400"},
        {"version of 11 bytes", "GET /small.txt HTTP/1.1000\r\n" + close, "200"},
        {"version of 12 bytes", "GET /small.txt HTTP/1.10000\r\n" + close, "400"},
        {"tabs between the tokens", "GET\t/small.txt\tHTTP/1.1\r\n" + close, "200"},
        {"words behind the version", "GET /small.txt HTTP/1.1 and more\r\n" + close, "200"},
        {"colon in the path", "GET /a:b HTTP/1.1\r\n" + close, "400"},
        {"absolute form", "GET http://any.host:81/small.txt HTTP/1.1\r\n" + close, "200"},
        {"query ignored", "GET /small.txt?x=1 HTTP/1.1\r\n" + close, "200"},
        {"header line over the storage", "GET /small.txt HTTP/1.1\r\nX-Long: " + std::string(3000, 'a') + "\r\n" + close,
         "200"},
        {"folded header line", "GET /small.txt HTTP/1.1\r\nX-A: one\r\n two\r\n" + close, "200"},
        {"length that does not scan", "POST /small.txt HTTP/1.1\r\nContent-Length: ten\r\n" + close, "400"},
        {"unknown transfer coding", "POST /small.txt HTTP/1.1\r\nTransfer-Encoding: gzip\r\n" + close, "501"},
        {"bad chunk size", "POST /small.txt HTTP/1.1\r\nTransfer-Encoding: chunked\r\n" + close + "zz\r\n", "400"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        bool closed = false;
        std::string reply = peer::exchange(port_, row.request, 20000, &closed);
        EXPECT_TRUE(closed);
        EXPECT_EQ(reply.substr(0, 12), std::string("HTTP/1.1 ") + row.status) << reply.substr(0, 200);
        if (std::string(row.status) == "200") {
            EXPECT_EQ(count_small_answers(reply), 1u);
        }
    }
}

TEST_F(FileServerPeer, OverlongRequestLineEndsWithAFailureStatusNotAHang)
{
    for (size_t length : {1000u, 1030u, 4000u, 70000u}) {
        SCOPED_TRACE(length);
        bool closed = false;
        std::string reply =
            peer::exchange(port_, "GET /" + std::string(length, 'a') + " HTTP/1.1\r\nConnection: close\r\n\r\n", 20000,
                           &closed);
        EXPECT_TRUE(closed);
        EXPECT_TRUE(reply.empty() || reply.rfind("HTTP/1.1 4", 0) == 0) << reply.substr(0, 80);
    }
}

TEST_F(FileServerPeer, SilentOrStalledClientsNeitherBlockOthersNorStayForever)
{
    server_.stop();
    start({"--idle-seconds", "1"});
    int silent = peer::connect_loopback(port_);
    int half = peer::connect_loopback(port_);
    ASSERT_GE(silent, 0);
    ASSERT_GE(half, 0);
    ASSERT_EQ(send(half, "GET /small.txt HT", 17, MSG_NOSIGNAL), 17);
    int stalled = peer::connect_loopback(port_);
    ASSERT_GE(stalled, 0);
    int small = 4096;
    setsockopt(stalled, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    const std::string get_big = "GET /big.bin HTTP/1.1\r\n\r\n";
    ASSERT_EQ(send(stalled, get_big.data(), get_big.size(), MSG_NOSIGNAL), static_cast<ssize_t>(get_big.size()));

    std::string body;
    EXPECT_EQ(fetch({}, "/big.bin", &body), "200");
    EXPECT_TRUE(body == big_bytes);

    bool closed = false;
    EXPECT_EQ(peer::read_to_close(silent, 20000, &closed), "");
    EXPECT_TRUE(closed) << "a silent connection stayed open";
    peer::read_to_close(half, 20000, &closed);
    EXPECT_TRUE(closed) << "a half-sent request kept its connection";
    std::string received = peer::read_to_close(stalled, 20000, &closed);
    EXPECT_TRUE(closed) << "a reader that stopped kept its connection";
    EXPECT_LT(received.size(), big_bytes.size()) << "the stalled reader got the whole file";
    close(silent);
    close(half);
    close(stalled);
}

TEST_F(FileServerPeer, PipelinedRequestsSplitAnywhereAreAllAnswered)
{
    const std::string one = "GET /small.txt HTTP/1.1\r\nHost: x\r\n\r\n";
    const std::string requests = "\r\n" + one + one + "GET /small.txt HTTP/1.1\r\nConnection: close\r\n\r\n";
    for (size_t split = 1; split < requests.size(); split += 3) {
        SCOPED_TRACE("split at " + std::to_string(split));
        int fd = peer::connect_loopback(port_);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(send(fd, requests.data(), split, MSG_NOSIGNAL), static_cast<ssize_t>(split));
        ASSERT_EQ(send(fd, requests.data() + split, requests.size() - split, MSG_NOSIGNAL),
                  static_cast<ssize_t>(requests.size() - split));
        bool closed = false;
        std::string reply = peer::read_to_close(fd, 20000, &closed);
        close(fd);
        EXPECT_TRUE(closed);
        EXPECT_EQ(count_small_answers(reply), 3u) << reply;
    }
}

TEST_F(FileServerPeer, RequestBodiesAreSkippedExactlyToTheNextRequest)
{
    const std::string next = "GET /small.txt HTTP/1.1\r\nConnection: close\r\n\r\n";
    struct Row {
        const char *name;
        std::string request;
    } rows[] = {
        {"length", "POST /small.txt HTTP/1.1\r\nContent-Length: 11\r\n\r\nGET /x HTTP"},
        {"chunked", "POST /small.txt HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n"
                    "3;ext=1\r\nGET\r\nA\r\n /x HTTP/1\r\n0\r\nTrailer: GET /y HTTP/1.1\r\n\r\n"},
        {"length 0", "DELETE /small.txt HTTP/1.1\r\nContent-Length: 0\r\n\r\n"},
        {"HEAD of a missing file", "HEAD /missing HTTP/1.1\r\n\r\n"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        bool closed = false;
        std::string reply = peer::exchange(port_, row.request + next, 20000, &closed);
        EXPECT_TRUE(closed);
        EXPECT_EQ(reply.rfind("HTTP/1.1 4", 0), 0u) << reply;
        EXPECT_EQ(count_small_answers(reply), 1u) << reply;
        if (row.request.rfind("HEAD", 0) == 0) {
            EXPECT_NE(reply.find("\r\n\r\nHTTP/1.1 200 OK\r\n"), std::string::npos) << "a page after a HEAD";
        }
    }
}

TEST_F(FileServerPeer, ClientThatHalfClosesStillGetsEveryAnswer)
{
    const std::string one = "GET /small.txt HTTP/1.1\r\n\r\n";
    int fd = peer::connect_loopback(port_);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(send(fd, (one + one).data(), 2 * one.size(), MSG_NOSIGNAL), static_cast<ssize_t>(2 * one.size()));
    shutdown(fd, SHUT_WR);
    bool closed = false;
    std::string reply = peer::read_to_close(fd, 20000, &closed);
    close(fd);
    EXPECT_TRUE(closed);
    EXPECT_EQ(count_small_answers(reply), 2u) << reply;
}

TEST_F(FileServerPeer, Http10RequestGetsAnUnframedListingAndTheClose)
{
    bool closed = false;
    std::string reply = peer::exchange(port_, "GET /sub/ HTTP/1.0\r\n\r\n", 20000, &closed);
    EXPECT_TRUE(closed);
    EXPECT_EQ(reply.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << reply;
    EXPECT_EQ(lower(reply).find("transfer-encoding"), std::string::npos) << reply;
    EXPECT_NE(reply.find("\r\nCONNECTION: close\r\n"), std::string::npos) << reply;
    EXPECT_EQ(reply.substr(reply.size() - 20), "</ul></body></html>\n");
}

TEST_F(FileServerPeer, StopsOnSigterm)
{
    EXPECT_EQ(server_.stop(), 0);
}

} // namespace
