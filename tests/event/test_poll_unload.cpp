// A thread that has waited in a poll keeps a wake handle that the library closes when the thread ends. The library
// may be unloaded before such a thread ends, and must then leave nothing of its own to run at that end. This
// executable does not link the library, so that dlclose unloads it.
#include <tarnel_util/tn_poll.h>
#include <gtest/gtest.h>
#include <dlfcn.h>
#include <cstdlib>
#include <future>
#include <thread>

namespace {
template <class F> F *symbol(void *library, const char *name) { return reinterpret_cast<F *>(dlsym(library, name)); }

// The exit code tells what went wrong; a crash at the thread's end is what the test is about.
int wait_once_then_outlive_the_library()
{
    void *library = dlopen(TN_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    if (!library) return 1;
    auto create = symbol<decltype(tn_poll_create)>(library, "tn_poll_create");
    auto check = symbol<decltype(tn_poll_check)>(library, "tn_poll_check");
    auto free = symbol<decltype(tn_poll_free)>(library, "tn_poll_free");
    if (!create || !check || !free) return 2;
    std::promise<void> waited, unloaded;
    std::thread waiter([&] {
        tn_poll poll;
        tn_uint32 count;
        create(&poll);
        check(&poll, 0, &count);
        free(&poll);
        waited.set_value();
        unloaded.get_future().wait();
    });
    waited.get_future().wait();
    const bool closed = dlclose(library) == 0 && !dlopen(TN_LIBRARY_PATH, RTLD_NOW | RTLD_NOLOAD);
    unloaded.set_value();
    waiter.join();
    return closed ? 0 : 3;
}

TEST(PollUnload, AThreadThatWaitedMayEndAfterTheLibraryIsUnloaded)
{
    EXPECT_EXIT(std::exit(wait_once_then_outlive_the_library()), testing::ExitedWithCode(0), "");
}
} // namespace
