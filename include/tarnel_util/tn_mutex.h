/*
 * tn_mutex.h - mutexes.
 *
 * A tn_mutex is recursive: the thread that owns it may lock it again, and
 * must then unlock it as often. Unlocking a mutex the calling thread does not
 * own fails. If the owner ends while holding the mutex, the next lock reads
 * as failed (0), but the locker owns the mutex then, and it stays usable once
 * that owner unlocks it.
 */
#ifndef TARNEL_UTIL_TN_MUTEX_H
#define TARNEL_UTIL_TN_MUTEX_H

#include "tn_types.h"

TN_BEGIN_DECLS

typedef struct tn_mutex {
    void *handle; /* the platform's mutex, from tn_alloc; null when none */
} tn_mutex;

/* Makes an unowned mutex. Returns 1, or 0 if it cannot be had. */
TN_API tn_bool tn_mutex_create(tn_mutex *mutex);

/* Releases the mutex. Null, or a record without a mutex, is ignored. */
TN_API void tn_mutex_free(tn_mutex *mutex);

/* Waits without limit. Returns 1 when the mutex is taken, 0 on failure or
 * when its last owner ended while holding it. */
TN_API tn_bool tn_mutex_lock(tn_mutex *mutex);

/* As tn_mutex_lock without waiting: 1 if the mutex was taken, else 0. */
TN_API tn_bool tn_mutex_trylock(tn_mutex *mutex);

/* Releases one lock. Returns 1, or 0 if the thread does not own it. */
TN_API tn_bool tn_mutex_unlock(tn_mutex *mutex);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_MUTEX_H */
