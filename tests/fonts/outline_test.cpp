// Outline bitmaps: made with their glyph by the rasteriser, cached like
// glyphs and shadows, and shaped like the glyph grown by the outline width.
#include <cmath>
#include <vector>

#include <gtest/gtest.h>

#include "fonts/font_bmp.h"
#include "fonts/font_test_support.h"
#include "fonts/glyph_cache.h"
#include "fonts/outline.h"
#include "items/scroll_settings.h"

using namespace t4test;

namespace {

using outline_test = glyph_test;

struct pixel_centre {
    double x, y;
};

// Centres of the pixels of `bmp` whose coverage is at least `threshold`, in
// line-box coordinates (the record's offsets applied).
std::vector<pixel_centre> covered(const font_bmp_cache_storage* bmp, int threshold)
{
    std::vector<pixel_centre> out;
    for (int y = 0; y < bmp->height; y++)
        for (int x = 0; x < bmp->width; x++)
            if (bmp->plane_a[y * bmp->stride + x] >= threshold)
                out.push_back({bmp->x_offset + x + 0.5, bmp->y_offset + y + 0.5});
    return out;
}

double nearest(const std::vector<pixel_centre>& set, double x, double y)
{
    double best = 1e9;
    for (const pixel_centre& p : set)
        best = std::min(best, std::hypot(p.x - x, p.y - y));
    return best;
}

// The outline must be the glyph grown by r: opaque wherever the glyph's ink
// (coverage >= 128) is clearly nearer than r, and empty wherever anything of
// the glyph is clearly farther than r. The margins of 1.5 pixels cover the
// anti-aliasing of both bitmaps.
void expect_grown_by(const font_bmp_cache_storage* glyph, const font_bmp_cache_storage* outline, double r)
{
    const std::vector<pixel_centre> ink = covered(glyph, 128);
    const std::vector<pixel_centre> any = covered(glyph, 1);
    ASSERT_FALSE(ink.empty());
    int inside = 0, outside = 0;
    // The whole box the grown glyph may reach, and a margin around it.
    const int x0 = glyph->x_offset - int(r) - 4, x1 = glyph->x_offset + glyph->width + int(r) + 4;
    const int y0 = glyph->y_offset - int(r) - 4, y1 = glyph->y_offset + glyph->height + int(r) + 4;
    for (int y = y0; y < y1; y++)
        for (int x = x0; x < x1; x++) {
            const int ox = x - outline->x_offset, oy = y - outline->y_offset;
            const bool in_box = ox >= 0 && oy >= 0 && ox < outline->width && oy < outline->height;
            const int c = in_box ? outline->plane_a[oy * outline->stride + ox] : 0;
            if (nearest(ink, x + 0.5, y + 0.5) <= r - 1.5) {
                EXPECT_GE(c, 250) << "at " << x << "," << y;
                inside++;
            } else if (nearest(any, x + 0.5, y + 0.5) > r + 1.5) {
                EXPECT_LE(c, 5) << "at " << x << "," << y;
                outside++;
            }
        }
    EXPECT_GT(inside, 100);
    EXPECT_GT(outside, 100);
}

TEST_F(outline_test, without_a_width_there_is_no_outline_and_nothing_is_cached)
{
    EXPECT_EQ(get_outline_bmp(ctx.get(), 60, 'O'), nullptr);
    EXPECT_TRUE(ctx->outline_cache.empty());
    ASSERT_NE(get_font_bmp(ctx.get(), 60, 'O'), nullptr);
    EXPECT_TRUE(ctx->outline_cache.empty());
}

TEST_F(outline_test, the_glyph_leaves_room_for_the_outline_above_and_below)
{
    // Line 100, no shadow, outline 3 px: pixel size 100 - 2 x 3 = 94, and the
    // box is centred: (100 - 94) / 2 + (80 x 94) / 100 = 3 + 75 rows to the baseline.
    ctx->outline_width_64 = 3 * 64;
    const reference_glyph ref = render_reference(LIBERATION_SANS, 'A', 94);
    const font_bmp_cache_storage* a = get_font_bmp(ctx.get(), 100, 'A');
    expect_record_matches(a, ref);
    EXPECT_EQ(a->y_offset, 3 + 75 - ref.top);
    // A fraction of a pixel takes a whole one: 1.5 px leaves 2 each side.
    ctx->clear_bitmap_caches();
    ctx->outline_width_64 = 96;
    expect_record_matches(get_font_bmp(ctx.get(), 100, 'A'), render_reference(LIBERATION_SANS, 'A', 96));
}

TEST_F(outline_test, an_outline_is_made_once_with_its_glyph_and_cleared_with_the_caches)
{
    ctx->outline_width_64 = 4 * 64;
    font_bmp_cache_storage* o = get_outline_bmp(ctx.get(), 60, 'Q');
    ASSERT_NE(o, nullptr);
    EXPECT_EQ(ctx->glyph_cache.size(), 1u); // the glyph was loaded with it
    EXPECT_EQ(get_outline_bmp(ctx.get(), 60, 'Q'), o);
    EXPECT_EQ(ctx->outline_cache.size(), 1u);
    // A glyph loaded first brings its outline along.
    ASSERT_NE(get_font_bmp(ctx.get(), 60, 'W'), nullptr);
    EXPECT_EQ(ctx->outline_cache.size(), 2u);
    EXPECT_EQ(get_outline_bmp(ctx.get(), 60, 'W'), ctx->outline_cache.at({60, 'W'}));
    ctx->clear_bitmap_caches();
    EXPECT_TRUE(ctx->outline_cache.empty());
    EXPECT_TRUE(ctx->glyph_cache.empty());
}

TEST_F(outline_test, the_record_is_coverage_only_and_never_moves_the_pen)
{
    ctx->outline_width_64 = 2 * 64;
    const font_bmp_cache_storage* o = get_outline_bmp(ctx.get(), 60, 'H');
    ASSERT_NE(o, nullptr);
    ASSERT_NE(o->plane_a, nullptr);
    EXPECT_EQ(o->plane_y, nullptr);
    EXPECT_EQ(o->plane_u, nullptr);
    EXPECT_EQ(o->plane_v, nullptr);
    EXPECT_EQ(o->advance, 0);
    EXPECT_GE(o->stride, o->width + 8);
    for (int y = 0; y < o->height; y++)
        for (int x = o->width; x < o->stride; x++)
            EXPECT_EQ(o->plane_a[y * o->stride + x], 0) << "spare byte " << x << " of row " << y;
}

TEST_F(outline_test, outlines_are_their_glyphs_grown_by_the_width)
{
    for (int32_t width_64 : {3 * 64, 96, 6 * 64}) {
        for (int32_t code : {'O', 'A', 'g', 'e'}) {
            SCOPED_TRACE(::testing::Message() << "width " << width_64 << "/64, " << char(code));
            ctx->clear_bitmap_caches();
            ctx->outline_width_64 = width_64;
            const font_bmp_cache_storage* g = get_font_bmp(ctx.get(), 80, code);
            const font_bmp_cache_storage* o = get_outline_bmp(ctx.get(), 80, code);
            ASSERT_NE(g, nullptr);
            ASSERT_NE(o, nullptr);
            expect_grown_by(g, o, width_64 / 64.0);
        }
    }
}

TEST_F(outline_test, spaces_missing_glyphs_and_negative_codes_have_none)
{
    ctx->outline_width_64 = 3 * 64;
    EXPECT_EQ(get_outline_bmp(ctx.get(), 60, -1), nullptr);
    // A space has no contour to stroke: an empty record or none, never pixels.
    const font_bmp_cache_storage* space = get_outline_bmp(ctx.get(), 60, ' ');
    EXPECT_TRUE(space == nullptr || space->plane_a == nullptr);
    // A line height the glyph cache refuses gives no outline either (cached).
    EXPECT_EQ(get_outline_bmp(ctx.get(), 0, 'A'), nullptr);
    EXPECT_EQ(ctx->outline_cache.count({0, 'A'}), 1u);
}

TEST_F(outline_test, stroking_needs_an_outline_glyph_and_a_width)
{
    EXPECT_EQ(stroke_glyph_outline(nullptr, 64, 0), nullptr);
    FT_Face face = open_face(LIBERATION_SANS);
    ASSERT_EQ(FT_Set_Pixel_Sizes(face, 0, 40), 0);
    ASSERT_EQ(FT_Load_Glyph(face, FT_Get_Char_Index(face, 'T'), FT_LOAD_DEFAULT), 0);
    owned_ft_glyph loaded;
    loaded.take_from(face->glyph);
    ASSERT_NE(loaded.get(), nullptr);
    EXPECT_EQ(stroke_glyph_outline(loaded.get(), 0, 30), nullptr);
    font_bmp_cache_storage* o = stroke_glyph_outline(loaded.get(), 128, 30);
    ASSERT_NE(o, nullptr);
    // Placed by the baseline: its top row lies top-bearing rows above it.
    FT_Glyph copy = nullptr;
    ASSERT_EQ(FT_Glyph_Copy(loaded.get(), &copy), 0);
    FT_BBox box;
    FT_Glyph_Get_CBox(copy, FT_GLYPH_BBOX_PIXELS, &box);
    FT_Done_Glyph(copy);
    // The grown box reaches about 2 px above the glyph's top.
    EXPECT_NEAR(o->y_offset, 30 - box.yMax - 2, 1);
    EXPECT_NEAR(o->x_offset, box.xMin - 2, 1);
    font_bmp_free(o);
    // Rendered, the slot holds a bitmap: no outline to stroke.
    ASSERT_EQ(FT_Render_Glyph(face->glyph, FT_RENDER_MODE_NORMAL), 0);
    owned_ft_glyph bitmap;
    bitmap.take_from(face->glyph);
    ASSERT_NE(bitmap.get(), nullptr);
    EXPECT_EQ(stroke_glyph_outline(bitmap.get(), 128, 30), nullptr);
}

} // namespace
