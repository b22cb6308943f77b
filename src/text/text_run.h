// One styled character of the item text, and the style it carries.
#pragma once

#include <cstdint>

struct font_bmp_cache_storage;

// Everything the markup can set for a character, carried whole from the
// parsed run to the placed glyph: a new inline style is a field here, and
// the layout passes it on without knowing it.
struct run_style {
    uint8_t r = 0, g = 0, b = 0;    // text colour
    uint8_t a = 0;                  // text opacity 0..255
    uint8_t sr = 0, sg = 0, sb = 0; // shadow colour
    uint8_t sa = 0;                 // shadow opacity 0..255
    uint32_t shadow_opacity = 0;    // the item's shadowOpacity; markup never changes it
};

struct text_run {
    int32_t code = 0;            // code point, > 0 in a list
    run_style style;
    font_bmp_cache_storage* glyph = nullptr; // null when parsed; the layout owns its use
};
