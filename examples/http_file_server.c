/*
 * http_file_server - serves a directory over HTTP/1.1 from one host loop.
 *
 *   http_file_server [--port N] [--root DIR] [--max-seconds N] [--idle-seconds N]
 *   http_file_server --demo
 *
 * --port 0 (the default) takes any free port; the first line on stdout is
 * always "listening on port N". --root defaults to the current directory.
 * The server runs until SIGINT or SIGTERM, or for --max-seconds. --demo
 * serves a temporary directory of a few files, fetches one of them with the
 * library's HTTP client on a second thread, compares the bytes and exits 0
 * when they match.
 *
 * One thread drives the dispatcher and the scheduler. Every connection is a
 * non-blocking socket with a read task; its request is parsed only from the
 * bytes the input buffer holds, so a slow or silent client costs the others
 * nothing. What it answers:
 *   - GET and HEAD of a file, with a single byte range (206, or 416 when it
 *     cannot be met; a malformed Range is ignored and the whole file sent).
 *     File bytes go by zero-copy sends that resume when the socket turns
 *     writable again.
 *   - GET and HEAD of a directory: a generated listing in chunks.
 *   - A request body, by length or chunked, is read and thrown away before
 *     the answer; "Expect: 100-continue" gets "HTTP/1.1 100 Continue" first.
 *     Any method but GET and HEAD is answered 405 once its body is read.
 *   - No path leaves the root: ".." segments (escaped or not) and an escaped
 *     "/" are refused with 403, and so is a symbolic link that resolves
 *     outside the root.
 *   - Everything else gets the library's error page.
 * Keep-alive follows the request (HTTP/1.1 unless "Connection: close"); a
 * connection with nothing to do for --idle-seconds (10 by default) is
 * closed. A status line goes to stderr once a second.
 *
 * Heads, error pages and listings are written through the connection's
 * output buffer with a short write time-out: they are small enough for the
 * socket's send buffer, and a peer that takes not even those is dropped.
 * Paths are unescaped by the library's form rules, so "+" reads as a blank;
 * the listing escapes its links by the same rules.
 */
#define _XOPEN_SOURCE 700
#define _DEFAULT_SOURCE /* syscall, for the kernel's confined open */

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#if defined(__linux__)
#include <linux/openat2.h>
#include <sys/syscall.h>
#endif

#include <tarnel_util/tarnel_util.h>

#define SERVER_TEXT ((const tn_uchar *)"Linux/1 HTTP/1.1 http_file_server/1.0")
#define WRITE_TIMEOUT_MS 1000
#define LOOP_WAIT_MS 250

static const tn_uchar *text(const char *s) { return (const tn_uchar *)s; }

/* The library's live heap blocks, counted through its allocation hooks. The
 * status line shows them, so that a long run can see the heap come back to
 * where it stood once the clients have gone. */
static tn_mutex heap_lock;
static unsigned long heap_blocks;

static void count_blocks(long change)
{
    tn_mutex_lock(&heap_lock);
    heap_blocks += (unsigned long)change;
    tn_mutex_unlock(&heap_lock);
}

static void *counting_alloc(tn_uint32 size)
{
    void *block = malloc(size);
    if (block) count_blocks(1);
    return block;
}

static void counting_free(void *block)
{
    count_blocks(-1);
    free(block);
}

static unsigned long live_blocks(void)
{
    unsigned long n;
    tn_mutex_lock(&heap_lock);
    n = heap_blocks;
    tn_mutex_unlock(&heap_lock);
    return n;
}

enum stage { STAGE_START_LINE, STAGE_HEADER, STAGE_BODY, STAGE_FILE, STAGE_DRAIN };
/* What a step leaves the connection to: more bytes, the next step, a
 * writable socket, or its end. */
enum step { STEP_MORE, STEP_NEXT, STEP_WAIT_WRITE, STEP_CLOSE };

struct server {
    tn_net net;
    tn_scheduler scheduler;
    tn_socket listener;
    tn_uint16 port;
    char root[PATH_MAX];
    int root_fd; /* the root, opened once, for opens confined beneath it */
    tn_time idle_seconds;
    unsigned connections;
    unsigned long served;
};

struct connection {
    struct server *server;
    tn_http_server http;
    tn_uint32 task_id;
    tn_uint32 idle_id;
    tn_time last_active;
    enum stage stage;
    tn_bool persistent;
    tn_bool peer_closed;
    tn_bool waiting_write;
    tn_file file;
    tn_uint64 position;
    tn_uint64 remaining;
    tn_str_array reply;
    tn_uchar_array text;
    tn_uchar_array escaped;
    tn_uchar uri[TN_HTTP_SERVER_INPUT_SIZE];
};

static volatile sig_atomic_t stop_requested;

