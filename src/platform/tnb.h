// The shared frame-buffer domain: where rendered frames live so that clients
// of the control socket can map them without copying.
//
// Design in one paragraph (docs/frame-buffers.md has the long form): the
// process holds at most one shared buffer, the "default buffer", an anonymous
// memfd of `tnb_total` bytes (rounded down to whole pages, at most 4 GiB less
// one page so that 32-bit offsets reach every byte) with mode 0600 and its
// size sealed. Allocations are page-aligned ranges carved from it first-fit
// and named ("V%lld" for frames). A client receives the buffer's descriptor
// (tnb_buffer_fd) over the socket once and maps it; a frame is then just
// (buffer id, offset, length). The process reaches the bytes through the
// global access cache, which maps each buffer once.
//
// Single-threaded, like the rest of the serving side. Nothing here throws;
// failures return false, null, -1 or 0 as each function says.
#pragma once

#include <cstddef>
#include <cstdint>

struct tnb_domain;

// --- the domain ----------------------------------------------------------------

// Joins the process's buffer domain: checks that anonymous shared memory can
// be made and remembers where shared memory is accounted ("/dev/shm"). 0 on
// success; calling it again is harmless.
int t4mi_join_tnb_domain();
// The joined domain, or null before a successful join.
tnb_domain* t4mi_tnb_domain();

// Forgets every allocation and drops the default buffer: the allocator's
// state as at process start.
void tnb_alloc_init();

// Bytes of shared memory the domain could still hand out: the smaller of the
// free space of "/dev/shm" and the system's available memory. With
// `include_cached` 1, the bytes this process holds in live allocations are
// counted as free too (the process can drop them). 0 for a null domain.
uint64_t tnb_context_free_space(tnb_domain* domain, int include_cached);

// --- the default buffer --------------------------------------------------------

// Makes sure the default buffer is held. Returns 0 when it is ready (at once
// when it already was), non-zero when it cannot be made: `tnb_total` is below
// one page, or the kernel refused the memory. On success
// `image_tnb_buffer_fd` holds its descriptor and `image_tnb_buffer` its id.
int tnb_default_buffer_load();

// Gives the default buffer back: every allocation in it is forgotten, every
// access-cache mapping of it is unmapped, its descriptor is closed and
// `image_tnb_buffer_fd` / `image_tnb_buffer` become -1. The memory returns to
// the system once no client maps it any more. Harmless when none is held.
void tnb_default_buffer_drop();

// Replaces the single buffer the allocator hands out from. The held buffer is
// dropped first (as tnb_default_buffer_drop). With fd >= 0 and buffer >= 1,
// the process then adopts the memfd behind `fd` (duplicated; the caller keeps
// its own descriptor) under id `buffer`, sized by fstat. `flags` is unused.
void tnb_alloc_assign_single(int fd, int buffer, int flags);

// The descriptor of a live buffer, to hand to a client over the socket; -1
// when no buffer has that id. The domain owns it: do not close it.
int tnb_buffer_fd(int buffer);
// Size in bytes of a live buffer; 0 when no buffer has that id.
uint64_t tnb_buffer_size(int buffer);

// --- allocations ---------------------------------------------------------------

// One allocation: `length` bytes at byte `offset` of buffer `buffer`. An
// empty record (length 0) holds nothing. The record is the caller's; the
// bytes are the domain's until tnb_free.
struct tnb_alloc_record {
    uint64_t offset = 0;  // bytes from the buffer start; page-aligned
    uint64_t length = 0;  // bytes asked for; 0: empty
    int32_t buffer = -1;  // id of the buffer (1..65535); -1 when empty
    uint64_t serial = 0;  // which allocation: a stale record never frees a newer one
    bool fresh = false;   // with a budget: the range was not committed, so its pages are
                          // still to be faulted in (worth doing in bulk: tnb_prefault)
    uint64_t previous_serial = 0;  // a warm slot taken whole: the allocation freed into it, whose
                                   // bytes it still holds; 0: none known
};

// Allocation granularity: allocations start on and reserve whole pages.
uint64_t tnb_alloc_granularity();

// Reserves `size` bytes (size >= 1) in the default buffer under the name
// given by printf-style `name_fmt` and fills the record. Returns false, with
// the record left as it was, when no default buffer is held, when the
// reserved total would pass `tnb_total`, or when no free range is large
// enough. The bytes are not cleared: a new allocation may hold an old frame.
// A warm slot of the reserved size is taken first (see warm slots below).
bool tnb_malloc(tnb_alloc_record* record, uint64_t size, const char* name_fmt, ...)
    __attribute__((format(printf, 3, 4)));

// Releases the record's allocation and empties the record (with a
// frame-memory budget the range becomes a warm slot, below). A record of a
// buffer that was dropped meanwhile (its allocation already forgotten) is
// only emptied. Null or empty records are ignored.
void tnb_free(tnb_alloc_record* record);

// True when the record names an allocation that is still live: its buffer
// is held and that exact allocation was neither freed nor forgotten.
bool tnb_alloc_is_live(const tnb_alloc_record* record);

