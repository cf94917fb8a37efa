// Its own executable: the measure walks 1.4 G characters, some seconds in a
// sanitized debug build, and should not hold up the other text tests.
#include <tarnel_util/tn_utf8.h>

#include <gtest/gtest.h>

#include <algorithm>

#ifdef __linux__
#include <sys/mman.h>
#include <unistd.h>

namespace {

// Measuring 1431655766 three-byte characters comes to 2^32 + 2 bytes, which a
// 32-bit count cannot hold. The source is one 2 MiB block of U+3042 mapped
// over and over, so the test costs address space, not memory.
TEST(Utf8Measure, CountStopsInFrontOfTheCharacterItCannotHold)
{
    const tn_uint32 fitting = 0xFFFFFFFFu / 3, units = fitting + 1;
    const size_t block = size_t{1} << 21, span = (size_t{units} * 2 + block - 1) / block * block;
    const int fd = memfd_create("utf8_measure", 0);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, static_cast<off_t>(block)), 0);
    auto *page = static_cast<tn_wchar *>(mmap(nullptr, block, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    ASSERT_NE(page, MAP_FAILED);
    std::fill(page, page + block / 2, tn_wchar{0x3042});
    auto *base = static_cast<char *>(mmap(nullptr, span, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    ASSERT_NE(base, MAP_FAILED);
    for (size_t at = 0; at < span; at += block)
        ASSERT_NE(mmap(base + at, block, PROT_READ, MAP_SHARED | MAP_FIXED, fd, 0), MAP_FAILED);
    tn_uint32 left = units, bytes = 0;
    EXPECT_TRUE(tn_utf8_from_wcs(reinterpret_cast<const tn_wchar *>(base), &left, nullptr, 0, &bytes));
    EXPECT_EQ(bytes, fitting * 3) << "the count of " << units << " three-byte characters";
    EXPECT_EQ(left, units - fitting) << "characters left unmeasured";
    munmap(base, span);
    munmap(page, block);
    close(fd);
}

} // namespace
#endif
