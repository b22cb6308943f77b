// Fixtures of the font tests.
//
// - font_environment (installed once per test program): a redirected fixed
//   root for the catalogue build, a private fontconfig listing only Debian's
//   Liberation, WenQuanYi Micro Hei and Symbola directories, the FreeType
//   library and the font catalogue built from them.
// - glyph_test: per test a fresh fixed root (default face Liberation Sans,
//   emoji face Symbola, an empty emoji image directory), default scroll
//   settings, an empty emoji image cache and a client context with its frame
//   reader (640 x 480, square pixels).
// - render_reference: a glyph rendered straight with FreeType from a font
//   file, to compare records with.
// - test_png / write_png: PNG files of any colour type, bit depth and
//   interlace, written with libpng.
// - run_font_case_in_child: runs a function in a forked child and reports how it ended
//   (libpng ends the process on a corrupt file).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <ft2build.h>
#include FT_FREETYPE_H

#include "frames/client_context.h"
#include "support/test_env.h"

struct font_bmp_cache_storage;

namespace t4test {

inline constexpr const char* LIBERATION_DIR = "/usr/share/fonts/truetype/liberation";
inline constexpr const char* WQY_DIR = "/usr/share/fonts/truetype/wqy";
inline constexpr const char* SYMBOLA_DIR = "/usr/share/fonts/truetype/ancient-scripts";

class glyph_test : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    // The redirected emoji image directory.
    std::string emoji_dir() const;
    // A face of its own for a test (closed at the end of the test).
    FT_Face open_face(const char* file);

    fixed_root root;
    std::unique_ptr<scrolling_text_client_context> ctx;

private:
    std::vector<FT_Face> extra_faces;
};

struct reference_glyph {
    FT_UInt index = 0;
    int width = 0, rows = 0, pitch = 0, left = 0, top = 0;
    long advance = 0;          // 26.6
    unsigned y_ppem = 0;
    std::vector<uint8_t> pixels; // rows x pitch
};

// `code` rendered from face 0 of `file` at `pixel_size` with `matrix`
// (identity when null), in 8-bit grey.
reference_glyph render_reference(const char* file, FT_ULong code, unsigned pixel_size,
                                 const FT_Matrix* matrix = nullptr);

// Checks a glyph record against a reference rendering: size, stride =
// pitch + 8, bearing, advance, the pixels, zero spare bytes and no colour.
void expect_record_matches(const font_bmp_cache_storage* bmp, const reference_glyph& ref);

// Standard error without the catalogue's one-time "Loading and initing font"
// lines, which depend on which test opened a face first.
std::string without_loading_lines(const std::string& err);

struct test_png {
    uint32_t width = 0;
    uint32_t height = 0;
    int bit_depth = 8;
    int color_type = 6;
    int interlace = 0;
    std::vector<uint8_t> data;        // height rows of packed samples, as in the file
    std::vector<uint8_t> palette;     // RGB triples for palette images
    size_t row_bytes() const;
};

// An 8-bit RGBA image from `pixel(x, y)` -> {r, g, b, a}.
test_png rgba8_image(uint32_t width, uint32_t height,
                      const std::function<std::vector<uint8_t>(uint32_t, uint32_t)>& pixel);
test_png solid_rgba8(uint32_t width, uint32_t height, uint8_t r, uint8_t g, uint8_t b, uint8_t a);
// Any colour type and depth, samples from a simple pattern (palette images
// get a palette of 2^depth grey entries).
test_png pattern_image(uint32_t width, uint32_t height, int bit_depth, int color_type, int interlace = 0);

void write_png(const std::string& path, const test_png& image);

struct child_outcome {
    bool exited = false;     // returned normally from `fn` (then exit status 0)
    int signal = 0;          // the signal that ended the child, or 0
    std::string out;         // the child's standard output
    std::string err;         // the child's standard error
};
child_outcome run_font_case_in_child(const std::function<void()>& fn, int timeout_ms = 20000);

} // namespace t4test
