// The emoji image tool end to end: it renders U+1F600 from Debian's Noto
// Color Emoji into the redirected emoji directory, and the glyph cache then
// draws the emoji from that image, scaled to the line.
//
// With T4MI_SAMPLE_DIR set, the test also writes viewable PNGs of a glyph, its
// shadow, a CJK fall-back and both emoji modes there.
#include <cstdlib>
#include <filesystem>

#include <gtest/gtest.h>
#include <png.h>

#include "fonts/emoji_images.h"
#include "fonts/font_bmp.h"
#include "fonts/font_globals.h"
#include "fonts/font_test_support.h"
#include "fonts/glyph_cache.h"
#include "fonts/shadow.h"
#include "items/scroll_settings.h"

using namespace t4test;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

using emoji_tool_test = glyph_test;

// A record as an 8-bit RGBA PNG over white: coverage as black ink for
// glyphs and shadows, studio-range YUV back to RGB for emoji.
void save_sample(const std::string& path, const font_bmp_cache_storage* bmp)
{
    if (bmp == nullptr || bmp->plane_a == nullptr)
        return;
    test_png img;
    img.width = uint32_t(bmp->width);
    img.height = uint32_t(bmp->height);
    for (int y = 0; y < bmp->height; y++)
        for (int x = 0; x < bmp->width; x++) {
            const int i = y * bmp->stride + x;
            const double a = bmp->plane_a[i] / 255.0;
            double r = 0, g = 0, b = 0;
            if (bmp->plane_y != nullptr) {
                const double yy = 1.164 * (bmp->plane_y[i] - 16);
                const double u = bmp->plane_u[i] - 128.0, v = bmp->plane_v[i] - 128.0;
                r = yy + 1.596 * v;
                g = yy - 0.392 * u - 0.813 * v;
                b = yy + 2.017 * u;
            }
            auto over_white = [a](double c) {
                const double out = c * a + 255.0 * (1 - a);
                return uint8_t(out < 0 ? 0 : out > 255 ? 255 : out + 0.5);
            };
            img.data.insert(img.data.end(), {over_white(r), over_white(g), over_white(b), 255});
        }
    write_png(path, img);
}

TEST_F(emoji_tool_test, grinning_face_is_drawn_from_the_rendered_image)
{
#ifndef T4MI_EMOJI_TOOL
    GTEST_SKIP() << "emoji tool not built";
#else
    const process_result made = run_process(T4MI_EMOJI_TOOL, {NOTO_COLOR_EMOJI, emoji_dir(), "1f600"});
    ASSERT_EQ(made.exit_status, 0) << made.err;
    ASSERT_TRUE(std::filesystem::exists(emoji_dir() + "/emoji_u1f600.png"));

    CaptureStderr();
    font_bmp_cache_storage* e = get_font_bmp(ctx.get(), 100, 0x1F600);
    EXPECT_EQ(GetCapturedStderr(), "PNG info: 136 x 128 8-bit colortype=6 ilmethod=0 cmethod=0 fmethod=0\n"
                                   "  PNG_COLOR_MASK_COLOR\n  PNG_COLOR_MASK_ALPHA\n");
    ASSERT_NE(e, nullptr);
    ASSERT_NE(e->plane_y, nullptr);
    // 136 x 128 to 100 rows: floor(100 x 136 / 128 + 0.5) = 106 columns.
    EXPECT_EQ(e->height, 100);
    EXPECT_EQ(e->width, 106);
    // The forehead is opaque yellow (about R 250, G 206, B 45: Y near 188,
    // Cb near 51); the corners are transparent.
    const int forehead = 16 * e->stride + 53;
    EXPECT_EQ(e->plane_a[forehead], 255);
    EXPECT_GT(e->plane_y[forehead], 170);
    EXPECT_LT(e->plane_u[forehead], 80);
    EXPECT_GT(e->plane_v[forehead], 128);
    EXPECT_EQ(e->plane_a[0], 0);

    // Straight alpha: edge pixels keep the face's bright colour rather than
    // fading to black as premultiplied values would.
    const font_bmp_cache_storage* image = emoji_png_cache.at("emoji_u1f600.png");
    long partial = 0, bright = 0;
    for (int y = 0; y < image->height; y++)
        for (int x = 0; x < image->width; x++) {
            const int i = y * image->stride + x;
            if (image->plane_a[i] > 0 && image->plane_a[i] < 128) {
                partial++;
                bright += image->plane_y[i] > 120;
            }
        }
    ASSERT_GT(partial, 0);
    EXPECT_GT(bright * 10, partial * 8);

    if (const char* dir = std::getenv("T4MI_SAMPLE_DIR")) {
        save_sample(std::string(dir) + "/emoji_colour_1f600_line100.png", e);
        scroll_settings.emoji = 0;
        ctx->clear_bitmap_caches();
        save_sample(std::string(dir) + "/emoji_monochrome_1f600_line100.png", get_font_bmp(ctx.get(), 100, 0x1F600));
        scroll_settings.fontFamily = "WenQuanYi Micro Hei Light";
        save_sample(std::string(dir) + "/cjk_fallback_4e2d_line100.png", get_font_bmp(ctx.get(), 100, 0x4E2D));
        scroll_settings.fontFamily = "";
        save_sample(std::string(dir) + "/glyph_g_line200.png", get_font_bmp(ctx.get(), 200, 'g'));
        ctx->shadow_blur_radius = 8;
        save_sample(std::string(dir) + "/shadow_g_line200_r8.png", get_shadow_bmp(ctx.get(), 200, 'g'));
        ctx->shadow_blur_radius = 2;
        ctx->clear_bitmap_caches();
        save_sample(std::string(dir) + "/shadow_g_line200_r2.png", get_shadow_bmp(ctx.get(), 200, 'g'));
    }
#endif
}

} // namespace
