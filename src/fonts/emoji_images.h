// Colour emoji images: one RGBA PNG per character ("emoji_u%x.png" in the
// emoji directory), converted to a four-plane record (coverage and
// studio-range BT.601 Y, Cb, Cr) and kept in a process-wide cache
// (emoji_png_cache in font_globals.h) for the life of the process.
#pragma once

#include <cstdint>

struct font_bmp_cache_storage;

// The image file name of `uchar`, e.g. "emoji_u1f600.png" for U+1F600, in a
// static 128-byte buffer that the next call overwrites; null below U+2000.
const char* emoji_get_pngname_by_char(int32_t uchar);

// The image record of `uchar`, owned by the cache; null below U+2000 or when
// the image cannot be read (cached too, so each file is tried once).
font_bmp_cache_storage* get_emoji_bmp(int32_t uchar);

// Reads the PNG at `path` into a new record (caller owns; font_bmp_free), or
// null with a message. Only 8- or 16-bit RGBA, 16 to 256 pixels each way,
// not interlaced, is accepted; 16-bit samples are scaled to 8 bits. The
// record has all four planes, stride width + 8 with zero spare bytes,
// advance = width and both offsets 0. Uncached.
//
// libpng errors are reported ("PNG ERROR: ...") but not caught: no long-jump
// target is set, so libpng ends the process on a file it cannot decode.
// With --harden (t4mi_harden) they are caught: the same message, then null.
font_bmp_cache_storage* load_png_as_font_bmp(const char* path);

// Frees every cached image record and empties the cache.
void free_emoji_png_cache();
