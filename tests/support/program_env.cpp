#include "support/program_env.h"

#include "fonts/builtin_faces.h"
#include "fonts/font_catalogue.h"
#include "fonts/font_globals.h"
#include "platform/fixed_paths.h"

namespace t4test {

program_fonts::program_fonts()
    : saved_library(ft_library), saved_default(default_face), saved_emoji(emoji_face),
      saved_catalogue(std::move(font_catalogue))
{
    font_catalogue.clear();
    ft_library = nullptr;
    default_face = emoji_face = nullptr;
    loaded = open_builtin_faces() == nullptr;
    if (loaded)
        build_font_catalogue();
}

program_fonts::~program_fonts()
{
    clear_font_catalogue();
    close_builtin_faces();
    ft_library = saved_library;
    default_face = saved_default;
    emoji_face = saved_emoji;
    font_catalogue = std::move(saved_catalogue);
}

} // namespace t4test
