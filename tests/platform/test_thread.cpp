#include <tarnel_util/tn_mutex.h>
#include <tarnel_util/tn_semaphore.h>
#include <tarnel_util/tn_thread.h>
#include "support/alloc.h"
#include <atomic>
#include <chrono>
#include <thread>
#include <pthread.h>
#include <string>
#include <sys/resource.h>

namespace {
using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;
using Threads = tn_test::AllocTest;
long long ms_since(steady::time_point t0) { return (steady::now() - t0) / 1ms; }
int nice_of(tn_int32 tid) { return getpriority(PRIO_PROCESS, static_cast<id_t>(tid)); } // tid 0: the caller
bool renice(tn_int32 tid, int nice) { return setpriority(PRIO_PROCESS, static_cast<id_t>(tid), nice) == 0; }
template <class F> bool elsewhere(F f) // f's result on a thread of its own
{
    bool r = false;
    std::thread([&] { r = f(); }).join();
    return r;
}
std::atomic<bool> parked{false}; // holds the threads that run park until cleared
void park(void *) { while (parked) std::this_thread::sleep_for(1ms); }
} // namespace

// One parked thread takes every row of the priority table, by level and by number, through the record, which
// must reach that very thread; lowering the niceness needs a privilege that the host may lack.
TEST_F(Threads, PriorityByLevelOrNumberReachesTheThread)
{
    static constexpr int nice_of_level[8] = {0, -20, -10, -5, 0, 5, 10, 19};
    // The numbers that give each level, both ends of each range; beyond -10..10 is normal.
    const struct { tn_uint32 level; tn_int32 numbers[2]; } rows[] = {
        {1, {10, 8}},
        {2, {7, 5}},
        {3, {4, 2}},
        {4, {1, -1}},
        {4, {11, -11}},
        {5, {-2, -4}},
        {6, {-5, -7}},
        {7, {-8, -10}},
    };
    tn_thread t;
    parked = true;
    ASSERT_TRUE(tn_thread_create(&t, 0, park, nullptr));
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << "level " << row.level);
        const int target = nice_of_level[row.level];
        // Start above the target where we can; whether the target may be reached is tried by hand.
        const int was = nice_of(t.tid) < target ? nice_of(t.tid) : 19;
        renice(t.tid, was);
        const bool may = target > was || (renice(t.tid, target) && renice(t.tid, was));
        for (int way = 0; way < 3; ++way) { // by level, then by each number
            SCOPED_TRACE(way ? "number " + std::to_string(row.numbers[way - 1]) : std::string("by level"));
            renice(t.tid, was);
            const tn_bool set = way ? tn_thread_set_priority_numrical(&t, row.numbers[way - 1])
                                    : tn_thread_set_priority(&t, row.level);
            EXPECT_EQ(set, may ? 1 : 0);
            tn_uint32 level = 99;
            EXPECT_TRUE(tn_thread_get_priority(&t, &level));
            EXPECT_EQ(level, may ? row.level : 7u);
            EXPECT_EQ(nice_of(t.tid), may ? target : was) << "the priority did not reach the thread";
        }
    }
    for (tn_uint32 l : {0u, 8u, ~0u}) EXPECT_FALSE(tn_thread_set_priority(&t, l)) << "level " << l;
    ASSERT_TRUE(renice(t.tid, 15));
    tn_uint32 level = 99;
    EXPECT_TRUE(tn_thread_get_priority(&t, &level));
    EXPECT_EQ(level, 0u) << "niceness 15 is no level";
    parked = false;
    EXPECT_TRUE(tn_thread_join(&t));
}

