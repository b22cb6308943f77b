// A glyph placed on the strip by the layout.
#pragma once

#include <cstdint>

struct placed_glyph {
    int32_t code = 0;
    uint8_t r = 0, g = 0, b = 0, a = 0;     // text colour
    uint8_t sr = 0, sg = 0, sb = 0, sa = 0; // shadow colour
    uint32_t shadow_opacity = 0;
    int32_t pixel_size = 0;  // the line height the glyph was looked up at
    int32_t line_top = 0;    // top y of its line in the picture
};
