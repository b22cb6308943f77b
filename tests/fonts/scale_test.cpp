// Bilinear plane scaling in 16.16 with corner alignment, against values
// worked out by hand.
#include <csignal>
#include <vector>

#include <gtest/gtest.h>

#include "fonts/font_bmp.h"
#include "support/sanitizers.h"

namespace {

// A plane of w x h pixels with 8 spare bytes a row, filled by `pixel`; spare
// bytes get `spare` so that any use of them shows.
struct plane {
    font_bmp_cache_storage rec;
    std::vector<uint8_t> bytes;
    plane(int w, int h, uint8_t spare = 0)
    {
        rec.width = w;
        rec.height = h;
        rec.stride = w + 8;
        bytes.assign(size_t(rec.stride) * h, spare);
    }
    template <typename F> plane& fill(F pixel)
    {
        for (int y = 0; y < rec.height; y++)
            for (int x = 0; x < rec.width; x++)
                bytes[size_t(y) * rec.stride + x] = uint8_t(pixel(x, y));
        return *this;
    }
    uint8_t at(int x, int y) const { return bytes[size_t(y) * rec.stride + x]; }
};

void scale(plane& dst, const plane& src) { dst.rec.scalecopy(&dst.rec, dst.bytes.data(), &src.rec, src.bytes.data()); }

TEST(scale_test, equal_sizes_copy_exactly)
{
    // xstep = ystep = 65536: every fraction is 0.
    plane src(40, 30, 0xEE);
    src.fill([](int x, int y) { return (x * 37 + y * 11) & 0xFF; });
    plane dst(40, 30, 0xAA);
    scale(dst, src);
    for (int y = 0; y < 30; y++)
        for (int x = 0; x < 40; x++)
            ASSERT_EQ(dst.at(x, y), src.at(x, y)) << x << "," << y;
}

TEST(scale_test, seventy_two_pixels_to_thirty_six_step_by_132944)
{
    // xstep = (71 x 65536) / 35 = 132944. On the ramp 3x the interpolation is
    // exact, so column k is floor(3 x k x 132944 / 65536): column 1 is
    // floor(6.086) = 6, column 35 floor(212.9998) = 212 (the truncated step
    // never quite reaches the last pixel, 213).
    plane src(72, 2);
    src.fill([](int x, int) { return 3 * x; });
    plane dst(36, 2); // two rows: a one-row destination would divide by zero
    scale(dst, src);
    EXPECT_EQ(dst.at(0, 0), 0);
    EXPECT_EQ(dst.at(1, 0), 6);
    EXPECT_EQ(dst.at(2, 0), 12); // 2 x 132944 = 265888 = 4.0571 px: 12.17
    EXPECT_EQ(dst.at(17, 0), 103); // 17 x 132944 / 65536 = 34.486: 103.46
    EXPECT_EQ(dst.at(35, 0), 212);
    for (int k = 0; k < 36; k++)
        EXPECT_EQ(dst.at(k, 1), (3ull * k * 132944) >> 16) << k;
}

TEST(scale_test, two_hundred_fifty_six_rows_to_four_use_rows_0_85_170_255)
{
    // ystep = (255 x 65536) / 3 = 5570560 = 85 x 65536, with no fraction.
    plane src(16, 256);
    src.fill([](int, int y) { return y; });
    plane dst(16, 4, 0xAA);
    scale(dst, src);
    EXPECT_EQ(dst.at(0, 0), 0);
    EXPECT_EQ(dst.at(5, 1), 85);
    EXPECT_EQ(dst.at(9, 2), 170);
    EXPECT_EQ(dst.at(15, 3), 255);
}

TEST(scale_test, a_source_one_pixel_wide_copies_column_zero)
{
    // xstep = 0: every column reads column 0 with weight 1 (and the spare
    // byte after it with weight 0).
    plane src(1, 3, 0xFF);
    src.fill([](int, int y) { return 10 + 100 * y; });
    plane dst(5, 3);
    scale(dst, src);
    for (int y = 0; y < 3; y++)
        for (int x = 0; x < 5; x++)
            EXPECT_EQ(dst.at(x, y), 10 + 100 * y);
}

TEST(scale_test, vertical_blend_weighs_the_two_rows_and_truncates)
{
    // 2 rows to 3: ystep = 65536 / 2 = 32768; the middle row is
    // (a x 32768 + b x 32768) >> 16 = (a + b) / 2 truncated: (7 + 10) / 2 = 8.
    plane src(2, 2);
    src.fill([](int, int y) { return y == 0 ? 7 : 10; });
    plane dst(2, 3);
    scale(dst, src);
    EXPECT_EQ(dst.at(0, 0), 7);
    EXPECT_EQ(dst.at(1, 1), 8);
    EXPECT_EQ(dst.at(0, 2), 10);
}

TEST(scale_test, a_constant_plane_stays_constant_and_spare_bytes_never_count)
{
    plane src(136, 128, 0xFF);
    src.fill([](int, int) { return 200; });
    plane dst(106, 100, 0x5A);
    scale(dst, src);
    for (int y = 0; y < 100; y++) {
        for (int x = 0; x < 106; x++)
            ASSERT_EQ(dst.at(x, y), 200) << x << "," << y;
        // Only df.width bytes of each row are written.
        for (int x = 106; x < 114; x++)
            ASSERT_EQ(dst.bytes[size_t(y) * 114 + x], 0x5A);
    }
}

TEST(scale_test, the_destination_stride_places_the_rows)
{
    plane src(16, 16);
    src.fill([](int x, int y) { return x + 16 * y; });
    font_bmp_cache_storage d;
    d.width = 16;
    d.height = 16;
    d.stride = 40;
    std::vector<uint8_t> out(40 * 16, 0xAA);
    d.scalecopy(&d, out.data(), &src.rec, src.bytes.data());
    EXPECT_EQ(out[3 * 40 + 5], 5 + 48);
    EXPECT_EQ(out[3 * 40 + 16], 0xAA);
}

TEST(scale_death_test, a_destination_one_pixel_wide_divides_by_zero)
{
    plane src(16, 16);
    plane dst(1, 16);
    if (t4test::sanitized) // UBSan stops the process at the division, before the CPU traps
        EXPECT_DEATH(scale(dst, src), "division by zero");
    else
        EXPECT_EXIT(scale(dst, src), ::testing::KilledBySignal(SIGFPE), "");
}

TEST(scale_death_test, empty_records_fail_their_assertions)
{
    plane src(16, 16);
    plane dst(16, 16);
    font_bmp_cache_storage empty;
    empty.width = 0;
    empty.height = 5;
    empty.stride = 8;
    EXPECT_DEATH(dst.rec.scalecopy(&dst.rec, dst.bytes.data(), &empty, src.bytes.data()),
                 "Assertion `sf->width > 0' failed\\.");
    empty.width = 5;
    empty.height = 0;
    EXPECT_DEATH(dst.rec.scalecopy(&dst.rec, dst.bytes.data(), &empty, src.bytes.data()),
                 "Assertion `sf->height > 0' failed\\.");
    EXPECT_DEATH(dst.rec.scalecopy(&empty, dst.bytes.data(), &src.rec, src.bytes.data()),
                 "Assertion `df->height > 0' failed\\.");
    empty.width = 0;
    empty.height = 5;
    EXPECT_DEATH(dst.rec.scalecopy(&empty, dst.bytes.data(), &src.rec, src.bytes.data()),
                 "Assertion `df->width > 0' failed\\.");
}

TEST(scale_death_test, rows_outside_the_source_plane_fail_the_bounds_assertion)
{
    // With a stride of -12 the rows run backwards: the plane of 4 rows ends
    // at src - 48, and the first row's successor (src - 12) lies beyond it.
    plane backing(4, 8);
    font_bmp_cache_storage bad = backing.rec;
    bad.height = 4;
    bad.stride = -12;
    plane dst(4, 4);
    EXPECT_DEATH(dst.rec.scalecopy(&dst.rec, dst.bytes.data(), &bad, backing.bytes.data() + 48),
                 "Assertion `\\(srow1\\+sf->stride\\) <= \\(src\\+sf->stride\\*sf->height\\)' failed\\.");
}

} // namespace
