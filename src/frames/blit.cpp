#include "frames/blit.h"

#include <algorithm>

#include "fonts/font_bmp.h"
#include "platform/t4mi_assert.h"

void yuvablend(uint8_t* dy, uint8_t* du, uint8_t* dv, uint8_t* da, unsigned s, unsigned y, unsigned u, unsigned v)
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
        *da = uint8_t(std::min(d + s, 255u));
    } else {
        ia = s;
        *da = 255;
    }
    *dy = uint8_t((y * ia + *dy * (256 - ia) + 128) >> 8);
    *du = uint8_t((u * ia + *du * (256 - ia) + 128) >> 8);
    *dv = uint8_t((v * ia + *dv * (256 - ia) + 128) >> 8);
}

namespace {
// The rows of the bitmap that land inside the picture, and their first picture row.
struct row_span {
    int32_t first = 0, last = 0; // bitmap rows [first, last)
};
row_span visible_rows(int64_t height, int32_t y, int32_t bmp_height)
{
    row_span r;
    r.first = y < 0 ? -y : 0;
    r.last = int32_t(std::min<int64_t>(bmp_height, height - int64_t(y)));
    return r;
}
} // namespace

void blit_plain(const my_AVIVideoRandomReader::common_codec_setup_yuv_params& f, int32_t x, int32_t y,
                const font_bmp_cache_storage* bmp, uint32_t colour)
{
    const row_span rows = visible_rows(f.height, y, bmp->height);
    const int32_t first_col = x < 0 ? -x : 0;
    const int32_t last_col = int32_t(std::min<int64_t>(bmp->width, f.width - int64_t(x)));
    if (rows.first >= rows.last || first_col >= last_col)
        return;
    const unsigned a = colour >> 24;
    const bool coloured = bmp->plane_y && bmp->plane_u && bmp->plane_v;
    for (int32_t row = rows.first; row < rows.last; row++) {
        const size_t src = size_t(row) * size_t(bmp->stride);
        const int64_t py = int64_t(y) + row;
        uint8_t* dy = f.y + py * int64_t(f.y_stride) + x;
        uint8_t* du = f.u + py * int64_t(f.chroma_stride) + x;
        uint8_t* dv = f.v + py * int64_t(f.chroma_stride) + x;
        uint8_t* da = f.alpha + py * int64_t(f.alpha_stride) + x;
        for (int32_t col = first_col; col < last_col; col++) {
            const unsigned c = bmp->plane_a[src + size_t(col)];
            if (c == 0)
                continue;
            const unsigned s = (c * a * 257) >> 16;
            if (coloured)
                yuvablend(dy + col, du + col, dv + col, da + col, s, bmp->plane_y[src + size_t(col)],
                          bmp->plane_u[src + size_t(col)], bmp->plane_v[src + size_t(col)]);
            else
                yuvablend(dy + col, du + col, dv + col, da + col, s, colour & 0xFF, (colour >> 8) & 0xFF,
                          (colour >> 16) & 0xFF);
        }
    }
}

void blit_scaled(const my_AVIVideoRandomReader::common_codec_setup_yuv_params& f, int32_t x, int32_t y,
                 const font_bmp_cache_storage* bmp, uint32_t colour, uint64_t h_scale)
{
    if (h_scale == 0)
        return;
    const int64_t dest_width = (int64_t(bmp->width) * int64_t(h_scale)) >> 8;
    if (dest_width == 0)
        return;
    const uint64_t step = 65536 / h_scale; // 1/256 source pixel per destination pixel
    const row_span rows = visible_rows(f.height, y, bmp->height);
    const int64_t first_col = x < 0 ? -int64_t(x) : 0;
    const int64_t last_col = std::min<int64_t>(dest_width, f.width - int64_t(x));
    if (rows.first >= rows.last || first_col >= last_col)
        return;
    const unsigned a = colour >> 24;
    const bool coloured = bmp->plane_y && bmp->plane_u && bmp->plane_v;
    // Linear between column i and i + 1; the next column is read also at the
    // last one (the rows' spare bytes make that safe).
    auto sample = [](const uint8_t* s, uint64_t p) {
        const uint64_t i = p >> 8;
        const int f = int(p & 255);
        return unsigned(int(s[i]) + (((int(s[i + 1]) - int(s[i])) * f) >> 8));
    };
    for (int32_t row = rows.first; row < rows.last; row++) {
        const size_t src = size_t(row) * size_t(bmp->stride);
        const int64_t py = int64_t(y) + row;
        uint8_t* dy = f.y + py * int64_t(f.y_stride) + x;
        uint8_t* du = f.u + py * int64_t(f.chroma_stride) + x;
        uint8_t* dv = f.v + py * int64_t(f.chroma_stride) + x;
        uint8_t* da = f.alpha + py * int64_t(f.alpha_stride) + x;
        for (int64_t col = first_col; col < last_col; col++) {
            const uint64_t p = uint64_t(col) * step;
            const unsigned c = sample(bmp->plane_a + src, p);
            if (c == 0)
                continue;
            const unsigned s = (c * a * 257) >> 16;
            if (coloured)
                yuvablend(dy + col, du + col, dv + col, da + col, s, sample(bmp->plane_y + src, p),
                          sample(bmp->plane_u + src, p), sample(bmp->plane_v + src, p));
            else
                yuvablend(dy + col, du + col, dv + col, da + col, s, colour & 0xFF, (colour >> 8) & 0xFF,
                          (colour >> 16) & 0xFF);
        }
    }
}
