// The frame compositor. Per frame: bring the text up to date, look in the
// cache, allocate a shared frame, walk the glyph placements that fall into
// the picture at this frame's strip offset, queueing each glyph's shadow,
// then the glyph, and paint the background and the queued bitmaps
// (frame_painter.h).
#include "frames/compositor.h"

#include <cstdio>

#include "fonts/font_bmp.h"
#include "fonts/glyph_cache.h"
#include "fonts/shadow.h"
#include "frames/client_context.h"
#include "frames/frame_buffer.h"
#include "frames/frame_painter.h"
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

void draw_placed(scrolling_text_client_context* ctx, frame_painter& painter, const placed_glyph& pg, int32_t x0)
{
    const auto& f = painter.frame();
    const int64_t W = f.width;
    const int64_t H = f.height;
    const uint64_t size = uint64_t(pg.pixel_size);
    const int64_t hs = int64_t(ctx->h_scale);
    if (pg.code >= 0) {
        const font_bmp_cache_storage* sh = ctx->shadow_blur_radius == 0 ? get_font_bmp(ctx, size, pg.code, pg.face)
                                                                         : get_shadow_bmp(ctx, size, pg.code, pg.face);
        if (sh != nullptr && sh->plane_a != nullptr) {
            const uint32_t colour = rgba_to_yuva(pg.style.sr, pg.style.sg, pg.style.sb, pg.style.sa);
            if ((colour >> 24) != 0) {
                const int64_t sx = ((int64_t(sh->x_offset) * hs) >> 8) + x0 + ((int64_t(ctx->shadow_offset_x) * hs) >> 8);
                if (sx < W) {
                    const int64_t sy = int64_t(ctx->shadow_offset_y) + pg.line_top + pg.dy + sh->y_offset;
                    if (sy < H && ctx->h_scale >= 1)
                        painter.draw(int32_t(sx), int32_t(sy), sh, colour, ctx->h_scale);
                }
            }
        }
    }
    const font_bmp_cache_storage* g = get_font_bmp(ctx, size, pg.code, pg.face);
    if (g == nullptr || g->plane_a == nullptr)
        return;
    const uint32_t colour = rgba_to_yuva(pg.style.r, pg.style.g, pg.style.b, pg.style.a);
    if ((colour >> 24) == 0)
        return;
    const int64_t gx = ((int64_t(g->x_offset) * hs) >> 8) + x0;
    const int64_t gy = int64_t(pg.line_top) + pg.dy + g->y_offset;
    if (gx < W && gy < H && ctx->h_scale >= 1)
        painter.draw(int32_t(gx), int32_t(gy), g, colour, ctx->h_scale);
}

void draw_text(scrolling_text_client_context* ctx, frame_painter& painter, uint64_t n)
{
    const auto& f = painter.frame();
    const auto& placements = ctx->glyph_placements;
    const uint64_t H = uint64_t(f.height);
    const uint64_t strip = ((ctx->scroll_step * n) >> 12) / ctx->frames_per_step;
    const uint64_t offset = ctx->cycle_length ? strip % ctx->cycle_length : 0;

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
                draw_placed(ctx, painter, pg, x0);
        }
        if (scroll_settings.static_)
            return;
        base += ctx->cycle_length; // the next repetition of the strip
        it = placements.begin();
    }
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
    painter.paint(rgba_to_yuva(bg.r, bg.g, bg.b, bg.a));

    if (t4mi_video_frame* stored = reader->frame_manager.find_frame(n, variant)) {
        delete frame;
        std::fprintf(stderr, "WARNING: load_frame() for frame already stored\n");
        return stored;
    }
    reader->frame_manager.store_frame(n, variant, frame);
    return frame;
}
