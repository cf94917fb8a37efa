/*
 * http_get - fetches one URL with the library's HTTP client.
 *
 *   http_get [options] URL
 *     -o FILE          write the body to FILE instead of stdout
 *     -i               print the status line and the response headers first
 *     -I               send HEAD instead of GET; implies -i and reads no body
 *     -X METHOD        send METHOD instead of GET
 *     -H 'Name: value' add a request header line (repeatable)
 *     -d TEXT          send TEXT as the request body
 *     --proxy HOST:PORT   go through an HTTP proxy; without it the http_proxy
 *                      environment variable is used when set
 *     --max-redirects N   follow at most N redirects (10 by default)
 *     --timeout MS     bound for each connect, write and read (10000)
 *
 * Redirects are followed by the client itself; a chunked body, one framed by
 * Content-Length and one that runs to the close are all read to their end.
 * The exit status is 0 for a 2xx answer, 1 for any other answer, 2 when no
 * answer came or the body could not be read or written.
 */
#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <tarnel_util/tarnel_util.h>

static const tn_uchar *text(const char *s) { return (const tn_uchar *)s; }

struct options {
    const char *url;
    const char *output;
    const char *method;
    const char *body;
    const char *proxy;
    tn_bool show_head;
    tn_bool head_only;
    long max_redirects;
    tn_int32 timeout;
};

static int usage(void)
{
    fprintf(stderr, "usage: http_get [-o FILE] [-i] [-I] [-X METHOD] [-H 'Name: value'] [-d TEXT]\n"
                    "                [--proxy HOST:PORT] [--max-redirects N] [--timeout MS] URL\n");
    return 2;
}

/* Stores the value of an option that takes one; 0 when none follows. */
static int take_value(int argc, char **argv, int *i, const char **value)
{
    if (*i + 1 >= argc) return 0;
    *value = argv[++*i];
    return 1;
}

static int parse_option(int argc, char **argv, int *i, struct options *o, tn_str_array *request)
{
    const char *a = argv[*i], *value = NULL;

    if (strcmp(a, "-i") == 0) o->show_head = 1;
    else if (strcmp(a, "-I") == 0) {
        o->show_head = o->head_only = 1;
        o->method = "HEAD";
    } else if (a[0] != '-' && !o->url) o->url = a;
    else if (!take_value(argc, argv, i, &value)) return 0;
    else if (strcmp(a, "-o") == 0) o->output = value;
    else if (strcmp(a, "-X") == 0) o->method = value;
    else if (strcmp(a, "-d") == 0) o->body = value;
    else if (strcmp(a, "--proxy") == 0) o->proxy = value;
    else if (strcmp(a, "--max-redirects") == 0) o->max_redirects = atol(value);
    else if (strcmp(a, "--timeout") == 0) o->timeout = (tn_int32)atol(value);
    else if (strcmp(a, "-H") == 0) return tn_str_array_cato(request, text(value));
    else return 0;
    return 1;
}

static int parse_options(int argc, char **argv, struct options *o, tn_str_array *request)
{
    int i;

    memset(o, 0, sizeof *o);
    o->method = "GET";
    o->max_redirects = 10;
    o->timeout = 10000;
    o->proxy = getenv("http_proxy");
    for (i = 1; i < argc; ++i)
        if (!parse_option(argc, argv, &i, o, request)) return 0;
    return o->url != NULL && o->max_redirects >= 0;
}

/* Takes "host:port", "http://host:port" or "http://host:port/"; an empty
 * setting means no proxy. */
static int set_proxy(tn_http_client *client, const char *setting)
{
    char host[256];
    const char *start = strstr(setting, "://");
    const char *colon;
    size_t n;
    unsigned long port;

    start = start ? start + 3 : setting;
    if (*start == '\0') return 1;
    colon = strrchr(start, ':');
    if (!colon || colon == start || (n = (size_t)(colon - start)) >= sizeof host) return 0;
    port = strtoul(colon + 1, NULL, 10);
    if (port == 0 || port > 65535) return 0;
    memcpy(host, start, n);
    host[n] = '\0';
    return tn_http_client_set_proxy(client, text(host), (tn_uint16)port);
}

