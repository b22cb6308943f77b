#include "frames/script_fonts.h"

#include <filesystem>

#include "fonts/font_catalogue.h"

namespace t4test {

script_fonts::script_fonts()
{
    // Three files only: the whole Noto directory would make every test pay
    // for fontconfig scanning a thousand fonts.
    for (const char* file : {NOTO_SANS_DEVANAGARI, NOTO_SANS_ARABIC, NOTO_SANS_HEBREW})
        std::filesystem::create_symlink(file, noto / std::filesystem::path(file).filename().string());
    fontconfig = std::make_unique<private_fontconfig>(
        std::vector<std::string>{std::filesystem::path(DEJAVU_SANS).parent_path().string(), noto.path()});
    build_font_catalogue();
}

script_fonts::~script_fonts()
{
    fontconfig.reset();
    build_font_catalogue();
}

} // namespace t4test
