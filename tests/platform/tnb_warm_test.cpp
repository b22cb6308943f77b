// Warm slots of the shared frame buffer: with a frame-memory budget, a freed
// allocation waits whole, pages committed, for the next one of its size;
// slots made ahead for the frames of a new client.
#include <gtest/gtest.h>

#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/frame_retention.h"
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

TEST(TnbWarm, ASlotMadeAheadIsFreshToItsTakerUntilMarkedCommitted)
{
    t4test::shared_buffer_session session(16 * page);
    t4test::frame_cache_budget budget(8 * page);
    const uint64_t h = tnb_warm_reserve(2 * page - 10);
    ASSERT_NE(h, 0u);
    uint64_t at = 1, bytes = 0;
    ASSERT_TRUE(tnb_warm_reserved_at(h, &at, &bytes));
    EXPECT_EQ(at, 0u);
    EXPECT_EQ(bytes, 2 * page);
    EXPECT_EQ(tnb_warm_bytes(), 2 * page);
    EXPECT_TRUE(tnb_warm_has(2 * page));
    tnb_alloc_record a, b;
    ASSERT_TRUE(tnb_malloc(&a, 2 * page, "V%lld", 1ll));
    EXPECT_EQ(a.offset, 0u);
    EXPECT_TRUE(a.fresh);  // its pages were never faulted in
    EXPECT_FALSE(tnb_warm_reserved_at(h, &at, &bytes));  // an allocation now, no slot
    tnb_warm_mark_committed(h);                           // and so this does nothing
    tnb_warm_discard(h);
    EXPECT_TRUE(tnb_alloc_is_live(&a));

    const uint64_t h2 = tnb_warm_reserve(2 * page);
    ASSERT_TRUE(tnb_warm_reserved_at(h2, &at, &bytes));
    EXPECT_EQ(at, 2 * page);  // first fit behind a
    tnb_warm_mark_committed(h2);
    ASSERT_TRUE(tnb_malloc(&b, 2 * page, "V%lld", 2ll));
    EXPECT_EQ(b.offset, 2 * page);
    EXPECT_FALSE(b.fresh);
}

TEST(TnbWarm, ACommittedSlotIsTakenBeforeOneStillBeingMadeAhead)
{
    t4test::shared_buffer_session session(16 * page);
    t4test::frame_cache_budget budget(8 * page);
    tnb_alloc_record a, b;
    ASSERT_TRUE(tnb_malloc(&a, page, "V%lld", 1ll));
    const uint64_t a_at = a.offset;
    tnb_free(&a);                             // committed, freed first
    const uint64_t h = tnb_warm_reserve(page);  // newer, not committed
    ASSERT_NE(h, 0u);
    ASSERT_TRUE(tnb_malloc(&b, page, "V%lld", 2ll));
    EXPECT_EQ(b.offset, a_at);
    EXPECT_FALSE(b.fresh);
    ASSERT_TRUE(tnb_malloc(&a, page, "V%lld", 3ll));  // then the other
    EXPECT_TRUE(a.fresh);
    uint64_t at = 0, bytes = 0;
    EXPECT_FALSE(tnb_warm_reserved_at(h, &at, &bytes));
}

TEST(TnbWarm, MakingASlotAheadNeedsABudgetAndAFreeRangeAndNeverPunches)
{
    {
        t4test::shared_buffer_session session(4 * page);
        EXPECT_EQ(tnb_warm_reserve(page), 0u);  // no budget
    }
    t4test::shared_buffer_session session(4 * page);
    t4test::frame_cache_budget budget(4 * page);
    tnb_alloc_record a;
    ASSERT_TRUE(tnb_malloc(&a, 2 * page, "V%lld", 1ll));
    tnb_free(&a);  // warm
    const uint64_t h = tnb_warm_reserve(2 * page);
    ASSERT_NE(h, 0u);
    EXPECT_EQ(tnb_warm_reserve(page), 0u);  // nothing free: the warm slots stay
    EXPECT_EQ(tnb_warm_bytes(), 4 * page);
    // Discarding gives the range back, and its pages with it.
    std::memset(t4mi_global_access_cache_quickfetch(t4mi_acc_cache, image_tnb_buffer, 2 * page, 2 * page, 4), 1,
                2 * page);
    tnb_warm_discard(h);
    EXPECT_EQ(tnb_warm_bytes(), 2 * page);
    EXPECT_EQ(byte_at(2 * page), 0);
    EXPECT_NE(tnb_warm_reserve(page), 0u);
}

