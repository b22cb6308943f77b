// Text timing and layout: the styled runs become glyphs placed along one long
// horizontal strip, and the motion of that strip is fixed (cycle length,
// scroll step in 1/4096 pixel, frames per step, item length). The phases are
// described in frames/layout.h.
#include "frames/layout.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "fonts/font_bmp.h"
#include "fonts/font_catalogue.h"
#include "fonts/glyph_cache.h"
#include "frames/client_context.h"
#include "frames/reader.h"
#include "items/scroll_settings.h"
#include "platform/t4mi_assert.h"

namespace {
constexpr int32_t LINE_FEED = 10;
constexpr int32_t PARAGRAPH_END = 31;
// The pen advance of a character without a glyph: it is placed anyway and
// the compositor skips it.
constexpr int32_t MISSING_GLYPH_ADVANCE = 4;

// floor(v + 0.5), truncated to 32 bits: half rounds up. Settings such as
// "nan" or "inf" parse as numbers, so the conversion saturates (NaN gives 0)
// instead of being undefined.
int32_t round_half_up(double v)
{
    const double r = std::floor(v + 0.5);
    if (std::isnan(r))
        return 0;
    return int32_t(int64_t(std::clamp(r, -9.2e18, 9.2e18)));
}

// A double to unsigned 64 bits by truncation, 0 for negatives and NaN, so a
// wild speed can never make the conversion undefined.
uint64_t to_u64(double v)
{
    if (!(v > 0.0))
        return 0;
    if (v >= 1.8e19)
        return std::numeric_limits<uint64_t>::max();
    return uint64_t(v);
}

int32_t count_lines(const std::vector<text_run>& runs, bool is_static)
{
    int32_t chars = 0, lines = 0, most = 0;
    for (const text_run& run : runs) {
        if (run.code == PARAGRAPH_END) {
            if (is_static)
                break;
            chars = lines = 0;
        } else if (run.code == LINE_FEED) {
            // A line feed that ends a non-empty line adds nothing; an empty line counts.
            if (chars == 0)
                most = std::max(most, ++lines);
            chars = 0;
        } else {
            if (chars == 0)
                most = std::max(most, ++lines);
            chars++;
        }
    }
    return most == 0 ? 1 : most;
}

// One step of the pen along a line: the kerning after `previous` (0 at the
// start of a line) and the advance of `code`'s glyph at the line height.
struct pen_step {
    int32_t kern = 0;
    int64_t advance = 0;
    uint64_t total() const { return uint64_t(kern + advance); }
};

pen_step step_to(scrolling_text_client_context& ctx, uint64_t line_height, int32_t previous, int32_t code)
{
    // Kerning first: it reads the face at the size the last glyph load set.
    const int32_t k = previous == 0 ? 0 : kerning_between(&ctx, previous, code);
    const font_bmp_cache_storage* g = get_font_bmp(&ctx, line_height, code);
    return {k, g ? int64_t(g->advance) : int64_t(MISSING_GLYPH_ADVANCE)};
}
} // namespace

layout_geometry layout_geometry_for(const scrolling_text_client_context& ctx, const scroll_settings_record& s,
                                    int32_t lines)
{
    layout_geometry geo;
    geo.width = ctx.reader->frame_width;
    geo.height = ctx.reader->frame_height;
    geo.lines = lines;
    geo.line_height = uint64_t(geo.height / geo.lines);
    geo.gap = uint64_t(round_half_up(double(geo.width) * std::min(s.space, 1.0)));
    geo.is_static = s.static_ != 0;
    return geo;
}

std::vector<uint64_t> measure_static_lines(scrolling_text_client_context& ctx, const layout_geometry& geo,
                                           const scroll_settings_record& s)
{
    std::vector<int64_t> widths;
    int64_t w = 0;
    int32_t previous = 0;
    for (const text_run& run : ctx.runs) {
        if (run.code == PARAGRAPH_END)
            break;
        if (run.code == LINE_FEED) {
            widths.push_back(w);
            w = 0;
            previous = 0;
            continue;
        }
        const pen_step step = step_to(ctx, geo.line_height, previous, run.code);
        w += step.kern + step.advance;
        previous = run.code;
    }
    if (w != 0)
        widths.push_back(w);
    return static_line_starts(ctx, geo, s, widths);
}

