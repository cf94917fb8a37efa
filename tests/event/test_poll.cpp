#include <tarnel_util/tn_poll.h>
#include <tarnel_util/tn_time.h>
#include "support/alloc.h"
#include "support/socket_pair.h"
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {
using Pair = tn_test::SocketPair;
using steady = std::chrono::steady_clock;
using std::chrono::milliseconds;
struct Poll : tn_test::AllocTest {
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
    milliseconds check(tn_int32 timeout, tn_uint32 *count) // one check: its count, and how long it took
    {
        const auto t0 = steady::now();
        EXPECT_TRUE(tn_poll_check(&p, timeout, count));
        return std::chrono::duration_cast<milliseconds>(steady::now() - t0);
    }
    tn_uint32 status(int s) // the last result bits, or 0xDEAD for a socket not in the set
    {
        tn_uint32 bits = 0xDEAD;
        return tn_poll_get_status(&p, s, &bits) ? bits : 0xDEAD;
    }
};

TEST_F(Poll, EntriesKeepOrderAndResultBitsAcrossSetARefusedAppendSticks)
{
    Pair x, y, z;
    ASSERT_TRUE(tn_poll_set(&p, x.ours, TN_POLL_READ));
    ASSERT_TRUE(tn_poll_set(&p, y.ours, TN_POLL_WRITE));
    ASSERT_TRUE(tn_poll_set(&p, z.ours, 0));
    tn_uint32 count = 0, bits = 77;
    check(0, &count);
    EXPECT_EQ(count, 1u) << "only y is ready as asked";
    ASSERT_TRUE(tn_poll_set(&p, y.ours, TN_POLL_READ)); // replaces the request, keeps the last result
    EXPECT_EQ(tn_array_length(&p.entries), 3u);
    EXPECT_EQ(status(y.ours), TN_POLL_WRITE);
    EXPECT_TRUE(tn_poll_remove(&p, x.ours));
    EXPECT_TRUE(tn_poll_remove(&p, x.ours)) << "absent: still 1";
    EXPECT_EQ(tn_pollinfo_array_find(&p.entries, z.ours), 1u) << "the order stays";
    EXPECT_EQ(tn_pollinfo_array_find(&p.entries, x.ours), 2u);
    EXPECT_EQ(tn_pollinfo_array_get_end(&p.entries)->socket, z.ours);
    EXPECT_FALSE(tn_poll_get_status(&p, x.ours, &bits));
    EXPECT_EQ(bits, 77u) << "a miss leaves the bits alone";
    tn_poll_cancel(&p);
    EXPECT_TRUE(tn_poll_reset(&p));
    EXPECT_EQ(tn_array_length(&p.entries), 0u);
    EXPECT_FALSE(tn_poll_is_canceled(&p)) << "reset clears the cancel";
    tn_poll_free(&p);
    tn_poll_create(&p);
    tn_test::fail_nth_allocation(1); // fails the entries until tn_poll_free
    EXPECT_FALSE(tn_poll_set(&p, x.ours, TN_POLL_READ));
    tn_poll_reset(&p);
    EXPECT_FALSE(tn_poll_set(&p, x.ours, TN_POLL_READ)) << "reset cleared a refused append";
}

// A cancel made before a check ends it at once, looking at nothing (the old result stays), and is consumed: the
// next check waits out its time-out, slice by slice. One from another thread wakes the wait at once: ten cancels
// all landing within 50 ms of a 100 ms slice would happen by chance about once in a thousand runs without that.
TEST_F(Poll, ACancelEndsOneCheckAtOnce)
{
    Pair x;
    for (bool with_socket : {false, true}) {
        SCOPED_TRACE(with_socket ? "one socket" : "empty set");
        tn_uint32 count = 99;
        char c;
        if (with_socket) {
            x.send_byte();
            ASSERT_TRUE(tn_poll_set(&p, x.ours, TN_POLL_READ));
            check(0, &count);
            ASSERT_EQ(read(x.ours, &c, 1), 1);
        }
        tn_poll_cancel(&p);
        EXPECT_LT(check(5000, &count), milliseconds(50));
        EXPECT_EQ(count, 0u);
        EXPECT_EQ(status(x.ours), with_socket ? TN_POLL_READ : 0xDEADu) << "the old result stays";
        EXPECT_FALSE(tn_poll_is_canceled(&p));
        EXPECT_GE(check(250, &count), milliseconds(245));
        EXPECT_EQ(status(x.ours), with_socket ? 0u : 0xDEADu);
        milliseconds worst{0};
        for (int round = 0; round < 10; ++round) {
            std::atomic<bool> waiting{false};
            steady::time_point sent{};
            std::thread canceller([&] {
                while (!waiting) std::this_thread::yield();
                std::this_thread::sleep_for(milliseconds(20 + 7 * round));
                sent = steady::now();
                tn_poll_cancel(&p);
            });
            waiting = true;
            EXPECT_TRUE(tn_poll_check(&p, -1, &count));
            EXPECT_EQ(count, 0u);
            const auto back = steady::now();
            canceller.join();
            worst = std::max(worst, std::chrono::duration_cast<milliseconds>(back - sent));
        }
        EXPECT_LT(worst, milliseconds(50));
    }
}

// Three threads hammer the record with cancels while the owner waits without limit: only a cancel can end the
// wait, so a lost wake-up hangs. Then one spinning thread races 1 ms checks, which leaves wake-ups behind that no
// wait consumed; none may be written after the waiter left, and later waits still sit out their whole time-out.
TEST_F(Poll, HammeringCancelsLoseNoWakeUpAndLeaveNoneThatShortensATimeOut)
{
    Pair idle;
    ASSERT_TRUE(tn_poll_set(&p, idle.ours, TN_POLL_READ));
    std::atomic<bool> stop{false};
    std::vector<std::thread> cancellers;
    for (int t = 0; t < 3; ++t)
        cancellers.emplace_back([&] {
            for (; !stop; std::this_thread::yield()) tn_poll_cancel(&p);
        });
    tn_uint32 count = 7;
    int waits = 0;
    for (auto end = steady::now() + milliseconds(400); steady::now() < end && !HasFailure(); ++waits) {
        EXPECT_TRUE(tn_poll_check(&p, -1, &count)) << "wait " << waits;
        EXPECT_EQ(count, 0u) << "wait " << waits;
    }
    stop = true;
    for (auto &t : cancellers) t.join();
    EXPECT_GT(waits, 10);
    stop = false;
    std::thread spinner([&] { while (!stop) tn_poll_cancel(&p); });
    for (int i = 0; i < 2000; ++i) tn_poll_check(&p, 1, &count);
    stop = true;
    spinner.join();
    check(0, &count); // consumes a last pending cancel
    for (int i = 0; i < 3; ++i) EXPECT_GE(check(150, &count), milliseconds(145));
}

// The peer's orderly close reads as readable, and then as 0 bytes; a write to it would fail, so it is an error,
// not write readiness. A deadline that has come touches neither the set nor the flag; deadline 0 has no limit.
TEST_F(Poll, WaitsSeeDataOrderlyCloseAndDeadlines)
{
    Pair x;
    ASSERT_TRUE(tn_poll_set(&p, x.ours, TN_POLL_WRITE)); // replaced by the wait, and removed after it
    EXPECT_FALSE(tn_poll_wait_read(&p, x.ours, 30));
    EXPECT_EQ(tn_array_length(&p.entries), 0u);
    x.send_byte();
    EXPECT_TRUE(tn_poll_wait_read(&p, x.ours, 1000));
    char c;
    ASSERT_EQ(read(x.ours, &c, 1), 1);
    tn_time now, none = 0;
    tn_time_msec(&now);
    const tn_time soon = now + 5000;
    tn_poll_cancel(&p);
    EXPECT_FALSE(tn_poll_wait_read_abs(&p, x.ours, &now));
    EXPECT_TRUE(tn_poll_is_canceled(&p));
    tn_poll_reset(&p);
    EXPECT_TRUE(tn_poll_wait_write_abs(&p, x.ours, &soon));
    std::thread canceller([&] {
        std::this_thread::sleep_for(milliseconds(150));
        tn_poll_cancel(&p);
    });
    const auto t0 = steady::now();
    EXPECT_FALSE(tn_poll_wait_read_abs(&p, x.ours, &none)) << "ended by the cancel";
    EXPECT_GE(steady::now() - t0, milliseconds(140));
    canceller.join();
    x.close_peer();
    EXPECT_TRUE(tn_poll_wait_read(&p, x.ours, 1000));
    EXPECT_EQ(read(x.ours, &c, 1), 0);
    EXPECT_FALSE(tn_poll_wait_write(&p, x.ours, 1000));
}

// A non-blocking connect to a closed loopback port fails through the error bit, even on an entry that requests
// nothing; a handle that is not open is an error at once, not a silent hang.
TEST_F(Poll, ErrorsAreWatchedWithoutBeingAsked)
{
    int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof addr;
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&addr), len), 0);
    ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr *>(&addr), &len), 0);
    close(listener);
    tn_uint32 count = 0;
    for (tn_uint32 requested : {0u, unsigned{TN_POLL_WRITE}}) {
        SCOPED_TRACE(requested);
        int s = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        connect(s, reinterpret_cast<sockaddr *>(&addr), len);
        ASSERT_TRUE(tn_poll_set(&p, s, requested));
        check(2000, &count);
        EXPECT_EQ(count, 1u);
        EXPECT_TRUE(status(s) & TN_POLL_ERROR) << status(s);
        tn_poll_remove(&p, s);
        EXPECT_FALSE(tn_poll_wait_write(&p, s, 1000));
        close(s);
    }
    ASSERT_TRUE(tn_poll_set(&p, -1, TN_POLL_READ));
    EXPECT_LT(check(3000, &count), milliseconds(1000));
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(status(-1), TN_POLL_ERROR);
}

