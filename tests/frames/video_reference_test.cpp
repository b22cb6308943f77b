// The program's frame references: finding, rendering and sharing frames for
// their context, and what a context's destruction does with them.
#include <gtest/gtest.h>

#include "frames/client_context.h"
#include "frames/reader.h"
#include "frames/video_reference.h"
#include "items/scroll_settings.h"
#include "platform/client_context.h"
#include "platform/t4mi_globals.h"
#include "platform/tnb.h"
#include "platform/video_frame.h"
#include "support/frame_env.h"
#include "support/program_env.h"

namespace {

class VideoReference : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(fonts.ready());
        ASSERT_TRUE(buffers.ready());
        scroll_settings = scroll_settings_record{};
        t4mi_client_contexts.set_context_factory(
            [](uint64_t id) -> t4mi_client_context* { return new scrolling_text_client_context(id); });
        ctx = static_cast<scrolling_text_client_context*>(t4mi_client_contexts.create());
        t4mi_client_settings s;
        s.width = 64;
        s.height = 16;
        ctx->apply_client_settings(s);
    }
    void TearDown() override
    {
        t4mi_client_contexts.destroy_all();
        t4mi_client_contexts.set_context_factory(nullptr);
        scroll_settings = scroll_settings_record{};
    }

    // Runs one request as the serving side does; the reference holds its
    // frame on success and is returned (null on failure).
    std::unique_ptr<scrolling_text_video_reference> request(uint64_t n, uint32_t variant = 0)
    {
        auto ref = std::make_unique<scrolling_text_video_reference>(ctx->id, n, variant);
        t4mi_frame_request req;
        req.frame_number = n;
        req.variant = variant;
        t4mi_frame_location loc;
        if (ref->examine_request(req, nullptr) != 0 || ref->load_video_and_return_descriptor(req, nullptr, &loc) != 0)
            return nullptr;
        last = loc;
        return ref;
    }

    t4test::program_fonts fonts;
    t4test::shared_buffer_session buffers;
    scrolling_text_client_context* ctx = nullptr;
    t4mi_frame_location last;
};

TEST_F(VideoReference, FindNeverRendersAndRenderCachesTheFrame)
{
    scrolling_text_video_reference ref(ctx->id, 3, 0);
    t4mi_frame_request req;
    req.frame_number = 3;
    EXPECT_EQ(ref.find_frame(req, nullptr), nullptr);
    EXPECT_EQ(ctx->reader->frame_manager.size(), 0u);
    t4mi_video_frame* f = ref.render_frame(req, nullptr);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->frame_number, 3);
    EXPECT_EQ(ref.find_frame(req, nullptr), f);
    EXPECT_EQ(ref.render_frame(req, nullptr), f);
    EXPECT_EQ(ctx->reader->frame_manager.size(), 1u);
}

TEST_F(VideoReference, RenderMakesTheReaderAndTakesTheTiming)
{
    auto* fresh = static_cast<scrolling_text_client_context*>(t4mi_client_contexts.create());
    scrolling_text_video_reference ref(fresh->id, 0, 0);
    t4mi_frame_request req;
    // Find needs a reader and makes none.
    EXPECT_EQ(ref.find_frame(req, nullptr), nullptr);
    EXPECT_EQ(fresh->reader, nullptr);
    ASSERT_NE(ref.render_frame(req, nullptr), nullptr);
    ASSERT_NE(fresh->reader, nullptr);
    EXPECT_EQ(fresh->reader->frame_width, 640);
    EXPECT_EQ(fresh->reader->frame_height, 480);
    EXPECT_EQ(fresh->timing_taken, 1);
    // So the first settings after a frame keep the timing.
    t4mi_client_settings s;
    s.time_scale = 25;
    s.frame_duration = 1;
    fresh->apply_client_settings(s);
    EXPECT_EQ(fresh->time_scale, 30000);
    EXPECT_EQ(fresh->frame_duration, 1001);
}

TEST_F(VideoReference, EverySlotGivesNothingWhenTheContextIsGone)
{
    scrolling_text_video_reference ref(ctx->id, 42, 0);
    t4mi_client_contexts.destroy(ctx->id);
    ctx = nullptr;
    t4mi_frame_request req;
    req.frame_number = 42;
    EXPECT_EQ(ref.find_frame(req, nullptr), nullptr);
    EXPECT_EQ(ref.render_frame(req, nullptr), nullptr);
    EXPECT_EQ(ref.frame_number_to_render(req, nullptr), 0u);
    EXPECT_NE(ref.examine_request(req, nullptr), 0);
    t4mi_frame_location loc;
    EXPECT_NE(ref.load_video_and_return_descriptor(req, nullptr, &loc), 0);
    EXPECT_EQ(ref.frame, nullptr);
}

