// The program's client context: one per client of the control socket.
//
// It owns everything a client's output needs: its text runs (parsed from the
// item text), the layout of those runs along the strip, the glyph and shadow
// caches for its picture size, its frame reader with the frame cache, and the
// schedule data its fields show. Each subsystem implements its members in its
// own file:
//   text/markup.cpp            parse_text, append_text, append_char, apply_data_packet
//   text/schedule_fields.cpp   the field members (artist ... date-end)
//   text/time_formats.cpp      _json_choose_time_fmt, _json_choose_date_fmt
//   fonts/glyph_cache.cpp      load_font_bmp (and get_font_bmp)
//   fonts/shadow.cpp           load_shadow_bmp (and get_shadow_bmp)
//   fonts/outline.cpp          the outline cache (get_outline_bmp)
//   frames/layout.cpp          recompute_text_times
//   frames/client_context.cpp  construction, caches, reader, destruction
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <ft2build.h>
#include FT_FREETYPE_H

#include "fonts/outline.h"
#include "frames/glyph_cache_key.h"
#include "frames/placed_glyph.h"
#include "platform/client_context.h"
#include "platform/json11.h"
#include "text/text_run.h"

struct comm_socket_v4_packet;
class my_AVIVideoRandomReader;

class scrolling_text_client_context : public t4mi_client_context {
public:
    explicit scrolling_text_client_context(uint64_t id);
    ~scrolling_text_client_context() override;

    // --- text (text/markup.cpp) ---------------------------------------------
    // Takes schedule data (JSON text in the packet's blob, read up to its
    // first NUL; null packet or bad JSON: null data). Marks the text for
    // re-parsing when the data changed. Returns true when nothing changed.
    bool apply_data_packet(const comm_socket_v4_packet* packet) override;
    // Rebuilds `runs` from scroll_settings.text: clears parse_pending and both
    // deadlines, resets `style` to the item's colours, then walks the text and
    // its "%{...}%" fields. A field body longer than 511 bytes never returns
    // (deliberate; see markup.cpp).
    virtual void parse_text();
    // Appends every code point of a NUL-terminated UTF-8 string in the current
    // style; malformed bytes are skipped one by one.
    void append_text(const char* utf8);
    // Appends one run in the current style; `code` > 0.
    void append_char(int32_t code);

    // --- schedule fields (text/schedule_fields.cpp) -------------------------
    // One family per field, declared in virtual-slot order. In each family:
    //   _next(index) / _prev(index): the entry "next<index>" / "prev<index>"
    //     of `data`; an index below 0 means 1, 0 is used as it is;
    //   the bare name: the entry "current";
    //   _item(entry): the value read from one entry.
    // Missing entries, keys and wrongly typed values give "". The time
    // families also take the field's format (NUL-terminated, never null) and
    // never arm a refresh; their now members read the wall clock and do.
    virtual std::string _json_artist_next(int index);
    virtual std::string _json_artist_prev(int index);
    virtual std::string _json_artist();
    virtual std::string _json_artist_item(const json11::Json& entry);
    virtual std::string _json_author_next(int index);
    virtual std::string _json_author_prev(int index);
    virtual std::string _json_author();
    virtual std::string _json_author_item(const json11::Json& entry);
    virtual std::string _json_title_next(int index);
    virtual std::string _json_title_prev(int index);
    virtual std::string _json_title();
    virtual std::string _json_title_item(const json11::Json& entry);
    virtual std::string _json_program_next(int index);
    virtual std::string _json_program_prev(int index);
    virtual std::string _json_program();
    virtual std::string _json_program_item(const json11::Json& entry);
    virtual std::string _json_episode_next(int index);
    virtual std::string _json_episode_prev(int index);
    virtual std::string _json_episode();
    virtual std::string _json_episode_item(const json11::Json& entry);
    virtual std::string _json_rating_next(int index);
    virtual std::string _json_rating_prev(int index);
    virtual std::string _json_rating();
    virtual std::string _json_rating_item(const json11::Json& entry);
    // The text after the last "/", or the whole string when it has none.
    virtual std::string _json_last_path_component(const std::string& path);
    virtual std::string _json_summary_next(int index);
    virtual std::string _json_summary_prev(int index);
    virtual std::string _json_summary();
    virtual std::string _json_summary_item(const json11::Json& entry);
    virtual std::string _json_description_next(int index);
    virtual std::string _json_description_prev(int index);
    virtual std::string _json_description();
    virtual std::string _json_description_item(const json11::Json& entry);
    virtual std::string _json_time_now(const char* fmt);
    virtual std::string _json_time_next(int index, const char* fmt);
    virtual std::string _json_time_prev(int index, const char* fmt);
    virtual std::string _json_time(const char* fmt);
    virtual std::string _json_time_item(const json11::Json& entry, const char* fmt);
    virtual std::string _json_time_end_next(int index, const char* fmt);
    virtual std::string _json_time_end_prev(int index, const char* fmt);
    virtual std::string _json_time_end(const char* fmt);
    virtual std::string _json_time_end_item(const json11::Json& entry, const char* fmt);

