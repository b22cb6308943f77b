// Outline bitmaps from FreeType's stroker.
//
// Only the outside border of each contour is kept: filled, it is the glyph
// grown by the radius (holes shrink by it), so the whole of it lies under the
// glyph and nothing of the stroke shows through a semi-transparent glyph's
// inner half. Round joins and caps keep corners from growing spikes.
#include "fonts/outline.h"

#include <cstring>

#include FT_STROKER_H

#include "fonts/font_bmp.h"
#include "fonts/font_globals.h"
#include "fonts/glyph_cache.h"
#include "frames/client_context.h"

namespace {
// Owns an FT_Stroker for one stroke.
class owned_stroker {
public:
    explicit owned_stroker(FT_Library library)
    {
        if (library == nullptr || FT_Stroker_New(library, &stroker) != 0)
            stroker = nullptr;
    }
    ~owned_stroker()
    {
        if (stroker != nullptr)
            FT_Stroker_Done(stroker);
    }
    owned_stroker(const owned_stroker&) = delete;
    owned_stroker& operator=(const owned_stroker&) = delete;
    FT_Stroker get() const { return stroker; }

private:
    FT_Stroker stroker = nullptr;
};
} // namespace

void owned_ft_glyph::take_from(FT_GlyphSlot slot)
{
    reset();
    if (FT_Get_Glyph(slot, &glyph) != 0)
        glyph = nullptr;
}

void owned_ft_glyph::reset()
{
    if (glyph != nullptr)
        FT_Done_Glyph(glyph);
    glyph = nullptr;
}

font_bmp_cache_storage* stroke_glyph_outline(FT_Glyph source, int32_t radius_64, int32_t baseline_y)
{
    if (radius_64 <= 0 || source == nullptr || source->format != FT_GLYPH_FORMAT_OUTLINE)
        return nullptr;
    owned_stroker stroker(source->library);
    if (stroker.get() == nullptr)
        return nullptr;
    FT_Stroker_Set(stroker.get(), radius_64, FT_STROKER_LINECAP_ROUND, FT_STROKER_LINEJOIN_ROUND, 0);

    // The stroke and the rendering replace the glyph they are given; work on
    // a copy so the caller's stays as it was.
    FT_Glyph g = nullptr;
    if (FT_Glyph_Copy(source, &g) != 0)
        return nullptr;
    if (FT_Glyph_StrokeBorder(&g, stroker.get(), /*inside=*/0, /*destroy=*/1) != 0 ||
        FT_Glyph_To_Bitmap(&g, FT_RENDER_MODE_NORMAL, nullptr, /*destroy=*/1) != 0) {
        FT_Done_Glyph(g);
        return nullptr;
    }
    const auto* bg = reinterpret_cast<FT_BitmapGlyph>(g);
    const FT_Bitmap& b = bg->bitmap;
    font_bmp_cache_storage* bmp = nullptr;
    if (b.pixel_mode == FT_PIXEL_MODE_GRAY && b.pitch >= 0 && b.width < 4096 && b.rows < 4096) {
        bmp = font_bmp_alloc();
        bmp->width = int32_t(b.width);
        bmp->height = int32_t(b.rows);
        bmp->stride = b.pitch + 8;
        bmp->advance = 0;
        bmp->x_offset = bg->left;
        bmp->y_offset = baseline_y - bg->top;
        if (b.pitch > 0 && b.rows > 0) {
            bmp->plane_a = font_bmp_zeroed_plane(bmp->stride, bmp->height);
            for (int32_t row = 0; row < bmp->height; row++)
                std::memcpy(bmp->plane_a + ptrdiff_t(row) * bmp->stride, b.buffer + ptrdiff_t(row) * b.pitch,
                            size_t(b.pitch));
        }
    }
    FT_Done_Glyph(g);
    return bmp;
}

void hold_outline_source(scrolling_text_client_context* ctx, FT_GlyphSlot slot)
{
    ctx->pending_outline.glyph.reset();
    if (ctx->outline_width_64 > 0)
        ctx->pending_outline.glyph.take_from(slot);
}

void note_rendered_top(scrolling_text_client_context* ctx, FT_GlyphSlot slot)
{
    ctx->pending_outline.bitmap_top = slot->bitmap_top;
}

void file_outline(scrolling_text_client_context* ctx, const glyph_cache_key& key, const font_bmp_cache_storage* glyph)
{
    held_outline& held = ctx->pending_outline;
    if (ctx->outline_width_64 <= 0) {
        held.glyph.reset();
        return;
    }
    font_bmp_cache_storage* outline = nullptr;
    if (glyph != nullptr && held.glyph.get() != nullptr)
        outline = stroke_glyph_outline(held.glyph.get(), ctx->outline_width_64, glyph->y_offset + held.bitmap_top);
    held.glyph.reset();
    if (!ctx->outline_cache.emplace(key, outline).second)
        font_bmp_free(outline);
}

font_bmp_cache_storage* get_outline_bmp(scrolling_text_client_context* ctx, uint64_t line_height, int32_t code,
                                        uint32_t face)
{
    if (code < 0 || ctx->outline_width_64 <= 0)
        return nullptr;
    const glyph_cache_key key{line_height, code, face};
    if (const auto it = ctx->outline_cache.find(key); it != ctx->outline_cache.end())
        return it->second;
    // The rasteriser makes the outline with the glyph; a glyph already cached
    // without one (a failure, an emoji image) has none.
    get_font_bmp(ctx, line_height, code, face);
    return ctx->outline_cache.emplace(key, nullptr).first->second;
}
