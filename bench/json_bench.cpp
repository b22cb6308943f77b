// JSON parsing (json11::Json::parse) of documents of 1 MiB and 8 MiB in the
// shapes a hostile or careless data packet takes: a wide array of small
// objects (a long schedule), a wide object, one long string, arrays nested
// to the depth limit over and over, and plain numbers.
//
//   cmake -S . -B out/release -DCMAKE_BUILD_TYPE=Release && cmake --build out/release --target json_bench
//   out/release/bench/json_bench --benchmark_repetitions=5
//
// Each iteration parses the text and frees the value, as a packet that
// replaces the schedule does. The cost is linear in the size: the 8 MiB cases
// take eight times the 1 MiB ones, give or take the caches.
#include <cstdlib>
#include <string>

#include <benchmark/benchmark.h>

#include "platform/json11.h"

namespace {

enum shape { objects, members, string, deep, numbers };

// A document of the shape of at least `size` bytes.
std::string document(shape s, size_t size)
{
    std::string text;
    switch (s) {
    case objects:
        text = "[";
        for (size_t i = 0; text.size() < size; i++)
            text += (i > 0 ? ",{\"id\":" : "{\"id\":") + std::to_string(i) + ",\"title\":\"News at ten\"}";
        return text + "]";
    case members:
        text = "{";
        for (size_t i = 0; text.size() < size; i++)
            text += (i > 0 ? ",\"key" : "\"key") + std::to_string(i) + "\":" + std::to_string(i);
        return text + "}";
    case string:
        return "[\"" + std::string(size, 'x') + "\"]";
    case deep: {
        const std::string levels = std::string(200, '[') + std::string(200, ']');
        text = "[";
        for (size_t i = 0; text.size() < size; i++)
            text += (i > 0 ? "," : "") + levels.substr(1, levels.size() - 2); // 199 more inside the outer one
        return text + "]";
    }
    case numbers:
        text = "[";
        for (size_t i = 0; text.size() < size; i++)
            text += (i > 0 ? "," : "") + std::to_string(i) + ".25e-3";
        return text + "]";
    }
    return text;
}

void json_parse(benchmark::State& state, shape s, size_t mebibytes)
{
    const std::string text = document(s, mebibytes << 20);
    for (auto _ : state) {
        std::string err;
        const json11::Json j = json11::Json::parse(text, err);
        if (!err.empty() || j.is_null())
            std::abort();
        benchmark::DoNotOptimize(j);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(text.size()));
}
BENCHMARK_CAPTURE(json_parse, objects_1MiB, objects, 1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(json_parse, objects_8MiB, objects, 8)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(json_parse, members_1MiB, members, 1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(json_parse, members_8MiB, members, 8)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(json_parse, string_1MiB, string, 1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(json_parse, string_8MiB, string, 8)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(json_parse, deep_1MiB, deep, 1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(json_parse, deep_8MiB, deep, 8)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(json_parse, numbers_1MiB, numbers, 1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(json_parse, numbers_8MiB, numbers, 8)->Unit(benchmark::kMillisecond);

} // namespace
