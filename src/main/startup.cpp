// Start-up and tear-down steps that the program and the in-process render
// session (main/render_session.cpp) share.
#include "fonts/builtin_faces.h"
#include "fonts/emoji_images.h"
#include "fonts/font_catalogue.h"
#include "main/process.h"
#include "platform/tnb.h"

const char* open_fonts()
{
    if (const char* failure = open_builtin_faces())
        return failure;
    build_font_catalogue();
    return nullptr;
}

void close_fonts()
{
    clear_font_catalogue();
    close_builtin_faces();
    free_emoji_png_cache();
}

void release_frame_buffers()
{
    tnb_alloc_freeall();
    tnb_default_buffer_drop();
}
