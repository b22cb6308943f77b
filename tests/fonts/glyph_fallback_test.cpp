// The fall-back chain of the glyph cache, with real Debian fonts: Liberation
// (default face, no CJK), Symbola (emoji face; it has a few CJK characters
// such as U+4E2D but not U+6587) and WenQuanYi Micro Hei (CJK).
#include <gtest/gtest.h>

#include "fonts/font_bmp.h"
#include "fonts/font_globals.h"
#include "fonts/font_test_support.h"
#include "fonts/glyph_cache.h"
#include "items/scroll_settings.h"

using namespace t4test;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

constexpr int32_t zhong = 0x4E2D; // 中: in WenQuanYi and Symbola
constexpr int32_t wen = 0x6587;   // 文: in WenQuanYi only
constexpr int32_t nko_zero = 0x07C0; // below U+2000 and in none of the faces

class glyph_fallback_test : public glyph_test {
protected:
    // Catalogue entries a test adds, removed afterwards (faces closed).
    void add_catalogue_entry(const std::string& family, const char* file)
    {
        font_catalogue[family]["Regular"].path = file;
        added.push_back(family);
    }
    void TearDown() override
    {
        for (const auto& family : added) {
            for (auto& [style, entry] : font_catalogue[family])
                if (entry.face != nullptr)
                    FT_Done_Face(entry.face);
            font_catalogue.erase(family);
        }
        glyph_test::TearDown();
    }
    std::vector<std::string> added;
};

TEST_F(glyph_fallback_test, cjk_comes_from_the_family_without_its_last_word)
{
    scroll_settings.fontFamily = "WenQuanYi Micro Hei Light";
    CaptureStderr();
    font_bmp_cache_storage* g = get_font_bmp(ctx.get(), 80, zhong);
    const std::string err = without_loading_lines(GetCapturedStderr());
    EXPECT_EQ(err, "WARNING: unknown font WenQuanYi Micro Hei Light\n"
                   "Trying fallback 'WenQuanYi Micro Hei'\n");
    expect_record_matches(g, render_reference(WQY_MICROHEI, zhong, 80));
}

TEST_F(glyph_fallback_test, cjk_missing_from_family_and_shortened_family_comes_from_the_emoji_face)
{
    // Liberation Sans lacks it, "Liberation" is unknown (so the default face,
    // which lacks it too), then the emoji face has it.
    scroll_settings.fontFamily = "Liberation Sans";
    CaptureStderr();
    font_bmp_cache_storage* g = get_font_bmp(ctx.get(), 80, zhong);
    const std::string err = without_loading_lines(GetCapturedStderr());
    EXPECT_EQ(err, "Trying fallback 'Liberation'\n"
                   "WARNING: unknown font Liberation\n"
                   "No glyph, using default\n");
    expect_record_matches(g, render_reference(SYMBOLA, zhong, 80));
}

TEST_F(glyph_fallback_test, cjk_missing_from_the_emoji_face_comes_from_the_default_face)
{
    // A default face that has the character: the chain reaches it after the
    // emoji face. "Liberation Sans Narrow" shortens to the catalogued
    // "Liberation Sans", which lacks it too.
    FT_Done_Face(default_face);
    default_face = nullptr;
    ASSERT_EQ(FT_New_Face(ft_library, WQY_MICROHEI, 0, &default_face), 0);
    scroll_settings.fontFamily = "Liberation Sans Narrow";
    CaptureStderr();
    font_bmp_cache_storage* g = get_font_bmp(ctx.get(), 80, wen);
    const std::string err = without_loading_lines(GetCapturedStderr());
    EXPECT_EQ(err, "Trying fallback 'Liberation Sans'\n"
                   "No glyph, using default\n");
    expect_record_matches(g, render_reference(WQY_MICROHEI, wen, 80));
}

TEST_F(glyph_fallback_test, cjk_missing_everywhere_is_the_space_of_the_default_face)
{
    scroll_settings.fontFamily = "Liberation Sans";
    CaptureStderr();
    font_bmp_cache_storage* g = get_font_bmp(ctx.get(), 80, wen);
    const std::string err = without_loading_lines(GetCapturedStderr());
    EXPECT_EQ(err, "Trying fallback 'Liberation'\n"
                   "WARNING: unknown font Liberation\n"
                   "No glyph, using default\n");
    expect_record_matches(g, render_reference(LIBERATION_SANS, ' ', 80));
}

