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

#include "peer/peer.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;

enum class role { good, malformed, stalled, slow };

struct client {
    role kind = role::good;
    int fd = -1;
    std::string out, in;  // bytes still to send, bytes received
    size_t expected = 0;  // full response size once the head is in
    clock_type::time_point next_read{};
};

// What the process has open: one entry per descriptor, the link's target.
std::vector<std::string> open_descriptors(pid_t pid)
{
    std::vector<std::string> targets;
    std::error_code ignored;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ignored))
        targets.push_back(std::filesystem::read_symlink(entry.path(), ignored).string());
    return targets;
}

std::string listed(const std::vector<std::string> &targets)
{
    std::string text;
    for (const std::string &target : targets) text += " " + target;
    return text;
}

// The server's status lines so far, and the live heap blocks of the latest
// (-1 before the first).
struct status {
    long lines = 0, blocks = -1;
};

status read_status(const std::string &log)
{
    static const std::regex pattern("heap blocks ([0-9]+)");
    std::string text = peer::read_file(log);
    status s;
    for (std::sregex_iterator it(text.begin(), text.end(), pattern), end; it != end; ++it, ++s.lines)
        s.blocks = std::stol((*it)[1]);
    return s;
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
    int port = 0;
    std::string small;
    std::vector<client> clients;
    long answered = 0, wrong = 0, refused = 0;
    std::vector<long> answered_per_second;

    void open(client &c)
    {
        c.fd = peer::connect_loopback(static_cast<unsigned short>(port));
        fcntl(c.fd, F_SETFL, O_NONBLOCK);
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

crowd run_crowd(int port, const std::string &small, std::chrono::seconds length)
{
    crowd load;
    load.port = port;
    load.small = small;
    for (int i = 0; i < 256; ++i) {
        load.clients.emplace_back();
        int kind = i % 10;
        load.clients.back().kind = kind == 7 ? role::malformed : kind == 8 ? role::stalled : kind == 9 ? role::slow : role::good;
        load.open(load.clients.back());
    }
    load.run(length);
    return load;
}

TEST(HttpSoak, ServerAnswersThroughACrowdAndReturnsToItsBaseline)
{
    const char *seconds = std::getenv("TN_SOAK_SECONDS");
    std::chrono::seconds length(seconds ? std::atoi(seconds) : 5);

    peer::TempDir directory;
    std::string root = directory / "root", log = directory / "server.log";
    ASSERT_TRUE(std::filesystem::create_directory(root));
    std::string small = peer::varied_bytes(1000, 1);
    peer::write_file(root + "/small.bin", small);
    peer::write_file(root + "/large.bin", peer::varied_bytes(4 << 20, 2));

    peer::Child server;
    ASSERT_TRUE(server.start({TN_HTTP_FILE_SERVER, "--port", "0", "--root", root}, log));
    int port = 0;
    ASSERT_EQ(std::sscanf(server.read_line(10000).c_str(), "listening on port %d", &port), 1);
    // The loop opens what it needs before its first status line.
    ASSERT_TRUE(await([&] { return read_status(log).lines > 0; }, std::chrono::seconds(10)))
        << "the server printed no status line";
    const size_t descriptors = open_descriptors(server.pid()).size();
    auto settled = [&] {
        return await([&] { return open_descriptors(server.pid()).size() == descriptors; }, std::chrono::seconds(40));
    };
    // The heap as the next status line after now reports it.
    auto blocks_now = [&] {
        long lines = read_status(log).lines;
        await([&] { return read_status(log).lines > lines + 1; }, std::chrono::seconds(10));
        return read_status(log).blocks;
    };

    // A first, short crowd lets the server's tables grow to what a crowd
    // needs; they keep that size, so the heap is judged against what it
    // held once that crowd had gone.
    run_crowd(port, small, std::chrono::seconds(1));
    ASSERT_TRUE(settled()) << "descriptors stay open after the first crowd:" << listed(open_descriptors(server.pid()));
    const long blocks = blocks_now();

    crowd load = run_crowd(port, small, length);
    EXPECT_EQ(load.wrong, 0) << "good clients got wrong answers";
    EXPECT_GT(load.refused, 0) << "no malformed head was answered with 400";
    for (size_t s = 0; s < load.answered_per_second.size(); ++s)
        EXPECT_GT(load.answered_per_second[s], 0) << "no good client was answered in second " << s;
    EXPECT_TRUE(server.running()) << "the server died";
    EXPECT_TRUE(settled()) << "descriptors: " << listed(open_descriptors(server.pid())) << " after, " << descriptors
                           << " before";
    long after = blocks_now();
    EXPECT_EQ(after, blocks) << "live heap blocks after the crowd, against before";
    std::printf("soak: %ld answers in %lld s, %ld refusals\n", load.answered, static_cast<long long>(length.count()),
                load.refused);
}

} // namespace
