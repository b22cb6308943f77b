// Row kernels of the blits: one run of pixels of one bitmap row blended into
// one picture row with yuvablend's rules (frames/yuva_pixel.h).
//
// Per pixel i with coverage c = coverage[i]:
//   c == 0: the destination is left alone;
//   otherwise s = source_alpha(c, A) with A the colour's alpha, and
//   yuvablend(destination, s, source Y, U, V), the source colour being the
//   packed colour or, for colour bitmaps, src_y[i], src_u[i], src_v[i].
//
// Three kernels give exactly the bytes of that rule: the reference (one
// yuvablend call per pixel), SSE2 and AVX2 (16 pixels a step). The AVX2 one
// is chosen at run time on a CPU that has AVX2; T4MI_CPU=sse2 in the
// environment forces the SSE2 one (docs/compositor.md).
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

// `coverage` and the source planes hold `n` bytes each; nothing beyond them
// is read. `src_y`, `src_u`, `src_v` are all null (colour from `colour`, a
// packed YUVA word: Y bits 0-7, U 8-15, V 16-23, A 24-31) or all set (colour
// bitmap; only A of `colour` is used).
using blend_row_fn = void(const yuva_row& dst, const uint8_t* coverage, size_t n, uint32_t colour,
                          const uint8_t* src_y, const uint8_t* src_u, const uint8_t* src_v);

// The row with the kernel in use (blend_row_kernel()).
blend_row_fn blend_row;

// The kernels themselves. blend_row_sse2 falls back to the reference where
// the compiler does not target SSE2; blend_row_avx2 may run only where
// row_kernel_available(row_kernel::avx2) says so.
blend_row_fn blend_row_reference;
blend_row_fn blend_row_sse2;
blend_row_fn blend_row_avx2;

enum class row_kernel { reference, sse2, avx2 };

// Whether this build and this CPU can run `kernel`.
bool row_kernel_available(row_kernel kernel);

// The kernel for a T4MI_CPU value (null when unset) on a CPU that can or
// cannot run the AVX2 kernel: AVX2 where it runs, unless the value is "sse2";
// otherwise SSE2 where built; otherwise the reference.
row_kernel pick_row_kernel(const char* cpu_switch, bool avx2_runs);

// pick_row_kernel for this process's environment and CPU, read afresh on each call.
row_kernel choose_row_kernel();

// The function of `kernel` (which must be available).
blend_row_fn* row_kernel_function(row_kernel kernel);

// The kernel in use: choose_row_kernel() taken once per process, at first use.
row_kernel blend_row_kernel();
blend_row_fn* blend_row_function();

// "reference", "sse2" or "avx2".
const char* row_kernel_name(row_kernel kernel);
