#include "platform/platform.h"

#include <time.h>

namespace tn::zone {

// localtime_r need not look at TZ again once it has read it; tzset must.
bool offset_at(tn_time utc, tn_int32 *east)
{
    tzset();
    time_t t = static_cast<time_t>(utc);
    tm local;
    if (static_cast<tn_time>(t) != utc || !localtime_r(&t, &local)) return false;
    *east = static_cast<tn_int32>(local.tm_gmtoff);
    return true;
}

bool standard_bias(tn_int32 *west)
{
    tzset();
    *west = static_cast<tn_int32>(timezone);
    return true;
}

} // namespace tn::zone
