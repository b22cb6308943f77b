// Memory-mapped views of part of a file.
#pragma once

#include <cstddef>
#include <cstdint>

struct sliding_window_v4 {
    int fd = -1;
    size_t window_size = 0;          // the largest range one mapping may cover
    const unsigned char* buffer = nullptr; // the mapped range's first byte, or null
    void* map_base = nullptr;        // page-aligned start of the current mapping
    size_t map_length = 0;
};

// A view of at most `window_size` bytes over `fd` (not owned), nothing mapped
// yet. Null when window_size is 0 or fd is negative.
sliding_window_v4* sliding_window_v4_create_mmap(size_t window_size, int fd);

// Maps [offset, offset + length) read-only, replacing the previous mapping.
// Bytes past the end of the file (within its last page) read as zero.
// Non-zero on success; 0 when length exceeds the window or mmap fails.
int sliding_window_v4_mmap_lazy_lseek(sliding_window_v4* view, uint64_t offset, size_t length);

// Unmaps and frees the view; returns null.
sliding_window_v4* sliding_window_v4_destroy(sliding_window_v4* view);
