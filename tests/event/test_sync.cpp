#include <tarnel_util/tn_sync.h>
#include "support/alloc.h"
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {
using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;
long long ms_since(steady::time_point t0) { return (steady::now() - t0) / 1ms; }
struct Sync : tn_test::AllocTest {
    void SetUp() override
    {
        AllocTest::SetUp();
        ASSERT_TRUE(tn_sync_create(&s_));
        ASSERT_TRUE(tn_mutex_create(&m_));
    }
    void TearDown() override // releases what a failed test left waiting
    {
        for (auto &t : threads_) {
            tn_sync_notify_all(&s_);
            t.join();
        }
        tn_sync_free(&s_);
        tn_mutex_free(&m_);
        AllocTest::TearDown();
    }
    tn_uint32 listed() { return tn_array_length(&s_.waiters); } // only while no other thread changes the list
    void start_waiter(int i, tn_uint32 timeout) // returns once waiter i is listed and has let m_ go; time-out 0: none
    {
        threads_.emplace_back([=, this] {
            tn_mutex_lock(&m_);
            out_[i].result = -1;
            const auto t0 = steady::now();
            const tn_bool r = timeout ? tn_sync_timedwait(&s_, &m_, timeout) : tn_sync_wait(&s_, &m_);
            out_[i].ms = ms_since(t0);
            out_[i].result = tn_mutex_unlock(&m_) ? r : 2;
        });
        while (out_[i].result == -2) std::this_thread::yield();
        tn_mutex_lock(&m_); // taken once the waiter has let it go in its wait
        tn_mutex_unlock(&m_);
    }
    bool ended(int i) // within 5 s
    {
        for (auto t0 = steady::now(); out_[i].result == -1 && ms_since(t0) < 5000;) std::this_thread::sleep_for(1ms);
        return out_[i].result != -1;
    }
    tn_sync s_{};
    tn_mutex m_{};
    std::vector<std::thread> threads_;
    struct { std::atomic<int> result{-2}; std::atomic<long long> ms{0}; } out_[30]; // result 2: mutex not held
};
} // namespace
TEST_F(Sync, AloneATimedWaitExpiresHoldingTheMutexAndARefusedListingSpoilsOnlyItsWait)
{
    tn_test::sweep_alloc_failures([] {
        tn_sync s;
        return tn_sync_create(&s) && tn_sync_free(&s);
    });
    EXPECT_TRUE(tn_sync_free(nullptr));
    EXPECT_TRUE(tn_sync_notify(&s_)) << "with no waiter, and not remembered";
    EXPECT_TRUE(tn_sync_notify_all(&s_));
    for (tn_uint32 timeout : {5000u, 0u, 100u}) { // the first wait cannot grow the list, so it must not wait
        SCOPED_TRACE(testing::Message() << "time-out " << timeout);
        tn_test::fail_nth_allocation(timeout == 5000 ? 1 : 0);
        const auto t0 = steady::now();
        ASSERT_TRUE(tn_mutex_lock(&m_));
        EXPECT_FALSE(tn_sync_timedwait(&s_, &m_, timeout));
        EXPECT_TRUE(tn_mutex_unlock(&m_)) << "the wait came back without the mutex";
        const long long ms = ms_since(t0), least = timeout == 5000 ? 0 : timeout; // 0 looks once
        EXPECT_GE(ms + 1, least);
        EXPECT_LT(ms, least + 2000);
        EXPECT_EQ(listed(), 0u);
    }
}

TEST_F(Sync, NotifyReleasesInArrivalOrderRestartingTheOthersTimeOutAndNotifyAllReleasesAll)
{
    for (int i = 0; i < 5; ++i) start_waiter(i, i < 4 ? 10000 : 400); // the last, woken 250 ms in, waits 400 ms anew
    std::this_thread::sleep_for(250ms);
    for (int k = 0; k < 4; ++k) {
        ASSERT_TRUE(tn_sync_notify(&s_));
        ASSERT_TRUE(ended(k)) << "waiter " << k;
        ASSERT_EQ(out_[k].result, 1) << "waiter " << k;
        for (int j = k + 1; j < 5; ++j) EXPECT_EQ(out_[j].result, -1) << j << " ended before " << k;
    }
    ASSERT_TRUE(ended(4));
    EXPECT_EQ(out_[4].result, 0) << "timed out";
    EXPECT_GE(out_[4].ms, 600) << "each release restarts the others' time-out";
    EXPECT_EQ(listed(), 0u);
    for (int i = 5; i < 10; ++i) start_waiter(i, 0);
    EXPECT_TRUE(tn_sync_notify_all(&s_));
    EXPECT_EQ(listed(), 0u);
    for (int i = 5; i < 10; ++i) {
        EXPECT_TRUE(ended(i)) << "waiter " << i;
        EXPECT_EQ(out_[i].result, 1) << "waiter " << i;
    }
}

TEST_F(Sync, NotifyJustBeforeAnotherWaitersResetIsNotLost)
{
    for (int i = 0; i < 30; ++i) { // this thread's own wait resets the event right after the notify
        start_waiter(i, 3000);
        SCOPED_TRACE(testing::Message() << "round " << i);
        ASSERT_TRUE(tn_mutex_lock(&m_));
        EXPECT_TRUE(tn_sync_notify(&s_));
        EXPECT_FALSE(tn_sync_timedwait(&s_, &m_, 10));
        ASSERT_TRUE(tn_mutex_unlock(&m_));
        ASSERT_TRUE(ended(i));
        ASSERT_EQ(out_[i].result, 1);
        ASSERT_LT(out_[i].ms, 2000) << "the notify was lost; the waiter timed out";
    }
}
