#include "fonts/builtin_faces.h"

#include "fonts/font_globals.h"
#include "platform/fixed_paths.h"

const char* open_builtin_faces()
{
    if (FT_Init_FreeType(&ft_library) != 0) {
        ft_library = nullptr;
        return "Unable to initialize FreeType library\n";
    }
    if (FT_New_Face(ft_library, t4mi_fixed_path(T4MI_DEFAULT_FONT_PATH).c_str(), 0, &default_face) != 0) {
        default_face = nullptr;
        return "Unable to load default font\n";
    }
    if (FT_New_Face(ft_library, t4mi_fixed_path(T4MI_EMOJI_FONT_PATH).c_str(), 0, &emoji_face) != 0) {
        emoji_face = nullptr;
        return "Unable to load default emoji font\n";
    }
    return nullptr;
}

void close_builtin_faces()
{
    for (FT_Face* face : {&default_face, &emoji_face}) {
        if (*face != nullptr)
            FT_Done_Face(*face);
        *face = nullptr;
    }
    if (ft_library != nullptr)
        FT_Done_FreeType(ft_library);
    ft_library = nullptr;
}
