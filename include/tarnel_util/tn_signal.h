/*
 * tn_signal.h - process signals in the platform's own numbering.
 *
 * The id operations give Linux's signal numbers; -1 would stand for a signal
 * the platform does not have, and every operation ignores it.
 */
#ifndef TARNEL_UTIL_TN_SIGNAL_H
#define TARNEL_UTIL_TN_SIGNAL_H

#include "tn_types.h"

TN_BEGIN_DECLS

typedef void (*tn_signal_handler)(int signal);

TN_API tn_int32 tn_signal_id_int(void);
TN_API tn_int32 tn_signal_id_term(void);
TN_API tn_int32 tn_signal_id_alarm(void);
TN_API tn_int32 tn_signal_id_child(void);
TN_API tn_int32 tn_signal_id_cont(void);
TN_API tn_int32 tn_signal_id_hangup(void);
TN_API tn_int32 tn_signal_id_pipe(void);

/* Installs handler for the signal, as the C library's signal() does. */
TN_API void tn_signal_catch(tn_int32 signal, tn_signal_handler handler);

/* Makes the process ignore the signal. */
TN_API void tn_signal_ignore(tn_int32 signal);

/* Restores the signal's default disposition. */
TN_API void tn_signal_uncatch(tn_int32 signal);

/* Raises the signal in the calling thread. Returns 1, or 0 on failure or for
 * -1. */
TN_API tn_bool tn_signal_raise(tn_int32 signal);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_SIGNAL_H */
