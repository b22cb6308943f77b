// Frames nobody holds and the frame-memory budget: the list of unheld
// cached frames, eviction before a new allocation, and the trim of a turn.
#include <gtest/gtest.h>

#include <vector>

#include "platform/frame_retention.h"
#include "platform/t4mi_globals.h"
#include "platform/tnb.h"
#include "platform/video_frame.h"
#include "support/frame_env.h"

namespace {

constexpr uint64_t page = 4096;
constexpr uint64_t frame_bytes = 2 * page;  // every frame here reserves two pages

// A cache of frames of two pages each, stored unheld.
struct frame_cache {
    t4mi_video_frame_manager cache;

    t4mi_video_frame* add(uint64_t n)
    {
        auto* f = new t4mi_video_frame(int64_t(n));
        EXPECT_TRUE(tnb_malloc(&f->tnb_alloc, frame_bytes - 100, "V%lld", static_cast<long long>(n)));
        EXPECT_TRUE(cache.store_frame(n, 0, f));
        return f;
    }
};

TEST(FrameRetention, UnheldCachedFramesAreCountedUntilHeldOrDeleted)
{
    t4test::shared_buffer_session session(32 * page);
    frame_cache c;
    t4mi_video_frame* a = c.add(1);
    t4mi_video_frame* b = c.add(2);
    EXPECT_EQ(t4mi_frame_retention_unheld_count(), 2u);
    EXPECT_EQ(t4mi_frame_retention_unheld_bytes(), 2 * frame_bytes);
    a->addref(10);
    a->addref(11);
    EXPECT_EQ(t4mi_frame_retention_unheld_count(), 1u);
    a->deref(12);
    EXPECT_EQ(t4mi_frame_retention_unheld_count(), 1u);  // still held once
    a->deref(13);
    EXPECT_EQ(t4mi_frame_retention_unheld_count(), 2u);
    c.cache.flush_unused_frames(1);  // takes frame 1 (key order)
    EXPECT_EQ(t4mi_frame_retention_unheld_count(), 1u);
    EXPECT_EQ(t4mi_frame_retention_unheld_bytes(), frame_bytes);
    EXPECT_EQ(c.cache.find_frame(2, 0), b);
    c.cache.flush_all_frames();
    EXPECT_EQ(t4mi_frame_retention_unheld_count(), 0u);
    EXPECT_EQ(t4mi_frame_retention_unheld_bytes(), 0u);

    // A frame outside any cache never counts.
    t4mi_video_frame loose(7);
    loose.addref(1);
    loose.deref(2);
    EXPECT_EQ(t4mi_frame_retention_unheld_count(), 0u);
}

TEST(FrameRetention, MakingRoomEvictsTheFrameLetGoLongestAgoAndTheNewFrameTakesItsPages)
{
    t4test::shared_buffer_session session(32 * page);
    t4test::frame_cache_budget budget(3 * frame_bytes);
    frame_cache c;
    t4mi_video_frame* f[4];
    for (uint64_t n = 0; n < 4; n++)
        f[n] = c.add(n);
    // Let go in the order 2, 0, 3; frame 1 stays held.
    for (t4mi_video_frame* g : f)
        g->addref(1);
    f[2]->deref(2);
    f[0]->deref(3);
    f[3]->deref(4);
    const uint64_t pages_of_2 = f[2]->tnb_alloc.offset;

    // Three unheld frames fill the budget: the one let go first makes room.
    t4mi_frame_retention_make_room(frame_bytes - 100);
    EXPECT_EQ(c.cache.find_frame(2, 0), nullptr);
    EXPECT_NE(c.cache.find_frame(0, 0), nullptr);
    EXPECT_NE(c.cache.find_frame(1, 0), nullptr);
    EXPECT_NE(c.cache.find_frame(3, 0), nullptr);
    EXPECT_EQ(t4mi_frame_retention_unheld_count(), 2u);
    EXPECT_TRUE(tnb_warm_has(frame_bytes));
    tnb_alloc_record next;
    ASSERT_TRUE(tnb_malloc(&next, frame_bytes - 100, "V%lld", 9ll));
    EXPECT_EQ(next.offset, pages_of_2);
    EXPECT_FALSE(next.fresh);

    // With room to spare nothing goes.
    t4mi_frame_retention_make_room(frame_bytes);
    EXPECT_EQ(t4mi_frame_retention_unheld_count(), 2u);
    tnb_free(&next);
}

TEST(FrameRetention, HeldFramesAreNeverEvicted)
{
    t4test::shared_buffer_session session(32 * page);
    t4test::frame_cache_budget budget(frame_bytes);
    frame_cache c;
    for (uint64_t n = 0; n < 3; n++)
        c.add(n)->addref(1);
    t4mi_frame_retention_make_room(frame_bytes);
    t4mi_frame_retention_trim();
    EXPECT_EQ(c.cache.size(), 3u);
    // Released, they are the trim's to take, down to the budget.
    for (uint64_t n = 0; n < 3; n++)
        c.cache.find_frame(n, 0)->deref(2);
    t4mi_frame_retention_trim();
    EXPECT_EQ(c.cache.size(), 1u);
    EXPECT_NE(c.cache.find_frame(2, 0), nullptr);  // the one let go last
    EXPECT_EQ(tnb_warm_bytes(), 0u);                // the budget is full with it
}

TEST(FrameRetention, TrimKeepsUnheldFramesAndWarmSlotsTogetherWithinTheBudget)
{
    t4test::shared_buffer_session session(32 * page);
    t4test::frame_cache_budget budget(3 * frame_bytes);
    frame_cache c;
    for (uint64_t n = 0; n < 5; n++)
        c.add(n);
    c.cache.flush_unused_frames(2);  // frames 0 and 1 become warm slots
    EXPECT_EQ(t4mi_frame_retention_unheld_bytes(), 3 * frame_bytes);
    EXPECT_EQ(tnb_warm_bytes(), 2 * frame_bytes);
    t4mi_frame_retention_trim();
    EXPECT_EQ(c.cache.size(), 3u);
    EXPECT_EQ(tnb_warm_bytes(), 0u);
    // Expiry makes warm slots of frames too; they stay while they fit.
    c.cache.flush_unused_frames(1);
    t4mi_frame_retention_trim();
    EXPECT_EQ(tnb_warm_bytes(), frame_bytes);
    EXPECT_EQ(t4mi_frame_retention_unheld_bytes(), 2 * frame_bytes);
}

TEST(FrameRetention, WithoutABudgetNothingIsEvicted)
{
    t4test::shared_buffer_session session(32 * page);
    ASSERT_EQ(picture_cache_budget, 0u);
    frame_cache c;
    for (uint64_t n = 0; n < 6; n++)
        c.add(n);
    t4mi_frame_retention_make_room(frame_bytes);
    t4mi_frame_retention_trim();
    EXPECT_EQ(c.cache.size(), 6u);
}

} // namespace
