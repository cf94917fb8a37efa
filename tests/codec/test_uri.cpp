#include <tarnel_util/tn_uchar_array.h>
#include <tarnel_util/tn_uri.h>

#include "text/text_test.h"

#include <functional>
#include <string>

namespace {
using namespace tn_text_test;

class Uri : public TextTest { // ca: output text; sa, sb: names and values
protected:
    tn_uri uri{};
    void SetUp() override { TextTest::SetUp(); tn_uri_init(&uri); }
    void TearDown() override { tn_uri_free(&uri); TextTest::TearDown(); }
    std::string parts() const
    {
        const tn_uchar *p[] = {tn_uri_get_protocol(&uri), tn_uri_get_host(&uri), tn_uri_get_port(&uri),
                               tn_uri_get_path(&uri), tn_uri_get_query(&uri)};
        return p[0] ? str(p[0]) + "|" + str(p[1]) + "|" + str(p[2]) + "|" + str(p[3]) + "|" + str(p[4]) : "none";
    }
    std::string rebuilt() { return tn_uri_to_string(&uri, &ca) ? bytes(ca) : "failed"; }
    std::string resolved(const char *base, const char *reference)
    {
        const bool ok = tn_uri_resolve(u(base), u(reference), &ca);
        return (ok ? "" : "0:") + bytes(ca);
    }
    std::string pairs(const std::string &q)
    {
        const int ok = tn_uri_parse_query(u(q), &sa, &sb);
        return std::to_string(ok) + ":" + joined(list(sa)) + "/" + joined(list(sb));
    }
    static std::string joined(const strings &v)
    {
        std::string r;
        for (const auto &s : v) r += s + ";";
        return r;
    }
};

TEST_F(Uri, ParseSplitsInAFixedOrderAndRebuilds)
{
    const struct { const char *text, *parts, *rebuilt; } rows[] = {
        {"x://host:8080/a/b?c=d", "x|host|8080|/a/b|c=d", "x://host:8080/a/b?c=d"},
        {"x://host", "x|host||/|", "x://host/"},
        {"/a/b?c=d", "|||/a/b|c=d", "/a/b?c=d"},
        {"abc", "|||/abc|", "/abc"},
        {"*", "|||*|", "*"},
        {"", "|||/|", "/"},
        {"x://host?a=b", "x|host?a=b||/|", "x://host?a=b/"},
        {"x://[::1]:80/a", "x|[|:1]:80|/a|", "x://[::1]:80/a"},
        {"x://u:p@h:1/a", "x|u|p@h:1|/a|", "x://u:p@h:1/a"},
        {"x://h/a#f?q#g", "x|h||/a#f|q#g", "x://h/a#f?q#g"},
        {"x://h/a?b?c", "x|h||/a|b?c", "x://h/a?b?c"},
        {"x://h:/", "x|h||/|", "x://h/"}, // an empty port is dropped
        {"x://:", "x|||/|", "x:///"},
        {"x:///", "x|||/|", "x:///"},
        {"?q", "|||/|q", "/?q"},
        {"/a:b", "none", nullptr}, {"/a?b=c:d", "none", nullptr}, {"x://", "none", nullptr},
        {"x:/a", "none", nullptr}, {"x:", "none", nullptr}, {":", "none", nullptr}, {"x:/", "none", nullptr},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.text);
        EXPECT_EQ(tn_uri_parse(&uri, u(r.text)), std::string(r.parts) != "none");
        EXPECT_EQ(parts(), r.parts);
        const std::string again = r.rebuilt ? r.rebuilt : r.text;
        EXPECT_EQ(rebuilt(), std::string(r.parts) == "none" ? "" : again);
    }
    EXPECT_FALSE(tn_uri_parse(&uri, nullptr));
    EXPECT_EQ(parts(), "none");
    EXPECT_TRUE(tn_uri_reset(&uri));
    EXPECT_EQ(rebuilt(), "") << "an empty record writes nothing";
}

