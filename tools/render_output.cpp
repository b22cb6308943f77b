#include "render_output.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "frames/frame_buffer.h"
#include "frames/yuva_png.h"
#include "platform/t4mi_client.h"

namespace {

yuva_frame_planes planes_of(const t4mi_client_frame& f)
{
    yuva_frame_planes p;
    p.y = f.y;
    p.u = f.u;
    p.v = f.v;
    p.alpha = f.alpha;
    p.width = f.width;
    p.height = f.height;
    p.y_stride = f.y_stride;
    p.chroma_stride = f.u_stride;
    p.alpha_stride = f.alpha_stride;
    return p;
}

bool is_444(const t4mi_client_frame& f)
{
    return f.chroma_width == f.width && f.chroma_height == f.height && f.u_stride == f.v_stride;
}

} // namespace

// --- Y4M ------------------------------------------------------------------------

y4m_writer::~y4m_writer()
{
    if (own && out != nullptr)
        std::fclose(out);
}

bool y4m_writer::open(const std::string& path, uint32_t w, uint32_t h, int64_t rate_num, int64_t rate_den,
                      uint32_t aspect_num, uint32_t aspect_den, std::string* error)
{
    own = path != "-";
    out = own ? std::fopen(path.c_str(), "wb") : stdout;
    if (out == nullptr) {
        *error = "cannot write " + path + ": " + std::strerror(errno);
        return false;
    }
    width = w;
    height = h;
    row.resize(w);
    const int n = std::fprintf(out, "YUV4MPEG2 W%u H%u F%lld:%lld Ip A%u:%u C444alpha XCOLORRANGE=LIMITED\n", w, h,
                               static_cast<long long>(rate_num), static_cast<long long>(rate_den), aspect_num,
                               aspect_den);
    if (n < 0) {
        *error = "cannot write the Y4M header";
        return false;
    }
    return true;
}

bool y4m_writer::write_frame(const t4mi_client_frame& f, std::string* error)
{
    if (f.width != width || f.height != height || !is_444(f)) {
        *error = "frame " + std::to_string(f.frame_number) + " is " + std::to_string(f.width) + "x" +
                 std::to_string(f.height) + ", not the stream's 4:4:4 " + std::to_string(width) + "x" +
                 std::to_string(height);
        return false;
    }
    bool ok = tagged ? std::fprintf(out, "FRAME XFRAME=%llu\n", static_cast<unsigned long long>(f.frame_number)) > 0
                     : std::fputs("FRAME\n", out) >= 0;
    const uint8_t* planes[4] = {f.y, f.u, f.v, f.alpha};
    const uint32_t strides[4] = {f.y_stride, f.u_stride, f.v_stride, f.alpha_stride};
    for (int i = 0; i < 4 && ok; i++) {
        for (uint32_t r = 0; r < height && ok; r++) {
            if (planes[i] == nullptr) {  // no alpha plane: opaque
                std::fill(row.begin(), row.end(), uint8_t(255));
                ok = std::fwrite(row.data(), 1, width, out) == width;
            } else {
                ok = std::fwrite(planes[i] + uint64_t(r) * strides[i], 1, width, out) == width;
            }
        }
    }
    if (!ok) {
        last_errno = errno;
        *error = std::string("cannot write a frame: ") + std::strerror(errno);
    }
    return ok;
}

bool y4m_writer::flush(std::string* error)
{
    if (out == nullptr || std::fflush(out) == 0)
        return true;
    last_errno = errno;
    *error = std::string("cannot write a frame: ") + std::strerror(errno);
    return false;
}

bool y4m_writer::close(std::string* error)
{
    if (out == nullptr)
        return true;
    const bool ok = std::fflush(out) == 0 && (!own || std::fclose(out) == 0);
    out = nullptr;
    if (!ok)
        *error = std::string("cannot finish the Y4M file: ") + std::strerror(errno);
    return ok;
}

