#include "../../common/tn_event.h"

#include <tarnel_util/tn_alloc.h>

#include <cerrno>
#include <pthread.h>

#include "tn_posix_time.h"

namespace tn::event {
namespace {

struct event {
    pthread_mutex_t lock;
    pthread_cond_t changed;
    bool is_set;
    tn_uint64 sets;
};

event *native(void *e) { return static_cast<event *>(e); }

} // namespace

void *create()
{
    auto *e = static_cast<event *>(tn_alloc(sizeof(event)));
    if (!e) return nullptr;
    if (pthread_mutex_init(&e->lock, nullptr) != 0) {
        tn_alloc_free(e);
        return nullptr;
    }
    if (!posix::monotonic_cond_init(&e->changed)) {
        pthread_mutex_destroy(&e->lock);
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
    pthread_cond_destroy(&e->changed);
    pthread_mutex_destroy(&e->lock);
    tn_alloc_free(e);
}

bool set(void *raw)
{
    event *e = native(raw);
    if (pthread_mutex_lock(&e->lock) != 0) return false;
    e->is_set = true;
    ++e->sets;
    pthread_mutex_unlock(&e->lock);
    // Woken waiters would only block again on the lock we still held.
    pthread_cond_broadcast(&e->changed);
    return true;
}

bool reset(void *raw, tn_uint64 *generation)
{
    event *e = native(raw);
    if (pthread_mutex_lock(&e->lock) != 0) return false;
    e->is_set = false;
    *generation = e->sets;
    pthread_mutex_unlock(&e->lock);
    return true;
}

wait_result wait(void *raw, tn_uint64 generation, tn_int64 timeout_ms)
{
    event *e = native(raw);
    timespec deadline{};
    if (timeout_ms > 0) {
        tn_uint64 ms = static_cast<tn_uint64>(timeout_ms);
        deadline = posix::monotonic_after(ms > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<tn_uint32>(ms));
    }
    if (pthread_mutex_lock(&e->lock) != 0) return wait_result::failed;
    int rc = 0;
    while (!e->is_set && e->sets == generation) {
        if (timeout_ms == 0) {
            rc = ETIMEDOUT;
            break;
        }
        rc = timeout_ms < 0 ? pthread_cond_wait(&e->changed, &e->lock)
                            : pthread_cond_timedwait(&e->changed, &e->lock, &deadline);
        if (rc != 0) break;
    }
    bool signalled = e->is_set || e->sets != generation;
    pthread_mutex_unlock(&e->lock);
    if (signalled) return wait_result::signalled;
    return rc == ETIMEDOUT ? wait_result::timed_out : wait_result::failed;
}

} // namespace tn::event
