// The platform's half of tn_poll: one slice of waiting, and the wake-up that
// lets tn_poll_cancel end a wait at once instead of at the slice's end.
#ifndef TN_COMMON_TN_POLL_WAIT_H
#define TN_COMMON_TN_POLL_WAIT_H

#include <tarnel_util/tn_poll.h>

#include <atomic>

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

#endif
