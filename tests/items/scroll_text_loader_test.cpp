#include <gtest/gtest.h>

#include <fcntl.h>
#include <string>
#include <unistd.h>

#include "items/item_types.h"
#include "items/scroll_settings.h"
#include "platform/t4mi_globals.h"
#include "support/item_fixture.h"

namespace {

constexpr const char* SCROLL_TEXT = "application/x-tevrin-scrolling-text";
constexpr const char* HEADER = "#Tevrin4ScrollText\n";

class ScrollTextLoader : public ::testing::Test {
protected:
    void SetUp() override
    {
        scroll_settings = scroll_settings_record{};
    }

    // Loads `body` (after the header) as a scroll-text item.
    const scroll_settings_record& load(const std::string& body, const char* type = SCROLL_TEXT)
    {
        item.reset(); // the old item releases the process-wide record before the new one takes it
        item = std::make_unique<t4test::open_item>(HEADER + body, type);
        load_message();
        return scroll_settings;
    }

    std::unique_ptr<t4test::open_item> item;
};

TEST_F(ScrollTextLoader, HexFontColourWithOrWithoutHashIsRedAndANameIsBlack)
{
    EXPECT_EQ(load("#-fontColor=ff0000\n").fontColor, (colour_rgba{255, 0, 0, 255}));
    EXPECT_EQ(load("#-fontColor=#ff0000\n").fontColor, (colour_rgba{255, 0, 0, 255}));
    EXPECT_EQ(load("#-fontColor=red\n").fontColor, (colour_rgba{0, 0, 0, 255}));
}

TEST_F(ScrollTextLoader, FontOpacityHalfGivesAlpha127)
{
    // 0.5 * 255 = 127.5, truncated toward zero.
    EXPECT_EQ(load("#-fontOpacity=0.5\n").fontColor.a, 127);
}

TEST_F(ScrollTextLoader, SpaceNoneAndNegativeGiveZero)
{
    EXPECT_EQ(load("#-space=none\n").space, 0.0);
    EXPECT_EQ(load("#-space=-3\n").space, 0.0);
    EXPECT_EQ(load("#-space=1.5\n").space, 1.5);
}

TEST_F(ScrollTextLoader, TinyFontScaleBecomesAutomatic)
{
    // 0.0005 * 1000 = 0.5, truncated to 0, which is below 1: automatic (-1).
    EXPECT_EQ(load("#-fontScale=0.0005\n").fontScale, -1);
    EXPECT_EQ(load("#-fontScale=1.5\n").fontScale, 1500);
}

TEST_F(ScrollTextLoader, KeysAreCaseSensitive)
{
    const auto& s = load("#-ScrollSpeed=2\nHello\n");
    EXPECT_EQ(s.scrollSpeed, 1.0);
    EXPECT_EQ(s.text, "Hello");
}

TEST_F(ScrollTextLoader, BlankLinesFoldIntoOneParagraphBreakWhenScrolling)
{
    EXPECT_EQ(load("line 1\nline 2\n\n\nline 3\n").text, "line 1\nline 2\x1fline 3");
}

TEST_F(ScrollTextLoader, StaticModeKeepsBlankLinesAndSetsStatic)
{
    const auto& s = load("#-scrollSpeed=0\nline 1\nline 2\n\n\nline 3\n");
    EXPECT_EQ(s.text, "line 1\nline 2\n\n\nline 3");
    EXPECT_EQ(s.static_, 1);
}

TEST_F(ScrollTextLoader, JustifySurvivesALoadThatDoesNotMentionIt)
{
    EXPECT_EQ(load("#-justify=right\nA\n").justify, 2);
    EXPECT_EQ(load("A\n").justify, 2);
    EXPECT_EQ(load("#-justify=Center\nA\n").justify, 0); // exact case only
}

TEST_F(ScrollTextLoader, SpeedBetweenTheTwoThresholdsScrollsButKeepsBlankLines)
{
    const auto& s = load("#-scrollSpeed=0.0005\nA\n\nB\n");
    EXPECT_EQ(s.text, "A\n\nB");
    EXPECT_EQ(s.static_, 0);
}

TEST_F(ScrollTextLoader, BlankLineRightAfterTheHeaderStartsWithASeparator)
{
    EXPECT_EQ(load("\nA\n").text, "\x1f" "A");
}

TEST_F(ScrollTextLoader, OpacitiesWrapInTheirLowEightBits)
{
    // 1.5 * 255 = 382.5 -> 382 -> 382 & 255 = 126; the shadow opacity keeps 382 whole.
    const auto& s = load("#-fontOpacity=1.5\n#-shadowOpacity=1.5\n#-backgroundOpacity=1\n");
    EXPECT_EQ(s.fontColor.a, 126);
    EXPECT_EQ(s.shadowColor.a, 126);
    EXPECT_EQ(s.shadowOpacity, 382);
    EXPECT_EQ(s.backgroundColor.a, 255);
}

TEST_F(ScrollTextLoader, DefaultsOfEveryLoad)
{
    const auto& s = load("Hi\n");
    EXPECT_EQ(s.fontColor, (colour_rgba{0, 0, 0, 255}));
    EXPECT_EQ(s.backgroundColor, (colour_rgba{0, 0, 0, 0}));
    EXPECT_EQ(s.shadowColor, (colour_rgba{0, 0, 0, 127}));
    EXPECT_EQ(s.shadowOpacity, 127);
    EXPECT_DOUBLE_EQ(s.shadowBlur, 0.02);
    EXPECT_DOUBLE_EQ(s.shadowX, 0.03);
    EXPECT_DOUBLE_EQ(s.shadowY, 0.03);
    EXPECT_EQ(s.scrollSpeed, 1.0);
    EXPECT_EQ(s.scrollTime, -1.0);
    EXPECT_EQ(s.emoji, 1);
    EXPECT_EQ(s.fontScale, -1);
    EXPECT_EQ(s.multiLine, 1);
    EXPECT_EQ(s.space, 1.0);
    EXPECT_EQ(s.static_, 0);
}

TEST_F(ScrollTextLoader, BeforeTheFirstLoadTextIsWhite)
{
    EXPECT_EQ(scroll_settings_record{}.fontColor, (colour_rgba{255, 255, 255, 255}));
}

TEST_F(ScrollTextLoader, EverySettingKey)
{
    const auto& s = load("#-scrollSpeed=2.5\n#-scrollTime=10\n#-smoothScroll=1\n#-emoji=MONOCHROME\n"
                         "#-backgroundColor=102030\n#-backgroundOpacity=0.5\n#-shadowColor=#405060\n"
                         "#-shadowBlur=4\n#-shadowX=-2\n#-shadowY=5\n#-fontFamily=Liberation Serif\n"
                         "#-fontStyle=Bold Italic\n#-multiLine=-4\n#-unknown=1\n# comment\nText\n");
    EXPECT_EQ(s.scrollSpeed, 2.5);
    EXPECT_EQ(s.scrollTime, 10.0);
    EXPECT_EQ(s.smoothScroll, 1.0);
    EXPECT_EQ(s.emoji, 0);
    EXPECT_EQ(s.backgroundColor, (colour_rgba{0x10, 0x20, 0x30, 127}));
    EXPECT_EQ(s.shadowColor, (colour_rgba{0x40, 0x50, 0x60, 127}));
    EXPECT_DOUBLE_EQ(s.shadowBlur, 0.04);
    EXPECT_DOUBLE_EQ(s.shadowX, -0.02);
    EXPECT_DOUBLE_EQ(s.shadowY, 0.05);
    EXPECT_EQ(s.fontFamily, "Liberation Serif");
    EXPECT_EQ(s.fontStyle, "Bold Italic");
    EXPECT_EQ(s.multiLine, 1); // negative becomes 1 in a file load
    EXPECT_EQ(s.text, "Text");
}

TEST_F(ScrollTextLoader, OutlineAndDirectionDefaults)
{
    const auto& s = load("Hi\n");
    EXPECT_EQ(s.outlineColor, (colour_rgba{0, 0, 0, 255})); // opaque black
    EXPECT_EQ(s.outlineWidth, 0.0);                         // no outline
    EXPECT_EQ(s.scrollDirection, scroll_direction_left);
}

TEST_F(ScrollTextLoader, OutlineAndDirectionKeys)
{
    // Width in percent of the line height, like the shadow's; the opacity
    // folds into the colour's A at the end of the load, like the others.
    const auto& s = load("#-outlineOpacity=0.5\n#-outlineColor=#204060\n#-outlineWidth=4.5\n"
                         "#-scrollDirection=right\nText\n");
    EXPECT_EQ(s.outlineColor, (colour_rgba{0x20, 0x40, 0x60, 127}));
    EXPECT_DOUBLE_EQ(s.outlineWidth, 0.045);
    EXPECT_EQ(s.scrollDirection, scroll_direction_right);
    EXPECT_EQ(s.text, "Text");
    // The next load starts from the defaults again.
    const auto& t = load("#-scrollDirection=left\n");
    EXPECT_EQ(t.scrollDirection, scroll_direction_left);
    EXPECT_EQ(t.outlineWidth, 0.0);
    EXPECT_EQ(t.outlineColor, (colour_rgba{0, 0, 0, 255}));
}

TEST_F(ScrollTextLoader, UnknownOutlineAndDirectionValuesFallBackToTheDefaults)
{
    // Another word (or another case) gives the default, with a warning.
    struct bad_value {
        const char* line;
        const char* warning;
    };
    for (const bad_value& b : {bad_value{"#-scrollDirection=RIGHT\n", "WARNING: unknown scrollDirection RIGHT\n"},
                               bad_value{"#-scrollDirection=up\n", "WARNING: unknown scrollDirection up\n"},
                               bad_value{"#-scrollDirection= right\n", "WARNING: unknown scrollDirection  right\n"},
                               bad_value{"#-outlineWidth=-3\n", "WARNING: unknown outlineWidth -3\n"},
                               bad_value{"#-outlineWidth=thick\n", "WARNING: unknown outlineWidth thick\n"},
                               bad_value{"#-outlineWidth=nan\n", "WARNING: unknown outlineWidth nan\n"},
                               bad_value{"#-outlineWidth=inf\n", "WARNING: unknown outlineWidth inf\n"}}) {
        SCOPED_TRACE(b.line);
        testing::internal::CaptureStderr();
        const auto& s = load(std::string("#-scrollDirection=right\n#-outlineWidth=2\n") + b.line);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), b.warning);
        if (std::string(b.line).find("Direction") != std::string::npos)
            EXPECT_EQ(s.scrollDirection, scroll_direction_left);
        else
            EXPECT_EQ(s.outlineWidth, 0.0);
    }
    // Known values say nothing.
    testing::internal::CaptureStderr();
    load("#-scrollDirection=left\n#-outlineWidth=0\n#-outlineWidth=2.5\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    // A colour name reads as black, as for the other colours; opacities wrap
    // in their low eight bits like the others: 1.5 x 255 = 382 -> 126.
    EXPECT_EQ(load("#-outlineColor=red\n").outlineColor, (colour_rgba{0, 0, 0, 255}));
    EXPECT_EQ(load("#-outlineOpacity=1.5\n").outlineColor.a, 126);
}

