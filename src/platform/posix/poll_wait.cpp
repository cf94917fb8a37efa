#include "platform/platform.h"

#include <tarnel_util/tn_mult.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "platform/posix/monitor.h"

namespace tn::poll_wait {
namespace {

// Each thread that ever waits gets one eventfd, made at its first wait and
// closed when the thread ends. A cancel writes to the eventfd of the thread
// registered in the record; the key's value is the descriptor plus one, so
// that null means "none yet".
pthread_once_t key_once = PTHREAD_ONCE_INIT;
pthread_key_t waker_key;
std::atomic<bool> key_made{false};

void close_waker(void *value) { close(static_cast<int>(reinterpret_cast<intptr_t>(value)) - 1); }

void make_key() { key_made.store(pthread_key_create(&waker_key, close_waker) == 0, std::memory_order_release); }

// Runs when the library is unloaded (and at process exit), never at load. A
// key left behind would make every thread that ends later call close_waker,
// which is unloaded with the library; threads still alive then keep their
// eventfd open instead.
__attribute__((destructor)) void delete_key()
{
    if (key_made.exchange(false, std::memory_order_acq_rel)) pthread_key_delete(waker_key);
}

int thread_waker()
{
    pthread_once(&key_once, make_key);
    if (!key_made.load(std::memory_order_acquire)) return -1;
    if (void *value = pthread_getspecific(waker_key)) return static_cast<int>(reinterpret_cast<intptr_t>(value)) - 1;
    int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd < 0) return -1;
    if (pthread_setspecific(waker_key, reinterpret_cast<void *>(static_cast<intptr_t>(fd) + 1)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

std::atomic_ref<tn_int32> waiter(tn_poll *p) { return std::atomic_ref<tn_int32>(p->waiter); }
std::atomic_ref<tn_uint32> wakers(tn_poll *p) { return std::atomic_ref<tn_uint32>(p->wakers); }

short events_for(tn_uint32 requested)
{
    short events = 0;
    if (requested & TN_POLL_READ) events |= POLLIN;
    if (requested & TN_POLL_WRITE) events |= POLLOUT;
    return events;
}

// Every bit poll can report maps to some result bit, so a ready descriptor
// always ends the wait instead of spinning. A hang-up reads as readable (the
// reader then sees end of stream) and otherwise as an error; a handle that is
// not open is an error.
tn_uint32 result_for(tn_uint32 requested, short revents)
{
    tn_uint32 result = 0;
    if (revents & (POLLERR | POLLNVAL)) result |= TN_POLL_ERROR;
    if (revents & POLLIN) result |= TN_POLL_READ;
    if (revents & POLLOUT) result |= TN_POLL_WRITE;
    if (revents & POLLHUP) result |= (requested & TN_POLL_READ) ? TN_POLL_READ : TN_POLL_ERROR;
    return result;
}

void drain(int fd)
{
    uint64_t count;
    while (read(fd, &count, sizeof count) < 0 && errno == EINTR) {
    }
}

constexpr tn_uint32 stack_fds = 64;

} // namespace

void attach(tn_poll *p) { waiter(p).store(thread_waker()); }

void detach(tn_poll *p)
{
    waiter(p).store(-1);
    // A cancel that read the handle before the store above is about to
    // write to it; the handle must stay this thread's until it has.
    while (wakers(p).load() != 0) sched_yield();
}

void wake(tn_poll *p)
{
    wakers(p).fetch_add(1);
    int fd = waiter(p).load();
    if (fd >= 0) {
        const uint64_t one = 1;
        while (write(fd, &one, sizeof one) < 0 && errno == EINTR) {
        }
    }
    wakers(p).fetch_sub(1);
}

bool slice(tn_poll *p, tn_pollinfo *entries, tn_uint32 n, tn_uint32 ms)
{
    for (tn_uint32 i = 0; i < n; ++i) entries[i].result = 0;
    if (n == 0 && ms == 0) {
        sched_yield();
        return true;
    }

    pollfd on_stack[stack_fds + 1];
    pollfd *fds = on_stack;
    if (n > stack_fds) {
        tn_uint32 bytes;
        if (!tn_uint32_mult(n + 1, sizeof(pollfd), &bytes)) return false;
        fds = static_cast<pollfd *>(tn_array_allocate(&p->scratch, bytes));
        if (!fds) return false;
    }

    // A handle that cannot be open is reported at once, as poll does for a
    // closed one, rather than silently skipped.
    bool invalid = false;
    for (tn_uint32 i = 0; i < n; ++i) {
        fds[i] = {entries[i].socket, events_for(entries[i].requested), 0};
        invalid |= entries[i].socket < 0;
    }
    const int self = waiter(p).load(std::memory_order_relaxed);
    nfds_t count = n;
    if (self >= 0) fds[count++] = {self, POLLIN, 0};

    // Only a wait that resumes needs the clock; a look with no time-out never does.
    const tn_int64 end = ms ? posix::monotonic_ms() + ms : 0;
    int timeout = invalid ? 0 : static_cast<int>(ms);
    for (;;) {
        int ready = ::poll(fds, count, timeout);
        if (ready < 0) {
            if (errno != EINTR) return false;
        } else {
            bool woken = self >= 0 && fds[n].revents != 0;
            if (woken) drain(self);
            if (ready - woken > 0 || invalid) {
                for (tn_uint32 i = 0; i < n; ++i) {
                    entries[i].result = entries[i].socket < 0 ? TN_POLL_ERROR
                                                              : result_for(entries[i].requested, fds[i].revents);
                }
                return true;
            }
            if (ready == 0 || canceled(p).load()) return true;
        }
        // Interrupted, or woken by a cancel that was already consumed: wait
        // out the rest of the slice.
        tn_int64 left = ms ? end - posix::monotonic_ms() : 0;
        if (left <= 0) return true;
        timeout = static_cast<int>(left);
    }
}

} // namespace tn::poll_wait
