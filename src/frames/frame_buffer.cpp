// Frame buffers: geometry, allocation, mapping and the frame descriptor.
#include "frames/frame_buffer.h"

#include <cstdio>
#include <cstring>

#include "platform/frame_retention.h"
#include "platform/t4mi_assert.h"
#include "platform/t4mi_globals.h"
#include "platform/tnb.h"

namespace {

// Rounds `n` up to a multiple of the power of two `a`.
uint64_t align_up(uint64_t n, uint64_t a) { return (a + n - 1) & ~(a - 1); }

uint64_t div_ceil(uint64_t n, uint64_t d) { return (n + d - 1) / d; }

} // namespace

bool my_AVIVideoRandomReader::common_codec_setup_yuv(int64_t width, int64_t height,
                                                      common_codec_setup_yuv_params& param)
{
    if (width < 1 || width > frame_max_side || height < 1 || height > frame_max_side)
        return false;
    if (param.y_stride_align == 0 || param.chroma_stride_align == 0 || param.alpha_stride_align == 0 ||
        param.chroma_x_div == 0 || param.chroma_y_div == 0)
        return false;

    param.width = width;
    param.height = height;
    param.y_stride = align_up(uint64_t(width), param.y_stride_align);
    param.chroma_width = int64_t(div_ceil(uint64_t(width), param.chroma_x_div));
    param.chroma_height = int64_t(div_ceil(uint64_t(height), param.chroma_y_div));
    param.chroma_stride = align_up(uint64_t(param.chroma_width), param.chroma_stride_align);
    if (param.y_stride == 0 || param.chroma_stride == 0)
        return false;
    param.plane_bytes = param.y_stride * uint64_t(height) + 2 * param.chroma_stride * uint64_t(param.chroma_height);
    if (param.alpha_flag) {
        param.alpha_width = width;
        param.alpha_height = height;
        param.alpha_stride = align_up(uint64_t(width), param.alpha_stride_align);
        if (param.alpha_stride == 0)
            return false;
        param.plane_bytes += param.alpha_stride * uint64_t(height);
    } else {
        param.alpha_width = 0;
        param.alpha_height = 0;
        param.alpha_stride = 0;
    }
    param.alloc_size = param.plane_bytes + frame_descriptor_reserve;
    return true;
}

bool my_AVIVideoRandomReader::common_alloc_yuv_planar(t4mi_video_frame* tframe, common_codec_setup_yuv_params& param)
{
    tframe->planar_yuv = 1;
    tframe->width = int32_t(param.width);
    tframe->height = int32_t(param.height);
    T4MI_ASSERT(tframe->tnb_alloc.length == 0);
    const long long number = tframe->frame_number;
    // Within the frame-memory budget, the frame takes a warm slot that a
    // frame nobody holds gives up.
    t4mi_frame_retention_make_room(param.alloc_size);
    if (tnb_malloc(&tframe->tnb_alloc, param.alloc_size, "V%lld", number))
        return true;

    // The buffer is full: let go of what can go, then try once more.
    tframe->release_allocation();
    release_cache();
    tframe->release_idle_mappings();
    if (tnb_malloc(&tframe->tnb_alloc, param.alloc_size, "V%lld", number))
        return true;
    std::fprintf(stderr, "WARNING: Failed to allocate avframe\n");
    return false;
}