static void on_connection(tn_net_task *task);

static void on_stop_signal(int signal)
{
    (void)signal;
    stop_requested = 1;
}

/* ---- Small helpers ------------------------------------------------------- */

static tn_input_buffer *input_of(struct connection *c)
{
    return &tn_http_server_get_socket_input_buffer(&c->http)->buffer;
}

static void touch(struct connection *c) { tn_time_sec(&c->last_active); }

static tn_bool text_equal_case(const tn_uchar *a, const char *b) { return a && tn_str_case_diff(a, text(b)) == 0; }

static const tn_uchar *header_value(struct connection *c, const tn_uchar *name)
{
    return tn_http_header_get_value2(tn_http_server_get_header(&c->http), name);
}

static const char *content_type_of(const char *path)
{
    static const struct {
        const char *suffix;
        const char *type;
    } types[] = {
        {"html", "text/html"},        {"htm", "text/html"},       {"txt", "text/plain"},
        {"css", "text/css"},          {"js", "text/javascript"},  {"json", "application/json"},
        {"xml", "text/xml"},          {"png", "image/png"},       {"jpg", "image/jpeg"},
        {"jpeg", "image/jpeg"},       {"gif", "image/gif"},       {"mp3", "audio/mpeg"},
        {"mp4", "video/mp4"},         {"mkv", "video/x-matroska"}, {"pdf", "application/pdf"},
    };
    const tn_uchar *suffix = tn_file_get_suffix(text(path));
    size_t i;

    for (i = 0; i < sizeof types / sizeof types[0]; ++i)
        if (text_equal_case(suffix, types[i].suffix)) return types[i].type;
    return "application/octet-stream";
}

/* ---- Answers ------------------------------------------------------------- */

static enum step finish(struct connection *c);

/* Stops sending and reads whatever the peer still sends until it closes,
 * so that closing with unread bytes cannot reset the answer away. */
static enum step begin_drain(struct connection *c)
{
    tn_socket socket;

    tn_http_server_get_socket(&c->http, &socket);
    tn_socket_shutdown(socket, 1);
    tn_input_buffer_reset(input_of(c));
    c->stage = STAGE_DRAIN;
    return c->peer_closed ? STEP_CLOSE : STEP_MORE;
}

/* The library's error page; the connection then closes unless the request
 * is fully read and keeps it open. */
static enum step answer_error(struct connection *c, const tn_uchar *status, tn_bool keep)
{
    c->persistent = c->persistent && keep;
    tn_str_array_truncate(&c->reply);
    if (tn_str_diff(status, tn_http_status_method_not_allowed()) == 0)
        tn_http_header_set_str(&c->reply, text("Allow"), text("GET, HEAD"), 1);
    if (!tn_http_server_write_error_response(&c->http, status, NULL, &c->reply, SERVER_TEXT, c->persistent))
        return STEP_CLOSE;
    return finish(c);
}

static enum step refuse(struct connection *c, const tn_uchar *status) { return answer_error(c, status, 0); }

static tn_bool html_cat(tn_uchar_array *out, const tn_uchar *s)
{
    for (; *s; ++s) {
        const char *entity = *s == '&' ? "&amp;" : *s == '<' ? "&lt;" : *s == '>' ? "&gt;" : *s == '"' ? "&quot;" : 0;
        if (!(entity ? tn_uchar_array_cats(out, text(entity)) : tn_uchar_array_cato(out, *s))) return 0;
    }
    return 1;
}

static tn_bool write_text_chunk(struct connection *c)
{
    tn_uint32 n = tn_array_length(&c->text);
    return tn_array_failed(&c->text) ? 0 : tn_http_server_write_chunk(&c->http, tn_array_get(&c->text), n);
}

/* One line of the listing: a link built from the request path as it came
 * and the name escaped, the name shown with HTML escapes. */
static tn_bool write_listing_entry(struct connection *c, const char *dir, const tn_uchar *raw_path,
                                   const tn_uchar *name)
{
    char path[PATH_MAX];
    tn_bool is_dir;
    tn_uint32 n = tn_str_len(raw_path);

    if ((size_t)snprintf(path, sizeof path, "%s/%s", dir, (const char *)name) >= sizeof path) return 1;
    is_dir = tn_file_is_dir(text(path));
    tn_uri_escape(name, &c->escaped);
    tn_uchar_array_cat0(&c->escaped);
    tn_array_truncate(&c->text);
    tn_uchar_array_cats(&c->text, text("<li><a href=\""));
    html_cat(&c->text, raw_path);
    if (n == 0 || raw_path[n - 1] != '/') tn_uchar_array_cato(&c->text, '/');
    tn_uchar_array_cats(&c->text, tn_array_get(&c->escaped));
    tn_uchar_array_cats(&c->text, text(is_dir ? "/\">" : "\">"));
    html_cat(&c->text, name);
    tn_uchar_array_cats(&c->text, text(is_dir ? "/</a></li>\n" : "</a></li>\n"));
    return !tn_array_failed(&c->escaped) && write_text_chunk(c);
}

