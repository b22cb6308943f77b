// Clocks and calendar boundaries.
//
// Every time the program reads goes through these functions, so that tests
// can pin the clocks: the monotonic clock schedules (deadlines, polls,
// timeouts), the wall clock is what the viewer sees (time and date fields,
// file times).
#pragma once

#include <cstdint>
#include <ctime>

// Monotonic microseconds (CLOCK_MONOTONIC plus the test offset, or the
// pinned value).
uint64_t monotonic_clock_us();

// Wall-clock microseconds since the Unix epoch (CLOCK_REALTIME plus the
// test offset, or the pinned value).
int64_t gettimeofday_us();

// Test controls. An offset is added to the real clock; a pinned wall clock
// replaces it until unpinned; so does a pinned monotonic clock, which lets a
// test step time exactly whatever the machine's load. They act process-wide.
void t4mi_clock_set_monotonic_offset_us(int64_t offset);
void t4mi_clock_set_wall_offset_us(int64_t offset);
void t4mi_clock_pin_wall_us(int64_t wall_us);
void t4mi_clock_unpin_wall();
void t4mi_clock_pin_monotonic_us(int64_t mono_us);
void t4mi_clock_unpin_monotonic();

// The epoch second of the first local minute boundary at or after `t`
// (t itself when it is a boundary).
time_t calendar_end_of_minute(time_t t);

// The epoch second of the first local midnight at or after `t` (t itself
// when it is a midnight). Follows the TZ rules, so a day may be 23 or 25 h.
time_t calendar_end_of_day(time_t t);
