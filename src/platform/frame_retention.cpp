// The process's list of unheld cached frames and the frame-memory budget
// (contracts in frame_retention.h). The list is intrusive, so joining and
// leaving it on every hold and release allocates nothing.
#include "platform/frame_retention.h"

#include <algorithm>

#include "platform/client_context.h"
#include "platform/render_ahead.h"
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

// The warm slot being made ahead, a piece at a time.
struct prewarm_state {
    uint64_t size = 0;      // bytes of the last frame allocated: the size to make slots of
    int32_t size_buffer = -1;  // the buffer that frame went to
    int32_t buffer = -1;    // the buffer `handle` belongs to
    uint64_t handle = 0;    // 0: none in progress
    uint64_t done = 0;      // bytes of it faulted in
    bool unable = false;    // faulting in ahead failed (an old kernel): given up
};

prewarm_state& prewarm()
{
    static prewarm_state state;
    return state;
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
    // The first frame of a new size, or in a new buffer, warms the slots of
    // the frames after it before its own: a client may go on right after
    // its first reply, and the first frame, which lays the text out, is the
    // slow one anyway.
    prewarm_state& p = prewarm();
    if (p.size != size || p.size_buffer != image_tnb_buffer) {
        p.size = size;
        p.size_buffer = image_tnb_buffer;
        while (t4mi_frame_retention_prewarm(UINT64_MAX)) {
        }
    }
    // Rendering ahead, clients take their frames in order and never ask for
    // one let go again: its slot serves the next frame better than fresh
    // pages would.
    while (!tnb_warm_has(reserve) &&
           (unheld().bytes + tnb_warm_bytes() + reserve > budget || (t4mi_render_ahead != 0 && unheld().count > 0)))
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

namespace {

// The slot in progress, if it still is one: its offset and bytes.
bool prewarm_in_progress(uint64_t* offset, uint64_t* bytes)
{
    prewarm_state& p = prewarm();
    if (p.handle != 0 && p.buffer == image_tnb_buffer && tnb_warm_reserved_at(p.handle, offset, bytes))
        return true;
    p.handle = 0;
    return false;
}

// Frames clients hold count here too, unlike in the budget: a frame let go
// joins the unheld frames, and a slot made now would only be punched out
// again then. All but one a client: a playout client holds the frame on
// air for good, and has two only from the next one's reply until it lets
// the one before go.
bool prewarm_room()
{
    const uint64_t reserve = tnb_reserved_size(prewarm().size);
    uint64_t on_air = 0;
    for (const auto& [id, ctx] : t4mi_client_contexts.all())
        on_air += ctx->outstanding_reference_count() != 0 ? reserve : 0;
    const uint64_t live = tnb_alloc_reserved_bytes();
    return live - std::min(live, on_air) + tnb_warm_bytes() + reserve <= picture_cache_budget;
}

// Only while the process serves frames of one size: with clients of two
// sizes, a slot made for one would be punched out for the other's next
// fresh frame, over and over.
bool prewarm_one_size() { return tnb_all_of_size(prewarm().size); }

} // namespace

bool t4mi_frame_retention_prewarm_due()
{
    const prewarm_state& p = prewarm();
    if (picture_cache_budget == 0 || p.size == 0 || p.unable || image_tnb_buffer_fd < 0 || t4mi_acc_cache == nullptr)
        return false;
    uint64_t offset = 0, bytes = 0;
    return prewarm_one_size() && (prewarm_in_progress(&offset, &bytes) || prewarm_room());
}

bool t4mi_frame_retention_prewarm(uint64_t piece)
{
    if (piece == 0 || !t4mi_frame_retention_prewarm_due())
        return false;
    prewarm_state& p = prewarm();
    uint64_t offset = 0, bytes = 0;
    if (!prewarm_in_progress(&offset, &bytes)) {
        p.handle = tnb_warm_reserve(p.size);
        if (p.handle == 0 || !tnb_warm_reserved_at(p.handle, &offset, &bytes)) {
            p.handle = 0;
            return false;
        }
        p.buffer = image_tnb_buffer;
        p.done = 0;
    }
    const uint64_t take = std::min(piece, bytes - p.done);
    // Mapping the buffer here is what the frame builder would do first anyway.
    auto* at = static_cast<volatile uint8_t*>(
        t4mi_global_access_cache_quickfetch(t4mi_acc_cache, p.buffer, offset + p.done, take, T4MI_ACCESS_WRITE));
    if (at == nullptr || !t4mi_global_access_cache_prefault(t4mi_acc_cache, p.buffer, offset + p.done, take)) {
        // Cannot fault in here (an old kernel): the slot goes, and no more
        // tries in this process.
        tnb_warm_discard(p.handle);
        p.handle = 0;
        p.unable = true;
        return false;
    }
    // Committed is not yet cheap to write: on a virtual machine with shadow
    // page tables the first write of each page from this process still
    // traps to the host (about as dear as the fault). One byte a page takes
    // that cost here; what the slot holds does not matter, a frame fills it.
    for (uint64_t b = 0; b < take; b += tnb_alloc_granularity())
        at[b] = 0;
    p.done += take;
    if (p.done == bytes) {
        tnb_warm_mark_committed(p.handle);
        p.handle = 0;
    }
    return true;
}
