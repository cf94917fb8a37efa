// The MIME type tests against a model written with std::string. Input: the
// size of the value buffer, a placement byte, then the parameter name up to
// the first line feed and the MIME text behind it. Bit 0 of the placement
// puts the MIME text into the value buffer, at the offset in bits 1 to 4,
// and the value at the offset in bits 5 to 7.
#include <tarnel_util/tn_mime_type.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace {

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool starts_with_case(const std::string &s, size_t at, const std::string &prefix)
{
    if (s.size() - at < prefix.size()) return false;
    for (size_t i = 0; i < prefix.size(); ++i)
        if (lower(s[at + i]) != lower(prefix[i])) return false;
    return true;
}

bool model_major(const std::string &mime, const std::string &major)
{
    return starts_with_case(mime, 0, major) && mime.size() > major.size() && mime[major.size()] == '/';
}

bool model_sub(const std::string &mime, const std::string &sub)
{
    size_t slash = mime.find('/');
    if (slash == std::string::npos || !starts_with_case(mime, slash + 1, sub)) return false;
    size_t end = slash + 1 + sub.size();
    return end == mime.size() || std::strchr(" \t;", mime[end]);
}

std::optional<std::string> model_parameter(const std::string &mime, const std::string &name)
{
    for (size_t semicolon = mime.find(';'); semicolon != std::string::npos;) {
        size_t at = mime.find_first_not_of(" \t", semicolon + 1);
        if (at == std::string::npos) return std::nullopt;
        size_t equals = at + name.size();
        if (starts_with_case(mime, at, name) && equals < mime.size() && mime[equals] == '=') {
            size_t end = mime.find_first_of("; \t", equals + 1);
            return mime.substr(equals + 1, end == std::string::npos ? std::string::npos : end - equals - 1);
        }
        semicolon = mime.find(';', at);
    }
    return std::nullopt;
}

const tn_uchar *u(const std::string &s) { return reinterpret_cast<const tn_uchar *>(s.c_str()); }

[[noreturn]] void fail(const char *what, const std::string &mime, const std::string &name)
{
    std::fprintf(stderr, "%s differs for mime [%s] name [%s]\n", what, mime.c_str(), name.c_str());
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, size_t size)
{
    if (size < 2) return 0;
    const tn_uint32 value_size = data[0];
    const unsigned placement = data[1];
    // C text ends at its first zero byte, and so do the model's strings.
    std::string input(reinterpret_cast<const char *>(data + 2), size - 2);
    input.resize(std::strlen(input.c_str()));
    const size_t line = input.find('\n');
    const std::string name = input.substr(0, line);
    const std::string mime = line == std::string::npos ? std::string() : input.substr(line + 1);

    if (tn_mime_type_major_equal(u(mime), u(name)) != model_major(mime, name)) fail("major", mime, name);
    if (tn_mime_type_sub_equal(u(mime), u(name)) != model_sub(mime, name)) fail("sub", mime, name);

    const std::optional<std::string> expected = model_parameter(mime, name);
    const bool fits = expected && expected->size() < value_size;
    const bool inside = placement & 1;
    const size_t mime_at = (placement >> 1) & 15, value_at = inside ? (placement >> 5) & 7 : 0;
    // Exactly as large as needed, so that a write past either end is caught.
    std::vector<tn_uchar> buffer(std::max(value_at + value_size, inside ? mime_at + mime.size() + 1 : 0));
    for (size_t i = 0; i < buffer.size(); ++i) buffer[i] = static_cast<tn_uchar>(i * 7);
    const tn_uchar *text = u(mime);
    if (inside) {
        std::memcpy(buffer.data() + mime_at, mime.c_str(), mime.size() + 1);
        text = buffer.data() + mime_at;
    }
    const std::vector<tn_uchar> before = buffer;
    if (tn_mime_type_get_parameter_value(text, u(name), buffer.data() + value_at, value_size) != fits)
        fail("parameter found", mime, name);
    std::vector<tn_uchar> after = before;
    if (fits) std::memcpy(after.data() + value_at, expected->c_str(), expected->size() + 1);
    if (buffer != after) fail("buffer", mime, name);
    return 0;
}
