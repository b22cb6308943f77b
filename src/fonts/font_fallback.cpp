#include "fonts/font_fallback.h"

#include <cstdio>
#include <fontconfig/fontconfig.h>
#include <map>
#include <memory>
#include <utility>

#include "fonts/font_catalogue.h"
#include "fonts/font_globals.h"
#include "fonts/fontconfig_handles.h"

namespace {

// (file, face index) -> the face opened from it; null when it failed to open.
std::map<std::pair<std::string, int>, FT_Face> opened_faces;
// (family, character) -> the answer given for it.
std::map<std::pair<std::string, int32_t>, FT_Face> answers;

FT_Face open_face(const char* file, int index)
{
    const auto key = std::make_pair(std::string(file), index);
    if (const auto it = opened_faces.find(key); it != opened_faces.end())
        return it->second;
    FT_Face face = nullptr;
    if (FT_New_Face(ft_library, file, index, &face) != 0) {
        std::fprintf(stderr, "Unable to load font %s\n", file);
        face = nullptr;
    } else {
        FT_Select_Charmap(face, FT_ENCODING_UNICODE);
    }
    opened_faces.emplace(key, face);
    return face;
}

bool usable_for(FcPattern* font, int32_t code)
{
    FcCharSet* chars = nullptr;
    if (FcPatternGetCharSet(font, FC_CHARSET, 0, &chars) != FcResultMatch || !FcCharSetHasChar(chars, FcChar32(code)))
        return false;
    // Colour bitmap faces (emoji) cannot be drawn as coverage.
    FcBool flag = FcFalse;
    if (FcPatternGetBool(font, FC_COLOR, 0, &flag) == FcResultMatch && flag)
        return false;
    return FcPatternGetBool(font, FC_SCALABLE, 0, &flag) != FcResultMatch || flag;
}

FT_Face ask_fontconfig(int32_t code, const std::string& family)
{
    FcConfig* config = font_catalogue_config();
    if (config == nullptr || ft_library == nullptr || code <= 0 || code > 0x10FFFF)
        return nullptr;
    fc_pattern_ptr pattern(FcPatternCreate());
    fc_charset_ptr chars(FcCharSetCreate());
    if (!pattern || !chars || !FcCharSetAddChar(chars.get(), FcChar32(code)))
        return nullptr;
    FcPatternAddCharSet(pattern.get(), FC_CHARSET, chars.get());
    if (!family.empty())
        FcPatternAddString(pattern.get(), FC_FAMILY, reinterpret_cast<const FcChar8*>(family.c_str()));
    FcConfigSubstitute(config, pattern.get(), FcMatchPattern);
    FcDefaultSubstitute(pattern.get());
    FcResult result = FcResultNoMatch;
    fc_font_set_ptr fonts(FcFontSort(config, pattern.get(), FcFalse, nullptr, &result));
    if (!fonts)
        return nullptr;
    for (int i = 0; i < fonts->nfont; i++) {
        FcPattern* font = fonts->fonts[i];
        FcChar8* file = nullptr;
        int index = 0;
        if (!usable_for(font, code) || FcPatternGetString(font, FC_FILE, 0, &file) != FcResultMatch)
            continue;
        FcPatternGetInteger(font, FC_INDEX, 0, &index);
        FT_Face face = open_face(reinterpret_cast<const char*>(file), index);
        if (face != nullptr && FT_Get_Char_Index(face, FT_ULong(code)) != 0)
            return face;
    }
    return nullptr;
}
} // namespace

FT_Face fallback_face_for(int32_t code, const std::string& family)
{
    auto key = std::make_pair(family, code);
    if (const auto it = answers.find(key); it != answers.end())
        return it->second;
    FT_Face face = ask_fontconfig(code, family);
    answers.emplace(std::move(key), face);
    return face;
}

void clear_fallback_faces()
{
    answers.clear();
    for (auto& [key, face] : opened_faces)
        if (face != nullptr)
            FT_Done_Face(face);
    opened_faces.clear();
}
