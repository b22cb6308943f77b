// Placeholder until the layout lands: only the bookkeeping every layout run
// does (caches cleared, a new generation, the old frames flushed), so that
// its callers already behave as they will. No glyph is placed.
#include "frames/client_context.h"
#include "frames/reader.h"
#include "platform/t4mi_assert.h"

void scrolling_text_client_context::recompute_text_times()
{
    T4MI_ASSERT(reader != NULL);
    glyph_placements.clear();
    placement_count = 0;
    cycle_length = 0;
    text_dirty = false;
    feed_dirty = false;
    scroll_step = 4096;
    frames_per_step = 1;
    clear_bitmap_caches();
    layout_generation += 1;
    reader->frame_manager.flush_unused_frames(999999);
}
