#include "frames/blit.h"

#include <algorithm>

#include "fonts/font_bmp.h"
#include "frames/blend_row.h"
#include "frames/yuva_pixel.h"

namespace {
using frame_params = my_AVIVideoRandomReader::common_codec_setup_yuv_params;

// The part of a bitmap drawn at (x, y) that lies in the picture: bitmap rows
// [first_row, last_row) and drawn columns [first_col, last_col). Parts left
// of or above the picture are cut off, not moved in.
struct visible_part {
    int64_t first_row = 0, last_row = 0;
    int64_t first_col = 0, last_col = 0;
    bool empty() const { return first_row >= last_row || first_col >= last_col; }
};

visible_part clip(const frame_params& f, int32_t x, int32_t y, int64_t drawn_width, int64_t rows)
{
    visible_part p;
    p.first_row = y < 0 ? -int64_t(y) : 0;
    p.last_row = std::min<int64_t>(rows, f.height - int64_t(y));
    p.first_col = x < 0 ? -int64_t(x) : 0;
    p.last_col = std::min<int64_t>(drawn_width, f.width - int64_t(x));
    return p;
}

// The destination of bitmap row `row`, column `col`, drawn at (x, y).
yuva_row row_at(const frame_params& f, int32_t x, int32_t y, int64_t row, int64_t col)
{
    const int64_t px = int64_t(x) + col;
    const int64_t py = int64_t(y) + row;
    return {f.y + py * int64_t(f.y_stride) + px, f.u + py * int64_t(f.chroma_stride) + px,
            f.v + py * int64_t(f.chroma_stride) + px, f.alpha + py * int64_t(f.alpha_stride) + px};
}

bool is_colour(const font_bmp_cache_storage* bmp) { return bmp->plane_y && bmp->plane_u && bmp->plane_v; }

// Linear between column i and i + 1 at 1/256 source pixel position p; the
// next column is read also at the last one (the rows' spare bytes make that
// safe, and there the weight is 0).
inline unsigned sample(const uint8_t* s, uint64_t p)
{
    const uint64_t i = p >> 8;
    const int f = int(p & 255);
    return unsigned(int(s[i]) + (((int(s[i + 1]) - int(s[i])) * f) >> 8));
}

// Destination width and source step of a squeeze; false when nothing is drawn.
bool squeeze(const font_bmp_cache_storage* bmp, uint64_t h_scale, int64_t* drawn_width, uint64_t* step)
{
    if (h_scale == 0)
        return false;
    *drawn_width = (int64_t(bmp->width) * int64_t(h_scale)) >> 8;
    *step = 65536 / h_scale; // 1/256 source pixel per destination pixel
    return *drawn_width != 0;
}
} // namespace

void blit_plain_reference(const frame_params& f, int32_t x, int32_t y, const font_bmp_cache_storage* bmp,
                          uint32_t colour)
{
    const visible_part p = clip(f, x, y, bmp->width, bmp->height);
    if (p.empty())
        return;
    const unsigned a = colour >> 24;
    const bool coloured = is_colour(bmp);
    for (int64_t row = p.first_row; row < p.last_row; row++) {
        const size_t src = size_t(row) * size_t(bmp->stride);
        for (int64_t col = p.first_col; col < p.last_col; col++) {
            const unsigned c = bmp->plane_a[src + size_t(col)];
            if (c == 0)
                continue;
            const unsigned s = source_alpha(c, a);
            const yuva_row d = row_at(f, x, y, row, col);
            if (coloured)
                yuvablend(d.y, d.u, d.v, d.a, s, bmp->plane_y[src + size_t(col)], bmp->plane_u[src + size_t(col)],
                          bmp->plane_v[src + size_t(col)]);
            else
                yuvablend(d.y, d.u, d.v, d.a, s, colour & 0xFF, (colour >> 8) & 0xFF, (colour >> 16) & 0xFF);
        }
    }
}

