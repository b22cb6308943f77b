// load_frame on a cache miss: a new frame number every iteration, rendered
// into the shared buffer exactly as a served client gets it, then released
// (the framework would expire it; here it is flushed at once so the buffer
// budget is never exhausted).
//
//   ./build/bench/compositor_bench
// frames/s is the "items_per_second" column. Uses the installation's fixed
// paths (fonts, emoji images): run scripts/setup.sh first.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <unistd.h>

#include "frames/reader.h"
#include "main/render_session.h"
#include "platform/video_frame.h"

namespace {

// About 300 characters, so a 1920-wide picture stays full for thousands of frames.
const char* const TICKER_TEXT =
    "BREAKING: Central bank holds interest rates steady at 4.25 percent, citing slower inflation +++ "
    "Markets: DOW 38,450 up 0.6, NASDAQ 15,320 up 1.1 +++ Storm warning issued for the northern coast "
    "through Thursday night +++ City council approves new transit budget +++ Sports: Home team wins 3-1";

// The same ticker with a colour emoji about every ten characters.
const char* const EMOJI_TICKER_TEXT =
    "BREAKING \U0001F4C8 Central bank holds \U0001F4B0 rates steady \u26A0 at 4.25 percent \U0001F30D citing "
    "slower inflation \U0001F4C8 Markets \U0001F4B0 DOW 38,450 \U0001F4C8 up 0.6 \U0001F327 Storm warning "
    "\u26A0 for the coast \U0001F327 through Thursday \u2600 City council \U0001F697 approves transit "
    "budget \U0001F697 Sports \U0001F3C6 Home team wins 3-1 \U0001F3C6 in overtime \U0001F3C6 thriller";

// An Arabic news ticker of about the same length, for the shaped layout.
const char* const ARABIC_TICKER_TEXT =
    "عاجل: البنك المركزي يثبت أسعار الفائدة عند 4.25 في المئة بسبب تباطؤ التضخم +++ "
    "الأسواق: ارتفاع المؤشر الرئيسي 0.6 في المئة +++ تحذير من عاصفة على الساحل الشمالي حتى مساء الخميس +++ "
    "مجلس المدينة يقر ميزانية النقل الجديدة +++ رياضة: فوز الفريق المحلي 3-1";

const char* const FOUR_LINES_TEXT =
    "BREAKING: Central bank holds interest rates steady at 4.25 percent, citing slower\n"
    "inflation +++ Markets: DOW 38,450 up 0.6, NASDAQ 15,320 up 1.1 +++ Storm warning\n"
    "issued for the northern coast through Thursday night +++ City council approves\n"
    "new transit budget +++ Sports: Home team wins 3-1 in overtime thriller +++";

// White text, black shadow at 50 %, blur 2 % of a line, offsets 3 %, default speed.
std::string item_file(const std::string& settings, const std::string& text)
{
    return "#Tevrin4ScrollText\n#-fontColor=ffffff\n#-fontOpacity=1\n#-shadowOpacity=0.5\n#-shadowBlur=2\n" +
           settings + text + "\n";
}

class bench_item {
public:
    bench_item(const std::string& content, int32_t width, int32_t height)
    {
        char dir[] = "/tmp/t4mi-bench-XXXXXX";
        if (mkdtemp(dir) == nullptr)
            return;
        path = std::string(dir) + "/item.txt";
        if (FILE* f = std::fopen(path.c_str(), "w")) {
            std::fputs(content.c_str(), f);
            std::fclose(f);
        }
        std::string err;
        if (!session.open(256ull << 20, &err) || !session.load_item(path, "", &err)) {
            error = err;
            return;
        }
        render_geometry g;
        g.width = width;
        g.height = height;
        ctx = session.new_context(g);
    }
    ~bench_item()
    {
        std::remove(path.c_str());
        rmdir(path.substr(0, path.rfind('/')).c_str());
    }

