#include "frames/painted_slots.h"

#include <map>
#include <utility>

namespace {

struct painted {
    int64_t width, height;
    uint64_t y_stride, chroma_stride, alpha_stride;
    int64_t chroma_width, chroma_height, alpha_height;
    bool alpha;
    uint32_t background;
    std::vector<frame_painter::area> touched;
};

// Frames whose slots were never recycled (punched out, or still held when
// the process ends) would stay here: the oldest go past this many.
constexpr size_t KEPT = 1024;

std::map<uint64_t, painted>& slots()
{
    static std::map<uint64_t, painted> m;
    return m;
}

painted describe(const frame_painter::frame_params& f, uint32_t background)
{
    return {f.width,         f.height,         f.y_stride,  f.chroma_stride, f.alpha_stride, f.chroma_width,
            f.chroma_height, f.alpha_height, f.alpha != nullptr, background, {}};
}

bool same_picture(const painted& a, const painted& b)
{
    return a.width == b.width && a.height == b.height && a.y_stride == b.y_stride &&
           a.chroma_stride == b.chroma_stride && a.alpha_stride == b.alpha_stride &&
           a.chroma_width == b.chroma_width && a.chroma_height == b.chroma_height &&
           a.alpha_height == b.alpha_height && a.alpha == b.alpha && a.background == b.background;
}

} // namespace

void remember_painted_slot(uint64_t serial, const frame_painter::frame_params& frame, uint32_t background,
                           std::vector<frame_painter::area> touched)
{
    if (serial == 0)
        return;
    painted p = describe(frame, background);
    p.touched = std::move(touched);
    auto& m = slots();
    m[serial] = std::move(p);
    while (m.size() > KEPT)
        m.erase(m.begin());
}

bool take_painted_slot(uint64_t serial, const frame_painter::frame_params& frame, uint32_t background,
                       std::vector<frame_painter::area>* dirty)
{
    auto& m = slots();
    const auto it = m.find(serial);
    if (serial == 0 || it == m.end())
        return false;
    const bool same = same_picture(it->second, describe(frame, background));
    if (same)
        *dirty = std::move(it->second.touched);
    m.erase(it);
    return same;
}
