// The shaped layout (-textShaping=1): the runs are cut into lines as the
// glyph-by-glyph layout cuts them, each line is shaped once (frames/shaping.h),
// and its glyphs are placed in visual order along the strip. Positions come
// from the shaper's 26.6 advances, summed along the line and rounded per
// glyph, so rounding never accumulates.
#include <algorithm>
#include <vector>

#include "fonts/emoji_images.h"
#include "fonts/font_bmp.h"
#include "fonts/font_catalogue.h"
#include "fonts/font_globals.h"
#include "fonts/glyph_cache.h"
#include "frames/client_context.h"
#include "frames/layout.h"
#include "frames/shaping.h"
#include "items/scroll_settings.h"

namespace {
// The markup's line and paragraph separators (as in frames/layout.cpp).
constexpr int32_t LINE_FEED = 10;
constexpr int32_t PARAGRAPH_END = 31;

enum class line_end { line_feed, paragraph_end, text_end };

struct shaped_line {
    std::vector<uint32_t> chars;       // logical order
    std::vector<size_t> run_of;        // the entry of ctx.runs each character came from
    std::vector<shaped_glyph> glyphs;  // visual order
    int64_t width = 0;                 // whole pixels
    line_end end = line_end::text_end;
};

// The lines of the text, cut where the glyph-by-glyph layout's pen would
// move: a line feed starts the next line while the paragraph has one left,
// and reads as a space after that; a paragraph end closes the paragraph (and,
// for static text, the text).
std::vector<shaped_line> cut_lines(const scrolling_text_client_context& ctx, const layout_geometry& geo)
{
    std::vector<shaped_line> lines(1);
    int64_t line = 0;
    for (size_t i = 0; i < ctx.runs.size(); i++) {
        const int32_t code = ctx.runs[i].code;
        if (code == PARAGRAPH_END) {
            lines.back().end = line_end::paragraph_end;
            if (geo.is_static)
                return lines;
            lines.emplace_back();
            line = 0;
        } else if (code == LINE_FEED && line + 1 < geo.lines) {
            lines.back().end = line_end::line_feed;
            lines.emplace_back();
            line++;
        } else {
            lines.back().chars.push_back(code == LINE_FEED ? uint32_t(' ') : uint32_t(code));
            lines.back().run_of.push_back(i);
        }
    }
    return lines;
}

line_shaper shaper_for(scrolling_text_client_context& ctx, const layout_geometry& geo,
                       const scroll_settings_record& s, FT_Face primary, int64_t pixel_size)
{
    shaper_setup setup;
    setup.primary = primary;
    setup.family = s.fontFamily;
    setup.pixel_size = pixel_size;
    setup.x_stretch = double(context_glyph_matrix(&ctx).xx) / 65536.0;
    setup.direction = s.textDirection;
    const uint64_t line_height = geo.line_height;
    const bool images = s.emoji != 0;
    setup.image_advance = [&ctx, line_height, images](int32_t c) -> int32_t {
        if (!images || !is_emoji_candidate(c) || get_emoji_bmp(c) == nullptr)
            return -1;
        const font_bmp_cache_storage* bmp = get_font_bmp(&ctx, line_height, c);
        return bmp == nullptr ? -1 : bmp->advance;
    };
    return line_shaper(std::move(setup));
}
} // namespace

uint64_t place_shaped_glyphs(scrolling_text_client_context& ctx, const layout_geometry& geo,
                             const scroll_settings_record& s)
{
    FT_Face primary = font_face_for_settings(s.fontFamily.c_str(), s.fontStyle.c_str());
    if (primary == nullptr)
        primary = default_face;
    const int64_t pixel_size = glyph_pixel_size(&ctx, geo.line_height);
    ctx.shaped_faces.clear();
    if (primary == nullptr || pixel_size <= 0 || geo.line_height == 0) {
        // Nothing can be shaped: the glyph-by-glyph placement draws what it can.
        std::vector<uint64_t> starts = geo.is_static ? measure_static_lines(ctx, geo, s)
                                                     : std::vector<uint64_t>(size_t(geo.lines), geo.gap);
        return place_glyphs(ctx, geo, std::move(starts));
    }

    std::vector<shaped_line> lines = cut_lines(ctx, geo);
    line_shaper shaper = shaper_for(ctx, geo, s, primary, pixel_size);
    for (shaped_line& line : lines) {
        line.glyphs = shaper.shape(line.chars);
        int64_t width = 0;
        for (const shaped_glyph& g : line.glyphs)
            width += g.x_advance;
        line.width = std::max<int64_t>(0, (width + 32) >> 6);
    }
    ctx.shaped_faces = shaper.faces();

    std::vector<uint64_t> starts(size_t(geo.lines), geo.gap);
    if (geo.is_static) {
        std::vector<int64_t> widths;
        for (const shaped_line& line : lines)
            widths.push_back(line.width);
        starts = static_line_starts(ctx, geo, s, widths);
    }

    strip_pen pen(geo, std::move(starts));
    for (const shaped_line& line : lines) {
        const int64_t start = int64_t(pen.x());
        int64_t along = 0; // 26.6 from the line's start
        for (const shaped_glyph& g : line.glyphs) {
            const int64_t x = std::max<int64_t>(0, start + ((along + g.x_offset + 32) >> 6));
            along += g.x_advance;
            const uint64_t key = (ctx.h_scale * uint64_t(x)) >> 8;
            ctx.glyph_placements[key].push_back(placed_glyph{.code = g.code,
                                                             .style = ctx.runs[line.run_of[g.source]].style,
                                                             .pixel_size = int32_t(geo.line_height),
                                                             .line_top = pen.line_top(),
                                                             .face = g.face,
                                                             .dy = -int32_t((g.y_offset + 32) >> 6)});
        }
        pen.advance(uint64_t(line.width));
        if (line.end == line_end::line_feed)
            pen.next_line();
        else if (line.end == line_end::paragraph_end && !pen.end_paragraph())
            break;
    }
    ctx.placement_count = ctx.glyph_placements.size();
    return pen.end();
}
