#include <tarnel_util/tn_scheduler.h>
#include <tarnel_util/tn_time.h>

#include <cstring>
#include <utility>

#include "core/array_internal.h"
#include "event/lock.h"

namespace {

constexpr tn_uint32 initial_room = 8;
constexpr tn_uint32 no_position = 0xFFFFFFFFu;

tn_scheduled_task *task_at(tn_array *a, tn_uint32 i)
{
    return static_cast<tn_scheduled_task *>(tn_array_get(a)) + i;
}

// Position of id in a, or null.
tn_scheduled_task *find(tn_array *a, tn_uint32 id)
{
    tn_uint32 at = tn_scheduled_task_array_find_id(a, id);
    return at < tn_array_length(a) ? task_at(a, at) : nullptr;
}

// Called under the lock. The table's record is overwritten whole and its
// user free is not called for it: the request carries the same user.
void apply_pending(tn_scheduler *s)
{
    tn_uint32 n = tn_array_length(&s->pending);
    for (tn_uint32 i = 0; i < n; ++i) {
        const tn_scheduled_task *request = task_at(&s->pending, i);
        if (tn_scheduled_task *task = find(&s->tasks, request->id)) {
            if (!task->removed) *task = *request;
        } else {
            tn_array_insertn(&s->tasks, request, 1, 0);
        }
    }
    tn_array_truncate(&s->pending);
    for (tn_uint32 i = tn_array_length(&s->tasks); i-- > 0;)
        if (task_at(&s->tasks, i)->removed) tn_scheduled_task_array_remove_object(&s->tasks, i);
}

// Moves the table out under the lock, with the waiting requests applied.
// Other threads look tasks up while the users are let go of: they find an
// empty table, and so cannot copy a task that is going into a request.
tn_array take_table(tn_scheduler *s)
{
    tn::lock_guard lock(&s->lock);
    if (lock.held()) apply_pending(s);
    tn_array taken = s->tasks;
    tn_array_init(&s->tasks, sizeof(tn_scheduled_task));
    return taken;
}

// The users' frees run without the lock. The emptied table then gets its
// storage back, so that a reset scheduler allocates no more than a new one.
void let_go(tn_scheduler *s)
{
    tn_array taken = take_table(s);
    tn_scheduled_task_array_truncate_object(&taken);
    {
        tn::lock_guard lock(&s->lock);
        std::swap(s->tasks, taken);
    }
    tn_array_free(&taken);
}

} // namespace

tn_bool tn_scheduled_task_init(tn_scheduled_task *task, tn_scheduler_callback callback, void *user,
                               tn_user_free user_free)
{
    if (!callback) return 0;
    std::memset(task, 0, sizeof *task);
    task->callback = callback;
    task->user = user;
    task->user_free = user_free;
    tn_time_sec(&task->time);
    return 1;
}

void tn_scheduled_task_free(tn_scheduled_task *task)
{
    if (task && task->user_free) task->user_free(task->user);
}

void tn_scheduled_task_set_time(tn_scheduled_task *task, tn_time time) { task->time = time; }

void tn_scheduled_task_set_id(tn_scheduled_task *task, tn_uint32 id) { task->id = id; }

tn_uint32 tn_scheduled_task_array_find_id(const tn_scheduled_task_array *array, tn_uint32 id)
{
    return tn::find_record<tn_scheduled_task>(array, [id](const tn_scheduled_task &t) { return t.id == id; });
}

tn_scheduled_task *tn_scheduled_task_array_get_end(const tn_scheduled_task_array *array)
{
    return static_cast<tn_scheduled_task *>(tn_array_get_end(array));
}

tn_bool tn_scheduled_task_array_truncate_length_object(tn_scheduled_task_array *array, tn_uint32 length)
{
    if (!array) return 0;
    tn_uint32 n = tn_array_length(array);
    if (length > n) return 0;
    for (tn_uint32 i = length; i < n; ++i) tn_scheduled_task_free(task_at(array, i));
    return tn_array_truncate_length(array, length);
}

tn_bool tn_scheduled_task_array_truncate_object(tn_scheduled_task_array *array)
{
    if (!array) return 0;
    tn_uint32 n = tn_array_length(array);
    for (tn_uint32 i = 0; i < n; ++i) tn_scheduled_task_free(task_at(array, i));
    return tn_array_truncate(array);
}

void tn_scheduled_task_array_free_object(tn_scheduled_task_array *array)
{
    if (!array) return;
    tn_scheduled_task_array_truncate_object(array);
    tn_array_free(array);
}

