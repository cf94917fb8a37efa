// What the text tests share: byte views of terminated strings, array contents as std::string, and a fixture with
// one array of each kind, empty when a test starts and freed before the leak check at its end.
#ifndef TN_TESTS_TEXT_TEXT_TEST_H
#define TN_TESTS_TEXT_TEXT_TEST_H

#include <tarnel_util/tn_str_array.h>

#include "support/alloc.h"

#include <string>
#include <string_view>
#include <vector>

namespace tn_text_test {

using strings = std::vector<std::string>;
inline const tn_uchar *u(std::string_view s) { return reinterpret_cast<const tn_uchar *>(s.data()); }
inline std::string str(const tn_uchar *s) { return s ? reinterpret_cast<const char *>(s) : "(null)"; }
inline std::string bytes(const tn_array &a) { return {static_cast<const char *>(tn_array_get(&a)), tn_array_bytes(&a)}; }
inline strings list(const tn_str_array &a)
{
    char **e = reinterpret_cast<char **>(tn_str_array_get(&a));
    return strings(e, e + tn_str_array_length(&a));
}

class TextTest : public tn_test::AllocTest {
protected:
    tn_array ca{}, wa{}; // of 1- and 2-byte characters
    tn_str_array sa{}, sb{};
    void SetUp() override { AllocTest::SetUp(); init(); }
    void TearDown() override { release(); AllocTest::TearDown(); }
    void release() { tn_array_free(&ca); tn_array_free(&wa); tn_str_array_free(&sa); tn_str_array_free(&sb); }
    void init() { tn_array_init(&ca, 1); tn_array_init(&wa, 2); tn_str_array_init(&sa); tn_str_array_init(&sb); }
};

} // namespace tn_text_test

#endif
