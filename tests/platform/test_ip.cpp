#include <tarnel_util/tn_ip.h>
#include <tarnel_util/tn_socket.h>
#include "support/alloc.h"
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {
using texts = std::vector<std::string>;
const tn_uchar *u(const char *s) { return reinterpret_cast<const tn_uchar *>(s); }

tn_ip parse(const char *text, tn_uint16 port)
{
    tn_ip ip;
    EXPECT_TRUE(tn_ip_set(&ip, u(text), port)) << text;
    return ip;
}
// The address as text and the port, as "text port".
std::string text_of(const tn_ip &ip)
{
    tn_uchar text[TN_IP_STR_SIZE] = {};
    tn_uint16 port = 0;
    const bool ok = tn_ip_get(&ip, nullptr, text, &port);
    return (ok ? reinterpret_cast<const char *>(text) : "<none>") + (" " + std::to_string(port));
}
// What a lookup by name gives, as texts; the lookup's result is the last.
texts by_name(const char *name, tn_uint16 port)
{
    tn_ip_array a;
    tn_array_init(&a, sizeof(tn_ip));
    const bool ok = tn_ip_by_name(&a, u(name), port);
    texts out;
    for (tn_uint32 i = 0; i < tn_array_length(&a); ++i)
        out.push_back(text_of(*static_cast<const tn_ip *>(tn_array_get_pos(&a, i))));
    EXPECT_TRUE(!ok || tn_ip_array_get_end(&a) == tn_array_get_pos(&a, tn_array_length(&a) - 1)) << name;
    EXPECT_TRUE(!ok || !tn_array_failed(&a)) << name;
    tn_array_free(&a);
    out.push_back(ok ? "ok" : "failed");
    return out;
}

// Each test chooses its resolver; the system's comes back at the end.
class Ip : public tn_test::AllocTest {
protected:
    void TearDown() override
    {
        tn_ip_use_builtin_resolver(0);
        AllocTest::TearDown();
    }
};

// Numeric text prints back in canonical form; anything else is refused without
// touching the record. Either way the resolver's code, 0 too, is the last error.
TEST_F(Ip, NumericTextRoundTripsAndAnythingElseIsRefused)
{
    const struct { const char *in, *out; } cases[] = { // out null: refused
        {"1.2.3.4", "1.2.3.4 65535"},
        {"localhost", nullptr},
        {"", nullptr},
        {"FE80:0::0:1", "fe80::1 65535"},
        {"::ffff:10.0.0.1", "::ffff:10.0.0.1 65535"},
        {"ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff 65535"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.in);
        tn_ip ip = parse("127.0.0.1", 7);
        const tn_ip before = ip;
        ASSERT_EQ(tn_ip_set(&ip, u(c.in), 65535), c.out ? 1 : 0);
        EXPECT_EQ(tn_socket_get_last_error(), c.out ? TN_SOCKET_ERROR_NONE : TN_SOCKET_ERROR_OTHER);
        if (c.out) {
            EXPECT_EQ(text_of(ip), c.out);
        } else {
            EXPECT_EQ(std::memcmp(&ip, &before, sizeof ip), 0) << "a refusal changed the record";
        }
    }
}

TEST_F(Ip, BytesAreThePlatformLayoutAndTheRestIsLeftAlone)
{
    static_assert(sizeof(tn_ip) == 28);
    tn_ip ip;
    std::memset(&ip, 0xEE, sizeof ip);
    const tn_uchar v6[16] = {0x20, 0x01, 0x0d, 0xb8, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    ASSERT_TRUE(tn_ip_set2(&ip, TN_IP_FAMILY_V6, v6, 0x1234));
    EXPECT_EQ(ip.bytes[0] | ip.bytes[1] << 8, 10); // AF_INET6, native (little-endian) order
    EXPECT_EQ(ip.bytes[2] << 8 | ip.bytes[3], 0x1234);
    EXPECT_EQ(std::memcmp(ip.bytes + 8, v6, 16), 0);
    for (int i : {4, 5, 6, 7, 24, 25, 26, 27}) EXPECT_EQ(ip.bytes[i], 0xEE) << "flow and scope untouched, byte " << i;
    // Null bytes change family and port only; an unknown code changes nothing.
    ip = parse("192.168.1.2", 1);
    ASSERT_TRUE(tn_ip_set2(&ip, TN_IP_FAMILY_V4, nullptr, 2));
    const tn_ip before = ip;
    EXPECT_FALSE(tn_ip_set2(&ip, 0, tn_ip_addr_any6(), 5));
    EXPECT_FALSE(tn_ip_set2(&ip, 3, tn_ip_addr_any6(), 5));
    EXPECT_EQ(std::memcmp(&ip, &before, sizeof ip), 0);
    tn_uint32 family = 0, length = 0;
    tn_uint16 port = 0;
    tn_uchar bytes[16] = {};
    ASSERT_TRUE(tn_ip_get2(&ip, &family, bytes, &length, &port));
    EXPECT_EQ(family, 1u);
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(port, 2u);
    EXPECT_EQ(std::memcmp(bytes, "\xC0\xA8\x01\x02", 4), 0);
    // Family code 0 stores the family alone, with or without text.
    tn_ip_init(&ip);
    family = 9;
    length = 77;
    port = 88;
    tn_uchar text[TN_IP_STR_SIZE] = "untouched";
    EXPECT_TRUE(tn_ip_get2(&ip, &family, bytes, &length, &port));
    EXPECT_TRUE(tn_ip_get(&ip, &family, text, &port));
    EXPECT_EQ(family, 0u);
    EXPECT_EQ(length, 77u) << "no length for no family";
    EXPECT_EQ(port, 88u) << "no port for no family";
    EXPECT_STREQ(reinterpret_cast<char *>(text), "untouched");
}

TEST_F(Ip, ComparisonsAndKindsOfAddress)
{
    const tn_ip a = parse("1.2.3.4", 80), a81 = parse("1.2.3.4", 81), b = parse("1.2.3.5", 80);
    const tn_ip mapped = parse("::ffff:1.2.3.4", 80);
    tn_ip none1{}, none2{};
    none2.bytes[0] = 1; // any other family is none, and what follows does not count
    none2.bytes[20] = 99;
    const struct { const tn_ip *x, *y; tn_bool equal, addr, family; } cases[] = {
        {&a, &a81, 0, 1, 1},
        {&a, &b, 0, 0, 1},
        {&a, &mapped, 0, 0, 0},
        {&none1, &none2, 1, 1, 1},
        {&a, &none1, 0, 0, 0}};
    for (const auto &c : cases) {
        SCOPED_TRACE(text_of(*c.x) + " vs " + text_of(*c.y));
        EXPECT_EQ(tn_ip_equal(c.x, c.y), c.equal);
        EXPECT_EQ(tn_ip_addr_equal(c.x, c.y), c.addr);
        EXPECT_EQ(tn_ip_family_equal(c.x, c.y), c.family);
    }
    // The fixed texts and bytes agree and tell the kinds whatever the port; the
    // rest of 127.0.0.0/8 is no loopback, and family code 0 is neither kind.
    const tn_uchar *(*const fixed[][2])(void) = {{tn_ip_str_any4, tn_ip_addr_any4},
                                                 {tn_ip_str_loopback4, tn_ip_addr_loopback4},
                                                 {tn_ip_str_any6, tn_ip_addr_any6},
                                                 {tn_ip_str_loopback6, tn_ip_addr_loopback6}};
    for (int i = 0; i < 4; ++i) {
        tn_ip ip{};
        ASSERT_TRUE(tn_ip_set2(&ip, i < 2 ? 1 : 2, fixed[i][1](), 4242));
        EXPECT_EQ(text_of(ip), reinterpret_cast<const char *>(fixed[i][0]()) + std::string(" 4242"));
        EXPECT_EQ(tn_ip_is_any(&ip), i % 2 == 0 ? 1 : 0);
        EXPECT_EQ(tn_ip_is_loopback(&ip), i % 2 == 1 ? 1 : 0);
    }
    const tn_ip other_loopback = parse("127.0.0.2", 0);
    EXPECT_FALSE(tn_ip_is_loopback(&other_loopback));
    EXPECT_FALSE(tn_ip_is_any(&none1));
    EXPECT_FALSE(tn_ip_is_loopback(&none1));
}

// Either resolver: every address of localhost with the port, and a failed
// append fails the lookup.
TEST_F(Ip, ByNameFindsLocalhostAndReportsEveryFailedAllocation)
{
    for (bool builtin : {false, true}) {
        SCOPED_TRACE(builtin ? "built-in resolver" : "system resolver");
        tn_ip_use_builtin_resolver(builtin);
        tn_test::sweep_alloc_failures([] {
            texts got = by_name("localhost", 8080);
            const bool ok = got.back() == "ok";
            got.pop_back();
            for (const std::string &text : got) EXPECT_TRUE(text == "127.0.0.1 8080" || text == "::1 8080") << text;
            EXPECT_TRUE(!ok || std::find(got.begin(), got.end(), "127.0.0.1 8080") != got.end());
            return ok;
        });
    }
}

// Its numbers are IPv4 with three dots, not the all-ones address (its parser's
// failure value); a lookup by name takes the rest to the C library's host
// lookup, which reads numbers too, and gives no datagram twins. An IPv6 record
// has no text under it, but still its family and port.
TEST_F(Ip, BuiltinResolverSpeaksDottedIpv4Only)
{
    tn_ip_use_builtin_resolver(1);
    const struct { const char *name; bool numeric; texts want; } cases[] = { // want: by name
        {"10.20.30.40", true, {"10.20.30.40 9", "ok"}},
        {"255.255.255.255", false, {"255.255.255.255 9", "ok"}},
        {"127.1", false, {"127.0.0.1 9", "ok"}},
        {"localhost", false, {"127.0.0.1 9", "ok"}},
        {"::1", false, {"failed"}},
        {nullptr, false, {"0.0.0.0 9", "ok"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name ? c.name : "(null)");
        tn_ip ip;
        if (c.name) { EXPECT_EQ(tn_ip_set(&ip, u(c.name), 9), c.numeric ? 1 : 0); }
        if (c.numeric) { EXPECT_EQ(text_of(ip), c.want[0]); }
        EXPECT_EQ(by_name(c.name, 9), c.want);
    }
    tn_ip v6{};
    ASSERT_TRUE(tn_ip_set2(&v6, TN_IP_FAMILY_V6, tn_ip_addr_loopback6(), 6));
    tn_uint32 family = 0;
    tn_uchar text[TN_IP_STR_SIZE];
    EXPECT_EQ(text_of(v6), "<none> 6");
    EXPECT_FALSE(tn_ip_get(&v6, &family, text, nullptr));
    EXPECT_EQ(family, 2u);
}

// Name lookups against a hosts file of the test's own: a forked child takes a
// private mount namespace and binds the file over /etc/hosts, so nothing
// outside the child ever sees it. That needs root (CI runs as root); the test
// skips elsewhere. The child's failures print there and come back as its exit
// status. The big host's aliases need far more room than a lookup's first
// scratch block, so that every lookup has to grow it.
TEST_F(Ip, NamesWithLongAliasListsResolveAndSurviveEveryFailedAllocation)
{
    constexpr int no_namespace = 77;
    std::string hosts = "127.0.0.1 localhost\n10.1.2.3 big.test";
    for (int i = 0; i < 200; ++i) hosts += " alias-" + std::to_string(i) + "-" + std::string(40, 'x');
    hosts += "\n";
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
        const struct { const char *name; texts want; } cases[] = {
            {"big.test", {"10.1.2.3 80", "ok"}},
            {"alias-199-xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx", {"10.1.2.3 80", "ok"}},
            {"small.test", {"failed"}},
        };
        for (bool builtin : {false, true}) {
            tn_ip_use_builtin_resolver(builtin);
            for (const auto &c : cases) EXPECT_EQ(by_name(c.name, 80), c.want) << "built-in " << builtin << ": " << c.name;
        }
        // The array, the grown scratch block, an entry and its address.
        EXPECT_GE(tn_test::sweep_alloc_failures([] { return by_name("big.test", 7) == texts{"10.1.2.3 7", "ok"}; }), 4);
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
} // namespace