tn_bool tn_scheduled_task_array_remove_object(tn_scheduled_task_array *array, tn_uint32 position)
{
    if (!array) return 0;
    tn_uint32 n = tn_array_length(array);
    if (position < n) {
        tn_scheduled_task_free(task_at(array, position));
        return tn_array_remove(array, position);
    }
    if (n && (position == no_position || position > n)) return 0;
    return tn_array_remove(array, position);
}

tn_bool tn_scheduler_init(tn_scheduler *s)
{
    *s = tn_scheduler{};
    if (!tn_mutex_create(&s->lock)) return 0;
    tn_array_init(&s->tasks, sizeof(tn_scheduled_task));
    tn_array_init(&s->pending, sizeof(tn_scheduled_task));
    if (!tn_array_allocate(&s->tasks, initial_room) || !tn_array_allocate(&s->pending, initial_room)) {
        tn_array_free(&s->tasks);
        tn_array_free(&s->pending);
        tn_mutex_free(&s->lock);
        return 0;
    }
    return 1;
}

tn_bool tn_scheduler_set_scheduled_task(tn_scheduler *s, tn_scheduled_task *task, tn_uint32 *out_id)
{
    tn::lock_guard lock(&s->lock);
    if (!lock.held()) return 0;
    if (task->id == 0) {
        if (++s->last_id == 0) s->last_id = 1;
        task->id = s->last_id;
    } else {
        tn_uint32 at = tn_scheduled_task_array_find_id(&s->pending, task->id);
        if (at < tn_array_length(&s->pending)) tn_array_remove(&s->pending, at);
    }
    if (out_id) *out_id = task->id;
    return tn::append_or_keep(&s->pending, task, 1);
}

tn_bool tn_scheduler_modify_scheduled_task(tn_scheduler *s, tn_uint32 id, tn_time time)
{
    if (!id) return 0;
    tn::lock_guard lock(&s->lock);
    if (!lock.held()) return 0;
    if (tn_scheduled_task *request = find(&s->pending, id)) {
        if (request->removed) return 0;
        request->time = time;
        return 1;
    }
    tn_scheduled_task *task = find(&s->tasks, id);
    if (!task) return 0;
    tn_scheduled_task request = *task;
    request.time = time;
    return tn::append_or_keep(&s->pending, &request, 1);
}

tn_bool tn_scheduler_remove_scheduled_task(tn_scheduler *s, tn_uint32 id)
{
    if (!id) return 1;
    tn::lock_guard lock(&s->lock);
    if (!lock.held()) return 0;
    if (tn_scheduled_task *request = find(&s->pending, id)) {
        request->removed = 1;
        return 1;
    }
    tn_scheduled_task *task = find(&s->tasks, id);
    if (!task) return 1;
    tn_scheduled_task request = *task;
    request.removed = 1;
    return tn::append_or_keep(&s->pending, &request, 1);
}

tn_bool tn_scheduler_get_scheduled_task(tn_scheduler *s, tn_uint32 id, tn_scheduled_task *out_task)
{
    tn::lock_guard lock(&s->lock);
    if (!lock.held()) return 0;
    tn_scheduled_task *found = find(&s->pending, id);
    if (!found) found = find(&s->tasks, id);
    if (!found || found->removed) return 0;
    if (out_task) *out_task = *found;
    return 1;
}

tn_bool tn_scheduler_process(tn_scheduler *s)
{
    {
        tn::lock_guard lock(&s->lock);
        if (lock.held()) apply_pending(s);
    }
    // Requests made from here on go to the pending list only, so the table
    // can be walked without the lock.
    tn_uint32 n = tn_array_length(&s->tasks);
    if (!n) return 1;
    tn_scheduled_task *tasks = task_at(&s->tasks, 0);
    for (tn_uint32 i = n; i-- > 0;) {
        const tn_scheduled_task *task = &tasks[i];
        tn_time now;
        tn_time_sec(&now);
        if (task->time != 0 && now < task->time) continue;
        tn_time time = task->time;
        task->callback(now, &time, task->user);
        tn_bool ok = (time > now || time == 0) ? tn_scheduler_modify_scheduled_task(s, task->id, time)
                                               : tn_scheduler_remove_scheduled_task(s, task->id);
        if (!ok) return 0;
    }
    return 1;
}

void tn_scheduler_reset(tn_scheduler *s)
{
    if (s) let_go(s);
}

void tn_scheduler_free(tn_scheduler *s)
{
    if (!s) return;
    let_go(s);
    tn_array_free(&s->tasks);
    tn_array_free(&s->pending);
    tn_mutex_free(&s->lock);
}
