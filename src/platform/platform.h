// What a platform layer implements for the portable subsystems, beyond the
// public families it exports itself: the wait under tn_poll, the event under
// tn_sync, and the stream the log writes to. One header, so that a new
// platform knows its whole duty from one place.
#ifndef TN_SRC_PLATFORM_PLATFORM_H
#define TN_SRC_PLATFORM_PLATFORM_H

#include <tarnel_util/tn_poll.h>
#include <tarnel_util/tn_types.h>

#include <atomic>
#include <cstdio>

// The platform's manual-reset event, as tn_sync needs it.
//
// Besides being set or not, the event counts how often it was set. A reset
// hands out that count, and a wait from it ends as soon as the event is set
// or has been set at any time since: a set that fell between a waiter's
// reset and its wait can then not be undone by another thread's reset.
namespace tn::event {

enum class wait_result { signalled, timed_out, failed };

// A new event, not set; null if it cannot be had.
void *create();
void destroy(void *event);

bool set(void *event);

// Clears the event and stores the count of sets so far in generation.
bool reset(void *event, tn_uint64 *generation);

// Waits until the event is set or has been set since generation was handed
// out; timeout_ms below 0 waits without limit, 0 looks once.
wait_result wait(void *event, tn_uint64 generation, tn_int64 timeout_ms);

} // namespace tn::event

// The platform's half of tn_poll: one slice of waiting, and the wake-up that
// lets tn_poll_cancel end a wait at once instead of at the slice's end.
namespace tn::poll_wait {

inline std::atomic_ref<tn_bool> canceled(tn_poll *p) { return std::atomic_ref<tn_bool>(p->canceled); }

// Makes the calling thread wakeable through tn_poll_cancel on p until
// detach. Without a wake handle (none could be made) the wait still ends at
// the next slice boundary.
void attach(tn_poll *p);

// Ends the registration; returns only when no cancel is still signalling the
// thread's handle through p.
void detach(tn_poll *p);

// One slice of at most ms milliseconds on the n entries. Clears every
// entry's result, waits until an entry shows an event, the slice ends, or a
// cancel arrives, and sets the result bits found. An empty set sleeps. Wake-
// ups that find no cancel do not shorten the slice. Returns false if the
// platform's wait fails (results then stay 0).
bool slice(tn_poll *p, tn_pollinfo *entries, tn_uint32 n, tn_uint32 ms);

// Wakes the thread attached to p, if any. The caller has set the flag.
void wake(tn_poll *p);

} // namespace tn::poll_wait

// The stream a log opens for a path: the standard streams for "STDOUT" and
// "STDERR" and for no path, else the file, rewritten, and standard error
// when the file cannot be opened.
namespace tn::log_stream {

std::FILE *open(const char *path);

} // namespace tn::log_stream

// The host's time zone, for the local calendar forms. Each call reads the
// zone setting afresh, so a host that changes it is followed at once.
namespace tn::zone {

// Stores the offset of local time from UTC at the instant utc, in seconds,
// positive east of Greenwich, daylight saving included; false if the
// platform cannot tell for that instant.
bool offset_at(tn_time utc, tn_int32 *east);

// Stores the bias of standard time, UTC minus local, in seconds, daylight
// saving left out; false if the platform cannot tell.
bool standard_bias(tn_int32 *west);

} // namespace tn::zone

#endif
