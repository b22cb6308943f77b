// Shadow bitmaps: padding, the running box blur against hand-worked values,
// and the shadow cache.
#include <cstring>
#include <random>

#include <gtest/gtest.h>

#include "fonts/font_bmp.h"
#include "fonts/font_test_support.h"
#include "fonts/glyph_cache.h"
#include "fonts/shadow.h"

using namespace t4test;

namespace {

class shadow_test : public glyph_test {
protected:
    // Puts a hand-made glyph of `rows` into the glyph cache under
    // (line_height, code), so the shadow is made from known pixels.
    font_bmp_cache_storage* put_glyph(uint64_t line_height, int32_t code, const std::vector<std::vector<int>>& rows,
                                      int x_offset = 3, int y_offset = 7)
    {
        font_bmp_cache_storage* g = font_bmp_alloc();
        g->height = int32_t(rows.size());
        g->width = rows.empty() ? 0 : int32_t(rows[0].size());
        g->stride = g->width + 8;
        g->advance = 11;
        g->x_offset = x_offset;
        g->y_offset = y_offset;
        if (g->height > 0) {
            g->plane_a = font_bmp_zeroed_plane(g->stride, g->height);
            // Spare bytes that must not leak into the shadow.
            std::memset(g->plane_a, 0x77, size_t(g->stride) * g->height);
            for (int y = 0; y < g->height; y++)
                for (int x = 0; x < g->width; x++)
                    g->plane_a[y * g->stride + x] = uint8_t(rows[size_t(y)][size_t(x)]);
        }
        ctx->glyph_cache[{line_height, code}] = g;
        return g;
    }
    static std::vector<std::vector<int>> pixels(const font_bmp_cache_storage* s)
    {
        std::vector<std::vector<int>> out(size_t(s->height), std::vector<int>(size_t(s->width)));
        for (int y = 0; y < s->height; y++)
            for (int x = 0; x < s->width; x++)
                out[size_t(y)][size_t(x)] = s->plane_a[y * s->stride + x];
        return out;
    }
};

TEST_F(shadow_test, radius_zero_is_the_glyph_record_itself)
{
    font_bmp_cache_storage* g = get_font_bmp(ctx.get(), 50, 'A');
    ASSERT_NE(g, nullptr);
    EXPECT_EQ(get_shadow_bmp(ctx.get(), 50, 'A'), g);
    EXPECT_TRUE(ctx->shadow_cache.empty());
}

TEST_F(shadow_test, one_by_one_opaque_glyph_at_radius_two_has_28_in_its_centre)
{
    // Horizontal pass on the middle row [0 0 255 0 0]: outputs k = 0..3 are
    // (row[k-1] + row[k] + row[k+1]) / 3 = 0, 85, 85, 85; column 4 is left.
    // Vertical pass on [0 0 85 0 0] in columns 1..3: 0, 28, 28, 28, and row 4
    // is left. So 85 / 3 = 28 in a 3 x 3 block around the centre.
    put_glyph(100, 'x', {{255}});
    ctx->shadow_blur_radius = 2;
    font_bmp_cache_storage* s = get_shadow_bmp(ctx.get(), 100, 'x');
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->width, 5);
    EXPECT_EQ(s->height, 5);
    EXPECT_EQ(s->stride, 13);
    EXPECT_EQ(s->advance, 11);
    EXPECT_EQ(s->x_offset, 3 - 2);
    EXPECT_EQ(s->y_offset, 7 - 2);
    EXPECT_EQ(s->tag, -1);
    EXPECT_EQ(s->plane_y, nullptr);
    EXPECT_EQ(s->plane_a[2 * 13 + 2], 28);
    const std::vector<std::vector<int>> expected = {
        {0, 0, 0, 0, 0},
        {0, 28, 28, 28, 0},
        {0, 28, 28, 28, 0},
        {0, 28, 28, 28, 0},
        {0, 0, 0, 0, 0},
    };
    EXPECT_EQ(pixels(s), expected);
}

