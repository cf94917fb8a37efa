// I/O benchmarks: an echo server on the library's host loop against the same
// server on libuv, a file sent over loopback three ways, and line reading
// from a socket and from a string. Rows: "<case>/<contender>".

#include <benchmark/benchmark.h>

#include <tarnel_util/tn_input_buffer.h>
#include <tarnel_util/tn_net.h>
#include <tarnel_util/tn_socket.h>

#include <uv.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

// ---- Loopback plumbing --------------------------------------------------------

int listener(uint16_t *port)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t n = sizeof a;
    if (bind(fd, reinterpret_cast<sockaddr *>(&a), n) != 0 || listen(fd, 512) != 0) return -1;
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &n);
    *port = ntohs(a.sin_port);
    return fd;
}

int connect_to(uint16_t port)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(port);
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 ? fd : -1;
}

bool read_exactly(int fd, char *to, size_t n)
{
    while (n) {
        ssize_t k = read(fd, to, n);
        if (k <= 0) return false;
        to += k;
        n -= static_cast<size_t>(k);
    }
    return true;
}

// ---- Echo servers ---------------------------------------------------------------

struct TnEcho {
    tn_net net;
    tn_socket listen_socket = -1;
    std::atomic<bool> stop{false};
    std::thread loop;

    static void on_connection(tn_net_task *task)
    {
        auto *s = static_cast<TnEcho *>(task->user);
        if (task->kind == TN_NET_TASK_REMOVE) {
            tn_socket_close(task->socket);
            return;
        }
        char bytes[4096];
        tn_uint32 got = 0;
        for (;;) {
            if (!tn_socket_recv(task->socket, bytes, sizeof bytes, &got)) {
                if (tn_socket_get_last_error() == TN_SOCKET_ERROR_WOULD_BLOCK) return;
                break;
            }
            tn_uint32 sent = 0;
            if (!got || !tn_socket_send(task->socket, bytes, got, &sent) || sent != got) break;
        }
        tn_net_remove_net_task(&s->net, task->id);
    }

    static void on_listener(tn_net_task *task)
    {
        auto *s = static_cast<TnEcho *>(task->user);
        tn_socket client;
        while (task->kind == TN_NET_TASK_READ && tn_socket_accept(s->listen_socket, &client, nullptr)) {
            tn_socket_ndelay_on(client);
            tn_net_task t;
            tn_net_task_init(&t, TN_NET_TASK_READ, 0, client, on_connection, s);
            tn_net_set_net_task(&s->net, &t, nullptr);
        }
    }

    bool start(uint16_t *port)
    {
        if (!tn_net_init(&net)) return false;
        listen_socket = listener(port);
        fcntl(listen_socket, F_SETFL, O_NONBLOCK);
        tn_net_task t;
        tn_net_task_init(&t, TN_NET_TASK_READ, 0, listen_socket, on_listener, this);
        tn_net_set_net_task(&net, &t, nullptr);
        loop = std::thread([this] {
            while (!stop.load()) tn_net_process(&net, 100);
        });
        return true;
    }

    ~TnEcho()
    {
        stop = true;
        tn_net_cancel(&net);
        if (loop.joinable()) loop.join();
        tn_net_free(&net);
    }
};

struct UvEcho {
    uv_loop_t loop;
    uv_tcp_t server;
    uv_async_t stopper;
    std::thread thread;

    struct Write {
        uv_write_t request;
        char bytes[4096];
    };

    static void on_alloc(uv_handle_t *, size_t, uv_buf_t *buf)
    {
        static thread_local char bytes[4096];
        *buf = uv_buf_init(bytes, sizeof bytes);
    }

    static void on_read(uv_stream_t *client, ssize_t n, const uv_buf_t *buf)
    {
        if (n < 0) {
            uv_close(reinterpret_cast<uv_handle_t *>(client), [](uv_handle_t *h) { std::free(h); });
            return;
        }
        if (!n) return;
        auto *w = static_cast<Write *>(std::malloc(sizeof(Write)));
        std::memcpy(w->bytes, buf->base, static_cast<size_t>(n));
        uv_buf_t out = uv_buf_init(w->bytes, static_cast<unsigned>(n));
        uv_write(&w->request, client, &out, 1, [](uv_write_t *r, int) { std::free(r); });
    }

