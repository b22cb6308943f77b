// Process-wide font state: the FreeType library, the two built-in faces, the
// font catalogue and the emoji image cache. They live from start-up to exit;
// start-up opens them in this order and the shut-down closes them in reverse.
#pragma once

#include <map>
#include <string>

#include <ft2build.h>
#include FT_FREETYPE_H

extern FT_Library ft_library;
extern FT_Face default_face;   // the default text face, last resort of every lookup
extern FT_Face emoji_face;     // the emoji outline face, fallback above U+1FFF

// One catalogued font file; the face is opened on its first lookup and owned
// here (closed by clear_font_catalogue).
struct font_entry {
    std::string path;
    FT_Face face = nullptr;
};

// family -> style -> entry; exact byte-wise keys, so lookups are case-sensitive.
using font_catalogue_map = std::map<std::string, std::map<std::string, font_entry>>;
extern font_catalogue_map font_catalogue;

// The emoji image cache: image file name ("emoji_u1f600.png") -> record,
// owned here until free_emoji_png_cache at exit. A null value records that the
// image could not be read; it is not tried again.
struct font_bmp_cache_storage;
using emoji_png_cache_map = std::map<std::string, font_bmp_cache_storage*>;
extern emoji_png_cache_map emoji_png_cache;
