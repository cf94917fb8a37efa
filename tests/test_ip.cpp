#include <tarnel_util/tn_ip.h>
#include <tarnel_util/tn_socket.h>

#include "tn_test_alloc.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

namespace {

const tn_uchar *u(const char *s) { return reinterpret_cast<const tn_uchar *>(s); }

tn_ip make(tn_uint32 family, const tn_uchar *bytes, tn_uint16 port)
{
    tn_ip ip;
    tn_ip_init(&ip);
    EXPECT_TRUE(tn_ip_set2(&ip, family, bytes, port));
    return ip;
}
tn_ip parse(const char *text, tn_uint16 port)
{
    tn_ip ip;
    tn_ip_init(&ip);
    EXPECT_TRUE(tn_ip_set(&ip, u(text), port)) << text;
    return ip;
}
std::string text_of(const tn_ip &ip)
{
    tn_uchar text[TN_IP_STR_SIZE] = {};
    return tn_ip_get(&ip, nullptr, text, nullptr) ? reinterpret_cast<const char *>(text) : "<none>";
}
tn_uint16 port_of(const tn_ip &ip)
{
    tn_uint16 port = 0;
    tn_ip_get2(&ip, nullptr, nullptr, nullptr, &port);
    return port;
}
// Each address as text, and the port of each (all must agree).
std::vector<std::string> texts_of(const tn_ip_array &a, tn_uint16 port)
{
    std::vector<std::string> out;
    for (tn_uint32 i = 0; i < tn_array_length(&a); ++i) {
        const tn_ip &ip = *static_cast<tn_ip *>(tn_array_get_pos(&a, i));
        out.push_back(text_of(ip));
        EXPECT_EQ(port_of(ip), port) << out.back();
    }
    return out;
}

class Ip : public tn_test::AllocTest {};

// The built-in resolver for one test; the system's comes back at the end.
struct BuiltinResolver {
    BuiltinResolver() { tn_ip_use_builtin_resolver(1); }
    ~BuiltinResolver() { tn_ip_use_builtin_resolver(0); }
};

TEST_F(Ip, NumericTextRoundTrips)
{
    struct Case {
        const char *in;
        tn_uint32 family;
        const char *out;
    } const cases[] = {
        {"1.2.3.4", 1, "1.2.3.4"},
        {"0.0.0.0", 1, "0.0.0.0"},
        {"255.255.255.255", 1, "255.255.255.255"},
        {"::", 2, "::"},
        {"FE80:0::0:1", 2, "fe80::1"},
        {"2001:db8:0:0:8:800:200c:417a", 2, "2001:db8::8:800:200c:417a"},
        {"::ffff:10.0.0.1", 2, "::ffff:10.0.0.1"},
        {"ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255", 2, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.in);
        tn_ip ip;
        std::memset(&ip, 0xAB, sizeof ip);
        ASSERT_TRUE(tn_ip_set(&ip, u(c.in), 65535));
        EXPECT_EQ(tn_socket_get_last_error(), TN_SOCKET_ERROR_NONE);
        tn_uint32 family = 9;
        tn_uint16 port = 0;
        tn_uchar text[TN_IP_STR_SIZE];
        ASSERT_TRUE(tn_ip_get(&ip, &family, text, &port));
        EXPECT_EQ(family, c.family);
        EXPECT_EQ(port, 65535);
        EXPECT_STREQ(reinterpret_cast<char *>(text), c.out);
    }
}

TEST_F(Ip, SetRefusesNamesAndMalformedTextAndKeepsTheRecord)
{
    for (const char *bad :
         {"localhost", "", "1.2.3.4 ", " 1.2.3.4", "1.2.3.256", "1.2.3.4.5", "::g", "[::1]", "1::2::3"}) {
        SCOPED_TRACE(bad);
        tn_ip ip = make(TN_IP_FAMILY_V4, tn_ip_addr_loopback4(), 7);
        const tn_ip before = ip;
        EXPECT_FALSE(tn_ip_set(&ip, u(bad), 80));
        EXPECT_EQ(std::memcmp(&ip, &before, sizeof ip), 0);
        EXPECT_EQ(tn_socket_get_last_error(), TN_SOCKET_ERROR_OTHER);
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
    ip = make(TN_IP_FAMILY_V4, u("\xC0\xA8\x01\x02"), 1);
    ASSERT_TRUE(tn_ip_set2(&ip, TN_IP_FAMILY_V4, nullptr, 2));
    EXPECT_EQ(ip.bytes[0] | ip.bytes[1] << 8, 2); // AF_INET
    tn_uint32 family = 0, length = 0;
    tn_uint16 port = 0;
    tn_uchar bytes[16] = {};
    ASSERT_TRUE(tn_ip_get2(&ip, &family, bytes, &length, &port));
    EXPECT_EQ(std::tie(family, length, port), std::make_tuple(1u, 4u, tn_uint16(2)));
    EXPECT_EQ(std::memcmp(bytes, "\xC0\xA8\x01\x02", 4), 0);
    const tn_ip before = ip;
    EXPECT_FALSE(tn_ip_set2(&ip, 0, tn_ip_addr_any6(), 5));
    EXPECT_FALSE(tn_ip_set2(&ip, 3, tn_ip_addr_any6(), 5));
    EXPECT_EQ(std::memcmp(&ip, &before, sizeof ip), 0);

    // Family code 0 stores the family alone, with or without text.
    tn_ip none;
    tn_ip_init(&none);
    family = 9, length = 77, port = 88;
    tn_uchar text[TN_IP_STR_SIZE] = "untouched";
    EXPECT_TRUE(tn_ip_get2(&none, &family, bytes, &length, &port));
    EXPECT_TRUE(tn_ip_get(&none, &family, text, &port));
    EXPECT_EQ(std::tie(family, length, port), std::make_tuple(0u, 77u, tn_uint16(88)));
    EXPECT_STREQ(reinterpret_cast<char *>(text), "untouched");
}

TEST_F(Ip, ComparisonsAndFixedAddresses)
{
    const tn_ip a = parse("1.2.3.4", 80), a81 = parse("1.2.3.4", 81), b = parse("1.2.3.5", 80);
    const tn_ip mapped = parse("::ffff:1.2.3.4", 80), loop2 = parse("127.0.0.2", 0);
    tn_ip none1, none2;
    tn_ip_init(&none1);
    tn_ip_init(&none2);
    none2.bytes[20] = 99; // junk behind a family of 0 does not count
    struct Case {
        const tn_ip *x, *y;
        tn_bool equal, addr, family;
    } const cases[] = {
        {&a, &a81, 0, 1, 1}, {&a, &b, 0, 0, 1}, {&a, &mapped, 0, 0, 0},
        {&none1, &none2, 1, 1, 1}, {&a, &none1, 0, 0, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(text_of(*c.x) + " vs " + text_of(*c.y));
        EXPECT_EQ(tn_ip_equal(c.x, c.y), c.equal);
        EXPECT_EQ(tn_ip_addr_equal(c.x, c.y), c.addr);
        EXPECT_EQ(tn_ip_family_equal(c.x, c.y), c.family);
    }

    // Each fixed text parses to its fixed bytes; any and loopback ignore the port.
    const tn_uchar *(*const fixed[][2])(void) = {{tn_ip_str_any4, tn_ip_addr_any4},
                                                 {tn_ip_str_loopback4, tn_ip_addr_loopback4},
                                                 {tn_ip_str_any6, tn_ip_addr_any6},
                                                 {tn_ip_str_loopback6, tn_ip_addr_loopback6}};
    for (int i = 0; i < 4; ++i) {
        SCOPED_TRACE(reinterpret_cast<const char *>(fixed[i][0]()));
        const tn_ip parsed = parse(reinterpret_cast<const char *>(fixed[i][0]()), 4242);
        const tn_ip built = make(i < 2 ? 1 : 2, fixed[i][1](), 4242);
        EXPECT_TRUE(tn_ip_equal(&parsed, &built));
        EXPECT_EQ(tn_ip_is_any(&parsed), i % 2 == 0);
        EXPECT_EQ(tn_ip_is_loopback(&parsed), i % 2 == 1);
    }
    EXPECT_FALSE(tn_ip_is_loopback(&loop2));
    EXPECT_FALSE(tn_ip_is_any(&none1));
    EXPECT_FALSE(tn_ip_is_loopback(&none1));
}

TEST_F(Ip, ByNameFillsTheArrayAfresh)
{
    tn_ip_array a;
    tn_array_init(&a, sizeof(tn_ip));
    EXPECT_EQ(tn_ip_array_get_end(&a), nullptr);
    ASSERT_TRUE(tn_ip_by_name(&a, nullptr, 0));
    for (const std::string &text : texts_of(a, 0)) EXPECT_TRUE(text == "0.0.0.0" || text == "::") << text;
    ASSERT_TRUE(tn_ip_by_name(&a, u("localhost"), 8080));
    const std::vector<std::string> texts = texts_of(a, 8080);
    for (const std::string &text : texts) EXPECT_TRUE(text == "127.0.0.1" || text == "::1") << text;
    EXPECT_NE(std::find(texts.begin(), texts.end(), "127.0.0.1"), texts.end());
    EXPECT_EQ(tn_ip_array_get_end(&a), tn_array_get_pos(&a, tn_array_length(&a) - 1));
    tn_array_free(&a);
}

TEST_F(Ip, ByNameReportsEveryFailedAllocation)
{
    for (bool builtin : {false, true}) {
        SCOPED_TRACE(builtin ? "built-in resolver" : "system resolver");
        tn_ip_use_builtin_resolver(builtin);
        tn_test::sweep_alloc_failures([] {
            tn_ip_array a;
            tn_array_init(&a, sizeof(tn_ip));
            bool ok = tn_ip_by_name(&a, u("localhost"), 1);
            if (tn_array_failed(&a)) {
                EXPECT_FALSE(ok);
            }
            tn_array_free(&a);
            return ok;
        });
    }
    tn_ip_use_builtin_resolver(0);
}

TEST_F(Ip, BuiltinResolverSpeaksDottedIpv4Only)
{
    BuiltinResolver on;
    const tn_ip ip = parse("10.20.30.40", 443);
    EXPECT_EQ(text_of(ip), "10.20.30.40");
    EXPECT_EQ(port_of(ip), 443);

    // Not numeric to it: IPv6, the all-ones address (which its parser cannot
    // tell from a failure), and any other count of dots than three, which
    // the system's resolver would take.
    for (const char *text : {"::1", "255.255.255.255", "127.0.1", "127.1", "localhost"}) {
        SCOPED_TRACE(text);
        tn_ip out;
        tn_ip_init(&out);
        EXPECT_FALSE(tn_ip_set(&out, u(text), 1));
        EXPECT_EQ(tn_socket_get_last_error(), TN_SOCKET_ERROR_OTHER);
    }

    // A lookup by name takes them to the C library's host lookup, which
    // reads numbers too; the socket type is given, so there are no
    // datagram twins.
    struct Case {
        const char *name;
        std::vector<std::string> texts;
    };
    const Case cases[] = {
        {"255.255.255.255", {"255.255.255.255"}},
        {"127.0.1", {"127.0.0.1"}},
        {"localhost", {"127.0.0.1"}},
        {nullptr, {"0.0.0.0"}},
    };
    tn_ip_array a;
    tn_array_init(&a, sizeof(tn_ip));
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name ? c.name : "(null)");
        ASSERT_TRUE(tn_ip_by_name(&a, u(c.name), 9));
        EXPECT_EQ(texts_of(a, 9), c.texts);
    }
    EXPECT_FALSE(tn_ip_by_name(&a, u("::1"), 9));
    EXPECT_EQ(tn_array_length(&a), 0u);
    tn_array_free(&a);

    // An IPv6 record has no text under it, but still its family and port.
    tn_ip v6 = make(TN_IP_FAMILY_V6, tn_ip_addr_loopback6(), 6);
    tn_uint32 family = 0;
    tn_uint16 port = 0;
    tn_uchar text[TN_IP_STR_SIZE];
    EXPECT_FALSE(tn_ip_get(&v6, &family, text, &port));
    EXPECT_EQ(family, 2u);
    EXPECT_EQ(port, 6);
    tn_ip_use_builtin_resolver(0);
    EXPECT_EQ(text_of(v6), "::1");
}

} // namespace
