// Monotonic deadlines for the platform's own waits. The library's clock is
// the wall clock, but a wait on a condition variable must not stretch or
// shrink when someone sets the system time.
#ifndef TN_PLATFORM_POSIX_TN_POSIX_TIME_H
#define TN_PLATFORM_POSIX_TN_POSIX_TIME_H

#include <tarnel_util/tn_types.h>

#include <pthread.h>
#include <time.h>

namespace tn::posix {

inline timespec monotonic_after(tn_uint32 ms)
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    t.tv_sec += static_cast<time_t>(ms / 1000);
    t.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
    if (t.tv_nsec >= 1000000000L) {
        t.tv_nsec -= 1000000000L;
        ++t.tv_sec;
    }
    return t;
}

inline bool monotonic_cond_init(pthread_cond_t *cond)
{
    pthread_condattr_t attr;
    if (pthread_condattr_init(&attr) != 0) return false;
    bool ok = pthread_condattr_setclock(&attr, CLOCK_MONOTONIC) == 0 && pthread_cond_init(cond, &attr) == 0;
    pthread_condattr_destroy(&attr);
    return ok;
}

} // namespace tn::posix

#endif
