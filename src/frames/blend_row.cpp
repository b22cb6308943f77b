// The reference row kernel and the choice among the kernels.
#include "frames/blend_row.h"

#include <cstdlib>
#include <cstring>

#include "frames/blend_row_blocks.h"
#include "frames/yuva_pixel.h"

void blend_row_reference(const yuva_row& dst, const uint8_t* coverage, size_t n, uint32_t colour,
                         const uint8_t* src_y, const uint8_t* src_u, const uint8_t* src_v)
{
    const unsigned a = colour >> 24;
    for (size_t i = 0; i < n; i++) {
        const unsigned c = coverage[i];
        if (c == 0)
            continue;
        const unsigned s = source_alpha(c, a);
        if (src_y != nullptr)
            yuvablend(dst.y + i, dst.u + i, dst.v + i, dst.a + i, s, src_y[i], src_u[i], src_v[i]);
        else
            yuvablend(dst.y + i, dst.u + i, dst.v + i, dst.a + i, s, colour & 0xFF, (colour >> 8) & 0xFF,
                      (colour >> 16) & 0xFF);
    }
}

bool row_kernel_available(row_kernel kernel)
{
    switch (kernel) {
    case row_kernel::reference:
        return true;
    case row_kernel::sse2:
#if defined(__SSE2__)
        return true;
#else
        return false;
#endif
    case row_kernel::avx2:
#if defined(__x86_64__) || defined(__i386__)
        return avx2_row_kernel_built && __builtin_cpu_supports("avx2");
#else
        return false;
#endif
    }
    return false;
}

row_kernel pick_row_kernel(const char* cpu_switch, bool avx2_runs)
{
    const bool sse2_only = cpu_switch != nullptr && std::strcmp(cpu_switch, "sse2") == 0;
    if (!sse2_only && avx2_runs)
        return row_kernel::avx2;
    if (row_kernel_available(row_kernel::sse2))
        return row_kernel::sse2;
    return row_kernel::reference;
}

row_kernel choose_row_kernel()
{
    return pick_row_kernel(std::getenv("T4MI_CPU"), row_kernel_available(row_kernel::avx2));
}

blend_row_fn* row_kernel_function(row_kernel kernel)
{
    switch (kernel) {
    case row_kernel::sse2:
        return blend_row_sse2;
    case row_kernel::avx2:
        return blend_row_avx2;
    case row_kernel::reference:
        break;
    }
    return blend_row_reference;
}

row_kernel blend_row_kernel()
{
    static const row_kernel chosen = choose_row_kernel();
    return chosen;
}

blend_row_fn* blend_row_function()
{
    static blend_row_fn* const chosen = row_kernel_function(blend_row_kernel());
    return chosen;
}

void blend_row(const yuva_row& dst, const uint8_t* coverage, size_t n, uint32_t colour, const uint8_t* src_y,
               const uint8_t* src_u, const uint8_t* src_v)
{
    blend_row_function()(dst, coverage, n, colour, src_y, src_u, src_v);
}

const char* row_kernel_name(row_kernel kernel)
{
    switch (kernel) {
    case row_kernel::sse2:
        return "sse2";
    case row_kernel::avx2:
        return "avx2";
    case row_kernel::reference:
        break;
    }
    return "reference";
}
