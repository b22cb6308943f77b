// A shared frame-buffer setup for tests that build frames in-process: the
// domain joined, a default buffer of `budget` bytes held, and an access
// cache in t4mi_acc_cache. Everything is given back on destruction
// (allocations freed, buffer dropped, cache destroyed, budget restored).
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

} // namespace t4test
