#include "fonts/font_bmp.h"

#include <cstdlib>
#include <new>

#include "platform/t4mi_assert.h"

font_bmp_cache_storage* font_bmp_alloc()
{
    void* block = std::malloc(sizeof(font_bmp_cache_storage));
    T4MI_ASSERT(block != nullptr);
    return new (block) font_bmp_cache_storage{};
}

uint8_t* font_bmp_zeroed_plane(int32_t stride, int32_t height)
{
    const size_t bytes = size_t(stride) * size_t(height) + 256;
    auto* plane = static_cast<uint8_t*>(std::calloc(bytes, 1));
    T4MI_ASSERT(plane != nullptr);
    return plane;
}

void font_bmp_free(font_bmp_cache_storage* bmp)
{
    if (bmp == nullptr)
        return;
    std::free(bmp->plane_a);
    std::free(bmp->plane_y);
    std::free(bmp->plane_u);
    std::free(bmp->plane_v);
    std::free(bmp);
}
