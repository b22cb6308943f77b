// The glyph cache: pixel sizes, record fields, placement and the cache itself.
// Fall-back chains and emoji images have files of their own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fonts/font_bmp.h"
#include "fonts/font_globals.h"
#include "fonts/font_test_support.h"
#include "fonts/glyph_cache.h"
#include "frames/reader.h"
#include "items/scroll_settings.h"

using namespace t4test;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

using glyph_cache_test = glyph_test;

TEST_F(glyph_cache_test, negative_character_gives_null_and_leaves_the_cache_untouched)
{
    EXPECT_EQ(get_font_bmp(ctx.get(), 100, -1), nullptr);
    EXPECT_TRUE(ctx->glyph_cache.empty());
}

TEST_F(glyph_cache_test, line_heights_of_zero_and_above_2048_give_cached_nulls)
{
    EXPECT_EQ(get_font_bmp(ctx.get(), 2049, 'A'), nullptr);
    EXPECT_EQ(get_font_bmp(ctx.get(), 0, 'A'), nullptr);
    ASSERT_EQ(ctx->glyph_cache.size(), 2u);
    EXPECT_EQ(ctx->glyph_cache.at({2049, 'A'}), nullptr);
    EXPECT_EQ(ctx->glyph_cache.at({0, 'A'}), nullptr);
    // With a font scale the pixel size would be fine; the line height still
    // decides.
    scroll_settings.fontScale = 100;
    EXPECT_EQ(get_font_bmp(ctx.get(), 2049, 'B'), nullptr);
    EXPECT_NE(get_font_bmp(ctx.get(), 2048, 'B'), nullptr);
}

TEST_F(glyph_cache_test, a_miss_is_rendered_once_and_then_served_from_the_cache)
{
    font_bmp_cache_storage* a = get_font_bmp(ctx.get(), 40, 'A');
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(get_font_bmp(ctx.get(), 40, 'A'), a);
    font_bmp_cache_storage* other_height = get_font_bmp(ctx.get(), 41, 'A');
    EXPECT_NE(other_height, a);
    EXPECT_EQ(ctx->glyph_cache.size(), 2u);
}

TEST_F(glyph_cache_test, glyph_record_copies_the_freetype_bitmap_with_eight_spare_bytes)
{
    // Line 100, no shadow: pixel size 100 - 0 - (0 + 1) / 2 = 100.
    const reference_glyph ref = render_reference(LIBERATION_SANS, 'A', 100);
    font_bmp_cache_storage* a = get_font_bmp(ctx.get(), 100, 'A');
    expect_record_matches(a, ref);
    // Baseline at 4/5 of the line: ascent = (80 x 100) / 100 = 80.
    EXPECT_EQ(a->y_offset, 0 + 80 - ref.top);
}

TEST_F(glyph_cache_test, pixel_size_leaves_room_for_the_shadow)
{
    // 10 - |-4| - (3 + 1) / 2 = 4.
    ctx->shadow_offset_y = -4;
    ctx->shadow_blur_radius = 3;
    font_bmp_cache_storage* h = get_font_bmp(ctx.get(), 10, 'H');
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(ctx->current_face->size->metrics.y_ppem, 4u);
    const reference_glyph ref = render_reference(LIBERATION_SANS, 'H', 4);
    expect_record_matches(h, ref);
    // ascent = (8 x 4) / 10 = 3; y = (10 - 4) / 2 + 3 - top - (-4 / 2).
    EXPECT_EQ(h->y_offset, 3 + 3 - ref.top + 2);
}

TEST_F(glyph_cache_test, a_shadow_offset_as_large_as_the_line_gives_null)
{
    // 10 - 10 - 2 = -2.
    ctx->shadow_offset_y = 10;
    ctx->shadow_blur_radius = 3;
    EXPECT_EQ(get_font_bmp(ctx.get(), 10, 'H'), nullptr);
    EXPECT_EQ(ctx->glyph_cache.at({10, 'H'}), nullptr);
}

TEST_F(glyph_cache_test, font_scale_sets_the_pixel_size_with_a_floor_of_two)
{
    scroll_settings.fontScale = 500;
    // 500 x 3 = 1500, not above 1999: pixel size 2.
    ASSERT_NE(get_font_bmp(ctx.get(), 3, 'H'), nullptr);
    EXPECT_EQ(ctx->current_face->size->metrics.y_ppem, 2u);
    // 500 x 100 = 50000: 50.
    font_bmp_cache_storage* h = get_font_bmp(ctx.get(), 100, 'H');
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(ctx->current_face->size->metrics.y_ppem, 50u);
    expect_record_matches(h, render_reference(LIBERATION_SANS, 'H', 50));
}

