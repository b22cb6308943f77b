// The shaped golden lines against HarfBuzz's own tool: for every line of the
// shaped golden items, the glyph ids our layout places and their positions
// equal what `hb-shape` (Debian's libharfbuzz-bin) prints for the same font
// file, size and text, run by run. The runs, their direction, script and
// font, and their visual order are worked out by hand below (Unicode's bidi
// rules), so a bug in our itemisation, reordering or shaping cannot pass.
//
// Positions: a line starts at x0 (worked out per item) and glyph i stands at
// x0 + round((sum of the advances before it + its x offset) / 64), all in
// 26.6 pixels, which is how `hb-shape --font-size=<pixel size x 64>` prints them.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "frames/compose_fixture.h"
#include "frames/script_fonts.h"
#include "items/item_types.h"
#include "items/scroll_settings.h"
#include "support/item_fixture.h"
#include "support/test_env.h"

namespace t4test {
namespace {

const std::string GOLDEN_DIR = std::string(T4MI_SOURCE_DIR) + "/tests/frames/golden";

// One run as hb-shape is asked to shape it, with the rest of its line as context.
struct hb_run {
    const char* font;
    const char* direction; // "ltr" or "rtl"
    const char* script;    // ISO 15924
    std::string before, text, after;
};

struct glyph_at {
    int64_t x;
    int32_t id;
    std::string family;
    bool operator<(const glyph_at& o) const { return std::tie(x, id, family) < std::tie(o.x, o.id, o.family); }
    bool operator==(const glyph_at& o) const = default;
};

std::string family_of(const char* font)
{
    return std::string(font) == DEJAVU_SANS ? "DejaVu Sans" : "Noto Sans Devanagari";
}

// hb-shape's glyphs of one run, as JSON: [{"g": id, "dx": ..., "ax": ...}, ...].
nlohmann::json shape_with_tool(const hb_run& r, int pixel_size)
{
    const process_result p =
        run_process("/usr/bin/hb-shape",
                    {"--output-format=json", "--no-glyph-names", "--font-size=" + std::to_string(pixel_size * 64),
                     std::string("--direction=") + r.direction, std::string("--script=") + r.script,
                     "--text-before=" + r.before, "--text-after=" + r.after, r.font, r.text},
                    {"LANG=C.UTF-8", "LC_ALL=C.UTF-8"});
    EXPECT_EQ(p.exit_status, 0) << p.err;
    const nlohmann::json glyphs = nlohmann::json::parse(p.out, nullptr, false);
    EXPECT_TRUE(glyphs.is_array() && !glyphs.empty()) << p.out;
    return glyphs.is_array() ? glyphs : nlohmann::json::array();
}

// hb-shape's glyphs for `runs` in visual order, placed from x0.
std::vector<glyph_at> expected_line(const std::vector<hb_run>& runs, int pixel_size, int64_t x0)
{
    std::vector<glyph_at> out;
    int64_t along = 0;
    for (const hb_run& r : runs)
        for (const auto& g : shape_with_tool(r, pixel_size)) {
            const int64_t x = x0 + ((along + g["dx"].get<int64_t>() + 32) >> 6);
            out.push_back(glyph_at{x, g["g"].get<int32_t>(), family_of(r.font)});
            along += g["ax"].get<int64_t>();
        }
    std::sort(out.begin(), out.end());
    return out;
}

// The whole width of a line in pixels, as the layout rounds it.
int64_t width_of(const std::vector<hb_run>& runs, int pixel_size)
{
    int64_t along = 0;
    for (const hb_run& r : runs)
        for (const auto& g : shape_with_tool(r, pixel_size))
            along += g["ax"].get<int64_t>();
    return (along + 32) >> 6;
}

class ShapingCrossCheck : public compose_test {
protected:
    // Lays the golden item out at width x height and returns the glyphs of
    // the line whose top is `line_top`, sorted by position.
    std::vector<glyph_at> laid_out(const char* name, int32_t width, int32_t height, int32_t line_top)
    {
        item = std::make_unique<open_item>(read_file(GOLDEN_DIR + "/" + name + ".txt"),
                                           "application/x-tevrin-scrolling-text");
        load_message();
        auto* ctx = make_context(width, height, 30000, 1001);
        ctx->parse_text();
        ctx->recompute_text_times();
        EXPECT_EQ(ctx->h_scale, 256u); // no squeeze: positions are strip pixels
        std::vector<glyph_at> out;
        for (const auto& [x, glyphs] : ctx->glyph_placements)
            for (const placed_glyph& g : glyphs)
                if (g.line_top == line_top) {
                    EXPECT_NE(g.face, 0u);
                    out.push_back(glyph_at{int64_t(x), g.code, ctx->shaped_faces.at(g.face - 1)->family_name});
                }
        std::sort(out.begin(), out.end());
        return out;
    }

