// Shadow bitmaps: the glyph's coverage padded by r pixels on every side, then
// blurred in place by a running box filter of r + 1 taps, first along each
// row, then along each column.
//
// The filter keeps a running sum and a ring of the last r input values (the
// outputs overwrite the inputs, so the ring remembers what is leaving the
// window). It looks ahead by h = (r + 1) / 2, so the output at k averages the
// inputs k - (r - h) .. k + h; values before the start count as zero, and the
// last max(h, 1) positions are left as they were (inside the zero padding).
// Each output is one add, one subtract and one division by r + 1, so a pass
// costs O(length) whatever the radius.
#include "fonts/shadow.h"

#include <algorithm>
#include <cstring>

#include "fonts/font_bmp.h"
#include "fonts/glyph_cache.h"
#include "frames/client_context.h"
#include "platform/t4mi_assert.h"

namespace {

constexpr int32_t max_blur_radius = 64;

// Division by n (1..65) of sums below 2^15 as a multiply and shift:
// m = floor(2^32 / n) + 1 overshoots 2^32 / n by less than n / 2^32 per unit,
// which for s < 2^15 stays below the gap to the next multiple of n, so the
// quotient is exact (the tests compare it with plain division for every
// case).
struct exact_divider {
    uint64_t m;
    explicit exact_divider(uint32_t n) : m((uint64_t(1) << 32) / n + 1) {}
    uint32_t operator()(uint32_t s) const { return uint32_t((uint64_t(s) * m) >> 32); }
};

// One filter pass over `length` values `step` bytes apart.
inline void box_filter_line(uint8_t* line, int32_t length, ptrdiff_t step, int32_t r, const exact_divider& div)
{
    const int32_t h = (r + 1) / 2;
    uint8_t ring[max_blur_radius] = {};
    int32_t index = 0;
    uint32_t sum = 0;
    // A shadow line is at least 2r long, so priming never passes its end;
    // the bound only keeps shorter lines of direct callers safe.
    for (int32_t i = 0; i < h && i < length; i++) {
        const uint8_t v = line[i * step];
        sum += v;
        ring[index] = v;
        if (++index == r)
            index = 0;
    }
    const int32_t end = length - std::max(h, 1);
    for (int32_t k = 0; k < end; k++) {
        const uint8_t x = line[(k + h) * step];
        const uint32_t out = div(sum + x);
        sum = sum + x - ring[index];
        line[k * step] = uint8_t(out);
        ring[index] = x;
        if (++index == r)
            index = 0;
    }
}

} // namespace

void shadow_box_blur(uint8_t* plane, int32_t width, int32_t height, int32_t stride, int32_t r)
{
    if (r < 1 || r > max_blur_radius)
        return;
    const exact_divider div(uint32_t(r + 1));
    for (int32_t y = 0; y < height; y++)
        box_filter_line(plane + ptrdiff_t(y) * stride, width, 1, r, div);
    for (int32_t x = 0; x < width; x++)
        box_filter_line(plane + x, height, stride, r, div);
}

font_bmp_cache_storage* get_shadow_bmp(scrolling_text_client_context* ctx, uint64_t line_height, int32_t code)
{
    if (code < 0)
        return nullptr;
    if (ctx->shadow_blur_radius == 0)
        return get_font_bmp(ctx, line_height, code);
    const glyph_cache_key key{line_height, code};
    if (const auto it = ctx->shadow_cache.find(key); it != ctx->shadow_cache.end())
        return it->second;
    font_bmp_cache_storage* shadow = ctx->load_shadow_bmp(line_height, code);
    ctx->shadow_cache.emplace(key, shadow);
    return shadow;
}

font_bmp_cache_storage* scrolling_text_client_context::load_shadow_bmp(uint64_t line_height, int32_t code)
{
    T4MI_ASSERT(shadow_blur_radius >= 0);
    const int32_t r = shadow_blur_radius;
    if (r > max_blur_radius)
        return nullptr;
    const font_bmp_cache_storage* g = get_font_bmp(this, line_height, code);
    if (g == nullptr)
        return nullptr;

    font_bmp_cache_storage* s = font_bmp_alloc();
    s->width = g->width + 2 * r;
    s->height = g->height + 2 * r;
    s->stride = s->width + 8;
    s->advance = g->advance;
    s->x_offset = g->x_offset - r;
    s->y_offset = g->y_offset - r;
    s->tag = -1;
    s->plane_a = font_bmp_zeroed_plane(s->stride, s->height);
    if (g->plane_a != nullptr)
        for (int32_t i = 0; i < g->height; i++)
            std::memcpy(s->plane_a + ptrdiff_t(i + r) * s->stride + r, g->plane_a + ptrdiff_t(i) * g->stride,
                        size_t(g->width));
    // Radius 0 only arrives here by a direct call; its filter would be the
    // identity, so the padded copy is the shadow.
    shadow_box_blur(s->plane_a, s->width, s->height, s->stride, r);
    return s;
}