TEST_F(glyph_fallback_test, latin_missing_everywhere_is_the_default_space_with_one_message)
{
    // Below U+2000 the emoji face is skipped: family, shortened family, then
    // the default face, then its space.
    scroll_settings.fontFamily = "Liberation Serif";
    CaptureStderr();
    font_bmp_cache_storage* g = get_font_bmp(ctx.get(), 50, nko_zero);
    const std::string err = without_loading_lines(GetCapturedStderr());
    EXPECT_EQ(err, "Trying fallback 'Liberation'\n"
                   "WARNING: unknown font Liberation\n"
                   "No glyph, using default\n");
    ASSERT_NE(g, nullptr);
    EXPECT_EQ(ctx->current_face, default_face);
    expect_record_matches(g, render_reference(LIBERATION_SANS, ' ', 50));
}

TEST_F(glyph_fallback_test, a_family_without_spaces_is_not_shortened)
{
    scroll_settings.fontFamily = "Symbola";
    CaptureStderr();
    font_bmp_cache_storage* g = get_font_bmp(ctx.get(), 50, nko_zero);
    EXPECT_EQ(without_loading_lines(GetCapturedStderr()), "No glyph, using default\n");
    expect_record_matches(g, render_reference(LIBERATION_SANS, ' ', 50));
}

TEST_F(glyph_fallback_test, two_spaces_before_the_last_word_are_dropped_together)
{
    add_catalogue_entry("Two Words", WQY_MICROHEI);
    scroll_settings.fontFamily = "Two Words  Three";
    CaptureStderr();
    font_bmp_cache_storage* g = get_font_bmp(ctx.get(), 80, wen);
    const std::string err = without_loading_lines(GetCapturedStderr());
    EXPECT_EQ(err, "WARNING: unknown font Two Words  Three\n"
                   "Trying fallback 'Two Words'\n");
    expect_record_matches(g, render_reference(WQY_MICROHEI, wen, 80));
}

TEST_F(glyph_fallback_test, a_family_that_starts_with_its_only_spaces_falls_back_to_the_default_face)
{
    // The catalogued "  Liberation" (Liberation Sans) lacks the character;
    // its fallback is the empty family, which is the default face, here one
    // that has it.
    add_catalogue_entry("  Liberation", LIBERATION_SANS);
    FT_Done_Face(default_face);
    default_face = nullptr;
    ASSERT_EQ(FT_New_Face(ft_library, WQY_MICROHEI, 0, &default_face), 0);
    scroll_settings.fontFamily = "  Liberation";
    CaptureStderr();
    font_bmp_cache_storage* g = get_font_bmp(ctx.get(), 80, wen);
    EXPECT_EQ(without_loading_lines(GetCapturedStderr()), "Trying fallback ''\n");
    expect_record_matches(g, render_reference(WQY_MICROHEI, wen, 80));
}

TEST_F(glyph_fallback_test, the_family_setting_itself_is_not_changed)
{
    scroll_settings.fontFamily = "Liberation Sans";
    CaptureStderr();
    get_font_bmp(ctx.get(), 50, nko_zero);
    get_font_bmp(ctx.get(), 51, nko_zero);
    const std::string err = without_loading_lines(GetCapturedStderr());
    EXPECT_EQ(scroll_settings.fontFamily, "Liberation Sans");
    // Each miss walks the chain afresh.
    const std::string once = "Trying fallback 'Liberation'\n"
                             "WARNING: unknown font Liberation\n"
                             "No glyph, using default\n";
    EXPECT_EQ(err, once + once);
}

TEST_F(glyph_fallback_test, monochrome_emoji_come_from_the_emoji_face_outline)
{
    // Even with an image in place, monochrome mode never reads it.
    write_png(emoji_dir() + "/emoji_u1f600.png", solid_rgba8(136, 128, 255, 0, 0, 255));
    scroll_settings.emoji = 0;
    CaptureStderr();
    font_bmp_cache_storage* g = get_font_bmp(ctx.get(), 90, 0x1F600);
    EXPECT_EQ(without_loading_lines(GetCapturedStderr()), "No glyph, using default\n");
    expect_record_matches(g, render_reference(SYMBOLA, 0x1F600, 90));
    EXPECT_TRUE(emoji_png_cache.empty());
}

TEST_F(glyph_fallback_test, colour_emoji_without_an_image_come_from_the_emoji_face)
{
    CaptureStderr();
    font_bmp_cache_storage* g = get_font_bmp(ctx.get(), 90, 0x1F600);
    EXPECT_EQ(without_loading_lines(GetCapturedStderr()),
              "PNG: cannot open " + emoji_dir() + "/emoji_u1f600.png\n" + "No glyph, using default\n");
    expect_record_matches(g, render_reference(SYMBOLA, 0x1F600, 90));
    ASSERT_EQ(emoji_png_cache.count("emoji_u1f600.png"), 1u);
    EXPECT_EQ(emoji_png_cache.at("emoji_u1f600.png"), nullptr);
}

} // namespace
