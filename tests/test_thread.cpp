#include <tarnel_util/tn_mutex.h>
#include <tarnel_util/tn_semaphore.h>
#include <tarnel_util/tn_signal.h>
#include <tarnel_util/tn_thread.h>

#include "tn_test_alloc.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <utility>
#include <csignal>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;

// ThreadSanitizer reports an unlock of a mutex the thread does not hold even
// when it fails as it should; the other builds check those.
#if defined(__SANITIZE_THREAD__)
constexpr bool kCheckForeignUnlock = false;
#else
constexpr bool kCheckForeignUnlock = true;
#endif

long long ms_since(steady::time_point t0)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(steady::now() - t0).count();
}

// The niceness of each level, as the public header gives it.
constexpr int niceness_of_level[8] = {0, -20, -10, -5, 0, 5, 10, 19};

int niceness_of(tn_int32 tid) { return getpriority(PRIO_PROCESS, static_cast<id_t>(tid)); }
int own_niceness() { return niceness_of(static_cast<tn_int32>(gettid())); }

// Lowering a niceness needs CAP_SYS_NICE or an RLIMIT_NICE that reaches it.
// Root in a container may lack the capability, so the uid does not tell.
bool may_set_niceness(int target, int current)
{
    if (target >= current) return true;
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("CapEff:", 0) == 0 && (std::stoull(line.substr(7), nullptr, 16) >> 23 & 1)) return true;
    rlimit limit{};
    return getrlimit(RLIMIT_NICE, &limit) == 0 &&
           (limit.rlim_cur == RLIM_INFINITY || 20 - static_cast<long>(limit.rlim_cur) <= target);
}

// A thread kept alive until the record goes, whose priority is set from outside.
struct Parked {
    tn_thread thread{};
    std::atomic<bool> release{false};
    static void body(void *self)
    {
        while (!static_cast<Parked *>(self)->release) std::this_thread::sleep_for(1ms);
    }
    Parked() { EXPECT_EQ(tn_thread_create(&thread, 0, body, this), 1); }
    ~Parked()
    {
        release = true;
        EXPECT_EQ(tn_thread_join(&thread), 1);
    }
    int nice() const { return niceness_of(thread.tid); }
};

template <class F> void call(void *f) { (*static_cast<F *>(f))(); }

template <class F> bool run_joined(F &body, tn_uint32 stack_size = 0)
{
    tn_thread t;
    return tn_thread_create(&t, stack_size, call<F>, &body) && tn_thread_join(&t);
}

// In a frame of its own, so that a 16 KiB stack need not hold it.
[[gnu::noinline]] void use_half_of_64k()
{
    volatile char use[32 * 1024];
    for (size_t i = 0; i < sizeof use; i += 256) use[i] = 1;
}

using Thread = tn_test::AllocTest;
using Mutex = tn_test::AllocTest;
using Semaphore = tn_test::AllocTest;

} // namespace

TEST_F(Thread, CreateRunsTheFunctionOnAnotherThreadAndJoinWaitsForIt)
{
    struct Seen {
        pthread_t self;
        void *argument;
        std::atomic<bool> done{false};
    } seen{};
    auto body = [](void *argument) {
        auto *s = static_cast<Seen *>(argument);
        s->self = pthread_self();
        s->argument = argument;
        std::this_thread::sleep_for(50ms); // join must wait for this
        s->done = true;
    };
    std::int64_t before = tn_test::outstanding();
    tn_thread t;
    ASSERT_EQ(tn_thread_create(&t, 0, body, &seen), 1);
    EXPECT_NE(t.handle, 0u);
    EXPECT_EQ(tn_thread_join(&t), 1);
    EXPECT_TRUE(seen.done);
    EXPECT_EQ(seen.argument, &seen);
    EXPECT_FALSE(pthread_equal(seen.self, pthread_self()));
    EXPECT_EQ(tn_test::outstanding(), before) << "the start record outlived the thread";
    tn_test::sweep_alloc_failures([] { // the start record is the one allocation
        tn_thread u;
        u.handle = 77;
        auto nothing = [] {};
        if (tn_thread_create(&u, 0, call<decltype(nothing)>, &nothing)) return tn_thread_join(&u) == 1;
        return u.handle != 0; // a failure leaves no handle
    });

    t.handle = 77;
    EXPECT_EQ(tn_thread_init(&t), 1);
    EXPECT_EQ(t.handle, 0u);
    EXPECT_EQ(tn_thread_join(&t), 0);
    tn_thread_detach(&t);
    tn_uint32 level = 99;
    EXPECT_EQ(tn_thread_get_priority(&t, &level), 0);
    EXPECT_EQ(tn_thread_set_priority(&t, 4), 0);
    EXPECT_EQ(tn_thread_set_priority_numrical(&t, 0), 0);
}

