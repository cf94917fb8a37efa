#include <tarnel_util/tn_alloc.h>
#include <tarnel_util/tn_fmt.h>
#include <tarnel_util/tn_socket.h>
#include <tarnel_util/tn_str.h>
#include <tarnel_util/tn_time.h>

#include "http/client.h"

namespace {

using U = tn_uchar;

const U *u(const char *s) { return reinterpret_cast<const U *>(s); }

bool is_open(const tn_http_client *c) { return c->socket != -1; }

void close_socket(tn_http_client *c)
{
    tn_socket_close(c->socket);
    c->socket = -1;
}

// A storage size of the caller, or the default for 0.
tn_uint32 or_default(tn_uint32 size, tn_uint32 fallback) { return size ? size : fallback; }

void set_defaults(tn_http_client *c)
{
    tn_uri_init(&c->uri);
    c->version = 1;
    c->proxy_host = nullptr;
    c->proxy_port = 0;
    tn_array_init(&c->addresses, sizeof(tn_ip));
    c->address_index = 0;
    c->socket = -1;
    tn_poll_create(&c->poll);
    tn_array_init(&c->accumulator, 1);
    c->remaining = 0;
    tn_http_chunk_init(&c->chunk);
    c->state = TN_HTTP_CLIENT_IDLE;
    c->max_redirects = TN_HTTP_CLIENT_MAX_REDIRECTS;
    c->socket_buffer_size = TN_HTTP_CLIENT_SOCKET_BUFFER_SIZE;
}

// The name and port the connection goes to: the proxy's, or the uri's.
bool target(const tn_http_client *c, const U **name, tn_uint16 *port)
{
    if (c->proxy_host) {
        *name = c->proxy_host;
        *port = c->proxy_port;
        return true;
    }
    *name = tn_uri_get_host(&c->uri);
    const U *text = tn_uri_get_port(&c->uri);
    if (!*name || !**name) return false;
    if (!*text) {
        *port = TN_HTTP_CLIENT_DEFAULT_PORT;
        return true;
    }
    return tn_str_scan_uint16(text, port) != 0;
}

bool resolve(tn_http_client *c)
{
    const U *name = nullptr;
    tn_uint16 port = 0;
    c->address_index = 0;
    return target(c, &name, &port) && tn_ip_by_name(&c->addresses, name, port);
}

// Starts a connect on one address; true when it is complete or under way.
bool try_address(tn_http_client *c, const tn_ip *ip)
{
    if (!tn_socket_tcp(&c->socket, ip)) return false;
    if (c->socket_buffer_size) tn_socket_try_reserve_in(c->socket, c->socket_buffer_size);
    if (tn_socket_connect(c->socket, ip) || tn_socket_get_last_error() == TN_SOCKET_ERROR_WOULD_BLOCK) return true;
    close_socket(c);
    return false;
}

bool try_from_index(tn_http_client *c)
{
    const auto *ips = static_cast<const tn_ip *>(tn_array_get(&c->addresses));
    for (tn_uint32 n = tn_array_length(&c->addresses); c->address_index < n; ++c->address_index)
        if (try_address(c, &ips[c->address_index])) return true;
    return false;
}

void drop_connection(tn_http_client *c)
{
    close_socket(c);
    tn_poll_reset(&c->poll);
}

} // namespace

namespace tn::http {

void attach_buffers(tn_http_client *c)
{
    tn_socket_input_buffer_init(&c->input, c->input_storage, c->input_size, c->socket, &c->poll, 0);
    tn_socket_output_buffer_init(&c->output, c->output_storage, c->output_size, c->socket, &c->poll, 0);
    c->state = TN_HTTP_CLIENT_CONNECTED;
}

} // namespace tn::http

tn_bool tn_http_client_init(tn_http_client *c, tn_uint32 input_size, tn_int32 output_size)
{
    if (!c || output_size < -1) return 0;
    set_defaults(c);
    c->direct_writes = output_size == -1;
    c->input_size = or_default(input_size, TN_HTTP_CLIENT_INPUT_SIZE);
    c->output_size = c->direct_writes ? TN_HTTP_CLIENT_OUTPUT_SIZE
                                      : or_default(static_cast<tn_uint32>(output_size), TN_HTTP_CLIENT_OUTPUT_SIZE);
    c->input_storage = static_cast<U *>(tn_alloc(c->input_size));
    c->output_storage = c->input_storage ? static_cast<U *>(tn_alloc(c->output_size)) : nullptr;
    if (!c->output_storage) {
        tn_alloc_free(c->input_storage);
        return 0;
    }
    // Buffers on no socket, so that an early read or write fails cleanly.
    tn::http::attach_buffers(c);
    c->state = TN_HTTP_CLIENT_IDLE;
    return 1;
}

