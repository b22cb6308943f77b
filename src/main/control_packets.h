// The program's own control-socket commands: "reload" and "v4::text", and
// "v4::stats" for operator tools (main/stats_packet.h).
#pragma once

struct comm_socket_v4_packet;
struct t4mi_connection;

// 1 when the command was handled (a response is written), 0 when it is not
// one of the program's commands.
int my_custom_packet_handler(comm_socket_v4_packet* request, comm_socket_v4_packet* response, const void* raw,
                             t4mi_connection* client);
