// Event core benchmarks: one dispatcher cycle over many idle sockets against
// the poll(2) beneath it, how fast a request from another thread reaches its
// callback on the loop thread (against uv_async_send), the scheduler's pass
// over idle and due tasks, and the wake-up of tn_sync against a pthread
// condition variable.

#include <benchmark/benchmark.h>

#include "bench_support.h"

#include <tarnel_util/tn_net.h>
#include <tarnel_util/tn_scheduler.h>
#include <tarnel_util/tn_sync.h>
#include <tarnel_util/tn_time.h>

#include <uv.h>

#include <poll.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace tn_bench;

// ---- Helpers ----------------------------------------------------------------------




// ---- One dispatcher cycle: idle read tasks and one ready task ---------------------

void count_call(tn_net_task *task) { ++*static_cast<long *>(task->user); }

void cycle_tn_net(benchmark::State &state, size_t idle)
{
    socket_pairs pairs;
    if (!pairs.open(idle + 1)) {
        state.SkipWithError("not enough descriptors for the socketpairs");
        return;
    }
    tn_net net;
    if (!tn_net_init(&net)) {
        state.SkipWithError("tn_net_init failed");
        return;
    }
    long calls = 0;
    for (int fd : pairs.watched) {
        tn_net_task task;
        tn_net_task_init(&task, TN_NET_TASK_READ, 0, fd, count_call, &calls);
        tn_net_set_net_task(&net, &task, nullptr);
    }
    // The first cycle applies the requests and spends the cancel they left.
    tn_net_process(&net, 0);
    calls = 0;
    for (auto _ : state) {
        if (!tn_net_process(&net, 0)) {
            state.SkipWithError("tn_net_process failed");
            break;
        }
    }
    if (calls != static_cast<long>(state.iterations())) state.SkipWithError("the ready task was not called once a cycle");
    tn_net_free(&net);
}



// ---- Request latency: another thread's request to the callback --------------------
// A new task of the cancel kind is called in the very next cycle, before that
// cycle's wait. Its callback takes the time and asks for its removal; the
// remove call of the cycle after marks the loop as about to wait again.

struct net_latency {
    tn_net net;
    lockstep step;
    int round = 0;
};

void on_request(tn_net_task *task)
{
    auto *ctx = static_cast<net_latency *>(task->user);
    if (task->kind == TN_NET_TASK_CANCEL) {
        ctx->step.woke[ctx->round] = now_ns();
        tn_net_remove_net_task(&ctx->net, task->id);
    } else if (task->kind == TN_NET_TASK_REMOVE) {
        ++ctx->round;
        ctx->step.armed.store(ctx->round + 1, std::memory_order_release);
    }
}

void request_tn_net(benchmark::State &state)
{
    socket_pairs pairs;
    if (!pairs.open(1)) {
        state.SkipWithError("no socketpair");
        return;
    }
    for (auto _ : state) {
        auto ctx = std::make_unique<net_latency>();
        if (!tn_net_init(&ctx->net)) {
            state.SkipWithError("tn_net_init failed");
            return;
        }
        std::atomic<bool> stop{false};
        std::thread loop([&] {
            ctx->step.armed.store(1, std::memory_order_release);
            while (!stop.load(std::memory_order_acquire)) tn_net_process(&ctx->net, -1);
        });
        for (int r = 0; r < rounds; ++r) {
            ctx->step.wait_armed(r + 1);
            tn_net_task task;
            tn_net_task_init(&task, TN_NET_TASK_CANCEL, 0, pairs.watched[0], on_request, ctx.get());
            ctx->step.sent[r] = now_ns();
            tn_net_set_net_task(&ctx->net, &task, nullptr);
        }
        ctx->step.wait_armed(rounds + 1);
        stop.store(true, std::memory_order_release);
        tn_net_cancel(&ctx->net);
        loop.join();
        tn_net_free(&ctx->net);
        ctx->step.report(state);
    }
}


// ---- Scheduler pass -----------------------------------------------------------------

// Leaves the time alone: a task of time 0 stays at 0 and fires every pass.
void count_fire(tn_time, tn_time *, void *user) { ++*static_cast<long *>(user); }

