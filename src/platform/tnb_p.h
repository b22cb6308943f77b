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

// A freed allocation kept whole, its pages still committed (warm slots).
struct tnb_warm_slot {
    uint64_t offset = 0;
    uint64_t bytes = 0;      // reserved: whole pages
    bool committed = true;   // false: made ahead (tnb_warm_reserve) and not yet all faulted in
    uint64_t last_serial = 0; // the allocation freed into it (its bytes are as that one left them); 0: none
};

// The one buffer the allocator hands out from.
struct tnb_buffer {
    int fd = -1;         // owned; -1 when none is held
    int id = -1;         // 1..65535 while held
    uint64_t size = 0;   // bytes, whole pages
    std::map<uint64_t, tnb_allocation> allocations; // offset -> allocation
    std::map<uint64_t, uint64_t> free_ranges;       // offset -> bytes; coalesced, never adjacent
    uint64_t reserved_bytes = 0;                    // sum of allocations' reserved
    // Warm slots (only with a frame-memory budget): not in free_ranges. By
    // the order they were freed, oldest first, to trim; and by size, most
    // recently freed last, to reuse.
    std::map<uint64_t, tnb_warm_slot> warm_by_age;                 // free order -> slot
    std::map<uint64_t, std::map<uint64_t, uint64_t>> warm_by_size; // bytes -> (free order -> offset)
    uint64_t warm_bytes = 0;
    uint64_t warm_order = 0;
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

// True while `buffer` is held and has a live allocation or a warm slot:
// pages that this process has mapped and will touch again.
bool tnb_buffer_holds_pages(int buffer);

// Called by the domain when a buffer goes away: every cache unmaps it.
void tnb_access_caches_forget_buffer(int buffer);
