// The figures come from where they live: the serve counters and the message
// memory (platform/serve_stats.h), the frame memory (platform/tnb.h), the
// scroll settings in the vocabulary of "v4::text" (so that a form can be
// filled with them and sent back unchanged), and the feed state of an RSS
// item.
#include "main/stats_packet.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "items/item_types.h"
#include "items/rss_loader.h"
#include "items/scroll_settings.h"
#include "platform/client_context.h"
#include "platform/clock.h"
#include "platform/packet.h"
#include "platform/render_ahead.h"
#include "platform/serve_stats.h"
#include "platform/t4mi_assert.h"
#include "platform/t4mi_globals.h"
#include "platform/tnb.h"

namespace {

std::string hex_colour(const colour_rgba& c)
{
    char text[8];
    std::snprintf(text, sizeof text, "%02x%02x%02x", c.r, c.g, c.b);
    return text;
}

// The settings as "v4::text" takes them: opacities 0..1, shadow sizes in
// percent of a line height, the scale as a factor (null: automatic).
nlohmann::json settings_json()
{
    const scroll_settings_record& s = scroll_settings;
    static const char* const justify_words[] = {"left", "center", "right"};
    nlohmann::json j = {
        {"text", s.text},
        {"scrollSpeed", s.scrollSpeed},
        {"smoothScroll", s.smoothScroll},
        {"emoji", s.emoji ? "color" : "monochrome"},
        {"fontColor", hex_colour(s.fontColor)},
        {"fontOpacity", s.fontColor.a / 255.0},
        {"backgroundColor", hex_colour(s.backgroundColor)},
        {"backgroundOpacity", s.backgroundColor.a / 255.0},
        {"shadowColor", hex_colour(s.shadowColor)},
        {"shadowOpacity", s.shadowColor.a / 255.0},
        {"shadowBlur", s.shadowBlur * 100.0},
        {"shadowX", s.shadowX * 100.0},
        {"shadowY", s.shadowY * 100.0},
        {"justify", justify_words[s.justify < 3 ? s.justify : 0]},
        {"space", s.space},
        {"fontFamily", s.fontFamily},
        {"fontStyle", s.fontStyle},
        {"fontScale", nullptr},
        {"multiLine", s.multiLine},
    };
    if (s.fontScale >= 1)
        j["fontScale"] = s.fontScale / 1000.0;
    return j;
}

// The feed of an RSS item: its address, the download interval, how long ago
// the last download finished (null: not known yet) and the entries of the
// text (one per feed item, as the loader joined them with byte 31).
nlohmann::json feed_json(uint64_t now_us)
{
    nlohmann::json entries = nlohmann::json::array();
    const std::string& text = scroll_settings.text;
    for (size_t start = 0; start < text.size();) {
        const size_t end = std::min(text.find('\x1f', start), text.size());
        entries.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    nlohmann::json j = {
        {"url", feed_url},
        {"interval", double(feed_interval) / 1e6},
        {"last_fetch_age", nullptr},
        {"downloading", download_pid >= 0},
        {"entries", entries},
    };
    if (feed_last_fetch != 0 && feed_last_fetch <= now_us)
        j["last_fetch_age"] = double(now_us - feed_last_fetch) / 1e6;
    return j;
}

bool is_rss_item()
{
    const item_type* type = find_item_type_exactly(t4mi_file_type);
    return type != nullptr && type->load == load_rss_feed;
}

} // namespace

std::string stats_json(uint64_t now_us)
{
    nlohmann::json j = {
        {"clients", t4mi_client_contexts.count()},
        {"frames_served", serve_stats_frames_served()},
        {"frames_per_second", serve_stats_frames_last_second(now_us)},
        {"frame_memory",
         {{"buffer_bytes", image_tnb_buffer >= 1 ? tnb_buffer_size(image_tnb_buffer) : uint64_t(0)},
          {"frames", tnb_alloc_live_count()},
          {"bytes", tnb_alloc_live_bytes()}}},
        {"render_ahead", {{"on", t4mi_render_ahead != 0}, {"rendered", t4mi_render_ahead_rendered()},
                          {"used", t4mi_render_ahead_used()}}},
        {"messages", serve_stats_recent_messages()},
        {"settings", settings_json()},
        {"feed", nullptr},
    };
    if (is_rss_item())
        j["feed"] = feed_json(now_us);
    // Item text and messages are bytes from outside: bad UTF-8 is replaced
    // rather than refused, so the reply is always JSON.
    return j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

void handle_stats(comm_socket_v4_packet* respkt)
{
    respkt->reset();
    T4MI_ASSERT(comm_socket_v4_packet_begin_writing(respkt, 0, "v4::stats", "OK") == 0);
    comm_socket_v4_packet_write_argv_end(respkt);
    T4MI_ASSERT(comm_socket_v4_packet_write_end(respkt) == 0);
    const std::string text = stats_json(monotonic_clock_us());
    respkt->set_data(text.data(), text.size());
}
