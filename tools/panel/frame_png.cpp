#include "frame_png.h"

#include <csetjmp>
#include <memory>
#include <png.h>
#include <vector>

#include "frames/yuva_png.h"
#include "platform/t4mi_client.h"

namespace {

struct png_writer {
    png_structp png = nullptr;
    png_infop info = nullptr;
    ~png_writer() { png_destroy_write_struct(&png, &info); }
};

void append_bytes(png_structp png, png_bytep data, png_size_t length)
{
    auto* out = static_cast<std::string*>(png_get_io_ptr(png));
    out->append(reinterpret_cast<const char*>(data), length);
}

void no_flush(png_structp) {}

} // namespace

bool frame_to_png(const t4mi_client_frame& f, std::string* out)
{
    if (f.y == nullptr || f.u == nullptr || f.v == nullptr || f.width == 0 || f.height == 0)
        return false;
    std::vector<uint8_t> rgba(size_t(f.width) * f.height * 4);
    for (uint32_t row = 0; row < f.height; ++row) {
        const uint32_t crow = f.chroma_height == f.height ? row : row * f.chroma_height / f.height;
        uint8_t* dst = &rgba[size_t(row) * f.width * 4];
        for (uint32_t x = 0; x < f.width; ++x, dst += 4) {
            const uint32_t cx = f.chroma_width == f.width ? x : x * f.chroma_width / f.width;
            yuv_to_rgb(f.y[size_t(row) * f.y_stride + x], f.u[size_t(crow) * f.u_stride + cx],
                       f.v[size_t(crow) * f.v_stride + cx], &dst[0], &dst[1], &dst[2]);
            dst[3] = f.alpha != nullptr ? f.alpha[size_t(row) * f.alpha_stride + x] : 255;
        }
    }

    std::string bytes;
    png_writer w;
    w.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    if (w.png == nullptr)
        return false;
    w.info = png_create_info_struct(w.png);
    if (w.info == nullptr)
        return false;
    if (setjmp(png_jmpbuf(w.png)))
        return false;
    png_set_write_fn(w.png, &bytes, append_bytes, no_flush);
    // Speed over size: the page asks several times a second, over loopback.
    png_set_compression_level(w.png, 1);
    png_set_IHDR(w.png, w.info, f.width, f.height, 8, PNG_COLOR_TYPE_RGBA, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(w.png, w.info);
    for (uint32_t row = 0; row < f.height; ++row)
        png_write_row(w.png, &rgba[size_t(row) * f.width * 4]);
    png_write_end(w.png, nullptr);
    *out = std::move(bytes);
    return true;
}
