#include <tarnel_util/tn_sync.h>
#include <tarnel_util/tn_thread.h>

#include "core/array_internal.h"
#include "platform/platform.h"

namespace {

tn_uint32 find_waiter(const tn_array *waiters, tn_int32 id) { return tn_array_find(waiters, &id); }

// Every waiter, timed or not, runs these steps. A thread stands in the list
// for as long as nobody has notified it; finding itself gone is the only way
// to report success.
tn_bool wait_listed(tn_sync *sync, tn_mutex *mutex, tn_int64 timeout_ms)
{
    const tn_int32 id = tn_thread_self().tid;
    if (!tn_mutex_lock(&sync->guard)) return 0;
    if (!tn::append_or_keep(&sync->waiters, &id, 1)) {
        tn_mutex_unlock(&sync->guard);
        return 0;
    }
    for (;;) {
        if (find_waiter(&sync->waiters, id) >= tn_array_length(&sync->waiters)) {
            tn_mutex_unlock(&sync->guard);
            return 1;
        }
        tn_uint64 generation;
        if (!tn::event::reset(sync->event, &generation)) {
            tn_mutex_unlock(&sync->guard);
            return 0;
        }
        tn_mutex_unlock(&sync->guard);
        tn_mutex_unlock(mutex);
        // A still-listed waiter starts the full time-out again on each round.
        tn::event::wait_result woke = tn::event::wait(sync->event, generation, timeout_ms);
        bool relocked = tn_mutex_lock(mutex);
        if (!relocked || woke != tn::event::wait_result::signalled) break;
        if (!tn_mutex_lock(&sync->guard)) return 0;
    }
    if (!tn_mutex_lock(&sync->guard)) return 0;
    tn_uint32 at = find_waiter(&sync->waiters, id);
    if (at < tn_array_length(&sync->waiters)) tn_array_remove(&sync->waiters, at);
    tn_mutex_unlock(&sync->guard);
    return 0;
}

tn_bool notify(tn_sync *sync, bool all)
{
    if (!tn_mutex_lock(&sync->guard)) return 0;
    if (all)
        tn_array_truncate(&sync->waiters);
    else if (tn_array_length(&sync->waiters))
        tn_array_remove(&sync->waiters, 0);
    tn_mutex_unlock(&sync->guard);
    return tn::event::set(sync->event);
}

} // namespace

tn_bool tn_sync_create(tn_sync *sync)
{
    tn_array_init(&sync->waiters, sizeof(tn_int32));
    sync->guard.handle = nullptr;
    sync->event = tn::event::create();
    if (!sync->event) return 0;
    if (!tn_mutex_create(&sync->guard)) {
        tn::event::destroy(sync->event);
        sync->event = nullptr;
        return 0;
    }
    return 1;
}

tn_bool tn_sync_free(tn_sync *sync)
{
    if (!sync) return 1;
    tn::event::destroy(sync->event);
    sync->event = nullptr;
    tn_mutex_free(&sync->guard);
    tn_array_free(&sync->waiters);
    return 1;
}

tn_bool tn_sync_wait(tn_sync *sync, tn_mutex *mutex) { return wait_listed(sync, mutex, -1); }

tn_bool tn_sync_timedwait(tn_sync *sync, tn_mutex *mutex, tn_uint32 timeout_ms)
{
    return wait_listed(sync, mutex, timeout_ms);
}

tn_bool tn_sync_notify(tn_sync *sync) { return notify(sync, false); }

tn_bool tn_sync_notify_all(tn_sync *sync) { return notify(sync, true); }
