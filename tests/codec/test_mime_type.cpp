#include <tarnel_util/tn_mime_type.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

const tn_uchar *u(const char *s) { return reinterpret_cast<const tn_uchar *>(s); }
tn_uchar *u(char *s) { return reinterpret_cast<tn_uchar *>(s); }

struct type_row {
    const char *mime, *word;
    tn_bool equal;
};

TEST(MimeType, MajorIsTheTextBeforeTheSlash)
{
    const type_row rows[] = {
        {"Text/xml", "text", 1},  {"text/xml", "TEXT", 1}, {"text", "text", 0}, {"textual/x", "text", 0},
        {"tex/xml", "text", 0},   {"text /xml", "text", 0}, {"/xml", "", 1},    {"xml", "", 0},
        {"@/x", "`", 0},          {"[/x", "{", 0},          {"", "text", 0},
    };
    for (const type_row &r : rows)
        EXPECT_EQ(tn_mime_type_major_equal(u(r.mime), u(r.word)), r.equal) << r.mime << " with " << r.word;
    EXPECT_FALSE(tn_mime_type_major_equal(nullptr, u("text")));
    EXPECT_FALSE(tn_mime_type_major_equal(u("text/xml"), nullptr));
}

TEST(MimeType, SubStandsBehindTheFirstSlashAndEndsAtABlankOrSemicolon)
{
    const type_row rows[] = {
        {"text/XML; charset=x", "xml", 1}, {"text/xml", "xml", 1},   {"text/xml\tx", "xml", 1},
        {"text/xml x", "xml", 1},          {"text/xml;", "xml", 1},  {"/xml", "xml", 1},
        {"text/", "", 1},                  {"text/xml+y", "xml", 0}, {"text/xml,", "xml", 0},
        {"text/xml/a", "xml", 0},          {"a/b/xml", "xml", 0},    {"text/ xml", "xml", 0},
        {"text/xm", "xml", 0},             {"text", "xml", 0},       {"text", "", 0},
    };
    for (const type_row &r : rows)
        EXPECT_EQ(tn_mime_type_sub_equal(u(r.mime), u(r.word)), r.equal) << r.mime << " with " << r.word;
    EXPECT_FALSE(tn_mime_type_sub_equal(nullptr, u("xml")));
    EXPECT_FALSE(tn_mime_type_sub_equal(u("text/xml"), nullptr));
}

struct parameter_row {
    const char *mime, *name, *value; // value null: not found
};

const parameter_row parameters[] = {
    {"text/xml; charset=\"utf-8\"; a=b", "CHARSET", "\"utf-8\""},
    {"text/xml; charset=\"utf-8\"; a=b", "a", "b"},
    {"text/xml;a = b", "a", nullptr},
    {"text/xml;a =b", "a", nullptr},
    {"text/xml", "charset", nullptr},
    {"text/xml", "", nullptr},
    {"text/xml; charset=", "charset", ""},
    {"text/xml;charset=x;charset=y", "charset", "x"},
    {"text/xml; charsetx=1; charset=2", "charset", "2"},
    {"text/xml; x=1; CharSet=UTF-8 ; y", "charset", "UTF-8"},
    {"text/xml;\t \tcharset=a\tb", "charset", "a"},
    {"text/xml; a=\"x y\"", "a", "\"x"},
    {"text/xml; a=b;c=d", "c", "d"},
    {"text/xml; a", "a", nullptr},
    {"text/xml; \t", "a", nullptr},
    {"text/xml;;; a=1", "a", "1"},
    {"text/xml; b=a=1", "a", nullptr},
    {"text/xml; b=a=1", "b", "a=1"},
    {"a=1; a=2", "a", "2"},
    {"text/xml;=v", "", "v"},
    {"text/xml; a=1", "", nullptr},
    {"x/y; \xC9=1", "\xE9", nullptr},
    {"x/y; \xC9=1", "\xC9", "1"},
    {"x/y; `=1", "@", nullptr},
    {"x/y; a=b\r\n", "a", "b\r\n"},
};

TEST(MimeType, ParameterValueFitsExactlyOrLeavesTheBufferAlone)
{
    char keep[8] = "keep";
    EXPECT_FALSE(tn_mime_type_get_parameter_value(nullptr, u("a"), u(keep), sizeof keep));
    EXPECT_FALSE(tn_mime_type_get_parameter_value(u("x/y;a=1"), nullptr, u(keep), sizeof keep));
    EXPECT_FALSE(tn_mime_type_get_parameter_value(u("x/y;a=1"), u("a"), nullptr, sizeof keep));
    EXPECT_STREQ(keep, "keep");
    for (const parameter_row &r : parameters) {
        SCOPED_TRACE(std::string(r.mime) + " [" + r.name + "]");
        const tn_uint32 length = r.value ? static_cast<tn_uint32>(std::strlen(r.value)) : 0;
        for (tn_uint32 size = 0; size <= length + 2; ++size) {
            char buffer[64];
            std::memset(buffer, '#', sizeof buffer);
            const bool fits = r.value && size > length;
            EXPECT_EQ(tn_mime_type_get_parameter_value(u(r.mime), u(r.name), u(buffer), size), fits) << size;
            const std::string written = fits ? std::string(r.value) + '\0' : "";
            EXPECT_EQ(std::string(buffer, written.size()), written) << size;
            EXPECT_EQ(std::string(buffer + written.size(), 8), std::string(8, '#')) << "bytes behind, size " << size;
        }
    }
}

TEST(MimeType, TextInsideTheValueBuffer)
{
    struct row {
        const char *name;
        size_t mime_at, value_at; // into the one buffer; the value itself lies at mime_at + 33
        const char *value;
    } const rows[] = {
        {"charset", 0, 0, "\"utf-8\""}, {"a", 0, 0, "b"},          {"b", 0, 31, "0123456789"},
        {"b", 0, 35, "0123456789"},     {"b", 20, 0, "0123456789"}, {"b", 20, 55, "0123456789"},
    };
    const char text[] = "text/xml; charset=\"utf-8\"; a=b;b=0123456789";
    for (const row &r : rows) {
        SCOPED_TRACE(std::string(r.name) + " mime at " + std::to_string(r.mime_at) + ", value at " +
                     std::to_string(r.value_at));
        char buffer[128] = {};
        std::memcpy(buffer + r.mime_at, text, sizeof text);
        char *value = buffer + r.value_at;
        ASSERT_TRUE(tn_mime_type_get_parameter_value(u(buffer + r.mime_at), u(r.name), u(value), 40));
        EXPECT_STREQ(value, r.value);
    }
    char both[] = "a\0x/y; a=first";
    ASSERT_TRUE(tn_mime_type_get_parameter_value(u(both + 2), u(both), u(both), sizeof both)) << "name in the buffer";
    EXPECT_STREQ(both, "first");
}

} // namespace
