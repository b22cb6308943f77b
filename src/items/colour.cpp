#include "items/colour.h"

#include <cstdlib>
#include <cstring>

colour_rgba parse_hex_colour(const char* value)
{
    if (*value == '#')
        value++;
    const unsigned long v = std::strtoul(value, nullptr, 16);
    return colour_rgba{uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v), 255};
}

int parse_named_colour(const char* text, uint8_t rgb[3])
{
    if (text[0] == '#') {
        const colour_rgba c = parse_hex_colour(text);
        rgb[0] = c.r, rgb[1] = c.g, rgb[2] = c.b;
        return 1;
    }
    static const struct {
        const char* name;
        uint8_t r, g, b;
    } names[] = {
        {"red", 0xff, 0x00, 0x00},    {"green", 0x00, 0xff, 0x00}, {"blue", 0x00, 0x00, 0xff},
        {"orange", 0xff, 0x7f, 0x00}, {"yellow", 0xff, 0xff, 0x00}, {"cyan", 0x00, 0xff, 0xff},
        {"purple", 0xff, 0x00, 0xff}, {"black", 0x00, 0x00, 0x00}, {"white", 0xff, 0xff, 0xff},
        {"gray", 0x7f, 0x7f, 0x7f},
    };
    for (const auto& n : names) {
        if (std::strcmp(text, n.name) == 0) {
            rgb[0] = n.r, rgb[1] = n.g, rgb[2] = n.b;
            return 1;
        }
    }
    return 0;
}