    // --- date and time formats (text/time_formats.cpp) -----------------------
    // Format `t` (seconds since the epoch, with a fraction) by the tokens of
    // `fmt` ("24h,s", "yyyy-mm-dd", ...; "" for the defaults). With `arm`, the
    // time formatter lowers `time_deadline` to the next change of its text and
    // the date formatter sets `date_deadline` to the end of the day (wall µs).
    // "<time N/A>" when localtime fails; a null `fmt` aborts.
    virtual std::string _json_choose_time_fmt(double t, const char* fmt, bool arm);

    // --- schedule fields, continued (text/schedule_fields.cpp) ---------------
    virtual std::string _json_date_now(const char* fmt);
    virtual std::string _json_date_next(int index, const char* fmt);
    virtual std::string _json_date_prev(int index, const char* fmt);
    virtual std::string _json_date(const char* fmt);
    virtual std::string _json_date_item(const json11::Json& entry, const char* fmt);
    virtual std::string _json_date_end_next(int index, const char* fmt);
    virtual std::string _json_date_end_prev(int index, const char* fmt);
    virtual std::string _json_date_end(const char* fmt);
    virtual std::string _json_date_end_item(const json11::Json& entry, const char* fmt);

    // --- date and time formats, continued (text/time_formats.cpp) -----------
    virtual std::string _json_choose_date_fmt(double t, const char* fmt, bool arm);

    // --- layout (frames/layout.cpp) -----------------------------------------
    void recompute_text_times();

    // The horizontal pixel-aspect factor of a width x height picture on this
    // client's screen: the width over the width the picture would have at
    // the screen aspect; 1.0 while no aspect is known. Glyphs are widened by
    // it and the scroll speed scaled, so text looks the same on non-square
    // pixels (frames/client_context.cpp).
    double pixel_aspect_factor(double width, double height) const;

    // --- glyphs (fonts/) -----------------------------------------------------
    // Uncached loads; use get_font_bmp / get_shadow_bmp, which cache.
    // `face` n > 0: `code` is a glyph index of shaped_faces[n - 1].
    struct font_bmp_cache_storage* load_font_bmp(uint64_t line_height, int32_t code, uint32_t face = 0);
    struct font_bmp_cache_storage* load_shadow_bmp(uint64_t line_height, int32_t code, uint32_t face = 0);
    // Frees every glyph, shadow and outline record and empties the caches.
    void clear_bitmap_caches();

    // --- reader (frames/client_context.cpp) ---------------------------------
    // Creates the frame reader at the context's picture size and timing
    // (sets text_dirty when that size is not 640 x 480).
    void create_reader();
    // Takes over the client's settings: timing once (a field rate doubles the
    // time scale), the reader, the aspect pair (clears the bitmap caches
    // whenever one is given), the picture size; flushes the reader's unused
    // frames and lays the text out again at once when the size or the aspect
    // changed.
    void apply_client_settings(const t4mi_client_settings& settings) override;

    // Text state.
    std::vector<text_run> runs;
    run_style style;                // the style stamped on the next character
    json11::Json data;              // schedule data; null until a packet arrives
    bool text_dirty = true;         // parse and lay out again
    bool parse_pending = true;      // parse again
    bool feed_dirty = false;        // new feed text waiting (honoured up to frame 100)
    int64_t time_deadline = 0;      // wall µs when a time field changes; 0 none
    int64_t date_deadline = 0;      // wall µs when a date field changes; 0 none

    // Glyphs.
    FT_Face current_face = nullptr; // set afresh by every glyph load and kerning query
    glyph_bitmap_cache glyph_cache;
    glyph_bitmap_cache shadow_cache;
    glyph_bitmap_cache outline_cache; // made with the glyphs while outline_width_64 > 0
    held_outline pending_outline;     // the rasteriser's hand-over to the outline cache
    // The faces of the shaped layout's glyphs (frames/shaped_layout.cpp),
    // owned by the font catalogue or the fall-back registry; set by each
    // shaped layout, which also clears the caches keyed by them.
    std::vector<FT_Face> shaped_faces;

    // Layout results.
    std::map<uint64_t, std::vector<placed_glyph>> glyph_placements; // strip x -> glyphs
    uint64_t placement_count = 0;
    uint64_t h_scale = 256;         // 1/256; 256 is 1:1
    int32_t shadow_blur_radius = 0; // pixels
    int32_t shadow_offset_x = 0;    // pixels
    int32_t shadow_offset_y = 0;
    int32_t outline_width_64 = 0;   // outline width in 1/64 pixel; 0: no outline
    uint8_t outline_rgba[4] = {0, 0, 0, 0}; // the outline colour R, G, B, A at the layout
    bool scrolls_right = false;      // the strip moves right (scrollDirection right, scrolling text)
    uint64_t right_origin = 0;      // scrolling right: offset of frame 0 (see strip_offset)
    uint64_t cycle_length = 0;      // strip period in pixels
    uint64_t scroll_step = 4096;    // 1/4096 pixel per step
    uint64_t frames_per_step = 1;
    uint64_t layout_generation = 0;

    // Client settings and the reader.
    uint8_t timing_taken = 0;
    int32_t frame_aspect[2] = {0, 0};
    my_AVIVideoRandomReader* reader = nullptr;
};