TEST_F(ScrollTextLoader, ValuesAreNotTrimmedAndEmojiWordsOtherwiseChangeNothing)
{
    const auto& s = load("#-fontFamily= Liberation Sans \n#-emoji=sepia\n");
    EXPECT_EQ(s.fontFamily, " Liberation Sans ");
    EXPECT_EQ(s.emoji, 1);
}

TEST_F(ScrollTextLoader, CarriageReturnsAreChomped)
{
    EXPECT_EQ(load("#-fontColor=00ff00\r\nA\r\nB\r\n").text, "A\nB");
    EXPECT_EQ(scroll_settings.fontColor, (colour_rgba{0, 255, 0, 255}));
}

TEST_F(ScrollTextLoader, ReadingStopsAtTheFirstNul)
{
    EXPECT_EQ(load(std::string("A\nB\0C\n", 6)).text, "A\nB");
}

TEST_F(ScrollTextLoader, OnlyTheFirst2097151BytesAreRead)
{
    const std::string body(2097151 - std::string(HEADER).size(), 'x');
    const auto& s = load(body + "TAIL");
    EXPECT_EQ(s.text.size(), body.size());
    EXPECT_EQ(s.text.find("TAIL"), std::string::npos);
}

TEST_F(ScrollTextLoader, OtherTypesTakeTheWholeFileAsText)
{
    const auto& s = load("#-fontColor=ff0000\nA\n\nB\n", "text/plain");
    EXPECT_EQ(s.text, std::string(HEADER) + "#-fontColor=ff0000\nA\n\nB\n");
    EXPECT_EQ(s.fontColor, (colour_rgba{0, 0, 0, 255}));
}

