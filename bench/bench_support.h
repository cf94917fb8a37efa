// Shared by the benchmark programs: socket pairs with one ready socket, and
// lock-step latency rounds, measured the same way for the library and for
// libuv's uv_async_send.
#ifndef TN_BENCH_BENCH_SUPPORT_H
#define TN_BENCH_BENCH_SUPPORT_H

#include <benchmark/benchmark.h>

#include <tarnel_util/tn_types.h>

#include <uv.h>

#include <tarnel_util/tn_poll.h>

#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

namespace tn_bench {

// The first ends are watched; the last pair's other end has written one byte
// that nobody reads, so the last watched socket is always ready.
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

// One tn_poll_check over the idle sockets and the ready one.
inline void check_tn_poll(benchmark::State &state, size_t idle)
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
inline void check_raw_poll(benchmark::State &state, size_t idle)
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


// Rounds are lock-step: the waiting side announces each round just before it
// enters its wait, and the signaller lets it settle there for 200
// microseconds before it takes the time and signals, so each round measures
// one wake-up.
inline constexpr int rounds = 2000;

inline tn_int64 now_ns()
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

// The same rounds through a libuv loop and uv_async_send: what a host would
// use instead of a cancelled wait or a queued request.
struct uv_waiter {
    lockstep *step;
    int round = 0;
};

inline void on_async(uv_async_t *async)
{
    tn_int64 t = now_ns();
    auto *w = static_cast<uv_waiter *>(async->data);
    w->step->woke[w->round++] = t;
    if (w->round == rounds)
        uv_close(reinterpret_cast<uv_handle_t *>(async), nullptr);
    else
        w->step->armed.store(w->round + 1, std::memory_order_release);
}

inline void uv_async_latency(benchmark::State &state)
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

} // namespace tn_bench

#endif
