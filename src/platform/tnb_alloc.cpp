// Allocations in the default buffer: first fit over a free list of page
// ranges, coalesced on every free; with a frame-memory budget, freed
// allocations first wait whole as warm slots for the next one of their size.
//
// Without a budget, freed pages are not handed back to the system one
// allocation at a time: the next frame reuses them without page faults, and
// the serve loop drops the whole buffer after a stretch of idleness anyway.
// tnb_alloc_freeall punches the whole buffer out, which is the point where
// memory returns. With a budget, every committed free page is in a warm
// slot, so the budget bounds them; a slot leaves warmth only by being
// punched out.
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

bool warm_mode() { return picture_cache_budget != 0; }

uint64_t warm_push(tnb_buffer& b, uint64_t offset, uint64_t bytes, bool committed = true, uint64_t last_serial = 0)
{
    const uint64_t order = ++b.warm_order;
    b.warm_by_age.emplace(order, tnb_warm_slot{offset, bytes, committed, last_serial});
    b.warm_by_size[bytes].emplace(order, offset);
    b.warm_bytes += bytes;
    return order;
}

// Forgets the warm slot freed as `order`, returning its slot.
tnb_warm_slot warm_take(tnb_buffer& b, uint64_t order)
{
    const auto it = b.warm_by_age.find(order);
    const tnb_warm_slot slot = it->second;
    b.warm_by_age.erase(it);
    auto& same = b.warm_by_size[slot.bytes];
    same.erase(order);
    if (same.empty())
        b.warm_by_size.erase(slot.bytes);
    b.warm_bytes -= slot.bytes;
    return slot;
}

// A warm slot goes: its pages return to the system and its range to the
// free list.
void warm_punch(tnb_buffer& b, uint64_t order)
{
    const tnb_warm_slot slot = warm_take(b, order);
    // Failure only costs memory: the range is free either way.
    (void)fallocate(b.fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, off_t(slot.offset), off_t(slot.bytes));
    give_back(b, slot.offset, slot.bytes);
}

void warm_punch_oldest(tnb_buffer& b) { warm_punch(b, b.warm_by_age.begin()->first); }

// First fit in the free list: the offset of a range of `reserve` bytes,
// taken out of the list; false when none is large enough.
bool take_first_fit(tnb_buffer& b, uint64_t reserve, uint64_t* offset)
{
    auto fit = b.free_ranges.begin();
    while (fit != b.free_ranges.end() && fit->second < reserve)
        ++fit;
    if (fit == b.free_ranges.end())
        return false;
    *offset = fit->first;
    const uint64_t left = fit->second - reserve;
    b.free_ranges.erase(fit);
    if (left != 0)
        b.free_ranges.emplace(*offset + reserve, left);
    return true;
}

// Where an allocation of `reserve` bytes goes: the most recently freed warm
// slot of that size, else first fit, else first fit after every warm slot
// was punched out and merged back. `warm` tells which.
bool place(tnb_buffer& b, uint64_t reserve, uint64_t* offset, bool* warm, uint64_t* previous_serial)
{
    *warm = false;
    *previous_serial = 0;
    if (const auto same = b.warm_by_size.find(reserve); same != b.warm_by_size.end()) {
        // The most recent committed one; a slot still being made ahead only
        // when there is no other.
        auto pick = same->second.rbegin();
        for (auto it = pick; it != same->second.rend(); ++it)
            if (b.warm_by_age.at(it->first).committed) {
                pick = it;
                break;
            }
        const tnb_warm_slot slot = warm_take(b, pick->first);
        *offset = slot.offset;
        // A slot made ahead whose faulting-in was cut short: the rest of its
        // pages are still to come, so it counts as fresh.
        *warm = slot.committed;
        *previous_serial = slot.committed ? slot.last_serial : 0;
        return true;
    }
    if (take_first_fit(b, reserve, offset))
        return true;
    if (b.warm_by_age.empty())
        return false;
    while (!b.warm_by_age.empty())
        warm_punch_oldest(b);
    return take_first_fit(b, reserve, offset);
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
    if (size > b.size)
        return false;
    const uint64_t reserve = tnb_reserved_size(size);
    uint64_t offset = 0;
    bool warm = false;
    uint64_t previous_serial = 0;
    if (b.reserved_bytes + reserve > tnb_total || !place(b, reserve, &offset, &warm, &previous_serial))
        return false;

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
    // With a budget every committed free page is in a warm slot, so anything
    // else is fresh. Without one, first fit may land on either.
    record->fresh = warm_mode() && !warm;
    record->previous_serial = previous_serial;
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
            const uint64_t serial = it->second.serial;
            b.allocations.erase(it);
            b.reserved_bytes -= reserve;
            if (warm_mode()) {
                warm_push(b, record->offset, reserve, true, serial);
                tnb_warm_trim(picture_cache_budget);
            } else {
                give_back(b, record->offset, reserve);
            }
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
    b.warm_by_age.clear();
    b.warm_by_size.clear();
    b.warm_bytes = 0;
    // Nothing is allocated: let the system take the pages back (they read as
    // zero afterwards). Failure only costs memory.
    (void)fallocate(b.fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, off_t(b.size));
}

uint64_t tnb_reserved_size(uint64_t size)
{
    const uint64_t page = tnb_alloc_granularity();
    return (size + page - 1) / page * page;
}

uint64_t tnb_warm_bytes() { return tnb_state().buffer.warm_bytes; }

uint64_t tnb_alloc_reserved_bytes() { return tnb_state().buffer.reserved_bytes; }

bool tnb_warm_has(uint64_t size)
{
    const tnb_buffer& b = tnb_state().buffer;
    return b.fd >= 0 && b.warm_by_size.count(tnb_reserved_size(size)) != 0;
}

bool tnb_all_of_size(uint64_t size)
{
    const tnb_buffer& b = tnb_state().buffer;
    const uint64_t reserve = tnb_reserved_size(size);
    if (b.warm_by_size.size() > 1 || (!b.warm_by_size.empty() && b.warm_by_size.begin()->first != reserve))
        return false;
    for (const auto& [offset, a] : b.allocations)
        if (a.reserved != reserve)
            return false;
    return true;
}

uint64_t tnb_warm_reserve(uint64_t size)
{
    tnb_buffer& b = tnb_state().buffer;
    uint64_t offset = 0;
    if (!warm_mode() || b.fd < 0 || !take_first_fit(b, tnb_reserved_size(size), &offset))
        return 0;
    return warm_push(b, offset, tnb_reserved_size(size), false);
}

bool tnb_warm_reserved_at(uint64_t handle, uint64_t* offset, uint64_t* bytes)
{
    const tnb_buffer& b = tnb_state().buffer;
    const auto it = b.warm_by_age.find(handle);
    if (handle == 0 || it == b.warm_by_age.end())
        return false;
    *offset = it->second.offset;
    *bytes = it->second.bytes;
    return true;
}

void tnb_warm_discard(uint64_t handle)
{
    tnb_buffer& b = tnb_state().buffer;
    if (handle != 0 && b.warm_by_age.count(handle) != 0)
        warm_punch(b, handle);
}

void tnb_warm_mark_committed(uint64_t handle)
{
    tnb_buffer& b = tnb_state().buffer;
    if (const auto it = b.warm_by_age.find(handle); it != b.warm_by_age.end())
        it->second.committed = true;
}

void tnb_warm_trim(uint64_t limit)
{
    tnb_buffer& b = tnb_state().buffer;
    while (b.warm_bytes > limit)
        warm_punch_oldest(b);
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
