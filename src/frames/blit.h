// Drawing one bitmap into a YUVA frame with the accumulating blend
// (yuvablend, frames/yuva_pixel.h).
//
// Two versions of each blit give identical bytes:
// - the reference (blit_plain_reference, blit_scaled_reference) applies
//   yuvablend pixel by pixel exactly as the rules read; it is the definition;
// - blit_plain and blit_scaled, which the compositor uses, hand whole rows to
//   the row kernels of blend_row.h (vectorised where the machine allows).
// tests/frames/blit_agreement_test.cpp holds both to the same bytes.
#pragma once

#include <cstdint>

#include "frames/frame_buffer.h"

struct font_bmp_cache_storage;

// Draws `bmp` with its top-left pixel at (x, y) of the frame (pixels), clipped
// to the picture (never shifted into it). `colour` is a packed YUVA word
// (Y bits 0-7, U 8-15, V 16-23, A 24-31); a colour bitmap takes Y, U, V from
// its own planes. Each pixel with coverage c > 0 is blended with source alpha
// s = (c * A * 257) >> 16.
void blit_plain(const my_AVIVideoRandomReader::common_codec_setup_yuv_params& frame, int32_t x, int32_t y,
                const font_bmp_cache_storage* bmp, uint32_t colour);

// The same, squeezed horizontally by h_scale/256 (rows are not scaled): the
// bitmap becomes (width * h_scale) >> 8 columns, each sampled linearly
// between two source columns in 1/256 steps of 65536 / h_scale. h_scale 0
// draws nothing.
void blit_scaled(const my_AVIVideoRandomReader::common_codec_setup_yuv_params& frame, int32_t x, int32_t y,
                 const font_bmp_cache_storage* bmp, uint32_t colour, uint64_t h_scale);

// The reference versions: the same results, one yuvablend call per pixel.
void blit_plain_reference(const my_AVIVideoRandomReader::common_codec_setup_yuv_params& frame, int32_t x,
                          int32_t y, const font_bmp_cache_storage* bmp, uint32_t colour);
void blit_scaled_reference(const my_AVIVideoRandomReader::common_codec_setup_yuv_params& frame, int32_t x,
                           int32_t y, const font_bmp_cache_storage* bmp, uint32_t colour, uint64_t h_scale);
