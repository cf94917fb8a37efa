#include <tarnel_util/tn_mutex.h>
#include <tarnel_util/tn_semaphore.h>
#include <tarnel_util/tn_thread.h>
#include "support/alloc.h"
#include <atomic>
#include <chrono>
#include <thread>
#include <pthread.h>
#include <sys/resource.h>

namespace {
using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;
using Threads = tn_test::AllocTest;
long long ms_since(steady::time_point t0) { return (steady::now() - t0) / 1ms; }
int nice_of(tn_int32 tid) { return getpriority(PRIO_PROCESS, static_cast<id_t>(tid)); } // tid 0: the caller
bool renice(tn_int32 tid, int nice) { return setpriority(PRIO_PROCESS, static_cast<id_t>(tid), nice) == 0; }
template <class F> bool elsewhere(F f) { bool r = false; std::thread([&] { r = f(); }).join(); return r; }
std::atomic<bool> parked{false}; // holds the threads that run park until cleared
void park(void *) { while (parked) std::this_thread::sleep_for(1ms); }
} // namespace

// One thread per row of the priority table, each parked while its attributes are read and its priority is set,
// by number or by level, through the record, which must reach that very thread; lowering the niceness needs a
// privilege that the host may lack. The last is detached. A failed create leaves handle 0, on which all fails.
TEST_F(Threads, CreateJoinDetachStackSizePriorityAndHandleZero)
{
    static constexpr int nice_of_level[8] = {0, -20, -10, -5, 0, 5, 10, 19};
    const tn_int32 rows[][2] = {{10, 1}, {8, 1},  {7, 2},  {5, 2},  {4, 3},  {2, 3},  {1, 4},  {-1, 4},
                                {11, 4}, {-11, 4}, {-2, 5}, {-4, 5}, {-5, 6}, {-7, 6}, {-8, 7}, {-10, 7}};
    const auto before = tn_test::outstanding();
    tn_thread t, u{77, 1};
    tn_uint32 level = 99, requests[] = {1, 100000, 512 * 1024};
    for (int i = 0; i < 16; ++i) {
        const tn_int32 number = rows[i][0], lvl = rows[i][1], target = nice_of_level[lvl];
        pthread_attr_t attr;
        size_t size = 0;
        int detached = i == 15, state = -1;
        ASSERT_TRUE((parked = true, tn_thread_create(&t, requests[i % 3], park, nullptr)));
        if (detached) tn_thread_detach(&t);
        pthread_getattr_np(static_cast<pthread_t>(t.handle), &attr), pthread_attr_getstacksize(&attr, &size);
        pthread_attr_getdetachstate(&attr, &state), pthread_attr_destroy(&attr);
        EXPECT_TRUE(size >= requests[i % 3] && size < (2u << 20)) << requests[i % 3] << " gave " << size;
        EXPECT_EQ(state, detached ? PTHREAD_CREATE_DETACHED : PTHREAD_CREATE_JOINABLE) << "thread " << i;
        const int was = nice_of(t.tid) < target ? nice_of(t.tid) : 19;
        const bool may = (renice(t.tid, was), target > was || (renice(t.tid, target) && renice(t.tid, was)));
        for (int by_number = i % 2; by_number < 2; ++by_number) // odd rows by level first, then all by number
            EXPECT_TRUE((by_number ? tn_thread_set_priority_numrical(&t, number) : tn_thread_set_priority(&t, lvl)) ==
                        may && tn_thread_get_priority(&t, &level) && level == tn_uint32(may ? lvl : 7) &&
                        nice_of(t.tid) == (may ? target : was)) << i << (by_number ? " by number" : " by level");
        for (tn_uint32 l : {0u, 8u, ~0u}) EXPECT_FALSE(tn_thread_set_priority(&t, l)) << "level " << l;
        EXPECT_TRUE(renice(t.tid, 15) && tn_thread_get_priority(&t, &level) && !level) << "niceness 15 read as a level";
        parked = false;
        EXPECT_TRUE(detached || (tn_thread_join(&t) && tn_test::outstanding() == before)) << "join did not wait";
    }
    for (auto t0 = steady::now(); tn_test::outstanding() != before && ms_since(t0) < 5000;) // the detached one
        std::this_thread::sleep_for(1ms);
    EXPECT_FALSE((tn_test::fail_nth_allocation(1), tn_thread_create(&u, 0, park, nullptr)) || u.handle ||
                 (tn_thread_detach(&u), tn_thread_join(&u)) || tn_thread_get_priority(&u, &level) ||
                 tn_thread_set_priority(&u, 4) || tn_thread_set_priority_numrical(&u, 0));
}

