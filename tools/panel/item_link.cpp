#include "item_link.h"

#include <chrono>
#include <thread>

#include <nlohmann/json.hpp>

#include "frame_png.h"
#include "platform/packet.h"

namespace {

uint64_t now_ms()
{
    using namespace std::chrono;
    return uint64_t(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

} // namespace

item_link::item_link(item_link_options o) : options(std::move(o)), start_ms(now_ms()) {}

bool item_link::attach(t4mi_client& c, std::string* error)
{
    if (c.connected())
        return true;
    std::string path = options.socket_path;
    if (path.empty() && !t4mi_client_read_ready(options.metadir, &path)) {
        *error = "the item is not ready (no ready status.json in " + options.metadir + ")";
        return false;
    }
    c.timeout_ms = options.call_timeout_ms;
    if (!c.connect(path, options.call_timeout_ms)) {
        *error = "cannot reach the item at " + path + ": " + c.error();
        return false;
    }
    return true;
}

item_link::preview* item_link::preview_for(int width, int height, uint64_t now, std::string* error)
{
    const auto key = std::make_pair(width, height);
    auto it = previews.find(key);
    if (it == previews.end()) {
        if (previews.size() >= MAX_PREVIEWS) {
            auto oldest = previews.begin();
            for (auto p = previews.begin(); p != previews.end(); ++p)
                if (p->second.used_ms < oldest->second.used_ms)
                    oldest = p;
            previews.erase(oldest);
        }
        it = previews.emplace(key, preview{}).first;
    }
    preview& p = it->second;
    p.used_ms = now;
    if (p.client && p.client->connected())
        return &p;
    p.client = std::make_unique<t4mi_client>();
    t4mi_client_settings s;
    s.width = width;
    s.height = height;
    s.time_scale = 30000;
    s.frame_duration = 1001;
    if (!attach(*p.client, error))
        return nullptr;
    if (!p.client->send_settings(s)) {
        *error = "settings refused: " + p.client->error();
        p.client->close();
        return nullptr;
    }
    return &p;
}

bool item_link::frame_png(int width, int height, std::string* out, std::string* error)
{
    std::lock_guard<std::mutex> lock(frames_mutex);
    if (frames_stale.exchange(false))
        previews.clear();
    uint64_t now = now_ms();
    const uint64_t next_fetch_ms = fetched_at_ms + uint64_t(options.frame_interval_ms);
    preview* p = preview_for(width, height, now, error);
    if (p == nullptr)
        return false;
    if (now < next_fetch_ms) {
        if (p->png_ms != 0) {
            *out = p->png;
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(next_fetch_ms - now));
        now = now_ms();
    }
    fetched_at_ms = now;
    const uint64_t n = (now - start_ms) * 30000 / 1001000;
    t4mi_client_frame f;
    if (!p->client->request_frame(n, 0, 0, &f)) {
        *error = "frame " + std::to_string(n) + ": " + p->client->error();
        return false;
    }
    std::string encoded;
    const bool ok = frame_to_png(f, &encoded);
    p->client->release_frame(n, 0);
    if (!ok) {
        *error = "cannot encode the frame as PNG";
        return false;
    }
    p->png = encoded;
    p->png_ms = now;
    *out = std::move(encoded);
    return true;
}

bool item_link::stats(std::string* json, std::string* error)
{
    std::lock_guard<std::mutex> lock(control_mutex);
    const uint64_t now = now_ms();
    if (!stats_json.empty() && now < stats_at_ms + uint64_t(options.stats_interval_ms)) {
        *json = stats_json;
        return true;
    }
    if (!attach(control, error))
        return false;
    comm_socket_v4_packet request;
    request.command = "v4::stats";
    t4mi_client_reply reply;
    if (!control.call(request, &reply)) {
        *error = "v4::stats: " + control.error();
        return false;
    }
    if (!reply.ok()) {
        *error = "v4::stats: " + reply.entry("message");
        return false;
    }
    stats_json.assign(reply.packet.data.data(), reply.packet.data_length());
    stats_at_ms = now;
    // Text or settings changed by someone else (a control tool, an edited
    // item file): the previews start again, as after the panel's own
    // commands.
    const nlohmann::json parsed = nlohmann::json::parse(stats_json, nullptr, false);
    std::string settings = parsed.is_object() && parsed.contains("settings") ? parsed["settings"].dump() : "";
    if (settings != last_settings) {
        if (!last_settings.empty())
            frames_stale = true;
        last_settings = std::move(settings);
    }
    *json = stats_json;
    return true;
}

bool item_link::send_text(const std::vector<std::pair<std::string, std::string>>& entries, std::string* error)
{
    std::lock_guard<std::mutex> lock(control_mutex);
    if (!attach(control, error))
        return false;
    if (!control.set_text(entries)) {
        *error = "v4::text: " + control.error();
        return false;
    }
    stats_at_ms = 0;  // the next status shows the change
    frames_stale = true;
    return true;
}

bool item_link::reload(std::string* error)
{
    std::lock_guard<std::mutex> lock(control_mutex);
    if (!attach(control, error))
        return false;
    if (!control.reload()) {
        *error = "reload: " + control.error();
        return false;
    }
    stats_at_ms = 0;
    frames_stale = true;
    return true;
}
