// Poll set benchmarks: the cost of one check over many sockets against a bare
// poll(2), and how fast a cancel from another thread wakes a waiting check,
// against the cross-thread wake-up of an event loop (uv_async_send).

#include <benchmark/benchmark.h>

#include <tarnel_util/tn_poll.h>

#include <uv.h>

#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

// ---- One check over idle sockets and one ready socket ------------------------

// socketpairs: first ends go into the set, the last pair's other end has
// written one byte, so the last socket in the set is always readable.
struct socket_pairs {
    std::vector<int> watched, peers;

    bool open(size_t count)
    {
        rlimit limit;
        if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
            limit.rlim_cur = limit.rlim_max;
            setrlimit(RLIMIT_NOFILE, &limit);
        }
        for (size_t i = 0; i < count; ++i) {
            int fds[2];
            if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds) != 0) return false;
            watched.push_back(fds[0]);
            peers.push_back(fds[1]);
        }
        return count == 0 || write(peers.back(), "x", 1) == 1;
    }

    ~socket_pairs()
    {
        for (int fd : watched) close(fd);
        for (int fd : peers) close(fd);
    }
};

void check_tn_poll(benchmark::State &state, size_t idle)
{
    socket_pairs pairs;
    if (!pairs.open(idle + 1)) {
        state.SkipWithError("not enough descriptors for the socketpairs");
        return;
    }
    tn_poll poll;
    tn_poll_create(&poll);
    for (int fd : pairs.watched) tn_poll_set(&poll, fd, TN_POLL_READ);
    for (auto _ : state) {
        tn_uint32 count = 0;
        if (!tn_poll_check(&poll, 0, &count) || count != 1) {
            state.SkipWithError("tn_poll_check did not report the one ready socket");
            break;
        }
    }
    tn_poll_free(&poll);
}

// What a host would write with poll(2): the descriptor list built once and
// reused, and a scan of the results.
void check_raw_poll(benchmark::State &state, size_t idle)
{
    socket_pairs pairs;
    if (!pairs.open(idle + 1)) {
        state.SkipWithError("not enough descriptors for the socketpairs");
        return;
    }
    std::vector<pollfd> fds;
    for (int fd : pairs.watched) fds.push_back({fd, POLLIN, 0});
    for (auto _ : state) {
        int ready = ::poll(fds.data(), fds.size(), 0);
        size_t count = 0;
        for (const pollfd &p : fds) count += p.revents != 0;
        if (ready != 1 || count != 1) {
            state.SkipWithError("poll did not report the one ready socket");
            break;
        }
    }
}

// ---- Cancel latency ------------------------------------------------------------
// Rounds are lock-step: the waiter announces each round just before it enters
// its wait, and the signaller lets it settle there for 200 microseconds before
// it takes the time and signals, so each round measures one wake-up.

constexpr int rounds = 2000;

tn_int64 now_ns()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<tn_int64>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

struct lockstep {
    std::atomic<int> armed{0}; // the round the waiter is about to wait in, from 1
    std::vector<tn_int64> sent = std::vector<tn_int64>(rounds), woke = std::vector<tn_int64>(rounds);

    void wait_armed(int round) const
    {
        // Yield while spinning: with two cores the woken thread may be queued
        // behind this one, and a bare spin would hold it off for a whole tick.
        while (armed.load(std::memory_order_acquire) != round) std::this_thread::yield();
        timespec settle{0, 200000};
        nanosleep(&settle, nullptr);
    }

    // Reports the latencies in microseconds; the iteration time is the median.
    void report(benchmark::State &state) const
    {
        std::vector<double> us(rounds);
        for (int r = 0; r < rounds; ++r) us[r] = static_cast<double>(woke[r] - sent[r]) / 1000.0;
        std::sort(us.begin(), us.end());
        state.SetIterationTime(us[rounds / 2] / 1e6);
        state.counters["median_us"] = us[rounds / 2];
        state.counters["p99_us"] = us[rounds * 99 / 100];
        state.counters["max_us"] = us.back();
    }
};

void cancel_tn_poll(benchmark::State &state, bool with_socket)
{
    socket_pairs pairs;
    if (with_socket && !pairs.open(1)) {
        state.SkipWithError("no socketpair");
        return;
    }
    // Nothing is written on an idle socket: drain the byte that open() sent.
    char byte;
    if (with_socket && read(pairs.watched[0], &byte, 1) != 1) {
        state.SkipWithError("socketpair did not carry its byte");
        return;
    }
    for (auto _ : state) {
        tn_poll poll;
        tn_poll_create(&poll);
        if (with_socket) tn_poll_set(&poll, pairs.watched[0], TN_POLL_READ);
        lockstep step;
        std::thread waiter([&] {
            for (int r = 0; r < rounds; ++r) {
                tn_uint32 count = 0;
                step.armed.store(r + 1, std::memory_order_release);
                tn_poll_check(&poll, -1, &count);
                step.woke[r] = now_ns();
            }
        });
        for (int r = 0; r < rounds; ++r) {
            step.wait_armed(r + 1);
            step.sent[r] = now_ns();
            tn_poll_cancel(&poll);
        }
        waiter.join();
        tn_poll_free(&poll);
        step.report(state);
    }
}

struct uv_waiter {
    lockstep *step;
    int round = 0;
};

void on_async(uv_async_t *async)
{
    tn_int64 t = now_ns();
    auto *w = static_cast<uv_waiter *>(async->data);
    w->step->woke[w->round++] = t;
    if (w->round == rounds)
        uv_close(reinterpret_cast<uv_handle_t *>(async), nullptr);
    else
        w->step->armed.store(w->round + 1, std::memory_order_release);
}

void cancel_libuv(benchmark::State &state)
{
    for (auto _ : state) {
        lockstep step;
        uv_loop_t loop;
        uv_async_t async;
        uv_waiter w{&step};
        if (uv_loop_init(&loop) != 0 || uv_async_init(&loop, &async, on_async) != 0) {
            state.SkipWithError("libuv loop could not start");
            return;
        }
        async.data = &w;
        std::thread runner([&] {
            step.armed.store(1, std::memory_order_release);
            uv_run(&loop, UV_RUN_DEFAULT);
        });
        for (int r = 0; r < rounds; ++r) {
            step.wait_armed(r + 1);
            step.sent[r] = now_ns();
            uv_async_send(&async);
        }
        runner.join();
        uv_loop_close(&loop);
        step.report(state);
    }
}

// ---- Registration ---------------------------------------------------------------

[[maybe_unused]] const int registered = [] {
    for (size_t idle : {1, 64, 1024}) {
        std::string base = "poll_check/" + std::to_string(idle) + "_idle+1_ready";
        benchmark::RegisterBenchmark((base + "/tn_poll_check").c_str(), check_tn_poll, idle);
        benchmark::RegisterBenchmark((base + "/raw_poll").c_str(), check_raw_poll, idle);
    }
    auto latency = [](benchmark::internal::Benchmark *b) {
        b->Iterations(1)->UseManualTime()->Unit(benchmark::kMicrosecond);
    };
    latency(benchmark::RegisterBenchmark("cancel_latency/empty_set/tn_poll_cancel", cancel_tn_poll, false));
    latency(benchmark::RegisterBenchmark("cancel_latency/one_idle_socket/tn_poll_cancel", cancel_tn_poll, true));
    latency(benchmark::RegisterBenchmark("cancel_latency/uv_async_send", cancel_libuv));
    return 0;
}();

} // namespace