// The stack is at least what was asked for; join waits for the end. A failed create leaves handle 0, on which
// all fails. A body that ends its thread itself never returns to the start sequence, which must not hold on to
// its record.
TEST_F(Threads, CreateStackSizeDetachJoinAndHandleZero)
{
    const struct { tn_uint32 stack; bool detached; } rows[] = {{1, false}, {100000, false}, {512 * 1024, true}};
    const auto before = tn_test::outstanding();
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << "stack " << row.stack);
        tn_thread t;
        parked = true;
        ASSERT_TRUE(tn_thread_create(&t, row.stack, park, nullptr));
        if (row.detached) tn_thread_detach(&t);
        pthread_attr_t attr;
        size_t size = 0;
        int state = -1;
        pthread_getattr_np(static_cast<pthread_t>(t.handle), &attr);
        pthread_attr_getstacksize(&attr, &size);
        pthread_attr_getdetachstate(&attr, &state);
        pthread_attr_destroy(&attr);
        EXPECT_GE(size, row.stack);
        EXPECT_LT(size, 2u << 20);
        EXPECT_EQ(state, row.detached ? PTHREAD_CREATE_DETACHED : PTHREAD_CREATE_JOINABLE);
        parked = false;
        if (!row.detached) {
            EXPECT_TRUE(tn_thread_join(&t));
            EXPECT_EQ(tn_test::outstanding(), before) << "join did not wait";
        }
    }
    for (auto t0 = steady::now(); tn_test::outstanding() != before && ms_since(t0) < 5000;) // the detached one
        std::this_thread::sleep_for(1ms);
    tn_thread t;
    ASSERT_TRUE(tn_thread_create(&t, 0, [](void *) { pthread_exit(nullptr); }, nullptr));
    EXPECT_TRUE(tn_thread_join(&t));
    tn_thread u{77, 1};
    tn_uint32 level = 99;
    tn_test::fail_nth_allocation(1);
    EXPECT_FALSE(tn_thread_create(&u, 0, park, nullptr));
    EXPECT_EQ(u.handle, 0u);
    tn_thread_detach(&u);
    EXPECT_FALSE(tn_thread_join(&u));
    EXPECT_FALSE(tn_thread_get_priority(&u, &level));
    EXPECT_FALSE(tn_thread_set_priority(&u, 4));
    EXPECT_FALSE(tn_thread_set_priority_numrical(&u, 0));
}

TEST_F(Threads, MutexRecursiveCountsOnlyTheOwnerUnlocksAndADeadOwnerHandsOver)
{
    tn_mutex m;
    ASSERT_EQ(tn_mutex_create(&m), 1);
    auto other_takes = [&] { return elsewhere([&] { return tn_mutex_trylock(&m) && tn_mutex_unlock(&m); }); };
    EXPECT_TRUE(tn_mutex_lock(&m));
    EXPECT_TRUE(tn_mutex_lock(&m)) << "recursive";
    EXPECT_TRUE(tn_mutex_trylock(&m));
#if !defined(__SANITIZE_THREAD__) // it reports a non-owner's unlock even when that fails as it should
    EXPECT_FALSE(elsewhere([&] { return tn_mutex_unlock(&m); })) << "a non-owner unlocked";
#endif
    for (int i = 1; i <= 3; ++i) {
        EXPECT_TRUE(tn_mutex_unlock(&m)) << "unlock " << i;
        EXPECT_EQ(other_takes(), i == 3) << "after unlock " << i << " of 3";
    }
    elsewhere([&] { return tn_mutex_lock(&m) && tn_mutex_lock(&m); }); // ends holding it twice
    EXPECT_EQ(tn_mutex_trylock(&m), 0) << "the owner's end went unnoticed"; // where a lock would hang
    EXPECT_TRUE(tn_mutex_unlock(&m)) << "not handed over";
    EXPECT_TRUE(other_takes()) << "not usable after the hand-over";
    tn_mutex_free(&m);
    tn_mutex_free(&m); // the emptied record is ignored
    tn_mutex_free(nullptr);
}

TEST_F(Threads, SemaphoreCountsStayWithinTheMaximumAndWaitsTimeOutOrTakeALatePost)
{
    tn_semaphore s{&s}; // a refused create must clear the handle
    EXPECT_FALSE(tn_semaphore_create(&s, 0, 0)) << "maximum 0";
    EXPECT_FALSE(tn_semaphore_create(&s, 4, 3)) << "initial above the maximum";
    EXPECT_EQ(s.handle, nullptr);
    ASSERT_EQ(tn_semaphore_create(&s, 1, 1), 1);
    EXPECT_FALSE(tn_semaphore_post(&s)) << "beyond the maximum";
    EXPECT_TRUE(tn_semaphore_trywait(&s));
    EXPECT_FALSE(tn_semaphore_trywait(&s)) << "the refused post counted";
    auto t0 = steady::now();
    EXPECT_FALSE(tn_semaphore_wait(&s, 80));
    EXPECT_GE(ms_since(t0), 79);
    EXPECT_LT(ms_since(t0), 3000);
    for (tn_uint32 timeout : {0u, 5000u}) { // 0 means no limit
        SCOPED_TRACE(testing::Message() << "time-out " << timeout);
        std::thread poster([&] {
            std::this_thread::sleep_for(200ms);
            tn_semaphore_post(&s);
        });
        t0 = steady::now();
        EXPECT_TRUE(tn_semaphore_wait(&s, timeout));
        EXPECT_GE(ms_since(t0), 190);
        EXPECT_LT(ms_since(t0), 3000);
        poster.join();
    }
    tn_semaphore_free(&s);
    tn_semaphore_free(&s);
    tn_semaphore_free(nullptr);
}