// --- PNG ------------------------------------------------------------------------

bool write_frame_png(const std::string& path, const t4mi_client_frame& f, std::string* error)
{
    if (!is_444(f)) {
        *error = "only 4:4:4 frames are written as PNG";
        return false;
    }
    return write_yuva_png(path, planes_of(f), error);
}

// --- contact sheet --------------------------------------------------------------

contact_sheet::contact_sheet(uint32_t width, uint32_t height, uint32_t count) : frame_w(width), frame_h(height)
{
    // Wide strips (tickers) stay as wide as a screen, one per row; pictures
    // shrink to at most 480 pixels wide, as many to a row as fit 1920.
    const bool strip = width >= 8 * height;
    const uint32_t max_w = strip ? 1920 : 480;
    thumb_w = std::min(width, max_w);
    thumb_h = std::max<uint32_t>(1, uint32_t(uint64_t(height) * thumb_w / width));
    columns = strip ? 1 : std::max<uint32_t>(1, std::min<uint32_t>(count, 1920 / (thumb_w + gap)));
    rows = (count + columns - 1) / columns;
    rgba.assign(size_t(sheet_width()) * sheet_height() * 4, 0);
    for (uint32_t y = 0; y < sheet_height(); y++)
        for (uint32_t x = 0; x < sheet_width(); x++) {
            uint8_t* p = &rgba[(size_t(y) * sheet_width() + x) * 4];
            p[0] = p[1] = p[2] = 48;  // the background between thumbnails
            p[3] = 255;
        }
}

void contact_sheet::add(uint32_t index, const t4mi_client_frame& f)
{
    if (index >= columns * rows || f.width != frame_w || f.height != frame_h || !is_444(f))
        return;
    const std::vector<uint8_t> src = yuva_to_rgba(planes_of(f));
    const uint32_t x0 = gap + (index % columns) * (thumb_w + gap);
    const uint32_t y0 = gap + (index / columns) * (thumb_h + gap);
    for (uint32_t ty = 0; ty < thumb_h; ty++) {
        const uint32_t sy0 = uint32_t(uint64_t(ty) * frame_h / thumb_h);
        const uint32_t sy1 = std::max(sy0 + 1, uint32_t(uint64_t(ty + 1) * frame_h / thumb_h));
        for (uint32_t tx = 0; tx < thumb_w; tx++) {
            const uint32_t sx0 = uint32_t(uint64_t(tx) * frame_w / thumb_w);
            const uint32_t sx1 = std::max(sx0 + 1, uint32_t(uint64_t(tx + 1) * frame_w / thumb_w));
            // Area average with premultiplied alpha, then over the checkerboard.
            uint64_t r = 0, g = 0, b = 0, a = 0, n = 0;
            for (uint32_t sy = sy0; sy < sy1; sy++)
                for (uint32_t sx = sx0; sx < sx1; sx++) {
                    const uint8_t* p = &src[(size_t(sy) * frame_w + sx) * 4];
                    r += uint64_t(p[0]) * p[3];
                    g += uint64_t(p[1]) * p[3];
                    b += uint64_t(p[2]) * p[3];
                    a += p[3];
                    ++n;
                }
            const uint32_t checker = ((tx / 8 + ty / 8) % 2) ? 204 : 153;
            const uint64_t alpha = a / n;  // 0..255
            uint8_t* d = &rgba[(size_t(y0 + ty) * sheet_width() + x0 + tx) * 4];
            d[0] = uint8_t((r / n + checker * (255 - alpha)) / 255);
            d[1] = uint8_t((g / n + checker * (255 - alpha)) / 255);
            d[2] = uint8_t((b / n + checker * (255 - alpha)) / 255);
            d[3] = 255;
        }
    }
}

bool contact_sheet::write(const std::string& path, std::string* error) const
{
    return write_rgba_png(path, rgba.data(), sheet_width(), sheet_height(), error);
}
