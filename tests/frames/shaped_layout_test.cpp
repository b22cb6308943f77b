// The shaped layout (-textShaping=1): reading order, joining across a style
// change, the glyphs against HarfBuzz's own command-line tool, and input that
// must never crash or hang it.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <string>
#include <vector>

#include "fonts/font_catalogue.h"
#include "frames/compose_fixture.h"
#include "frames/script_fonts.h"
#include "items/scroll_settings.h"
#include "support/test_env.h"

namespace t4test {
namespace {

// One placed glyph, as the compositor will find it.
struct placed {
    uint64_t x = 0;
    int32_t code = 0;
    uint32_t face = 0;
    run_style style;
};

// Every placement in strip order (left to right).
std::vector<placed> placements_of(const scrolling_text_client_context* ctx)
{
    std::vector<placed> out;
    for (const auto& [x, glyphs] : ctx->glyph_placements)
        for (const placed_glyph& g : glyphs)
            out.push_back(placed{x, g.code, g.face, g.style});
    return out;
}

bool is_red(const run_style& s) { return s.r == 255 && s.g == 0 && s.b == 0; }

class ShapedLayout : public compose_test {
protected:
    void SetUp() override
    {
        compose_test::SetUp();
        scroll_settings.textShaping = 1;
        scroll_settings.fontFamily = "DejaVu Sans";
        scroll_settings.scrollSpeed = 0;
    }
    script_fonts fonts;
};

TEST_F(ShapedLayout, RightToLeftCaptionPutsTheFirstCharacterRightmost)
{
    auto* ctx = make_context(1920, 108);
    // The first logical character (alef) is red: it must be the rightmost glyph.
    lay_out(ctx, "%{color;red}%\u0627%{color}%\u0644\u0639\u0627\u0644\u0645 \u0645\u0631\u062d\u0628\u0627");
    const std::vector<placed> glyphs = placements_of(ctx);
    ASSERT_GE(glyphs.size(), 10u);
    EXPECT_TRUE(is_red(glyphs.back().style));
    EXPECT_EQ(std::count_if(glyphs.begin(), glyphs.end(), [](const placed& p) { return is_red(p.style); }), 1);
}

TEST_F(ShapedLayout, LeftToRightCaptionPutsTheFirstCharacterLeftmost)
{
    auto* ctx = make_context(1920, 108);
    lay_out(ctx, "%{color;red}%N%{color}%ews \u0645\u0631\u062d\u0628\u0627");
    const std::vector<placed> glyphs = placements_of(ctx);
    ASSERT_FALSE(glyphs.empty());
    EXPECT_TRUE(is_red(glyphs.front().style));
}

TEST_F(ShapedLayout, TheDirectionSettingOverridesTheFirstStrongCharacter)
{
    auto* ctx = make_context(1920, 108);
    // Latin first: left to right unless the paragraph is set right to left,
    // where the Arabic word (after the Latin one) then stands left of it.
    const std::string text = "%{color;red}%A%{color}%BC \u0645\u0631\u062d\u0628\u0627";
    lay_out(ctx, text);
    EXPECT_TRUE(is_red(placements_of(ctx).front().style));
    scroll_settings.textDirection = TEXT_DIRECTION_RTL;
    lay_out(ctx, text);
    const std::vector<placed> rtl = placements_of(ctx);
    // "ABC" is still read left to right, but it is the rightmost word.
    EXPECT_TRUE(is_red(rtl[rtl.size() - 3].style));
}

TEST_F(ShapedLayout, AStyleChangeInsideAWordKeepsItsJoining)
{
    auto* ctx = make_context(1920, 108);
    lay_out(ctx, "\u0645\u0631\u062d\u0628\u0627");
    const std::vector<placed> plain = placements_of(ctx);
    lay_out(ctx, "\u0645\u0631%{color;red}%\u062d%{color}%\u0628\u0627");
    const std::vector<placed> styled = placements_of(ctx);
    ASSERT_EQ(plain.size(), styled.size());
    for (size_t i = 0; i < plain.size(); i++) {
        EXPECT_EQ(plain[i].x, styled[i].x) << i;
        EXPECT_EQ(plain[i].code, styled[i].code) << i;
    }
    // The hah (third letter, so third glyph from the right) alone is red.
    EXPECT_TRUE(is_red(styled[styled.size() - 3].style));
    EXPECT_EQ(std::count_if(styled.begin(), styled.end(), [](const placed& p) { return is_red(p.style); }), 1);
}

TEST_F(ShapedLayout, ShapedGlyphsAreNotTheCharactersOfTheGlyphByGlyphLayout)
{
    auto* ctx = make_context(1920, 108);
    // Joined Arabic takes contextual forms: the glyph of a medial beh differs
    // from its isolated form, which a one-letter line shows.
    lay_out(ctx, "\u0628");
    const int32_t isolated = placements_of(ctx).at(0).code;
    lay_out(ctx, "\u0628\u0628\u0628");
    const std::vector<placed> joined = placements_of(ctx);
    ASSERT_EQ(joined.size(), 3u);
    for (const placed& p : joined) {
        EXPECT_NE(p.code, isolated);
        EXPECT_NE(p.face, 0u);
    }
}

TEST_F(ShapedLayout, ACharacterTheFaceLacksTakesFontconfigsFace)
{
    auto* ctx = make_context(1920, 108);
    lay_out(ctx, "A \u0928");
    ASSERT_EQ(ctx->shaped_faces.size(), 2u);
    EXPECT_STREQ(ctx->shaped_faces[0]->family_name, "DejaVu Sans");
    EXPECT_STREQ(ctx->shaped_faces[1]->family_name, "Noto Sans Devanagari");
    const std::vector<placed> glyphs = placements_of(ctx);
    ASSERT_EQ(glyphs.size(), 3u);
    EXPECT_EQ(glyphs[0].face, 1u);
    EXPECT_EQ(glyphs[2].face, 2u);
}

TEST_F(ShapedLayout, ShapingRunsOncePerLayoutNeverPerFrame)
{
    scroll_settings.scrollSpeed = 1.0;
    scroll_settings.space = 0; // the whole text (and its repetitions) in the picture from frame 0
    auto* ctx = make_context(1920, 108);
    lay_out(ctx, "\u0645\u0631\u062d\u0628\u0627 News \u0928\u092e\u0938\u094d\u0924\u0947");
    const uint64_t generation = ctx->layout_generation;
    const size_t glyphs = ctx->glyph_cache.size();
    for (uint64_t n = 0; n < 40; n++)
        render_pixels(ctx, n);
    EXPECT_EQ(ctx->layout_generation, generation);
    // Drawing only fills the glyph cache once; later frames find every glyph there.
    const size_t warm = ctx->glyph_cache.size();
    EXPECT_GE(warm, glyphs);
    for (uint64_t n = 40; n < 80; n++)
        render_pixels(ctx, n);
    EXPECT_EQ(ctx->glyph_cache.size(), warm);
}

// Input that must lay out and render without crashing or hanging, in both
// static and scrolling mode.
class ShapedLayoutBadInput : public ShapedLayout, public ::testing::WithParamInterface<std::string> {};

TEST_P(ShapedLayoutBadInput, LaysOutAndRenders)
{
    for (double speed : {0.0, 1.0}) {
        scroll_settings.scrollSpeed = speed;
        auto* ctx = make_context(1920, 108);
        lay_out(ctx, GetParam());
        const frame_pixels p = render_pixels(ctx, 5);
        EXPECT_EQ(p.width, 1920u);
    }
}

std::string repeated(const std::string& s, int n)
{
    std::string out;
    for (int i = 0; i < n; i++)
        out += s;
    return out;
}

const char* const BAD_INPUT_NAMES[] = {"BrokenUtf8",   "LoneMarks",     "TenThousandCharacters", "OnlyRtlMarks",
                                       "Unbalanced",   "OddCodePoints", "Empty"};

std::string bad_input_name(const ::testing::TestParamInfo<std::string>& info) { return BAD_INPUT_NAMES[info.index]; }

INSTANTIATE_TEST_SUITE_P(
    Cases, ShapedLayoutBadInput,
    ::testing::Values(std::string("\xff\xfe broken \xc3 UTF-8 \xe2\x82 \xd8\xa7\xd9"),       // broken UTF-8
                      std::string("\u0301\u064b\u05b0 lone marks \u0301\u0301\u0301"),       // lone combining marks
                      repeated("\u0645\u0631\u062d\u0628\u0627 ", 1667) + "A",               // 10,003 characters
                      repeated("\u200f", 200),                                               // nothing but RTL marks
                      repeated("\u202e\u2067", 100) + "x\u202c",                              // unbalanced embeddings
                      std::string("\U0001f534\u200d\u0627\u200c\u0644 \U000e0041 \U0010ffff"), // odd code points
                      std::string("")),
    bad_input_name);

} // namespace
} // namespace t4test
