// Frame buffers: geometry, allocation, mapping and the 165-byte descriptor.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "frames/frame_buffer.h"
#include "platform/t4mi_globals.h"
#include "platform/tnb.h"
#include "support/frame_env.h"

namespace {

using params = my_AVIVideoRandomReader::common_codec_setup_yuv_params;

// The compositor's settings: 4:4:4, even strides, alpha on.
params compositor_params()
{
    params p;
    p.chroma_x_div = 1;
    p.chroma_y_div = 1;
    p.y_stride_align = 2;
    p.chroma_stride_align = 2;
    p.alpha_stride_align = 2;
    p.alpha_flag = 1;
    return p;
}

// Little-endian read of `n` bytes.
uint64_t le(const uint8_t* p, int n)
{
    uint64_t v = 0;
    for (int i = n - 1; i >= 0; --i)
        v = v << 8 | p[i];
    return v;
}

// Builds frame `n` at width x height in `reader` (allocated and mapped).
bool build(my_AVIVideoRandomReader& reader, t4mi_video_frame& frame, params& p, int64_t w, int64_t h)
{
    return my_AVIVideoRandomReader::common_codec_setup_yuv(w, h, p) && reader.common_alloc_yuv_planar(&frame, p) &&
           reader.common_map_yuv_planar(&frame, p);
}

TEST(FrameGeometry, FullHdHasEvenStridesAndOneKilobyteForTheDescriptor)
{
    params p = compositor_params();
    ASSERT_TRUE(my_AVIVideoRandomReader::common_codec_setup_yuv(1920, 1080, p));
    EXPECT_EQ(p.y_stride, 1920u);
    EXPECT_EQ(p.chroma_stride, 1920u);
    EXPECT_EQ(p.alpha_stride, 1920u);
    EXPECT_EQ(p.chroma_width, 1920);
    EXPECT_EQ(p.chroma_height, 1080);
    EXPECT_EQ(p.alpha_width, 1920);
    EXPECT_EQ(p.alpha_height, 1080);
    EXPECT_EQ(p.plane_bytes, 8294400u);  // 4 x 1920 x 1080
    EXPECT_EQ(p.alloc_size, 8295424u);   // + 1024
}

TEST(FrameGeometry, OddWidthIsPaddedToAnEvenStride)
{
    params p = compositor_params();
    ASSERT_TRUE(my_AVIVideoRandomReader::common_codec_setup_yuv(719, 576, p));
    EXPECT_EQ(p.y_stride, 720u);
    EXPECT_EQ(p.chroma_stride, 720u);
    EXPECT_EQ(p.alpha_stride, 720u);
    EXPECT_EQ(p.width, 719);
    EXPECT_EQ(p.plane_bytes, 1658880u);  // 4 x 720 x 576

    // A wider alignment: 719 rounded up to a multiple of 64 is 768.
    params q = compositor_params();
    q.y_stride_align = 64;
    ASSERT_TRUE(my_AVIVideoRandomReader::common_codec_setup_yuv(719, 2, q));
    EXPECT_EQ(q.y_stride, 768u);
    EXPECT_EQ(q.chroma_stride, 720u);
}

TEST(FrameGeometry, RefusesSizesOutsideOneTo4096AndZeroSettings)
{
    params p = compositor_params();
    EXPECT_FALSE(my_AVIVideoRandomReader::common_codec_setup_yuv(4097, 100, p));
    EXPECT_FALSE(my_AVIVideoRandomReader::common_codec_setup_yuv(0, 100, p));
    EXPECT_FALSE(my_AVIVideoRandomReader::common_codec_setup_yuv(-1, 100, p));
    EXPECT_FALSE(my_AVIVideoRandomReader::common_codec_setup_yuv(100, 4097, p));
    EXPECT_FALSE(my_AVIVideoRandomReader::common_codec_setup_yuv(100, 0, p));
    EXPECT_TRUE(my_AVIVideoRandomReader::common_codec_setup_yuv(4096, 4096, p));
    EXPECT_TRUE(my_AVIVideoRandomReader::common_codec_setup_yuv(1, 1, p));

    for (int field = 0; field < 5; ++field) {
        params z = compositor_params();
        switch (field) {
        case 0: z.y_stride_align = 0; break;
        case 1: z.chroma_stride_align = 0; break;
        case 2: z.alpha_stride_align = 0; break;
        case 3: z.chroma_x_div = 0; break;
        case 4: z.chroma_y_div = 0; break;
        }
        EXPECT_FALSE(my_AVIVideoRandomReader::common_codec_setup_yuv(16, 16, z)) << field;
    }
}

TEST(FrameGeometry, SubsampledChromaWithoutAlpha)
{
    params p = compositor_params();
    p.chroma_x_div = 2;
    p.chroma_y_div = 2;
    p.alpha_flag = 0;
    ASSERT_TRUE(my_AVIVideoRandomReader::common_codec_setup_yuv(5, 3, p));
    EXPECT_EQ(p.y_stride, 6u);
    EXPECT_EQ(p.chroma_width, 3);   // ceil(5 / 2)
    EXPECT_EQ(p.chroma_height, 2);  // ceil(3 / 2)
    EXPECT_EQ(p.chroma_stride, 4u);
    EXPECT_EQ(p.alpha_stride, 0u);
    EXPECT_EQ(p.alpha_width, 0);
    EXPECT_EQ(p.plane_bytes, 34u);  // 6 x 3 + 2 x 4 x 2
    EXPECT_EQ(p.alloc_size, 1058u);
}

TEST(FrameBuffer, FullHdFrameIsMappedWithTheDescriptorBehindThePlanes)
{
    t4test::shared_buffer_session session;
    my_AVIVideoRandomReader reader;
    t4mi_video_frame frame(3);
    params p = compositor_params();
    ASSERT_TRUE(build(reader, frame, p, 1920, 1080));

    EXPECT_EQ(frame.planar_yuv, 1);
    EXPECT_EQ(frame.width, 1920);
    EXPECT_EQ(frame.height, 1080);
    EXPECT_EQ(frame.tnb_alloc.length, 8295424u);
    EXPECT_EQ(p.u - p.y, 2073600);      // 1920 x 1080
    EXPECT_EQ(p.v - p.y, 4147200);
    EXPECT_EQ(p.alpha - p.y, 6220800);
    EXPECT_EQ(p.w - p.y, 8294400 + 165);
    EXPECT_EQ(p.fence - p.y, 8295424);
    for (const t4mi_frame_descriptor_ref& ref : frame.descriptor_refs) {
        EXPECT_EQ(ref.offset, 8294400u);
        EXPECT_EQ(ref.length, 165u);
        EXPECT_EQ(ref.frame_number, 3);
    }
    const uint8_t* d = p.y + 8294400;
    EXPECT_EQ(le(d, 4), 0x9E3D0741u);
    EXPECT_EQ(le(d + 16, 2), 1920u);
    EXPECT_EQ(le(d + 18, 2), 1080u);
    EXPECT_EQ(le(d + 34, 2), 1920u);
    EXPECT_EQ(le(d + 145, 4), frame.tnb_alloc.offset + 2073600);

    // The planes are writable end to end.
    std::memset(p.y, 16, size_t(p.plane_bytes));
}

TEST(FrameBuffer, OddWidthDescriptorStillSaysTheRealWidth)
{
    t4test::shared_buffer_session session;
    my_AVIVideoRandomReader reader;
    t4mi_video_frame frame(0);
    params p = compositor_params();
    ASSERT_TRUE(build(reader, frame, p, 719, 576));
    const uint8_t* d = p.y + 1658880;
    EXPECT_EQ(frame.descriptor_refs[0].offset, 1658880u);
    // 719 = 0x02CF; strides 720 = 0x02D0.
    EXPECT_EQ(d[16], 0xCF);
    EXPECT_EQ(d[17], 0x02);
    for (int at : {34, 36, 38, 40}) {
        EXPECT_EQ(d[at], 0xD0) << at;
        EXPECT_EQ(d[at + 1], 0x02) << at;
    }
    // 719 in 16.16 is 0x02CF0000.
    for (int at : {69, 109})
        EXPECT_EQ(le(d + at, 8), 0x02CF0000u) << at;
}

TEST(FrameBuffer, AspectIsWrittenOnlyWhenBothNumbersAreAtLeastOne)
{
    t4test::shared_buffer_session session;
    my_AVIVideoRandomReader reader;
    struct aspect_case {
        int32_t num, den;
        uint8_t expected[4];
    };
    const aspect_case cases[] = {
        {0, 0, {0, 0, 0, 0}},      // no aspect given
        {16, 9, {16, 0, 9, 0}},
        {1, 0, {0, 0, 0, 0}},
        {0, 9, {0, 0, 0, 0}},
        {-4, 3, {0, 0, 0, 0}},
        {1, 1, {1, 0, 1, 0}},
    };
    int64_t n = 0;
    for (const aspect_case& c : cases) {
        t4mi_video_frame frame(n++);
        frame.aspect[0] = c.num;
        frame.aspect[1] = c.den;
        params p = compositor_params();
        ASSERT_TRUE(build(reader, frame, p, 8, 8));
        const uint8_t* d = p.y + p.plane_bytes;
        EXPECT_EQ(std::vector<uint8_t>(d + 20, d + 24), std::vector<uint8_t>(c.expected, c.expected + 4))
            << c.num << ":" << c.den;
    }
}

TEST(FrameBuffer, DescriptorByteForByte)
{
    t4test::shared_buffer_session session;
    my_AVIVideoRandomReader reader;
    // One page in front, so that the frame's offsets in the buffer are not 0.
    tnb_alloc_record dummy;
    ASSERT_TRUE(tnb_malloc(&dummy, 1, "dummy"));

    // 5 x 3: every stride 6, each plane 18 bytes, planes 72, allocation 1096.
    t4mi_video_frame frame(0x0102030405060708);
    frame.aspect[0] = 4;
    frame.aspect[1] = 3;
    params p = compositor_params();
    ASSERT_TRUE(my_AVIVideoRandomReader::common_codec_setup_yuv(5, 3, p));
    ASSERT_TRUE(reader.common_alloc_yuv_planar(&frame, p));
    ASSERT_EQ(frame.tnb_alloc.offset, 4096u);
    ASSERT_EQ(frame.tnb_alloc.length, 1096u);

    // Old contents: 0xEE everywhere, the four reserved bytes marked.
    auto* raw = static_cast<uint8_t*>(t4mi_global_access_cache_quickfetch(
        t4mi_acc_cache, frame.tnb_alloc.buffer, frame.tnb_alloc.offset, 1096, 4));
    ASSERT_NE(raw, nullptr);
    std::memset(raw, 0xEE, 1096);
    raw[72 + 24] = 0xAA;
    raw[72 + 25] = 0xBB;
    raw[72 + 26] = 0xCC;
    raw[72 + 27] = 0xDD;

    ASSERT_TRUE(reader.common_map_yuv_planar(&frame, p));
    ASSERT_EQ(p.y, raw);
    const uint8_t id_lo = uint8_t(frame.tnb_alloc.buffer), id_hi = uint8_t(frame.tnb_alloc.buffer >> 8);
    const uint8_t expected[165] = {
        0x41, 0x07, 0x3D, 0x9E,                          //   0 magic
        0xA5, 0x00, 0x00, 0x00,                          //   4 length 165
        0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01,  //   8 frame number
        0x05, 0x00, 0x03, 0x00,                          //  16 width 5, height 3
        0x04, 0x00, 0x03, 0x00,                          //  20 aspect 4:3
        0xAA, 0xBB, 0xCC, 0xDD,                          //  24 reserved, untouched
        0x02, 0x00, 0x01, 0x01,                          //  28 0x01010002
        id_lo, id_hi,                                    //  32 buffer id
        0x06, 0x00, 0x06, 0x00, 0x06, 0x00, 0x06, 0x00,  //  34 strides Y, U, V, alpha
        0x00, 0x00, 0x00, 0x00,                          //  42
        0x80, 0x80, 0x80, 0x80,                          //  46
        0x01, 0x02, 0x00,                                //  50, 51, 52
        0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  //  53
        0x00, 0x00, 0x05, 0x00, 0x00, 0x00, 0x00, 0x00,  //  69 5 << 16
        0x00, 0x00, 0x03, 0x00, 0x00, 0x00, 0x00, 0x00,  //  77 3 << 16
        0, 0, 0, 0, 0, 0, 0, 0,                          //  85
        0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  //  93
        0x00, 0x00, 0x05, 0x00, 0x00, 0x00, 0x00, 0x00,  // 109 5 << 16
        0x00, 0x00, 0x03, 0x00, 0x00, 0x00, 0x00, 0x00,  // 117 3 << 16
        0, 0, 0, 0, 0, 0, 0, 0,                          // 125
        0x00,                                            // 133
        0x00, 0x00,                                      // 134 chroma x divisor - 1, U and V
        0x00, 0x00,                                      // 136
        0x00, 0x00,                                      // 138 chroma y divisor - 1, U and V
        0x00,                                            // 140
        0x00, 0x10, 0x00, 0x00,                          // 141 Y at 4096
        0x12, 0x10, 0x00, 0x00,                          // 145 U at 4096 + 18
        0x24, 0x10, 0x00, 0x00,                          // 149 V at 4096 + 36
        0x36, 0x10, 0x00, 0x00,                          // 153 alpha at 4096 + 54
        0x02, 0x00, 0x02, 0x00, 0x02, 0x00, 0x02, 0x00,  // 157 rows - 1: Y, U, V, alpha
    };
    for (int i = 0; i < 165; ++i)
        EXPECT_EQ(raw[72 + i], expected[i]) << "descriptor byte " << i;
    EXPECT_EQ(raw[72 + 165], 0xEE);  // the spare behind it is not touched
    EXPECT_EQ(raw[1095], 0xEE);
    EXPECT_EQ(raw[71], 0xEE);        // nor are the planes

    EXPECT_EQ(p.w, raw + 72 + 165);
    EXPECT_EQ(p.fence, raw + 1096);
    for (const t4mi_frame_descriptor_ref& ref : frame.descriptor_refs) {
        EXPECT_EQ(ref.offset, 72u);
        EXPECT_EQ(ref.length, 165u);
        EXPECT_EQ(ref.frame_number, 0x0102030405060708);
    }
}

TEST(FrameBuffer, DescriptorWithoutAlphaAndWithSubsampledChroma)
{
    t4test::shared_buffer_session session;
    my_AVIVideoRandomReader reader;
    t4mi_video_frame frame(9);
    params p = compositor_params();
    p.chroma_x_div = 2;
    p.chroma_y_div = 2;
    p.alpha_flag = 0;
    ASSERT_TRUE(build(reader, frame, p, 5, 3));
    ASSERT_EQ(frame.tnb_alloc.offset, 0u);
    EXPECT_EQ(p.alpha, nullptr);
    EXPECT_EQ(p.u - p.y, 18);
    EXPECT_EQ(p.v - p.y, 26);  // U is 4 x 2
    const uint8_t* d = p.y + 34;
    EXPECT_EQ(le(d + 34, 2), 6u);
    EXPECT_EQ(le(d + 36, 2), 4u);
    EXPECT_EQ(le(d + 38, 2), 4u);
    EXPECT_EQ(le(d + 40, 2), 0u);
    EXPECT_EQ(d[134], 1);
    EXPECT_EQ(d[135], 1);
    EXPECT_EQ(d[138], 1);
    EXPECT_EQ(d[139], 1);
    EXPECT_EQ(le(d + 141, 4), 0u);
    EXPECT_EQ(le(d + 145, 4), 18u);
    EXPECT_EQ(le(d + 149, 4), 26u);
    EXPECT_EQ(le(d + 153, 4), 0xFFFFFFFFu);
    EXPECT_EQ(le(d + 157, 2), 2u);
    EXPECT_EQ(le(d + 159, 2), 1u);
    EXPECT_EQ(le(d + 161, 2), 1u);
    EXPECT_EQ(le(d + 163, 2), 0u);
}

TEST(FrameBuffer, AllocationIsNamedAfterTheFrameNumber)
{
    t4test::shared_buffer_session session;
    my_AVIVideoRandomReader reader;
    t4mi_video_frame frame(42);
    params p = compositor_params();
    ASSERT_TRUE(build(reader, frame, p, 5, 3));
    testing::internal::CaptureStderr();
    tnb_alloc_print_remaining_buffers();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "V42: 1096 bytes\n");
}