TEST_F(glyph_cache_test, y_offset_centres_text_and_shadow_together_truncating)
{
    const reference_glyph ref92 = render_reference(LIBERATION_SANS, 'g', 92);
    const reference_glyph ref93 = render_reference(LIBERATION_SANS, 'g', 93);

    // 100 - 6 - 2 = 92; ascent (80 x 92) / 100 = 73; y = 8 / 2 + 73 - top - 6 / 2.
    ctx->shadow_offset_y = 6;
    ctx->shadow_blur_radius = 3;
    font_bmp_cache_storage* down = get_font_bmp(ctx.get(), 100, 'g');
    expect_record_matches(down, ref92);
    EXPECT_EQ(down->y_offset, 4 + 73 - ref92.top - 3);

    // 100 - 5 - 2 = 93; ascent (80 x 93) / 100 = 74; y = 7 / 2 + 74 - top - (-5 / 2),
    // and -5 / 2 truncates to -2.
    ctx->clear_bitmap_caches();
    ctx->shadow_offset_y = -5;
    font_bmp_cache_storage* up = get_font_bmp(ctx.get(), 100, 'g');
    expect_record_matches(up, ref93);
    EXPECT_EQ(up->y_offset, 3 + 74 - ref93.top + 2);
}

TEST_F(glyph_cache_test, with_a_font_scale_the_shadow_offset_is_not_taken_off)
{
    // 1100 x 110 / 1000 = 121; (110 - 121) / 2 truncates to -5;
    // ascent = (88 x 121) / 110 = 96.
    scroll_settings.fontScale = 1100;
    ctx->shadow_offset_y = 6;
    ctx->shadow_blur_radius = 3;
    const reference_glyph ref = render_reference(LIBERATION_SANS, 'g', 121);
    font_bmp_cache_storage* g = get_font_bmp(ctx.get(), 110, 'g');
    expect_record_matches(g, ref);
    EXPECT_EQ(g->y_offset, -5 + 96 - ref.top);
}

TEST_F(glyph_cache_test, space_is_a_record_without_planes)
{
    const reference_glyph ref = render_reference(LIBERATION_SANS, ' ', 100);
    font_bmp_cache_storage* space = get_font_bmp(ctx.get(), 100, ' ');
    ASSERT_NE(space, nullptr);
    EXPECT_EQ(space->height, 0);
    EXPECT_EQ(space->stride, 8); // pitch 0 + 8
    EXPECT_EQ(space->plane_a, nullptr);
    EXPECT_EQ(space->advance, ref.advance >> 6);
}

TEST_F(glyph_cache_test, without_a_frame_reader_the_failure_stays_cached_until_cleared)
{
    delete ctx->reader;
    ctx->reader = nullptr;
    EXPECT_EQ(get_font_bmp(ctx.get(), 50, 'A'), nullptr);
    ctx->create_reader();
    EXPECT_EQ(get_font_bmp(ctx.get(), 50, 'A'), nullptr);
    ctx->clear_bitmap_caches();
    EXPECT_NE(get_font_bmp(ctx.get(), 50, 'A'), nullptr);
}

TEST_F(glyph_cache_test, glyphs_are_stretched_for_pixels_that_are_not_square)
{
    // 720 x 480 at 4:3: 65536 x 720 / (4 x 480 / 3) = 1.125 x 65536 = 73728.
    ctx->reader->frame_width = 720;
    ctx->reader->frame_height = 480;
    ctx->screen_aspect_num = 4;
    ctx->screen_aspect_den = 3;
    const FT_Matrix wide{73728, 0, 0, 0x10000};
    const reference_glyph ref = render_reference(LIBERATION_SANS, 'W', 100, &wide);
    const reference_glyph square = render_reference(LIBERATION_SANS, 'W', 100);
    font_bmp_cache_storage* w = get_font_bmp(ctx.get(), 100, 'W');
    expect_record_matches(w, ref);
    EXPECT_GT(w->width, square.width);
}

TEST_F(glyph_cache_test, unknown_family_renders_from_the_default_face)
{
    scroll_settings.fontFamily = "No Such Family";
    CaptureStderr();
    font_bmp_cache_storage* a = get_font_bmp(ctx.get(), 60, 'a');
    const std::string err = GetCapturedStderr();
    EXPECT_EQ(err, "WARNING: unknown font No Such Family\n");
    expect_record_matches(a, render_reference(LIBERATION_SANS, 'a', 60));
}

TEST_F(glyph_cache_test, a_catalogued_family_is_used)
{
    scroll_settings.fontFamily = "Liberation Serif";
    expect_record_matches(get_font_bmp(ctx.get(), 60, 'a'), render_reference(LIBERATION_SERIF, 'a', 60));
}

using glyph_cache_death_test = glyph_test;

TEST_F(glyph_cache_death_test, a_bitmap_4096_wide_aborts)
{
    // 4000 x 100 at 1:1: xx = 65536 x 4000 / 100, forty times wide, so a
    // 200-pixel W is far beyond 4096 columns.
    ctx->reader->frame_width = 4000;
    ctx->reader->frame_height = 100;
    ctx->screen_aspect_num = 1;
    ctx->screen_aspect_den = 1;
    EXPECT_DEATH(get_font_bmp(ctx.get(), 200, 'W'), "t4mi_scrolltext: .*load_font_bmp.*: Assertion `g->bitmap.width < 4096' failed\\.");
}

TEST_F(glyph_cache_death_test, a_bitmap_4096_high_aborts)
{
    // 3000 x 2048 / 1000 = 6144 pixels: a '|' is taller than 4096 rows.
    scroll_settings.fontScale = 3000;
    EXPECT_DEATH(get_font_bmp(ctx.get(), 2048, '|'), "Assertion `g->bitmap.rows < 4096' failed\\.");
}

} // namespace
