// t4mi_render --live: frames paced against the monotonic clock, for a
// stream that an encoder reads as it comes (docs/streaming.md).
//
// Frame k of the run leaves at start + k / rate, never earlier; the run
// starts when the first frame has left (a reader that starts late, such as
// an encoder probing its inputs, does not make the frames after it late). The next frame is requested as soon
// as one has left, so a text change the server takes shows within about two
// frames. A frame that leaves more than half a frame after its time counts
// as late; late frames are reported on standard error at most once a second
// and summed up at the end. With `drop_late`, when a whole frame's slot has
// passed, the frames in between are skipped, so the frame that leaves is
// always the one the clock asks for.
#pragma once

#include <cstdint>

class t4mi_client;
class y4m_writer;

struct live_settings {
    uint64_t first_frame = 0;   // frame number of the run's frame 0
    uint64_t count = 0;         // frames of the run; 0: until stopped
    int64_t rate_num = 30000;   // frames per second as a fraction
    int64_t rate_den = 1001;
    bool drop_late = false;
};

struct live_totals {
    uint64_t written = 0;       // frames that left
    uint64_t late = 0;          // of them, late
    uint64_t dropped = 0;       // skipped under drop_late
    int64_t worst_late_ns = 0;  // the latest a frame left after its time
    double seconds = 0.0;       // from the start to the last frame
    bool stopped = false;       // a signal ended the run
    bool reader_gone = false;   // the output's reader closed it
};

// SIGINT and SIGTERM end a live run after the frame in hand (a second one
// ends the process at once). Installs the handlers.
void live_catch_stop_signals();

// Runs the live loop: requests frames from `client` (its settings already
// sent) and writes them to `out`. Returns
// the exit status (0 also when stopped by a signal or when the reader went
// away); messages go to standard error.
int run_live(const live_settings& settings, t4mi_client& client, y4m_writer& out, live_totals* totals);
