// The program's own control-socket commands: "reload" and "v4::text", and
// "v4::stats" for operator tools (main/stats_packet.h).
#pragma once

struct comm_socket_v4_packet;
struct t4mi_connection;

#include <cstddef>

// The largest "v4::text" a client may send, in bytes of entry value: the
// "text" entry, and each other entry. Past them the packet gets "ERROR" with
// a message and nothing of it is applied. Every client's next frame lays the
// whole text out on the one serving thread (docs/protocol.md, "Limits").
inline constexpr size_t MAX_TEXT_ENTRY_BYTES = 32u << 10;
inline constexpr size_t MAX_SETTING_ENTRY_BYTES = 1024;

// 1 when the command was handled (a response is written), 0 when it is not
// one of the program's commands.
int my_custom_packet_handler(comm_socket_v4_packet* request, comm_socket_v4_packet* response, const void* raw,
                             t4mi_connection* client);
