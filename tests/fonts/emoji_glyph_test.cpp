// Colour emoji in the glyph cache: the image fitted to the line.
#include <gtest/gtest.h>

#include "fonts/emoji_images.h"
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

using emoji_glyph_test = glyph_test;

// Every content byte of a plane equals `value`.
::testing::AssertionResult plane_is(const font_bmp_cache_storage* bmp, const uint8_t* plane, uint8_t value)
{
    if (plane == nullptr)
        return ::testing::AssertionFailure() << "no plane";
    for (int y = 0; y < bmp->height; y++)
        for (int x = 0; x < bmp->width; x++)
            if (plane[y * bmp->stride + x] != value)
                return ::testing::AssertionFailure()
                       << "pixel " << x << "," << y << " is " << int(plane[y * bmp->stride + x]) << ", not "
                       << int(value);
    return ::testing::AssertionSuccess();
}

TEST_F(emoji_glyph_test, colour_emoji_is_its_image_scaled_to_the_line_without_touching_freetype)
{
    // A red image: Y (66 x 255 + 4096) >> 8 = 81, Cb (-38 x 255 + 32768) >> 8 = 90,
    // Cr (112 x 255 + 32768) >> 8 = 239; a constant plane stays constant.
    write_png(emoji_dir() + "/emoji_u1f600.png", solid_rgba8(136, 128, 255, 0, 0, 255));
    // Leave a mark in the face: a glyph and a pixel size that a FreeType call
    // for the emoji would replace.
    ASSERT_EQ(FT_Set_Pixel_Sizes(default_face, 0, 37), 0);
    const FT_UInt a_index = FT_Get_Char_Index(default_face, 'A');
    ASSERT_EQ(FT_Load_Glyph(default_face, a_index, FT_LOAD_DEFAULT), 0);

    font_bmp_cache_storage* e = get_font_bmp(ctx.get(), 100, 0x1F600);
    ASSERT_NE(e, nullptr);
    // Pixel size 100 -> H = 100; W = floor(100 x 136 x 1.0 / 128 + 0.5) = floor(106.75) = 106.
    EXPECT_EQ(e->height, 100);
    EXPECT_EQ(e->width, 106);
    EXPECT_EQ(e->stride, 114);
    EXPECT_EQ(e->advance, 106);
    EXPECT_EQ(e->x_offset, 0);
    EXPECT_EQ(e->y_offset, 0);
    EXPECT_EQ(e->tag, -1);
    EXPECT_TRUE(plane_is(e, e->plane_y, 81));
    EXPECT_TRUE(plane_is(e, e->plane_u, 90));
    EXPECT_TRUE(plane_is(e, e->plane_v, 239));
    EXPECT_TRUE(plane_is(e, e->plane_a, 255));

    EXPECT_EQ(default_face->glyph->glyph_index, a_index);
    EXPECT_EQ(default_face->size->metrics.y_ppem, 37u);
    // The image stays in the process cache; the glyph is a copy of its own.
    ASSERT_NE(emoji_png_cache.at("emoji_u1f600.png"), nullptr);
    EXPECT_NE(emoji_png_cache.at("emoji_u1f600.png"), e);
}

TEST_F(emoji_glyph_test, scaled_emoji_follow_the_image_bilinearly)
{
    // A horizontal ramp 0, 2, 4, ... in the alpha channel of a 128 x 128 image,
    // scaled to 64 rows: xstep = (127 x 65536) / 63 = 132112, so column k
    // samples the ramp at k x 132112 / 65536 and A is
    // floor(2 x k x 132112 / 65536) (the ramp is linear, so the
    // interpolation is exact before the final truncation).
    write_png(emoji_dir() + "/emoji_u2764.png", rgba8_image(128, 128, [](uint32_t x, uint32_t) {
                  return std::vector<uint8_t>{0, 0, 0, uint8_t(2 * x)};
              }));
    font_bmp_cache_storage* e = get_font_bmp(ctx.get(), 64, 0x2764);
    ASSERT_NE(e, nullptr);
    ASSERT_EQ(e->height, 64);
    ASSERT_EQ(e->width, 64);
    for (int y : {0, 31, 63})
        for (int k : {0, 1, 2, 30, 62, 63})
            EXPECT_EQ(e->plane_a[y * e->stride + k], (2ull * k * 132112) >> 16) << "column " << k;
}

