#include "platform/video_reference.h"

#include "platform/client_context.h"
#include "platform/clock.h"
#include "platform/t4mi_globals.h"
#include "platform/tnb.h"
#include "platform/video_frame.h"

void t4mi_video_frame_reference::addref_frame(t4mi_video_frame* f)
{
    release_frame();
    held_since = monotonic_clock_us();
    f->addref(held_since);
    frame = f;
}

void t4mi_video_frame_reference::release_frame()
{
    if (frame == nullptr)
        return;
    frame->deref(monotonic_clock_us());
    frame = nullptr;
}

t4mi_video_frame* t4mi_video_frame_reference::find_frame(const t4mi_frame_request&, t4mi_connection*)
{
    return nullptr;
}

t4mi_video_frame* t4mi_video_frame_reference::render_frame(const t4mi_frame_request&, t4mi_connection*)
{
    return nullptr;
}

uint64_t t4mi_video_frame_reference::frame_number_to_render(const t4mi_frame_request&, t4mi_connection*)
{
    return frame_number;
}

int t4mi_video_frame_reference::load_video_and_return_descriptor(const t4mi_frame_request& request,
                                                                 t4mi_connection* connection,
                                                                 t4mi_frame_location* out)
{
    frame_number = frame_number_to_render(request, connection);
    t4mi_video_frame* f = find_frame(request, connection);
    if (f == nullptr)
        f = render_frame(request, connection);
    // A frame whose allocation went away with its buffer cannot be handed out.
    if (f == nullptr || !tnb_alloc_is_live(&f->tnb_alloc) || f->descriptor_refs[0].length == 0)
        return 1;
    addref_frame(f);
    out->buffer = f->tnb_alloc.buffer;
    out->offset = f->tnb_alloc.offset;
    out->length = f->tnb_alloc.length;
    out->descriptor_offset = f->descriptor_refs[0].offset;
    out->descriptor_length = f->descriptor_refs[0].length;
    out->frame_number = f->descriptor_refs[0].frame_number;
    out->width = f->width;
    out->height = f->height;
    return 0;
}

int t4mi_video_frame_reference::examine_request(const t4mi_frame_request&, t4mi_connection* connection)
{
    const t4mi_client_context* ctx = client_context_tracking_get_id(t4mi_client_contexts, context_id, connection);
    return ctx == nullptr || ctx->closing ? 1 : 0;
}