static tn_bool write_listing_body(struct connection *c, const char *dir, const tn_uchar *raw_path)
{
    tn_dir listing;
    const tn_uchar *name;
    tn_bool ok = 1;

    tn_array_truncate(&c->text);
    tn_uchar_array_cats(&c->text, text("<html><head><title>Index of "));
    html_cat(&c->text, raw_path);
    tn_uchar_array_cats(&c->text, text("</title></head><body><h1>Index of "));
    html_cat(&c->text, raw_path);
    tn_uchar_array_cats(&c->text, text("</h1><ul>\n"));
    if (!write_text_chunk(c) || !tn_dir_open(&listing, text(dir))) return 0;
    while (ok && (name = tn_dir_read(&listing)) != NULL) ok = write_listing_entry(c, dir, raw_path, name);
    tn_dir_close(&listing);
    tn_array_truncate(&c->text);
    tn_uchar_array_cats(&c->text, text("</ul></body></html>\n"));
    return ok && write_text_chunk(c) && tn_http_server_write_chunk_eos(&c->http);
}

static enum step answer_listing(struct connection *c, const char *dir, tn_bool head)
{
    const tn_uchar *raw_path = tn_uri_get_path(tn_http_server_get_uri(&c->http));
    tn_bool ok;

    tn_str_array_truncate(&c->reply);
    ok = tn_http_header_set_common_response_header(&c->reply, SERVER_TEXT, c->persistent) &&
         tn_http_header_set_str(&c->reply, tn_http_header_content_type(), text("text/html; charset=utf-8"), 1);
    /* An HTTP/1.0 peer gets the listing unframed, ended by the close. */
    if (ok && !tn_http_server_is_request_version_1_0(&c->http))
        ok = tn_http_header_set_str(&c->reply, tn_http_header_transfer_encoding(), text("chunked"), 1);
    ok = ok && tn_http_server_write_status_line(&c->http, tn_http_status_ok(), NULL) &&
         tn_http_server_write_header(&c->http, &c->reply) && (head || write_listing_body(c, dir, raw_path)) &&
         tn_http_server_flush_output(&c->http);
    return ok ? finish(c) : STEP_CLOSE;
}

static tn_bool add_content_range(struct connection *c, const tn_http_range *range, tn_uint64 size)
{
    tn_bool ok = tn_http_header_content_range_init(&c->text);
    if (range) {
        ok = ok && tn_http_header_range_start_pos(&c->text, range->start) &&
             tn_http_header_range_end_pos(&c->text, range->start + range->length - 1);
    } else {
        ok = ok && tn_uchar_array_cato(&c->text, '*');
    }
    ok = ok && tn_http_header_range_length(&c->text, size) && tn_uchar_array_cat0(&c->text);
    return ok && tn_str_array_cato(&c->reply, tn_array_get(&c->text));
}

static enum step answer_unsatisfiable(struct connection *c, tn_file file, tn_uint64 size)
{
    tn_file_close(file);
    tn_str_array_truncate(&c->reply);
    if (!add_content_range(c, NULL, size)) return STEP_CLOSE;
    if (!tn_http_server_write_error_response(&c->http, tn_http_status_requested_range_not_satisfiable(), NULL,
                                             &c->reply, SERVER_TEXT, c->persistent))
        return STEP_CLOSE;
    return finish(c);
}

static enum step send_more(struct connection *c);

static enum step answer_file(struct connection *c, tn_file file, const struct stat *kind, const char *path,
                             tn_bool head)
{
    const tn_uint64 size = (tn_uint64)kind->st_size;
    const tn_time modified = (tn_time)kind->st_mtime;
    tn_http_range range;
    const tn_uchar *range_value = header_value(c, tn_http_header_range());
    const tn_uchar *range_status = NULL;
    tn_bool partial = 0, ok;

    range.start = 0;
    range.length = size;
    if (range_value && size > 0) {
        partial = tn_http_header_parse_range(range_value, size, &range, &range_status);
        if (!partial && tn_str_diff(range_status, tn_http_status_requested_range_not_satisfiable()) == 0)
            return answer_unsatisfiable(c, file, size);
        if (!partial) { /* malformed: the whole file */
            range.start = 0;
            range.length = size;
        }
    }
    tn_str_array_truncate(&c->reply);
    ok = tn_http_header_set_common_response_header(&c->reply, SERVER_TEXT, c->persistent) &&
         tn_http_header_set_str(&c->reply, tn_http_header_content_type(), text(content_type_of(path)), 1) &&
         tn_http_header_set_uint64(&c->reply, tn_http_header_content_length(), range.length, 1) &&
         tn_http_header_set_rfc1123_date(&c->reply, tn_http_header_last_modified(), modified, 1) &&
         tn_http_header_set_str(&c->reply, text("Accept-Ranges"), text("bytes"), 1) &&
         (!partial || add_content_range(c, &range, size)) &&
         tn_http_server_write_status_line(&c->http, partial ? tn_http_status_partial_content() : tn_http_status_ok(),
                                          NULL) &&
         tn_http_server_write_header(&c->http, &c->reply);
    if (!ok || head || range.length == 0) {
        tn_file_close(file);
        return ok && tn_http_server_flush_output(&c->http) ? finish(c) : STEP_CLOSE;
    }
    c->file = file;
    c->position = range.start;
    c->remaining = range.length;
    c->stage = STAGE_FILE;
    return send_more(c);
}

