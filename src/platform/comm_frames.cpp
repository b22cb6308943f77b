// Frame requests: a reference per request through the registry's factory,
// driven through its slots, and the reply that tells the client where the
// frame lies (with the buffer's descriptor the first time).
#include <cstdint>
#include <memory>
#include <string>

#include "platform/client_context.h"
#include "platform/clock.h"
#include "platform/comm_server_p.h"
#include "platform/render_ahead.h"
#include "platform/serve_stats.h"
#include "platform/t4mi_globals.h"
#include "platform/tnb.h"

int t4mi_serve_depth = 0;

bool parse_frame_request(const comm_socket_v4_packet& p, uint32_t request_id, t4mi_frame_request* out)
{
    const std::string* f = find_entry(p, "frame");
    uint64_t frame = 0, variant = 0, flags = 0;
    if (f == nullptr || !parse_u64_text(*f, &frame) || frame > uint64_t(INT64_MAX))
        return false;
    if (const std::string* v = find_entry(p, "variant"); v != nullptr && (!parse_u64_text(*v, &variant) ||
                                                                          variant > UINT32_MAX))
        return false;
    if (const std::string* v = find_entry(p, "flags"); v != nullptr && (!parse_u64_text(*v, &flags) ||
                                                                        flags > UINT32_MAX))
        return false;
    out->frame_number = frame;
    out->variant = uint32_t(variant);
    out->flags = uint32_t(flags);
    out->request_id = request_id;
    return true;
}

namespace {

void reply_frame(t4mi_connection* c, const t4mi_pending_packet& pp, const t4mi_frame_location& loc)
{
    comm_socket_v4_packet r;
    r.command = pp.packet.command;
    r.status = "OK";
    auto add = [&](const char* name, auto value) { r.entries.push_back({name, std::to_string(value)}); };
    add("frame", pp.frame.frame_number);
    add("variant", pp.frame.variant);
    add("rendered", loc.frame_number);
    add("buffer", loc.buffer);
    add("offset", loc.offset);
    add("length", loc.length);
    add("descriptor", loc.descriptor_offset);
    add("descriptor_length", loc.descriptor_length);
    add("width", loc.width);
    add("height", loc.height);
    // The buffer's descriptor goes once per connection and buffer: from then
    // on the client's mapping of it serves every frame in it.
    int fd = -1;
    if (c->buffers_sent.count(loc.buffer) == 0) {
        fd = tnb_buffer_fd(loc.buffer);
        if (fd >= 0)
            c->buffers_sent.insert(loc.buffer);
    }
    connection_queue(c, r, COMM_SOCKET_V4_FLAG_REPLY, pp.header.request_id, fd);
    serve_stats_frame_served(monotonic_clock_us());
}

} // namespace

void connection_run_frame_request(t4mi_connection* c)
{
    t4mi_pending_packet pp = connection_take_pending(c);
    const uint32_t id = pp.header.request_id;
    const std::string& cmd = pp.packet.command;

    t4mi_client_context* ctx = client_context_tracking_get_id(t4mi_client_contexts, c->context_id, c);
    if (ctx == nullptr || ctx->closing) {
        --c->pending_frames;
        reply_error(c, cmd, id, "No client context");
        return;
    }
    if (ctx->references.size() >= comm_socket_v4_server_limits.max_references) {
        --c->pending_frames;
        reply_error(c, cmd, id, "Too many frames held");
        return;
    }
    t4mi_render_ahead_count_request(c, pp.frame);
    std::unique_ptr<t4mi_video_frame_reference> ref(
        t4mi_client_contexts.create_reference(ctx->id, pp.frame.frame_number, pp.frame.variant));
    if (!ref) {
        --c->pending_frames;
        reply_error(c, cmd, id, "Frame not available");
        return;
    }

    // The request stays counted as pending while it runs. The render may
    // wait for the shared buffer and serve the socket meanwhile; the
    // connection and its context are not freed before this returns
    // (t4mi_serve_depth), but the client may hang up.
    c->in_flight = true;
    ++t4mi_serve_depth;
    t4mi_frame_location loc;
    int rc = ref->examine_request(pp.frame, c);
    if (rc == 0)
        rc = ref->load_video_and_return_descriptor(pp.frame, c, &loc);
    --t4mi_serve_depth;
    c->in_flight = false;
    --c->pending_frames;

    if (c->closed) {  // nobody to answer: give the hold back
        ref->release_frame();
        return;
    }
    if (rc != 0) {
        ref->release_frame();
        reply_error(c, cmd, id, "Frame not available");
        return;
    }
    ctx->add_reference(ref.release());
    reply_frame(c, pp, loc);
    t4mi_render_ahead_note(c, pp.frame);
}