TEST(FrameBuffer, MappingFailureFreesTheAllocation)
{
    t4test::shared_buffer_session session;
    my_AVIVideoRandomReader reader;
    t4mi_video_frame frame(1);
    params p = compositor_params();
    ASSERT_TRUE(my_AVIVideoRandomReader::common_codec_setup_yuv(16, 16, p));
    ASSERT_TRUE(reader.common_alloc_yuv_planar(&frame, p));
    t4mi_global_access_cache* cache = t4mi_acc_cache;
    t4mi_acc_cache = nullptr;  // nothing can be mapped
    testing::internal::CaptureStderr();
    EXPECT_FALSE(reader.common_map_yuv_planar(&frame, p));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Failed to memory-map Y plane\n");
    t4mi_acc_cache = cache;
    EXPECT_EQ(frame.tnb_alloc.length, 0u);
    EXPECT_EQ(tnb_alloc_live_count(), 0u);
}

TEST(FrameBuffer, MappedPlanesCanBeFoundAgainFromTheFrame)
{
    t4test::shared_buffer_session session;
    my_AVIVideoRandomReader reader;
    t4mi_video_frame frame(5);
    params p = compositor_params();
    ASSERT_TRUE(build(reader, frame, p, 719, 4));
    yuva_frame_planes planes;
    ASSERT_TRUE(map_frame_planes(&frame, &planes));
    EXPECT_EQ(planes.y, p.y);
    EXPECT_EQ(planes.u, p.u);
    EXPECT_EQ(planes.v, p.v);
    EXPECT_EQ(planes.alpha, p.alpha);
    EXPECT_EQ(planes.width, 719u);
    EXPECT_EQ(planes.height, 4u);
    EXPECT_EQ(planes.y_stride, 720u);
    EXPECT_EQ(planes.chroma_stride, 720u);
    EXPECT_EQ(planes.alpha_stride, 720u);

    t4mi_video_frame empty(6);
    EXPECT_FALSE(map_frame_planes(&empty, &planes));
}