TEST_F(VideoReference, ScrollingTextRendersTheRequestedNumber)
{
    auto a = request(500);
    ASSERT_TRUE(a);
    EXPECT_EQ(a->frame_number, 500u);
    EXPECT_EQ(last.frame_number, 500);
    EXPECT_EQ(a->frame->refcount, 1);
    auto b = request(9000);
    ASSERT_TRUE(b);
    EXPECT_NE(a->frame, b->frame);
}

TEST_F(VideoReference, StaticTextSharesOneFramePerLayoutGeneration)
{
    scroll_settings.scrollSpeed = 0;
    scroll_settings.static_ = 1;
    // A new context parses its text at its first frame, which lays it out
    // again: the first request may still see the generation before that.
    auto first = request(1);
    ASSERT_TRUE(first);
    first->release_frame();
    const uint64_t gen = ctx->layout_generation;
    auto a = request(0), b = request(500), c = request(9000);
    ASSERT_TRUE(a && b && c);
    EXPECT_EQ(a->frame, b->frame);
    EXPECT_EQ(b->frame, c->frame);
    EXPECT_EQ(a->frame->refcount, 3);
    EXPECT_EQ(ctx->reader->frame_manager.find_frame(0, uint32_t(gen)), a->frame);
    EXPECT_EQ(ctx->reader->frame_manager.find_frame(500, 0), nullptr);
    EXPECT_EQ(ctx->reader->frame_manager.find_frame(9000, 0), nullptr);
    EXPECT_EQ(last.frame_number, 0);
    // The client still names its frames as it asked for them.
    EXPECT_EQ(b->requested_frame, 500u);
    EXPECT_EQ(b->requested_variant, 0u);
    EXPECT_EQ(b->variant, uint32_t(gen));

    // A new layout makes a new shared frame; the old one lives while held.
    t4mi_client_settings s;
    s.width = 32;
    s.height = 16;
    ctx->apply_client_settings(s);
    ASSERT_EQ(ctx->layout_generation, gen + 1);
    auto d = request(500), e = request(1);
    ASSERT_TRUE(d && e);
    EXPECT_EQ(d->frame, e->frame);
    EXPECT_NE(d->frame, a->frame);
    EXPECT_EQ(d->frame->width, 32);
    EXPECT_EQ(ctx->reader->frame_manager.find_frame(0, uint32_t(gen)), a->frame);
    EXPECT_EQ(ctx->reader->frame_manager.find_frame(0, uint32_t(gen + 1)), d->frame);
    for (auto* r : {a.get(), b.get(), c.get(), d.get(), e.get()})
        r->release_frame();
}

TEST_F(VideoReference, AFrameWhoseBufferWasDroppedIsRenderedAgain)
{
    auto a = request(7);
    ASSERT_TRUE(a);
    a->release_frame();
    const int32_t old_buffer = last.buffer;
    // What the serve loop does after a stretch of idleness.
    tnb_alloc_freeall();
    tnb_default_buffer_drop();
    auto b = request(7);
    ASSERT_TRUE(b) << "a stale frame must not be handed out";
    EXPECT_NE(last.buffer, old_buffer);
    EXPECT_TRUE(tnb_alloc_is_live(&b->frame->tnb_alloc));
    b->release_frame();
}

// Records the hold count a frame has when it is deleted.
struct probe_frame : t4mi_video_frame {
    using t4mi_video_frame::t4mi_video_frame;
    ~probe_frame() override { refcount_at_delete = refcount; }
    static inline int64_t refcount_at_delete = -1;
};

TEST_F(VideoReference, DestroyingAContextReleasesTheHoldsBeforeTheFramesGo)
{
    auto* probe = new probe_frame(99);
    ASSERT_TRUE(ctx->reader->frame_manager.store_frame(99, 0, probe));
    auto* ref = new scrolling_text_video_reference(ctx->id, 99, 0);
    ref->addref_frame(probe);
    ctx->add_reference(ref);
    auto held = request(5);
    ASSERT_TRUE(held);
    ctx->add_reference(held.release());
    ctx->glyph_cache[{16, 'A'}] = nullptr;
    EXPECT_EQ(tnb_alloc_live_count(), 1u);

    t4mi_client_contexts.destroy(ctx->id);
    ctx = nullptr;
    EXPECT_EQ(probe_frame::refcount_at_delete, 0);
    EXPECT_EQ(tnb_alloc_live_count(), 0u);
}

TEST_F(VideoReference, ARenderGivesUpWaitingForTheBufferWhenASignalCame)
{
    tnb_default_buffer_drop();
    const uint64_t budget = tnb_total;
    tnb_total = 0;  // no buffer can be made
    DIE4 = 1;
    EXPECT_FALSE(request(1));
    EXPECT_FALSE(wait_for_shared_buffer(nullptr));
    DIE4 = 0;
    tnb_total = budget;
    EXPECT_TRUE(wait_for_shared_buffer(nullptr));
    EXPECT_TRUE(request(1));
}

} // namespace
