// The rules of one YUVA pixel, kept in one place: the colour conversion that
// the background, the text colours and the emoji images share, and the
// accumulating blend that every blit and row kernel applies.
#pragma once

#include <cstdint>

#include "platform/t4mi_assert.h"

// Y, U, V (0..255 each) of an RGB colour (0..255 each): studio-range BT.601
// without a rounding term. The sums never go negative, so the shifts floor.
struct yuv_colour {
    uint8_t y, u, v;
};

constexpr yuv_colour rgb_to_yuv(int32_t r, int32_t g, int32_t b)
{
    return {uint8_t((66 * r + 129 * g + 25 * b + 4096) >> 8), uint8_t((-38 * r - 74 * g + 112 * b + 32768) >> 8),
            uint8_t((112 * r - 94 * g - 18 * b + 32768) >> 8)};
}

// Packs R, G, B, A as a YUVA word (Y bits 0-7, U 8-15, V 16-23, A 24-31).
constexpr uint32_t rgba_to_yuva(uint8_t r, uint8_t g, uint8_t b, uint8_t a)
{
    const yuv_colour c = rgb_to_yuv(r, g, b);
    return uint32_t(c.y) | uint32_t(c.u) << 8 | uint32_t(c.v) << 16 | uint32_t(a) << 24;
}

// The source alpha (0..255) of a bitmap pixel with coverage `c` drawn in a
// colour of alpha `a` (both 0..255).
constexpr unsigned source_alpha(unsigned c, unsigned a) { return (c * a * 257) >> 16; }

// Blends one source pixel into the destination. `s` is the source alpha
// (0..255); `y`, `u`, `v` its colour; `dy`, `du`, `dv`, `da` the destination
// bytes. Where the destination is already covered, the new colour weighs its
// share s / (d + s) of the summed alpha: an accumulating blend, deliberately
// not "over". This is the definition the vector kernels are held to.
inline void yuvablend(uint8_t* dy, uint8_t* du, uint8_t* dv, uint8_t* da, unsigned s, unsigned y, unsigned u,
                      unsigned v)
{
    const unsigned d = *da;
    if (d == 0) {
        *dy = uint8_t(y);
        *du = uint8_t(u);
        *dv = uint8_t(v);
        *da = uint8_t(s);
        return;
    }
    unsigned ia;
    if (d + s <= 256) {
        ia = (s * 256) / (d + s);
        T4MI_ASSERT(ia <= 256u);
        *da = uint8_t(d + s < 255u ? d + s : 255u);
    } else {
        ia = s;
        *da = 255;
    }
    *dy = uint8_t((y * ia + *dy * (256 - ia) + 128) >> 8);
    *du = uint8_t((u * ia + *du * (256 - ia) + 128) >> 8);
    *dv = uint8_t((v * ia + *dv * (256 - ia) + 128) >> 8);
}
