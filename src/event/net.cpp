#include <tarnel_util/tn_net.h>
#include <tarnel_util/tn_time.h>

#include <initializer_list>
#include <utility>

#include "core/array_internal.h"
#include "event/lock.h"
#include "event/table.h"

namespace {

constexpr tn_uint32 initial_room = 8;

tn_net_task *task_at(tn_array *a, tn_uint32 i) { return static_cast<tn_net_task *>(tn_array_get(a)) + i; }

bool waits_on_socket(tn_uint32 kind)
{
    return kind == TN_NET_TASK_READ || kind == TN_NET_TASK_WRITE || kind == TN_NET_TASK_READ_WRITE;
}

// A waiting remove yields only to a remove, a waiting cancel only to a
// cancel or a remove.
int rank(tn_uint32 kind)
{
    return kind == TN_NET_TASK_REMOVE ? 2 : kind == TN_NET_TASK_CANCEL ? 1 : 0;
}

tn_uint32 next_id(tn_net *net)
{
    if (++net->last_id == 0) net->last_id = 1;
    return net->last_id;
}

// Requests are matched to tasks by socket, not by id. Called under the lock.
void apply_pending(tn_net *net)
{
    tn_uint32 n = tn_array_length(&net->pending);
    for (tn_uint32 i = 0; i < n; ++i) {
        const tn_net_task *request = task_at(&net->pending, i);
        if (request->kind == TN_NET_TASK_NONE) continue;
        bool waits = waits_on_socket(request->kind);
        if (waits && !tn_poll_set(&net->poll, request->socket, request->kind)) continue;
        tn_uint32 at = tn_net_task_array_find(&net->tasks, request->socket);
        bool refused;
        if (at >= tn_array_length(&net->tasks)) {
            refused = !tn_array_catn(&net->tasks, request, 1);
        } else {
            tn_net_task *task = task_at(&net->tasks, at);
            if (task->kind == TN_NET_TASK_REMOVE) continue;
            refused = !tn_net_task_modify(task, request->kind, request->deadline, request->socket,
                                          request->callback, request->user);
        }
        if (refused && waits) tn_poll_remove(&net->poll, request->socket);
    }
    tn_array_truncate(&net->pending);
}

// Finds the task under id, the table before the pending list, and copies it.
bool look_up(tn_net *net, tn_uint32 id, tn_net_task *out)
{
    tn::lock_guard lock(&net->lock);
    if (!lock.held()) return false;
    for (tn_array *a : {&net->tasks, &net->pending}) {
        tn_uint32 at = tn_net_task_array_find_by_task_id(a, id);
        if (at < tn_array_length(a)) {
            *out = *task_at(a, at);
            return true;
        }
    }
    return false;
}

// The lists were built walking the table backwards, so running them from
// their end calls the tasks in table order.
void run_backwards(tn_array *list)
{
    for (tn_uint32 i = tn_array_length(list); i-- > 0;) {
        tn_net_task *copy = task_at(list, i);
        if (copy->callback) copy->callback(copy);
    }
}

// Leaves the dispatcher empty, dropping what was asked for during the
// callbacks, and gives the table back its storage, so that a reset one
// allocates no more than a new one. A failed lock does not stop this: a
// shut-down must end empty.
void settle_empty(tn_net *net, tn_array *taken)
{
    tn::lock_guard lock(&net->lock);
    tn_poll_reset(&net->poll);
    tn_array_truncate(&net->pending);
    tn_array_truncate(taken);
    std::swap(net->tasks, *taken);
}

void shut_down(tn_net *net)
{
    tn_array taken = tn::take_table(&net->lock, &net->tasks, [net] { apply_pending(net); });
    for (tn_uint32 i = 0; i < tn_array_length(&taken); ++i) {
        tn_net_task *task = task_at(&taken, i);
        task->kind = TN_NET_TASK_REMOVE;
        if (task->callback) task->callback(task);
    }
    settle_empty(net, &taken);
    tn_array_free(&taken);
}

// Sockets found ready by the last wait. Few are ready at a time, so the walk
// of the table matches against this short list instead of searching the
// poll set once per task.
struct ready_set {
    static constexpr tn_uint32 room = 64;
    tn_socket sockets[room];
    tn_uint32 bits[room];
    tn_uint32 n = 0;
    bool overflow = false;

