#include "items/scroll_settings.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "items/colour.h"

scroll_settings_record scroll_settings;
int32_t line_count = 1;

int64_t truncate_to_int64(double v)
{
    if (std::isnan(v))
        return 0;
    if (v >= 9.2e18)
        return INT64_MAX;
    if (v <= -9.2e18)
        return INT64_MIN;
    return int64_t(v);
}

namespace {
// Opacities are stored as the low bits of the truncated product, so 1.5
// becomes 382 and, as a byte, 126: values out of range wrap on purpose.
int32_t opacity_of(const char* value) { return int32_t(truncate_to_int64(std::strtod(value, nullptr) * 255.0)); }
} // namespace

uint8_t parse_scroll_direction(const char* value)
{
    if (std::strcmp(value, "right") == 0)
        return scroll_direction_right;
    if (std::strcmp(value, "left") != 0)
        std::fprintf(stderr, "WARNING: unknown scrollDirection %s\n", value);
    return scroll_direction_left;
}

double parse_outline_width(const char* value)
{
    char* end = nullptr;
    const double v = std::strtod(value, &end) / 100.0;
    if (end == value || !(v >= 0.0) || std::isinf(v)) {
        std::fprintf(stderr, "WARNING: unknown outlineWidth %s\n", value);
        return 0.0;
    }
    return v;
}

void reset_scroll_settings(bool rss)
{
    scroll_settings_record& s = scroll_settings;
    s.scrollSpeed = rss ? 3.3 : 1.0;
    s.scrollTime = -1.0;
    s.smoothScroll = 0.0;
    s.emoji = 1;
    s.fontColor = rss ? colour_rgba{255, 255, 255, 255} : colour_rgba{0, 0, 0, 255};
    s.backgroundColor = colour_rgba{0, 0, 0, 0};
    s.shadowColor = colour_rgba{0, 0, 0, 127};
    s.shadowOpacity = 127;
    s.shadowBlur = 0.02;
    s.shadowX = 0.03;
    s.shadowY = 0.03;
    s.space = rss ? 0.0 : 1.0;
    s.fontFamily.clear();
    s.fontStyle.clear();
    s.fontScale = -1;
    s.multiLine = -1;
    s.outlineColor = colour_rgba{0, 0, 0, 255};
    s.outlineWidth = 0.0;
    s.scrollDirection = scroll_direction_left;
    s.static_ = 0;
    s.textShaping = 0;
    s.textDirection = TEXT_DIRECTION_AUTO;
}

void apply_text_shaping(const char* value)
{
    if (std::strcmp(value, "0") == 0 || std::strcmp(value, "1") == 0) {
        scroll_settings.textShaping = uint8_t(value[0] - '0');
        return;
    }
    std::fprintf(stderr, "WARNING: unknown textShaping %s\n", value);
    scroll_settings.textShaping = 0;
}

void apply_text_direction(const char* value)
{
    uint8_t& d = scroll_settings.textDirection;
    if (strcasecmp(value, "auto") == 0)
        d = TEXT_DIRECTION_AUTO;
    else if (strcasecmp(value, "ltr") == 0)
        d = TEXT_DIRECTION_LTR;
    else if (strcasecmp(value, "rtl") == 0)
        d = TEXT_DIRECTION_RTL;
    else {
        std::fprintf(stderr, "WARNING: unknown textDirection %s\n", value);
        d = TEXT_DIRECTION_AUTO;
    }
}

bool apply_scroll_setting(const std::string& key, const char* value, bool rss, pending_opacities& op)
{
    scroll_settings_record& s = scroll_settings;
    if (key == "-scrollSpeed")
        s.scrollSpeed = std::strtod(value, nullptr);
    else if (key == "-scrollTime")
        s.scrollTime = std::strtod(value, nullptr);
    else if (key == "-smoothScroll")
        s.smoothScroll = std::strtod(value, nullptr);
    else if (key == "-emoji") {
        if (strcasecmp(value, "color") == 0)
            s.emoji = 1;
        else if (strcasecmp(value, "monochrome") == 0)
            s.emoji = 0;
    } else if (key == "-fontColor") {
        s.fontColor = parse_hex_colour(value);
    } else if (key == "-fontOpacity") {
        op.font = opacity_of(value);
    } else if (key == "-backgroundColor") {
        s.backgroundColor = parse_hex_colour(value);
    } else if (key == "-backgroundOpacity") {
        op.background = opacity_of(value);
    } else if (key == "-shadowColor") {
        s.shadowColor = parse_hex_colour(value);
    } else if (key == "-shadowOpacity") {
        op.shadow = opacity_of(value);
    } else if (key == "-shadowBlur") {
        s.shadowBlur = std::strtod(value, nullptr) / 100.0;
    } else if (key == "-shadowX") {
        s.shadowX = std::strtod(value, nullptr) / 100.0;
    } else if (key == "-shadowY") {
        s.shadowY = std::strtod(value, nullptr) / 100.0;
    } else if (key == "-justify") {
        s.justify = std::strcmp(value, "center") == 0 ? 1 : std::strcmp(value, "right") == 0 ? 2 : 0;
    } else if (key == "-space") {
        const double v = std::strcmp(value, "none") == 0 ? 0.0 : std::strtod(value, nullptr);
        s.space = v < 0.0 ? 0.0 : v;
    } else if (key == "-fontFamily") {
        s.fontFamily = value;
    } else if (key == "-fontStyle") {
        s.fontStyle = value;
    } else if (key == "-fontScale") {
        // A feed truncates the scale before scaling it (1.5 gives 1000); a scroll-text item does not.
        const double v = std::strtod(value, nullptr);
        s.fontScale = int32_t(rss ? truncate_to_int64(v) * 1000 : truncate_to_int64(v * 1000.0));
    } else if (key == "-multiLine") {
        s.multiLine = int32_t(std::strtol(value, nullptr, 10));
    } else if (key == "-outlineColor") {
        s.outlineColor = parse_hex_colour(value);
    } else if (key == "-outlineOpacity") {
        op.outline = opacity_of(value);
    } else if (key == "-outlineWidth") {
        s.outlineWidth = parse_outline_width(value);
    } else if (key == "-scrollDirection") {
        s.scrollDirection = parse_scroll_direction(value);
    } else if (key == "-textShaping") {
        apply_text_shaping(value);
    } else if (key == "-textDirection") {
        apply_text_direction(value);
    } else {
        return false;
    }
    return true;
}

void fold_opacities(const pending_opacities& op)
{
    scroll_settings.fontColor.a = uint8_t(op.font);
    scroll_settings.backgroundColor.a = uint8_t(op.background);
    scroll_settings.shadowColor.a = uint8_t(op.shadow);
    scroll_settings.shadowOpacity = op.shadow;
    scroll_settings.outlineColor.a = uint8_t(op.outline);
}

void normalise_loaded_settings()
{
    if (scroll_settings.fontScale < 1)
        scroll_settings.fontScale = -1;
    if (scroll_settings.multiLine < 0)
        scroll_settings.multiLine = 1;
}
