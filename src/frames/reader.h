// The frame reader of a client context: the size frames are rendered at and
// the context's frame cache.
#pragma once

#include <cstdint>

class my_AVIVideoRandomReader {
public:
    my_AVIVideoRandomReader();
    virtual ~my_AVIVideoRandomReader();
    my_AVIVideoRandomReader(const my_AVIVideoRandomReader&) = delete;
    my_AVIVideoRandomReader& operator=(const my_AVIVideoRandomReader&) = delete;

    int32_t frame_width = 0;
    int32_t frame_height = 0;
    int64_t time_scale = -1;      // copied from the context; all bits set until then
    int64_t frame_duration = -1;
};