// RFC 3986, section 5.4, base http://a/b/c/d;p?q: the reference, the RFC's
// result, and ours with why where they differ. Pasting without dot segments,
// "?", "#" or "//" agrees with the RFC on the other rows.
TEST_F(Uri, ResolveAgainstTheReferenceExamples)
{
    const char *base = "http://a/b/c/d;p?q";
    const struct { const char *reference, *rfc, *ours = nullptr, *why = nullptr; } rows[] = {
        {"g:h", "g:h"}, {"g", "http://a/b/c/g"}, {"g/", "http://a/b/c/g/"}, {"/g", "http://a/g"},
        {"./g", "http://a/b/c/g", "http://a/b/c/./g", "dot segments stay"},
        {"//g", "http://g", "http://a//g", "a network-path reference is a path"},
        {"?y", "http://a/b/c/d;p?y", "http://a/b/c/?y", "a query alone is pasted behind the last '/'"},
        {"g?y", "http://a/b/c/g?y"},
        {"#s", "http://a/b/c/d;p?q#s", "http://a/b/c/#s", "a fragment alone is pasted behind the last '/'"},
        {"g#s", "http://a/b/c/g#s"}, {"g?y#s", "http://a/b/c/g?y#s"}, {";x", "http://a/b/c/;x"},
        {"g;x", "http://a/b/c/g;x"}, {"g;x?y#s", "http://a/b/c/g;x?y#s"},
        {"", "http://a/b/c/d;p?q", "http://a/b/c/", "the empty reference is pasted behind the last '/'"},
        {".", "http://a/b/c/", "http://a/b/c/.", "dot segments stay"},
        {"./", "http://a/b/c/", "http://a/b/c/./", "dot segments stay"},
        {"..", "http://a/b/", "http://a/b/c/..", "dot segments stay"},
        {"../", "http://a/b/", "http://a/b/c/../", "dot segments stay"},
        {"../g", "http://a/b/g", "http://a/b/c/../g", "dot segments stay"},
        {"../..", "http://a/", "http://a/b/c/../..", "dot segments stay"},
        {"../../g", "http://a/g", "http://a/b/c/../../g", "dot segments stay"},
        // abnormal examples
        {"../../../g", "http://a/g", "http://a/b/c/../../../g", "'..' past the root stays"},
        {"../../../../g", "http://a/g", "http://a/b/c/../../../../g", "'..' past the root stays"},
        {"/./g", "http://a/g", "http://a/./g", "dot segments stay"},
        {"/../g", "http://a/g", "http://a/../g", "'..' past the root stays"},
        {"g.", "http://a/b/c/g."}, {".g", "http://a/b/c/.g"}, {"g..", "http://a/b/c/g.."}, {"..g", "http://a/b/c/..g"},
        {"./../g", "http://a/b/g", "http://a/b/c/./../g", "dot segments stay"},
        {"./g/.", "http://a/b/c/g/", "http://a/b/c/./g/.", "dot segments stay"},
        {"g/./h", "http://a/b/c/g/h", "http://a/b/c/g/./h", "dot segments stay"},
        {"g/../h", "http://a/b/c/h", "http://a/b/c/g/../h", "dot segments stay"},
        {"g;x=1/./y", "http://a/b/c/g;x=1/y", "http://a/b/c/g;x=1/./y", "dot segments stay"},
        {"g;x=1/../y", "http://a/b/c/y", "http://a/b/c/g;x=1/../y", "dot segments stay"},
        {"g?y/./x", "http://a/b/c/g?y/./x"}, {"g?y/../x", "http://a/b/c/g?y/../x"},
        {"g#s/./x", "http://a/b/c/g#s/./x"}, {"g#s/../x", "http://a/b/c/g#s/../x"},
        {"http:g", "http:g"}, // the strict reading
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.reference);
        EXPECT_EQ(resolved(base, r.reference), r.ours ? r.ours : r.rfc);
        EXPECT_EQ(r.ours && std::string(r.ours) != r.rfc, r.why != nullptr) << "a row departs exactly when it says why";
    }
}

