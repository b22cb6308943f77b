#include <gtest/gtest.h>

#include <filesystem>
#include <fontconfig/fontconfig.h>

#include "fonts/font_catalogue.h"
#include "fonts/font_globals.h"
#include "frames/client_context.h"
#include "frames/reader.h"
#include "items/scroll_settings.h"
#include "support/test_env.h"

namespace fs = std::filesystem;

namespace {

// FreeType with the default face open, a private font directory listed by a
// private fontconfig setup, and a redirected installation tree.
class FontCatalogue : public ::testing::Test {
protected:
    void SetUp() override
    {
        // Other suites of this program keep their own faces open: stand in for them.
        saved_library = ft_library;
        saved_default = default_face;
        saved_catalogue = std::move(font_catalogue);
        font_catalogue.clear();
        ASSERT_EQ(FT_Init_FreeType(&ft_library), 0);
        ASSERT_EQ(FT_New_Face(ft_library, t4test::LIBERATION_SANS, 0, &default_face), 0);
        scroll_settings = scroll_settings_record{};
    }

    void TearDown() override
    {
        clear_font_catalogue();
        FT_Done_Face(default_face);
        default_face = nullptr;
        FT_Done_FreeType(ft_library);
        ft_library = saved_library;
        default_face = saved_default;
        font_catalogue = std::move(saved_catalogue);
    }

    // Lists exactly these files (linked into the private font directory) and builds.
    void build_with(const std::vector<std::pair<std::string, std::string>>& files)
    {
        for (const auto& [source, name] : files)
            fs::copy_file(source, fonts / name, fs::copy_options::overwrite_existing);
        config = std::make_unique<t4test::private_fontconfig>(std::vector<std::string>{fonts.path()});
        build_font_catalogue();
    }

    FT_Library saved_library = nullptr;
    FT_Face saved_default = nullptr;
    font_catalogue_map saved_catalogue;
    t4test::fixed_root root;
    t4test::temp_dir fonts;
    std::unique_ptr<t4test::private_fontconfig> config;
};

TEST_F(FontCatalogue, ListsFamiliesAndStylesOfTheConfiguredDirectoryOnly)
{
    build_with({{t4test::LIBERATION_SANS, "sans.ttf"}, {t4test::LIBERATION_SANS_BOLD, "sans-bold.ttf"}});
    ASSERT_EQ(font_catalogue.size(), 1u);
    const auto& styles = font_catalogue.at("Liberation Sans");
    EXPECT_EQ(styles.size(), 2u);
    EXPECT_EQ(styles.at("Regular").path, fonts / "sans.ttf");
    EXPECT_EQ(styles.at("Bold").path, fonts / "sans-bold.ttf");
    EXPECT_EQ(styles.at("Bold").face, nullptr); // opened on first lookup only
}

TEST_F(FontCatalogue, EmptyFamilyIsTheDefaultFaceWhateverTheStyle)
{
    build_with({});
    EXPECT_EQ(font_face_for_settings("", ""), default_face);
    EXPECT_EQ(font_face_for_settings("", "Bold Italic"), default_face);
    EXPECT_EQ(font_face_for_settings("", "no such style"), default_face);
}

TEST_F(FontCatalogue, FamilyNamesAreCaseSensitive)
{
    build_with({{t4test::LIBERATION_SANS, "sans.ttf"}});
    testing::internal::CaptureStderr();
    EXPECT_EQ(find_font_face("liberation sans", "Regular"), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "WARNING: unknown font liberation sans\n");
}

TEST_F(FontCatalogue, MissingStyleFallsBackToRegularWithoutWarning)
{
    build_with({{t4test::LIBERATION_SANS, "sans.ttf"}});
    testing::internal::CaptureStderr();
    FT_Face face = find_font_face("Liberation Sans", "Oblique");
    const std::string err = testing::internal::GetCapturedStderr();
    ASSERT_NE(face, nullptr);
    EXPECT_STREQ(face->style_name, "Regular");
    // The loading line names the requested style, not the stand-in.
    EXPECT_EQ(err, "Loading and initing font Liberation Sans style Oblique\n");
    // The face stays open in the catalogue: a second lookup prints nothing.
    testing::internal::CaptureStderr();
    EXPECT_EQ(find_font_face("Liberation Sans", "Regular"), face);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(FontCatalogue, NoRequestedStyleAndNoStandInGivesNull)
{
    // DejaVu Sans ExtraLight is catalogued as family "DejaVu Sans", style
    // "ExtraLight": none of Regular, Medium, Roman, Book or Normal.
    build_with({{"/usr/share/fonts/truetype/dejavu/DejaVuSans-ExtraLight.ttf", "dejavu_light.ttf"}});
    testing::internal::CaptureStderr();
    EXPECT_EQ(find_font_face("DejaVu Sans", "Italic"), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "WARNING: unknown font style Italic\n");
    EXPECT_NE(find_font_face("DejaVu Sans", "ExtraLight"), nullptr);
}

TEST_F(FontCatalogue, BookStandsInForAMissingStyle)
{
    // DejaVu Sans calls its upright style "Book".
    build_with({{"/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf", "dejavu.ttf"}});
    testing::internal::CaptureStderr();
    FT_Face face = find_font_face("DejaVu Sans", "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Loading and initing font DejaVu Sans style \n");
    ASSERT_NE(face, nullptr);
    EXPECT_STREQ(face->style_name, "Book");
    EXPECT_EQ(find_font_face("DejaVu Sans", "Italic"), face);
}

TEST_F(FontCatalogue, FileWithoutExtensionIsNeverCatalogued)
{
    build_with({{t4test::LIBERATION_SANS, "sans.ttf"}, {t4test::LIBERATION_SERIF, "SerifWithoutExtension"}});
    EXPECT_EQ(font_catalogue.count("Liberation Serif"), 0u);
    EXPECT_EQ(font_catalogue.count("Liberation Sans"), 1u);
}

TEST_F(FontCatalogue, TheExtraFontDirectoryIsAdded)
{
    fs::copy_file(t4test::LIBERATION_SERIF, root.at("/mnt/main/tv/fonts") + "/serif.ttf");
    build_with({{t4test::LIBERATION_SANS, "sans.ttf"}});
    EXPECT_EQ(font_catalogue.count("Liberation Serif"), 1u);
}

TEST_F(FontCatalogue, TwoEntriesWithTheSameFileOpenTwoFaces)
{
    build_with({});
    font_catalogue["A"]["Regular"].path = t4test::LIBERATION_SANS;
    font_catalogue["B"]["Regular"].path = t4test::LIBERATION_SANS;
    testing::internal::CaptureStderr();
    FT_Face a = find_font_face("A", "Regular");
    FT_Face b = find_font_face("B", "Regular");
    testing::internal::GetCapturedStderr();
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_NE(a, b);
}

TEST_F(FontCatalogue, UnreadableFileIsReportedOnEveryLookup)
{
    build_with({});
    font_catalogue["Broken"]["Regular"].path = fonts / "missing.ttf";
    for (int i = 0; i < 2; i++) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(find_font_face("Broken", "Regular"), nullptr);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "Loading and initing font Broken style Regular\nUnable to load font " + (fonts / "missing.ttf") + "\n");
    }
}

