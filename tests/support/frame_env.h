// A shared frame-buffer setup for tests that build frames in-process: the
// domain joined, a default buffer of `budget` bytes held, and an access
// cache in t4mi_acc_cache. Everything is given back on destruction
// (allocations freed, buffer dropped, cache destroyed, budget restored).
// frame_cache_budget sets the frame-memory budget the same way.
#pragma once

#include <cstdint>

namespace t4test {

class shared_buffer_session {
public:
    explicit shared_buffer_session(uint64_t budget = 64ull << 20);
    ~shared_buffer_session();
    shared_buffer_session(const shared_buffer_session&) = delete;
    shared_buffer_session& operator=(const shared_buffer_session&) = delete;
    bool ready() const { return loaded; }

private:
    uint64_t previous_budget;
    bool loaded = false;
};

// A frame-memory budget (picture_cache_budget, bytes) for the life of the
// object; the one before is put back on destruction.
class frame_cache_budget {
public:
    explicit frame_cache_budget(uint64_t bytes);
    ~frame_cache_budget();
    frame_cache_budget(const frame_cache_budget&) = delete;
    frame_cache_budget& operator=(const frame_cache_budget&) = delete;

private:
    uint64_t previous;
};

} // namespace t4test
