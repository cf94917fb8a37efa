/*
 * tn_poll.h - a set of sockets to wait on, which another thread can cancel.
 *
 * A tn_poll holds at most one entry per socket, in order of insertion, with
 * the events wanted on it. One thread waits on the set with tn_poll_check or
 * the wait_ forms; any other thread may call tn_poll_cancel meanwhile, and
 * nothing else. A wait is cut into slices of at most 100 milliseconds, and the
 * cancel flag is looked at between slices. On this platform a cancel also
 * wakes the waiting thread at once, so it returns within microseconds rather
 * than within a slice; the slices, the flag and every result stay as if it
 * had waited for the slice to end.
 *
 * A canceled wait reports no event and no error: it looks like an expired
 * time-out with a count of 0, and the wait clears the flag as it ends. A
 * cancel that comes while no wait runs is kept for the next one.
 *
 * Results. The read bit is set when data or the end of the stream is waiting
 * (a peer's orderly close reads as readable, so a reader sees end of stream),
 * the write bit when a send would not block. The error bit is watched on
 * every entry whatever was requested: it shows a pending socket error (such
 * as a failed non-blocking connect) and a handle that is not open. There is
 * no limit on the number of sockets in a set on this platform.
 *
 * A steady-state wait allocates nothing; only a set larger than 64 entries
 * keeps a descriptor list of its own, grown when the set first grows.
 */
#ifndef TARNEL_UTIL_TN_POLL_H
#define TARNEL_UTIL_TN_POLL_H

#include "tn_array.h"

TN_BEGIN_DECLS

#define TN_POLL_READ 1u
#define TN_POLL_WRITE 2u
#define TN_POLL_ERROR 4u

typedef struct tn_pollinfo {
    tn_socket socket;    /* the key */
    tn_uint32 requested; /* TN_POLL_READ and/or TN_POLL_WRITE; 0 watches errors only */
    tn_uint32 result;    /* what the last check found: read, write, error bits */
} tn_pollinfo;

typedef tn_array tn_pollinfo_array;

typedef struct tn_poll {
    tn_pollinfo_array entries; /* the set, in order of insertion */
    tn_bool canceled;          /* set by tn_poll_cancel, read atomically */
    /* Private to the library; leave them alone. */
    tn_int32 waiter;           /* wake handle of the thread now waiting, or -1 */
    tn_uint32 wakers;          /* cancels now signalling that handle */
    tn_array scratch;          /* the wait's descriptor list for large sets */
} tn_poll;

/* Initialises the entries and clears the flag. Allocates nothing; returns 1. */
TN_API tn_bool tn_poll_create(tn_poll *poll);

/* Drops all entries and a pending cancel; returns 1. A failed entries array
 * stays failed. */
TN_API tn_bool tn_poll_reset(tn_poll *poll);

/* Frees the entries and clears the flag. Null is ignored. */
TN_API void tn_poll_free(tn_poll *poll);

/* Replaces the requested bits of the socket's entry, keeping its result
 * bits, or appends an entry with result 0. Returns 1, or 0 if the append
 * fails (the entries array is then failed until tn_poll_free). */
TN_API tn_bool tn_poll_set(tn_poll *poll, tn_socket socket, tn_uint32 requested);

/* Stores the entry's result bits and returns 1, or returns 0 and stores
 * nothing if the socket has no entry. */
TN_API tn_bool tn_poll_get_status(const tn_poll *poll, tn_socket socket, tn_uint32 *out_result);

/* Removes the socket's entry, keeping the order of the others. A socket
 * without an entry gives 1. */
TN_API tn_bool tn_poll_remove(tn_poll *poll, tn_socket socket);

/* Waits until an entry shows an event, the time-out in milliseconds passes
 * (negative: no limit; 0: look once), or the wait is canceled. Stores the
 * number of entries with any result bit in out_count. Returns 1 on any of
 * those ends, or 0 (count 0, flag cleared, result bits 0) if the platform's
 * wait fails. A cancel pending on entry returns 1 at once with count 0 and
 * leaves the old result bits. An empty set is a sleep that a cancel ends. */
TN_API tn_bool tn_poll_check(tn_poll *poll, tn_int32 timeout_ms, tn_uint32 *out_count);

/* Sets the canceled flag and wakes a waiting thread. Safe on any thread. */
TN_API void tn_poll_cancel(tn_poll *poll);

/* The canceled flag. Safe on any thread. */
TN_API tn_bool tn_poll_is_canceled(const tn_poll *poll);

/* Waits for one socket to become readable (or writable): sets its entry to
 * that bit alone, checks, and removes the entry again. Returns 1 only if the
 * bit was found and the error bit was not; a time-out, a cancel, an error and
 * an event on another entry all give 0. Meant for a set of its own. */
TN_API tn_bool tn_poll_wait_read(tn_poll *poll, tn_socket socket, tn_int32 timeout_ms);
TN_API tn_bool tn_poll_wait_write(tn_poll *poll, tn_socket socket, tn_int32 timeout_ms);

/* As the forms above with an absolute deadline in tn_time_msec units; 0 means
 * no limit. A deadline not later than now gives 0 at once, touching neither
 * the set nor the flag. */
TN_API tn_bool tn_poll_wait_read_abs(tn_poll *poll, tn_socket socket, const tn_time *deadline);
TN_API tn_bool tn_poll_wait_write_abs(tn_poll *poll, tn_socket socket, const tn_time *deadline);

/* The position of the socket's entry, or the length. */
TN_API tn_uint32 tn_pollinfo_array_find(const tn_pollinfo_array *array, tn_socket socket);

/* A pointer to the last entry, or null. */
TN_API tn_pollinfo *tn_pollinfo_array_get_end(const tn_pollinfo_array *array);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_POLL_H */
