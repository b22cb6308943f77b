// One styled character of the item text.
#pragma once

#include <cstdint>

struct font_bmp_cache_storage;

struct text_run {
    int32_t code = 0;            // code point, > 0 in a list
    uint8_t r = 0, g = 0, b = 0; // text colour
    uint8_t a = 0;               // text opacity 0..255
    uint8_t sr = 0, sg = 0, sb = 0; // shadow colour
    uint8_t sa = 0;              // shadow opacity 0..255
    uint32_t shadow_opacity = 0; // the item's shadowOpacity; markup never changes it
    font_bmp_cache_storage* glyph = nullptr; // null when parsed; the layout owns its use
};
