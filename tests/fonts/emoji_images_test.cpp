// Emoji image names, the process-wide image cache and the PNG reader, on
// images the tests write themselves.
#include <gtest/gtest.h>
#include <png.h>

#include "fonts/emoji_images.h"
#include "fonts/font_bmp.h"
#include "fonts/font_globals.h"
#include "fonts/font_test_support.h"

using namespace t4test;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

using emoji_images_test = glyph_test;

const std::string rgba_lines = "  PNG_COLOR_MASK_COLOR\n  PNG_COLOR_MASK_ALPHA\n";

TEST_F(emoji_images_test, file_names_are_lower_case_hex_without_leading_zeros)
{
    EXPECT_STREQ(emoji_get_pngname_by_char(0x1F600), "emoji_u1f600.png");
    EXPECT_STREQ(emoji_get_pngname_by_char(0x2764), "emoji_u2764.png");
    EXPECT_STREQ(emoji_get_pngname_by_char(0x2000), "emoji_u2000.png");
    EXPECT_STREQ(emoji_get_pngname_by_char(0x10FFFF), "emoji_u10ffff.png");
    EXPECT_EQ(emoji_get_pngname_by_char(0x1FFF), nullptr);
    EXPECT_EQ(emoji_get_pngname_by_char(0xE9), nullptr);
    EXPECT_EQ(emoji_get_pngname_by_char(-1), nullptr);
}

TEST_F(emoji_images_test, e_acute_never_looks_for_a_file)
{
    // Even a file of that name would not be read.
    write_png(emoji_dir() + "/emoji_ue9.png", solid_rgba8(32, 32, 1, 2, 3, 255));
    CaptureStderr();
    EXPECT_EQ(get_emoji_bmp(0xE9), nullptr);
    EXPECT_EQ(GetCapturedStderr(), "");
    EXPECT_TRUE(emoji_png_cache.empty());
}

TEST_F(emoji_images_test, heavy_heart_looks_for_its_file_in_the_emoji_directory)
{
    CaptureStderr();
    EXPECT_EQ(get_emoji_bmp(0x2764), nullptr);
    EXPECT_EQ(GetCapturedStderr(), "PNG: cannot open " + emoji_dir() + "/emoji_u2764.png\n");

    free_emoji_png_cache();
    write_png(emoji_dir() + "/emoji_u2764.png", solid_rgba8(72, 72, 255, 0, 0, 255));
    CaptureStderr();
    font_bmp_cache_storage* e = get_emoji_bmp(0x2764);
    EXPECT_EQ(GetCapturedStderr(),
              "PNG info: 72 x 72 8-bit colortype=6 ilmethod=0 cmethod=0 fmethod=0\n" + rgba_lines);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(emoji_png_cache.at("emoji_u2764.png"), e);
    EXPECT_EQ(get_emoji_bmp(0x2764), e);
}

TEST_F(emoji_images_test, a_second_request_for_a_missing_file_prints_nothing)
{
    CaptureStderr();
    EXPECT_EQ(get_emoji_bmp(0x1F600), nullptr);
    GetCapturedStderr();
    // Even once the file exists: the failure is cached for the process.
    write_png(emoji_dir() + "/emoji_u1f600.png", solid_rgba8(72, 72, 255, 0, 0, 255));
    CaptureStderr();
    EXPECT_EQ(get_emoji_bmp(0x1F600), nullptr);
    EXPECT_EQ(GetCapturedStderr(), "");
}

TEST_F(emoji_images_test, rgba_record_has_four_zero_padded_planes)
{
    const std::string path = emoji_dir() + "/x.png";
    write_png(path, solid_rgba8(20, 30, 255, 255, 255, 255));
    CaptureStderr();
    font_bmp_cache_storage* e = load_png_as_font_bmp(path.c_str());
    GetCapturedStderr();
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->width, 20);
    EXPECT_EQ(e->height, 30);
    EXPECT_EQ(e->stride, 28);
    EXPECT_EQ(e->advance, 20);
    EXPECT_EQ(e->x_offset, 0);
    EXPECT_EQ(e->y_offset, 0);
    EXPECT_EQ(e->tag, -1);
    for (uint8_t* plane : {e->plane_a, e->plane_y, e->plane_u, e->plane_v}) {
        ASSERT_NE(plane, nullptr);
        for (int y = 0; y < 30; y++)
            for (int x = 20; x < 28; x++)
                ASSERT_EQ(plane[y * 28 + x], 0);
        for (int i = 0; i < 256; i++)
            ASSERT_EQ(plane[28 * 30 + i], 0);
    }
    font_bmp_free(e);
}

