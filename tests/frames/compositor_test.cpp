// The frame compositor on real glyphs: background, the strip offset of a
// frame, wrapping, clipping, squeezing, shadows, and the frame cache.
#include <gtest/gtest.h>

#include <string>

#include "fonts/font_bmp.h"
#include "fonts/font_catalogue.h"
#include "frames/compose_fixture.h"
#include "frames/compositor.h"
#include "frames/reader.h"
#include "items/scroll_settings.h"
#include "platform/video_frame.h"

namespace t4test {
namespace {

class Compositor : public compose_test {
protected:
    // Expects the bitmap drawn alone at (gx, gy) in white with colour alpha
    // `a` on a transparent background: every covered pixel inside the
    // picture has Y 235, U 128, V 128 and alpha (c * a * 257) >> 16.
    void expect_glyph_at(const frame_pixels& p, const font_bmp_cache_storage* bmp, int gx, int gy, unsigned a = 255)
    {
        ASSERT_NE(bmp, nullptr);
        for (int row = 0; row < bmp->height; row++)
            for (int col = 0; col < bmp->width; col++) {
                const unsigned c = bmp->plane_a[size_t(row) * size_t(bmp->stride) + size_t(col)];
                const int x = gx + col, y = gy + row;
                if (c == 0 || x < 0 || y < 0 || x >= int(p.width) || y >= int(p.height))
                    continue;
                const size_t i = p.at(uint32_t(x), uint32_t(y));
                ASSERT_EQ(p.a[i], source_alpha(c, a)) << "at " << x << "," << y;
                ASSERT_EQ(p.y[i], 235) << "at " << x << "," << y;
                ASSERT_EQ(p.u[i], 128);
                ASSERT_EQ(p.v[i], 128);
            }
    }
    // Pixels with some alpha in columns [x0, x1).
    static int covered_in_columns(const frame_pixels& p, int x0, int x1)
    {
        int n = 0;
        for (uint32_t row = 0; row < p.height; row++)
            for (int x = std::max(x0, 0); x < std::min(x1, int(p.width)); x++)
                n += p.a[p.at(uint32_t(x), row)] != 0;
        return n;
    }
    // A strip that moves exactly one pixel a frame: H 40 at speed 0.625 is
    // 25 px/s, at 25 frames/s one pixel (scroll_step 4096).
    scrolling_text_client_context* one_pixel_a_frame(int32_t width)
    {
        scroll_settings.scrollSpeed = 0.625;
        auto* ctx = make_context(width, 40, 25, 1);
        return ctx;
    }
};

TEST_F(Compositor, BackgroundFillsWholePlanesWithoutRounding)
{
    // (255, 0, 0, 128): Y = (16830 + 4096) >> 8 = 81, U = (-9690 + 32768) >> 8
    // = 90, V = (28560 + 32768) >> 8 = 239, A = 128; strides of 7 are 8 and
    // the padding is filled too.
    scroll_settings.backgroundColor = {255, 0, 0, 128};
    auto* ctx = make_context(7, 3);
    lay_out(ctx, "");
    yuva_frame_planes planes;
    ASSERT_TRUE(map_frame_planes(render(ctx, 0), &planes));
    ASSERT_EQ(planes.y_stride, 8u);
    for (size_t i = 0; i < 8 * 3; i++) {
        ASSERT_EQ(planes.y[i], 81);
        ASSERT_EQ(planes.u[i], 90);
        ASSERT_EQ(planes.v[i], 239);
        ASSERT_EQ(planes.alpha[i], 128);
    }
}

TEST_F(Compositor, GlyphOnATransparentBackgroundTakesTheTextColour)
{
    // Static, left: 'H' at key 0, drawn at (left offset, top offset).
    scroll_settings.scrollSpeed = 0;
    auto* ctx = make_context(120, 100);
    lay_out(ctx, "H");
    const frame_pixels p = render_pixels(ctx, 0);
    const font_bmp_cache_storage* h = glyph(ctx, 'H');
    expect_glyph_at(p, h, h->x_offset, h->y_offset);
    // Everywhere else the transparent black background: 16, 128, 128, alpha 0.
    for (uint32_t row = 0; row < p.height; row++)
        for (uint32_t x = 0; x < p.width; x++) {
            const int bx = int(x) - h->x_offset, by = int(row) - h->y_offset;
            const bool inside = bx >= 0 && by >= 0 && bx < h->width && by < h->height &&
                                h->plane_a[size_t(by) * size_t(h->stride) + size_t(bx)] != 0;
            if (!inside) {
                ASSERT_EQ(p.a[p.at(x, row)], 0) << x << "," << row;
                ASSERT_EQ(p.y[p.at(x, row)], 16) << x << "," << row;
            }
        }
    // At half opacity a fully covered pixel has s = (255 * 128 * 257) >> 16 = 127.
    scroll_settings.fontColor = {255, 255, 255, 128};
    auto* half = make_context(120, 100);
    lay_out(half, "H");
    expect_glyph_at(render_pixels(half, 0), glyph(half, 'H'), h->x_offset, h->y_offset, 128);
}

TEST_F(Compositor, BlackTextIsSixteen)
{
    scroll_settings.scrollSpeed = 0;
    scroll_settings.fontColor = {0, 0, 0, 255};
    auto* ctx = make_context(120, 100);
    lay_out(ctx, "H");
    const frame_pixels p = render_pixels(ctx, 0);
    const font_bmp_cache_storage* h = glyph(ctx, 'H');
    int checked = 0;
    for (int row = 0; row < h->height; row++)
        for (int col = 0; col < h->width; col++)
            if (h->plane_a[size_t(row) * size_t(h->stride) + size_t(col)] == 255) {
                const size_t i = p.at(uint32_t(h->x_offset + col), uint32_t(h->y_offset + row));
                EXPECT_EQ(p.y[i], 16);
                EXPECT_EQ(p.u[i], 128);
                EXPECT_EQ(p.v[i], 128);
                EXPECT_EQ(p.a[i], 254);
                checked++;
            }
    EXPECT_GT(checked, 100);
}

TEST_F(Compositor, ShadowIsDrawnFirstAndOffsetDownRight)
{
    // Blur 0 (the shadow is the glyph itself), offset 0.04 x 50 = 2 px right
    // and down, opaque black.
    scroll_settings.scrollSpeed = 0;
    scroll_settings.shadowColor = {0, 0, 0, 255};
    scroll_settings.shadowOpacity = 255;
    scroll_settings.shadowX = 0.04;
    scroll_settings.shadowY = 0.04;
    auto* ctx = make_context(100, 50);
    lay_out(ctx, "H");
    ASSERT_EQ(ctx->shadow_offset_x, 2);
    ASSERT_EQ(ctx->shadow_offset_y, 2);
    const frame_pixels p = render_pixels(ctx, 0);
    const font_bmp_cache_storage* l = glyph(ctx, 'H');
    auto coverage = [&](int bx, int by) -> unsigned {
        if (bx < 0 || by < 0 || bx >= l->width || by >= l->height)
            return 0;
        return l->plane_a[size_t(by) * size_t(l->stride) + size_t(bx)];
    };
    int shadow_only = 0, both = 0;
    for (int y = 0; y < 50; y++)
        for (int x = 0; x < 100; x++) {
            const unsigned g = coverage(x - l->x_offset, y - l->y_offset);
            const unsigned s = coverage(x - l->x_offset - 2, y - l->y_offset - 2);
            const size_t i = p.at(uint32_t(x), uint32_t(y));
            if (g == 0 && s == 255) {
                // Shadow alone: black, alpha 254.
                EXPECT_EQ(p.y[i], 16);
                EXPECT_EQ(p.a[i], 254);
                shadow_only++;
            } else if (g == 255 && s == 255) {
                // The glyph over its shadow: d 254 + s 254 >= 257, so ia = 254:
                // Y = (235 * 254 + 16 * 2 + 128) >> 8 = 59850 >> 8 = 233.
                // (The other order would give (16 * 254 + 235 * 2 + 128) >> 8 = 18.)
                EXPECT_EQ(p.y[i], 233);
                EXPECT_EQ(p.a[i], 255);
                both++;
            }
        }
    EXPECT_GT(shadow_only, 20);
    EXPECT_GT(both, 20);
}

TEST_F(Compositor, NextRepetitionAppearsAfterTheWrap)
{
    scroll_settings.space = 0;
    auto* ctx = one_pixel_a_frame(320);
    lay_out(ctx, "H ");
    ASSERT_EQ(ctx->scroll_step, 4096u);
    const uint64_t C = ctx->cycle_length;
    const font_bmp_cache_storage* h = glyph(ctx, 'H');
    // Frame 3C - 10: offset (3C - 10) mod C = C - 10, so the 'H' at key 0 of
    // the next repetition is at 0 - (C - 10) + C = 10.
    const frame_pixels p = render_pixels(ctx, 3 * C - 10);
    expect_glyph_at(p, h, 10 + h->x_offset, h->y_offset);
    // The previous repetition's 'H' lies wholly left of the picture.
    ASSERT_LT(h->x_offset + h->width, int(C) - 10);
    EXPECT_EQ(covered_in_columns(p, 0, 10 + h->x_offset), 0);
    // Further repetitions every C pixels.
    expect_glyph_at(p, h, 10 + int(C) + h->x_offset, h->y_offset);
}

TEST_F(Compositor, GlyphsLeftOfThePictureAreClippedNotShifted)
{
    scroll_settings.space = 0;
    auto* ctx = one_pixel_a_frame(320);
    lay_out(ctx, "H ");
    const font_bmp_cache_storage* h = glyph(ctx, 'H');
    // Frame 5: offset 5, so the first 'H' sits at x0 = -5 and only its
    // columns from 5 - left offset on are in the picture.
    const frame_pixels p = render_pixels(ctx, 5);
    expect_glyph_at(p, h, -5 + h->x_offset, h->y_offset);
    // Nothing of it was moved right: column 0 shows bitmap column 5 - left offset.
    const int first_col = 5 - h->x_offset;
    for (int row = 0; row < h->height; row++) {
        const unsigned c = h->plane_a[size_t(row) * size_t(h->stride) + size_t(first_col)];
        EXPECT_EQ(p.a[p.at(0, uint32_t(h->y_offset + row))], c == 0 ? 0u : source_alpha(c, 255));
    }
}

TEST_F(Compositor, StaticTextIsDrawnOnceAndStandsStill)
{
    scroll_settings.scrollSpeed = 0;
    auto* ctx = make_context(400, 100);
    lay_out(ctx, "H");
    ASSERT_EQ(ctx->scroll_step, 0u);
    ASSERT_LT(ctx->cycle_length, 200u); // room for more copies, were they drawn
    const font_bmp_cache_storage* h = glyph(ctx, 'H');
    const frame_pixels first = render_pixels(ctx, 0);
    EXPECT_EQ(covered_in_columns(first, h->x_offset + h->width, 400), 0);
    EXPECT_EQ(render_pixels(ctx, 500), first); // offset 0 at every frame
    // Scrolling with no gap would repeat it every cycle_length pixels.
    scroll_settings.scrollSpeed = 0.001;
    scroll_settings.space = 0;
    auto* scrolling = make_context(400, 100);
    lay_out(scrolling, "H");
    EXPECT_GT(covered_in_columns(render_pixels(scrolling, 0), h->x_offset + h->width, 400), 0);
}

TEST_F(Compositor, SmoothScrollMovesOnePixelEveryThreeFrames)
{
    // p = 0.4 px/frame (H 40, speed 0.25, 25 frames/s): frames_per_step 3,
    // offset = ((4096 N) >> 12) / 3 = N / 3.
    scroll_settings.smoothScroll = 1;
    scroll_settings.scrollSpeed = 0.25;
    scroll_settings.space = 0;
    auto* ctx = make_context(320, 40, 25, 1);
    lay_out(ctx, "Hi there");
    ASSERT_EQ(ctx->frames_per_step, 3u);
    const frame_pixels f0 = render_pixels(ctx, 0);
    EXPECT_EQ(render_pixels(ctx, 1), f0);
    EXPECT_EQ(render_pixels(ctx, 2), f0);
    const frame_pixels f3 = render_pixels(ctx, 3);
    const frame_pixels f6 = render_pixels(ctx, 6);
    EXPECT_NE(f3, f0);
    for (uint32_t row = 0; row < 40; row++)
        for (uint32_t x = 0; x + 80 < 320; x++) {
            ASSERT_EQ(f3.a[f3.at(x, row)], f0.a[f0.at(x + 1, row)]) << x << "," << row;
            ASSERT_EQ(f3.y[f3.at(x, row)], f0.y[f0.at(x + 1, row)]) << x << "," << row;
            ASSERT_EQ(f6.a[f6.at(x, row)], f0.a[f0.at(x + 2, row)]) << x << "," << row;
        }
}

TEST_F(Compositor, HalfScaleDrawsHalfWidthAtHalvedPositions)
{
    scroll_settings.scrollSpeed = 0;
    const std::string text = "I I I I I I I I I I I I";
    // Measure the line first (static, left, unsqueezed: cycle_length = M).
    auto* wide = make_context(4096, 50);
    lay_out(wide, text);
    const uint64_t M = wide->cycle_length;
    ASSERT_GT(M, 128u);
    // W = ceil(M / 2): W * 256 / M lies in [128, 129) once M > 128.
    auto* ctx = make_context(int32_t((M + 1) / 2), 50);
    lay_out(ctx, text);
    ASSERT_EQ(ctx->h_scale, 128u);
    const font_bmp_cache_storage* bar = glyph(ctx, 'I');
    // The second 'I' follows the first and a space: its key is the pen
    // position halved.
    const int32_t k1 = kerning_between(ctx, 'I', ' '), k2 = kerning_between(ctx, ' ', 'I');
    const uint64_t pen2 = uint64_t(bar->advance + k1 + glyph(ctx, ' ')->advance + k2);
    EXPECT_TRUE(ctx->glyph_placements.count((128 * pen2) >> 8));
    // The first 'I': at ((left offset * 128) >> 8), (width * 128) >> 8 columns
    // wide, column j sampled from source column 2j with weight 0.
    const frame_pixels p = render_pixels(ctx, 0);
    const int gx = (bar->x_offset * 128) >> 8;
    const int drawn = (bar->width * 128) >> 8;
    for (int row = 0; row < bar->height; row++)
        for (int j = 0; j < drawn; j++) {
            const unsigned c = bar->plane_a[size_t(row) * size_t(bar->stride) + size_t(2 * j)];
            EXPECT_EQ(p.a[p.at(uint32_t(gx + j), uint32_t(bar->y_offset + row))], c == 0 ? 0u : source_alpha(c, 255));
        }
    EXPECT_EQ(covered_in_columns(p, gx + drawn, int((128 * pen2) >> 8)), 0);
}

} // namespace
} // namespace t4test
