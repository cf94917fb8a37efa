/*
 * echo_server - a TCP echo server on loopback, driven by one host loop.
 *
 * The listening socket has a read task that accepts; each connection gets a
 * read task of its own that echoes what arrives and removes itself when the
 * peer closes, and the remove call closes the socket. A scheduled task
 * prints a status line once a second.
 *
 *   echo_server [port [seconds]]   serve on 127.0.0.1:port (0: any port)
 *   echo_server --demo             serve, and let a client thread talk to
 *                                  the server; stop when it has gone
 *
 * The demo client uses the buffered streams: lines go out through a socket
 * output buffer and come back through a socket input buffer.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <tarnel_util/tarnel_util.h>

struct server {
    tn_net net;
    tn_scheduler scheduler;
    tn_poll poll; /* for the rare send that would block */
    tn_socket listener;
    tn_uint16 port;
    unsigned open, served;
    tn_uint64 echoed;
    int demo;
};

/* Echoes bytes back, waiting for room when the peer reads slowly. */
static int send_all(struct server *server, tn_socket socket, const char *bytes, tn_uint32 n)
{
    while (n) {
        tn_uint32 sent = 0;
        if (!tn_socket_send(socket, bytes, n, &sent)) {
            if (tn_socket_get_last_error() != TN_SOCKET_ERROR_WOULD_BLOCK) return 0;
            if (!tn_poll_wait_write(&server->poll, socket, 1000)) return 0;
            continue;
        }
        bytes += sent;
        n -= sent;
    }
    return 1;
}

static void on_connection(tn_net_task *task)
{
    struct server *server = task->user;
    char bytes[4096];
    tn_uint32 got = 0;

    if (task->kind == TN_NET_TASK_REMOVE) {
        tn_socket_close(task->socket);
        server->open--;
        return;
    }
    if (task->kind != TN_NET_TASK_READ) return;
    for (;;) {
        if (!tn_socket_recv(task->socket, bytes, sizeof bytes, &got)) {
            if (tn_socket_get_last_error() == TN_SOCKET_ERROR_WOULD_BLOCK) return; /* all read for now */
            break;
        }
        if (!got || !send_all(server, task->socket, bytes, got)) break; /* closed, or gone bad */
        server->echoed += got;
    }
    tn_net_remove_net_task(&server->net, task->id);
}

static void on_listener(tn_net_task *task)
{
    struct server *server = task->user;
    tn_socket client;
    tn_net_task connection;

    if (task->kind != TN_NET_TASK_READ) return;
    while (tn_socket_accept(server->listener, &client, NULL)) {
        tn_socket_ndelay_on(client);
        tn_net_task_init(&connection, TN_NET_TASK_READ, 0, client, on_connection, server);
        if (!tn_net_set_net_task(&server->net, &connection, NULL)) {
            tn_socket_close(client);
            continue;
        }
        server->open++;
        server->served++;
    }
}

static void on_status(tn_time now, tn_time *time, void *user)
{
    struct server *server = user;
    printf("status: %u open, %u served, %llu bytes echoed\n", server->open, server->served,
           (unsigned long long)server->echoed);
    fflush(stdout);
    *time = now + 1;
}

static int listen_on(struct server *server, tn_uint16 port)
{
    tn_ip ip;
    tn_net_task task;

    if (!tn_ip_set(&ip, tn_ip_str_loopback4(), port) || !tn_socket_tcp(&server->listener, &ip)) return 0;
    if (!tn_socket_bind_reuse(server->listener, &ip) || !tn_socket_listen(server->listener, 128)) return 0;
    if (!tn_socket_local(server->listener, &ip) || !tn_ip_get(&ip, NULL, NULL, &server->port)) return 0;
    tn_net_task_init(&task, TN_NET_TASK_READ, 0, server->listener, on_listener, server);
    return tn_net_set_net_task(&server->net, &task, NULL);
}

/* The demo's client: connects, sends each line, reads its echo back. */
static void client(void *user)
{
    struct server *server = user;
    const char *lines[] = {"hello, echo", "a line through two buffers", "bye"};
    unsigned char in_storage[256], out_storage[256], echo[256];
    tn_socket_input_buffer in;
    tn_socket_output_buffer out;
    tn_socket socket;
    tn_poll poll;
    tn_ip ip;
    size_t i;

    if (!tn_poll_create(&poll)) return;
    tn_ip_set(&ip, tn_ip_str_loopback4(), server->port);
    if (tn_socket_tcp(&socket, &ip)) {
        if (tn_socket_connect(socket, &ip) ||
            (tn_socket_get_last_error() == TN_SOCKET_ERROR_WOULD_BLOCK && tn_poll_wait_write(&poll, socket, 2000))) {
            tn_socket_input_buffer_init(&in, in_storage, sizeof in_storage, socket, &poll, 2000);
            tn_socket_output_buffer_init(&out, out_storage, sizeof out_storage, socket, &poll, 2000);
            for (i = 0; i < sizeof lines / sizeof lines[0]; ++i) {
                tn_output_buffer_writes(&out.buffer, (const tn_uchar *)lines[i]);
                tn_output_buffer_writes(&out.buffer, tn_str_crlf());
                if (!tn_output_buffer_flush(&out.buffer) || !tn_input_buffer_read_line(&in.buffer, echo, sizeof echo))
                    break;
                printf("client: sent \"%s\", got back \"%s\"\n", lines[i], (const char *)echo);
                fflush(stdout);
            }
        }
        tn_socket_close(socket);
    }
    tn_poll_free(&poll);
}

int main(int argc, char **argv)
{
    struct server server;
    tn_scheduled_task status;
    tn_thread thread;
    tn_time start, now;
    long seconds = 0;
    int port = 0;

    memset(&server, 0, sizeof server);
    server.demo = argc > 1 && strcmp(argv[1], "--demo") == 0;
    if (!server.demo && argc > 1) port = atoi(argv[1]);
    if (!server.demo && argc > 2) seconds = atol(argv[2]);
    if (server.demo) seconds = 10; /* a bound, should the client fail */

    tn_socket_init();
    if (!tn_net_init(&server.net) || !tn_scheduler_init(&server.scheduler) || !tn_poll_create(&server.poll)) return 1;
    if (!listen_on(&server, (tn_uint16)port)) {
        fprintf(stderr, "echo_server: cannot listen on 127.0.0.1:%d\n", port);
        return 1;
    }
    printf("listening on 127.0.0.1:%u\n", (unsigned)server.port);
    fflush(stdout);
    tn_scheduled_task_init(&status, on_status, &server, NULL);
    tn_scheduler_set_scheduled_task(&server.scheduler, &status, NULL);
    if (server.demo && !tn_thread_create(&thread, 0, client, &server)) return 1;

    tn_time_sec(&start);
    for (;;) {
        /* A quarter-second bound keeps the status line on time. */
        tn_net_process(&server.net, 250);
        tn_scheduler_process(&server.scheduler);
        tn_time_sec(&now);
        if (server.demo && server.served > 0 && server.open == 0) break;
        if (seconds > 0 && now - start >= seconds) break;
    }

    if (server.demo) tn_thread_join(&thread);
    on_status(now, &now, &server);
    tn_net_free(&server.net);
    tn_scheduler_free(&server.scheduler);
    tn_poll_free(&server.poll);
    tn_socket_close(server.listener);
    return 0;
}