void pass_scheduler(benchmark::State &state, size_t tasks, bool due)
{
    tn_scheduler scheduler;
    if (!tn_scheduler_init(&scheduler)) {
        state.SkipWithError("tn_scheduler_init failed");
        return;
    }
    tn_time now;
    tn_time_sec(&now);
    long fired = 0;
    for (size_t i = 0; i < tasks; ++i) {
        tn_scheduled_task task;
        tn_scheduled_task_init(&task, count_fire, &fired, nullptr);
        tn_scheduled_task_set_time(&task, due ? 0 : now + 10 * 365 * 24 * 3600);
        tn_scheduler_set_scheduled_task(&scheduler, &task, nullptr);
    }
    // The first pass takes the tasks in; the steady state starts after it.
    tn_scheduler_process(&scheduler);
    fired = 0;
    for (auto _ : state) {
        if (!tn_scheduler_process(&scheduler)) {
            state.SkipWithError("tn_scheduler_process failed");
            break;
        }
    }
    long expected = due ? static_cast<long>(tasks * state.iterations()) : 0;
    if (fired != expected) state.SkipWithError("tasks fired a wrong number of times");
    state.SetItemsProcessed(static_cast<int64_t>(tasks * state.iterations()));
    tn_scheduler_free(&scheduler);
}

// ---- Condition wake-up: notify to the waiter's return ----------------------------------
// The notifier sets the round under the waiter's mutex and releases it before
// taking the time, so the waiter is surely waiting and the time covers the
// notify and the wake-up alone.

template <class Sync>
void sync_latency(benchmark::State &state)
{
    for (auto _ : state) {
        Sync sync;
        if (!sync.ok()) {
            state.SkipWithError("the condition could not be made");
            return;
        }
        lockstep step;
        int go = 0; // guarded by the mutex
        std::thread waiter([&] {
            sync.lock();
            for (int r = 0; r < rounds; ++r) {
                step.armed.store(r + 1, std::memory_order_release);
                while (go <= r) sync.wait();
                step.woke[r] = now_ns();
            }
            sync.unlock();
        });
        for (int r = 0; r < rounds; ++r) {
            step.wait_armed(r + 1);
            sync.lock();
            go = r + 1;
            sync.unlock();
            step.sent[r] = now_ns();
            sync.notify();
        }
        waiter.join();
        step.report(state);
    }
}

struct tn_side {
    tn_mutex mutex{};
    tn_sync sync{};
    bool made = tn_mutex_create(&mutex) && tn_sync_create(&sync);
    ~tn_side()
    {
        tn_sync_free(&sync);
        tn_mutex_free(&mutex);
    }
    bool ok() const { return made; }
    void lock() { tn_mutex_lock(&mutex); }
    void unlock() { tn_mutex_unlock(&mutex); }
    void wait() { tn_sync_wait(&sync, &mutex); }
    void notify() { tn_sync_notify(&sync); }
};

struct pthread_side {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    bool ok() const { return true; }
    void lock() { pthread_mutex_lock(&mutex); }
    void unlock() { pthread_mutex_unlock(&mutex); }
    void wait() { pthread_cond_wait(&cond, &mutex); }
    void notify() { pthread_cond_signal(&cond); }
};

// ---- Registration ---------------------------------------------------------------------

[[maybe_unused]] const int registered = [] {
    for (size_t idle : {10, 100, 1000}) {
        std::string base = "net_cycle/" + std::to_string(idle) + "_idle+1_ready";
        benchmark::RegisterBenchmark((base + "/tn_net_process").c_str(), cycle_tn_net, idle);
        benchmark::RegisterBenchmark((base + "/tn_poll_check").c_str(), check_tn_poll, idle);
        benchmark::RegisterBenchmark((base + "/raw_poll").c_str(), check_raw_poll, idle);
    }
    auto latency = [](benchmark::internal::Benchmark *b) {
        b->Iterations(1)->UseManualTime()->Unit(benchmark::kMicrosecond);
    };
    latency(benchmark::RegisterBenchmark("net_request_latency/tn_net_set_net_task", request_tn_net));
    latency(benchmark::RegisterBenchmark("net_request_latency/uv_async_send", uv_async_latency));
    for (size_t tasks : {100, 1000, 10000}) {
        std::string base = "scheduler_pass/" + std::to_string(tasks);
        benchmark::RegisterBenchmark((base + "_not_due").c_str(), pass_scheduler, tasks, false)
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark((base + "_due").c_str(), pass_scheduler, tasks, true)
            ->Unit(benchmark::kMicrosecond);
    }
    latency(benchmark::RegisterBenchmark("sync_latency/tn_sync_notify", sync_latency<tn_side>));
    latency(benchmark::RegisterBenchmark("sync_latency/pthread_cond_signal", sync_latency<pthread_side>));
    return 0;
}();

} // namespace
