#include "item_link.h"

#include <chrono>
#include <thread>

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

bool item_link::frame_png(int width, int height, std::string* out, std::string* error)
{
    std::lock_guard<std::mutex> lock(frames_mutex);
    const uint64_t now = now_ms();
    if (frames_stale.exchange(false)) {
        frames.close();
        frames_width = frames_height = 0;
        pngs.clear();
    }
    const uint64_t next_fetch_ms = fetched_at_ms + uint64_t(options.frame_interval_ms);
    const auto cached = pngs.find({width, height});
    if (now < next_fetch_ms) {
        if (cached != pngs.end()) {
            *out = cached->second.bytes;
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(next_fetch_ms - now));
    }
    fetched_at_ms = now_ms();
    if (!attach(frames, error))
        return false;
    if (width != frames_width || height != frames_height) {
        t4mi_client_settings s;
        s.width = width;
        s.height = height;
        s.time_scale = 30000;
        s.frame_duration = 1001;
        if (!frames.send_settings(s)) {
            *error = "settings refused: " + frames.error();
            frames.close();
            frames_width = frames_height = 0;
            return false;
        }
        frames_width = width;
        frames_height = height;
    }
    const uint64_t n = (fetched_at_ms - start_ms) * 30000 / 1001000;
    t4mi_client_frame f;
    if (!frames.request_frame(n, 0, 0, &f)) {
        *error = "frame " + std::to_string(n) + ": " + frames.error();
        if (!frames.connected())
            frames_width = frames_height = 0;
        return false;
    }
    std::string encoded;
    const bool ok = frame_to_png(f, &encoded);
    frames.release_frame(n, 0);
    if (!frames.connected())
        frames_width = frames_height = 0;
    if (!ok) {
        *error = "cannot encode the frame as PNG";
        return false;
    }
    // Few sizes are in use at once; forget the oldest past four.
    if (pngs.size() >= 4 && pngs.count({width, height}) == 0) {
        auto oldest = pngs.begin();
        for (auto it = pngs.begin(); it != pngs.end(); ++it)
            if (it->second.at_ms < oldest->second.at_ms)
                oldest = it;
        pngs.erase(oldest);
    }
    pngs[{width, height}] = {fetched_at_ms, encoded};
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
