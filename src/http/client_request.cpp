#include <tarnel_util/tn_http_header.h>
#include <tarnel_util/tn_http_vocab.h>
#include <tarnel_util/tn_str.h>

#include "http/client.h"

namespace {

using U = tn_uchar;

constexpr tn_uint32 method_size = 16;

struct exchange {
    tn_http_client *client;
    U method[method_size];
    tn_str_array *block;
    const U *body;
    tn_uint32 length;
    U *status;
    tn_str_array *response;
    tn_int32 connect_timeout, write_timeout, read_timeout;
};

// One attempt on a new connection, up to a final response head.
bool attempt(exchange &x)
{
    tn_http_client *c = x.client;
    if (!tn_http_client_connect(c, x.connect_timeout)) return false;
    if (!tn_http_client_write_header2(c, x.method, x.length, 0, x.block, x.write_timeout)) return false;
    if (x.body && !tn_http_client_write_body(c, x.body, x.length, x.write_timeout)) return false;
    do {
        if (!tn_http_client_read_header(c, x.status, x.response, x.read_timeout)) return false;
    } while (x.status[0] == '1');
    return true;
}

bool status_is(const exchange &x, const U *status) { return !tn_str_diff(x.status, status); }

// A 405 to a SOAP POST: the same request in the M-POST form.
bool wants_m_post(const exchange &x)
{
    return status_is(x, tn_http_status_method_not_allowed()) && !tn_str_diff(x.method, tn_http_method_post()) &&
           x.block && tn_http_header_find(x.block, tn_http_header_soapaction()) < tn_str_array_length(x.block);
}

// Points the client at the LOCATION of a redirect.
bool follow(exchange &x)
{
    const U *location = tn_http_header_get_value2(x.response, tn_http_header_location());
    return location && tn_http_client_set_uri(x.client, location);
}

} // namespace

tn_bool tn_http_client_request(tn_http_client *c, const tn_uchar *method, tn_str_array *block, const tn_uchar *body,
                               tn_uchar *status, tn_str_array *response_block, tn_int32 connect_timeout_ms,
                               tn_int32 write_timeout_ms, tn_int32 read_timeout_ms)
{
    if (!c || !method || !status || !response_block || tn_str_len(method) >= method_size) return 0;
    exchange x{c, {}, block, body, body ? tn_str_len(body) : 0, status, response_block,
               connect_timeout_ms, write_timeout_ms, read_timeout_ms};
    tn_str_copy(x.method, method);
    for (tn_uint32 number = 1;; ++number) {
        if (!attempt(x)) return 0;
        if (status_is(x, tn_http_status_not_modified())) return 1;
        if (wants_m_post(x)) {
            if (!tn_http_header_set_soap_man(block)) return 0;
            tn_str_copy(x.method, tn_http_method_m_post());
            continue;
        }
        if (status[0] != '3' || c->max_redirects < number) return 1;
        if (!follow(x)) return 0;
    }
}
