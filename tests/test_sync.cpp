#include <tarnel_util/tn_sync.h>

#include "tn_test_alloc.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;

long long ms_since(steady::time_point t0)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(steady::now() - t0).count();
}

// True if the caller held m exactly once; releases it. ThreadSanitizer
// reports the second, failing unlock, so that build checks only the first.
bool release_held_once(tn_mutex *m)
{
#if defined(__SANITIZE_THREAD__)
    return tn_mutex_unlock(m);
#else
    return tn_mutex_unlock(m) && !tn_mutex_unlock(m);
#endif
}

template <class Pred> bool eventually(Pred pred)
{
    for (auto t0 = steady::now(); !pred(); std::this_thread::sleep_for(1ms))
        if (ms_since(t0) > 5000) return false;
    return true;
}

// How one wait ended; result stays -1 until the waiter returns.
struct Outcome {
    std::atomic<int> result{-1};
    std::atomic<long long> ms{0};
    std::atomic<bool> held_once{false};
};

class Sync : public tn_test::AllocTest {
protected:
    void SetUp() override
    {
        AllocTest::SetUp();
        ASSERT_EQ(tn_sync_create(&sync_), 1);
        ASSERT_EQ(tn_mutex_create(&m_), 1);
    }
    void TearDown() override
    {
        for (; active_ > 0; std::this_thread::sleep_for(1ms)) tn_sync_notify_all(&sync_); // after a failure
        for (auto &t : threads_) t.join();
        EXPECT_EQ(tn_sync_free(&sync_), 1);
        tn_mutex_free(&m_);
        AllocTest::TearDown();
    }

    // The list's length, read under its guard as a notifier reads it.
    tn_uint32 listed()
    {
        tn_mutex_lock(&sync_.guard);
        tn_uint32 n = tn_array_length(&sync_.waiters);
        tn_mutex_unlock(&sync_.guard);
        return n;
    }

    // A thread that waits with the mutex (negative: without limit) and runs
    // `after` while it holds the mutex again.
    void start_waiter(Outcome *out, long long timeout_ms, void (*after)() = nullptr)
    {
        ++active_;
        threads_.emplace_back([this, out, timeout_ms, after] {
            tn_mutex_lock(&m_);
            auto t0 = steady::now();
            tn_bool r = timeout_ms < 0 ? tn_sync_wait(&sync_, &m_)
                                       : tn_sync_timedwait(&sync_, &m_, static_cast<tn_uint32>(timeout_ms));
            out->ms = ms_since(t0);
            if (after) after();
            out->held_once = release_held_once(&m_);
            out->result = r;
            --active_;
        });
    }

    tn_sync sync_{};
    tn_mutex m_{};
    std::vector<std::thread> threads_;
    std::atomic<int> active_{0};
};

} // namespace

TEST_F(Sync, TimedWaitWithoutNotifierTimesOutHoldingTheMutex)
{
    // The notifies find no waiter and must not be remembered for the next.
    EXPECT_EQ(tn_sync_notify(&sync_), 1);
    EXPECT_EQ(tn_sync_notify_all(&sync_), 1);
    for (tn_uint32 timeout : {0u, 1u, 100u}) {
        SCOPED_TRACE(timeout);
        ASSERT_EQ(tn_mutex_lock(&m_), 1);
        auto t0 = steady::now();
        EXPECT_EQ(tn_sync_timedwait(&sync_, &m_, timeout), 0);
        EXPECT_GE(ms_since(t0), timeout == 0 ? 0 : timeout - 1);
        EXPECT_LT(ms_since(t0), timeout + 2000);
        EXPECT_EQ(listed(), 0u);
        EXPECT_TRUE(release_held_once(&m_));
    }
}

TEST_F(Sync, NotifyReleasesTheFirstAndRestartsTheOthersTimeout)
{
    Outcome first, second;
    start_waiter(&first, 10000);
    ASSERT_TRUE(eventually([&] { return listed() == 1; }));
    start_waiter(&second, 400);
    ASSERT_TRUE(eventually([&] { return listed() == 2; }));
    std::this_thread::sleep_for(250ms);
    EXPECT_EQ(tn_sync_notify(&sync_), 1);
    ASSERT_TRUE(eventually([&] { return first.result != -1 && second.result != -1; }));
    EXPECT_EQ(first.result, 1);
    EXPECT_EQ(second.result, 0);
    EXPECT_TRUE(first.held_once && second.held_once);
    // Woken 250 ms in but still listed, the second began a new 400 ms wait.
    EXPECT_GE(second.ms, 600) << "the time-out did not start again";
    EXPECT_LT(second.ms, 5000);
    EXPECT_EQ(listed(), 0u);
}

TEST_F(Sync, WakeOrderIsArrivalOrder)
{
    constexpr int kWaiters = 8;
    auto outcomes = std::make_unique<Outcome[]>(kWaiters);
    for (int i = 0; i < kWaiters; ++i) {
        start_waiter(&outcomes[i], 10000);
        ASSERT_TRUE(eventually([&] { return listed() == tn_uint32(i + 1); }));
    }
    for (int k = 0; k < kWaiters; ++k) {
        SCOPED_TRACE(k);
        ASSERT_EQ(tn_sync_notify(&sync_), 1);
        EXPECT_EQ(listed(), tn_uint32(kWaiters - k - 1));
        ASSERT_TRUE(eventually([&] { return outcomes[k].result != -1; })) << "waiter " << k << " not released";
        EXPECT_EQ(outcomes[k].result, 1);
        EXPECT_TRUE(outcomes[k].held_once);
        for (int j = k + 1; j < kWaiters; ++j) EXPECT_EQ(outcomes[j].result, -1) << "waiter " << j << " ran early";
    }
}

