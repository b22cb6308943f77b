// The phases of the text layout, run in this order by
// scrolling_text_client_context::recompute_text_times (frames/layout.cpp):
//
//   1. measure_static_lines  static mode only: the width of each line of the
//                            first paragraph, the squeeze (h_scale) and the
//                            justified start of each line;
//   2. place_glyphs          every run becomes a placed_glyph on the strip,
//                            line by line and paragraph by paragraph;
//   3. fix_motion            the cycle length, the scroll step, the frames per
//                            step and the item length.
//
// Each phase writes its results into the context and reads only what the
// phases before it left there. The shaped layout (place_shaped_glyphs) takes
// the place of phases 1 and 2 and walks its lines with the same strip_pen.
// All positions are picture pixels of the reader's frame size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

class scrolling_text_client_context;
struct scroll_settings_record;
struct text_run;

// What every phase of one layout run works from, fixed before the first one.
struct layout_geometry {
    int64_t width = 0;        // W: the reader's frame width
    int64_t height = 0;       // H: the reader's frame height
    int64_t lines = 1;        // L: line_count, at least 1
    uint64_t line_height = 0; // H / L, also the pixel size of every glyph
    uint64_t gap = 0;         // round(W x min(space, 1)): a scrolling line's start, and the blank after a paragraph
    bool is_static = false;   // the text stands still: justified and squeezed, first paragraph only
};

// The geometry of a layout of the context's reader with `lines` lines.
layout_geometry layout_geometry_for(const scrolling_text_client_context& ctx, const scroll_settings_record& s,
                                    int32_t lines);

// Phase 1 (static mode): measures the lines of the first paragraph, sets
// ctx.h_scale so the widest fits the picture, and returns the start x of
// every line (at least `geo.lines` entries; left-justified lines start at 0).
std::vector<uint64_t> measure_static_lines(scrolling_text_client_context& ctx, const layout_geometry& geo,
                                           const scroll_settings_record& s);

// The squeeze and justification of phase 1 from the measured width of each
// line (pixels): sets ctx.h_scale and returns the line starts as
// measure_static_lines does.
std::vector<uint64_t> static_line_starts(scrolling_text_client_context& ctx, const layout_geometry& geo,
                                         const scroll_settings_record& s, const std::vector<int64_t>& widths);

// The pen of a placement walk: the strip x where the next glyph goes, the
// line it is on, and the widest x any line reached. Line feeds and paragraph
// ends move it; the placement moves it along a line.
class strip_pen {
public:
    // `line_starts`: the start x of each line (phase 1, or the gap for every
    // line when scrolling).
    strip_pen(const layout_geometry& geo, std::vector<uint64_t> line_starts);

    uint64_t x() const { return pen; }
    int32_t line_top() const { return top; }
    void advance(uint64_t dx) { pen += dx; }

    // A paragraph end. False in static mode: the walk stops here. Otherwise
    // the next paragraph starts one gap after the widest line of this one.
    bool end_paragraph();
    // A line feed: true when the pen moved to the start of the next line;
    // false when there is no further line, and the caller sets a space.
    bool next_line();
    // Where the text ends on the strip: the pen or the widest x, whichever is further.
    uint64_t end() const;

private:
    const layout_geometry& geo;
    std::vector<uint64_t> starts; // at least 2 entries
    uint64_t pen = 0;
    uint64_t widest = 0;
    size_t next_start = 1;        // the entry of `starts` the next line takes
    int64_t line = 0;
    int32_t top = 0;              // top y of the current line
};

// Phase 2: fills ctx.glyph_placements and ctx.placement_count from ctx.runs.
// Returns where the text ends on the strip (strip_pen::end).
uint64_t place_glyphs(scrolling_text_client_context& ctx, const layout_geometry& geo,
                      std::vector<uint64_t> line_starts);

// Scrolling right, the paragraphs lie on the strip in reverse order (the
// first one enters first, from the left). Reverses the order of the
// paragraphs of `runs` (split at code 31), each paragraph kept as it is;
// applied twice it restores the order.
void reverse_paragraphs(std::vector<text_run>& runs);
// Phases 1 and 2 of the shaped layout (-textShaping=1,
// frames/shaped_layout.cpp): shapes every line once, measures and squeezes
// static lines from the shaped widths, and places the glyphs in visual order
// with the same strip_pen. Sets ctx.shaped_faces. Returns the text's end.
uint64_t place_shaped_glyphs(scrolling_text_client_context& ctx, const layout_geometry& geo,
                             const scroll_settings_record& s);

// Phase 3: sets ctx.cycle_length from the text's end and the `space`
// setting, then the motion: ctx.scroll_step (1/4096 pixel), ctx.frames_per_step
// and ctx.item_length (frames of one cycle; 1 for static text).
void fix_motion(scrolling_text_client_context& ctx, const layout_geometry& geo, const scroll_settings_record& s,
                uint64_t text_end);

// The position rule, the contract with the compositor: the strip offset of
// frame n. A glyph at key x is drawn at picture x - offset, and at
// + cycle_length for each further repetition to the right. Scrolling left,
// the offset is floor(floor(scroll_step x n / 4096) / frames_per_step) mod
// cycle_length. Scrolling right it runs backwards from ctx.right_origin,
// which puts the text's end at W - gap on frame 0: every glyph's distance
// from the edge it entered by is the same as scrolling left.
uint64_t strip_offset(const scrolling_text_client_context& ctx, uint64_t n);
