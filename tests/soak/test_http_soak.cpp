// The example file server under a crowd: 256 concurrent keep-alive
// clients for a fixed time, most of them well behaved, some sending
// malformed heads, some stopping in the middle of a head, some reading a
// large file slowly. The well-behaved clients must be answered, with the
// right bytes, throughout; afterwards the server's open descriptors and
// live heap blocks return to where they stood before the crowd came.
//
// The clients are plain POSIX sockets on one poll loop, so that nothing of
// the library sits on the client side. TN_SOAK_SECONDS sets the time (5 by
// default; scripts/soak.sh runs longer).

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;

enum class role { good, malformed, stalled, slow };

struct client {
    role kind;
    int fd = -1;
    std::string out, in;  // bytes still to send, bytes received
    size_t expected = 0;  // full response size once the head is in
    clock_type::time_point next_read{};
};

std::string read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

struct server_process {
    pid_t pid = -1;
    int port = 0;
    std::string log;

    ~server_process()
    {
        if (pid <= 0) return;
        kill(pid, SIGTERM);
        int status = 0;
        for (int i = 0; i < 50 && waitpid(pid, &status, WNOHANG) == 0; ++i) usleep(100000);
        if (waitpid(pid, &status, WNOHANG) == 0) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
        }
    }

    bool start(const std::string &root, const std::string &directory)
    {
        log = directory + "/server.log";
        int out[2];
        if (pipe(out)) return false;
        pid = fork();
        if (pid == 0) {
            dup2(out[1], 1);
            int err = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(err, 2);
            execl(TN_HTTP_FILE_SERVER, TN_HTTP_FILE_SERVER, "--port", "0", "--root", root.c_str(), (char *)nullptr);
            _exit(127);
        }
        close(out[1]);
        FILE *stream = fdopen(out[0], "r");
        char line[256] = {0};
        bool found = fgets(line, sizeof line, stream) && sscanf(line, "listening on port %d", &port) == 1;
        fclose(stream);
        return found;
    }

    int open_descriptors() const
    {
        DIR *directory = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
        if (!directory) return -1;
        int n = 0;
        while (dirent *entry = readdir(directory)) n += entry->d_name[0] != '.';
        closedir(directory);
        return n;
    }

    // The live heap blocks from the server's latest status line.
    long blocks() const
    {
        static const std::regex pattern("blocks ([0-9]+)");
        std::string text = read_file(log);
        long last = -1;
        for (std::sregex_iterator it(text.begin(), text.end(), pattern), end; it != end; ++it) last = std::stol((*it)[1]);
        return last;
    }
};

int connect_to(int port)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
    return fd;
}

const char *request_for(role kind)
{
    switch (kind) {
    case role::good: return "GET /small.bin HTTP/1.1\r\nHost: soak\r\n\r\n";
    case role::malformed: return "GARBAGE\r\n\r\n";
    case role::stalled: return "GET /small.bin HTTP/1.1\r\nHo";
    case role::slow: return "GET /large.bin HTTP/1.1\r\nHost: soak\r\n\r\n";
    }
    return "";
}

// Size of the whole response once its head has arrived, or 0.
size_t response_size(const std::string &in)
{
    size_t end = in.find("\r\n\r\n");
    if (end == std::string::npos) return 0;
    std::smatch length;
    std::string head = in.substr(0, end);
    if (!std::regex_search(head, length, std::regex("Content-Length: *([0-9]+)", std::regex::icase))) return 0;
    return end + 4 + std::stoul(length[1]);
}

struct crowd {
    int port;
    std::string small;
    std::vector<client> clients;
    long answered = 0, wrong = 0, refused = 0;
    std::vector<long> answered_per_second;

    void open(client &c)
    {
        c.fd = connect_to(port);
        c.out = request_for(c.kind);
        c.in.clear();
        c.expected = 0;
    }

    void reopen(client &c)
    {
        ::close(c.fd);
        open(c);
    }

    void on_response(client &c)
    {
        std::string body = c.in.substr(c.in.find("\r\n\r\n") + 4, c.expected);
        bool good = c.in.compare(0, 12, "HTTP/1.1 200") == 0;
        if (c.kind == role::good) {
            good = good && body.substr(0, small.size()) == small;
            ++(good ? answered : wrong);
        }
        c.in.erase(0, c.expected);
        c.expected = 0;
        c.out = request_for(c.kind);
    }

