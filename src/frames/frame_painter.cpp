#include "frames/frame_painter.h"

#include <algorithm>
#include <utility>

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

void frame_painter::draw_band(const frame_params& b, int64_t top, int64_t rows) const
{
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

std::vector<frame_painter::area> frame_painter::touched() const
{
    std::vector<area> out;
    out.reserve(queue_.size());
    for (const queued_blit& q : queue_) {
        const int64_t scaled = (int64_t(q.bmp->width) * int64_t(q.h_scale) >> 8) + 1;
        const int64_t w = q.h_scale == 256 ? q.bmp->width : std::max<int64_t>(q.bmp->width, scaled);
        const int64_t x0 = std::max<int64_t>(q.x, 0), x1 = std::min<int64_t>(int64_t(q.x) + w, frame_.width);
        const int64_t y0 = std::max<int64_t>(q.y, 0), y1 = std::min<int64_t>(int64_t(q.y) + q.bmp->height, frame_.height);
        if (x0 < x1 && y0 < y1)
            out.push_back({int32_t(x0), int32_t(y0), int32_t(x1), int32_t(y1)});
    }
    return out;
}

namespace {
// The columns that the rectangles of `dirty` reach within rows [top, bottom),
// merged into sorted disjoint spans.
void merged_columns(const std::vector<frame_painter::area>& dirty, int64_t top, int64_t bottom,
                    std::vector<std::pair<int32_t, int32_t>>* spans)
{
    spans->clear();
    for (const frame_painter::area& d : dirty)
        if (d.y0 < bottom && d.y1 > top)
            spans->emplace_back(d.x0, d.x1);
    std::sort(spans->begin(), spans->end());
    size_t merged = 0;
    for (const auto& s : *spans) {
        if (merged > 0 && s.first <= (*spans)[merged - 1].second)
            (*spans)[merged - 1].second = std::max((*spans)[merged - 1].second, s.second);
        else
            (*spans)[merged++] = s;
    }
    spans->resize(merged);
}
} // namespace

void frame_painter::paint_over(uint32_t background, const std::vector<area>& dirty)
{
    const bool full_chroma = frame_.chroma_width == frame_.width && frame_.chroma_height == frame_.height &&
                             (frame_.alpha == nullptr || frame_.alpha_height == frame_.height);
    if (!full_chroma) {
        paint(background);
        return;
    }
    std::vector<std::pair<int32_t, int32_t>> spans;
    for (int64_t top = 0; top < frame_.height; top += BAND_ROWS) {
        const int64_t rows = std::min(BAND_ROWS, frame_.height - top);
        const frame_params b = band(top, rows);
        // The columns any old rectangle reaches within the band, over all the
        // band's rows: more than the rectangles themselves, all of it due for
        // the background anyway, and each byte written once.
        merged_columns(dirty, top, top + rows, &spans);
        int64_t covered = 0;
        for (const auto& s : spans)
            covered += s.second - s.first;
        if (4 * covered >= 3 * frame_.width)
            fill_background(b, background);  // most of the band: whole planes are quicker
        else
            fill_background_columns(b, spans, background);
        draw_band(b, top, rows);
    }
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
        draw_band(b, top, rows);
    }
}
