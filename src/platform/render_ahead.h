// Rendering ahead (--render-ahead, off by default): after a frame reply, the
// next frame number of the same client, variant and flags is rendered in
// idle time and left in the frame cache, unheld, so that a client that asks
// for frames in order gets its next one from the cache.
//
// Why: a playout client asks for each frame when it is due and waits for
// it. With many items on one core, a request that arrives while other items
// render waits for them and for its own render. Rendered ahead, the reply is
// a cache lookup, and the rendering happens between requests instead.
//
// What it costs and changes: one more frame in the cache per client (within
// the --frame-cache budget like any unheld frame), and the frame after a
// change of text or settings may still show the old text, as any frame
// already cached does (docs/platform.md "Rendering ahead").
//
// Single-threaded like the serve loop.
#pragma once

#include <cstdint>

struct t4mi_connection;
struct t4mi_frame_request;

// Remembers that `connection` was just answered `request`: its next frame
// is due for rendering ahead. Nothing when the switch is off.
void t4mi_render_ahead_note(t4mi_connection* connection, const t4mi_frame_request& request);

// Counts a frame request of `connection`: a hit when it asks for the frame
// rendered ahead for it.
void t4mi_render_ahead_count_request(t4mi_connection* connection, const t4mi_frame_request& request);

// Renders ahead the next frame of one connection that waits for it; false
// when there was none. The serve loop calls it while no input waits.
bool t4mi_render_ahead_step();

// Frames rendered ahead, and requests that found theirs so, since start-up.
uint64_t t4mi_render_ahead_rendered();
uint64_t t4mi_render_ahead_used();
// Forgets the counters (tests).
void t4mi_render_ahead_reset();
