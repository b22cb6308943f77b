// The wire form of control-socket packets (docs/protocol.md has the bytes).
//
// A packet is a 16-byte header followed by its body, little-endian:
//   header   "T4MP", total length u32 (header included), version u16 (1),
//            flags u16, request id u32
//   body     command (u16 length + bytes), status (u16 + bytes),
//            argument count u16, each argument (u16 + bytes),
//            entry count u16, each entry (u16 name length + name,
//            u32 value length + value), data (u32 length + bytes)
// The body must end exactly at the total length. Command, status, arguments
// and entry names are text without NUL bytes; values and data are any bytes.
//
// Decoding never trusts a length: everything is checked against the bytes at
// hand and the packet's own total length before it is used.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/packet.h"  // the packet, its header and the header flags

inline constexpr char comm_socket_v4_magic[4] = {'T', '4', 'M', 'P'};
inline constexpr uint16_t comm_socket_v4_version = 1;
inline constexpr size_t comm_socket_v4_header_size = 16;
// The smallest packet: a header and an empty body (28 bytes).
inline constexpr size_t comm_socket_v4_min_packet = comm_socket_v4_header_size + 2 + 2 + 2 + 2 + 4;
// The largest packet either side sends or accepts, header included.
inline constexpr size_t comm_socket_v4_max_packet = 8u << 20;

enum class comm_socket_v4_decode_result {
    ok,          // one packet decoded
    incomplete,  // the bytes so far are a valid start; more are needed
    malformed,   // not a packet: bad magic, version or lengths
};

// Looks at the start of a byte stream. `ok` when the header is complete and
// valid (magic, version 1, length between the minimum and the maximum),
// whether or not the body has arrived yet; `incomplete` with fewer than 16
// bytes whose start is still possible; `malformed` otherwise.
comm_socket_v4_decode_result comm_socket_v4_peek_header(const uint8_t* bytes, size_t size,
                                                        comm_socket_v4_header* header);

// Decodes the packet at the start of `bytes` into `packet` (replaced whole)
// and `header`; `*consumed` gets its length. `incomplete` when the packet has
// not fully arrived, `malformed` when it cannot be a packet; `packet` is then
// unspecified.
comm_socket_v4_decode_result comm_socket_v4_packet_decode(const uint8_t* bytes, size_t size,
                                                          comm_socket_v4_packet* packet,
                                                          comm_socket_v4_header* header, size_t* consumed);

// Appends the wire form of `packet` to `out`. False, with `out` as it was,
// when a field does not fit its length field, a text field holds a NUL byte,
// or the packet would pass comm_socket_v4_max_packet.
bool comm_socket_v4_packet_encode(const comm_socket_v4_packet& packet, uint16_t flags, uint32_t request_id,
                                  std::vector<uint8_t>* out);
