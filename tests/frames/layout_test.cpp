// Text timing and layout: line counting, line starts in both modes, the
// placement of glyphs along the strip, the cycle length and the motion.
//
// Glyph advances and kerning come from the glyph records and the kerning
// query of the real faces (Liberation Sans from the fixed root); positions
// are then added up by hand here, the way the strip is built.
#include <gtest/gtest.h>
#include <gmock/gmock.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "fonts/font_bmp.h"
#include "fonts/font_catalogue.h"
#include "frames/compose_fixture.h"
#include "frames/reader.h"
#include "items/scroll_settings.h"
#include "platform/video_frame.h"
#include "support/test_env.h"

namespace t4test {
namespace {

class Layout : public compose_test {
protected:
    // Left x of every character of one line that starts at `start`:
    // x = pen + kern(previous, c), then pen = x + advance(c).
    std::vector<uint64_t> pen_positions(scrolling_text_client_context* ctx, const std::u32string& line,
                                        uint64_t start, uint64_t* end = nullptr)
    {
        std::vector<uint64_t> xs;
        uint64_t pen = start;
        int32_t previous = 0;
        for (char32_t c : line) {
            const int32_t k = previous == 0 ? 0 : kerning_between(ctx, previous, int32_t(c));
            xs.push_back(pen + uint64_t(int64_t(k)));
            pen += uint64_t(int64_t(k) + glyph(ctx, int32_t(c))->advance);
            previous = int32_t(c);
        }
        if (end != nullptr)
            *end = pen;
        return xs;
    }
    uint64_t width_of(scrolling_text_client_context* ctx, const std::u32string& line)
    {
        uint64_t end = 0;
        pen_positions(ctx, line, 0, &end);
        return end;
    }
    // The keys of the placements, in order.
    static std::vector<uint64_t> keys(const scrolling_text_client_context* ctx)
    {
        std::vector<uint64_t> k;
        for (const auto& [x, glyphs] : ctx->glyph_placements)
            k.push_back(x);
        return k;
    }
};

TEST_F(Layout, LineCountFromTheText)
{
    scroll_settings.multiLine = 0;
    auto* ctx = make_context(320, 120);
    lay_out(ctx, "A\nB");
    EXPECT_EQ(line_count, 2);
    lay_out(ctx, "A\n"); // a trailing line feed adds no line
    EXPECT_EQ(line_count, 1);
    lay_out(ctx, "A\n\nB"); // the empty line counts
    EXPECT_EQ(line_count, 3);
    lay_out(ctx, "");
    EXPECT_EQ(line_count, 1);
    // Scrolling: the tallest paragraph.
    lay_out(ctx, "A\nB\x1f" "C");
    EXPECT_EQ(line_count, 2);
    lay_out(ctx, "A\x1f" "B\nC\nD");
    EXPECT_EQ(line_count, 3);
    // Static: only the first paragraph.
    scroll_settings.scrollSpeed = 0;
    lay_out(ctx, "A\x1f" "B\nC\nD");
    EXPECT_EQ(line_count, 1);
    // A multiLine setting of 1 or more is taken as it is.
    scroll_settings.multiLine = 4;
    lay_out(ctx, "A");
    EXPECT_EQ(line_count, 4);
}

TEST_F(Layout, LinesOfTheTextShareTheStartAndStackDown)
{
    scroll_settings.multiLine = 0;
    auto* ctx = make_context(320, 120);
    lay_out(ctx, "A\nB");
    // Two lines of 60: both start at W = 320, the second one 120 * 1 / 2 = 60 down.
    ASSERT_EQ(keys(ctx), (std::vector<uint64_t>{320}));
    const auto& glyphs = ctx->glyph_placements.at(320);
    ASSERT_EQ(glyphs.size(), 2u);
    EXPECT_EQ(glyphs[0].code, 'A');
    EXPECT_EQ(glyphs[0].line_top, 0);
    EXPECT_EQ(glyphs[0].pixel_size, 60);
    EXPECT_EQ(glyphs[1].code, 'B');
    EXPECT_EQ(glyphs[1].line_top, 60);
    EXPECT_EQ(ctx->placement_count, 1u);
}

TEST_F(Layout, EmptyTextScrollsItsGapOnly)
{
    // 1920 x 108 at 30000/1001 and speed 1: v = 108 px/s,
    // p = 108 * 1001 / 30000 = 3.6036 px, scroll_step = trunc(3.6036 * 4096)
    // = trunc(14760.35) = 14760; cycle = round(1920 * 1) = 1920;
    // item length = 1920 * 4096 / 14760 = 532.8 -> 532 frames.
    auto* ctx = make_context(1920, 108, 30000, 1001);
    lay_out(ctx, "");
    EXPECT_EQ(line_count, 1);
    EXPECT_EQ(ctx->placement_count, 0u);
    EXPECT_TRUE(ctx->glyph_placements.empty());
    EXPECT_EQ(ctx->cycle_length, 1920u);
    EXPECT_EQ(ctx->scroll_step, 14760u);
    EXPECT_EQ(ctx->frames_per_step, 1u);
    EXPECT_EQ(ctx->item_length, 532u);
    // space 1.5: 1920 + round(0.5 * 1920) = 2880; 2880 * 4096 / 14760 = 799.2.
    scroll_settings.space = 1.5;
    lay_out(ctx, "");
    EXPECT_EQ(ctx->cycle_length, 2880u);
    EXPECT_EQ(ctx->item_length, 799u);
}

TEST_F(Layout, SingleLineTurnsALineFeedIntoASpace)
{
    scroll_settings.multiLine = 1;
    auto* ctx = make_context(320, 40);
    lay_out(ctx, "A\nB");
    EXPECT_EQ(line_count, 1);
    uint64_t end = 0;
    const std::vector<uint64_t> xs = pen_positions(ctx, U"A B", 320, &end);
    // A and B on one line with the space's advance (and kerning) between
    // them; the line feed itself is not placed.
    EXPECT_EQ(keys(ctx), (std::vector<uint64_t>{xs[0], xs[2]}));
    EXPECT_EQ(placed_text(ctx), U"AB");
    EXPECT_EQ(ctx->placement_count, 2u);
    EXPECT_EQ(ctx->cycle_length, end);
    // The space was looked up (and so cached) at the line height.
    EXPECT_TRUE(ctx->glyph_cache.count({40, ' '}));
}

TEST_F(Layout, ParagraphsFollowOneGapAfterTheLongestLine)
{
    scroll_settings.multiLine = 0;
    scroll_settings.space = 0.5; // gap round(400 * 0.5) = 200
    auto* ctx = make_context(400, 80);
    lay_out(ctx, "AB\nC\x1fZ");
    ASSERT_EQ(line_count, 2);
    uint64_t end_ab = 0, end_c = 0, end_z = 0;
    const auto ab = pen_positions(ctx, U"AB", 200, &end_ab);
    const auto c = pen_positions(ctx, U"C", 200, &end_c);
    const uint64_t next = std::max(end_ab, end_c) + 200;
    const auto z = pen_positions(ctx, U"Z", next, &end_z);
    EXPECT_EQ(ctx->glyph_placements.at(ab[1])[0].code, 'B');
    EXPECT_EQ(ctx->glyph_placements.at(z[0])[0].code, 'Z');
    EXPECT_EQ(ctx->glyph_placements.at(z[0])[0].line_top, 0); // back on the first line
    EXPECT_EQ(ctx->cycle_length, end_z);
}

TEST_F(Layout, StaticLineWiderThanThePictureIsSqueezed)
{
    scroll_settings.scrollSpeed = 0;
    auto* ctx = make_context(200, 50);
    const std::u32string text = U"Squeeze this line, it is too wide";
    lay_out(ctx, "Squeeze this line, it is too wide");
    uint64_t M = 0;
    const std::vector<uint64_t> xs = pen_positions(ctx, text, 0, &M);
    ASSERT_GT(M, 200u);
    const uint64_t h_scale = 200 * 256 / M;
    EXPECT_EQ(ctx->h_scale, h_scale);
    // Every key is the pen position squeezed: (h_scale * x) >> 8.
    std::vector<uint64_t> expected;
    for (uint64_t x : xs) {
        const uint64_t key = (h_scale * x) >> 8;
        if (expected.empty() || expected.back() != key)
            expected.push_back(key);
    }
    EXPECT_EQ(keys(ctx), expected);
    EXPECT_EQ(ctx->scroll_step, 0u);
    EXPECT_EQ(ctx->frames_per_step, 1u);
    EXPECT_EQ(ctx->item_length, 1u);
}

TEST_F(Layout, StaticCentreAndRightJustify)
{
    scroll_settings.scrollSpeed = 0;
    scroll_settings.multiLine = 0;
    auto* ctx = make_context(400, 100);
    // Narrower than the picture: no squeeze, T = 400 * 256 / 256 = 400.
    scroll_settings.justify = 1;
    lay_out(ctx, "Hi\nWide line");
    const uint64_t w1 = width_of(ctx, U"Hi"), w2 = width_of(ctx, U"Wide line");
    ASSERT_LT(w2, 400u);
    EXPECT_EQ(ctx->h_scale, 256u);
    EXPECT_EQ(ctx->glyph_placements.at((400 - w1) / 2)[0].code, 'H');
    EXPECT_EQ(ctx->glyph_placements.at((400 - w2) / 2)[0].code, 'W');
    EXPECT_EQ(ctx->glyph_placements.at((400 - w2) / 2)[0].line_top, 50);
    scroll_settings.justify = 2;
    lay_out(ctx, "Hi\nWide line");
    EXPECT_EQ(ctx->glyph_placements.at(400 - w1)[0].code, 'H');
    EXPECT_EQ(ctx->glyph_placements.at(400 - w2)[0].code, 'W');
    scroll_settings.justify = 0;
    lay_out(ctx, "Hi\nWide line");
    ASSERT_EQ(ctx->glyph_placements.at(0).size(), 2u); // both lines at x 0
}

TEST_F(Layout, RightJustifyIsFlooredAtZero)
{
    // A 1-pixel picture and a line far wider than 256 pixels: h_scale 1,
    // T = 1 * 256 / 1 = 256 < w, so the right-justified start is 0.
    scroll_settings.scrollSpeed = 0;
    scroll_settings.justify = 2;
    auto* ctx = make_context(1, 100);
    lay_out(ctx, "Wide line");
    const uint64_t w = width_of(ctx, U"Wide line");
    ASSERT_GT(w, 256u);
    EXPECT_EQ(ctx->h_scale, 1u);
    EXPECT_EQ(keys(ctx).front(), 0u);
    // Centre works on unsigned values: (256 - w) wraps, then is halved.
    scroll_settings.justify = 1;
    lay_out(ctx, "Wide line");
    EXPECT_EQ(keys(ctx).front(), ((uint64_t(256) - w) >> 1) >> 8);
}

TEST_F(Layout, SmoothScrollBelowOnePixelMovesEveryFewFrames)
{
    // H 40, speed 0.25: v = 10 px/s; at 25 frames/s p = 0.4 px/frame;
    // frames_per_step = round(1 / 0.4) = round(2.5) = 3, one whole pixel a step.
    scroll_settings.smoothScroll = 1;
    scroll_settings.scrollSpeed = 0.25;
    auto* ctx = make_context(320, 40, 25, 1);
    lay_out(ctx, "Hi");
    EXPECT_EQ(ctx->frames_per_step, 3u);
    EXPECT_EQ(ctx->scroll_step, 4096u);
    // One cycle: cycle_length steps of 3 frames.
    EXPECT_EQ(ctx->item_length, ctx->cycle_length * 3);
}

TEST_F(Layout, SmoothScrollRoundsWholePixelsHalfUp)
{
    // H 40, speed 1.5625: v = 62.5 px/s, p = 2.5 px/frame -> 3 px:
    // (trunc(2.5 * 4096) + 2048) with the low 12 bits cleared = 12288.
    scroll_settings.smoothScroll = 1;
    scroll_settings.scrollSpeed = 1.5625;
    auto* ctx = make_context(320, 40, 25, 1);
    lay_out(ctx, "Hi");
    EXPECT_EQ(ctx->scroll_step, 3u * 4096u);
    EXPECT_EQ(ctx->frames_per_step, 1u);
    // Without smoothing the fraction stays: 2.5 * 4096 = 10240.
    scroll_settings.smoothScroll = 0.4;
    lay_out(ctx, "Hi");
    EXPECT_EQ(ctx->scroll_step, 10240u);
}

TEST_F(Layout, ScrollTimeIsTheTimeOfOneCycle)
{
    // 10 s at 25 frames/s: v = cycle / 10, p = cycle / 250 px/frame, so one
    // cycle lasts about 250 frames (a little more for the truncated step).
    scroll_settings.scrollTime = 10;
    auto* ctx = make_context(640, 50, 25, 1);
    lay_out(ctx, "Ten seconds a pass");
    const double exact_step = double(ctx->cycle_length) * 4096.0 / 250.0;
    EXPECT_LE(double(ctx->scroll_step), exact_step);
    EXPECT_GT(double(ctx->scroll_step), exact_step - 1.0);
    EXPECT_GE(ctx->item_length, 250u);
    EXPECT_LE(ctx->item_length, 251u);
}

TEST_F(Layout, SpaceNoneStartsAtTheLeftEdgeWithoutGap)
{
    scroll_settings.space = 0;
    auto* ctx = make_context(640, 50);
    lay_out(ctx, "No gap");
    uint64_t end = 0;
    const auto xs = pen_positions(ctx, U"No gap", 0, &end);
    EXPECT_EQ(keys(ctx).front(), 0u);
    EXPECT_EQ(keys(ctx), xs);
    EXPECT_EQ(ctx->cycle_length, end); // the next repetition follows at once
    // Frame 0 (offset 0) shows the 'N' at the left edge, at its left offset.
    const font_bmp_cache_storage* n = glyph(ctx, 'N');
    const frame_pixels p = render_pixels(ctx, 0);
    int covered = 0;
    for (int row = 0; row < n->height; row++)
        for (int col = 0; col < n->width; col++) {
            const unsigned c = n->plane_a[size_t(row) * size_t(n->stride) + size_t(col)];
            if (c != 0 && n->x_offset + col >= 0) {
                EXPECT_EQ(p.a[p.at(uint32_t(n->x_offset + col), uint32_t(n->y_offset + row))], source_alpha(c, 255));
                covered++;
            }
        }
    EXPECT_GT(covered, 50);
}

TEST_F(Layout, SpaceOneAndAHalfAddsHalfAPictureAfterTheText)
{
    // W 1920: the line starts at round(1920 * min(1.5, 1)) = 1920, and
    // round(0.5 * 1920) = 960 more pixels follow the text.
    scroll_settings.space = 1.5;
    auto* ctx = make_context(1920, 108);
    lay_out(ctx, "Gap");
    uint64_t end = 0;
    const auto xs = pen_positions(ctx, U"Gap", 1920, &end);
    EXPECT_EQ(keys(ctx).front(), 1920u);
    EXPECT_EQ(keys(ctx), xs);
    EXPECT_EQ(ctx->cycle_length, end + 960);
}

TEST_F(Layout, ShadowMetricsAreFractionsOfTheLineRounded)
{
    auto* ctx = make_context(640, 108);
    scroll_settings.shadowBlur = 0.02;  // 2.16 -> 2
    scroll_settings.shadowX = 0.03;     // 3.24 -> 3
    scroll_settings.shadowY = -0.05;    // floor(-5.4 + 0.5) = -5
    lay_out(ctx, "S");
    EXPECT_EQ(ctx->shadow_blur_radius, 2);
    EXPECT_EQ(ctx->shadow_offset_x, 3);
    EXPECT_EQ(ctx->shadow_offset_y, -5);
    // Halves round up: 12.5 -> 13 and -12.5 -> -12. Two lines of 100 here.
    scroll_settings.multiLine = 2;
    auto* two = make_context(640, 200);
    scroll_settings.shadowX = 0.125;
    scroll_settings.shadowY = -0.125;
    lay_out(two, "S");
    EXPECT_EQ(two->shadow_offset_x, 13);
    EXPECT_EQ(two->shadow_offset_y, -12);
    // Deliberate: a negative blur setting means no blur rather than an abort.
    scroll_settings.shadowBlur = -0.02;
    lay_out(two, "S");
    EXPECT_EQ(two->shadow_blur_radius, 0);
}

TEST_F(Layout, NonSquarePixelsScaleTheSpeed)
{
    // 720 x 480 at 4:3: f = 720 / (4 * 480 / 3) = 1.125, v = 1.125 * 480 =
    // 540 px/s, p = 21.6 px/frame at 25 frames/s, step trunc(88473.6) = 88473.
    auto* ctx = make_context(720, 480, 25, 1, 4, 3);
    lay_out(ctx, "Aspect");
    EXPECT_EQ(ctx->scroll_step, 88473u);
}

TEST_F(Layout, EveryRunStartsAfresh)
{
    auto* ctx = make_context(320, 40);
    lay_out(ctx, "One");
    const uint64_t generation = ctx->layout_generation;
    ASSERT_TRUE(ctx->glyph_cache.count({40, 'O'}));
    // Frames from the old layout: the one nobody holds goes, the held one stays.
    t4mi_video_frame* unused = render(ctx, 5);
    t4mi_video_frame* held = render(ctx, 6);
    ASSERT_NE(unused, nullptr);
    ASSERT_NE(held, nullptr);
    held->refcount = 1;
    ctx->text_dirty = true;
    ctx->feed_dirty = true;
    lay_out(ctx, "Two");
    EXPECT_EQ(ctx->layout_generation, generation + 1);
    EXPECT_FALSE(ctx->text_dirty);
    EXPECT_FALSE(ctx->feed_dirty);
    EXPECT_FALSE(ctx->glyph_cache.count({40, 'O'})); // the caches were cleared
    EXPECT_TRUE(ctx->glyph_cache.count({40, 'T'}));
    EXPECT_TRUE(ctx->shadow_cache.empty());
    EXPECT_EQ(ctx->reader->frame_manager.find_frame(5, 0), nullptr);
    EXPECT_EQ(ctx->reader->frame_manager.find_frame(6, 0), held);
    held->refcount = 0;
}

TEST_F(Layout, NeedsTheReader)
{
    const process_result r = run_in_child([] {
        scrolling_text_client_context ctx(1);
        ctx.recompute_text_times();
    });
    EXPECT_NE(r.signal, 0);
    EXPECT_THAT(r.err, ::testing::HasSubstr(
                           "t4mi_scrolltext: void scrolling_text_client_context::recompute_text_times(): "
                           "Assertion `reader != NULL' failed.\n"));
}

} // namespace
} // namespace t4test

namespace t4test {
namespace {

TEST_F(Layout, SettingsThatParseAsNanOrInfinityStayDefined)
{
    // strtod reads "nan" and "inf": the layout must not turn them into undefined conversions.
    auto* ctx = make_context(1920, 108, 30000, 1001);
    scroll_settings.space = std::nan("");
    scroll_settings.shadowBlur = std::numeric_limits<double>::infinity();
    scroll_settings.shadowX = std::nan("");
    lay_out(ctx, "AB");
    EXPECT_EQ(ctx->shadow_offset_x, 0);
    EXPECT_EQ(ctx->placement_count, 2u);
    scroll_settings.space = std::numeric_limits<double>::infinity();
    scroll_settings.shadowBlur = 0.02;
    lay_out(ctx, "AB");
    EXPECT_EQ(ctx->placement_count, 2u);
}

} // namespace
} // namespace t4test
