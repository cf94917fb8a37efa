#include <tarnel_util/tn_poll.h>
#include <tarnel_util/tn_time.h>

#include "tn_test_alloc.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;
using std::chrono::milliseconds;

struct Pair {
    int a = -1, b = -1;
    Pair()
    {
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0) {
            a = fds[0];
            b = fds[1];
        }
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

    // Runs one check and reports how long it took.
    milliseconds timed_check(tn_int32 timeout, tn_uint32 *count, tn_bool *ok = nullptr)
    {
        auto t0 = clock_type::now();
        tn_bool r = tn_poll_check(&p, timeout, count);
        if (ok) *ok = r;
        return std::chrono::duration_cast<milliseconds>(clock_type::now() - t0);
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
    EXPECT_EQ(tn_array_length(&p.entries), 3u);

    tn_uint32 count = 0;
    ASSERT_TRUE(tn_poll_check(&p, 0, &count));
    EXPECT_EQ(count, 1u); // only y is writable as asked; x has no data
    EXPECT_EQ(status(y.a), TN_POLL_WRITE);

    // Changing the request keeps the last result until the next check.
    ASSERT_TRUE(tn_poll_set(&p, y.a, TN_POLL_READ));
    EXPECT_EQ(tn_array_length(&p.entries), 3u);
    EXPECT_EQ(status(y.a), TN_POLL_WRITE);

    EXPECT_TRUE(tn_poll_remove(&p, x.a));
    EXPECT_TRUE(tn_poll_remove(&p, x.a)); // absent: still 1
    EXPECT_EQ(tn_pollinfo_array_find(&p.entries, y.a), 0u);
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
    EXPECT_EQ(tn_pollinfo_array_get_end(&p.entries), nullptr);
}

TEST_F(Poll, EmptySetSleepsTheWholeTimeOutInSlices)
{
    tn_uint32 count = 99;
    tn_bool ok = 0;
    auto took = timed_check(250, &count, &ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(count, 0u);
    EXPECT_GE(took, milliseconds(245));
    EXPECT_LT(took, milliseconds(2000));

    took = timed_check(0, &count, &ok);
    EXPECT_TRUE(ok);
    EXPECT_LT(took, milliseconds(50));
}

TEST_F(Poll, PendingCancelEndsTheNextCheckOnlyAndKeepsOldResults)
{
    Pair x;
    x.send_byte();
    ASSERT_TRUE(tn_poll_set(&p, x.a, TN_POLL_READ));
    tn_uint32 count = 0;
    ASSERT_TRUE(tn_poll_check(&p, 0, &count));
    ASSERT_EQ(status(x.a), TN_POLL_READ);
    char c;
    ASSERT_EQ(read(x.a, &c, 1), 1);

    tn_poll_cancel(&p);
    EXPECT_TRUE(tn_poll_is_canceled(&p));
    tn_bool ok = 0;
    auto took = timed_check(5000, &count, &ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(count, 0u);
    EXPECT_LT(took, milliseconds(50));
    EXPECT_EQ(status(x.a), TN_POLL_READ); // nothing was looked at
    EXPECT_FALSE(tn_poll_is_canceled(&p));

    // The cancel was consumed: the next check waits its time-out.
    took = timed_check(120, &count, &ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(count, 0u);
    EXPECT_GE(took, milliseconds(115));
    EXPECT_EQ(status(x.a), 0u);
}

// A cancel from another thread wakes the waiter at once, not at the end of
// its 100 ms slice: ten cancels all landing within a few milliseconds would
// happen by chance about once in a thousand runs without the wake-up.
TEST_F(Poll, CancelFromAnotherThreadWakesTheWaitAtOnce)
{
    Pair idle;
    for (int with_socket = 0; with_socket < 2; ++with_socket) {
        SCOPED_TRACE(with_socket ? "one idle socket" : "empty set");
        if (with_socket) {
            ASSERT_TRUE(tn_poll_set(&p, idle.a, TN_POLL_READ));
        }
        std::vector<double> lags;
        for (int round = 0; round < 10; ++round) {
            std::atomic<bool> waiting{false};
            clock_type::time_point sent{};
            std::thread canceller([&] {
                while (!waiting.load()) std::this_thread::yield();
                std::this_thread::sleep_for(milliseconds(20 + 7 * round));
                sent = clock_type::now();
                tn_poll_cancel(&p);
            });
            tn_uint32 count = 5;
            waiting.store(true);
            tn_bool ok = tn_poll_check(&p, -1, &count);
            auto back = clock_type::now();
            canceller.join();
            EXPECT_TRUE(ok);
            EXPECT_EQ(count, 0u);
            EXPECT_FALSE(tn_poll_is_canceled(&p));
            lags.push_back(std::chrono::duration<double, std::milli>(back - sent).count());
        }
        std::sort(lags.begin(), lags.end());
        EXPECT_LT(lags.back(), 50.0) << "median " << lags[lags.size() / 2] << " ms";
    }
}

TEST_F(Poll, StaleWakeUpsDoNotShortenTheTimeOut)
{
    Pair idle;
    ASSERT_TRUE(tn_poll_set(&p, idle.a, TN_POLL_READ));
    // Cancels racing with short checks leave wake-ups behind that no wait
    // consumed; later waits must sit out their full time regardless.
    std::atomic<bool> stop{false};
    std::thread spammer([&] {
        while (!stop.load()) tn_poll_cancel(&p);
    });
    tn_uint32 count;
    for (int i = 0; i < 2000; ++i) tn_poll_check(&p, 1, &count);
    stop.store(true);
    spammer.join();
    tn_poll_check(&p, 0, &count); // consume a last pending cancel
    for (int i = 0; i < 3; ++i) {
        tn_bool ok = 0;
        auto took = timed_check(150, &count, &ok);
        EXPECT_TRUE(ok);
        EXPECT_EQ(count, 0u);
        EXPECT_GE(took, milliseconds(145));
    }
}

TEST_F(Poll, WaitReadSeesDataAndOrderlyCloseAndRemovesItsEntry)
{
    Pair x;
    ASSERT_TRUE(tn_poll_set(&p, x.a, TN_POLL_WRITE)); // replaced by the wait
    EXPECT_FALSE(tn_poll_wait_read(&p, x.a, 30));
    EXPECT_EQ(tn_array_length(&p.entries), 0u);

    x.send_byte();
    EXPECT_TRUE(tn_poll_wait_read(&p, x.a, 1000));
    EXPECT_EQ(tn_array_length(&p.entries), 0u);
    char c;
    ASSERT_EQ(read(x.a, &c, 1), 1);

    // The peer's orderly close is readable: the reader then sees 0 bytes.
    close(x.b);
    x.b = -1;
    EXPECT_TRUE(tn_poll_wait_read(&p, x.a, 1000));
    EXPECT_EQ(read(x.a, &c, 1), 0);

    // Writing to a closed peer would fail: the hang-up is no write readiness
    // but an error, and the wait says so at once.
    auto t0 = clock_type::now();
    EXPECT_FALSE(tn_poll_wait_write(&p, x.a, 3000));
    EXPECT_LT(clock_type::now() - t0, milliseconds(1000));
}

TEST_F(Poll, AbsoluteDeadlines)
{
    Pair x;
    tn_time now;
    tn_time_msec(&now);
    tn_poll_cancel(&p);
    // A deadline that has come returns at once and touches neither the set
    // nor the flag.
    EXPECT_FALSE(tn_poll_wait_read_abs(&p, x.a, &now));
    EXPECT_TRUE(tn_poll_is_canceled(&p));
    EXPECT_EQ(tn_array_length(&p.entries), 0u);
    tn_poll_reset(&p);

    tn_time soon = now + 80;
    auto t0 = clock_type::now();
    EXPECT_TRUE(tn_poll_wait_write_abs(&p, x.a, &soon));
    tn_time later = now + 5000;
    x.send_byte();
    EXPECT_TRUE(tn_poll_wait_read_abs(&p, x.a, &later));
    EXPECT_LT(clock_type::now() - t0, milliseconds(2000));

    // Deadline 0 waits without limit, until a cancel ends it.
    char c;
    ASSERT_EQ(read(x.a, &c, 1), 1);
    tn_time none = 0;
    std::thread canceller([&] {
        std::this_thread::sleep_for(milliseconds(150));
        tn_poll_cancel(&p);
    });
    t0 = clock_type::now();
    EXPECT_FALSE(tn_poll_wait_read_abs(&p, x.a, &none));
    EXPECT_GE(clock_type::now() - t0, milliseconds(140));
    canceller.join();
}

TEST_F(Poll, ErrorsAreWatchedWithoutBeingAsked)
{
    // A non-blocking connect to a closed loopback port fails; the failure
    // shows through the error bit, even on an entry that requests nothing.
    int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(listener, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    socklen_t len = sizeof addr;
    ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr *>(&addr), &len), 0);
    close(listener); // nobody listens on that port now

    for (tn_uint32 requested : {0u, unsigned{TN_POLL_WRITE}}) {
        SCOPED_TRACE(requested);
        int s = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        ASSERT_GE(s, 0);
        connect(s, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
        ASSERT_TRUE(tn_poll_set(&p, s, requested));
        tn_uint32 count = 0;
        ASSERT_TRUE(tn_poll_check(&p, 2000, &count));
        EXPECT_EQ(count, 1u);
        EXPECT_TRUE(status(s) & TN_POLL_ERROR);
        tn_poll_remove(&p, s);
        // wait_write refuses a socket that shows the error bit.
        EXPECT_FALSE(tn_poll_wait_write(&p, s, 1000));
        close(s);
    }

    // A handle that is not open is an error at once, not a silent hang.
    ASSERT_TRUE(tn_poll_set(&p, -1, TN_POLL_READ));
    tn_uint32 count = 0;
    auto took = timed_check(3000, &count);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(status(-1), TN_POLL_ERROR);
    EXPECT_LT(took, milliseconds(1000));
}

TEST_F(Poll, LargeSetsHaveNoSixtyFourLimitAndWaitWithoutAllocating)
{
    std::vector<Pair> pairs(150);
    for (auto &x : pairs) ASSERT_TRUE(tn_poll_set(&p, x.a, TN_POLL_READ));
    pairs.back().send_byte();
    pairs[64].send_byte();
    tn_uint32 count = 0;
    ASSERT_TRUE(tn_poll_check(&p, 1000, &count));
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(status(pairs.back().a), TN_POLL_READ);
    EXPECT_EQ(status(pairs[64].a), TN_POLL_READ);
    EXPECT_EQ(status(pairs[0].a), 0u);

    tn_test::reset_counts();
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(tn_poll_check(&p, 0, &count));
    EXPECT_EQ(tn_test::allocations(), 0) << "a steady-state wait allocated";
}

TEST_F(Poll, OutOfMemory)
{
    // tn_poll_set: a failed append is 0 and leaves the entries failed until
    // tn_poll_free; reset does not clear that.
    Pair x;
    tn_test::fail_nth_allocation(1);
    EXPECT_FALSE(tn_poll_set(&p, x.a, TN_POLL_READ));
    EXPECT_TRUE(tn_array_failed(&p.entries));
    tn_poll_reset(&p);
    EXPECT_FALSE(tn_poll_set(&p, x.a, TN_POLL_READ));
    tn_poll_free(&p);
    tn_poll_create(&p);
    EXPECT_TRUE(tn_poll_set(&p, x.a, TN_POLL_READ));

    // A large set whose wait cannot get its descriptor list fails the
    // check cleanly: 0, count 0, results 0, flag cleared.
    std::vector<Pair> pairs(80);
    for (auto &y : pairs) ASSERT_TRUE(tn_poll_set(&p, y.a, TN_POLL_WRITE));
    tn_poll_cancel(&p);
    tn_uint32 count = 9;
    tn_poll_check(&p, 0, &count); // consume the cancel
    tn_test::fail_nth_allocation(1);
    count = 9;
    EXPECT_FALSE(tn_poll_check(&p, 0, &count));
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(status(pairs[0].a), 0u);
    EXPECT_FALSE(tn_poll_is_canceled(&p));
    tn_test::fail_nth_allocation(0);
    EXPECT_TRUE(tn_poll_check(&p, 0, &count));
    EXPECT_EQ(count, 80u);
}

// Cancels hammering a record from several threads while its owner keeps
// waiting: the registration protocol must neither lose a wake-up nor write
// to a handle after the waiter left. Run under ThreadSanitizer as well.
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
                (void)tn_poll_is_canceled(&p);
                std::this_thread::yield();
            }
        });
    auto end = clock_type::now() + milliseconds(400);
    int waits = 0;
    while (clock_type::now() < end) {
        tn_uint32 count = 7;
        ASSERT_TRUE(tn_poll_check(&p, -1, &count)); // only a cancel can end it
        ASSERT_EQ(count, 0u);
        ++waits;
    }
    stop.store(true);
    for (auto &t : cancellers) t.join();
    EXPECT_GT(waits, 10);
}

} // namespace
