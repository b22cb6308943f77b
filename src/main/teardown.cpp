#include <libxml/parser.h>

#include "fonts/builtin_faces.h"
#include "fonts/emoji_images.h"
#include "fonts/font_globals.h"
#include "main/process.h"
#include "platform/derived_params.h"

void tear_down()
{
    release_frame_buffers();
    close_builtin_faces();
    t4mi_free_all();
    xmlCleanupParser();
    free_emoji_png_cache();
}