bool my_AVIVideoRandomReader::common_map_yuv_planar(t4mi_video_frame* tframe, common_codec_setup_yuv_params& param)
{
    const tnb_alloc_record& a = tframe->tnb_alloc;
    auto* base = static_cast<uint8_t*>(
        t4mi_global_access_cache_quickfetch(t4mi_acc_cache, a.buffer, a.offset, param.alloc_size, 4));
    if (base == nullptr) {
        tnb_free(&tframe->tnb_alloc);
        std::fprintf(stderr, "Failed to memory-map Y plane\n");
        return false;
    }
    // Pages that were never committed: fault them in with one call, not one
    // fault a page as the background fill would.
    if (a.fresh)
        t4mi_global_access_cache_prefault(t4mi_acc_cache, a.buffer, a.offset, param.alloc_size);

    const uint64_t y_size = param.y_stride * uint64_t(param.height);
    const uint64_t chroma_size = param.chroma_stride * uint64_t(param.chroma_height);
    const uint64_t alpha_size = param.alpha_flag ? param.alpha_stride * uint64_t(param.height) : 0;
    param.y = base;
    param.u = param.y + y_size;
    param.v = param.u + chroma_size;
    param.alpha = param.alpha_flag ? param.v + chroma_size : nullptr;
    param.w = param.v + chroma_size + alpha_size;
    param.fence = base + param.alloc_size;

    // Offsets of the planes within the shared buffer (the allocation's own
    // offset first). The descriptor has 32 bits for them.
    const uint64_t y_offset = a.offset;
    const uint64_t u_offset = y_offset + y_size;
    const uint64_t v_offset = u_offset + chroma_size;
    const uint64_t alpha_offset = param.alpha_flag ? v_offset + chroma_size : t4mi_frame_descriptor_no_plane;
    const uint64_t descriptor_offset = uint64_t(param.w - param.y);

    // The descriptor, field by field in the order it lies, with the cursor
    // checked against the fence after 32 bytes, 34 bytes and the whole.
    namespace f = t4mi_frame_descriptor_fields;
    T4MI_ASSERT(param.fence >= param.w);
    uint8_t* const d = param.w;
    t4mi_frame_descriptor_put(d, f::magic, t4mi_frame_descriptor_magic);
    t4mi_frame_descriptor_put(d, f::length, t4mi_frame_descriptor_length);
    t4mi_frame_descriptor_put(d, f::frame_number, uint64_t(tframe->frame_number));
    t4mi_frame_descriptor_put(d, f::width, uint64_t(param.width));
    t4mi_frame_descriptor_put(d, f::height, uint64_t(param.height));
    const bool aspect_known = tframe->aspect[0] >= 1 && tframe->aspect[1] >= 1;
    t4mi_frame_descriptor_put(d, f::aspect_num, aspect_known ? uint64_t(tframe->aspect[0]) : 0);
    t4mi_frame_descriptor_put(d, f::aspect_den, aspect_known ? uint64_t(tframe->aspect[1]) : 0);
    // 24..27 reserved: left as they were.
    t4mi_frame_descriptor_put(d, f::format_word, t4mi_frame_descriptor_format_word);
    param.w = d + f::format_word.end();
    T4MI_ASSERT(param.w <= param.fence);
    t4mi_frame_descriptor_put(d, f::buffer, uint64_t(a.buffer));
    param.w = d + f::buffer.end();
    T4MI_ASSERT(param.w <= param.fence);

    // Everything from here on that is not set below reads as zero.
    std::memset(param.w, 0, t4mi_frame_descriptor_length - f::buffer.end());
    t4mi_frame_descriptor_put(d, f::y_stride, param.y_stride);
    t4mi_frame_descriptor_put(d, f::u_stride, param.chroma_stride);
    t4mi_frame_descriptor_put(d, f::v_stride, param.chroma_stride);
    t4mi_frame_descriptor_put(d, f::alpha_stride, param.alpha_flag ? param.alpha_stride : 0);
    t4mi_frame_descriptor_put(d, f::chroma_word, t4mi_frame_descriptor_chroma_word);
    t4mi_frame_descriptor_put(d, f::format_tag_a, t4mi_frame_descriptor_format_tag_a);
    t4mi_frame_descriptor_put(d, f::format_tag_b, t4mi_frame_descriptor_format_tag_b);
    t4mi_frame_descriptor_put(d, f::width_16_16, uint64_t(param.width) << 16);
    t4mi_frame_descriptor_put(d, f::height_16_16, uint64_t(param.height) << 16);
    t4mi_frame_descriptor_put(d, f::width_16_16_again, uint64_t(param.width) << 16);
    t4mi_frame_descriptor_put(d, f::height_16_16_again, uint64_t(param.height) << 16);
    t4mi_frame_descriptor_put(d, f::u_x_divisor_less_1, param.chroma_x_div - 1u);
    t4mi_frame_descriptor_put(d, f::v_x_divisor_less_1, param.chroma_x_div - 1u);
    t4mi_frame_descriptor_put(d, f::u_y_divisor_less_1, param.chroma_y_div - 1u);
    t4mi_frame_descriptor_put(d, f::v_y_divisor_less_1, param.chroma_y_div - 1u);
    t4mi_frame_descriptor_put(d, f::y_offset, y_offset);
    t4mi_frame_descriptor_put(d, f::u_offset, u_offset);
    t4mi_frame_descriptor_put(d, f::v_offset, v_offset);
    t4mi_frame_descriptor_put(d, f::alpha_offset, alpha_offset);
    t4mi_frame_descriptor_put(d, f::y_rows, uint64_t(param.height - 1));
    t4mi_frame_descriptor_put(d, f::u_rows, uint64_t(param.chroma_height - 1));
    t4mi_frame_descriptor_put(d, f::v_rows, uint64_t(param.chroma_height - 1));
    t4mi_frame_descriptor_put(d, f::alpha_rows, param.alpha_flag ? uint64_t(param.height - 1) : 0);
    param.w = d + t4mi_frame_descriptor_length;
    T4MI_ASSERT(param.w <= param.fence);

    for (t4mi_frame_descriptor_ref& ref : tframe->descriptor_refs)
        ref = {descriptor_offset, t4mi_frame_descriptor_length, tframe->frame_number};
    return true;
}

bool map_frame_planes(const t4mi_video_frame* frame, yuva_frame_planes* out)
{
    if (frame == nullptr || frame->tnb_alloc.length == 0)
        return false;
    const tnb_alloc_record& a = frame->tnb_alloc;
    const auto* base = static_cast<const uint8_t*>(
        t4mi_global_access_cache_quickfetch(t4mi_acc_cache, a.buffer, a.offset, a.length, T4MI_ACCESS_READ));
    const t4mi_frame_descriptor_ref& ref = frame->descriptor_refs[0];
    t4mi_frame_descriptor_view d;
    if (base == nullptr || ref.length == 0 || ref.offset + ref.length > a.length ||
        !t4mi_parse_frame_descriptor(base + ref.offset, ref.length, &d) || d.chroma_x_divisor_less_1 != 0 ||
        d.chroma_y_divisor_less_1 != 0)
        return false;
    yuva_frame_planes p;
    p.y = base + (d.y_offset - a.offset);
    p.u = base + (d.u_offset - a.offset);
    p.v = base + (d.v_offset - a.offset);
    p.alpha = !d.has_alpha() ? nullptr : base + (d.alpha_offset - a.offset);
    p.width = d.width;
    p.height = d.height;
    p.y_stride = d.y_stride;
    p.chroma_stride = d.u_stride;
    p.alpha_stride = d.alpha_stride;
    *out = p;
    return true;
}
