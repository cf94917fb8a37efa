#include <tarnel_util/tn_http_header.h>

#include "http/connection.h"

namespace tn::http {

tn_time deadline_after(tn_int32 timeout_ms)
{
    if (timeout_ms < 0) return 0;
    tn_time now = 0;
    tn_time_msec(&now);
    return now + timeout_ms;
}

bool await_more(tn_poll *poll, tn_socket socket, tn_input_buffer *in, const tn_time *deadline)
{
    const tn_uint32 before = in->available;
    tn_uint32 now = 0;
    return tn_poll_wait_read_abs(poll, socket, deadline) && tn_input_buffer_pool(in, &now) && now > before;
}

bool first_line(tn_input_buffer *in, tn_uint32 *length)
{
    tn_uint32 held = 0;
    for (;;) {
        tn_http_find_line_str(in, &held, length);
        if (*length == held) {
            *length = 0;
            return held < in->length;
        }
        if (*length) return true;
        tn_input_buffer_skip(in, 2);
    }
}

} // namespace tn::http
