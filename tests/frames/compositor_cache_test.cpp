// The compositor's bookkeeping: when the text is rebuilt, the drawing
// budget, the frame cache and its race, and that a frame number always
// gives the same bytes.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "fonts/font_bmp.h"
#include "frames/compose_fixture.h"
#include "frames/compositor.h"
#include "frames/reader.h"
#include "items/scroll_settings.h"
#include "platform/clock.h"
#include "platform/tnb.h"
#include "platform/video_frame.h"
#include "support/test_env.h"

namespace t4test {
namespace {

class CompositorRefresh : public compose_test {
protected:
    void TearDown() override
    {
        t4mi_clock_unpin_wall();
        compose_test::TearDown();
    }
    // Renders frame n and says whether the text was laid out again.
    bool relaid(scrolling_text_client_context* ctx, uint64_t n)
    {
        const uint64_t before = ctx->layout_generation;
        EXPECT_NE(render(ctx, n), nullptr);
        return ctx->layout_generation != before;
    }
    static constexpr int64_t NOW = 1700000000000000; // wall µs, pinned
};

TEST_F(CompositorRefresh, DeadlinesCountAsReached999000MicrosecondsEarly)
{
    t4mi_clock_pin_wall_us(NOW);
    auto* ctx = make_context(64, 16);
    scroll_settings.text = "clock";
    EXPECT_TRUE(relaid(ctx, 0)); // a new context parses on its first frame
    EXPECT_FALSE(relaid(ctx, 1));

    ctx->time_deadline = NOW + 999001; // not yet (a date deadline of 0 is none)
    EXPECT_FALSE(relaid(ctx, 2));
    EXPECT_EQ(ctx->time_deadline, NOW + 999001);
    ctx->time_deadline = NOW + 999000; // counts as reached
    EXPECT_TRUE(relaid(ctx, 3));
    EXPECT_EQ(ctx->time_deadline, 0);
    EXPECT_FALSE(ctx->text_dirty);

    ctx->date_deadline = NOW + 999000; // the date deadline alone, reached
    EXPECT_TRUE(relaid(ctx, 4));
    // Deliberate: with a date deadline set, a time deadline of 0 counts as
    // due, so such a text is rebuilt on every frame.
    ctx->date_deadline = NOW + 3600000000;
    EXPECT_TRUE(relaid(ctx, 5));
    EXPECT_EQ(ctx->date_deadline, 0);
    EXPECT_FALSE(relaid(ctx, 6)); // none set: nothing to do
}

TEST_F(CompositorRefresh, FeedReloadIsHonouredOnlyUpToFrame100)
{
    auto* ctx = make_context(64, 16);
    scroll_settings.text = "feed";
    EXPECT_TRUE(relaid(ctx, 0));
    ctx->feed_dirty = true;
    EXPECT_FALSE(relaid(ctx, 101));
    EXPECT_TRUE(ctx->feed_dirty); // still waiting
    EXPECT_FALSE(relaid(ctx, 5000));
    EXPECT_TRUE(relaid(ctx, 100));
    EXPECT_FALSE(ctx->feed_dirty);
    // A reached deadline rebuilds at any frame, and takes the feed along.
    t4mi_clock_pin_wall_us(NOW);
    ctx->feed_dirty = true;
    ctx->time_deadline = NOW;
    EXPECT_TRUE(relaid(ctx, 150));
    EXPECT_FALSE(ctx->feed_dirty);
    // text_dirty and a pending parse are honoured at any frame.
    ctx->text_dirty = true;
    EXPECT_TRUE(relaid(ctx, 7000));
    ctx->parse_pending = true;
    EXPECT_TRUE(relaid(ctx, 7001));
}

TEST_F(CompositorRefresh, AtMost4096KeysAreDrawn)
{
    // A font scale of 1/1000 gives every glyph pixel size 2 (p = 1 x 16 is
    // below 2000), where 'a' advances one pixel: 5000 keys 0, 1, 2, ...
    // Frame 0 of a 4096-wide picture walks keys 0..4095 and then runs out of
    // budget at key 4096 (x 4096, still within W + 63).
    scroll_settings.fontScale = 1;
    scroll_settings.space = 0;
    auto* ctx = make_context(4096, 16);
    lay_out(ctx, std::string(5000, 'a'));
    ASSERT_EQ(glyph(ctx, 'a')->advance, 1);
    ASSERT_EQ(ctx->placement_count, 5000u);
    ::testing::internal::CaptureStderr();
    t4mi_video_frame* frame = render(ctx, 0);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "Out of patience\n");
    // The partly drawn frame is stored and served.
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(ctx->reader->frame_manager.find_frame(0, 0), frame);

