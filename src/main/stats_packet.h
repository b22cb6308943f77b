// "v4::stats": the program's figures for an operator's tool (t4mi_panel), as
// JSON in the reply's data. Opt-in: nothing else answers differently because
// it exists. docs/protocol.md lists the keys.
#pragma once

#include <string>

struct comm_socket_v4_packet;

// The JSON text of the reply, at monotonic time `now_us`.
std::string stats_json(uint64_t now_us);

// Writes the "v4::stats" OK reply into `respkt`.
void handle_stats(comm_socket_v4_packet* respkt);
