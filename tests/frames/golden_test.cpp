// Golden frames: reference frames of a few items, rendered with the fixed
// root's faces (Debian's Liberation Sans and Symbola), compared by a
// checksum of their Y, U, V and A planes.
//
// The items and the references live in tests/frames/golden/: <case>.txt is
// the item file, checksums.txt holds one "<case>_<frame> <checksum>" line per
// frame, and <case>_<frame>.png is the frame as RGBA for people to look at.
// On a mismatch the new frame and a difference image are written as PNG
// into <build>/golden-out/ and the failure says where.
//
// Regenerate on purpose only (see docs/golden-frames.md):
//   T4MI_UPDATE_GOLDEN=1 ./build/tests/test_frames --gtest_filter='*Golden*'
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "frames/compose_fixture.h"
#include "frames/reader.h"
#include "frames/script_fonts.h"
#include "frames/yuva_png.h"
#include "items/item_types.h"
#include "items/scroll_settings.h"
#include "platform/fixed_paths.h"
#include "platform/video_frame.h"
#include "support/item_fixture.h"
#include "support/test_env.h"

namespace t4test {
namespace {

namespace fs = std::filesystem;

const std::string GOLDEN_DIR = std::string(T4MI_SOURCE_DIR) + "/tests/frames/golden";
const std::string OUT_DIR = std::string(T4MI_BINARY_DIR) + "/golden-out";
const std::string MANIFEST = GOLDEN_DIR + "/checksums.txt";

struct golden_case {
    const char* name; // item file <name>.txt
    int32_t width, height;
    int64_t aspect_num, aspect_den;
    std::vector<uint64_t> frames;
    bool script_fonts = false; // fontconfig sees the script fonts (frames/script_fonts.h) instead
};

// All at 30000/1001 frames a second.
const golden_case CASES[] = {
    // Frame 0: the text enters at x 960 (space 0.5). Frame 100: offset
    // (14760 x 100) >> 12 = 360. Frame 3326 lies in the second cycle (6291
    // pixels, 1745 frames): offset 11985 - 6291 = 5694 shows the last 597
    // pixels of the text, the 960-pixel gap and the next repetition's start.
    {"ticker", 1920, 108, 0, 0, {0, 100, 3326}},
    {"caption", 1920, 1080, 0, 0, {0}},
    {"squeezed", 1920, 108, 0, 0, {0}},
    {"ntsc43", 720, 480, 4, 3, {150}},
    {"emoji", 1920, 108, 0, 0, {150}},
    // Frame 100: offset 360, the text from x 600 with its outline.
    {"outlined", 1920, 108, 0, 0, {100}},
    // The ticker scrolling right: frame 0 shows the end of the text ending
    // at x 960; frame 100 the same 360 pixels further right.
    {"ticker_right", 1920, 108, 0, 0, {0, 100}},
    // Shaped layout (-textShaping=1).
    {"shaped_arabic", 1920, 216, 0, 0, {0}, true},
    {"shaped_hebrew", 1920, 216, 0, 0, {0}, true},
    {"shaped_devanagari", 1920, 108, 0, 0, {0}, true},
    // Shaped and scrolling right: frame 0 shows the line's visual end, its
    // Arabic start, ending at x 960 (space 0.5); frame 100 the same 360
    // pixels further right.
    {"shaped_mixed_right", 1920, 108, 0, 0, {0, 100}, true},
};

void PrintTo(const golden_case& c, std::ostream* os) { *os << c.name; }

bool updating()
{
    const char* v = std::getenv("T4MI_UPDATE_GOLDEN");
    return v != nullptr && std::string(v) == "1";
}

std::map<std::string, std::string> read_manifest()
{
    std::map<std::string, std::string> m;
    std::ifstream in(MANIFEST);
    std::string key, sum;
    while (in >> key >> sum)
        m[key] = sum;
    return m;
}

void write_manifest(const std::map<std::string, std::string>& m)
{
    std::ofstream out(MANIFEST, std::ios::trunc);
    for (const auto& [key, sum] : m)
        out << key << " " << sum << "\n";
}

std::string hex64(uint64_t v)
{
    char s[17];
    std::snprintf(s, sizeof s, "%016llx", (unsigned long long)v);
    return s;
}

std::vector<uint8_t> to_rgba(const frame_pixels& p)
{
    yuva_frame_planes planes;
    planes.y = p.y.data();
    planes.u = p.u.data();
    planes.v = p.v.data();
    planes.alpha = p.a.data();
    planes.width = p.width;
    planes.height = p.height;
    planes.y_stride = planes.chroma_stride = planes.alpha_stride = p.width;
    return yuva_to_rgba(planes);
}

// Differences in magenta over a dimmed copy of the stored frame; null when
// the stored frame is missing or of another size.
bool write_difference(const std::string& stored_png, const std::vector<uint8_t>& rgba, uint32_t w, uint32_t h,
                      const std::string& path)
{
    std::vector<uint8_t> stored;
    uint32_t sw = 0, sh = 0;
    if (!read_rgba_png(stored_png, &stored, &sw, &sh) || sw != w || sh != h)
        return false;
    std::vector<uint8_t> diff(stored.size());
    for (size_t i = 0; i < stored.size(); i += 4) {
        const bool same = std::equal(&stored[i], &stored[i] + 4, &rgba[i]);
        const uint8_t dim = uint8_t((stored[i] + stored[i + 1] + stored[i + 2]) / 3 * stored[i + 3] / 255 / 4);
        diff[i] = same ? dim : 255;
        diff[i + 1] = same ? dim : 0;
        diff[i + 2] = same ? dim : 255;
        diff[i + 3] = 255;
    }
    return write_rgba_png(path, diff.data(), w, h);
}

// A 72 x 72 colour emoji image: a red disc with a soft edge and a light spot.
void write_red_disc(const std::string& path)
{
    std::vector<uint8_t> rgba(72 * 72 * 4);
    for (int y = 0; y < 72; y++)
        for (int x = 0; x < 72; x++) {
            const double r = std::hypot(x - 35.5, y - 35.5);
            const double spot = std::hypot(x - 26.0, y - 24.0);
            const int a = int(std::lround(255.0 * std::clamp(32.0 - r, 0.0, 1.0)));
            const int light = int(std::lround(120.0 * std::clamp(1.0 - spot / 14.0, 0.0, 1.0)));
            uint8_t* px = &rgba[size_t(y * 72 + x) * 4];
            px[0] = uint8_t(std::min(255, 215 + light / 3));
            px[1] = uint8_t(30 + light);
            px[2] = uint8_t(40 + light);
            px[3] = uint8_t(a);
        }
    ASSERT_TRUE(write_rgba_png(path, rgba.data(), 72, 72));
}

class Golden : public compose_test, public ::testing::WithParamInterface<golden_case> {};

TEST_P(Golden, FramesMatchTheirReferences)
{
    const golden_case& g = GetParam();
    const std::string emoji = compose_fixed_root() + T4MI_EMOJI_IMAGE_DIR + "/emoji_u1f534.png";
    write_red_disc(emoji);
    std::optional<script_fonts> fonts;
    if (g.script_fonts)
        fonts.emplace();
    open_item item(read_file(GOLDEN_DIR + "/" + g.name + ".txt"), "application/x-tevrin-scrolling-text");
    load_message();
    auto* ctx = make_context(g.width, g.height, 30000, 1001, g.aspect_num, g.aspect_den);

    std::map<std::string, std::string> manifest = read_manifest();
    for (uint64_t n : g.frames) {
        const std::string key = std::string(g.name) + "_" + std::to_string(n);
        SCOPED_TRACE(key);
        const frame_pixels p = render_pixels(ctx, n);
        ASSERT_EQ(p.width, uint32_t(g.width));
        const std::string sum = hex64(pixels_checksum(p));
        const std::vector<uint8_t> rgba = to_rgba(p);
        if (updating()) {
            manifest[key] = sum;
            ASSERT_TRUE(write_rgba_png(GOLDEN_DIR + "/" + key + ".png", rgba.data(), p.width, p.height));
            continue;
        }
        if (manifest.count(key) && manifest[key] == sum)
            continue;
        fs::create_directories(OUT_DIR);
        const std::string actual = OUT_DIR + "/" + key + ".png";
        const std::string diff = OUT_DIR + "/" + key + "-diff.png";
        write_rgba_png(actual, rgba.data(), p.width, p.height);
        const bool have_diff = write_difference(GOLDEN_DIR + "/" + key + ".png", rgba, p.width, p.height, diff);
        ADD_FAILURE() << "frame " << key << " has checksum " << sum << ", expected "
                      << (manifest.count(key) ? manifest[key] : std::string("(none)")) << "\n  new frame: " << actual
                      << (have_diff ? "\n  difference: " + diff : std::string("\n  (no stored frame to compare)"))
                      << "\n  if the change is intended: T4MI_UPDATE_GOLDEN=1 ./build/tests/test_frames "
                         "--gtest_filter='*Golden*' (see docs/golden-frames.md)";
    }
    if (updating())
        write_manifest(manifest);
    std::remove(emoji.c_str());
}

INSTANTIATE_TEST_SUITE_P(Items, Golden, ::testing::ValuesIn(CASES),
                         [](const ::testing::TestParamInfo<golden_case>& info) { return std::string(info.param.name); });

} // namespace
} // namespace t4test
