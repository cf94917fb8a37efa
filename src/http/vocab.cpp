#include <tarnel_util/tn_http_vocab.h>

namespace {

using U = tn_uchar;

const U *u(const char *s) { return reinterpret_cast<const U *>(s); }

struct status_row {
    U code[4];
    const char *phrase;
};

// Grouped by class and ordered within each, as the reason lookup walks them.
constexpr status_row statuses[] = {
    {"100", "Continue"},
    {"101", "Switching Protocols"},
    {"200", "OK"},
    {"201", "Created"},
    {"202", "Accepted"},
    {"203", "Non-Authoritative Information"},
    {"204", "No Content"},
    {"205", "Reset Content"},
    {"206", "Partial Content"},
    {"300", "Multiple Choices"},
    {"301", "Moved Permanently"},
    {"302", "Found"},
    {"303", "See Other"},
    {"304", "Not Modified"},
    {"305", "Use Proxy"},
    {"307", "Temporary Redirect"},
    {"400", "Bad Request"},
    {"401", "Unauthorized"},
    {"402", "Payment Required"},
    {"403", "Forbidden"},
    {"404", "Not Found"},
    {"405", "Method Not Allowed"},
    {"406", "Not Acceptable"},
    {"407", "Proxy Authentication Required"},
    {"408", "Request Timeout"},
    {"409", "Conflict"},
    {"410", "Gone"},
    {"411", "Length Required"},
    {"412", "Precondition Failed"},
    {"413", "Request Entity Too Large"},
    {"414", "Request-URI Too Long"},
    {"415", "Unsupported Media Type"},
    {"416", "Requested Range Not Satisfiable"},
    {"417", "Expectation Failed"},
    {"500", "Internal Server Error"},
    {"501", "Not Implemented"},
    {"502", "Bad Gateway"},
    {"503", "Service Unavailable"},
    {"504", "Gateway Timeout"},
    {"505", "HTTP Version Not Supported"},
};
constexpr unsigned status_count = sizeof statuses / sizeof statuses[0];

constexpr char unknown_phrase[] = "Error";

constexpr bool same_code(const U *a, const char *b)
{
    for (unsigned i = 0;; ++i) {
        if (a[i] != static_cast<U>(b[i])) return false;
        if (!a[i]) return true;
    }
}

// Each status function hands out the code stored in its row, so a code and
// its phrase live in one place; a code missing from the table fails the build.
const U *no_such_code() { return nullptr; } // not constexpr: reaching it stops the build

consteval const U *code(const char (&text)[4])
{
    for (const status_row &row : statuses)
        if (same_code(row.code, text)) return row.code;
    return no_such_code();
}

struct row_span {
    unsigned begin, end;
};

consteval row_span rows_of_class(char digit)
{
    row_span s{status_count, status_count};
    for (unsigned i = 0; i < status_count; ++i) {
        if (statuses[i].code[0] != static_cast<U>(digit)) continue;
        if (s.begin == status_count) s.begin = i;
        s.end = i + 1;
    }
    return s;
}

constexpr row_span classes[] = {rows_of_class('1'), rows_of_class('2'), rows_of_class('3'), rows_of_class('4'),
                                rows_of_class('5')};

tn_bool first_is(const U *status, char digit) { return status && status[0] == static_cast<U>(digit); }

const U *phrase_of(const U *status)
{
    if (!status || status[0] < '1' || status[0] > '5') return u(unknown_phrase);
    const row_span rows = classes[status[0] - '1'];
    for (unsigned i = rows.begin; i < rows.end; ++i)
        if (same_code(status, reinterpret_cast<const char *>(statuses[i].code))) return u(statuses[i].phrase);
    return u(unknown_phrase);
}

} // namespace