    static void on_connection(uv_stream_t *server, int status)
    {
        if (status < 0) return;
        auto *client = static_cast<uv_tcp_t *>(std::malloc(sizeof(uv_tcp_t)));
        uv_tcp_init(server->loop, client);
        if (uv_accept(server, reinterpret_cast<uv_stream_t *>(client)) == 0) {
            uv_tcp_nodelay(client, 1);
            uv_read_start(reinterpret_cast<uv_stream_t *>(client), on_alloc, on_read);
        } else {
            uv_close(reinterpret_cast<uv_handle_t *>(client), [](uv_handle_t *h) { std::free(h); });
        }
    }

    bool start(uint16_t *port)
    {
        uv_loop_init(&loop);
        uv_tcp_init(&loop, &server);
        sockaddr_in a;
        uv_ip4_addr("127.0.0.1", 0, &a);
        if (uv_tcp_bind(&server, reinterpret_cast<sockaddr *>(&a), 0) != 0) return false;
        if (uv_listen(reinterpret_cast<uv_stream_t *>(&server), 512, on_connection) != 0) return false;
        int n = sizeof a;
        uv_tcp_getsockname(&server, reinterpret_cast<sockaddr *>(&a), &n);
        *port = ntohs(a.sin_port);
        uv_async_init(&loop, &stopper, [](uv_async_t *h) { uv_stop(h->loop); });
        thread = std::thread([this] { uv_run(&loop, UV_RUN_DEFAULT); });
        return true;
    }

    ~UvEcho()
    {
        uv_async_send(&stopper);
        if (thread.joinable()) thread.join();
        // The listener and the async are members; the clients were malloc'ed.
        uv_walk(&loop, [](uv_handle_t *h, void *self) {
            auto *echo = static_cast<UvEcho *>(self);
            if (uv_is_closing(h)) return;
            bool member = h == reinterpret_cast<uv_handle_t *>(&echo->server) || h == reinterpret_cast<uv_handle_t *>(&echo->stopper);
            uv_close_cb free_client = [](uv_handle_t *c) { std::free(c); };
            uv_close(h, member ? nullptr : free_client);
        }, this);
        uv_run(&loop, UV_RUN_DEFAULT);
        uv_loop_close(&loop);
    }
};

// Every connection sends 64 bytes, then every one reads its echo: one
// round trip per connection per iteration.
template <class Server>
void echo_round_trips(benchmark::State &state)
{
    const int connections = static_cast<int>(state.range(0));
    Server server;
    uint16_t port = 0;
    if (!server.start(&port)) {
        state.SkipWithError("server did not start");
        return;
    }
    std::vector<int> fds;
    for (int i = 0; i < connections; ++i) fds.push_back(connect_to(port));
    char message[64], echo[64];
    std::memset(message, 'e', sizeof message);
    for (auto _ : state) {
        for (int fd : fds)
            if (write(fd, message, sizeof message) != sizeof message) state.SkipWithError("write failed");
        for (int fd : fds)
            if (!read_exactly(fd, echo, sizeof echo)) state.SkipWithError("read failed");
    }
    for (int fd : fds) close(fd);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * connections);
}

BENCHMARK(echo_round_trips<TnEcho>)->Name("echo_round_trips/tn")->Arg(1)->Arg(100)->UseRealTime();
BENCHMARK(echo_round_trips<UvEcho>)->Name("echo_round_trips/libuv")->Arg(1)->Arg(100)->UseRealTime();

// ---- Sending a file ---------------------------------------------------------------

constexpr size_t file_size = size_t{100} << 20;

int big_file()
{
    static int fd = [] {
        char name[] = "/tmp/tn_bench_file_XXXXXX";
        int f = mkostemp(name, O_CLOEXEC);
        unlink(name);
        std::vector<char> block(1 << 20);
        for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i * 7);
        for (size_t done = 0; done < file_size; done += block.size())
            if (write(f, block.data(), block.size()) != static_cast<ssize_t>(block.size())) return -1;
        // Written back before any timing, so the first contender does not
        // share the disk with the page cache's writeback.
        fdatasync(f);
        return f;
    }();
    return fd;
}

void wait_writable(int fd)
{
    pollfd p{fd, POLLOUT, 0};
    poll(&p, 1, 1000);
}

enum class Send { tn, read_send, sendfile };