    // 4000 wide: keys 0..3999, then the next repetition up to x 4063 (key
    // 63): 4064 keys, within the budget.
    auto* narrower = make_context(4000, 16);
    lay_out(narrower, std::string(4000, 'a'));
    ::testing::internal::CaptureStderr();
    EXPECT_NE(render(narrower, 0), nullptr);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

// A reader whose making-room step meets another request that stored the
// same frame meanwhile.
class racing_reader : public my_AVIVideoRandomReader {
public:
    void release_cache() override
    {
        rival = new t4mi_video_frame(int64_t(race_frame));
        rival->refcount = 1; // held by its client, so not flushed below
        EXPECT_TRUE(frame_manager.store_frame(race_frame, 0, rival));
        blocker->refcount = 0; // the frame that filled the buffer goes
        frame_manager.flush_unused_frames(FLUSH_EVERYTHING);
    }
    uint64_t race_frame = 0;
    t4mi_video_frame* blocker = nullptr;
    t4mi_video_frame* rival = nullptr;
};

TEST_F(CompositorRefresh, AFrameStoredMeanwhileWins)
{
    // 64 x 16: 4096 bytes of planes + 1024, two pages; the buffer holds one frame.
    buffers.reset();
    buffers = std::make_unique<shared_buffer_session>(2 * tnb_alloc_granularity());
    ASSERT_TRUE(buffers->ready());
    auto* ctx = make_context(64, 16);
    auto* reader = new racing_reader;
    reader->frame_width = 64;
    reader->frame_height = 16;
    reader->time_scale = ctx->time_scale;
    reader->frame_duration = ctx->frame_duration;
    delete ctx->reader;
    ctx->reader = reader;
    lay_out(ctx, "race");
    reader->blocker = render(ctx, 1);
    ASSERT_NE(reader->blocker, nullptr);
    reader->blocker->refcount = 1;
    reader->race_frame = 2;

    ::testing::internal::CaptureStderr();
    t4mi_video_frame* got = render(ctx, 2);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "WARNING: load_frame() for frame already stored\n");
    ASSERT_NE(reader->rival, nullptr);
    EXPECT_EQ(got, reader->rival);
    EXPECT_EQ(reader->frame_manager.find_frame(2, 0), reader->rival);
    // The new frame was released: the rival has no allocation, the blocker went.
    EXPECT_EQ(tnb_alloc_live_count(), 0u);
    reader->rival->refcount = 0;
}

TEST_F(CompositorRefresh, CacheHitIsTheSameFrame)
{
    auto* ctx = make_context(64, 16);
    lay_out(ctx, "hit");
    t4mi_video_frame* first = render(ctx, 9);
    EXPECT_EQ(render(ctx, 9), first);
    EXPECT_NE(load_frame(ctx->reader, 9, 1, ctx, 0), first); // another variant is another frame
}

TEST_F(CompositorRefresh, TheSameFrameNumberGivesTheSameBytes)
{
    // A ticker with a blurred shadow, at a frame where text fills the picture.
    scroll_settings.shadowColor = {0, 0, 0, 127};
    scroll_settings.shadowOpacity = 127;
    scroll_settings.shadowBlur = 0.05;
    scroll_settings.shadowX = 0.03;
    scroll_settings.shadowY = 0.03;
    const std::string text = "Same frame, same bytes: AVA Wy 0123456789 \xe2\x9c\xa6 the end";
    auto* ctx = make_context(480, 60, 25, 1);
    lay_out(ctx, text);
    const uint64_t n = 40;
    const frame_pixels once = render_pixels(ctx, n);
    ctx->reader->frame_manager.flush_unused_frames(FLUSH_EVERYTHING);
    EXPECT_EQ(render_pixels(ctx, n), once);
    // A fresh context (fresh glyph and shadow caches) in this process.
    auto* fresh = make_context(480, 60, 25, 1);
    lay_out(fresh, text);
    EXPECT_EQ(render_pixels(fresh, n), once);
    // And in another process.
    const process_result child = run_in_child([&] {
        auto* other = make_context(480, 60, 25, 1);
        lay_out(other, text);
        frame_pixels p;
        if (copy_pixels(render(other, n), &p))
            std::printf("%016llx\n", (unsigned long long)pixels_checksum(p));
    });
    char expected[32];
    std::snprintf(expected, sizeof expected, "%016llx\n", (unsigned long long)pixels_checksum(once));
    EXPECT_EQ(child.out, expected);
}

} // namespace
} // namespace t4test
