// Glyph bitmaps: a glyph cache miss, the shadow blur at three radii, and the
// emoji scaler.
//
//   cmake -S . -B out/release -DCMAKE_BUILD_TYPE=Release && cmake --build out/release --target glyph_bench
//   out/release/bench/glyph_bench
//
// The glyph cases render from Debian's Liberation Sans as the default face.
// The blur costs O(pixels) whatever the radius; compare the three radii's
// pixel rates.
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "fonts/font_bmp.h"
#include "fonts/font_globals.h"
#include "fonts/glyph_cache.h"
#include "fonts/shadow.h"
#include "frames/client_context.h"
#include "items/scroll_settings.h"

namespace {

constexpr const char* default_font = "/usr/share/fonts/truetype/liberation/LiberationSans-Regular.ttf";

// FreeType with the default face, and a context with its reader at 1920 x 1080.
struct glyph_setup {
    std::unique_ptr<scrolling_text_client_context> ctx;
    glyph_setup()
    {
        if (ft_library == nullptr && FT_Init_FreeType(&ft_library) != 0)
            std::abort();
        if (default_face == nullptr && FT_New_Face(ft_library, default_font, 0, &default_face) != 0)
            std::abort();
        scroll_settings = scroll_settings_record{};
        ctx = std::make_unique<scrolling_text_client_context>(1);
        ctx->picture_width = 1920;
        ctx->picture_height = 1080;
        ctx->create_reader();
    }
};

void glyph_cache_miss(benchmark::State& state)
{
    glyph_setup setup;
    const uint64_t line = uint64_t(state.range(0));
    int64_t pixels = 0;
    for (auto _ : state) {
        setup.ctx->clear_bitmap_caches();
        font_bmp_cache_storage* g = get_font_bmp(setup.ctx.get(), line, 'W');
        benchmark::DoNotOptimize(g);
        pixels += int64_t(g->width) * g->height;
    }
    state.counters["glyph_pixels"] = benchmark::Counter(double(pixels), benchmark::Counter::kIsRate);
}
BENCHMARK(glyph_cache_miss)->Arg(108)->Arg(1080)->Unit(benchmark::kMicrosecond);

// The whole shadow record of a 1080-line 'W' (allocation, padding copy and
// both blur passes); the glyph itself stays cached.
void shadow_of_1080_line_glyph(benchmark::State& state)
{
    glyph_setup setup;
    const font_bmp_cache_storage* g = get_font_bmp(setup.ctx.get(), 1080, 'W');
    setup.ctx->shadow_blur_radius = int32_t(state.range(0));
    int64_t pixels = 0;
    for (auto _ : state) {
        font_bmp_cache_storage* s = setup.ctx->load_shadow_bmp(1080, 'W');
        benchmark::DoNotOptimize(s->plane_a);
        pixels += int64_t(s->width) * s->height;
        font_bmp_free(s);
    }
    state.counters["pixels"] = benchmark::Counter(double(pixels), benchmark::Counter::kIsRate);
    state.SetLabel(std::to_string(g->width) + "x" + std::to_string(g->height) + " glyph");
}
BENCHMARK(shadow_of_1080_line_glyph)->Arg(2)->Arg(16)->Arg(64)->Unit(benchmark::kMicrosecond);

// The two blur passes alone, on the padded plane of the same glyph.
void shadow_blur_passes(benchmark::State& state)
{
    glyph_setup setup;
    const int32_t r = int32_t(state.range(0));
    setup.ctx->shadow_blur_radius = r;
    get_font_bmp(setup.ctx.get(), 1080, 'W');
    font_bmp_cache_storage* s = setup.ctx->load_shadow_bmp(1080, 'W');
    for (auto _ : state) {
        shadow_box_blur(s->plane_a, s->width, s->height, s->stride, r);
        benchmark::ClobberMemory();
    }
    state.counters["pixels"] =
        benchmark::Counter(double(int64_t(s->width) * s->height * int64_t(state.iterations())),
                           benchmark::Counter::kIsRate);
    font_bmp_free(s);
}
BENCHMARK(shadow_blur_passes)->Arg(2)->Arg(16)->Arg(64)->Unit(benchmark::kMicrosecond);

// One plane of a 136 x 128 emoji image (Noto's size) scaled to 100 rows
// (106 columns), as the glyph cache does for each of the four planes.
void scalecopy_emoji_to_100_rows(benchmark::State& state)
{
    font_bmp_cache_storage src;
    src.width = 136;
    src.height = 128;
    src.stride = 144;
    std::vector<uint8_t> src_plane(size_t(src.stride) * src.height + 256);
    std::mt19937 random(1);
    for (auto& b : src_plane)
        b = uint8_t(random());
    font_bmp_cache_storage dst;
    dst.width = 106;
    dst.height = 100;
    dst.stride = 114;
    std::vector<uint8_t> dst_plane(size_t(dst.stride) * dst.height);
    for (auto _ : state) {
        dst.scalecopy(&dst, dst_plane.data(), &src, src_plane.data());
        benchmark::DoNotOptimize(dst_plane.data());
        benchmark::ClobberMemory();
    }
    state.counters["dst_pixels"] =
        benchmark::Counter(double(106 * 100 * state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(scalecopy_emoji_to_100_rows)->Unit(benchmark::kMicrosecond);

} // namespace
