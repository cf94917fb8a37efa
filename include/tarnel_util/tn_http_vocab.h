/*
 * tn_http_vocab.h - the words of HTTP/1.1 as the library speaks it: methods,
 * header names and status codes, with the methods and headers of UPnP
 * (SSDP, GENA and SOAP).
 *
 * Every function without an argument returns a pointer to a terminated
 * string in the library's static storage. The caller neither frees nor
 * changes it, and each function returns the same pointer on every call, so
 * the pointer may be kept. No caller needs to spell out a method, a header
 * name or a status code of this list.
 *
 * Methods and status codes compare exactly. Header names are given in upper
 * case and compare without regard to case; the text given here is also what
 * goes on the wire when a header block writes the name.
 *
 * A status code is text of three digits, never a number. The class tests
 * and tn_http_server_get_reason take any code text, also one that has no
 * function here.
 */
#ifndef TARNEL_UTIL_TN_HTTP_VOCAB_H
#define TARNEL_UTIL_TN_HTTP_VOCAB_H

#include "tn_types.h"

TN_BEGIN_DECLS

/* Methods. */
TN_API const tn_uchar *tn_http_method_delete(void);      /* "DELETE" */
TN_API const tn_uchar *tn_http_method_get(void);         /* "GET" */
TN_API const tn_uchar *tn_http_method_head(void);        /* "HEAD" */
TN_API const tn_uchar *tn_http_method_m_post(void);      /* "M-POST" */
TN_API const tn_uchar *tn_http_method_m_search(void);    /* "M-SEARCH" */
TN_API const tn_uchar *tn_http_method_notify(void);      /* "NOTIFY" */
TN_API const tn_uchar *tn_http_method_options(void);     /* "OPTIONS" */
TN_API const tn_uchar *tn_http_method_post(void);        /* "POST" */
TN_API const tn_uchar *tn_http_method_put(void);         /* "PUT" */
TN_API const tn_uchar *tn_http_method_subscribe(void);   /* "SUBSCRIBE" */
TN_API const tn_uchar *tn_http_method_trace(void);       /* "TRACE" */
TN_API const tn_uchar *tn_http_method_unsubscribe(void); /* "UNSUBSCRIBE" */