/* ---- Paths --------------------------------------------------------------- */

static tn_bool has_dot_dot_segment(const char *path)
{
    const char *p = path;
    while ((p = strstr(p, "..")) != NULL) {
        if ((p == path || p[-1] == '/') && (p[2] == '\0' || p[2] == '/')) return 1;
        p += 2;
    }
    return 0;
}

static tn_bool is_inside_root(const struct server *server, const char *resolved)
{
    size_t n = strlen(server->root);
    if (strncmp(resolved, server->root, n) != 0) return 0;
    return resolved[n] == '\0' || resolved[n] == '/' || (n == 1 && server->root[0] == '/');
}

/* Opens a path below the root (joined is the root and relative), refusing
 * every way out of it: "..", or a symbolic link that leads outside. On
 * Linux the kernel does it within the one open (RESOLVE_BENEATH); elsewhere,
 * or on a kernel without it, realpath and a prefix test do, at the price of
 * a lookup per path component. O_NONBLOCK keeps a FIFO from stalling the
 * loop; for the files and directories that are served it means nothing. */
static int open_beneath(const struct server *server, const char *relative, const char *joined)
{
    char resolved[PATH_MAX];
#if defined(__linux__) && defined(SYS_openat2)
    struct open_how how;
    long fd;

    memset(&how, 0, sizeof how);
    how.flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    fd = syscall(SYS_openat2, server->root_fd, relative[1] ? relative + 1 : ".", &how, sizeof how);
    if (fd >= 0 || errno != ENOSYS) return (int)fd;
#endif
    if (!realpath(joined, resolved)) return -1;
    if (!is_inside_root(server, resolved)) {
        errno = EXDEV;
        return -1;
    }
    return open(resolved, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
}

/* Opens what the request path names under the root, and leaves its full
 * path in joined; on failure returns the status to answer with. */
static const tn_uchar *open_target(struct connection *c, char *joined, tn_file *file)
{
    const tn_uchar *raw = tn_uri_get_path(tn_http_server_get_uri(&c->http));
    const char *decoded;

    if (!raw || raw[0] != '/') return tn_http_status_bad_request();
    if (tn_str_case_find(raw, text("%2f")) != tn_str_len(raw)) return tn_http_status_forbidden();
    if (!tn_uri_unescape(raw, &c->escaped) || !tn_uchar_array_cat0(&c->escaped)) return tn_http_status_internal_server_error();
    decoded = (const char *)tn_array_get(&c->escaped);
    if (strlen(decoded) + 1 != tn_array_length(&c->escaped)) return tn_http_status_bad_request(); /* an escaped NUL */
    if (has_dot_dot_segment(decoded)) return tn_http_status_forbidden();
    if ((size_t)snprintf(joined, PATH_MAX, "%s%s", c->server->root, decoded) >= PATH_MAX)
        return tn_http_status_request_uri_too_long();
    *file = open_beneath(c->server, decoded, joined);
    if (*file >= 0) return NULL;
    return errno == ENOENT || errno == ENOTDIR || errno == ENAMETOOLONG ? tn_http_status_not_found()
                                                                      : tn_http_status_forbidden();
}

static enum step respond(struct connection *c)
{
    const tn_uchar *method = tn_http_server_get_method(&c->http);
    tn_bool head = tn_str_diff(method, tn_http_method_head()) == 0;
    char joined[PATH_MAX];
    struct stat kind;
    const tn_uchar *status;
    tn_file file = TN_FILE_INVALID;

    if (!head && tn_str_diff(method, tn_http_method_get()) != 0)
        return answer_error(c, tn_http_status_method_not_allowed(), 1);
    status = open_target(c, joined, &file);
    if (status) return answer_error(c, status, 1);
    if (fstat(file, &kind) != 0) kind.st_mode = 0;
    if (S_ISREG(kind.st_mode)) return answer_file(c, file, &kind, joined, head);
    tn_file_close(file);
    if (S_ISDIR(kind.st_mode)) return answer_listing(c, joined, head);
    return answer_error(c, tn_http_status_forbidden(), 1);
}

/* ---- Reading a request --------------------------------------------------- */

/* 1 for a body to read, 0 for none, -1 for framing that cannot be read. */
static int request_framing(struct connection *c)
{
    const tn_uchar *encoding = header_value(c, tn_http_header_transfer_encoding());
    const tn_uchar *length = header_value(c, tn_http_header_content_length());
    tn_uint64 n = 0;

    if (encoding) return text_equal_case(encoding, "chunked") ? 1 : -1;
    return length && tn_str_scan_uint64(length, &n) && n > 0;
}

static tn_bool answer_continue(struct connection *c)
{
    const tn_uchar *expect = header_value(c, tn_http_header_expect());

    if (!text_equal_case(expect, "100-continue") || tn_http_server_is_request_version_1_0(&c->http)) return 1;
    return tn_http_server_write_status_line(&c->http, tn_http_status_continue(), NULL) &&
           tn_http_server_write_header(&c->http, NULL) && tn_http_server_flush_output(&c->http);
}

static tn_bool input_full(struct connection *c)
{
    tn_input_buffer *in = input_of(c);
    return tn_input_buffer_available(in) == tn_input_buffer_length(in);
}

static enum step step_start_line(struct connection *c)
{
    tn_bool done = 0;

    if (!tn_http_server_read_start_line_nonblock(&c->http, c->uri, sizeof c->uri, &done))
        return refuse(c, tn_http_status_bad_request());
    if (!done) return input_full(c) ? refuse(c, tn_http_status_request_uri_too_long()) : STEP_MORE;
    tn_str_array_truncate(tn_http_server_get_header(&c->http));
    c->stage = STAGE_HEADER;
    return STEP_NEXT;
}

static enum step step_header(struct connection *c)
{
    tn_bool done = 0;
    int framing;

    if (!tn_http_server_read_header_nonblock(&c->http, &done)) return refuse(c, tn_http_status_bad_request());
    if (!done) return STEP_MORE;
    c->persistent = tn_http_server_is_persistent_connection_request(&c->http);
    framing = request_framing(c);
    if (framing < 0) return refuse(c, tn_http_status_not_implemented());
    if (framing == 0) return respond(c);
    if (!answer_continue(c)) return STEP_CLOSE;
    c->stage = STAGE_BODY;
    return STEP_NEXT;
}

/* Throws the body away from the bytes held; the answer follows its end. */
static enum step step_body(struct connection *c)
{
    tn_uchar scrap[4096];
    tn_uint32 count, ready;

    while (!tn_http_server_is_request_body_eos(&c->http)) {
        if (tn_input_buffer_available(input_of(c)) == 0) return STEP_MORE;
        if (!tn_http_server_read_body_nonblock(&c->http, scrap, sizeof scrap, &count, &ready))
            return refuse(c, tn_http_status_bad_request());
    }
    return respond(c);
}

static enum step step_drain(struct connection *c)
{
    tn_input_buffer_reset(input_of(c));
    return c->peer_closed ? STEP_CLOSE : STEP_MORE;
}

/* ---- Sending a file ------------------------------------------------------ */

static void set_task_kind(struct connection *c, tn_uint32 kind)
{
    tn_net_modify_net_task(&c->server->net, c->task_id, kind, 0, on_connection, c);
}

static void close_file(struct connection *c)
{
    tn_file_close(c->file);
    c->file = TN_FILE_INVALID;
}

static enum step send_more(struct connection *c)
{
    tn_uint64 count = 0;
    tn_bool was_writable = c->waiting_write;

    if (!tn_http_server_send_file_nonblock(&c->http, c->file, c->position, c->remaining, &count)) return STEP_CLOSE;
    c->position += count;
    c->remaining -= count;
    if (count) touch(c);
    if (c->remaining == 0) {
        close_file(c);
        return finish(c);
    }
    /* Nothing taken by a writable socket: the file has shrunk under us. */
    if (count == 0 && was_writable) return STEP_CLOSE;
    return STEP_WAIT_WRITE;
}

/* ---- The connection's steps ---------------------------------------------- */

static enum step finish(struct connection *c)
{
    c->server->served++;
    if (!c->persistent || c->peer_closed) return begin_drain(c);
    tn_http_server_reset(&c->http);
    c->stage = STAGE_START_LINE;
    return STEP_NEXT;
}

static enum step step(struct connection *c)
{
    switch (c->stage) {
    case STAGE_START_LINE: return step_start_line(c);
    case STAGE_HEADER: return step_header(c);
    case STAGE_BODY: return step_body(c);
    case STAGE_FILE: return send_more(c);
    case STAGE_DRAIN: return step_drain(c);
    }
    return STEP_CLOSE;
}

/* Runs steps until one needs the peer; the task waits for reading or
 * writing accordingly. */
static void advance(struct connection *c)
{
    enum step next;

    do next = step(c);
    while (next == STEP_NEXT);
    if (next == STEP_MORE && c->peer_closed) next = STEP_CLOSE;
    if (next == STEP_CLOSE) {
        tn_net_remove_net_task(&c->server->net, c->task_id);
        return;
    }
    if ((next == STEP_WAIT_WRITE) != c->waiting_write) {
        c->waiting_write = next == STEP_WAIT_WRITE;
        set_task_kind(c, c->waiting_write ? TN_NET_TASK_WRITE : TN_NET_TASK_READ);
    }
}

/* Reads what the readable socket has behind the bytes held. A full storage
 * takes nothing and is left to the step that reads it. 0 on a failed
 * socket. */
static tn_bool take_input(struct connection *c)
{
    tn_input_buffer *in = input_of(c);
    tn_uint32 before = tn_input_buffer_available(in), after = 0;

    if (before == tn_input_buffer_length(in)) return 1;
    if (!tn_input_buffer_pool(in, &after)) return 0;
    if (after == before) c->peer_closed = 1;
    else touch(c);
    return 1;
}

static void connection_free(struct connection *c)
{
    tn_scheduler_remove_scheduled_task(&c->server->scheduler, c->idle_id);
    close_file(c);
    tn_http_server_free(&c->http);
    tn_str_array_free(&c->reply);
    tn_array_free(&c->text);
    tn_array_free(&c->escaped);
    c->server->connections--;
    tn_alloc_free(c);
}

static void on_connection(tn_net_task *task)
{
    struct connection *c = task->user;

    switch (task->kind) {
    case TN_NET_TASK_REMOVE: connection_free(c); return;
    case TN_NET_TASK_READ:
        if (!take_input(c)) {
            tn_net_remove_net_task(&c->server->net, c->task_id);
            return;
        }
        break;
    case TN_NET_TASK_WRITE: break;
    default: tn_net_remove_net_task(&c->server->net, c->task_id); return;
    }
    advance(c);
}

/* Closes a connection that has had nothing to do for the idle time. */
static void on_idle_check(tn_time now, tn_time *time, void *user)
{
    struct connection *c = user;
    tn_time due = c->last_active + c->server->idle_seconds;

    if (now >= due) {
        tn_net_remove_net_task(&c->server->net, c->task_id);
        *time = now + 1; /* stays until the removal takes it away */
        return;
    }
    *time = due;
}

/* ---- Accepting ------------------------------------------------------------ */

/* Takes the socket over in every case: on failure it is closed. */
static struct connection *connection_create(struct server *server, tn_socket socket, const tn_ip *remote)
{
    struct connection *c = tn_alloc_zero(sizeof *c);

    if (!c || !tn_http_server_init(&c->http)) {
        tn_alloc_free(c);
        tn_socket_close(socket);
        return NULL;
    }
    c->server = server;
    c->file = TN_FILE_INVALID;
    tn_str_array_init(&c->reply);
    tn_array_init(&c->text, 1);
    tn_array_init(&c->escaped, 1);
    server->connections++;
    touch(c);
    if (!tn_http_server_set_socket2(&c->http, socket, 0, WRITE_TIMEOUT_MS)) {
        connection_free(c);
        return NULL;
    }
    tn_http_server_set_remote_ip(&c->http, remote);
    /* A head and a file go out as two sends; held back for the peer's
     * delayed acknowledgement, the second would cost each small answer on a
     * kept connection some 40 ms. */
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &(int){1}, sizeof(int));
    /* The send buffer is sized once here rather than before every head. */
    tn_socket_try_reserve_out(socket, TN_HTTP_SERVER_SOCKET_BUFFER_SIZE);
    tn_http_server_set_socket_buffer_size(&c->http, 0);
    return c;
}

