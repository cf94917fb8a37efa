#include <tarnel_util/tn_time.h>

#include <cerrno>
#include <sched.h>
#include <time.h>

namespace {

// Both epochs of the clock are whole seconds apart, so flooring the Unix
// reading in each unit truncates exactly as a count from 1601 would;
// tv_nsec is never negative, which makes the division a floor.
timespec now_realtime()
{
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return ts;
}

} // namespace

void tn_time_sec(tn_time *out) { *out = now_realtime().tv_sec; }

void tn_time_msec(tn_time *out)
{
    timespec ts = now_realtime();
    *out = static_cast<tn_time>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void tn_time_usec(tn_time *out)
{
    timespec ts = now_realtime();
    *out = static_cast<tn_time>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

tn_bool tn_thread_sleep(tn_uint32 milliseconds)
{
    if (!milliseconds) {
        sched_yield();
        return 1;
    }
    timespec left{static_cast<time_t>(milliseconds / 1000), static_cast<long>(milliseconds % 1000) * 1000000L};
    // A signal handler must not cut a sleep short.
    while (nanosleep(&left, &left) == -1 && errno == EINTR) {
    }
    return 1;
}