TEST_F(emoji_images_test, pixels_convert_to_studio_range_bt601_without_rounding)
{
    // Red: Y (66 x 255 + 4096) >> 8 = 20926 >> 8 = 81, Cb (-38 x 255 + 32768) >> 8
    // = 23078 >> 8 = 90, Cr (112 x 255 + 32768) >> 8 = 61328 >> 8 = 239.
    // White: Y (220 x 255 + 4096) >> 8 = 60196 >> 8 = 235, Cb = Cr = 32768 >> 8 = 128.
    // Transparent blue keeps its colour: Y (25 x 255 + 4096) >> 8 = 40,
    // Cb (112 x 255 + 32768) >> 8 = 239, Cr (-18 x 255 + 32768) >> 8 = 110.
    // Half grey (128, 128, 128, 77): Y (220 x 128 + 4096) >> 8 = 126,
    // Cb (0 + 32768) >> 8 = 128, Cr = 128.
    const std::string path = emoji_dir() + "/colours.png";
    write_png(path, rgba8_image(16, 16, [](uint32_t x, uint32_t) {
                  switch (x) {
                  case 0: return std::vector<uint8_t>{255, 0, 0, 255};
                  case 1: return std::vector<uint8_t>{255, 255, 255, 255};
                  case 2: return std::vector<uint8_t>{0, 0, 255, 0};
                  default: return std::vector<uint8_t>{128, 128, 128, 77};
                  }
              }));
    CaptureStderr();
    font_bmp_cache_storage* e = load_png_as_font_bmp(path.c_str());
    GetCapturedStderr();
    ASSERT_NE(e, nullptr);
    const int row = 5 * e->stride;
    EXPECT_EQ(e->plane_y[row + 0], 81);
    EXPECT_EQ(e->plane_u[row + 0], 90);
    EXPECT_EQ(e->plane_v[row + 0], 239);
    EXPECT_EQ(e->plane_a[row + 0], 255);
    EXPECT_EQ(e->plane_y[row + 1], 235);
    EXPECT_EQ(e->plane_u[row + 1], 128);
    EXPECT_EQ(e->plane_v[row + 1], 128);
    EXPECT_EQ(e->plane_y[row + 2], 40);
    EXPECT_EQ(e->plane_u[row + 2], 239);
    EXPECT_EQ(e->plane_v[row + 2], 110);
    EXPECT_EQ(e->plane_a[row + 2], 0);
    EXPECT_EQ(e->plane_y[row + 3], 126);
    EXPECT_EQ(e->plane_u[row + 3], 128);
    EXPECT_EQ(e->plane_a[row + 3], 77);
    font_bmp_free(e);
}

TEST_F(emoji_images_test, sixteen_bit_rgba_is_accepted_and_read_as_eight_bit)
{
    // 16-bit samples, big-endian: 0xFFFF -> 255, 0x0000 -> 0, and 0x12FF,
    // which libpng scales (not truncates): round(0x12FF x 255 / 65535)
    // = round(18.92) = 19, where truncating would give 0x12 = 18.
    test_png img;
    img.width = 72;
    img.height = 72;
    img.bit_depth = 16;
    img.color_type = PNG_COLOR_TYPE_RGB_ALPHA;
    for (uint32_t i = 0; i < 72 * 72; i++)
        img.data.insert(img.data.end(), {0xFF, 0xFF, 0x00, 0x00, 0x12, 0xFF, 0x12, 0xFF});
    write_png(emoji_dir() + "/emoji_u1f600.png", img);
    CaptureStderr();
    font_bmp_cache_storage* e = get_emoji_bmp(0x1F600);
    EXPECT_EQ(GetCapturedStderr(),
              "PNG info: 72 x 72 16-bit colortype=6 ilmethod=0 cmethod=0 fmethod=0\n" + rgba_lines);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->width, 72);
    EXPECT_EQ(e->stride, 80);
    EXPECT_EQ(e->plane_a[40 * 80 + 40], 19);
    // (255, 0, 19): Y (66 x 255 + 25 x 19 + 4096) >> 8 = 21401 >> 8 = 83,
    // Cb (-38 x 255 + 112 x 19 + 32768) >> 8 = 25206 >> 8 = 98.
    EXPECT_EQ(e->plane_y[40 * 80 + 40], 83);
    EXPECT_EQ(e->plane_u[0], 98);
}

struct refusal {
    const char* name;
    test_png image;
    std::string expected_err;
};

class emoji_refusal_test : public glyph_test, public ::testing::WithParamInterface<int> {};

