/*
 * tn_net.h - the net task dispatcher: socket tasks driven by one host loop.
 *
 * A task binds a socket to a callback, a kind (what it waits for) and an
 * absolute deadline in tn_time_msec milliseconds (0: none). The table holds
 * at most one task per socket. One thread calls tn_net_process in a loop;
 * any thread, and any callback, may queue requests with the set, modify,
 * remove and cancel operations at any time between tn_net_init and
 * tn_net_free. Requests are applied at the start of the next cycle, and each
 * one cancels the present poll wait, so the loop sees it at once.
 *
 * One cycle calls, in this order and each group in table order (oldest task
 * first): the callbacks of the tasks being removed, then those of canceled
 * and timed-out tasks, then, after the wait, those of the tasks whose sockets
 * are ready. The kind field of the callback's record tells why it runs:
 * TN_NET_TASK_REMOVE, _CANCEL or _TIMEOUT, or the task's own kind for a call
 * on readiness, with the poll result bits in result. The callback gets a
 * copy, valid only during the call; it changes its task through the request
 * operations. No lock of the library is held during a callback or the wait.
 *
 * A deadline equal to the cycle's clock reading has not passed. Task ids
 * start at 1 and wrap from 0xFFFFFFFF to 1, never 0.
 */
#ifndef TARNEL_UTIL_TN_NET_H
#define TARNEL_UTIL_TN_NET_H

#include "tn_mutex.h"
#include "tn_poll.h"

TN_BEGIN_DECLS

#define TN_NET_TASK_NONE 0u       /* a request of this kind is ignored */
#define TN_NET_TASK_READ 1u       /* wait for readability; deadline watched */
#define TN_NET_TASK_WRITE 2u      /* wait for writability; deadline watched */
#define TN_NET_TASK_READ_WRITE 3u /* wait for either; deadline watched */
#define TN_NET_TASK_IDLE 4u       /* stay, poll entry untouched, no deadline */
#define TN_NET_TASK_TIMEOUT 5u    /* deadline passed: called each cycle */
#define TN_NET_TASK_CANCEL 6u     /* called each cycle until changed */
#define TN_NET_TASK_REMOVE 7u     /* called once, then gone */

typedef struct tn_net_task tn_net_task;

/* Called with a copy of the task; the result is ignored. */
typedef void (*tn_net_callback)(tn_net_task *task);

struct tn_net_task {
    tn_uint32 kind;
    tn_time deadline;         /* tn_time_msec milliseconds; 0 means none */
    tn_socket socket;         /* the key: one task per socket */
    tn_net_callback callback;
    void *user;               /* the host's argument */
    tn_uint32 result;         /* poll result bits, on a call for readiness */
    tn_uint32 id;             /* 0 until assigned */
    tn_bool cancelable;       /* 1 by default; 0 refuses the cancel kind */
};

typedef tn_array tn_net_task_array;

typedef struct tn_net {
    tn_poll poll;                  /* one entry per waiting task's socket */
    tn_net_task_array tasks;       /* the table, in order of arrival */
    tn_net_task_array pending;     /* requests not yet applied */
    tn_uint32 last_id;
    tn_mutex lock;                 /* guards tasks, pending and last_id */
    tn_net_task_array call_list;   /* the cycle's own working lists */
    tn_net_task_array remove_list;
} tn_net;

/* Fills the record: id 0, cancelable 1; result is left as it was. */
TN_API void tn_net_task_init(tn_net_task *task, tn_uint32 kind, tn_time deadline, tn_socket socket,
                             tn_net_callback callback, void *user);

/* Stores the five fields, keeping id and cancelable. Returns 0 and changes
 * nothing if kind is cancel and the task is not cancelable, else 1. */
TN_API tn_bool tn_net_task_modify(tn_net_task *task, tn_uint32 kind, tn_time deadline, tn_socket socket,
                                  tn_net_callback callback, void *user);

TN_API void tn_net_task_set_cancelable(tn_net_task *task, tn_bool cancelable);

/* Position of the task with that socket, or with that id, or the length. */
TN_API tn_uint32 tn_net_task_array_find(const tn_net_task_array *array, tn_socket socket);
TN_API tn_uint32 tn_net_task_array_find_by_task_id(const tn_net_task_array *array, tn_uint32 id);

/* Pointer to the last record, or null. */
TN_API tn_net_task *tn_net_task_array_get_end(const tn_net_task_array *array);

/* Makes the dispatcher ready, with room for 8 tasks. Returns 1, or 0 with
 * everything undone. */
TN_API tn_bool tn_net_init(tn_net *net);

/* Applies the pending requests, calls every task's callback once with the
 * remove kind (on the table's own record, in table order) and releases
 * everything. Null is ignored. */
TN_API void tn_net_free(tn_net *net);

/* As tn_net_free, but the dispatcher stays usable, with no tasks. */
TN_API void tn_net_reset(tn_net *net);

/* Queues a request for the task. A task whose id is 0 gets the next id,
 * written into the caller's record and into out_id (which may be null). A
 * waiting request for the same id is replaced, except that a waiting remove
 * yields only to a remove and a waiting cancel only to a cancel or remove:
 * then 0 is returned. Returns 1, or 0 if the lock or memory fails. A request
 * is matched to its task by socket when applied: setting a second task on a
 * socket in the table changes the first. */
TN_API tn_bool tn_net_set_net_task(tn_net *net, tn_net_task *task, tn_uint32 *out_id);

/* Queues a change of the task with that id, keeping its socket, id and
 * cancelable. Returns 0 for id 0, an unknown id, or cancel on a task that is
 * not cancelable; else as tn_net_set_net_task. */
TN_API tn_bool tn_net_modify_net_task(tn_net *net, tn_uint32 id, tn_uint32 kind, tn_time deadline,
                                      tn_net_callback callback, void *user);

/* Queues the removal of the task. Returns 1 for id 0, 0 for an unknown id,
 * else as tn_net_set_net_task. */
TN_API tn_bool tn_net_remove_net_task(tn_net *net, tn_uint32 id);

/* Queues the cancel of the task. Returns 1 for id 0, 0 for an unknown id or
 * a task that is not cancelable, else as tn_net_set_net_task. */
TN_API tn_bool tn_net_cancel_net_task(tn_net *net, tn_uint32 id);

/* Copies the task with that id into out_task (if not null) and returns 1,
 * or returns 0 for id 0 or an unknown id. The table's record is found
 * before a pending request. */
TN_API tn_bool tn_net_get_net_task(tn_net *net, tn_uint32 id, tn_net_task *out_task);

/* Ends the present wait of tn_net_process early, and nothing else. */
TN_API void tn_net_cancel(tn_net *net);

/* One cycle, waiting at most timeout_ms (as tn_poll_check) for readiness.
 * Returns 1, or 0 if a lock, memory or the poll wait failed. Not reentrant:
 * never call it from one of its callbacks. */
TN_API tn_bool tn_net_process(tn_net *net, tn_int32 timeout_ms);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_NET_H */
