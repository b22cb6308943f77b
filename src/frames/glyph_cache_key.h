// The key of the per-context glyph and shadow caches.
#pragma once

#include <cstdint>
#include <map>

struct font_bmp_cache_storage;

// (line height in pixels, code point, face), ordered by height, character,
// face. Face 0 keys a character of the glyph-by-glyph layout; face n > 0 keys
// glyph index `code` of the shaped layout's face n (see placed_glyph).
// The record a key maps to is owned by the cache; a null value is a cached
// failure. Entries are never evicted one by one: the caches are cleared whole.
struct glyph_cache_key {
    uint64_t line_height;
    int32_t code;
    uint32_t face = 0;
    bool operator<(const glyph_cache_key& o) const
    {
        if (line_height != o.line_height)
            return line_height < o.line_height;
        return code != o.code ? code < o.code : face < o.face;
    }
};
using glyph_bitmap_cache = std::map<glyph_cache_key, font_bmp_cache_storage*>;
