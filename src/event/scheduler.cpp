#include <tarnel_util/tn_alloc.h>
#include <tarnel_util/tn_scheduler.h>
#include <tarnel_util/tn_time.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <utility>

#include "core/array_internal.h"
#include "event/lock.h"
#include "event/table.h"

namespace {

constexpr tn_uint32 initial_room = 8;
constexpr tn_uint32 no_position = 0xFFFFFFFFu;

tn_scheduled_task *task_at(const tn_array *a, tn_uint32 i)
{
    return static_cast<tn_scheduled_task *>(tn_array_get(a)) + i;
}

// Position of id in a, or null.
tn_scheduled_task *find(tn_array *a, tn_uint32 id)
{
    tn_uint32 at = tn_scheduled_task_array_find_id(a, id);
    return at < tn_array_length(a) ? task_at(a, at) : nullptr;
}

// Ids sorted for binary search, each with its position in the array it was
// taken from: (id << 32) | position. Passes over many tasks look ids up
// through it instead of searching the table or the pending list once per
// request, which made a pass quadratic in the tasks due. Room for the sizes
// a host usually has is on the stack, so such passes do not allocate.
class id_index {
public:
    id_index() = default;
    id_index(const id_index &) = delete;
    id_index &operator=(const id_index &) = delete;
    ~id_index()
    {
        if (keys_ != local_) tn_alloc_free(keys_);
    }

    // Sorts the ids of a's records, with `extra` words of zeroed room
    // behind them for the caller. False if memory fails.
    bool build(const tn_array *a, tn_uint32 extra = 0)
    {
        count_ = tn_array_length(a);
        std::size_t words = std::size_t{count_} + extra;
        if (words > std::size(local_)) {
            if (words > 0xFFFFFFFFu / sizeof(tn_uint64)) return false;
            void *block = tn_alloc(static_cast<tn_uint32>(words * sizeof(tn_uint64)));
            if (!block) return false;
            keys_ = static_cast<tn_uint64 *>(block);
        }
        const tn_scheduled_task *records = task_at(a, 0);
        for (tn_uint32 i = 0; i < count_; ++i) keys_[i] = tn_uint64{records[i].id} << 32 | i;
        std::sort(keys_, keys_ + count_);
        std::fill(keys_ + count_, keys_ + words, tn_uint64{0});
        return true;
    }

    // Position of the first record with id, or no_position.
    tn_uint32 find(tn_uint32 id) const
    {
        const tn_uint64 *at = std::lower_bound(keys_, keys_ + count_, tn_uint64{id} << 32);
        return at < keys_ + count_ && *at >> 32 == id ? static_cast<tn_uint32>(*at) : no_position;
    }

    bool has_repeats() const
    {
        for (tn_uint32 i = 1; i < count_; ++i)
            if (keys_[i] >> 32 == keys_[i - 1] >> 32) return true;
        return false;
    }

    // The zeroed room behind the keys.
    tn_uint64 *extra() { return keys_ + count_; }

private:
    tn_uint64 local_[256];
    tn_uint64 *keys_ = local_;
    tn_uint32 count_ = 0;
};

// Below this much work (requests times records) a plain search per request
// is cheaper than sorting.
constexpr std::size_t index_threshold = 4096;

// During a pass, which tasks of the table have a request waiting in the
// pending list. The pass adds one request per fired task, so asking the list
// each time would make the pass quadratic. Ids stay in the list until the
// next pass, and only an append brings in a new one (a replacement moves an
// id to the end, into the room its removal left, and a change leaves it in
// place), so the list needs looking at again only after it grew by more than
// the pass's own appends.
class requests_seen {
public:
    // Under the lock: the waiting request for the table's task at
    // position, or null.
    tn_scheduled_task *find(tn_scheduler *s, tn_uint32 position)
    {
        tn_uint32 length = tn_array_length(&s->pending);
        if (length != known_ && !mark_all(s)) return ::find(&s->pending, task_at(&s->tasks, position)->id);
        known_ = length;
        bool waiting = marks_ && (marks_[position / 64] >> position % 64 & 1);
        return waiting ? ::find(&s->pending, task_at(&s->tasks, position)->id) : nullptr;
    }

    // Under the lock, after the pass appended one request of its own.
    void appended() { ++known_; }

private:
    // Marks the table's tasks that have a request; false when the table is
    // small enough to search, or memory fails.
    bool mark_all(tn_scheduler *s)
    {
        tn_uint32 records = tn_array_length(&s->tasks), length = tn_array_length(&s->pending);
        if (!marks_) {
            if (std::size_t{records} * length < index_threshold || !table_.build(&s->tasks, records / 64 + 1))
                return false;
            marks_ = table_.extra();
        }
        for (tn_uint32 i = 0; i < length; ++i) {
            tn_uint32 at = table_.find(task_at(&s->pending, i)->id);
            if (at != no_position) marks_[at / 64] |= tn_uint64{1} << at % 64;
        }
        return true;
    }