std::vector<uint64_t> static_line_starts(scrolling_text_client_context& ctx, const layout_geometry& geo,
                                         const scroll_settings_record& s, const std::vector<int64_t>& widths)
{
    const int64_t W = geo.width;
    // Squeeze the widest line into the picture, and justify each line within
    // the squeezed width.
    const int64_t widest = widths.empty() ? 0 : *std::max_element(widths.begin(), widths.end());
    if (widest > W)
        ctx.h_scale = widest > W * 256 ? 1 : uint64_t(W * 256 / widest);
    const uint64_t T = uint64_t(W * 256) / ctx.h_scale;
    std::vector<uint64_t> starts;
    for (int64_t width : widths) {
        uint64_t start = 0;
        if (s.justify == 2)
            start = int64_t(T) - width < 0 ? 0 : T - uint64_t(width);
        else if (s.justify == 1)
            start = (T - uint64_t(width)) >> 1; // unsigned on purpose
        starts.push_back(start);
    }
    if (starts.size() < size_t(geo.lines))
        starts.resize(size_t(geo.lines), 0);
    return starts;
}

strip_pen::strip_pen(const layout_geometry& geo, std::vector<uint64_t> line_starts)
    : geo(geo), starts(std::move(line_starts))
{
    // The first line feed reads entry 1, whatever the line count.
    if (starts.size() < 2)
        starts.resize(2, 0);
    pen = starts[0];
}

bool strip_pen::end_paragraph()
{
    pen = std::max(pen, widest);
    if (geo.is_static)
        return false;
    const uint64_t start = pen + geo.gap;
    std::fill(starts.begin(), starts.end(), start);
    widest = start;
    pen = starts[0];
    next_start = 1;
    line = 0;
    top = 0;
    return true;
}

bool strip_pen::next_line()
{
    widest = std::max(widest, pen);
    if (line + 1 >= geo.lines)
        return false;
    pen = starts.at(next_start);
    line++;
    top = int32_t(geo.height * line / geo.lines);
    if (next_start + 1 < starts.size())
        next_start++;
    return true;
}

uint64_t strip_pen::end() const { return std::max(pen, widest); }

uint64_t place_glyphs(scrolling_text_client_context& ctx, const layout_geometry& geo,
                      std::vector<uint64_t> line_starts)
{
    strip_pen pen(geo, std::move(line_starts));
    int32_t previous = 0;
    for (const text_run& run : ctx.runs) {
        if (run.code == PARAGRAPH_END) {
            if (!pen.end_paragraph())
                break;
            previous = 0;
        } else if (run.code == LINE_FEED) {
            if (pen.next_line()) {
                previous = 0;
            } else {
                // No further line: the line feed reads as a space.
                pen.advance(step_to(ctx, geo.line_height, previous, ' ').total());
                previous = ' ';
            }
        } else {
            const pen_step step = step_to(ctx, geo.line_height, previous, run.code);
            const uint64_t key = (ctx.h_scale * (pen.x() + uint64_t(int64_t(step.kern)))) >> 8;
            ctx.glyph_placements[key].push_back(placed_glyph{.code = run.code,
                                                             .style = run.style,
                                                             .pixel_size = int32_t(geo.line_height),
                                                             .line_top = pen.line_top()});
            pen.advance(step.total());
            previous = run.code;
        }
    }
    ctx.placement_count = ctx.glyph_placements.size();
    return pen.end();
}

void fix_motion(scrolling_text_client_context& ctx, const layout_geometry& geo, const scroll_settings_record& s,
                uint64_t text_end)
{
    uint64_t cycle = text_end;
    if (s.space > 1.0)
        cycle += uint64_t(round_half_up((s.space - 1.0) * double(geo.width)));
    ctx.cycle_length = cycle;

    if (geo.is_static) {
        ctx.scroll_step = 0;
        ctx.frames_per_step = 1;
        ctx.item_length = 1;
        return;
    }
    const double aspect_factor = ctx.pixel_aspect_factor(ctx.picture_width, ctx.picture_height);
    const double pixels_per_second =
        s.scrollTime <= 0.0 ? aspect_factor * double(geo.height) * s.scrollSpeed : double(cycle) / s.scrollTime;
    const double p = pixels_per_second * double(ctx.frame_duration) / double(ctx.time_scale);
    if (s.smoothScroll < 0.5) {
        ctx.scroll_step = to_u64(p * 4096.0);
        ctx.frames_per_step = 1;
    } else if (p >= 1.0) {
        ctx.scroll_step = (to_u64(p * 4096.0) + 2048) & ~uint64_t(4095);
        ctx.frames_per_step = 1;
    } else {
        ctx.frames_per_step = std::max<uint64_t>(1, to_u64(std::floor(1.0 / p + 0.5)));
        ctx.scroll_step = 4096;
    }
    ctx.item_length = ctx.scroll_step == 0 ? 1 : (cycle * 4096 / ctx.scroll_step) * ctx.frames_per_step;
}

