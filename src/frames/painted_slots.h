// What each frame allocation was painted with, so that a frame landing on
// a recycled slot (tnb_alloc_record::previous_serial) fills again only
// where the frame before it drew (frame_painter::paint_over).
//
// Keyed by allocation serial, which is never reused: a slot punched out,
// merged or made anew has no previous serial, and so is filled whole.
// Bytes in shared memory that anyone but the painter wrote would stay
// wrong here; only the server writes frame memory (clients map it
// read-only).
#pragma once

#include <cstdint>
#include <vector>

#include "frames/frame_painter.h"

// Remembers that allocation `serial` holds a picture of `frame`'s geometry
// filled with `background` outside `touched`.
void remember_painted_slot(uint64_t serial, const frame_painter::frame_params& frame, uint32_t background,
                           std::vector<frame_painter::area> touched);

// Takes what allocation `serial` was painted with, when it was the same
// geometry and background: true, with its touched rectangles in `dirty`.
// Forgets the entry either way.
bool take_painted_slot(uint64_t serial, const frame_painter::frame_params& frame, uint32_t background,
                       std::vector<frame_painter::area>* dirty);
