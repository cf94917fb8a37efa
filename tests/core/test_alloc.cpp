#include <tarnel_util/tn_alloc.h>
#include "support/alloc.h"
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {
std::vector<tn_uint32> asked; // the sizes the handler was asked for
std::vector<void *> freed;

// Handlers that log every call, refuse 1000 bytes or more, and fill blocks with 0x5A so that copies show; the
// counting hooks come back at the end.
struct Alloc : tn_test::AllocTest {
    void SetUp() override
    {
        AllocTest::SetUp();
        asked.clear();
        freed.clear();
        tn_alloc_set_alloc_handler([](tn_uint32 n) -> void * {
            asked.push_back(n);
            return n >= 1000 ? nullptr : std::memset(std::malloc(n), 0x5A, n);
        });
        tn_alloc_set_free_handler([](void *block) { freed.push_back(block); std::free(block); });
    }
    void TearDown() override { tn_test::install_counting_hooks(); AllocTest::TearDown(); }
};

TEST_F(Alloc, SizeZeroAsksForOneByteAndZeroClears)
{
    void *one = tn_alloc(0);
    auto *cleared = static_cast<tn_uchar *>(tn_alloc_zero(40));
    ASSERT_NE(one, nullptr);
    ASSERT_NE(cleared, nullptr);
    EXPECT_EQ(std::vector<tn_uchar>(cleared, cleared + 40), std::vector<tn_uchar>(40, 0));
    tn_alloc_free(one);
    tn_alloc_free(cleared);
    tn_alloc_free(nullptr); // never reaches the handler
    EXPECT_EQ(asked, (std::vector<tn_uint32>{1, 40}));
    EXPECT_EQ(freed, (std::vector<void *>{one, cleared}));
}

// Blocks never shrink, and then no handler is called; a failed growth keeps the old block whole; growth copies
// the old size's bytes only and frees the old block, if any.
TEST_F(Alloc, ReGrowsOnlyAndKeepsTheBlockOnFailure)
{
    auto *block = static_cast<tn_uchar *>(tn_alloc(8));
    ASSERT_NE(block, nullptr);
    std::memcpy(block, "12345678", 8);
    EXPECT_EQ(tn_alloc_re(block, 8, 8), block);
    EXPECT_EQ(tn_alloc_re(block, 8, 3), block);
    EXPECT_EQ(tn_alloc_re(nullptr, 0, 0), nullptr);
    EXPECT_EQ(tn_alloc_re(block, 8, 1000), nullptr);
    EXPECT_EQ(std::memcmp(block, "12345678", 8), 0) << "a failed growth touched the block";
    EXPECT_TRUE(freed.empty()) << "a failed growth freed the block";
    auto *grown = static_cast<tn_uchar *>(tn_alloc_re(block, 5, 64));
    ASSERT_NE(grown, nullptr);
    EXPECT_EQ(std::memcmp(grown, "12345\x5A\x5A\x5A", 8), 0) << "copied more than the old size";
    void *fresh = tn_alloc_re(nullptr, 0, 4);
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(asked, (std::vector<tn_uint32>{8, 1000, 64, 4}));
    EXPECT_EQ(freed, (std::vector<void *>{block})) << "null is never freed";
    tn_alloc_free(grown);
    tn_alloc_free(fresh);
}
} // namespace
