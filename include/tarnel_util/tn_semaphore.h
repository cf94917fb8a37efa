/*
 * tn_semaphore.h - counting semaphores with a maximum count.
 */
#ifndef TARNEL_UTIL_TN_SEMAPHORE_H
#define TARNEL_UTIL_TN_SEMAPHORE_H

#include "tn_types.h"

TN_BEGIN_DECLS

typedef struct tn_semaphore {
    void *handle; /* the platform's semaphore, from tn_alloc; null when none */
} tn_semaphore;

/* Makes a semaphore holding initial counts, which never holds more than
 * maximum. Returns 1, or 0 if it cannot be had or initial is above maximum
 * or maximum is 0. */
TN_API tn_bool tn_semaphore_create(tn_semaphore *semaphore, tn_uint32 initial, tn_uint32 maximum);

/* Releases the semaphore. Null, or a record without one, is ignored. */
TN_API void tn_semaphore_free(tn_semaphore *semaphore);

/* Takes one count, waiting at most timeout_ms milliseconds for it. A
 * time-out of 0 means no limit, not a look without waiting. Returns 1, or 0
 * on time-out or failure. */
TN_API tn_bool tn_semaphore_wait(tn_semaphore *semaphore, tn_uint32 timeout_ms);

/* Takes one count without waiting: 1 or 0. */
TN_API tn_bool tn_semaphore_trywait(tn_semaphore *semaphore);

/* Adds one count. Returns 1, or 0 at the maximum count. */
TN_API tn_bool tn_semaphore_post(tn_semaphore *semaphore);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_SEMAPHORE_H */