// Beyond 64 entries the wait keeps a descriptor list of its own: there is no limit, a list that cannot be had
// fails the check cleanly (count 0, every result cleared), and once it is made, waits allocate nothing.
TEST_F(Poll, LargeSetsHaveNoSixtyFourLimitFailCleanlyAndWaitWithoutAllocating)
{
    std::vector<Pair> pairs(150);
    tn_uint32 count = 0;
    for (int i = 0; i < 150; ++i) { // the first 64 are writable, and checked before the set outgrows 64
        if (i == 64) {
            check(0, &count);
            EXPECT_EQ(count, 64u);
        }
        ASSERT_TRUE(tn_poll_set(&p, pairs[i].ours, i < 64 ? TN_POLL_WRITE : TN_POLL_READ));
    }
    pairs.back().send_byte();
    pairs[64].send_byte();
    tn_test::fail_nth_allocation(1);
    EXPECT_FALSE(tn_poll_check(&p, 0, &count));
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(status(pairs[0].ours), 0u) << "every result cleared";
    tn_test::fail_nth_allocation(0);
    check(1000, &count);
    EXPECT_EQ(count, 66u);
    EXPECT_EQ(status(pairs[0].ours), TN_POLL_WRITE);
    EXPECT_EQ(status(pairs[64].ours), TN_POLL_READ);
    EXPECT_EQ(status(pairs[65].ours), 0u);
    EXPECT_EQ(status(pairs.back().ours), TN_POLL_READ);
    tn_test::reset_counts();
    for (int i = 0; i < 20; ++i) check(0, &count);
    EXPECT_EQ(tn_test::allocations(), 0) << "a steady-state wait allocated";
}
} // namespace
