// The picture settings a client sends with "settings" (docs/protocol.md):
// the size and timing of the frames it wants from its context.
#pragma once

#include <cstdint>

struct t4mi_client_settings {
    int64_t time_scale = 0;       // ticks per second; 0: not given
    int64_t frame_duration = 0;   // ticks per frame; 0: not given
    int32_t field_rate = 0;       // > 0: interlaced, the time scale counts fields
    int32_t width = 0;            // picture width in pixels; 0: not given
    int32_t height = 0;           // picture height in pixels; 0: not given
    int64_t aspect_num = 0;       // screen aspect; both > 0 when given
    int64_t aspect_den = 0;
};
