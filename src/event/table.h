// Taking a dispatcher's table out from under its lock, shared by the
// scheduler and the network dispatcher.
#ifndef TN_SRC_EVENT_TABLE_H
#define TN_SRC_EVENT_TABLE_H

#include <tarnel_util/tn_array.h>
#include <tarnel_util/tn_mutex.h>

#include "event/lock.h"

namespace tn {

// Moves *table out under mutex, once apply() has folded the waiting requests
// into it, and leaves an empty table of the same records behind. Other
// threads that look tasks up while the taken records are dealt with find
// that empty table instead of one that is being emptied. A failed lock does
// not stop this: the callers are ending the table's life either way.
template <class Apply>
tn_array take_table(tn_mutex *mutex, tn_array *table, Apply apply)
{
    lock_guard lock(mutex);
    if (lock.held()) apply();
    tn_array taken = *table;
    tn_array_init(table, taken.element_size);
    return taken;
}

} // namespace tn

#endif
