// libpng's simplified API reports errors through the image record instead of
// longjmp, which keeps C++ objects on this side safe; the owner below frees
// what libpng holds on every path.
#include "frames/yuva_png.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <png.h>

#include "frames/frame_buffer.h"

namespace {

struct png_image_owner {
    void operator()(png_image* image) const { png_image_free(image); }
};
using png_image_ptr = std::unique_ptr<png_image, png_image_owner>;

uint8_t clamp_byte(int v) { return uint8_t(std::clamp(v, 0, 255)); }

void set_error(std::string* error, const std::string& text)
{
    if (error != nullptr)
        *error = text;
}

} // namespace

void yuv_to_rgb(uint8_t y, uint8_t u, uint8_t v, uint8_t* r, uint8_t* g, uint8_t* b)
{
    const int c = int(y) - 16;
    const int d = int(u) - 128;
    const int e = int(v) - 128;
    *r = clamp_byte((298 * c + 409 * e + 128) >> 8);
    *g = clamp_byte((298 * c - 100 * d - 208 * e + 128) >> 8);
    *b = clamp_byte((298 * c + 516 * d + 128) >> 8);
}

std::vector<uint8_t> yuva_to_rgba(const yuva_frame_planes& p)
{
    std::vector<uint8_t> out(size_t(p.width) * p.height * 4);
    uint8_t* o = out.data();
    for (uint32_t row = 0; row < p.height; ++row) {
        const uint8_t* y = p.y + size_t(row) * p.y_stride;
        const uint8_t* u = p.u + size_t(row) * p.chroma_stride;
        const uint8_t* v = p.v + size_t(row) * p.chroma_stride;
        const uint8_t* a = p.alpha ? p.alpha + size_t(row) * p.alpha_stride : nullptr;
        for (uint32_t x = 0; x < p.width; ++x, o += 4) {
            yuv_to_rgb(y[x], u[x], v[x], &o[0], &o[1], &o[2]);
            o[3] = a ? a[x] : 255;
        }
    }
    return out;
}

bool write_rgba_png(const std::string& path, const uint8_t* rgba, uint32_t width, uint32_t height,
                    std::string* error)
{
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = width;
    image.height = height;
    image.format = PNG_FORMAT_RGBA;
    png_image_ptr owner(&image);
    if (png_image_write_to_file(&image, path.c_str(), 0, rgba, png_int_32(width * 4), nullptr) == 0) {
        set_error(error, path + ": " + image.message);
        std::remove(path.c_str());
        return false;
    }
    return true;
}

bool read_rgba_png(const std::string& path, std::vector<uint8_t>* rgba, uint32_t* width, uint32_t* height,
                   std::string* error)
{
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    png_image_ptr owner(&image);
    if (png_image_begin_read_from_file(&image, path.c_str()) == 0) {
        set_error(error, path + ": " + image.message);
        return false;
    }
    image.format = PNG_FORMAT_RGBA;
    std::vector<uint8_t> pixels(PNG_IMAGE_SIZE(image));
    if (png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr) == 0) {
        set_error(error, path + ": " + image.message);
        return false;
    }
    *width = image.width;
    *height = image.height;
    *rgba = std::move(pixels);
    return true;
}

bool write_yuva_png(const std::string& path, const yuva_frame_planes& planes, std::string* error)
{
    const std::vector<uint8_t> rgba = yuva_to_rgba(planes);
    return write_rgba_png(path, rgba.data(), planes.width, planes.height, error);
}
