// Colour emoji images: one RGBA PNG per character, read once per process.
#pragma once

#include <cstdint>

struct font_bmp_cache_storage;

// Frees every cached image record and empties the cache.
void free_emoji_png_cache();
