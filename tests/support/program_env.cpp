#include "support/program_env.h"

#include "fonts/builtin_faces.h"
#include "fonts/font_catalogue.h"
#include "fonts/font_globals.h"
#include "platform/fixed_paths.h"

namespace t4test {

program_fonts::program_fonts()
{
    loaded = open_builtin_faces() == nullptr;
    if (loaded)
        build_font_catalogue();
}

program_fonts::~program_fonts()
{
    clear_font_catalogue();
    close_builtin_faces();
}

} // namespace t4test