    id_index table_;
    tn_uint64 *marks_ = nullptr;
    tn_uint32 known_ = 0;
};

// What the time value left by a task's callback asks for: re-armed (later
// than now, or 0), else removed at the next pass. The same as calling
// tn_scheduler_modify_scheduled_task or tn_scheduler_remove_scheduled_task
// with the task's id, with the searches answered by the table position and
// `seen`.
tn_bool follow_up(tn_scheduler *s, requests_seen &seen, tn_uint32 position, tn_time now, tn_time time)
{
    const bool rearm = time > now || time == 0;
    const tn_scheduled_task *task = task_at(&s->tasks, position);
    if (!task->id) return rearm ? 0 : 1;
    tn::lock_guard lock(&s->lock);
    if (!lock.held()) return 0;
    if (tn_scheduled_task *request = seen.find(s, position)) {
        if (!rearm)
            request->removed = 1;
        else if (request->removed)
            return 0;
        else
            request->time = time;
        return 1;
    }
    tn_scheduled_task request = *task;
    if (rearm)
        request.time = time;
    else
        request.removed = 1;
    if (!tn::append_or_keep(&s->pending, &request, 1)) return 0;
    seen.appended();
    return 1;
}

// Each request in arrival order: over the table's record with its id (none
// if that record is flagged), else in at position 0.
void apply_one_by_one(tn_scheduler *s)
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
}

// The same result in n log n: the table's records take their requests
// through an index of pending, and the requests left over go in at the
// front together, newest first, as one at a time at position 0 would have
// put them. Requests that share an id (ids wrapped onto a waiting one) need
// the order of the plain walk; false then, and when memory fails.
bool apply_by_index(tn_scheduler *s)
{
    id_index pending;
    if (!pending.build(&s->pending) || pending.has_repeats()) return false;
    tn_scheduled_task *requests = task_at(&s->pending, 0);
    tn_uint32 table_length = tn_array_length(&s->tasks);
    for (tn_uint32 i = 0; i < table_length; ++i) {
        tn_scheduled_task *task = task_at(&s->tasks, i);
        tn_uint32 at = pending.find(task->id);
        if (at == no_position) continue;
        *task = requests[at]; // ids are unique here, and no record is flagged yet
        requests[at].id = 0;  // applied; pending ids are never 0
    }
    tn_uint32 fresh = 0, n = tn_array_length(&s->pending);
    for (tn_uint32 i = 0; i < n; ++i)
        if (requests[i].id) requests[fresh++] = requests[i];
    if (fresh && tn_array_insertn(&s->tasks, requests, fresh, 0)) {
        tn_scheduled_task *front = task_at(&s->tasks, 0);
        std::reverse(front, front + fresh);
    }
    return true;
}

// Lets go of the flagged records, from the end as a removal at a time
// would, then closes the gaps in one sweep.
void drop_removed(tn_array *tasks)
{
    tn_uint32 n = tn_array_length(tasks), kept = 0;
    tn_scheduled_task *records = task_at(tasks, 0);
    for (tn_uint32 i = n; i-- > 0;)
        if (records[i].removed) tn_scheduled_task_free(&records[i]);
    for (tn_uint32 i = 0; i < n; ++i)
        if (!records[i].removed) records[kept++] = records[i];
    if (kept < n) tn_array_truncate_length(tasks, kept);
}

// Called under the lock. The table's record is overwritten whole and its
// user free is not called for it: the request carries the same user.
void apply_pending(tn_scheduler *s)
{
    std::size_t requests = tn_array_length(&s->pending), records = tn_array_length(&s->tasks);
    if (requests && (requests * (records + requests) < index_threshold || !apply_by_index(s))) apply_one_by_one(s);
    tn_array_truncate(&s->pending);
    drop_removed(&s->tasks);
}

// The users' frees run without the lock, on the table taken out: a thread
// looking tasks up meanwhile finds an empty table, and so cannot copy a task
// that is going into a request. The emptied table then gets its storage
// back, so that a reset scheduler allocates no more than a new one.
void let_go(tn_scheduler *s)
{
    tn_array taken = tn::take_table(&s->lock, &s->tasks, [s] { apply_pending(s); });
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
    requests_seen seen;
    for (tn_uint32 i = n; i-- > 0;) {
        const tn_scheduled_task *task = &tasks[i];
        tn_time now;
        tn_time_sec(&now);
        if (task->time != 0 && now < task->time) continue;
        tn_time time = task->time;
        task->callback(now, &time, task->user);
        if (!follow_up(s, seen, i, now, time)) return 0;
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
