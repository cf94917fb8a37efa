#include <tarnel_util/tn_alloc.h>
#include <tarnel_util/tn_semaphore.h>

#include <cerrno>
#include <pthread.h>
#include <time.h>

#include "tn_posix_time.h"

namespace {

// POSIX semaphores have no maximum count, so this one is a counter under a
// mutex, with a condition variable on the monotonic clock for the waits.
struct semaphore {
    pthread_mutex_t lock;
    pthread_cond_t posted;
    tn_uint32 count;
    tn_uint32 maximum;
};

semaphore *native(tn_semaphore *s) { return static_cast<semaphore *>(s->handle); }

} // namespace

tn_bool tn_semaphore_create(tn_semaphore *s, tn_uint32 initial, tn_uint32 maximum)
{
    s->handle = nullptr;
    if (!maximum || initial > maximum) return 0;
    auto *sem = static_cast<semaphore *>(tn_alloc(sizeof(semaphore)));
    if (!sem) return 0;
    if (pthread_mutex_init(&sem->lock, nullptr) != 0) {
        tn_alloc_free(sem);
        return 0;
    }
    if (!tn::posix::monotonic_cond_init(&sem->posted)) {
        pthread_mutex_destroy(&sem->lock);
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
    pthread_cond_destroy(&native(s)->posted);
    pthread_mutex_destroy(&native(s)->lock);
    tn_alloc_free(s->handle);
    s->handle = nullptr;
}

tn_bool tn_semaphore_wait(tn_semaphore *s, tn_uint32 timeout_ms)
{
    semaphore *sem = native(s);
    if (!sem) return 0;
    timespec deadline = tn::posix::monotonic_after(timeout_ms);
    pthread_mutex_lock(&sem->lock);
    int rc = 0;
    while (sem->count == 0 && rc != ETIMEDOUT) {
        rc = timeout_ms ? pthread_cond_timedwait(&sem->posted, &sem->lock, &deadline)
                        : pthread_cond_wait(&sem->posted, &sem->lock);
    }
    tn_bool taken = sem->count > 0;
    if (taken) --sem->count;
    pthread_mutex_unlock(&sem->lock);
    return taken;
}

tn_bool tn_semaphore_trywait(tn_semaphore *s)
{
    semaphore *sem = native(s);
    if (!sem) return 0;
    pthread_mutex_lock(&sem->lock);
    tn_bool taken = sem->count > 0;
    if (taken) --sem->count;
    pthread_mutex_unlock(&sem->lock);
    return taken;
}

tn_bool tn_semaphore_post(tn_semaphore *s)
{
    semaphore *sem = native(s);
    if (!sem) return 0;
    pthread_mutex_lock(&sem->lock);
    tn_bool posted = sem->count < sem->maximum;
    if (posted) ++sem->count;
    pthread_mutex_unlock(&sem->lock);
    if (posted) pthread_cond_signal(&sem->posted);
    return posted;
}