static void connection_start(struct server *server, struct connection *c, tn_socket socket)
{
    tn_net_task task;
    tn_scheduled_task idle;

    tn_scheduled_task_init(&idle, on_idle_check, c, NULL);
    tn_scheduled_task_set_time(&idle, c->last_active + server->idle_seconds);
    tn_net_task_init(&task, TN_NET_TASK_READ, 0, socket, on_connection, c);
    if (!tn_scheduler_set_scheduled_task(&server->scheduler, &idle, &c->idle_id) ||
        !tn_net_set_net_task(&server->net, &task, &c->task_id))
        connection_free(c);
}

static void on_listener(tn_net_task *task)
{
    struct server *server = task->user;
    struct connection *c;
    tn_socket socket;
    tn_ip remote;

    if (task->kind != TN_NET_TASK_READ) return;
    while (tn_socket_accept(server->listener, &socket, &remote)) {
        c = connection_create(server, socket, &remote);
        if (c) connection_start(server, c, socket);
    }
}

static void on_status(tn_time now, tn_time *time, void *user)
{
    struct server *server = user;
    fprintf(stderr, "http_file_server: %u connections, %lu requests served, heap blocks %lu\n",
            server->connections, server->served, live_blocks());
    *time = now + 1;
}

static tn_bool listen_on(struct server *server, tn_uint16 port)
{
    tn_ip ip;
    tn_net_task task;

    if (!tn_ip_set(&ip, tn_ip_str_loopback4(), port) || !tn_socket_tcp(&server->listener, &ip)) return 0;
    if (!tn_socket_bind_reuse(server->listener, &ip) || !tn_socket_listen(server->listener, 128)) return 0;
    if (!tn_socket_local(server->listener, &ip) || !tn_ip_get(&ip, NULL, NULL, &server->port)) return 0;
    tn_net_task_init(&task, TN_NET_TASK_READ, 0, server->listener, on_listener, server);
    return tn_net_set_net_task(&server->net, &task, NULL);
}

