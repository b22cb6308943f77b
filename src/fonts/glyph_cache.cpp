// Glyph bitmaps of a client context, rendered once per (line height,
// character) and kept until the next layout clears the cache.
//
// The line height is the pixel box of one text line. Without a font scale the
// glyph is made smaller by the shadow's vertical offset and half its blur, so
// that text and shadow together fit the line, and the two are centred
// together. With a font scale the pixel size is simply scale x line height.
//
// A character the chosen face lacks walks a short fall-back chain, one face
// per pass: the family with its last word removed (so "Foo Sans Light" finds
// "Foo Sans"), then the emoji face for characters above U+1FFF, then the
// default face, and at last the space of the face reached, so text never
// fails for want of a glyph.
#include "fonts/glyph_cache.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fonts/emoji_images.h"
#include "fonts/font_bmp.h"
#include "fonts/font_catalogue.h"
#include "fonts/font_globals.h"
#include "fonts/outline.h"
#include "frames/client_context.h"
#include "frames/reader.h"
#include "items/scroll_settings.h"
#include "platform/t4mi_assert.h"

namespace {

// Line heights above this are refused (the frame buffers stop at 4096).
constexpr uint64_t max_line_height = 2048;

// Loads and renders glyph `index` of `face` with the context's transform.
// Null (with its message) when FreeType fails or gives a bitmap we cannot
// copy: only 8-bit grey, top-down rows.
// While the context draws outlines, the loaded outline is held for the
// glyph's outline (see hold_outline_source).
FT_GlyphSlot render_glyph(scrolling_text_client_context* ctx, FT_Face face, FT_UInt index)
{
    FT_Matrix matrix = context_glyph_matrix(ctx);
    FT_Vector origin{0, 0};
    FT_Set_Transform(face, &matrix, &origin);
    if (FT_Load_Glyph(face, index, FT_LOAD_DEFAULT) != 0) {
        std::fprintf(stderr, "Freetype: cannot load glyph %u\n", index);
        return nullptr;
    }
    FT_GlyphSlot slot = face->glyph;
    hold_outline_source(ctx, slot);
    if (FT_Render_Glyph(slot, FT_RENDER_MODE_NORMAL) != 0) {
        std::fprintf(stderr, "Freetype: cannot render glyph\n");
        return nullptr;
    }
    note_rendered_top(ctx, slot);
    if (slot->bitmap.pixel_mode != FT_PIXEL_MODE_GRAY) {
        std::fprintf(stderr, "Freetype: Unsupported glyph bitmap pixel mode\n");
        return nullptr;
    }
    if (slot->bitmap.pitch < 0) {
        std::fprintf(stderr, "Freetype: Unsupported bottom-up render pitch=%d width=%d rows=%d adv=%.3f\n",
                     slot->bitmap.pitch, int(slot->bitmap.width), int(slot->bitmap.rows),
                     double(slot->advance.x) / 64.0);
        return nullptr;
    }
    return slot;
}

// The record of a rendered glyph. The baseline sits at 4/5 of the line,
// scaled to the pixel box, and the pixel box is centred in the line.
font_bmp_cache_storage* glyph_record(FT_GlyphSlot g, int64_t size, int64_t pixel_size, bool scaled,
                                     int32_t shadow_offset_y)
{
    const int64_t ascent = (4 * size / 5) * pixel_size / size;
    int64_t y_offset = (size - pixel_size) / 2 + ascent - g->bitmap_top;
    if (!scaled)
        y_offset -= shadow_offset_y / 2;

    font_bmp_cache_storage* bmp = font_bmp_alloc();
    bmp->width = int32_t(g->bitmap.width);
    bmp->height = int32_t(g->bitmap.rows);
    bmp->stride = g->bitmap.pitch + 8;
    bmp->advance = int32_t(g->advance.x >> 6);
    bmp->x_offset = g->bitmap_left;
    bmp->y_offset = int32_t(y_offset);
    bmp->tag = -1;
    if (bmp->stride == 0 || bmp->height == 0)
        return bmp;
    bmp->plane_a = font_bmp_zeroed_plane(bmp->stride, bmp->height);
    for (int32_t row = 0; row < bmp->height; row++)
        std::memcpy(bmp->plane_a + ptrdiff_t(row) * bmp->stride, g->bitmap.buffer + ptrdiff_t(row) * g->bitmap.pitch,
                    size_t(g->bitmap.pitch));
    return bmp;
}

// A plane of `bytes` bytes from malloc, contents undefined.
uint8_t* raw_plane(size_t bytes)
{
    auto* plane = static_cast<uint8_t*>(std::malloc(bytes));
    T4MI_ASSERT(plane != nullptr);
    return plane;
}

// The emoji image `e` fitted to the line: scaled to the pixel size (at least
// 4 rows), widened by the pixel aspect; or copied as it is when its height
// already fits, in which case the aspect is deliberately not applied.
font_bmp_cache_storage* emoji_record(const scrolling_text_client_context* ctx, const font_bmp_cache_storage* e,
                                     int64_t size, int64_t pixel_size)
{
    const double f = ctx->pixel_aspect_factor(ctx->reader->frame_width, ctx->reader->frame_height);
    const int64_t target_h = std::max<int64_t>(4, pixel_size);
    font_bmp_cache_storage* bmp = font_bmp_alloc();
    const uint8_t* source[4] = {e->plane_a, e->plane_y, e->plane_u, e->plane_v};
    uint8_t** dest[4] = {&bmp->plane_a, &bmp->plane_y, &bmp->plane_u, &bmp->plane_v};
    if (target_h != e->height) {
        const double w = std::floor(double(target_h) * e->width * f / e->height + 0.5);
        const int32_t target_w = int32_t(std::max(1.0, w));
        bmp->width = target_w;
        bmp->height = int32_t(target_h);
        bmp->stride = target_w + 8;
        bmp->advance = target_w;
        bmp->x_offset = 0;
        bmp->y_offset = 0;
        bmp->tag = -1;
        for (int p = 0; p < 4; p++) {
            if (source[p] == nullptr)
                continue;
            *dest[p] = raw_plane(size_t(bmp->height) * size_t(bmp->stride));
            bmp->scalecopy(bmp, *dest[p], e, source[p]);
        }
    } else {
        bmp->width = e->width;
        bmp->height = e->height;
        bmp->stride = e->stride;
        bmp->advance = e->advance;
        bmp->x_offset = e->x_offset;
        bmp->tag = -1;
        const size_t bytes = size_t(e->stride) * size_t(e->height);
        for (int p = 0; p < 4; p++) {
            if (source[p] == nullptr)
                continue;
            *dest[p] = raw_plane(bytes);
            std::memcpy(*dest[p], source[p], bytes);
        }
    }
    // Deliberate: an arithmetic shift (toward minus infinity), where glyphs
    // truncate toward zero.
    bmp->y_offset = int32_t((size - pixel_size) >> 1);
    return bmp;
}

// Glyph `index` of shaped face `face` (1-based) at the line height; null for
// the missing glyph 0, an unknown face or a line that fits no glyph.
font_bmp_cache_storage* load_shaped_glyph(scrolling_text_client_context* ctx, uint64_t line_height, int32_t index,
                                          uint32_t face)
{
    const int64_t pixel_size = glyph_pixel_size(ctx, line_height);
    if (index == 0 || face > ctx->shaped_faces.size() || pixel_size <= 0 || ctx->reader == nullptr ||
        line_height == 0 || line_height > max_line_height)
        return nullptr;
    FT_Face ft = ctx->shaped_faces[face - 1];
    if (ft == nullptr)
        return nullptr;
    if (FT_Set_Pixel_Sizes(ft, 0, FT_UInt(pixel_size)) != 0)
        std::fprintf(stderr, "WARNING: FT_Set_Pixel_Sizes() failed\n");
    FT_GlyphSlot g = render_glyph(ctx, ft, FT_UInt(index));
    if (g == nullptr || g->bitmap.width >= 4096 || g->bitmap.rows >= 4096)
        return nullptr;
    return glyph_record(g, int64_t(line_height), pixel_size, scroll_settings.fontScale > 0, ctx->shadow_offset_y);
}

} // namespace

