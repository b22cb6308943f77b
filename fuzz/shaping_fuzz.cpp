// Any bytes as one line of shaped text: the first byte picks the paragraph
// direction, the rest is read as UTF-32 code points (any value, invalid ones
// included). The shaper must return without crashing, with every glyph's
// source inside the line.
#include <cstdint>
#include <cstring>
#include <vector>

#include "fonts/font_globals.h"
#include "frames/shaping.h"
#include "platform/fixed_paths.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static FT_Face face = [] {
        FT_Face f = nullptr;
        if (FT_Init_FreeType(&ft_library) != 0 ||
            FT_New_Face(ft_library, t4mi_fixed_path(T4MI_DEFAULT_FONT_PATH).c_str(), 0, &f) != 0)
            __builtin_trap();
        default_face = f;
        return f;
    }();
    if (size < 1)
        return 0;
    std::vector<uint32_t> chars((size - 1) / 4);
    if (!chars.empty())
        std::memcpy(chars.data(), data + 1, chars.size() * 4);
    shaper_setup setup;
    setup.primary = face;
    setup.pixel_size = 40;
    setup.direction = uint8_t(data[0] % 3);
    line_shaper shaper(setup);
    for (const shaped_glyph& g : shaper.shape(chars))
        if (g.source >= chars.size() || g.face > shaper.faces().size())
            __builtin_trap();
    return 0;
}