namespace {
std::atomic<bool> inside{false}, overlapped{false};
void hold_briefly()
{
    if (inside.exchange(true)) overlapped = true;
    std::this_thread::sleep_for(2ms);
    inside = false;
}
} // namespace

TEST_F(Sync, NotifyAllReleasesEveryWaiterOneAtATime)
{
    constexpr int kWaiters = 5;
    auto outcomes = std::make_unique<Outcome[]>(kWaiters);
    overlapped = false;
    for (int i = 0; i < kWaiters; ++i) start_waiter(&outcomes[i], -1, hold_briefly);
    ASSERT_TRUE(eventually([&] { return listed() == kWaiters; }));
    EXPECT_EQ(tn_sync_notify_all(&sync_), 1);
    EXPECT_EQ(listed(), 0u);
    ASSERT_TRUE(eventually([&] { return active_ == 0; })) << "waiters were left waiting";
    for (int i = 0; i < kWaiters; ++i) {
        EXPECT_EQ(outcomes[i].result, 1) << i;
        EXPECT_TRUE(outcomes[i].held_once) << i;
    }
    EXPECT_FALSE(overlapped) << "two waiters held the mutex at once";
}

TEST_F(Sync, NotifyInTheGapBeforeTheWaitIsNotLostToAnotherReset)
{
    // A waiter gives up the mutex only between leaving the guard and
    // starting to wait, so locking it here lands in that gap or just after.
    // The notify then races this thread's own wait, which resets the event.
    for (int round = 0; round < 30; ++round) {
        SCOPED_TRACE(round);
        Outcome out;
        start_waiter(&out, 3000);
        ASSERT_TRUE(eventually([&] { return listed() == 1; }));
        ASSERT_EQ(tn_mutex_lock(&m_), 1);
        EXPECT_EQ(tn_sync_notify(&sync_), 1);
        EXPECT_EQ(tn_sync_timedwait(&sync_, &m_, 10), 0);
        EXPECT_TRUE(release_held_once(&m_));
        ASSERT_TRUE(eventually([&] { return out.result != -1; }));
        // Stop at the first loss: each costs the full time-out.
        ASSERT_EQ(out.result, 1) << "the notify was lost after " << out.ms << " ms";
        ASSERT_LT(out.ms, 2000) << "the notify was seen only when the time-out ended";
        EXPECT_TRUE(out.held_once);
        ASSERT_EQ(listed(), 0u);
    }
}

TEST_F(Sync, StressEveryConsumedNotifyWakesExactlyOneWaiter)
{
    // Long time-outs first: any time-out there is a lost notify. Then short
    // ones, where a waiter may time out just as a notify takes it: that
    // notify is spent, so wake-ups may fall short of notifies, never exceed.
    for (tn_uint32 timeout : {8000u, 2u}) {
        SCOPED_TRACE(timeout);
        constexpr int kWaiters = 4, kRounds = 250;
        std::atomic<long> woken{0}, timed_out{0}, consumed{0}, bad_mutex{0};
        std::atomic<int> done{0};
        std::vector<std::thread> threads;
        for (int w = 0; w < kWaiters; ++w)
            threads.emplace_back([&] {
                for (int i = 0; i < kRounds; ++i) {
                    tn_mutex_lock(&m_);
                    (tn_sync_timedwait(&sync_, &m_, timeout) ? woken : timed_out)++;
                    if (!release_held_once(&m_)) ++bad_mutex;
                }
                ++done;
            });
        for (bool all : {false, true})
            threads.emplace_back([&, all] {
                // Short time-outs get notifies about as often as they expire.
                const auto pause = std::chrono::milliseconds(timeout > 1000 ? all : all ? 5 : 2);
                for (; done < kWaiters; std::this_thread::sleep_for(pause)) {
                    // The guard is recursive: holding it across the check and
                    // the notify makes each counted notify take a waiter.
                    tn_mutex_lock(&sync_.guard);
                    if (tn_uint32 n = tn_array_length(&sync_.waiters))
                        if (all ? tn_sync_notify_all(&sync_) : tn_sync_notify(&sync_)) consumed += all ? n : 1;
                    tn_mutex_unlock(&sync_.guard);
                }
            });
        for (auto &t : threads) t.join();
        EXPECT_EQ(woken + timed_out, kWaiters * kRounds);
        EXPECT_EQ(bad_mutex.load(), 0);
        EXPECT_EQ(listed(), 0u);
        EXPECT_LE(woken.load(), consumed.load());
        if (timeout > 1000) {
            EXPECT_EQ(timed_out.load(), 0);
            EXPECT_EQ(woken.load(), consumed.load());
        }
    }
}

TEST_F(Sync, FailuresReportZeroAndLeakNothing)
{
    EXPECT_EQ(tn_sync_free(nullptr), 1);
    tn_test::sweep_alloc_failures([] {
        tn_sync s;
        if (!tn_sync_create(&s)) return false;
        tn_sync_free(&s);
        return true;
    });
    // The first wait on a new object has to grow the list.
    ASSERT_EQ(tn_mutex_lock(&m_), 1);
    tn_test::fail_nth_allocation(1);
    auto t0 = steady::now();
    EXPECT_EQ(tn_sync_timedwait(&sync_, &m_, 2000), 0);
    EXPECT_TRUE(tn_test::failure_fired());
    EXPECT_LT(ms_since(t0), 1000) << "waited although it could not be listed";
    // One refused listing must not spoil the object: the next wait waits.
    t0 = steady::now();
    EXPECT_EQ(tn_sync_timedwait(&sync_, &m_, 60), 0);
    EXPECT_GE(ms_since(t0), 55);
    EXPECT_TRUE(release_held_once(&m_));
}