using FrameBufferDeathTest = testing::Test;

TEST_F(FrameBufferDeathTest, AllocatingAFrameTwiceAborts)
{
    t4test::shared_buffer_session session;
    my_AVIVideoRandomReader reader;
    t4mi_video_frame frame(1);
    params p = compositor_params();
    ASSERT_TRUE(my_AVIVideoRandomReader::common_codec_setup_yuv(8, 8, p));
    ASSERT_TRUE(reader.common_alloc_yuv_planar(&frame, p));
    EXPECT_DEATH(reader.common_alloc_yuv_planar(&frame, p),
                 "^t4mi_scrolltext: .*common_alloc_yuv_planar.*: Assertion `tframe->tnb_alloc\\.length == 0' "
                 "failed\\.\n");
}

TEST_F(FrameBufferDeathTest, ADescriptorPastTheFenceAborts)
{
    t4test::shared_buffer_session session;
    my_AVIVideoRandomReader reader;
    {
        // A fence in front of the planes' end: caught before anything is written.
        t4mi_video_frame frame(1);
        params p = compositor_params();
        ASSERT_TRUE(my_AVIVideoRandomReader::common_codec_setup_yuv(8, 8, p));
        ASSERT_TRUE(reader.common_alloc_yuv_planar(&frame, p));
        p.alloc_size = p.plane_bytes - 1;
        EXPECT_DEATH(reader.common_map_yuv_planar(&frame, p),
                     "^t4mi_scrolltext: .*common_map_yuv_planar.*: Assertion `param\\.fence >= param\\.w' failed\\.\n");
    }
    for (uint64_t room : {20u, 33u, 164u}) {
        // Room for less than 32, 34 or 165 bytes: caught at the next check.
        t4mi_video_frame frame(2);
        params p = compositor_params();
        ASSERT_TRUE(my_AVIVideoRandomReader::common_codec_setup_yuv(8, 8, p));
        ASSERT_TRUE(reader.common_alloc_yuv_planar(&frame, p));
        p.alloc_size = p.plane_bytes + room;
        EXPECT_DEATH(reader.common_map_yuv_planar(&frame, p),
                     "^t4mi_scrolltext: .*common_map_yuv_planar.*: Assertion `param\\.w <= param\\.fence' failed\\.\n")
            << room;
    }
}

} // namespace
