// Placeholder until the text drawing lands: frames carry the background only.
#include "frames/compositor.h"

#include <cstdio>
#include <cstring>

#include "frames/client_context.h"
#include "frames/frame_buffer.h"
#include "frames/reader.h"
#include "items/scroll_settings.h"

uint32_t rgba_to_yuva(uint8_t r, uint8_t g, uint8_t b, uint8_t a)
{
    const int y = (66 * r + 129 * g + 25 * b + 4096) >> 8;
    const int u = (-38 * r - 74 * g + 112 * b + 32768) >> 8;
    const int v = (112 * r - 94 * g - 18 * b + 32768) >> 8;
    return uint32_t(y & 0xFF) | uint32_t(u & 0xFF) << 8 | uint32_t(v & 0xFF) << 16 | uint32_t(a) << 24;
}

t4mi_video_frame* load_frame(my_AVIVideoRandomReader* reader, uint64_t n, uint32_t variant,
                             scrolling_text_client_context* ctx, uint32_t)
{
    if (t4mi_video_frame* cached = reader->frame_manager.find_frame(n, variant))
        return cached;
    my_AVIVideoRandomReader::common_codec_setup_yuv_params param;
    if (!my_AVIVideoRandomReader::common_codec_setup_yuv(reader->frame_width, reader->frame_height, param))
        return nullptr;
    auto* frame = new t4mi_video_frame(int64_t(n));
    if (ctx->frame_aspect[0] > 0 && ctx->frame_aspect[1] > 0) {
        frame->aspect[0] = ctx->frame_aspect[0];
        frame->aspect[1] = ctx->frame_aspect[1];
    }
    if (!reader->common_alloc_yuv_planar(frame, param) || !reader->common_map_yuv_planar(frame, param)) {
        delete frame;
        return nullptr;
    }
    const colour_rgba bg = scroll_settings.backgroundColor;
    const uint32_t c = rgba_to_yuva(bg.r, bg.g, bg.b, bg.a);
    std::memset(param.y, int(c & 0xFF), param.y_stride * uint64_t(param.height));
    std::memset(param.u, int((c >> 8) & 0xFF), param.chroma_stride * uint64_t(param.chroma_height));
    std::memset(param.v, int((c >> 16) & 0xFF), param.chroma_stride * uint64_t(param.chroma_height));
    std::memset(param.alpha, int(c >> 24), param.alpha_stride * uint64_t(param.height));
    if (!reader->frame_manager.store_frame(n, variant, frame)) {
        delete frame;
        std::fprintf(stderr, "WARNING: load_frame() for frame already stored\n");
        return reader->frame_manager.find_frame(n, variant);
    }
    return frame;
}
