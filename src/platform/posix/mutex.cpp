#include <tarnel_util/tn_alloc.h>
#include <tarnel_util/tn_mutex.h>

#include <cerrno>
#include <pthread.h>

namespace {

pthread_mutex_t *native(tn_mutex *m) { return static_cast<pthread_mutex_t *>(m->handle); }

// A robust mutex whose owner died is handed over locked with EOWNERDEAD.
// Marking it consistent keeps it usable for everyone after; the lock still
// reads as failed, and the new owner must unlock it as usual.
tn_bool locked(pthread_mutex_t *m, int rc)
{
    if (rc == EOWNERDEAD) {
        pthread_mutex_consistent(m);
        return 0;
    }
    return rc == 0;
}

} // namespace

tn_bool tn_mutex_create(tn_mutex *mutex)
{
    mutex->handle = nullptr;
    auto *m = static_cast<pthread_mutex_t *>(tn_alloc(sizeof(pthread_mutex_t)));
    if (!m) return 0;
    pthread_mutexattr_t attr;
    bool ok = pthread_mutexattr_init(&attr) == 0;
    ok = ok && pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE) == 0 &&
         pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST) == 0 && pthread_mutex_init(m, &attr) == 0;
    pthread_mutexattr_destroy(&attr);
    if (!ok) {
        tn_alloc_free(m);
        return 0;
    }
    mutex->handle = m;
    return 1;
}

void tn_mutex_free(tn_mutex *mutex)
{
    if (!mutex || !mutex->handle) return;
    pthread_mutex_destroy(native(mutex));
    tn_alloc_free(mutex->handle);
    mutex->handle = nullptr;
}

tn_bool tn_mutex_lock(tn_mutex *mutex)
{
    if (!mutex->handle) return 0;
    return locked(native(mutex), pthread_mutex_lock(native(mutex)));
}

tn_bool tn_mutex_trylock(tn_mutex *mutex)
{
    if (!mutex->handle) return 0;
    return locked(native(mutex), pthread_mutex_trylock(native(mutex)));
}

tn_bool tn_mutex_unlock(tn_mutex *mutex)
{
    if (!mutex->handle) return 0;
    return pthread_mutex_unlock(native(mutex)) == 0;
}
