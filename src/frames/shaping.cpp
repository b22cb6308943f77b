#include "frames/shaping.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include <fribidi.h>
#include <hb-ft.h>
#include <hb.h>

#include "fonts/font_fallback.h"
#include "fonts/font_globals.h"
#include "items/scroll_settings.h"

namespace {

bool has_char(FT_Face face, uint32_t c) { return face != nullptr && FT_Get_Char_Index(face, FT_ULong(c)) != 0; }

// Characters that belong to whatever surrounds them: no script of their own,
// or marks.
bool follows_neighbour(uint32_t c, hb_script_t raw)
{
    if (raw == HB_SCRIPT_COMMON || raw == HB_SCRIPT_INHERITED || raw == HB_SCRIPT_UNKNOWN)
        return true;
    switch (hb_unicode_general_category(hb_unicode_funcs_get_default(), c)) {
    case HB_UNICODE_GENERAL_CATEGORY_NON_SPACING_MARK:
    case HB_UNICODE_GENERAL_CATEGORY_SPACING_MARK:
    case HB_UNICODE_GENERAL_CATEGORY_ENCLOSING_MARK:
        return true;
    default:
        return false;
    }
}

FriBidiParType paragraph_type(uint8_t direction)
{
    if (direction == TEXT_DIRECTION_LTR)
        return FRIBIDI_PAR_LTR;
    if (direction == TEXT_DIRECTION_RTL)
        return FRIBIDI_PAR_RTL;
    return FRIBIDI_PAR_ON;
}

// The embedding level of every character after rules X1..I2 and L1. On a
// FriBidi failure every character takes the paragraph's level.
std::vector<int> bidi_levels(const std::vector<uint32_t>& chars, uint8_t direction)
{
    const auto n = FriBidiStrIndex(chars.size());
    std::vector<FriBidiCharType> types(chars.size());
    std::vector<FriBidiBracketType> brackets(chars.size());
    std::vector<FriBidiLevel> levels(chars.size(), 0);
    fribidi_get_bidi_types(chars.data(), n, types.data());
    fribidi_get_bracket_types(chars.data(), n, types.data(), brackets.data());
    FriBidiParType base = paragraph_type(direction);
    if (fribidi_get_par_embedding_levels_ex(types.data(), brackets.data(), n, &base, levels.data()) == 0) {
        const int level = direction == TEXT_DIRECTION_RTL ? 1 : 0;
        return std::vector<int>(chars.size(), level);
    }
    // Only for rule L1 (trailing white space at the paragraph's level); the
    // runs are put in order below. A failure leaves the levels as resolved.
    if (fribidi_reorder_line(0, types.data(), n, 0, base, levels.data(), nullptr, nullptr) == 0)
        std::fprintf(stderr, "WARNING: bidi reordering failed\n");
    return std::vector<int>(levels.begin(), levels.end());
}

// Scripts with the neighbours' filled in: a character of no script takes the
// script before it, leading ones the first real script of the line.
std::vector<hb_script_t> resolved_scripts(const std::vector<uint32_t>& chars, std::vector<hb_script_t>& raw)
{
    hb_unicode_funcs_t* funcs = hb_unicode_funcs_get_default();
    raw.resize(chars.size());
    std::vector<hb_script_t> scripts(chars.size(), HB_SCRIPT_COMMON);
    hb_script_t current = HB_SCRIPT_INVALID;
    for (size_t i = 0; i < chars.size(); i++) {
        raw[i] = hb_unicode_script(funcs, chars[i]);
        const bool own = raw[i] != HB_SCRIPT_COMMON && raw[i] != HB_SCRIPT_INHERITED && raw[i] != HB_SCRIPT_UNKNOWN;
        if (own)
            current = raw[i];
        scripts[i] = current;
    }
    const auto first = std::find_if(scripts.begin(), scripts.end(), [](hb_script_t s) { return s != HB_SCRIPT_INVALID; });
    const hb_script_t lead = first == scripts.end() ? HB_SCRIPT_COMMON : *first;
    for (hb_script_t& s : scripts)
        if (s == HB_SCRIPT_INVALID)
            s = lead;
    return scripts;
}

} // namespace

line_shaper::line_shaper(shaper_setup s) : setup(std::move(s)), buffer(hb_buffer_create()) {}

line_shaper::~line_shaper()
{
    for (hb_font_t* font : fonts)
        hb_font_destroy(font);
    hb_buffer_destroy(buffer);
}

uint32_t line_shaper::face_slot(FT_Face face)
{
    if (const auto it = slots.find(face); it != slots.end())
        return it->second;
    hb_face_t* hb_face = hb_ft_face_create_referenced(face);
    hb_font_t* font = hb_font_create(hb_face);
    hb_face_destroy(hb_face);
    const int y_scale = int(setup.pixel_size * 64);
    const int x_scale = int(std::lround(double(y_scale) * setup.x_stretch));
    hb_font_set_scale(font, x_scale, y_scale);
    face_list.push_back(face);
    fonts.push_back(font);
    const auto slot = uint32_t(face_list.size());
    slots.emplace(face, slot);
    return slot;
}

