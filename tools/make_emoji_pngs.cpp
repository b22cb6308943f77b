// make_emoji_pngs: writes the colour emoji images that t4mi_scrolltext reads,
// one "emoji_u%x.png" per single-code-point emoji, from a colour bitmap font
// (Debian's fonts-noto-color-emoji: CBDT strikes of 136 x 128 pixels).
//
//   make_emoji_pngs FONT OUTDIR [HEX ...]
//
// Without code points it takes every character of the font's character map
// in the emoji ranges (U+2000..U+3FFF and U+1F000..U+1FFFF) that has a
// picture; with them, just those. Images are 8-bit RGBA, not interlaced, as
// the program accepts them (16 to 256 pixels each way); glyphs outside that
// or without colour are skipped. FreeType hands colour bitmaps over as
// premultiplied BGRA; the PNGs carry straight alpha, so the colour is divided
// back out. Files are written under a temporary name and renamed into place.
//
// Self-contained (FreeType and libpng only) so that the setup script can build
// it with g++ before the project itself is built.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <ft2build.h>
#include FT_FREETYPE_H
#include <png.h>

namespace {

bool emoji_candidate(unsigned long c) { return (c >= 0x2000 && c <= 0x3FFF) || (c >= 0x1F000 && c <= 0x1FFFF); }

struct ft_library_deleter {
    void operator()(FT_Library l) const { FT_Done_FreeType(l); }
};
struct ft_face_deleter {
    void operator()(FT_Face f) const { FT_Done_Face(f); }
};
struct file_closer {
    void operator()(FILE* f) const { std::fclose(f); }
};

// A write error leaves nothing worth keeping: report and stop the tool.
[[noreturn]] void png_write_failed(png_structp, png_const_charp message)
{
    std::fprintf(stderr, "make_emoji_pngs: libpng: %s\n", message);
    std::exit(1);
}

struct png_writer {
    png_structp png = nullptr;
    png_infop info = nullptr;
    png_writer()
    {
        png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, png_write_failed, nullptr);
        if (png != nullptr)
            info = png_create_info_struct(png);
    }
    ~png_writer() { png_destroy_write_struct(&png, &info); }
    png_writer(const png_writer&) = delete;
    png_writer& operator=(const png_writer&) = delete;
};

// Writes `rgba` (width x height, 4 bytes a pixel, straight alpha) to `path`.
bool write_rgba_png(const std::string& path, const std::vector<uint8_t>& rgba, unsigned width, unsigned height)
{
    const std::string part = path + ".part";
    std::unique_ptr<FILE, file_closer> file(std::fopen(part.c_str(), "wb"));
    if (!file) {
        std::fprintf(stderr, "make_emoji_pngs: cannot write %s: %s\n", part.c_str(), std::strerror(errno));
        return false;
    }
    png_writer w;
    if (w.png == nullptr || w.info == nullptr)
        return false;
    png_init_io(w.png, file.get());
    png_set_IHDR(w.png, w.info, width, height, 8, PNG_COLOR_TYPE_RGB_ALPHA, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(w.png, w.info);
    for (unsigned y = 0; y < height; y++)
        png_write_row(w.png, rgba.data() + size_t(y) * width * 4);
    png_write_end(w.png, nullptr);
    file.reset();
    if (std::rename(part.c_str(), path.c_str()) != 0) {
        std::fprintf(stderr, "make_emoji_pngs: cannot rename %s: %s\n", part.c_str(), std::strerror(errno));
        return false;
    }
    return true;
}

// The slot's premultiplied BGRA bitmap as straight-alpha RGBA.
std::vector<uint8_t> straight_rgba(const FT_Bitmap& bm)
{
    std::vector<uint8_t> out(size_t(bm.width) * bm.rows * 4);
    for (unsigned y = 0; y < bm.rows; y++) {
        const uint8_t* in = bm.buffer + ptrdiff_t(y) * bm.pitch;
        uint8_t* o = out.data() + size_t(y) * bm.width * 4;
        for (unsigned x = 0; x < bm.width; x++, in += 4, o += 4) {
            const unsigned a = in[3];
            // Rounded division; clamped because a premultiplied sample may
            // exceed its alpha by a rounding step.
            auto unpremultiply = [a](unsigned c) -> uint8_t {
                if (a == 0)
                    return 0;
                const unsigned v = (c * 255 + a / 2) / a;
                return uint8_t(v > 255 ? 255 : v);
            };
            o[0] = unpremultiply(in[2]);
            o[1] = unpremultiply(in[1]);
            o[2] = unpremultiply(in[0]);
            o[3] = uint8_t(a);
        }
    }
    return out;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: make_emoji_pngs FONT OUTDIR [HEX ...]\n");
        return 2;
    }
    const std::string font_path = argv[1];
    const std::string out_dir = argv[2];

    FT_Library raw_library = nullptr;
    if (FT_Init_FreeType(&raw_library) != 0) {
        std::fprintf(stderr, "make_emoji_pngs: cannot initialise FreeType\n");
        return 1;
    }
    std::unique_ptr<FT_LibraryRec_, ft_library_deleter> library(raw_library);
    FT_Face raw_face = nullptr;
    if (FT_New_Face(library.get(), font_path.c_str(), 0, &raw_face) != 0) {
        std::fprintf(stderr, "make_emoji_pngs: cannot open %s\n", font_path.c_str());
        return 1;
    }
    std::unique_ptr<FT_FaceRec_, ft_face_deleter> face(raw_face);
    // Colour bitmap fonts come in fixed strikes; take the largest.
    if (face->num_fixed_sizes > 0) {
        int best = 0;
        for (int i = 1; i < face->num_fixed_sizes; i++)
            if (face->available_sizes[i].height > face->available_sizes[best].height)
                best = i;
        FT_Select_Size(face.get(), best);
    } else {
        FT_Set_Pixel_Sizes(face.get(), 0, 128);
    }

    std::vector<unsigned long> codes;
    if (argc > 3) {
        for (int i = 3; i < argc; i++)
            codes.push_back(std::strtoul(argv[i], nullptr, 16));
    } else {
        FT_UInt index = 0;
        for (FT_ULong c = FT_Get_First_Char(face.get(), &index); index != 0;
             c = FT_Get_Next_Char(face.get(), c, &index))
            if (emoji_candidate(c))
                codes.push_back(c);
    }

    unsigned written = 0, skipped = 0;
    for (const unsigned long c : codes) {
        const FT_UInt index = FT_Get_Char_Index(face.get(), c);
        if (!emoji_candidate(c) || index == 0 || FT_Load_Glyph(face.get(), index, FT_LOAD_COLOR) != 0) {
            skipped++;
            continue;
        }
        const FT_Bitmap& bm = face->glyph->bitmap;
        if (bm.pixel_mode != FT_PIXEL_MODE_BGRA || bm.pitch < 0 || bm.width < 16 || bm.width > 256 ||
            bm.rows < 16 || bm.rows > 256) {
            skipped++; // no picture (joiners, selectors) or not a size we can use
            continue;
        }
        char name[64];
        std::snprintf(name, sizeof name, "emoji_u%lx.png", c);
        if (!write_rgba_png(out_dir + "/" + name, straight_rgba(bm), bm.width, bm.rows))
            return 1;
        written++;
    }
    std::printf("make_emoji_pngs: %u images written to %s, %u skipped\n", written, out_dir.c_str(), skipped);
    return written > 0 ? 0 : 1;
}
