// Fonts of the shaped-layout tests: while a script_fonts lives, fontconfig
// (and so the font catalogue and the fall-back) sees Debian's DejaVu fonts
// (fonts-dejavu-core: Latin, Arabic, Hebrew; its regular style is "Book")
// and three Noto faces (fonts-noto-core: Arabic, Hebrew, Devanagari), and
// nothing else. The previous setup and catalogue come back on destruction.
#pragma once

#include <memory>
#include <string>

#include "support/test_env.h"

namespace t4test {

inline constexpr const char* DEJAVU_SANS = "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";
inline constexpr const char* NOTO_SANS_DEVANAGARI = "/usr/share/fonts/truetype/noto/NotoSansDevanagari-Regular.ttf";
inline constexpr const char* NOTO_SANS_ARABIC = "/usr/share/fonts/truetype/noto/NotoSansArabic-Regular.ttf";
inline constexpr const char* NOTO_SANS_HEBREW = "/usr/share/fonts/truetype/noto/NotoSansHebrew-Regular.ttf";

class script_fonts {
public:
    script_fonts();
    ~script_fonts();
    script_fonts(const script_fonts&) = delete;
    script_fonts& operator=(const script_fonts&) = delete;

private:
    temp_dir noto;
    std::unique_ptr<private_fontconfig> fontconfig;
};

} // namespace t4test