    render_session session;
    scrolling_text_client_context* ctx = nullptr;
    std::string path;
    std::string error;
};

// Renders frames first, first + 1, ... wrapping after `span`, flushing each.
void run(benchmark::State& state, const std::string& content, int32_t width, int32_t height, uint64_t first,
         uint64_t span)
{
    bench_item item(content, width, height);
    if (item.ctx == nullptr) {
        state.SkipWithError(("cannot open the item: " + item.error).c_str());
        return;
    }
    // The first frame parses and lays out, and fills the glyph and shadow caches.
    for (uint64_t n = first; n < first + span; n += 7) {
        item.session.frame(item.ctx, n);
        item.ctx->reader->frame_manager.flush_unused_frames(FLUSH_EVERYTHING);
    }
    uint64_t i = 0;
    for (auto _ : state) {
        t4mi_video_frame* frame = item.session.frame(item.ctx, first + i % span);
        if (frame == nullptr) {
            state.SkipWithError("load_frame failed");
            return;
        }
        benchmark::DoNotOptimize(frame);
        item.ctx->reader->frame_manager.flush_unused_frames(FLUSH_EVERYTHING);
        i++;
    }
    state.SetItemsProcessed(int64_t(state.iterations()));
}

// (a) 1920 x 108, one line, about 40 characters in the picture. At the default
// speed the strip moves 3.6 px a frame, so from frame 600 on the picture is full.
void ticker_1920x108(benchmark::State& state) { run(state, item_file("", TICKER_TEXT), 1920, 108, 600, 3000); }

// (b) 1920 x 1080, four scrolling lines of 270 px with shadow (36 px a frame).
void four_lines_1920x1080(benchmark::State& state)
{
    run(state, item_file("#-multiLine=4\n", FOUR_LINES_TEXT), 1920, 1080, 60, 240);
}

// Beside FFmpeg's one-line 1080 scene: one line of about 1000 px glyphs.
void one_line_1920x1080(benchmark::State& state) { run(state, item_file("", TICKER_TEXT), 1920, 1080, 60, 400); }

// (c) the ticker of (a) with colour emoji from the emoji images.
void emoji_ticker_1920x108(benchmark::State& state)
{
    run(state, item_file("", EMOJI_TICKER_TEXT), 1920, 108, 600, 3000);
}

// The ticker of (a) in the shaped layout (HarfBuzz, FriBidi), to hold beside (a).
void shaped_ticker_1920x108(benchmark::State& state)
{
    run(state, item_file("#-textShaping=1\n", TICKER_TEXT), 1920, 108, 600, 3000);
}

// (d) an Arabic ticker in DejaVu Sans, shaped (joined, right to left), and
// the same text glyph by glyph, to hold it beside.
void shaped_arabic_ticker_1920x108(benchmark::State& state)
{
    run(state, item_file("#-textShaping=1\n#-fontFamily=DejaVu Sans\n", ARABIC_TICKER_TEXT), 1920, 108, 600, 3000);
}
void plain_arabic_ticker_1920x108(benchmark::State& state)
{
    run(state, item_file("#-fontFamily=DejaVu Sans\n", ARABIC_TICKER_TEXT), 1920, 108, 600, 3000);
}

// One layout of the Arabic ticker, shaped or glyph by glyph: what a text
// change costs once (the frames after it pay nothing for the shaping).
void layout_arabic_ticker(benchmark::State& state, const std::string& settings)
{
    bench_item item(item_file(settings, ARABIC_TICKER_TEXT), 1920, 108);
    if (item.ctx == nullptr) {
        state.SkipWithError(("cannot open the item: " + item.error).c_str());
        return;
    }
    item.session.frame(item.ctx, 0);
    for (auto _ : state)
        item.ctx->recompute_text_times();
    state.SetItemsProcessed(int64_t(state.iterations()));
}
void layout_shaped_arabic_ticker(benchmark::State& state)
{
    layout_arabic_ticker(state, "#-textShaping=1\n#-fontFamily=DejaVu Sans\n");
}
void layout_plain_arabic_ticker(benchmark::State& state) { layout_arabic_ticker(state, "#-fontFamily=DejaVu Sans\n"); }

// The background fill alone: no text, so load_frame allocates, fills and stores.
void background_only_1920x108(benchmark::State& state) { run(state, item_file("", ""), 1920, 108, 0, 3000); }
void background_only_1920x1080(benchmark::State& state) { run(state, item_file("", ""), 1920, 1080, 0, 3000); }

} // namespace

BENCHMARK(ticker_1920x108)->Unit(benchmark::kMicrosecond);
BENCHMARK(four_lines_1920x1080)->Unit(benchmark::kMicrosecond);
BENCHMARK(emoji_ticker_1920x108)->Unit(benchmark::kMicrosecond);
BENCHMARK(one_line_1920x1080)->Unit(benchmark::kMicrosecond);
BENCHMARK(shaped_ticker_1920x108)->Unit(benchmark::kMicrosecond);
BENCHMARK(shaped_arabic_ticker_1920x108)->Unit(benchmark::kMicrosecond);
BENCHMARK(plain_arabic_ticker_1920x108)->Unit(benchmark::kMicrosecond);
BENCHMARK(layout_shaped_arabic_ticker)->Unit(benchmark::kMicrosecond);
BENCHMARK(layout_plain_arabic_ticker)->Unit(benchmark::kMicrosecond);
BENCHMARK(background_only_1920x108)->Unit(benchmark::kMicrosecond);
BENCHMARK(background_only_1920x1080)->Unit(benchmark::kMicrosecond);
