// Monotonic time and a mutex with a condition variable, for the platform's
// own waits. The library's clock is the wall clock, but a wait must not
// stretch or shrink when someone sets the system time.
#ifndef TN_SRC_PLATFORM_POSIX_MONITOR_H
#define TN_SRC_PLATFORM_POSIX_MONITOR_H

#include <tarnel_util/tn_types.h>

#include <pthread.h>
#include <time.h>

namespace tn::posix {

inline tn_int64 monotonic_ms()
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<tn_int64>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

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

// A mutex and a condition variable whose timed waits run on the monotonic
// clock: the state of the event and the semaphore sits under it.
struct monitor {
    pthread_mutex_t lock;
    pthread_cond_t changed;

    // Makes both, or neither.
    bool init()
    {
        if (pthread_mutex_init(&lock, nullptr) != 0) return false;
        pthread_condattr_t attr;
        bool ok = pthread_condattr_init(&attr) == 0;
        if (ok) {
            ok = pthread_condattr_setclock(&attr, CLOCK_MONOTONIC) == 0 && pthread_cond_init(&changed, &attr) == 0;
            pthread_condattr_destroy(&attr);
        }
        if (!ok) pthread_mutex_destroy(&lock);
        return ok;
    }

    void destroy()
    {
        pthread_cond_destroy(&changed);
        pthread_mutex_destroy(&lock);
    }

    // One wait for a change, under the lock: until the deadline, or without
    // limit when there is none. 0, or ETIMEDOUT.
    int wait(const timespec *deadline)
    {
        return deadline ? pthread_cond_timedwait(&changed, &lock, deadline) : pthread_cond_wait(&changed, &lock);
    }
};

} // namespace tn::posix

#endif
