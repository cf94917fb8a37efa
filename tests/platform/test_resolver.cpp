// Name lookups against a hosts file of the test's own. A forked child takes
// a private mount namespace and binds its file over /etc/hosts, so nothing
// outside the child ever sees it. That needs root (CI runs as root); the
// tests skip elsewhere.
#include <tarnel_util/tn_ip.h>
#include "support/alloc.h"
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

namespace {
constexpr int no_namespace = 77;
const tn_uchar *u(const char *s) { return reinterpret_cast<const tn_uchar *>(s); }

std::vector<std::string> texts_of(const tn_ip_array &a)
{
    std::vector<std::string> out;
    for (tn_uint32 i = 0; i < tn_array_length(&a); ++i) {
        tn_uchar text[TN_IP_STR_SIZE] = {};
        tn_uint16 port = 0;
        tn_ip_get(static_cast<const tn_ip *>(tn_array_get_pos(&a, i)), nullptr, text, &port);
        out.push_back(reinterpret_cast<const char *>(text) + (" " + std::to_string(port)));
    }
    return out;
}

// Runs body in a child that sees hosts as its /etc/hosts; the child's
// failures print there and come back as its exit status.
void with_hosts_file(const std::string &hosts, const std::function<void()> &body)
{
    char path[] = "/tmp/tn_hosts_XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, hosts.data(), hosts.size()), static_cast<ssize_t>(hosts.size()));
    close(fd);
    std::fflush(nullptr);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount(path, "/etc/hosts", nullptr, MS_BIND, nullptr) != 0) {
            _exit(no_namespace);
        }
        body();
        std::fflush(nullptr);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    unlink(path);
    ASSERT_TRUE(WIFEXITED(status)) << "the child ended by signal " << WTERMSIG(status);
    if (WEXITSTATUS(status) == no_namespace) GTEST_SKIP() << "a private mount namespace needs root";
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the child's failures are printed above";
}

// A host line whose aliases need far more room than a lookup's first
// scratch block, so that every lookup has to grow it.
std::string big_host_line(const char *address, const char *name)
{
    std::string line = std::string(address) + " " + name;
    for (int i = 0; i < 200; ++i) line += " alias-" + std::to_string(i) + "-" + std::string(40, 'x');
    return line + "\n";
}

class Resolver : public tn_test::AllocTest {
protected:
    void TearDown() override
    {
        tn_ip_use_builtin_resolver(0);
        AllocTest::TearDown();
    }
};

TEST_F(Resolver, NamesWithLongAliasListsResolveUnderBothResolvers)
{
    with_hosts_file("127.0.0.1 localhost\n" + big_host_line("10.1.2.3", "big.test"), [] {
        const struct { const char *name; std::vector<std::string> texts; } cases[] = {
            {"big.test", {"10.1.2.3 80"}},
            {"alias-199-xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx", {"10.1.2.3 80"}},
            {"small.test", {}},
        };
        for (bool builtin : {false, true}) {
            tn_ip_use_builtin_resolver(builtin);
            for (const auto &c : cases) {
                SCOPED_TRACE(std::string(builtin ? "built-in: " : "system: ") + c.name);
                tn_ip_array a;
                tn_array_init(&a, sizeof(tn_ip));
                EXPECT_EQ(tn_ip_by_name(&a, u(c.name), 80), c.texts.empty() ? 0 : 1);
                EXPECT_EQ(texts_of(a), c.texts);
                tn_array_free(&a);
            }
        }
    });
}

// Each failed allocation, the scratch block's growth among them, fails the
// lookup and leaks nothing.
TEST_F(Resolver, BuiltinLookupSurvivesEveryFailedAllocation)
{
    with_hosts_file(big_host_line("10.9.8.7", "big.test"), [] {
        tn_ip_use_builtin_resolver(1);
        const std::int64_t made = tn_test::sweep_alloc_failures([] {
            tn_ip_array a;
            tn_array_init(&a, sizeof(tn_ip));
            const bool ok = tn_ip_by_name(&a, u("big.test"), 7);
            if (ok) { EXPECT_EQ(texts_of(a), std::vector<std::string>{"10.9.8.7 7"}); }
            tn_array_free(&a);
            return ok;
        });
        // The array, the grown scratch block, an entry and its address.
        EXPECT_GE(made, 4);
    });
}
} // namespace
