// Outline bitmaps: a glyph widened on every side by FreeType's stroker, drawn
// in the outline colour under the glyph (and over its shadow) to keep text
// legible over busy video.
//
// The outline of a glyph is made by the glyph rasteriser at the same moment
// as the glyph, from the same loaded (and transformed) FreeType outline, so
// that both have one origin; it is kept in the context's outline cache,
// keyed like the glyph cache, and cleared with it. A layout that rasterises
// glyphs of its own (by glyph index, say) makes its outlines the same way
// with stroke_glyph_outline.
#pragma once

#include <cstdint>

#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_GLYPH_H

#include "frames/glyph_cache_key.h"

class scrolling_text_client_context;
struct font_bmp_cache_storage;

// Owns one FT_Glyph (a copy taken from a glyph slot); empty when get() is null.
class owned_ft_glyph {
public:
    owned_ft_glyph() = default;
    ~owned_ft_glyph() { reset(); }
    owned_ft_glyph(const owned_ft_glyph&) = delete;
    owned_ft_glyph& operator=(const owned_ft_glyph&) = delete;
    // Copies the glyph loaded in `slot`; stays empty when FreeType refuses.
    void take_from(FT_GlyphSlot slot);
    FT_Glyph get() const { return glyph; }
    void reset();

private:
    FT_Glyph glyph = nullptr;
};

// The outline glyph the rasteriser loaded last, with the top row of its
// rendered bitmap above the baseline, until the glyph cache files it.
struct held_outline {
    owned_ft_glyph glyph;
    int32_t bitmap_top = 0;
};

// The outline record of `glyph` (an outline glyph as loaded, not rendered):
// the glyph's outside border at `radius_64` (1/64 pixel), with round joins,
// filled and rendered anti-aliased. `baseline_y` is the row of the glyph's
// baseline counted from the top of the line box, so the record's y_offset
// places it exactly around its glyph. Coverage only (plane_a), stride
// content + 8 like glyph records; its advance is 0 (it never moves the pen).
// Null when the radius is 0 or less, the glyph is not an outline (a bitmap
// or colour glyph) or FreeType fails. The caller owns it (font_bmp_free).
font_bmp_cache_storage* stroke_glyph_outline(FT_Glyph glyph, int32_t radius_64, int32_t baseline_y);

// The rasteriser's hand-over, in two steps. hold_outline_source copies the
// outline glyph loaded in `slot` (before it is rendered) into the context
// while it draws outlines, and notes the rendered bitmap's top after
// rendering. file_outline, called by the glyph cache with every glyph it has
// just loaded and cached under `key`, strokes the held outline into the
// outline cache under the same key, placed by the glyph's baseline; a glyph
// without one (a failure, an emoji image) gets a cached null. Any glyph
// rasterised through the cache, whatever the layout, so gets its outline.
void hold_outline_source(scrolling_text_client_context* ctx, FT_GlyphSlot slot);
void note_rendered_top(scrolling_text_client_context* ctx, FT_GlyphSlot slot);
void file_outline(scrolling_text_client_context* ctx, const glyph_cache_key& key, const font_bmp_cache_storage* glyph);

// The outline of `code` (of shaped face `face` when > 0, as in
// get_font_bmp) at `line_height` for the context's outline width,
// owned by ctx->outline_cache, or null: no outline width, a negative code, a
// missing glyph or an emoji image. Loads the glyph (and with it the outline)
// when it is not cached yet.
font_bmp_cache_storage* get_outline_bmp(scrolling_text_client_context* ctx, uint64_t line_height, int32_t code,
                                        uint32_t face = 0);

// The outline width as whole pixels, rounded up: the room the glyph leaves
// for it above and below within its line.
inline int32_t outline_room(int32_t radius_64) { return radius_64 <= 0 ? 0 : (radius_64 + 63) / 64; }
