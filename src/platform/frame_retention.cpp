// The process's list of unheld cached frames and the frame-memory budget
// (contracts in frame_retention.h). The list is intrusive, so joining and
// leaving it on every hold and release allocates nothing.
#include "platform/frame_retention.h"

#include "platform/t4mi_globals.h"
#include "platform/tnb.h"
#include "platform/video_frame.h"

namespace {

struct unheld_list {
    t4mi_video_frame* front = nullptr;  // least recently let go
    t4mi_video_frame* back = nullptr;
    size_t count = 0;
    uint64_t bytes = 0;
};

unheld_list& unheld()
{
    static unheld_list list;
    return list;
}

// Deletes the least recently let go frame through its cache. Returns false
// when there is none.
bool evict_front()
{
    t4mi_video_frame* f = unheld().front;
    if (f == nullptr)
        return false;
    // Take it off first: a frame that is not its cache's to evict (held after
    // all) must not stay at the front for ever.
    t4mi_frame_retention_remove(f);
    if (f->cache != nullptr)
        f->cache->evict_frame(f);
    return true;
}

} // namespace

void t4mi_frame_retention_add(t4mi_video_frame* f)
{
    unheld_list& l = unheld();
    if (f == nullptr || f->unheld_listed)
        return;
    f->unheld_bytes = tnb_alloc_is_live(&f->tnb_alloc) ? tnb_reserved_size(f->tnb_alloc.length) : 0;
    f->unheld_prev = l.back;
    f->unheld_next = nullptr;
    (l.back != nullptr ? l.back->unheld_next : l.front) = f;
    l.back = f;
    f->unheld_listed = true;
    ++l.count;
    l.bytes += f->unheld_bytes;
}

void t4mi_frame_retention_remove(t4mi_video_frame* f)
{
    unheld_list& l = unheld();
    if (f == nullptr || !f->unheld_listed)
        return;
    (f->unheld_prev != nullptr ? f->unheld_prev->unheld_next : l.front) = f->unheld_next;
    (f->unheld_next != nullptr ? f->unheld_next->unheld_prev : l.back) = f->unheld_prev;
    f->unheld_prev = f->unheld_next = nullptr;
    f->unheld_listed = false;
    --l.count;
    l.bytes -= f->unheld_bytes;
    f->unheld_bytes = 0;
}

size_t t4mi_frame_retention_unheld_count() { return unheld().count; }

uint64_t t4mi_frame_retention_unheld_bytes() { return unheld().bytes; }

void t4mi_frame_retention_make_room(uint64_t size)
{
    const uint64_t budget = picture_cache_budget;
    if (budget == 0)
        return;
    const uint64_t reserve = tnb_reserved_size(size);
    while (!tnb_warm_has(reserve) && unheld().bytes + tnb_warm_bytes() + reserve > budget)
        if (!evict_front())
            break;
    // A fresh range is coming: older warm slots of other sizes make room.
    if (!tnb_warm_has(reserve)) {
        const uint64_t kept = unheld().bytes + reserve;
        tnb_warm_trim(budget > kept ? budget - kept : 0);
    }
}

void t4mi_frame_retention_trim()
{
    const uint64_t budget = picture_cache_budget;
    if (budget == 0)
        return;
    while (unheld().bytes > budget && evict_front()) {
    }
    tnb_warm_trim(budget - unheld().bytes);
}