    script_fonts fonts;
    std::unique_ptr<open_item> item;
};

TEST_F(ShapingCrossCheck, ArabicCaption)
{
    // One right-to-left run: every character is Arabic or takes the Arabic
    // script (space, colon), and every one resolves to level 1.
    const std::vector<hb_run> line = {
        {DEJAVU_SANS, "rtl", "Arab", "", "عاجل: مرحبا بالعالم", ""}};
    // 1920 x 216, one line, font scale 0.62: pixel size 620 x 216 / 1000 = 133.
    const int size = 133;
    // Centred: (1920 - width) / 2, rounded down.
    const int64_t x0 = (1920 - width_of(line, size)) >> 1;
    EXPECT_EQ(laid_out("shaped_arabic", 1920, 216, 0), expected_line(line, size, x0));
}

TEST_F(ShapingCrossCheck, HebrewCaptionFirstLine)
{
    // Paragraph level 1 (the first strong character is Hebrew). Numbers (with
    // the colon between them) and Latin take level 2; the spaces between a
    // number and the Latin word take the paragraph's level. Characters of no
    // script take the script before them. Logical runs:
    //   1 "שלום עולם — ערוץ " (1, Hebr)  2 "12" (2, Hebr)  3 " " (1, Hebr)
    //   4 "News" (2, Latn)  5 " " (1, Latn)  6 "בשעה " (1, Hebr)  7 "20:30" (2, Hebr)
    // Visual order, left to right: 7 6 5 4 3 2 1.
    const std::string all = "שלום עולם — ערוץ 12 News בשעה 20:30";
    const std::string r1 = "שלום עולם — ערוץ ", r2 = "12", r3 = " ", r4 = "News", r5 = " ", r6 = "בשעה ",
                      r7 = "20:30";
    const std::vector<hb_run> line = {
        {DEJAVU_SANS, "ltr", "Hebr", r1 + r2 + r3 + r4 + r5 + r6, r7, ""},
        {DEJAVU_SANS, "rtl", "Hebr", r1 + r2 + r3 + r4 + r5, r6, r7},
        {DEJAVU_SANS, "rtl", "Latn", r1 + r2 + r3 + r4, r5, r6 + r7},
        {DEJAVU_SANS, "ltr", "Latn", r1 + r2 + r3, r4, r5 + r6 + r7},
        {DEJAVU_SANS, "rtl", "Hebr", r1 + r2, r3, r4 + r5 + r6 + r7},
        {DEJAVU_SANS, "ltr", "Hebr", r1, r2, r3 + r4 + r5 + r6 + r7},
        {DEJAVU_SANS, "rtl", "Hebr", "", r1, r2 + r3 + r4 + r5 + r6 + r7},
    };
    ASSERT_EQ(r1 + r2 + r3 + r4 + r5 + r6 + r7, all);
    // Two lines of 108: pixel size 750 x 108 / 1000 = 81. Right-justified: 1920 - width.
    const int size = 81;
    EXPECT_EQ(laid_out("shaped_hebrew", 1920, 216, 0), expected_line(line, size, 1920 - width_of(line, size)));
}

TEST_F(ShapingCrossCheck, HebrewCaptionSecondLine)
{
    // "3.50" is a number (the stop between digits joins it); the shekel sign
    // stands apart from it, so it is neutral. The brackets pair around Latin
    // only, after a number, which counts as right-to-left: they take the
    // paragraph's direction. Logical runs:
    //   A "מחיר: " (1, Hebr)  B "3.50" (2, Hebr)  C " ₪ (" (1, Hebr)
    //   D "CNN, BBC" (2, Latn)  E ")" (1, Latn)
    // Visual order, left to right: E D C B A.
    const std::string a = "מחיר: ", b = "3.50", c = " ₪ (", d = "CNN, BBC", e = ")";
    const std::vector<hb_run> line = {
        {DEJAVU_SANS, "rtl", "Latn", a + b + c + d, e, ""},
        {DEJAVU_SANS, "ltr", "Latn", a + b + c, d, e},
        {DEJAVU_SANS, "rtl", "Hebr", a + b, c, d + e},
        {DEJAVU_SANS, "ltr", "Hebr", a, b, c + d + e},
        {DEJAVU_SANS, "rtl", "Hebr", "", a, b + c + d + e},
    };
    const int size = 81;
    EXPECT_EQ(laid_out("shaped_hebrew", 1920, 216, 108), expected_line(line, size, 1920 - width_of(line, size)));
}

TEST_F(ShapingCrossCheck, DevanagariLine)
{
    // DejaVu Sans has no Devanagari: from the first Devanagari letter on,
    // the fall-back face (Noto Sans Devanagari, which also has the space and
    // the dash) takes the characters. Two left-to-right runs.
    const std::string latin = "News ", deva = "नमस्ते दुनिया — हिन्दी समाचार क्षेत्र";
    const std::vector<hb_run> line = {
        {DEJAVU_SANS, "ltr", "Latn", "", latin, deva},
        {NOTO_SANS_DEVANAGARI, "ltr", "Deva", latin, deva, ""},
    };
    // 1920 x 108, font scale 0.62: pixel size 620 x 108 / 1000 = 66. A
    // scrolling line starts one gap in: round(1920 x 0.05) = 96.
    EXPECT_EQ(laid_out("shaped_devanagari", 1920, 108, 0), expected_line(line, 66, 96));
}

TEST_F(ShapingCrossCheck, MixedTickerScrollingRight)
{
    // Paragraph level 1 (the first strong character is Arabic). The neutrals
    // between the Arabic and the Latin take the paragraph's level; "22"
    // follows Arabic letters, so it is an Arabic number (level 2), and the
    // spaces around it count as right-to-left. Characters of no script take
    // the script before them, so the " — " after "higher" is Latin. Logical runs:
    //   1 "عاجل: الأسواق تغلق على ارتفاع — " (1, Arab)  2 "Markets close higher" (2, Latn)
    //   3 " — " (1, Latn)  4 "الطقس: مشمس " (1, Arab)  5 "22" (2, Arab)  6 " درجة" (1, Arab)
    // Visual order, left to right: 6 5 4 3 2 1.
    const std::string r1 = "عاجل: الأسواق تغلق على ارتفاع — ", r2 = "Markets close higher", r3 = " — ",
                      r4 = "الطقس: مشمس ", r5 = "22", r6 = " درجة";
    const std::vector<hb_run> line = {
        {DEJAVU_SANS, "rtl", "Arab", r1 + r2 + r3 + r4 + r5, r6, ""},
        {DEJAVU_SANS, "ltr", "Arab", r1 + r2 + r3 + r4, r5, r6},
        {DEJAVU_SANS, "rtl", "Arab", r1 + r2 + r3, r4, r5 + r6},
        {DEJAVU_SANS, "rtl", "Latn", r1 + r2, r3, r4 + r5 + r6},
        {DEJAVU_SANS, "ltr", "Latn", r1, r2, r3 + r4 + r5 + r6},
        {DEJAVU_SANS, "rtl", "Arab", "", r1, r2 + r3 + r4 + r5 + r6},
    };
    // 1920 x 108, font scale 0.62: pixel size 66. Scrolling either way, the
    // line lies on the strip one gap in: round(1920 x 0.5) = 960.
    EXPECT_EQ(laid_out("shaped_mixed_right", 1920, 108, 0), expected_line(line, 66, 960));
}

} // namespace
} // namespace t4test
