#include <tarnel_util/tn_signal.h>
#include <gtest/gtest.h>
#include <csignal>

namespace {
volatile std::sig_atomic_t caught_signal = 0, caught_count = 0;
void record(int signal)
{
    caught_signal = signal;
    caught_count = caught_count + 1;
}
using handler_t = void (*)(int);
handler_t disposition(int signal)
{
    struct sigaction now{};
    sigaction(signal, nullptr, &now);
    return now.sa_handler;
}
} // namespace

TEST(Signal, IdsAreThePlatformsOwnNumbers)
{
    EXPECT_EQ(tn_signal_id_int(), SIGINT);
    EXPECT_EQ(tn_signal_id_term(), SIGTERM);
    EXPECT_EQ(tn_signal_id_alarm(), SIGALRM);
    EXPECT_EQ(tn_signal_id_child(), SIGCHLD);
    EXPECT_EQ(tn_signal_id_cont(), SIGCONT);
    EXPECT_EQ(tn_signal_id_hangup(), SIGHUP);
    EXPECT_EQ(tn_signal_id_pipe(), SIGPIPE);
}

// A caught signal's handler stays installed after it ran, so a second raise reaches it too; an ignored one is
// raised without effect, an uncaught one is back to the default; -1 stands for a signal the platform lacks, which
// every operation leaves be. The dispositions touched are given back as the process had them.
TEST(Signal, CaughtSignalRunsEachRaiseIgnoredAndMissingOnesNone)
{
    const auto old_hup = disposition(SIGHUP), old_pipe = disposition(SIGPIPE);
    tn_signal_catch(SIGHUP, record);
    EXPECT_EQ(disposition(SIGHUP), record);
    ASSERT_TRUE(tn_signal_raise(SIGHUP));
    EXPECT_EQ(caught_signal, SIGHUP);
    ASSERT_TRUE(tn_signal_raise(SIGHUP));
    EXPECT_EQ(caught_count, 2);
    tn_signal_uncatch(SIGHUP);
    EXPECT_EQ(disposition(SIGHUP), SIG_DFL);
    tn_signal_catch(SIGPIPE, record);
    tn_signal_ignore(SIGPIPE);
    EXPECT_EQ(disposition(SIGPIPE), SIG_IGN);
    EXPECT_TRUE(tn_signal_raise(SIGPIPE));
    tn_signal_catch(-1, record);
    tn_signal_ignore(-1);
    tn_signal_uncatch(-1);
    EXPECT_FALSE(tn_signal_raise(-1));
    EXPECT_EQ(caught_count, 2);
    std::signal(SIGHUP, old_hup);
    std::signal(SIGPIPE, old_pipe);
}
