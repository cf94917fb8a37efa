/*
 * tn_scheduler.h - timed tasks with a resolution of one second.
 *
 * The host calls tn_scheduler_process from its loop; it never waits, it fires
 * what is due (a task's time is 0, or not later than tn_time_sec now) and
 * returns. The scheduler has no wake-up of its own, so a host that also runs
 * tn_net_process bounds that wait so as not to miss a due second.
 *
 * Any thread, and any callback, may queue requests with set, modify, remove
 * and get; they take effect at the next tn_scheduler_process, so a task runs
 * at most once per pass. New tasks enter the table at its front, and the pass
 * walks from the back: the oldest due task fires first.
 *
 * Whether a task fires again is decided by what its callback does with the
 * time value it is given: set later than now, the task is re-armed for that
 * second; set to 0, it fires at every pass; left alone or set to now or
 * earlier, it is one-shot and goes at the next pass, when its user free runs.
 * user free is called exactly once for each task the scheduler lets go, and
 * never for a request that another request replaced.
 */
#ifndef TARNEL_UTIL_TN_SCHEDULER_H
#define TARNEL_UTIL_TN_SCHEDULER_H

#include "tn_array.h"
#include "tn_mutex.h"

TN_BEGIN_DECLS

/* Called with the present second, the task's time value (which the callback
 * may change) and the task's user argument. */
typedef void (*tn_scheduler_callback)(tn_time now, tn_time *time, void *user);

/* Called with user when the scheduler lets go of the task. */
typedef void (*tn_user_free)(void *user);

typedef struct tn_scheduled_task {
    tn_time time;                   /* due second in tn_time_sec units; 0: every pass */
    tn_scheduler_callback callback; /* never null */
    void *user;
    tn_user_free user_free;         /* may be null */
    tn_uint32 id;                   /* 0 until assigned */
    tn_bool removed;                /* set on a request when the task is to go */
} tn_scheduled_task;

typedef tn_array tn_scheduled_task_array;

typedef struct tn_scheduler {
    tn_scheduled_task_array tasks;   /* newest at position 0 */
    tn_scheduled_task_array pending; /* requests in order of arrival, one per id */
    tn_mutex lock;
    tn_uint32 last_id;
} tn_scheduler;

/* Clears the record, stores the pointers and sets time to the present
 * second, so an unchanged task fires at the next pass. Returns 1, or 0 with
 * the record untouched for a null callback. */
TN_API tn_bool tn_scheduled_task_init(tn_scheduled_task *task, tn_scheduler_callback callback, void *user,
                                      tn_user_free user_free);

/* Calls user free with user, if set. Null is ignored. */
TN_API void tn_scheduled_task_free(tn_scheduled_task *task);

TN_API void tn_scheduled_task_set_time(tn_scheduled_task *task, tn_time time);
TN_API void tn_scheduled_task_set_id(tn_scheduled_task *task, tn_uint32 id);

/* Position of the task with that id, or the length. */
TN_API tn_uint32 tn_scheduled_task_array_find_id(const tn_scheduled_task_array *array, tn_uint32 id);

/* Pointer to the last record, or null. */
TN_API tn_scheduled_task *tn_scheduled_task_array_get_end(const tn_scheduled_task_array *array);

/* Lets go of the tasks from position length on (user free for each) and
 * truncates there. Returns 0 for null or a length above the array's. */
TN_API tn_bool tn_scheduled_task_array_truncate_length_object(tn_scheduled_task_array *array, tn_uint32 length);

/* Lets go of every task and truncates. Returns 0 for null, else 1. */
TN_API tn_bool tn_scheduled_task_array_truncate_object(tn_scheduled_task_array *array);

/* Lets go of every task and frees the array. Null is ignored. */
TN_API void tn_scheduled_task_array_free_object(tn_scheduled_task_array *array);

/* Lets go of the task at position and removes it. Returns 0 for null; on an
 * array that is not empty, a position of 0xFFFFFFFF or above the length
 * returns 0 and changes nothing; on an empty array, or at the length, the
 * removal fails as tn_array_remove does and sets the failed flag. */
TN_API tn_bool tn_scheduled_task_array_remove_object(tn_scheduled_task_array *array, tn_uint32 position);

/* Makes the scheduler ready, with room for 8 tasks. Returns 1, or 0 with
 * everything undone. */
TN_API tn_bool tn_scheduler_init(tn_scheduler *scheduler);

/* Queues a new task, or a replacement of the task with the record's id. A
 * record with id 0 gets the next id (from 1, wrapping past 0xFFFFFFFF to 1),
 * written into the record and into out_id (which may be null). A waiting
 * request for the same id is dropped without its user free. Returns 1, or 0
 * if the lock or memory fails. */
TN_API tn_bool tn_scheduler_set_scheduled_task(tn_scheduler *scheduler, tn_scheduled_task *task,
                                               tn_uint32 *out_id);

/* Queues a new time for the task. Returns 0 for id 0, an unknown id, a task
 * that is to be removed, or a failure of the lock or memory; else 1. */
TN_API tn_bool tn_scheduler_modify_scheduled_task(tn_scheduler *scheduler, tn_uint32 id, tn_time time);

/* Queues the task's removal. Returns 1 for id 0 and for an unknown id; 0
 * only if the lock or memory fails. */
TN_API tn_bool tn_scheduler_remove_scheduled_task(tn_scheduler *scheduler, tn_uint32 id);

/* Copies the task into out_task (if not null) and returns 1, or returns 0
 * if the id is unknown or the task is to be removed. A waiting request hides
 * the table's record. */
TN_API tn_bool tn_scheduler_get_scheduled_task(tn_scheduler *scheduler, tn_uint32 id,
                                               tn_scheduled_task *out_task);

/* Applies the requests and fires the due tasks, oldest first. Returns 1, or
 * 0 if re-arming or removing a task after its callback fails (the rest of
 * the pass is then skipped). Never call it from one of its callbacks. */
TN_API tn_bool tn_scheduler_process(tn_scheduler *scheduler);

/* Applies the requests, then lets go of every task (user free for each, in
 * table order) without running a callback. The scheduler stays usable. Null
 * is ignored. */
TN_API void tn_scheduler_reset(tn_scheduler *scheduler);

/* As tn_scheduler_reset, then releases everything. Null is ignored. */
TN_API void tn_scheduler_free(tn_scheduler *scheduler);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_SCHEDULER_H */
