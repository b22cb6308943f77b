// The shaper of the shaped layout: one line of text, in logical order,
// becomes glyphs in visual order.
//
// FriBidi resolves the paragraph direction (the line is its own paragraph)
// and the embedding level of every character, rule L1 included. The line is
// then cut into runs of one level, one script (characters of no script of
// their own take their neighbours') and one face; HarfBuzz shapes each run
// with the whole line as context, and the runs are put in visual order by
// rule L2. A character the chosen face lacks takes a face fontconfig proposes
// (fonts/font_fallback.h); characters with a colour emoji image are not
// shaped but drawn as that image. Styles play no part, so a style change
// inside a word never breaks its joining.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <ft2build.h>
#include FT_FREETYPE_H

struct hb_font_t;
struct hb_buffer_t;

// One glyph of a shaped line.
struct shaped_glyph {
    uint32_t face = 0;      // 0: `code` is a character drawn by itself (an emoji image); n: faces()[n - 1]
    int32_t code = 0;       // glyph index of the face, or the character
    int32_t x_advance = 0;  // 26.6 pixels
    int32_t x_offset = 0;   // 26.6 pixels, to the right
    int32_t y_offset = 0;   // 26.6 pixels, upward (as HarfBuzz gives it)
    uint32_t source = 0;    // the character (index in the line) whose style the glyph takes: its cluster's first
};

struct shaper_setup {
    FT_Face primary = nullptr;   // the item's face; never null
    std::string family;          // the item's family, a preference for the fall-back
    int64_t pixel_size = 0;      // glyph pixel size (> 0)
    double x_stretch = 1.0;      // horizontal stretch of the glyphs (the pixel aspect)
    uint8_t direction = 0;       // TEXT_DIRECTION_* of items/scroll_settings.h
    // The advance in whole pixels of a character drawn as an image, or -1
    // when the character is shaped as text.
    std::function<int32_t(int32_t)> image_advance;
};

// Shapes lines for one layout. Owns the HarfBuzz fonts of the faces it met;
// the faces themselves belong to the catalogue and the fall-back registry.
class line_shaper {
public:
    explicit line_shaper(shaper_setup setup);
    ~line_shaper();
    line_shaper(const line_shaper&) = delete;
    line_shaper& operator=(const line_shaper&) = delete;

    // The glyphs of `chars` (code points, logical order) in visual order.
    std::vector<shaped_glyph> shape(const std::vector<uint32_t>& chars);
    // The faces glyphs refer to (shaped_glyph::face n is entry n - 1).
    const std::vector<FT_Face>& faces() const { return face_list; }

private:
    struct run {
        size_t start = 0, length = 0;
        int level = 0;
        uint32_t face = 0;  // 0: images
        uint32_t script = 0;
    };
    uint32_t face_slot(FT_Face face);
    uint32_t choose_face(uint32_t c, uint32_t raw_script, uint32_t previous);
    void shape_run(const std::vector<uint32_t>& chars, const run& r, std::vector<shaped_glyph>& out);

    shaper_setup setup;
    std::vector<FT_Face> face_list;
    std::vector<hb_font_t*> fonts;  // parallel to face_list
    std::map<FT_Face, uint32_t> slots;
    uint32_t last_fallback = 0;     // the fall-back face last taken, tried first for the next character
    hb_buffer_t* buffer = nullptr;
};