/* ---- The demo --------------------------------------------------------------- */

struct demo {
    char dir[64];
    char sub[96];
    char paths[3][128];
    tn_uint16 port;
    tn_mutex lock;
    int done;   /* guarded by lock */
    int passed; /* guarded by lock */
};

static const char *const demo_names[3] = {"hello.txt", "big.bin", "sub/note.txt"};

static tn_bool write_file(const char *path, const tn_uchar *bytes, tn_uint32 n)
{
    tn_file file;
    tn_bool ok;

    if (!tn_file_open_truncate(&file, text(path))) return 0;
    ok = tn_file_write_all(file, bytes, n);
    return tn_file_close(file) && ok;
}

static tn_uchar demo_big[300000];

static tn_bool demo_setup(struct demo *demo)
{
    const char *hello = "hello from http_file_server\n";
    size_t i;

    strcpy(demo->dir, "/tmp/http_file_server.XXXXXX");
    if (!mkdtemp(demo->dir)) return 0;
    snprintf(demo->sub, sizeof demo->sub, "%s/sub", demo->dir);
    for (i = 0; i < 3; ++i) snprintf(demo->paths[i], sizeof demo->paths[i], "%s/%s", demo->dir, demo_names[i]);
    for (i = 0; i < sizeof demo_big; ++i) demo_big[i] = (tn_uchar)(i * 7 + i / 251);
    return tn_dir_make(text(demo->sub)) && write_file(demo->paths[0], text(hello), (tn_uint32)strlen(hello)) &&
           write_file(demo->paths[1], demo_big, sizeof demo_big) &&
           write_file(demo->paths[2], text("a note\n"), 7);
}

