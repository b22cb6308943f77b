// The context's take-over of a client's settings: timing once, the reader,
// the aspect pair, the picture size, and when the text is laid out again.
#include <gtest/gtest.h>

#include <algorithm>

#include "fonts/font_bmp.h"
#include "fonts/glyph_cache.h"
#include "frames/client_context.h"
#include "frames/compositor.h"
#include "frames/reader.h"
#include "items/scroll_settings.h"
#include "platform/t4mi_globals.h"
#include "platform/tnb.h"
#include "support/frame_env.h"
#include "support/program_env.h"

namespace {

t4mi_client_settings settings(int32_t w, int32_t h, int64_t an = 0, int64_t ad = 0)
{
    t4mi_client_settings s;
    s.width = w;
    s.height = h;
    s.aspect_num = an;
    s.aspect_den = ad;
    return s;
}

// One cached glyph record (a cached failure is enough: a null record).
void seed_caches(scrolling_text_client_context& ctx)
{
    ctx.glyph_cache[{54, 'A'}] = nullptr;
    ctx.shadow_cache[{54, 'A'}] = nullptr;
}

class ClientSettings : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(fonts.ready());
        ASSERT_TRUE(buffers.ready());
        scroll_settings = scroll_settings_record{};
        line_count = 1;
        json_next_xmit = 12345;
    }
    t4test::program_fonts fonts;
    t4test::shared_buffer_session buffers;
    scrolling_text_client_context ctx{1};
};

TEST_F(ClientSettings, TheFirst1080LineSettingsLayTheTextOutAt1080LinesBeforeAnyFrame)
{
    // Two lines counted from the text, with the record's shadow (2 % blur,
    // 3 % offsets) and speed (one picture height a second).
    scroll_settings.multiLine = 0;
    scroll_settings.text = "A\nB";
    ctx.parse_text();
    ctx.text_dirty = false;  // so that only the settings can ask for a layout
    ASSERT_EQ(ctx.reader, nullptr);
    ctx.apply_client_settings(settings(1920, 1080));
    ASSERT_NE(ctx.reader, nullptr);
    EXPECT_EQ(ctx.reader->frame_width, 1920);
    EXPECT_EQ(ctx.reader->frame_height, 1080);
    // The reader was made at 640 x 480, the size changed: the text was marked
    // and laid out at once (the layout consumes the flag and counts a new
    // generation), and nothing was drawn.
    EXPECT_EQ(ctx.layout_generation, 1u);
    // Laid out at 1080 lines, not 480: the line height is 1080 / 2 = 540, both
    // lines start one picture width in (1920), the second 540 down.
    EXPECT_EQ(line_count, 2);
    ASSERT_EQ(ctx.placement_count, 1u);
    const auto& glyphs = ctx.glyph_placements.at(1920);
    ASSERT_EQ(glyphs.size(), 2u);
    EXPECT_EQ(glyphs[0].pixel_size, 540);
    EXPECT_EQ(glyphs[0].line_top, 0);
    EXPECT_EQ(glyphs[1].pixel_size, 540);
    EXPECT_EQ(glyphs[1].line_top, 540);
    // Shadow: blur round(0.02 * 540) = round(10.8) = 11, offsets round(16.2) = 16.
    EXPECT_EQ(ctx.shadow_blur_radius, 11);
    EXPECT_EQ(ctx.shadow_offset_x, 16);
    EXPECT_EQ(ctx.shadow_offset_y, 16);
    // The cycle: the line start 1920 plus the wider of the two glyphs' advances.
    const font_bmp_cache_storage* a = get_font_bmp(&ctx, 540, 'A');
    const font_bmp_cache_storage* b = get_font_bmp(&ctx, 540, 'B');
    ASSERT_TRUE(a != nullptr && b != nullptr);
    const uint64_t cycle = 1920 + uint64_t(std::max(a->advance, b->advance));
    EXPECT_EQ(ctx.cycle_length, cycle);
    // 1080 px/s at 30000/1001: p = 36.036 px a frame, step trunc(36.036 * 4096)
    // = trunc(147603.456) = 147603; one cycle lasts cycle * 4096 / 147603 frames.
    EXPECT_EQ(ctx.scroll_step, 147603u);
    EXPECT_EQ(ctx.frames_per_step, 1u);
    EXPECT_EQ(ctx.item_length, cycle * 4096 / 147603);
    EXPECT_FALSE(ctx.text_dirty);
    EXPECT_EQ(ctx.reader->frame_manager.size(), 0u);
    EXPECT_EQ(tnb_alloc_live_count(), 0u);
    EXPECT_EQ(ctx.picture_width, 1920u);
    EXPECT_EQ(ctx.picture_height, 1080u);
    EXPECT_EQ(ctx.state_configured, 1);
    EXPECT_EQ(ctx.state_pending, 0);
    EXPECT_EQ(json_next_xmit, 0u);
}

TEST_F(ClientSettings, SettingsAt640By480DoNotLayOutAgain)
{
    ctx.text_dirty = false;
    ctx.apply_client_settings(settings(640, 480));
    EXPECT_EQ(ctx.layout_generation, 0u);
    EXPECT_FALSE(ctx.text_dirty);
}

