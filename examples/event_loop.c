/*
 * event_loop - the shape of a host loop: one thread drives the dispatcher
 * and the scheduler in turn.
 *
 * A read task watches one end of a socket pair that a second thread writes
 * messages to; a scheduled task prints a tick once a second and re-arms
 * itself. The message "quit" ends the loop, and freeing the dispatcher calls
 * the read task once more, with the remove kind.
 */
#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <tarnel_util/tarnel_util.h>

struct host {
    tn_net net;
    tn_scheduler scheduler;
    int done;
    int ticks;
};

static const char *kind_name(tn_uint32 kind)
{
    switch (kind) {
    case TN_NET_TASK_READ: return "read";
    case TN_NET_TASK_TIMEOUT: return "timeout";
    case TN_NET_TASK_CANCEL: return "cancel";
    case TN_NET_TASK_REMOVE: return "remove";
    default: return "other";
    }
}

static void on_readable(tn_net_task *task)
{
    struct host *host = task->user;
    char text[64];
    ssize_t got;

    if (task->kind != TN_NET_TASK_READ) {
        printf("read task %u called with kind %s\n", (unsigned)task->id, kind_name(task->kind));
        return;
    }
    got = read(task->socket, text, sizeof text - 1);
    if (got <= 0) {
        tn_net_remove_net_task(&host->net, task->id);
        return;
    }
    text[got] = '\0';
    printf("received \"%s\"\n", text);
    if (strcmp(text, "quit") == 0) host->done = 1;
}

static void on_tick(tn_time now, tn_time *time, void *user)
{
    struct host *host = user;
    printf("tick %d\n", ++host->ticks);
    *time = now + 1; /* fire again next second */
}

static void writer(void *argument)
{
    int fd = *(int *)argument;
    const char *messages[] = {"hello", "from", "another", "thread", "quit"};
    size_t i;

    for (i = 0; i < sizeof messages / sizeof messages[0]; ++i) {
        tn_thread_sleep(400);
        if (write(fd, messages[i], strlen(messages[i])) < 0) return;
    }
}

int main(void)
{
    struct host host = {0};
    tn_net_task task;
    tn_scheduled_task tick;
    tn_thread thread;
    int pair[2];

    if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) return 1;
    if (!tn_net_init(&host.net) || !tn_scheduler_init(&host.scheduler)) return 1;

    tn_net_task_init(&task, TN_NET_TASK_READ, 0, pair[0], on_readable, &host);
    tn_net_set_net_task(&host.net, &task, NULL);
    tn_scheduled_task_init(&tick, on_tick, &host, NULL);
    tn_scheduler_set_scheduled_task(&host.scheduler, &tick, NULL);
    if (!tn_thread_create(&thread, 0, writer, &pair[1])) return 1;

    /* Bound each wait so that the scheduler's seconds are not missed. */
    while (!host.done) {
        tn_net_process(&host.net, 250);
        tn_scheduler_process(&host.scheduler);
    }

    tn_thread_join(&thread);
    tn_net_free(&host.net);
    tn_scheduler_free(&host.scheduler);
    close(pair[0]);
    close(pair[1]);
    printf("done after %d ticks\n", host.ticks);
    return 0;
}
