// The key of the per-context glyph and shadow caches.
#pragma once

#include <cstdint>
#include <map>

struct font_bmp_cache_storage;

// (line height in pixels, code point), ordered by height, then character.
// The record a key maps to is owned by the cache; a null value is a cached
// failure. Entries are never evicted one by one: the caches are cleared whole.
struct glyph_cache_key {
    uint64_t line_height;
    int32_t code;
    bool operator<(const glyph_cache_key& o) const
    {
        return line_height != o.line_height ? line_height < o.line_height : code < o.code;
    }
};
using glyph_bitmap_cache = std::map<glyph_cache_key, font_bmp_cache_storage*>;
