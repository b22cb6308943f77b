// A frame a client has asked for, by number and variant, for one context.
//
// The serving side makes one reference per "frame" request through the
// registry's reference factory and drives it through its virtual slots, in
// this order: examine_request, load_video_and_return_descriptor (which asks
// frame_number_to_render, then find_frame, then render_frame on a miss, and
// takes a hold on the frame with addref_frame). The reference then stays in
// its context until the client releases it (release_frame), the hold
// expires, or the context closes.
//
// The frame itself belongs to whoever rendered it (the program's frame
// cache); a reference only holds a count on it (t4mi_video_frame::refcount),
// so a held frame is never flushed from a cache.
#pragma once

#include <cstdint>

class t4mi_video_frame;
struct t4mi_connection;

// A "frame" request as the client sent it.
struct t4mi_frame_request {
    uint64_t frame_number = 0;
    uint32_t variant = 0;
    uint32_t flags = 0;       // passed through to the renderer; no meaning here
    uint32_t request_id = 0;  // echoed in the reply
};

// Where a frame lies, as the reply tells the client.
struct t4mi_frame_location {
    int32_t buffer = -1;             // shared buffer id (1..65535)
    uint64_t offset = 0;             // bytes from the buffer start to the allocation (the Y plane)
    uint64_t length = 0;             // bytes of the allocation
    uint64_t descriptor_offset = 0;  // bytes from the allocation start to the frame descriptor
    uint32_t descriptor_length = 0;  // 165
    int64_t frame_number = 0;        // the number the frame was rendered for (0 for a static text)
    int32_t width = 0;               // pixels
    int32_t height = 0;
};

class t4mi_video_frame_reference {
public:
    t4mi_video_frame_reference(uint64_t context_id_, uint64_t frame_number_, uint32_t variant_)
        : context_id(context_id_), frame_number(frame_number_), variant(variant_),
          requested_frame(frame_number_), requested_variant(variant_) {}
    // Does not touch the frame: whoever drops a holding reference calls
    // release_frame first (the frame may already be gone otherwise).
    virtual ~t4mi_video_frame_reference() = default;
    t4mi_video_frame_reference(const t4mi_video_frame_reference&) = delete;
    t4mi_video_frame_reference& operator=(const t4mi_video_frame_reference&) = delete;

    // Takes a hold on `frame` (its count goes up; its last-use time is now).
    virtual void addref_frame(t4mi_video_frame* frame);
    // Gives the hold back (count down, last-use time now); no-op without one.
    virtual void release_frame();
    // The cached frame for this reference, or null; never renders.
    virtual t4mi_video_frame* find_frame(const t4mi_frame_request& request, t4mi_connection* connection);
    // The frame, rendered when not cached; null when it cannot be made.
    virtual t4mi_video_frame* render_frame(const t4mi_frame_request& request, t4mi_connection* connection);
    // The frame number to look up and render; may also change `variant`.
    // The base returns `frame_number`.
    virtual uint64_t frame_number_to_render(const t4mi_frame_request& request, t4mi_connection* connection);
    // Sets `frame_number` from frame_number_to_render, finds or renders the
    // frame, holds it and fills `out`. 0 on success; non-zero when there is
    // no frame (nothing is held then).
    virtual int load_video_and_return_descriptor(const t4mi_frame_request& request, t4mi_connection* connection,
                                                 t4mi_frame_location* out);
    // 0 when the request may be served (its context exists and is not closing).
    virtual int examine_request(const t4mi_frame_request& request, t4mi_connection* connection);

    uint64_t context_id;       // key of the client context in t4mi_client_contexts
    uint64_t frame_number;     // what is rendered: the request's number, or what the program maps it to
    uint32_t variant;          // the same for the variant
    uint64_t requested_frame;  // as the client asked: a "release" names these two
    uint32_t requested_variant;
    t4mi_video_frame* frame = nullptr;  // held frame; not owned
    uint64_t held_since = 0;            // monotonic µs of addref_frame
};
