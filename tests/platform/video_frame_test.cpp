// Frames own their allocation; the frame manager owns its frames.
#include <gtest/gtest.h>

#include <vector>

#include "platform/tnb.h"
#include "platform/video_frame.h"
#include "support/frame_env.h"

namespace {

// Notes its deletion, so tests can see which frames a flush took.
class noted_frame : public t4mi_video_frame {
public:
    noted_frame(int64_t n, std::vector<int64_t>* deleted_) : t4mi_video_frame(n), deleted(deleted_) {}
    ~noted_frame() override { deleted->push_back(frame_number); }
    std::vector<int64_t>* deleted;
};

TEST(VideoFrame, StartsEmptyAndFreesItsAllocation)
{
    t4test::shared_buffer_session session(8 * 4096);
    auto* f = new t4mi_video_frame(12);
    EXPECT_EQ(f->frame_number, 12);
    EXPECT_EQ(f->tnb_alloc.length, 0u);
    EXPECT_EQ(f->planar_yuv, 0);
    EXPECT_EQ(f->refcount, 0);
    EXPECT_EQ(f->aspect[0], 0);
    EXPECT_EQ(f->aspect[1], 0);
    ASSERT_TRUE(tnb_malloc(&f->tnb_alloc, 100, "V%lld", 12ll));
    EXPECT_EQ(tnb_alloc_live_count(), 1u);
    delete f;
    EXPECT_EQ(tnb_alloc_live_count(), 0u);

    t4mi_video_frame g(13);
    ASSERT_TRUE(tnb_malloc(&g.tnb_alloc, 100, "V%lld", 13ll));
    g.release_allocation();
    EXPECT_EQ(g.tnb_alloc.length, 0u);
    EXPECT_EQ(tnb_alloc_live_count(), 0u);
}

TEST(VideoFrame, ReferencesStampTheLastUse)
{
    t4mi_video_frame f(1);
    f.addref(500);
    f.addref(600);
    EXPECT_EQ(f.refcount, 2);
    EXPECT_EQ(f.last_use, 600u);
    f.deref(700);
    f.deref(800);
    f.deref(900);  // never below zero
    EXPECT_EQ(f.refcount, 0);
    EXPECT_EQ(f.last_use, 900u);
}

TEST(VideoFrameManager, KeysOrderByFrameNumberThenVariant)
{
    std::vector<int64_t> deleted;
    t4mi_video_frame_manager m;
    EXPECT_TRUE(m.store_frame(6, 0, new noted_frame(60, &deleted)));
    EXPECT_TRUE(m.store_frame(5, 2, new noted_frame(52, &deleted)));
    EXPECT_TRUE(m.store_frame(5, 1, new noted_frame(51, &deleted)));
    std::vector<int64_t> order;
    for (const auto& [key, frame] : m.all())
        order.push_back(frame->frame_number);
    EXPECT_EQ(order, (std::vector<int64_t>{51, 52, 60}));

    EXPECT_EQ(m.find_frame(5, 2)->frame_number, 52);
    EXPECT_EQ(m.find_frame(5, 3), nullptr);
    t4mi_video_frame spare(99);
    EXPECT_FALSE(m.store_frame(5, 2, &spare));  // taken: the caller keeps its frame
    EXPECT_EQ(m.find_frame(5, 2)->frame_number, 52);
    EXPECT_EQ(m.size(), 3u);
}

TEST(VideoFrameManager, ExpiresUnheldFramesLastUsedAtOrBeforeTheLimit)
{
    std::vector<int64_t> deleted;
    t4mi_video_frame_manager m;
    auto add = [&](uint64_t n, uint64_t last_use, int64_t refs) {
        auto* f = new noted_frame(int64_t(n), &deleted);
        f->last_use = last_use;
        f->refcount = refs;
        m.store_frame(n, 0, f);
    };
    add(1, 100, 0);
    add(2, 200, 0);  // exactly at the limit: goes
    add(3, 201, 0);  // newer: stays
    add(4, 50, 1);   // held: stays however old
    EXPECT_EQ(m.expire_frames(200), 2u);
    EXPECT_EQ(deleted, (std::vector<int64_t>{1, 2}));
    EXPECT_EQ(m.size(), 2u);
    EXPECT_NE(m.find_frame(3, 0), nullptr);
    EXPECT_NE(m.find_frame(4, 0), nullptr);
}

TEST(VideoFrameManager, FlushUnusedTakesUnheldFramesUpToTheLimit)
{
    std::vector<int64_t> deleted;
    t4mi_video_frame_manager m;
    for (int64_t n = 1; n <= 4; ++n) {
        auto* f = new noted_frame(n, &deleted);
        f->refcount = n == 2 ? 1 : 0;
        m.store_frame(uint64_t(n), 0, f);
    }
    EXPECT_EQ(m.flush_unused_frames(1), 1u);
    EXPECT_EQ(deleted, (std::vector<int64_t>{1}));
    EXPECT_EQ(m.flush_unused_frames(FLUSH_EVERYTHING), 2u);
    EXPECT_EQ(deleted, (std::vector<int64_t>{1, 3, 4}));
    EXPECT_EQ(m.size(), 1u);
    EXPECT_EQ(m.flush_all_frames(), 1u);  // held ones too
    EXPECT_EQ(deleted, (std::vector<int64_t>{1, 3, 4, 2}));
    EXPECT_EQ(m.size(), 0u);
}

TEST(VideoFrameManager, DestructionDeletesWhatIsLeft)
{
    std::vector<int64_t> deleted;
    {
        t4mi_video_frame_manager m;
        m.store_frame(8, 0, new noted_frame(8, &deleted));
    }
    EXPECT_EQ(deleted, (std::vector<int64_t>{8}));
}

} // namespace
