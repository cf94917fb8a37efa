#include <tarnel_util/tn_signal.h>
#include <gtest/gtest.h>
#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

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
// Each test leaves the dispositions it touched as the process had them.
class Signal : public ::testing::Test {
protected:
    void SetUp() override
    {
        caught_count = 0;
        for (int s : touched) sigaction(s, nullptr, &saved[s]);
    }
    void TearDown() override
    {
        for (int s : touched) sigaction(s, &saved[s], nullptr);
    }
private:
    static constexpr int touched[] = {SIGHUP, SIGPIPE, SIGTERM};
    struct sigaction saved[NSIG]{};
};

TEST(SignalId, GivesThePlatformsOwnNumbers)
{
    const struct { const char *name; tn_int32 (*id)(void); int expected; } cases[] = {
        {"int", tn_signal_id_int, SIGINT},
        {"term", tn_signal_id_term, SIGTERM},
        {"alarm", tn_signal_id_alarm, SIGALRM},
        {"child", tn_signal_id_child, SIGCHLD},
        {"cont", tn_signal_id_cont, SIGCONT},
        {"hangup", tn_signal_id_hangup, SIGHUP},
        {"pipe", tn_signal_id_pipe, SIGPIPE},
    };
    for (const auto &c : cases) EXPECT_EQ(c.id(), c.expected) << c.name;
}

// A caught signal's handler stays installed after it ran, so a second raise reaches it too; an ignored one is
// raised without effect; -1 stands for a signal the platform lacks, which every operation leaves be.
TEST_F(Signal, CaughtSignalRunsEachRaiseIgnoredAndMissingOnesNone)
{
    tn_signal_catch(SIGHUP, record);
    EXPECT_EQ(disposition(SIGHUP), record);
    ASSERT_TRUE(tn_signal_raise(SIGHUP));
    EXPECT_EQ(caught_signal, SIGHUP);
    ASSERT_TRUE(tn_signal_raise(SIGHUP));
    EXPECT_EQ(caught_count, 2);
    tn_signal_catch(SIGPIPE, record);
    tn_signal_ignore(SIGPIPE);
    EXPECT_EQ(disposition(SIGPIPE), SIG_IGN);
    EXPECT_TRUE(tn_signal_raise(SIGPIPE));
    tn_signal_catch(-1, record);
    tn_signal_ignore(-1);
    tn_signal_uncatch(-1);
    EXPECT_FALSE(tn_signal_raise(-1));
    EXPECT_EQ(caught_count, 2);
}

// The default disposition of SIGTERM ends the process: seen from a child.
TEST_F(Signal, UncaughtSignalTakesTheDefaultAction)
{
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        tn_signal_catch(SIGTERM, record);
        tn_signal_uncatch(SIGTERM);
        tn_signal_raise(SIGTERM);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the child exited with " << WEXITSTATUS(status);
    EXPECT_EQ(WTERMSIG(status), SIGTERM);
}
} // namespace
