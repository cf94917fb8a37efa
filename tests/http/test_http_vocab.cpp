#include <tarnel_util/tn_http_vocab.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <string>

namespace {

using word_fn = const tn_uchar *(*)(void);

struct word_row {
    word_fn fn;
    const char *text;
};

struct status_row {
    word_fn fn;
    const char *code;
    const char *phrase;
};

const tn_uchar *u(const char *s) { return reinterpret_cast<const tn_uchar *>(s); }
std::string str(const tn_uchar *s) { return s ? reinterpret_cast<const char *>(s) : "(null)"; }

const word_row words[] = {
    {tn_http_method_delete, "DELETE"},
    {tn_http_method_get, "GET"},
    {tn_http_method_head, "HEAD"},
    {tn_http_method_m_post, "M-POST"},
    {tn_http_method_m_search, "M-SEARCH"},
    {tn_http_method_notify, "NOTIFY"},
    {tn_http_method_options, "OPTIONS"},
    {tn_http_method_post, "POST"},
    {tn_http_method_put, "PUT"},
    {tn_http_method_subscribe, "SUBSCRIBE"},
    {tn_http_method_trace, "TRACE"},
    {tn_http_method_unsubscribe, "UNSUBSCRIBE"},
    {tn_http_header_accept_language, "ACCEPT-LANGUAGE"},
    {tn_http_header_cache_control, "CACHE-CONTROL"},
    {tn_http_header_connection, "CONNECTION"},
    {tn_http_header_content_length, "CONTENT-LENGTH"},
    {tn_http_header_content_range, "CONTENT-RANGE"},
    {tn_http_header_content_type, "CONTENT-TYPE"},
    {tn_http_header_date, "DATE"},
    {tn_http_header_etag, "ETAG"},
    {tn_http_header_expect, "EXPECT"},
    {tn_http_header_ext, "EXT"},
    {tn_http_header_host, "HOST"},
    {tn_http_header_if_match, "IF-MATCH"},
    {tn_http_header_if_none_match, "IF-NONE-MATCH"},
    {tn_http_header_if_range, "IF-RANGE"},
    {tn_http_header_if_unmodified_since, "IF-UNMODIFIED-SINCE"},
    {tn_http_header_if_modified_since, "IF-MODIFIED-SINCE"},
    {tn_http_header_last_modified, "LAST-MODIFIED"},
    {tn_http_header_location, "LOCATION"},
    {tn_http_header_man, "MAN"},
    {tn_http_header_mx, "MX"},
    {tn_http_header_nt, "NT"},
    {tn_http_header_nts, "NTS"},
    {tn_http_header_pragma, "PRAGMA"},
    {tn_http_header_range, "RANGE"},
    {tn_http_header_server, "SERVER"},
    {tn_http_header_soapaction, "SOAPACTION"},
    {tn_http_header_st, "ST"},
    {tn_http_header_transfer_encoding, "TRANSFER-ENCODING"},
    {tn_http_header_usn, "USN"},
    {tn_http_header_vary, "VARY"},
    {tn_http_header_callback, "CALLBACK"},
    {tn_http_header_sid, "SID"},
    {tn_http_header_timeout, "TIMEOUT"},
    {tn_http_header_seq, "SEQ"},
    {tn_http_header_user_agent, "USER-AGENT"},
    {tn_http_header_content_md5, "CONTENT-MD5"},
    {tn_http_header_content_language, "CONTENT-LANGUAGE"},
    {tn_http_header_content_location, "CONTENT-LOCATION"},
    {tn_http_header_content_encoding, "CONTENT-ENCODING"},
    {tn_http_header_colon_sp, ": "},
};

const status_row statuses[] = {
    {tn_http_status_continue, "100", "Continue"},
    {tn_http_status_switching_protocols, "101", "Switching Protocols"},
    {tn_http_status_ok, "200", "OK"},
    {tn_http_status_created, "201", "Created"},
    {tn_http_status_accepted, "202", "Accepted"},
    {tn_http_status_non_authoritative_information, "203", "Non-Authoritative Information"},
    {tn_http_status_no_content, "204", "No Content"},
    {tn_http_status_reset_content, "205", "Reset Content"},
    {tn_http_status_partial_content, "206", "Partial Content"},
    {tn_http_status_multiple_choices, "300", "Multiple Choices"},
    {tn_http_status_moved_permanently, "301", "Moved Permanently"},
    {tn_http_status_found, "302", "Found"},
    {tn_http_status_see_other, "303", "See Other"},
    {tn_http_status_not_modified, "304", "Not Modified"},
    {tn_http_status_use_proxy, "305", "Use Proxy"},
    {tn_http_status_temporary_redirect, "307", "Temporary Redirect"},
    {tn_http_status_bad_request, "400", "Bad Request"},
    {tn_http_status_unauthorized, "401", "Unauthorized"},
    {tn_http_status_payment_required, "402", "Payment Required"},
    {tn_http_status_forbidden, "403", "Forbidden"},
    {tn_http_status_not_found, "404", "Not Found"},
    {tn_http_status_method_not_allowed, "405", "Method Not Allowed"},
    {tn_http_status_not_acceptable, "406", "Not Acceptable"},
    {tn_http_status_proxy_authentication_required, "407", "Proxy Authentication Required"},
    {tn_http_status_request_timeout, "408", "Request Timeout"},
    {tn_http_status_conflict, "409", "Conflict"},
    {tn_http_status_gone, "410", "Gone"},
    {tn_http_status_length_required, "411", "Length Required"},
    {tn_http_status_precondition_failed, "412", "Precondition Failed"},
    {tn_http_status_request_entity_too_large, "413", "Request Entity Too Large"},
    {tn_http_status_request_uri_too_long, "414", "Request-URI Too Long"},
    {tn_http_status_unsupported_media_type, "415", "Unsupported Media Type"},
    {tn_http_status_requested_range_not_satisfiable, "416", "Requested Range Not Satisfiable"},
    {tn_http_status_expectation_failed, "417", "Expectation Failed"},
    {tn_http_status_internal_server_error, "500", "Internal Server Error"},
    {tn_http_status_not_implemented, "501", "Not Implemented"},
    {tn_http_status_bad_gateway, "502", "Bad Gateway"},
    {tn_http_status_service_unavailable, "503", "Service Unavailable"},
    {tn_http_status_gateway_timeout, "504", "Gateway Timeout"},
    {tn_http_status_http_version_not_supported, "505", "HTTP Version Not Supported"},
};

using class_test = tn_bool (*)(const tn_uchar *);
const class_test class_tests[] = {tn_http_status_is_informational, tn_http_status_is_successful,
                                  tn_http_status_is_redirection, tn_http_status_is_client_error,
                                  tn_http_status_is_server_error};

TEST(HttpVocab, MethodsAndHeaderNamesAreTheirTextsAtOneAddress)
{
    for (const word_row &w : words) {
        SCOPED_TRACE(w.text);
        const tn_uchar *first = w.fn();
        EXPECT_EQ(str(first), w.text);
        EXPECT_EQ(w.fn(), first);
    }
}

TEST(HttpVocab, StatusCodesAreTheirTextsWithTheirPhrases)
{
    for (const status_row &s : statuses) {
        SCOPED_TRACE(s.code);
        const tn_uchar *first = s.fn();
        EXPECT_EQ(str(first), s.code);
        EXPECT_EQ(s.fn(), first);
        EXPECT_EQ(str(tn_http_server_get_reason(first, nullptr)), s.phrase);
    }
}

TEST(HttpVocab, EveryOtherThreeDigitCodeIsAnError)
{
    std::map<std::string, std::string> known;
    for (const status_row &s : statuses) known[s.code] = s.phrase;
    for (int n = 0; n < 1000; ++n) {
        char code[4];
        std::snprintf(code, sizeof code, "%03d", n);
        const auto row = known.find(code);
        ASSERT_EQ(str(tn_http_server_get_reason(u(code), nullptr)), row == known.end() ? "Error" : row->second)
            << code;
    }
}

TEST(HttpVocab, ReasonOfTextsThatAreNoCode)
{
    struct row {
        const char *status;
        const char *phrase;
    } const rows[] = {
        {"2000", "Error"}, {"200 ", "Error"}, {"20", "Error"}, {"2", "Error"},   {"", "Error"},
        {"/00", "Error"},  {":00", "Error"},  {"1", "Error"},  {"5050", "Error"}, {"5o5", "Error"},
    };
    for (const row &r : rows) EXPECT_EQ(str(tn_http_server_get_reason(u(r.status), nullptr)), r.phrase) << r.status;
    EXPECT_EQ(str(tn_http_server_get_reason(nullptr, nullptr)), "Error");
}

TEST(HttpVocab, ACallersReasonComesBackAsItIs)
{
    const tn_uchar *mine = u("Not Here"), *empty = u("");
    EXPECT_EQ(tn_http_server_get_reason(u("404"), mine), mine);
    EXPECT_EQ(tn_http_server_get_reason(u("600"), mine), mine);
    EXPECT_EQ(tn_http_server_get_reason(u("200"), empty), empty);
    EXPECT_EQ(tn_http_server_get_reason(nullptr, mine), mine);
}

TEST(HttpVocab, ClassTestsReadTheFirstCharacterOnly)
{
    for (int c = 1; c < 256; ++c) {
        const char text[] = {static_cast<char>(c), '9', '9', 0};
        for (int k = 0; k < 5; ++k)
            ASSERT_EQ(class_tests[k](u(text)), c == '1' + k) << "class " << k + 1 << " of " << c;
    }
    for (class_test test : class_tests) {
        EXPECT_FALSE(test(u("")));
        EXPECT_FALSE(test(nullptr));
    }
    EXPECT_TRUE(tn_http_status_is_successful(u("2")));
    EXPECT_TRUE(tn_http_status_is_server_error(u("5xx and more")));
}

} // namespace
