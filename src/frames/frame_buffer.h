// Frame buffers: the geometry of a planar YUVA frame, and the frame
// descriptor written behind its planes.
//
// One frame is one shared allocation:
//   Y plane      Y stride x height
//   U plane      chroma stride x chroma height
//   V plane      chroma stride x chroma height
//   alpha plane  alpha stride x height (only with the alpha flag)
//   descriptor   165 bytes at offset "plane bytes" (include/t4mi/frame_descriptor.h)
//   spare        up to plane bytes + 1024
// The compositor builds a frame with
//   common_codec_setup_yuv -> common_alloc_yuv_planar -> common_map_yuv_planar
// and then draws through the plane addresses of the record.
#pragma once

#include <cstddef>
#include <cstdint>

#include <t4mi/frame_descriptor.h>

#include "frames/reader.h"

// The geometry record, one per frame build, on the caller's stack. All sizes
// are bytes or pixels; strides are bytes per row.
struct my_AVIVideoRandomReader::common_codec_setup_yuv_params {
    // Set by the caller.
    uint8_t chroma_x_div = 1;        // horizontal subsampling of U and V
    uint8_t chroma_y_div = 1;        // vertical subsampling of U and V
    uint64_t y_stride_align = 2;     // powers of two
    uint64_t chroma_stride_align = 2;
    uint64_t alpha_stride_align = 2;
    // Set by common_codec_setup_yuv.
    uint64_t y_stride = 0;
    uint64_t chroma_stride = 0;      // of U and of V
    uint64_t alpha_stride = 0;       // 0 without alpha
    int64_t width = 0;               // pixels
    int64_t height = 0;
    int64_t alpha_width = 0;         // width and height with alpha, else 0
    int64_t alpha_height = 0;
    int64_t chroma_width = 0;
    int64_t chroma_height = 0;
    uint64_t plane_bytes = 0;        // all planes together; the descriptor's offset
    uint64_t alloc_size = 0;         // plane_bytes + 1024
    // Set by common_map_yuv_planar: addresses in this process, valid while
    // the frame's allocation lives (the frame owns it).
    uint8_t* y = nullptr;
    uint8_t* u = nullptr;
    uint8_t* v = nullptr;
    uint8_t* alpha = nullptr;        // null without alpha
    uint8_t* w = nullptr;            // write cursor: end of what has been written
    uint8_t* fence = nullptr;        // mapping start + alloc_size; never written at or past
    // Set by the caller.
    uint8_t alpha_flag = 1;          // an alpha plane is present
};

// Largest picture side in pixels.
inline constexpr int64_t frame_max_side = 4096;
// Bytes reserved behind the planes for the descriptor.
inline constexpr uint64_t frame_descriptor_reserve = 1024;

// The planes of a built frame, reached again through t4mi_acc_cache and its
// descriptor (for tools and tests that look at a frame after it was built).
struct yuva_frame_planes {
    const uint8_t* y = nullptr;
    const uint8_t* u = nullptr;
    const uint8_t* v = nullptr;
    const uint8_t* alpha = nullptr;   // null without alpha
    uint32_t width = 0, height = 0;   // pixels
    uint32_t y_stride = 0, chroma_stride = 0, alpha_stride = 0;  // bytes per row
};
// False when the frame has no allocation, cannot be mapped, its descriptor
// does not parse, or its chroma is subsampled (only 4:4:4 is described).
bool map_frame_planes(const t4mi_video_frame* frame, yuva_frame_planes* out);
