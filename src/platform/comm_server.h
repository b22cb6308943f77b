// The control socket's listening server: a Unix-domain stream socket at
// `t4mi_sock`, one connection (and one client context) per client.
//
// docs/protocol.md describes what travels over it; platform/serve.h has the
// calls the serve loop makes each turn.
#pragma once

#include <cstddef>
#include <cstdint>

struct comm_socket_v4_server;

// What one client may cost. Each bound costs only the client that passes it:
// past it the connection is refused, made to wait, or dropped, as each line
// says (docs/protocol.md, "Limits").
struct comm_socket_v4_limits {
    size_t max_connections = 64;          // then an idle one without frames makes room; none: closed at once
    uint64_t evict_idle_us = 1000000;     // a client that sent a packet is idle enough to make room after this
    size_t max_pending_packets = 64;      // decoded, not handled yet; then the socket is not read (back-pressure)
    size_t max_output_bytes = 1u << 20;   // replies queued for a client that does not read; past it: dropped
    size_t max_references = 128;          // frames one client holds; past it a "frame" request gets "ERROR"
    size_t read_budget = 256u << 10;      // bytes read from one client per idle call, for fairness
    size_t max_data_bytes = 256u << 10;   // JSON of a "data" packet; past it "ERROR", nothing applied
    size_t max_input_bytes = 32u << 20;   // buffered input of all connections; past it the biggest is dropped
    uint64_t unfinished_packet_us = 5000000;  // a packet unfinished this long drops its connection
    uint64_t accept_pause_us = 100000;    // out of descriptors, the listening socket rests this long
    size_t descriptor_headroom = 16;      // descriptors kept for serving; short of them, new clients wait (or an idle one makes room)
};
// The limits in force (tests lower them).
extern comm_socket_v4_limits comm_socket_v4_server_limits;

// Creates the server: replaces a stale socket file at `path` (one nobody
// listens on any more; a file that is not a socket is left alone and the
// call fails), binds with mode 0600 so only the item's owner (and root) can
// connect, and listens. Null on failure, with
// "Cannot create control socket '<path>': <reason>\n" on standard error;
// the reason is "already served by pid N" when a live server listens there
// (that server, its socket and its files are left untouched), and names the
// directory's fault when the socket's directory is not ours or is writable
// by group or others. The socket is close-on-exec and non-blocking.
comm_socket_v4_server* comm_socket_v4_server_create(const char* path);

// Closes every connection (destroying its client context), the listening
// socket, removes the socket file (when it is still the one this server
// made) and frees the server. Null is ignored.
void comm_socket_v4_server_close(comm_socket_v4_server* server);

// Re-creates the listening socket at the same path (after daemon(): the
// socket file then belongs to the process that serves). Our own socket file
// is replaced without the liveness check; another one is judged as at
// creation. Connections are kept. 0 on success; a null server has nothing
// to reopen (0).
int comm_socket_v4_reopen_server(comm_socket_v4_server* server);

// Open connections, closed ones not yet reaped included.
size_t comm_socket_v4_server_connection_count(const comm_socket_v4_server* server);
// The listening descriptor, -1 when closed (for tests and diagnostics).
int comm_socket_v4_server_listen_fd(const comm_socket_v4_server* server);
