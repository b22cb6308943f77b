// Frames in shared buffers and the per-reader frame cache.
//
// A t4mi_video_frame is one rendered picture: an allocation in the shared
// frame-buffer domain (platform/tnb.h) holding its planes and, behind them,
// its frame descriptor. The frame owns the allocation: its destructor frees
// it. The frame manager owns the frames in its cache and deletes them when
// they are flushed or expired.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>

#include "platform/tnb.h"

// Where a frame's descriptor lies: `offset` bytes after the Y plane's first
// byte, `length` bytes long, describing frame `frame_number`.
struct t4mi_frame_descriptor_ref {
    uint64_t offset = 0;
    uint32_t length = 0;
    int64_t frame_number = 0;
};

// Key of the frame cache: a frame number and the request variant it was
// rendered for; ordered by frame number, then variant.
struct t4mi_frame_key {
    uint64_t frame_number = 0;
    uint32_t variant = 0;
    auto operator<=>(const t4mi_frame_key&) const = default;
};

class t4mi_video_frame_manager;

class t4mi_video_frame {
public:
    // A frame for `frame_number`, empty (no allocation), last used now.
    explicit t4mi_video_frame(int64_t frame_number);
    // Frees the allocation, if any, and leaves the list of unheld frames.
    virtual ~t4mi_video_frame();
    t4mi_video_frame(const t4mi_video_frame&) = delete;
    t4mi_video_frame& operator=(const t4mi_video_frame&) = delete;

    // The two release operations the buffer code calls to make room before
    // it retries a failed allocation (first this one, then the frame
    // caches are flushed, then release_idle_mappings).
    // Gives the frame's allocation back (no-op when empty).
    virtual void release_allocation();
    // Unmaps the process's idle access-cache mappings (t4mi_acc_cache).
    virtual void release_idle_mappings();

    // Reference counting by the serving side: a client holding the frame.
    // Both stamp `last_use` with `now_us` (monotonic µs). A cached frame
    // whose count comes down to 0 joins the process's unheld frames
    // (platform/frame_retention.h) as the most recently used; the first
    // hold takes it out again.
    void addref(uint64_t now_us);
    void deref(uint64_t now_us);

    tnb_alloc_record tnb_alloc;           // the frame's bytes: planes, then descriptor
    int32_t width = 0;                    // pixels
    int32_t height = 0;
    uint8_t planar_yuv = 0;               // 1: planar Y, U, V (and alpha) planes
    t4mi_frame_descriptor_ref descriptor_refs[2];
    int64_t frame_number;
    int32_t aspect[2] = {0, 0};           // picture aspect numerator, denominator; 0, 0 unknown
    int64_t refcount = 0;                 // references held by clients
    uint64_t last_use = 0;                // monotonic µs of the last addref/deref (construction at first)

    // Set by the frame cache that owns the frame (store_frame); null when
    // the frame is in none.
    t4mi_video_frame_manager* cache = nullptr;
    t4mi_frame_key cache_key;
    // Links of the process's list of unheld cached frames (frame_retention.cpp).
    t4mi_video_frame* unheld_prev = nullptr;
    t4mi_video_frame* unheld_next = nullptr;
    uint64_t unheld_bytes = 0;            // what the frame counts there: its reserved bytes
    bool unheld_listed = false;
};

// The count every flush of unused frames passes: far more frames than a
// cache ever holds, so it means all of them.
inline constexpr uint64_t FLUSH_EVERYTHING = 999999;

// The frame cache of one reader. Every frame in it is owned by it, and its
// unheld frames are also on the process's list of unheld frames
// (platform/frame_retention.h), which may evict them to keep the
// frame-memory budget.
class t4mi_video_frame_manager {
public:
    using frame_map = std::map<t4mi_frame_key, t4mi_video_frame*>;

    t4mi_video_frame_manager() = default;
    // Deletes the frames still cached.
    ~t4mi_video_frame_manager();
    t4mi_video_frame_manager(const t4mi_video_frame_manager&) = delete;
    t4mi_video_frame_manager& operator=(const t4mi_video_frame_manager&) = delete;

    // The cached frame for (frame number, variant), or null.
    t4mi_video_frame* find_frame(uint64_t frame_number, uint32_t variant) const;

    // Takes `frame` into the cache under (frame number, variant). False, with
    // the frame still the caller's, when that key holds a frame already.
    bool store_frame(uint64_t frame_number, uint32_t variant, t4mi_video_frame* frame);

    // Deletes cached frames that no client holds (reference count 0), in key
    // order, at most `limit` of them (FLUSH_EVERYTHING in practice). Returns
    // how many were deleted.
    size_t flush_unused_frames(uint64_t limit);

    // Deletes every cached frame, held or not. Returns how many.
    size_t flush_all_frames();

    // Deletes the frames with reference count 0 whose `last_use` is at most
    // `limit_us` (monotonic µs). Returns how many.
    size_t expire_frames(uint64_t limit_us);

    // Deletes `frame`, which this cache owns and nobody holds, to give its
    // memory back (the frame-memory budget). False, with nothing done, when
    // it is not this cache's or it is held.
    bool evict_frame(t4mi_video_frame* frame);

    size_t size() const { return frames.size(); }
    const frame_map& all() const { return frames; }

private:
    frame_map frames;
};
