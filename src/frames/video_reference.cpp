#include "frames/video_reference.h"

#include <unistd.h>

#include "frames/client_context.h"
#include "frames/compositor.h"
#include "frames/reader.h"
#include "items/scroll_settings.h"
#include "platform/client_context.h"
#include "platform/serve.h"
#include "platform/t4mi_globals.h"
#include "platform/tnb.h"
#include "platform/video_frame.h"

bool wait_for_shared_buffer(t4mi_connection* connection)
{
    while (tnb_default_buffer_load() != 0) {
        // Departures from a plain wait: a signal still stops the process
        // (the serve loop is not reached while this waits), and a client
        // that left is not waited for.
        if (DIE4 != 0 || (connection != nullptr && t4mi_connection_is_closed(connection)))
            return false;
        idle_t4mi_server_comm();
        idle_t4mi_client_contexts();
        usleep(5000);
    }
    return true;
}

scrolling_text_client_context* scrolling_text_video_reference::context(t4mi_connection* connection) const
{
    return dynamic_cast<scrolling_text_client_context*>(
        client_context_tracking_get_id(t4mi_client_contexts, context_id, connection));
}

t4mi_video_frame* scrolling_text_video_reference::find_frame(const t4mi_frame_request&, t4mi_connection* connection)
{
    scrolling_text_client_context* ctx = context(connection);
    if (ctx == nullptr || ctx->reader == nullptr || !wait_for_shared_buffer(connection))
        return nullptr;
    my_AVIVideoRandomReader* reader = ctx->reader;
    t4mi_video_frame* f = reader->frame_manager.find_frame(frame_number, variant);
    if (f != nullptr && !tnb_alloc_is_live(&f->tnb_alloc)) {
        // The buffer was dropped while the frame sat in the cache.
        reader->frame_manager.flush_unused_frames(FLUSH_EVERYTHING);
        return nullptr;
    }
    return f;
}

t4mi_video_frame* scrolling_text_video_reference::render_frame(const t4mi_frame_request& request,
                                                               t4mi_connection* connection)
{
    scrolling_text_client_context* ctx = context(connection);
    if (ctx == nullptr)
        return nullptr;
    ctx->timing_taken = 1;
    if (ctx->reader == nullptr)
        ctx->create_reader();
    if (!wait_for_shared_buffer(connection))
        return nullptr;
    return load_frame(ctx->reader, frame_number, variant, ctx, request.flags);
}

uint64_t scrolling_text_video_reference::frame_number_to_render(const t4mi_frame_request&,
                                                                t4mi_connection* connection)
{
    scrolling_text_client_context* ctx = context(connection);
    if (ctx == nullptr)
        return 0;
    if (!scroll_settings.static_)
        return frame_number;
    variant = uint32_t(ctx->layout_generation);
    return 0;
}
