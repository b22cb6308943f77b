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
