#include "platform/video_frame.h"

#include "platform/clock.h"
#include "platform/frame_retention.h"
#include "platform/t4mi_globals.h"

t4mi_video_frame::t4mi_video_frame(int64_t frame_number_)
    : frame_number(frame_number_), last_use(monotonic_clock_us())
{
}

t4mi_video_frame::~t4mi_video_frame()
{
    t4mi_frame_retention_remove(this);
    tnb_free(&tnb_alloc);
}

void t4mi_video_frame::release_allocation() { tnb_free(&tnb_alloc); }

void t4mi_video_frame::release_idle_mappings() { t4mi_global_access_cache_cleanup_idle(t4mi_acc_cache); }

void t4mi_video_frame::addref(uint64_t now_us)
{
    if (refcount == 0)
        t4mi_frame_retention_remove(this);
    ++refcount;
    last_use = now_us;
}

void t4mi_video_frame::deref(uint64_t now_us)
{
    if (refcount > 0 && --refcount == 0 && cache != nullptr)
        t4mi_frame_retention_add(this);
    last_use = now_us;
}

t4mi_video_frame_manager::~t4mi_video_frame_manager() { flush_all_frames(); }

t4mi_video_frame* t4mi_video_frame_manager::find_frame(uint64_t frame_number, uint32_t variant) const
{
    const auto it = frames.find({frame_number, variant});
    return it == frames.end() ? nullptr : it->second;
}

bool t4mi_video_frame_manager::store_frame(uint64_t frame_number, uint32_t variant, t4mi_video_frame* frame)
{
    const t4mi_frame_key key{frame_number, variant};
    if (!frames.emplace(key, frame).second)
        return false;
    frame->cache = this;
    frame->cache_key = key;
    if (frame->refcount == 0)
        t4mi_frame_retention_add(frame);
    return true;
}

bool t4mi_video_frame_manager::evict_frame(t4mi_video_frame* frame)
{
    if (frame == nullptr || frame->cache != this || frame->refcount != 0)
        return false;
    const auto it = frames.find(frame->cache_key);
    if (it == frames.end() || it->second != frame)
        return false;
    frames.erase(it);
    delete frame;
    return true;
}

size_t t4mi_video_frame_manager::flush_unused_frames(uint64_t limit)
{
    size_t n = 0;
    for (auto it = frames.begin(); it != frames.end() && n < limit;) {
        if (it->second->refcount == 0) {
            delete it->second;
            it = frames.erase(it);
            ++n;
        } else {
            ++it;
        }
    }
    return n;
}

size_t t4mi_video_frame_manager::flush_all_frames()
{
    const size_t n = frames.size();
    // Empty the map before deleting, so a destructor that looks at the cache
    // finds nothing half-torn.
    frame_map doomed;
    doomed.swap(frames);
    for (auto& [key, frame] : doomed)
        delete frame;
    return n;
}

size_t t4mi_video_frame_manager::expire_frames(uint64_t limit_us)
{
    size_t n = 0;
    for (auto it = frames.begin(); it != frames.end();) {
        if (it->second->refcount == 0 && it->second->last_use <= limit_us) {
            delete it->second;
            it = frames.erase(it);  // continue after the removed key
            ++n;
        } else {
            ++it;
        }
    }
    return n;
}
