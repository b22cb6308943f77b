// What the size limits of "data" and "v4::text" packets bound (see
// docs/protocol.md, "Limits"): the main thread's time for the largest
// packet, during which every other client waits.
//
//   cmake -S . -B out/release -DCMAKE_BUILD_TYPE=Release && cmake --build out/release --target packet_limits_bench
//   out/release/bench/packet_limits_bench
//
// - text_parse_and_layout/<KiB>: a client's first frame after a "v4::text"
//   of that many KiB of ordinary words pays parse_text and
//   recompute_text_times; every client pays it once. 1920 x 108 ticker,
//   Debian's Liberation Sans as the default face.
// - data_packet/<KiB>: a "data" packet of that many KiB of JSON, an array of
//   small schedule entries, through apply_data_packet (parse and compare).
#include <cstdlib>
#include <memory>
#include <string>

#include <benchmark/benchmark.h>

#include "fonts/font_globals.h"
#include "frames/client_context.h"
#include "items/scroll_settings.h"
#include "platform/packet.h"

namespace {

constexpr const char* default_font = "/usr/share/fonts/truetype/liberation/LiberationSans-Regular.ttf";

std::unique_ptr<scrolling_text_client_context> ticker_context(uint32_t width = 1920, uint32_t height = 108)
{
    if (ft_library == nullptr && FT_Init_FreeType(&ft_library) != 0)
        std::abort();
    if (default_face == nullptr && FT_New_Face(ft_library, default_font, 0, &default_face) != 0)
        std::abort();
    scroll_settings = scroll_settings_record{};
    scroll_settings.scrollSpeed = 1;
    auto ctx = std::make_unique<scrolling_text_client_context>(1);
    ctx->picture_width = width;
    ctx->picture_height = height;
    ctx->create_reader();
    return ctx;
}

std::string words_of(size_t bytes)
{
    static const std::string words = "Breaking news: markets close higher as the ticker scrolls on. ";
    std::string text;
    while (text.size() + words.size() <= bytes)
        text += words;
    text.append(words, 0, bytes - text.size());
    return text;
}

std::string schedule_json_of(size_t bytes)
{
    std::string json = "[";
    for (int i = 0; json.size() + 64 < bytes; i++)
        json += (i ? "," : "") + std::string(R"({"title":"Programme )") + std::to_string(i) +
                R"(","time":1718000000})";
    return json + "]";
}

void text_parse_and_layout(benchmark::State& state)
{
    auto ctx = ticker_context(uint32_t(state.range(1)), uint32_t(state.range(2)));
    scroll_settings.text = words_of(size_t(state.range(0)) << 10);
    for (auto _ : state) {
        ctx->parse_text();
        ctx->recompute_text_times();
        benchmark::DoNotOptimize(ctx->placement_count);
    }
    state.counters["runs"] = double(ctx->runs.size());
    scroll_settings = scroll_settings_record{};
}
BENCHMARK(text_parse_and_layout)
    ->Args({8, 1920, 108})
    ->Args({32, 1920, 108})
    ->Args({64, 1920, 108})
    ->Args({256, 1920, 108})
    ->Args({32, 64, 16})
    ->Args({1, 1920, 1080})
    ->Args({32, 1920, 1080})
    ->Unit(benchmark::kMillisecond);

void data_packet(benchmark::State& state)
{
    auto ctx = ticker_context();
    const std::string json = schedule_json_of(size_t(state.range(0)) << 10);
    comm_socket_v4_packet p;
    p.command = "data";
    p.set_data(json.data(), json.size());
    for (auto _ : state) {
        ctx->data = json11::Json();  // so each pass takes it as new
        benchmark::DoNotOptimize(ctx->apply_data_packet(&p));
    }
    state.counters["bytes"] = double(json.size());
}
BENCHMARK(data_packet)->Arg(64)->Arg(256)->Arg(1024)->Unit(benchmark::kMillisecond);

} // namespace
