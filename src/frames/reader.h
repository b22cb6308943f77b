// The frame reader of a client context: the size frames are rendered at,
// the context's frame cache, and the building of frame buffers.
//
// The buffer operations (geometry, allocation, mapping and the frame
// descriptor) live in frames/frame_buffer.cpp; the geometry record is
// defined in frames/frame_buffer.h.
#pragma once

#include <cstdint>

#include "platform/video_frame.h"

class my_AVIVideoRandomReader {
public:
    my_AVIVideoRandomReader();
    // Destroys the frame manager, which deletes the frames still cached.
    virtual ~my_AVIVideoRandomReader();
    my_AVIVideoRandomReader(const my_AVIVideoRandomReader&) = delete;
    my_AVIVideoRandomReader& operator=(const my_AVIVideoRandomReader&) = delete;

    // Kept for the framework's slot order: a reader has no work of its own
    // to report. Always 0.
    virtual int background_work();
    // Deletes the cached frames that no client holds and that were last used
    // at or before `limit_us` (monotonic µs).
    virtual void expire_frames(uint64_t limit_us);
    // Makes room in the shared buffer: flushes the unused frames of every
    // client context's reader (this one included).
    virtual void release_cache();

    // --- frame buffers (frames/frame_buffer.cpp) ---------------------------
    struct common_codec_setup_yuv_params;

    // Fills the geometry of a `width` x `height` picture (pixels) into
    // `param`, whose divisors, alignments and alpha flag the caller set.
    // False when a size is outside 1..4096, an alignment or divisor is 0 or a
    // stride comes out 0. Alignments must be powers of two.
    static bool common_codec_setup_yuv(int64_t width, int64_t height, common_codec_setup_yuv_params& param);
    // Allocates the frame's shared buffer ("V<frame number>", allocation size
    // bytes) and marks the frame planar at the geometry's size. On a first
    // failure it makes room (the frame's release operations around
    // release_cache) and tries once more; a second failure prints
    // "WARNING: Failed to allocate avframe\n" and returns false. The frame's
    // allocation must be empty on entry.
    bool common_alloc_yuv_planar(t4mi_video_frame* tframe, common_codec_setup_yuv_params& param);
    // Maps the frame's allocation through t4mi_acc_cache, sets the plane
    // addresses, the write cursor and the fence in `param`, writes the frame
    // descriptor behind the planes and the frame's two descriptor
    // references. On a mapping failure the allocation is freed, "Failed to
    // memory-map Y plane\n" is printed and false returned.
    bool common_map_yuv_planar(t4mi_video_frame* tframe, common_codec_setup_yuv_params& param);

    int32_t frame_width = 0;
    int32_t frame_height = 0;
    int64_t time_scale = -1;      // copied from the context; all bits set until then
    int64_t frame_duration = -1;
    t4mi_video_frame_manager frame_manager;  // the frame cache, keyed by (frame number, variant)
};

// The reader for a context that manages its own cache: on destruction it
// flushes every frame first, and making room flushes only its own cache.
class scrolling_text_videorandomreader : public my_AVIVideoRandomReader {
public:
    scrolling_text_videorandomreader() = default;
    ~scrolling_text_videorandomreader() override;
    void release_cache() override;
};
