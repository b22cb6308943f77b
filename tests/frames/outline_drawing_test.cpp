// Drawing outlined text: the outline lies under every glyph and over every
// shadow, in the outline colour, and a width of 0 changes nothing.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "fonts/font_bmp.h"
#include "fonts/glyph_cache.h"
#include "fonts/outline.h"
#include "frames/compose_fixture.h"
#include "frames/reader.h"
#include "frames/script_fonts.h"
#include "items/scroll_settings.h"

namespace t4test {
namespace {

// Studio-range BT.601 of the colours used, worked out by hand:
// white (255, 255, 255) -> 235, 128, 128; red (255, 0, 0) -> 81, 90, 239;
// blue (0, 0, 255) -> 40, 239, 110.
struct yuv {
    int y, u, v;
};
constexpr yuv WHITE{235, 128, 128};
constexpr yuv RED{81, 90, 239};
constexpr yuv BLUE{40, 239, 110};

// A fully covered, opaque layer has source alpha (255 x 255 x 257) >> 16 =
// 254. Drawn over another such layer, the accumulating blend takes
// ia = s = 254 (d + s >= 257), so 2/256 of the colour below stays:
// (top x 254 + below x 2 + 128) >> 8, and the alpha becomes 255.
yuv over(yuv top, yuv below)
{
    auto mix = [](int t, int b) { return (t * 254 + b * 2 + 128) >> 8; };
    return {mix(top.y, below.y), mix(top.u, below.u), mix(top.v, below.v)};
}

class OutlineDrawing : public compose_test {
protected:
    void SetUp() override
    {
        compose_test::SetUp();
        // Static, left-justified: the first glyph's cell starts at x 0.
        scroll_settings.scrollSpeed = 0;
    }
    static void expect_colour(const frame_pixels& p, int64_t x, int64_t y, yuv c, int alpha, const char* what)
    {
        const size_t i = p.at(uint32_t(x), uint32_t(y));
        EXPECT_EQ(p.y[i], c.y) << what << " at " << x << "," << y;
        EXPECT_EQ(p.u[i], c.u) << what << " at " << x << "," << y;
        EXPECT_EQ(p.v[i], c.v) << what << " at " << x << "," << y;
        EXPECT_EQ(p.a[i], alpha) << what << " at " << x << "," << y;
    }
    // Coverage of `bmp` at picture (x, y) for a glyph whose cell starts at
    // `key` on a line with top 0, moved by (dx, dy); 0 outside the bitmap.
    static int coverage(const font_bmp_cache_storage* bmp, uint64_t key, int64_t x, int64_t y, int dx = 0, int dy = 0)
    {
        if (bmp == nullptr || bmp->plane_a == nullptr)
            return 0;
        const int64_t col = x - int64_t(key) - bmp->x_offset - dx, row = y - bmp->y_offset - dy;
        if (col < 0 || row < 0 || col >= bmp->width || row >= bmp->height)
            return 0;
        return bmp->plane_a[row * bmp->stride + col];
    }
};

TEST_F(OutlineDrawing, WidthZeroChangesNothing)
{
    auto* plain = make_context(640, 60);
    lay_out(plain, "Outline");
    const frame_pixels before = render_pixels(plain, 0);
    scroll_settings.outlineColor = {255, 0, 0, 255};
    scroll_settings.outlineWidth = 0;
    auto* ctx = make_context(640, 60);
    lay_out(ctx, "Outline");
    EXPECT_EQ(ctx->outline_width_64, 0);
    EXPECT_TRUE(ctx->outline_cache.empty());
    EXPECT_EQ(render_pixels(ctx, 0), before);
}

TEST_F(OutlineDrawing, WidthIsAFractionOfTheLineHeight)
{
    // 4 % of a 60-pixel line: 2.4 px, kept in 1/64 pixel: round(153.6) = 154.
    scroll_settings.outlineWidth = 0.04;
    auto* ctx = make_context(640, 60);
    lay_out(ctx, "W");
    EXPECT_EQ(ctx->outline_width_64, 154);
    // Two lines: 30-pixel lines, 1.2 px: round(76.8) = 77.
    scroll_settings.multiLine = 2;
    lay_out(ctx, "W");
    EXPECT_EQ(ctx->outline_width_64, 77);
    // At most a quarter of the line: 30 / 4 = 7.5 px = 480 / 64.
    scroll_settings.outlineWidth = 5.0;
    lay_out(ctx, "W");
    EXPECT_EQ(ctx->outline_width_64, 480);
}

TEST_F(OutlineDrawing, OutlineOverTheShadowUnderTheGlyph)
{
    scroll_settings.outlineColor = {255, 0, 0, 255};
    scroll_settings.outlineWidth = 0.05; // 3 px at 60
    scroll_settings.shadowColor = {0, 0, 255, 255};
    scroll_settings.shadowOpacity = 255;
    scroll_settings.shadowX = 0.1;       // 6 px
    scroll_settings.shadowY = 0.1;
    auto* ctx = make_context(640, 60);
    lay_out(ctx, "O");
    ASSERT_EQ(ctx->outline_width_64, 192);
    const uint64_t key = ctx->glyph_placements.begin()->first;
    const font_bmp_cache_storage* g = glyph(ctx, 'O');
    const font_bmp_cache_storage* o = get_outline_bmp(ctx, line_height(ctx), 'O');
    ASSERT_NE(o, nullptr);
    const frame_pixels p = render_pixels(ctx, 0);
    int glyph_px = 0, outline_over_shadow = 0, shadow_px = 0;
    for (int64_t y = 0; y < 60; y++)
        for (int64_t x = 0; x < 100; x++) {
            const int cs = coverage(g, key, x, y, 6, 6); // without blur the shadow is the glyph itself
            const int co = coverage(o, key, x, y);
            const int cg = coverage(g, key, x, y);
            if ((cs != 0 && cs != 255) || (co != 0 && co != 255) || (cg != 0 && cg != 255))
                continue; // edges: partly covered
            // The layers in order: shadow, outline, glyph, each opaque.
            int layers = 0;
            yuv c{};
            for (const auto& [covered, colour] : {std::pair{cs, BLUE}, std::pair{co, RED}, std::pair{cg, WHITE}})
                if (covered)
                    c = layers++ ? over(colour, c) : colour;
            if (layers == 0)
                continue;
            expect_colour(p, x, y, c, layers == 1 ? 254 : 255, cg ? "glyph" : co ? "outline" : "shadow");
            glyph_px += cg != 0;
            outline_over_shadow += cg == 0 && co != 0 && cs != 0;
            shadow_px += cg == 0 && co == 0;
        }
    EXPECT_GT(glyph_px, 100);
    EXPECT_GT(outline_over_shadow, 20);
    EXPECT_GT(shadow_px, 20);
}

TEST_F(OutlineDrawing, NoOutlineCoversANeighbouringGlyph)
{
    // A and V overlap when kerned; a wide outline of V would reach into A.
    scroll_settings.outlineColor = {255, 0, 0, 255};
    scroll_settings.outlineWidth = 0.1;
    auto* ctx = make_context(640, 60);
    lay_out(ctx, "AVA");
    const frame_pixels p = render_pixels(ctx, 0);
    int checked = 0;
    for (const auto& [key, glyphs] : ctx->glyph_placements) {
        const font_bmp_cache_storage* g = glyph(ctx, glyphs.front().code);
        for (int row = 0; row < g->height; row++)
            for (int col = 0; col < g->width; col++)
                if (g->plane_a[row * g->stride + col] == 255) {
                    // White over the outline: 234, 128, 129 (over another
                    // glyph too, whiter still); an outline on top would be
                    // red: 81, 90, 239.
                    const size_t i = p.at(uint32_t(int64_t(key) + g->x_offset + col), uint32_t(g->y_offset + row));
                    EXPECT_GE(p.y[i], 234);
                    EXPECT_EQ(p.u[i], 128);
                    EXPECT_LE(p.v[i], 129);
                    checked++;
                }
    }
    EXPECT_GT(checked, 300);
}

TEST_F(OutlineDrawing, TheOutlineOpacityScalesItsAlpha)
{
    // Half-transparent outline on a transparent background: alpha
    // (255 x 127 x 257) >> 16 = 126 where it is fully covered and the glyph is not.
    scroll_settings.outlineColor = {255, 0, 0, 127};
    scroll_settings.outlineWidth = 0.05;
    auto* ctx = make_context(640, 60);
    lay_out(ctx, "I");
    const uint64_t key = ctx->glyph_placements.begin()->first;
    const font_bmp_cache_storage* g = glyph(ctx, 'I');
    const font_bmp_cache_storage* o = get_outline_bmp(ctx, line_height(ctx), 'I');
    const frame_pixels p = render_pixels(ctx, 0);
    int seen = 0;
    for (int64_t y = 0; y < 60; y++)
        for (int64_t x = 0; x < 60; x++)
            if (coverage(o, key, x, y) == 255 && coverage(g, key, x, y) == 0) {
                EXPECT_EQ(p.a[p.at(uint32_t(x), uint32_t(y))], source_alpha(255, 127));
                EXPECT_EQ(p.y[p.at(uint32_t(x), uint32_t(y))], RED.y);
                seen++;
            }
    EXPECT_GT(seen, 20);
}

TEST_F(OutlineDrawing, ShapedGlyphsGetTheirOutlinesToo)
{
    // The shaped layout draws glyph indices of its own faces; each one gets
    // the outline made with it, drawn in the outline colour where the glyph
    // leaves it bare. No shadow, so a bare outline pixel is plain red.
    script_fonts fonts;
    scroll_settings.textShaping = 1;
    scroll_settings.fontFamily = "DejaVu Sans";
    scroll_settings.shadowOpacity = 0;
    scroll_settings.outlineColor = {255, 0, 0, 255};
    scroll_settings.outlineWidth = 0.05;
    auto* ctx = make_context(640, 60);
    lay_out(ctx, "مرحبا");
    int glyphs = 0;
    for (const auto& [key, placed] : ctx->glyph_placements)
        for (const placed_glyph& pg : placed) {
            ASSERT_NE(pg.face, 0u);
            const font_bmp_cache_storage* g = get_font_bmp(ctx, uint64_t(pg.pixel_size), pg.code, pg.face);
            if (g == nullptr || g->plane_a == nullptr)
                continue;
            EXPECT_NE(get_outline_bmp(ctx, uint64_t(pg.pixel_size), pg.code, pg.face), nullptr) << pg.code;
            glyphs++;
        }
    EXPECT_GE(glyphs, 4);
    const frame_pixels p = render_pixels(ctx, 0);
    int red = 0;
    for (size_t i = 0; i < p.y.size(); i++)
        red += p.y[i] == RED.y && p.u[i] == RED.u && p.v[i] == RED.v && p.a[i] == 254;
    EXPECT_GT(red, 100);

    scroll_settings.outlineWidth = 0;
    auto* plain = make_context(640, 60);
    lay_out(plain, "مرحبا");
    const frame_pixels q = render_pixels(plain, 0);
    for (size_t i = 0; i < q.y.size(); i++)
        ASSERT_FALSE(q.u[i] == RED.u && q.v[i] == RED.v && q.a[i] != 0) << "red without an outline at " << i;
}

} // namespace
} // namespace t4test
