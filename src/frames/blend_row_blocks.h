// How the vector row kernels cover a row with blocks of 16 pixels, without a
// scalar tail and without touching a byte outside the row.
//
// Rows of 16 pixels or more: whole blocks from the start, then, when pixels
// are left over, one last block that ends exactly at the row's end. It
// overlaps pixels already blended; their coverage lanes are cleared, and a
// lane without coverage leaves its pixel alone, so they are written back
// unchanged. Rows shorter than a block are blended in a block of copies whose
// coverage beyond the row is zero.
//
// For the kernel sources (blend_row_sse2.cpp, blend_row_avx2.cpp) and the
// choice among them (blend_row.cpp). Each kernel instantiates
// walk_row_in_blocks with its own block type, so the AVX2 instantiation is
// compiled for AVX2 and no other code is.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "frames/blend_row.h"

// True where blend_row_avx2.cpp was compiled for AVX2.
extern const bool avx2_row_kernel_built;

constexpr size_t ROW_BLOCK = 16;

// 16 bytes 0xFF, then 16 bytes 0: the 16 bytes from ROW_BLOCK - k on have
// their first k bytes set.
alignas(32) inline constexpr uint8_t ROW_BLOCK_DONE_LANES[2 * ROW_BLOCK] = {
    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

// The sources of one row: coverage and, for colour bitmaps, Y, U, V (null otherwise).
struct row_sources {
    const uint8_t* coverage;
    const uint8_t* y;
    const uint8_t* u;
    const uint8_t* v;
};

// Internal linkage on purpose: each kernel file gets its own copies, compiled
// for its own instruction set, so the linker never merges an AVX2 copy into
// code that runs without AVX2.
namespace {

// Copies n < 2 * k bytes, k <= n, as two overlapping copies of k bytes, which
// the compiler turns into two moves.
template <size_t k>
inline void copy_two(uint8_t* to, const uint8_t* from, size_t n)
{
    std::memcpy(to, from, k);
    std::memcpy(to + n - k, from + n - k, k);
}

// Copies n < 16 bytes without a call into libc.
inline void copy_short(uint8_t* to, const uint8_t* from, size_t n)
{
    if (n >= 8)
        copy_two<8>(to, from, n);
    else if (n >= 4)
        copy_two<4>(to, from, n);
    else if (n >= 2)
        copy_two<2>(to, from, n);
    else if (n == 1)
        *to = *from;
}

// `block(dst, src, at, done)` blends the 16 pixels from index `at`; `done`
// is null or 16 bytes whose set bytes mark lanes to leave alone. It is called
// from one place, so that it is inlined there.
template <class Block>
inline void walk_row_in_blocks(const yuva_row& dst, const row_sources& src, size_t n, Block block)
{
    if (n == 0)
        return;
    // A row shorter than a block is blended in copies (declared here, used
    // only then), and copied back at the end.
    alignas(16) uint8_t buf[8][ROW_BLOCK];
    yuva_row row = dst;
    row_sources from = src;
    const bool short_row = n < ROW_BLOCK;
    if (short_row) {
        std::memset(buf, 0, sizeof buf);
        const uint8_t* planes[4] = {dst.y, dst.u, dst.v, dst.a};
        for (int p = 0; p < 4; p++)
            copy_short(buf[p], planes[p], n);
        copy_short(buf[4], src.coverage, n);
        row = {buf[0], buf[1], buf[2], buf[3]};
        from = {buf[4], nullptr, nullptr, nullptr};
        if (src.y != nullptr) {
            copy_short(buf[5], src.y, n);
            copy_short(buf[6], src.u, n);
            copy_short(buf[7], src.v, n);
            from = {buf[4], buf[5], buf[6], buf[7]};
        }
    }
    const size_t end = short_row ? ROW_BLOCK : n;
    size_t at = 0;
    const uint8_t* done = nullptr;
    for (;;) {
        block(row, from, at, done);
        const size_t next = at + ROW_BLOCK;
        if (next >= end || done != nullptr)
            break;
        if (next + ROW_BLOCK <= end) {
            at = next;
        } else {
            // The last block ends at the row's end; its first lanes are done.
            done = ROW_BLOCK_DONE_LANES + (end - next);
            at = end - ROW_BLOCK;
        }
    }
    if (short_row) {
        uint8_t* const planes[4] = {dst.y, dst.u, dst.v, dst.a};
        for (int p = 0; p < 4; p++)
            copy_short(planes[p], buf[p], n);
    }
}

} // namespace