TEST_F(Uri, ResolvePastesOntoTheBase)
{
    const struct { const char *base, *reference, *result; } rows[] = {
        {"x://h/a/b", "c", "x://h/a/c"}, {"x://h/a/b", "/c", "x://h/c"}, {"x://h/a/b", "y:z", "y:z"},
        {"x://h", "c", "x://h/c"}, {"x://h", "/c", "x://h/c"}, {"x://h", "", "x://h/"},
        {"x://h/a/", "c", "x://h/a/c"}, {"x://h/a?b/c", "d", "x://h/a?b/d"}, {"x:a/b/c", "d", "x:a/b/c/d"},
        {"http://10.77.0.1:8200/rootDesc.xml", "/ctl/ContentDir", "http://10.77.0.1:8200/ctl/ContentDir"},
        {"http://10.77.0.1:8200/rootDesc.xml", "http://www.netgear.com/", "http://www.netgear.com/"},
        {"http://10.77.0.1:8200/rootDesc.xml", "1:x", "http://10.77.0.1:8200/1:x"}, // no letter first
        {"x://", "c", "0:"}, {"x:/a", "c", "0:"}, {"/a/b", "c", "0:"}, {"", "c", "0:"}, {"x://h/a", "a", "x://h/a"},
    };
    for (const auto &r : rows) EXPECT_EQ(resolved(r.base, r.reference), r.result) << r.base << " + " << r.reference;
    tn_uchar_array_copys(&ca, u("kept"));
    EXPECT_FALSE(tn_uri_resolve(u("x://h"), nullptr, &ca));
    EXPECT_EQ(bytes(ca), "kept");
    EXPECT_TRUE(tn_uri_resolve(nullptr, u("a"), &ca)) << "with no base, a letter first makes it absolute";
    EXPECT_EQ(bytes(ca), "a");
    EXPECT_FALSE(tn_uri_resolve(nullptr, u("/a"), &ca));
    EXPECT_EQ(bytes(ca), "");
}

TEST_F(Uri, EscapesAndUnescapes)
{
    const struct { std::string text, escaped; } esc[] = {
        {" ", "+"}, {"+", "%2b"}, {"/", "%2f"}, {"~", "%7e"}, {"aZ09-_.", "aZ09-_."}, {"\x80\xff", "%80%ff"}, {"", ""},
    };
    for (const auto &r : esc) {
        EXPECT_TRUE(tn_uri_escape(u(r.text), &ca));
        EXPECT_EQ(bytes(ca), r.escaped) << r.text;
    }
    const struct { std::string text, plain; } unesc[] = {
        {"%2B", "+"}, {"%2b", "+"}, {"+", " "}, {"%", "%"}, {"a%", "a%"}, {"%4", "@"}, {"%zz", std::string(1, '\0')},
        {"a%00b", std::string("a\0b", 3)}, {"%%41", "\x04" "1"}, {"%g1", "\x01"}, {"%41%", "A%"},
    };
    for (const auto &r : unesc) {
        EXPECT_TRUE(tn_uri_unescape(u(r.text), &ca));
        EXPECT_EQ(bytes(ca), r.plain) << r.text;
    }
    std::string all;
    for (int c = 1; c < 256; ++c) all += static_cast<char>(c);
    ASSERT_TRUE(tn_uri_escape(u(all), &ca));
    const std::string escaped = bytes(ca);
    EXPECT_EQ(escaped.find_first_not_of("0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-_.%+"),
              std::string::npos);
    EXPECT_TRUE(tn_uri_unescape(u(escaped), &ca));
    EXPECT_EQ(bytes(ca), all) << "every byte but 0 comes back";
    EXPECT_FALSE(tn_uri_escape(nullptr, &ca));
    EXPECT_FALSE(tn_uri_unescape(nullptr, &ca));
}

TEST_F(Uri, EscapedMeansAPercentAndTwoDecimalDigits)
{
    const struct { const char *text; bool escaped, should; } rows[] = {
        {"%20", 1, 0}, {"%2f", 0, 1}, {"%2F", 0, 1}, {"a b%20", 1, 0}, {"a b", 0, 1}, {"ab", 0, 0}, {"", 0, 0},
        {"%%20", 1, 0}, {"%2", 0, 1}, {"%2x0", 0, 1}, {"%123", 1, 0}, {"a-b_c.d", 0, 0}, {"\xc3\xa9", 0, 1},
    };
    for (const auto &r : rows) {
        EXPECT_EQ(tn_uri_is_escaped(u(r.text)), r.escaped) << r.text;
        EXPECT_EQ(tn_uri_should_escape(u(r.text)), r.should) << r.text;
    }
    EXPECT_FALSE(tn_uri_is_escaped(nullptr));
    EXPECT_FALSE(tn_uri_should_escape(nullptr));
}