    void on_readable(client &c)
    {
        char bytes[65536];
        size_t room = c.kind == role::slow ? 4096 : sizeof bytes;
        ssize_t got = recv(c.fd, bytes, room, 0);
        if (got <= 0) {
            if (got == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) reopen(c);
            return;
        }
        c.in.append(bytes, static_cast<size_t>(got));
        if (c.kind == role::slow) c.next_read = clock_type::now() + std::chrono::milliseconds(50);
        if (c.kind == role::malformed) {
            refused += c.in.compare(0, 12, "HTTP/1.1 400") == 0;
            return; // the server closes; the next read sees it
        }
        if (!c.expected) c.expected = response_size(c.in);
        if (c.expected && c.in.size() >= c.expected) on_response(c);
    }

    void run(std::chrono::seconds length)
    {
        auto start = clock_type::now(), end = start + length;
        auto second = start + std::chrono::seconds(1);
        long answered_before = 0;
        while (clock_type::now() < end) {
            std::vector<pollfd> fds;
            for (client &c : clients) {
                short events = c.out.empty() ? 0 : POLLOUT;
                if (c.kind != role::slow || clock_type::now() >= c.next_read) events |= POLLIN;
                fds.push_back({c.fd, events, 0});
            }
            poll(fds.data(), fds.size(), 20);
            for (size_t i = 0; i < clients.size(); ++i) {
                client &c = clients[i];
                if (fds[i].revents & POLLOUT) {
                    ssize_t sent = send(c.fd, c.out.data(), c.out.size(), MSG_NOSIGNAL);
                    if (sent > 0) c.out.erase(0, static_cast<size_t>(sent));
                }
                if (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) on_readable(c);
            }
            if (clock_type::now() >= second) {
                answered_per_second.push_back(answered - answered_before);
                answered_before = answered;
                second += std::chrono::seconds(1);
            }
        }
        for (client &c : clients) ::close(c.fd);
    }
};

template <typename F> bool await(F condition, std::chrono::seconds limit)
{
    auto end = clock_type::now() + limit;
    while (!condition()) {
        if (clock_type::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return true;
}

TEST(HttpSoak, ServerAnswersThroughACrowdAndReturnsToItsBaseline)
{
    const char *seconds = std::getenv("TN_SOAK_SECONDS");
    std::chrono::seconds length(seconds ? std::atoi(seconds) : 5);

    char directory[] = "/tmp/tn_soak_XXXXXX";
    ASSERT_NE(mkdtemp(directory), nullptr);
    std::string root = std::string(directory) + "/root";
    ASSERT_EQ(mkdir(root.c_str(), 0755), 0);
    std::string small(1000, '\0'), large(4 << 20, '\0');
    for (size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>(i * 7 + i / 4096);
    for (size_t i = 0; i < small.size(); ++i) small[i] = static_cast<char>(i * 13);
    std::ofstream(root + "/small.bin", std::ios::binary) << small;
    std::ofstream(root + "/large.bin", std::ios::binary) << large;

    server_process server;
    ASSERT_TRUE(server.start(root, directory)) << "the server did not report its port";
    ASSERT_TRUE(await([&] { return server.blocks() >= 0; }, std::chrono::seconds(10)))
        << "the server printed no status line";
    int descriptors = server.open_descriptors();
    long blocks = server.blocks();

    crowd load{server.port, small, {}};
    for (int i = 0; i < 256; ++i) {
        role kind = i % 10 == 7 ? role::malformed : i % 10 == 8 ? role::stalled : i % 10 == 9 ? role::slow : role::good;
        load.clients.push_back({kind});
        load.open(load.clients.back());
    }
    load.run(length);

    EXPECT_EQ(load.wrong, 0) << "good clients got wrong answers";
    EXPECT_GT(load.refused, 0) << "no malformed head was answered with 400";
    for (size_t s = 0; s < load.answered_per_second.size(); ++s)
        EXPECT_GT(load.answered_per_second[s], 0) << "no good client was answered in second " << s;
    EXPECT_EQ(kill(server.pid, 0), 0) << "the server died";
    EXPECT_TRUE(await([&] { return server.open_descriptors() == descriptors; }, std::chrono::seconds(15)))
        << "descriptors: " << server.open_descriptors() << " after, " << descriptors << " before";
    EXPECT_TRUE(await([&] { return server.blocks() == blocks; }, std::chrono::seconds(15)))
        << "heap blocks: " << server.blocks() << " after, " << blocks << " before";
    std::printf("soak: %ld answers in %lld s, %ld refusals\n", load.answered, static_cast<long long>(length.count()),
                load.refused);
    std::system(("rm -rf " + std::string(directory)).c_str());
}

} // namespace
