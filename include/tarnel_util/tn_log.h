/*
 * tn_log.h - the library's one process-wide diagnostic log.
 *
 * The log needs no set-up by the host: the first log call (or
 * tn_log_set_path) sets it up from the environment, and by default it
 * writes nothing. Set-up reads these variables once:
 *
 *   TN_LOG_LEVEL    a decimal level, held to 0 through 4; text that does not
 *                   scan, or that is negative as a 32-bit number, is 0.
 *                   Unset, the level stays as tn_log_set_level left it.
 *   TN_LOG_PATH     "STDOUT", "STDERR" (exactly so) or a file path, opened
 *                   empty. Unset, or a file that does not open: standard
 *                   error. Read only when tn_log_set_path gave no path.
 *   TN_LOG_INCLUDE  comma-separated tags: only lines with these tags pass.
 *   TN_LOG_EXCLUDE  comma-separated tags: lines with these tags do not pass.
 *
 * An empty variable counts as unset, and when both filter variables are set
 * there is no filter. Lines without a tag always pass the filter.
 *
 * Levels: 1 error (E), 2 warning (W), 3 information (I), 4 debug (D); 0 is
 * silence. A function of level L writes when the level is at least L. Each
 * level has six forms, shown here for debug:
 *
 *   tn_log_d(tag, message)       the message unchanged ("%" means nothing)
 *   tn_log_dt(tag, message)      the same with the time in front
 *   tn_log_dv(tag, format, ...)  printf text
 *   tn_log_dvt(tag, format, ...) printf text with the time in front
 *   tn_log_dn(tag, bytes, size)  exactly size bytes, no terminator needed
 *   tn_log_dh(tag, bytes, size)  a hexadecimal dump
 *
 * A line is: for the t forms, tn_time_msec in decimal and a blank; the
 * level letter, ": "; the tag and ": " when a tag is given (it may be
 * null); the body; "\n". tn_log_dv(tag "net", "join: %u", 1) writes
 * "D: net: join: 1". A dump writes, for each run of up to 16 bytes, the
 * prefix, the run's offset as "%08x" and each byte as " %02x", one line a
 * run, and closes with a line of the prefix and 16 times the count of runs
 * as "%08x". Every line, and every dump as a whole, is written under one
 * mutex and flushed, so lines of different threads never mix.
 *
 * Set-up has no lock of its own: the host makes its first log call, or its
 * tn_log_set_path, before other threads can log. Should set-up fail to
 * create the mutex, the log stays without a stream, the line is dropped,
 * and the next call tries set-up again. A call turned away by the level
 * costs one comparison; no call allocates.
 */
#ifndef TARNEL_UTIL_TN_LOG_H
#define TARNEL_UTIL_TN_LOG_H

#include "tn_types.h"

TN_BEGIN_DECLS

#if defined(__GNUC__) || defined(__clang__)
#define TN_PRINTF(f, a) __attribute__((format(printf, f, a)))
#else
#define TN_PRINTF(f, a)
#endif

TN_API void tn_log_e(const char *tag, const char *message);
TN_API void tn_log_et(const char *tag, const char *message);
TN_API void tn_log_ev(const char *tag, const char *format, ...) TN_PRINTF(2, 3);
TN_API void tn_log_evt(const char *tag, const char *format, ...) TN_PRINTF(2, 3);
TN_API void tn_log_en(const char *tag, const void *bytes, tn_uint32 size);
TN_API void tn_log_eh(const char *tag, const void *bytes, tn_uint32 size);

TN_API void tn_log_w(const char *tag, const char *message);
TN_API void tn_log_wt(const char *tag, const char *message);
TN_API void tn_log_wv(const char *tag, const char *format, ...) TN_PRINTF(2, 3);
TN_API void tn_log_wvt(const char *tag, const char *format, ...) TN_PRINTF(2, 3);
TN_API void tn_log_wn(const char *tag, const void *bytes, tn_uint32 size);
TN_API void tn_log_wh(const char *tag, const void *bytes, tn_uint32 size);

TN_API void tn_log_i(const char *tag, const char *message);
TN_API void tn_log_it(const char *tag, const char *message);
TN_API void tn_log_iv(const char *tag, const char *format, ...) TN_PRINTF(2, 3);
TN_API void tn_log_ivt(const char *tag, const char *format, ...) TN_PRINTF(2, 3);
TN_API void tn_log_in(const char *tag, const void *bytes, tn_uint32 size);
TN_API void tn_log_ih(const char *tag, const void *bytes, tn_uint32 size);

TN_API void tn_log_d(const char *tag, const char *message);
TN_API void tn_log_dt(const char *tag, const char *message);
TN_API void tn_log_dv(const char *tag, const char *format, ...) TN_PRINTF(2, 3);
TN_API void tn_log_dvt(const char *tag, const char *format, ...) TN_PRINTF(2, 3);
TN_API void tn_log_dn(const char *tag, const void *bytes, tn_uint32 size);
TN_API void tn_log_dh(const char *tag, const void *bytes, tn_uint32 size);

/* Stores the level, held to 0 through 4. It does not set the log up, so a
 * TN_LOG_LEVEL that is set replaces the value at the later set-up. */
TN_API void tn_log_set_level(tn_int32 level);

/* Before set-up: sets the log up writing to path ("STDOUT", "STDERR" or a
 * file; null leaves the choice to TN_LOG_PATH) and returns 1, also when the
 * file cannot be opened. After set-up: returns 0 and changes nothing. */
TN_API tn_bool tn_log_set_path(const char *path);

/* The value of an environment variable, or null when it is unset. The text
 * belongs to the environment; the caller does not free it. */
TN_API const char *tn_env_get(const char *name);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_LOG_H */