bool is_emoji_candidate(int32_t code)
{
    return (code >= 0x2000 && code <= 0x3FFF) || (code >= 0x1F000 && code <= 0x1FFFF);
}

font_bmp_cache_storage* get_font_bmp(scrolling_text_client_context* ctx, uint64_t line_height, int32_t code,
                                     uint32_t face)
{
    if (code < 0)
        return nullptr;
    const glyph_cache_key key{line_height, code, face};
    if (const auto it = ctx->glyph_cache.find(key); it != ctx->glyph_cache.end())
        return it->second;
    font_bmp_cache_storage* bmp = ctx->load_font_bmp(line_height, code, face);
    ctx->glyph_cache.emplace(key, bmp);
    file_outline(ctx, key, bmp);
    return bmp;
}

int64_t glyph_pixel_size(const scrolling_text_client_context* ctx, uint64_t line_height)
{
    // Line heights beyond the limit are refused by the loads; their products
    // may wrap here harmlessly (unsigned).
    if (scroll_settings.fontScale > 0) {
        const uint64_t p = uint64_t(scroll_settings.fontScale) * line_height;
        return p > 1999 ? int64_t(p / 1000) : 2;
    }
    // An outline takes its width above and below the glyph.
    return int64_t(line_height) - std::abs(int64_t(ctx->shadow_offset_y)) - (int64_t(ctx->shadow_blur_radius) + 1) / 2 -
           2 * int64_t(outline_room(ctx->outline_width_64));
}

