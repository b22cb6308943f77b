// Row kernels of the blits: one run of pixels of one bitmap row blended into
// one picture row with yuvablend's rules (frames/yuva_pixel.h).
//
// Per pixel i with coverage c = coverage[i]:
//   c == 0: the destination is left alone;
//   otherwise s = source_alpha(c, A) with A the colour's alpha, and
//   yuvablend(destination, s, source Y, U, V), the source colour being the
//   packed colour or, for colour bitmaps, src_y[i], src_u[i], src_v[i].
// blend_row gives exactly the bytes of blend_row_reference; it works on 16
// pixels at a time with SSE2 where the compiler targets it.
#pragma once

#include <cstddef>
#include <cstdint>

// One picture row of the four planes, each pointing at the first pixel to
// blend. The kernels write only the `n` bytes from there in each plane.
struct yuva_row {
    uint8_t* y;
    uint8_t* u;
    uint8_t* v;
    uint8_t* a;
};

// `coverage` and the source planes hold `n` bytes each. `src_y`, `src_u`,
// `src_v` are all null (colour from `colour`, a packed YUVA word: Y bits 0-7,
// U 8-15, V 16-23, A 24-31) or all set (colour bitmap; only A of `colour`
// is used).
void blend_row(const yuva_row& dst, const uint8_t* coverage, size_t n, uint32_t colour, const uint8_t* src_y,
               const uint8_t* src_u, const uint8_t* src_v);

// The same, one yuvablend call per pixel.
void blend_row_reference(const yuva_row& dst, const uint8_t* coverage, size_t n, uint32_t colour,
                         const uint8_t* src_y, const uint8_t* src_u, const uint8_t* src_v);