TEST_F(FontCatalogue, RebuildClosesFacesAndListsAgain)
{
    build_with({{t4test::LIBERATION_SANS, "sans.ttf"}});
    testing::internal::CaptureStderr();
    ASSERT_NE(find_font_face("Liberation Sans", "Regular"), nullptr);
    build_font_catalogue();
    EXPECT_EQ(font_catalogue.at("Liberation Sans").at("Regular").face, nullptr);
    testing::internal::GetCapturedStderr();
}

TEST_F(FontCatalogue, KerningInWholePixelsFromTheSettingsFace)
{
    build_with({{"/usr/share/fonts/truetype/liberation/LiberationMono-Regular.ttf", "mono.ttf"}});
    scrolling_text_client_context ctx(1);
    // Liberation Sans kerns "AV" by -448/64 = -7 pixels at 100 pixels.
    FT_Set_Pixel_Sizes(default_face, 0, 100);
    EXPECT_EQ(kerning_between(&ctx, 'A', 'V'), -7);
    EXPECT_EQ(ctx.current_face, default_face);
    // A face without kerning data gives 0.
    scroll_settings.fontFamily = "Liberation Mono";
    testing::internal::CaptureStderr();
    EXPECT_EQ(kerning_between(&ctx, 'A', 'V'), 0);
    testing::internal::GetCapturedStderr();
    EXPECT_NE(ctx.current_face, default_face);
    // An unknown family falls back to the default face.
    scroll_settings.fontFamily = "Nowhere Sans";
    testing::internal::CaptureStderr();
    EXPECT_EQ(kerning_between(&ctx, 'A', 'V'), -7);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "WARNING: unknown font Nowhere Sans\n");
}

TEST(KerningPixels, ArithmeticShiftRoundsTowardMinusInfinity)
{
    EXPECT_EQ(kerning_pixels(-1), -1); // -1/64 pixel
    EXPECT_EQ(kerning_pixels(-64), -1);
    EXPECT_EQ(kerning_pixels(-65), -2);
    EXPECT_EQ(kerning_pixels(63), 0);
    EXPECT_EQ(kerning_pixels(128), 2);
}

TEST(GlyphMatrix, StretchesForNonSquarePixelsOnly)
{
    scrolling_text_client_context ctx(1);
    EXPECT_EQ(context_glyph_matrix(&ctx).xx, 0x10000); // no aspect known
    ctx.picture_width = 720;
    ctx.picture_height = 480;
    ctx.screen_aspect_num = 4;
    ctx.screen_aspect_den = 3;
    // 720 / (4 * 480 / 3) = 1.125
    EXPECT_EQ(context_glyph_matrix(&ctx).xx, FT_Fixed(1.125 * 65536));
    EXPECT_EQ(context_glyph_matrix(&ctx).yy, 0x10000);
    EXPECT_EQ(context_glyph_matrix(&ctx).xy, 0);
    ctx.picture_width = 1920;
    ctx.picture_height = 1080;
    ctx.screen_aspect_num = 16;
    ctx.screen_aspect_den = 9;
    EXPECT_EQ(context_glyph_matrix(&ctx).xx, 0x10000);
    // The reader's size wins once the context has one.
    ctx.create_reader();
    ctx.reader->frame_width = 720;
    ctx.reader->frame_height = 576;
    ctx.screen_aspect_num = 4;
    ctx.screen_aspect_den = 3;
    EXPECT_EQ(context_glyph_matrix(&ctx).xx, FT_Fixed(65536.0 * 720 / (4.0 * 576 / 3)));
}

} // namespace