TEST_F(ClientSettings, RepeatedSettingsDoNotLayOutAgainButAnAspectPairAlwaysClearsTheBitmapCaches)
{
    ctx.apply_client_settings(settings(1920, 1080, 16, 9));
    ASSERT_EQ(ctx.layout_generation, 1u);
    EXPECT_EQ(ctx.frame_aspect[0], 16);
    EXPECT_EQ(ctx.frame_aspect[1], 9);
    EXPECT_EQ(ctx.screen_aspect_num, 16);
    EXPECT_EQ(ctx.screen_aspect_den, 9);

    seed_caches(ctx);
    ctx.apply_client_settings(settings(1920, 1080, 16, 9));
    EXPECT_EQ(ctx.layout_generation, 1u);
    EXPECT_FALSE(ctx.text_dirty);
    EXPECT_TRUE(ctx.glyph_cache.empty());
    EXPECT_TRUE(ctx.shadow_cache.empty());

    // Without a pair the caches stay.
    seed_caches(ctx);
    ctx.apply_client_settings(settings(1920, 1080));
    EXPECT_EQ(ctx.layout_generation, 1u);
    EXPECT_EQ(ctx.glyph_cache.size(), 1u);
    EXPECT_EQ(ctx.frame_aspect[0], 16);

    // Another pair lays out again.
    ctx.apply_client_settings(settings(1920, 1080, 4, 3));
    EXPECT_EQ(ctx.layout_generation, 2u);
    EXPECT_EQ(ctx.frame_aspect[0], 4);
    EXPECT_EQ(ctx.frame_aspect[1], 3);
    // A half-given pair is no pair.
    ctx.apply_client_settings(settings(1920, 1080, 16, 0));
    EXPECT_EQ(ctx.layout_generation, 2u);
    EXPECT_EQ(ctx.frame_aspect[0], 4);
}

TEST_F(ClientSettings, ASecondTimeScaleIsIgnored)
{
    t4mi_client_settings s = settings(0, 0);
    s.time_scale = 25;
    s.frame_duration = 1;
    ctx.apply_client_settings(s);
    EXPECT_EQ(ctx.time_scale, 25);
    EXPECT_EQ(ctx.frame_duration, 1);
    EXPECT_EQ(ctx.reader->time_scale, 25);
    EXPECT_EQ(ctx.reader->frame_duration, 1);
    s.time_scale = 30000;
    s.frame_duration = 1001;
    ctx.apply_client_settings(s);
    EXPECT_EQ(ctx.time_scale, 25);
    EXPECT_EQ(ctx.frame_duration, 1);
}

TEST_F(ClientSettings, AFieldRateDoublesTheTimeScale)
{
    t4mi_client_settings s = settings(0, 0);
    s.time_scale = 25;
    s.frame_duration = 1;
    s.field_rate = 1;
    ctx.apply_client_settings(s);
    EXPECT_EQ(ctx.time_scale, 50);
    EXPECT_EQ(ctx.frame_duration, 1);
}

TEST_F(ClientSettings, SettingsWithoutTimingStillTakeTheTimingForGood)
{
    const int64_t ts = ctx.time_scale, fd = ctx.frame_duration;
    ctx.apply_client_settings(settings(320, 64));
    t4mi_client_settings s = settings(0, 0);
    s.time_scale = 25;
    s.frame_duration = 1;
    ctx.apply_client_settings(s);
    EXPECT_EQ(ctx.time_scale, ts);
    EXPECT_EQ(ctx.frame_duration, fd);
}

TEST_F(ClientSettings, ZeroSidesKeepThePictureSize)
{
    ctx.apply_client_settings(settings(320, 64));
    ctx.apply_client_settings(settings(0, 100));
    EXPECT_EQ(ctx.picture_width, 320u);
    EXPECT_EQ(ctx.picture_height, 100u);
    EXPECT_EQ(ctx.reader->frame_height, 100);
}

TEST_F(ClientSettings, SettingsFlushTheFramesNobodyHolds)
{
    ctx.apply_client_settings(settings(64, 16));
    t4mi_video_frame* held = load_frame(ctx.reader, 1, 0, &ctx, 0);
    ASSERT_NE(held, nullptr);
    ASSERT_NE(load_frame(ctx.reader, 2, 0, &ctx, 0), nullptr);
    held->addref(0);
    const uint64_t gen = ctx.layout_generation;   // the first frame may have parsed and laid out again
    ctx.apply_client_settings(settings(64, 16));  // same size: no layout, still a flush
    EXPECT_EQ(ctx.layout_generation, gen);
    EXPECT_EQ(ctx.reader->frame_manager.size(), 1u);
    EXPECT_EQ(ctx.reader->frame_manager.find_frame(1, 0), held);
    held->deref(0);
}

} // namespace

namespace {

TEST(PixelAspect, FactorIsTheWidthOverTheWidthAtTheScreenAspect)
{
    scrolling_text_client_context ctx(1);
    // No aspect, or half of one: square pixels.
    EXPECT_EQ(ctx.pixel_aspect_factor(720, 576), 1.0);
    ctx.screen_aspect_num = 16;
    EXPECT_EQ(ctx.pixel_aspect_factor(720, 576), 1.0);
    // 720 x 576 shown at 16:9 would be 16 * 576 / 9 = 1024 wide: 720 / 1024.
    ctx.screen_aspect_den = 9;
    EXPECT_EQ(ctx.pixel_aspect_factor(720, 576), 0.703125);
    // 1920 x 1080 at 16:9 has square pixels; at 4:3 they are 1920 / 1440 wide.
    EXPECT_EQ(ctx.pixel_aspect_factor(1920, 1080), 1.0);
    ctx.screen_aspect_num = 4;
    ctx.screen_aspect_den = 3;
    EXPECT_DOUBLE_EQ(ctx.pixel_aspect_factor(1920, 1080), 4.0 / 3.0);
    ctx.screen_aspect_den = 0;
    EXPECT_EQ(ctx.pixel_aspect_factor(1920, 1080), 1.0);
}

} // namespace