font_bmp_cache_storage* scrolling_text_client_context::load_font_bmp(uint64_t line_height, int32_t code,
                                                                      uint32_t face)
{
    if (face != 0)
        return load_shaped_glyph(this, line_height, code, face);
    const font_bmp_cache_storage* emoji = nullptr;
    if (is_emoji_candidate(code) && scroll_settings.emoji)
        emoji = get_emoji_bmp(code);

    const bool scaled = scroll_settings.fontScale > 0;
    const int64_t pixel_size = glyph_pixel_size(this, line_height);
    if (pixel_size <= 0)
        return nullptr;

    current_face = font_face_for_settings(scroll_settings.fontFamily.c_str(), scroll_settings.fontStyle.c_str());
    if (current_face == nullptr)
        current_face = default_face;
    if (reader == nullptr || current_face == nullptr || line_height == 0 || line_height > max_line_height)
        return nullptr;
    const int64_t size = int64_t(line_height);

    FT_UInt index = 0;
    int attempt = 0;
    for (;;) {
        if (current_face == nullptr)
            return nullptr;
        if (emoji != nullptr)
            return emoji_record(this, emoji, size, pixel_size);
        if (FT_Set_Pixel_Sizes(current_face, 0, FT_UInt(pixel_size)) != 0)
            std::fprintf(stderr, "WARNING: FT_Set_Pixel_Sizes() failed\n");
        index = FT_Get_Char_Index(current_face, FT_ULong(code));
        if (index != 0)
            break;
        if (code == 32) {
            index = FT_Get_Char_Index(current_face, 32);
            break;
        }

        attempt++;
        if (attempt == 1) {
            // Only this one shortening is tried: drop the last word and the
            // whole run of spaces before it. The setting stays as it is.
            std::string font_family = scroll_settings.fontFamily;
            const char* spc = std::strrchr(font_family.c_str(), ' ');
            if (spc != nullptr) {
                while (spc > font_family.c_str() && spc[-1] == ' ')
                    spc--;
                T4MI_ASSERT(spc >= font_family.c_str());
                font_family.resize(size_t(spc - font_family.c_str()));
                std::fprintf(stderr, "Trying fallback '%s'\n", font_family.c_str());
                current_face = font_face_for_settings(font_family.c_str(), scroll_settings.fontStyle.c_str());
                if (current_face == nullptr)
                    current_face = default_face;
            }
        } else if (attempt == 2) {
            std::fprintf(stderr, "No glyph, using default\n");
            if (code > 0x1FFF)
                current_face = emoji_face;
            else
                attempt = 3; // the emoji face holds nothing below U+2000
        }
        if (attempt == 3) {
            current_face = default_face;
        } else if (attempt == 4) {
            // Give the character up: the space of the face reached.
            index = FT_Get_Char_Index(current_face, 32);
            break;
        }
        if (reader == nullptr)
            return nullptr;
    }

    FT_GlyphSlot g = render_glyph(this, current_face, index);
    if (g == nullptr)
        return nullptr;
    T4MI_ASSERT(g->bitmap.width < 4096);
    T4MI_ASSERT(g->bitmap.rows < 4096);
    return glyph_record(g, size, pixel_size, scaled, shadow_offset_y);
}