TEST_F(shadow_test, radius_one_averages_each_pixel_with_the_next)
{
    // r = 1: length 2, look-ahead 1, output k = (row[k] + row[k+1]) / 2.
    // Padded middle row [0 100 200 50 255 0]:
    //   (0+100)/2 = 50, (100+200)/2 = 150, (200+50)/2 = 125, (50+255)/2 = 152,
    //   (255+0)/2 = 127, last column left as 0.
    // Vertically each column is [0 v 0]: (0+v)/2, (v+0)/2, last row left 0.
    put_glyph(100, 'y', {{100, 200, 50, 255}});
    ctx->shadow_blur_radius = 1;
    font_bmp_cache_storage* s = get_shadow_bmp(ctx.get(), 100, 'y');
    ASSERT_NE(s, nullptr);
    const std::vector<std::vector<int>> expected = {
        {25, 75, 62, 76, 63, 0},
        {25, 75, 62, 76, 63, 0},
        {0, 0, 0, 0, 0, 0},
    };
    EXPECT_EQ(pixels(s), expected);
}

TEST_F(shadow_test, radius_two_averages_three_neighbours)
{
    // r = 2 on a row [0 0 30 60 90 0 0]: (a+b+c)/3 centred: k=0: (0+0+0)/3,
    // k=1: (0+0+30)/3 = 10, k=2: (0+30+60)/3 = 30, k=3: 60, k=4: (60+90+0)/3 = 50,
    // k=5: (90+0+0)/3 = 30, k=6 left (0).
    // Vertically each column holds only its middle value v (row 2 of 5):
    // rows 1..3 get v/3, row 0 and 4 get 0 (row 4 is left).
    put_glyph(100, 'z', {{30, 60, 90}});
    ctx->shadow_blur_radius = 2;
    font_bmp_cache_storage* s = get_shadow_bmp(ctx.get(), 100, 'z');
    ASSERT_NE(s, nullptr);
    const std::vector<int> mid = {0, 3, 10, 20, 16, 10, 0};
    const std::vector<std::vector<int>> expected = {std::vector<int>(7, 0), mid, mid, mid, std::vector<int>(7, 0)};
    EXPECT_EQ(pixels(s), expected);
}

TEST_F(shadow_test, radius_three_looks_ahead_two_and_back_one)
{
    // r = 3: length 4, look-ahead 2: output k = (row[k-1] .. row[k+2]) / 4.
    // A 1 x 1 glyph at 255 in a 7 x 7 record at (3, 3):
    //   row 3 -> k = 1..4 see it: 255 / 4 = 63; k = 0 does not; columns 5, 6
    //   are left (0).
    //   each of columns 1..4 -> [0 0 0 63 0 0 0] -> rows 1..4: 63 / 4 = 15.
    put_glyph(100, 'w', {{255}});
    ctx->shadow_blur_radius = 3;
    font_bmp_cache_storage* s = get_shadow_bmp(ctx.get(), 100, 'w');
    ASSERT_NE(s, nullptr);
    const std::vector<int> row = {0, 15, 15, 15, 15, 0, 0};
    const std::vector<int> zero(7, 0);
    const std::vector<std::vector<int>> expected = {zero, row, row, row, row, zero, zero};
    EXPECT_EQ(pixels(s), expected);
}

TEST_F(shadow_test, the_last_columns_keep_their_values)
{
    // Called on a bare plane: with r = 4 (look-ahead 2) the last two columns
    // of a row are not written, and keep what they hold.
    uint8_t row[6 + 8] = {40, 40, 40, 40, 40, 40};
    shadow_box_blur(row, 6, 1, 14, 4);
    // Vertical pass on one row: length 1, no output written. Horizontal:
    // k = 0: (0+0+40+40+40)/5 = 24; k = 1: (0+40*4)/5 = 32; k = 2: (40*5)/5 = 40;
    // k = 3: 40; columns 4, 5 left at 40.
    const uint8_t expected[6] = {24, 32, 40, 40, 40, 40};
    EXPECT_EQ(std::memcmp(row, expected, 6), 0);
}