TEST_F(Uri, QuerySplitsIntoDecodedNamesAndValues)
{
    const struct { const char *query, *result; } rows[] = {
        {"a=1&b=2", "1:a;b;/1;2;"}, {"a=&b=2", "1:a;b;/;2;"}, {"a=1&b", "0:a;/1;"}, {"a=1&", "0:a;/1;"},
        {"", "0:/"}, {"a", "0:/"}, {"a&b=1", "1:a&b;/1;"}, {"=", "1:;/;"}, {"a==b", "1:a;/=b;"},
        {"a=1&&b=2", "1:a;&b;/1;2;"}, {"n+m=%41+%42", "1:n m;/A B;"}, {"a%00b=c%00d", "1:a;/c;"},
        {"a%=1%", "1:a%;/1%;"}, {"a%4=%4", "1:a@;/@;"},
        {"ObjectID=64%240&BrowseFlag=BrowseDirectChildren", "1:ObjectID;BrowseFlag;/64$0;BrowseDirectChildren;"},
    };
    for (const auto &r : rows) EXPECT_EQ(pairs(r.query), r.result) << r.query;
    EXPECT_FALSE(tn_uri_parse_query(nullptr, &sa, &sb));
    EXPECT_TRUE(tn_uri_parse_query2(u("a=1&b=2"), &sa));
    EXPECT_EQ(list(sa), (strings{"a", "1", "b", "2"}));
}

// On this platform paths are '/' paths: the leading '/' is dropped and every
// other one escaped, and trimming keeps the '/' in front of a one-letter name
// with an escaped colon, where a drive letter would begin its path.
TEST_F(Uri, FileUrisRoundTripAbsolutePaths)
{
    const struct { const char *path, *uri, *trimmed; } rows[] = {
        {"/srv/a b/c.mp3", "file:///srv%2fa%20b%2fc.mp3", "/srv%2fa%20b%2fc.mp3"},
        {"/c:/d", "file:///c%3a%2fd", "/c%3a%2fd"}, {"/", "file:///", "/"}, {"", "file:///", "/"},
        {"rel/x", "file:///rel%2fx", "/rel%2fx"}, {"//x+", "file:///%2fx%2b", "/%2fx%2b"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.path);
        EXPECT_TRUE(tn_uri_path_to_file_uri(u(r.path), &ca));
        std::string text = bytes(ca);
        EXPECT_EQ(text, r.uri);
        EXPECT_TRUE(tn_uri_trim_path_prefix(const_cast<tn_uchar *>(u(text))));
        EXPECT_STREQ(text.c_str(), r.trimmed);
    }
    const struct { const char *text; bool ok; const char *trimmed; } trims[] = {
        {"x://h", 1, "/"}, {"x://h/a", 1, "/a"}, {"x://h/ab%3a%2f", 1, "/ab%3a%2f"}, {"/a://b", 1, "/a://b"},
        {"x://h/a%3a%2fb", 1, "/a%3a%2fb"}, // the text would begin at the 'a' where paths have drive letters
        {"x:/h", 0, "x:/h"}, {"x://", 0, "x://"}, {"h/a", 0, "h/a"}, {"", 0, ""},
    };
    for (const auto &r : trims) {
        std::string text = r.text;
        EXPECT_EQ(tn_uri_trim_path_prefix(const_cast<tn_uchar *>(u(text))), r.ok) << r.text;
        EXPECT_STREQ(text.c_str(), r.trimmed);
    }
    EXPECT_FALSE(tn_uri_trim_path_prefix(nullptr));
    EXPECT_FALSE(tn_uri_path_to_file_uri(nullptr, &ca));
}

