#include <tarnel_util/tn_caltime.h>

#include "codec/calendar.h"
#include "platform/platform.h"

namespace {

using namespace tn::calendar;

void break_down(tn_caltime *c, tn_time t)
{
    *c = t >= first_time && t <= last_time ? fields(t) : tn_caltime{};
}

// Local time at utc as seconds counted like UTC ones; false when the zone
// cannot tell.
bool local_seconds(tn_time utc, tn_time *local)
{
    tn_int32 east;
    if (!tn::zone::offset_at(utc, &east)) return false;
    *local = utc + east;
    return true;
}

// Solves local_seconds(u) == local for u. Where two instants read the same
// the earlier wins; where none does (the clock skipped the reading), the
// offset from before the change applies. Offsets change at most once within
// a day, which holds for every zone on record.
bool utc_from_local(tn_time local, tn_time *utc)
{
    tn_time probe;
    if (!local_seconds(local, &probe)) return false;
    tn_time a = probe - local;
    tn_time u1 = local - a, t1;
    if (!local_seconds(u1, &t1)) return false;
    tn_time b = t1 - u1;
    if (t1 == local) {
        tn_time day_before;
        if (!local_seconds(u1 - day_seconds, &day_before)) return false;
        b = day_before - (u1 - day_seconds);
        if (a == b) {
            *utc = u1;
            return true;
        }
    }
    tn_time u2 = local - b, t2;
    if (!local_seconds(u2, &t2)) return false;
    if (t2 == local)
        *utc = u2;
    else if (t1 == local)
        *utc = u1;
    else
        *utc = u1 > u2 ? u1 : u2;
    return true;
}

// Beyond any offset a zone can have, so that the sums below cannot wrap and
// the zone is never asked about times far outside the calendar.
constexpr tn_time zone_margin = 2 * day_seconds;

} // namespace

void tn_caltime_utc_from_time(tn_caltime *caltime, const tn_time *time) { break_down(caltime, *time); }

void tn_caltime_local_from_time(tn_caltime *caltime, const tn_time *time)
{
    tn_time t = *time, local;
    if (t < first_time - zone_margin || t > last_time + zone_margin || !local_seconds(t, &local))
        *caltime = tn_caltime{};
    else
        break_down(caltime, local);
}

tn_bool tn_caltime_utc_to_time(const tn_caltime *caltime, tn_time *time) { return seconds(*caltime, time); }

tn_bool tn_caltime_local_to_time(const tn_caltime *caltime, tn_time *time)
{
    tn_time local, utc;
    if (!seconds(*caltime, &local) || !utc_from_local(local, &utc)) return 0;
    *time = utc;
    return 1;
}

tn_bool tn_caltime_get_offset(tn_int32 *offset) { return tn::zone::standard_bias(offset); }
