// Frames nobody holds, and the frame-memory budget.
//
// A cached frame that no client holds stays in its frame cache so that
// asking for it again costs nothing. The process keeps all of them, across
// every frame cache, on one list ordered by when they were let go, least
// recently first. With a budget (`picture_cache_budget` > 0, bytes), they and
// the shared buffer's warm slots (platform/tnb.h) together stay within it:
//
//  - before a new frame is allocated, make_room evicts frames from the front
//    of the list until a warm slot of the new frame's size exists or the
//    unheld frames, the warm slots and the new frame fit the budget. A
//    steady stream of frames therefore cycles through the same few warm
//    slots instead of fresh pages;
//  - once a serve-loop turn, trim evicts until the unheld frames fit and
//    punches out the oldest warm slots until both together fit.
//
// Frames that clients hold are never evicted and are not counted: the frame
// memory of a process is what its clients hold plus at most the budget.
// Without a budget nothing is evicted here: frames leave by expiry and
// flushes, as before. docs/frame-buffers.md has the figures.
//
// The frame classes call add and remove; everything runs on the serve
// loop's thread.
#pragma once

#include <cstddef>
#include <cstdint>

class t4mi_video_frame;

// A cached frame nobody holds joins the back of the list (most recent). It
// counts its reserved bytes when its allocation is live, else nothing.
void t4mi_frame_retention_add(t4mi_video_frame* frame);
// The frame leaves the list (held again, or deleted). Harmless when it is
// not on it.
void t4mi_frame_retention_remove(t4mi_video_frame* frame);

// Unheld cached frames and the bytes they count.
size_t t4mi_frame_retention_unheld_count();
uint64_t t4mi_frame_retention_unheld_bytes();

// Before allocating a frame of `size` bytes (see above). Evicted frames are
// deleted by their caches. No-op without a budget.
void t4mi_frame_retention_make_room(uint64_t size);

// Brings unheld frames and warm slots within the budget (see above). No-op
// without a budget.
void t4mi_frame_retention_trim();

// Warm slots made ahead in idle time. The first frames of a client would
// otherwise each land on fresh pages (a fault a page, 2,026 for a
// 1920x1080 frame) until enough frames were freed to cycle through, and
// those are the slowest replies a client sees. After a frame of some size
// was allocated, the serve loop calls this while it has nothing else to do:
// each call faults in at most `piece` more bytes (one system call) of a warm
// slot of the size of the last frame allocated, and makes a new slot while
// every live frame (held ones too, all but one a client: they are unheld
// frames to come), the warm slots and one more slot fit the budget, and
// while every live frame and warm slot has that size (clients of two sizes
// would take turns punching out each other's slots). It never evicts or
// punches anything out, and it makes the shared buffer
// only through the frames themselves. Returns true when it faulted a piece
// in; false without a budget, with nothing to do, or when the buffer is
// full. `due` tells, without doing anything, whether there is work.
bool t4mi_frame_retention_prewarm_due();
bool t4mi_frame_retention_prewarm(uint64_t piece);
