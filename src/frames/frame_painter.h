// Painting one frame: the background, then the bitmaps the compositor's walk
// asks for, in the order it asks.
//
// The walk only queues the blits. paint() then goes down the picture in
// bands of rows: it fills a band's rows with the background and runs every
// queued blit that reaches into the band, clipped to it, in queue order. Each
// pixel therefore sees the fill and then the same blits in the same order as
// when the whole picture is filled and drawn at once, so the bytes are the
// same; but a band is blended while its freshly filled rows are still in the
// cache, instead of reading back rows that a 1080-line fill has long pushed
// out of it.
#pragma once

#include <cstdint>
#include <vector>

#include "frames/frame_buffer.h"

struct font_bmp_cache_storage;

class frame_painter {
public:
    using frame_params = my_AVIVideoRandomReader::common_codec_setup_yuv_params;

    // Rows per band: the four planes of a 1920-wide band stay well inside a
    // core's second-level cache.
    static constexpr int64_t BAND_ROWS = 32;

    // `frame` must stay mapped until paint() returns.
    explicit frame_painter(const frame_params& frame);

    const frame_params& frame() const { return frame_; }

    // Queues `bmp` (which must live until paint() returns) with its top-left
    // pixel at (x, y), in the packed YUVA `colour`: the plain blit for
    // h_scale 256, the scaled blit otherwise (blit.h).
    void draw(int32_t x, int32_t y, const font_bmp_cache_storage* bmp, uint32_t colour, uint64_t h_scale);

    // Fills the planes with the packed YUVA `background` (whole planes, stride
    // bytes included) and runs the queued blits over it.
    void paint(uint32_t background);

    // A rectangle of the picture, [x0, x1) x [y0, y1), in pixels.
    struct area {
        int32_t x0, y0, x1, y1;
    };
    // What the queued blits may write: their rectangles clipped to the
    // picture (a squeezed bitmap's at its wider width, drawn or not).
    std::vector<area> touched() const;
    // The same bytes as paint(), on planes that already hold `background`
    // everywhere but in `dirty`: a frame painted before on these very bytes
    // with the same geometry and background, whose touched() that was. In
    // each band only the columns those rectangles reach are filled again (a
    // band mostly covered is filled whole), which spares most of the fill's
    // memory traffic when little of the picture is text. Pictures with
    // subsampled chroma are filled whole.
    void paint_over(uint32_t background, const std::vector<area>& dirty);

private:
    struct queued_blit {
        const font_bmp_cache_storage* bmp;
        int32_t x, y;
        uint32_t colour;
        uint64_t h_scale;
    };
    // The picture's rows [first_row, first_row + rows) as a picture of its own.
    frame_params band(int64_t first_row, int64_t rows) const;

    void draw_band(const frame_params& b, int64_t top, int64_t rows) const;

    frame_params frame_;
    std::vector<queued_blit> queue_;
};