// A static array per word: the same pointer on every call.
const U *tn_http_method_delete(void) { static constexpr U t[] = "DELETE"; return t; }
const U *tn_http_method_get(void) { static constexpr U t[] = "GET"; return t; }
const U *tn_http_method_head(void) { static constexpr U t[] = "HEAD"; return t; }
const U *tn_http_method_m_post(void) { static constexpr U t[] = "M-POST"; return t; }
const U *tn_http_method_m_search(void) { static constexpr U t[] = "M-SEARCH"; return t; }
const U *tn_http_method_notify(void) { static constexpr U t[] = "NOTIFY"; return t; }
const U *tn_http_method_options(void) { static constexpr U t[] = "OPTIONS"; return t; }
const U *tn_http_method_post(void) { static constexpr U t[] = "POST"; return t; }
const U *tn_http_method_put(void) { static constexpr U t[] = "PUT"; return t; }
const U *tn_http_method_subscribe(void) { static constexpr U t[] = "SUBSCRIBE"; return t; }
const U *tn_http_method_trace(void) { static constexpr U t[] = "TRACE"; return t; }
const U *tn_http_method_unsubscribe(void) { static constexpr U t[] = "UNSUBSCRIBE"; return t; }

const U *tn_http_header_accept_language(void) { static constexpr U t[] = "ACCEPT-LANGUAGE"; return t; }
const U *tn_http_header_cache_control(void) { static constexpr U t[] = "CACHE-CONTROL"; return t; }
const U *tn_http_header_connection(void) { static constexpr U t[] = "CONNECTION"; return t; }
const U *tn_http_header_content_length(void) { static constexpr U t[] = "CONTENT-LENGTH"; return t; }
const U *tn_http_header_content_range(void) { static constexpr U t[] = "CONTENT-RANGE"; return t; }
const U *tn_http_header_content_type(void) { static constexpr U t[] = "CONTENT-TYPE"; return t; }
const U *tn_http_header_date(void) { static constexpr U t[] = "DATE"; return t; }
const U *tn_http_header_etag(void) { static constexpr U t[] = "ETAG"; return t; }
const U *tn_http_header_expect(void) { static constexpr U t[] = "EXPECT"; return t; }
const U *tn_http_header_ext(void) { static constexpr U t[] = "EXT"; return t; }
const U *tn_http_header_host(void) { static constexpr U t[] = "HOST"; return t; }
const U *tn_http_header_if_match(void) { static constexpr U t[] = "IF-MATCH"; return t; }
const U *tn_http_header_if_none_match(void) { static constexpr U t[] = "IF-NONE-MATCH"; return t; }
const U *tn_http_header_if_range(void) { static constexpr U t[] = "IF-RANGE"; return t; }
const U *tn_http_header_if_unmodified_since(void) { static constexpr U t[] = "IF-UNMODIFIED-SINCE"; return t; }
const U *tn_http_header_if_modified_since(void) { static constexpr U t[] = "IF-MODIFIED-SINCE"; return t; }
const U *tn_http_header_last_modified(void) { static constexpr U t[] = "LAST-MODIFIED"; return t; }
const U *tn_http_header_location(void) { static constexpr U t[] = "LOCATION"; return t; }
const U *tn_http_header_man(void) { static constexpr U t[] = "MAN"; return t; }
const U *tn_http_header_mx(void) { static constexpr U t[] = "MX"; return t; }
const U *tn_http_header_nt(void) { static constexpr U t[] = "NT"; return t; }
const U *tn_http_header_nts(void) { static constexpr U t[] = "NTS"; return t; }
const U *tn_http_header_pragma(void) { static constexpr U t[] = "PRAGMA"; return t; }
const U *tn_http_header_range(void) { static constexpr U t[] = "RANGE"; return t; }
const U *tn_http_header_server(void) { static constexpr U t[] = "SERVER"; return t; }
const U *tn_http_header_soapaction(void) { static constexpr U t[] = "SOAPACTION"; return t; }
const U *tn_http_header_st(void) { static constexpr U t[] = "ST"; return t; }
const U *tn_http_header_transfer_encoding(void) { static constexpr U t[] = "TRANSFER-ENCODING"; return t; }
const U *tn_http_header_usn(void) { static constexpr U t[] = "USN"; return t; }
const U *tn_http_header_vary(void) { static constexpr U t[] = "VARY"; return t; }
const U *tn_http_header_callback(void) { static constexpr U t[] = "CALLBACK"; return t; }
const U *tn_http_header_sid(void) { static constexpr U t[] = "SID"; return t; }
const U *tn_http_header_timeout(void) { static constexpr U t[] = "TIMEOUT"; return t; }
const U *tn_http_header_seq(void) { static constexpr U t[] = "SEQ"; return t; }
const U *tn_http_header_user_agent(void) { static constexpr U t[] = "USER-AGENT"; return t; }
const U *tn_http_header_content_md5(void) { static constexpr U t[] = "CONTENT-MD5"; return t; }
const U *tn_http_header_content_language(void) { static constexpr U t[] = "CONTENT-LANGUAGE"; return t; }
const U *tn_http_header_content_location(void) { static constexpr U t[] = "CONTENT-LOCATION"; return t; }
const U *tn_http_header_content_encoding(void) { static constexpr U t[] = "CONTENT-ENCODING"; return t; }
const U *tn_http_header_colon_sp(void) { static constexpr U t[] = ": "; return t; }

