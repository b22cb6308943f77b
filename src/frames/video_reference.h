// The program's frame reference: finds or renders its frame for its context.
//
// Every slot first finds the context through its key (and the connection);
// a context that is gone makes every slot return null (0). The frames belong
// to the context's reader (its frame cache); the reference only holds them.
#pragma once

#include "platform/video_reference.h"

class scrolling_text_client_context;

class scrolling_text_video_reference : public t4mi_video_frame_reference {
public:
    using t4mi_video_frame_reference::t4mi_video_frame_reference;

    // The cached frame for (frame_number, variant), or null; never renders.
    // Waits for the shared buffer first (see wait_for_shared_buffer). A
    // cached frame whose buffer was dropped meanwhile is stale: the unused
    // frames of the reader are flushed and null is returned, so the frame is
    // rendered afresh.
    t4mi_video_frame* find_frame(const t4mi_frame_request& request, t4mi_connection* connection) override;
    // load_frame's result for (frame_number, variant), rendering it when not
    // cached. Marks the context's timing as taken and creates its reader on
    // first use; waits for the shared buffer first.
    t4mi_video_frame* render_frame(const t4mi_frame_request& request, t4mi_connection* connection) override;
    // Scrolling text: the requested number. Static text: 0, with `variant`
    // set to the context's layout_generation, so every request shares one
    // frame per layout.
    uint64_t frame_number_to_render(const t4mi_frame_request& request, t4mi_connection* connection) override;

private:
    scrolling_text_client_context* context(t4mi_connection* connection) const;
};

// Waits until the shared buffer is ready (tnb_default_buffer_load() == 0),
// serving the control socket and the other contexts every 5 ms meanwhile.
// True when ready; false when the wait was given up because a signal asked
// the process to stop or `connection` (when given) closed meanwhile: waiting
// on would serve nobody.
bool wait_for_shared_buffer(t4mi_connection* connection);