// Input taken from the very record or array being written, both where it has
// to grow (cut to its content) and where it has room to spare.
TEST_F(Uri, InputInsideTheDestination)
{
    const std::string url = "http://10.77.0.1:8200/MediaItems/23.mp3?a=%41+b&c=d";
    for (bool roomy : {false, true}) {
        SCOPED_TRACE(roomy ? "with room" : "full");
        auto hold = [&](const std::string &text) { // ca holds text and a terminator
            tn_array_free(&ca);
            tn_array_allocate(&ca, static_cast<tn_uint32>(text.size() + 1 + (roomy ? 4096 : 0)));
            tn_uchar_array_copys0(&ca, u(text));
            return static_cast<const tn_uchar *>(tn_array_get(&ca));
        };
        const auto *own = hold(url);
        EXPECT_TRUE(tn_uri_resolve(own, own, &ca));
        EXPECT_EQ(bytes(ca), url);
        own = hold(url);
        EXPECT_TRUE(tn_uri_resolve(u("x://h/a/"), own + 7, &ca)) << "a reference from the middle";
        EXPECT_EQ(bytes(ca), "x://h/a/10.77.0.1:8200/MediaItems/23.mp3?a=%41+b&c=d");
        own = hold(url);
        EXPECT_TRUE(tn_uri_escape(own, &ca));
        const std::string escaped = bytes(ca);
        EXPECT_TRUE(tn_uri_unescape(hold(escaped), &ca));
        EXPECT_EQ(bytes(ca), url);
        EXPECT_TRUE(tn_uri_path_to_file_uri(hold("/a b"), &ca));
        EXPECT_EQ(bytes(ca), "file:///a%20b");
        if (roomy) tn_str_array_allocate(&uri, 4096);
        ASSERT_TRUE(tn_uri_parse(&uri, u(url)));
        EXPECT_TRUE(tn_uri_parse(&uri, tn_uri_get_query(&uri)));
        for (int k = 0; k < 3; ++k) EXPECT_TRUE(tn_uri_parse(&uri, tn_uri_get_path(&uri))) << k;
        EXPECT_EQ(parts(), "|||/a=%41+b&c=d|") << "the query parsed as a path, then the path three times over";
        EXPECT_TRUE(tn_uri_parse(&uri, tn_uri_get_path(&uri) + 1));
        EXPECT_EQ(parts(), "|||/a=%41+b&c=d|");
        ASSERT_TRUE(tn_uri_parse(&uri, u(url)));
        EXPECT_TRUE(tn_uri_parse(&uri, tn_uri_get_protocol(&uri))) << "the first bytes of the storage";
        EXPECT_EQ(parts(), "|||/http|");
        ASSERT_TRUE(tn_uri_parse_query2(u("k=v%3d1&x=y"), &sa));
        EXPECT_TRUE(tn_uri_parse_query2(tn_str_array_get_pos(&sa, 1), &sa));
        EXPECT_EQ(list(sa), (strings{"v", "1"}));
        ASSERT_TRUE(tn_uri_parse_query(u("a=b%3dc"), &sa, &sb));
        EXPECT_TRUE(tn_uri_parse_query(tn_str_array_get_pos(&sb, 0), &sa, &sb));
        EXPECT_EQ(list(sa), strings{"b"});
        EXPECT_EQ(list(sb), strings{"c"});
    }
}

TEST_F(Uri, HostileInput)
{
    const std::string long_host(1 << 20, 'h');
    const std::string url = "x://" + long_host + ":1/" + std::string(1 << 20, '/') + "?" + std::string(1 << 20, '%');
    ASSERT_TRUE(tn_uri_parse(&uri, u(url)));
    EXPECT_TRUE(rebuilt() == url);
    EXPECT_TRUE(tn_uri_resolve(u(url), u("c"), &ca));
    EXPECT_TRUE(bytes(ca) == url.substr(0, url.find('?')) + "c") << "pasted behind the last of the slashes";
    EXPECT_TRUE(tn_uri_unescape(u(url), &ca));
    EXPECT_EQ(bytes(ca).size(), url.size() - (1 << 20) / 3 * 2) << "%%% decodes to one byte, the last '%' stays";
    EXPECT_TRUE(tn_uri_escape(u(std::string(1 << 20, '\xff')), &ca));
    EXPECT_EQ(bytes(ca).size(), 3u << 20);
    const std::string query = std::string(1 << 18, '=') + "&" + std::string(1 << 18, '&');
    EXPECT_FALSE(tn_uri_parse_query2(u(query), &sa));
    EXPECT_EQ(tn_str_array_length(&sa), 2u) << "one pair, then a last item without '='";
    EXPECT_TRUE(tn_uri_parse_query(u("a=1&=&%00=%00"), &sa, &sb)) << "decoded bytes of 0 end names and values";
    EXPECT_EQ(list(sa), (strings{"a", "", ""}));
    tn_str_array_cato(&sa, u("x"));
    tn_array_fail(&sa.pool);
    EXPECT_FALSE(tn_uri_parse_query(u("a=1"), &sa, &sb)) << "a failed array refuses";
    EXPECT_FALSE(tn_uri_parse(&sa, u("x://h"))) << "a failed record refuses";
    EXPECT_EQ(tn_uri_get_path(&sa), nullptr);
    tn_array_fail(&ca);
    EXPECT_FALSE(tn_uri_escape(u("a"), &ca));
    EXPECT_FALSE(tn_uri_resolve(u("x://h"), u("a"), &ca));
}

