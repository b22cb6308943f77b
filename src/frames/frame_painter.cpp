#include "frames/frame_painter.h"

#include <algorithm>

#include "fonts/font_bmp.h"
#include "frames/background_fill.h"
#include "frames/blit.h"

frame_painter::frame_painter(const frame_params& frame) : frame_(frame) { queue_.reserve(256); }

void frame_painter::draw(int32_t x, int32_t y, const font_bmp_cache_storage* bmp, uint32_t colour, uint64_t h_scale)
{
    queue_.push_back({bmp, x, y, colour, h_scale});
}

frame_painter::frame_params frame_painter::band(int64_t first_row, int64_t rows) const
{
    frame_params b = frame_;
    b.height = rows;
    b.chroma_height = rows;
    if (b.alpha_height != 0)
        b.alpha_height = rows;
    b.y += uint64_t(first_row) * b.y_stride;
    b.u += uint64_t(first_row) * b.chroma_stride;
    b.v += uint64_t(first_row) * b.chroma_stride;
    if (b.alpha != nullptr)
        b.alpha += uint64_t(first_row) * b.alpha_stride;
    return b;
}

void frame_painter::paint(uint32_t background)
{
    // Bands need the chroma planes to have the picture's rows; otherwise, and
    // when there is nothing to draw, the picture is one band.
    const bool banded = frame_.chroma_height == frame_.height && !queue_.empty();
    const int64_t band_rows = banded ? BAND_ROWS : std::max<int64_t>(frame_.height, 1);
    for (int64_t top = 0; top < frame_.height; top += band_rows) {
        const int64_t rows = std::min(band_rows, frame_.height - top);
        const frame_params b = band_rows < frame_.height ? band(top, rows) : frame_;
        fill_background(b, background);
        for (const queued_blit& q : queue_) {
            // Only blits that reach into the band; the rest would clip to nothing.
            const int64_t y = q.y;
            if (y >= top + rows || y + q.bmp->height <= top)
                continue;
            const int32_t band_y = int32_t(y - top);
            if (q.h_scale == 256)
                blit_plain(b, q.x, band_y, q.bmp, q.colour);
            else
                blit_scaled(b, q.x, band_y, q.bmp, q.colour, q.h_scale);
        }
    }
}