TEST_F(shadow_test, radius_65_gives_a_cached_null)
{
    put_glyph(100, 'x', {{255}});
    ctx->shadow_blur_radius = 65;
    EXPECT_EQ(get_shadow_bmp(ctx.get(), 100, 'x'), nullptr);
    ASSERT_EQ(ctx->shadow_cache.count({100, 'x'}), 1u);
    EXPECT_EQ(ctx->shadow_cache.at({100, 'x'}), nullptr);
}

TEST_F(shadow_test, radius_64_pads_by_64_on_every_side)
{
    font_bmp_cache_storage* g = get_font_bmp(ctx.get(), 200, 'M');
    ASSERT_NE(g, nullptr);
    ctx->shadow_blur_radius = 64;
    font_bmp_cache_storage* s = get_shadow_bmp(ctx.get(), 200, 'M');
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->width, g->width + 128);
    EXPECT_EQ(s->height, g->height + 128);
    EXPECT_EQ(s->stride, s->width + 8);
    EXPECT_EQ(s->x_offset, g->x_offset - 64);
    EXPECT_EQ(s->y_offset, g->y_offset - 64);
    EXPECT_EQ(s->advance, g->advance);
}

TEST_F(shadow_test, a_space_gives_a_zero_record_of_twice_the_radius)
{
    ctx->shadow_blur_radius = 5;
    font_bmp_cache_storage* s = get_shadow_bmp(ctx.get(), 100, ' ');
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->width, 10);
    EXPECT_EQ(s->height, 10);
    ASSERT_NE(s->plane_a, nullptr);
    for (int i = 0; i < s->stride * s->height + 256; i++)
        ASSERT_EQ(s->plane_a[i], 0);
}

TEST_F(shadow_test, negative_characters_and_missing_glyphs)
{
    ctx->shadow_blur_radius = 2;
    EXPECT_EQ(get_shadow_bmp(ctx.get(), 100, -5), nullptr);
    EXPECT_TRUE(ctx->shadow_cache.empty());
    // No glyph (a line height the glyph cache refuses): a cached null.
    EXPECT_EQ(get_shadow_bmp(ctx.get(), 4000, 'A'), nullptr);
    EXPECT_EQ(ctx->shadow_cache.at({4000, 'A'}), nullptr);
}

TEST_F(shadow_test, shadows_are_made_once_and_cached)
{
    ctx->shadow_blur_radius = 3;
    font_bmp_cache_storage* s = get_shadow_bmp(ctx.get(), 60, 'Q');
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(get_shadow_bmp(ctx.get(), 60, 'Q'), s);
    EXPECT_EQ(ctx->shadow_cache.size(), 1u);
    ctx->clear_bitmap_caches();
    EXPECT_TRUE(ctx->shadow_cache.empty());
    EXPECT_TRUE(ctx->glyph_cache.empty());
}

// The filter as its definition reads: the mean of r + 1 inputs from
// k - (r - h) to k + h (zero before the start), truncated, for all but the
// last max(h, 1) positions; rows first, then columns of the result.
std::vector<uint8_t> blur_by_definition(std::vector<uint8_t> plane, int w, int h, int stride, int r)
{
    const int look = (r + 1) / 2;
    const int keep = std::max(look, 1);
    auto line = [&](int count, auto get, auto set) {
        std::vector<int> in(static_cast<size_t>(count));
        for (int i = 0; i < count; i++)
            in[size_t(i)] = get(i);
        for (int k = 0; k + keep < count; k++) {
            int sum = 0;
            for (int i = k - (r - look); i <= k + look; i++)
                sum += i >= 0 ? in[size_t(i)] : 0;
            set(k, sum / (r + 1));
        }
    };
    for (int y = 0; y < h; y++)
        line(w, [&](int i) { return plane[size_t(y * stride + i)]; },
             [&](int k, int v) { plane[size_t(y * stride + k)] = uint8_t(v); });
    for (int x = 0; x < w; x++)
        line(h, [&](int i) { return plane[size_t(i * stride + x)]; },
             [&](int k, int v) { plane[size_t(k * stride + x)] = uint8_t(v); });
    return plane;
}

