// Fixtures of the layout, compositor and golden-frame tests.
//
// - compose_environment (installed once for the test program): a redirected
//   fixed root (default face Liberation Sans, emoji face Symbola, both from
//   Debian's packages), a private fontconfig listing only Debian's Liberation,
//   WenQuanYi Micro Hei and Symbola directories, FreeType with the two faces
//   open, and the font catalogue built from them. Nothing depends on the
//   machine's own fonts or on the installation's fixed paths.
// - compose_test: per test a shared frame buffer (64 MiB), default scroll
//   settings with white opaque text and no shadow, and client contexts with
//   their readers, all given back at the end of the test.
// - Helpers to look at frames: plane bytes, a checksum over them.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "frames/client_context.h"
#include "frames/frame_buffer.h"
#include "support/frame_env.h"

struct font_bmp_cache_storage;
class t4mi_video_frame;

namespace t4test {

// The redirected fixed root of the environment (for child processes and
// for writing emoji images).
std::string compose_fixed_root();
// "FONTCONFIG_FILE=..." of the environment's private fontconfig.
std::string compose_fontconfig_env();

// The planes of a frame copied out, without stride padding: width x height
// bytes each, in the order Y, U, V, A.
struct frame_pixels {
    uint32_t width = 0, height = 0;
    std::vector<uint8_t> y, u, v, a;
    size_t at(uint32_t x, uint32_t row) const { return size_t(row) * width + x; }
    bool operator==(const frame_pixels&) const = default;
};
frame_pixels copy_pixels(const yuva_frame_planes& planes);
// False when the frame is null or cannot be mapped.
bool copy_pixels(const t4mi_video_frame* frame, frame_pixels* out);

// 64-bit FNV-1a over Y, U, V and A (width x height bytes each, in that order).
uint64_t pixels_checksum(const frame_pixels& p);

// Source alpha of coverage c under a colour alpha a: (c * a * 257) >> 16.
inline unsigned source_alpha(unsigned c, unsigned a) { return (c * a * 257) >> 16; }

// The code points of the layout's placements, in key order.
std::u32string placed_text(const scrolling_text_client_context* ctx);

class compose_test : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // A context with its reader at width x height pixels, `time_scale`
    // ticks a second and `frame_duration` ticks a frame, and a screen aspect
    // (0, 0: square pixels). Owned by the fixture.
    scrolling_text_client_context* make_context(int32_t width, int32_t height, int64_t time_scale = 25,
                                                 int64_t frame_duration = 1, int64_t aspect_num = 0,
                                                 int64_t aspect_den = 0);
    // Sets the item text and lays it out for `ctx` (parse, then layout).
    void lay_out(scrolling_text_client_context* ctx, const std::string& text);
    // load_frame for frame n (variant 0); null when it could not be built.
    t4mi_video_frame* render(scrolling_text_client_context* ctx, uint64_t n);
    // render, then the pixels; fails the test when the frame is missing.
    frame_pixels render_pixels(scrolling_text_client_context* ctx, uint64_t n);
    // The glyph record of `code` at the context's line height.
    const font_bmp_cache_storage* glyph(scrolling_text_client_context* ctx, int32_t code);
    // The line height of the context's current layout (picture height / line_count).
    uint64_t line_height(const scrolling_text_client_context* ctx) const;

    std::unique_ptr<shared_buffer_session> buffers;
    std::vector<std::unique_ptr<scrolling_text_client_context>> contexts;
};

} // namespace t4test