    explicit ready_set(const tn_poll *poll)
    {
        tn_uint32 entries = tn_array_length(&poll->entries);
        const auto *e = static_cast<const tn_pollinfo *>(tn_array_get(&poll->entries));
        for (tn_uint32 i = 0; i < entries && !overflow; ++i) {
            if (!e[i].result) continue;
            if (n == room) {
                overflow = true;
                break;
            }
            sockets[n] = e[i].socket;
            bits[n++] = e[i].result;
        }
    }

    tn_uint32 result_of(const tn_poll *poll, tn_socket s) const
    {
        if (overflow) {
            tn_uint32 r = 0;
            return tn_poll_get_status(poll, s, &r) ? r : 0;
        }
        for (tn_uint32 i = 0; i < n; ++i)
            if (sockets[i] == s) return bits[i];
        return 0;
    }
};

} // namespace

void tn_net_task_init(tn_net_task *task, tn_uint32 kind, tn_time deadline, tn_socket socket,
                      tn_net_callback callback, void *user)
{
    task->kind = kind;
    task->deadline = deadline;
    task->socket = socket;
    task->callback = callback;
    task->user = user;
    task->id = 0;
    task->cancelable = 1;
}

tn_bool tn_net_task_modify(tn_net_task *task, tn_uint32 kind, tn_time deadline, tn_socket socket,
                           tn_net_callback callback, void *user)
{
    if (kind == TN_NET_TASK_CANCEL && !task->cancelable) return 0;
    task->kind = kind;
    task->deadline = deadline;
    task->socket = socket;
    task->callback = callback;
    task->user = user;
    return 1;
}

void tn_net_task_set_cancelable(tn_net_task *task, tn_bool cancelable) { task->cancelable = cancelable; }

tn_uint32 tn_net_task_array_find(const tn_net_task_array *array, tn_socket socket)
{
    return tn::find_record<tn_net_task>(array, [socket](const tn_net_task &t) { return t.socket == socket; });
}

tn_uint32 tn_net_task_array_find_by_task_id(const tn_net_task_array *array, tn_uint32 id)
{
    return tn::find_record<tn_net_task>(array, [id](const tn_net_task &t) { return t.id == id; });
}

tn_net_task *tn_net_task_array_get_end(const tn_net_task_array *array)
{
    return static_cast<tn_net_task *>(tn_array_get_end(array));
}

tn_bool tn_net_init(tn_net *net)
{
    *net = tn_net{};
    tn_poll_create(&net->poll);
    if (!tn_mutex_create(&net->lock)) return 0;
    for (tn_array *a : {&net->tasks, &net->pending, &net->call_list, &net->remove_list})
        tn_array_init(a, sizeof(tn_net_task));
    if (!tn_array_allocate(&net->tasks, initial_room) || !tn_array_allocate(&net->pending, initial_room)) {
        tn_array_free(&net->tasks);
        tn_array_free(&net->pending);
        tn_mutex_free(&net->lock);
        tn_poll_free(&net->poll);
        return 0;
    }
    return 1;
}

void tn_net_free(tn_net *net)
{
    if (!net) return;
    shut_down(net);
    tn_poll_free(&net->poll);
    tn_mutex_free(&net->lock);
    for (tn_array *a : {&net->tasks, &net->pending, &net->call_list, &net->remove_list}) tn_array_free(a);
}

void tn_net_reset(tn_net *net)
{
    if (net) shut_down(net);
}

tn_bool tn_net_set_net_task(tn_net *net, tn_net_task *task, tn_uint32 *out_id)
{
    tn::lock_guard lock(&net->lock);
    if (!lock.held()) return 0;
    if (task->id == 0) {
        task->id = next_id(net);
    } else {
        for (tn_uint32 i = tn_array_length(&net->pending); i-- > 0;) {
            const tn_net_task *waiting = task_at(&net->pending, i);
            if (waiting->id != task->id) continue;
            if (rank(task->kind) < rank(waiting->kind)) return 0;
            tn_array_remove(&net->pending, i);
            break;
        }
    }
    if (out_id) *out_id = task->id;
    if (!tn::append_or_keep(&net->pending, task, 1)) return 0;
    tn_poll_cancel(&net->poll);
    return 1;
}

