// The platform's manual-reset event, as tn_sync needs it.
//
// Besides being set or not, the event counts how often it was set. A reset
// hands out that count, and a wait from it ends as soon as the event is set
// or has been set at any time since: a set that fell between a waiter's
// reset and its wait can then not be undone by another thread's reset.
#ifndef TN_COMMON_TN_EVENT_H
#define TN_COMMON_TN_EVENT_H

#include <tarnel_util/tn_types.h>

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

#endif
