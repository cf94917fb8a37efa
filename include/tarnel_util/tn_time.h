/*
 * tn_time.h - the wall clock, the stopwatch, sleeping.
 *
 * The library has one time source, the system's wall clock, read as whole
 * units since 1970-01-01 00:00:00 UTC (truncated, never rounded). There is no
 * monotonic clock: every deadline of the library is a wall-clock time, and a
 * jump of the system clock moves them all. None of these operations fails.
 */
#ifndef TARNEL_UTIL_TN_TIME_H
#define TARNEL_UTIL_TN_TIME_H

#include "tn_types.h"

TN_BEGIN_DECLS

/* A stopwatch in milliseconds; start with tn_elapse_start before use. */
typedef struct tn_elapse {
    tn_time start; /* reading at tn_elapse_start */
    tn_time mark;  /* reading at the last tn_elapse_delta, or at start */
} tn_elapse;

/* Store whole seconds, milliseconds or microseconds since the epoch. */
TN_API void tn_time_sec(tn_time *out);
TN_API void tn_time_msec(tn_time *out);
TN_API void tn_time_usec(tn_time *out);

/* Reads the clock once and stores the reading in both fields. */
TN_API void tn_elapse_start(tn_elapse *elapse);

/* Returns the milliseconds since the mark (the low 32 bits of the
 * difference, so a backward jump reads as a very large value) and moves the
 * mark to now. */
TN_API tn_uint32 tn_elapse_delta(tn_elapse *elapse);

/* Returns the milliseconds since start, in 32 bits; moves nothing. Wraps
 * after about 49.7 days. */
TN_API tn_uint32 tn_elapse_total(tn_elapse *elapse);

/* Suspends the calling thread for at least milliseconds, resuming after
 * signals; 0 gives up the rest of the time slice. Always returns 1. */
TN_API tn_bool tn_thread_sleep(tn_uint32 milliseconds);

/* Gives up the rest of the time slice: tn_thread_sleep(0). */
TN_API void tn_thread_yield(void);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_TIME_H */
