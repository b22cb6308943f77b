// Serving the control socket: the calls the serve loop makes every turn.
//
// All of it runs on the one main thread. A frame request is run inside
// idle_t4mi_client_contexts; while it waits for the shared buffer it may
// call idle_t4mi_server_comm and idle_t4mi_client_contexts again (see each
// contract below for what a nested call does).
//
// Contracts, in the order the serve loop calls them:
//
//   json_check_xmit(now_us)
//     At most once a second (and at once after json_next_xmit was set to
//     0), rebuilds the item's JSON view (unless json_next_xmit_rebuild is
//     set) and sends it as a "status" push to every client that subscribed
//     with "status" subscribe=1, when it differs from what that client got
//     last. Nothing without a server.
//
//   comm_socket_v4_server_from_client_readable(server, deadline_us)
//     Waits until the listening socket or a connection is ready (input, or
//     room for queued output) or the monotonic deadline passes; returns 1
//     when something is ready, 0 on timeout or a signal, -1 when poll fails.
//     Returns 1 at once when packets already received wait to be handled.
//     A null server sleeps until the deadline and returns 0.
//
//   idle_t4mi_server_comm()
//     Accepts new clients (a client context each; see comm_server.h for
//     the connection and descriptor limits), writes queued replies,
//     reads and decodes packets, and handles every packet that is not a
//     frame request ("settings", "release", "data", "status", "exit", and
//     the rest through on_t4mi_custom_packet), in each connection's order.
//     Drops misbehaving clients. Returns the amount of work done (0: none),
//     or -1 when the listening socket failed. Without a server: 0. Nested in
//     a frame request it works the same but leaves the waiting client's
//     later packets alone and frees no connection.
//
//   idle_t4mi_client_contexts()
//     Runs at most one pending frame request per connection, in connection
//     order, and answers it. Returns how many it ran; never negative today
//     (a negative result would mean the serving side failed). Nested in a
//     frame request it does nothing and returns 0. Once a stop signal came
//     (DIE4) it runs no further request.
//
//   t4mi_idle_housekeeping()
//     Releases frame holds older than picture_auto_deref_delay, moves the
//     auto-shutdown deadline while clients are connected, drops connections
//     whose packet stayed unfinished too long, and frees closed connections
//     with their client contexts.
//
// Auto-shutdown: when both mono_auto_shutdown and auto_shutdown_delay_initial
// are non-zero, every accepted connection, every packet received and every
// housekeeping call with a client connected moves mono_auto_shutdown to now
// + auto_shutdown_delay_initial (never earlier). So the process ends that
// long after start-up when nobody connects, or that long after the last
// client left. A deadline of 0 stays 0 (never).
#pragma once

#include <cstddef>
#include <cstdint>

struct comm_socket_v4_server;
struct t4mi_connection;

int comm_socket_v4_server_from_client_readable(comm_socket_v4_server* server, uint64_t deadline_us);
int idle_t4mi_server_comm();
int idle_t4mi_client_contexts();
void t4mi_idle_housekeeping();
void json_check_xmit(uint64_t now_us);

// Moves the auto-shutdown deadline for client activity at `now_us` (the rule above).
void t4mi_note_client_activity(uint64_t now_us);

// Frame requests of the connection not answered yet (the running one included).
size_t t4mi_connection_pending_frame_requests(const t4mi_connection* connection);
// True once the connection is closed or dropped: nobody will read an answer.
bool t4mi_connection_is_closed(const t4mi_connection* connection);
// The connection's serial number (1, 2, ... in accept order).
uint64_t t4mi_connection_serial(const t4mi_connection* connection);
