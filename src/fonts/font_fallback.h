// Per-character font fall-back of the shaped layout: for a character the
// chosen face lacks, the face fontconfig proposes for it (FcFontSort with the
// character in the pattern's character set, the item's family as a
// preference), among the fonts the catalogue was listed from.
//
// Faces are opened once per font file and owned here; the answer for each
// character is remembered (a null answer too). clear_font_catalogue calls
// clear_fallback_faces, so a new catalogue asks fontconfig afresh.
#pragma once

#include <cstdint>
#include <string>

#include <ft2build.h>
#include FT_FREETYPE_H

// A scalable, non-colour face holding `code`, or null when fontconfig knows
// none. `family` (may be empty) only orders the candidates.
FT_Face fallback_face_for(int32_t code, const std::string& family);

// Closes every fall-back face and forgets every answer.
void clear_fallback_faces();