static void demo_cleanup(struct demo *demo)
{
    size_t i;
    for (i = 0; i < 3; ++i) tn_file_remove(text(demo->paths[i]));
    tn_dir_remove(text(demo->sub));
    tn_dir_remove(text(demo->dir));
}

/* Fetches big.bin and compares it with what was written. */
static int demo_fetch(tn_uint16 port)
{
    tn_http_client client;
    tn_str_array response;
    tn_uchar status[4] = "", url[64], bytes[16384];
    tn_uint64 total = 0;
    tn_uint32 count = 0;
    int same = 1;

    snprintf((char *)url, sizeof url, "http://127.0.0.1:%u/big.bin", (unsigned)port);
    tn_str_array_init(&response);
    if (!tn_http_client_init(&client, 0, 0)) return 0;
    if (tn_http_client_set_uri(&client, url) &&
        tn_http_client_request(&client, tn_http_method_get(), NULL, NULL, status, &response, 5000, 5000, 5000)) {
        while (!tn_http_client_is_response_body_eos(&client) &&
               tn_http_client_read_body(&client, bytes, sizeof bytes, 5000, &count) && count > 0) {
            same = same && total + count <= sizeof demo_big && memcmp(bytes, demo_big + total, count) == 0;
            total += count;
        }
    }
    printf("demo: GET /big.bin gave status %s and %llu bytes, %s\n", status, (unsigned long long)total,
           same && total == sizeof demo_big ? "identical to the file" : "NOT identical to the file");
    tn_http_client_free(&client);
    tn_str_array_free(&response);
    return tn_str_diff(status, tn_http_status_ok()) == 0 && same && total == sizeof demo_big;
}

