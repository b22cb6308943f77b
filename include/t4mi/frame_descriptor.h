// The frame descriptor: 165 bytes that t4mi_scrolltext writes into the
// shared buffer right behind the planes of every frame it serves. It says
// where the planes of the frame lie in the buffer and how they are laid out.
// The server writes it, and t4mi_client and any integrator read it, with
// the fields declared here, so the three agree byte for byte.
//
// Every field is a little-endian unsigned integer of 1, 2, 4 or 8 bytes at
// a fixed offset from the descriptor's first byte; nothing is aligned, so
// read it with t4mi_frame_descriptor_get (or t4mi_parse_frame_descriptor),
// never through a cast. Bytes that no field below names are zero, except
// 24..27, which are reserved and may hold anything.
//
// Header only, no library needed: include it on its own to parse frames
// that reached you some other way.
#pragma once

#include <cstddef>
#include <cstdint>

// Where one field lies: bytes from the descriptor's start, and its width in
// bytes.
struct t4mi_frame_descriptor_field {
    uint8_t offset;
    uint8_t size;
    constexpr uint32_t end() const { return uint32_t(offset) + size; }
};

// The whole descriptor, bytes.
inline constexpr uint32_t t4mi_frame_descriptor_length = 165;
// The first field of every descriptor.
inline constexpr uint32_t t4mi_frame_descriptor_magic = 0x9E3D0741;
// The alpha plane offset of a frame without alpha.
inline constexpr uint32_t t4mi_frame_descriptor_no_plane = 0xFFFFFFFF;
// Constants of the frame format, written as they are into every descriptor
// (clients need none of them to find the pixels).
inline constexpr uint32_t t4mi_frame_descriptor_format_word = 0x01010002;
inline constexpr uint32_t t4mi_frame_descriptor_chroma_word = 0x80808080;
inline constexpr uint8_t t4mi_frame_descriptor_format_tag_a = 1;
inline constexpr uint8_t t4mi_frame_descriptor_format_tag_b = 2;

// The fields in the order they lie (and are written). Sizes in pixels,
// strides in bytes per row, offsets in bytes from the start of the shared
// buffer (not of the frame's allocation).
namespace t4mi_frame_descriptor_fields {
inline constexpr t4mi_frame_descriptor_field magic{0, 4};          // t4mi_frame_descriptor_magic
inline constexpr t4mi_frame_descriptor_field length{4, 4};         // t4mi_frame_descriptor_length
inline constexpr t4mi_frame_descriptor_field frame_number{8, 8};   // the frame rendered (signed)
inline constexpr t4mi_frame_descriptor_field width{16, 2};
inline constexpr t4mi_frame_descriptor_field height{18, 2};
// The frame's aspect pair; both 0 unless both are at least 1.
inline constexpr t4mi_frame_descriptor_field aspect_num{20, 2};
inline constexpr t4mi_frame_descriptor_field aspect_den{22, 2};
// 24..27: reserved, not written.
inline constexpr t4mi_frame_descriptor_field format_word{28, 4};   // t4mi_frame_descriptor_format_word
inline constexpr t4mi_frame_descriptor_field buffer{32, 2};        // id of the shared buffer
inline constexpr t4mi_frame_descriptor_field y_stride{34, 2};
inline constexpr t4mi_frame_descriptor_field u_stride{36, 2};
inline constexpr t4mi_frame_descriptor_field v_stride{38, 2};
inline constexpr t4mi_frame_descriptor_field alpha_stride{40, 2};  // 0 without alpha
// 42..45: zero.
inline constexpr t4mi_frame_descriptor_field chroma_word{46, 4};   // t4mi_frame_descriptor_chroma_word
inline constexpr t4mi_frame_descriptor_field format_tag_a{50, 1};  // t4mi_frame_descriptor_format_tag_a
inline constexpr t4mi_frame_descriptor_field format_tag_b{51, 1};  // t4mi_frame_descriptor_format_tag_b
// 52..68: zero.
// Two copies of the picture size, 16.16 fixed point.
inline constexpr t4mi_frame_descriptor_field width_16_16{69, 8};
inline constexpr t4mi_frame_descriptor_field height_16_16{77, 8};
// 85..108: zero.
inline constexpr t4mi_frame_descriptor_field width_16_16_again{109, 8};
inline constexpr t4mi_frame_descriptor_field height_16_16_again{117, 8};
// 125..133: zero.
// Chroma subsampling, each the divisor less one (0 for 4:4:4).
inline constexpr t4mi_frame_descriptor_field u_x_divisor_less_1{134, 1};
inline constexpr t4mi_frame_descriptor_field v_x_divisor_less_1{135, 1};
// 136..137: zero.
inline constexpr t4mi_frame_descriptor_field u_y_divisor_less_1{138, 1};
inline constexpr t4mi_frame_descriptor_field v_y_divisor_less_1{139, 1};
// 140: zero.
inline constexpr t4mi_frame_descriptor_field y_offset{141, 4};
inline constexpr t4mi_frame_descriptor_field u_offset{145, 4};
inline constexpr t4mi_frame_descriptor_field v_offset{149, 4};
inline constexpr t4mi_frame_descriptor_field alpha_offset{153, 4};  // t4mi_frame_descriptor_no_plane without alpha
// Rows of each plane less one; alpha_rows is 0 without alpha.
inline constexpr t4mi_frame_descriptor_field y_rows{157, 2};
inline constexpr t4mi_frame_descriptor_field u_rows{159, 2};
inline constexpr t4mi_frame_descriptor_field v_rows{161, 2};
inline constexpr t4mi_frame_descriptor_field alpha_rows{163, 2};
static_assert(alpha_rows.end() == t4mi_frame_descriptor_length, "the last field ends the descriptor");
} // namespace t4mi_frame_descriptor_fields

