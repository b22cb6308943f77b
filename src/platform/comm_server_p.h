// Internal state of the control-socket server, shared by comm_server.cpp,
// comm_connection.cpp, comm_dispatch.cpp, comm_frames.cpp and serve.cpp.
// Not for use outside src/platform/.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

#include "platform/comm_server.h"
#include "platform/packet.h"
#include "platform/packet_codec.h"
#include "platform/video_reference.h"

// A decoded packet waiting its turn. Frame requests are parsed on arrival so
// that the busy count knows them; a "frame" packet whose entries do not parse
// is not one (it is answered "ERROR" in its turn).
struct t4mi_pending_packet {
    comm_socket_v4_packet packet;
    comm_socket_v4_header header;
    std::vector<uint8_t> raw;      // the packet's bytes, for on_t4mi_custom_packet
    bool is_frame = false;
    t4mi_frame_request frame;
};

// One reply on its way out. `fd`, when not -1, is a duplicate owned here and
// travels (SCM_RIGHTS) with the first bytes sent.
struct t4mi_outgoing {
    std::vector<uint8_t> bytes;
    size_t sent = 0;
    int fd = -1;
};

struct t4mi_connection {
    explicit t4mi_connection(int fd_, uint64_t serial_) : fd(fd_), serial(serial_) {}
    ~t4mi_connection();
    t4mi_connection(const t4mi_connection&) = delete;
    t4mi_connection& operator=(const t4mi_connection&) = delete;

    int fd;
    uint64_t serial;
    uint64_t context_id = 0;            // 0: none
    std::vector<uint8_t> input;         // bytes received, not decoded yet
    std::deque<t4mi_pending_packet> pending;
    size_t pending_frames = 0;          // frame requests in `pending`
    size_t pending_bytes = 0;           // memory `pending` holds: each packet's size twice (raw and decoded)
    uint64_t last_packet_us = 0;        // monotonic µs: accepted, or the last whole packet received
    bool spoke = false;                 // a whole packet was received
    uint64_t unfinished_since_us = 0;   // monotonic µs the packet now in `input` began; 0: none
    bool in_flight = false;             // a frame request of this connection is running
    std::deque<t4mi_outgoing> output;
    size_t output_bytes = 0;            // unsent bytes in `output`
    std::set<int32_t> buffers_sent;     // shared buffers whose descriptor this client got
    bool status_subscribed = false;
    std::string status_last;            // the status text last pushed
    bool closed = false;                // dropped or hung up; freed when nothing runs
    // --render-ahead (platform/render_ahead.h): the frame due to be
    // rendered ahead, and the one rendered ahead last, until a request came.
    std::optional<t4mi_frame_request> ahead_due;
    std::optional<t4mi_frame_request> ahead_made;
};

struct comm_socket_v4_server {
    std::string path;
    int listen_fd = -1;
    pid_t owner = -1;                   // the process that bound the path
    dev_t socket_dev = 0;               // the socket file, so only our own is removed
    ino_t socket_ino = 0;
    std::map<uint64_t, std::unique_ptr<t4mi_connection>> connections;  // by serial
    uint64_t next_serial = 1;
    uint64_t accept_paused_until_us = 0;  // out of descriptors: the listening socket rests until then (monotonic µs)
    // What the serve loop's last poll said of the listening socket, for the
    // next server_accept only. A failed accept() costs the kernel a socket,
    // a file and their freeing, so it is only called when a client waits.
    enum class listen_state { unknown, waiting, empty } listen = listen_state::unknown;
    uint64_t descriptor_limit = 0;        // RLIMIT_NOFILE as last read (UINT64_MAX: none)
    uint64_t descriptor_limit_read_us = 0;
};

// Frame requests running now (nested calls see > 0).
extern int t4mi_serve_depth;

// --- comm_connection.cpp --------------------------------------------------------
// Marks the connection closed, with a line on standard error when `reason`
// is given (a misbehaving client, not a hang-up).
void connection_drop(t4mi_connection* c, const char* reason);
// Queues a packet; drops the connection when its queue passes the limit.
// `fd` (not owned) travels with it when >= 0.
void connection_queue(t4mi_connection* c, const comm_socket_v4_packet& p, uint16_t flags, uint32_t request_id,
                      int fd = -1);
// Writes what the socket takes now. Returns the bytes written.
size_t connection_flush(t4mi_connection* c);
// Reads within the budget and decodes whole packets into `pending`. Returns
// the packets decoded.
size_t connection_read(t4mi_connection* c);
// Takes the packet at the head of `pending` out of the queue.
t4mi_pending_packet connection_take_pending(t4mi_connection* c);
// Input memory the connection holds: its input buffer (allocated, not only
// filled), and its pending packets.
size_t connection_buffered_bytes(const t4mi_connection* c);

// --- comm_dispatch.cpp ----------------------------------------------------------
// Handles the packets at the head of `pending` up to the next frame request.
// Returns how many.
size_t connection_dispatch_control(t4mi_connection* c);
// An "ERROR" reply with a "message" entry.
void reply_error(t4mi_connection* c, const std::string& command, uint32_t request_id, const std::string& message);
// Strict decimal parsing of entry values: digits only (a leading '-' for the
// signed form), no overflow.
bool parse_u64_text(const std::string& text, uint64_t* out);
bool parse_i64_text(const std::string& text, int64_t* out);
// The value of the first entry named `name`, or null.
const std::string* find_entry(const comm_socket_v4_packet& p, const char* name);

// --- comm_frames.cpp ------------------------------------------------------------
// Parses a "frame" packet's entries; false when they do not parse.
bool parse_frame_request(const comm_socket_v4_packet& p, uint32_t request_id, t4mi_frame_request* out);
// Runs the frame request at the head of `pending` and answers it.
void connection_run_frame_request(t4mi_connection* c);

// --- comm_server.cpp ------------------------------------------------------------
// Frees closed connections and their contexts (only when nothing runs).
void server_reap_closed(comm_socket_v4_server* s);
// Accepts what waits, up to a handful. Returns how many, or -1 when the
// listening socket failed. Makes room at the connection limit, and when
// descriptors run short, by evicting the connection idle the longest that
// holds no frames; short of descriptors with nobody idle, new clients wait
// in the backlog and the listening socket rests a moment.
int server_accept(comm_socket_v4_server* s);
// True when `extra` more bytes of input memory for `reader` keep the input
// memory of all connections within max_input_bytes. Otherwise, with
// `make_room`, drops the connection that buffers the most until they do
// (perhaps `reader` itself: then false).
bool server_input_room(comm_socket_v4_server* s, t4mi_connection* reader, size_t extra, bool make_room);
// Drops the connections whose packet stayed unfinished longer than
// unfinished_packet_us.
void server_expire_unfinished(comm_socket_v4_server* s, uint64_t now_us);
