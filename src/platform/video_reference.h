// A frame a client has asked for, by number and variant, for one context.
#pragma once

#include <cstdint>

class t4mi_video_frame_reference {
public:
    t4mi_video_frame_reference(uint64_t context_id_, uint64_t frame_number_, uint32_t variant_)
        : context_id(context_id_), frame_number(frame_number_), variant(variant_) {}
    virtual ~t4mi_video_frame_reference() = default;

    uint64_t context_id;
    uint64_t frame_number;
    uint32_t variant;
};