tn_bool tn_net_modify_net_task(tn_net *net, tn_uint32 id, tn_uint32 kind, tn_time deadline,
                               tn_net_callback callback, void *user)
{
    if (!id) return 0;
    tn_net_task request;
    if (!look_up(net, id, &request)) return 0;
    if (!tn_net_task_modify(&request, kind, deadline, request.socket, callback, user)) return 0;
    return tn_net_set_net_task(net, &request, nullptr);
}

tn_bool tn_net_remove_net_task(tn_net *net, tn_uint32 id)
{
    if (!id) return 1;
    tn_net_task request;
    if (!look_up(net, id, &request)) return 0;
    request.kind = TN_NET_TASK_REMOVE;
    return tn_net_set_net_task(net, &request, nullptr);
}

tn_bool tn_net_cancel_net_task(tn_net *net, tn_uint32 id)
{
    if (!id) return 1;
    tn_net_task request;
    if (!look_up(net, id, &request) || !request.cancelable) return 0;
    request.kind = TN_NET_TASK_CANCEL;
    return tn_net_set_net_task(net, &request, nullptr);
}

tn_bool tn_net_get_net_task(tn_net *net, tn_uint32 id, tn_net_task *out_task)
{
    if (!id) return 0;
    tn_net_task found;
    if (!look_up(net, id, &found)) return 0;
    if (out_task) *out_task = found;
    return 1;
}

void tn_net_cancel(tn_net *net) { tn_poll_cancel(&net->poll); }

tn_bool tn_net_process(tn_net *net, tn_int32 timeout_ms)
{
    {
        tn::lock_guard lock(&net->lock);
        if (!lock.held()) return 0;
        apply_pending(net);
    }
    {
        tn::lock_guard lock(&net->lock);
        if (!lock.held()) return 0;
        tn_array_truncate(&net->call_list);
        tn_array_truncate(&net->remove_list);
        tn_time now;
        tn_time_msec(&now);
        for (tn_uint32 i = tn_array_length(&net->tasks); i-- > 0;) {
            tn_net_task *task = task_at(&net->tasks, i);
            tn_array *list = nullptr;
            switch (task->kind) {
            case TN_NET_TASK_REMOVE:
                list = &net->remove_list;
                break;
            case TN_NET_TASK_CANCEL:
                list = &net->call_list;
                break;
            case TN_NET_TASK_IDLE:
                break;
            default:
                if (task->deadline != 0 && task->deadline < now) {
                    task->kind = TN_NET_TASK_TIMEOUT;
                    list = &net->call_list;
                }
            }
            if (list && !tn::append_or_keep(list, task, 1)) return 0;
        }
    }

    run_backwards(&net->remove_list);
    {
        tn::lock_guard lock(&net->lock);
        if (!lock.held()) return 0;
        for (tn_uint32 i = tn_array_length(&net->remove_list); i-- > 0;) {
            const tn_net_task *gone = task_at(&net->remove_list, i);
            tn_uint32 at = tn_net_task_array_find_by_task_id(&net->tasks, gone->id);
            if (at >= tn_array_length(&net->tasks)) continue;
            tn_poll_remove(&net->poll, task_at(&net->tasks, at)->socket);
            tn_array_remove(&net->tasks, at);
        }
    }
    run_backwards(&net->call_list);

    tn_uint32 count = 0;
    if (!tn_poll_check(&net->poll, timeout_ms, &count)) return 0;
    if (!count) return 1;

    {
        tn::lock_guard lock(&net->lock);
        if (!lock.held()) return 0;
        tn_array_truncate(&net->call_list);
        ready_set ready(&net->poll);
        for (tn_uint32 i = tn_array_length(&net->tasks); i-- > 0;) {
            tn_net_task *task = task_at(&net->tasks, i);
            if (task->kind == TN_NET_TASK_TIMEOUT || task->kind == TN_NET_TASK_CANCEL) continue;
            tn_uint32 bits = ready.result_of(&net->poll, task->socket);
            if (!bits) continue;
            task->result = bits;
            if (!tn::append_or_keep(&net->call_list, task, 1)) return 0;
        }
    }
    run_backwards(&net->call_list);
    return 1;
}