/* Header names, in upper case. */
TN_API const tn_uchar *tn_http_header_accept_language(void);     /* "ACCEPT-LANGUAGE" */
TN_API const tn_uchar *tn_http_header_cache_control(void);       /* "CACHE-CONTROL" */
TN_API const tn_uchar *tn_http_header_connection(void);          /* "CONNECTION" */
TN_API const tn_uchar *tn_http_header_content_length(void);      /* "CONTENT-LENGTH" */
TN_API const tn_uchar *tn_http_header_content_range(void);       /* "CONTENT-RANGE" */
TN_API const tn_uchar *tn_http_header_content_type(void);        /* "CONTENT-TYPE" */
TN_API const tn_uchar *tn_http_header_date(void);                /* "DATE" */
TN_API const tn_uchar *tn_http_header_etag(void);                /* "ETAG" */
TN_API const tn_uchar *tn_http_header_expect(void);              /* "EXPECT" */
TN_API const tn_uchar *tn_http_header_ext(void);                 /* "EXT" */
TN_API const tn_uchar *tn_http_header_host(void);                /* "HOST" */
TN_API const tn_uchar *tn_http_header_if_match(void);            /* "IF-MATCH" */
TN_API const tn_uchar *tn_http_header_if_none_match(void);       /* "IF-NONE-MATCH" */
TN_API const tn_uchar *tn_http_header_if_range(void);            /* "IF-RANGE" */
TN_API const tn_uchar *tn_http_header_if_unmodified_since(void); /* "IF-UNMODIFIED-SINCE" */
TN_API const tn_uchar *tn_http_header_if_modified_since(void);   /* "IF-MODIFIED-SINCE" */
TN_API const tn_uchar *tn_http_header_last_modified(void);       /* "LAST-MODIFIED" */
TN_API const tn_uchar *tn_http_header_location(void);            /* "LOCATION" */
TN_API const tn_uchar *tn_http_header_man(void);                 /* "MAN" */
TN_API const tn_uchar *tn_http_header_mx(void);                  /* "MX" */
TN_API const tn_uchar *tn_http_header_nt(void);                  /* "NT" */
TN_API const tn_uchar *tn_http_header_nts(void);                 /* "NTS" */
TN_API const tn_uchar *tn_http_header_pragma(void);              /* "PRAGMA" */
TN_API const tn_uchar *tn_http_header_range(void);               /* "RANGE" */
TN_API const tn_uchar *tn_http_header_server(void);              /* "SERVER" */
TN_API const tn_uchar *tn_http_header_soapaction(void);          /* "SOAPACTION" */
TN_API const tn_uchar *tn_http_header_st(void);                  /* "ST" */
TN_API const tn_uchar *tn_http_header_transfer_encoding(void);   /* "TRANSFER-ENCODING" */
TN_API const tn_uchar *tn_http_header_usn(void);                 /* "USN" */
TN_API const tn_uchar *tn_http_header_vary(void);                /* "VARY" */
TN_API const tn_uchar *tn_http_header_callback(void);            /* "CALLBACK" */
TN_API const tn_uchar *tn_http_header_sid(void);                 /* "SID" */
TN_API const tn_uchar *tn_http_header_timeout(void);             /* "TIMEOUT" */
TN_API const tn_uchar *tn_http_header_seq(void);                 /* "SEQ" */
TN_API const tn_uchar *tn_http_header_user_agent(void);          /* "USER-AGENT" */
TN_API const tn_uchar *tn_http_header_content_md5(void);         /* "CONTENT-MD5" */
TN_API const tn_uchar *tn_http_header_content_language(void);    /* "CONTENT-LANGUAGE" */
TN_API const tn_uchar *tn_http_header_content_location(void);    /* "CONTENT-LOCATION" */
TN_API const tn_uchar *tn_http_header_content_encoding(void);    /* "CONTENT-ENCODING" */

/* ": ", which stands between the name and the value of a header line. */
TN_API const tn_uchar *tn_http_header_colon_sp(void);

/* Status codes, each with the reason phrase that tn_http_server_get_reason
 * gives for it. */
