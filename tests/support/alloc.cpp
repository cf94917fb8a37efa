#include "support/alloc.h"

#include <tarnel_util/tn_alloc.h>

#include <atomic>
#include <cstdlib>

namespace tn_test {
namespace {

std::atomic<std::int64_t> live{0};
std::atomic<std::int64_t> made{0};
std::atomic<std::int64_t> fail_at{0};
std::atomic<bool> fired{false};

void *counting_alloc(tn_uint32 size)
{
    std::int64_t nth = made.fetch_add(1) + 1;
    if (nth == fail_at.load()) {
        fired.store(true);
        return nullptr;
    }
    void *block = std::malloc(size);
    if (block) live.fetch_add(1);
    return block;
}

void counting_free(void *block)
{
    live.fetch_sub(1);
    std::free(block);
}

} // namespace

void install_counting_hooks()
{
    tn_alloc_set_alloc_handler(counting_alloc);
    tn_alloc_set_free_handler(counting_free);
}

std::int64_t outstanding() { return live.load(); }
std::int64_t allocations() { return made.load(); }

void reset_counts()
{
    made.store(0);
    fail_at.store(0);
    fired.store(false);
}

void fail_nth_allocation(std::int64_t n)
{
    made.store(0);
    fired.store(false);
    fail_at.store(n);
}

bool failure_fired() { return fired.load(); }

std::int64_t sweep_alloc_failures(const std::function<bool()> &op, std::int64_t limit)
{
    for (std::int64_t n = 1; n <= limit; ++n) {
        std::int64_t before = outstanding();
        fail_nth_allocation(n);
        bool ok = op();
        bool hit = failure_fired();
        std::int64_t used = allocations();
        fail_nth_allocation(0);
        EXPECT_EQ(outstanding(), before) << "blocks leaked when allocation " << n << " failed";
        if (!hit) {
            EXPECT_TRUE(ok) << "the operation failed with no allocation failing (" << used << " made)";
            return used;
        }
        EXPECT_FALSE(ok) << "allocation " << n << " failed but the operation reported success";
        if (ok || outstanding() != before) return used; // reported above; later runs would only repeat it
    }
    ADD_FAILURE() << "the sweep did not end within " << limit << " allocations";
    return limit;
}

void AllocTest::SetUp()
{
    install_counting_hooks();
    reset_counts();
    start_ = outstanding();
}

void AllocTest::TearDown()
{
    fail_nth_allocation(0);
    EXPECT_EQ(outstanding(), start_) << "the test left blocks allocated";
}

} // namespace tn_test