TEST_F(Thread, StackSizeIsHonoured)
{
    for (tn_uint32 request : {1u, 64u * 1024, 100000u, 512u * 1024}) {
        size_t reported = 0;
        auto body = [&] {
            if (request >= 64 * 1024) use_half_of_64k();
            pthread_attr_t attr;
            if (pthread_getattr_np(pthread_self(), &attr) == 0) {
                pthread_attr_getstacksize(&attr, &reported);
                pthread_attr_destroy(&attr);
            }
        };
        ASSERT_TRUE(run_joined(body, request)) << request;
        EXPECT_GE(reported, request);
        EXPECT_LT(reported, 2u << 20) << request << ": the default stack was taken";
    }
}

TEST_F(Thread, PriorityLevelsAndNumbersFollowTheTable)
{
    struct Row {
        tn_int32 number;
        tn_uint32 level;
    };
    const Row rows[] = {{10, 1}, {8, 1},  {7, 2},  {5, 2},  {4, 3},  {2, 3},  {1, 4},       {-1, 4},      {11, 4},
                        {-11, 4}, {-2, 5}, {-4, 5}, {-5, 6}, {-7, 6}, {-8, 7}, {-10, 7}, {INT_MAX, 4}, {INT_MIN, 4}};
    const int main_nice = own_niceness();
    for (const Row &row : rows) {
        for (bool by_number : {false, true}) {
            SCOPED_TRACE(::testing::Message() << (by_number ? "number " : "level ")
                                              << (by_number ? row.number : tn_int32(row.level)));
            Parked p;
            const int target = niceness_of_level[row.level];
            if (target <= p.nice()) { // start elsewhere, so that a change shows
                ASSERT_EQ(setpriority(PRIO_PROCESS, static_cast<id_t>(p.thread.tid), 19), 0);
            }
            const int before = p.nice();
            tn_bool ok = by_number ? tn_thread_set_priority_numrical(&p.thread, row.number)
                                   : tn_thread_set_priority(&p.thread, row.level);
            tn_uint32 level = 99;
            ASSERT_EQ(tn_thread_get_priority(&p.thread, &level), 1);
            if (may_set_niceness(target, before)) {
                EXPECT_EQ(ok, 1);
                EXPECT_EQ(p.nice(), target);
                EXPECT_EQ(level, row.level);
            } else {
                EXPECT_EQ(ok, 0) << "raised without the privilege";
                EXPECT_EQ(p.nice(), before);
            }
        }
    }
    EXPECT_EQ(own_niceness(), main_nice) << "the caller's priority changed";
}

TEST_F(Thread, InvalidLevelsAndForeignNicenessChangeNothing)
{
    Parked p;
    ASSERT_EQ(tn_thread_set_priority(&p.thread, 6), 1); // lowering needs no privilege
    for (tn_uint32 level : {0u, 8u, 0xFFFFFFFFu}) {
        EXPECT_EQ(tn_thread_set_priority(&p.thread, level), 0) << level;
        EXPECT_EQ(p.nice(), 10) << level;
    }
    for (int foreign : {11, 15, 18}) { // only ever lowered, so unprivileged too
        ASSERT_EQ(setpriority(PRIO_PROCESS, static_cast<id_t>(p.thread.tid), foreign), 0);
        tn_uint32 level = 99;
        EXPECT_EQ(tn_thread_get_priority(&p.thread, &level), 1) << foreign;
        EXPECT_EQ(level, 0u) << foreign;
    }
}

TEST_F(Thread, SelfStandsForTheCallingThread)
{
    ASSERT_EQ(own_niceness(), 0) << "the suite runs at a changed niceness";
    int stage = 0;
    auto body = [&] {
        tn_thread self = tn_thread_self();
        tn_uint32 level = 99;
        if (tn_thread_get_priority(&self, &level) != 1 || level != 4) return;
        stage = 1;
        if (tn_thread_set_priority(&self, 6) != 1 || own_niceness() != 10) return;
        stage = 2;
        if (tn_thread_get_priority(&self, &level) == 1 && level == 6) stage = 3;
    };
    ASSERT_TRUE(run_joined(body));
    EXPECT_EQ(stage, 3) << "0: get of a normal thread, 1: set 6, 2: get after set";
    EXPECT_EQ(own_niceness(), 0);
}