TEST_F(Threads, MutexRecursiveCountsOnlyTheOwnerUnlocksAndADeadOwnerHandsOver)
{
    tn_mutex m;
    ASSERT_EQ(tn_mutex_create(&m), 1);
    auto other_takes = [&] { return elsewhere([&] { return tn_mutex_trylock(&m) && tn_mutex_unlock(&m); }); };
    EXPECT_TRUE(tn_mutex_lock(&m) && tn_mutex_lock(&m) && tn_mutex_trylock(&m));
#if !defined(__SANITIZE_THREAD__) // it reports a non-owner's unlock even when that fails as it should
    EXPECT_FALSE(elsewhere([&] { return tn_mutex_unlock(&m); })) << "a non-owner unlocked";
#endif
    for (int i = 1; i <= 3; ++i) EXPECT_TRUE(tn_mutex_unlock(&m) && other_takes() == (i == 3)) << i << " of 3 unlocks";
    elsewhere([&] { return tn_mutex_lock(&m) && tn_mutex_lock(&m); }); // ends holding it twice
    EXPECT_EQ(tn_mutex_trylock(&m), 0) << "the owner's end went unnoticed"; // where a lock would hang
    EXPECT_TRUE(tn_mutex_unlock(&m) && other_takes()) << "not handed over, or not usable after";
    tn_mutex_free(&m), tn_mutex_free(&m), tn_mutex_free(nullptr); // the emptied record and null are ignored
}

TEST_F(Threads, SemaphoreCountsStayWithinTheMaximumAndWaitsTimeOutOrTakeALatePost)
{
    tn_semaphore s{&s}; // a refused create must clear the handle
    EXPECT_FALSE(tn_semaphore_create(&s, 0, 0) || tn_semaphore_create(&s, 4, 3) || s.handle);
    ASSERT_EQ(tn_semaphore_create(&s, 1, 1), 1);
    EXPECT_TRUE(!tn_semaphore_post(&s) && tn_semaphore_trywait(&s) && !tn_semaphore_trywait(&s)) << "not 1 of 1";
    auto t0 = steady::now();
    EXPECT_TRUE(!tn_semaphore_wait(&s, 80) && ms_since(t0) >= 79 && ms_since(t0) < 3000) << ms_since(t0);
    for (tn_uint32 timeout : {0u, 5000u}) { // 0 means no limit
        std::thread poster([&] { std::this_thread::sleep_for(200ms), tn_semaphore_post(&s); });
        t0 = steady::now();
        EXPECT_TRUE(tn_semaphore_wait(&s, timeout) && ms_since(t0) >= 190 && ms_since(t0) < 3000) << timeout;
        poster.join();
    }
    tn_semaphore_free(&s), tn_semaphore_free(&s), tn_semaphore_free(nullptr);
}

// A body that ends its thread itself never returns to the start sequence, which must not hold on to its record.
TEST_F(Threads, ABodyThatEndsItsThreadLeavesNothingAllocated)
{
    tn_thread t;
    ASSERT_TRUE(tn_thread_create(&t, 0, [](void *) { pthread_exit(nullptr); }, nullptr));
    EXPECT_TRUE(tn_thread_join(&t));
}
