// Drop-shadow bitmaps: each glyph's coverage, padded by the blur radius on
// every side and blurred with a two-pass running box filter.
#pragma once

#include <cstdint>

class scrolling_text_client_context;
struct font_bmp_cache_storage;

// The shadow of `code` at `line_height` (pixels) for the context's current
// shadow_blur_radius. Radius 0: the glyph record itself (get_font_bmp), and
// the shadow cache is not used. Otherwise the record is owned by
// ctx->shadow_cache; null (cached) for a radius above 64 or a missing glyph.
// A negative code gives null, uncached. A negative radius aborts.
// `face` as for get_font_bmp.
font_bmp_cache_storage* get_shadow_bmp(scrolling_text_client_context* ctx, uint64_t line_height, int32_t code,
                                       uint32_t face = 0);

// The in-place box blur of a shadow plane: a horizontal pass over every row,
// then a vertical pass over every column, each with filter length r + 1 and
// look-ahead (r + 1) / 2, truncating. The last max((r + 1) / 2, 1) columns of
// each row (rows of each column) keep their values. `width` x `height` pixels
// of `stride` bytes a row; 1 <= r <= 64. O(width x height) whatever r.
void shadow_box_blur(uint8_t* plane, int32_t width, int32_t height, int32_t stride, int32_t r);

// The same blur, one line at a time with a plain division: slower, kept as
// the reference that shadow_box_blur must match byte for byte.
void shadow_box_blur_reference(uint8_t* plane, int32_t width, int32_t height, int32_t stride, int32_t r);
