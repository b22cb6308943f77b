// The public frame-descriptor header: its field table, readers and parser,
// against descriptors written byte by byte here.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>

#include <t4mi/frame_descriptor.h>

namespace {

namespace f = t4mi_frame_descriptor_fields;

using descriptor = std::array<uint8_t, 165>;

// A 4:4:4 frame of 3 x 2 pixels with alpha, frame 7, buffer 5, every plane
// of stride 4 starting at 4096: Y at 4096, U 8 bytes later, V and alpha
// after it.
descriptor small_frame()
{
    descriptor d{};
    const uint8_t head[] = {0x41, 0x07, 0x3D, 0x9E, 165, 0, 0, 0, 7, 0, 0, 0, 0, 0, 0, 0,
                            3, 0, 2, 0, 16, 0, 9, 0};
    std::copy(std::begin(head), std::end(head), d.begin());
    d[32] = 5;
    d[34] = d[36] = d[38] = d[40] = 4;
    d[141] = 0x00, d[142] = 0x10;  // 4096
    d[145] = 0x08, d[146] = 0x10;  // 4104
    d[149] = 0x10, d[150] = 0x10;  // 4112
    d[153] = 0x18, d[154] = 0x10;  // 4120
    d[157] = d[159] = d[161] = d[163] = 1;
    return d;
}

TEST(FrameDescriptorHeader, FieldsFollowEachOtherWithoutOverlap)
{
    const t4mi_frame_descriptor_field in_order[] = {
        f::magic, f::length, f::frame_number, f::width, f::height, f::aspect_num, f::aspect_den,
        f::format_word, f::buffer, f::y_stride, f::u_stride, f::v_stride, f::alpha_stride, f::chroma_word,
        f::format_tag_a, f::format_tag_b, f::width_16_16, f::height_16_16, f::width_16_16_again,
        f::height_16_16_again, f::u_x_divisor_less_1, f::v_x_divisor_less_1, f::u_y_divisor_less_1,
        f::v_y_divisor_less_1, f::y_offset, f::u_offset, f::v_offset, f::alpha_offset, f::y_rows, f::u_rows,
        f::v_rows, f::alpha_rows};
    uint32_t end = 0;
    for (const auto& field : in_order) {
        EXPECT_GE(field.offset, end);
        end = field.end();
    }
    EXPECT_EQ(end, 165u);
    // The gaps are the zero and reserved stretches: 24..27, 42..45, 52..68,
    // 85..108, 125..133, 136..137 and 140; 4+4+17+24+9+2+1 = 61 bytes.
    uint32_t named = 0;
    for (const auto& field : in_order)
        named += field.size;
    EXPECT_EQ(named, 165u - 61u);
}

TEST(FrameDescriptorHeader, GetAndPutAreLittleEndianAtTheFieldOffset)
{
    descriptor d{};
    t4mi_frame_descriptor_put(d.data(), f::y_offset, 0x11223344);
    EXPECT_EQ(d[141], 0x44);
    EXPECT_EQ(d[142], 0x33);
    EXPECT_EQ(d[143], 0x22);
    EXPECT_EQ(d[144], 0x11);
    EXPECT_EQ(d[145], 0);  // the next field is untouched
    EXPECT_EQ(t4mi_frame_descriptor_get(d.data(), f::y_offset), 0x11223344u);
    // A value wider than its field keeps only the field's bytes.
    t4mi_frame_descriptor_put(d.data(), f::width, 0x12345);
    EXPECT_EQ(t4mi_frame_descriptor_get(d.data(), f::width), 0x2345u);
    EXPECT_EQ(d[18], 0);
}

TEST(FrameDescriptorHeader, ParsesAHandWrittenDescriptor)
{
    const descriptor d = small_frame();
    t4mi_frame_descriptor_view v;
    ASSERT_TRUE(t4mi_parse_frame_descriptor(d.data(), d.size(), &v));
    EXPECT_EQ(v.frame_number, 7);
    EXPECT_EQ(v.width, 3);
    EXPECT_EQ(v.height, 2);
    EXPECT_EQ(v.aspect_num, 16);
    EXPECT_EQ(v.aspect_den, 9);
    EXPECT_EQ(v.buffer, 5);
    EXPECT_EQ(v.y_stride, 4);
    EXPECT_EQ(v.alpha_stride, 4);
    EXPECT_EQ(v.y_offset, 4096u);
    EXPECT_EQ(v.u_offset, 4104u);
    EXPECT_EQ(v.v_offset, 4112u);
    EXPECT_EQ(v.alpha_offset, 4120u);
    EXPECT_TRUE(v.has_alpha());
    EXPECT_EQ(v.y_rows, 1);
    EXPECT_EQ(v.chroma_x_divisor_less_1, 0);
}

TEST(FrameDescriptorHeader, ReadsFrameNumbersBeyond32Bits)
{
    descriptor d = small_frame();
    d[12] = 1;  // 2^32 + 7
    t4mi_frame_descriptor_view v;
    ASSERT_TRUE(t4mi_parse_frame_descriptor(d.data(), d.size(), &v));
    EXPECT_EQ(v.frame_number, 4294967303);
}

TEST(FrameDescriptorHeader, NoAlphaPlaneIsAllOnes)
{
    descriptor d = small_frame();
    d[153] = d[154] = d[155] = d[156] = 0xFF;
    t4mi_frame_descriptor_view v;
    ASSERT_TRUE(t4mi_parse_frame_descriptor(d.data(), d.size(), &v));
    EXPECT_FALSE(v.has_alpha());
}

TEST(FrameDescriptorHeader, RefusesShortInputWrongMagicAndWrongLength)
{
    t4mi_frame_descriptor_view v;
    v.width = 99;
    descriptor d = small_frame();
    EXPECT_FALSE(t4mi_parse_frame_descriptor(d.data(), 164, &v));
    EXPECT_FALSE(t4mi_parse_frame_descriptor(nullptr, 165, &v));
    d[3] = 0x9F;
    EXPECT_FALSE(t4mi_parse_frame_descriptor(d.data(), d.size(), &v));
    d = small_frame();
    d[4] = 166;
    EXPECT_FALSE(t4mi_parse_frame_descriptor(d.data(), d.size(), &v));
    EXPECT_EQ(v.width, 99);  // left as it was
}

} // namespace