TEST(TnbWarm, TheFirstFrameOfASizeWarmsTheBudgetsWorthOfSlotsAhead)
{
    t4test::shared_buffer_session session(32 * page);
    t4test::frame_cache_budget budget(6 * page);
    t4mi_frame_retention_make_room(2 * page - 100);
    // Three slots of two pages, committed, and nothing evicted or allocated.
    EXPECT_EQ(tnb_warm_bytes(), 6 * page);
    EXPECT_EQ(committed_bytes(), 6 * page);
    EXPECT_EQ(tnb_alloc_live_count(), 0u);
    EXPECT_FALSE(t4mi_frame_retention_prewarm_due());
    tnb_alloc_record f[3];
    for (auto& r : f) {
        ASSERT_TRUE(tnb_malloc(&r, 2 * page - 100, "V%lld", 1ll));
        EXPECT_FALSE(r.fresh);
    }
    // Held frames count against making more: each will be let go.
    EXPECT_FALSE(t4mi_frame_retention_prewarm_due());
    tnb_free(&f[0]);
    tnb_free(&f[1]);
    tnb_free(&f[2]);
    EXPECT_EQ(committed_bytes(), 6 * page);
    EXPECT_FALSE(t4mi_frame_retention_prewarm(page));
}

TEST(TnbWarm, WarmingAheadGoesAPieceAtATimeUpToTheBudget)
{
    t4test::shared_buffer_session session(32 * page);
    t4test::frame_cache_budget budget(5 * page);
    tnb_alloc_record first;
    // A frame of another size first, so that this size is new after it.
    t4mi_frame_retention_make_room(page);
    tnb_warm_trim(0);
    ASSERT_TRUE(tnb_malloc(&first, 2 * page, "V%lld", 1ll));
    t4mi_frame_retention_make_room(2 * page);  // new size: warms ahead at once
    EXPECT_EQ(tnb_warm_bytes(), 2 * page);      // live 2 + warm 2 + 2 more would pass 5
    tnb_free(&first);
    tnb_warm_trim(0);
    ASSERT_EQ(committed_bytes(), 0u);
    // In idle time: a page a call, the slot usable as fresh meanwhile.
    ASSERT_TRUE(t4mi_frame_retention_prewarm_due());
    EXPECT_TRUE(t4mi_frame_retention_prewarm(page));
    EXPECT_EQ(committed_bytes(), page);
    EXPECT_EQ(tnb_warm_bytes(), 2 * page);
    EXPECT_TRUE(t4mi_frame_retention_prewarm(page));
    EXPECT_TRUE(t4mi_frame_retention_prewarm(page));
    EXPECT_TRUE(t4mi_frame_retention_prewarm(page));
    EXPECT_EQ(committed_bytes(), 4 * page);
    EXPECT_FALSE(t4mi_frame_retention_prewarm_due());  // a third slot would pass 5 pages
    EXPECT_FALSE(t4mi_frame_retention_prewarm(page));
    tnb_alloc_record a;
    ASSERT_TRUE(tnb_malloc(&a, 2 * page, "V%lld", 2ll));
    EXPECT_FALSE(a.fresh);
}

TEST(TnbWarm, NothingIsWarmedAheadWhileFramesOfAnotherSizeAreAbout)
{
    t4test::shared_buffer_session session(32 * page);
    t4test::frame_cache_budget budget(8 * page);
    tnb_alloc_record other;
    ASSERT_TRUE(tnb_malloc(&other, page, "V%lld", 1ll));
    EXPECT_FALSE(tnb_all_of_size(2 * page));
    EXPECT_TRUE(tnb_all_of_size(page));
    t4mi_frame_retention_make_room(2 * page);  // a new size, but a frame of another is live
    EXPECT_EQ(tnb_warm_bytes(), 0u);
    EXPECT_FALSE(t4mi_frame_retention_prewarm_due());
    tnb_free(&other);  // a warm slot of the other size now
    EXPECT_FALSE(t4mi_frame_retention_prewarm_due());
    tnb_warm_trim(0);
    EXPECT_TRUE(t4mi_frame_retention_prewarm_due());
}

} // namespace
