// Allocations in the default buffer: first fit over a free list of page
// ranges, coalesced on every free.
//
// Freed pages are not handed back to the system one allocation at a time:
// the next frame reuses them without page faults, and the serve loop drops
// the whole buffer after a stretch of idleness anyway. tnb_alloc_freeall
// punches the whole buffer out, which is the point where memory returns.
#include "platform/tnb.h"

#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <iterator>
#include <unistd.h>

#include "platform/t4mi_globals.h"
#include "platform/tnb_p.h"

namespace {

std::string format_name(const char* fmt, va_list args)
{
    if (fmt == nullptr)
        return {};
    va_list copy;
    va_copy(copy, args);
    const int n = std::vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    if (n <= 0)
        return {};
    std::string name(size_t(n) + 1, '\0');
    std::vsnprintf(name.data(), name.size(), fmt, args);
    name.resize(size_t(n));
    return name;
}

// Returns [offset, offset + bytes) to the free list, merging it with the
// ranges that touch it on either side.
void give_back(tnb_buffer& b, uint64_t offset, uint64_t bytes)
{
    auto next = b.free_ranges.lower_bound(offset);
    if (next != b.free_ranges.begin()) {
        auto prev = std::prev(next);
        if (prev->first + prev->second == offset) {
            offset = prev->first;
            bytes += prev->second;
            b.free_ranges.erase(prev);
        }
    }
    if (next != b.free_ranges.end() && offset + bytes == next->first) {
        bytes += next->second;
        b.free_ranges.erase(next);
    }
    b.free_ranges.emplace(offset, bytes);
}

} // namespace

uint64_t tnb_alloc_granularity()
{
    static const uint64_t page = [] {
        const long p = sysconf(_SC_PAGESIZE);
        return p > 0 ? uint64_t(p) : uint64_t(4096);
    }();
    return page;
}

bool tnb_malloc(tnb_alloc_record* record, uint64_t size, const char* name_fmt, ...)
{
    tnb_buffer& b = tnb_state().buffer;
    if (record == nullptr || size == 0 || b.fd < 0)
        return false;
    const uint64_t page = tnb_alloc_granularity();
    if (size > b.size)
        return false;
    const uint64_t reserve = (size + page - 1) / page * page;
    if (b.reserved_bytes + reserve > tnb_total)
        return false;
    auto fit = b.free_ranges.begin();
    while (fit != b.free_ranges.end() && fit->second < reserve)
        ++fit;
    if (fit == b.free_ranges.end())
        return false;

    const uint64_t offset = fit->first;
    const uint64_t left = fit->second - reserve;
    b.free_ranges.erase(fit);
    if (left != 0)
        b.free_ranges.emplace(offset + reserve, left);

    va_list args;
    va_start(args, name_fmt);
    tnb_allocation a{reserve, size, ++tnb_state().last_serial, format_name(name_fmt, args)};
    va_end(args);
    const uint64_t a_serial = a.serial;
    b.allocations.emplace(offset, std::move(a));
    b.reserved_bytes += reserve;

    record->offset = offset;
    record->length = size;
    record->buffer = b.id;
    record->serial = a_serial;
    return true;
}

void tnb_free(tnb_alloc_record* record)
{
    if (record == nullptr || record->length == 0)
        return;
    tnb_buffer& b = tnb_state().buffer;
    if (b.fd >= 0 && record->buffer == b.id) {
        const auto it = b.allocations.find(record->offset);
        if (it != b.allocations.end() && it->second.serial == record->serial) {
            const uint64_t reserve = it->second.reserved;
            b.allocations.erase(it);
            b.reserved_bytes -= reserve;
            give_back(b, record->offset, reserve);
        }
    }
    *record = tnb_alloc_record{};
}

bool tnb_alloc_is_live(const tnb_alloc_record* record)
{
    if (record == nullptr || record->length == 0)
        return false;
    const tnb_buffer& b = tnb_state().buffer;
    if (b.fd < 0 || record->buffer != b.id)
        return false;
    const auto it = b.allocations.find(record->offset);
    return it != b.allocations.end() && it->second.serial == record->serial;
}

void tnb_alloc_freeall()
{
    tnb_buffer& b = tnb_state().buffer;
    if (b.fd < 0)
        return;
    b.allocations.clear();
    b.free_ranges.clear();
    b.free_ranges.emplace(0, b.size);
    b.reserved_bytes = 0;
    // Nothing is allocated: let the system take the pages back (they read as
    // zero afterwards). Failure only costs memory.
    (void)fallocate(b.fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, off_t(b.size));
}

size_t tnb_alloc_live_count() { return tnb_state().buffer.allocations.size(); }

uint64_t tnb_alloc_live_bytes()
{
    uint64_t total = 0;
    for (const auto& [offset, a] : tnb_state().buffer.allocations)
        total += a.length;
    return total;
}

void tnb_alloc_print_remaining_buffers()
{
    for (const auto& [offset, a] : tnb_state().buffer.allocations)
        std::fprintf(stderr, "%s: %llu bytes\n", a.name.c_str(), static_cast<unsigned long long>(a.length));
}