void send_file(benchmark::State &state, Send how)
{
    const int file = big_file();
    uint16_t port = 0;
    int l = listener(&port);
    int receiver = connect_to(port);
    int sender = accept4(l, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    close(l);
    if (file < 0 || receiver < 0 || sender < 0) {
        state.SkipWithError("setup failed");
        return;
    }
    std::vector<char> chunk(1 << 16);
    for (auto _ : state) {
        std::thread drain([&] {
            std::vector<char> sink(1 << 18);
            size_t got = 0;
            while (got < file_size) {
                ssize_t k = read(receiver, sink.data(), sink.size());
                if (k <= 0) break;
                got += static_cast<size_t>(k);
            }
        });
        size_t sent = 0;
        if (how == Send::tn) {
            tn_uint64 count = 0;
            lseek(file, 0, SEEK_SET);
            while (sent < file_size) {
                if (!tn_socket_send_file(sender, file, sent, file_size - sent, &count)) break;
                sent += count;
                if (sent < file_size) wait_writable(sender);
            }
        } else if (how == Send::sendfile) {
            off_t offset = 0;
            while (sent < file_size) {
                ssize_t k = sendfile(sender, file, &offset, file_size - sent);
                if (k > 0) sent += static_cast<size_t>(k);
                else if (errno == EAGAIN) wait_writable(sender);
                else break;
            }
        } else {
            while (sent < file_size) {
                ssize_t r = pread(file, chunk.data(), chunk.size(), static_cast<off_t>(sent));
                if (r <= 0) break;
                for (ssize_t off = 0; off < r;) {
                    ssize_t k = send(sender, chunk.data() + off, static_cast<size_t>(r - off), MSG_NOSIGNAL);
                    if (k > 0) off += k;
                    else if (errno == EAGAIN) wait_writable(sender);
                    else goto failed;
                }
                sent += static_cast<size_t>(r);
            }
        }
    failed:
        drain.join();
        if (sent != file_size) state.SkipWithError("transfer failed");
    }
    close(sender);
    close(receiver);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * file_size));
}

BENCHMARK_CAPTURE(send_file, tn, Send::tn)->Name("send_file_100MB/tn")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(send_file, read_send, Send::read_send)->Name("send_file_100MB/read_send")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(send_file, sendfile, Send::sendfile)->Name("send_file_100MB/sendfile")->UseRealTime()->Unit(benchmark::kMillisecond);

// ---- Reading lines ----------------------------------------------------------------

const std::string &line_text()
{
    static const std::string t = [] {
        std::string s;
        for (int i = 0; s.size() < (1 << 20); ++i)
            s += "GET /media/track" + std::to_string(i) + ".mp3 HTTP/1.1 with a header or two\r\n";
        return s;
    }();
    return t;
}

size_t line_count()
{
    static const size_t n = [] {
        size_t k = 0;
        for (char c : line_text()) k += c == '\n';
        return k;
    }();
    return n;
}

void read_line_string(benchmark::State &state)
{
    const std::string &t = line_text();
    tn_uchar line[256];
    for (auto _ : state) {
        tn_input_buffer b;
        tn_str_input_buffer_init2(&b, t.data(), static_cast<tn_uint32>(t.size()));
        size_t n = 0;
        while (tn_input_buffer_read_line(&b, line, sizeof line)) ++n;
        if (n != line_count()) state.SkipWithError("wrong line count");
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * line_count()));
}

void read_line_fgets(benchmark::State &state)
{
    std::string t = line_text();
    char line[256];
    for (auto _ : state) {
        FILE *f = fmemopen(t.data(), t.size(), "r");
        size_t n = 0;
        while (std::fgets(line, sizeof line, f)) ++n;
        std::fclose(f);
        if (n != line_count()) state.SkipWithError("wrong line count");
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * line_count()));
}

void read_line_socket(benchmark::State &state)
{
    const std::string &t = line_text();
    uint16_t port = 0;
    int l = listener(&port);
    int writer = connect_to(port);
    int reader = accept4(l, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    close(l);
    tn_poll poll;
    tn_poll_create(&poll);
    std::vector<tn_uchar> storage(8192);
    tn_uchar line[256];
    for (auto _ : state) {
        std::thread feed([&] { (void)!write(writer, t.data(), t.size()); });
        tn_socket_input_buffer in;
        tn_socket_input_buffer_init(&in, storage.data(), static_cast<tn_uint32>(storage.size()), reader, &poll, 5000);
        size_t n = 0;
        while (n < line_count() && tn_input_buffer_read_line(&in.buffer, line, sizeof line)) ++n;
        feed.join();
        if (n != line_count()) state.SkipWithError("wrong line count");
    }
    tn_poll_free(&poll);
    close(writer);
    close(reader);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * line_count()));
}

BENCHMARK(read_line_string)->Name("read_line_string/tn");
BENCHMARK(read_line_fgets)->Name("read_line_string/fgets_fmemopen");
BENCHMARK(read_line_socket)->Name("read_line_socket/tn")->UseRealTime();

} // namespace