TEST_F(shadow_test, real_glyph_shadows_follow_the_filter_definition)
{
    for (int r : {1, 2, 3, 4, 7, 16, 33, 64}) {
        SCOPED_TRACE(r);
        ctx->clear_bitmap_caches();
        ctx->shadow_blur_radius = r;
        font_bmp_cache_storage* g = get_font_bmp(ctx.get(), 120, '&');
        font_bmp_cache_storage* s = get_shadow_bmp(ctx.get(), 120, '&');
        ASSERT_NE(g, nullptr);
        ASSERT_NE(s, nullptr);
        std::vector<uint8_t> padded(size_t(s->stride) * s->height, 0);
        for (int y = 0; y < g->height; y++)
            std::memcpy(&padded[size_t((y + r) * s->stride + r)], g->plane_a + y * g->stride, size_t(g->width));
        const std::vector<uint8_t> expected = blur_by_definition(padded, s->width, s->height, s->stride, r);
        ASSERT_EQ(std::memcmp(s->plane_a, expected.data(), expected.size()), 0);
    }
}

TEST(shadow_divide_test, every_window_sum_divides_exactly)
{
    // The blur divides window sums of up to 65 x 255 by r + 1 without a
    // division instruction. On one row with the window 0..r at output
    // k = r - h, that output must be the plain quotient for every sum.
    for (int r = 1; r <= 64; r++) {
        const int look = (r + 1) / 2;
        const int length = r + 1 + std::max(look, 1);
        for (int total = 0; total <= (r + 1) * 255; total++) {
            std::vector<uint8_t> row(size_t(length) + 8, 0);
            int left = total;
            for (int i = 0; i <= r; i++) {
                row[size_t(i)] = uint8_t(std::min(left, 255));
                left -= row[size_t(i)];
            }
            shadow_box_blur(row.data(), length, 1, int(row.size()), r);
            ASSERT_EQ(row[size_t(r - look)], total / (r + 1)) << "r " << r << " sum " << total;
        }
    }
}

TEST(shadow_blur_test, the_fast_blur_matches_the_reference_byte_for_byte)
{
    // Sizes around the 8-row and 16-column blocks, every radius, random
    // content (including the spare bytes, which neither may touch).
    std::mt19937 random(7);
    for (const auto& [w, h] : std::vector<std::pair<int, int>>{{2, 2}, {7, 9}, {16, 8}, {17, 23}, {40, 33}, {130, 131}})
        for (int r = 1; r <= 64; r++) {
            if (w < 2 * r && h < 2 * r && r > 8)
                continue; // shadows are at least 2r each way; a few small cases are enough
            const int stride = w + 8;
            std::vector<uint8_t> fast(size_t(stride) * h);
            for (auto& b : fast)
                b = uint8_t(random());
            std::vector<uint8_t> reference = fast;
            shadow_box_blur(fast.data(), w, h, stride, r);
            shadow_box_blur_reference(reference.data(), w, h, stride, r);
            ASSERT_EQ(fast, reference) << w << "x" << h << " r " << r;
        }
}

using shadow_death_test = glyph_test;

TEST_F(shadow_death_test, a_negative_radius_aborts)
{
    ctx->shadow_blur_radius = -1;
    EXPECT_DEATH(get_shadow_bmp(ctx.get(), 100, 'A'), "Assertion `shadow_blur_radius >= 0' failed\\.");
}

} // namespace
