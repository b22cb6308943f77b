// Warm slots of the shared frame buffer: with a frame-memory budget, a freed
// allocation waits whole, pages committed, for the next one of its size.
#include <gtest/gtest.h>

#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/t4mi_globals.h"
#include "platform/tnb.h"
#include "support/frame_env.h"

namespace {

constexpr uint64_t page = 4096;

// Bytes of the buffer that hold pages (the rest reads as zero and costs nothing).
uint64_t committed_bytes()
{
    struct stat st {};
    return fstat(image_tnb_buffer_fd, &st) == 0 ? uint64_t(st.st_blocks) * 512 : 0;
}

// A byte of the buffer, read without mapping it (a read through a mapping
// would commit a punched-out page again).
int byte_at(uint64_t offset)
{
    uint8_t b = 0;
    return pread(image_tnb_buffer_fd, &b, 1, off_t(offset)) == 1 ? b : -1;
}

uint8_t* bytes_of(const tnb_alloc_record& r)
{
    return static_cast<uint8_t*>(t4mi_global_access_cache_quickfetch(t4mi_acc_cache, r.buffer, r.offset, r.length, 4));
}

TEST(TnbWarm, TheMostRecentlyFreedSlotOfTheSizeIsTakenFirst)
{
    t4test::shared_buffer_session session(16 * page);
    t4test::frame_cache_budget budget(8 * page);
    tnb_alloc_record a, b, c, d;
    ASSERT_TRUE(tnb_malloc(&a, page, "V%lld", 1ll));         // page 0
    ASSERT_TRUE(tnb_malloc(&b, page - 10, "V%lld", 2ll));    // page 1 (a page reserved)
    ASSERT_TRUE(tnb_malloc(&c, 2 * page, "V%lld", 3ll));     // pages 2, 3
    EXPECT_TRUE(a.fresh);                                    // nothing was committed yet
    const uint64_t a_at = a.offset, b_at = b.offset;
    tnb_free(&a);
    tnb_free(&b);
    EXPECT_EQ(tnb_warm_bytes(), 2 * page);
    EXPECT_TRUE(tnb_warm_has(1));
    EXPECT_TRUE(tnb_warm_has(page));
    EXPECT_FALSE(tnb_warm_has(page + 1));
    // Freed slots are not listed as allocations.
    testing::internal::CaptureStderr();
    tnb_alloc_print_remaining_buffers();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "V3: 8192 bytes\n");

    // b went last, so it comes first; then a; neither is fresh.
    ASSERT_TRUE(tnb_malloc(&d, 100, "V%lld", 4ll));
    EXPECT_EQ(d.offset, b_at);
    EXPECT_FALSE(d.fresh);
    ASSERT_TRUE(tnb_malloc(&b, page, "V%lld", 5ll));
    EXPECT_EQ(b.offset, a_at);
    EXPECT_FALSE(b.fresh);
    EXPECT_EQ(tnb_warm_bytes(), 0u);
    // No warm slot left: a fresh range, first fit behind c.
    ASSERT_TRUE(tnb_malloc(&a, page, "V%lld", 6ll));
    EXPECT_EQ(a.offset, 4 * page);
    EXPECT_TRUE(a.fresh);
}

TEST(TnbWarm, OtherSizesTakeFreshRangesAndLeaveTheWarmSlotsAlone)
{
    t4test::shared_buffer_session session(16 * page);
    t4test::frame_cache_budget budget(8 * page);
    tnb_alloc_record big, small;
    ASSERT_TRUE(tnb_malloc(&big, 3 * page, "V%lld", 1ll));
    tnb_free(&big);
    ASSERT_TRUE(tnb_malloc(&small, page, "V%lld", 2ll));
    EXPECT_EQ(small.offset, 3 * page);  // not inside the warm three pages
    EXPECT_TRUE(small.fresh);
    EXPECT_EQ(tnb_warm_bytes(), 3 * page);
    ASSERT_TRUE(tnb_malloc(&big, 3 * page, "V%lld", 3ll));
    EXPECT_EQ(big.offset, 0u);
    EXPECT_FALSE(big.fresh);
}

