// The process frame's globals: the reload signal, the item-file watch and the
// serve loop's wall-clock check. The signal counter, DIE4, is in
// platform/t4mi_globals.h.
#pragma once

#include <csignal>
#include <cstdint>

// Set by SIGHUP; the item-file watch takes it as a "reload" command.
extern volatile std::sig_atomic_t reload_signalled;

// Item-file watch.
extern uint64_t watch_next_check;   // monotonic µs of the next disk check
extern int watch_force;             // set by "reload"
extern int32_t watch_confirmations; // consecutive checks that saw the change unused

// Monotonic µs of the serve loop's next wall-clock check.
extern uint64_t wall_check_at;
