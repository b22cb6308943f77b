// The memory-bandwidth bound of a frame: writing its four planes once into a
// frame in the shared buffer, with one memset per plane, and with the
// compositor's background fill (frames/background_fill.h), which writes U and
// V of a grey in one go.
//
//   ./build/bench/frame_fill_bench
// frames/s is the "items_per_second" column.
#include <benchmark/benchmark.h>

#include <cstring>

#include "frames/background_fill.h"
#include "frames/frame_buffer.h"
#include "platform/t4mi_globals.h"
#include "platform/tnb.h"

namespace {

// A frame of the benchmark's size in a 64 MiB shared buffer, given back at the end.
class bench_frame {
public:
    bench_frame(int64_t width, int64_t height) : frame(0)
    {
        tnb_total = 64ull << 20;
        if (t4mi_acc_cache == nullptr)
            t4mi_acc_cache = t4mi_global_access_cache_create();
        ok = tnb_default_buffer_load() == 0 && my_AVIVideoRandomReader::common_codec_setup_yuv(width, height, p) &&
             reader.common_alloc_yuv_planar(&frame, p) && reader.common_map_yuv_planar(&frame, p);
    }
    ~bench_frame()
    {
        tnb_free(&frame.tnb_alloc);
        tnb_default_buffer_drop();
    }
    my_AVIVideoRandomReader reader;
    t4mi_video_frame frame;
    my_AVIVideoRandomReader::common_codec_setup_yuv_params p;
    bool ok = false;
};

void plain_four_plane_fill(benchmark::State& state)
{
    bench_frame f(state.range(0), state.range(1));
    if (!f.ok) {
        state.SkipWithError("cannot build a frame");
        return;
    }
    const auto& p = f.p;
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
}

void background_fill(benchmark::State& state)
{
    bench_frame f(state.range(0), state.range(1));
    if (!f.ok) {
        state.SkipWithError("cannot build a frame");
        return;
    }
    uint32_t value = 0;
    for (auto _ : state) {
        // Transparent greys, as the default background (U = V = 128).
        ++value;
        fill_background(f.p, (value & 0xFF) | 128u << 8 | 128u << 16);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(int64_t(state.iterations()));
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(f.p.plane_bytes));
}

} // namespace

BENCHMARK(plain_four_plane_fill)->Args({1920, 108})->Args({1920, 1080})->Unit(benchmark::kMicrosecond);
BENCHMARK(background_fill)->Args({1920, 108})->Args({1920, 1080})->Unit(benchmark::kMicrosecond);
