#include <tarnel_util/tn_alloc.h>
#include <tarnel_util/tn_semaphore.h>

#include <cerrno>

#include "platform/posix/monitor.h"

namespace {

// POSIX semaphores have no maximum count, so this one is a counter under a
// monitor.
struct semaphore {
    tn::posix::monitor m;
    tn_uint32 count;
    tn_uint32 maximum;
};

semaphore *native(tn_semaphore *s) { return static_cast<semaphore *>(s->handle); }

// Takes one count; with wait, waiting for it up to timeout_ms (0: no limit).
tn_bool take(tn_semaphore *s, bool wait, tn_uint32 timeout_ms)
{
    semaphore *sem = native(s);
    if (!sem) return 0;
    timespec deadline;
    const timespec *until = nullptr;
    if (wait && timeout_ms) {
        deadline = tn::posix::monotonic_after(timeout_ms);
        until = &deadline;
    }
    pthread_mutex_lock(&sem->m.lock);
    int rc = 0;
    while (wait && sem->count == 0 && rc != ETIMEDOUT) rc = sem->m.wait(until);
    tn_bool taken = sem->count > 0;
    if (taken) --sem->count;
    pthread_mutex_unlock(&sem->m.lock);
    return taken;
}

} // namespace

tn_bool tn_semaphore_create(tn_semaphore *s, tn_uint32 initial, tn_uint32 maximum)
{
    s->handle = nullptr;
    if (!maximum || initial > maximum) return 0;
    auto *sem = static_cast<semaphore *>(tn_alloc(sizeof(semaphore)));
    if (!sem) return 0;
    if (!sem->m.init()) {
        tn_alloc_free(sem);
        return 0;
    }
    sem->count = initial;
    sem->maximum = maximum;
    s->handle = sem;
    return 1;
}

void tn_semaphore_free(tn_semaphore *s)
{
    if (!s || !s->handle) return;
    native(s)->m.destroy();
    tn_alloc_free(s->handle);
    s->handle = nullptr;
}

tn_bool tn_semaphore_wait(tn_semaphore *s, tn_uint32 timeout_ms) { return take(s, true, timeout_ms); }

tn_bool tn_semaphore_trywait(tn_semaphore *s) { return take(s, false, 0); }

tn_bool tn_semaphore_post(tn_semaphore *s)
{
    semaphore *sem = native(s);
    if (!sem) return 0;
    pthread_mutex_lock(&sem->m.lock);
    tn_bool posted = sem->count < sem->maximum;
    if (posted) ++sem->count;
    pthread_mutex_unlock(&sem->m.lock);
    if (posted) pthread_cond_signal(&sem->m.changed);
    return posted;
}
