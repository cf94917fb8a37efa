/*
 * poll_cancel - a host that waits on a poll set and is woken from another
 * thread.
 *
 * The main thread waits without a time-out on one end of a socket pair. A
 * second thread first writes a byte, which the wait reports as readable, and
 * later cancels the next wait, which then ends with no event. The program
 * prints what each wait saw and how long the cancel took to arrive.
 */
#define _POSIX_C_SOURCE 200809L

#include <pthread.h>
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <tarnel_util/tarnel_util.h>

struct shared {
    tn_poll poll;
    int writer;
    tn_time canceled_at_usec;
};

static void *helper(void *arg)
{
    struct shared *s = arg;
    char byte = 'x';

    tn_thread_sleep(100);
    if (write(s->writer, &byte, 1) != 1) return NULL;
    tn_thread_sleep(250);
    tn_time_usec(&s->canceled_at_usec);
    tn_poll_cancel(&s->poll);
    return NULL;
}

static void report(const char *what, tn_bool ok, tn_uint32 count, const tn_poll *poll, tn_socket sock)
{
    tn_uint32 bits = 0;
    tn_poll_get_status(poll, sock, &bits);
    printf("%-22s ok=%d count=%u bits=%s%s%s\n", what, (int)ok, (unsigned)count,
           bits & TN_POLL_READ ? "read " : "", bits & TN_POLL_WRITE ? "write " : "",
           bits & TN_POLL_ERROR ? "error " : bits ? "" : "none");
}

int main(void)
{
    struct shared s;
    int pair[2];
    pthread_t thread;
    tn_uint32 count = 0;
    tn_bool ok;
    tn_time returned_usec;
    char byte;

    if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) return 1;
    tn_poll_create(&s.poll);
    s.writer = pair[1];
    if (!tn_poll_set(&s.poll, pair[0], TN_POLL_READ)) return 1;
    if (pthread_create(&thread, NULL, helper, &s) != 0) return 1;

    ok = tn_poll_check(&s.poll, -1, &count);
    report("first wait (data)", ok, count, &s.poll, pair[0]);
    if (read(pair[0], &byte, 1) != 1) return 1;

    ok = tn_poll_check(&s.poll, -1, &count);
    tn_time_usec(&returned_usec);
    report("second wait (cancel)", ok, count, &s.poll, pair[0]);
    printf("cancel reached the waiting thread after %lld us\n",
           (long long)(returned_usec - s.canceled_at_usec));
    printf("canceled flag after the wait: %d\n", (int)tn_poll_is_canceled(&s.poll));

    pthread_join(thread, NULL);
    tn_poll_free(&s.poll);
    close(pair[0]);
    close(pair[1]);
    return 0;
}
