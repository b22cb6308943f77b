#include "items/item_types.h"

#include <cstring>
#include <strings.h>

#include "items/rss_loader.h"
#include "items/scroll_settings.h"
#include "platform/t4mi_globals.h"

namespace {
// Identification tries the headers in this order.
constexpr item_type TYPES[] = {
    {"application/x-tevrin-scrolling-text", "#Tevrin4ScrollText", load_message, true, true},
    {"text/plain", nullptr, load_message, false, false},
    {"application/x-tevrin-rss-feed", "#Tevrin4RSS", load_rss_feed, true, false},
    {"application/x-tevrin-metadata-template", "#TevrinMetadataTemplate", load_message, false, false},
    {"application/vnd.tv.tevrin.text-item", nullptr, load_message, true, true},
};
} // namespace

std::span<const item_type> item_types() { return TYPES; }

const item_type* find_item_type(const std::string& mime)
{
    for (const item_type& t : TYPES)
        if (strcasecmp(mime.c_str(), t.mime_type) == 0)
            return &t;
    return nullptr;
}

const item_type* find_item_type_exactly(const std::string& mime)
{
    for (const item_type& t : TYPES)
        if (mime == t.mime_type)
            return &t;
    return nullptr;
}

const item_type* item_type_of_first_line(const unsigned char* window, size_t size)
{
    for (const item_type& t : TYPES) {
        if (t.header == nullptr)
            continue;
        // A header counts only when a line end follows it directly.
        const size_t n = std::strlen(t.header);
        if (n < size && std::memcmp(window, t.header, n) == 0 && (window[n] == '\n' || window[n] == '\r'))
            return &t;
    }
    return nullptr;
}

void load_item_text_at_start()
{
    const item_type* t = find_item_type_exactly(t4mi_file_type);
    if (t != nullptr && t->loaded_at_start)
        t->load();
}

void reload_item_text()
{
    const item_type* t = find_item_type_exactly(t4mi_file_type);
    (t != nullptr ? t->load : load_message)();
}

void load_message()
{
    const item_type* t = find_item_type(t4mi_file_type);
    load_item_file(t != nullptr && t->settings_lines);
}