TEST_F(Mutex, RecursiveLocksCountAndOnlyTheOwnerUnlocks)
{
    tn_test::sweep_alloc_failures([] {
        tn_mutex m;
        m.handle = &m;
        if (!tn_mutex_create(&m)) return m.handle != nullptr; // a failure must leave no handle
        tn_mutex_free(&m);
        return true;
    });
    tn_mutex m;
    ASSERT_EQ(tn_mutex_create(&m), 1);
    auto other = [&](auto op) {
        tn_bool r = 0;
        std::thread([&] { r = op(); }).join();
        return r;
    };
    auto trylock_and_release = [&] { return tn_mutex_trylock(&m) && tn_mutex_unlock(&m); };
    EXPECT_EQ(tn_mutex_lock(&m), 1);
    EXPECT_EQ(tn_mutex_lock(&m), 1);
    EXPECT_EQ(tn_mutex_trylock(&m), 1);
    EXPECT_FALSE(kCheckForeignUnlock && other([&] { return tn_mutex_unlock(&m); })) << "a non-owner unlocked";
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(tn_mutex_unlock(&m), 1);
        EXPECT_EQ(other(trylock_and_release), tn_bool(i == 3)) << "after " << i << " of 3 unlocks";
    }
    EXPECT_FALSE(kCheckForeignUnlock && tn_mutex_unlock(&m)) << "unlocked once more than locked";
    tn_mutex_free(&m);
    EXPECT_EQ(m.handle, nullptr);
    tn_mutex_free(&m);
    tn_mutex_free(nullptr);
}

TEST_F(Mutex, OwnerEndingWhileHoldingHandsItOverUsable)
{
    for (bool by_trylock : {true, false}) {
        SCOPED_TRACE(by_trylock ? "trylock" : "lock");
        tn_mutex m;
        ASSERT_EQ(tn_mutex_create(&m), 1);
        std::thread([&] {
            tn_mutex_lock(&m);
            tn_mutex_lock(&m); // held twice when the thread ends
        }).join();
        EXPECT_EQ(by_trylock ? tn_mutex_trylock(&m) : tn_mutex_lock(&m), 0) << "the owner's end went unnoticed";
        tn_bool other_took = 1;
        std::thread([&] { other_took = tn_mutex_trylock(&m); }).join();
        EXPECT_EQ(other_took, 0) << "the failed locker does not own it";
        ASSERT_EQ(tn_mutex_unlock(&m), 1) << "not handed over"; // a lock would hang
        EXPECT_FALSE(kCheckForeignUnlock && tn_mutex_unlock(&m)) << "the dead owner's count was inherited";
        EXPECT_EQ(tn_mutex_lock(&m), 1);
        EXPECT_EQ(tn_mutex_unlock(&m), 1);
        std::thread([&] { other_took = tn_mutex_lock(&m) && tn_mutex_unlock(&m); }).join();
        EXPECT_EQ(other_took, 1);
        tn_mutex_free(&m);
    }
}

TEST_F(Semaphore, CreateValidatesAndCountsStayWithinTheMaximum)
{
    for (auto [initial, maximum] : {std::pair{0u, 0u}, {1u, 0u}, {3u, 2u}, {0u, 1u}, {1u, 1u}, {2u, 5u}, {~0u, ~0u}}) {
        SCOPED_TRACE(::testing::Message() << "initial " << initial << " maximum " << maximum);
        tn_semaphore s;
        const tn_bool valid = maximum && initial <= maximum;
        ASSERT_EQ(tn_semaphore_create(&s, initial, maximum), valid);
        if (!valid) {
            EXPECT_EQ(s.handle, nullptr);
            EXPECT_EQ(tn_semaphore_trywait(&s) || tn_semaphore_post(&s), 0);
            continue;
        }
        tn_uint32 taken = 0, posted = 0;
        while (maximum < 100 && taken <= maximum && tn_semaphore_trywait(&s)) ++taken;
        while (posted <= 100 && tn_semaphore_post(&s)) ++posted; // stops at the maximum
        EXPECT_EQ(taken, maximum < 100 ? initial : 0u);
        EXPECT_EQ(posted, maximum < 100 ? maximum : 0u);
        EXPECT_EQ(tn_semaphore_trywait(&s), 1);
        tn_semaphore_free(&s);
    }
    tn_semaphore_free(nullptr);
    tn_test::sweep_alloc_failures([] {
        tn_semaphore s;
        if (!tn_semaphore_create(&s, 0, 1)) return false;
        tn_semaphore_free(&s);
        return true;
    });
}

