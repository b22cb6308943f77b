// Any bytes as a control-socket stream: every packet that decodes must encode
// back to the same bytes, and decoding never reads past what it was given.
#include <cstring>
#include <vector>

#include "platform/packet_codec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    comm_socket_v4_packet packet;
    comm_socket_v4_header header;
    size_t consumed = 0;
    if (comm_socket_v4_packet_decode(data, size, &packet, &header, &consumed) != comm_socket_v4_decode_result::ok)
        return 0;
    std::vector<uint8_t> again;
    if (consumed > size || !comm_socket_v4_packet_encode(packet, header.flags, header.request_id, &again) ||
        again.size() != consumed || std::memcmp(again.data(), data, consumed) != 0)
        __builtin_trap();
    return 0;
}
