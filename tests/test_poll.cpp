#include <tarnel_util/tn_poll.h>
#include <tarnel_util/tn_time.h>

#include "tn_test_alloc.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

using steady = std::chrono::steady_clock;
using std::chrono::milliseconds;

struct Pair {
    int a = -1, b = -1;
    Pair()
    {
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0) a = fds[0], b = fds[1];
    }
    ~Pair()
    {
        if (a >= 0) close(a);
        if (b >= 0) close(b);
    }
    Pair(const Pair &) = delete;
    Pair &operator=(const Pair &) = delete;
    void send_byte() const { ASSERT_EQ(write(b, "x", 1), 1); }
};

class Poll : public tn_test::AllocTest {
protected:
    tn_poll p{};
    void SetUp() override
    {
        AllocTest::SetUp();
        tn_poll_create(&p);
    }
    void TearDown() override
    {
        tn_poll_free(&p);
        AllocTest::TearDown();
    }

    // One check: its count, and how long it took.
    milliseconds check(tn_int32 timeout, tn_uint32 *count)
    {
        auto t0 = steady::now();
        EXPECT_TRUE(tn_poll_check(&p, timeout, count));
        return std::chrono::duration_cast<milliseconds>(steady::now() - t0);
    }

    tn_uint32 status(int s)
    {
        tn_uint32 bits = 0xDEAD;
        EXPECT_TRUE(tn_poll_get_status(&p, s, &bits));
        return bits;
    }
};

TEST_F(Poll, EntriesKeepOrderAndResultBitsAcrossSet)
{
    Pair x, y, z;
    ASSERT_TRUE(tn_poll_set(&p, x.a, TN_POLL_READ));
    ASSERT_TRUE(tn_poll_set(&p, y.a, TN_POLL_WRITE));
    ASSERT_TRUE(tn_poll_set(&p, z.a, 0));
    tn_uint32 count = 0;
    check(0, &count);
    EXPECT_EQ(count, 1u); // only y is writable as asked; x has no data
    EXPECT_EQ(status(y.a), TN_POLL_WRITE);

    ASSERT_TRUE(tn_poll_set(&p, y.a, TN_POLL_READ)); // replaces the request...
    EXPECT_EQ(tn_array_length(&p.entries), 3u);
    EXPECT_EQ(status(y.a), TN_POLL_WRITE); // ...and keeps the last result

    EXPECT_TRUE(tn_poll_remove(&p, x.a));
    EXPECT_TRUE(tn_poll_remove(&p, x.a)); // absent: still 1
    EXPECT_EQ(tn_pollinfo_array_find(&p.entries, z.a), 1u);
    EXPECT_EQ(tn_pollinfo_array_find(&p.entries, x.a), 2u);
    EXPECT_EQ(tn_pollinfo_array_get_end(&p.entries)->socket, z.a);
    tn_uint32 bits = 77;
    EXPECT_FALSE(tn_poll_get_status(&p, x.a, &bits));
    EXPECT_EQ(bits, 77u);

    tn_poll_cancel(&p);
    EXPECT_TRUE(tn_poll_reset(&p));
    EXPECT_EQ(tn_array_length(&p.entries), 0u);
    EXPECT_FALSE(tn_poll_is_canceled(&p));
}

TEST_F(Poll, TimeOutsAndPendingCancel)
{
    tn_uint32 count = 99;
    auto took = check(250, &count); // an empty set sleeps, slice by slice
    EXPECT_EQ(count, 0u);
    EXPECT_GE(took, milliseconds(245));
    EXPECT_LT(check(0, &count), milliseconds(50));

    Pair x;
    x.send_byte();
    ASSERT_TRUE(tn_poll_set(&p, x.a, TN_POLL_READ));
    check(0, &count);
    char c;
    ASSERT_EQ(read(x.a, &c, 1), 1);
    // A cancel made before the check ends it at once, looking at nothing:
    // the old result stays. The next check waits normally.
    tn_poll_cancel(&p);
    EXPECT_LT(check(5000, &count), milliseconds(50));
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(status(x.a), TN_POLL_READ);
    EXPECT_FALSE(tn_poll_is_canceled(&p));
    EXPECT_GE(check(120, &count), milliseconds(115));
    EXPECT_EQ(status(x.a), 0u);
}