uint32_t line_shaper::choose_face(uint32_t c, uint32_t raw_script, uint32_t previous)
{
    if (setup.image_advance && setup.image_advance(int32_t(c)) >= 0)
        return 0;
    // Invisible format characters (joiners, direction marks) stay with their
    // neighbour even when it lacks them: the shaper hides them, and the run
    // stays whole.
    const bool format =
        hb_unicode_general_category(hb_unicode_funcs_get_default(), c) == HB_UNICODE_GENERAL_CATEGORY_FORMAT;
    if (format)
        return previous != 0 ? previous : face_slot(setup.primary);
    if (previous != 0 && follows_neighbour(c, hb_script_t(raw_script)) && has_char(face_list[previous - 1], c))
        return previous;
    if (has_char(setup.primary, c))
        return face_slot(setup.primary);
    if (last_fallback != 0 && has_char(face_list[last_fallback - 1], c))
        return last_fallback;
    FT_Face found = fallback_face_for(int32_t(c), setup.family);
    if (found == nullptr && c > 0x1FFF && has_char(emoji_face, c))
        found = emoji_face;
    if (found == nullptr && has_char(default_face, c))
        found = default_face;
    if (found == nullptr) // the missing glyph of the item's face: nothing is drawn
        return face_slot(setup.primary);
    last_fallback = face_slot(found);
    return last_fallback;
}

void line_shaper::shape_run(const std::vector<uint32_t>& chars, const run& r, std::vector<shaped_glyph>& out)
{
    const bool rtl = (r.level & 1) != 0;
    const size_t first = out.size();
    if (r.face == 0) {
        for (size_t i = r.start; i < r.start + r.length; i++) {
            const int32_t c = int32_t(chars[i]);
            out.push_back(shaped_glyph{.face = 0, .code = c, .x_advance = setup.image_advance(c) * 64,
                                       .source = uint32_t(i)});
        }
        if (rtl)
            std::reverse(out.begin() + ptrdiff_t(first), out.end());
        return;
    }
    hb_buffer_clear_contents(buffer);
    hb_buffer_add_utf32(buffer, chars.data(), int(chars.size()), unsigned(r.start), int(r.length));
    hb_buffer_set_direction(buffer, rtl ? HB_DIRECTION_RTL : HB_DIRECTION_LTR);
    hb_buffer_set_script(buffer, hb_script_t(r.script));
    hb_shape(fonts[r.face - 1], buffer, nullptr, 0);
    unsigned count = 0;
    const hb_glyph_info_t* info = hb_buffer_get_glyph_infos(buffer, &count);
    const hb_glyph_position_t* pos = hb_buffer_get_glyph_positions(buffer, nullptr);
    for (unsigned i = 0; i < count; i++)
        out.push_back(shaped_glyph{.face = r.face,
                                   .code = int32_t(info[i].codepoint),
                                   .x_advance = pos[i].x_advance,
                                   .x_offset = pos[i].x_offset,
                                   .y_offset = pos[i].y_offset,
                                   .source = info[i].cluster});
}

std::vector<shaped_glyph> line_shaper::shape(const std::vector<uint32_t>& chars)
{
    std::vector<shaped_glyph> glyphs;
    if (chars.empty())
        return glyphs;
    const std::vector<int> levels = bidi_levels(chars, setup.direction);
    std::vector<hb_script_t> raw;
    const std::vector<hb_script_t> scripts = resolved_scripts(chars, raw);

    // Itemise: a new run wherever the level, the script or the face changes.
    std::vector<run> runs;
    uint32_t previous = 0;
    last_fallback = 0;
    for (size_t i = 0; i < chars.size(); i++) {
        const uint32_t face = choose_face(chars[i], uint32_t(raw[i]), previous);
        previous = face;
        if (!runs.empty()) {
            run& last = runs.back();
            if (last.level == levels[i] && last.face == face && last.script == uint32_t(scripts[i])) {
                last.length++;
                continue;
            }
        }
        runs.push_back(run{.start = i, .length = 1, .level = levels[i], .face = face, .script = uint32_t(scripts[i])});
    }

    // Rule L2: from the highest level down to the lowest odd one, reverse
    // every sequence of runs at that level or above.
    int highest = 0, lowest_odd = 255;
    for (const run& r : runs) {
        highest = std::max(highest, r.level);
        if (r.level & 1)
            lowest_odd = std::min(lowest_odd, r.level);
    }
    for (int level = highest; level >= lowest_odd && level > 0; level--) {
        for (size_t i = 0; i < runs.size();) {
            if (runs[i].level < level) {
                i++;
                continue;
            }
            size_t j = i;
            while (j < runs.size() && runs[j].level >= level)
                j++;
            std::reverse(runs.begin() + ptrdiff_t(i), runs.begin() + ptrdiff_t(j));
            i = j;
        }
    }
    for (const run& r : runs)
        shape_run(chars, r, glyphs);
    return glyphs;
}
