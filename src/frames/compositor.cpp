// The frame compositor. Per frame: bring the text up to date, look in the
// cache, allocate a shared frame, walk the glyph placements that fall into
// the picture at this frame's strip offset, queueing each glyph's shadow,
// then the glyph (with an outline: all shadows, all outlines, then all
// glyphs), and paint the background and the queued bitmaps (frame_painter.h).
#include "frames/compositor.h"

#include <cstdio>

#include "fonts/font_bmp.h"
#include "fonts/glyph_cache.h"
#include "fonts/outline.h"
#include "fonts/shadow.h"
#include "frames/client_context.h"
#include "frames/frame_buffer.h"
#include "frames/frame_painter.h"
#include "frames/painted_slots.h"
#include "frames/layout.h"
#include "frames/reader.h"
#include "frames/yuva_pixel.h"
#include "items/scroll_settings.h"
#include "platform/clock.h"

namespace {
// A deadline counts as reached this early, so the next second's text is drawn in time.
constexpr int64_t DEADLINE_LOOKAHEAD_US = 999000;
// A pending feed reload is honoured only while the client is this early in the item.
constexpr uint64_t FEED_RELOAD_LAST_FRAME = 100;
// At most this many placement keys are drawn per frame.
constexpr int DRAW_BUDGET = 4097;

void refresh_text(scrolling_text_client_context* ctx, uint64_t n)
{
    const int64_t d1 = ctx->time_deadline;
    const int64_t d2 = ctx->date_deadline;
    if (d1 != 0 || d2 != 0) {
        // Unsigned on purpose, and deliberate: a time deadline of 0 beside a
        // date deadline counts as due, so a date-only text is parsed on every
        // frame. A date deadline of 0 means none, so a clock-only text is
        // parsed once a second or a minute, as its format asks.
        const uint64_t soon = uint64_t(gettimeofday_us() + DEADLINE_LOOKAHEAD_US);
        if (uint64_t(d1) <= soon || (d2 != 0 && uint64_t(d2) <= soon)) {
            ctx->time_deadline = 0;
            ctx->date_deadline = 0;
            ctx->text_dirty = true;
            if (ctx->feed_dirty && n <= FEED_RELOAD_LAST_FRAME)
                ctx->feed_dirty = false;
            ctx->parse_text();
            ctx->recompute_text_times();
            return;
        }
    }
    if (ctx->feed_dirty && n <= FEED_RELOAD_LAST_FRAME) {
        ctx->feed_dirty = false;
        ctx->text_dirty = true;
    } else if (!ctx->text_dirty && !ctx->parse_pending) {
        return;
    }
    ctx->parse_text();
    ctx->recompute_text_times();
}

// What one walk over the placements draws of each glyph.
enum draw_layers : unsigned {
    draw_shadow = 1,
    draw_outline = 2,
    draw_glyph = 4,
};

// Queues `bmp` of a glyph whose key lies at x0 on a line with top
// `line_top`, moved by (dx, dy) (dx before the horizontal scale), unless its
// colour is fully transparent or it starts right of or below the picture.
void draw_at(const scrolling_text_client_context* ctx, frame_painter& painter, const font_bmp_cache_storage* bmp,
             uint32_t colour, int32_t x0, int32_t line_top, int32_t dx, int32_t dy)
{
    if (bmp == nullptr || bmp->plane_a == nullptr || (colour >> 24) == 0)
        return;
    const auto& f = painter.frame();
    const int64_t hs = int64_t(ctx->h_scale);
    const int64_t x = ((int64_t(bmp->x_offset) * hs) >> 8) + x0 + ((int64_t(dx) * hs) >> 8);
    if (x >= f.width)
        return;
    const int64_t y = int64_t(dy) + line_top + bmp->y_offset;
    if (y < f.height && ctx->h_scale >= 1)
        painter.draw(int32_t(x), int32_t(y), bmp, colour, ctx->h_scale);
}

void draw_placed(scrolling_text_client_context* ctx, frame_painter& painter, const placed_glyph& pg, int32_t x0,
                 unsigned layers)
{
    const uint64_t size = uint64_t(pg.pixel_size);
    if ((layers & draw_shadow) && pg.code >= 0) {
        const font_bmp_cache_storage* sh = ctx->shadow_blur_radius == 0 ? get_font_bmp(ctx, size, pg.code, pg.face)
                                                                         : get_shadow_bmp(ctx, size, pg.code, pg.face);
        if (sh != nullptr && sh->plane_a != nullptr)
            draw_at(ctx, painter, sh, rgba_to_yuva(pg.style.sr, pg.style.sg, pg.style.sb, pg.style.sa), x0,
                    pg.line_top + pg.dy, ctx->shadow_offset_x, ctx->shadow_offset_y);
    }
    if (layers & draw_outline) {
        const uint8_t* c = ctx->outline_rgba;
        draw_at(ctx, painter, get_outline_bmp(ctx, size, pg.code, pg.face), rgba_to_yuva(c[0], c[1], c[2], c[3]), x0,
                pg.line_top + pg.dy, 0, 0);
    }
    if (layers & draw_glyph) {
        const font_bmp_cache_storage* g = get_font_bmp(ctx, size, pg.code, pg.face);
        if (g != nullptr && g->plane_a != nullptr)
            draw_at(ctx, painter, g, rgba_to_yuva(pg.style.r, pg.style.g, pg.style.b, pg.style.a), x0, pg.line_top + pg.dy,
                    0, 0);
    }
}

// One walk over the placements that reach into the picture at `offset`,
// queueing `layers` of each glyph in key order.
void draw_walk(scrolling_text_client_context* ctx, frame_painter& painter, uint64_t offset, unsigned layers)
{
    const auto& f = painter.frame();
    const auto& placements = ctx->glyph_placements;
    const uint64_t H = uint64_t(f.height);

    // The first key not below the offset, then back over the keys whose glyph
    // may still reach into the picture (no glyph is wider than the picture height).
    auto it = placements.lower_bound(offset);
    if (it == placements.end())
        --it;
    while (it != placements.begin() && it->first + H > offset)
        --it;

    uint64_t base = 0;
    int budget = DRAW_BUDGET;
    for (;;) {
        for (; it != placements.end(); ++it) {
            if (--budget == 0) {
                std::fprintf(stderr, "Out of patience\n");
                return;
            }
            const int32_t x0 = int32_t(base - offset + it->first);
            if (x0 > f.width + 63)
                return;
            for (const placed_glyph& pg : it->second)
                draw_placed(ctx, painter, pg, x0, layers);
        }
        if (scroll_settings.static_)
            return;
        base += ctx->cycle_length; // the next repetition of the strip
        it = placements.begin();
    }
}

void draw_text(scrolling_text_client_context* ctx, frame_painter& painter, uint64_t n)
{
    const uint64_t offset = strip_offset(*ctx, n);
    if (ctx->outline_width_64 <= 0) {
        // Each glyph's shadow, then the glyph.
        draw_walk(ctx, painter, offset, draw_shadow | draw_glyph);
        return;
    }
    // In layers, so that no outline covers a neighbouring glyph and no
    // shadow an outline.
    draw_walk(ctx, painter, offset, draw_shadow);
    draw_walk(ctx, painter, offset, draw_outline);
    draw_walk(ctx, painter, offset, draw_glyph);
}
} // namespace

