#include "fonts/font_bmp.h"

#include <cstdlib>

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