TEST_F(ScrollTextLoader, TextItemTypeIsLoadedAsScrollTextIgnoringCase)
{
    EXPECT_EQ(load("#-fontColor=ff0000\nA\n", "Application/VND.tv.tevrin.Text-Item").text, "A");
    EXPECT_EQ(scroll_settings.fontColor, (colour_rgba{255, 0, 0, 255}));
}

TEST_F(ScrollTextLoader, RecordsTheModificationSecond)
{
    load("A\n");
    EXPECT_GT(scroll_settings.file_mtime, 0);
}

TEST_F(ScrollTextLoader, NonRegularFileIsReportedAndLeavesTheRecord)
{
    load("Keep\n");
    t4test::temp_dir d;
    const int saved = t4mi_meta->file_fd;
    t4mi_meta->file_fd = open(d.path().c_str(), O_RDONLY | O_DIRECTORY);
    testing::internal::CaptureStderr();
    load_message();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Failed to fstat()\n");
    EXPECT_EQ(scroll_settings.text, "Keep");
    close(t4mi_meta->file_fd);
    t4mi_meta->file_fd = saved;
}

} // namespace

namespace {

TEST_F(ScrollTextLoader, ShapingIsOffAndTheDirectionAutomaticByDefault)
{
    const auto& s = load("plain\n");
    EXPECT_EQ(s.textShaping, 0);
    EXPECT_EQ(s.textDirection, TEXT_DIRECTION_AUTO);
}

TEST_F(ScrollTextLoader, TextShapingAndDirectionAreRead)
{
    const auto& s = load("#-textShaping=1\n#-textDirection=RTL\n");
    EXPECT_EQ(s.textShaping, 1);
    EXPECT_EQ(s.textDirection, TEXT_DIRECTION_RTL);
    EXPECT_EQ(load("#-textShaping=1\n#-textDirection=ltr\n").textDirection, TEXT_DIRECTION_LTR);
    EXPECT_EQ(load("#-textDirection=rtl\n#-textDirection=auto\n").textDirection, TEXT_DIRECTION_AUTO);
    // Every load starts from the defaults.
    EXPECT_EQ(load("text\n").textShaping, 0);
}

TEST_F(ScrollTextLoader, UnknownShapingValuesFallBackToTheDefaultsWithAWarning)
{
    for (const char* value : {"2", "yes", "", " 1", "1.0", "-1"}) {
        SCOPED_TRACE(value);
        testing::internal::CaptureStderr();
        EXPECT_EQ(load(std::string("#-textShaping=1\n#-textShaping=") + value + "\n").textShaping, 0);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), std::string("WARNING: unknown textShaping ") + value + "\n");
    }
    for (const char* value : {"up", "", "rtl ", "right"}) {
        SCOPED_TRACE(value);
        testing::internal::CaptureStderr();
        const auto& s = load(std::string("#-textDirection=rtl\n#-textDirection=") + value + "\n");
        EXPECT_EQ(s.textDirection, TEXT_DIRECTION_AUTO);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  std::string("WARNING: unknown textDirection ") + value + "\n");
    }
}

} // namespace
