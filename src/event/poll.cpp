#include <tarnel_util/tn_poll.h>
#include <tarnel_util/tn_time.h>

#include "core/array_internal.h"
#include "platform/platform.h"

namespace {

constexpr tn_uint32 slice_ms = 100;

tn_pollinfo *entries_of(tn_poll *p) { return static_cast<tn_pollinfo *>(tn_array_get(&p->entries)); }

struct attached {
    tn_poll *p;
    explicit attached(tn_poll *poll) : p(poll) { tn::poll_wait::attach(p); }
    ~attached() { tn::poll_wait::detach(p); }
    attached(const attached &) = delete;
    attached &operator=(const attached &) = delete;
};

tn_bool wait_one(tn_poll *p, tn_socket s, tn_int32 timeout_ms, tn_uint32 bit)
{
    if (!tn_poll_set(p, s, bit)) return 0;
    tn_uint32 count = 0, result = 0;
    tn_bool ready = tn_poll_check(p, timeout_ms, &count) && count && tn_poll_get_status(p, s, &result) &&
                    (result & bit) && !(result & TN_POLL_ERROR);
    tn_poll_remove(p, s);
    return ready;
}

tn_bool wait_one_abs(tn_poll *p, tn_socket s, const tn_time *deadline, tn_uint32 bit)
{
    tn_time now;
    tn_time_msec(&now);
    if (*deadline != 0 && *deadline <= now) return 0;
    tn_int32 timeout = -1;
    if (*deadline != 0)
        timeout = static_cast<tn_int32>(static_cast<tn_uint32>(static_cast<tn_uint64>(*deadline) - static_cast<tn_uint64>(now)));
    return wait_one(p, s, timeout, bit);
}

} // namespace

tn_bool tn_poll_create(tn_poll *poll)
{
    tn_array_init(&poll->entries, sizeof(tn_pollinfo));
    tn_array_init(&poll->scratch, 1);
    poll->waiter = -1;
    poll->wakers = 0;
    tn::poll_wait::canceled(poll).store(0);
    return 1;
}

tn_bool tn_poll_reset(tn_poll *poll)
{
    tn::poll_wait::canceled(poll).store(0);
    tn_array_truncate(&poll->entries);
    return 1;
}

void tn_poll_free(tn_poll *poll)
{
    if (!poll) return;
    tn_array_free(&poll->entries);
    tn_array_free(&poll->scratch);
    tn::poll_wait::canceled(poll).store(0);
}

tn_bool tn_poll_set(tn_poll *poll, tn_socket socket, tn_uint32 requested)
{
    tn_uint32 at = tn_pollinfo_array_find(&poll->entries, socket);
    if (at < tn_array_length(&poll->entries)) {
        entries_of(poll)[at].requested = requested;
        return 1;
    }
    tn_pollinfo entry{socket, requested, 0};
    return tn_array_catn(&poll->entries, &entry, 1);
}

tn_bool tn_poll_get_status(const tn_poll *poll, tn_socket socket, tn_uint32 *out_result)
{
    tn_uint32 at = tn_pollinfo_array_find(&poll->entries, socket);
    const auto *entry = static_cast<const tn_pollinfo *>(tn_array_get_pos(&poll->entries, at));
    if (!entry) return 0;
    *out_result = entry->result;
    return 1;
}

tn_bool tn_poll_remove(tn_poll *poll, tn_socket socket)
{
    tn_uint32 at = tn_pollinfo_array_find(&poll->entries, socket);
    if (at >= tn_array_length(&poll->entries)) return 1;
    return tn_array_remove(&poll->entries, at);
}

tn_bool tn_poll_check(tn_poll *poll, tn_int32 timeout_ms, tn_uint32 *out_count)
{
    *out_count = 0;
    const tn_uint32 n = tn_array_length(&poll->entries);
    tn_pollinfo *entries = entries_of(poll);
    auto canceled = tn::poll_wait::canceled(poll);
    tn_bool ok = 1;
    {
        // Registered before the first look at the flag, so a cancel either
        // shows in the flag or wakes the wait: none falls between.
        attached guard(poll);
        // The time spent is the sum of the slices: no clock decides the end.
        tn_int64 spent = 0;
        while (!canceled.load()) {
            tn_uint32 slice = slice_ms;
            if (timeout_ms >= 0 && timeout_ms - spent < slice) slice = static_cast<tn_uint32>(timeout_ms - spent);
            spent += slice;
            if (!tn::poll_wait::slice(poll, entries, n, slice)) {
                ok = 0;
                break;
            }
            tn_uint32 count = 0;
            for (tn_uint32 i = 0; i < n; ++i) count += entries[i].result != 0;
            if (count) {
                *out_count = count;
                break;
            }
            if (spent == timeout_ms) break;
        }
    }
    canceled.store(0);
    return ok;
}

void tn_poll_cancel(tn_poll *poll)
{
    tn::poll_wait::canceled(poll).store(1);
    tn::poll_wait::wake(poll);
}

tn_bool tn_poll_is_canceled(const tn_poll *poll)
{
    return tn::poll_wait::canceled(const_cast<tn_poll *>(poll)).load();
}

tn_bool tn_poll_wait_read(tn_poll *poll, tn_socket socket, tn_int32 timeout_ms)
{
    return wait_one(poll, socket, timeout_ms, TN_POLL_READ);
}

tn_bool tn_poll_wait_write(tn_poll *poll, tn_socket socket, tn_int32 timeout_ms)
{
    return wait_one(poll, socket, timeout_ms, TN_POLL_WRITE);
}

tn_bool tn_poll_wait_read_abs(tn_poll *poll, tn_socket socket, const tn_time *deadline)
{
    return wait_one_abs(poll, socket, deadline, TN_POLL_READ);
}

tn_bool tn_poll_wait_write_abs(tn_poll *poll, tn_socket socket, const tn_time *deadline)
{
    return wait_one_abs(poll, socket, deadline, TN_POLL_WRITE);
}

tn_uint32 tn_pollinfo_array_find(const tn_pollinfo_array *array, tn_socket socket)
{
    return tn::find_record<tn_pollinfo>(array, [socket](const tn_pollinfo &e) { return e.socket == socket; });
}

tn_pollinfo *tn_pollinfo_array_get_end(const tn_pollinfo_array *array)
{
    return static_cast<tn_pollinfo *>(tn_array_get_end(array));
}