void reverse_paragraphs(std::vector<text_run>& runs)
{
    // Reverse the whole, then each paragraph back into reading order.
    std::reverse(runs.begin(), runs.end());
    auto start = runs.begin();
    for (auto it = runs.begin();; ++it) {
        if (it == runs.end() || it->code == PARAGRAPH_END) {
            std::reverse(start, it);
            if (it == runs.end())
                break;
            start = it + 1;
        }
    }
}

uint64_t strip_offset(const scrolling_text_client_context& ctx, uint64_t n)
{
    const uint64_t C = ctx.cycle_length;
    if (C == 0)
        return 0;
    const uint64_t left = (((ctx.scroll_step * n) >> 12) / ctx.frames_per_step) % C;
    return ctx.scrolls_right ? (ctx.right_origin + C - left) % C : left;
}

void scrolling_text_client_context::recompute_text_times()
{
    const scroll_settings_record& s = scroll_settings;
    line_count = s.multiLine >= 1 ? s.multiLine : count_lines(runs, s.static_ != 0);

    T4MI_ASSERT(reader != NULL);
    glyph_placements.clear();
    placement_count = 0;
    cycle_length = 0;
    text_dirty = false;
    feed_dirty = false;
    scroll_step = 4096;
    frames_per_step = 1;
    clear_bitmap_caches();
    layout_generation++;

    const layout_geometry geo = layout_geometry_for(*this, s, line_count);
    // The settings are fractions of one line height: setting x H / L, in that
    // order. Deliberate: a negative blur setting gives radius 0 (no blur)
    // instead of stopping the process in the shadow filter. Set before any
    // glyph is measured: the glyph's size leaves room for its shadow.
    const double H = double(geo.height), L = double(geo.lines);
    shadow_blur_radius = std::max(0, round_half_up(s.shadowBlur * H / L));
    shadow_offset_x = round_half_up(s.shadowX * H / L);
    shadow_offset_y = round_half_up(s.shadowY * H / L);

    // Outline width in 1/64 pixel, at most a quarter of the line; set before
    // any glyph is made, like the shadow's, for the same reason.
    const double outline_64 = s.outlineWidth * H / L * 64.0;
    outline_width_64 = round_half_up(std::clamp(outline_64, 0.0, double(geo.line_height) * 16.0));
    outline_rgba[0] = s.outlineColor.r;
    outline_rgba[1] = s.outlineColor.g;
    outline_rgba[2] = s.outlineColor.b;
    outline_rgba[3] = s.outlineColor.a;
    scrolls_right = !geo.is_static && s.scrollDirection == scroll_direction_right;
    right_origin = 0;

    h_scale = 256;
    uint64_t text_end = 0;
    if (scrolls_right)
        reverse_paragraphs(runs);
    if (s.textShaping != 0) {
        text_end = place_shaped_glyphs(*this, geo, s);
    } else {
        std::vector<uint64_t> line_starts =
            geo.is_static ? measure_static_lines(*this, geo, s) : std::vector<uint64_t>(size_t(geo.lines), geo.gap);
        text_end = place_glyphs(*this, geo, std::move(line_starts));
    }
    if (scrolls_right)
        reverse_paragraphs(runs);
    fix_motion(*this, geo, s, text_end);
    if (scrolls_right && cycle_length != 0) {
        // Frame 0 shows the text's end at W - gap, mirroring its start at gap.
        const int64_t C = int64_t(cycle_length);
        const int64_t origin = (int64_t(text_end) + int64_t(geo.gap) - geo.width) % C;
        right_origin = uint64_t(origin < 0 ? origin + C : origin);
    }

    reader->frame_manager.flush_unused_frames(FLUSH_EVERYTHING);
}
