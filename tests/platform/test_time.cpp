#include <tarnel_util/tn_time.h>
#include <gtest/gtest.h>
#include <chrono>
#include <ctime>

using namespace std::chrono;

TEST(Clock, ThreeResolutionsShareTheUnixEpoch)
{
    for (int attempt = 0; attempt < 5; ++attempt) { // retry across a second boundary rather than accept a torn reading
        tn_time s, ms, us, s2;
        tn_time_sec(&s);
        tn_time_msec(&ms);
        tn_time_usec(&us);
        tn_time_sec(&s2);
        if (s != s2) continue;
        EXPECT_EQ(ms / 1000, s) << "truncated, not rounded";
        EXPECT_EQ(us / 1000000, s);
        EXPECT_GE(us / 1000, ms);
        EXPECT_LT(us / 1000 - ms, 1000);
        EXPECT_NEAR(double(s), double(std::time(nullptr)), 2.0); // the wall clock, not a monotonic count
        return;
    }
    FAIL() << "the second never held still";
}

// A delta moves the mark, the total counts from the start, and both are modulo 2^32: a start 2^32 + 5 ms back
// reads as 5 ms, a clock that went back as a huge delta.
TEST(Elapse, DeltaMovesTheMarkTotalCountsFromTheStartBothWrapAt32Bits)
{
    tn_elapse e;
    tn_elapse_start(&e);
    EXPECT_EQ(e.start, e.mark);
    tn_thread_sleep(30);
    const tn_uint32 d1 = tn_elapse_delta(&e), d2 = tn_elapse_delta(&e), total = tn_elapse_total(&e);
    EXPECT_GE(d1, 29u);
    EXPECT_LT(d2, d1) << "the first delta moved the mark";
    EXPECT_GE(total, d1) << "total counts from the start";
    EXPECT_LT(total, 5000u);
    tn_time now;
    tn_time_msec(&now);
    const tn_time back = now - (tn_time{1} << 32) - 5;
    tn_elapse wrapped{back, back}, ahead{now + 1000, now + 1000};
    for (tn_uint32 ms : {tn_elapse_total(&wrapped), tn_elapse_delta(&wrapped)}) {
        EXPECT_GE(ms, 5u);
        EXPECT_LT(ms, 1000u);
    }
    EXPECT_GT(tn_elapse_delta(&ahead), 0xFFFFFFFFu - 2000u) << "a clock that went back";
}

TEST(Sleep, SleepsAtLeastAndZeroOnlyYields)
{
    for (tn_uint32 ms : {40u, 0u}) {
        const auto t0 = steady_clock::now();
        EXPECT_EQ(tn_thread_sleep(ms), 1) << ms;
        const auto slept = steady_clock::now() - t0;
        EXPECT_GE(slept, milliseconds(ms));
        EXPECT_LT(slept, seconds(1));
    }
    tn_thread_yield();
}