// Reads one field of the descriptor at `descriptor`.
inline constexpr uint64_t t4mi_frame_descriptor_get(const uint8_t* descriptor, t4mi_frame_descriptor_field field)
{
    uint64_t value = 0;
    for (int i = field.size - 1; i >= 0; --i)
        value = (value << 8) | descriptor[field.offset + i];
    return value;
}

// Writes one field (the low `field.size` bytes of `value`).
inline constexpr void t4mi_frame_descriptor_put(uint8_t* descriptor, t4mi_frame_descriptor_field field, uint64_t value)
{
    for (int i = 0; i < field.size; ++i)
        descriptor[field.offset + i] = uint8_t(value >> (8 * i));
}

// The fields a reader of the pixels needs.
struct t4mi_frame_descriptor_view {
    int64_t frame_number = 0;
    uint16_t width = 0, height = 0;             // pixels
    uint16_t aspect_num = 0, aspect_den = 0;    // 0 and 0: not known
    uint16_t buffer = 0;
    uint16_t y_stride = 0, u_stride = 0, v_stride = 0, alpha_stride = 0;  // bytes per row
    uint32_t y_offset = 0, u_offset = 0, v_offset = 0, alpha_offset = 0;  // bytes in the buffer
    uint16_t y_rows = 0, u_rows = 0, v_rows = 0, alpha_rows = 0;          // each rows - 1
    uint8_t chroma_x_divisor_less_1 = 0, chroma_y_divisor_less_1 = 0;     // of U (V is the same)
    bool has_alpha() const { return alpha_offset != t4mi_frame_descriptor_no_plane; }
};

// Reads the descriptor at `bytes`. False when fewer than 165 bytes are
// given or the magic or the length field is wrong; `*out` is then unchanged.
// Nothing is checked against a buffer: the caller still has to see that
// every plane lies inside what it mapped.
inline bool t4mi_parse_frame_descriptor(const uint8_t* bytes, size_t size, t4mi_frame_descriptor_view* out)
{
    namespace f = t4mi_frame_descriptor_fields;
    if (bytes == nullptr || size < t4mi_frame_descriptor_length ||
        t4mi_frame_descriptor_get(bytes, f::magic) != t4mi_frame_descriptor_magic ||
        t4mi_frame_descriptor_get(bytes, f::length) != t4mi_frame_descriptor_length)
        return false;
    auto get = [bytes](t4mi_frame_descriptor_field field) { return t4mi_frame_descriptor_get(bytes, field); };
    t4mi_frame_descriptor_view v;
    v.frame_number = int64_t(get(f::frame_number));
    v.width = uint16_t(get(f::width));
    v.height = uint16_t(get(f::height));
    v.aspect_num = uint16_t(get(f::aspect_num));
    v.aspect_den = uint16_t(get(f::aspect_den));
    v.buffer = uint16_t(get(f::buffer));
    v.y_stride = uint16_t(get(f::y_stride));
    v.u_stride = uint16_t(get(f::u_stride));
    v.v_stride = uint16_t(get(f::v_stride));
    v.alpha_stride = uint16_t(get(f::alpha_stride));
    v.chroma_x_divisor_less_1 = uint8_t(get(f::u_x_divisor_less_1));
    v.chroma_y_divisor_less_1 = uint8_t(get(f::u_y_divisor_less_1));
    v.y_offset = uint32_t(get(f::y_offset));
    v.u_offset = uint32_t(get(f::u_offset));
    v.v_offset = uint32_t(get(f::v_offset));
    v.alpha_offset = uint32_t(get(f::alpha_offset));
    v.y_rows = uint16_t(get(f::y_rows));
    v.u_rows = uint16_t(get(f::u_rows));
    v.v_rows = uint16_t(get(f::v_rows));
    v.alpha_rows = uint16_t(get(f::alpha_rows));
    *out = v;
    return true;
}
