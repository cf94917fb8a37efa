// Running real peers from a test: child processes with bounded waits, raw
// loopback sockets, temporary directories.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace peer {

// A program by name on PATH (or an absolute path that is executable); empty
// when there is none.
std::string find_program(const std::string &name);

struct Result {
    int status = -1; // exit status, or -1 when it did not end in time or was signalled
    std::string out;
    std::string err;
};

// Runs argv to its end, with environment additions ("NAME=value"); kills it
// after timeout_ms.
Result run(const std::vector<std::string> &argv, int timeout_ms = 30000,
           const std::vector<std::string> &env = {});

// A child that runs beside the test: started with stdout on a pipe, stopped
// by SIGTERM (then SIGKILL) when the record goes.
class Child {
public:
    Child() = default;
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;
    ~Child() { stop(); }
    bool start(const std::vector<std::string> &argv, const std::string &stderr_path = "/dev/null");
    // One line of its stdout, without the line end; empty after timeout_ms.
    std::string read_line(int timeout_ms);
    // 1 while it runs.
    bool running();
    // SIGTERM, a bounded wait, then SIGKILL; the exit status or -1.
    int stop();
    pid_t pid() const { return pid_; }

private:
    pid_t pid_ = -1;
    int out_ = -1;
    std::string pending_;
};

// A fresh directory under /tmp, removed with all it holds.
class TempDir {
public:
    TempDir();
    ~TempDir();
    const std::string &path() const { return path_; }
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

void write_file(const std::string &path, const std::string &bytes);
std::string read_file(const std::string &path);
// Bytes that do not repeat with any short period.
std::string varied_bytes(size_t n, unsigned seed);

// A free loopback port: bound, read back and released.
unsigned short free_port();
// Connects to 127.0.0.1:port, retrying until timeout_ms; 1 once it takes.
bool await_listening(unsigned short port, int timeout_ms);
// Sends request on a new loopback connection and reads until the peer
// closes or timeout_ms passes; closed tells which.
std::string exchange(unsigned short port, const std::string &request, int timeout_ms, bool *closed);
// A connection, or -1.
int connect_loopback(unsigned short port);
// Reads until the peer closes or timeout_ms passes; closed tells which.
std::string read_to_close(int fd, int timeout_ms, bool *closed);

} // namespace peer
