// Allocation hooks for tests: every test runs with a counting hook and ends
// with no block outstanding; a failing hook makes the Nth allocation fail,
// and sweep_alloc_failures fails the 1st, 2nd, ... allocation of an
// operation until the operation completes without reaching the failure.
#ifndef TN_TESTS_SUPPORT_ALLOC_H
#define TN_TESTS_SUPPORT_ALLOC_H

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>

namespace tn_test {

// Installs the counting hooks (idempotent).
void install_counting_hooks();

// Blocks handed out by the hooks and not yet freed.
std::int64_t outstanding();

// Allocations made through the hooks since the last reset_counts().
std::int64_t allocations();
void reset_counts();

// From now on the nth allocation (1-based, counted from this call) returns
// null; 0 disables the failure. Only that one allocation fails.
void fail_nth_allocation(std::int64_t n);

// True once the failure armed by fail_nth_allocation has fired.
bool failure_fired();

// Runs op once for n = 1, 2, ... with the nth allocation made to fail. op
// does the whole operation, cleans up after itself, and returns whether the
// operation reported success. For every n whose failure fired, op must have
// reported failure and left nothing allocated; the sweep ends with the first
// n that op gets through without reaching its nth allocation, which must
// succeed. Returns the number of allocations that run made.
std::int64_t sweep_alloc_failures(const std::function<bool()> &op, std::int64_t limit = 10000);

// Base fixture: counting hooks on, no failure armed, and a check at the end
// that the test gave back every block it took.
class AllocTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

private:
    std::int64_t start_ = 0;
};

} // namespace tn_test

#endif
