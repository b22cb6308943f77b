// The client side of the control socket (docs/protocol.md): what a playout
// system, a tool or a test uses to talk to a running t4mi_scrolltext.
//
// One t4mi_client is one connection, hence one client context in the
// server. Calls block, each for at most `timeout_ms`; nothing throws; a
// failed call returns false (or 0) and error() says why. After a failure
// that lost the stream (time-out mid-packet, hang-up) the client is closed.
//
// Frames: a frame reply names a shared buffer, an offset and a length; the
// buffer's descriptor arrives once with the first frame in it and is mapped
// read-only for the life of the client (or until a newer buffer replaces it
// and no frame of the old one is held). The plane pointers of a
// t4mi_client_frame stay valid until that frame is released and the client
// requests another, at most until the client is closed.
//
// Not thread-safe: one thread per client.
//
// Link with -lt4mi_client (pkg-config t4mi-client, or the CMake package
// T4miClient); docs/integration.md walks through a whole client.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <t4mi/export.h>
#include <t4mi/frame_descriptor.h>
#include <t4mi/packet.h>
#include <t4mi/settings.h>
#include <t4mi/version.h>

struct T4MI_CLIENT_API t4mi_client_reply {
    comm_socket_v4_packet packet;
    comm_socket_v4_header header;
    bool ok() const { return packet.status == "OK"; }
    // The value of the first entry named `name`; empty when there is none.
    std::string entry(const std::string& name) const;
};

struct t4mi_client_frame {
    uint64_t frame_number = 0;       // as requested
    uint32_t variant = 0;            // as requested
    int64_t rendered = 0;            // the number the frame was rendered for (0 for a static text)
    int32_t buffer = -1;
    uint64_t offset = 0;             // of the allocation in the buffer, bytes
    uint64_t length = 0;             // of the allocation, bytes
    uint64_t descriptor_offset = 0;  // from the allocation start, bytes
    uint32_t width = 0, height = 0;  // pixels
    // The planes, read-only, in this process (4:4:4 is all the server makes;
    // the chroma size follows the descriptor's divisors). alpha is null
    // when the frame has none.
    const uint8_t* y = nullptr;
    const uint8_t* u = nullptr;
    const uint8_t* v = nullptr;
    const uint8_t* alpha = nullptr;
    uint32_t y_stride = 0, u_stride = 0, v_stride = 0, alpha_stride = 0;  // bytes per row
    uint32_t chroma_width = 0, chroma_height = 0;
    const uint8_t* descriptor = nullptr;  // the frame descriptor (t4mi/frame_descriptor.h)
};

class T4MI_CLIENT_API t4mi_client {
public:
    t4mi_client() = default;
    ~t4mi_client();
    t4mi_client(const t4mi_client&) = delete;
    t4mi_client& operator=(const t4mi_client&) = delete;

    // Connects to the server's socket, retrying until it is there or the
    // time-out passes.
    bool connect(const std::string& socket_path, int connect_timeout_ms = 5000);
    // Closes the connection and unmaps every buffer (the server then frees
    // whatever this client held).
    void close();
    bool connected() const { return fd >= 0; }
    const std::string& error() const { return last_error; }
    int descriptor() const { return fd; }

    // Per-call time-out in milliseconds.
    int timeout_ms = 10000;
    // When set, called between short waits (about 1 ms) while a call waits
    // for the server: a test that runs the server in the same thread pumps
    // it from here.
    std::function<void()> idle_hook;

    // --- packets --------------------------------------------------------------
    // Sends a request; returns its id (never 0), or 0 on failure.
    uint32_t send(const comm_socket_v4_packet& request);
    // Waits for the reply to `request_id`. Replies to other requests read
    // meanwhile are kept for their own wait; pushed packets go to pushes().
    bool wait_reply(uint32_t request_id, t4mi_client_reply* reply);
    // send + wait_reply.
    bool call(const comm_socket_v4_packet& request, t4mi_client_reply* reply);
    // Waits up to `wait_ms` for a pushed packet ("status" updates).
    bool next_push(t4mi_client_reply* push, int wait_ms);

    // --- commands ---------------------------------------------------------------
    // "settings": fields left 0 are not sent. `reply` (optional) gets the
    // answer, which gives the context's size and timing.
    bool send_settings(const t4mi_client_settings& settings, t4mi_client_reply* reply = nullptr);
    // "frame": requests and maps frame `n`. False on an "ERROR" reply (its
    // message in error()) or a reply whose location does not fit the buffer.
    bool request_frame(uint64_t n, uint32_t variant, uint32_t flags, t4mi_client_frame* frame);
    // The same in two halves, so that several requests can be in flight.
    uint32_t send_frame_request(uint64_t n, uint32_t variant = 0, uint32_t flags = 0);
    bool receive_frame(uint32_t request_id, t4mi_client_frame* frame);
    // "release": gives frame `n` (as requested) back.
    bool release_frame(uint64_t n, uint32_t variant = 0);
    // The same in two halves: the frame counts as given back from the send,
    // so a client that keeps requesting need not wait for the answer.
    uint32_t send_release(uint64_t n, uint32_t variant = 0);
    bool receive_release(uint32_t request_id);
    // "data": schedule data (JSON text). `changed` (optional) tells whether
    // the server's context took it as new.
    bool send_data(const std::string& json, bool* changed = nullptr);
    // "reload".
    bool reload();
    // "v4::text" with the entries in order.
    bool set_text(const std::vector<std::pair<std::string, std::string>>& entries);
    // "status": the item's JSON view; `subscribe` 1 asks for pushes when it
    // changes, 0 stops them, -1 leaves it as it is.
    bool status(std::string* json, int subscribe = -1);

private:
    struct mapping {
        const uint8_t* base = nullptr;
        size_t size = 0;
        size_t held = 0;  // frames of this buffer not released
    };

    bool fail(const std::string& message);
    bool wait_io(short events, int64_t deadline_ms);
    bool write_all(const std::vector<uint8_t>& bytes);
    // Reads what is there (waiting up to the deadline for something) and
    // decodes whole packets. False on a hang-up, an error or garbage.
    bool read_some(int64_t deadline_ms);
    bool decode_buffered();
    bool map_buffer(int32_t buffer, int buffer_fd);
    bool locate_frame(const t4mi_client_reply& reply, t4mi_client_frame* frame);
    void unmap_all();

    int fd = -1;
    std::string last_error;
    uint32_t next_id = 1;
    std::vector<uint8_t> input;
    std::deque<int> received_fds;
    std::map<uint32_t, t4mi_client_reply> replies;  // by request id
    std::deque<t4mi_client_reply> pushed;
    std::map<int32_t, mapping> buffers;
    std::map<std::pair<uint64_t, uint32_t>, std::vector<int32_t>> held_frames;  // (frame, variant) -> buffers
};

// Reads "<metadir>/status.json" (written by the server at start-up): true
// with the socket path when it says ready.
T4MI_CLIENT_API bool t4mi_client_read_ready(const std::string& metadir, std::string* socket_path);
