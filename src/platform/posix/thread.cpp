#include <tarnel_util/tn_alloc.h>
#include <tarnel_util/tn_thread.h>

#include <cerrno>
#include <limits.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

struct start_record {
    tn_thread_function function;
    void *argument;
    // The creator's rendezvous: the new thread reports its kernel id, which
    // priorities need and a pthread_t does not give, before it runs the body.
    tn_int32 *tid_out;
    sem_t *started;
};

void *trampoline(void *raw)
{
    auto *start = static_cast<start_record *>(raw);
    tn_thread_function function = start->function;
    void *argument = start->argument;
    *start->tid_out = static_cast<tn_int32>(gettid());
    sem_post(start->started); // the creator's slots are not touched after this
    // Freed before the body: a body that ends with pthread_exit or is
    // cancelled never comes back here.
    tn_alloc_free(start);
    function(argument);
    return nullptr;
}

constexpr int niceness_of_level[8] = {0, -20, -10, -5, 0, 5, 10, 19};

tn_uint32 level_of_number(tn_int32 number)
{
    if (number >= 8 && number <= 10) return 1;
    if (number >= 5 && number <= 7) return 2;
    if (number >= 2 && number <= 4) return 3;
    if (number >= -4 && number <= -2) return 5;
    if (number >= -7 && number <= -5) return 6;
    if (number >= -10 && number <= -8) return 7;
    return 4;
}

tn_bool set_level(tn_thread *thread, tn_uint32 level)
{
    return setpriority(PRIO_PROCESS, static_cast<id_t>(thread->tid), niceness_of_level[level]) == 0;
}

size_t page_rounded(size_t size)
{
    long page = sysconf(_SC_PAGESIZE);
    size_t unit = page > 0 ? static_cast<size_t>(page) : 4096;
    const size_t minimum = static_cast<size_t>(PTHREAD_STACK_MIN);
    if (size < minimum) size = minimum;
    return (size + unit - 1) / unit * unit;
}

} // namespace

tn_bool tn_thread_init(tn_thread *thread)
{
    thread->handle = 0;
    thread->tid = 0;
    return 1;
}

tn_bool tn_thread_create(tn_thread *thread, tn_uint32 stack_size, tn_thread_function function,
                         void *argument)
{
    tn_thread_init(thread);
    auto *start = static_cast<start_record *>(tn_alloc(sizeof(start_record)));
    if (!start) return 0;
    sem_t started;
    tn_int32 tid = 0;
    *start = {function, argument, &tid, &started};
    sem_init(&started, 0, 0);

    pthread_attr_t attr;
    pthread_attr_init(&attr);
    bool ok = !stack_size || pthread_attr_setstacksize(&attr, page_rounded(stack_size)) == 0;
    pthread_t handle{};
    ok = ok && pthread_create(&handle, &attr, trampoline, start) == 0;
    pthread_attr_destroy(&attr);
    if (!ok) {
        sem_destroy(&started);
        tn_alloc_free(start);
        return 0;
    }
    while (sem_wait(&started) != 0 && errno == EINTR) {
    }
    sem_destroy(&started);
    thread->handle = static_cast<tn_uintptr>(handle);
    thread->tid = tid;
    return 1;
}

void tn_thread_detach(tn_thread *thread)
{
    if (thread->handle) pthread_detach(static_cast<pthread_t>(thread->handle));
}

tn_bool tn_thread_join(tn_thread *thread)
{
    if (!thread->handle) return 0;
    return pthread_join(static_cast<pthread_t>(thread->handle), nullptr) == 0;
}

tn_thread tn_thread_self(void)
{
    return {static_cast<tn_uintptr>(pthread_self()), static_cast<tn_int32>(gettid())};
}

tn_bool tn_thread_set_priority(tn_thread *thread, tn_uint32 level)
{
    if (!thread->handle || level < 1 || level > 7) return 0;
    return set_level(thread, level);
}

tn_bool tn_thread_set_priority_numrical(tn_thread *thread, tn_int32 number)
{
    if (!thread->handle) return 0;
    return set_level(thread, level_of_number(number));
}

tn_bool tn_thread_get_priority(tn_thread *thread, tn_uint32 *out_level)
{
    if (!thread->handle) return 0;
    errno = 0;
    int nice = getpriority(PRIO_PROCESS, static_cast<id_t>(thread->tid));
    if (nice == -1 && errno) return 0;
    *out_level = 0;
    for (tn_uint32 level = 1; level <= 7; ++level)
        if (niceness_of_level[level] == nice) *out_level = level;
    return 1;
}

tn_bool tn_thread_is_nptl(void) { return 0; }

void tn_thread_yield(void) { sched_yield(); }