TEST(TnbWarm, PastTheBudgetTheOldestSlotsArePunchedOut)
{
    t4test::shared_buffer_session session(16 * page);
    t4test::frame_cache_budget budget(2 * page);
    tnb_alloc_record r[3];
    for (int i = 0; i < 3; i++) {
        ASSERT_TRUE(tnb_malloc(&r[i], page, "V%lld", static_cast<long long>(i)));
        std::memset(bytes_of(r[i]), 0x40 + i, page);
    }
    EXPECT_EQ(committed_bytes(), 3 * page);
    const uint64_t first = r[0].offset, second = r[1].offset, third = r[2].offset;
    for (auto& a : r)
        tnb_free(&a);
    // Two pages stay warm with what they held; the oldest went back to the system.
    EXPECT_EQ(tnb_warm_bytes(), 2 * page);
    EXPECT_EQ(committed_bytes(), 2 * page);
    EXPECT_EQ(byte_at(first), 0);
    EXPECT_EQ(byte_at(second), 0x41);
    EXPECT_EQ(byte_at(third + page - 1), 0x42);

    tnb_warm_trim(page);
    EXPECT_EQ(tnb_warm_bytes(), page);
    EXPECT_EQ(committed_bytes(), page);
    EXPECT_EQ(byte_at(second), 0);
    EXPECT_EQ(byte_at(third), 0x42);
    tnb_warm_trim(0);
    EXPECT_EQ(committed_bytes(), 0u);
    // Punched slots went back to the free list, merged: three pages at 0.
    tnb_alloc_record all;
    ASSERT_TRUE(tnb_malloc(&all, 3 * page, "V%lld", 9ll));
    EXPECT_EQ(all.offset, 0u);
    EXPECT_TRUE(all.fresh);
}

TEST(TnbWarm, WhenNothingElseFitsTheWarmSlotsAreMergedBack)
{
    t4test::shared_buffer_session session(4 * page);
    t4test::frame_cache_budget budget(4 * page);
    tnb_alloc_record r[4];
    for (int i = 0; i < 4; i++)
        ASSERT_TRUE(tnb_malloc(&r[i], page, "V%lld", static_cast<long long>(i)));
    for (auto& a : r)
        tnb_free(&a);
    EXPECT_EQ(tnb_warm_bytes(), 4 * page);
    tnb_alloc_record two;
    ASSERT_TRUE(tnb_malloc(&two, 2 * page, "V%lld", 5ll));
    EXPECT_EQ(two.offset, 0u);
    EXPECT_TRUE(two.fresh);
    EXPECT_EQ(tnb_warm_bytes(), 0u);
}

TEST(TnbWarm, FreeallAndADropForgetTheWarmSlots)
{
    t4test::shared_buffer_session session(8 * page);
    t4test::frame_cache_budget budget(8 * page);
    tnb_alloc_record a;
    ASSERT_TRUE(tnb_malloc(&a, page, "V%lld", 1ll));
    tnb_free(&a);
    ASSERT_EQ(tnb_warm_bytes(), page);
    tnb_alloc_freeall();
    EXPECT_EQ(tnb_warm_bytes(), 0u);
    EXPECT_FALSE(tnb_warm_has(page));
    ASSERT_TRUE(tnb_malloc(&a, page, "V%lld", 2ll));
    tnb_free(&a);
    tnb_default_buffer_drop();
    EXPECT_EQ(tnb_warm_bytes(), 0u);
    EXPECT_FALSE(tnb_warm_has(page));
}

TEST(TnbWarm, WithoutABudgetFreedRangesGoStraightBack)
{
    t4test::shared_buffer_session session(8 * page);
    ASSERT_EQ(picture_cache_budget, 0u);
    tnb_alloc_record a, b;
    ASSERT_TRUE(tnb_malloc(&a, page, "V%lld", 1ll));
    EXPECT_FALSE(a.fresh);  // first fit may land on committed pages: nobody can tell
    tnb_free(&a);
    EXPECT_EQ(tnb_warm_bytes(), 0u);
    ASSERT_TRUE(tnb_malloc(&b, 2 * page, "V%lld", 2ll));
    EXPECT_EQ(b.offset, 0u);
}

} // namespace
