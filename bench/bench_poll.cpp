// Poll set benchmarks: the cost of one check over many sockets against a bare
// poll(2), and how fast a cancel from another thread wakes a waiting check,
// against the cross-thread wake-up of an event loop (uv_async_send).

#include <benchmark/benchmark.h>

#include "bench_support.h"

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

using namespace tn_bench;

// ---- One check over idle sockets and one ready socket ------------------------




// ---- Cancel latency ------------------------------------------------------------

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
    latency(benchmark::RegisterBenchmark("cancel_latency/uv_async_send", uv_async_latency));
    return 0;
}();

} // namespace
