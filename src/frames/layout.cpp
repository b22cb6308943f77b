// Text timing and layout: the styled runs become glyphs placed along one long
// horizontal strip, and the motion of that strip is fixed (cycle length,
// scroll step in 1/4096 pixel, frames per step, item length).
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
} // namespace

void scrolling_text_client_context::recompute_text_times()
{
    const scroll_settings_record& s = scroll_settings;
    const bool is_static = s.static_ != 0;
    line_count = s.multiLine >= 1 ? s.multiLine : count_lines(runs, is_static);

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

    const int64_t W = reader->frame_width;
    const int64_t H = reader->frame_height;
    const int64_t L = line_count;
    const uint64_t line_height = uint64_t(H / L);
    // The settings are fractions of one line height: setting x H / L, in that
    // order. Deliberate: a negative blur setting gives radius 0 (no blur)
    // instead of stopping the process in the shadow filter.
    shadow_blur_radius = std::max(0, round_half_up(s.shadowBlur * double(H) / double(L)));
    shadow_offset_x = round_half_up(s.shadowX * double(H) / double(L));
    shadow_offset_y = round_half_up(s.shadowY * double(H) / double(L));

    auto kern = [&](int32_t previous, int32_t code) { return previous == 0 ? 0 : kerning_between(this, previous, code); };
    auto advance_of = [&](int32_t code) {
        const font_bmp_cache_storage* g = get_font_bmp(this, line_height, code);
        return g ? int64_t(g->advance) : int64_t(MISSING_GLYPH_ADVANCE);
    };

    const uint64_t gap = uint64_t(round_half_up(double(W) * std::min(s.space, 1.0)));
    std::vector<uint64_t> line_starts;
    h_scale = 256;
    if (!is_static) {
        line_starts.assign(size_t(L), gap);
    } else {
        // Measure the lines of the first paragraph, squeeze the widest into
        // the picture, and justify each line within the squeezed width.
        std::vector<int64_t> widths;
        int64_t w = 0;
        int32_t previous = 0;
        for (const text_run& run : runs) {
            if (run.code == PARAGRAPH_END)
                break;
            if (run.code == LINE_FEED) {
                widths.push_back(w);
                w = 0;
                previous = 0;
                continue;
            }
            // Kerning first: it reads the face at the size the last glyph load set.
            const int32_t k = kern(previous, run.code);
            w += k + advance_of(run.code);
            previous = run.code;
        }
        if (w != 0)
            widths.push_back(w);
        const int64_t widest = widths.empty() ? 0 : *std::max_element(widths.begin(), widths.end());
        if (widest > W)
            h_scale = widest > W * 256 ? 1 : uint64_t(W * 256 / widest);
        const uint64_t T = uint64_t(W * 256) / h_scale;
        for (int64_t width : widths) {
            uint64_t start = 0;
            if (s.justify == 2)
                start = int64_t(T) - width < 0 ? 0 : T - uint64_t(width);
            else if (s.justify == 1)
                start = (T - uint64_t(width)) >> 1; // unsigned on purpose
            line_starts.push_back(start);
        }
        if (line_starts.size() < size_t(L))
            line_starts.resize(size_t(L), 0);
    }
    if (line_starts.size() < 2)
        line_starts.resize(2, 0);

    uint64_t pen = line_starts[0];
    size_t next_start = 1;
    int64_t line = 0;
    int32_t top = 0;
    int32_t previous = 0;
    uint64_t widest_x = 0;
    for (const text_run& run : runs) {
        if (run.code == PARAGRAPH_END) {
            pen = std::max(pen, widest_x);
            if (is_static)
                break;
            const uint64_t start = pen + gap;
            std::fill(line_starts.begin(), line_starts.end(), start);
            widest_x = start;
            pen = line_starts[0];
            next_start = 1;
            line = 0;
            top = 0;
            previous = 0;
        } else if (run.code == LINE_FEED) {
            widest_x = std::max(widest_x, pen);
            if (line + 1 < L) {
                pen = line_starts.at(next_start);
                line++;
                top = int32_t(H * line / L);
                if (next_start + 1 < line_starts.size())
                    next_start++;
                previous = 0;
            } else {
                // No further line: the line feed reads as a space.
                const int32_t k = kern(previous, ' ');
                pen += uint64_t(k + advance_of(' '));
                previous = ' ';
            }
        } else {
            const int32_t k = kern(previous, run.code);
            const font_bmp_cache_storage* g = get_font_bmp(this, line_height, run.code);
            const uint64_t key = (h_scale * (pen + uint64_t(int64_t(k)))) >> 8;
            glyph_placements[key].push_back(placed_glyph{
                .code = run.code, .style = run.style, .pixel_size = int32_t(line_height), .line_top = top});
            pen = pen + uint64_t(int64_t(k)) + uint64_t(g ? int64_t(g->advance) : MISSING_GLYPH_ADVANCE);
            previous = run.code;
        }
    }
    placement_count = glyph_placements.size();

    pen = std::max(pen, widest_x);
    if (s.space > 1.0)
        pen += uint64_t(round_half_up((s.space - 1.0) * double(W)));
    cycle_length = pen;

    if (is_static) {
        scroll_step = 0;
        frames_per_step = 1;
        item_length = 1;
    } else {
        double aspect_factor = 1.0;
        if (screen_aspect_num > 0 && screen_aspect_den > 0)
            aspect_factor = double(picture_width) /
                            ((double(screen_aspect_num) * double(picture_height)) / double(screen_aspect_den));
        const double pixels_per_second =
            s.scrollTime <= 0.0 ? aspect_factor * double(H) * s.scrollSpeed : double(cycle_length) / s.scrollTime;
        const double p = pixels_per_second * double(frame_duration) / double(time_scale);
        if (s.smoothScroll < 0.5) {
            scroll_step = to_u64(p * 4096.0);
            frames_per_step = 1;
        } else if (p >= 1.0) {
            scroll_step = (to_u64(p * 4096.0) + 2048) & ~uint64_t(4095);
            frames_per_step = 1;
        } else {
            frames_per_step = std::max<uint64_t>(1, to_u64(std::floor(1.0 / p + 0.5)));
            scroll_step = 4096;
        }
        item_length = scroll_step == 0 ? 1 : (cycle_length * 4096 / scroll_step) * frames_per_step;
    }

    reader->frame_manager.flush_unused_frames(999999);
}
