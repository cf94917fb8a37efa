// URIs: parse and put together, resolve, escape and unescape, query pairs,
// file URIs. Input: a base, a line feed, a reference; the whole input serves
// as the text of the other operations. Text ends at a zero byte, as strings
// do. Checks what must hold whatever the input: rebuilt text parses to the
// same components, resolving agrees with a plain model of the pasting rules,
// escaping comes back through unescaping, file URIs of absolute paths come
// back through trimming and unescaping.
#include <tarnel_util/tn_uchar_array.h>
#include <tarnel_util/tn_uri.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

const tn_uchar *u(const std::string &s) { return reinterpret_cast<const tn_uchar *>(s.c_str()); }
std::string str(const tn_uchar *s) { return s ? reinterpret_cast<const char *>(s) : "(null)"; }
std::string bytes(const tn_uchar_array &a) { return {static_cast<const char *>(tn_array_get(&a)), tn_array_bytes(&a)}; }

void check(bool ok, const char *what, const std::string &input)
{
    if (ok) return;
    std::fprintf(stderr, "%s fails for \"%s\"\n", what, input.c_str());
    std::abort();
}

std::string parts(const tn_uri &uri)
{
    return str(tn_uri_get_protocol(&uri)) + "|" + str(tn_uri_get_host(&uri)) + "|" + str(tn_uri_get_port(&uri)) +
           "|" + str(tn_uri_get_path(&uri)) + "|" + str(tn_uri_get_query(&uri));
}

bool is_letter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

// The pasting rules, written out once more over std::string; "" for 0.
std::string model_resolve(const std::string &base, const std::string &ref)
{
    if (is_letter(ref[0]) && ref.find(':') != std::string::npos) return "1" + ref;
    size_t colon = base.find(':'), first, second;
    if (colon == std::string::npos || (first = base.find('/', colon + 1)) == std::string::npos ||
        (second = base.find('/', first + 1)) == std::string::npos || second + 1 == base.size())
        return "";
    size_t third = base.find('/', second + 1);
    if (ref[0] == '/') return "1" + base.substr(0, third) + ref;
    if (third == std::string::npos) return "1" + base + "/" + ref;
    return "1" + base.substr(0, base.rfind('/') + 1) + ref;
}

void parse_and_rebuild(const std::string &text, tn_uri *uri, tn_uri *again, tn_uchar_array *out)
{
    if (!tn_uri_parse(uri, u(text))) return check(parts(*uri) == "(null)|(null)|(null)|(null)|(null)", "empty on 0", text);
    check(tn_uri_to_string(uri, out), "to_string", text);
    const std::string rebuilt = bytes(*out);
    // Only the protocol's "://" goes missing, where the protocol is empty.
    if (text.find(':') != std::string::npos && !*tn_uri_get_protocol(uri)) return;
    check(tn_uri_parse(again, u(rebuilt)) && parts(*again) == parts(*uri), "reparse of rebuilt text", text);
}

void escapes(const std::string &text, tn_uchar_array *out, tn_uchar_array *back)
{
    check(tn_uri_escape(u(text), out), "escape", text);
    const std::string escaped = bytes(*out);
    check(escaped.find_first_not_of("0123456789abcdefABCDEFGHIJKLMNOPQRSTUVWXYZghijklmnopqrstuvwxyz-_.%+") ==
              std::string::npos, "escape's alphabet", text);
    check(tn_uri_unescape(u(escaped), back) && bytes(*back) == text, "unescape of escape", text);
    check(tn_uri_unescape(u(text), back) && tn_array_bytes(back) <= text.size(), "unescape never grows", text);
    check(tn_uri_should_escape(u(text)) == (!tn_uri_is_escaped(u(text)) && escaped != text), "should_escape", text);
}

void file_uri(const std::string &text, tn_uchar_array *out, tn_uchar_array *back)
{
    check(tn_uri_path_to_file_uri(u(text), out), "path_to_file_uri", text);
    std::string uri = bytes(*out);
    check(tn_uri_trim_path_prefix(reinterpret_cast<tn_uchar *>(uri.data())), "trim", text);
    uri.resize(std::char_traits<char>::length(uri.c_str()));
    check(tn_uri_unescape(u(uri), back), "unescape", text);
    if (text[0] == '/') check(bytes(*back) == text, "file URI round trip", text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, size_t size)
{
    std::string whole(reinterpret_cast<const char *>(data), size);
    whole.resize(std::char_traits<char>::length(whole.c_str()));
    size_t cut = whole.find('\n');
    const std::string base = whole.substr(0, cut), ref = cut == std::string::npos ? "" : whole.substr(cut + 1);

    tn_uri uri, again;
    tn_uchar_array out, back;
    tn_str_array names, values;
    tn_uri_init(&uri);
    tn_uri_init(&again);
    tn_array_init(&out, 1);
    tn_array_init(&back, 1);
    tn_str_array_init(&names);
    tn_str_array_init(&values);

    parse_and_rebuild(whole, &uri, &again, &out);
    std::string expected = model_resolve(base, ref), got = tn_uri_resolve(u(base), u(ref), &out) ? "1" + bytes(out) : "";
    check(got == expected && (!got.empty() || !tn_array_bytes(&out)), "resolve against the model", whole);
    escapes(whole, &out, &back);
    file_uri(whole, &out, &back);
    tn_uri_parse_query(u(whole), &names, &values);
    check(tn_str_array_length(&names) == tn_str_array_length(&values), "a value for each name", whole);
    // The record's own text, parsed into the record.
    if (tn_uri_parse(&uri, u(whole)) && tn_uri_parse(&again, tn_uri_get_path(&uri)))
        check(tn_uri_parse(&uri, tn_uri_get_path(&uri)) && parts(uri) == parts(again), "parse from itself", whole);

    tn_uri_free(&uri);
    tn_uri_free(&again);
    tn_array_free(&out);
    tn_array_free(&back);
    tn_str_array_free(&names);
    tn_str_array_free(&values);
    return 0;
}
