// The shared frame-buffer domain: start-up and shut-down operations.
//
// Frames live in shared buffers that clients map without copying. This header
// holds what start-up and shut-down call; the allocator itself (tnb_malloc,
// tnb_free, the default buffer, the access cache lookups) joins it with the
// frame path.
#pragma once

#include <cstdint>

struct tnb_domain;

// Joins the process's buffer domain (the shared-memory file system). 0 on success.
int t4mi_join_tnb_domain();
tnb_domain* t4mi_tnb_domain();

void tnb_alloc_init();

// Bytes the domain could still hand out. `include_cached` is kept for the
// calling convention (1: count buffers the process may drop as free).
uint64_t tnb_context_free_space(tnb_domain* domain, int include_cached);

// Resets the single-buffer assignment (buffer fd, buffer id, flags).
void tnb_alloc_assign_single(int fd, int buffer, int flags);

void tnb_alloc_freeall();
void tnb_default_buffer_drop();

// One line per live allocation on standard error, by name and size.
void tnb_alloc_print_remaining_buffers();

struct t4mi_global_access_cache;
t4mi_global_access_cache* t4mi_global_access_cache_create();
void t4mi_global_access_cache_cleanup_idle(t4mi_global_access_cache* cache);
