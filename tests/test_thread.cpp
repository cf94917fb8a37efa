#include <tarnel_util/tn_mutex.h>
#include <tarnel_util/tn_semaphore.h>
#include <tarnel_util/tn_signal.h>
#include <tarnel_util/tn_thread.h>

#include "tn_test_alloc.h"
#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>
#include <pthread.h>
#include <sys/resource.h>

namespace {
using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;
using Thread = tn_test::AllocTest;
using Mutex = tn_test::AllocTest;
using Semaphore = tn_test::AllocTest;

long long ms_since(steady::time_point t0) { return (steady::now() - t0) / 1ms; }
int nice_of(tn_int32 tid) { return getpriority(PRIO_PROCESS, static_cast<id_t>(tid)); } // tid 0: the caller
bool renice(tn_int32 tid, int nice) { return setpriority(PRIO_PROCESS, static_cast<id_t>(tid), nice) == 0; }
template <class F> bool elsewhere(F f) { bool r = false; std::thread([&] { r = f(); }).join(); return r; }
std::atomic<bool> parked{false}; // holds the threads that run park until cleared
void park(void *) { while (parked) std::this_thread::sleep_for(1ms); }
} // namespace

TEST_F(Thread, CreateJoinDetachStackSizeAndHandleZero)
{
    const auto before = tn_test::outstanding();
    tn_thread t;
    tn_uint32 level = 99;
    for (tn_uint32 request : {1u, 64u * 1024, 100000u, 512u * 1024}) { // the last one is detached
        const bool detach = request > 100000;
        parked = true;
        ASSERT_TRUE(tn_thread_create(&t, request, park, nullptr));
        if (detach) tn_thread_detach(&t);
        pthread_attr_t attr; // still parked, so its attributes can be read
        size_t size = 0;
        int state = -1;
        pthread_getattr_np(static_cast<pthread_t>(t.handle), &attr), pthread_attr_getstacksize(&attr, &size);
        pthread_attr_getdetachstate(&attr, &state), pthread_attr_destroy(&attr);
        EXPECT_TRUE(size >= request && size < (2u << 20)) << request << " gave " << size;
        EXPECT_EQ(state, detach ? PTHREAD_CREATE_DETACHED : PTHREAD_CREATE_JOINABLE) << request;
        for (tn_uint32 l : {6u, 0u, 8u, ~0u}) // the record reaches that very thread; other levels change nothing
            EXPECT_TRUE(tn_thread_set_priority(&t, l) == (l == 6) && nice_of(t.tid) == 10) << l;
        EXPECT_TRUE(renice(t.tid, 15) && tn_thread_get_priority(&t, &level) && level == 0) << "not in the table";
        parked = false;
        EXPECT_TRUE(detach || (tn_thread_join(&t) && tn_test::outstanding() == before)) << "join did not wait";
    }
    for (auto t0 = steady::now(); tn_test::outstanding() != before && ms_since(t0) < 5000;) // the detached one
        std::this_thread::sleep_for(1ms);
    tn_test::sweep_alloc_failures([] { // a failed create leaves handle 0
        tn_thread u{77, 0};
        return tn_thread_create(&u, 0, park, nullptr) ? tn_thread_join(&u) == 1 : u.handle != 0;
    });
    EXPECT_TRUE(tn_thread_init(&t) && t.handle == 0);
    tn_thread_detach(&t);
    EXPECT_FALSE(tn_thread_join(&t) || tn_thread_get_priority(&t, &level) || tn_thread_set_priority(&t, 4) ||
                 tn_thread_set_priority_numrical(&t, 0));
}

TEST_F(Thread, PriorityLevelsAndNumbersFollowTheTable)
{
    static constexpr int nice_of_level[8] = {0, -20, -10, -5, 0, 5, 10, 19};
    const tn_int32 rows[][2] = {{10, 1}, {8, 1},  {7, 2},  {5, 2},  {4, 3},  {2, 3},  {1, 4},  {-1, 4},
                                {11, 4}, {-11, 4}, {-2, 5}, {-4, 5}, {-5, 6}, {-7, 6}, {-8, 7}, {-10, 7}};
    for (const auto &row : rows)
        for (bool by_num : {false, true}) std::thread([&] { // each on a fresh thread, through self
            SCOPED_TRACE(::testing::Message() << (by_num ? "number " : "level ") << row[by_num ? 0 : 1]);
            tn_thread me = tn_thread_self();
            const int target = nice_of_level[row[1]], before = nice_of(0) < target ? nice_of(0) : 19;
            renice(0, before); // so that a change shows; lowering needs a privilege that the host may lack
            const bool may = target > before || (renice(0, target) && renice(0, before));
            EXPECT_EQ(by_num ? tn_thread_set_priority_numrical(&me, row[0]) : tn_thread_set_priority(&me, row[1]), may);
            tn_uint32 got = 99;
            EXPECT_TRUE(tn_thread_get_priority(&me, &got) && got == tn_uint32(may ? row[1] : 7)) << got;
            EXPECT_EQ(nice_of(0), may ? target : before);
        }).join();
}

TEST_F(Mutex, RecursiveCountsOnlyTheOwnerUnlocksAndADeadOwnerHandsOver)
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
    EXPECT_EQ(tn_mutex_unlock(&m), 1) << "not handed over";
    EXPECT_TRUE(other_takes()) << "not usable after";
    tn_mutex_free(&m), tn_mutex_free(&m), tn_mutex_free(nullptr); // the emptied record and null are ignored
}

TEST_F(Semaphore, CountsStayWithinTheMaximumAndWaitsTimeOutOrTakeALatePost)
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

TEST(Signal, IdsAreTheSystemsAndDispositionsFollowTheCalls)
{
    const int ids[] = {tn_signal_id_int(),  tn_signal_id_term(),   tn_signal_id_alarm(), tn_signal_id_child(),
                       tn_signal_id_cont(), tn_signal_id_hangup(), tn_signal_id_pipe()};
    const int linux_ids[] = {SIGINT, SIGTERM, SIGALRM, SIGCHLD, SIGCONT, SIGHUP, SIGPIPE};
    for (int i = 0; i < 7; ++i) EXPECT_EQ(ids[i], linux_ids[i]) << i;
    auto disposition = [](int s) { struct sigaction old {}; sigaction(s, nullptr, &old); return old.sa_handler; };
    static std::atomic<int> caught{0};
    tn_signal_catch(SIGCONT, [](int s) { caught += s; }); // harmless by default
    EXPECT_TRUE(tn_signal_raise(SIGCONT) && caught.exchange(0) == SIGCONT) << caught;
    EXPECT_EQ((tn_signal_ignore(SIGCONT), disposition(SIGCONT)), SIG_IGN);
    EXPECT_EQ((tn_signal_uncatch(SIGCONT), disposition(SIGCONT)), SIG_DFL);
    EXPECT_TRUE(tn_signal_raise(SIGCONT) && !tn_signal_raise(-1) && caught == 0) << "caught after uncatch";
}