void tn_http_client_free(tn_http_client *c)
{
    if (!c) return;
    tn_http_client_disconnect(c);
    tn_uri_free(&c->uri);
    tn_alloc_free(c->proxy_host);
    c->proxy_host = nullptr;
    c->proxy_port = 0;
    tn_array_free(&c->addresses);
    tn_array_free(&c->accumulator);
    tn_poll_free(&c->poll);
    tn_alloc_free(c->input_storage);
    tn_alloc_free(c->output_storage);
    c->input_storage = c->output_storage = nullptr;
    c->input_size = c->output_size = 0;
    tn::http::attach_buffers(c);
    c->state = TN_HTTP_CLIENT_IDLE;
}

tn_bool tn_http_client_set_uri(tn_http_client *c, const tn_uchar *text)
{
    if (tn_uri_parse(&c->uri, text) && !tn_str_case_diff(tn_uri_get_protocol(&c->uri), u("http")) &&
        *tn_uri_get_host(&c->uri))
        return 1;
    tn_uri_reset(&c->uri);
    return 0;
}

tn_uri *tn_http_client_get_uri(tn_http_client *c) { return &c->uri; }
void tn_http_client_set_http_version(tn_http_client *c, tn_uint32 version) { c->version = version; }
tn_uint32 tn_http_client_get_http_version(const tn_http_client *c) { return c->version; }
void tn_http_client_set_max_following_redirects(tn_http_client *c, tn_uint32 count) { c->max_redirects = count; }

tn_bool tn_http_client_set_proxy(tn_http_client *c, const tn_uchar *host, tn_uint16 port)
{
    // The copy comes first: host may be the stored text itself.
    U *copy = nullptr;
    if (host && !tn_str_clone(host, &copy)) return 0;
    tn_alloc_free(c->proxy_host);
    c->proxy_host = copy;
    c->proxy_port = host ? port : 0;
    return 1;
}

const tn_uchar *tn_http_client_get_proxy_host(const tn_http_client *c) { return c->proxy_host; }
tn_uint16 tn_http_client_get_proxy_port(const tn_http_client *c) { return c->proxy_port; }

void tn_http_client_set_socket(tn_http_client *c, tn_socket socket)
{
    c->socket = socket;
    tn::http::attach_buffers(c);
}

tn_socket tn_http_client_get_socket(const tn_http_client *c) { return c->socket; }
tn_poll *tn_http_client_get_poll(tn_http_client *c) { return &c->poll; }
void tn_http_client_set_socket_buffer_size(tn_http_client *c, tn_uint32 size) { c->socket_buffer_size = size; }
void tn_http_client_cancel(tn_http_client *c) { tn_poll_cancel(&c->poll); }

tn_bool tn_http_client_connect_nonblock(tn_http_client *c)
{
    const tn_uint32 was = c->state;
    if (is_open(c)) {
        drop_connection(c);
        c->state = was == TN_HTTP_CLIENT_CONNECTING ? was : TN_HTTP_CLIENT_IDLE;
    } else if (was == TN_HTTP_CLIENT_FAILED) {
        return 0;
    } else if (was != TN_HTTP_CLIENT_CONNECTING) {
        c->state = TN_HTTP_CLIENT_IDLE;
    }
    bool fresh = c->state == TN_HTTP_CLIENT_IDLE;
    if (fresh ? resolve(c) : (++c->address_index, true)) {
        if (try_from_index(c)) {
            c->state = TN_HTTP_CLIENT_CONNECTING;
            return 1;
        }
    }
    close_socket(c);
    c->state = TN_HTTP_CLIENT_FAILED;
    return 0;
}

void tn_http_client_connect_nonblock_completed(tn_http_client *c) { tn::http::attach_buffers(c); }

tn_bool tn_http_client_connect(tn_http_client *c, tn_int32 timeout_ms)
{
    c->state = TN_HTTP_CLIENT_IDLE;
    const tn_time deadline = tn::http::deadline_after(timeout_ms);
    if (!tn_http_client_connect_nonblock(c)) return 0;
    while (!tn_poll_wait_write_abs(&c->poll, c->socket, &deadline))
        if (!tn_http_client_connect_nonblock(c)) return 0;
    tn::http::attach_buffers(c);
    return 1;
}

void tn_http_client_disconnect(tn_http_client *c)
{
    if (!is_open(c)) return;
    drop_connection(c);
    c->state = TN_HTTP_CLIENT_IDLE;
}
