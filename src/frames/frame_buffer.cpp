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

// Little-endian stores at the write cursor, advancing it.
void put(uint8_t*& w, uint64_t value, int bytes)
{
    for (int i = 0; i < bytes; ++i)
        *w++ = uint8_t(value >> (8 * i));
}

uint64_t get(const uint8_t* p, int bytes)
{
    uint64_t v = 0;
    for (int i = bytes - 1; i >= 0; --i)
        v = (v << 8) | p[i];
    return v;
}

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
    const uint64_t alpha_offset = param.alpha_flag ? v_offset + chroma_size : frame_descriptor_no_plane;
    const uint64_t descriptor_offset = uint64_t(param.w - param.y);

    T4MI_ASSERT(param.fence >= param.w);
    uint8_t* const d = param.w;
    put(param.w, frame_descriptor_magic, 4);
    put(param.w, frame_descriptor_length, 4);
    put(param.w, uint64_t(tframe->frame_number), 8);
    put(param.w, uint64_t(param.width), 2);
    put(param.w, uint64_t(param.height), 2);
    const bool aspect_known = tframe->aspect[0] >= 1 && tframe->aspect[1] >= 1;
    put(param.w, aspect_known ? uint64_t(tframe->aspect[0]) : 0, 2);
    put(param.w, aspect_known ? uint64_t(tframe->aspect[1]) : 0, 2);
    param.w += 4;  // 24..27 reserved: left as they were
    put(param.w, frame_descriptor_format_word, 4);
    T4MI_ASSERT(param.w <= param.fence);
    put(param.w, uint64_t(a.buffer), 2);
    T4MI_ASSERT(param.w <= param.fence);

    // Everything from 34 on that is not set below reads as zero.
    std::memset(d + 34, 0, frame_descriptor_length - 34);
    put(param.w, param.y_stride, 2);
    put(param.w, param.chroma_stride, 2);  // U
    put(param.w, param.chroma_stride, 2);  // V
    put(param.w, param.alpha_flag ? param.alpha_stride : 0, 2);
    param.w += 4;                          // 42: zero
    put(param.w, frame_descriptor_chroma_word, 4);
    put(param.w, 1, 1);                    // 50
    put(param.w, 2, 1);                    // 51
    param.w += 1 + 16;                     // 52: 0; 53..68: zero
    put(param.w, uint64_t(param.width) << 16, 8);   // 69: 16.16
    put(param.w, uint64_t(param.height) << 16, 8);  // 77
    param.w += 8 + 16;                     // 85, 93: zero
    put(param.w, uint64_t(param.width) << 16, 8);   // 109
    put(param.w, uint64_t(param.height) << 16, 8);  // 117
    param.w += 8 + 1;                      // 125: zero; 133: 0
    put(param.w, param.chroma_x_div - 1u, 1);  // 134 (U)
    put(param.w, param.chroma_x_div - 1u, 1);  // 135 (V)
    param.w += 2;                          // 136: 0
    put(param.w, param.chroma_y_div - 1u, 1);  // 138 (U)
    put(param.w, param.chroma_y_div - 1u, 1);  // 139 (V)
    param.w += 1;                          // 140: 0
    put(param.w, y_offset, 4);
    put(param.w, u_offset, 4);
    put(param.w, v_offset, 4);
    put(param.w, alpha_offset, 4);
    put(param.w, uint64_t(param.height - 1), 2);
    put(param.w, uint64_t(param.chroma_height - 1), 2);
    put(param.w, uint64_t(param.chroma_height - 1), 2);
    put(param.w, param.alpha_flag ? uint64_t(param.height - 1) : 0, 2);
    T4MI_ASSERT(param.w <= param.fence);

    for (t4mi_frame_descriptor_ref& ref : tframe->descriptor_refs)
        ref = {descriptor_offset, frame_descriptor_length, tframe->frame_number};
    return true;
}

bool parse_frame_descriptor(const uint8_t* b, size_t size, frame_descriptor_view* out)
{
    if (b == nullptr || size < frame_descriptor_length || get(b, 4) != frame_descriptor_magic ||
        get(b + 4, 4) != frame_descriptor_length)
        return false;
    frame_descriptor_view v;
    v.frame_number = int64_t(get(b + 8, 8));
    v.width = uint16_t(get(b + 16, 2));
    v.height = uint16_t(get(b + 18, 2));
    v.aspect_num = uint16_t(get(b + 20, 2));
    v.aspect_den = uint16_t(get(b + 22, 2));
    v.buffer = uint16_t(get(b + 32, 2));
    v.y_stride = uint16_t(get(b + 34, 2));
    v.u_stride = uint16_t(get(b + 36, 2));
    v.v_stride = uint16_t(get(b + 38, 2));
    v.alpha_stride = uint16_t(get(b + 40, 2));
    v.chroma_x_shift = b[134];
    v.chroma_y_shift = b[138];
    v.y_offset = uint32_t(get(b + 141, 4));
    v.u_offset = uint32_t(get(b + 145, 4));
    v.v_offset = uint32_t(get(b + 149, 4));
    v.alpha_offset = uint32_t(get(b + 153, 4));
    v.y_rows = uint16_t(get(b + 157, 2));
    v.u_rows = uint16_t(get(b + 159, 2));
    v.v_rows = uint16_t(get(b + 161, 2));
    v.alpha_rows = uint16_t(get(b + 163, 2));
    *out = v;
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
    frame_descriptor_view d;
    if (base == nullptr || ref.length == 0 || ref.offset + ref.length > a.length ||
        !parse_frame_descriptor(base + ref.offset, ref.length, &d) || d.chroma_x_shift != 0 ||
        d.chroma_y_shift != 0)
        return false;
    yuva_frame_planes p;
    p.y = base + (d.y_offset - a.offset);
    p.u = base + (d.u_offset - a.offset);
    p.v = base + (d.v_offset - a.offset);
    p.alpha = d.alpha_offset == frame_descriptor_no_plane ? nullptr : base + (d.alpha_offset - a.offset);
    p.width = d.width;
    p.height = d.height;
    p.y_stride = d.y_stride;
    p.chroma_stride = d.u_stride;
    p.alpha_stride = d.alpha_stride;
    *out = p;
    return true;
}
