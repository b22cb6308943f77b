#include <libxml/parser.h>

#include "fonts/emoji_images.h"
#include "fonts/font_globals.h"
#include "main/process.h"
#include "platform/derived_params.h"
#include "platform/tnb.h"

void tear_down()
{
    tnb_alloc_freeall();
    tnb_default_buffer_drop();
    if (default_face != nullptr)
        FT_Done_Face(default_face);
    default_face = nullptr;
    if (emoji_face != nullptr)
        FT_Done_Face(emoji_face);
    emoji_face = nullptr;
    if (ft_library != nullptr)
        FT_Done_FreeType(ft_library);
    ft_library = nullptr;
    t4mi_free_all();
    xmlCleanupParser();
    free_emoji_png_cache();
}
