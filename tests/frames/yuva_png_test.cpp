// YUVA back to RGBA (BT.601 studio range) and PNG files.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "frames/frame_buffer.h"
#include "frames/yuva_png.h"
#include "support/test_env.h"

namespace {

struct rgb {
    uint8_t r, g, b;
    bool operator==(const rgb&) const = default;
};

rgb convert(uint8_t y, uint8_t u, uint8_t v)
{
    rgb c{};
    yuv_to_rgb(y, u, v, &c.r, &c.g, &c.b);
    return c;
}

TEST(YuvToRgb, StudioRangeEndsMapToFullRange)
{
    // White: C = 219, 298 x 219 + 128 = 65390, >> 8 = 255.
    EXPECT_EQ(convert(235, 128, 128), (rgb{255, 255, 255}));
    EXPECT_EQ(convert(16, 128, 128), (rgb{0, 0, 0}));
    // Below black and above white clamp.
    EXPECT_EQ(convert(0, 128, 128), (rgb{0, 0, 0}));
    EXPECT_EQ(convert(255, 128, 128), (rgb{255, 255, 255}));
}

TEST(YuvToRgb, PureRedComesBackRed)
{
    // The frame path turns (255, 0, 0) into Y = (66 x 255 + 4096) >> 8 = 81,
    // U = (-38 x 255 + 32768) >> 8 = 90, V = (112 x 255 + 32768) >> 8 = 239.
    // Back: C = 65, D = -38, E = 111:
    //   R = (19370 + 45399 + 128) >> 8 = 253
    //   G = (19370 + 3800 - 23088 + 128) >> 8 = 0
    //   B = (19370 - 19608 + 128) >> 8 = -1, clamped to 0.
    EXPECT_EQ(convert(81, 90, 239), (rgb{253, 0, 0}));
}

TEST(YuvaToRgba, WalksStridesAndCopiesAlpha)
{
    // 3 x 2 pixels in rows of 4 bytes (one byte of padding each).
    const uint8_t y[] = {235, 16, 81, 99, 16, 235, 81, 99};
    const uint8_t u[] = {128, 128, 90, 99, 128, 128, 90, 99};
    const uint8_t v[] = {128, 128, 239, 99, 128, 128, 239, 99};
    const uint8_t a[] = {255, 128, 0, 99, 1, 2, 3, 99};
    yuva_frame_planes p;
    p.y = y;
    p.u = u;
    p.v = v;
    p.alpha = a;
    p.width = 3;
    p.height = 2;
    p.y_stride = p.chroma_stride = p.alpha_stride = 4;
    const std::vector<uint8_t> expected = {
        255, 255, 255, 255, 0, 0, 0, 128, 253, 0, 0, 0,  // row 0
        0, 0, 0, 1, 255, 255, 255, 2, 253, 0, 0, 3,      // row 1
    };
    EXPECT_EQ(yuva_to_rgba(p), expected);

    p.alpha = nullptr;  // no alpha plane: opaque
    const std::vector<uint8_t> opaque = yuva_to_rgba(p);
    EXPECT_EQ(opaque[3], 255);
    EXPECT_EQ(opaque[23], 255);
}

TEST(RgbaPng, WritesAndReadsBackTheSamePixels)
{
    t4test::temp_dir dir;
    const std::vector<uint8_t> pixels = {
        255, 0, 0, 255, 0, 255, 0, 128, 0, 0, 255, 0,
        1, 2, 3, 4, 250, 251, 252, 253, 9, 8, 7, 6,
    };
    ASSERT_TRUE(write_rgba_png(dir / "a.png", pixels.data(), 3, 2));
    std::vector<uint8_t> back;
    uint32_t w = 0, h = 0;
    ASSERT_TRUE(read_rgba_png(dir / "a.png", &back, &w, &h));
    EXPECT_EQ(w, 3u);
    EXPECT_EQ(h, 2u);
    EXPECT_EQ(back, pixels);
}

TEST(RgbaPng, FailuresAreReportedNotThrown)
{
    t4test::temp_dir dir;
    std::string error;
    std::vector<uint8_t> back;
    uint32_t w = 0, h = 0;
    EXPECT_FALSE(read_rgba_png(dir / "missing.png", &back, &w, &h, &error));
    EXPECT_FALSE(error.empty());
    t4test::write_file(dir / "bad.png", "not a png at all");
    EXPECT_FALSE(read_rgba_png(dir / "bad.png", &back, &w, &h, &error));
    const uint8_t pixel[4] = {1, 2, 3, 4};
    error.clear();
    EXPECT_FALSE(write_rgba_png(dir / "no/such/dir/x.png", pixel, 1, 1, &error));
    EXPECT_FALSE(error.empty());
}

} // namespace