TEST_F(emoji_glyph_test, emoji_of_the_line_height_are_copied_and_ignore_the_pixel_aspect)
{
    write_png(emoji_dir() + "/emoji_u1f601.png", solid_rgba8(64, 64, 255, 255, 255, 200));
    ctx->reader->frame_width = 720;
    ctx->reader->frame_height = 480;
    ctx->screen_aspect_num = 4;
    ctx->screen_aspect_den = 3;
    // Pixel size 64 = the image height: a copy, 64 wide whatever the aspect.
    font_bmp_cache_storage* e = get_font_bmp(ctx.get(), 64, 0x1F601);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->width, 64);
    EXPECT_EQ(e->height, 64);
    EXPECT_EQ(e->stride, 72);
    EXPECT_EQ(e->advance, 64);
    EXPECT_TRUE(plane_is(e, e->plane_y, 235));
    EXPECT_TRUE(plane_is(e, e->plane_u, 128));
    EXPECT_TRUE(plane_is(e, e->plane_v, 128));
    EXPECT_TRUE(plane_is(e, e->plane_a, 200));
    // The spare bytes are copied too: zero, as in the image record.
    for (int y = 0; y < 64; y++)
        for (int x = 64; x < 72; x++)
            ASSERT_EQ(e->plane_a[y * 72 + x], 0);

    // Scaled, the aspect applies: W = floor(100 x 64 x 1.125 / 64 + 0.5) = 113.
    font_bmp_cache_storage* wide = get_font_bmp(ctx.get(), 100, 0x1F601);
    ASSERT_NE(wide, nullptr);
    EXPECT_EQ(wide->height, 100);
    EXPECT_EQ(wide->width, 113);
    EXPECT_EQ(wide->advance, 113);
    EXPECT_EQ(wide->stride, 121);
}

TEST_F(emoji_glyph_test, emoji_y_offset_rounds_toward_minus_infinity)
{
    write_png(emoji_dir() + "/emoji_u1f602.png", solid_rgba8(136, 128, 0, 0, 255, 255));
    // 1100 x 110 / 1000 = 121: (110 - 121) >> 1 = -11 >> 1 = -6 (a glyph
    // would have -5 there).
    scroll_settings.fontScale = 1100;
    font_bmp_cache_storage* e = get_font_bmp(ctx.get(), 110, 0x1F602);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->height, 121);
    EXPECT_EQ(e->y_offset, -6);
}

TEST_F(emoji_glyph_test, emoji_are_at_least_four_rows_high)
{
    write_png(emoji_dir() + "/emoji_u1f603.png", solid_rgba8(136, 128, 0, 255, 0, 255));
    // Scale 500 at line 3: pixel size 2, H = max(4, 2) = 4,
    // W = floor(4 x 136 / 128 + 0.5) = 4, y_offset (3 - 2) >> 1 = 0.
    scroll_settings.fontScale = 500;
    font_bmp_cache_storage* e = get_font_bmp(ctx.get(), 3, 0x1F603);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->height, 4);
    EXPECT_EQ(e->width, 4);
    EXPECT_EQ(e->y_offset, 0);
    // Green: Y (129 x 255 + 4096) >> 8 = 144.
    EXPECT_TRUE(plane_is(e, e->plane_y, 144));
}

TEST_F(emoji_glyph_test, emoji_pixel_size_also_leaves_room_for_the_shadow)
{
    write_png(emoji_dir() + "/emoji_u1f604.png", solid_rgba8(136, 128, 0, 255, 0, 255));
    // 100 - 6 - (3 + 1) / 2 = 92 rows; y_offset (100 - 92) >> 1 = 4, with no
    // correction for the shadow.
    ctx->shadow_offset_y = 6;
    ctx->shadow_blur_radius = 3;
    font_bmp_cache_storage* e = get_font_bmp(ctx.get(), 100, 0x1F604);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->height, 92);
    EXPECT_EQ(e->y_offset, 4);
}

TEST_F(emoji_glyph_test, characters_outside_the_candidate_ranges_never_look_for_images)
{
    EXPECT_FALSE(is_emoji_candidate(0x1FFF));
    EXPECT_TRUE(is_emoji_candidate(0x2000));
    EXPECT_TRUE(is_emoji_candidate(0x3FFF));
    EXPECT_FALSE(is_emoji_candidate(0x4000));
    EXPECT_FALSE(is_emoji_candidate(0x1EFFF));
    EXPECT_TRUE(is_emoji_candidate(0x1F000));
    EXPECT_TRUE(is_emoji_candidate(0x1FFFF));
    EXPECT_FALSE(is_emoji_candidate(0x20000));
    // U+4E2D has a name ("emoji_u4e2d.png") but is no candidate: no lookup.
    write_png(emoji_dir() + "/emoji_u4e2d.png", solid_rgba8(64, 64, 255, 0, 0, 255));
    CaptureStderr();
    font_bmp_cache_storage* g = get_font_bmp(ctx.get(), 64, 0x4E2D);
    GetCapturedStderr();
    ASSERT_NE(g, nullptr);
    EXPECT_EQ(g->plane_y, nullptr);
    EXPECT_TRUE(emoji_png_cache.empty());
}

} // namespace
