// The global access cache: one read-write mapping per shared buffer, made on
// first fetch, so that reaching a frame's bytes costs a map lookup.
#include <algorithm>
#include <map>
#include <sys/mman.h>

#include "platform/clock.h"
#include "platform/tnb.h"
#include "platform/tnb_p.h"

struct t4mi_global_access_cache {
    struct mapping {
        uint8_t* base = nullptr;
        uint64_t size = 0;        // bytes mapped: the whole buffer
        uint64_t last_fetch = 0;  // monotonic µs
    };
    std::map<int, mapping> entries;  // buffer id -> its mapping
};

namespace {

void unmap(t4mi_global_access_cache::mapping& m) { munmap(m.base, m.size); }

} // namespace

t4mi_global_access_cache* t4mi_global_access_cache_create()
{
    auto* cache = new t4mi_global_access_cache;
    tnb_state().caches.push_back(cache);
    return cache;
}

void t4mi_global_access_cache_destroy(t4mi_global_access_cache* cache)
{
    if (cache == nullptr)
        return;
    auto& caches = tnb_state().caches;
    caches.erase(std::remove(caches.begin(), caches.end(), cache), caches.end());
    for (auto& [id, m] : cache->entries)
        unmap(m);
    delete cache;
}

void tnb_access_caches_forget_buffer(int buffer)
{
    for (t4mi_global_access_cache* cache : tnb_state().caches) {
        const auto it = cache->entries.find(buffer);
        if (it != cache->entries.end()) {
            unmap(it->second);
            cache->entries.erase(it);
        }
    }
}

void* t4mi_global_access_cache_quickfetch(t4mi_global_access_cache* cache, int buffer, uint64_t offset,
                                          uint64_t size, int)
{
    if (cache == nullptr || size == 0)
        return nullptr;
    const uint64_t buffer_size = tnb_buffer_size(buffer);
    if (offset >= buffer_size || size > buffer_size - offset)
        return nullptr;
    auto it = cache->entries.find(buffer);
    if (it == cache->entries.end()) {
        void* base = mmap(nullptr, buffer_size, PROT_READ | PROT_WRITE, MAP_SHARED, tnb_buffer_fd(buffer), 0);
        if (base == MAP_FAILED)
            return nullptr;
        it = cache->entries.emplace(buffer, t4mi_global_access_cache::mapping{static_cast<uint8_t*>(base),
                                                                              buffer_size, 0})
                 .first;
    }
    it->second.last_fetch = monotonic_clock_us();
    return it->second.base + offset;
}

bool t4mi_global_access_cache_prefault(t4mi_global_access_cache* cache, int buffer, uint64_t offset,
                                       uint64_t size)
{
    if (cache == nullptr || size == 0)
        return false;
    const auto it = cache->entries.find(buffer);
    if (it == cache->entries.end() || offset >= it->second.size || size > it->second.size - offset)
        return false;
    const uint64_t page = tnb_alloc_granularity();
    const uint64_t start = offset / page * page;
    return madvise(it->second.base + start, tnb_reserved_size(offset + size - start), MADV_POPULATE_WRITE) == 0;
}

void t4mi_global_access_cache_cleanup_idle(t4mi_global_access_cache* cache)
{
    if (cache == nullptr)
        return;
    const uint64_t now = monotonic_clock_us();
    for (auto it = cache->entries.begin(); it != cache->entries.end();) {
        const bool gone = tnb_buffer_size(it->first) != it->second.size;
        // A buffer that still holds frames or warm slots stays mapped however
        // long since its last fetch: unmapping it frees nothing (the pages
        // belong to the buffer), and every page would fault in again on the
        // next frame, tens of milliseconds a 1080-line frame on a VM.
        const bool idle = now > it->second.last_fetch + T4MI_ACCESS_CACHE_IDLE_US &&
                          !tnb_buffer_holds_pages(it->first);
        if (gone || idle) {
            unmap(it->second);
            it = cache->entries.erase(it);
        } else {
            ++it;
        }
    }
}

size_t t4mi_global_access_cache_entry_count(const t4mi_global_access_cache* cache)
{
    return cache == nullptr ? 0 : cache->entries.size();
}
