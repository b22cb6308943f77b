// The serve loop: one turn serves the socket and the client contexts, expires
// old frames, applies item and feed changes, switches control groups, drops
// the shared buffer when idle and polls the weather sources.
#pragma once

#include <cstdint>

struct serve_loop_state {
    uint64_t last_active = 0;     // monotonic µs of the last turn that saw client work
    uint64_t cgroup_deadline = 0; // when the process may move to the idle group; 0: idle already
    int64_t wall_last = 0;        // wall-clock µs at the last check
};

// The state at loop entry: active, with a 3 s grace before going idle.
serve_loop_state serve_loop_begin();

// One turn. False when the loop must end (signal, auto-shutdown deadline,
// one-shot, the caller's exit request, a failed server).
bool serve_loop_turn(serve_loop_state& state);
