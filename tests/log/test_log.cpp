#include <tarnel_util/tn_log.h>
#include <tarnel_util/tn_time.h>
#include "support/alloc.h"
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {
namespace fs = std::filesystem;
using Env = std::vector<std::pair<const char *, const char *>>;

// The log is set up once per process, so each case runs its body in a child, in a fresh directory, with only the
// given TN_LOG_ variables set and standard output and error in files "out" and "err"; run returns the exit status.
struct Log : ::testing::Test {
    fs::path dir = [] { char name[] = "/tmp/tn_log_XXXXXX"; return std::string(mkdtemp(name) ? name : "/nonexistent"); }();
    ~Log() override { fs::remove_all(dir); }
    template <class Body> int run(const Env &env, Body body)
    {
        std::fflush(nullptr); // the child must not write the parent's buffered output
        if (fork() == 0) {
            if (chdir(dir.c_str()) != 0) _exit(100);
            for (const char *name : {"TN_LOG_LEVEL", "TN_LOG_PATH", "TN_LOG_INCLUDE", "TN_LOG_EXCLUDE"}) unsetenv(name);
            for (const auto &[name, value] : env)
                if (value) setenv(name, value, 1);
            int out = open("out", O_WRONLY | O_CREAT | O_TRUNC, 0600), err = open("err", O_WRONLY | O_CREAT | O_TRUNC, 0600);
            if (out < 0 || err < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(101);
            _exit(body());
        }
        int status = -1;
        wait(&status);
        const std::string err = file("err");
        if (err.find("Sanitizer") != err.npos || err.find("runtime error") != err.npos) ADD_FAILURE() << err;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    std::string file(const char *name) const
    { std::ifstream in(dir / name, std::ios::binary); return {std::istreambuf_iterator<char>(in), {}}; }
    bool exists(const char *name) const { return fs::exists(dir / name); }
};

// One line of each level, the first two tagged "a" and "c"; lines() gives the text of those of the levels named.
int each_level()
{
    tn_log_e("a", "1"); tn_log_w("c", "2"); tn_log_i(nullptr, "3"); tn_log_d(nullptr, "4");
    return 0;
}
std::string lines(const std::string &levels)
{
    std::string s;
    for (char l : levels) s += l == 'E' ? "E: a: 1\n" : l == 'W' ? "W: c: 2\n" : l == 'I' ? "I: 3\n" : "D: 4\n";
    return s;
}

TEST_F(Log, SilentByDefaultOnStandardErrorAndSetLevelIsHeldToTheRange)
{
    EXPECT_EQ(run({}, [] {
        each_level(); // silent: the default level is 0
        tn_log_eh(nullptr, "x", 1);
        const int again = tn_log_set_path("late.log"); // the first call has set the log up
        for (tn_int32 level : {5, -1, INT32_MIN, 3, INT32_MAX, 0}) {
            tn_log_set_level(level);
            each_level();
        }
        return again;
    }), 0);
    EXPECT_EQ(file("err"), lines("EWID") + lines("EWI") + lines("EWID")) << "silent first, then levels held to 0..4";
    EXPECT_EQ(file("out"), "");
    EXPECT_FALSE(exists("late.log"));
}

TEST_F(Log, EnvironmentSetsLevelStreamAndTagFilter)
{
    struct Row { const char *level = nullptr, *path = nullptr, *include = nullptr, *exclude = nullptr;
                 const char *where = "err", *lines = "EW"; };
    const Row rows[] = { // the host sets level 2 before set-up
        {}, {.level = ""}, {.level = "0", .lines = ""}, {.level = "3", .lines = "EWI"}, {.level = "9", .lines = "EWID"},
        {.level = "abc", .lines = ""}, {.level = "2x"}, {.level = "4294967295", .lines = ""},
        {.level = "2147483648", .lines = ""}, {.level = "2147483647", .lines = "EWID"},
        {.path = "STDOUT", .where = "out"}, {.path = "STDERR"}, {.path = "stdout", .where = "stdout"},
        {.path = "Stderr", .where = "Stderr"}, {.path = "log.txt", .where = "log.txt"}, {.path = "no/such/dir"},
        {.path = ""},
        {.level = "3", .include = "a,b", .lines = "EI"},
        {.level = "3", .exclude = "a,b", .lines = "WI"},
        {.level = "3", .include = "a", .exclude = "c", .lines = "EWI"}, // both set: no filter
        {.level = "3", .include = "", .exclude = "a", .lines = "WI"},   // an empty one counts as unset
        {.level = "3", .include = "ab,a\\,c", .lines = "I"},           // exact matches only, escapes undone
    };
    for (const Row &r : rows) {
        const Env env = {{"TN_LOG_LEVEL", r.level}, {"TN_LOG_PATH", r.path}, {"TN_LOG_INCLUDE", r.include},
                         {"TN_LOG_EXCLUDE", r.exclude}};
        SCOPED_TRACE(testing::PrintToString(env));
        std::ofstream(dir / "log.txt") << "old content\n"; // a file starts empty
        EXPECT_EQ(run(env, [] { tn_log_set_level(2); return each_level(); }), 0);
        EXPECT_EQ(file(r.where), lines(r.lines));
        const bool standard = std::string(r.where) == "out" || std::string(r.where) == "err";
        EXPECT_EQ(file("out") + file("err"), standard ? lines(r.lines) : "") << "written elsewhere too";
    }
}

TEST_F(Log, SetPathWorksOnceAndOnlyBeforeTheFirstLine)
{
    for (const char *first : {"a.log", static_cast<const char *>(nullptr)}) { // null leaves it to TN_LOG_PATH
        SCOPED_TRACE(first ? first : "(null)");
        EXPECT_EQ(run({{"TN_LOG_LEVEL", "1"}, {"TN_LOG_PATH", "env.log"}}, [&] {
            const int a = tn_log_set_path(first), b = tn_log_set_path("b.log");
            tn_log_e(nullptr, "m");
            return a * 10 + b;
        }), 10) << "the first set_path succeeds, the second fails";
        EXPECT_EQ(file(first ? first : "env.log"), "E: m\n");
        EXPECT_FALSE(exists("b.log"));
        EXPECT_EQ(exists("env.log"), !first) << "the path set beats the variable";
    }
}

TEST_F(Log, LinesAreByteExact)
{
    tn_time before, after;
    tn_time_msec(&before);
    ASSERT_EQ(run({{"TN_LOG_LEVEL", "4"}, {"TN_LOG_PATH", "log"}}, [] {
        const char *bytes = "\x01\x10\x1f\x2e\x3d\x4c\x5b\x6a\x79\x88\x97\xa6\xb5\xc4\xd3\xe2\xf1";
        tn_log_d("t", "100% %s %n"); // not a format
        tn_log_wv("tn_mcast", "join: %u", 1u);
        tn_log_iv(nullptr, "%s|%d", std::string(3000, 'x').c_str(), -7); // longer than any line buffer
        tn_log_e(std::string(700, 'g').c_str(), "long tag");
        tn_log_en("n", "a\0b%", 4); tn_log_dn(nullptr, "", 0);
        tn_log_dh("h", bytes, 0); tn_log_ih(nullptr, bytes, 16); tn_log_wh("h", bytes, 17);
        tn_log_dt("t", "m"); tn_log_evt(nullptr, "%d%%", 5);
        return 0;
    }), 0);
    tn_time_msec(&after);
    const std::string row = " 01 10 1f 2e 3d 4c 5b 6a 79 88 97 a6 b5 c4 d3 e2", log = file("log");
    const std::string fixed = "D: t: 100% %s %n\nW: tn_mcast: join: 1\nI: " + std::string(3000, 'x') + "|-7\nE: " +
                              std::string(700, 'g') + ": long tag\n" + std::string("E: n: a\0b%\nD: \n", 15) +
                              "D: h: 00000000\nI: 00000000" + row + "\nI: 00000010\nW: h: 00000000" + row +
                              "\nW: h: 00000010 f1\nW: h: 00000020\n";
    long long stamp[2] = {-1, -1}; // the timed forms: the clock in front
    EXPECT_EQ(std::sscanf(log.c_str() + std::min(fixed.size(), log.size()), "%lld D: t: m\n%lld", &stamp[0], &stamp[1]), 2);
    EXPECT_EQ(log, fixed + std::to_string(stamp[0]) + " D: t: m\n" + std::to_string(stamp[1]) + " E: 5%\n");
    for (long long t : stamp) EXPECT_TRUE(t >= before && t <= after) << t << " outside " << before << ".." << after;
}

// A set-up whose mutex cannot be made drops the line and is tried again; a split of the tag filter that runs out of
// memory leaves no filter; and no line allocates.
TEST_F(Log, FailedSetUpDropsTheLineAndRetriesAndNoCallAllocates)
{
    EXPECT_EQ(run({{"TN_LOG_LEVEL", "4"}, {"TN_LOG_PATH", "log"}}, [] {
        tn_test::install_counting_hooks();
        tn_test::fail_nth_allocation(1); // the mutex
        tn_log_e(nullptr, "lost");
        if (!tn_test::failure_fired()) return 1;
        tn_log_e(nullptr, "kept");
        tn_test::reset_counts();
        tn_log_dt("t", "a"); tn_log_iv("t", "%d", 1); tn_log_wn("t", "b", 1); tn_log_eh("t", "c", 1);
        return tn_test::allocations() == 0 ? 0 : 2;
    }), 0) << "1: no set-up was tried; 2: a line allocated";
    EXPECT_EQ(file("log").substr(0, 8), "E: kept\n");
    EXPECT_EQ(run({{"TN_LOG_LEVEL", "1"}, {"TN_LOG_INCLUDE", "a"}}, [] {
        tn_test::install_counting_hooks();
        tn_test::fail_nth_allocation(2);
        tn_log_e("c", "m");
        return tn_test::failure_fired() ? 0 : 1;
    }), 0);
    EXPECT_EQ(file("err"), "E: c: m\n");
}

TEST(LogEnv, GetTellsEmptyFromUnset)
{
    setenv("TN_TEST_LOG_VARIABLE", "", 1);
    EXPECT_STREQ(tn_env_get("TN_TEST_LOG_VARIABLE"), ""); // not null, unlike the log's own reading
    unsetenv("TN_TEST_LOG_VARIABLE");
    EXPECT_EQ(tn_env_get("TN_TEST_LOG_VARIABLE"), nullptr);
}

// Eight threads make the log's first calls at once, so that one sets it up while the others wait for it (the file
// opened twice would lose lines), then go on changing the level and logging. Some bodies, and every dump's tag,
// outgrow the line buffer and reach the stream in several writes, which must not mix with other threads' lines.
TEST_F(Log, FirstCallsAndLinesFromManyThreadsNeverMixOrGetLost)
{
    constexpr int threads = 8, lines = 300;
    auto body = [](int t, int i) { return std::to_string(t) + " " + std::to_string(i) + std::string(i % 7 * 150u, '.'); };
    auto tag = [](int t) { return "h" + std::to_string(t) + std::string(600, 'x'); };
    ASSERT_EQ(run({{"TN_LOG_LEVEL", "4"}, {"TN_LOG_PATH", "log"}}, [&] {
        std::atomic<int> arrived{0};
        std::vector<std::thread> pool;
        for (int t = 0; t < threads; ++t)
            pool.emplace_back([&, t] {
                for (arrived.fetch_add(1); arrived.load() < threads;) std::this_thread::yield();
                for (int i = 0; i < lines; ++i) {
                    (i % 2 ? tn_log_dvt : tn_log_dv)("w", "%s", body(t, i).c_str());
                    tn_log_set_level(4);
                    if (i % 50 == 0) tn_log_dh(tag(t).c_str(), "\xab", 1);
                }
            });
        for (auto &th : pool) th.join();
        return 0;
    }), 0);
    std::vector<std::string> want, got;
    for (int t = 0; t < threads; ++t)
        for (int i = 0; i < lines; ++i) {
            want.push_back("D: w: " + body(t, i));
            if (i % 50 == 0) want.push_back("D: " + tag(t) + ": 00000000 ab\nD: " + tag(t) + ": 00000010");
        }
    std::istringstream in(file("log"));
    for (std::string line, next; std::getline(in, line);) {
        if (line.ends_with(" ab") && std::getline(in, next)) line += "\n" + next; // a dump's lines stay together
        const size_t time = line.find_first_not_of("0123456789"); // and the timed forms' clock goes
        if (time && time != line.npos && line[time] == ' ') line.erase(0, time + 1);
        got.push_back(line);
    }
    std::sort(want.begin(), want.end());
    std::sort(got.begin(), got.end());
    auto [w, g] = std::mismatch(want.begin(), want.end(), got.begin(), got.end());
    EXPECT_TRUE(w == want.end() && g == got.end()) // one line reported, rather than thousands
        << "expected " << (w == want.end() ? "(end)" : *w) << "\nfound " << (g == got.end() ? "(end)" : *g);
}

} // namespace