// Forgets every allocation (records still held elsewhere become stale and
// are emptied by their tnb_free) and lets the system reclaim the pages; the
// default buffer itself stays held.
void tnb_alloc_freeall();

// --- warm slots ------------------------------------------------------------------
//
// With a frame-memory budget (picture_cache_budget > 0, docs/frame-buffers.md)
// tnb_free keeps a freed allocation whole, with its pages committed and
// mapped in every process that touched them: a warm slot. The next
// allocation of the same reserved size takes the most recently freed warm
// slot of that size, so a new frame lands on pages that need no fault and
// may still be in the CPU's cache. Other sizes take fresh ranges first fit;
// only when none is left are the warm slots punched out and merged back.
// Warm bytes never pass the budget: past it the oldest slots are punched
// out (their memory returns to the system) first. Without a budget, freed
// ranges go straight back to the free list as described above.

// Bytes an allocation of `size` reserves: whole pages.
uint64_t tnb_reserved_size(uint64_t size);
// Bytes held in warm slots.
uint64_t tnb_warm_bytes();
// True when a warm slot would serve an allocation of `size` bytes.
bool tnb_warm_has(uint64_t size);
// Punches out the oldest warm slots until at most `limit` bytes stay warm.
void tnb_warm_trim(uint64_t limit);

// Warm slots made ahead, before any frame of their size was freed, so that
// the first frames of a new client land on committed pages too. Reserve
// takes a fresh range for `size` bytes first fit (it never punches warm
// slots out) and makes it the newest warm slot, marked not yet committed;
// it returns the slot's handle, or 0 without a budget, a buffer or a free
// range. The caller faults its pages in (through an access cache) and then
// marks it committed. Until then an allocation takes the slot only when no
// committed warm slot of its size is left, and gets a `fresh` record.
// The handle names the slot only while it is one: once an
// allocation took it, it was punched out or the buffer forgot it,
// reserved_at returns false and mark_committed and discard do nothing.
// Discard punches the slot out and frees its range (when faulting in failed).
uint64_t tnb_warm_reserve(uint64_t size);
// True when every live allocation and every warm slot reserves what an
// allocation of `size` bytes would (so also when there are none).
bool tnb_all_of_size(uint64_t size);
bool tnb_warm_reserved_at(uint64_t handle, uint64_t* offset, uint64_t* bytes);
void tnb_warm_mark_committed(uint64_t handle);
void tnb_warm_discard(uint64_t handle);

// Number of live allocations, the bytes they asked for and the bytes they
// reserve (whole pages).
size_t tnb_alloc_live_count();
uint64_t tnb_alloc_live_bytes();
uint64_t tnb_alloc_reserved_bytes();

// One line per live allocation on standard error, in buffer order:
// "<name>: <size> bytes\n" (size as asked for).
void tnb_alloc_print_remaining_buffers();

// --- the access cache ----------------------------------------------------------

struct t4mi_global_access_cache;

// A cache of mappings, one per buffer. Create never fails here (null is kept
// for the calling convention). Destroy unmaps everything; start-up's cache
// lives until exit and is never destroyed.
t4mi_global_access_cache* t4mi_global_access_cache_create();
void t4mi_global_access_cache_destroy(t4mi_global_access_cache* cache);

// Access flags for quickfetch.
inline constexpr int T4MI_ACCESS_READ = 1;
inline constexpr int T4MI_ACCESS_WRITE = 4;

// The process address of byte `offset` of buffer `buffer`, valid for `size`
// bytes; null when the cache is null, the buffer is not live, `size` is 0 or
// the range passes the buffer's end. The whole buffer is mapped read-write on
// first use and kept; `flags` (T4MI_ACCESS_*) is accepted for the calling
// convention. The address stays valid until the buffer is dropped or the
// entry is cleaned up as idle: fetch again rather than keep it.
void* t4mi_global_access_cache_quickfetch(t4mi_global_access_cache* cache, int buffer, uint64_t offset,
                                          uint64_t size, int flags);

// Faults in the pages of `size` bytes at `offset` of `buffer` for writing,
// through the cache's mapping, with one system call instead of a page fault
// a page (MADV_POPULATE_WRITE). False when the range is not mapped here or
// the kernel cannot; the first writes then fault the pages in as usual.
bool t4mi_global_access_cache_prefault(t4mi_global_access_cache* cache, int buffer, uint64_t offset,
                                       uint64_t size);

// Unmaps the entries of buffers no longer live, and those not fetched for
// T4MI_ACCESS_CACHE_IDLE_US whose buffer holds no live allocation and no
// warm slot. Null is ignored.
inline constexpr uint64_t T4MI_ACCESS_CACHE_IDLE_US = 10000000;
void t4mi_global_access_cache_cleanup_idle(t4mi_global_access_cache* cache);
// Mapped entries of a cache (for tests and diagnostics).
size_t t4mi_global_access_cache_entry_count(const t4mi_global_access_cache* cache);
