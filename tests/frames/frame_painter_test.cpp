// Painting band by band gives the bytes of filling the whole picture and
// then running the reference blits in order: bitmaps that cross band edges,
// stick out at the top, bottom and sides, squeezed or not, coloured or not,
// on pictures whose height is and is not a multiple of the band.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <vector>

#include "fonts/font_bmp.h"
#include "frames/background_fill.h"
#include "frames/blit.h"
#include "frames/frame_painter.h"

namespace {

using frame_params = my_AVIVideoRandomReader::common_codec_setup_yuv_params;

// A picture in ordinary memory, laid out like a frame, full of noise.
struct picture {
    picture(int64_t w, int64_t h, std::mt19937& rng)
    {
        EXPECT_TRUE(my_AVIVideoRandomReader::common_codec_setup_yuv(w, h, p));
        bytes.resize(p.plane_bytes);
        for (uint8_t& b : bytes)
            b = uint8_t(rng());
        point_planes();
    }
    picture(const picture& o) : p(o.p), bytes(o.bytes) { point_planes(); }
    void point_planes()
    {
        p.y = bytes.data();
        p.u = p.y + p.y_stride * uint64_t(p.height);
        p.v = p.u + p.chroma_stride * uint64_t(p.height);
        p.alpha = p.v + p.chroma_stride * uint64_t(p.height);
    }
    frame_params p;
    std::vector<uint8_t> bytes;
};

struct bitmap_deleter {
    void operator()(font_bmp_cache_storage* b) const { font_bmp_free(b); }
};
using bitmap = std::unique_ptr<font_bmp_cache_storage, bitmap_deleter>;

// Coverage in runs, one in four coloured; up to 100 rows, so most cross a band edge.
bitmap random_bitmap(std::mt19937& rng)
{
    bitmap b(font_bmp_alloc());
    b->width = int32_t(1 + rng() % 80);
    b->height = int32_t(1 + rng() % 100);
    b->stride = b->width + 8;
    const bool coloured = rng() % 4 == 0;
    for (uint8_t** plane : {&b->plane_a, &b->plane_y, &b->plane_u, &b->plane_v}) {
        if (plane != &b->plane_a && !coloured)
            break;
        *plane = font_bmp_zeroed_plane(b->stride, b->height);
        for (int32_t row = 0; row < b->height; row++)
            for (int32_t x = 0; x < b->width; x++)
                (*plane)[size_t(row) * size_t(b->stride) + size_t(x)] = rng() % 3 == 0 ? 0 : uint8_t(rng());
    }
    return b;
}

TEST(FramePainter, BandsGiveTheBytesOfFillingThenDrawingInOrder)
{
    std::mt19937 rng(1080);
    const int64_t sizes[][2] = {{40, 1}, {64, 31}, {64, 32}, {96, 33}, {120, 108}, {200, 150}, {33, 257}};
    for (const auto& size : sizes)
        for (int round = 0; round < 12; round++) {
            picture painted(size[0], size[1], rng);
            picture expected(painted);
            const uint32_t background = uint32_t(rng()) & (rng() % 2 ? 0xFFFFFFFFu : 0x00FFFFFFu);
            fill_background(expected.p, background);

            frame_painter painter(painted.p);
            std::vector<bitmap> bitmaps;
            for (int n = int(rng() % 30); n > 0; n--) {
                bitmaps.push_back(random_bitmap(rng));
                const font_bmp_cache_storage* b = bitmaps.back().get();
                const int32_t x = int32_t(rng() % uint32_t(size[0] + 2 * b->width)) - b->width;
                const int32_t y = int32_t(rng() % uint32_t(size[1] + 2 * b->height)) - b->height;
                const uint32_t colour = uint32_t(rng());
                const uint64_t h_scale = rng() % 3 == 0 ? 1 + rng() % 300 : 256;
                painter.draw(x, y, b, colour, h_scale);
                if (h_scale == 256)
                    blit_plain_reference(expected.p, x, y, b, colour);
                else
                    blit_scaled_reference(expected.p, x, y, b, colour, h_scale);
            }
            painter.paint(background);
            ASSERT_EQ(painted.bytes, expected.bytes) << size[0] << "x" << size[1] << " round " << round;
        }
}

// Queues a random set of bitmaps on `painter`, kept alive in `keep`.
void queue_random(frame_painter& painter, const frame_params& p, std::vector<bitmap>& keep, std::mt19937& rng)
{
    for (int n = int(rng() % 30); n > 0; n--) {
        keep.push_back(random_bitmap(rng));
        const font_bmp_cache_storage* b = keep.back().get();
        const int32_t x = int32_t(rng() % uint32_t(p.width + 2 * b->width)) - b->width;
        const int32_t y = int32_t(rng() % uint32_t(p.height + 2 * b->height)) - b->height;
        painter.draw(x, y, b, uint32_t(rng()), rng() % 3 == 0 ? 1 + rng() % 300 : 256);
    }
}

TEST(FramePainter, PaintingOverTheFrameBeforeGivesTheBytesOfAWholeFill)
{
    std::mt19937 rng(2026);
    const int64_t sizes[][2] = {{40, 1}, {64, 33}, {120, 108}, {200, 150}, {33, 257}};
    for (const auto& size : sizes)
        for (int round = 0; round < 12; round++) {
            const uint32_t background = uint32_t(rng()) & (rng() % 2 ? 0xFFFFFFFFu : 0x00FFFFFFu);
            picture slot(size[0], size[1], rng);
            std::vector<bitmap> keep;
            frame_painter before(slot.p);
            queue_random(before, slot.p, keep, rng);
            before.paint(background);
            const auto dirty = before.touched();

            // The next frame on the same bytes, and the same frame on noise.
            picture fresh(size[0], size[1], rng);
            frame_painter over(slot.p), whole(fresh.p);
            std::mt19937 same = rng;
            queue_random(over, slot.p, keep, rng);
            queue_random(whole, fresh.p, keep, same);
            over.paint_over(background, dirty);
            whole.paint(background);
            ASSERT_EQ(slot.bytes, fresh.bytes) << size[0] << "x" << size[1] << " round " << round;
        }
}

TEST(FramePainter, TouchedHoldsEveryBlitClippedToThePicture)
{
    std::mt19937 rng(5);
    picture p(100, 50, rng);
    bitmap b(font_bmp_alloc());
    b->width = 30;
    b->height = 20;
    frame_painter painter(p.p);
    painter.draw(-10, 40, b.get(), 0, 256);   // sticks out left and below
    painter.draw(90, -5, b.get(), 0, 300);    // squeezed wider: 30 x 300 / 256 = 35, sticks out right and above
    painter.draw(200, 10, b.get(), 0, 256);   // wholly outside
    const auto t = painter.touched();
    ASSERT_EQ(t.size(), 2u);
    EXPECT_EQ(std::vector<int32_t>({t[0].x0, t[0].y0, t[0].x1, t[0].y1}), std::vector<int32_t>({0, 40, 20, 50}));
    EXPECT_EQ(std::vector<int32_t>({t[1].x0, t[1].y0, t[1].x1, t[1].y1}), std::vector<int32_t>({90, 0, 100, 15}));
}

TEST(FramePainter, NothingQueuedIsTheBackgroundAlone)
{
    std::mt19937 rng(7);
    picture painted(100, 70, rng);
    frame_painter(painted.p).paint(0x01020304u);
    // Y, U, V and alpha planes of 100 x 70 bytes each, in that order.
    const uint8_t by_plane[] = {0x04, 0x03, 0x02, 0x01};
    for (uint64_t i = 0; i < painted.bytes.size(); i++)
        ASSERT_EQ(painted.bytes[i], by_plane[i / (100 * 70)]) << "byte " << i;
}

} // namespace
