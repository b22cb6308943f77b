#include "fonts/font_globals.h"

FT_Library ft_library = nullptr;
FT_Face default_face = nullptr;
FT_Face emoji_face = nullptr;
font_catalogue_map font_catalogue;
emoji_png_cache_map emoji_png_cache;