static void print_head(const tn_uchar *status, const tn_str_array *response)
{
    tn_uint32 i, n = tn_str_array_length(response);

    printf("HTTP/1.1 %s %s\r\n", (const char *)status, (const char *)tn_http_server_get_reason(status, NULL));
    for (i = 0; i < n; ++i) printf("%s\r\n", (const char *)tn_str_array_get_pos(response, i));
    printf("\r\n");
    fflush(stdout);
}

/* A length of 0 is framed as a body of no bytes that the client would fail
 * to read, and 1xx, 204 and 304 answers carry none at all. */
static tn_bool has_body(const tn_uchar *status, const tn_str_array *response)
{
    const tn_uchar *length = tn_http_header_get_value2(response, tn_http_header_content_length());
    tn_uint64 n = 1;

    if (status[0] == '1' || tn_str_diff(status, tn_http_status_no_content()) == 0 ||
        tn_str_diff(status, tn_http_status_not_modified()) == 0)
        return 0;
    return !(length && tn_str_scan_uint64(length, &n) && n == 0);
}

static int copy_body(tn_http_client *client, tn_file out, tn_int32 timeout)
{
    static tn_uchar bytes[65536];
    tn_uint32 count = 0;

    while (!tn_http_client_is_response_body_eos(client)) {
        if (!tn_http_client_read_body(client, bytes, sizeof bytes, timeout, &count)) return 0;
        if (count == 0) break;
        if (!tn_file_write_all(out, bytes, count)) return 0;
    }
    return 1;
}

static int fetch(tn_http_client *client, const struct options *o, tn_str_array *request, tn_str_array *response)
{
    tn_uchar status[4] = "";
    tn_file out = tn_file_stdout();
    int result;

    tn_http_client_set_max_following_redirects(client, (tn_uint32)o->max_redirects);
    if (!tn_http_client_request(client, text(o->method), request, o->body ? text(o->body) : NULL, status, response,
                                o->timeout, o->timeout, o->timeout)) {
        fprintf(stderr, "http_get: no answer from %s\n", o->url);
        return 2;
    }
    if (o->show_head) print_head(status, response);
    result = tn_http_status_is_successful(status) ? 0 : 1;
    if (o->head_only || strcmp(o->method, "HEAD") == 0 || !has_body(status, response)) return result;
    if (o->output && !tn_file_open_truncate(&out, text(o->output))) {
        fprintf(stderr, "http_get: cannot write %s\n", o->output);
        return 2;
    }
    if (!copy_body(client, out, o->timeout)) {
        fprintf(stderr, "http_get: the body of %s broke off\n", o->url);
        result = 2;
    }
    if (o->output) tn_file_close(out);
    return result;
}

int main(int argc, char **argv)
{
    struct options o;
    tn_http_client client;
    tn_str_array request, response;
    int result = 2;

    tn_str_array_init(&request);
    tn_str_array_init(&response);
    if (!parse_options(argc, argv, &o, &request)) {
        tn_str_array_free(&request);
        return usage();
    }
    tn_socket_init();
    if (!tn_http_client_init(&client, 0, 0)) return 2;
    if (!tn_http_client_set_uri(&client, text(o.url))) fprintf(stderr, "http_get: %s is no http URL\n", o.url);
    else if (o.proxy && !set_proxy(&client, o.proxy)) fprintf(stderr, "http_get: bad proxy %s\n", o.proxy);
    else result = fetch(&client, &o, tn_str_array_length(&request) ? &request : NULL, &response);
    tn_http_client_free(&client);
    tn_str_array_free(&request);
    tn_str_array_free(&response);
    return result;
}
