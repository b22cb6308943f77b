// Colour parsers: hex for settings, names (or hex) for the inline markup.
#pragma once

#include <cstdint>

#include "items/scroll_settings.h"

// Skips one leading "#", reads the rest with strtoul base 16 and keeps the
// low 24 bits as R, G, B; A is 255. Bad digits read as 0 (black).
colour_rgba parse_hex_colour(const char* value);

// "#..." is read as hex and always succeeds; otherwise the text must be one
// of the ten names (exact case). Writes R, G, B into rgb[0..2] and returns 1,
// or returns 0 and leaves rgb unchanged.
int parse_named_colour(const char* text, uint8_t rgb[3]);