// Ten cancels all landing within 50 ms of a 100 ms slice would happen by
// chance about once in a thousand runs without the immediate wake-up.
TEST_F(Poll, CancelFromAnotherThreadWakesTheWaitAtOnce)
{
    Pair idle;
    for (int with_socket = 0; with_socket < 2; ++with_socket) {
        SCOPED_TRACE(with_socket ? "one idle socket" : "empty set");
        if (with_socket) {
            ASSERT_TRUE(tn_poll_set(&p, idle.a, TN_POLL_READ));
        }
        double worst = 0;
        for (int round = 0; round < 10; ++round) {
            std::atomic<bool> waiting{false};
            steady::time_point sent{};
            std::thread canceller([&] {
                while (!waiting.load()) std::this_thread::yield();
                std::this_thread::sleep_for(milliseconds(20 + 7 * round));
                sent = steady::now();
                tn_poll_cancel(&p);
            });
            tn_uint32 count = 5;
            waiting.store(true);
            EXPECT_TRUE(tn_poll_check(&p, -1, &count));
            auto back = steady::now();
            canceller.join();
            EXPECT_EQ(count, 0u);
            worst = std::max(worst, std::chrono::duration<double, std::milli>(back - sent).count());
        }
        EXPECT_LT(worst, 50.0);
    }
}

// Cancels racing with short checks leave wake-ups behind that no wait
// consumed; later waits must still sit out their whole time-out.
TEST_F(Poll, StaleWakeUpsDoNotShortenTheTimeOut)
{
    Pair idle;
    ASSERT_TRUE(tn_poll_set(&p, idle.a, TN_POLL_READ));
    std::atomic<bool> stop{false};
    std::thread spammer([&] {
        while (!stop.load()) tn_poll_cancel(&p);
    });
    tn_uint32 count;
    for (int i = 0; i < 2000; ++i) tn_poll_check(&p, 1, &count);
    stop.store(true);
    spammer.join();
    check(0, &count); // consume a last pending cancel
    for (int i = 0; i < 3; ++i) EXPECT_GE(check(150, &count), milliseconds(145));
}

TEST_F(Poll, WaitsSeeDataOrderlyCloseAndDeadlines)
{
    Pair x;
    ASSERT_TRUE(tn_poll_set(&p, x.a, TN_POLL_WRITE)); // replaced by the wait
    EXPECT_FALSE(tn_poll_wait_read(&p, x.a, 30));
    EXPECT_EQ(tn_array_length(&p.entries), 0u); // and removed after it
    x.send_byte();
    EXPECT_TRUE(tn_poll_wait_read(&p, x.a, 1000));
    char c;
    ASSERT_EQ(read(x.a, &c, 1), 1);

    tn_time now, soon;
    tn_time_msec(&now);
    soon = now + 5000;
    tn_poll_cancel(&p);
    // A deadline that has come touches neither the set nor the flag.
    EXPECT_FALSE(tn_poll_wait_read_abs(&p, x.a, &now));
    EXPECT_TRUE(tn_poll_is_canceled(&p));
    tn_poll_reset(&p);
    EXPECT_TRUE(tn_poll_wait_write_abs(&p, x.a, &soon));

    // Deadline 0 waits without limit, until a cancel ends it.
    tn_time none = 0;
    std::thread canceller([&] {
        std::this_thread::sleep_for(milliseconds(150));
        tn_poll_cancel(&p);
    });
    auto t0 = steady::now();
    EXPECT_FALSE(tn_poll_wait_read_abs(&p, x.a, &none));
    EXPECT_GE(steady::now() - t0, milliseconds(140));
    canceller.join();

    // The peer's orderly close reads as readable, and then as 0 bytes; a
    // write to it would fail, so it is an error, not write readiness.
    close(x.b);
    x.b = -1;
    EXPECT_TRUE(tn_poll_wait_read(&p, x.a, 1000));
    EXPECT_EQ(read(x.a, &c, 1), 0);
    EXPECT_FALSE(tn_poll_wait_write(&p, x.a, 1000));
}

