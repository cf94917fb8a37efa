#include <tarnel_util/tn_http_vocab.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <initializer_list>
#include <string>

namespace {

using word_fn = const tn_uchar *(*)(void);
const tn_uchar *u(const char *s) { return reinterpret_cast<const tn_uchar *>(s); }
std::string str(const tn_uchar *s) { return s ? reinterpret_cast<const char *>(s) : "(null)"; }

// The words in the given order, each followed by '|'; every word keeps one address.
std::string words(std::initializer_list<word_fn> fns)
{
    std::string all;
    for (word_fn fn : fns) {
        EXPECT_EQ(fn(), fn()) << str(fn());
        all += str(fn()) + "|";
    }
    return all;
}

TEST(HttpVocab, WordsAreTheirTextsAtOneAddress)
{
    EXPECT_EQ(words({tn_http_method_delete, tn_http_method_get, tn_http_method_head, tn_http_method_m_post,
                     tn_http_method_m_search, tn_http_method_notify, tn_http_method_options, tn_http_method_post,
                     tn_http_method_put, tn_http_method_subscribe, tn_http_method_trace, tn_http_method_unsubscribe}),
              "DELETE|GET|HEAD|M-POST|M-SEARCH|NOTIFY|OPTIONS|POST|PUT|SUBSCRIBE|TRACE|UNSUBSCRIBE|");
    EXPECT_EQ(words({tn_http_header_accept_language, tn_http_header_cache_control, tn_http_header_connection,
                     tn_http_header_content_length, tn_http_header_content_range, tn_http_header_content_type,
                     tn_http_header_date, tn_http_header_etag, tn_http_header_expect, tn_http_header_ext,
                     tn_http_header_host, tn_http_header_if_match, tn_http_header_if_none_match,
                     tn_http_header_if_range, tn_http_header_if_unmodified_since, tn_http_header_if_modified_since,
                     tn_http_header_last_modified, tn_http_header_location, tn_http_header_man, tn_http_header_mx,
                     tn_http_header_nt, tn_http_header_nts, tn_http_header_pragma, tn_http_header_range,
                     tn_http_header_server, tn_http_header_soapaction, tn_http_header_st,
                     tn_http_header_transfer_encoding, tn_http_header_usn, tn_http_header_vary,
                     tn_http_header_callback, tn_http_header_sid, tn_http_header_timeout, tn_http_header_seq,
                     tn_http_header_user_agent, tn_http_header_content_md5, tn_http_header_content_language,
                     tn_http_header_content_location, tn_http_header_content_encoding, tn_http_header_colon_sp}),
              "ACCEPT-LANGUAGE|CACHE-CONTROL|CONNECTION|CONTENT-LENGTH|CONTENT-RANGE|CONTENT-TYPE|DATE|ETAG|EXPECT|"
              "EXT|HOST|IF-MATCH|IF-NONE-MATCH|IF-RANGE|IF-UNMODIFIED-SINCE|IF-MODIFIED-SINCE|LAST-MODIFIED|"
              "LOCATION|MAN|MX|NT|NTS|PRAGMA|RANGE|SERVER|SOAPACTION|ST|TRANSFER-ENCODING|USN|VARY|CALLBACK|SID|"
              "TIMEOUT|SEQ|USER-AGENT|CONTENT-MD5|CONTENT-LANGUAGE|CONTENT-LOCATION|CONTENT-ENCODING|: |");
    EXPECT_EQ(words({tn_http_status_continue, tn_http_status_switching_protocols, tn_http_status_ok,
                     tn_http_status_created, tn_http_status_accepted, tn_http_status_non_authoritative_information,
                     tn_http_status_no_content, tn_http_status_reset_content, tn_http_status_partial_content,
                     tn_http_status_multiple_choices, tn_http_status_moved_permanently, tn_http_status_found,
                     tn_http_status_see_other, tn_http_status_not_modified, tn_http_status_use_proxy,
                     tn_http_status_temporary_redirect, tn_http_status_bad_request, tn_http_status_unauthorized,
                     tn_http_status_payment_required, tn_http_status_forbidden, tn_http_status_not_found,
                     tn_http_status_method_not_allowed, tn_http_status_not_acceptable,
                     tn_http_status_proxy_authentication_required, tn_http_status_request_timeout,
                     tn_http_status_conflict, tn_http_status_gone, tn_http_status_length_required,
                     tn_http_status_precondition_failed, tn_http_status_request_entity_too_large,
                     tn_http_status_request_uri_too_long, tn_http_status_unsupported_media_type,
                     tn_http_status_requested_range_not_satisfiable, tn_http_status_expectation_failed,
                     tn_http_status_internal_server_error, tn_http_status_not_implemented,
                     tn_http_status_bad_gateway, tn_http_status_service_unavailable,
                     tn_http_status_gateway_timeout, tn_http_status_http_version_not_supported}),
              "100|101|200|201|202|203|204|205|206|300|301|302|303|304|305|307|400|401|402|403|404|405|406|407|"
              "408|409|410|411|412|413|414|415|416|417|500|501|502|503|504|505|");
}

// Every three-digit code: the known ones with their phrases, all others "Error".
TEST(HttpVocab, ReasonOfEveryThreeDigitCode)
{
    std::string known;
    for (int n = 0; n < 1000; ++n) {
        char code[4];
        std::snprintf(code, sizeof code, "%03d", n);
        const std::string phrase = str(tn_http_server_get_reason(u(code), nullptr));
        if (phrase != "Error") known += std::string(code) + " " + phrase + "|";
    }
    EXPECT_EQ(known, "100 Continue|101 Switching Protocols|200 OK|201 Created|202 Accepted|"
                     "203 Non-Authoritative Information|204 No Content|205 Reset Content|206 Partial Content|"
                     "300 Multiple Choices|301 Moved Permanently|302 Found|303 See Other|304 Not Modified|"
                     "305 Use Proxy|307 Temporary Redirect|400 Bad Request|401 Unauthorized|402 Payment Required|"
                     "403 Forbidden|404 Not Found|405 Method Not Allowed|406 Not Acceptable|"
                     "407 Proxy Authentication Required|408 Request Timeout|409 Conflict|410 Gone|"
                     "411 Length Required|412 Precondition Failed|413 Request Entity Too Large|"
                     "414 Request-URI Too Long|415 Unsupported Media Type|416 Requested Range Not Satisfiable|"
                     "417 Expectation Failed|500 Internal Server Error|501 Not Implemented|502 Bad Gateway|"
                     "503 Service Unavailable|504 Gateway Timeout|505 HTTP Version Not Supported|");
}

TEST(HttpVocab, ReasonOfTextsThatAreNoCodeAndOfACallersOwn)
{
    for (const char *status : {"2000", "200 ", "20", "2", "", "/00", ":00", "1", "5050", "5o5"})
        EXPECT_EQ(str(tn_http_server_get_reason(u(status), nullptr)), "Error") << status;
    EXPECT_EQ(str(tn_http_server_get_reason(nullptr, nullptr)), "Error");
    const tn_uchar *mine = u("Not Here"), *empty = u("");
    EXPECT_EQ(tn_http_server_get_reason(u("404"), mine), mine);
    EXPECT_EQ(tn_http_server_get_reason(u("600"), mine), mine);
    EXPECT_EQ(tn_http_server_get_reason(u("200"), empty), empty);
    EXPECT_EQ(tn_http_server_get_reason(nullptr, mine), mine);
}

TEST(HttpVocab, ClassTestsReadTheFirstCharacterOnly)
{
    using class_test = tn_bool (*)(const tn_uchar *);
    const class_test tests[] = {tn_http_status_is_informational, tn_http_status_is_successful,
                                tn_http_status_is_redirection, tn_http_status_is_client_error,
                                tn_http_status_is_server_error};
    for (int c = 1; c < 256; ++c) {
        const char text[] = {static_cast<char>(c), '9', '9', 0};
        for (int k = 0; k < 5; ++k) ASSERT_EQ(tests[k](u(text)), c == '1' + k) << "class " << k + 1 << " of " << c;
    }
    for (class_test test : tests) {
        EXPECT_FALSE(test(u("")));
        EXPECT_FALSE(test(nullptr));
    }
    EXPECT_TRUE(tn_http_status_is_successful(u("2")));
    EXPECT_TRUE(tn_http_status_is_server_error(u("5xx and more")));
}

} // namespace
