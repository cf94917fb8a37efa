#include "peer/peer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

extern char **environ;

namespace peer {
namespace {

using Clock = std::chrono::steady_clock;

int remaining_ms(Clock::time_point deadline)
{
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left < 0 ? 0 : static_cast<int>(left);
}

std::vector<char *> c_strings(const std::vector<std::string> &strings)
{
    std::vector<char *> out;
    for (const auto &s : strings) out.push_back(const_cast<char *>(s.c_str()));
    out.push_back(nullptr);
    return out;
}

// Reads what fd has until it closes or the deadline; false on the deadline.
bool drain(int fd, std::string *into, Clock::time_point deadline)
{
    char bytes[65536];
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        int ready = poll(&p, 1, remaining_ms(deadline));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return false;
        ssize_t got = read(fd, bytes, sizeof bytes);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return true;
        into->append(bytes, static_cast<size_t>(got));
    }
}

// Waits for the child's end until the deadline; the exit status, or -1.
int reap(pid_t pid, Clock::time_point deadline, bool *ended)
{
    int status = 0;
    for (;;) {
        pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) {
            *ended = true;
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        if (done < 0 || Clock::now() >= deadline) {
            *ended = done < 0;
            return -1;
        }
        struct timespec pause = {0, 10 * 1000 * 1000};
        nanosleep(&pause, nullptr);
    }
}

int finish(pid_t pid, int grace_ms)
{
    bool ended = false;
    int status = reap(pid, Clock::now() + std::chrono::milliseconds(grace_ms), &ended);
    if (ended) return status;
    kill(pid, SIGKILL);
    reap(pid, Clock::now() + std::chrono::seconds(10), &ended);
    return -1;
}

pid_t spawn(const std::vector<std::string> &argv, const std::vector<std::string> &env, int out_fd, int err_fd)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out_fd, 1);
    posix_spawn_file_actions_adddup2(&actions, err_fd, 2);
    std::vector<std::string> environment;
    for (char **e = environ; *e; ++e) environment.emplace_back(*e);
    environment.insert(environment.end(), env.begin(), env.end());
    auto args = c_strings(argv);
    auto envp = c_strings(environment);
    pid_t pid = -1;
    if (posix_spawn(&pid, args[0], &actions, nullptr, args.data(), envp.data()) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

} // namespace

std::string find_program(const std::string &name)
{
    if (name.find('/') != std::string::npos) return access(name.c_str(), X_OK) == 0 ? name : "";
    const char *path = getenv("PATH");
    std::stringstream dirs(path ? path : "/usr/bin:/bin");
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        for (const char *extra : {"", "/../sbin"}) {
            std::string candidate = dir + extra + "/" + name;
            if (access(candidate.c_str(), X_OK) == 0) return candidate;
        }
    }
    for (const char *dir2 : {"/usr/sbin", "/sbin"}) {
        std::string candidate = std::string(dir2) + "/" + name;
        if (access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return "";
}

Result run(const std::vector<std::string> &argv, int timeout_ms, const std::vector<std::string> &env)
{
    Result result;
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0) return result;
    if (pipe2(err, O_CLOEXEC) != 0) {
        close(out[0]);
        close(out[1]);
        return result;
    }
    pid_t pid = spawn(argv, env, out[1], err[1]);
    close(out[1]);
    close(err[1]);
    auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    bool in_time = pid > 0 && drain(out[0], &result.out, deadline) && drain(err[0], &result.err, deadline);
    close(out[0]);
    close(err[0]);
    if (pid > 0) {
        if (!in_time) kill(pid, SIGKILL);
        int status = finish(pid, in_time ? remaining_ms(deadline) + 1000 : 0);
        result.status = in_time ? status : -1;
    }
    return result;
}

bool Child::start(const std::vector<std::string> &argv, const std::string &stderr_path)
{
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) return false;
    int err = open(stderr_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    pid_ = err < 0 ? -1 : spawn(argv, {}, out[1], err);
    if (err >= 0) close(err);
    close(out[1]);
    out_ = out[0];
    return pid_ > 0;
}

std::string Child::read_line(int timeout_ms)
{
    auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        size_t end = pending_.find('\n');
        if (end != std::string::npos) {
            std::string line = pending_.substr(0, end);
            pending_.erase(0, end + 1);
            return line;
        }
        pollfd p{out_, POLLIN, 0};
        if (poll(&p, 1, remaining_ms(deadline)) <= 0) return "";
        char bytes[512];
        ssize_t got = read(out_, bytes, sizeof bytes);
        if (got <= 0) return "";
        pending_.append(bytes, static_cast<size_t>(got));
    }
}

bool Child::running()
{
    return pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == 0;
}

int Child::stop()
{
    if (pid_ <= 0) return -1;
    kill(pid_, SIGTERM);
    int status = finish(pid_, 10000);
    pid_ = -1;
    if (out_ >= 0) close(out_);
    out_ = -1;
    return status;
}

TempDir::TempDir()
{
    char name[] = "/tmp/tn_peer.XXXXXX";
    if (mkdtemp(name)) path_ = name;
}

TempDir::~TempDir()
{
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
}

void write_file(const std::string &path, const std::string &bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

std::string varied_bytes(size_t n, unsigned seed)
{
    std::string bytes(n, '\0');
    uint32_t state = seed + 0x9e37u; // xorshift must not start at 0
    for (size_t i = 0; i < n; ++i) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        bytes[i] = static_cast<char>(state);
    }
    return bytes;
}

namespace {
sockaddr_in loopback(unsigned short port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}
} // namespace

unsigned short free_port()
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    unsigned short port = 0;
    if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size) == 0)
        port = ntohs(address.sin_port);
    if (fd >= 0) close(fd);
    return port;
}

int connect_loopback(unsigned short port)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(port);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) return fd;
    if (fd >= 0) close(fd);
    return -1;
}

bool await_listening(unsigned short port, int timeout_ms)
{
    auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        int fd = connect_loopback(port);
        if (fd >= 0) {
            close(fd);
            return true;
        }
        if (Clock::now() >= deadline) return false;
        struct timespec pause = {0, 20 * 1000 * 1000};
        nanosleep(&pause, nullptr);
    }
}

std::string read_to_close(int fd, int timeout_ms, bool *closed)
{
    std::string bytes;
    *closed = drain(fd, &bytes, Clock::now() + std::chrono::milliseconds(timeout_ms));
    return bytes;
}

std::string exchange(unsigned short port, const std::string &request, int timeout_ms, bool *closed)
{
    *closed = false;
    int fd = connect_loopback(port);
    if (fd < 0) return "";
    size_t sent = 0;
    while (sent < request.size()) {
        ssize_t n = send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) break;
        sent += static_cast<size_t>(n);
    }
    std::string reply = read_to_close(fd, timeout_ms, closed);
    close(fd);
    return reply;
}

} // namespace peer
