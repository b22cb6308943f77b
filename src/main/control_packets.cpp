// The program's own control commands.
//
// "reload" arms the item-file watch so the next loop turn re-reads the item.
// "v4::text" overwrites the text and any scroll setting at once, without
// touching the file; entries apply in packet order, so a colour sent after its
// opacity makes it opaque again (senders put opacities last).
#include "main/control_packets.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <strings.h>

#include "frames/client_context.h"
#include "items/colour.h"
#include "items/scroll_settings.h"
#include "main/file_watch.h"
#include "main/stats_packet.h"
#include "platform/packet.h"
#include "platform/t4mi_assert.h"
#include "platform/t4mi_globals.h"

namespace {
uint8_t opacity_byte(const char* value) { return uint8_t(truncate_to_int64(std::strtod(value, nullptr) * 255.0)); }

// Applies one entry; returns false for a name that is not a setting.
bool apply_text_entry(const char* name, const char* value, int& new_context_only)
{
    scroll_settings_record& s = scroll_settings;
    if (std::strcmp(name, "scrollSpeed") == 0)
        s.scrollSpeed = std::strtod(value, nullptr);
    else if (std::strcmp(name, "smoothScroll") == 0)
        s.smoothScroll = std::strtod(value, nullptr);
    else if (std::strcmp(name, "emoji") == 0) {
        // Another word changes nothing but still counts as a change.
        if (strcasecmp(value, "color") == 0)
            s.emoji = 1;
        else if (strcasecmp(value, "monochrome") == 0)
            s.emoji = 0;
    } else if (std::strcmp(name, "fontColor") == 0) {
        const colour_rgba c = parse_hex_colour(value);
        s.fontColor = colour_rgba{c.r, c.g, c.b, 255};
    } else if (std::strcmp(name, "fontOpacity") == 0)
        s.fontColor.a = opacity_byte(value);
    else if (std::strcmp(name, "backgroundColor") == 0)
        s.backgroundColor = parse_hex_colour(value);
    else if (std::strcmp(name, "backgroundOpacity") == 0)
        s.backgroundColor.a = opacity_byte(value);
    else if (std::strcmp(name, "shadowColor") == 0)
        s.shadowColor = parse_hex_colour(value);
    else if (std::strcmp(name, "shadowOpacity") == 0)
        s.shadowColor.a = opacity_byte(value); // the separate shadowOpacity stays as it was
    else if (std::strcmp(name, "shadowBlur") == 0)
        s.shadowBlur = std::strtod(value, nullptr) / 100.0;
    else if (std::strcmp(name, "shadowX") == 0)
        s.shadowX = std::strtod(value, nullptr) / 100.0;
    else if (std::strcmp(name, "shadowY") == 0)
        s.shadowY = std::strtod(value, nullptr) / 100.0;
    else if (std::strcmp(name, "justify") == 0)
        s.justify = std::strcmp(value, "center") == 0 ? 1 : std::strcmp(value, "right") == 0 ? 2 : 0;
    else if (std::strcmp(name, "space") == 0) {
        const double v = std::strcmp(value, "none") == 0 ? 0.0 : std::strtod(value, nullptr);
        s.space = v < 0.0 ? 0.0 : v;
    } else if (std::strcmp(name, "fontFamily") == 0)
        s.fontFamily = value;
    else if (std::strcmp(name, "fontStyle") == 0)
        s.fontStyle = value;
    else if (std::strcmp(name, "fontScale") == 0)
        s.fontScale = int32_t(truncate_to_int64(std::strtod(value, nullptr) * 1000.0)); // not normalised
    else if (std::strcmp(name, "multiLine") == 0)
        s.multiLine = int32_t(std::strtol(value, nullptr, 10));
    else if (std::strcmp(name, "outlineColor") == 0)
        s.outlineColor = parse_hex_colour(value);
    else if (std::strcmp(name, "outlineOpacity") == 0)
        s.outlineColor.a = opacity_byte(value);
    else if (std::strcmp(name, "outlineWidth") == 0)
        s.outlineWidth = parse_outline_width(value);
    else if (std::strcmp(name, "scrollDirection") == 0)
        s.scrollDirection = parse_scroll_direction(value);
    else if (std::strcmp(name, "textShaping") == 0)
        apply_text_shaping(value);
    else if (std::strcmp(name, "textDirection") == 0)
        apply_text_direction(value);
    else if (std::strcmp(name, "text") == 0)
        s.text = value; // as given: no line folding
    else if (std::strcmp(name, "newcontextonly") == 0) {
        new_context_only = std::strtol(value, nullptr, 10) > 0;
        return false;
    } else
        return false;
    return true;
}

// The message refusing an entry past its size limit, or "" when none is.
std::string oversize_entry(const comm_socket_v4_packet* request)
{
    for (const comm_socket_v4_nv_entry& e : request->entries) {
        const bool text = e.name == "text";
        const size_t most = text ? MAX_TEXT_ENTRY_BYTES : MAX_SETTING_ENTRY_BYTES;
        if (e.value.size() > most)
            return (text ? std::string("Text too large: ") : "Value too large: " + e.name.substr(0, 64) + ", ") +
                   std::to_string(e.value.size()) + " bytes, at most " + std::to_string(most);
    }
    return {};
}

void handle_text(comm_socket_v4_packet* request, comm_socket_v4_packet* respkt)
{
    if (const std::string refused = oversize_entry(request); !refused.empty()) {
        respkt->reset();
        T4MI_ASSERT(comm_socket_v4_packet_begin_writing(respkt,0,"v4::text","ERROR") == 0);
        comm_socket_v4_packet_write_argv_end(respkt);
        comm_socket_v4_packet_write_nv_text(respkt, "message", refused.c_str());
        T4MI_ASSERT(comm_socket_v4_packet_write_end(respkt) == 0);
        return;
    }
    int changed = 0;
    int new_context_only = 0;
    const size_t n = comm_socket_v4_packet_nv_entries(request);
    for (size_t i = 0; i < n; i++) {
        const comm_socket_v4_nv_entry* entry = comm_socket_v4_packet_get_nv_entry(request, i);
        if (entry == nullptr)
            continue;
        const char* name = comm_socket_v4_packet_get_nv_pair_name(request, entry);
        const char* value = comm_socket_v4_packet_get_nv_pair_value_text(request, entry);
        if (name == nullptr || value == nullptr)
            continue;
        if (apply_text_entry(name, value, new_context_only))
            changed = 1;
    }
    // These differ from the file loader's normalisations on purpose.
    scroll_settings.static_ = scroll_settings.scrollSpeed <= 0.0;
    if (scroll_settings.multiLine < 0)
        scroll_settings.multiLine = 0;
    if (changed && !new_context_only)
        for (const auto& [id, ctx] : t4mi_client_contexts.all())
            if (auto* st = dynamic_cast<scrolling_text_client_context*>(ctx.get()))
                st->text_dirty = true;

    respkt->reset();
    T4MI_ASSERT(comm_socket_v4_packet_begin_writing(respkt,0,"v4::text","OK") == 0);
    comm_socket_v4_packet_write_argv_end(respkt);
    T4MI_ASSERT(comm_socket_v4_packet_write_end(respkt) == 0);
}

void handle_reload(comm_socket_v4_packet* respkt)
{
    respkt->reset();
    T4MI_ASSERT(comm_socket_v4_packet_begin_writing(respkt,0,"reload","OK") == 0);
    comm_socket_v4_packet_write_argv_end(respkt);
    T4MI_ASSERT(comm_socket_v4_packet_write_end(respkt) == 0);
    // 99999 confirmations: a real change seen later is accepted at its first check.
    arm_item_file_reload();
}
} // namespace

int my_custom_packet_handler(comm_socket_v4_packet* request, comm_socket_v4_packet* respkt, const void*,
                             t4mi_connection*)
{
    const char* command = comm_socket_v4_packet_get_command(request);
    if (std::strcmp(command, "reload") == 0) {
        handle_reload(respkt);
        return 1;
    }
    if (std::strcmp(command, "v4::text") == 0) {
        handle_text(request, respkt);
        return 1;
    }
    if (std::strcmp(command, "v4::stats") == 0) {
        handle_stats(respkt);
        return 1;
    }
    return 0;
}