TEST_F(Semaphore, WaitsTimeOutOrTakeALatePost)
{
    tn_semaphore s;
    ASSERT_EQ(tn_semaphore_create(&s, 0, 4), 1);
    auto t0 = steady::now();
    EXPECT_EQ(tn_semaphore_wait(&s, 80), 0);
    EXPECT_GE(ms_since(t0), 79);
    EXPECT_LT(ms_since(t0), 3000);
    for (tn_uint32 timeout : {0u, 5000u}) { // 0: no limit
        SCOPED_TRACE(timeout);
        std::atomic<int> got{-1};
        std::thread waiter([&] { got = tn_semaphore_wait(&s, timeout); });
        std::this_thread::sleep_for(150ms);
        EXPECT_EQ(got.load(), -1) << "returned without a count";
        t0 = steady::now();
        EXPECT_EQ(tn_semaphore_post(&s), 1);
        waiter.join();
        EXPECT_EQ(got.load(), 1);
        EXPECT_LT(ms_since(t0), 2000);
    }
    tn_semaphore_free(&s);
}

TEST_F(Semaphore, ProducersAndConsumersConserveCounts)
{
    tn_semaphore s;
    ASSERT_EQ(tn_semaphore_create(&s, 0, 16), 1);
    constexpr int kThreads = 3, kEach = 3000;
    std::atomic<int> taken{0}, failed_waits{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kEach; ++i)
                while (!tn_semaphore_post(&s)) std::this_thread::yield(); // full: let a consumer in
        });
        threads.emplace_back([&] {
            for (int i = 0; i < kEach; ++i) (tn_semaphore_wait(&s, 10000) ? taken : failed_waits)++;
        });
    }
    for (auto &t : threads) t.join();
    EXPECT_EQ(taken.load(), kThreads * kEach);
    EXPECT_EQ(failed_waits.load(), 0);
    EXPECT_EQ(tn_semaphore_trywait(&s), 0) << "a count appeared from nowhere";
    tn_semaphore_free(&s);
}

namespace {
std::atomic<int> caught{0}, caught_signal{0};
void on_signal(int signal)
{
    caught_signal = signal;
    ++caught;
}
void (*disposition(int signal))(int)
{
    struct sigaction old {};
    sigaction(signal, nullptr, &old);
    return old.sa_handler;
}
} // namespace

TEST(Signal, IdsAreTheSystemsNumbersAndDispositionsFollowTheCalls)
{
    EXPECT_EQ(tn_signal_id_int(), SIGINT);
    EXPECT_EQ(tn_signal_id_term(), SIGTERM);
    EXPECT_EQ(tn_signal_id_alarm(), SIGALRM);
    EXPECT_EQ(tn_signal_id_child(), SIGCHLD);
    EXPECT_EQ(tn_signal_id_cont(), SIGCONT);
    EXPECT_EQ(tn_signal_id_hangup(), SIGHUP);
    EXPECT_EQ(tn_signal_id_pipe(), SIGPIPE);

    const int cont = tn_signal_id_cont(); // harmless by default
    caught = 0;
    tn_signal_catch(cont, on_signal);
    EXPECT_EQ(disposition(cont), on_signal);
    EXPECT_EQ(tn_signal_raise(cont), 1);
    EXPECT_EQ(caught.load(), 1);
    EXPECT_EQ(caught_signal.load(), cont);
    tn_signal_ignore(cont);
    EXPECT_EQ(disposition(cont), SIG_IGN);
    EXPECT_EQ(tn_signal_raise(cont), 1);
    tn_signal_uncatch(cont);
    EXPECT_EQ(disposition(cont), SIG_DFL);
    EXPECT_EQ(tn_signal_raise(cont), 1);
    tn_signal_catch(-1, on_signal);
    tn_signal_ignore(-1);
    tn_signal_uncatch(-1);
    EXPECT_EQ(tn_signal_raise(-1), 0);
    EXPECT_EQ(tn_signal_raise(100000), 0);
    EXPECT_EQ(caught.load(), 1);
}
