// The fast blits against the reference ones: identical bytes on random
// pictures, bitmaps, colours, positions and squeezes, and the row kernel
// against yuvablend for every (coverage, destination alpha) pair.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "fonts/font_bmp.h"
#include "frames/blend_row.h"
#include "frames/blit.h"

namespace {

using frame_params = my_AVIVideoRandomReader::common_codec_setup_yuv_params;

// Bytes biased toward the values the blend treats specially.
uint8_t biased_byte(std::mt19937& rng)
{
    switch (rng() % 6) {
    case 0:
        return 0;
    case 1:
        return 255;
    case 2:
        return uint8_t(1 + rng() % 3);
    default:
        return uint8_t(rng());
    }
}

struct random_picture {
    random_picture(std::mt19937& rng, int w, int h)
    {
        EXPECT_TRUE(my_AVIVideoRandomReader::common_codec_setup_yuv(w, h, p));
        bytes.resize(p.plane_bytes);
        for (uint8_t& b : bytes)
            b = biased_byte(rng);
        point_planes();
    }
    random_picture(const random_picture& o) : p(o.p), bytes(o.bytes) { point_planes(); }
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

struct random_bitmap {
    random_bitmap(std::mt19937& rng, bool coloured)
    {
        b = font_bmp_alloc();
        b->width = int32_t(1 + rng() % 48);
        b->height = int32_t(1 + rng() % 24);
        b->stride = b->width + 8;
        b->plane_a = font_bmp_zeroed_plane(b->stride, b->height);
        if (coloured)
            for (uint8_t** plane : {&b->plane_y, &b->plane_u, &b->plane_v})
                *plane = font_bmp_zeroed_plane(b->stride, b->height);
        // Runs of equal coverage, as glyphs have (empty margins, solid stems).
        for (int32_t row = 0; row < b->height; row++)
            for (int32_t x = 0; x < b->width;) {
                const uint8_t c = biased_byte(rng);
                for (int32_t run = int32_t(1 + rng() % 20); run > 0 && x < b->width; run--, x++) {
                    const size_t i = size_t(row) * size_t(b->stride) + size_t(x);
                    b->plane_a[i] = rng() % 4 == 0 ? biased_byte(rng) : c;
                    if (coloured) {
                        b->plane_y[i] = uint8_t(rng());
                        b->plane_u[i] = uint8_t(rng());
                        b->plane_v[i] = uint8_t(rng());
                    }
                }
            }
    }
    ~random_bitmap() { font_bmp_free(b); }
    font_bmp_cache_storage* b;
};

uint32_t random_colour(std::mt19937& rng)
{
    const uint8_t alphas[] = {0, 1, 2, 127, 128, 129, 254, 255, uint8_t(rng())};
    const uint32_t a = alphas[rng() % std::size(alphas)];
    return (rng() & 0xFFFFFF) | a << 24;
}

TEST(BlitAgreement, FastAndReferenceGiveTheSameBytes)
{
    std::mt19937 rng(20240611);
    for (int round = 0; round < 4000; round++) {
        SCOPED_TRACE(round);
        random_picture reference(rng, int(1 + rng() % 70), int(1 + rng() % 40));
        random_picture fast(reference);
        random_bitmap bmp(rng, rng() % 3 == 0);
        const uint32_t colour = random_colour(rng);
        const int32_t x = int32_t(rng() % uint32_t(reference.p.width + 2 * bmp.b->width + 4)) - bmp.b->width - 2;
        const int32_t y = int32_t(rng() % uint32_t(reference.p.height + 2 * bmp.b->height + 4)) - bmp.b->height - 2;
        if (rng() % 2 == 0) {
            blit_plain_reference(reference.p, x, y, bmp.b, colour);
            blit_plain(fast.p, x, y, bmp.b, colour);
        } else {
            const uint64_t h_scale = rng() % 4 == 0 ? 256 : 1 + rng() % 256;
            blit_scaled_reference(reference.p, x, y, bmp.b, colour, h_scale);
            blit_scaled(fast.p, x, y, bmp.b, colour, h_scale);
        }
        ASSERT_EQ(fast.bytes, reference.bytes);
    }
}

TEST(BlitAgreement, LayersOfGlyphsStayTheSame)
{
    // Many bitmaps drawn over each other, so destinations of every alpha occur.
    std::mt19937 rng(7);
    for (int round = 0; round < 50; round++) {
        random_picture reference(rng, 96, 32);
        std::fill(reference.p.alpha, reference.bytes.data() + reference.bytes.size(), uint8_t(0));
        random_picture fast(reference);
        for (int layer = 0; layer < 40; layer++) {
            random_bitmap bmp(rng, rng() % 4 == 0);
            const uint32_t colour = random_colour(rng);
            const int32_t x = int32_t(rng() % 100) - 8, y = int32_t(rng() % 36) - 8;
            blit_plain_reference(reference.p, x, y, bmp.b, colour);
            blit_plain(fast.p, x, y, bmp.b, colour);
        }
        ASSERT_EQ(fast.bytes, reference.bytes) << "round " << round;
    }
}

TEST(BlitAgreement, RowKernelOnEveryCoverageAndDestinationAlpha)
{
    // One row per destination alpha d, its 256 pixels with coverage 0..255,
    // for colour alphas that give every kind of source alpha.
    std::mt19937 rng(3);
    for (uint32_t a : {1u, 2u, 100u, 127u, 128u, 200u, 254u, 255u}) {
        for (int coloured = 0; coloured < 2; coloured++) {
            std::vector<uint8_t> coverage(256), sy(256), su(256), sv(256);
            for (int c = 0; c < 256; c++) {
                coverage[size_t(c)] = uint8_t(c);
                sy[size_t(c)] = uint8_t(rng()), su[size_t(c)] = uint8_t(rng()), sv[size_t(c)] = uint8_t(rng());
            }
            const uint32_t colour = (rng() & 0xFFFFFF) | a << 24;
            for (int d = 0; d < 256; d++) {
                std::vector<uint8_t> ref(4 * 256), fast;
                for (size_t i = 0; i < 3 * 256; i++)
                    ref[i] = uint8_t(rng());
                std::fill(ref.begin() + 3 * 256, ref.end(), uint8_t(d));
                fast = ref;
                auto row = [](std::vector<uint8_t>& b) {
                    return yuva_row{b.data(), b.data() + 256, b.data() + 512, b.data() + 768};
                };
                const uint8_t* y = coloured ? sy.data() : nullptr;
                const uint8_t* u = coloured ? su.data() : nullptr;
                const uint8_t* v = coloured ? sv.data() : nullptr;
                blend_row_reference(row(ref), coverage.data(), 256, colour, y, u, v);
                blend_row(row(fast), coverage.data(), 256, colour, y, u, v);
                ASSERT_EQ(fast, ref) << "a " << a << " d " << d << " coloured " << coloured;
            }
        }
    }
}

} // namespace
