// -scrollDirection=right: the text enters on the left and moves right, with
// the same timing as scrolling left, every position the mirror image of the
// left-scrolling one, and the paragraphs entering in reading order.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fonts/font_bmp.h"
#include "frames/compose_fixture.h"
#include "frames/layout.h"
#include "frames/reader.h"
#include "items/scroll_settings.h"

namespace t4test {
namespace {

class ScrollDirection : public compose_test {
protected:
    // The left-scrolling offset of frame n, by the position rule.
    static uint64_t left_offset(const scrolling_text_client_context* ctx, uint64_t n)
    {
        return (((ctx->scroll_step * n) >> 12) / ctx->frames_per_step) % ctx->cycle_length;
    }
    // x modulo the cycle, in [0, C).
    static int64_t wrap(int64_t x, uint64_t cycle)
    {
        const int64_t C = int64_t(cycle);
        return ((x % C) + C) % C;
    }
    // The columns of the frame that hold any alpha.
    static std::vector<uint32_t> inked_columns(const frame_pixels& p)
    {
        std::vector<uint32_t> cols;
        for (uint32_t x = 0; x < p.width; x++)
            for (uint32_t y = 0; y < p.height; y++)
                if (p.a[p.at(x, y)] != 0) {
                    cols.push_back(x);
                    break;
                }
        return cols;
    }
};

TEST_F(ScrollDirection, AGlyphsPositionMirrorsTheLeftScrollingCase)
{
    // 640 x 50 at 25 frames a second, speed 1: 50 / 25 = 2 px a frame.
    auto* left = make_context(640, 50);
    lay_out(left, "I");
    scroll_settings.scrollDirection = scroll_direction_right;
    auto* right = make_context(640, 50);
    lay_out(right, "I");
    ASSERT_FALSE(left->scrolls_right);
    ASSERT_TRUE(right->scrolls_right);

    const int64_t W = 640;
    const int64_t a = glyph(left, 'I')->advance;
    const uint64_t C = left->cycle_length;
    ASSERT_EQ(C, uint64_t(W + a)); // the gap of one picture, then the glyph
    ASSERT_EQ(left->scroll_step, 2u * 4096);
    ASSERT_EQ(right->glyph_placements.begin()->first, uint64_t(W));
    for (uint64_t n : {0ull, 1ull, 7ull, 160ull, 319ull, 320ull, 330ull, 1000ull, 123457ull}) {
        SCOPED_TRACE(n);
        // Scrolling left the glyph's cell starts at x_L; scrolling right its
        // cell must be the mirror image: W - x_L - advance.
        const int64_t x_left = W - int64_t(left_offset(left, n));
        const int64_t x_right = W - int64_t(strip_offset(*right, n));
        EXPECT_EQ(wrap(x_right, C), wrap(W - x_left - a, C));
    }
}

TEST_F(ScrollDirection, TheRenderedGlyphStandsWhereTheMirrorSays)
{
    auto* ctx = make_context(640, 50);
    scroll_settings.scrollDirection = scroll_direction_right;
    lay_out(ctx, "I");
    const font_bmp_cache_storage* g = glyph(ctx, 'I');
    const int64_t a = g->advance;
    // Frame 0: the glyph's cell ends at the left edge, nothing is visible.
    EXPECT_TRUE(inked_columns(render_pixels(ctx, 0)).empty());
    // Frame 100: offset 200 scrolling left puts the cell at 440; mirrored
    // it is at 640 - 440 - a = 200 - a, and the ink at that plus the bearing.
    const std::vector<uint32_t> cols = inked_columns(render_pixels(ctx, 100));
    ASSERT_FALSE(cols.empty());
    EXPECT_EQ(int64_t(cols.front()), 200 - a + g->x_offset);
    EXPECT_EQ(int64_t(cols.back()), 200 - a + g->x_offset + g->width - 1);
}

TEST_F(ScrollDirection, TheTextEntersOnTheLeftAndMovesRight)
{
    // Space 0.5: scrolling left the text starts half-way at frame 0; scrolling
    // right it ends half-way, and 10 frames later 20 pixels further right.
    scroll_settings.space = 0.5;
    scroll_settings.scrollDirection = scroll_direction_right;
    auto* ctx = make_context(640, 50);
    lay_out(ctx, "Hello");
    const font_bmp_cache_storage* o = glyph(ctx, 'o');
    const int64_t o_right = o->x_offset + o->width - o->advance; // ink right of the cell's end (<= 0)
    std::vector<uint32_t> cols = inked_columns(render_pixels(ctx, 0));
    ASSERT_FALSE(cols.empty());
    EXPECT_EQ(int64_t(cols.back()), 320 + o_right - 1);
    EXPECT_GT(cols.front(), 200u); // "Hello" at 50 px lines is narrower than 120 px
    cols = inked_columns(render_pixels(ctx, 10));
    ASSERT_FALSE(cols.empty());
    EXPECT_EQ(int64_t(cols.back()), 340 + o_right - 1);
}

TEST_F(ScrollDirection, TimingIsTheSameInBothDirections)
{
    struct motion {
        double speed, time, smooth;
    };
    // Fractional steps, a cycle time, smooth whole pixels below and above one a frame.
    for (const motion m : {motion{1.3, -1, 0}, motion{1, 10, 0}, motion{0.2, -1, 1}, motion{2.5, -1, 1}}) {
        SCOPED_TRACE(::testing::Message() << m.speed << " " << m.time << " " << m.smooth);
        scroll_settings.scrollSpeed = m.speed;
        scroll_settings.scrollTime = m.time;
        scroll_settings.smoothScroll = m.smooth;
        scroll_settings.scrollDirection = scroll_direction_left;
        auto* left = make_context(640, 50, 30000, 1001);
        lay_out(left, "Timing\x1fholds");
        scroll_settings.scrollDirection = scroll_direction_right;
        auto* right = make_context(640, 50, 30000, 1001);
        lay_out(right, "Timing\x1fholds");
        EXPECT_EQ(right->cycle_length, left->cycle_length);
        EXPECT_EQ(right->scroll_step, left->scroll_step);
        EXPECT_EQ(right->frames_per_step, left->frames_per_step);
        EXPECT_EQ(right->item_length, left->item_length);
        const uint64_t C = left->cycle_length;
        // Every frame moves the strip by the same pixels, the other way.
        for (uint64_t n = 0; n < 400; n++) {
            const int64_t step_left = int64_t(left_offset(left, n + 1)) - int64_t(left_offset(left, n));
            const int64_t step_right = int64_t(strip_offset(*right, n + 1)) - int64_t(strip_offset(*right, n));
            ASSERT_EQ(wrap(step_right, C), wrap(-step_left, C)) << "frame " << n;
        }
    }
}

TEST_F(ScrollDirection, ParagraphsEnterInReadingOrder)
{
    auto* left = make_context(640, 50);
    lay_out(left, "One\x1fTwo");
    EXPECT_EQ(placed_text(left), U"OneTwo");
    scroll_settings.scrollDirection = scroll_direction_right;
    auto* right = make_context(640, 50);
    lay_out(right, "One\x1fTwo");
    // Moving right, the first paragraph must be the rightmost on the strip.
    EXPECT_EQ(placed_text(right), U"TwoOne");
    EXPECT_EQ(right->cycle_length, left->cycle_length);
    // The runs themselves keep their order.
    ASSERT_EQ(right->runs.size(), 7u);
    EXPECT_EQ(right->runs.front().code, 'O');
    EXPECT_EQ(right->runs.back().code, 'o');
}

TEST_F(ScrollDirection, ReversingParagraphsTwiceRestoresThem)
{
    auto runs_of = [](const std::u32string& s) {
        std::vector<text_run> runs;
        for (char32_t c : s) {
            text_run run;
            run.code = int32_t(c);
            runs.push_back(run);
        }
        return runs;
    };
    auto text_of = [](const std::vector<text_run>& runs) {
        std::u32string s;
        for (const text_run& r : runs)
            s += char32_t(r.code);
        return s;
    };
    for (const std::u32string text : {U"", U"A", U"AB\x1f" U"CD\x1f", U"\x1f\x1f" U"x", U"ab\ncd\x1f" U"ef"}) {
        std::vector<text_run> runs = runs_of(text);
        reverse_paragraphs(runs);
        reverse_paragraphs(runs);
        EXPECT_EQ(text_of(runs), text);
    }
    std::vector<text_run> runs = runs_of(U"AB\x1f" U"CD\x1f");
    reverse_paragraphs(runs);
    EXPECT_EQ(text_of(runs), U"\x1f" U"CD\x1f" U"AB");
}

TEST_F(ScrollDirection, StaticTextIgnoresTheDirection)
{
    scroll_settings.scrollSpeed = 0;
    scroll_settings.justify = 1;
    auto* left = make_context(640, 50);
    lay_out(left, "Still");
    scroll_settings.scrollDirection = scroll_direction_right;
    auto* right = make_context(640, 50);
    lay_out(right, "Still");
    EXPECT_FALSE(right->scrolls_right);
    EXPECT_EQ(render_pixels(right, 0), render_pixels(left, 0));
}

TEST_F(ScrollDirection, AFeedIsStillRefreshedAtTheItemStart)
{
    scroll_settings.scrollDirection = scroll_direction_right;
    auto* ctx = make_context(640, 50);
    lay_out(ctx, "Old");
    const uint64_t generation = ctx->layout_generation;
    ctx->feed_dirty = true;
    render(ctx, 150); // past frame 100: the new feed waits
    EXPECT_EQ(ctx->layout_generation, generation);
    render(ctx, 100);
    EXPECT_EQ(ctx->layout_generation, generation + 1);
    EXPECT_TRUE(ctx->scrolls_right);
}

} // namespace
} // namespace t4test
