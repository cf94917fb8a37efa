/*
 * tn_thread.h - threads and their priorities.
 *
 * The library starts no thread of its own; these are for the host. A
 * tn_thread record holds one thread; each started thread is ended as a record
 * by exactly one tn_thread_join or tn_thread_detach, neither of which clears
 * the record.
 *
 * Priorities. Seven levels, 1 the highest and 7 the lowest, and the numbers
 * -10 to 10, where a higher number is a higher priority:
 *
 *   level  numbers            Linux niceness of the thread
 *     1    8 to 10            -20  (time critical)
 *     2    5 to 7             -10  (highest)
 *     3    2 to 4              -5  (above normal)
 *     4    -1 to 1, and any    0   (normal)
 *          number outside -10 to 10
 *     5    -4 to -2             5  (below normal)
 *     6    -7 to -5            10  (lowest)
 *     7    -10 to -8           19  (idle)
 *
 * Lowering a thread's niceness needs privileges (CAP_SYS_NICE, or a raised
 * RLIMIT_NICE): an unprivileged host gets 0 for levels 1 to 3, and for any
 * step back up after it has lowered a thread's priority.
 */
#ifndef TARNEL_UTIL_TN_THREAD_H
#define TARNEL_UTIL_TN_THREAD_H

#include "tn_types.h"
#include "tn_time.h"

TN_BEGIN_DECLS

typedef struct tn_thread {
    tn_uintptr handle; /* the platform's thread; 0 means no thread */
    tn_int32 tid;      /* the kernel's id of the thread, for its priority */
} tn_thread;

/* The body of a thread: takes the argument given to tn_thread_create. */
typedef void (*tn_thread_function)(void *argument);

/* Sets the handle to 0. Returns 1. */
TN_API tn_bool tn_thread_init(tn_thread *thread);

/* Starts function(argument) on a new thread with a stack of stack_size bytes
 * (0 takes the platform's default; a smaller size than the platform allows is
 * raised to its minimum, and sizes are rounded up to whole pages). Returns 1
 * with the thread stored, or 0 with the handle 0 if memory or the thread
 * cannot be had. */
TN_API tn_bool tn_thread_create(tn_thread *thread, tn_uint32 stack_size,
                                tn_thread_function function, void *argument);

/* Lets the thread run on unjoined. Does nothing for handle 0. */
TN_API void tn_thread_detach(tn_thread *thread);

/* Waits without limit for the thread's end. Returns 1, or 0 for handle 0 or
 * a failed wait. */
TN_API tn_bool tn_thread_join(tn_thread *thread);

/* A record that stands for the calling thread, valid only on that thread
 * and not to be joined or detached. */
TN_API tn_thread tn_thread_self(void);

/* Sets one of the seven levels. Returns 0 for handle 0, a level outside 1 to
 * 7, or a refusal by the system; else 1. */
TN_API tn_bool tn_thread_set_priority(tn_thread *thread, tn_uint32 level);

/* Sets the priority from a number from -10 to 10 (others mean normal).
 * Returns 0 for handle 0 or a refusal by the system; else 1. */
TN_API tn_bool tn_thread_set_priority_numrical(tn_thread *thread, tn_int32 number);

/* Stores the thread's level and returns 1, storing 0 for a niceness that
 * the table does not hold. Returns 0 for handle 0 or when the system cannot
 * tell. */
TN_API tn_bool tn_thread_get_priority(tn_thread *thread, tn_uint32 *out_level);

/* Returns 0: nothing in the library depends on the thread implementation. */
TN_API tn_bool tn_thread_is_nptl(void);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_THREAD_H */
