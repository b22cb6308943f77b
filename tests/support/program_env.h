// The program's process-wide font state set up as start-up leaves it, for
// tests that render in this process: a redirected installation (fixed_root),
// a font list of no fonts but the built-in faces (private_fontconfig), the
// FreeType library with the default and emoji faces, and the font catalogue.
// Torn down in reverse on destruction, and whatever font state the test
// program had before (a global test environment's faces) is put back.
#pragma once

#include "fonts/font_globals.h"
#include "support/test_env.h"

namespace t4test {

class program_fonts {
public:
    program_fonts();
    ~program_fonts();
    program_fonts(const program_fonts&) = delete;
    program_fonts& operator=(const program_fonts&) = delete;
    bool ready() const { return loaded; }
    // Environment entries that give a child process the same setup.
    std::vector<std::string> env() const { return {root.env(), fonts.env()}; }

private:
    fixed_root root;
    private_fontconfig fonts{{}};
    bool loaded = false;
    // The process's font state before this one took its place.
    FT_Library saved_library;
    FT_Face saved_default;
    FT_Face saved_emoji;
    font_catalogue_map saved_catalogue;
};

} // namespace t4test
