#include "platform/platform.h"

#include <tarnel_util/tn_alloc.h>

#include <cerrno>

#include "platform/posix/monitor.h"

namespace tn::event {
namespace {

struct event {
    posix::monitor m;
    bool is_set;
    tn_uint64 sets;
};

event *native(void *e) { return static_cast<event *>(e); }

} // namespace

void *create()
{
    auto *e = static_cast<event *>(tn_alloc(sizeof(event)));
    if (!e) return nullptr;
    if (!e->m.init()) {
        tn_alloc_free(e);
        return nullptr;
    }
    e->is_set = false;
    e->sets = 0;
    return e;
}

void destroy(void *raw)
{
    if (!raw) return;
    event *e = native(raw);
    e->m.destroy();
    tn_alloc_free(e);
}

bool set(void *raw)
{
    event *e = native(raw);
    if (pthread_mutex_lock(&e->m.lock) != 0) return false;
    e->is_set = true;
    ++e->sets;
    pthread_mutex_unlock(&e->m.lock);
    // Woken waiters would only block again on the lock we still held.
    pthread_cond_broadcast(&e->m.changed);
    return true;
}

bool reset(void *raw, tn_uint64 *generation)
{
    event *e = native(raw);
    if (pthread_mutex_lock(&e->m.lock) != 0) return false;
    e->is_set = false;
    *generation = e->sets;
    pthread_mutex_unlock(&e->m.lock);
    return true;
}

wait_result wait(void *raw, tn_uint64 generation, tn_int64 timeout_ms)
{
    event *e = native(raw);
    timespec deadline;
    const timespec *until = nullptr;
    if (timeout_ms > 0) {
        tn_uint64 ms = static_cast<tn_uint64>(timeout_ms);
        deadline = posix::monotonic_after(ms > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<tn_uint32>(ms));
        until = &deadline;
    }
    if (pthread_mutex_lock(&e->m.lock) != 0) return wait_result::failed;
    int rc = 0;
    while (!e->is_set && e->sets == generation) {
        rc = timeout_ms == 0 ? ETIMEDOUT : e->m.wait(until);
        if (rc != 0) break;
    }
    bool signalled = e->is_set || e->sets != generation;
    pthread_mutex_unlock(&e->m.lock);
    if (signalled) return wait_result::signalled;
    return rc == ETIMEDOUT ? wait_result::timed_out : wait_result::failed;
}

} // namespace tn::event
