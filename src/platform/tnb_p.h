// Internal state of the shared frame-buffer domain, shared by tnb.cpp,
// tnb_alloc.cpp and access_cache.cpp. Not for use outside src/platform/.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform/tnb.h"

// One live allocation: `reserved` bytes (whole pages) at its offset, of
// which `length` were asked for.
struct tnb_allocation {
    uint64_t reserved = 0;
    uint64_t length = 0;
    uint64_t serial = 0;
    std::string name;
};

// The one buffer the allocator hands out from.
struct tnb_buffer {
    int fd = -1;         // owned; -1 when none is held
    int id = -1;         // 1..65535 while held
    uint64_t size = 0;   // bytes, whole pages
    std::map<uint64_t, tnb_allocation> allocations; // offset -> allocation
    std::map<uint64_t, uint64_t> free_ranges;       // offset -> bytes; coalesced, never adjacent
    uint64_t reserved_bytes = 0;                    // sum of allocations' reserved
};

struct tnb_domain {
    const char* mount = "/dev/shm";  // where the system accounts shared memory
    bool joined = false;
    tnb_buffer buffer;
    int last_id = 0;                 // ids count up so a stale record never matches a new buffer
    uint64_t last_serial = 0;        // the same for allocations within a buffer
    std::vector<t4mi_global_access_cache*> caches; // told when a buffer goes away
};

// The process's one domain.
tnb_domain& tnb_state();

// Called by the domain when a buffer goes away: every cache unmaps it.
void tnb_access_caches_forget_buffer(int buffer);
