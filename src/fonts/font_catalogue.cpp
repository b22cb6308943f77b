#include "fonts/font_catalogue.h"

#include <cstdio>
#include <cstring>
#include <fontconfig/fontconfig.h>
#include <memory>

#include "fonts/font_fallback.h"
#include "fonts/font_globals.h"
#include "fonts/fontconfig_handles.h"
#include "platform/fixed_paths.h"

namespace {

const char* first_string(FcPattern* font, const char* object)
{
    FcChar8* value = nullptr;
    if (FcPatternGetString(font, object, 0, &value) != FcResultMatch)
        return nullptr;
    return reinterpret_cast<const char*>(value);
}

// Kept for the fall-back lookups, which must see the fonts the catalogue saw.
fc_config_ptr catalogue_config;
} // namespace

FcConfig* font_catalogue_config() { return catalogue_config.get(); }

void clear_font_catalogue()
{
    clear_fallback_faces();
    catalogue_config.reset();
    for (auto& [family, styles] : font_catalogue)
        for (auto& [style, entry] : styles)
            if (entry.face != nullptr) {
                FT_Done_Face(entry.face);
                entry.face = nullptr;
            }
    font_catalogue.clear();
}

void build_font_catalogue()
{
    clear_font_catalogue();
    if (FcInit() != FcTrue)
        return;
    catalogue_config.reset(FcInitLoadConfigAndFonts());
    FcConfig* config = catalogue_config.get();
    if (config == nullptr)
        return;
    const std::string extra_dir = t4mi_fixed_path(T4MI_EXTRA_FONT_DIR);
    if (FcConfigAppFontAddDir(config, reinterpret_cast<const FcChar8*>(extra_dir.c_str())) != FcTrue)
        std::fprintf(stderr, "WARNING: Failed to add Tevrin font dir to config\n");

    fc_pattern_ptr pattern(FcPatternCreate());
    fc_object_set_ptr objects(
        FcObjectSetBuild(FC_FAMILY, FC_STYLE, FC_FILE, static_cast<char*>(nullptr)));
    if (!pattern || !objects)
        return;
    fc_font_set_ptr fonts(FcFontList(config, pattern.get(), objects.get()));
    if (!fonts || fonts->nfont < 1)
        return;

    for (int i = 0; i < fonts->nfont; i++) {
        const char* file = first_string(fonts->fonts[i], FC_FILE);
        const char* style = first_string(fonts->fonts[i], FC_STYLE);
        const char* family = first_string(fonts->fonts[i], FC_FAMILY);
        if (file == nullptr || style == nullptr || family == nullptr || std::strchr(file, '.') == nullptr)
            continue;
        // A later font of the same family and style replaces the path; a face
        // already open for the entry stays (none exists within one build).
        font_catalogue[family][style].path = file;
    }
}

FT_Face find_font_face(const char* family, const char* style)
{
    const auto fam = font_catalogue.find(family);
    if (fam == font_catalogue.end()) {
        std::fprintf(stderr, "WARNING: unknown font %s\n", family);
        return nullptr;
    }
    auto& styles = fam->second;
    auto entry = styles.find(style);
    // "Book" and "Normal" come last, so a family that has one of the first
    // three keeps the face it always had.
    for (const char* stand_in : {"Regular", "Medium", "Roman", "Book", "Normal"}) {
        if (entry != styles.end())
            break;
        entry = styles.find(stand_in);
    }
    if (entry == styles.end()) {
        std::fprintf(stderr, "WARNING: unknown font style %s\n", style);
        return nullptr;
    }
    font_entry& font = entry->second;
    if (font.face != nullptr)
        return font.face;
    std::fprintf(stderr, "Loading and initing font %s style %s\n", family, style);
    if (FT_New_Face(ft_library, font.path.c_str(), 0, &font.face) != 0) {
        font.face = nullptr;
        std::fprintf(stderr, "Unable to load font %s\n", font.path.c_str());
        return nullptr;
    }
    FT_Select_Charmap(font.face, FT_ENCODING_UNICODE);
    return font.face;
}

FT_Face font_face_for_settings(const char* family, const char* style)
{
    if (family[0] == '\0')
        return default_face;
    return find_font_face(family, style);
}
