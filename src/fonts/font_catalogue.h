// The font catalogue: fontconfig's fonts (plus the extra font directory) by
// family and style, with their faces opened on first use.
#pragma once

#include <ft2build.h>
#include FT_FREETYPE_H

class scrolling_text_client_context;
typedef struct _FcConfig FcConfig;

// Clears the catalogue (closing its faces) and lists the fonts again.
void build_font_catalogue();

// Closes every face the catalogue opened (and the fall-back faces of
// fonts/font_fallback.h) and empties it.
void clear_font_catalogue();

// The fontconfig setup the catalogue was listed from (with the extra font
// directory), owned by the catalogue until clear_font_catalogue; null before
// the first build or when fontconfig failed.
FcConfig* font_catalogue_config();

// The face of (family, style), opened on first use; "Regular", "Medium",
// "Roman", "Book" and "Normal" (in that order) stand in for a missing style. Null (with a warning) when unknown or
// when the file cannot be opened.
FT_Face find_font_face(const char* family, const char* style);

// default_face for the empty family, else find_font_face.
FT_Face font_face_for_settings(const char* family, const char* style);

// The glyph transform of a context: identity, stretched horizontally by the
// inverse pixel aspect when the context knows its screen aspect. Glyph
// rendering and kerning both use it.
FT_Matrix context_glyph_matrix(const scrolling_text_client_context* ctx);

// 26.6 kerning to whole pixels: an arithmetic shift, so -1/64 gives -1.
inline int kerning_pixels(FT_Pos x) { return int(x >> 6); }

// Horizontal kerning between two characters in whole pixels (arithmetic
// shift of 26.6, so -1/64 gives -1); 0 for faces without kerning.
int kerning_between(scrolling_text_client_context* ctx, int32_t left, int32_t right);
