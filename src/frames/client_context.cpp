#include "frames/client_context.h"

#include "fonts/font_bmp.h"
#include "frames/reader.h"
#include "items/scroll_settings.h"

scrolling_text_client_context::scrolling_text_client_context(uint64_t id_) : t4mi_client_context(id_) {}

scrolling_text_client_context::~scrolling_text_client_context()
{
    closing = true;
    expire_all_references();
    delete reader;
    reader = nullptr;
    clear_bitmap_caches();
}

void scrolling_text_client_context::clear_bitmap_caches()
{
    // The shadow cache never holds glyph records: without blur the shadow
    // lookup hands out the glyph itself and caches nothing.
    for (auto* cache : {&glyph_cache, &shadow_cache}) {
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
