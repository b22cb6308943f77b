// The memory-bandwidth bound of a frame: writing its four planes once, as
// the background fill does, into a frame in the shared buffer.
//
//   ./build/bench/frame_fill_bench
// frames/s is the "items_per_second" column.
#include <benchmark/benchmark.h>

#include <cstring>

#include "frames/frame_buffer.h"
#include "platform/t4mi_globals.h"
#include "platform/tnb.h"

namespace {

void plain_four_plane_fill(benchmark::State& state)
{
    const int64_t width = state.range(0);
    const int64_t height = state.range(1);
    tnb_total = 64ull << 20;
    if (t4mi_acc_cache == nullptr)
        t4mi_acc_cache = t4mi_global_access_cache_create();
    my_AVIVideoRandomReader reader;
    t4mi_video_frame frame(0);
    my_AVIVideoRandomReader::common_codec_setup_yuv_params p;
    if (tnb_default_buffer_load() != 0 || !my_AVIVideoRandomReader::common_codec_setup_yuv(width, height, p) ||
        !reader.common_alloc_yuv_planar(&frame, p) || !reader.common_map_yuv_planar(&frame, p)) {
        state.SkipWithError("cannot build a frame");
        return;
    }
    const size_t y_bytes = p.y_stride * uint64_t(p.height);
    const size_t chroma_bytes = p.chroma_stride * uint64_t(p.chroma_height);
    const size_t alpha_bytes = p.alpha_stride * uint64_t(p.height);
    uint8_t value = 0;
    for (auto _ : state) {
        // Whole planes, stride bytes included; a new value each time so the
        // stores cannot be dropped.
        ++value;
        std::memset(p.y, value, y_bytes);
        std::memset(p.u, 128, chroma_bytes);
        std::memset(p.v, 128, chroma_bytes);
        std::memset(p.alpha, value, alpha_bytes);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(int64_t(state.iterations()));
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(p.plane_bytes));
    tnb_free(&frame.tnb_alloc);
    tnb_default_buffer_drop();
}

} // namespace

BENCHMARK(plain_four_plane_fill)->Args({1920, 108})->Args({1920, 1080})->Unit(benchmark::kMicrosecond);