std::vector<refusal> refusals()
{
    std::vector<refusal> r;
    r.push_back({"narrow", pattern_image(15, 72, 8, PNG_COLOR_TYPE_RGB_ALPHA),
                 "PNG info: 15 x 72 8-bit colortype=6 ilmethod=0 cmethod=0 fmethod=0\n" + rgba_lines +
                     "Image width and height is unacceptable\n"});
    r.push_back({"large", pattern_image(257, 257, 8, PNG_COLOR_TYPE_RGB_ALPHA),
                 "PNG info: 257 x 257 8-bit colortype=6 ilmethod=0 cmethod=0 fmethod=0\n" + rgba_lines +
                     "Image width and height is unacceptable\n"});
    r.push_back({"adam7", pattern_image(72, 72, 8, PNG_COLOR_TYPE_RGB_ALPHA, PNG_INTERLACE_ADAM7),
                 "PNG info: 72 x 72 8-bit colortype=6 ilmethod=1 cmethod=0 fmethod=0\n" + rgba_lines +
                     "We do not support interlaced PNGs\n"});
    r.push_back({"palette", pattern_image(72, 72, 8, PNG_COLOR_TYPE_PALETTE),
                 "PNG info: 72 x 72 8-bit colortype=3 ilmethod=0 cmethod=0 fmethod=0\n"
                 "  PNG_COLOR_MASK_PALETTE\n  PNG_COLOR_MASK_COLOR\n"
                 "PNG must be RGBA\n"});
    r.push_back({"grey", pattern_image(72, 72, 8, PNG_COLOR_TYPE_GRAY),
                 "PNG info: 72 x 72 8-bit colortype=0 ilmethod=0 cmethod=0 fmethod=0\n"
                 "PNG must be RGBA\n"});
    r.push_back({"grey_alpha", pattern_image(72, 72, 8, PNG_COLOR_TYPE_GRAY_ALPHA),
                 "PNG info: 72 x 72 8-bit colortype=4 ilmethod=0 cmethod=0 fmethod=0\n"
                 "  PNG_COLOR_MASK_ALPHA\n"
                 "PNG must be RGBA\n"});
    r.push_back({"rgb", pattern_image(72, 72, 8, PNG_COLOR_TYPE_RGB),
                 "PNG info: 72 x 72 8-bit colortype=2 ilmethod=0 cmethod=0 fmethod=0\n"
                 "  PNG_COLOR_MASK_COLOR\n"
                 "PNG must be RGBA\n"});
    // The checks run in order: size before interlace before colour type.
    r.push_back({"small_interlaced_palette", pattern_image(15, 15, 8, PNG_COLOR_TYPE_PALETTE, PNG_INTERLACE_ADAM7),
                 "PNG info: 15 x 15 8-bit colortype=3 ilmethod=1 cmethod=0 fmethod=0\n"
                 "  PNG_COLOR_MASK_PALETTE\n  PNG_COLOR_MASK_COLOR\n"
                 "Image width and height is unacceptable\n"});
    r.push_back({"interlaced_grey", pattern_image(72, 72, 8, PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_ADAM7),
                 "PNG info: 72 x 72 8-bit colortype=0 ilmethod=1 cmethod=0 fmethod=0\n"
                 "We do not support interlaced PNGs\n"});
    return r;
}

TEST_P(emoji_refusal_test, is_refused_with_its_message_once_and_cached_as_null)
{
    const refusal r = refusals()[size_t(GetParam())];
    SCOPED_TRACE(r.name);
    write_png(emoji_dir() + "/emoji_u1f600.png", r.image);
    CaptureStderr();
    EXPECT_EQ(get_emoji_bmp(0x1F600), nullptr);
    EXPECT_EQ(GetCapturedStderr(), r.expected_err);
    ASSERT_EQ(emoji_png_cache.count("emoji_u1f600.png"), 1u);
    EXPECT_EQ(emoji_png_cache.at("emoji_u1f600.png"), nullptr);
    CaptureStderr();
    EXPECT_EQ(get_emoji_bmp(0x1F600), nullptr);
    EXPECT_EQ(GetCapturedStderr(), "");
}

INSTANTIATE_TEST_SUITE_P(images, emoji_refusal_test, ::testing::Range(0, int(refusals().size())));

TEST_F(emoji_images_test, sizes_from_16_to_256_are_accepted)
{
    for (const auto& [w, h] : std::vector<std::pair<uint32_t, uint32_t>>{{16, 16}, {256, 256}, {16, 256}, {256, 16}}) {
        const std::string path = emoji_dir() + "/size.png";
        write_png(path, solid_rgba8(w, h, 9, 9, 9, 9));
        CaptureStderr();
        font_bmp_cache_storage* e = load_png_as_font_bmp(path.c_str());
        GetCapturedStderr();
        ASSERT_NE(e, nullptr) << w << "x" << h;
        EXPECT_EQ(e->width, int(w));
        EXPECT_EQ(e->height, int(h));
        font_bmp_free(e);
    }
}

TEST_F(emoji_images_test, freeing_the_cache_empties_it)
{
    write_png(emoji_dir() + "/emoji_u1f600.png", solid_rgba8(16, 16, 9, 9, 9, 9));
    CaptureStderr();
    get_emoji_bmp(0x1F600);
    get_emoji_bmp(0x1F601);
    GetCapturedStderr();
    EXPECT_EQ(emoji_png_cache.size(), 2u);
    free_emoji_png_cache();
    EXPECT_TRUE(emoji_png_cache.empty());
}

} // namespace
