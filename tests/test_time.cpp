#include <tarnel_util/tn_time.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <ctime>

namespace {

tn_time msec_now()
{
    tn_time t;
    tn_time_msec(&t);
    return t;
}

} // namespace

TEST(Clock, ThreeResolutionsShareTheUnixEpoch)
{
    // Retry across a second boundary rather than accept a torn reading.
    for (int attempt = 0; attempt < 5; ++attempt) {
        tn_time s, ms, us, s2;
        tn_time_sec(&s);
        tn_time_msec(&ms);
        tn_time_usec(&us);
        tn_time_sec(&s2);
        if (s != s2) continue;
        EXPECT_EQ(ms / 1000, s);
        EXPECT_EQ(us / 1000000, s);
        EXPECT_NEAR(static_cast<double>(s), static_cast<double>(std::time(nullptr)), 2.0);
        EXPECT_GT(s, 1700000000); // a plausible wall clock, not a monotonic count
        return;
    }
    FAIL() << "the second never held still";
}

TEST(Elapse, DeltaMovesTheMarkAndTotalCountsFromStart)
{
    tn_elapse e;
    tn_elapse_start(&e);
    EXPECT_EQ(e.start, e.mark);
    tn_thread_sleep(30);
    tn_uint32 d1 = tn_elapse_delta(&e);
    tn_uint32 d2 = tn_elapse_delta(&e);
    tn_uint32 total = tn_elapse_total(&e);
    EXPECT_GE(d1, 29u);
    EXPECT_LT(d2, d1); // immediately after: the time between the two calls only
    EXPECT_GE(total, d1);
    EXPECT_LT(total, 5000u);
    EXPECT_NE(e.mark, e.start);
}

TEST(Elapse, ArithmeticWrapsAtThirtyTwoBits)
{
    const tn_time two32 = tn_time{1} << 32;
    tn_time now = msec_now();
    tn_elapse e{now - two32 - 5, now - two32 - 5};
    // Differences are taken modulo 2^32: five milliseconds, not 2^32 + 5.
    tn_uint32 total = tn_elapse_total(&e);
    EXPECT_GE(total, 5u);
    EXPECT_LT(total, 1000u);
    tn_uint32 delta = tn_elapse_delta(&e);
    EXPECT_GE(delta, 5u);
    EXPECT_LT(delta, 1000u);

    // A clock that went back reads as a huge unsigned delta.
    tn_elapse back{now + 1000, now + 1000};
    tn_uint32 jumped = tn_elapse_delta(&back);
    EXPECT_GT(jumped, 0xFFFFFFFFu - 1000u - 1000u);
}

TEST(Sleep, SleepsAtLeastAndYieldReturns)
{
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(tn_thread_sleep(40), 1);
    auto slept = std::chrono::steady_clock::now() - t0;
    EXPECT_GE(slept, std::chrono::milliseconds(40));
    EXPECT_LT(slept, std::chrono::seconds(5));

    t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(tn_thread_sleep(0), 1);
    tn_thread_yield();
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(1));
}
