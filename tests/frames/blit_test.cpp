// The accumulating blend and the two blits, on small synthetic bitmaps with
// values worked out by hand.
#include <gtest/gtest.h>

#include <vector>

#include "fonts/font_bmp.h"
#include "frames/blit.h"
#include "frames/yuva_pixel.h"

namespace {

using frame_params = my_AVIVideoRandomReader::common_codec_setup_yuv_params;

// A YUVA picture in ordinary memory, laid out like a frame.
struct picture {
    picture(int w, int h, uint8_t y = 16, uint8_t u = 128, uint8_t v = 128, uint8_t a = 0)
    {
        EXPECT_TRUE(my_AVIVideoRandomReader::common_codec_setup_yuv(w, h, p));
        bytes.assign(p.plane_bytes, 0);
        p.y = bytes.data();
        p.u = p.y + p.y_stride * uint64_t(h);
        p.v = p.u + p.chroma_stride * uint64_t(h);
        p.alpha = p.v + p.chroma_stride * uint64_t(h);
        std::fill(p.y, p.u, y);
        std::fill(p.u, p.v, u);
        std::fill(p.v, p.alpha, v);
        std::fill(p.alpha, bytes.data() + bytes.size(), a);
    }
    uint8_t Y(int x, int row) const { return p.y[size_t(row) * p.y_stride + size_t(x)]; }
    uint8_t U(int x, int row) const { return p.u[size_t(row) * p.chroma_stride + size_t(x)]; }
    uint8_t V(int x, int row) const { return p.v[size_t(row) * p.chroma_stride + size_t(x)]; }
    uint8_t A(int x, int row) const { return p.alpha[size_t(row) * p.alpha_stride + size_t(x)]; }
    frame_params p;
    std::vector<uint8_t> bytes;
};

// A coverage-only bitmap of `rows` (all the same length), stride width + 8.
struct bitmap {
    using rows_t = std::vector<std::vector<uint8_t>>;
    explicit bitmap(const rows_t& rows)
    {
        b = font_bmp_alloc();
        b->width = int32_t(rows[0].size());
        b->height = int32_t(rows.size());
        b->stride = b->width + 8;
        b->plane_a = font_bmp_zeroed_plane(b->stride, b->height);
        for (size_t r = 0; r < rows.size(); r++)
            std::copy(rows[r].begin(), rows[r].end(), b->plane_a + r * size_t(b->stride));
    }
    ~bitmap() { font_bmp_free(b); }
    font_bmp_cache_storage* b;
};

constexpr uint32_t WHITE = 235u | 128u << 8 | 128u << 16 | 255u << 24;

TEST(Yuvablend, TransparentDestinationTakesTheColourAndTheSourceAlpha)
{
    uint8_t y = 16, u = 128, v = 128, a = 0;
    yuvablend(&y, &u, &v, &a, 77, 235, 100, 200);
    EXPECT_EQ(y, 235);
    EXPECT_EQ(u, 100);
    EXPECT_EQ(v, 200);
    EXPECT_EQ(a, 77);
    // s = 0 on d = 0 still copies the colour, with alpha 0.
    y = 16, u = 128, v = 128, a = 0;
    yuvablend(&y, &u, &v, &a, 0, 235, 90, 240);
    EXPECT_EQ(y, 235);
    EXPECT_EQ(u, 90);
    EXPECT_EQ(v, 240);
    EXPECT_EQ(a, 0);
}

TEST(Yuvablend, TwoHalfCoveragesAccumulateToOpaque)
{
    // First s = 128 on d = 0: copy, alpha 128. Second s = 128 (Y 16):
    // d + s = 256, ia = 128 * 256 / 256 = 128, alpha min(256, 255) = 255,
    // Y = (16 * 128 + 235 * 128 + 128) >> 8 = 32256 >> 8 = 126,
    // U = V = (128 * 128 + 128 * 128 + 128) >> 8 = 128.
    uint8_t y = 0, u = 0, v = 0, a = 0;
    yuvablend(&y, &u, &v, &a, 128, 235, 128, 128);
    EXPECT_EQ(a, 128);
    yuvablend(&y, &u, &v, &a, 128, 16, 128, 128);
    EXPECT_EQ(y, 126);
    EXPECT_EQ(u, 128);
    EXPECT_EQ(v, 128);
    EXPECT_EQ(a, 255);
}

TEST(Yuvablend, ShareOfTheSummedAlpha)
{
    // d = 100, s = 50: ia = 12800 / 150 = 85, alpha 150,
    // Y = (235 * 85 + 16 * 171 + 128) >> 8 = (19975 + 2736 + 128) >> 8 = 89.
    uint8_t y = 16, u = 128, v = 128, a = 100;
    yuvablend(&y, &u, &v, &a, 50, 235, 128, 128);
    EXPECT_EQ(y, 89);
    EXPECT_EQ(a, 150);
    // d = 200, s = 100: d + s >= 257, so ia = s = 100 and alpha 255,
    // Y = (235 * 100 + 16 * 156 + 128) >> 8 = 26124 >> 8 = 102.
    y = 16, u = 128, v = 128, a = 200;
    yuvablend(&y, &u, &v, &a, 100, 235, 128, 128);
    EXPECT_EQ(y, 102);
    EXPECT_EQ(a, 255);
    // Not "over": an opaque source on an opaque destination keeps 1/256 of it:
    // ia = 255, Y = (235 * 255 + 16 + 128) >> 8 = 60069 >> 8 = 234.
    y = 16, u = 128, v = 128, a = 255;
    yuvablend(&y, &u, &v, &a, 255, 235, 128, 128);
    EXPECT_EQ(y, 234);
}

TEST(PackedColour, WhiteAndBlackInStudioRange)
{
    // White: Y = (220 * 255 + 4096) >> 8 = 60196 >> 8 = 235; U = V = 32768 >> 8 = 128.
    EXPECT_EQ(rgba_to_yuva(255, 255, 255, 255), WHITE);
    // Black: Y = 4096 >> 8 = 16.
    EXPECT_EQ(rgba_to_yuva(0, 0, 0, 7), 16u | 128u << 8 | 128u << 16 | 7u << 24);
    // Pure red: Y = (16830 + 4096) >> 8 = 81, U = (-9690 + 32768) >> 8 = 90,
    // V = (28560 + 32768) >> 8 = 239 (no rounding term).
    EXPECT_EQ(rgba_to_yuva(255, 0, 0, 128), 81u | 90u << 8 | 239u << 16 | 128u << 24);
}

// Both versions of each blit, so every expectation holds for both.
struct blit_pair {
    const char* name;
    void (*plain)(const frame_params&, int32_t, int32_t, const font_bmp_cache_storage*, uint32_t);
    void (*scaled)(const frame_params&, int32_t, int32_t, const font_bmp_cache_storage*, uint32_t, uint64_t);
};
const blit_pair BLITS[] = {{"reference", blit_plain_reference, blit_scaled_reference},
                           {"fast", blit_plain, blit_scaled}};

TEST(Blit, SourceAlphaFromCoverageAndColourAlpha)
{
    for (const blit_pair& blit : BLITS) {
        SCOPED_TRACE(blit.name);
        // a = 255: s = (c * 65535) >> 16 = c - 1 for c >= 1; c = 0 is skipped.
        bitmap bmp({{0, 1, 2, 128, 255}});
        picture pic(5, 1);
        blit.plain(pic.p, 0, 0, bmp.b, WHITE);
        EXPECT_EQ(pic.Y(0, 0), 16); // skipped
        EXPECT_EQ(pic.Y(1, 0), 235); // s = 0 still copies the colour
        EXPECT_EQ(pic.A(1, 0), 0);
        EXPECT_EQ(pic.A(2, 0), 1);
        EXPECT_EQ(pic.A(3, 0), 127);
        EXPECT_EQ(pic.A(4, 0), 254);
        // a = 128: s(255) = (255 * 128 * 257) >> 16 = 8388480 >> 16 = 127.
        picture half(5, 1);
        blit.plain(half.p, 0, 0, bmp.b, (WHITE & 0xFFFFFF) | 128u << 24);
        EXPECT_EQ(half.A(4, 0), 127);
    }
}

TEST(Blit, OverlappingHalfCoverages)
{
    // Coverage 129 at a = 255 gives s = 128; drawn twice, white then black.
    for (const blit_pair& blit : BLITS) {
        SCOPED_TRACE(blit.name);
        bitmap bmp(bitmap::rows_t{{129}});
        picture pic(1, 1);
        blit.plain(pic.p, 0, 0, bmp.b, WHITE);
        blit.plain(pic.p, 0, 0, bmp.b, rgba_to_yuva(0, 0, 0, 255));
        EXPECT_EQ(pic.Y(0, 0), 126);
        EXPECT_EQ(pic.U(0, 0), 128);
        EXPECT_EQ(pic.A(0, 0), 255);
    }
}

TEST(Blit, LeftAndTopAreClippedNotShifted)
{
    for (const blit_pair& blit : BLITS) {
        SCOPED_TRACE(blit.name);
        bitmap bmp({{10, 20, 30}, {40, 50, 60}});
        picture pic(4, 4);
        blit.plain(pic.p, -1, -1, bmp.b, WHITE);
        // Only bitmap row 1, columns 1 and 2 are inside: at picture (0, 0) and (1, 0).
        EXPECT_EQ(pic.A(0, 0), 49);
        EXPECT_EQ(pic.A(1, 0), 59);
        for (int row = 0; row < 4; row++)
            for (int x = 0; x < 4; x++)
                if (row != 0 || x > 1) {
                    EXPECT_EQ(pic.A(x, row), 0) << x << "," << row;
                }
        // Entirely outside: nothing.
        picture none(4, 4);
        blit.plain(none.p, -3, 0, bmp.b, WHITE);
        blit.plain(none.p, 0, -2, bmp.b, WHITE);
        blit.plain(none.p, 4, 0, bmp.b, WHITE);
        EXPECT_EQ(none.bytes, picture(4, 4).bytes);
    }
}

TEST(Blit, RightAndBottomAreCut)
{
    for (const blit_pair& blit : BLITS) {
        SCOPED_TRACE(blit.name);
        bitmap bmp({{10, 20, 30}, {40, 50, 60}});
        picture pic(3, 3); // strides 4: the padding byte must stay untouched
        blit.plain(pic.p, 2, 2, bmp.b, WHITE);
        EXPECT_EQ(pic.A(2, 2), 9);
        EXPECT_EQ(pic.A(3, 2), 0); // stride padding
        int drawn = 0;
        for (uint8_t b : std::vector<uint8_t>(pic.p.alpha, pic.p.alpha + 12))
            drawn += b != 0;
        EXPECT_EQ(drawn, 1);
    }
}

TEST(ScaledBlit, HalfWidthTakesEveryOtherColumn)
{
    // h_scale 128: drawn width (6 * 128) >> 8 = 3, step 65536 / 128 = 512,
    // so column j samples source 2j with weight 0: 10, 30, 50 -> s = c - 1.
    for (const blit_pair& blit : BLITS) {
        SCOPED_TRACE(blit.name);
        bitmap bmp({{10, 20, 30, 40, 50, 60}});
        picture pic(8, 1);
        blit.scaled(pic.p, 1, 0, bmp.b, WHITE, 128);
        EXPECT_EQ(pic.A(0, 0), 0);
        EXPECT_EQ(pic.A(1, 0), 9);
        EXPECT_EQ(pic.A(2, 0), 29);
        EXPECT_EQ(pic.A(3, 0), 49);
        EXPECT_EQ(pic.A(4, 0), 0);
    }
}

TEST(ScaledBlit, InterpolatesBetweenColumns)
{
    // h_scale 192: drawn width (6 * 192) >> 8 = 4, step 65536 / 192 = 341.
    //   p = 0:    10
    //   p = 341:  i 1, f 85:  20 + ((10 * 85) >> 8) = 23
    //   p = 682:  i 2, f 170: 30 + ((10 * 170) >> 8) = 36
    //   p = 1023: i 3, f 255: 40 + ((10 * 255) >> 8) = 49
    // and a falling edge (200 -> 100 at p = 341) rounds toward minus infinity:
    //   200 + ((-100 * 85) >> 8) = 200 - 34 = 166.
    for (const blit_pair& blit : BLITS) {
        SCOPED_TRACE(blit.name);
        bitmap bmp({{10, 20, 30, 40, 50, 60}, {0, 200, 100, 0, 0, 0}});
        picture pic(6, 2);
        blit.scaled(pic.p, 0, 0, bmp.b, WHITE, 192);
        EXPECT_EQ(pic.A(0, 0), 9);
        EXPECT_EQ(pic.A(1, 0), 22);
        EXPECT_EQ(pic.A(2, 0), 35);
        EXPECT_EQ(pic.A(3, 0), 48);
        EXPECT_EQ(pic.A(4, 0), 0);
        EXPECT_EQ(pic.A(1, 1), 165);
    }
}

TEST(ScaledBlit, LeftClipStartsTheSourceFurtherIn)
{
    // h_scale 128 at x = -1: destination column 1 is the first drawn, at
    // source position 1 * 512, i.e. source column 2 (30 -> s 29).
    for (const blit_pair& blit : BLITS) {
        SCOPED_TRACE(blit.name);
        bitmap bmp({{10, 20, 30, 40, 50, 60}});
        picture pic(4, 1);
        blit.scaled(pic.p, -1, 0, bmp.b, WHITE, 128);
        EXPECT_EQ(pic.A(0, 0), 29);
        EXPECT_EQ(pic.A(1, 0), 49);
        EXPECT_EQ(pic.A(2, 0), 0);
    }
}

TEST(ScaledBlit, ZeroScaleOrZeroWidthDrawsNothing)
{
    for (const blit_pair& blit : BLITS) {
        SCOPED_TRACE(blit.name);
        bitmap bmp({{255, 255, 255}});
        picture pic(4, 1);
        blit.scaled(pic.p, 0, 0, bmp.b, WHITE, 0);
        blit.scaled(pic.p, 0, 0, bmp.b, WHITE, 85); // (3 * 85) >> 8 = 0 columns
        EXPECT_EQ(pic.bytes, picture(4, 1).bytes);
    }
}

TEST(Blit, ColourBitmapsBringTheirOwnColour)
{
    for (const blit_pair& blit : BLITS) {
        SCOPED_TRACE(blit.name);
        bitmap bmp({{255, 0, 129}});
        for (uint8_t** plane : {&bmp.b->plane_y, &bmp.b->plane_u, &bmp.b->plane_v})
            *plane = font_bmp_zeroed_plane(bmp.b->stride, 1);
        bmp.b->plane_y[0] = 81, bmp.b->plane_u[0] = 90, bmp.b->plane_v[0] = 239;
        bmp.b->plane_y[2] = 144, bmp.b->plane_u[2] = 54, bmp.b->plane_v[2] = 34;
        picture pic(3, 1);
        // Only the colour's alpha counts; its Y, U, V are ignored.
        blit.plain(pic.p, 0, 0, bmp.b, WHITE);
        EXPECT_EQ(pic.Y(0, 0), 81);
        EXPECT_EQ(pic.U(0, 0), 90);
        EXPECT_EQ(pic.V(0, 0), 239);
        EXPECT_EQ(pic.A(0, 0), 254);
        EXPECT_EQ(pic.Y(1, 0), 16);
        EXPECT_EQ(pic.Y(2, 0), 144);
        EXPECT_EQ(pic.A(2, 0), 128);
    }
}

} // namespace
