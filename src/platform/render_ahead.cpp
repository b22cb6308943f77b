#include "platform/render_ahead.h"

#include <cstdint>
#include <memory>

#include "platform/client_context.h"
#include "platform/comm_server_p.h"
#include "platform/t4mi_globals.h"
#include "platform/tnb.h"
#include "platform/video_reference.h"

namespace {
uint64_t rendered_count = 0;
uint64_t used_count = 0;
} // namespace

void t4mi_render_ahead_note(t4mi_connection* c, const t4mi_frame_request& request)
{
    if (t4mi_render_ahead == 0 || request.frame_number >= uint64_t(INT64_MAX))
        return;
    t4mi_frame_request next;
    next.frame_number = request.frame_number + 1;
    next.variant = request.variant;
    next.flags = request.flags;
    c->ahead_due = next;
}

void t4mi_render_ahead_count_request(t4mi_connection* c, const t4mi_frame_request& request)
{
    if (!c->ahead_made)
        return;
    if (request.frame_number == c->ahead_made->frame_number && request.variant == c->ahead_made->variant)
        used_count++;
    c->ahead_made.reset();
}

bool t4mi_render_ahead_step()
{
    // Never nested in a frame request, and never while the buffer is being
    // replaced: a real request would wait for it, this one need not.
    if (t4mi_render_ahead == 0 || t4mi_comm_server == nullptr || t4mi_serve_depth > 0 ||
        tnb_default_buffer_load() != 0)
        return false;
    for (const auto& [serial, owned] : t4mi_comm_server->connections) {
        t4mi_connection* c = owned.get();
        if (!c->ahead_due)
            continue;
        const t4mi_frame_request request = *c->ahead_due;
        c->ahead_due.reset();
        // A request already waiting comes first; its reply notes the next one.
        if (c->closed || c->pending_frames > 0 || c->in_flight)
            continue;
        t4mi_client_context* ctx = client_context_tracking_get_id(t4mi_client_contexts, c->context_id, c);
        if (ctx == nullptr || ctx->closing)
            continue;
        std::unique_ptr<t4mi_video_frame_reference> ref(
            t4mi_client_contexts.create_reference(ctx->id, request.frame_number, request.variant));
        if (!ref)
            continue;
        // Run like a request of the connection (comm_frames.cpp), then let go:
        // the frame stays cached, unheld.
        c->in_flight = true;
        ++t4mi_serve_depth;
        t4mi_frame_location loc;
        int rc = ref->examine_request(request, c);
        if (rc == 0)
            rc = ref->load_video_and_return_descriptor(request, c, &loc);
        --t4mi_serve_depth;
        c->in_flight = false;
        ref->release_frame();
        if (rc == 0) {
            rendered_count++;
            c->ahead_made = request;
        }
        return true;
    }
    return false;
}

uint64_t t4mi_render_ahead_rendered() { return rendered_count; }
uint64_t t4mi_render_ahead_used() { return used_count; }

void t4mi_render_ahead_reset()
{
    rendered_count = 0;
    used_count = 0;
}
