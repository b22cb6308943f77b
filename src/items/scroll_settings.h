// The scroll settings record: the item's text, look and motion, one per
// process. The loaders (scroll-text, RSS) fill it, the live "v4::text"
// command overwrites fields of it, and every renderer reads it.
//
// This header also holds the other process-wide state of the item sources
// (the RSS feed and its download), so that a reader finds them in one place.
#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>

struct colour_rgba {
    uint8_t r = 0, g = 0, b = 0, a = 0;
    bool operator==(const colour_rgba&) const = default;
};

struct scroll_settings_record {
    std::string text;            // UTF-8; lines joined by LF, paragraphs by byte 31
    double scrollSpeed = 1.0;    // picture heights per second; <= 0: static
    double scrollTime = -1.0;    // seconds per cycle; negative: unset
    double smoothScroll = 0.0;   // >= 0.5: move by whole pixels only
    uint8_t emoji = 1;           // 1 colour emoji, 0 monochrome
    colour_rgba fontColor{255, 255, 255, 255}; // white until the first load
    colour_rgba backgroundColor{0, 0, 0, 0};
    colour_rgba shadowColor{0, 0, 0, 127};
    int32_t shadowOpacity = 127; // 0..255, also the shadow colour's A
    double shadowBlur = 0.02;    // fraction of a line height (file: percent)
    double shadowX = 0.03;       // fraction of a line height (file: percent)
    double shadowY = 0.03;
    uint8_t justify = 0;         // 0 left, 1 center, 2 right; kept across loads
    double space = 1.0;          // blank between repetitions, in picture widths; >= 0
    std::string fontFamily;      // empty: the default face
    std::string fontStyle;
    int32_t fontScale = -1;      // thousandths; -1 automatic, else >= 1
    int32_t multiLine = 1;       // text lines; 0: count them from the text
    // Outline and direction: opt-in looks beyond the classic settings.
    colour_rgba outlineColor{0, 0, 0, 255};
    double outlineWidth = 0.0;   // fraction of a line height (file: percent); 0: no outline
    uint8_t scrollDirection = 0; // scroll_direction_left or _right
    // `static` in the item's vocabulary; a C++ keyword, hence the underscore.
    uint8_t static_ = 0;         // equals (scrollSpeed <= 0.0) after every load
    uint8_t textShaping = 0;     // 0 glyph by glyph; 1 shaped (bidi, HarfBuzz, script fallback; docs/shaping.md)
    uint8_t textDirection = 0;   // shaped paragraph direction: TEXT_DIRECTION_AUTO, _LTR or _RTL
    int64_t file_mtime = 0;      // item file's modification second at the last load; 0 never
};

extern scroll_settings_record scroll_settings;

// Values of scrollDirection: left, the default, lets the text enter on the
// right; right lets it enter on the left and move right.
constexpr uint8_t scroll_direction_left = 0;
constexpr uint8_t scroll_direction_right = 1;

// "left" or "right" (exact case). Any other word gives left and prints
// "WARNING: unknown scrollDirection %s\n".
uint8_t parse_scroll_direction(const char* value);
// A width in percent of the line height, as a fraction. No number, a
// negative, infinite or NaN one gives 0 (no outline) and prints
// "WARNING: unknown outlineWidth %s\n".
double parse_outline_width(const char* value);
// The values of scroll_settings_record::textDirection.
inline constexpr uint8_t TEXT_DIRECTION_AUTO = 0; // the first strong character decides
inline constexpr uint8_t TEXT_DIRECTION_LTR = 1;
inline constexpr uint8_t TEXT_DIRECTION_RTL = 2;

// The shaped-layout settings, shared by the item-file loader and the live
// text packet. An unknown value sets the default and prints
// "WARNING: unknown textShaping %s\n" (or textDirection).
void apply_text_shaping(const char* value);
void apply_text_direction(const char* value);

// The number of text lines the picture is divided into (set by the layout).
extern int32_t line_count;

// Truncates toward zero like a C cast, but saturates instead of overflowing,
// so a wild value from an item file or a control packet stays defined.
int64_t truncate_to_int64(double v);

// Resets the record to the load defaults, keeping `justify` and `text`.
// `rss` selects the feed defaults (speed 3.3, space 0, white text).
void reset_scroll_settings(bool rss);

// Applies one "#-key=value" setting (key with its dash). `rss` selects the
// feed's font-scale rule (truncate before scaling). Opacities are collected
// in `opacities` and folded into the colours by fold_opacities. Returns false
// for an unknown key, which changes nothing.
struct pending_opacities {
    int32_t font = 255;
    int32_t background = 0;
    int32_t shadow = 127;
    int32_t outline = 255;
};
bool apply_scroll_setting(const std::string& key, const char* value, bool rss, pending_opacities& opacities);
void fold_opacities(const pending_opacities& opacities);

// The normalisations every file load ends with: fontScale below 1 becomes -1,
// a negative multiLine becomes 1.
void normalise_loaded_settings();

// Reloads the record and the text from the item file (t4mi_meta->file_fd,
// under an exclusive flock). With `settings_lines` the file is in the
// scroll-text format: "#-key=value" lines are settings, the other lines text;
// otherwise the whole file is the text. load_message (items/item_types.h)
// picks the format by the item's type.
void load_item_file(bool settings_lines);

// --- RSS feed state (see rss_loader.cpp and rss_download.cpp) ---------------
extern std::string feed_url;          // empty: no feed
extern int64_t feed_interval;         // µs between downloads
extern uint64_t feed_last_fetch;      // monotonic µs of the last download; 0 unknown
extern int feed_changed;              // a new rss.xml is in place
extern pid_t download_pid;            // the running downloader, or -1
extern uint64_t download_deadline;    // monotonic µs when it is stopped
