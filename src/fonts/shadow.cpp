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
//
// The blur runs several rows (then columns) side by side; the plain
// one-line version stays as the reference the tests compare it with.
#include "fonts/shadow.h"

#include <algorithm>
#include <cstring>

#include "fonts/font_bmp.h"
#include "fonts/glyph_cache.h"
#include "frames/client_context.h"
#include "platform/t4mi_assert.h"

namespace {

constexpr int32_t max_blur_radius = 64;

// Division by n (2..65) of window sums (below 65 x 255 < 2^15) as a
// multiply and shift: m = floor(2^32 / n) + 1 exceeds 2^32 / n by less than
// n / 2^32, so s x m / 2^32 exceeds s / n by less than s / 2^32 < 1 / n, too
// little to reach the next integer: the quotient is exact. (The tests check
// every sum for every n.) m fits in 32 bits, so the product is a 32 x 32 -> 64
// multiply that vectorises.
uint32_t divider_for(int32_t r) { return uint32_t((uint64_t(1) << 32) / uint32_t(r + 1) + 1); }

inline uint8_t divide(uint32_t sum, uint32_t m) { return uint8_t((uint64_t(sum) * m) >> 32); }

// The filter on `lanes` lines at once, for speed: lane j starts at
// base + j x lane_step and its values lie `step` bytes apart. Each lane is
// filtered exactly as box_filter_line would; running several at once
// overlaps their dependency chains, and for the columns (lane_step 1) it turns
// the inner loop into vector code and walks the plane row by row.
template <int lanes>
void box_filter_lanes(uint8_t* base, ptrdiff_t lane_step, ptrdiff_t step, int32_t length, int32_t r, uint32_t m)
{
    const int32_t h = (r + 1) / 2;
    uint8_t ring[max_blur_radius][lanes];
    std::memset(ring, 0, size_t(r) * lanes);
    uint32_t sum[lanes] = {};
    int32_t index = 0;
    for (int32_t i = 0; i < h && i < length; i++) {
        const uint8_t* in = base + i * step;
        for (int j = 0; j < lanes; j++) {
            const uint8_t v = in[j * lane_step];
            sum[j] += v;
            ring[index][j] = v;
        }
        if (++index == r)
            index = 0;
    }
    const int32_t end = length - std::max(h, 1);
    for (int32_t k = 0; k < end; k++) {
        const uint8_t* in = base + (k + h) * step;
        uint8_t* out = base + k * step;
        uint8_t x[lanes];
        uint8_t result[lanes];
        for (int j = 0; j < lanes; j++)
            x[j] = in[j * lane_step];
        for (int j = 0; j < lanes; j++) {
            const uint32_t t = sum[j] + x[j];
            result[j] = divide(t, m);
            sum[j] = t - ring[index][j];
            ring[index][j] = x[j];
        }
        for (int j = 0; j < lanes; j++)
            out[j * lane_step] = result[j];
        if (++index == r)
            index = 0;
    }
}

// The filter on one line of `length` values `step` bytes apart, as plainly
// as it reads: the reference that the fast version is tested against.
void box_filter_line(uint8_t* line, int32_t length, ptrdiff_t step, int32_t r)
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
        const uint32_t out = (sum + x) / uint32_t(r + 1);
        sum = sum + x - ring[index];
        line[k * step] = uint8_t(out);
        ring[index] = x;
        if (++index == r)
            index = 0;
    }
}

} // namespace

void shadow_box_blur_reference(uint8_t* plane, int32_t width, int32_t height, int32_t stride, int32_t r)
{
    if (r < 1 || r > max_blur_radius)
        return;
    for (int32_t y = 0; y < height; y++)
        box_filter_line(plane + ptrdiff_t(y) * stride, width, 1, r);
    for (int32_t x = 0; x < width; x++)
        box_filter_line(plane + x, height, stride, r);
}

void shadow_box_blur(uint8_t* plane, int32_t width, int32_t height, int32_t stride, int32_t r)
{
    if (r < 1 || r > max_blur_radius)
        return;
    const uint32_t m = divider_for(r);
    constexpr int row_lanes = 8;
    constexpr int column_lanes = 16;
    int32_t y = 0;
    for (; y + row_lanes <= height; y += row_lanes)
        box_filter_lanes<row_lanes>(plane + ptrdiff_t(y) * stride, stride, 1, width, r, m);
    for (; y < height; y++)
        box_filter_lanes<1>(plane + ptrdiff_t(y) * stride, 0, 1, width, r, m);
    int32_t x = 0;
    for (; x + column_lanes <= width; x += column_lanes)
        box_filter_lanes<column_lanes>(plane + x, 1, stride, height, r, m);
    for (; x < width; x++)
        box_filter_lanes<1>(plane + x, 0, stride, height, r, m);
}

font_bmp_cache_storage* get_shadow_bmp(scrolling_text_client_context* ctx, uint64_t line_height, int32_t code,
                                       uint32_t face)
{
    if (code < 0)
        return nullptr;
    if (ctx->shadow_blur_radius == 0)
        return get_font_bmp(ctx, line_height, code, face);
    const glyph_cache_key key{line_height, code, face};
    if (const auto it = ctx->shadow_cache.find(key); it != ctx->shadow_cache.end())
        return it->second;
    font_bmp_cache_storage* shadow = ctx->load_shadow_bmp(line_height, code, face);
    ctx->shadow_cache.emplace(key, shadow);
    return shadow;
}

font_bmp_cache_storage* scrolling_text_client_context::load_shadow_bmp(uint64_t line_height, int32_t code,
                                                                        uint32_t face)
{
    T4MI_ASSERT(shadow_blur_radius >= 0);
    const int32_t r = shadow_blur_radius;
    if (r > max_blur_radius)
        return nullptr;
    const font_bmp_cache_storage* g = get_font_bmp(this, line_height, code, face);
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
