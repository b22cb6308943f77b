#include "support/local_render.h"

#include <gtest/gtest.h>

#include "frames/compositor.h"
#include "frames/frame_buffer.h"
#include "frames/reader.h"
#include "items/item_types.h"
#include "items/scroll_settings.h"
#include "platform/packet.h"

namespace t4test {

t4mi_client_settings picture_settings(int32_t width, int32_t height)
{
    t4mi_client_settings s;
    s.width = width;
    s.height = height;
    s.time_scale = 30000;
    s.frame_duration = 1001;
    return s;
}

// --- plane_copy -----------------------------------------------------------------

bool plane_copy::any_alpha() const
{
    for (uint8_t b : a)
        if (b != 0)
            return true;
    return false;
}

namespace {
void copy_plane(std::vector<uint8_t>& out, const uint8_t* plane, uint32_t stride, uint32_t width, uint32_t height)
{
    out.clear();
    if (plane == nullptr)
        return;
    out.reserve(size_t(width) * height);
    for (uint32_t row = 0; row < height; row++)
        out.insert(out.end(), plane + size_t(row) * stride, plane + size_t(row) * stride + width);
}
} // namespace

plane_copy copy_planes(const t4mi_client_frame& f)
{
    plane_copy c;
    c.width = f.width;
    c.height = f.height;
    copy_plane(c.y, f.y, f.y_stride, f.width, f.height);
    copy_plane(c.u, f.u, f.u_stride, f.width, f.height);
    copy_plane(c.v, f.v, f.v_stride, f.width, f.height);
    copy_plane(c.a, f.alpha, f.alpha_stride, f.width, f.height);
    return c;
}

plane_copy copy_planes(const t4mi_video_frame* frame)
{
    plane_copy c;
    yuva_frame_planes p;
    if (frame == nullptr || !map_frame_planes(frame, &p))
        return c;
    c.width = p.width;
    c.height = p.height;
    copy_plane(c.y, p.y, p.y_stride, p.width, p.height);
    copy_plane(c.u, p.u, p.chroma_stride, p.width, p.height);
    copy_plane(c.v, p.v, p.chroma_stride, p.width, p.height);
    copy_plane(c.a, p.alpha, p.alpha_stride, p.width, p.height);
    return c;
}

std::string first_difference(const plane_copy& got, const plane_copy& want)
{
    if (got.width != want.width || got.height != want.height)
        return "sizes differ: " + std::to_string(got.width) + "x" + std::to_string(got.height) + " against " +
               std::to_string(want.width) + "x" + std::to_string(want.height);
    const std::vector<uint8_t>* g[4] = {&got.y, &got.u, &got.v, &got.a};
    const std::vector<uint8_t>* w[4] = {&want.y, &want.u, &want.v, &want.a};
    for (int p = 0; p < 4; p++) {
        if (g[p]->size() != w[p]->size())
            return "plane " + std::to_string(p) + " missing";
        for (size_t i = 0; i < g[p]->size(); i++)
            if ((*g[p])[i] != (*w[p])[i])
                return "plane " + std::to_string(p) + " row " + std::to_string(i / got.width) + " column " +
                       std::to_string(i % got.width);
    }
    return {};
}

// --- local_renderer -------------------------------------------------------------

local_renderer::local_renderer(const std::string& content, const std::string& mime_type,
                               const t4mi_client_settings& settings)
    : item(content, mime_type)
{
    scroll_settings = scroll_settings_record{};  // as a fresh process holds it before its first load
    load_message();
    context = std::make_unique<scrolling_text_client_context>(1);
    context->apply_client_settings(settings);
}

local_renderer::~local_renderer()
{
    context.reset();
    scroll_settings = scroll_settings_record{};
}

void local_renderer::set_text(const std::string& text)
{
    scroll_settings.text = text;
    context->text_dirty = true;
}

void local_renderer::send_data(const std::string& json)
{
    comm_socket_v4_packet p;
    p.command = "data";
    p.set_data(json.data(), json.size());
    context->apply_data_packet(&p);
}

void local_renderer::forget_frames() { context->reader->frame_manager.flush_unused_frames(UINT64_MAX); }

plane_copy local_renderer::frame(uint64_t n)
{
    t4mi_video_frame* f = load_frame(context->reader, n, 0, context.get(), 0);
    EXPECT_NE(f, nullptr) << "frame " << n << " not rendered in this process";
    return copy_planes(f);
}

} // namespace t4test
