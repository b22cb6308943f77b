// Client contexts: one per connection of the control socket.
//
// The registry `t4mi_client_contexts` makes contexts through the factory the
// program installs, keeps them by id in creation order, and makes frame
// references through the second factory. The serving side (socket, frame
// requests) drives them; the program's context class derives from
// t4mi_client_context and overrides the virtual operations.
//
// A context owns the frame references its client holds; the connection
// (platform/serve.h) owns the requests not run yet and finds its context by
// id, so either may go first at shut-down.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include <t4mi/settings.h>  // t4mi_client_settings, what a client sends

#include "platform/video_reference.h"

struct comm_socket_v4_packet;
struct t4mi_connection;

class t4mi_client_context {
public:
    explicit t4mi_client_context(uint64_t id);
    // Drops the references still held without touching their frames (a
    // derived context expires them while its frames still exist).
    virtual ~t4mi_client_context();
    t4mi_client_context(const t4mi_client_context&) = delete;
    t4mi_client_context& operator=(const t4mi_client_context&) = delete;

    // Takes over a client's picture settings.
    virtual void apply_client_settings(const t4mi_client_settings& settings);

    // Takes schedule data (a "data" packet: JSON text in the blob). Returns
    // true when nothing changed. The base keeps nothing and returns true.
    virtual bool apply_data_packet(const comm_socket_v4_packet* packet);

    // Frame requests queued but not answered yet, and frame references the
    // client still holds: the serve loop counts them to tell busy from idle.
    virtual size_t pending_request_count() const;
    virtual size_t outstanding_reference_count() const { return references.size(); }

    // Releases every frame reference the client holds (release_frame on
    // each, then deletes it).
    virtual void expire_all_references();

    // Takes over a reference that holds its frame. Owned by the context now.
    void add_reference(t4mi_video_frame_reference* reference);
    // Releases and deletes one reference the client asked for as (frame,
    // variant); false when it holds none.
    bool release_reference(uint64_t requested_frame, uint32_t requested_variant);
    // Releases and deletes the references held since `limit_us` (monotonic
    // µs) or earlier; returns how many.
    size_t expire_references_held_since(uint64_t limit_us);

    uint64_t id;
    uint32_t picture_width = 640;
    uint32_t picture_height = 480;
    int64_t time_scale = 30000;
    int64_t frame_duration = 1001;
    int64_t screen_aspect_num = 0;
    int64_t screen_aspect_den = 0;
    uint64_t item_length = 0;     // frames of one pass of the item
    int state_configured = 0;     // 1 once the client's settings were applied
    int state_pending = 1;        // 0 once configured
    bool closing = false;
    t4mi_connection* connection = nullptr;  // the client's connection; null once it closed
    // Frame references the client holds, oldest first.
    std::vector<std::unique_ptr<t4mi_video_frame_reference>> references;
};

class t4mi_client_context_registry {
public:
    using context_factory = std::function<t4mi_client_context*(uint64_t id)>;
    using reference_factory =
        std::function<t4mi_video_frame_reference*(uint64_t context_id, uint64_t frame_number, uint32_t variant)>;

    void set_context_factory(context_factory f) { make_context = std::move(f); }
    void set_reference_factory(reference_factory f) { make_reference = std::move(f); }
    bool has_context_factory() const { return bool(make_context); }
    bool has_reference_factory() const { return bool(make_reference); }

    // Makes a context with the next id through the factory; null without one.
    t4mi_client_context* create();
    t4mi_client_context* get(uint64_t id) const;
    void destroy(uint64_t id);
    void destroy_all();
    size_t count() const { return contexts.size(); }

    // Ordered by id, i.e. by creation.
    const std::map<uint64_t, std::unique_ptr<t4mi_client_context>>& all() const { return contexts; }

    t4mi_video_frame_reference* create_reference(uint64_t context_id, uint64_t frame_number, uint32_t variant) const;

private:
    context_factory make_context;
    reference_factory make_reference;
    std::map<uint64_t, std::unique_ptr<t4mi_client_context>> contexts;
    uint64_t next_id = 1;
};

// Closes and frees every client context.
void close_t4mi_client_contexts();

// The context with key `id`, or null when there is none or, with a non-null
// `connection`, when it belongs to another connection.
t4mi_client_context* client_context_tracking_get_id(const t4mi_client_context_registry& registry, uint64_t id,
                                                    const t4mi_connection* connection);
