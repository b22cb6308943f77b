// A glyph placed on the strip by the layout.
#pragma once

#include <cstdint>

#include "text/text_run.h"

struct placed_glyph {
    int32_t code = 0;        // face 0: a character; else a glyph index of that face
    run_style style;         // the run's style, unchanged
    int32_t pixel_size = 0;  // the line height the glyph was looked up at
    int32_t line_top = 0;    // top y of its line in the picture
    uint32_t face = 0;       // 0: glyph-by-glyph; n: entry n - 1 of the context's shaped_faces
    int32_t dy = 0;          // shaped only: the shaper's vertical offset, pixels down
};
