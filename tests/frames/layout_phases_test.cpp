// The layout's phases on their own: the geometry a run starts from, and the
// pen that walks lines and paragraphs along the strip. Every figure is worked
// out from the geometry by hand.
#include <gtest/gtest.h>

#include <vector>

#include "frames/compose_fixture.h"
#include "frames/layout.h"
#include "items/scroll_settings.h"

namespace t4test {
namespace {

layout_geometry two_lines_of_320_by_120()
{
    layout_geometry geo;
    geo.width = 320;
    geo.height = 120;
    geo.lines = 2;
    geo.line_height = 60;
    geo.gap = 320;
    return geo;
}

TEST(StripPen, LineFeedsMoveToTheNextLineStartAndDown)
{
    const layout_geometry geo = two_lines_of_320_by_120();
    strip_pen pen(geo, {320, 320});
    EXPECT_EQ(pen.x(), 320u);
    EXPECT_EQ(pen.line_top(), 0);
    pen.advance(50);
    EXPECT_EQ(pen.x(), 370u);
    ASSERT_TRUE(pen.next_line());
    EXPECT_EQ(pen.x(), 320u);
    EXPECT_EQ(pen.line_top(), 60); // 120 * 1 / 2
    pen.advance(10);
    // No third line: the caller sets a space, the pen stays.
    EXPECT_FALSE(pen.next_line());
    EXPECT_EQ(pen.x(), 330u);
    EXPECT_EQ(pen.line_top(), 60);
    // The text ends at the widest line: 370.
    EXPECT_EQ(pen.end(), 370u);
}

TEST(StripPen, ScrollingParagraphStartsOneGapAfterTheWidestLine)
{
    const layout_geometry geo = two_lines_of_320_by_120();
    strip_pen pen(geo, {320, 320});
    pen.advance(80);         // first line ends at 400
    ASSERT_TRUE(pen.next_line());
    pen.advance(20);         // second line ends at 340
    ASSERT_TRUE(pen.end_paragraph());
    // max(340, 400) + 320 = 720, back on the first line.
    EXPECT_EQ(pen.x(), 720u);
    EXPECT_EQ(pen.line_top(), 0);
    ASSERT_TRUE(pen.next_line());
    EXPECT_EQ(pen.x(), 720u);
    EXPECT_EQ(pen.line_top(), 60);
    EXPECT_EQ(pen.end(), 720u);
}

TEST(StripPen, StaticTextStopsAtTheFirstParagraphEnd)
{
    layout_geometry geo = two_lines_of_320_by_120();
    geo.is_static = true;
    strip_pen pen(geo, {30, 100});
    pen.advance(250);        // 30 -> 280
    ASSERT_TRUE(pen.next_line());
    EXPECT_EQ(pen.x(), 100u); // the second line's justified start
    pen.advance(50);
    EXPECT_FALSE(pen.end_paragraph());
    EXPECT_EQ(pen.end(), 280u);
}

TEST(StripPen, OneLineStartIsEnough)
{
    layout_geometry geo = two_lines_of_320_by_120();
    geo.lines = 3;
    // Fewer starts than lines: the missing ones are 0, so the second line
    // starts at the left edge, and the third takes the last start again.
    strip_pen pen(geo, {7});
    ASSERT_TRUE(pen.next_line());
    EXPECT_EQ(pen.x(), 0u);
    EXPECT_EQ(pen.line_top(), 40); // 120 * 1 / 3
    ASSERT_TRUE(pen.next_line());
    EXPECT_EQ(pen.x(), 0u);
    EXPECT_EQ(pen.line_top(), 80); // 120 * 2 / 3
    EXPECT_FALSE(pen.next_line());
}

class LayoutGeometry : public compose_test {};

TEST_F(LayoutGeometry, ComesFromTheReaderAndTheSettings)
{
    auto* ctx = make_context(1920, 1080);
    scroll_settings.space = 0.25;
    scroll_settings.static_ = 0;
    layout_geometry geo = layout_geometry_for(*ctx, scroll_settings, 7);
    EXPECT_EQ(geo.width, 1920);
    EXPECT_EQ(geo.height, 1080);
    EXPECT_EQ(geo.lines, 7);
    EXPECT_EQ(geo.line_height, 154u); // 1080 / 7 = 154.3
    EXPECT_EQ(geo.gap, 480u);         // 1920 * 0.25
    EXPECT_FALSE(geo.is_static);
    // A space above 1 leaves the gap at one picture width; the rest is added
    // after the text when the motion is fixed.
    scroll_settings.space = 1.5;
    scroll_settings.static_ = 1;
    geo = layout_geometry_for(*ctx, scroll_settings, 1);
    EXPECT_EQ(geo.line_height, 1080u);
    EXPECT_EQ(geo.gap, 1920u);
    EXPECT_TRUE(geo.is_static);
}

} // namespace
} // namespace t4test
