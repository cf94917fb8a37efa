#include <tarnel_util/tn_alloc.h>

#include "tn_test_alloc.h"

#include <cstdlib>
#include <cstring>

namespace {

// Hooks of the test's own that remember their last call and hand out blocks
// full of 0x5A, so that a clear done by the library is visible.
tn_uint32 asked_size;
void *freed_block;

void *dirty_alloc(tn_uint32 size)
{
    asked_size = size;
    void *block = std::malloc(size);
    if (block) std::memset(block, 0x5A, size);
    return block;
}

void recording_free(void *block)
{
    freed_block = block;
    std::free(block);
}

class Alloc : public tn_test::AllocTest {
protected:
    void use_own_hooks()
    {
        tn_alloc_set_alloc_handler(dirty_alloc);
        tn_alloc_set_free_handler(recording_free);
    }
    void TearDown() override
    {
        tn_test::install_counting_hooks();
        AllocTest::TearDown();
    }
};

TEST_F(Alloc, HostHandlersAreUsedAndSizeZeroAsksForOneByte)
{
    use_own_hooks();
    void *block = tn_alloc(0);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(asked_size, 1u);
    tn_alloc_free(block);
    EXPECT_EQ(freed_block, block);

    auto *cleared = static_cast<tn_uchar *>(tn_alloc_zero(40));
    ASSERT_NE(cleared, nullptr);
    EXPECT_EQ(asked_size, 40u);
    for (int i = 0; i < 40; ++i) ASSERT_EQ(cleared[i], 0) << "byte " << i;
    tn_alloc_free(cleared);

    freed_block = &asked_size;
    tn_alloc_free(nullptr); // ignored: the handler never sees null
    EXPECT_EQ(freed_block, &asked_size);
}

TEST_F(Alloc, ReNeverShrinksAndCallsNoHandlerThen)
{
    void *block = tn_alloc(16);
    tn_test::reset_counts();
    EXPECT_EQ(tn_alloc_re(block, 16, 16), block);
    EXPECT_EQ(tn_alloc_re(block, 16, 3), block);
    EXPECT_EQ(tn_alloc_re(nullptr, 0, 0), nullptr);
    EXPECT_EQ(tn_test::allocations(), 0);
    EXPECT_EQ(tn_test::outstanding(), 1);
    tn_alloc_free(block);
}

TEST_F(Alloc, ReKeepsTheOldBlockIntactWhenAllocationFails)
{
    auto *block = static_cast<tn_uchar *>(tn_alloc(8));
    std::memcpy(block, "12345678", 8);
    tn_test::fail_nth_allocation(1);
    EXPECT_EQ(tn_alloc_re(block, 8, 64), nullptr);
    EXPECT_TRUE(tn_test::failure_fired());
    EXPECT_EQ(std::memcmp(block, "12345678", 8), 0); // not freed, not touched
    tn_alloc_free(block);
}

TEST_F(Alloc, ReCopiesOldSizeBytesAndFreesTheOldBlock)
{
    use_own_hooks();
    auto *block = static_cast<tn_uchar *>(tn_alloc(8));
    std::memcpy(block, "12345678", 8);
    auto *grown = static_cast<tn_uchar *>(tn_alloc_re(block, 5, 64));
    ASSERT_NE(grown, nullptr);
    EXPECT_EQ(freed_block, block);
    EXPECT_EQ(std::memcmp(grown, "12345\x5A\x5A\x5A", 8), 0); // the rest is the handler's
    tn_alloc_free(grown);

    void *fresh = tn_alloc_re(nullptr, 0, 4); // growing nothing frees nothing
    EXPECT_NE(fresh, nullptr);
    EXPECT_EQ(freed_block, grown);
    tn_alloc_free(fresh);
}

} // namespace
