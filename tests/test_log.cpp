#include <tarnel_util/tn_log.h>
#include <tarnel_util/tn_time.h>

#include "tn_test_alloc.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Env = std::vector<std::pair<const char *, const char *>>;

// The log is set up once per process, so every case runs its body in a
// child of its own: in a fresh temporary directory, with only the given
// TN_LOG_ variables, and with standard output and error going to the files
// "out" and "err" there. The body's result is the child's exit status.
class Log : public ::testing::Test {
protected:
    fs::path dir;
    void SetUp() override
    {
        char name[] = "/tmp/tn_log_XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir = name;
    }
    void TearDown() override { fs::remove_all(dir); }

    int run(const Env &env, const std::function<int()> &body)
    {
        std::fflush(nullptr); // the child must not write the parent's buffered output
        pid_t pid = fork();
        if (pid == 0) {
            if (chdir(dir.c_str()) != 0) _exit(100);
            for (const char *name : {"TN_LOG_LEVEL", "TN_LOG_PATH", "TN_LOG_INCLUDE", "TN_LOG_EXCLUDE"}) unsetenv(name);
            for (const auto &[name, value] : env) setenv(name, value, 1);
            int out = open("out", O_WRONLY | O_CREAT | O_TRUNC, 0600), err = open("err", O_WRONLY | O_CREAT | O_TRUNC, 0600);
            if (out < 0 || err < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(101);
            _exit(body());
        }
        int status = -1;
        waitpid(pid, &status, 0);
        const std::string err = file("err");
        if (err.find("Sanitizer") != std::string::npos || err.find("runtime error") != std::string::npos) ADD_FAILURE() << err;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    std::string file(const char *name) const
    {
        std::ifstream in(dir / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
    bool exists(const char *name) const { return fs::exists(dir / name); }
};

// One line of each level, so the output shows the level in force.
void each_level(const char *message)
{
    tn_log_e(nullptr, message), tn_log_w(nullptr, message), tn_log_i(nullptr, message), tn_log_d(nullptr, message);
}

std::string up_to(int level, const char *message)
{
    std::string s;
    for (int l = 1; l <= level; ++l) s += std::string(1, " EWID"[l]) + ": " + message + "\n";
    return s;
}

TEST_F(Log, SilentByDefaultOnStandardErrorAndSetLevelIsHeldToTheRange)
{
    EXPECT_EQ(run({}, [] {
        each_level("quiet");
        tn_log_eh(nullptr, "x", 1);
        int again = tn_log_set_path("late.log"); // the first call has set the log up
        for (tn_int32 level : {5, -1, INT32_MIN, 3, INT32_MAX, 0}) tn_log_set_level(level), each_level("m");
        return again;
    }), 0);
    EXPECT_EQ(file("err"), up_to(4, "m") + up_to(3, "m") + up_to(4, "m"));
    EXPECT_EQ(file("out"), "");
    EXPECT_FALSE(exists("late.log"));
}

TEST_F(Log, LevelFromEnvironmentOverridesSetLevel)
{
    const struct { const char *value; int level; } cases[] = {
        {nullptr, 2}, {"", 2}, {"0", 0}, {"3", 3}, {"9", 4}, {"abc", 0}, {"2x", 2},
        {"4294967295", 0}, {"2147483648", 0}, {"2147483647", 4},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.value ? c.value : "(unset)");
        Env env;
        if (c.value) env.push_back({"TN_LOG_LEVEL", c.value});
        EXPECT_EQ(run(env, [] { return tn_log_set_level(2), each_level("m"), 0; }), 0);
        EXPECT_EQ(file("err"), up_to(c.level, "m"));
    }
}

TEST_F(Log, PathFromEnvironmentChoosesTheStream)
{
    const struct { const char *path, *where; } cases[] = {
        {"STDOUT", "out"}, {"STDERR", "err"}, {"stdout", "stdout"}, {"Stderr", "Stderr"},
        {"log.txt", "log.txt"}, {"no/such/dir", "err"}, {"", "err"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.path);
        std::ofstream(dir / "log.txt") << "old content\n"; // the file starts empty
        EXPECT_EQ(run({{"TN_LOG_LEVEL", "1"}, {"TN_LOG_PATH", c.path}}, [] { return tn_log_e(nullptr, "m"), 0; }), 0);
        const std::string where = c.where;
        EXPECT_EQ(file(c.where), "E: m\n");
        EXPECT_EQ(file("out") + file("err"), where == "out" || where == "err" ? "E: m\n" : "");
        fs::remove(dir / "stdout"), fs::remove(dir / "Stderr");
    }
}

TEST_F(Log, SetPathWorksOnceAndOnlyBeforeTheFirstLine)
{
    const Env env = {{"TN_LOG_LEVEL", "1"}, {"TN_LOG_PATH", "env.log"}};
    EXPECT_EQ(run(env, [] {
        int first = tn_log_set_path("a.log"), second = tn_log_set_path("b.log");
        tn_log_e(nullptr, "m");
        return first * 10 + second;
    }), 10);
    EXPECT_EQ(file("a.log"), "E: m\n");
    EXPECT_FALSE(exists("b.log"));
    EXPECT_FALSE(exists("env.log"));

    EXPECT_EQ(run(env, [] {
        int first = tn_log_set_path(nullptr), second = tn_log_set_path("a.log");
        tn_log_e(nullptr, "n");
        return first * 10 + second;
    }), 10);
    EXPECT_EQ(file("env.log"), "E: n\n");

    EXPECT_EQ(run(env, [] { return tn_log_e(nullptr, "o"), tn_log_set_path("c.log"); }), 0);
    EXPECT_EQ(file("env.log"), "E: o\n");
    EXPECT_FALSE(exists("c.log"));
}

TEST_F(Log, TagFilter)
{
    const struct { const char *include, *exclude, *expected; } cases[] = {
        {nullptr, nullptr, "E: a: 1\nE: c: 2\nE: 3\n"},
        {"a,b", nullptr, "E: a: 1\nE: 3\n"},
        {nullptr, "a,b", "E: c: 2\nE: 3\n"},
        {"a", "c", "E: a: 1\nE: c: 2\nE: 3\n"}, // both set: no filter
        {"", "a", "E: c: 2\nE: 3\n"},           // an empty one counts as unset
        {"ab,a\\,c", nullptr, "E: 3\n"},        // exact matches only, escapes undone
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.include ? c.include : "-") + " / " + (c.exclude ? c.exclude : "-"));
        Env env = {{"TN_LOG_LEVEL", "1"}};
        if (c.include) env.push_back({"TN_LOG_INCLUDE", c.include});
        if (c.exclude) env.push_back({"TN_LOG_EXCLUDE", c.exclude});
        EXPECT_EQ(run(env, [] { return tn_log_e("a", "1"), tn_log_e("c", "2"), tn_log_e(nullptr, "3"), 0; }), 0);
        EXPECT_EQ(file("err"), c.expected);
    }
}

TEST_F(Log, LinesAreByteExact)
{
    ASSERT_EQ(run({{"TN_LOG_LEVEL", "4"}, {"TN_LOG_PATH", "log"}}, [] {
        unsigned char bytes[17];
        for (int i = 0; i < 17; ++i) bytes[i] = static_cast<unsigned char>(i * 15 + 1);
        tn_log_d("t", "100% %s %n");
        tn_log_wv("tn_mcast", "join: %u", 1u);
        tn_log_iv(nullptr, "%s|%d", std::string(3000, 'x').c_str(), -7); // longer than any line buffer
        tn_log_e(std::string(700, 'g').c_str(), "long tag");
        tn_log_en("n", "a\0b%", 4);
        tn_log_dn(nullptr, "", 0);
        tn_log_dh("h", bytes, 0);
        tn_log_ih(nullptr, bytes, 16);
        tn_log_wh("h", bytes, 17);
        return 0;
    }), 0);
    std::string expected = "D: t: 100% %s %n\nW: tn_mcast: join: 1\nI: " + std::string(3000, 'x') + "|-7\n" + "E: " +
                           std::string(700, 'g') + ": long tag\n" + std::string("E: n: a\0b%\n", 11) + "D: \n" +
                           "D: h: 00000000\n";
    const std::string row = " 01 10 1f 2e 3d 4c 5b 6a 79 88 97 a6 b5 c4 d3 e2";
    expected += "I: 00000000" + row + "\nI: 00000010\n";
    expected += "W: h: 00000000" + row + "\nW: h: 00000010 f1\nW: h: 00000020\n";
    EXPECT_EQ(file("log"), expected);
}

TEST_F(Log, TimedFormsStartWithTheClock)
{
    tn_time before, after;
    tn_time_msec(&before);
    ASSERT_EQ(run({{"TN_LOG_LEVEL", "4"}}, [] { return tn_log_dt("t", "m"), tn_log_evt(nullptr, "%d%%", 5), 0; }), 0);
    tn_time_msec(&after);
    const std::string err = file("err");
    long long stamp[2] = {-1, -1};
    char rest[2][16] = {};
    ASSERT_EQ(std::sscanf(err.c_str(), "%lld %15[^\n]\n%lld %15[^\n]\n", &stamp[0], rest[0], &stamp[1], rest[1]), 4) << err;
    EXPECT_EQ(err, std::to_string(stamp[0]) + " D: t: m\n" + std::to_string(stamp[1]) + " E: 5%\n");
    for (long long t : stamp) EXPECT_TRUE(before <= t && t <= after) << t << " not in [" << before << ", " << after << "]";
}

TEST_F(Log, FailedSetUpDropsTheLineAndRetriesAndNoCallAllocates)
{
    EXPECT_EQ(run({{"TN_LOG_LEVEL", "4"}, {"TN_LOG_PATH", "log"}}, [] {
        tn_test::install_counting_hooks();
        tn_test::fail_nth_allocation(1); // the mutex
        tn_log_e(nullptr, "lost");
        if (!tn_test::failure_fired()) return 1;
        tn_log_e(nullptr, "kept");
        tn_test::reset_counts();
        tn_log_dt("t", "a"), tn_log_iv("t", "%d", 1), tn_log_wn("t", "b", 1), tn_log_eh("t", "c", 1);
        return tn_test::allocations() == 0 ? 0 : 2;
    }), 0);
    EXPECT_EQ(file("log").substr(0, 8), "E: kept\n");
    // A split that runs out of memory leaves no filter.
    EXPECT_EQ(run({{"TN_LOG_LEVEL", "1"}, {"TN_LOG_INCLUDE", "a"}}, [] {
        tn_test::install_counting_hooks();
        tn_test::fail_nth_allocation(2);
        return tn_log_e("c", "m"), tn_test::failure_fired() ? 0 : 1;
    }), 0);
    EXPECT_EQ(file("err"), "E: c: m\n");
}

TEST(LogEnv, GetReadsTheEnvironment)
{
    const char *name = "TN_TEST_LOG_VARIABLE";
    unsetenv(name);
    EXPECT_EQ(tn_env_get(name), nullptr);
    setenv(name, "", 1);
    EXPECT_STREQ(tn_env_get(name), ""); // not null
    unsetenv(name);
}

TEST_F(Log, LinesOfThreadsNeverMix)
{
    constexpr int threads = 8, lines = 300;
    // Some bodies, and every dump's tag, are longer than any line buffer, so
    // that their lines reach the stream in several writes.
    auto body = [](int t, int i) { return std::to_string(t) + " " + std::to_string(i) + std::string(size_t(i % 7) * 150, '.'); };
    auto tag = [](int t) { return "h" + std::to_string(t) + std::string(600, 'x'); };
    ASSERT_EQ(run({{"TN_LOG_LEVEL", "4"}, {"TN_LOG_PATH", "log"}}, [&] {
        tn_log_d(nullptr, "start"); // set-up on one thread, before the others log
        std::vector<std::thread> pool;
        for (int t = 0; t < threads; ++t)
            pool.emplace_back([&, t] {
                const unsigned char byte = 0xab;
                for (int i = 0; i < lines; ++i) {
                    tn_log_set_level(4);
                    if (i % 2) tn_log_dvt("w", "%s", body(t, i).c_str());
                    else tn_log_dv("w", "%s", body(t, i).c_str());
                    if (i % 50 == 0) tn_log_dh(tag(t).c_str(), &byte, 1);
                }
            });
        for (auto &th : pool) th.join();
        return 0;
    }), 0) << file("err");
    EXPECT_EQ(file("err"), ""); // sanitizer reports land here

    std::vector<std::string> want = {"D: start"}, got;
    for (int t = 0; t < threads; ++t)
        for (int i = 0; i < lines; ++i) {
            want.push_back("D: w: " + body(t, i));
            if (i % 50 == 0) want.insert(want.end(), {"D: " + tag(t) + ": 00000000 ab", "D: " + tag(t) + ": 00000010"});
        }
    std::istringstream in(file("log"));
    for (std::string line; std::getline(in, line);) {
        size_t time = line.find_first_not_of("0123456789");
        if (time && time != std::string::npos && line[time] == ' ') line.erase(0, time + 1);
        if (!got.empty() && got.back().ends_with(": 00000000 ab")) { // a dump's lines stay together
            ASSERT_EQ(line, got.back().substr(0, got.back().size() - 11) + "00000010");
        }
        got.push_back(line);
    }
    std::sort(want.begin(), want.end());
    std::sort(got.begin(), got.end());
    auto [w, g] = std::mismatch(want.begin(), want.end(), got.begin(), got.end());
    EXPECT_TRUE(w == want.end() && g == got.end()) << "expected " << (w == want.end() ? "(end)" : *w) << "\nfound "
                                                   << (g == got.end() ? "(end)" : *g);
}

} // namespace