void blit_scaled_reference(const frame_params& f, int32_t x, int32_t y, const font_bmp_cache_storage* bmp,
                           uint32_t colour, uint64_t h_scale)
{
    int64_t drawn_width = 0;
    uint64_t step = 0;
    if (!squeeze(bmp, h_scale, &drawn_width, &step))
        return;
    const visible_part p = clip(f, x, y, drawn_width, bmp->height);
    if (p.empty())
        return;
    const unsigned a = colour >> 24;
    const bool coloured = is_colour(bmp);
    for (int64_t row = p.first_row; row < p.last_row; row++) {
        const size_t src = size_t(row) * size_t(bmp->stride);
        for (int64_t col = p.first_col; col < p.last_col; col++) {
            const uint64_t pos = uint64_t(col) * step; // a left clip of k columns starts at k * step
            const unsigned c = sample(bmp->plane_a + src, pos);
            if (c == 0)
                continue;
            const unsigned s = source_alpha(c, a);
            const yuva_row d = row_at(f, x, y, row, col);
            if (coloured)
                yuvablend(d.y, d.u, d.v, d.a, s, sample(bmp->plane_y + src, pos), sample(bmp->plane_u + src, pos),
                          sample(bmp->plane_v + src, pos));
            else
                yuvablend(d.y, d.u, d.v, d.a, s, colour & 0xFF, (colour >> 8) & 0xFF, (colour >> 16) & 0xFF);
        }
    }
}

void blit_plain(const frame_params& f, int32_t x, int32_t y, const font_bmp_cache_storage* bmp, uint32_t colour)
{
    const visible_part p = clip(f, x, y, bmp->width, bmp->height);
    if (p.empty())
        return;
    const bool coloured = is_colour(bmp);
    blend_row_fn* const kernel = blend_row_function();
    const size_t n = size_t(p.last_col - p.first_col);
    for (int64_t row = p.first_row; row < p.last_row; row++) {
        const size_t src = size_t(row) * size_t(bmp->stride) + size_t(p.first_col);
        if (coloured)
            kernel(row_at(f, x, y, row, p.first_col), bmp->plane_a + src, n, colour, bmp->plane_y + src,
                      bmp->plane_u + src, bmp->plane_v + src);
        else
            kernel(row_at(f, x, y, row, p.first_col), bmp->plane_a + src, n, colour, nullptr, nullptr, nullptr);
    }
}

void blit_scaled(const frame_params& f, int32_t x, int32_t y, const font_bmp_cache_storage* bmp, uint32_t colour,
                 uint64_t h_scale)
{
    int64_t drawn_width = 0;
    uint64_t step = 0;
    if (!squeeze(bmp, h_scale, &drawn_width, &step))
        return;
    const visible_part p = clip(f, x, y, drawn_width, bmp->height);
    if (p.empty())
        return;
    const bool coloured = is_colour(bmp);
    // The drawn columns of one row, sampled first and then blended as a row;
    // a row never spans more than the picture (at most 4096 pixels).
    uint8_t sampled[4][frame_max_side];
    blend_row_fn* const kernel = blend_row_function();
    const size_t n = size_t(p.last_col - p.first_col);
    for (int64_t row = p.first_row; row < p.last_row; row++) {
        const size_t src = size_t(row) * size_t(bmp->stride);
        for (size_t i = 0; i < n; i++) {
            const uint64_t pos = uint64_t(p.first_col + int64_t(i)) * step;
            sampled[0][i] = uint8_t(sample(bmp->plane_a + src, pos));
            if (coloured) {
                sampled[1][i] = uint8_t(sample(bmp->plane_y + src, pos));
                sampled[2][i] = uint8_t(sample(bmp->plane_u + src, pos));
                sampled[3][i] = uint8_t(sample(bmp->plane_v + src, pos));
            }
        }
        if (coloured)
            kernel(row_at(f, x, y, row, p.first_col), sampled[0], n, colour, sampled[1], sampled[2], sampled[3]);
        else
            kernel(row_at(f, x, y, row, p.first_col), sampled[0], n, colour, nullptr, nullptr, nullptr);
    }
}
