#include <tarnel_util/tn_time.h>

void tn_elapse_start(tn_elapse *elapse)
{
    tn_time now;
    tn_time_msec(&now);
    elapse->start = now;
    elapse->mark = now;
}

tn_uint32 tn_elapse_delta(tn_elapse *elapse)
{
    tn_time now;
    tn_time_msec(&now);
    // Unsigned arithmetic: a backward jump of the clock wraps instead of
    // overflowing.
    tn_uint32 delta = static_cast<tn_uint32>(static_cast<tn_uint64>(now) - static_cast<tn_uint64>(elapse->mark));
    elapse->mark = now;
    return delta;
}

tn_uint32 tn_elapse_total(tn_elapse *elapse)
{
    tn_time now;
    tn_time_msec(&now);
    return static_cast<tn_uint32>(now) - static_cast<tn_uint32>(elapse->start);
}
