// What a recycled slot was painted with: given back once, and only for the
// same geometry and background; anything else means a whole fill.
#include <gtest/gtest.h>

#include <vector>

#include "frames/painted_slots.h"

namespace {

using frame_params = my_AVIVideoRandomReader::common_codec_setup_yuv_params;
using area = frame_painter::area;

frame_params geometry(int64_t w, int64_t h)
{
    frame_params p;
    EXPECT_TRUE(my_AVIVideoRandomReader::common_codec_setup_yuv(w, h, p));
    return p;
}

// Serials far above any the other tests' allocations reach.
constexpr uint64_t SERIAL = uint64_t(1) << 40;

TEST(PaintedSlots, TheSamePictureGetsItsRectanglesBackOnce)
{
    const frame_params p = geometry(64, 32);
    remember_painted_slot(SERIAL, p, 0x80808000u, {{1, 2, 3, 4}, {10, 0, 20, 32}});
    std::vector<area> dirty;
    ASSERT_TRUE(take_painted_slot(SERIAL, p, 0x80808000u, &dirty));
    ASSERT_EQ(dirty.size(), 2u);
    EXPECT_EQ(dirty[1].x0, 10);
    EXPECT_EQ(dirty[1].y1, 32);
    EXPECT_FALSE(take_painted_slot(SERIAL, p, 0x80808000u, &dirty));  // forgotten once taken
}

TEST(PaintedSlots, AnotherBackgroundOrGeometryMeansAWholeFill)
{
    const frame_params p = geometry(64, 32);
    std::vector<area> dirty;
    remember_painted_slot(SERIAL + 1, p, 0x80808000u, {{1, 2, 3, 4}});
    EXPECT_FALSE(take_painted_slot(SERIAL + 1, p, 0xFF808000u, &dirty));
    EXPECT_FALSE(take_painted_slot(SERIAL + 1, p, 0x80808000u, &dirty));  // forgotten all the same

    remember_painted_slot(SERIAL + 2, p, 0x80808000u, {{1, 2, 3, 4}});
    EXPECT_FALSE(take_painted_slot(SERIAL + 2, geometry(32, 64), 0x80808000u, &dirty));
    EXPECT_TRUE(dirty.empty());
}

TEST(PaintedSlots, NoPreviousFrameIsNoneKnown)
{
    const frame_params p = geometry(64, 32);
    std::vector<area> dirty;
    remember_painted_slot(0, p, 0, {});
    EXPECT_FALSE(take_painted_slot(0, p, 0, &dirty));
    EXPECT_FALSE(take_painted_slot(SERIAL + 3, p, 0, &dirty));
}

} // namespace