static void demo_client(void *argument)
{
    struct demo *demo = argument;
    int passed = demo_fetch(demo->port);

    tn_mutex_lock(&demo->lock);
    demo->passed = passed;
    demo->done = 1;
    tn_mutex_unlock(&demo->lock);
}

static int demo_state(struct demo *demo, int *passed)
{
    int done;
    tn_mutex_lock(&demo->lock);
    done = demo->done;
    *passed = demo->passed;
    tn_mutex_unlock(&demo->lock);
    return done;
}

/* ---- Main ------------------------------------------------------------------- */

struct options {
    long port;
    const char *root;
    long max_seconds;
    long idle_seconds;
    int demo;
};

static int parse_options(int argc, char **argv, struct options *options)
{
    int i;

    options->port = 0;
    options->root = ".";
    options->max_seconds = 0;
    options->idle_seconds = 10;
    options->demo = 0;
    for (i = 1; i < argc; ++i) {
        const char *value = i + 1 < argc ? argv[i + 1] : NULL;
        if (strcmp(argv[i], "--demo") == 0) {
            options->demo = 1;
            continue;
        }
        if (!value) return 0;
        if (strcmp(argv[i], "--port") == 0) options->port = atol(value);
        else if (strcmp(argv[i], "--root") == 0) options->root = value;
        else if (strcmp(argv[i], "--max-seconds") == 0) options->max_seconds = atol(value);
        else if (strcmp(argv[i], "--idle-seconds") == 0) options->idle_seconds = atol(value);
        else return 0;
        ++i;
    }
    return options->port >= 0 && options->port <= 65535 && options->idle_seconds > 0;
}

static int run(struct server *server, long max_seconds, struct demo *demo)
{
    tn_scheduled_task status;
    tn_time start, now;
    int passed = 0;

    tn_scheduled_task_init(&status, on_status, server, NULL);
    tn_scheduler_set_scheduled_task(&server->scheduler, &status, NULL);
    tn_time_sec(&start);
    while (!stop_requested) {
        tn_net_process(&server->net, LOOP_WAIT_MS);
        tn_scheduler_process(&server->scheduler);
        tn_time_sec(&now);
        if (demo && demo_state(demo, &passed)) break;
        if (max_seconds > 0 && now - start >= max_seconds) break;
    }
    return demo ? passed : 1;
}

int main(int argc, char **argv)
{
    static struct server server;
    struct options options;
    struct demo demo;
    tn_thread thread;
    int ok;

    if (!tn_mutex_create(&heap_lock)) return 1;
    tn_alloc_set_alloc_handler(counting_alloc);
    tn_alloc_set_free_handler(counting_free);
    if (!parse_options(argc, argv, &options)) {
        fprintf(stderr, "usage: http_file_server [--port N] [--root DIR] [--max-seconds N] [--idle-seconds N] "
                        "| --demo\n");
        return 2;
    }
    if (options.demo) {
        memset(&demo, 0, sizeof demo);
        if (!tn_mutex_create(&demo.lock) || !demo_setup(&demo)) {
            fprintf(stderr, "http_file_server: cannot set up the demo directory\n");
            return 1;
        }
        options.root = demo.dir;
        options.port = 0;
        options.max_seconds = 30; /* a bound, should the client hang */
    }
    if (!realpath(options.root, server.root) || !tn_file_is_dir(text(server.root)) ||
        (server.root_fd = open(server.root, O_RDONLY | O_DIRECTORY | O_CLOEXEC)) < 0) {
        fprintf(stderr, "http_file_server: %s is no directory\n", options.root);
        return 1;
    }
    server.idle_seconds = options.idle_seconds;
    tn_socket_init();
    tn_signal_catch(tn_signal_id_int(), on_stop_signal);
    tn_signal_catch(tn_signal_id_term(), on_stop_signal);
    if (!tn_net_init(&server.net) || !tn_scheduler_init(&server.scheduler)) return 1;
    if (!listen_on(&server, (tn_uint16)options.port)) {
        fprintf(stderr, "http_file_server: cannot listen on 127.0.0.1:%ld\n", options.port);
        return 1;
    }
    printf("listening on port %u\n", (unsigned)server.port);
    fflush(stdout);

    if (options.demo) {
        demo.port = server.port;
        if (!tn_thread_create(&thread, 0, demo_client, &demo)) return 1;
    }
    ok = run(&server, options.max_seconds, options.demo ? &demo : NULL);
    if (options.demo) {
        tn_thread_join(&thread);
        demo_cleanup(&demo);
        tn_mutex_free(&demo.lock);
        printf("demo: %s\n", ok ? "passed" : "FAILED");
    }
    tn_net_free(&server.net);
    tn_scheduler_free(&server.scheduler);
    tn_socket_close(server.listener);
    on_status(0, &(tn_time){0}, &server);
    return ok ? 0 : 1;
}