TN_API const tn_uchar *tn_http_status_continue(void);                        /* "100" Continue */
TN_API const tn_uchar *tn_http_status_switching_protocols(void);             /* "101" Switching Protocols */
TN_API const tn_uchar *tn_http_status_ok(void);                              /* "200" OK */
TN_API const tn_uchar *tn_http_status_created(void);                         /* "201" Created */
TN_API const tn_uchar *tn_http_status_accepted(void);                        /* "202" Accepted */
TN_API const tn_uchar *tn_http_status_non_authoritative_information(void);   /* "203" Non-Authoritative Information */
TN_API const tn_uchar *tn_http_status_no_content(void);                      /* "204" No Content */
TN_API const tn_uchar *tn_http_status_reset_content(void);                   /* "205" Reset Content */
TN_API const tn_uchar *tn_http_status_partial_content(void);                 /* "206" Partial Content */
TN_API const tn_uchar *tn_http_status_multiple_choices(void);                /* "300" Multiple Choices */
TN_API const tn_uchar *tn_http_status_moved_permanently(void);               /* "301" Moved Permanently */
TN_API const tn_uchar *tn_http_status_found(void);                           /* "302" Found */
TN_API const tn_uchar *tn_http_status_see_other(void);                       /* "303" See Other */
TN_API const tn_uchar *tn_http_status_not_modified(void);                    /* "304" Not Modified */
TN_API const tn_uchar *tn_http_status_use_proxy(void);                       /* "305" Use Proxy */
TN_API const tn_uchar *tn_http_status_temporary_redirect(void);              /* "307" Temporary Redirect */
TN_API const tn_uchar *tn_http_status_bad_request(void);                     /* "400" Bad Request */
TN_API const tn_uchar *tn_http_status_unauthorized(void);                    /* "401" Unauthorized */
TN_API const tn_uchar *tn_http_status_payment_required(void);                /* "402" Payment Required */
TN_API const tn_uchar *tn_http_status_forbidden(void);                       /* "403" Forbidden */
TN_API const tn_uchar *tn_http_status_not_found(void);                       /* "404" Not Found */
TN_API const tn_uchar *tn_http_status_method_not_allowed(void);              /* "405" Method Not Allowed */
TN_API const tn_uchar *tn_http_status_not_acceptable(void);                  /* "406" Not Acceptable */
TN_API const tn_uchar *tn_http_status_proxy_authentication_required(void);   /* "407" Proxy Authentication Required */
TN_API const tn_uchar *tn_http_status_request_timeout(void);                 /* "408" Request Timeout */
TN_API const tn_uchar *tn_http_status_conflict(void);                        /* "409" Conflict */
TN_API const tn_uchar *tn_http_status_gone(void);                            /* "410" Gone */
TN_API const tn_uchar *tn_http_status_length_required(void);                 /* "411" Length Required */
TN_API const tn_uchar *tn_http_status_precondition_failed(void);             /* "412" Precondition Failed */
TN_API const tn_uchar *tn_http_status_request_entity_too_large(void);        /* "413" Request Entity Too Large */
TN_API const tn_uchar *tn_http_status_request_uri_too_long(void);            /* "414" Request-URI Too Long */
TN_API const tn_uchar *tn_http_status_unsupported_media_type(void);          /* "415" Unsupported Media Type */
TN_API const tn_uchar *tn_http_status_requested_range_not_satisfiable(void); /* "416" Requested Range Not Satisfiable */
TN_API const tn_uchar *tn_http_status_expectation_failed(void);              /* "417" Expectation Failed */
TN_API const tn_uchar *tn_http_status_internal_server_error(void);           /* "500" Internal Server Error */
TN_API const tn_uchar *tn_http_status_not_implemented(void);                 /* "501" Not Implemented */
TN_API const tn_uchar *tn_http_status_bad_gateway(void);                     /* "502" Bad Gateway */
TN_API const tn_uchar *tn_http_status_service_unavailable(void);             /* "503" Service Unavailable */
TN_API const tn_uchar *tn_http_status_gateway_timeout(void);                 /* "504" Gateway Timeout */
TN_API const tn_uchar *tn_http_status_http_version_not_supported(void);      /* "505" HTTP Version Not Supported */

/* The class tests look at the first character of a status code only, so any
 * text that starts with the class digit passes ("299" is successful), and
 * return 1 or 0. A null code gives 0. */
TN_API tn_bool tn_http_status_is_informational(const tn_uchar *status); /* '1' */
TN_API tn_bool tn_http_status_is_successful(const tn_uchar *status);    /* '2' */
TN_API tn_bool tn_http_status_is_redirection(const tn_uchar *status);   /* '3' */
TN_API tn_bool tn_http_status_is_client_error(const tn_uchar *status);  /* '4' */
TN_API tn_bool tn_http_status_is_server_error(const tn_uchar *status);  /* '5' */

/* The reason phrase of a status line. A reason that is not null is returned
 * unchanged, so a caller may give any code a phrase of its own. Otherwise
 * the result is the phrase listed above for the code, compared whole: a
 * code with more characters ("2000"), a code without a phrase above ("306",
 * "600") and a null code give the constant "Error". */
TN_API const tn_uchar *tn_http_server_get_reason(const tn_uchar *status, const tn_uchar *reason);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_HTTP_VOCAB_H */
