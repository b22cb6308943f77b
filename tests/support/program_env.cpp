#include "support/program_env.h"

#include "fonts/font_catalogue.h"
#include "fonts/font_globals.h"
#include "platform/fixed_paths.h"

namespace t4test {

program_fonts::program_fonts()
{
    loaded = FT_Init_FreeType(&ft_library) == 0 &&
             FT_New_Face(ft_library, t4mi_fixed_path(T4MI_DEFAULT_FONT_PATH).c_str(), 0, &default_face) == 0 &&
             FT_New_Face(ft_library, t4mi_fixed_path(T4MI_EMOJI_FONT_PATH).c_str(), 0, &emoji_face) == 0;
    if (loaded)
        build_font_catalogue();
}

program_fonts::~program_fonts()
{
    clear_font_catalogue();
    if (default_face != nullptr)
        FT_Done_Face(default_face);
    default_face = nullptr;
    if (emoji_face != nullptr)
        FT_Done_Face(emoji_face);
    emoji_face = nullptr;
    if (ft_library != nullptr)
        FT_Done_FreeType(ft_library);
    ft_library = nullptr;
}

} // namespace t4test