TEST_F(Uri, SteadyStateParseAndResolveDoNotAllocate)
{
    ASSERT_TRUE(tn_uri_parse(&uri, u("http://10.77.0.1:8200/MediaItems/23.mp3?x=1")));
    ASSERT_TRUE(tn_uri_resolve(u("http://10.77.0.1:8200/rootDesc.xml"), u("/ctl/ContentDir"), &ca));
    ASSERT_TRUE(tn_uri_parse_query(u("x=1&y=2"), &sa, &sb));
    tn_test::reset_counts();
    EXPECT_TRUE(tn_uri_parse(&uri, u("http://10.77.0.1:8200/MediaItems/29.wav?y=2")));
    EXPECT_TRUE(tn_uri_resolve(u("http://10.77.0.1:8200/rootDesc.xml"), u("/evt/ContentDir"), &ca));
    EXPECT_TRUE(tn_uri_parse_query(u("a=1&b=2"), &sa, &sb));
    EXPECT_EQ(tn_test::allocations(), 0);
}

TEST_F(Uri, FailedAllocationLeavesNothingHalfDone)
{
    const std::string url = "http://10.77.0.1:8200/MediaItems/23.mp3?" + std::string(300, 'q');
    tn_test::sweep_alloc_failures([&] {
        const bool ok = tn_uri_parse(&uri, u(url));
        EXPECT_EQ(parts(), ok ? "http|10.77.0.1|8200|/MediaItems/23.mp3|" + std::string(300, 'q') : "none");
        tn_uri_free(&uri);
        tn_array_free(&ca);
        return ok;
    });
    const std::string escaped = "http%3a%2f%2f10.77.0.1%3a8200%2fMediaItems%2f23.mp3%3f" + std::string(300, 'q');
    const struct { const char *name; std::function<bool()> op; std::string expected; } ops[] = {
        {"resolve", [&] { return tn_uri_resolve(u(url), u("x"), &ca) != 0; }, url.substr(0, 33) + "x"},
        {"escape", [&] { return tn_uri_escape(u(url), &ca) != 0; }, escaped},
        {"unescape", [&] { return tn_uri_unescape(u(url), &ca) != 0; }, url},
        {"file", [&] { return tn_uri_path_to_file_uri(u(url), &ca) != 0; }, "file:///" + escaped},
    };
    for (const auto &o : ops) {
        SCOPED_TRACE(o.name);
        tn_test::sweep_alloc_failures([&] {
            const bool ok = o.op();
            EXPECT_EQ(ok, !tn_array_failed(&ca));
            EXPECT_EQ(ok ? bytes(ca) : o.expected, o.expected);
            tn_array_free(&ca);
            return ok;
        });
    }
    tn_test::sweep_alloc_failures([&] {
        const bool ok = tn_uri_parse_query(u("a=1&b=" + std::string(300, 'v')), &sa, &sb);
        EXPECT_EQ(ok, !tn_str_array_failed(&sa) && !tn_str_array_failed(&sb));
        const strings values = {"1", std::string(300, 'v')};
        EXPECT_EQ(ok ? list(sb) : values, values);
        tn_str_array_free(&sa);
        tn_str_array_free(&sb);
        return ok;
    });
}

} // namespace
