/*
 * tn_sync.h - a condition object over a caller's tn_mutex.
 *
 * Waiters queue in order of arrival; tn_sync_notify releases the oldest
 * waiter and tn_sync_notify_all releases every waiter. A notify with no
 * waiter is not remembered. A notify that comes while a waiter is between
 * giving up its mutex and beginning to wait is never lost, whatever other
 * waiters do meanwhile.
 *
 * The caller holds its mutex when it waits, and holds it again on every
 * return unless relocking it failed. The notifier need not hold it. A timed
 * wait starts its full time-out afresh each time it is woken but finds
 * itself still queued, so it can last longer than its time-out while others
 * are being notified. A waiter that times out just as a notify picked it
 * returns 0, and that notify is spent on it.
 */
#ifndef TARNEL_UTIL_TN_SYNC_H
#define TARNEL_UTIL_TN_SYNC_H

#include "tn_array.h"
#include "tn_mutex.h"

TN_BEGIN_DECLS

typedef struct tn_sync {
    void *event;      /* the platform's manual-reset event, from tn_alloc */
    tn_mutex guard;   /* protects waiters */
    tn_array waiters; /* kernel thread ids (4 bytes each) in order of arrival */
} tn_sync;

/* Makes the object. Returns 1, or 0 with nothing held if the event or the
 * guard cannot be had. */
TN_API tn_bool tn_sync_create(tn_sync *sync);

/* Releases the object; no thread may be waiting on it. Returns 1, also for
 * null. */
TN_API tn_bool tn_sync_free(tn_sync *sync);

/* Waits, with mutex held by the caller, until notified. Returns 1 when
 * notified, 0 on failure. */
TN_API tn_bool tn_sync_wait(tn_sync *sync, tn_mutex *mutex);

/* As tn_sync_wait with a time-out in milliseconds; 0 looks once and returns.
 * Returns 0 on time-out. */
TN_API tn_bool tn_sync_timedwait(tn_sync *sync, tn_mutex *mutex, tn_uint32 timeout_ms);

/* Releases the oldest waiter, if any, and wakes the waiters. Returns 1, or 0
 * if the guard or the event failed. */
TN_API tn_bool tn_sync_notify(tn_sync *sync);

/* Releases every waiter. Returns as tn_sync_notify. */
TN_API tn_bool tn_sync_notify_all(tn_sync *sync);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_SYNC_H */
