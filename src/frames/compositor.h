// The frame compositor: the picture of one frame number for one client.
#pragma once

#include <cstdint>

class my_AVIVideoRandomReader;
class scrolling_text_client_context;
class t4mi_video_frame;

// Returns the frame N (with its request variant) from the reader's cache,
// building it when missing: text refresh, shared-buffer allocation,
// background, shadows and glyphs at the strip offset of N. The frame stays
// owned by the reader's frame cache. Null when it could not be built.
// `flags` is the request's flags word; it does not affect drawing.
t4mi_video_frame* load_frame(my_AVIVideoRandomReader* reader, uint64_t frame_number, uint32_t variant,
                             scrolling_text_client_context* ctx, uint32_t flags);
