// One bitmap of a glyph, a shadow or an emoji image.
//
// Glyphs and shadows carry only coverage (plane_a) and take their colour from
// the text run when drawn; emoji images also carry studio-range Y, U and V.
// Every row has 8 spare bytes past its content (stride = content + 8) so that
// the bilinear scaler may read one byte past a row with weight zero.
// Records and planes are plain heap blocks (malloc/calloc), freed with
// font_bmp_free.
#pragma once

#include <cstdint>

struct font_bmp_cache_storage {
    uint8_t* plane_a = nullptr;  // coverage 0..255, height rows of stride bytes; null: no pixels
    uint8_t* plane_y = nullptr;  // colour planes: emoji only, laid out like plane_a
    uint8_t* plane_u = nullptr;
    uint8_t* plane_v = nullptr;
    int32_t width = 0;           // pixels of content per row
    int32_t height = 0;          // rows
    int32_t stride = 0;          // bytes from row to row (content + 8)
    int32_t advance = 0;         // pen advance, whole pixels
    int32_t x_offset = 0;        // pen position to the left column (left bearing)
    int32_t y_offset = 0;        // top of the line box to the top row, downward
    int32_t tag = -1;

    // Bilinear resample of one plane (16.16, corners aligned). Reads only
    // width, height and stride of df and sf; writes df.height rows of df.width
    // bytes of dst. `this` is not used.
    void scalecopy(const font_bmp_cache_storage* df, uint8_t* dst, const font_bmp_cache_storage* sf,
                   const uint8_t* src) const;
};

// A new record with every field at its default (no planes, tag -1), from
// malloc; never null (aborts when memory runs out). Free with font_bmp_free.
font_bmp_cache_storage* font_bmp_alloc();

// A zero-filled plane of stride x height bytes plus 256 spare bytes, from
// calloc, as glyph, shadow and emoji image records use; never null.
uint8_t* font_bmp_zeroed_plane(int32_t stride, int32_t height);

// Frees the record and its four planes; null is ignored.
void font_bmp_free(font_bmp_cache_storage* bmp);
