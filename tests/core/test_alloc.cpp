#include <tarnel_util/tn_alloc.h>
#include "support/alloc.h"
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {
std::vector<tn_uint32> asked; // the sizes the handler was asked for
std::vector<void *> freed;

// Handlers that log every call, refuse 1000 bytes or more, and fill blocks with 0x5A so that copies show.
struct Alloc : tn_test::AllocTest {
    void SetUp() override
    {
        AllocTest::SetUp(), asked.clear(), freed.clear();
        tn_alloc_set_alloc_handler([](tn_uint32 n) -> void * {
            return asked.push_back(n), n >= 1000 ? nullptr : std::memset(std::malloc(n), 0x5A, n);
        });
        tn_alloc_set_free_handler([](void *block) { freed.push_back(block), std::free(block); });
    }
    void TearDown() override { tn_test::install_counting_hooks(), AllocTest::TearDown(); }
};

// Size 0 asks for one byte; blocks never shrink, and then no handler is called; a failed growth keeps the
// old block whole; growth copies old size bytes only and frees the old block, if any; null is never freed.
TEST_F(Alloc, HandlersSeeExactlyTheCallsTheContractImplies)
{
    void *one = tn_alloc(0), *fresh = nullptr;
    auto *cleared = static_cast<tn_uchar *>(tn_alloc_zero(40)), *block = static_cast<tn_uchar *>(tn_alloc(8));
    ASSERT_TRUE(one && cleared && block);
    EXPECT_EQ(std::vector<tn_uchar>(cleared, cleared + 40), std::vector<tn_uchar>(40, 0));
    std::memcpy(block, "12345678", 8);
    EXPECT_TRUE(tn_alloc_re(block, 8, 8) == block && tn_alloc_re(block, 8, 3) == block && !tn_alloc_re(nullptr, 0, 0));
    EXPECT_TRUE(!tn_alloc_re(block, 8, 1000) && std::memcmp(block, "12345678", 8) == 0) << "failed growth";
    auto *grown = static_cast<tn_uchar *>(tn_alloc_re(block, 5, 64));
    ASSERT_TRUE(grown && (fresh = tn_alloc_re(nullptr, 0, 4)));
    EXPECT_EQ(std::memcmp(grown, "12345\x5A\x5A\x5A", 8), 0);
    tn_alloc_free(one), tn_alloc_free(cleared), tn_alloc_free(nullptr), tn_alloc_free(grown), tn_alloc_free(fresh);
    EXPECT_EQ(asked, (std::vector<tn_uint32>{1, 40, 8, 1000, 64, 4}));
    EXPECT_EQ(freed, (std::vector<void *>{block, one, cleared, grown, fresh}));
}
} // namespace
