// When each frame of a live run is due: frame k of the run leaves at
// start + k * den / num seconds on the monotonic clock. Every due time is
// worked out from k alone, so rounding never accumulates into drift.
#pragma once

#include <cstdint>

class live_schedule {
public:
    // `start_ns`: the monotonic time of frame 0, nanoseconds; the rate is
    // num/den frames per second (both > 0).
    live_schedule(int64_t start_ns, int64_t rate_num, int64_t rate_den);

    // The monotonic time frame `k` of the run is due, nanoseconds (rounded
    // up, so a frame never counts as due before its exact time).
    int64_t due_ns(uint64_t k) const;
    // The frame whose slot holds `now_ns`: the last k with due_ns(k) <= now_ns
    // (0 before the start).
    uint64_t index_at(int64_t now_ns) const;
    // One frame's duration, nanoseconds (rounded down; for reports only).
    int64_t period_ns() const;
    int64_t start_ns() const { return start; }

private:
    int64_t start;
    int64_t num, den;
};

// The monotonic clock, nanoseconds.
int64_t live_now_ns();
// Sleeps until the monotonic clock reaches `when_ns`. Returns early (false)
// when a signal handler ran, so the caller can look at its stop flag.
bool live_sleep_until(int64_t when_ns);