t4mi_video_frame* load_frame(my_AVIVideoRandomReader* reader, uint64_t n, uint32_t variant,
                             scrolling_text_client_context* ctx, uint32_t)
{
    refresh_text(ctx, n);
    if (t4mi_video_frame* cached = reader->frame_manager.find_frame(n, variant))
        return cached;

    my_AVIVideoRandomReader::common_codec_setup_yuv_params param;
    if (!my_AVIVideoRandomReader::common_codec_setup_yuv(reader->frame_width, reader->frame_height, param))
        return nullptr;
    auto* frame = new t4mi_video_frame(int64_t(n));
    if (ctx->frame_aspect[0] > 0 && ctx->frame_aspect[1] > 0) {
        frame->aspect[0] = ctx->frame_aspect[0];
        frame->aspect[1] = ctx->frame_aspect[1];
    }
    if (!reader->common_alloc_yuv_planar(frame, param) || !reader->common_map_yuv_planar(frame, param)) {
        delete frame;
        return nullptr;
    }
    frame_painter painter(param);
    if (!ctx->glyph_placements.empty())
        draw_text(ctx, painter, n);
    const colour_rgba bg = scroll_settings.backgroundColor;
    const uint32_t background = rgba_to_yuva(bg.r, bg.g, bg.b, bg.a);
    // A recycled slot still holds the frame painted there before: only
    // where that one drew needs the background again.
    std::vector<frame_painter::area> dirty;
    if (take_painted_slot(frame->tnb_alloc.previous_serial, param, background, &dirty))
        painter.paint_over(background, dirty);
    else
        painter.paint(background);
    remember_painted_slot(frame->tnb_alloc.serial, param, background, painter.touched());

    if (t4mi_video_frame* stored = reader->frame_manager.find_frame(n, variant)) {
        delete frame;
        std::fprintf(stderr, "WARNING: load_frame() for frame already stored\n");
        return stored;
    }
    reader->frame_manager.store_frame(n, variant, frame);
    return frame;
}
