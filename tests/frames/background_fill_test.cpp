// The background fill: every byte of the four planes (stride bytes too) takes
// its plane's byte of the colour, and nothing outside the planes is written,
// whether the planes lie back to back (as in a frame) or apart.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "frames/background_fill.h"

namespace {

using frame_params = my_AVIVideoRandomReader::common_codec_setup_yuv_params;

constexpr size_t GUARD = 64;
constexpr uint8_t UNTOUCHED = 0xA5;

// A picture's planes in one buffer, each preceded by `gap` bytes (0: back to
// back as in a frame), with guard bytes before and after.
struct planes {
    planes(int64_t w, int64_t h, size_t gap)
    {
        EXPECT_TRUE(my_AVIVideoRandomReader::common_codec_setup_yuv(w, h, p));
        y_bytes = p.y_stride * uint64_t(h);
        chroma_bytes = p.chroma_stride * uint64_t(p.chroma_height);
        alpha_bytes = p.alpha_stride * uint64_t(h);
        bytes.assign(2 * GUARD + p.plane_bytes + 4 * gap, UNTOUCHED);
        p.y = bytes.data() + GUARD + gap;
        p.u = p.y + y_bytes + gap;
        p.v = p.u + chroma_bytes + gap;
        p.alpha = p.v + chroma_bytes + gap;
    }
    // The bytes a fill with `yuva` must leave: each plane its value, the rest untouched.
    std::vector<uint8_t> expected(uint32_t yuva) const
    {
        std::vector<uint8_t> e(bytes.size(), UNTOUCHED);
        auto fill = [&](const uint8_t* plane, uint64_t n, uint8_t value) {
            std::fill_n(e.begin() + (plane - bytes.data()), n, value);
        };
        fill(p.y, y_bytes, uint8_t(yuva));
        fill(p.u, chroma_bytes, uint8_t(yuva >> 8));
        fill(p.v, chroma_bytes, uint8_t(yuva >> 16));
        fill(p.alpha, alpha_bytes, uint8_t(yuva >> 24));
        return e;
    }
    frame_params p;
    uint64_t y_bytes = 0, chroma_bytes = 0, alpha_bytes = 0;
    std::vector<uint8_t> bytes;
};

TEST(BackgroundFill, EveryPlaneTakesItsByteOfTheColour)
{
    std::mt19937 rng(108);
    const uint32_t colours[] = {
        16u | 128u << 8 | 128u << 16,              // transparent black: U and V alike
        235u | 128u << 8 | 128u << 16 | 255u << 24, // opaque white
        81u | 90u << 8 | 239u << 16 | 128u << 24,  // half red: every plane differs
        0x80808080u,                               // all four alike
    };
    const int64_t sizes[][2] = {{1, 1}, {3, 5}, {33, 7}, {1920, 108}, {1921, 11}, {720, 576}, {1920, 1080}};
    for (const auto& size : sizes)
        for (size_t gap : {size_t(0), size_t(1), size_t(37)})
            for (uint32_t colour : colours) {
                planes pic(size[0], size[1], gap);
                fill_background(pic.p, colour);
                ASSERT_EQ(pic.bytes, pic.expected(colour))
                    << size[0] << "x" << size[1] << " gap " << gap << " colour " << std::hex << colour;
                const uint32_t other = uint32_t(rng());
                fill_background(pic.p, other);
                ASSERT_EQ(pic.bytes, pic.expected(other)) << "refilled with " << std::hex << other;
            }
}

TEST(BackgroundFill, WithoutAnAlphaPlaneOnlyYuvIsWritten)
{
    planes pic(64, 4, 0);
    pic.p.alpha = nullptr;
    pic.p.alpha_stride = 0;
    pic.alpha_bytes = 0;
    fill_background(pic.p, 0x11223344u);
    std::vector<uint8_t> expected(pic.bytes.size(), UNTOUCHED);
    std::fill_n(expected.begin() + GUARD, pic.y_bytes, uint8_t(0x44));
    std::fill_n(expected.begin() + GUARD + long(pic.y_bytes), pic.chroma_bytes, uint8_t(0x33));
    std::fill_n(expected.begin() + GUARD + long(pic.y_bytes + pic.chroma_bytes), pic.chroma_bytes, uint8_t(0x22));
    EXPECT_EQ(pic.bytes, expected);
}

} // namespace
