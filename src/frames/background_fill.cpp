// The fill writes each plane once with the widest stores libc has. Planes
// that lie back to back in the buffer and take the same byte (U and V of any
// grey, so of the default transparent black) go in one call.
#include "frames/background_fill.h"

#include <cstring>

namespace {
struct plane_run {
    uint8_t* start;
    uint64_t bytes;
    uint8_t value;
};
} // namespace

void fill_background(const my_AVIVideoRandomReader::common_codec_setup_yuv_params& f, uint32_t yuva)
{
    const plane_run planes[4] = {
        {f.y, f.y_stride * uint64_t(f.height), uint8_t(yuva)},
        {f.u, f.chroma_stride * uint64_t(f.chroma_height), uint8_t(yuva >> 8)},
        {f.v, f.chroma_stride * uint64_t(f.chroma_height), uint8_t(yuva >> 16)},
        {f.alpha, f.alpha_stride * uint64_t(f.height), uint8_t(yuva >> 24)},
    };
    plane_run run = planes[0];
    for (int i = 1; i < 4; i++) {
        const plane_run& p = planes[i];
        if (p.value == run.value && p.start == run.start + run.bytes) {
            run.bytes += p.bytes;
            continue;
        }
        if (run.bytes != 0)
            std::memset(run.start, run.value, run.bytes);
        run = p;
    }
    if (run.bytes != 0)
        std::memset(run.start, run.value, run.bytes);
}

void fill_background_columns(const my_AVIVideoRandomReader::common_codec_setup_yuv_params& f,
                             const std::vector<std::pair<int32_t, int32_t>>& spans, uint32_t yuva)
{
    for (int64_t r = 0; r < f.height; r++)
        for (const auto& [x0, x1] : spans) {
            const size_t n = size_t(x1 - x0);
            std::memset(f.y + uint64_t(r) * f.y_stride + uint64_t(x0), int(yuva & 0xFF), n);
            std::memset(f.u + uint64_t(r) * f.chroma_stride + uint64_t(x0), int((yuva >> 8) & 0xFF), n);
            std::memset(f.v + uint64_t(r) * f.chroma_stride + uint64_t(x0), int((yuva >> 16) & 0xFF), n);
            if (f.alpha != nullptr)
                std::memset(f.alpha + uint64_t(r) * f.alpha_stride + uint64_t(x0), int(yuva >> 24), n);
        }
}
