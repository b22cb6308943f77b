// The background of a new frame: its four planes filled with one colour.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "frames/frame_buffer.h"

// Fills the Y, U, V and alpha planes of `frame` (whole planes, stride bytes
// included) with the bytes of `yuva`, a packed YUVA word (Y bits 0-7,
// U 8-15, V 16-23, A 24-31).
void fill_background(const my_AVIVideoRandomReader::common_codec_setup_yuv_params& frame, uint32_t yuva);

// Fills the columns of `spans` ([first, second) pairs) in every row of the
// four planes of `frame` with the bytes of `yuva`, row by row so that the
// writes go forward through memory. Only for pictures whose chroma and alpha
// planes have the picture's width and rows (no subsampling).
void fill_background_columns(const my_AVIVideoRandomReader::common_codec_setup_yuv_params& frame,
                             const std::vector<std::pair<int32_t, int32_t>>& spans, uint32_t yuva);