TEST_F(Poll, ErrorsAreWatchedWithoutBeingAsked)
{
    // A non-blocking connect to a closed loopback port fails through the
    // error bit, even on an entry that requests nothing.
    int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&addr), len), 0);
    ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr *>(&addr), &len), 0);
    close(listener);
    for (tn_uint32 requested : {0u, unsigned{TN_POLL_WRITE}}) {
        SCOPED_TRACE(requested);
        int s = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        connect(s, reinterpret_cast<sockaddr *>(&addr), len);
        ASSERT_TRUE(tn_poll_set(&p, s, requested));
        tn_uint32 count = 0;
        check(2000, &count);
        EXPECT_EQ(count, 1u);
        EXPECT_TRUE(status(s) & TN_POLL_ERROR);
        tn_poll_remove(&p, s);
        EXPECT_FALSE(tn_poll_wait_write(&p, s, 1000));
        close(s);
    }
    // A handle that is not open is an error at once, not a silent hang.
    ASSERT_TRUE(tn_poll_set(&p, -1, TN_POLL_READ));
    tn_uint32 count = 0;
    EXPECT_LT(check(3000, &count), milliseconds(1000));
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(status(-1), TN_POLL_ERROR);
}

TEST_F(Poll, LargeSetsHaveNoSixtyFourLimitAndWaitWithoutAllocating)
{
    std::vector<Pair> pairs(150);
    for (auto &x : pairs) ASSERT_TRUE(tn_poll_set(&p, x.a, TN_POLL_READ));
    pairs.back().send_byte();
    pairs[64].send_byte();
    tn_uint32 count = 0;
    check(1000, &count);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(status(pairs.back().a), TN_POLL_READ);
    EXPECT_EQ(status(pairs[64].a), TN_POLL_READ);
    tn_test::reset_counts();
    for (int i = 0; i < 20; ++i) check(0, &count);
    EXPECT_EQ(tn_test::allocations(), 0) << "a steady-state wait allocated";
}

TEST_F(Poll, OutOfMemory)
{
    // A refused append fails the entries until tn_poll_free; reset keeps that.
    Pair x;
    tn_test::fail_nth_allocation(1);
    EXPECT_FALSE(tn_poll_set(&p, x.a, TN_POLL_READ));
    tn_poll_reset(&p);
    EXPECT_FALSE(tn_poll_set(&p, x.a, TN_POLL_READ));
    tn_poll_free(&p);
    tn_poll_create(&p);

    // A large set whose wait cannot get its descriptor list fails cleanly:
    // 0, count 0, results 0.
    std::vector<Pair> pairs(80);
    for (auto &y : pairs) ASSERT_TRUE(tn_poll_set(&p, y.a, TN_POLL_WRITE));
    tn_test::fail_nth_allocation(1);
    tn_uint32 count = 9;
    EXPECT_FALSE(tn_poll_check(&p, 0, &count));
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(status(pairs[0].a), 0u);
    tn_test::fail_nth_allocation(0);
    check(0, &count);
    EXPECT_EQ(count, 80u);
}

// The owner keeps waiting while three threads hammer the record with
// cancels: no wake-up may be lost, nor written after the waiter left.
TEST_F(Poll, ConcurrentCancelsAndWaitsStayConsistent)
{
    Pair idle;
    ASSERT_TRUE(tn_poll_set(&p, idle.a, TN_POLL_READ));
    std::atomic<bool> stop{false};
    std::vector<std::thread> cancellers;
    for (int t = 0; t < 3; ++t)
        cancellers.emplace_back([&] {
            while (!stop.load()) {
                tn_poll_cancel(&p);
                std::this_thread::yield();
            }
        });
    auto end = steady::now() + milliseconds(400);
    int waits = 0;
    for (; steady::now() < end; ++waits) {
        tn_uint32 count = 7;
        ASSERT_TRUE(tn_poll_check(&p, -1, &count)); // only a cancel can end it
        ASSERT_EQ(count, 0u);
    }
    stop.store(true);
    for (auto &t : cancellers) t.join();
    EXPECT_GT(waits, 10);
}

} // namespace
