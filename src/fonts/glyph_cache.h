// The per-context glyph bitmap cache: one record per (line height, character).
//
// A miss renders the character with FreeType at a pixel size derived from the
// line height (the font scale, or the room left by the shadow), walking the
// fall-back chain (the family, the family without its last word, the emoji
// face above U+1FFF, the default face, and finally the space); in colour
// emoji mode a character with an emoji image becomes that image scaled to the
// line instead. Failures are cached as null. The cache is cleared whole
// (clear_bitmap_caches), never entry by entry.
#pragma once

#include <cstdint>

class scrolling_text_client_context;
struct font_bmp_cache_storage;

// The record of `code` at `line_height` (pixels), owned by ctx->glyph_cache,
// or null: a cached failure, or a negative code (not cached). With `face`
// n > 0, `code` is a glyph index of ctx->shaped_faces[n - 1] (the shaped
// layout); glyph 0, the missing glyph, gives null.
font_bmp_cache_storage* get_font_bmp(scrolling_text_client_context* ctx, uint64_t line_height, int32_t code,
                                     uint32_t face = 0);

// The pixel size glyphs of a `line_height` line are rendered at: the font
// scale of it, or the line less the shadow's room; 0 or less: none fit.
int64_t glyph_pixel_size(const scrolling_text_client_context* ctx, uint64_t line_height);

// True for the characters that may have an emoji image: U+2000..U+3FFF and
// U+1F000..U+1FFFF.
bool is_emoji_candidate(int32_t code);
