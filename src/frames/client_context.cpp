#include "frames/client_context.h"

#include "fonts/font_bmp.h"
#include "frames/reader.h"
#include "items/scroll_settings.h"
#include "platform/t4mi_globals.h"

scrolling_text_client_context::scrolling_text_client_context(uint64_t id_) : t4mi_client_context(id_) {}

double scrolling_text_client_context::pixel_aspect_factor(double width, double height) const
{
    if (screen_aspect_num < 1 || screen_aspect_den < 1)
        return 1.0;
    return width / (double(screen_aspect_num) * height / double(screen_aspect_den));
}

scrolling_text_client_context::~scrolling_text_client_context()
{
    // Holds first, so that the frames they point at still exist; then the
    // frames, then everything the layout and the text made.
    closing = true;
    expire_all_references();
    if (reader != nullptr) {
        reader->frame_manager.flush_all_frames();
        delete reader;
        reader = nullptr;
    }
    clear_bitmap_caches();
    data = json11::Json();
    runs.clear();
    glyph_placements.clear();
    placement_count = 0;
}

void scrolling_text_client_context::clear_bitmap_caches()
{
    // The shadow cache never holds glyph records: without blur the shadow
    // lookup hands out the glyph itself and caches nothing.
    for (auto* cache : {&glyph_cache, &shadow_cache, &outline_cache}) {
        for (auto& entry : *cache)
            font_bmp_free(entry.second);
        cache->clear();
    }
}

void scrolling_text_client_context::create_reader()
{
    auto* r = new my_AVIVideoRandomReader;
    if (picture_width != 640 || picture_height != 480)
        text_dirty = true;
    r->frame_width = int32_t(picture_width);
    r->frame_height = int32_t(picture_height);
    r->time_scale = time_scale;
    r->frame_duration = frame_duration;
    reader = r;
}

void scrolling_text_client_context::apply_client_settings(const t4mi_client_settings& s)
{
    bool relayout = false;
    // Timing is taken once: later settings (or a first frame request, which
    // also sets the flag) keep the frame numbering stable.
    if (!timing_taken && s.frame_duration >= 1 && s.time_scale >= 1) {
        frame_duration = s.frame_duration;
        time_scale = s.field_rate > 0 ? s.time_scale * 2 : s.time_scale;
    }
    timing_taken = 1;
    if (reader == nullptr)
        create_reader();

    if (s.aspect_num > 0 && s.aspect_den > 0) {
        if (s.aspect_num != frame_aspect[0] || s.aspect_den != frame_aspect[1]) {
            text_dirty = true;
            relayout = true;
        }
        frame_aspect[0] = int32_t(s.aspect_num);
        frame_aspect[1] = int32_t(s.aspect_den);
        screen_aspect_num = s.aspect_num;
        screen_aspect_den = s.aspect_den;
        // Deliberate: cleared whenever a pair is given, changed or not.
        clear_bitmap_caches();
    }
    if (s.height > 0)
        picture_height = uint32_t(s.height);
    if (s.width > 0)
        picture_width = uint32_t(s.width);

    if (reader->frame_width != int32_t(picture_width) || reader->frame_height != int32_t(picture_height)) {
        text_dirty = true;
        relayout = true;
    }
    reader->frame_width = int32_t(picture_width);
    reader->frame_height = int32_t(picture_height);
    reader->frame_manager.flush_unused_frames(FLUSH_EVERYTHING);

    state_configured = 1;
    state_pending = 0;
    json_next_xmit = 0;  // the item's state goes out again soon
    if (relayout)
        recompute_text_times();
}
