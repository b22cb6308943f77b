#include "fonts/font_catalogue.h"
#include "fonts/font_globals.h"
#include "frames/client_context.h"
#include "frames/reader.h"
#include "items/scroll_settings.h"

FT_Matrix context_glyph_matrix(const scrolling_text_client_context* ctx)
{
    // Without an aspect the factor is 1.0, and xx stays 0x10000.
    const double w = ctx->reader ? ctx->reader->frame_width : double(ctx->picture_width);
    const double h = ctx->reader ? ctx->reader->frame_height : double(ctx->picture_height);
    return FT_Matrix{FT_Fixed(65536.0 * ctx->pixel_aspect_factor(w, h)), 0, 0, 0x10000};
}

int kerning_between(scrolling_text_client_context* ctx, int32_t left, int32_t right)
{
    ctx->current_face =
        font_face_for_settings(scroll_settings.fontFamily.c_str(), scroll_settings.fontStyle.c_str());
    if (ctx->current_face == nullptr)
        ctx->current_face = default_face;
    FT_Face face = ctx->current_face;
    if (face == nullptr || !FT_HAS_KERNING(face))
        return 0;
    const FT_UInt a = FT_Get_Char_Index(face, FT_ULong(left));
    const FT_UInt b = FT_Get_Char_Index(face, FT_ULong(right));
    FT_Matrix m = context_glyph_matrix(ctx);
    FT_Vector origin{0, 0};
    FT_Set_Transform(face, &m, &origin);
    FT_Vector k{0, 0};
    FT_Get_Kerning(face, a, b, FT_KERNING_DEFAULT, &k);
    return kerning_pixels(k.x);
}