const U *tn_http_status_continue(void) { return code("100"); }
const U *tn_http_status_switching_protocols(void) { return code("101"); }
const U *tn_http_status_ok(void) { return code("200"); }
const U *tn_http_status_created(void) { return code("201"); }
const U *tn_http_status_accepted(void) { return code("202"); }
const U *tn_http_status_non_authoritative_information(void) { return code("203"); }
const U *tn_http_status_no_content(void) { return code("204"); }
const U *tn_http_status_reset_content(void) { return code("205"); }
const U *tn_http_status_partial_content(void) { return code("206"); }
const U *tn_http_status_multiple_choices(void) { return code("300"); }
const U *tn_http_status_moved_permanently(void) { return code("301"); }
const U *tn_http_status_found(void) { return code("302"); }
const U *tn_http_status_see_other(void) { return code("303"); }
const U *tn_http_status_not_modified(void) { return code("304"); }
const U *tn_http_status_use_proxy(void) { return code("305"); }
const U *tn_http_status_temporary_redirect(void) { return code("307"); }
const U *tn_http_status_bad_request(void) { return code("400"); }
const U *tn_http_status_unauthorized(void) { return code("401"); }
const U *tn_http_status_payment_required(void) { return code("402"); }
const U *tn_http_status_forbidden(void) { return code("403"); }
const U *tn_http_status_not_found(void) { return code("404"); }
const U *tn_http_status_method_not_allowed(void) { return code("405"); }
const U *tn_http_status_not_acceptable(void) { return code("406"); }
const U *tn_http_status_proxy_authentication_required(void) { return code("407"); }
const U *tn_http_status_request_timeout(void) { return code("408"); }
const U *tn_http_status_conflict(void) { return code("409"); }
const U *tn_http_status_gone(void) { return code("410"); }
const U *tn_http_status_length_required(void) { return code("411"); }
const U *tn_http_status_precondition_failed(void) { return code("412"); }
const U *tn_http_status_request_entity_too_large(void) { return code("413"); }
const U *tn_http_status_request_uri_too_long(void) { return code("414"); }
const U *tn_http_status_unsupported_media_type(void) { return code("415"); }
const U *tn_http_status_requested_range_not_satisfiable(void) { return code("416"); }
const U *tn_http_status_expectation_failed(void) { return code("417"); }
const U *tn_http_status_internal_server_error(void) { return code("500"); }
const U *tn_http_status_not_implemented(void) { return code("501"); }
const U *tn_http_status_bad_gateway(void) { return code("502"); }
const U *tn_http_status_service_unavailable(void) { return code("503"); }
const U *tn_http_status_gateway_timeout(void) { return code("504"); }
const U *tn_http_status_http_version_not_supported(void) { return code("505"); }

tn_bool tn_http_status_is_informational(const U *status) { return first_is(status, '1'); }
tn_bool tn_http_status_is_successful(const U *status) { return first_is(status, '2'); }
tn_bool tn_http_status_is_redirection(const U *status) { return first_is(status, '3'); }
tn_bool tn_http_status_is_client_error(const U *status) { return first_is(status, '4'); }
tn_bool tn_http_status_is_server_error(const U *status) { return first_is(status, '5'); }

const U *tn_http_server_get_reason(const U *status, const U *reason) { return reason ? reason : phrase_of(status); }
